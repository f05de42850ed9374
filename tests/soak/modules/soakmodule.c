/* A module for the soak to load, built three times with another SOAK_ENTRY and SOAK_NUMBER. */
#include "rm.h"

int exported(int value);
void SOAK_ENTRY(const char* name);

int exported(int value)
{
    return value + SOAK_NUMBER * 1000;
}

static int registered(int value)
{
    return value + SOAK_NUMBER * 100000;
}

void SOAK_ENTRY(const char* name)
{
    rm_emRegFcn(name, "registered", (void*)registered);
}
