/* A module for every name that a case gives it: it has the entry points of all of them, and leaves
 * to its host what happens there. It exports two functions and a variable. */
#include "module.h"

#include <stddef.h>
#include <stdio.h>

static char ownName[128]; /* as its entry point was given it last */

int exportedVariable = 4711;

const char* exportedName(void);
int exportedSum(int a, int b);

const char* exportedName(void)
{
    return ownName;
}

int exportedSum(int a, int b)
{
    return a + b;
}

static void enter(const char* symbol, const char* module)
{
    snprintf(ownName, sizeof(ownName), "%s", module);
    if (moduleEntered != NULL) {
        moduleEntered(symbol, module);
    }
}

__attribute__((destructor)) static void leave(void)
{
    if (moduleClosed != NULL) {
        moduleClosed(ownName);
    }
}

#define NAMED(NAME)           \
    ENTRY_POINT(NAME)         \
    {                         \
        enter(#NAME, module); \
    }

/* clang-format off */
#define TEN(N) \
    NAMED(M##N##0) NAMED(M##N##1) NAMED(M##N##2) NAMED(M##N##3) NAMED(M##N##4) \
    NAMED(M##N##5) NAMED(M##N##6) NAMED(M##N##7) NAMED(M##N##8) NAMED(M##N##9)

NAMED()
NAMED(GEO)
NAMED(ABC)
TEN(0)
TEN(1)
TEN(2)
TEN(3)
/* clang-format on */
