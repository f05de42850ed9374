// What can be set, and what is set.
#ifndef CATALOGUE_SETTINGS_H
#define CATALOGUE_SETTINGS_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace catalogue
{

constexpr uint32_t kMaxWorkers = 16;
constexpr uint32_t kMaxBuckets = 64;
constexpr std::size_t kPathRoom = 1024;         // bytes of a path, terminator included
constexpr std::size_t kNameRoom = 256;          // of the name of a format or of a field, likewise
constexpr std::size_t kEnvironmentRoom = 2048;  // of all entries of [ENVIRONMENT] together

// Entries of this section are variables: any name, any value.
constexpr const char* kEnvironmentSection = "ENVIRONMENT";

// How often a worker's request is an update: one in so many. Read by rm_getenv.
constexpr const char* kUpdateOneInName = "CATALOGUE_UPDATE_ONE_IN";
constexpr uint64_t kMaxUpdateOneIn = 1000;

enum Setting : uint32_t {
    kFileCommit,
    kMemoryLimit,
    kHandleLimit,
    kFreeSpace,
    kBuckets,
    kWorkers,
    kOperations,
    kProgress,
    kRotate,
    kLogLevel,
    kLogPath,
    kModules,
    kFormat,
    kKey,
    kReport,
    kSettings  // how many there are
};

enum class Origin : uint32_t { kDefault, kFile, kCommandLine };

// When a new value in the file has its effect.
enum class Change {
    kNow,     // with the next reload
    kUpward,  // likewise, but only a greater one
    kRestart  // with the next start
};

struct Definition {
    const char* section;
    const char* key;
    const char* option;   // of the command line; null for none. That of kReport takes no value.
    const char* initial;  // the default, as it would stand in the file
    const char* meaning;
    uint64_t low;
    uint64_t high;
    bool bytes;  // K, M or G may stand behind the number
    Change change;
};

extern const Definition kDefinitions[kSettings];

// Plain data: it travels over the board, and lies in frames that a fatal error jumps over.
struct Settings {
    uint64_t number[kSettings];  // those of the texts are not used
    Origin origin[kSettings];
    char logPath[kPathRoom];             // as it was given
    char modules[kPathRoom];             // likewise; empty for the directory beside the program
    char format[kNameRoom];              // empty to have it recognised
    char key[kNameRoom];                 // empty to leave it to the format
    char environment[kEnvironmentRoom];  // "NAME=value" texts; an empty one ends the row
    uint32_t journal;                    // times that the log file was changed; no setting itself
};

static_assert(std::is_trivially_copyable_v<Settings>);

// MemoryLimit=none, and the library's own figure for it.
constexpr uint64_t kNoLimit = UINT32_MAX;

// A value, or what is allowed for one, as people read it. Plain data.
struct SettingText {
    char text[kPathRoom];
};

void setDefaults(Settings& settings);

// Takes a value as it stands in the file or on the command line. False, with nothing changed, when
// it is none of those that allowedValues describes.
bool takeSetting(Settings& settings, Setting setting, std::string_view text, Origin origin);

SettingText allowedValues(Setting setting);

// The value in the form in which it can be given again.
SettingText valueOf(const Settings& settings, Setting setting);

bool sameValue(const Settings& a, const Settings& b, Setting setting);

// Makes a setting what it is in `from`.
void copyValue(const Settings& from, Settings& to, Setting setting);

// A decimal number, and nothing else, within its bounds.
bool parseNumber(std::string_view text, uint64_t low, uint64_t high, uint64_t& number);

// Prints the settings as an INI file which sets them again, with the origin of each. `file` is the
// path that was read; null when there was none.
void printSettings(const Settings& settings, const char* file);

}  // namespace catalogue

#endif
