// Growing files ahead of writes, and the watch on the disk.
//
// Why: a file that is extended in large steps before it is written has its space reserved: a full
// disk is met here, in one place and before any of the caller's data is on its way. When the free
// space falls below what must be left, the server turns read-only instead of failing later in the
// middle of an update.
//
// Locks: growSem around the extension, for all processes of the server; inside a seekSem for a
// write, inside fileSem for an open.
//
// Fatal: a file that cannot be extended, whatever mode it was opened in.
#include "rm/file/file.h"
#include "rm/rmsrv/rmsrv.h"

#include <cmath>
#include <limits>

using namespace file;

namespace
{
// Bytes that are missing, cut to what a line of the log shows.
long shortfall(double space)
{
    const double missing = std::trunc(rminfree - space);
    constexpr double kLargest = std::numeric_limits<int32_t>::max();
    return missing >= kLargest ? std::numeric_limits<int32_t>::max() : static_cast<long>(missing);
}

[[noreturn]] void failGrowth(const FileEntry* entry)
{
    leaveGrowSem();
    // When it is the log itself that cannot grow, the last lines must still fit. A log that is
    // being reopened has no descriptor to seek yet.
    if (entry == usedEntry(sysfile) && entry->state == kSlotOpen) {
        rm_fileSeek(sysfile, 0);
    }
    rm_systemLogWrite("Error expanding file %s", entry->name);
    rm_systemLogWrite("Fatal Exit: System Shutting down!");
    if (sysfile != RM_NONE) {
        rm_systemLogClose();
    }
    // Deliberate: left a second time. Processes that wait to grow a file on this disk all get
    // through to the same end, instead of one after the other.
    leaveGrowSem();
    rm_errorExit();
}

// True when the disk that holds the file has less free than must be left; `*space` is what it has.
bool exceedsMinimum(const FileEntry* entry, double* space)
{
    *space = rm_flGetDiskFreeSpace(entry->name);
    return *space >= 0.0 && *space < rminfree;
}
}  // namespace

void file::growFile(FileEntry* entry, uint32_t newSize)
{
    // The dying grow nothing: a holder of growSem that was killed would keep them for ever.
    if (rmDiskFull != 0 || rmsrv::inFatalPath()) {
        return;
    }
    if (growSem == RM_NONE) {
        growSem = rm_syncCreate("growSem");
    }
    enterGrowSem();
    if (rm_flSetSize(entry->fd, newSize) != RM_SUCCESS) {
        failGrowth(entry);
    }
    double space = 0.0;
    const bool full = exceedsMinimum(entry, &space);
    leaveGrowSem();
    // Logged outside the lock: a line may go into the log file, which takes fileSem, and a process
    // that holds fileSem may be waiting here to grow a file that it opens.
    if (full) {
        rm_systemLogWrite("extending file %s exceeded min threshold by %ld bytes", entry->name,
                          shortfall(space));
        rm_systemLogWrite("READ ACCESS ONLY!");
        rmDiskFull = 1;
    }
}
