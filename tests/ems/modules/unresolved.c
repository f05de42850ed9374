/* A module that calls a function that nobody has. It is linked so that a loader that resolves
 * functions when they are first called would take it. */
#include "module.h"

void functionOfNobody(void);
void callsNobody(void);

void callsNobody(void)
{
    functionOfNobody();
}

ENTRY_POINT(UNRESOLVED)
{
    rm_systemLogWrite("%s was entered", module);
}
