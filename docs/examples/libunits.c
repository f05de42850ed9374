/* A module that converts units: a shared object, libunits.so, which a server loads by its path. */
#include <rm.h>

void UNITS_ModEntry(const char* name);
const char* unitsDescribe(void);

static double toFahrenheit(double celsius)
{
    return celsius * 1.8 + 32.0;
}

static double toMiles(double kilometres)
{
    return kilometres / 1.609344;
}

/* Exported: found by its name without being registered. */
const char* unitsDescribe(void)
{
    return "temperatures and lengths";
}

/* Called once, when the module is loaded. `name` is the path that the server gave: the functions
   are registered under it. */
void UNITS_ModEntry(const char* name)
{
    rm_emRegFcn(name, "fahrenheit", (void*)toFahrenheit);
    rm_emRegFcn(name, "miles", (void*)toMiles);
}
