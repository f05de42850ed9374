// The settings of a run: defaults, then corvane.ini, then the command line.
//
// Why: the library reads the file, and its rules are these: a section ends at an empty line or at
// the next header, names are compared without regard to case, nothing is trimmed. A host asks for
// whole sections rather than for single keys. So it sees the entries that it does not know, and
// none of the section behind: a search for one key goes on into a section that follows without an
// empty line.
//
// Where the file is: the library finds it by CATPATH, each time anew. This host works in a
// directory of its own and changes to it, so CATPATH is made absolute before.
//
// Locks: none, at the start: main has seen to it that the file layer makes no semaphores yet.
//
// Fatal: any call may jump to the target that main has registered. Plain data only.
#include "profile.h"

#include "console.h"

#include "rm.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr int16_t kSectionRoom = 8192;  // bytes of a section's entries
constexpr std::size_t kMaxName = 127;   // bytes of a variable: longer ones are never found again
constexpr uint16_t kWithValues = 1;
constexpr const char* kHome = "CATPATH";

// ---- entries

// The next text of a list; empty at its end.
std::string_view nextOf(const char*& list)
{
    const std::string_view text(list);
    list += text.empty() ? 0 : text.size() + 1;
    return text;
}

// All entries of a section, as a row of texts; an empty row when there is no such section.
const char* entriesOf(const char* section, const Profile& profile, Problems& problems)
{
    static char entries[kSectionRoom];
    std::memset(entries, 0, sizeof(entries));
    rm_iniGetPrivate(section, nullptr, entries, kSectionRoom, kWithValues, profile.path);
    // What does not fit is cut without notice, but then the row reaches the end of the buffer.
    if (entries[kSectionRoom - 3] != '\0') {
        addProblem(problems, "%s: [%s] holds more than %d bytes", profile.name, section,
                   kSectionRoom);
    }
    return entries;
}

// Splits "key=value". False for a line without "=".
bool split(std::string_view entry, std::string_view& key, std::string_view& value)
{
    const std::size_t equals = entry.find('=');
    if (equals == std::string_view::npos) {
        return false;
    }
    key = {entry.data(), equals};
    value = {entry.data() + equals + 1, entry.size() - equals - 1};
    return true;
}

Setting settingOf(const char* section, std::string_view key)
{
    uint32_t i = 0;
    while (i < kSettings && (std::strcmp(section, kDefinitions[i].section) != 0 ||
                             !sameName(key, kDefinitions[i].key))) {
        ++i;
    }
    return static_cast<Setting>(i);
}

// Another section that has the key; null when none has.
const char* sectionWith(std::string_view key)
{
    for (const Definition& definition : kDefinitions) {
        if (sameName(key, definition.key)) {
            return definition.section;
        }
    }
    return nullptr;
}

void addUnknownKey(const char* section, std::string_view key, const Profile& profile,
                   Problems& problems)
{
    char known[200] = "";
    std::size_t length = 0;
    for (const Definition& definition : kDefinitions) {
        if (std::strcmp(definition.section, section) == 0 && length < sizeof(known)) {
            length += static_cast<std::size_t>(std::snprintf(known + length, sizeof(known) - length,
                                                             "%s%s", length == 0 ? "" : ", ",
                                                             definition.key));
        }
    }
    const bool blank = key.starts_with(' ') || key.ends_with(' ');
    const char* const other = sectionWith(key);
    char elsewhere[40] = "";
    if (other != nullptr) {
        std::snprintf(elsewhere, sizeof(elsewhere), "; [%s] has it", other);
    }
    addProblem(problems, "%s: [%s] %.*s: there is no such key%s%s; allowed are %s", profile.name,
               section, shownLength(key), key.data(),
               blank ? ", for the blank beside it counts" : "", elsewhere, known);
}

void readSection(const char* section, const Profile& profile, Settings& settings,
                 Problems& problems)
{
    bool seen[kSettings] = {};
    const char* list = entriesOf(section, profile, problems);
    for (std::string_view entry = nextOf(list); !entry.empty(); entry = nextOf(list)) {
        std::string_view key;
        std::string_view value;
        if (!split(entry, key, value)) {
            addProblem(problems,
                       "%s: [%s] %.*s: not an entry; allowed are key=value, and ; before a comment",
                       profile.name, section, shownLength(entry), entry.data());
            continue;
        }
        const Setting setting = settingOf(section, key);
        if (setting == kSettings) {
            addUnknownKey(section, key, profile, problems);
        } else if (seen[setting]) {
            addProblem(problems, "%s: [%s] %s: stands twice; allowed is once", profile.name,
                       section, kDefinitions[setting].key);
        } else if (!takeSetting(settings, setting, value, Origin::kFile)) {
            addProblem(problems, "%s: [%s] %s: \"%.*s\" is not valid; allowed is %s", profile.name,
                       section, kDefinitions[setting].key, shownLength(value), value.data(),
                       allowedValues(setting).text);
        }
        if (setting != kSettings) {
            seen[setting] = true;
        }
    }
}

// ---- [ENVIRONMENT]

// Why a variable cannot be set; null when it can. `environment` holds those before it.
const char* faultOf(std::string_view name, std::string_view value, const char* environment)
{
    uint64_t number = 0;
    if (name.empty() || name.size() > kMaxName) {
        return "the name is empty or too long; allowed are 1 to 127 bytes";
    }
    if (sameName(name, kHome)) {
        return "this decides where the file itself is found; allowed in the environment of the "
               "process only";
    }
    if (sameName(name, kUpdateOneInName) && !parseNumber(value, 1, kMaxUpdateOneIn, number)) {
        return "not valid; allowed is a number from 1 to 1000";
    }
    // The library replaces the first entry that begins with the name.
    for (std::string_view other = nextOf(environment); !other.empty();
         other = nextOf(environment)) {
        const std::string_view otherName(other.data(), other.find('='));
        const std::size_t common = otherName.size() < name.size() ? otherName.size() : name.size();
        if (strnicmp(name.data(), otherName.data(), static_cast<uint32_t>(common)) == 0) {
            return "one name begins with another; allowed are names that differ before one ends";
        }
    }
    return nullptr;
}

void readEnvironment(const Profile& profile, Settings& settings, Problems& problems)
{
    std::size_t used = 0;
    const char* list = entriesOf(kEnvironmentSection, profile, problems);
    for (std::string_view entry = nextOf(list); !entry.empty(); entry = nextOf(list)) {
        std::string_view name;
        std::string_view value;
        const char* fault = "not an entry; allowed are NAME=value, and ; before a comment";
        if (split(entry, name, value)) {
            fault = faultOf(name, value, settings.environment);
        } else {
            name = entry;
        }
        if (fault == nullptr && used + entry.size() + 2 > kEnvironmentRoom) {
            fault = "no room for it; allowed are 2048 bytes for all of them";
        }
        if (fault != nullptr) {
            addProblem(problems, "%s: [%s] %.*s: %s", profile.name, kEnvironmentSection,
                       shownLength(name), name.data(), fault);
            continue;
        }
        entry.copy(settings.environment + used, entry.size());
        used += entry.size() + 1;
        settings.environment[used] = '\0';
    }
}

// ---- the rest

// Whether there is a file. One that is being rewritten may be absent for a moment; the library's
// reading waits until that is over.
bool exists(const char* path)
{
    char ignored[2];
    return rm_fileValidate(path) == RM_SUCCESS ||
           rm_iniGetPrivate(nullptr, nullptr, ignored, sizeof(ignored), 0, path) == RM_SUCCESS ||
           rm_fileValidate(path) == RM_SUCCESS;
}

// A change that was interrupted leaves the file under another name. Whoever made it has to settle
// that; going on with the defaults, as if there had never been a file, would be wrong.
void checkNoCopy(const Profile& profile, Problems& problems)
{
    char copy[kPathRoom];
    const auto length = static_cast<int>(pathBaseExt(profile.path) - profile.path);
    std::snprintf(copy, sizeof(copy), "%.*s_temp_.ini", length, profile.path);
    if (rm_fileValidate(copy) == RM_SUCCESS) {
        addProblem(
            problems,
            "there is no %s, but an interrupted change has left %.200s: rename that to %s, or "
            "remove it",
            profile.name, copy, profile.name);
    }
}

void noteForeignSections(Profile& profile)
{
    static char names[kSectionRoom];
    std::memset(names, 0, sizeof(names));
    rm_iniGetPrivate(nullptr, nullptr, names, kSectionRoom, 0, profile.path);
    std::size_t length = 0;
    profile.foreign[0] = '\0';
    const char* list = names;
    for (std::string_view name = nextOf(list); !name.empty(); name = nextOf(list)) {
        if (knownSection(name) < 0 && length + name.size() + 4 < sizeof(profile.foreign)) {
            length += static_cast<std::size_t>(
                std::snprintf(profile.foreign + length, sizeof(profile.foreign) - length, "%s[%s]",
                              length == 0 ? "" : " ", name.data()));
        }
    }
}

// Why a file cannot be written, as an errno value; 0 when it can, or can be made.
int writeFault(const char* path)
{
    if (rm_fileValidate(path) == RM_SUCCESS) {
        int32_t fd = -1;
        const int16_t error = rm_flOpen(path, RM_O_WRONLY, 0, 0, &fd);
        if (error == RM_SUCCESS) {
            rm_flClose(fd);
        }
        return error;
    }
    char directory[kPathRoom];
    StrncpyZ(directory, path, static_cast<int>(pathBaseExt(path) - path) + 1);
    return access(directory, W_OK | X_OK) == 0 ? 0 : errno;
}

// Looks at the log file beforehand: rm_systemLogOpen ends the process when it cannot be opened.
void checkLogPath(const Settings& settings, const Profile& profile, Problems& problems)
{
    const char* const from = settings.origin[kLogPath] == Origin::kCommandLine ? "--log"
                             : profile.found                                   ? profile.name
                                                                               : "the default";
    char path[kPathRoom];
    const int error = findLogPath(settings, path) ? writeFault(path) : ENAMETOOLONG;
    if (error != 0) {
        addProblem(problems, "%s: [log] Path: %.200s cannot be written (%s); allowed is %s", from,
                   path, std::strerror(error), allowedValues(kLogPath).text);
    }
}
}  // namespace

bool settleHome()
{
    const char* const given = std::getenv(kHome);
    const char* const directory = given != nullptr && *given != '\0' ? given : ".";
    char home[PATH_MAX];
    if (realpath(directory, home) == nullptr || setenv(kHome, home, 1) != 0) {
        complain("the directory %s%s: %s", directory,
                 given != nullptr ? ", which CATPATH names" : "", std::strerror(errno));
        return false;
    }
    return true;
}

bool findProfile(Profile& profile, const char* given, Problems& problems)
{
    profile = {};
    profile.isDefault = given == nullptr;
    if (given == nullptr) {
        if (makePath(profile.path, sizeof(profile.path), ".", "corvane", "ini") != RM_SUCCESS) {
            addProblem(problems, "the path of corvane.ini is longer than %zu bytes", kPathRoom);
        }
        StrncpyZ(profile.name, pathBaseExt(profile.path), sizeof(profile.name));
        return problems.count == 0;
    }
    char path[PATH_MAX] = "";
    StrncpyZ(profile.name, given, sizeof(profile.name));
    if (realpath(given, path) == nullptr) {
        addProblem(problems, "%s: cannot be read: %s; --config names an INI file", profile.name,
                   std::strerror(errno));
    } else if (std::strlen(path) >= kPathRoom) {
        addProblem(problems, "%s: its path is longer than %zu bytes", profile.name, kPathRoom);
    }
    StrncpyZ(profile.path, path, sizeof(profile.path));
    return problems.count == 0;
}

bool readSettings(Profile& profile, const char* const (&given)[kSettings], Settings& settings,
                  Problems& problems)
{
    static Settings fresh;  // static for its size
    setDefaults(fresh);
    profile.found = exists(profile.path);
    if (profile.found) {
        checkIniFile(profile.path, profile.name, problems);
    } else {
        checkNoCopy(profile, problems);
    }
    if (profile.found && problems.count == 0) {
        for (uint32_t i = 0; i < kSettings; ++i) {
            if (i == 0 || std::strcmp(kDefinitions[i].section, kDefinitions[i - 1].section) != 0) {
                readSection(kDefinitions[i].section, profile, fresh, problems);
            }
        }
        readEnvironment(profile, fresh, problems);
        noteForeignSections(profile);
    }
    for (uint32_t i = 0; i < kSettings; ++i) {
        if (given[i] != nullptr) {
            takeSetting(fresh, static_cast<Setting>(i), given[i], Origin::kCommandLine);
        }
    }
    if (problems.count == 0 && (fresh.number[kLogLevel] >= 2 || fresh.number[kReport] != 0)) {
        checkLogPath(fresh, profile, problems);
    }
    if (problems.count != 0) {
        return false;
    }
    settings = fresh;
    return true;
}

bool findLogPath(const Settings& settings, char (&path)[kPathRoom])
{
    const bool absolute = settings.logPath[0] == '/';
    return makePath(path, kPathRoom, absolute ? "" : ".", settings.logPath, nullptr) == RM_SUCCESS;
}

}  // namespace catalogue
