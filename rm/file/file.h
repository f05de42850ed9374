// Managed files, front page.
//
//   filelock.cpp  the three locks, entered and left so that the fatal path can always end
//   ftab.cpp      the handle table: opening, parking, reopening, closing
//   fileio.cpp    reads, writes and questions on a handle
//   growth.cpp    growing files ahead of writes, and the watch on the disk
//   filepath.cpp  remove, rename, temporary names
#ifndef RM_FILE_FILE_H
#define RM_FILE_FILE_H

#include "rm/base.h"

#include <cstdint>
#include <cstdio>

namespace file
{

constexpr int16_t kTableStep = 32;          // slots that the table grows by
constexpr int16_t kMaxSlots = INT16_MAX;    // handles are signed 16-bit
constexpr uint32_t kTagSegmentSize = 4096;  // bytes, segments of the table's own tag
constexpr uint32_t kLockTimeoutMs = 14000;  // fileSem and seekSem; exceeding it is fatal
constexpr uint32_t kPermissions = 0600;     // of files that an open creates

enum SlotState : uint8_t {
    kSlotFree = 0,
    kSlotOpen = 1,   // a descriptor is held
    kSlotParked = 2  // the handle is valid, no descriptor is held
};

// One slot of the table. The fields are the ones of every release of the library, in their order.
struct FileEntry {
    char* name;              // path as given, owned by the entry; null while the slot is free
    int32_t fd;              // descriptor; -1 when none is held
    FILE* stream;            // FILE_STREAM only, while open
    uint32_t position;       // bytes; the handle's own offset, survives parking
    uint32_t initialSize;    // bytes; grown to when opened for writing
    uint32_t growIncrement;  // bytes; step to which growth is rounded, 0 for none
    uint32_t knownSize;      // bytes; as last measured or grown through this handle
    SyncHandle seekSem;      // makes a seek and its transfer one step
    uint32_t openFlags;      // RM_O_...
    uint16_t modeFlags;      // FILE_...
    uint8_t state;           // SlotState
    uint8_t busyCount;       // operations now inside; never parked while nonzero
    uint8_t recentlyUsed;    // second-chance bit of the sweep
};

// --- ftab.cpp

extern FileEntry** ftab;    // null while no handle exists
extern int16_t ftabSize;    // slots
extern int16_t nHandles;    // slots open or parked
extern int16_t nFilesOpen;  // slots open
extern int16_t lruNext;     // slot at which the next sweep starts
extern int32_t fileOps;     // reads and writes made
extern Tag fileTag;         // owns table, entries and names; 0 while there is none
extern uint32_t parkings;   // since the process began
extern uint32_t reopens;    // of parked files, since the process began

// The entry of `handle`, or null when it is out of range, free, or there is no table.
FileEntry* usedEntry(FileHandle handle);

FileHandle findEmptySlot();
FileHandle assignHandle(const char* name, uint32_t openFlags, uint16_t modeFlags,
                        uint32_t initialSize, uint32_t growIncrement);
int16_t reopenFile(FileEntry* entry);
void cleanupFile(FileEntry* entry, int32_t error);
int16_t closeOneOpenFile();
void cleanupFtab();

// Parks another file when the table holds as many descriptors as it may.
void makeRoom();

// Ends every operation that the process was inside, when its frames are abandoned: the busy counts
// drop, and a descriptor that an unfinished open has got is closed.
void endOperations();

// Closes what is open and forgets the table without freeing it: its memory is about to go.
void forgetTable();

// Counts and logs what does not hold in the table; 0 is sound.
uint32_t checkFtab();

// --- filelock.cpp

// Enters fileSem; fatal with `timeoutMessage` when it is not free within 14 s. A nested entry by
// the same process does not wait.
void enterFileSem(const char* timeoutMessage);
void leaveFileSem();

void enterGrowSem();
void leaveGrowSem();

// On an entry's own sync object, with the same time-out. That is the null object unless an entry
// was given another one. The format may show the path.
void enterSeekSem(const FileEntry* entry, const char* timeoutFormat);
void leaveSeekSem(const FileEntry* entry);

// Gives back every lock that this process holds and ends every operation that it was inside:
// called on the way out of the abandoned frames.
void abandonOperations();

// --- fileio.cpp

// As rm_fileRead, and tells the end of the file from a failure: `*error` is 0 or an errno.
uint32_t readNext(FileHandle handle, void* buffer, uint32_t length, int16_t* error);

// As rm_fileSync, for those who go on to destroy what the file replaces: reopens a parked file,
// whose bytes may still be on their way, and returns 0 or the errno with which the disk refused.
int16_t bringToDisk(FileHandle handle);

// --- growth.cpp

// Extends the file to `newSize` bytes unless the disk counts as full. Fatal when that fails.
void growFile(FileEntry* entry, uint32_t newSize);

}  // namespace file

#endif
