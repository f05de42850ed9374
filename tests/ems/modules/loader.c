/* A module that loads another one from its entry point. */
#include "module.h"

int16_t innerStatus = -99;
int16_t innerHandle = -99;

ENTRY_POINT(LOADER)
{
    (void)module;
    innerStatus = rm_emLoad("./inner/m00", &innerHandle);
}
