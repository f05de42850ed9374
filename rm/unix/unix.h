// OS services, front page. Everything that differs between operating systems is behind this.
//
//   process.cpp    processes, environment, raw segments
//   token.cpp      the files by whose paths processes find the same IPC object
//   sync.cpp       sync objects: one semaphore set of 20 per process
//   gshm.cpp       memory that processes share
//   queue.cpp      messages between processes
//   osfile.cpp     descriptors
//   osreplace.cpp  what the replacement of a file needs: turns, identity, permissions
//   osmodule.cpp   shared objects that are loaded while the server runs
#ifndef RM_UNIX_UNIX_H
#define RM_UNIX_UNIX_H

#include "rm/base.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace os
{

// --- process.cpp

extern int32_t ForegroundThreadID;  // process id of the foreground; -1 until somebody asks
extern int16_t DefaultPriority;     // stored, never used here

// --- token.cpp

constexpr std::size_t kTokenPrefixSize = 32;  // bytes of the prefix, terminator included
constexpr std::size_t kTokenPathSize = 64;    // bytes of prefix and file name together

extern char tokName[kTokenPrefixSize];  // put before every token file name as it is

// Builds the path of a token file from the prefix as it is now.
void tokenPath(char (&path)[kTokenPathSize], const char* fileName);

// Creates or truncates the file. Null with errno set when that fails or the path is a link.
FILE* openToken(const char* path);

// Creates or truncates the token file of a family, and notes its path. A stream that an attempt
// which failed further down has left open is closed first; its file stays when it is the same one,
// since other processes may be meeting by it. False with errno set when that fails or the path is a
// link.
bool renewToken(FILE** stream, char (&path)[kTokenPathSize], const char* fileName);

// Closes the stream, if it is open, and leaves the file to the other processes.
void closeToken(FILE** stream);

// Closes the stream and removes the file, if it is open.
void dropToken(FILE** stream, const char* path);

// --- sync.cpp

constexpr int16_t kSyncSlots = 20;

extern std::array<const char*, kSyncSlots> rmSem;  // names, the callers' own; null is a free slot
extern int16_t nSems;                              // slots in use
extern int32_t iSem;                               // the semaphore set, -1 when there is none
extern FILE* gfpRMSemTokenFile;                    // open as long as the set exists
extern char semTokenPath[kTokenPathSize];          // with which the set was made
extern volatile int32_t alarm_signal;              // set by catchAlarm

// True when `handle` names an object that operations would reach.
bool exists(SyncHandle handle);

// Counts and logs what does not hold in the table of sync objects; 0 is sound.
uint32_t checkSync();

// --- gshm.cpp

constexpr int16_t kGshmSlots = 20;

struct GshmSlot {
    int32_t id;     // of the segment; -1 when there is none
    int32_t key;    // fixed by the token file and the number of the slot
    char* name;     // a copy under tag 0, which marks the slot as used; null in a free one
    void* address;  // at which the segment is attached here
};

extern std::array<GshmSlot, kGshmSlots> rmGshm;
extern int16_t nGshm;             // segments that were attached and not deleted
extern FILE* gfpRMGshmTokenFile;  // open as long as there is a segment
extern char gshmTokenPath[kTokenPathSize];

// Forgets the segments without freeing their names: the memory of tag 0 is about to go. The
// segments and the token file stay, since other processes may be using them.
void forgetGshm();

// Counts and logs what does not hold in the table; 0 is sound.
uint32_t checkGshm();

// --- queue.cpp

constexpr int16_t kQueueSlots = 5;
constexpr std::size_t kMessageBytes = 32776;  // of the largest message, its type not counted
constexpr std::size_t kBeyondData = 5;        // bytes that travel behind the data of each message

// A message as the system takes it. Both fields and the data count as its text.
struct QueueMessage {
    long type;        // always 1
    uint16_t code;    // the writer's
    uint16_t length;  // bytes of data
    char data[kMessageBytes - 2 * sizeof(uint16_t) + kBeyondData];
};

struct QueueSlot {
    int32_t id;            // of the queue; -1 when there is none
    int32_t key;           // fixed by the token file and the number of the slot
    QueueMessage* buffer;  // under tag 0; every message of the queue goes through it
    const char* name;      // the caller's own; null in a free slot
};

extern std::array<QueueSlot, kQueueSlots> rmQueue;
extern int16_t nQueues;            // slots in use
extern FILE* gfpRMQueueTokenFile;  // open as long as there is a queue
extern char queueTokenPath[kTokenPathSize];

// Forgets the queues without freeing their buffers, as forgetGshm does with the segments.
void forgetQueues();

// Counts and logs what does not hold in the table; 0 is sound.
uint32_t checkQueues();

// --- osfile.cpp

constexpr int32_t kBlockSize = 512;  // bytes by which files are extended

extern std::array<char, kBlockSize> null_block;  // zeros
extern int32_t null_block_filled;                // 1 once the block has been cleared

// As rm_flSeek, with an offset of any width: the managed layer's offsets are unsigned 32-bit.
int16_t seekDescriptor(int32_t fd, int64_t offset, int16_t whence, uint32_t* position);

// What becomes of a descriptor in a program that the process starts.
enum class OnExec : uint8_t { kStaysOpen, kCloses };

// The descriptor, moved to a number above those of standard input, output and error if it has one
// of these. -1 with errno set when it was -1 already, or when there is no other number: it is
// closed then.
int32_t aboveStandard(int32_t fd, OnExec onExec);

// As rm_flSync, but tells: 0, or the errno with which the disk refused.
int16_t bringToDisk(int32_t fd);

// --- osreplace.cpp

constexpr int32_t kFileBusy = -2;  // another process kept the lock for the whole time

// Makes the file when there is none, and excludes other processes that lock the same path: whoever
// holds it may write, rename and remove the file. Returns a descriptor for unlockFile; RM_NONE when
// the file cannot be opened, or is none that could replace another; kFileBusy after `timeoutMs`.
// `*made`, when wanted, tells whether the file is a new one. Ends with the process.
int32_t lockFile(const char* path, uint32_t timeoutMs, bool* made = nullptr);
void unlockFile(int32_t lock);

// True when some process holds the lock of the path now; false as well when that cannot be asked.
bool isLocked(const char* path);

int64_t nowMs();  // of a clock that nobody sets

// As long as it is worth waiting for somebody else's lock before asking again.
void waitABit();

// True when the path, links followed, leads to the file behind the descriptor.
bool leadsTo(const char* path, int32_t fd);

bool isPlainFile(const char* path);
bool isEmptyFile(int32_t fd);

// Takes the permissions of all others away.
void keepToOwner(int32_t fd);

// Gives the file behind `to` the permissions of the one at `from`; its owner and group too, as far
// as the process may. What would be a permission for somebody else is left out.
void copyPermissions(const char* from, int32_t to);

// Brings the names in a directory to the disk, as bringToDisk does with a file's bytes.
void bringDirectoryToDisk(const char* path);

// As bringDirectoryToDisk, for the directory in which the path stands.
void bringNameToDisk(const char* path);

// --- osmodule.cpp

using ModuleEntry = void (*)(const char* name);

// A loaded module, under tag 0.
struct OsModule {
    void* library;      // the dynamic linker's handle; null once it was unloaded
    ModuleEntry entry;  // was called once, with the name that was given
};

}  // namespace os

#endif
