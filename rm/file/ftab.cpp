// The handle table: files that stay open however few descriptors there are.
//
// Why: a server keeps hundreds of files open and may hold a few dozen descriptors. So its callers
// get handles, and a handle is a promise: the descriptor behind it may be closed at any time (the
// file is parked, its position kept) and is opened again by the next operation that needs it.
//
//   free -> assignHandle -> parked -> reopenFile -> open
//   open -> closeOneOpenFile -> parked;  open or parked -> rm_fileClose -> free
//
// Which file is parked is decided by a clock: the sweep goes on where the last one stopped, passes
// every file that was used since it last came by, and takes the first that was not.
//
// Owns: the table, its entries and their names, all under one tag; the counts.
//
// Invariant: `nFilesOpen` counts the slots in state open, `nHandles` those open or parked; a free
// slot keeps its entry and has no name; only an open slot has a descriptor. checkFtab() tests it.
//
// Lifecycle: from the first open until the last handle is closed. A stale tag is what a build that
// did not return has left; the next one releases it.
//
// A log line can be written at several points of this file, and the log is a file of this table: so
// an entry may be reopened, and others parked, below a call that logs. fileSem is counted for that.
//
// Locks: fileSem around every change; growSem inside it, by an open that grows. Fatal: its
// time-out; no memory; an open in fatal mode.
#include "rm/file/file.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace file
{
FileEntry** ftab = nullptr;
int16_t ftabSize = 0;
int16_t nHandles = 0;
int16_t nFilesOpen = 0;
int16_t lruNext = 0;
int32_t fileOps = 0;
Tag fileTag = 0;
uint32_t parkings = 0;
uint32_t reopens = 0;
}  // namespace file

using namespace file;

namespace
{
constexpr int16_t kSmallestLimit = 4;
constexpr int16_t kLimitBound = 10000;
constexpr uint32_t kWriting = RM_O_WRONLY | RM_O_RDWR | RM_O_APPEND;
constexpr uint32_t kFirstOpenOnly = RM_O_TRUNC | RM_O_EXCL;

int16_t lowestFree = 0;  // no slot below is free: where the search for an empty one begins

FileEntry* newEntry()
{
    auto* entry = static_cast<FileEntry*>(rm_cGetMemory(sizeof(FileEntry), fileTag));
    entry->fd = -1;
    return entry;
}

uint32_t slotBytes(int32_t slots)
{
    return static_cast<uint32_t>(static_cast<std::size_t>(slots) * sizeof(void*));
}

void buildTable()
{
    if (fileTag != 0) {
        const Tag stale = fileTag;
        fileTag = 0;
        rm_freeTagMemory(stale, 1);
    }
    fileTag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_setTagAlloc(kTagSegmentSize, fileTag);
    rm_setTagName("fileTag", fileTag);
    auto** table = static_cast<FileEntry**>(rm_getMemory(slotBytes(kTableStep), fileTag));
    for (int16_t slot = 0; slot < kTableStep; ++slot) {
        table[slot] = newEntry();
    }
    ftab = table;
    ftabSize = kTableStep;
    lowestFree = 0;
}

// False when handles are used up. The longer array takes the place of the old one before it has
// entries in its new slots; the table's size, and so those slots, are published when it has.
bool growTable()
{
    const auto step = static_cast<int16_t>(std::min<int32_t>(kTableStep, kMaxSlots - ftabSize));
    if (step == 0) {
        return false;
    }
    auto** table =
        static_cast<FileEntry**>(rm_getMemory(slotBytes(int32_t{ftabSize} + step), fileTag));
    std::copy_n(ftab, ftabSize, table);
    FileEntry** old = ftab;
    ftab = table;
    rm_freeMemory(old, fileTag);
    for (int16_t i = 0; i < step; ++i) {
        ftab[ftabSize + i] = newEntry();
    }
    ftabSize = static_cast<int16_t>(ftabSize + step);
    return true;
}

// Opens the file: 0, or the errno with -1 for the descriptor. What a server prints and logs when it
// has closed its standard output or error must not be written into its data.
int16_t openDescriptor(FileEntry* entry)
{
    const int16_t error =
        rm_flOpen(entry->name, entry->openFlags, entry->modeFlags, kPermissions, &entry->fd);
    if (error != RM_SUCCESS) {
        return error;
    }
    entry->fd = os::aboveStandard(entry->fd, os::OnExec::kStaysOpen);
    return entry->fd == -1 ? static_cast<int16_t>(errno) : int16_t{RM_SUCCESS};
}

// Closes the descriptor, with its stream if it has one. The result is the close's.
int16_t closeDescriptor(FileEntry* entry)
{
    int16_t result = 0;
    if ((entry->modeFlags & FILE_STREAM) != 0 && entry->stream != nullptr) {
        result = static_cast<int16_t>(std::fclose(entry->stream));
        entry->stream = nullptr;
    } else {
        result = rm_flClose(entry->fd);
    }
    entry->fd = -1;
    return result;
}

void freeSlot(FileEntry* entry)
{
    // A later file may get this handle, and with it neither the log's lines, nor the distrust in a
    // log that has failed, nor an end by who has noted it.
    if (entry == usedEntry(rmsrv::failedLogFile)) {
        rmsrv::trustLogFile();
    }
    if (entry == usedEntry(sysfile)) {
        rmsrv::forgetLogFile();
    }
    rmutil::forgetAbandoned(entry);
    if (entry->fd != -1) {
        closeDescriptor(entry);
    }
    entry->state = kSlotFree;
    entry->busyCount = 0;
    rm_zFreeMemory(&entry->name, fileTag);
    --nHandles;
}

// Gives up an open that got a descriptor but cannot use it.
int16_t failReopen(FileEntry* entry, int error)
{
    closeDescriptor(entry);
    cleanupFile(entry, error);
    return -1;
}

// Seeks to where the file was left. A stream's end that was too far for the record to hold is
// looked for again: lines at any other place would be written over what stands there.
int16_t goToPlace(const FileEntry* entry)
{
    constexpr uint32_t kBeyond = std::numeric_limits<uint32_t>::max();
    if ((entry->modeFlags & FILE_STREAM) != 0 && entry->position == kBeyond) {
        return os::seekDescriptor(entry->fd, 0, SEEK_END, nullptr);
    }
    return os::seekDescriptor(entry->fd, entry->position, SEEK_SET, nullptr);
}

int16_t nextSlot(int16_t slot)
{
    return static_cast<int16_t>(slot + 1 < ftabSize ? slot + 1 : 0);
}

bool mayBeParked(const FileEntry* entry)
{
    return entry->state == kSlotOpen && entry->busyCount == 0 && entry->recentlyUsed == 0 &&
           (entry->modeFlags & FILE_PINNED) == 0;
}

int16_t park(FileEntry* entry)
{
    if ((entry->modeFlags & FILE_STREAM) != 0 && entry->stream != nullptr) {
        // Deliberate: a stream goes on at its end, not where it stood. What others have appended
        // to a log in the meantime is not written over.
        uint32_t end = 0;
        if (rm_flSeek(entry->fd, 0, SEEK_END, &end) == RM_SUCCESS) {
            entry->position = end;
        }
    }
    const int16_t result = closeDescriptor(entry);
    --nFilesOpen;
    ++parkings;
    entry->state = kSlotParked;
    return result;
}
}  // namespace

FileEntry* file::usedEntry(FileHandle handle)
{
    if (ftab == nullptr || handle < 0 || handle >= ftabSize || ftab[handle]->state == kSlotFree) {
        return nullptr;
    }
    return ftab[handle];
}

FileHandle file::findEmptySlot()
{
    for (FileHandle slot = lowestFree; slot < ftabSize; ++slot) {
        if (ftab[slot]->state == kSlotFree) {
            lowestFree = slot;
            return slot;
        }
    }
    lowestFree = ftabSize;
    return RM_NONE;
}

FileHandle file::assignHandle(const char* name, uint32_t openFlags, uint16_t modeFlags,
                              uint32_t initialSize, uint32_t growIncrement)
{
    const FileHandle slot = findEmptySlot();
    if (slot == RM_NONE) {
        return RM_NONE;
    }
    char* copy = rm_Strdup(name, fileTag);
    FileEntry* entry = ftab[slot];
    *entry = {.name = copy,
              .fd = -1,
              .stream = nullptr,
              .position = 0,
              .initialSize = initialSize,
              .growIncrement = growIncrement,
              .knownSize = 0,
              .seekSem = rm_syncCreate(""),
              .openFlags = openFlags,
              .modeFlags = modeFlags,
              .state = kSlotParked,
              .busyCount = 0,
              .recentlyUsed = 1};
    ++nHandles;
    return slot;
}

int16_t file::reopenFile(FileEntry* entry)
{
    // A descriptor in a slot that is not open: this is the log file, and growing it while it is
    // reopened has written a line into it.
    if (entry->fd != -1) {
        closeDescriptor(entry);
    }
    const int16_t error = openDescriptor(entry);
    if (entry->fd == -1) {
        cleanupFile(entry, error);
        return -1;
    }
    if ((entry->modeFlags & FILE_STREAM) != 0) {
        entry->stream = fdopen(entry->fd, "w");
        if (entry->stream == nullptr) {
            return failReopen(entry, errno);
        }
    }
    if ((entry->openFlags & kWriting) != 0) {
        rm_flSize(entry->fd, &entry->knownSize);
        if (entry->knownSize < entry->initialSize && (entry->modeFlags & FILE_NOPRESIZE) == 0) {
            const int16_t openBefore = nFilesOpen;
            growFile(entry, entry->initialSize);
            // When this is the log file, a line about the growth has reopened it by itself: it is
            // open now and at its place, or it could not be had and is gone, perhaps with the
            // table.
            if (ftab == nullptr || entry->state == kSlotFree) {
                return -1;
            }
            if (entry->state == kSlotOpen) {
                return RM_SUCCESS;
            }
            entry->knownSize = entry->initialSize;
            // The room that was made for this file has gone to a log that a line has brought back.
            if (nFilesOpen > openBefore) {
                makeRoom();
            }
        }
        if ((entry->modeFlags & FILE_NOWRITETHROUGH) == 0) {
            rm_flSetWriteThrough(entry->fd);
        }
    }
    // A device without offsets has no place to go back to. A file that cannot go back to its place
    // would be written over at another one.
    if (goToPlace(entry) != RM_SUCCESS && errno != ESPIPE) {
        return failReopen(entry, errno);
    }
    ++nFilesOpen;
    entry->state = kSlotOpen;
    return RM_SUCCESS;
}

void file::cleanupFile(FileEntry* entry, int32_t error)
{
    rm_syncDelete(entry->seekSem);
    if ((entry->modeFlags & FILE_FATAL) != 0) {
        char text[rmsrv::kLogMessageSize];
        std::snprintf(text, sizeof(text), "reopenFile: errno=%d: failed to %s file '%s'", error,
                      (entry->openFlags & RM_O_CREAT) != 0 ? "create" : "open", entry->name);
        leaveFileSem();
        rm_systemLogWrite("%s", text);
        rm_errorExit();
    }
    freeSlot(entry);
    lowestFree = 0;
    cleanupFtab();
}

int16_t file::closeOneOpenFile()
{
    // In two turns every bit is cleared once and every slot seen with it clear. When still nothing
    // may be parked, all are busy or pinned, and one descriptor too many is better than no end.
    for (int32_t steps = 2 * int32_t{ftabSize}; steps > 0; --steps) {
        FileEntry* entry = ftab[lruNext];
        const bool victim = mayBeParked(entry);
        lruNext = nextSlot(lruNext);
        if (victim) {
            return park(entry);
        }
        entry->recentlyUsed = 0;
    }
    return -1;
}

void file::makeRoom()
{
    if (fileHandleLimit != -1 && nFilesOpen >= fileHandleLimit) {
        closeOneOpenFile();
    }
}

void file::cleanupFtab()
{
    if (nHandles > 0 || ftab == nullptr) {
        return;
    }
    FileEntry** table = ftab;
    const int16_t slots = ftabSize;
    const Tag tag = fileTag;
    ftab = nullptr;
    ftabSize = 0;
    lruNext = 0;
    fileTag = 0;
    for (int16_t slot = 0; slot < slots; ++slot) {
        rm_zFreeMemory(&table[slot]->name, tag);
        rm_freeMemory(table[slot], tag);
    }
    rm_freeMemory(table, tag);
    rm_freeTagMemory(tag, 1);
}

int16_t rm_fileOpen(const char* name, uint32_t openFlags, uint16_t modeFlags, uint32_t initialSize,
                    uint32_t growIncrement)
{
    if (name == nullptr) {
        return RM_NONE;
    }
    enterFileSem("fileSem timeout in rm_fileOpen");
    if (ftab == nullptr) {
        buildTable();
    }
    makeRoom();
    FileHandle handle = assignHandle(name, openFlags, modeFlags, initialSize, growIncrement);
    if (handle == RM_NONE && growTable()) {
        handle = assignHandle(name, openFlags, modeFlags, initialSize, growIncrement);
    }
    if (handle != RM_NONE) {
        FileEntry* entry = ftab[handle];
        if (reopenFile(entry) == RM_SUCCESS) {
            // Once only: a parked file that is opened again keeps its contents, and exists.
            entry->openFlags &= ~kFirstOpenOnly;
        } else {
            handle = RM_NONE;
        }
    }
    leaveFileSem();
    return handle;
}

void rm_fileClose(int16_t handle)
{
    if (ftab == nullptr) {
        rm_systemLogWrite("rm_fileClose: invalid handle %d", handle);
        return;
    }
    enterFileSem("fileSem timeout in rm_fileClose");
    FileEntry* entry = usedEntry(handle);
    if (entry == nullptr) {
        leaveFileSem();
        rm_systemLogWrite("rm_fileClose: invalid handle %d", handle);
        return;
    }
    if (entry->state == kSlotOpen) {
        --nFilesOpen;
    }
    const SyncHandle seekSem = entry->seekSem;
    freeSlot(entry);
    lowestFree = std::min(lowestFree, handle);
    rm_syncDelete(seekSem);
    cleanupFtab();
    leaveFileSem();
}

void rm_fileHandleLimit(int16_t limit)
{
    if (limit >= kSmallestLimit && limit < kLimitBound && limit > fileHandleLimit) {
        fileHandleLimit = limit;
    }
}

int16_t rm_fileSetWriteThrough()
{
    return RM_SUCCESS;  // chosen by each handle's mode flags
}

void rm_fileCounts(uint32_t* open, uint32_t* parked, uint32_t* parkings, uint32_t* reopens)
{
    const uint32_t counts[] = {static_cast<uint32_t>(nFilesOpen),
                               static_cast<uint32_t>(nHandles - nFilesOpen), file::parkings,
                               file::reopens};
    uint32_t* const targets[] = {open, parked, parkings, reopens};
    for (std::size_t i = 0; i < std::size(counts); ++i) {
        if (targets[i] != nullptr) {
            *targets[i] = counts[i];
        }
    }
}

void file::endOperations()
{
    for (int16_t slot = 0; slot < ftabSize; ++slot) {
        FileEntry* entry = ftab[slot];
        entry->busyCount = 0;
        if (entry->state != kSlotOpen && entry->fd != -1) {
            closeDescriptor(entry);  // of an open that did not come to its end
        }
    }
}

void file::forgetTable()
{
    for (int16_t slot = 0; slot < ftabSize; ++slot) {
        if (ftab[slot]->fd != -1) {
            closeDescriptor(ftab[slot]);
        }
    }
    if (ftab != nullptr) {
        rmsrv::forgetLogFile();
        rmsrv::trustLogFile();
    }
    ftab = nullptr;
    ftabSize = 0;
    nHandles = 0;
    nFilesOpen = 0;
    lruNext = 0;
    fileTag = 0;
}

uint32_t file::checkFtab()
{
    uint32_t violations = 0;
    int16_t used = 0;
    int16_t open = 0;
    for (int16_t slot = 0; slot < ftabSize; ++slot) {
        const FileEntry* entry = ftab[slot];
        const bool isOpen = entry->state == kSlotOpen;
        used = static_cast<int16_t>(used + (entry->state != kSlotFree ? 1 : 0));
        open = static_cast<int16_t>(open + (isOpen ? 1 : 0));
        if (entry->state > kSlotParked || (entry->state == kSlotFree) != (entry->name == nullptr) ||
            isOpen != (entry->fd != -1) || (entry->stream != nullptr && !isOpen)) {
            ++violations;
            rm_systemLogWrite("WARNING: file table: slot %d, state %d, descriptor %d, name %s",
                              slot, entry->state, entry->fd,
                              entry->name != nullptr ? entry->name : "-");
        }
    }
    if (used != nHandles || open != nFilesOpen || (ftab == nullptr) != (ftabSize == 0) ||
        (ftabSize > 0 && lruNext >= ftabSize)) {
        ++violations;
        rm_systemLogWrite("WARNING: file table: %d slots, %d handles for %d, %d open for %d",
                          ftabSize, nHandles, used, nFilesOpen, open);
    }
    return violations;
}
