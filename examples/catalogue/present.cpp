// What a client prints.
//
// Why: what stands in a record was written by others, and a terminal obeys some of it. So control
// characters are shown and not sent, in names and in messages too. What is in a pipe gets the same:
// one form is enough to know.
//
// No function of the library is called here.
#include "present.h"

#include "console.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <ctime>

namespace catalogue
{
namespace
{
constexpr const char* kPhases[] = {"loading", "serving", "staying", "ending", "verifying"};
constexpr const char* kStates[] = {"none", "starting", "waiting", "working", "replacing", "ended"};
constexpr std::size_t kEscaped = sizeof("\\x00") - 1;

const char* phaseName(Phase phase)
{
    const auto number = static_cast<std::size_t>(phase);
    return number < std::size(kPhases) ? kPhases[number] : "unknown";
}

const char* stateName(WorkerState state)
{
    const auto number = static_cast<std::size_t>(state);
    return number < std::size(kStates) ? kStates[number] : "unknown";
}

bool isControl(char byte)
{
    const auto code = static_cast<unsigned char>(byte);
    return code < ' ' || code == 0x7F;
}

void print(std::string_view text, bool tabs = false)
{
    for (const char byte : text) {
        if (isControl(byte) && !(tabs && byte == '\t')) {
            std::printf("\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        } else {
            std::putchar(byte);
        }
    }
}

// A value of several lines: those after the first are indented, so that none looks like a field.
void printField(std::string_view name, std::string_view value)
{
    print(name);
    std::fputs(": ", stdout);
    for (;;) {
        const std::size_t end = value.find('\n');
        print(value.substr(0, end), true);
        std::putchar('\n');
        if (end == std::string_view::npos) {
            return;
        }
        value.remove_prefix(end + 1);
        if (!value.starts_with(' ') && !value.starts_with('\t')) {
            std::putchar(' ');
        }
    }
}

// The text up to the next zero, which is taken off `rest`. False when there is none.
bool takeText(std::string_view& rest, std::string_view& text)
{
    const std::size_t end = rest.find('\0');
    if (end == std::string_view::npos) {
        return false;
    }
    text = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    return true;
}

struct When {
    char text[32];
};

When localTime(int64_t seconds)
{
    When when = {"unknown"};
    const auto time = static_cast<time_t>(seconds);
    tm parts = {};
    if (localtime_r(&time, &parts) != nullptr) {
        std::strftime(when.text, sizeof(when.text), "%Y-%m-%d %H:%M:%S", &parts);
    }
    return when;
}

uint64_t load(const std::atomic<uint64_t>& figure)
{
    return figure.load(std::memory_order_relaxed);
}

uint32_t load(const std::atomic<uint32_t>& figure)
{
    return figure.load(std::memory_order_relaxed);
}

uint32_t workersOf(const PublicFigures& figures)
{
    return std::min(load(figures.workers), kMaxWorkers);
}

// A figure that is printed as a number, in the order of the output.
struct Row {
    const char* key;  // in JSON
    uint64_t value;
};

using Rows = std::array<Row, 18>;

Rows rowsOf(const PublicFigures& figures)
{
    return {{{"records", load(figures.records)},
             {"buckets", load(figures.buckets)},
             {"workers", load(figures.workers)},
             {"generation", load(figures.generation)},
             {"rotations", load(figures.rotations)},
             {"window", load(figures.window)},
             {"under_way", load(figures.underWay)},
             {"replaced_workers", load(figures.replaced)},
             {"freed_locks", load(figures.freedLocks)},
             {"jobs_put_back", load(figures.putBack)},
             {"updates_redone", load(figures.redone)},
             {"lookups", load(figures.lookups)},
             {"updates", load(figures.updates)},
             {"misses", load(figures.misses)},
             {"gets", load(figures.gets)},
             {"puts", load(figures.puts)},
             {"lists", load(figures.lists)},
             {"dropped", load(figures.dropped)}}};
}

void printFigure(const char* what, uint64_t number, const char* remark = "")
{
    std::printf("  %-18s %15s%s\n", what, grouped(number).text, remark);
}
}  // namespace

Shown shown(std::string_view text)
{
    Shown result = {};
    std::size_t length = 0;
    for (const char byte : text) {
        if (length + kEscaped >= sizeof(result.text)) {
            break;
        }
        if (isControl(byte)) {
            length += static_cast<std::size_t>(
                std::snprintf(result.text + length, sizeof(result.text) - length, "\\x%02X",
                              static_cast<unsigned>(static_cast<unsigned char>(byte))));
        } else {
            result.text[length++] = byte;
        }
    }
    return result;
}

bool printRecord(std::string_view body, std::string_view note, uint32_t version)
{
    std::string_view name;
    std::string_view value;
    for (std::string_view rest = body; !rest.empty();) {
        if (!takeText(rest, name) || !takeText(rest, value)) {
            return false;
        }
    }
    for (std::string_view rest = body; !rest.empty();) {
        takeText(rest, name);
        takeText(rest, value);
        printField(name, value);
    }
    std::printf("\n  version  %u\n", version);
    if (!note.empty()) {
        std::fputs("  note     ", stdout);
        print(note);
        std::putchar('\n');
    }
    return true;
}

void printName(std::string_view name)
{
    print(name);
    std::putchar('\n');
}

void printFigures(const PublicFigures& figures)
{
    const int64_t started = figures.started.load(std::memory_order_relaxed);
    std::printf("  process %d, %s, since %s\n\n", figures.pid.load(),
                phaseName(figures.phase.load()), localTime(started).text);
    printFigure("records", load(figures.records));
    printFigure("buckets", load(figures.buckets));
    printFigure("lookups", load(figures.lookups));
    printFigure("  misses", load(figures.misses));
    printFigure("updates", load(figures.updates));
    std::printf("  %-18s %15s of %s\n", "jobs under way", grouped(load(figures.underWay)).text,
                grouped(load(figures.window)).text);
    printFigure("clients' gets", load(figures.gets));
    printFigure("clients' puts", load(figures.puts));
    printFigure("clients' lists", load(figures.lists));
    printFigure("messages dropped", load(figures.dropped));
    printFigure("rotations", load(figures.rotations));
    printFigure("settings", load(figures.generation));
    printFigure("workers replaced", load(figures.replaced));
    printFigure("locks freed", load(figures.freedLocks));
    printFigure("jobs put back", load(figures.putBack));
    printFigure("updates redone", load(figures.redone));
    std::printf("\n  worker    process  state               jobs  predecessors\n");
    for (uint32_t i = 0; i < workersOf(figures); ++i) {
        const PublicWorker& worker = figures.worker[i];
        std::printf("  %6u %10d  %-9s %14s %13s\n", i + 1, worker.pid.load(),
                    stateName(worker.state.load()), grouped(load(worker.jobs)).text,
                    grouped(load(worker.replacements)).text);
    }
}

void printFiguresAsJson(const PublicFigures& figures)
{
    std::printf("{\"pid\": %d, \"phase\": \"%s\", \"started\": %lld", figures.pid.load(),
                phaseName(figures.phase.load()), static_cast<long long>(figures.started.load()));
    for (const Row& row : rowsOf(figures)) {
        std::printf(", \"%s\": %llu", row.key, static_cast<unsigned long long>(row.value));
    }
    std::fputs(", \"worker\": [", stdout);
    for (uint32_t i = 0; i < workersOf(figures); ++i) {
        const PublicWorker& worker = figures.worker[i];
        std::printf(
            "%s{\"number\": %u, \"pid\": %d, \"state\": \"%s\", \"jobs\": %llu, "
            "\"replacements\": %u}",
            i == 0 ? "" : ", ", i + 1, worker.pid.load(), stateName(worker.state.load()),
            static_cast<unsigned long long>(load(worker.jobs)), load(worker.replacements));
    }
    std::fputs("]}\n", stdout);
}

}  // namespace catalogue
