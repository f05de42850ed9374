/* A host in C that links modules in, or, built without RM_HOST_HAS_MODULES, does not. It is linked
   against the shared library, position-independent and not, and against the archive; the case to
   run is its argument. */
#include "host_case.h"

#include "rm.h"

#include <setjmp.h>
#include <stddef.h>
#include <stdint.h>

static char fields[8]; /* each has an address of its own */
static int timesAsked = 0;

#ifdef RM_HOST_HAS_MODULES
static const EmListEntry emList[] = {{"first", &fields[0], &fields[1], &fields[2]}};
static const IefListEntry iefList[] = {{"ief0", &fields[3]}, {"ief1", &fields[4]}};
static const UdfListEntry udfList[] = {{"udf", &fields[5]}};
static const UdpListEntry udpList[] = {{"udp", &fields[0], &fields[1], &fields[6]}};

void rm_getEmList(uint16_t* emCount, const EmListEntry** em, uint16_t* iefCount,
                  const IefListEntry** ief, uint16_t* udfCount, const UdfListEntry** udf,
                  uint16_t* udpCount, const UdpListEntry** udp)
{
    timesAsked++;
    *emCount = 1;
    *em = emList;
    *iefCount = 2;
    *ief = iefList;
    *udfCount = 1;
    *udf = udfList;
    *udpCount = 1;
    *udp = udpList;
}

static int answers(int16_t handle, const char* name, const char* field)
{
    void* address = NULL;
    return rm_emGetFcnAddr(handle, name, &address) == RM_SUCCESS && address == field;
}

static void hostsModulesAreLinkedIn(void)
{
    int16_t handle = RM_NONE;
    CHECK(rm_emLoad("no/such/directory/udp", &handle) == RM_SUCCESS);
    CHECK(handle == 4);
    CHECK(timesAsked == 1);
    CHECK(answers(0, "ModInit", &fields[0]));
    CHECK(answers(0, "ModCleanup", &fields[1]));
    CHECK(answers(0, "ModDescribeFcns", &fields[2]));
    CHECK(answers(1, "iefDescribeFcns", &fields[3]));
    CHECK(answers(2, "iefDescribeFcns", &fields[4]));
    CHECK(answers(3, "udfDescribeFcns", &fields[5]));
    CHECK(answers(4, "udpDescribeFcns", &fields[6]));
    void* address = NULL;
    CHECK(rm_emGetFcnAddr(5, "ModInit", &address) == RM_UNKNOWN_MODULE);
}
#else
static void noModulesAreLinkedIn(void)
{
    void* address = &fields[0];
    CHECK(rm_emInit() == RM_SUCCESS);
    CHECK(rm_emGetFcnAddr(0, "ModInit", &address) == RM_UNKNOWN_MODULE);
    CHECK(address == &fields[0]);
    CHECK(rm_emRegFcn("first", "ModInit", &fields[1]) == RM_SUCCESS);
    CHECK(rm_emGetFcnAddr(0, "ModInit", &address) == RM_SUCCESS);
    CHECK(address == &fields[1]);
    CHECK(timesAsked == 0);
}

static void listsAreEmpty(void)
{
    uint16_t counts[4] = {7, 7, 7, 7};
    static const EmListEntry someEm;
    static const IefListEntry someIef;
    static const UdfListEntry someUdf;
    static const UdpListEntry someUdp;
    const EmListEntry* em = &someEm;
    const IefListEntry* ief = &someIef;
    const UdfListEntry* udf = &someUdf;
    const UdpListEntry* udp = &someUdp;
    rm_getEmList(&counts[0], &em, &counts[1], &ief, &counts[2], &udf, &counts[3], &udp);
    for (int i = 0; i < 4; i++) {
        CHECK(counts[i] == 0);
    }
    CHECK(em == NULL && ief == NULL && udf == NULL && udp == NULL);
}
#endif

/* The variables stay shared beside the function. */
static void librarySeesWhatTheHostSets(void)
{
    fileHandleLimit = 9;
    rm_fileHandleLimit(5); /* never lowers it */
    CHECK(fileHandleLimit == 9);
    rm_fileHandleLimit(12);
    CHECK(fileHandleLimit == 12);
}

static jmp_buf exitTarget;

static void endLibrary(void)
{
    if (setjmp(exitTarget) == 0) {
        rm_exitJump(exitTarget);
        rm_exit(9);
    }
}

int main(int argc, char** argv)
{
    static const HostCase cases[] = {
#ifdef RM_HOST_HAS_MODULES
        {"HostsModulesAreLinkedIn", hostsModulesAreLinkedIn},
#else
        {"NoModulesAreLinkedIn", noModulesAreLinkedIn},
        {"ListsAreEmpty", listsAreEmpty},
#endif
        {"LibrarySeesWhatTheHostSets", librarySeesWhatTheHostSets},
        {NULL, NULL},
    };
    return runCase(cases, argc > 1 ? argv[1] : "", endLibrary);
}
