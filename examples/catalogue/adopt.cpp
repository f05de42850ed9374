// Gives the library, and this host, the settings: at the start, and while the run goes on.
//
// Why: limits, environment and log belong to each process, and the file is read by one. The desk
// (the parent while there is no desk) reads and checks it as a whole, takes over what can change,
// and puts the outcome on the board; the workers take it from there between two requests. So no
// process ever works with half of a file, and nobody else has to say what was wrong with it.
//
// When: SIGHUP asks for it. The parent keeps its signals blocked and fetches them where it stands
// between two steps, so no call of the library is interrupted, and none is made from a handler.
// Workers inherit the mask: a SIGHUP to one of them stays pending and harms nobody.
//
// Fatal: any call may jump to the process's target. Plain data only.
#include "adopt.h"

#include "console.h"
#include "counters.h"
#include "journal.h"

#include "rm.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace catalogue
{
namespace
{
constexpr uint64_t kDefaultUpdateOneIn = 4;

uint32_t reloads = 0;  // the number of this one
bool saidDiskFull = false;

const char* nextEntry(const char* entry)
{
    return entry + std::strlen(entry) + 1;
}

std::size_t nameLength(const char* entry)
{
    return std::strcspn(entry, "=");
}

// The entry of the same name in a row of them; null when there is none.
const char* findEntry(const char* row, const char* wanted)
{
    const std::size_t length = nameLength(wanted);
    for (; *row != '\0'; row = nextEntry(row)) {
        if (nameLength(row) == length &&
            strnicmp(row, wanted, static_cast<uint32_t>(length)) == 0) {
            return row;
        }
    }
    return nullptr;
}

// Puts the entries into the local environment, in place of those before.
void applyEnvironment(const char* before, const char* now)
{
    for (const char* entry = before; *entry != '\0'; entry = nextEntry(entry)) {
        if (findEntry(now, entry) == nullptr) {
            char name[kEnvironmentRoom];
            StrncpyZ(name, entry, static_cast<int>(nameLength(entry)) + 1);
            rm_putLocalEnv(name);  // without a value: no lookup finds it any more
        }
    }
    for (const char* entry = now; *entry != '\0'; entry = nextEntry(entry)) {
        rm_putLocalEnv(entry);
    }
    // The library looks for this one when it makes its table of tags. That is before any entry can
    // be in the local environment, whose memory has a tag, so the host hands it on.
    const char* const segments = rm_getenv("SEG_ALLOC");
    seg_alloc = static_cast<int16_t>(segments == nullptr ? 0 : std::atoi(segments));
}

bool sameEnvironment(const Settings& a, const Settings& b)
{
    return std::memcmp(a.environment, b.environment, sizeof(a.environment)) == 0;
}

// What changes in every process.
void apply(const Settings& before, const Settings& now)
{
    rm_fileHandleLimit(static_cast<int16_t>(now.number[kHandleLimit]));
    if (!sameValue(before, now, kFreeSpace)) {
        rminfree = static_cast<double>(now.number[kFreeSpace]);
        rm_setDiskFull(0);  // growth is tried again, and measures anew
        saidDiskFull = false;
    }
    setProgressInterval(static_cast<uint32_t>(now.number[kProgress]));
    if (!sameEnvironment(before, now)) {
        applyEnvironment(before.environment, now.environment);
    }
}

// Takes back in `now` what a running server cannot change. Returns how many settings differ still,
// and has said so of each.
uint32_t compare(const Settings& before, Settings& now)
{
    uint32_t changes = 0;
    for (uint32_t i = 0; i < kSettings; ++i) {
        const auto setting = static_cast<Setting>(i);
        const Definition& definition = kDefinitions[i];
        if (sameValue(before, now, setting)) {
            continue;
        }
        const bool canChange =
            definition.change == Change::kNow ||
            (definition.change == Change::kUpward && now.number[i] > before.number[i]);
        note("reload %u: [%s] %s: %.80s, was %.80s%s", reloads, definition.section, definition.key,
             valueOf(now, setting).text, valueOf(before, setting).text,
             canChange                              ? ""
             : definition.change == Change::kUpward ? "; to lower it needs a restart"
                                                    : "; needs a restart");
        if (canChange) {
            ++changes;
        } else {
            copyValue(before, now, setting);
        }
    }
    return changes;
}

uint32_t compareEnvironment(const Settings& before, const Settings& now)
{
    uint32_t changes = 0;
    for (const char* entry = now.environment; *entry != '\0'; entry = nextEntry(entry)) {
        const char* old = findEntry(before.environment, entry);
        if (old == nullptr || std::strcmp(old, entry) != 0) {
            note("reload %u: [ENVIRONMENT] %s", reloads, entry);
            ++changes;
        }
    }
    for (const char* entry = before.environment; *entry != '\0'; entry = nextEntry(entry)) {
        if (findEntry(now.environment, entry) == nullptr) {
            note("reload %u: [ENVIRONMENT] %.*s is gone", reloads,
                 static_cast<int>(nameLength(entry)), entry);
            ++changes;
        }
    }
    return changes;
}
}  // namespace

void readWithoutLocks()
{
    fileSem = growSem = RM_NULL_SYNC;
}

void startLibrary(const Settings& settings, const Profile& profile)
{
    fileSem = growSem = RM_NONE;  // for rm_init to make, in the run directory
    if (!profile.isDefault) {
        fileCommit = static_cast<int16_t>(settings.number[kFileCommit]);
    }
    rm_init(static_cast<uint32_t>(settings.number[kMemoryLimit]),
            static_cast<int16_t>(settings.number[kHandleLimit]),
            static_cast<double>(settings.number[kFreeSpace]));
    rm_setDiskFull(0);  // until then no file is extended ahead of writes
    applyEnvironment("", settings.environment);
    setProgressInterval(static_cast<uint32_t>(settings.number[kProgress]));
    startCounters();
    openJournal(settings);
}

void reloadSettings(const Options& options, Profile& profile, Settings& settings, Board& board)
{
    static Settings now;  // static for its size, like the other two
    static Profile found;
    static Problems problems;
    found = profile;
    problems = {};
    reloads = ++board.reloads;
    count(kReloads);
    if (!readSettings(found, options.given, now, problems)) {
        for (uint32_t i = 0; i < problems.count; ++i) {
            warn("reload %u: %s", reloads, problems.text[i]);
        }
        note("reload %u: the settings stay as they were", reloads);
        return;
    }
    if (!found.found) {
        if (profile.found) {
            warn("reload %u: %s has gone; the settings stay as they were", reloads, profile.path);
        } else {
            note("reload %u: there is no %s to read", reloads, profile.path);
        }
        return;
    }
    profile = found;
    now.journal = settings.journal;
    const uint32_t changes = compare(settings, now) + compareEnvironment(settings, now);
    if (changes == 0) {
        note("reload %u: nothing changes", reloads);
        settings = now;
        return;
    }
    changeJournal(settings, now);
    apply(settings, now);
    settings = now;
    publishSettings(board, settings);
    note("reload %u: settings %u are in effect", reloads, board.settings.generation.load());
}

bool followSettings(const Board& board, Settings& settings, uint32_t& generation)
{
    if (board.settings.generation.load(std::memory_order_relaxed) == generation) {
        return false;
    }
    static Settings before;
    before = settings;
    generation = copySettings(board.settings, settings);
    followJournal(before, settings);
    apply(before, settings);
    return true;
}

void watchDisk()
{
    if (rm_getDiskFull() != 0 && !saidDiskFull) {
        saidDiskFull = true;
        warn("the disk has less free than [server] FreeSpace; files are not extended ahead now");
    }
}

uint32_t updateOneIn()
{
    const char* const text = rm_getenv(kUpdateOneInName);
    uint64_t number = kDefaultUpdateOneIn;
    if (text != nullptr && !parseNumber(text, 1, kMaxUpdateOneIn, number)) {
        warn("%s=%s in the environment is no number from 1 to %u; it is not used", kUpdateOneInName,
             text, static_cast<unsigned>(kMaxUpdateOneIn));
    }
    return static_cast<uint32_t>(number);
}

}  // namespace catalogue
