// Reads, writes and questions on a handle.
//
// Why: a caller sees one file with one position, whatever happened to the descriptor since its last
// call. Every operation begins by bringing the file back if it was parked, and holds it while it
// works.
//
//   beginOperation   fileSem: count the operation, reopen if parked; fileSem is left again
//   the transfer     outside fileSem; positioned ones inside the entry's seekSem
//   endOperation     the file counts as used, the operation is over
//
// A handle can vanish while it is reopened (the path has gone, and the file is not in fatal mode).
// Then no transfer is made: the lines that a transfer on a bad descriptor would give are logged,
// and the entry, even the whole table, is not touched again.
//
// A seek that fails on a file with offsets fails the transfer: bytes at another place than asked
// for are worse than none. Devices without offsets are read and written where they are.
//
// Owns: nothing but `fileOps`. Locks: fileSem is left before seekSem is entered; a failure that is
// logged inside seekSem enters fileSem for its line in the log file.
//
// Fatal: time-outs of the locks; failed transfers in fatal mode; growth; a bad rm_filePrintf.
#include "rm/file/file.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <limits>

#include <stdio_ext.h>

using namespace file;

namespace
{
// What the operations differ in before their transfer.
struct Texts {
    const char* invalid;   // with the handle
    const char* noReopen;  // with the handle
    const char* timeout;
};

// clang-format off
#define RM_FILE_TEXTS(name) \
    {name ": invalid handle %d", "WARNING: failed file reopen in " name "(%d)", \
     "fileSem timeout in " name}
// clang-format on

constexpr Texts kSeek = RM_FILE_TEXTS("rm_fileSeek");
constexpr Texts kPrintf = RM_FILE_TEXTS("rm_filePrintf");
constexpr Texts kWrite = RM_FILE_TEXTS("rm_fileWrite");
constexpr Texts kSeekWrite = RM_FILE_TEXTS("rm_fileSeekWrite");
constexpr Texts kRead = RM_FILE_TEXTS("rm_fileRead");
constexpr Texts kSeekRead = RM_FILE_TEXTS("rm_fileSeekRead");
constexpr Texts kLength = RM_FILE_TEXTS("rm_fileLength");
constexpr Texts kSync = RM_FILE_TEXTS("rm_fileSync");

// An operation on a handle, from its beginning to its end.
struct Operation {
    enum Outcome { kReady, kInvalid, kGone } outcome;

    FileEntry* entry;                   // kReady only
    char path[rmsrv::kLogMessageSize];  // kGone only: as much of it as a log line shows
};

// Brings a parked file back. The outcome is kGone when its handle has vanished with the attempt.
void bringBack(Operation* operation, FileHandle handle, const Texts& texts)
{
    makeRoom();
    StrncpyZ(operation->path, operation->entry->name, sizeof(operation->path));
    if (reopenFile(operation->entry) == RM_SUCCESS) {
        ++reopens;
        return;
    }
    rm_systemLogWrite(texts.noReopen, handle);
    operation->entry = nullptr;
    operation->outcome = Operation::kGone;
}

void beginOperation(Operation* operation, FileHandle handle, const Texts& texts)
{
    operation->entry = usedEntry(handle);
    if (operation->entry == nullptr) {
        operation->outcome = Operation::kInvalid;
        rm_systemLogWrite(texts.invalid, handle);
        return;
    }
    operation->outcome = Operation::kReady;
    enterFileSem(texts.timeout);
    ++operation->entry->busyCount;
    if (operation->entry->state != kSlotOpen) {
        bringBack(operation, handle, texts);
    }
    leaveFileSem();
}

void endOperation(FileEntry* entry)
{
    entry->recentlyUsed = 1;
    --entry->busyCount;
}

[[noreturn]] void endFatally(FileEntry* entry)
{
    --entry->busyCount;
    rm_errorExit();
}

bool isFatal(const FileEntry* entry)
{
    return (entry->modeFlags & FILE_FATAL) != 0;
}

int32_t signedLength(uint32_t length)
{
    return static_cast<int32_t>(length);  // beyond 31 bits: negative, refused below
}

// Brings the descriptor to `offset`, unless that is the current position, and keeps it as the
// entry's own. True as well for a device without offsets: it is read and written where it is.
bool seekForTransfer(FileEntry* entry, uint32_t offset)
{
    if (offset == RM_CURRENT_POSITION) {
        return true;
    }
    if (os::seekDescriptor(entry->fd, offset, SEEK_SET, nullptr) != RM_SUCCESS && errno != ESPIPE) {
        return false;
    }
    entry->position = offset;
    return true;
}

uint32_t writeAt(FileEntry* entry, uint32_t offset, const void* buffer, uint32_t length)
{
    if (!seekForTransfer(entry, offset)) {
        return 0;
    }
    return static_cast<uint32_t>(rm_flWrite(entry->fd, buffer, signedLength(length)));
}

// 0 or an errno; `*count` is never negative.
int16_t readAt(FileEntry* entry, uint32_t offset, void* buffer, uint32_t length, uint32_t* count)
{
    *count = 0;
    if (!seekForTransfer(entry, offset)) {
        return static_cast<int16_t>(errno);
    }
    int32_t got = 0;
    const int16_t error = rm_flRead(entry->fd, buffer, signedLength(length), &got);
    *count = static_cast<uint32_t>(std::max(got, 0));
    return error;
}

// A position has 32 bits. Going round would bring whoever reads to the end back to the beginning,
// for ever, and let what is written replace what was. On a device without offsets it only counts.
bool leadsBeyond(const FileEntry* entry, uint32_t length)
{
    return length > std::numeric_limits<uint32_t>::max() - entry->position &&
           (os::seekDescriptor(entry->fd, 0, SEEK_CUR, nullptr) == RM_SUCCESS || errno != ESPIPE);
}

void logWriteFailure(const char* path, int error)
{
    rm_systemLogWrite("rm_fileWrite: errno=%d: unable to write, file=%s", error, path);
}

void logReadFailure(const char* path, int error)
{
    rm_systemLogWrite("rm_fileRead: errno=%d: unable to read, file=%s", error, path);
}

void logSeekWriteFailure(const char* path, uint32_t offset, uint32_t length, int error)
{
    rm_systemLogWrite("rm_fileSeekWrite: unable to write %s", path);
    rm_systemLogWrite("    seek address=%lu, bytes=%u, errno=%d",
                      static_cast<unsigned long>(offset), length, error);
}

void logSeekReadFailure(const char* path, uint32_t offset, uint32_t count, int error)
{
    rm_systemLogWrite("rm_fileSeekRead: unable to read %s", path);
    rm_systemLogWrite("    seek address=%lu, bytes=%lu, errno=%d",
                      static_cast<unsigned long>(offset), static_cast<unsigned long>(count), error);
}

// The size that a file is grown to for a write that ends at `end`. Deliberate: an end that is
// exactly a multiple of the step gets a whole step more.
uint32_t grownSize(uint32_t end, uint32_t increment)
{
    if (increment == 0) {
        return end;
    }
    const uint64_t size = (uint64_t{end} / increment + 1) * increment;
    return size <= std::numeric_limits<uint32_t>::max() ? static_cast<uint32_t>(size) : end;
}

void growForWrite(FileEntry* entry, uint32_t offset, uint32_t length)
{
    const uint32_t end = offset + length;  // also at the current position; the sum may wrap
    const bool willBeRefused = signedLength(length) < 0;
    if (entry->knownSize < end && !willBeRefused) {
        const uint32_t size = grownSize(end, entry->growIncrement);
        growFile(entry, size);
        // Deliberate: also when the disk counts as full and nothing was grown. The file is asked
        // for its size again when it is opened again.
        entry->knownSize = size;
    }
}

// What stdio still holds of a line that could not be written must not come out with the next one.
void discardOutput(FILE* stream)
{
    __fpurge(stream);
    clearerr(stream);
}
}  // namespace

uint32_t rm_fileSeek(int16_t handle, uint32_t offset)
{
    Operation operation;
    beginOperation(&operation, handle, kSeek);
    if (operation.outcome != Operation::kReady) {
        return static_cast<uint32_t>(-1);
    }
    FileEntry* entry = operation.entry;
    uint32_t position = 0;
    if (os::seekDescriptor(entry->fd, offset, SEEK_SET, &position) == RM_SUCCESS) {
        entry->position = position;
    }
    endOperation(entry);
    return position;
}

uint16_t rm_filePrintf(int16_t handle, const char* format, ...)
{
    const FileEntry* used = usedEntry(handle);
    if (ftab == nullptr || (used != nullptr && (used->modeFlags & FILE_STREAM) == 0)) {
        rm_systemLogWrite("Bad status in rm_filePrintf: %d, %p", handle, static_cast<void*>(ftab));
        rm_errorExit();
    }
    Operation operation;
    beginOperation(&operation, handle, kPrintf);
    if (operation.outcome != Operation::kReady) {
        return 0;
    }
    FileEntry* entry = operation.entry;
    va_list arguments;
    va_start(arguments, format);
    int count = std::vfprintf(entry->stream, format, arguments);
    va_end(arguments);
    if (std::fflush(entry->stream) != 0 || count < 0) {
        discardOutput(entry->stream);
        count = 0;
    }
    const auto written = static_cast<uint16_t>(count);
    entry->position += written;
    endOperation(entry);
    return written;
}

uint32_t rm_fileWrite(int16_t handle, const void* buffer, uint32_t length)
{
    if (length == 0) {
        return 0;
    }
    Operation operation;
    beginOperation(&operation, handle, kWrite);
    if (operation.outcome != Operation::kReady) {
        if (operation.outcome == Operation::kGone) {
            logWriteFailure(operation.path, EBADF);
        }
        return 0;
    }
    FileEntry* entry = operation.entry;
    uint32_t count = 0;
    const bool appends = (entry->openFlags & RM_O_APPEND) != 0;  // wherever the position is
    if (!appends && leadsBeyond(entry, length)) {
        errno = EFBIG;
    } else {
        count = writeAt(entry, entry->position, buffer, length);
    }
    if (count == 0) {
        logWriteFailure(entry->name, errno);
        if (isFatal(entry)) {
            endFatally(entry);
        }
    }
    entry->position += count;
    ++fileOps;
    endOperation(entry);
    return count;
}

uint32_t file::readNext(FileHandle handle, void* buffer, uint32_t length, int16_t* error)
{
    *error = EBADF;
    Operation operation;
    beginOperation(&operation, handle, kRead);
    if (operation.outcome != Operation::kReady) {
        if (operation.outcome == Operation::kGone) {
            logReadFailure(operation.path, EBADF);
        }
        return 0;
    }
    FileEntry* entry = operation.entry;
    uint32_t count = 0;
    *error = readAt(entry, entry->position, buffer, length, &count);
    if (leadsBeyond(entry, count)) {
        *error = EFBIG;
        count = 0;
    }
    if (*error != RM_SUCCESS) {
        logReadFailure(entry->name, *error);
        if (isFatal(entry)) {
            endFatally(entry);
        }
    }
    entry->position += count;
    ++fileOps;
    endOperation(entry);
    return count;
}

uint32_t rm_fileRead(int16_t handle, void* buffer, uint32_t length)
{
    int16_t error = RM_SUCCESS;
    return length == 0 ? 0 : readNext(handle, buffer, length, &error);
}

uint32_t rm_fileSeekWrite(int16_t handle, uint32_t offset, const void* buffer, uint32_t length)
{
    if (length == 0) {
        return 0;
    }
    Operation operation;
    beginOperation(&operation, handle, kSeekWrite);
    if (operation.outcome != Operation::kReady) {
        if (operation.outcome == Operation::kGone) {
            logSeekWriteFailure(operation.path, offset, length, EBADF);
        }
        return 0;
    }
    FileEntry* entry = operation.entry;
    entry->recentlyUsed = 1;
    enterSeekSem(entry, "seekSem timeout in rm_fileSeekWrite, file %s");
    growForWrite(entry, offset, length);
    const uint32_t count = writeAt(entry, offset, buffer, length);
    if (count == 0) {
        logSeekWriteFailure(entry->name, offset, length, errno);
        if (isFatal(entry)) {
            leaveSeekSem(entry);
            endFatally(entry);
        }
    }
    entry->position += count;
    --entry->busyCount;
    leaveSeekSem(entry);
    ++fileOps;
    return count;
}

uint32_t rm_fileSeekRead(int16_t handle, uint32_t offset, void* buffer, uint32_t length)
{
    if (length == 0) {
        return 0;
    }
    Operation operation;
    beginOperation(&operation, handle, kSeekRead);
    if (operation.outcome != Operation::kReady) {
        if (operation.outcome == Operation::kGone) {
            logSeekReadFailure(operation.path, offset, 0, EBADF);
        }
        return 0;
    }
    FileEntry* entry = operation.entry;
    enterSeekSem(entry, "seekSem timeout in rm_fileSeekRead");
    uint32_t count = 0;
    const int16_t error = readAt(entry, offset, buffer, length, &count);
    if (error != RM_SUCCESS) {
        logSeekReadFailure(entry->name, offset, count, error);
        if (isFatal(entry)) {
            leaveSeekSem(entry);
            endFatally(entry);
        }
    }
    entry->position += count;
    endOperation(entry);
    leaveSeekSem(entry);
    ++fileOps;
    return count;
}

uint32_t rm_fileLength(int16_t handle)
{
    Operation operation;
    beginOperation(&operation, handle, kLength);
    if (operation.outcome != Operation::kReady) {
        return 0;
    }
    uint32_t size = 0;
    if (rm_flSize(operation.entry->fd, &size) != RM_SUCCESS) {
        size = 0;
    }
    endOperation(operation.entry);
    return size;
}

uint32_t rm_filePosition(int16_t handle)
{
    FileEntry* entry = usedEntry(handle);
    if (entry == nullptr) {
        rm_systemLogWrite("rm_filePosition: invalid handle %d", handle);
        return 0;
    }
    entry->recentlyUsed = 1;
    return entry->position;
}

int16_t rm_fileSync(int16_t handle)
{
    FileEntry* entry = usedEntry(handle);
    if (entry == nullptr) {
        rm_systemLogWrite(kSync.invalid, handle);
        return RM_SUCCESS;
    }
    enterFileSem(kSync.timeout);
    ++entry->busyCount;
    if (entry->state != kSlotOpen) {
        --entry->busyCount;  // a parked file has nothing that is not written
        leaveFileSem();
        return RM_SUCCESS;
    }
    leaveFileSem();
    const int16_t result = rm_flSync(entry->fd);
    endOperation(entry);
    return result;
}

int16_t file::bringToDisk(FileHandle handle)
{
    Operation operation;
    beginOperation(&operation, handle, kSync);
    if (operation.outcome != Operation::kReady) {
        return EBADF;
    }
    const int16_t error = os::bringToDisk(operation.entry->fd);
    endOperation(operation.entry);
    return error;
}
