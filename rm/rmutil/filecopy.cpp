// Whole files, copied and moved through managed handles.
//
// Why: a server that moves its files about needs the same handling as for every other access: the
// descriptor limit, the log lines of failed transfers, the refusal to remove what is still open.
//
// A copy does not tell whether its transfers succeeded; their failures are in the log. A move asks,
// since it goes on to remove the source: bytes that did not arrive, or did not reach the disk, are
// kept where they were.
//
// Owns: nothing. Locks: those of each operation on a handle.
//
// Fatal: those operations' time-outs and failed sync objects; no memory for the buffer.
#include "rm/file/file.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <cstring>

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
Arrival transfer(FileHandle source, FileHandle destination, char* buffer)
{
    Arrival arrival = Arrival::kWritten;
    uint32_t end = 0;  // of what is read once a write has failed
    int16_t error = RM_SUCCESS;
    uint32_t count = file::readNext(source, buffer, kCopyBytes, &error);
    while (count != 0) {
        if (!writeWhole(destination, buffer, count) && arrival == Arrival::kWritten) {
            arrival = Arrival::kUnknown;
            // The source may be the log file, which grows with every write that fails.
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

// The two files, opened. False when either cannot be.
bool openBoth(const char* source, const char* destination, FileHandle* from, FileHandle* to)
{
    *from = rm_fileOpen(source, RM_O_RDONLY, 0, kSourceSize, kGrowIncrement);
    if (*from < 1) {
        return false;  // Deliberate: handle 0 is a failure too, and stays open
    }
    *to = rm_fileOpen(destination, kNewFile, 0, 0, kGrowIncrement);
    if (*to < 1) {
        rm_fileClose(*from);
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
    auto* buffer = static_cast<char*>(rm_getMemory(kCopyBytes, 0));
    FileHandle from = RM_NONE;
    FileHandle to = RM_NONE;
    int16_t result = RM_COPY_FAILED;
    if (openBoth(source, destination, &from, &to)) {
        result = RM_SUCCESS;
        const Arrival arrived = transfer(from, to, buffer);
        if (arrival != nullptr && arrived == Arrival::kWritten &&
            file::bringToDisk(to) == RM_SUCCESS) {
            *arrival = Arrival::kWritten;
        }
        rm_fileClose(from);
        rm_fileClose(to);
    }
    rm_freeMemory(buffer, 0);
    return result;
}
}  // namespace

int32_t rm_fileCopy(const char* source, const char* destination)
{
    if (std::strcmp(source, destination) == 0) {
        return RM_SUCCESS;
    }
    return copyFile(source, destination, nullptr);
}

int16_t rm_fileMove(const char* source, const char* destination)
{
    if (std::strcmp(source, destination) == 0) {
        return RM_SUCCESS;
    }
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
