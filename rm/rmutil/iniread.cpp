// INI files: what stands in one.
//
// Why: settings must be readable by people and by every process of the server. A file is read anew
// for each question, from its beginning and only as far as the answer: no copy of it is kept that
// could be out of date.
//
//   [section]      opens a section, up to the first "]"
//   key=value      an entry. Nothing is trimmed: "key = value" has a key that ends in a blank
//   ; text         a comment
//   (empty line)   ends the entries of a section
//
// Names are compared without regard to case.
//
// Owns: nothing. The streams of a call are noted in ownfiles.cpp.
//
// Locks: those of a managed file. A file that is missing while it is rewritten is waited for.
//
// Fatal: no memory, a lock that is not free in time. Nothing is logged but by the managed file.
#include "rm/file/file.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <cstring>

using namespace rmutil;

namespace
{
constexpr const char* kDefaultBase = "corvane";
constexpr const char* kDefaultExtension = "ini";
constexpr int kTries = 5;  // to open a file that is there

// The caller's buffer while a list is put into it.
struct List {
    char* at;
    std::size_t left;  // bytes, the terminator of the whole list not counted
};

// The buffer of the caller; `size` as he gave it.
struct Answer {
    char* buffer;
    int16_t size;
    bool withValues;

    std::size_t capacity() const { return size > 1 ? static_cast<std::size_t>(size) - 1 : 0; }
};

// A bounded copy that fills all `size` bytes: what the text leaves of them is zeros.
void copyBounded(char* to, std::string_view text, std::size_t size)
{
    if (size > 0) {
        const std::size_t length = std::min(text.size(), size - 1);
        std::memcpy(to, text.data(), length);
        std::memset(to + length, 0, size - length);
    }
}

// An entry that does not fit is cut to what is left, and ends the list.
void append(List* list, std::string_view entry)
{
    const std::size_t used = std::min(entry.size() + 1, list->left);
    copyBounded(list->at, entry, used);
    list->at += used;
    list->left -= used;
}

// What substr() of the standard library would give, which throws.
std::string_view head(std::string_view text, std::size_t length)
{
    return {text.data(), std::min(length, text.size())};
}

std::string_view behind(std::string_view text, std::size_t length)
{
    text.remove_prefix(length);
    return text;
}

std::string_view before(std::string_view line, char c)
{
    return head(line, line.find(c));
}

// The lines of text files from other systems end with a carriage return too.
std::string_view cut(std::string_view line)
{
    return before(line, '\r');
}

int16_t listSections(LineContext* lines, List* list)
{
    int16_t result = RM_NOT_FOUND;
    std::string_view line;
    while (list->left > 0 && nextLine(lines, &line)) {
        if (line.starts_with(kIniSection)) {
            append(list, before(cut(behind(line, 1)), ']'));
            result = RM_SUCCESS;
        }
    }
    return result;
}

int16_t listEntries(LineContext* lines, bool withValues, List* list)
{
    int16_t result = RM_NOT_FOUND;
    std::string_view line;
    while (list->left > 0 && nextLine(lines, &line)) {
        line = cut(line);
        if (line.empty() || line.starts_with(kIniSection)) {
            break;
        }
        if (!line.starts_with(kIniComment)) {
            append(list, withValues ? line : before(line, kIniEquals));
            result = RM_SUCCESS;
        }
    }
    return result;
}

// Deliberate: only an empty line ends the search, not the header of another section. A key is found
// in a following section when nothing separates the two.
bool findValue(LineContext* lines, const char* key, std::string_view* value)
{
    std::string_view line;
    while (nextLine(lines, &line) && !line.empty() && line.front() != '\r') {
        const std::size_t equals = line.find(kIniEquals);
        if (equals != std::string_view::npos && !line.starts_with(kIniComment)) {
            line = cut(line);
            if (equals < line.size() && equalsFolded(head(line, equals), key)) {
                *value = behind(line, equals + 1);
                return true;
            }
        }
    }
    return false;
}

int16_t answerList(LineContext* lines, const char* section, const Answer& answer)
{
    List list = {answer.buffer, answer.capacity()};
    int16_t result = RM_NOT_FOUND;
    if (section == nullptr) {
        result = listSections(lines, &list);
    } else if (FindSection(lines, section) != 0) {
        result = listEntries(lines, answer.withValues, &list);
    }
    if (lines->stream->failed) {
        result = RM_NOT_FOUND;  // what could not be read is not taken for the end
    }
    if (answer.size > 0) {
        *list.at = '\0';  // each entry ends with a zero, a cut one too: two of them end the list
    }
    return result;
}

int16_t answerValue(LineContext* lines, const char* section, const char* key, const Answer& answer)
{
    std::string_view value;
    if (FindSection(lines, section) == 0 || !findValue(lines, key, &value)) {
        return RM_NOT_FOUND;
    }
    if (lines->stream->failed) {
        return RM_NOT_FOUND;  // the line ends where the file could not be read
    }
    copyBounded(answer.buffer, value, answer.size == 1 ? 1 : answer.capacity());
    return RM_SUCCESS;
}

// A file that was not there a moment ago may be there now, and gone again: see isThere.
FileStream* openForReading(const char* path)
{
    FileStream* stream = openOwnStream(kIniRead, path, "r");
    for (int tries = 0; stream == nullptr && tries < kTries && isThere(path); ++tries) {
        stream = openOwnStream(kIniRead, path, "r");
    }
    return stream;
}
}  // namespace

void rmutil::closeStaleInis()
{
    closeOwn(kIniRead);
    closeOwn(kIniCopy);
}

char* rmutil::defaultIniPath()
{
    return makeAllocPath(".", kDefaultBase, kDefaultExtension, 0);
}

bool rmutil::equalsFolded(std::string_view text, const char* other)
{
    return text.size() == std::strlen(other) &&
           strnicmp(text.data(), other, static_cast<uint32_t>(text.size())) == 0;
}

bool rmutil::isHeaderOf(std::string_view line, const char* section)
{
    return line.starts_with(kIniSection) && equalsFolded(before(behind(line, 1), ']'), section);
}

int16_t rmutil::FindSection(LineContext* lines, const char* section)
{
    std::string_view line;
    while (nextLine(lines, &line)) {
        if (line.starts_with(kIniSection) && isHeaderOf(cut(line), section)) {
            return 1;
        }
    }
    return 0;
}

int16_t rm_iniGetPrivate(const char* section, const char* key, char* buffer, int16_t size,
                         uint16_t withValues, const char* path)
{
    if (buffer == nullptr || path == nullptr) {
        return RM_MISSING_ARGUMENT;
    }
    closeStaleInis();
    FileStream* stream = openForReading(path);
    if (stream == nullptr) {
        return RM_NOT_FOUND;
    }
    LineContext lines = linesOf(stream);
    Answer answer = {nullptr, size, withValues != 0};
    answer.buffer = buffer;  // in the initializer clang-tidy takes it for one that is only read
    const int16_t result = section == nullptr || key == nullptr
                               ? answerList(&lines, section, answer)
                               : answerValue(&lines, section, key, answer);
    rm_freeMemory(lines.buffer, 0);
    closeOwn(kIniRead);
    return result;
}

int16_t rm_iniGet(const char* section, const char* key, char* buffer, int16_t size,
                  uint16_t withValues)
{
    if (buffer == nullptr) {
        return RM_MISSING_ARGUMENT;
    }
    char* path = defaultIniPath();
    if (path == nullptr) {
        return RM_OUT_OF_MEMORY;
    }
    const int16_t result = rm_iniGetPrivate(section, key, buffer, size, withValues, path);
    rm_freeMemory(path, 0);
    return result;
}
