// What can be set, and what is set.
//
// Why: one table says all about a setting: its place in the file, its option, its default, what is
// allowed, and whether a running server can take a new value. Command line, file, reload, messages
// and the printed settings follow from it, so they cannot disagree.
//
// No function of the library is called here.
#include "settings.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace catalogue
{

// Printed in this order, so what belongs to one section stands together.
const Definition kDefinitions[kSettings] = {
    {"server", "FileCommit", nullptr, "1",
     "1 brings the files to the disk once they are loaded, 0 leaves that to the system", 0, 1,
     false, Change::kRestart},
    {"server", "MemoryLimit", "--memory-limit", "none",
     "memory budget of each process in bytes, or none; going over it is reported, not prevented",
     65536, 0x7FFFFFFF, true, Change::kRestart},
    {"server", "HandleLimit", "--handle-limit", "8",
     "descriptors that each process holds for its files; the others are parked", 4, 9999, false,
     Change::kUpward},
    {"server", "FreeSpace", "--free-space", "0",
     "below this, no file is extended ahead of writes; a free block of the disk counts 512 bytes",
     0, uint64_t{1} << 50, true, Change::kNow},
    {"catalogue", "Buckets", "--buckets", "32", "files among which the records are spread", 1,
     kMaxBuckets, false, Change::kRestart},
    {"catalogue", "Workers", "--workers", "4", "worker processes", 1, kMaxWorkers, false,
     Change::kRestart},
    {"catalogue", "Operations", "--operations", "250000",
     "lookups and updates, all workers together", 1, 1000000000, false, Change::kRestart},
    {"catalogue", "Progress", "--progress", "1000",
     "milliseconds between progress lines where there is no terminal", 100, 60000, false,
     Change::kNow},
    {"store", "Rotate", "--rotate", "0",
     "seconds between two backups of the files; 0 makes one at the start and at each reload", 0,
     86400, false, Change::kNow},
    {"log", "Level", "--log-level", "0",
     "0 only warnings, 1 the log goes to standard error, 2 to the file below as well", 0, 2, false,
     Change::kNow},
    {"log", "Path", "--log", "catalogue.log",
     "the log file; its predecessor is kept with the extension .bak", 0, 0, false, Change::kNow},
    {"formats", "Modules", "--modules", "",
     "directory of the format modules; empty: the directory modules beside the program", 0, 0,
     false, Change::kRestart},
    {"formats", "Format", "--format", "",
     "format of the files, by the name that its module gives it; empty: each is recognised", 0, 0,
     false, Change::kRestart},
    {"formats", "Key", "--key", "",
     "field that names a record; empty: the first one, in an INI file the header", 0, 0, false,
     Change::kRestart},
    {"memory", "Report", "--report", "0",
     "1 writes what the parent's heap holds into the log file at the end of a run", 0, 1, false,
     Change::kNow},
};

namespace
{
constexpr std::string_view kNone = "none";

// The text of a setting; null for one that is a number.
template <class AnySettings>
auto textOf(AnySettings& settings, Setting setting) -> decltype(&settings.logPath[0])
{
    switch (setting) {
        case kLogPath:
            return settings.logPath;
        case kModules:
            return settings.modules;
        case kFormat:
            return settings.format;
        case kKey:
            return settings.key;
        default:
            return nullptr;
    }
}

// Bytes of it, terminator included; 0 for one that is a number.
std::size_t textRoom(Setting setting)
{
    switch (setting) {
        case kLogPath:
        case kModules:
            return kPathRoom;
        case kFormat:
        case kKey:
            return kNameRoom;
        default:
            return 0;
    }
}

bool takeText(Settings& settings, Setting setting, std::string_view text)
{
    const bool aFile = setting == kLogPath;
    if (text.size() >= textRoom(setting) || (aFile && (text.empty() || text.ends_with('/')))) {
        return false;
    }
    char* const room = textOf(settings, setting);
    std::memset(room, 0, textRoom(setting));
    text.copy(room, text.size());
    return true;
}

struct Unit {
    char letter;
    uint64_t bytes;
};

constexpr Unit kUnits[] = {
    {'G', uint64_t{1} << 30}, {'M', uint64_t{1} << 20}, {'K', uint64_t{1} << 10}};

bool parseBytes(std::string_view text, const Definition& definition, uint64_t& number)
{
    uint64_t unit = 1;
    for (const Unit& candidate : kUnits) {
        if (text.ends_with(candidate.letter)) {
            unit = candidate.bytes;
            text.remove_suffix(1);
            break;
        }
    }
    uint64_t count = 0;
    if (!parseNumber(text, 0, definition.high / unit, count) || count * unit < definition.low) {
        return false;
    }
    number = count * unit;
    return true;
}

const char* originText(Origin origin)
{
    switch (origin) {
        case Origin::kFile:
            return "from the file";
        case Origin::kCommandLine:
            return "from the command line";
        case Origin::kDefault:
            break;
    }
    return "the default";
}
}  // namespace

bool parseNumber(std::string_view text, uint64_t low, uint64_t high, uint64_t& number)
{
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < low || value > high) {
        return false;
    }
    number = value;
    return true;
}

void setDefaults(Settings& settings)
{
    settings = {};
    for (uint32_t i = 0; i < kSettings; ++i) {
        takeSetting(settings, static_cast<Setting>(i), kDefinitions[i].initial, Origin::kDefault);
    }
}

bool takeSetting(Settings& settings, Setting setting, std::string_view text, Origin origin)
{
    const Definition& definition = kDefinitions[setting];
    if (textRoom(setting) != 0) {
        if (!takeText(settings, setting, text)) {
            return false;
        }
    } else if (setting == kMemoryLimit && text == kNone) {
        settings.number[setting] = kNoLimit;
    } else if (definition.bytes) {
        if (!parseBytes(text, definition, settings.number[setting])) {
            return false;
        }
    } else if (!parseNumber(text, definition.low, definition.high, settings.number[setting])) {
        return false;
    }
    settings.origin[setting] = origin;
    return true;
}

SettingText allowedValues(Setting setting)
{
    const Definition& definition = kDefinitions[setting];
    SettingText allowed = {};
    if (textRoom(setting) != 0) {
        std::snprintf(allowed.text, sizeof(allowed.text), "%s, below %zu bytes",
                      setting == kLogPath   ? "the path of a file"
                      : setting == kModules ? "the path of a directory, or nothing"
                                            : "a name, or nothing",
                      textRoom(setting));
        return allowed;
    }
    std::snprintf(allowed.text, sizeof(allowed.text), "a number%s from %llu to %llu%s%s",
                  definition.bytes ? " of bytes" : "",
                  static_cast<unsigned long long>(definition.low),
                  static_cast<unsigned long long>(definition.high),
                  definition.bytes ? ", K, M or G may follow" : "",
                  setting == kMemoryLimit ? "; or none" : "");
    return allowed;
}

SettingText valueOf(const Settings& settings, Setting setting)
{
    SettingText value = {};
    uint64_t number = settings.number[setting];
    if (const char* const text = textOf(settings, setting)) {
        std::snprintf(value.text, sizeof(value.text), "%s", text);
        return value;
    }
    if (setting == kMemoryLimit && number == kNoLimit) {
        kNone.copy(value.text, kNone.size());
        return value;
    }
    char letter[2] = "";
    if (kDefinitions[setting].bytes && number != 0) {
        for (const Unit& unit : kUnits) {
            if (number % unit.bytes == 0) {
                number /= unit.bytes;
                letter[0] = unit.letter;
                break;
            }
        }
    }
    std::snprintf(value.text, sizeof(value.text), "%llu%s", static_cast<unsigned long long>(number),
                  letter);
    return value;
}

bool sameValue(const Settings& a, const Settings& b, Setting setting)
{
    const char* const text = textOf(a, setting);
    return text != nullptr ? std::strcmp(text, textOf(b, setting)) == 0
                           : a.number[setting] == b.number[setting];
}

void copyValue(const Settings& from, Settings& to, Setting setting)
{
    to.number[setting] = from.number[setting];
    to.origin[setting] = from.origin[setting];
    if (textRoom(setting) != 0) {
        std::memcpy(textOf(to, setting), textOf(from, setting), textRoom(setting));
    }
}

void printSettings(const Settings& settings, const char* file)
{
    std::printf(
        "; The settings of the catalogue as they are in effect. Saved as corvane.ini in the\n"
        "; directory in which it is started, this sets them again.\n");
    if (file != nullptr) {
        std::printf("; The file that was read: %s\n", file);
    } else {
        std::printf("; No file was read.\n");
    }
    const char* section = "";
    for (uint32_t i = 0; i < kSettings; ++i) {
        const auto setting = static_cast<Setting>(i);
        const Definition& definition = kDefinitions[i];
        if (std::strcmp(section, definition.section) != 0) {
            section = definition.section;
            std::printf("\n[%s]\n", section);
        }
        std::printf("; %s, %s\n; %s\n", definition.key, originText(settings.origin[i]),
                    definition.meaning);
        std::printf("%s=%s\n", definition.key, valueOf(settings, setting).text);
    }
    std::printf("\n[%s]\n", kEnvironmentSection);
    for (const char* entry = settings.environment; *entry != '\0';
         entry += std::strlen(entry) + 1) {
        std::printf("%s\n", entry);
    }
}

}  // namespace catalogue
