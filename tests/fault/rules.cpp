// Why: see the header. A rule is a function that looks at a whole life; which rules have exceptions
// for which calls stands with the rule, or in the table of calls.
#include "rules.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <sstream>

#include <sys/wait.h>

namespace fault
{

namespace
{

using Findings = std::vector<std::string>;

// What is known to be otherwise than it should be: none.
constexpr std::array<Deviation, 0> kDeviations{};

constexpr std::size_t kTail = 1500;  // bytes of standard error that are shown of a crash

const CallRow& rowOf(const Life& life)
{
    return callTable()[life.injection.row];
}

bool injected(const Life& life)
{
    return life.injection.k != 0;
}

bool isCall(const Life& life, std::initializer_list<std::string_view> names)
{
    return injected(life) && std::find(names.begin(), names.end(), rowOf(life).name) != names.end();
}

bool has(const std::string& text, std::string_view part)
{
    return text.find(part) != std::string::npos;
}

std::string filled(std::string text, int error)
{
    const std::size_t at = text.find("%d");
    return at == std::string::npos ? text : text.replace(at, 2, std::to_string(error));
}

// --- crash, in-time, ends, hit

void judgeEnding(const Life& life, Findings* findings)
{
    const std::string tail = life.err.substr(life.err.size() > kTail ? life.err.size() - kTail : 0);
    if (life.outOfTime) {
        findings->push_back("[in-time] it was still running, in " + std::string(life.page->inside));
    } else if (WIFSIGNALED(life.waitStatus)) {
        findings->push_back("[crash] signal " + std::to_string(WTERMSIG(life.waitStatus)) + " in " +
                            life.page->inside + "\n" + tail);
    } else if (WEXITSTATUS(life.waitStatus) != 0) {
        findings->push_back("[crash] status " + std::to_string(WEXITSTATUS(life.waitStatus)) +
                            " in " + life.page->inside + "\n" + tail);
    } else if (life.page->finished == 0) {
        findings->push_back("[ends] it did not come to its last line");
    }
    if (injected(life) && life.page->hits == 0) {
        findings->push_back(std::string(kHit) + " the call was not made");
    }
}

// --- fatal: an end has a cause that the table names

bool isOwnEnd(const Life& life)
{
    const std::string_view text = life.page->endText;
    return life.scenario->endsItself &&
           (text == "host's own failure" || text == "a problem of the host" ||
            (life.page->end == End::kErrorExit && has(life.err, "the host gives up")) ||
            (life.page->end == End::kErrorExit && isCall(life, {"fwrite"})));
}

bool isEndOf(const Life& life, std::string_view end)
{
    const Page& page = *life.page;
    const int error = life.injection.outcome.error;
    if (end == "memory") {
        return page.end == End::kMemory;
    }
    const std::size_t colon = end.find(':');
    const std::string_view kind = end.substr(0, colon);
    const std::string text(end.substr(colon + 1));
    if (kind == "sys") {
        return page.end == End::kSystemCall && page.endText == text && page.endError == error;
    }
    if (kind == "cond") {
        return page.end == End::kCondition && std::string_view(page.endText).starts_with(text);
    }
    return page.end == End::kErrorExit && has(life.err, filled(text, error));
}

void judgeCause(const Life& life, Findings* findings)
{
    const Page& page = *life.page;
    if (page.ends == 0 || isOwnEnd(life)) {
        return;
    }
    const std::string what = page.endLine[0] != '\0' ? page.endLine : "rm_errorExit";
    if (!injected(life) || page.endBeforeHit != 0) {
        findings->push_back("[fatal] an end without a failure: " + what);
        return;
    }
    const auto ends = rowOf(life).ends;
    if (std::none_of(ends.begin(), ends.end(), [&](const char* e) { return isEndOf(life, e); })) {
        findings->push_back("[fatal] not an end of this failure: " + what);
    }
}

// --- logged: the cause, the banner and the way out are in the log

// Calls on the way of a line into the log file; the others when it was parked.
bool mayMissLogFile(const Life& life)
{
    const bool parked = std::strstr(life.scenario->name, "park") != nullptr;
    return isCall(life, {"vfprintf", "fflush", "semop", "semop-nowait", "semtimedop"}) ||
           (parked && isCall(life, {"open", "fdopen", "lseek", "close", "fclose", "malloc"}));
}

void judgeLog(const Life& life, Findings* findings)
{
    const Page& page = *life.page;
    // A line for the log file may itself end fatally, and cut the fatal path short: each of its
    // steps is made once.
    const bool cutShort = page.ends > 1 && mayMissLogFile(life);
    if (page.ends == 0 || (cutShort && page.endBeforeHit != 0)) {
        return;
    }
    const auto want = [&](bool holds, const std::string& text) {
        if (!holds) {
            findings->push_back("[logged] " + text);
        }
    };
    const std::string line = page.endLine;
    if (!isCall(life, {"fwrite"})) {
        want(line.empty() || has(life.err, line + "\n"), "not on standard error: " + line);
    }
    if (cutShort) {
        return;
    }
    if (!isCall(life, {"fwrite"})) {
        want(has(life.err, "* Please report this condition to *"), "no banner");
        want(has(life.err, life.host.fatalTarget ? "Exiting to shutdown processing"
                                                 : "Exiting to operating system"),
             "the way out is not logged");
    }
    if (page.end == End::kSystemCall && !isCall(life, {"printf", "fflush"})) {
        want(has(life.out, line + "\n"), "not on standard output: " + line);
    }
    if (page.endWithLog != 0 && !mayMissLogFile(life)) {
        want(line.empty() || has(life.log, line + "\n"), "not in the log file: " + line);
    }
}

// --- exit-status: where control arrives, and with what

void judgeStatus(const Life& life, Findings* findings)
{
    const Page& page = *life.page;
    if (page.finished == 0 || page.endlessWait != 0) {
        return;
    }
    int code = kExitCode;
    if (page.fatalJumps > 0) {
        code = kShutdownCode;
    } else if (page.ends > 0) {
        code = 0;
    }
    if (life.host.exitTarget && code == 0) {
        code = 1;
    }
    const int came = life.host.exitTarget ? page.exitJump : page.exitStatus;
    if ((page.exited != 0) == life.host.exitTarget || came != code) {
        findings->push_back("[exit-status] " + std::to_string(came) + " for " +
                            std::to_string(code) + (page.exited != 0 ? ", by exit" : ", by jump"));
    }
    if (life.host.fatalTarget && page.ends > 0 && page.fatalJumps == 0) {
        findings->push_back("[exit-status] the fatal target was passed by");
    }
}

// --- ipc, tokens, files: what stays is what the failing call was to remove

// A set that is said to be gone, and is not, is nobody's to remove any more.
bool isSaidGone(const Life& life)
{
    const int error = life.injection.outcome.error;
    return isCall(life, {"semop", "semop-nowait", "semtimedop", "semctl"}) &&
           (error == EINVAL || error == EIDRM);
}

bool mayLeave(const Life& life, uint8_t what)
{
    const Page& page = *life.page;
    if (what == kSet && isSaidGone(life)) {
        return true;
    }
    return injected(life) && (rowOf(life).leaves & what) != 0 && page.hitRemoving != 0 &&
           page.hitAtEnd != 0;
}

void judgeLeft(const Life& life, Findings* findings)
{
    if (life.page->endlessWait != 0 || life.page->finished == 0) {
        return;  // it was stopped in the middle
    }

    const struct {
        char kind;
        uint8_t leaves;
        const char* name;
    } objects[] = {{'s', kSet, "a set of semaphores"},
                   {'m', kSegment, "a shared memory segment"},
                   {'q', kQueue, "a queue"}};

    for (const auto& object : objects) {
        if (has(life.objects, {&object.kind, 1}) && !mayLeave(life, object.leaves)) {
            findings->push_back(std::string("[ipc] ") + object.name + " is left");
        }
    }
    for (const std::string& file : life.files) {
        const bool token = has(file, ".ZNT.RM.");
        const bool ofSet = has(file, ".SEM") && mayLeave(life, kSet);
        // A token file without its stream was never this process's to remove.
        const bool open = isCall(life, {"fdopen", "fcntl"});
        if (token && !ofSet && !open && !mayLeave(life, kToken)) {
            findings->push_back("[tokens] " + file + " is left");
        }
        const bool copyMayStay =
            life.page->ends > 0 || (injected(life) && (rowOf(life).leaves & kCopy) != 0);
        if (file == "_temp_.ini" && !copyMayStay) {
            findings->push_back("[files] _temp_.ini is left");
        }
    }
}

}  // namespace

std::string_view nameOf(Fate fate)
{
    constexpr std::array<std::string_view, static_cast<std::size_t>(Fate::kFates)> kNames = {
        "went on", "returned an error", "fatal: exit", "fatal: jump"};
    return kNames[static_cast<std::size_t>(fate)];
}

Fate fateOf(const Life& life)
{
    const Page& page = *life.page;
    if (page.ends > 0) {
        return page.fatalJumps > 0 ? Fate::kFatalJump : Fate::kFatalExit;
    }
    return page.failures > 0 ? Fate::kReturnedError : Fate::kWentOn;
}

std::span<const Deviation> knownDeviations()
{
    return kDeviations;
}

bool isKnown(const Life& life, const std::string& finding)
{
    return std::any_of(std::begin(kDeviations), std::end(kDeviations), [&](const Deviation& known) {
        return std::string_view(life.scenario->name) == known.scenario &&
               isCall(life, {known.call}) && has(finding, known.text);
    });
}

std::vector<std::string> judgeLife(const Life& life)
{
    Findings findings;
    std::istringstream own(std::string(life.page->text));
    for (std::string line; std::getline(own, line);) {
        findings.push_back(line);
    }
    judgeEnding(life, &findings);
    judgeCause(life, &findings);
    judgeLog(life, &findings);
    judgeStatus(life, &findings);
    judgeLeft(life, &findings);
    return findings;
}

}  // namespace fault
