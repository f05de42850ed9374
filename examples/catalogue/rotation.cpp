// The rotation: backups of the bucket files.
//
// Why: whoever wants to copy the files away needs them as they were at one moment, and at rest. So
// the server copies each of them under the lock of its bucket, and moves the copies in place when
// they are complete: NAME.bak is always a whole file, and NAME.old the one before it.
//
//   NAME.dat  ──copy──>  NAME.new  ──move──>  NAME.bak  ──move──>  NAME.old
//
// What the library's two calls leave to their caller: a copy does not tell whether all bytes
// arrived, so the lengths are compared; and a process in which no file has handle 0 cannot copy, so
// one is opened first and kept.
//
// Locks: that of a bucket, for one copy.
//
// Fatal: no lock of the file layer, no memory.
#include "rotation.h"

#include "counters.h"
#include "journal.h"
#include "locks.h"
#include "store.h"

#include "rm.h"

#include <cstdio>

#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr uint32_t kGrowIncrement = 16384;  // of a file that is only read: it does not matter

bool firstHandleTaken = false;

// Sees to it that handle 0 is in use.
void takeFirstHandle()
{
    if (firstHandleTaken) {
        return;
    }
    const int16_t file = rm_fileOpen(bucketName(0), RM_O_RDONLY, 0, 0, kGrowIncrement);
    firstHandleTaken = file == 0;
    if (file > 0) {
        rm_fileClose(file);
    }
}

// Bytes of a file; -1 when it cannot be opened.
int64_t lengthOf(const char* path)
{
    const int16_t file = rm_fileOpen(path, RM_O_RDONLY, 0, 0, kGrowIncrement);
    if (file < 0) {
        return -1;
    }
    const uint32_t length = rm_fileLength(file);
    rm_fileClose(file);
    return length;
}

// Copies a file. False when the copy is not as long as the file.
bool copyWhole(const char* path, const char* copy)
{
    takeFirstHandle();
    const int64_t length = lengthOf(path);
    const bool copied =
        rm_fileCopy(path, copy) == RM_SUCCESS && length >= 0 && lengthOf(copy) == length;
    count(kCopies);
    if (!copied) {
        warn("%s could not be copied to %s; the backup before stays", path, copy);
        rm_fileRemove(copy);
    }
    return copied;
}
}  // namespace

bool backUpBucket(const Board& board, uint32_t bucket, Figures* figures)
{
    char fresh[20];
    char old[20];
    std::snprintf(fresh, sizeof(fresh), "bucket-%02u.new", bucket);
    std::snprintf(old, sizeof(old), "bucket-%02u.old", bucket);
    const char* const path = bucketName(bucket);
    const char* const backup = backupName(bucket);
    if (figures != nullptr && enterBucket(bucket, board, *figures) != Entered::kYes) {
        return false;
    }
    const bool copied = copyWhole(path, fresh);
    if (figures != nullptr) {
        leaveBucket(bucket);
    }
    if (!copied) {
        return true;
    }
    if (access(backup, F_OK) == 0 && rm_fileMove(backup, old) != RM_SUCCESS) {
        warn("%s could not be moved to %s", backup, old);
    }
    if (rm_fileMove(fresh, backup) != RM_SUCCESS) {
        warn("%s could not be moved to %s", fresh, backup);
    }
    return true;
}

uint32_t checkBackups(const Board& board, int16_t tag, uint32_t largest)
{
    uint32_t bad = 0;
    for (uint32_t bucket = 0; bucket < board.head.figures.buckets; ++bucket) {
        if (access(backupName(bucket), R_OK) != 0) {
            warn("there is no backup %s", backupName(bucket));
            return 1;
        }
    }
    Store store = {};
    openStore(store, tag, largest, board.head.figures.buckets, Files::kBackups);
    for (uint32_t bucket = 0; bucket < store.buckets; ++bucket) {
        bad += scanBucket(store, bucket) && checkBucket(store, bucket) ? 0 : 1;
    }
    closeStore(store);
    return bad;
}

}  // namespace catalogue
