/* A module that releases tag 0 while it is opened, before its entry point could be called. */
#include "module.h"

ENTRY_POINT(OPENING)
{
    (void)module;
}

__attribute__((constructor)) static void enter(void)
{
    rm_freeTagMemory(0, 0);
}
