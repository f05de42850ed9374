/* A host in C that is linked against the shared library. It is built twice, position-independent
   and not; the case to run is its argument. */
#include "host_case.h"
#include "host_names.h"

#include "rm.h"

#include <errno.h>
#include <setjmp.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

enum { kFiles = 6, kLimit = 3 };

static int16_t openNew(const char* name)
{
    const int16_t handle =
        rm_fileOpen(name, RM_O_RDWR | RM_O_CREAT | RM_O_TRUNC, FILE_NOPRESIZE, 0, 512);
    CHECK(handle != RM_NONE);
    return handle;
}

static void librarySeesTheLimitThatTheHostSets(void)
{
    fileHandleLimit = kLimit;
    int16_t handles[kFiles];
    char name[2] = "a";
    for (int i = 0; i < kFiles; i++, name[0]++) {
        handles[i] = openNew(name);
        CHECK(rm_fileSeekWrite(handles[i], 0, name, 1) == 1);
    }

    uint32_t open = 0;
    uint32_t parked = 0;
    rm_fileCounts(&open, &parked, NULL, NULL);
    CHECK(open == kLimit);
    CHECK(parked == kFiles - kLimit);

    name[0] = 'a';
    for (int i = 0; i < kFiles; i++, name[0]++) {
        char read = '\0';
        CHECK(rm_fileSeekRead(handles[i], 0, &read, 1) == 1);
        CHECK(read == name[0]);
        rm_fileClose(handles[i]);
    }
}

static void hostSeesTheLimitThatTheLibraryRaises(void)
{
    CHECK(fileHandleLimit == 32);
    rm_fileHandleLimit(50);
    CHECK(fileHandleLimit == 50);
}

static void librarySeesTheDiskStateThatTheHostSets(void)
{
    const int16_t handle = openNew("a");
    struct stat file;

    CHECK(rmDiskFull == 1);
    CHECK(rm_fileSeekWrite(handle, 0, "x", 1) == 1);
    CHECK(stat("a", &file) == 0 && file.st_size == 1);

    rmDiskFull = 0;
    growSem = RM_NULL_SYNC;
    CHECK(rm_fileSeekWrite(handle, 600, "x", 1) == 1);
    CHECK(stat("a", &file) == 0 && file.st_size == 1024);

    rminfree = 1e300; /* more than any disk has: the next growth turns the library read-only */
    CHECK(rm_fileSeekWrite(handle, 1100, "x", 1) == 1);
    CHECK(rmDiskFull == 1);
    rm_fileClose(handle);
}

static void librarySeesTheLockThatTheHostGives(void)
{
    static jmp_buf target;
    volatile int jumped = 1;
    if (setjmp(target) == 0) {
        rm_errorJump(target);
        fileSem = 19; /* no such lock: entering it is fatal */
        openNew("a");
        jumped = 0;
    }
    CHECK(jumped);
    fileSem = RM_NULL_SYNC;
}

static void librarySeesTheLockOfGrowthThatTheHostGives(void)
{
    static jmp_buf target;
    volatile int jumped = 1;
    const int16_t handle = openNew("a");
    rm_setDiskFull(0);
    CHECK(rm_fileSeekWrite(handle, 0, "x", 1) == 1);
    CHECK(growSem >= 0);
    const int16_t made = growSem;
    if (setjmp(target) == 0) {
        rm_errorJump(target);
        growSem = 19; /* no such lock: entering it is fatal */
        CHECK(rm_fileSeekWrite(handle, 5000, "x", 1) == 1);
        jumped = 0;
    }
    CHECK(jumped);
    growSem = made;
}

static void librarySeesThatTheHostTurnsSyncsOff(void)
{
    CHECK(fileCommit == -1);
    errno = 0;
    CHECK(rm_flSync(-1) == 0);
    CHECK(errno == EBADF); /* the system was asked */

    fileCommit = 0;
    errno = 0;
    CHECK(rm_flSync(-1) == 0);
    CHECK(errno == 0);
}

/* Of a new tag. */
static ptrdiff_t bytesBetweenTwoBlocks(void)
{
    const int16_t tag = rm_allocTag(NULL, RM_NO_LIMIT);
    const char* first = rm_getMemory(8, tag);
    const char* second = rm_getMemory(8, tag);
    return first < second ? second - first : first - second;
}

static void librarySeesThatTheHostWantsASegmentABlock(void)
{
    enum { kTwoUnits = 16 };

    CHECK(seg_alloc == 0);
    CHECK(bytesBetweenTwoBlocks() == kTwoUnits);
    seg_alloc = 1; /* after the first tag, with which it is read from the environment */
    CHECK(bytesBetweenTwoBlocks() > kTwoUnits);
}

static void libraryLeavesTheHandlesOfTheHostAlone(void)
{
    CHECK(hNormSh == 0 && hPriSh == 0);
    hNormSh = 7;
    hPriSh = 8;
    rm_init(RM_NO_LIMIT, kLimit, 0.0);
    rm_fileClose(openNew("a"));
    CHECK(hNormSh == 7 && hPriSh == 8);
}

static void hostSeesWhatTheLibraryStores(void)
{
    CHECK(syslogon == 0);
    CHECK(rm_systemLog(2) == 0);
    CHECK(syslogon == 2);

    CHECK(rmemavail == RM_NO_LIMIT);
    rm_setMemoryLimit(12345);
    CHECK(rmemavail == 12345);

    rm_setOSTerm(7);
    CHECK(rmanTerm == 7);

    CHECK(fileSem == RM_NONE);
    rm_fileClose(openNew("a"));
    CHECK(fileSem >= 0);

    sysfile = openNew("b");
    rm_systemLogClose();
    CHECK(sysfile == RM_NONE);
}

static void hostsOwnFunctionsDisturbNothing(void)
{
    rm_freeTagMemory(99, 0); /* refused by the library's own checkTag */

    char setting[] = "colour=blue";
    rm_putLocalEnv(setting);
    const char* value = rm_getLocalEnv("COLOUR");
    CHECK(value != NULL);

    const BagCtl control = {.flags = BAG_KEY_ISTRING, .initialSlots = 4, .elementSize = 8};
    Bag* bag = NULL;
    CHECK(bagCreate(&control, &bag) == 0);
    CHECK(bagAdd(bag, "COLOUR\0") == 0);
    CHECK(bagFind(bag, "colour", NULL, NULL) == 0);
    CHECK(bagDestroy(bag) == 0);
    CHECK(ownCalls == 0);

    /* They are the host's all the same. */
    CHECK(StrUpper(setting) == setting && strcmp(setting, "colour=blue") == 0);
    CHECK(checkTag(5, NULL) == 5 && GetLine(setting) == setting);
    CHECK(stricmp("a", "b") == 0 && strnicmp("a", "b", 1) == 0);
    CHECK(ownCalls == 5);
}

static jmp_buf exitTarget;

/* The library's own end, which removes what it made and comes back here. */
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
        {"LibrarySeesTheLimitThatTheHostSets", librarySeesTheLimitThatTheHostSets},
        {"HostSeesTheLimitThatTheLibraryRaises", hostSeesTheLimitThatTheLibraryRaises},
        {"LibrarySeesTheDiskStateThatTheHostSets", librarySeesTheDiskStateThatTheHostSets},
        {"LibrarySeesTheLockThatTheHostGives", librarySeesTheLockThatTheHostGives},
        {"LibrarySeesTheLockOfGrowthThatTheHostGives", librarySeesTheLockOfGrowthThatTheHostGives},
        {"LibrarySeesThatTheHostTurnsSyncsOff", librarySeesThatTheHostTurnsSyncsOff},
        {"LibrarySeesThatTheHostWantsASegmentABlock", librarySeesThatTheHostWantsASegmentABlock},
        {"LibraryLeavesTheHandlesOfTheHostAlone", libraryLeavesTheHandlesOfTheHostAlone},
        {"HostSeesWhatTheLibraryStores", hostSeesWhatTheLibraryStores},
        {"HostsOwnFunctionsDisturbNothing", hostsOwnFunctionsDisturbNothing},
        {NULL, NULL},
    };
    return runCase(cases, argc > 1 ? argv[1] : "", endLibrary);
}
