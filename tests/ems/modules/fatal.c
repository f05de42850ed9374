/* Modules whose entry points do not come back. */
#include "module.h"

char early;

/* After it has registered a function. */
ENTRY_POINT(FATAL)
{
    rm_emRegFcn(module, "early", &early);
    fatalRMExit("a module gives up");
}

ENTRY_POINT(BADTAG)
{
    (void)module;
    rm_getMemory(10, 1234);
}

ENTRY_POINT(LEAVES)
{
    (void)module;
    rm_exit(3);
}
