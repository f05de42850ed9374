// Start-up: one call that gives the other services what they need to know, and the state of the
// disk.
//
// Why: the limits, the two locks that all processes of the server share and the setting from its
// profile have one moment at which they must be there: before the host forks and opens files. Each
// has a value with which the library works before anybody set it.
//
// Owns: the settings below. Of the services that read them, the file layer makes the locks when
// nobody has, growth sets `rmDiskFull`, and the end of all sync objects takes the locks away.
//
// Locks: those of reading an INI file. Fatal: a sync object that cannot be made, no memory, a lock
// that is not free in time.
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <cstdlib>

double rminfree = 0.0;         // bytes that growth leaves free on the disk
int16_t fileHandleLimit = 32;  // descriptors that the file table holds at most, -1 for no limit
int16_t fileSem = RM_NONE;     // guards the file table; made here, or on first use
int16_t growSem = RM_NONE;     // serialises the growth of files; made here, or on first use
int16_t fileCommit = -1;       // 0: files are not synced; -1: nobody has said yet, they are

// Deliberate: 1 until the host clears it, so that no file grows ahead of its writes before the host
// has said that there is room.
int16_t rmDiskFull = 1;

// Kept for the host; nothing here reads them.
uint32_t hNormSh = 0;
uint32_t hPriSh = 0;

namespace
{
constexpr int16_t kCommitSize = 10;  // bytes of the setting's text, terminator included
constexpr uint16_t kWithValues = 1;

// Deliberate: a text that is no number counts as 0, so it turns commits off; only a missing key
// leaves them on.
int16_t readFileCommit()
{
    char text[kCommitSize];
    if (rm_iniGet("server", "FileCommit", text, kCommitSize, kWithValues) != RM_SUCCESS) {
        return 1;
    }
    return static_cast<int16_t>(std::clamp(std::atoi(text), INT16_MIN, INT16_MAX));
}
}  // namespace

void rm_init(uint32_t memoryLimit, int16_t handleLimit, double freeSpace)
{
    rmemavail = memoryLimit;
    fileHandleLimit = handleLimit;
    rminfree = freeSpace;
    if (fileSem == RM_NONE) {
        fileSem = rm_syncCreate("fileSem");
    }
    if (growSem == RM_NONE) {
        growSem = rm_syncCreate("growSem");
    }
    if (fileCommit == -1) {
        fileCommit = readFileCommit();
    }
}

double rm_getDiskFreeSpace(const char* path)
{
    return rm_flGetDiskFreeSpace(path);
}

void rm_setDiskFull(int16_t flag)
{
    rmDiskFull = flag;
}

int16_t rm_getDiskFull()
{
    return rmDiskFull;
}
