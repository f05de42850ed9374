/* A server whose modules are linked in: it tells the library which, and runs them all alike. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

typedef void Step(void);
typedef const char* Describe(void);

static int running = 0;

static void start(void)
{
    ++running;
}

static void stop(void)
{
    --running;
}

static const char* describeGeo(void)
{
    return "distance, area";
}

static const char* describeText(void)
{
    return "soundex";
}

/* The name, and what is found as "ModInit", "ModCleanup" and "ModDescribeFcns". */
static const EmListEntry modules[] = {
    {"geo", (void*)start, (void*)stop, (void*)describeGeo},
    {"text", (void*)start, (void*)stop, (void*)describeText},
};

enum { MODULES = sizeof modules / sizeof modules[0] };

/* Ours replaces the library's, which has no modules. */
void rm_getEmList(uint16_t* emCount, const EmListEntry** emList, uint16_t* iefCount,
                  const IefListEntry** iefList, uint16_t* udfCount, const UdfListEntry** udfList,
                  uint16_t* udpCount, const UdpListEntry** udpList)
{
    *emCount = MODULES;
    *emList = modules;
    *iefCount = *udfCount = *udpCount = 0;
    *iefList = NULL;
    *udfList = NULL;
    *udpList = NULL;
}

static void* find(int16_t module, const char* function)
{
    void* address = NULL; /* stays so for a name that a linked-in module does not know */
    rm_emGetFcnAddr(module, function, &address);
    return address;
}

int main(void)
{
    int good = rm_emInit() == RM_SUCCESS;
    for (int16_t module = 0; module < MODULES; ++module) { /* their handles, from 0 up */
        ((Step*)find(module, "ModInit"))();                /* the library calls none of them */
        printf("%s\n", ((Describe*)find(module, "ModDescribeFcns"))());
    }
    good = good && running == MODULES && find(0, "distance") == NULL;

    int16_t text = RM_NONE; /* by its name: linked in, so nothing is loaded */
    good = good && rm_emLoad("text", &text) == RM_SUCCESS && text == 1;
    good = good && strcmp(((Describe*)find(text, "ModDescribeFcns"))(), "soundex") == 0;

    for (int16_t module = 0; module < MODULES; ++module) {
        ((Step*)find(module, "ModCleanup"))();
    }
    rm_exit(good && running == 0 ? 0 : 1);
}
