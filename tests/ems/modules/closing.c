/* A module that uses the library while it is closed: it registers a function under the name that it
 * was given and one for "late", loads ./m01 and unloads ./m00. */
#include "module.h"

#include <stdio.h>

static char ownName[128];
char late;

ENTRY_POINT(CLOSING)
{
    snprintf(ownName, sizeof(ownName), "%s", module);
}

__attribute__((destructor)) static void leave(void)
{
    int16_t handle = RM_NONE;
    if (ownName[0] == '\0' || rm_emLoad("./m00", &handle) != RM_SUCCESS) {
        return;
    }
    rm_emRegFcn(ownName, "atTheEnd", &late);
    rm_emRegFcn("late", "atTheEnd", &late);
    rm_emUnload(handle);
    rm_emLoad("./m01", &handle);
}
