// Conveniences, front page.
//
//   pools.cpp       elements that are used again instead of being freed
//   filecopy.cpp    whole files, copied and moved
//   calllog.cpp     allocation calls that say where they were made from
//   localenv.cpp    settings of this process that override its environment
//   textstream.cpp  lines of managed files
//   ownfiles.cpp    files of calls in progress, closed when those did not come back
//   iniread.cpp     INI files: sections, entries and values
//   iniwrite.cpp    INI files: rewriting one through a temporary file
#ifndef RM_RMUTIL_RMUTIL_H
#define RM_RMUTIL_RMUTIL_H

#include "rm/base.h"

#include <cstdint>
#include <span>
#include <string_view>

namespace file
{
struct FileEntry;
}  // namespace file

namespace rmutil
{
constexpr uint32_t kStreamBlock = 512;  // bytes
}

// The fields up to `buffer` are the ones of every release of the library, in their order.
struct FileStream {
    FileHandle handle;
    uint32_t pending;                   // bytes of the block that are not written yet
    uint32_t cursor;                    // next byte in the block, 0 to 512
    char buffer[rmutil::kStreamBlock];  // the block
    uint32_t filled;                    // bytes that the last read gave
    bool failed;                        // a read failed, or a write fell short, at any time
};

namespace rmutil
{

// --- pools.cpp

// What stands before the bytes of an element.
struct PoolElement {
    PoolElement* next;  // on a free list: the next element, or null; in use: its mark
};

// The mark of an element that a caller holds: no address of a block, and another one when the tag's
// memory went and came again at the same place.
inline PoolElement* heldMark(const PoolElement* element, uint16_t epoch)
{
    constexpr unsigned kAlignmentBits = 3;
    return reinterpret_cast<PoolElement*>(reinterpret_cast<uintptr_t>(element) ^
                                          (uintptr_t{epoch} << kAlignmentBits) ^ 1U);
}

}  // namespace rmutil

struct RmPool {
    rmutil::PoolElement* freeList;  // the element that came back last, or null
    Tag tag;                        // of the record and of all elements
    uint32_t maximum;               // as given; never reached, since `count` stays 0
    uint32_t count;                 // 0
    SyncHandle lock;                // RM_NONE: not guarded
    uint32_t timeout;               // milliseconds, for every entry
};

namespace rmutil
{

// --- localenv.cpp

extern char** LocalEnv;       // whole NAME=value texts under tag 0; a slot may be null
extern uint16_t NumLocalEnv;  // slots in the array

// Counts and logs what does not hold in the entries; 0 is sound.
uint32_t checkLocalEnv();

// Forgets all entries without freeing them: their memory is about to go.
void forgetLocalEnv();

// --- textstream.cpp

constexpr uint32_t kLineStep = 100;  // bytes by which a buffer for lines grows

// Where lines of any length are put together.
struct LineContext {
    FileStream* stream;
    char* buffer;       // under tag 0; null until it is needed
    uint32_t size;      // bytes that it has to have: more by 100 as often as a line asked for it
    uint32_t capacity;  // bytes that it has
    char** home;        // where the caller keeps the pointer; null when it is kept here
};

constexpr LineContext linesOf(FileStream* stream)
{
    return {stream, nullptr, kLineStep, 0, nullptr};
}

// Reads a line into the `size` bytes at `buffer`, which are the context's own, and makes them more
// as long as it does not end. 0 when there is no line.
int16_t GetLine(char* buffer, uint32_t size, LineContext* context);

// The next line as GetLine gives it, without its newline, and without copying it where the block
// holds it whole. Valid until the next call. The buffer in the context is freed by the caller.
bool nextLine(LineContext* context, std::string_view* line);

// The next line with every byte that it has, zeros too; the last one need not end with a newline.
bool nextWhole(LineContext* context, std::string_view* line);

// a + b, as the size of a line. Memory is out where 32 bits cannot count it: no block is that long.
uint32_t addBytes(uint32_t a, uint32_t b);

// Gives back what the buffer has beyond its size.
void finishLines(LineContext* context);

// Writes the pieces and a newline.
void putLine(FileStream* stream, std::span<const std::string_view> pieces);

// Writes what is pending. False when the stream has failed, now or before.
bool flushStream(FileStream* stream);

// --- ownfiles.cpp

enum OwnFile { kIniRead, kIniCopy, kCopyFrom, kCopyTo };

// Opens a file for a call, and notes it until it is closed. Null or RM_NONE when it cannot be
// opened. A handle without a stream may not be 0.
FileStream* openOwnStream(OwnFile which, const char* path, const char* mode);
FileHandle openOwn(OwnFile which, const char* path, uint32_t openFlags, uint32_t initialSize,
                   uint32_t growIncrement);

// Closes the file, if there is one; what is pending in its stream is not written.
void closeOwn(OwnFile which);

// Forgets the streams' records, or the handles: the memory, or the file table, is about to go.
void forgetOwnStreams();
void forgetOwnHandles();

// The frames that used them are abandoned. Forgets the handles that are free by now.
void abandonOwnFiles();

// Forgets an abandoned handle: its slot is about to be free.
void forgetAbandoned(const file::FileEntry* entry);

// --- iniread.cpp

constexpr char kIniComment = ';';
constexpr char kIniSection = '[';
constexpr char kIniEquals = '=';

// True when `line` begins with "[" and the text up to its first "]" is `section`, in any case.
bool isHeaderOf(std::string_view line, const char* section);

// True when both are the same text but for the case of ASCII letters.
bool equalsFolded(std::string_view text, const char* other);

// Closes the streams that a fatal error has left open.
void closeStaleInis();

// The path of the file that rm_iniGet and rm_iniSet use, made anew for each call; tag 0.
char* defaultIniPath();

// 1 when the section is found: its entries are read next.
int16_t FindSection(LineContext* lines, const char* section);

// --- iniwrite.cpp

// Writes an entry, behind an empty line and the section's header when `section` is not null.
int16_t AddLine(FileStream* stream, const char* section, const char* key, const char* value);

// True when the file exists. One that does not may be on its way back, since a rewrite removes the
// old file before it renames the new one: then it is looked for again after that rewrite.
bool isThere(const char* path);

// Gives back the lock of a rewrite whose frames are abandoned.
void abandonRewrite();

}  // namespace rmutil

#endif
