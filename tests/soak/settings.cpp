// INI files: one of the worker's own, and one that all workers change; and the local environment.
//
// Why: a change replaces the whole file. The worker's own is compared byte by byte with what the
// suite's model makes of it. In the shared one each worker has a key: whatever the others do, and
// whoever dies in the middle of a change, it has the value that was set last.
//
// Deaths: a change that was cut off may leave the file beside its place. Whoever does not find it
// puts it back, under the lock of the copy, as any host has to.
#include "soak.h"
#include "tests/models/ini_model.h"

#include "rm.h"
#include "rm/rmutil/rmutil.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <map>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace soak
{
namespace
{
using rmtest::IniModel;

constexpr int16_t kBufferSize = 3000;
constexpr uint32_t kMostIni = 6000;  // bytes
constexpr uint32_t kTries = 50;

std::string ini;  // what is in the file

std::string path()
{
    return own("settings.ini");
}

void makeIni()
{
    ini = "; settings of worker " + std::to_string(me) + "\n";
    for (const char* const section : {"server", "log", "paths"}) {
        // New keys go before the line of a single blank.
        ini += std::string("[") + section + "]\nfirst=1\n \n\n";
    }
    spit(path(), ini);
}

std::string anySection()
{
    constexpr const char* kSections[] = {"server", "LOG", "Paths", "missing"};
    return kSections[plan.below(plan.once(10) ? 4 : 3)];
}

std::string anyKey()
{
    return plan.once(6) ? "FIRST" : "key" + std::to_string(plan.below(12));
}

void change()
{
    const std::string section = anySection();
    const IniModel::Name key = plan.once(60) ? IniModel::Name() : IniModel::Name(anyKey());
    const IniModel::Name value =
        plan.once(4) || !key ? IniModel::Name() : IniModel::Name(plan.text(plan.below(60)));
    const int16_t status = rm_iniSetPrivate(section.c_str(), key ? key->c_str() : nullptr,
                                            value ? value->c_str() : nullptr, path().c_str());
    SOAK_CHECK(status == RM_SUCCESS, "a change of an INI file gives %d", status);
    ini = IniModel::set(ini, section, key, value);
    const std::string file = slurp(path());
    SOAK_CHECK(file == ini, "a changed INI file has %zu bytes and not %zu, or others", file.size(),
               ini.size());
}

void read()
{
    const IniModel::Name section = plan.once(5) ? IniModel::Name() : IniModel::Name(anySection());
    const IniModel::Name key = plan.once(3) ? IniModel::Name() : IniModel::Name(anyKey());
    const bool withValues = plan.once(2);
    const auto size = static_cast<int16_t>(plan.once(3) ? 1 + plan.below(60) : kBufferSize);
    std::string expected(static_cast<std::size_t>(kBufferSize), '#');
    std::string got = expected;
    const int wanted = IniModel::get(ini, section, key, withValues, size, &expected);
    const int16_t status =
        rm_iniGetPrivate(section ? section->c_str() : nullptr, key ? key->c_str() : nullptr,
                         got.data(), size, withValues ? 1 : 0, path().c_str());
    SOAK_CHECK(status == wanted && got == expected,
               "[%s] %s, %d bytes: %d \"%.40s\" and not %d \"%.40s\"",
               section ? section->c_str() : "-", key ? key->c_str() : "-", size, status,
               got.c_str(), wanted, expected.c_str());
}

// Of the default file, which nobody changes.
void readDefault()
{
    char text[8] = "";
    SOAK_CHECK(rm_iniGet("SERVER", "filecommit", text, sizeof text, 0) == RM_SUCCESS &&
                   std::strcmp(text, "0") == 0,
               "the default file has \"%s\"", text);
}

void startSettings()
{
    fileCommit = me == 0 ? -1 : 0;  // one worker waits for the disk, for all of them
    makeIni();
}

void stepSettings()
{
    if (ini.size() > kMostIni) {
        makeIni();
    }
    if (plan.once(3)) {
        change();
    } else if (plan.once(10)) {
        readDefault();
    } else {
        read();
    }
}

void endSettings()
{
    SOAK_CHECK(rm_fileRemove(path().c_str()) == 0, "an INI file is not removed");
}

// --- The shared file

std::string keyOf(uint32_t worker)
{
    return "worker" + std::to_string(worker);
}

// The value of a worker's key; false when the run ends before the file is there.
bool sharedValue(uint32_t worker, uint32_t* value)
{
    char text[24] = "";
    int16_t status = RM_NOT_FOUND;
    for (uint32_t tries = 0; status != RM_SUCCESS; ++tries) {
        status =
            rm_iniGetPrivate("workers", keyOf(worker).c_str(), text, sizeof text, 0, kSharedIni);
        if (status != RM_SUCCESS) {
            SOAK_CHECK(tries < kTries, "%s has gone: %d", kSharedIni, status);
            settle(kSharedIni);
        }
    }
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, *value);
    SOAK_CHECK(error == std::errc() && stop == end, "%s has the value \"%s\"",
               keyOf(worker).c_str(), text);
    return true;
}

void lookAtShared(uint32_t worker)
{
    // Volatile: they are another process's, which changes them meanwhile.
    const volatile WorkerBoard& other = board->worker[worker];
    const uint32_t acked = other.settingAcked;
    uint32_t value = 0;
    sharedValue(worker, &value);
    const uint32_t intended = other.settingIntended;
    SOAK_CHECK(value >= acked && value <= intended,
               "worker %u has set its key to %u, perhaps to %u, and it is %u", worker, acked,
               intended, value);
}

void changeShared()
{
    WorkerBoard& worker = mine();
    const uint32_t value = worker.settingIntended + 1;
    worker.settingIntended = value;
    int16_t status = RM_CANNOT_OPEN;
    for (uint32_t tries = 0; status != RM_SUCCESS; ++tries) {
        worker.changing.store(1);
        status = rm_iniSetPrivate("workers", keyOf(me).c_str(), std::to_string(value).c_str(),
                                  kSharedIni);
        worker.changing.store(0);
        if (status != RM_SUCCESS) {
            SOAK_CHECK((status == RM_CANNOT_OPEN || status == RM_RENAME_FAILED) && tries < kTries,
                       "%s cannot be changed: %d", kSharedIni, status);
            settle(kSharedIni);
        }
    }
    uint32_t now = 0;
    sharedValue(me, &now);
    SOAK_CHECK(now == value, "our key has the value %u and not %u", now, value);
    worker.settingAcked = value;
}

void startShared()
{
    settle(kSharedIni);
    lookAtShared(me);
}

void stepShared()
{
    if (plan.once(3)) {
        changeShared();
    } else {
        lookAtShared(plan.below(kWorkers));
    }
}

// --- The local environment

std::map<std::string, std::string> environment;

// All of one length: the first entry that begins with a name is the one that is replaced.
std::string anyName()
{
    char name[16];
    std::snprintf(name, sizeof name, "SOAK_%03u", plan.below(60));
    return name;
}

std::string upper(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
    }
    return text;
}

void startEnvironment()
{
    environment.clear();
}

void stepEnvironment()
{
    const std::string name = anyName();
    switch (plan.below(4)) {
        case 0: {
            const std::string value = plan.text(plan.below(40));
            rm_putLocalEnv((name + "=" + value).c_str());
            environment[name] = upper(value);
            break;
        }
        case 1:
            if (plan.once(3)) {
                rm_putLocalEnv(name.c_str());
                environment.erase(name);
            }
            break;
        default: {
            const std::string asked = plan.once(2) ? name : "soak" + name.substr(4);
            const char* const value =
                plan.once(2) ? rm_getLocalEnv(asked.c_str()) : rm_getenv(asked.c_str());
            const auto at = environment.find(name);
            SOAK_CHECK(at == environment.end() ? value == nullptr
                                               : value != nullptr && at->second == value,
                       "%s is \"%s\"", asked.c_str(), value == nullptr ? "nothing" : value);
        }
    }
}

void endEnvironment()
{
    for (const auto& [name, value] : environment) {
        rm_putLocalEnv(name.c_str());
        SOAK_CHECK(rm_getLocalEnv(name.c_str()) == nullptr, "%s is not removed", name.c_str());
    }
}

bool leadsTo(const char* path, int fd)
{
    struct stat named = {};
    struct stat opened = {};
    return stat(path, &named) == 0 && fstat(fd, &opened) == 0 && named.st_dev == opened.st_dev &&
           named.st_ino == opened.st_ino;
}
}  // namespace

int settle(const char* path)
{
    const std::string copy =
        std::string(path, static_cast<std::size_t>(pathBaseExt(path) - path)) + "_temp_.ini";
    const int lock = ::open(copy.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (lock != -1) {
        // Whoever changes a file here holds this lock, and renames or removes the copy at the end.
        if (flock(lock, LOCK_EX) == 0 && leadsTo(copy.c_str(), lock)) {
            if (me < kWorkers) {
                ++mine().settled;
            }
            if (rm_fileValidate(path) == 0) {
                rm_fileRemove(copy.c_str());
            } else {
                rm_fileRename(copy.c_str(), path);
            }
        }
        ::close(lock);
    }
    return rm_fileValidate(path);
}

const Family kEnvironment = {"local environment", 60,   startEnvironment, stepEnvironment, nullptr,
                             endEnvironment,      false};
const Family kSettings = {"INI files", 20,          startSettings, stepSettings,
                          nullptr,     endSettings, false};
const Family kSharedSettings = {"shared INI file", 8,       startShared, stepShared,
                                nullptr,           nullptr, false};

}  // namespace soak
