/* A module that registers its function under the name of another one. */
#include "module.h"

char borrowed;

ENTRY_POINT(OTHERNAME)
{
    (void)module;
    rm_emRegFcn("some/where/other", "borrowed", &borrowed);
}
