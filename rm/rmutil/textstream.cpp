// Text streams: lines of a managed file, through a block of 512 bytes.
//
// Why: text files are read and written through the same table as all others, so that they count
// against the same limit of descriptors and their failures read the same in the log. One block
// serves reading and writing; nobody does both with one stream.
//
//   reading   `cursor` runs over the block; behind a block that was not filled stands a zero as the
//             end mark. At 0 and at 512 the next block is read.
//   writing   the block is filled up to `cursor`, and written when another byte comes or at close.
//
// Three readers stand on it. rm_fileStreamGets and rm_fileStreamGetLine are the interface's;
// nextLine gives the same lines without copying those that lie whole in the block; and nextWhole
// gives every byte of the file, for those who write it back.
//
// Owns: nothing; a stream belongs to who opened it, under tag 0.
//
// Invariant: `cursor` is 0 to 512. Between two puts it is `pending`, unless the first one did not
// come back.
//
// Locks: those of the managed file. Fatal: no memory, and what the managed file ends.
#include "rm/file/file.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/rmutil/rmutil.h"

#include <algorithm>
#include <cstring>
#include <limits>

using namespace rmutil;

namespace
{
constexpr std::size_t kModeCharacters = 3;  // of a mode that are looked at
constexpr uint32_t kWriteFlags = RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC;
constexpr uint32_t kGrowIncrement = 1;
constexpr uint32_t kLargestRead = std::numeric_limits<int32_t>::max();

uint32_t openFlagsOf(const char* mode)
{
    uint32_t flags = RM_O_RDONLY;
    for (std::size_t i = 0; mode != nullptr && i < kModeCharacters && mode[i] != '\0'; ++i) {
        if (mode[i] == 'w') {
            flags |= kWriteFlags;
        } else if (mode[i] == '+') {
            flags = (flags & ~RM_O_WRONLY) | RM_O_RDWR;
        }
    }
    return flags;
}

// A transfer has failed. The handle may have vanished with it; its number is another file's soon.
void noteFailure(FileStream* stream)
{
    stream->failed = true;
    if (file::usedEntry(stream->handle) == nullptr) {
        stream->handle = RM_NONE;
    }
}

// Bytes that were read; the cursor is at the first of them.
uint32_t readBlock(FileStream* stream)
{
    int16_t error = RM_SUCCESS;
    stream->filled = file::readNext(stream->handle, stream->buffer, kStreamBlock, &error);
    if (stream->filled != kStreamBlock) {
        stream->buffer[stream->filled] = '\0';
    }
    stream->cursor = 0;
    if (error != RM_SUCCESS) {
        noteFailure(stream);
    }
    return stream->filled;
}

void writeBlock(FileStream* stream, uint32_t length)
{
    if (rm_fileWrite(stream->handle, stream->buffer, length) != length) {
        noteFailure(stream);
    }
    stream->cursor = 0;
    stream->pending = 0;
}

// Bytes of `from` up to and including the newline, at most `length`; up to the first zero when that
// comes before.
uint32_t lineLength(const char* from, uint32_t length, bool* newline)
{
    const auto* end = static_cast<const char*>(std::memchr(from, '\n', length));
    *newline = end != nullptr;
    const auto bytes = *newline ? static_cast<uint32_t>(end - from) + 1 : length;
    const auto* zero = static_cast<const char*>(std::memchr(from, '\0', bytes));
    if (zero == nullptr) {
        return bytes;
    }
    *newline = false;
    return static_cast<uint32_t>(zero - from);
}

// The buffer has become another block. The caller's pointer follows at once: the next step may not
// return, and what it led to is free.
void moveBuffer(LineContext* context, char* block, uint32_t capacity)
{
    context->buffer = block;
    context->capacity = capacity;
    if (context->home != nullptr) {
        *context->home = block;
    }
}

// Makes the buffer as large as it has to be, and in larger steps than the lines grow by: what is
// too much is given back at the end. False when it is no block of tag 0; the log says so then.
bool reserve(LineContext* context)
{
    if (context->size <= context->capacity) {
        return true;
    }
    const uint64_t roomy = uint64_t{context->capacity} + context->capacity / 2;
    const auto capacity = static_cast<uint32_t>(
        std::clamp<uint64_t>(roomy, context->size, std::numeric_limits<uint32_t>::max()));
    auto* longer = static_cast<char*>(rm_extendMemory(context->buffer, capacity, 0));
    if (longer == nullptr) {
        context->size = context->capacity;
        return false;
    }
    moveBuffer(context, longer, capacity);
    return true;
}

bool grow(LineContext* context)
{
    context->size = addBytes(context->size, kLineStep);
    return reserve(context);
}

// The size to which lines of `length` bytes, newline included, have brought the buffer.
uint32_t sizeForLine(uint32_t length, uint32_t size)
{
    while (length > size - 1) {
        size += kLineStep;
    }
    return size;
}

void append(FileStream* stream, std::string_view bytes)
{
    while (!bytes.empty()) {
        if (stream->cursor == kStreamBlock) {
            writeBlock(stream, kStreamBlock);
        }
        const auto here = std::min<std::size_t>(bytes.size(), kStreamBlock - stream->cursor);
        std::memcpy(stream->buffer + stream->cursor, bytes.data(), here);
        stream->cursor += static_cast<uint32_t>(here);
        bytes.remove_prefix(here);
    }
}
}  // namespace

FileStream* rm_fileStreamOpen(const char* path, const char* mode)
{
    auto* stream = static_cast<FileStream*>(rm_cGetMemory(sizeof(FileStream), 0));
    stream->handle = rm_fileOpen(path, openFlagsOf(mode), 0, 0, kGrowIncrement);
    if (stream->handle == RM_NONE) {
        rm_freeMemory(stream, 0);
        return nullptr;
    }
    return stream;
}

void rm_fileStreamClose(FileStream* stream)
{
    if (stream == nullptr) {
        return;
    }
    flushStream(stream);
    if (stream->handle != RM_NONE) {
        rm_fileClose(stream->handle);
    }
    rm_freeMemory(stream, 0);
}

char* rm_fileStreamGets(FileStream* stream, char* buffer, int32_t size)
{
    if (stream == nullptr || buffer == nullptr || size <= 0) {
        return nullptr;
    }
    // With size 1 a byte is taken and not kept, so that a caller in a loop meets the end.
    const uint32_t most = size > 1 ? static_cast<uint32_t>(size) - 1 : 1;
    char* out = size > 1 ? buffer : nullptr;
    uint32_t count = 0;  // bytes of the last block that this call has read
    uint32_t taken = 0;
    bool newline = false;
    while (!newline && taken < most) {
        if (stream->cursor % kStreamBlock == 0) {
            count = readBlock(stream);
        }
        // Deliberate: only a block that this call has read can end a last line without a newline.
        // Of a block that was read before, such a line is not returned.
        if (count != 0 && stream->cursor == count) {
            break;
        }
        const char* from = stream->buffer + stream->cursor;
        if (*from == '\0') {
            if (out != nullptr && taken > 0) {
                out[taken] = '\0';
            }
            return nullptr;
        }
        const uint32_t end = count != 0 ? count : kStreamBlock;
        const uint32_t length =
            lineLength(from, std::min(end - stream->cursor, most - taken), &newline);
        if (out != nullptr) {
            std::memcpy(out + taken, from, length);
        }
        stream->cursor += length;
        taken += length;
    }
    buffer[out != nullptr ? taken : 0] = '\0';
    return buffer;
}

uint32_t rm_fileStreamPuts(FileStream* stream, const char* text)
{
    if (stream == nullptr || text == nullptr) {
        return 0;
    }
    const std::string_view line = text;
    putLine(stream, {&line, 1});
    return static_cast<uint32_t>(line.size());
}

char* rm_fileStreamGetLine(FileStream* stream, char** lineBuffer, uint32_t* lineSize)
{
    if (stream == nullptr || lineBuffer == nullptr || lineSize == nullptr) {
        return nullptr;
    }
    if (*lineBuffer == nullptr) {
        *lineBuffer = static_cast<char*>(rm_getMemory(kLineStep, 0));
        *lineSize = kLineStep;
    }
    const uint32_t size = *lineSize != 0 ? *lineSize : kLineStep;
    LineContext context = {stream, *lineBuffer, size, size, lineBuffer};

    // One byte has no room for any of a line: it is made longer first.
    const bool roomy = context.size > 1 || grow(&context);
    const bool found = roomy && GetLine(context.buffer, context.size, &context) != 0;
    finishLines(&context);
    *lineSize = context.size;
    return found ? context.buffer : nullptr;
}

int16_t rmutil::GetLine(char* buffer, uint32_t size, LineContext* context)
{
    char* at = buffer;
    uint32_t room = std::min(size, kLargestRead);
    if (rm_fileStreamGets(context->stream, at, static_cast<int32_t>(room)) == nullptr) {
        return 0;
    }
    // Each time the line does not end, the next 100 bytes go over the terminator. At the end of the
    // file nothing comes, and the line is what there is.
    bool more = true;
    at[room - 1] = '\0';
    while (more && std::strchr(at, '\n') == nullptr) {
        const uint32_t terminator = context->size - 1;
        if (!grow(context)) {
            return 0;
        }
        at = context->buffer + terminator;
        room = kLineStep + 1;
        more = rm_fileStreamGets(context->stream, at, static_cast<int32_t>(room)) != nullptr;
        at[room - 1] = '\0';
    }
    return 1;
}

bool rmutil::nextLine(LineContext* context, std::string_view* line)
{
    FileStream* stream = context->stream;
    // At 0 and at 512 the next read decides; and what is left of a block that was not filled ends
    // with a zero, so that what an earlier block left behind it is never taken for a line.
    if (stream->cursor % kStreamBlock != 0) {
        const char* from = stream->buffer + stream->cursor;
        bool newline = false;
        const uint32_t length = lineLength(from, kStreamBlock - stream->cursor, &newline);
        if (newline) {
            stream->cursor += length;
            context->size = sizeForLine(length, context->size);
            *line = {from, length - 1};
            return true;
        }
    }
    if (!reserve(context) || GetLine(context->buffer, context->size, context) == 0) {
        return false;
    }
    *line = context->buffer;
    if (line->ends_with('\n')) {
        line->remove_suffix(1);
    }
    return true;
}

uint32_t rmutil::addBytes(uint32_t a, uint32_t b)
{
    if (a > std::numeric_limits<uint32_t>::max() - b) {
        rmsrv::outOfMemory();
    }
    return a + b;
}

bool rmutil::nextWhole(LineContext* context, std::string_view* line)
{
    FileStream* stream = context->stream;
    uint32_t assembled = 0;  // bytes of this line that stood in earlier blocks
    for (;;) {
        if (stream->cursor == stream->filled && readBlock(stream) == 0) {
            *line = {context->buffer, assembled};
            return assembled > 0;
        }
        const char* from = stream->buffer + stream->cursor;
        const uint32_t left = stream->filled - stream->cursor;
        const auto* newline = static_cast<const char*>(std::memchr(from, '\n', left));
        const uint32_t length = newline != nullptr ? static_cast<uint32_t>(newline - from) : left;
        stream->cursor += newline != nullptr ? length + 1 : length;
        if (newline != nullptr && assembled == 0) {
            *line = {from, length};
            return true;
        }
        context->size = std::max(context->size, addBytes(assembled, length));
        if (!reserve(context)) {
            stream->failed = true;
            return false;
        }
        std::memcpy(context->buffer + assembled, from, length);
        assembled += length;
        if (newline != nullptr) {
            *line = {context->buffer, assembled};
            return true;
        }
    }
}

void rmutil::finishLines(LineContext* context)
{
    if (context->capacity > context->size) {
        auto* exact = static_cast<char*>(rm_extendMemory(context->buffer, context->size, 0));
        moveBuffer(context, exact != nullptr ? exact : context->buffer, context->size);
    }
}

void rmutil::putLine(FileStream* stream, std::span<const std::string_view> pieces)
{
    // Behind the last line that is whole: a put that did not come back may have left a part of its
    // own.
    stream->cursor = stream->pending;
    for (const std::string_view piece : pieces) {
        append(stream, piece);
    }
    append(stream, "\n");
    stream->pending = stream->cursor;
}

bool rmutil::flushStream(FileStream* stream)
{
    if (stream->pending != 0) {
        writeBlock(stream, stream->pending);
    }
    return !stream->failed;
}
