// Strings: case, case-blind comparison, splitting, joining, bounded copies, line reading.
//
// Why: the servers on this library share keys, configuration and command lines between machines,
// so the functions that order, fold and split them may not follow the host's locale, and those that
// copy may not run past a buffer. They keep no state.
//
// Invariant: a byte counts as unsigned, and only ASCII letters, digits and blanks belong to a
// class.
//
// Fatal: only what allocates (StrToArgv, StrArrayCat), through the memory manager.
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/txtutil/txtutil.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

using txtutil::isDigit;
using txtutil::isSpace;
using txtutil::toLower;
using txtutil::toUpper;

namespace
{
const char* orEmpty(const char* text)
{
    return text == nullptr ? "" : text;
}

// The sign of the difference of two bytes, folded to upper case: so the characters between the two
// cases in the code table, such as the underscore, order as they do against capitals.
int compareFolded(char a, char b)
{
    const auto left = static_cast<unsigned char>(toUpper(a));
    const auto right = static_cast<unsigned char>(toUpper(b));
    if (left == right) {
        return 0;
    }
    return left < right ? -1 : 1;
}

char* skipSpace(char* at)
{
    while (isSpace(*at)) {
        ++at;
    }
    return at;
}

char* skipWord(char* at)
{
    while (*at != '\0' && !isSpace(*at)) {
        ++at;
    }
    return at;
}

int countWords(char* text)
{
    int words = 0;
    for (char* at = skipSpace(text); *at != '\0'; at = skipSpace(skipWord(at))) {
        ++words;
    }
    return words;
}

// Overwrites the white space at `at` with terminators and returns the first byte after it.
char* clearSpace(char* at)
{
    while (isSpace(*at)) {
        *at++ = '\0';
    }
    return at;
}

// Reads up to and including the next newline, or to the end of the stream; the bytes are dropped.
// Returns how many there were.
std::size_t dropLine(FILE* stream)
{
    std::size_t dropped = 0;
    for (int c = getc(stream); c != EOF; c = getc(stream)) {
        ++dropped;
        if (c == '\n') {
            break;
        }
    }
    return dropped;
}

// As fgets, but without a terminator, and tells how many bytes it has read: the line may hold zero
// bytes, so that nothing in the buffer shows its end. 0 at the end of the stream and on an error.
std::size_t readLine(char* buffer, std::size_t most, FILE* stream)
{
    std::size_t count = 0;
    int c = 0;
    flockfile(stream);  // for the whole line: threads that read one stream do not mix theirs
    while (count < most && c != '\n' && c != EOF) {
        c = getc(stream);
        if (c != EOF) {
            buffer[count++] = static_cast<char>(c);
        }
    }
    // Bytes that are not there yet, of a stream that does not wait for them, are no error.
    const bool failed = c == EOF && feof_unlocked(stream) == 0 && errno != EAGAIN;
    funlockfile(stream);
    return failed ? 0 : count;
}
}  // namespace

int AllDigits(const char* text)
{
    for (const char* at = orEmpty(text); *at != '\0'; ++at) {
        if (!isDigit(*at)) {
            return 0;
        }
    }
    return 1;
}

char* StrUpper(char* text)
{
    for (char* at = text; at != nullptr && *at != '\0'; ++at) {
        *at = toUpper(*at);
    }
    return text;
}

char* StrLower(char* text)
{
    for (char* at = text; at != nullptr && *at != '\0'; ++at) {
        *at = toLower(*at);
    }
    return text;
}

int stricmp(const char* a, const char* b)
{
    a = orEmpty(a);
    b = orEmpty(b);
    for (;; ++a, ++b) {
        const int order = compareFolded(*a, *b);
        if (order != 0 || *a == '\0') {
            return order;
        }
    }
}

int strnicmp(const char* a, const char* b, uint32_t n)
{
    a = orEmpty(a);
    b = orEmpty(b);
    for (; n > 0; --n, ++a, ++b) {
        const int order = compareFolded(*a, *b);
        if (order != 0 || *a == '\0') {
            return order;
        }
    }
    return 0;
}

int16_t StrToArgv(char* text, int* count, char*** argv, int16_t tag)
{
    const int words = countWords(text);
    *count = words;
    if (words == 0) {
        *argv = nullptr;
        return RM_SUCCESS;
    }
    const uint64_t bytes = static_cast<uint64_t>(words) * sizeof(char*);
    if (bytes > std::numeric_limits<uint32_t>::max()) {
        return RM_OUT_OF_MEMORY;
    }
    auto** array = static_cast<char**>(rm_getMemory(static_cast<uint32_t>(bytes), tag));
    if (array == nullptr) {
        return RM_OUT_OF_MEMORY;
    }
    *argv = array;
    char* at = clearSpace(text);
    for (int word = 0; word < words; ++word) {
        array[word] = at;
        at = clearSpace(skipWord(at));
    }
    return RM_SUCCESS;
}

char* StrArrayCat(const char* const* strings, int16_t count, int16_t tag)
{
    uint64_t bytes = 1;
    for (int16_t i = 0; i < count; ++i) {
        bytes += std::strlen(orEmpty(strings[i]));
    }
    if (bytes > std::numeric_limits<uint32_t>::max()) {
        rmsrv::outOfMemory();
    }
    auto* joined = static_cast<char*>(rm_getMemory(static_cast<uint32_t>(bytes), tag));
    if (joined == nullptr) {
        return nullptr;
    }
    // Deliberate: with nothing to copy the block is left as the allocator gave it, unterminated.
    char* end = joined;
    for (int16_t i = 0; i < count; ++i) {
        if (strings[i] != nullptr) {
            const std::size_t length = std::strlen(strings[i]);
            std::memcpy(end, strings[i], length + 1);
            end += length;
        }
    }
    return joined;
}

int16_t StrArrayCatBuf(const char* const* strings, uint16_t count, char* buffer, uint16_t size)
{
    std::size_t room = size;
    char* end = buffer;
    for (uint16_t i = 0; i < count; ++i) {
        if (strings[i] == nullptr) {
            continue;
        }
        const std::size_t length = std::strlen(strings[i]);
        if (length >= room) {
            StrncpyZ(end, strings[i], static_cast<int>(room));
            return -1;
        }
        std::memcpy(end, strings[i], length + 1);
        end += length;
        room -= length;
    }
    if (room == size) {
        // Deliberate: also when the size is 0; callers count on one terminated byte.
        *buffer = '\0';
    }
    return RM_SUCCESS;
}

char* StrncpyZ(char* destination, const char* source, int n)
{
    if (n <= 0) {
        return destination;
    }
    // The rest of the n bytes is cleared, so that records that hold such a field compare as bytes.
    const auto size = static_cast<std::size_t>(n);
    const std::size_t length = strnlen(orEmpty(source), size - 1);
    std::memmove(destination, orEmpty(source), length);
    std::memset(destination + length, 0, size - length);
    return destination;
}

char* FgetsTrim(char* buffer, int16_t size, FILE* stream)
{
    fflush(stdout);
    if (size <= 1) {
        // No room for a byte of the line, or not even for a terminator: the line is read all the
        // same, since a caller in a loop counts on meeting the end of the file.
        if (size == 1) {
            *buffer = '\0';
        }
        return dropLine(stream) == 0 ? nullptr : buffer;
    }
    std::size_t length = readLine(buffer, static_cast<std::size_t>(size) - 1, stream);
    if (length == 0) {
        *buffer = '\0';
        return nullptr;
    }
    if (buffer[length - 1] == '\n') {
        --length;
    } else {
        dropLine(stream);
    }
    buffer[length] = '\0';
    return buffer;
}
