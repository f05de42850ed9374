/* An object that is no module: nothing in it ends with _ModEntry. */
#include "module.h"

#include <stddef.h>

int exportedSum(int a, int b);

int exportedSum(int a, int b)
{
    return a + b;
}

__attribute__((destructor)) static void leave(void)
{
    if (moduleClosed != NULL) {
        moduleClosed("noentry");
    }
}
