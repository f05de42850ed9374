// What is wrong with an INI file, apart from its values.
//
// Why: the library reads such files by simple rules, and what does not fit them is passed over in
// silence: an entry behind an empty line, the second of two sections with one name, a last line
// without its newline. Whoever wrote them meant them. So the host looks for them first, in the
// whole text, and leaves the reading itself to the library.
//
// Fatal: any call may jump to the process's target. Plain data only.
#include "inicheck.h"

#include "settings.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>

namespace catalogue
{
namespace
{
constexpr uint32_t kMostBytes = 65536;   // of a file
constexpr std::size_t kMostShown = 127;  // bytes of a text from a file
constexpr int kForeign = -1;             // a section of somebody else
constexpr int kOutside = -2;             // behind an empty line that has ended a section
constexpr int kBefore = -3;              // the first section

// Where the check stands in the text.
struct Place {
    const char* file;
    uint32_t line;
    int section;    // a known one from 0 on, or one of the above
    uint32_t seen;  // a bit for each known section
};

void checkHeader(std::string_view line, Place& place, Problems& problems)
{
    const std::size_t end = line.find(']');
    const std::string_view name(line.data() + 1,
                                (end == std::string_view::npos ? line.size() : end) - 1);
    place.section = knownSection(name);
    const uint32_t bit = place.section < 0 ? 0 : 1U << place.section;
    if ((place.seen & bit) != 0) {
        addProblem(problems,
                   "%s: line %u: [%.*s] stands here a second time; only the first is read",
                   place.file, place.line, shownLength(name), name.data());
    }
    place.seen |= bit;
}

void checkLine(std::string_view line, Place& place, Problems& problems)
{
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    if (line.empty()) {
        place.section = place.section < 0 ? place.section : kOutside;
    } else if (line.front() == '[') {
        checkHeader(line, place, problems);
    } else if (line.front() != ';' && place.section < kForeign) {
        addProblem(problems, "%s: line %u: \"%.*s\" belongs to no section, and is not read%s",
                   place.file, place.line, shownLength(line), line.data(),
                   place.section == kOutside ? "; an empty line ends one"
                                             : ": it stands before the first [section]");
    }
}

void checkText(std::string_view text, const char* name, Problems& problems)
{
    if (text.find('\0') != std::string_view::npos) {
        addProblem(problems, "%s: holds a NUL byte, so it is not a text", name);
        return;
    }
    if (!text.empty() && text.back() != '\n') {
        addProblem(problems, "%s: the last line does not end with a newline, and would not be read",
                   name);
    }
    Place place = {name, 1, kBefore, 0};
    for (; !text.empty(); ++place.line) {
        const std::size_t end = text.find('\n');
        const bool last = end == std::string_view::npos;
        checkLine({text.data(), last ? text.size() : end}, place, problems);
        text.remove_prefix(last ? text.size() : end + 1);
    }
}
}  // namespace

void addProblem(Problems& problems, const char* format, ...)
{
    if (problems.count == kMostProblems) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(problems.text[problems.count++], kProblemRoom, format, arguments);
    va_end(arguments);
}

void checkIniFile(const char* path, const char* name, Problems& problems)
{
    struct stat status = {};
    if (stat(path, &status) == 0 && !S_ISREG(status.st_mode)) {
        addProblem(problems, "%s: is no regular file", name);
        return;
    }
    const int16_t file = rm_fileOpen(path, RM_O_RDONLY, 0, 0, 0);
    if (file == RM_NONE) {
        addProblem(problems, "%s: cannot be opened: %s", name, std::strerror(errno));
        return;
    }
    const uint32_t bytes = rm_fileLength(file);
    if (bytes > kMostBytes) {
        addProblem(problems, "%s: is larger than %u bytes", name, kMostBytes);
    } else {
        auto* text = static_cast<char*>(rm_getMemory(bytes, 0));
        if (rm_fileRead(file, text, bytes) == bytes) {
            checkText({text, bytes}, name, problems);
        } else {
            addProblem(problems, "%s: cannot be read", name);
        }
        rm_freeMemory(text, 0);
    }
    rm_fileClose(file);
}

int knownSection(std::string_view name)
{
    int number = 0;
    for (uint32_t i = 0; i < kSettings; ++i) {
        if (i > 0 && std::strcmp(kDefinitions[i].section, kDefinitions[i - 1].section) != 0) {
            ++number;
        }
        if (sameName(name, kDefinitions[i].section)) {
            return number;
        }
    }
    return sameName(name, kEnvironmentSection) ? number + 1 : kForeign;
}

bool sameName(std::string_view text, const char* name)
{
    return text.size() == std::strlen(name) &&
           strnicmp(text.data(), name, static_cast<uint32_t>(text.size())) == 0;
}

int shownLength(std::string_view text)
{
    return static_cast<int>(text.size() < kMostShown ? text.size() : kMostShown);
}

}  // namespace catalogue
