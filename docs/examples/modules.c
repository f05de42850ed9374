/* A server loads a module and calls its functions by name. */
#include <rm.h>
#include <stdio.h>

typedef double Convert(double value);

/* 1 when the module has the function and it was called. */
static int convert(int16_t module, const char* function, double value, double* result)
{
    void* address = NULL; /* null, for modules that leave it untouched */
    if (rm_emGetFcnAddr(module, function, &address) != RM_SUCCESS || address == NULL) {
        return 0;
    }
    *result = ((Convert*)address)(value);
    printf("%s of %g: %g\n", function, value, *result);
    return 1;
}

int main(int argc, char** argv)
{
    const char* path = argc > 1 ? argv[1] : "./libunits"; /* of libunits.so */
    int16_t units = RM_NONE;
    if (rm_emLoad(path, &units) != RM_SUCCESS) {
        rm_exit(1); /* the log has the reason */
    }

    double warm = 0.0;
    double far = 0.0;
    int good = convert(units, "fahrenheit", 100.0, &warm) && warm > 211.9 && warm < 212.1;
    good = good && convert(units, "miles", 1.609344, &far) && far > 0.9 && far < 1.1;
    good = good && !convert(units, "Miles", 1.0, &far); /* the case of a name counts */

    void* address = NULL; /* neither registered nor static: exported */
    good = good && rm_emGetFcnAddr(units, "unitsDescribe", &address) == RM_SUCCESS;

    /* Known by the last part of its path, and loaded once. */
    int16_t again = RM_NONE;
    good = good && rm_emLoad("libunits", &again) == RM_SUCCESS && again == units;

    /* One unload is enough; no function of the module may be called from here on. */
    good = good && rm_emUnload(units) == RM_SUCCESS;
    good = good && rm_emGetFcnAddr(units, "miles", &address) == RM_UNKNOWN_MODULE;
    rm_exit(good ? 0 : 1);
}
