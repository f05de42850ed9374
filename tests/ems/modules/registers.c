/* Modules that register functions under the name that they were given: one, three, fifty, and one
 * name twice. The first function registered is "f0", its address that of the first byte of
 * `registered`, and so on. */
#include "module.h"

#include <stdio.h>

enum { kMost = 50 };

char registered[kMost];
int16_t registerStatus = 0; /* the last one that was not 0 */

static void registerFunctions(const char* module, int count)
{
    for (int i = 0; i < count; i++) {
        char name[16];
        snprintf(name, sizeof(name), "f%d", i);
        const int16_t status = rm_emRegFcn(module, name, &registered[i]);
        registerStatus = status != RM_SUCCESS ? status : registerStatus;
    }
}

ENTRY_POINT(REG1)
{
    registerFunctions(module, 1);
}

ENTRY_POINT(REG3)
{
    registerFunctions(module, 3);
}

ENTRY_POINT(REG50)
{
    registerFunctions(module, kMost);
}

ENTRY_POINT(REGTWICE)
{
    registerFunctions(module, 1);
    registerStatus = rm_emRegFcn(module, "f0", &registered[1]);
}

/* What REGEXPORTED also registers, under its own name and at another address. */
void sharedName(void);

void sharedName(void) {}

ENTRY_POINT(REGEXPORTED)
{
    registerStatus = rm_emRegFcn(module, "sharedName", &registered[2]);
}
