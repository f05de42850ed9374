// rmipc limits.
//
// Why: a limit that is too low ends a server with a fatal error, at its start or, which is worse,
// with the first message that is too long. The usual limits of a system let messages be far shorter
// than the library's interface does.
//
// One server needs a set of 20 semaphores, at most 20 segments and 5 queues; whatever is in use is
// somebody else's already. Limits of POSIX queues (RLIMIT_MSGQUEUE) do not matter here.
#include "machine.h"

#include "common/text.h"
#include "procfs.h"
#include "words.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

namespace rmipc
{
namespace
{
constexpr uint64_t kHead = 9;       // of a message: it is counted with its data
constexpr uint64_t kSteps = 2;      // that the library does at once
constexpr uint64_t kGreatest = 21;  // value of an event on which 20 processes waited

uint64_t sum(uint64_t a, uint64_t b)
{
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

uint64_t pagesOf(uint64_t bytes, uint64_t pageSize)
{
    return bytes / pageSize + (bytes % pageSize != 0 ? 1 : 0);
}

std::vector<std::optional<uint64_t>> numbersIn(const std::string& path)
{
    std::vector<std::optional<uint64_t>> numbers;
    const auto text = readWhole(path);
    if (!text) {
        tools::complain("cannot read " + tools::printable(path) + ": " + std::strerror(errno));
        return numbers;
    }
    for (const std::string_view word : wordsOf(*text)) {
        numbers.push_back(numberOf<uint64_t>(word));
    }
    return numbers;
}

// The value that a file of settings holds; nothing, with a message, without it.
std::optional<uint64_t> settingIn(const std::string& path, std::size_t index = 0)
{
    const std::vector<std::optional<uint64_t>> numbers = numbersIn(path);
    if (index < numbers.size() && numbers[index]) {
        return numbers[index];
    }
    if (!numbers.empty()) {
        tools::complain(tools::printable(path) + " does not hold the numbers that it should");
    }
    return std::nullopt;
}

// Objects in use; a table that is not there leaves all of it unknown.
void readUse(const std::string& proc, Limits& limits)
{
    const auto tableAt = [&proc](const char* name) {
        return Table(readWhole(proc + "/sysvipc/" + name).value_or(""));
    };
    const Table sets = tableAt("sem");
    const Table segments = tableAt("shm");
    const Table queues = tableAt("msg");
    if (sets.isSound()) {
        limits.sets = sets.rows();
        limits.semaphores = 0;
        for (std::size_t row = 0; row < sets.rows(); ++row) {
            limits.semaphores =
                sum(*limits.semaphores, sets.at<uint64_t>(row, "nsems").value_or(0));
        }
    }
    if (segments.isSound()) {
        limits.segments = segments.rows();
        limits.pages = 0;
        for (std::size_t row = 0; row < segments.rows(); ++row) {
            const uint64_t bytes = segments.at<uint64_t>(row, "size").value_or(0);
            limits.pages = sum(*limits.pages, pagesOf(bytes, limits.pageSize));
        }
    }
    if (queues.isSound()) {
        limits.queues = queues.rows();
    }
}

std::optional<uint64_t> greatestValue()
{
    union {
        int val;
        seminfo* info;
    } argument = {};

    seminfo info = {};
    argument.info = &info;
    if (semctl(0, 0, IPC_INFO, argument) == -1) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(info.semvmx);
}

std::string bytesText(uint64_t bytes)
{
    return tools::counted(bytes, "byte");
}

std::string messageAdvice(const Limits& limits, uint64_t needed)
{
    const uint64_t longest = limits.msgmax.value_or(0) > kHead ? *limits.msgmax - kHead : 0;
    return "a message has at most " + bytesText(longest) +
           " of data (msgmax less 9); a longer rm_queueWrite() is fatal with \"msgsnd() failure\" "
           "(EINVAL). " +
           bytesText(needed - kHead) + " want " + tools::grouped(needed) + ".";
}
}  // namespace

std::vector<Check> check(const Limits& limits, const Options& options)
{
    const uint64_t message = options.message + kHead;
    const uint64_t pages = kSegmentSlots * pagesOf(options.segment, limits.pageSize);
    const auto more = [](const std::optional<uint64_t>& used, uint64_t count) {
        return sum(used.value_or(0), count);
    };
    std::vector<Check> checks = {
        {"SEMMSL",
         "semaphores of a set",
         limits.semmsl,
         {},
         kSetSize,
         "no sync object can be made: semget() fails (EINVAL). A set has 20."},
        {"SEMMNS", "semaphores of all", limits.semmns, limits.semaphores,
         more(limits.semaphores, kSetSize),
         "the semaphores of another server do not fit: semget() fails (ENOSPC). Remove what is "
         "left over, or raise it."},
        {"SEMOPM",
         "steps at once",
         limits.semopm,
         {},
         kSteps,
         "rm_syncRecover() cannot free a lock: semop() fails (E2BIG). It takes two steps at once."},
        {"SEMMNI", "sets", limits.semmni, limits.sets, more(limits.sets, 1),
         "another server cannot make its set: semget() fails (ENOSPC). Remove what is left over, "
         "or raise it."},
        {"SEMVMX",
         "greatest value",
         limits.semvmx,
         {},
         kGreatest,
         "an event that many wait for would be raised too high: semop() fails (ERANGE). This "
         "system does not let it be changed."},
        {"shmmax",
         "bytes of a segment",
         limits.shmmax,
         {},
         options.segment,
         "a segment of " + bytesText(options.segment) +
             " cannot be made: shmget() fails (EINVAL)."},
        {"shmall", "pages of all", limits.shmall, limits.pages, more(limits.pages, pages),
         "20 segments of " + bytesText(options.segment) +
             " do not fit: shmget() fails (ENOSPC). Remove what is left over, or raise it."},
        {"shmmni", "segments", limits.shmmni, limits.segments, more(limits.segments, kSegmentSlots),
         "another server cannot make 20 segments: shmget() fails (ENOSPC). Remove what is left "
         "over, or raise it."},
        {"msgmax",
         "bytes of a message",
         limits.msgmax,
         {},
         message,
         messageAdvice(limits, message)},
        {"msgmnb",
         "bytes of a queue",
         limits.msgmnb,
         {},
         message,
         "a queue cannot hold one message of " + bytesText(message) +
             ", head and all: it is full for it, which is fatal. A queue that exists keeps the "
             "limit that it was made with."},
        {"msgmni", "queues", limits.msgmni, limits.queues, more(limits.queues, kQueueSlots),
         "another server cannot make 5 queues: msgget() fails (ENOSPC). Remove what is left over, "
         "or raise it."},
    };
    for (Check& one : checks) {
        if (!one.known()) {
            one.advice = "not known";
        } else if (one.isEnough()) {
            one.advice.clear();
        }
    }
    return checks;
}

std::vector<std::string> settingsFor(const Limits& limits, const std::vector<Check>& checks)
{
    const auto tooLow = [&checks](std::string_view name) -> const Check* {
        const auto found = std::ranges::find(checks, name, &Check::name);
        return found != checks.end() && found->known() && !found->isEnough() ? &*found : nullptr;
    };
    std::vector<std::string> settings;
    constexpr std::array<std::string_view, 4> kSem = {"SEMMSL", "SEMMNS", "SEMOPM", "SEMMNI"};
    const std::array<std::optional<uint64_t>, 4> now = {limits.semmsl, limits.semmns, limits.semopm,
                                                        limits.semmni};
    std::string sem;
    bool change = false;
    for (std::size_t i = 0; i < kSem.size(); ++i) {
        const Check* check = tooLow(kSem[i]);
        change |= check != nullptr;
        sem += (i == 0 ? "" : " ") +
               std::to_string(check != nullptr ? check->needed : now[i].value_or(0));
    }
    if (change) {
        settings.push_back("kernel.sem=\"" + sem + "\"");
    }
    for (const std::string_view name :
         {"shmmax", "shmall", "shmmni", "msgmax", "msgmnb", "msgmni"}) {
        if (const Check* check = tooLow(name)) {
            settings.push_back("kernel." + std::string(name) + "=" + std::to_string(check->needed));
        }
    }
    return settings;
}

Limits readLimits(const std::string& proc)
{
    Limits limits;
    const long page = sysconf(_SC_PAGESIZE);
    limits.pageSize = page > 0 ? static_cast<uint64_t>(page) : limits.pageSize;
    const std::string kernel = proc + "/sys/kernel/";
    std::vector<std::optional<uint64_t>> sem = numbersIn(kernel + "sem");
    constexpr std::size_t kNumbersOfSem = 4;
    const bool whole = sem.size() >= kNumbersOfSem &&
                       std::ranges::all_of(sem, [](const auto& one) { return one.has_value(); });
    if (!sem.empty() && !whole) {
        tools::complain(tools::printable(kernel) + "sem does not hold the numbers that it should");
    }
    sem.resize(std::max(sem.size(), kNumbersOfSem));
    limits.semmsl = sem[0];
    limits.semmns = sem[1];
    limits.semopm = sem[2];
    limits.semmni = sem[3];
    limits.semvmx = greatestValue();
    limits.shmmax = settingIn(kernel + "shmmax");
    limits.shmall = settingIn(kernel + "shmall");
    limits.shmmni = settingIn(kernel + "shmmni");
    limits.msgmax = settingIn(kernel + "msgmax");
    limits.msgmnb = settingIn(kernel + "msgmnb");
    limits.msgmni = settingIn(kernel + "msgmni");
    readUse(proc, limits);
    return limits;
}

namespace
{
std::string cellOf(const std::optional<uint64_t>& number)
{
    // What is practically no limit would make the table wide.
    constexpr uint64_t kHuge = uint64_t{1} << 50;
    return !number ? "?" : *number >= kHuge ? "no limit" : tools::grouped(*number);
}

std::string numberOrNull(const std::optional<uint64_t>& number)
{
    return number ? std::to_string(*number) : "null";
}

uint64_t longestWrite(const Limits& limits)
{
    constexpr uint64_t kMost = 32767;
    const uint64_t room = std::min(limits.msgmax.value_or(0), limits.msgmnb.value_or(0));
    return room > kHead ? std::min(room - kHead, kMost) : 0;
}

void printJson(const Limits& limits, const std::vector<Check>& checks,
               const std::vector<std::string>& settings)
{
    std::vector<std::string> elements;
    elements.reserve(checks.size());
    for (const Check& one : checks) {
        elements.push_back(object({{"name", text(one.name)},
                                   {"what", text(one.what)},
                                   {"value", numberOrNull(one.value)},
                                   {"used", numberOrNull(one.used)},
                                   {"needed", std::to_string(one.needed)},
                                   {"enough", one.known() ? truth(one.isEnough()) : "null"},
                                   {"advice", one.advice.empty() ? "null" : text(one.advice)}}));
    }
    std::vector<std::string> lines;
    lines.reserve(settings.size());
    for (const std::string& setting : settings) {
        lines.push_back(text(setting));
    }
    tools::print(object({{"enough", truth(std::ranges::all_of(checks, &Check::isEnough))},
                         {"longestWrite", std::to_string(longestWrite(limits))},
                         {"limits", array(elements, ",\n  ")},
                         {"sysctl", array(lines)}}) +
                 "\n");
}

void printChecks(const Limits& limits, const std::vector<Check>& checks,
                 const std::vector<std::string>& settings)
{
    const Paper paper(tools::examineTerminal());
    Grid grid;
    grid.add({"LIMIT", "OF", ">VALUE", ">IN USE", ">NEEDED", "STATE"});
    for (const Check& one : checks) {
        grid.add({one.name, one.what, cellOf(one.value), one.used ? cellOf(one.used) : "-",
                  cellOf(one.needed),
                  !one.known()     ? "not known"
                  : one.isEnough() ? "enough"
                                   : "TOO LOW"});
    }
    grid.print(paper, 0);
    paper.line("");
    if (limits.msgmax && limits.msgmnb) {
        paper.paragraph(0, "The longest message that a queue takes here has " +
                               bytesText(longestWrite(limits)) + " of data.");
    }
    bool any = false;
    for (const Check& one : checks) {
        if (one.known() && !one.isEnough()) {
            any = true;
            paper.line("");
            paper.paragraph(0, one.name + ": " + one.advice);
        }
    }
    if (!settings.empty()) {
        paper.line("");
        paper.line("To raise them now (and for good, as lines of a file in /etc/sysctl.d):");
        for (const std::string& setting : settings) {
            paper.line("  sysctl -w " + setting);
        }
    }
    if (!any) {
        paper.paragraph(0, "NEEDED is what is in use and one more server's.");
    }
}
}  // namespace

int checkLimits(const Options& options)
{
    const Limits limits = readLimits(options.proc);
    const std::vector<Check> checks = check(limits, options);
    const std::vector<std::string> settings = settingsFor(limits, checks);
    if (options.json && !options.quiet) {
        printJson(limits, checks, settings);
    } else if (!options.quiet) {
        printChecks(limits, checks, settings);
    }
    if (!std::ranges::all_of(checks, &Check::known)) {
        return kTrouble;
    }
    return std::ranges::all_of(checks, &Check::isEnough) ? kOk : kFound;
}

}  // namespace rmipc
