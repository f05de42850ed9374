// Whole files, copied and moved through managed handles.
//
// Why: a server that moves its files about needs the same handling as for every other access: the
// descriptor limit, the log lines of failed transfers, the refusal to remove what is still open.
//
// A copy does not tell whether its transfers succeeded; their failures are in the log. A move asks,
// since it goes on to remove the source: bytes that did not arrive, or did not reach the disk, are
// kept where they were. So they are when the destination has been removed or replaced meanwhile:
// what its path does not lead to has not arrived.
//
// Owns: the buffer of a copy in progress. The handles are noted in ownfiles.cpp. What a fatal error
// leaves of both is given back by the next copy or move.
//
// Locks: those of each operation on a handle.
//
// Fatal: those operations' time-outs and failed sync objects; no memory for the buffer.
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <cstring>

using namespace rmutil;

namespace
{
constexpr uint32_t kCopyBytes = 4096;  // of one step
constexpr uint32_t kSourceSize = 8192;
constexpr uint32_t kGrowIncrement = 16384;

// The exclusive bit makes a destination that could not be removed fail the copy.
constexpr uint32_t kNewFile = RM_O_RDWR | RM_O_CREAT | RM_O_EXCL;

// What has become of the bytes.
enum class Arrival {
    kUnknown,  // a transfer failed, and the log says so
    kWritten,
};

// The buffer of a copy, under tag 0.
struct CopyBuffer {
    char* bytes;        // null while there is no copy
    uint32_t releases;  // of tag 0 when it was made: after another one it is gone
};

CopyBuffer copyBuffer = {nullptr, 0};

void makeBuffer()
{
    auto* bytes = static_cast<char*>(rm_getMemory(kCopyBytes, 0));
    copyBuffer = {bytes, rmalloc::tagZeroReleases};
}

void freeBuffer()
{
    if (copyBuffer.bytes != nullptr && copyBuffer.releases == rmalloc::tagZeroReleases) {
        rm_freeMemory(copyBuffer.bytes, 0);
    }
    copyBuffer.bytes = nullptr;
}

// Gives back what a copy has left that a fatal error ended.
void endStaleCopy()
{
    closeOwn(kCopyFrom);
    closeOwn(kCopyTo);
    freeBuffer();
}

// True when all bytes were written. What falls short is written on, until nothing is: that is then
// in the log.
bool writeWhole(FileHandle handle, const char* bytes, uint32_t count)
{
    uint32_t done = 0;
    while (done < count) {
        const uint32_t written = rm_fileWrite(handle, &bytes[done], count - done);
        if (written == 0) {
            return false;
        }
        done += written;
    }
    return true;
}

// Copies what there is between two open files. A read that fails ends the copy; after a write that
// fails it goes on, and the destination lacks those bytes.
Arrival transfer(FileHandle source, FileHandle destination)
{
    char* buffer = copyBuffer.bytes;
    Arrival arrival = Arrival::kWritten;
    uint32_t end = 0;  // of what is read once a write has failed
    int16_t error = RM_SUCCESS;
    uint32_t count = file::readNext(source, buffer, kCopyBytes, &error);
    while (count != 0) {
        if (!writeWhole(destination, buffer, count) && arrival == Arrival::kWritten) {
            arrival = Arrival::kUnknown;
            // The source may be the log file, which grows with every write that fails; what has no
            // length may give bytes for ever.
            end = rm_fileLength(source);
        }
        if (arrival == Arrival::kUnknown && rm_filePosition(source) >= end) {
            break;
        }
        // Deliberate: each read asks for what the one before it gave.
        count = file::readNext(source, buffer, count, &error);
    }
    return error == RM_SUCCESS ? arrival : Arrival::kUnknown;
}

// As transfer, and brings the bytes to the disk. They have arrived when the path leads to them.
Arrival transferToDisk(FileHandle source, FileHandle destination, const char* path)
{
    // Kept from being parked: reopened, it could be another file, and even have the same number on
    // the disk. A jump ends that, as it does for every operation.
    file::FileEntry* entry = file::usedEntry(destination);
    ++entry->busyCount;
    const bool arrived = transfer(source, destination) == Arrival::kWritten &&
                         file::bringToDisk(destination) == RM_SUCCESS &&
                         os::leadsTo(path, entry->fd);
    --entry->busyCount;
    return arrived ? Arrival::kWritten : Arrival::kUnknown;
}

// The two files, opened. False when either cannot be.
bool openBoth(const char* source, const char* destination, FileHandle* from, FileHandle* to)
{
    *from = openOwn(kCopyFrom, source, RM_O_RDONLY, kSourceSize, kGrowIncrement);
    if (*from == RM_NONE) {
        return false;
    }
    *to = openOwn(kCopyTo, destination, kNewFile, 0, kGrowIncrement);
    if (*to == RM_NONE) {
        closeOwn(kCopyFrom);
        return false;
    }
    return true;
}

// As rm_fileCopy. When `arrival` is wanted the bytes are brought to the disk, and it tells whether
// they are all there.
int16_t copyFile(const char* source, const char* destination, Arrival* arrival)
{
    rm_fileRemove(destination);
    // Before there is a handle that would stay open when this does not come back.
    makeBuffer();
    FileHandle from = RM_NONE;
    FileHandle to = RM_NONE;
    int16_t result = RM_COPY_FAILED;
    if (openBoth(source, destination, &from, &to)) {
        result = RM_SUCCESS;
        if (arrival != nullptr) {
            *arrival = transferToDisk(from, to, destination);
        } else {
            transfer(from, to);
        }
        closeOwn(kCopyFrom);
        closeOwn(kCopyTo);
    }
    freeBuffer();
    return result;
}
}  // namespace

int32_t rm_fileCopy(const char* source, const char* destination)
{
    if (std::strcmp(source, destination) == 0) {
        return RM_SUCCESS;
    }
    endStaleCopy();
    return copyFile(source, destination, nullptr);
}

int16_t rm_fileMove(const char* source, const char* destination)
{
    if (std::strcmp(source, destination) == 0) {
        return RM_SUCCESS;
    }
    endStaleCopy();
    rm_fileRemove(destination);
    if (rm_fileRename(source, destination) == RM_SUCCESS) {
        return RM_SUCCESS;
    }
    Arrival arrival = Arrival::kUnknown;
    const int16_t result = copyFile(source, destination, &arrival);
    if (result != RM_SUCCESS) {
        return result;
    }
    if (arrival != Arrival::kWritten) {
        return RM_COPY_FAILED;
    }
    os::bringNameToDisk(destination);
    rm_fileRemove(source);
    return RM_SUCCESS;
}
