/* A host with module tables of its own opens a shared object, calls into it, and closes it. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

typedef const char* Describe(void);

int main(int argc, char** argv)
{
    const char* path = argc > 1 ? argv[1] : "./libunits"; /* ./libunits.so */

    /* Runs UNITS_ModEntry. What that registers finds no registry here, and is logged. */
    void* units = NULL;
    if (rm_OSemLoad(path, &units) != RM_SUCCESS) {
        return 1; /* the log has the dynamic linker's reason */
    }

    void* address = NULL;
    int good = rm_OSemGetFcnAddr(units, "unitsDescribe", &address) == RM_SUCCESS;
    if (good) {
        const char* text = ((Describe*)address)(); /* the module's: gone when it is closed */
        printf("%s: %s\n", path, text);
        good = strcmp(text, "temperatures and lengths") == 0;
    }
    good = good && rm_OSemGetFcnAddr(units, "toMiles", &address) == RM_NOT_FOUND; /* static there */
    good = good && address == NULL;

    good = good && rm_OSemUnload(units) == RM_SUCCESS;
    rm_freeMemory(units, 0); /* what rm_OSemUnload() leaves to its caller */

    units = NULL;
    good = good && rm_OSemLoad("./libmissing", &units) == RM_NOT_FOUND && units == NULL;
    rm_freeall();
    return good ? 0 : 1;
}
