// The summary of a run.
//
// Why: numbers that show what the library did for this host: how few descriptors served how many
// files, what the locks cost, what memory each process took. Every figure is from the board or was
// measured by the parent, so the summary needs no other process to be alive.
//
// No function of the library is called here.
#include "report.h"

#include "console.h"
#include "store.h"

#include <algorithm>
#include <cstdio>

namespace catalogue
{
namespace
{
constexpr double kKiB = 1024;
constexpr double kMiB = 1024 * 1024;
constexpr double kNsPerSecond = 1e9;

double mebibytes(uint64_t bytes)
{
    return static_cast<double>(bytes) / kMiB;
}

Grouped rate(uint64_t count, double seconds)
{
    return grouped(seconds > 0 ? static_cast<uint64_t>(static_cast<double>(count) / seconds) : 0);
}

// The sums of the workers' figures.
void addUp(const Board& board, Figures& sum)
{
    for (const Figures& figures : board.worker) {
        for (int16_t i = 0; i < kCounters; ++i) {
            sum.counter[i] += figures.counter[i];
        }
        sum.lockWaitedNs += figures.lockWaitedNs;
        sum.filesOpen += figures.filesOpen;
        sum.filesParked += figures.filesParked;
        sum.parkings += figures.parkings;
        sum.reopens += figures.reopens;
        sum.memoryUsed += figures.memoryUsed;
    }
}

// The columns fit 80 characters up to a million operations each.
void printHeadings()
{
    std::printf("\n  %-11s%12s%18s%24s%11s\n", "", "files", "descriptors", "bucket locks",
                "tag memory");
    std::printf("  %-11s%5s%7s%9s%9s%9s%8s%7s%11s\n", "process", "open", "parked", "parkings",
                "reopens", "entered", "waits", "in s", "KiB");
}

void printRow(const char* name, const Figures& figures, uint64_t tagLimit)
{
    std::printf("  %-11s%5u%7u%9s%9s", name, figures.filesOpen.load(), figures.filesParked.load(),
                grouped(figures.parkings).text, grouped(figures.reopens).text);
    if (figures.counter[kLockEnters] != 0) {
        std::printf("%9s%8s%7.2f", grouped(figures.counter[kLockEnters]).text,
                    grouped(figures.counter[kLockWaits]).text,
                    static_cast<double>(figures.lockWaitedNs) / kNsPerSecond);
    } else {
        std::printf("%9s%8s%7s", "-", "-", "-");
    }
    char memory[40];
    std::snprintf(memory, sizeof(memory), "%.0f of %.0f", figures.memoryUsed / kKiB,
                  static_cast<double>(tagLimit) / kKiB);
    std::printf("%11s\n", memory);
}

// What every process has counted for itself, added up.
void printCounters(const Board& board, const Figures& sum)
{
    std::printf("\n  %-16s%12s%10s%14s\n", "counted", "parent", "desk", "all workers");
    for (int16_t i = 0; i < kCounters; ++i) {
        std::printf("    %-16s%10s%10s%14s\n", counterName(static_cast<Counter>(i)),
                    grouped(board.parent.counter[i]).text, grouped(board.desk.counter[i]).text,
                    grouped(sum.counter[i]).text);
    }
}

void printRun(const Options& options, const Settings& settings, const Input& input,
              const Board& board, const RunFigures& run, const Figures& sum)
{
    for (const std::string& path : options.inputs) {
        std::printf("  input     %s\n", path.c_str());
    }
    std::printf("  format   ");
    for (std::size_t i = 0; i < input.formats.size(); ++i) {
        const char* const* const before = input.formats.data();
        if (input.formats[i] != nullptr &&
            std::find(before, before + i, input.formats[i]) == before + i) {
            std::printf(" %s", input.formats[i]);
        }
    }
    std::printf("\n  records   %s of %s bytes\n", grouped(input.records.size()).text,
                grouped(input.bytes).text);
    std::printf("  loaded    into %u bucket files of %.1f MiB together, in %.2f s\n",
                static_cast<uint32_t>(settings.number[kBuckets]), mebibytes(run.bytesLoaded),
                run.loadSeconds);
    std::printf("  lookups   %s, %s per second\n", grouped(sum.counter[kLookups]).text,
                rate(sum.counter[kLookups], run.serveSeconds).text);
    std::printf("  updates   %s, %s per second\n", grouped(sum.counter[kUpdates]).text,
                rate(sum.counter[kUpdates], run.serveSeconds).text);
    const PublicFigures& figures = board.head.figures;
    std::printf("  clients   %s requests: %s get, %s put, %s list\n",
                grouped(figures.gets + figures.puts + figures.lists).text,
                grouped(figures.gets).text, grouped(figures.puts).text,
                grouped(figures.lists).text);
    std::printf(
        "  replaced  %s workers that were killed: %s locks freed, %s jobs put back, "
        "%s updates redone\n",
        grouped(figures.replaced).text, grouped(figures.freedLocks).text,
        grouped(figures.putBack).text, grouped(figures.redone).text);
    std::printf("  backups   %s of each file, the last ones whole\n",
                grouped(figures.rotations).text);
    std::printf("  files     %.1f MiB together now: a first update moves its record to the end\n",
                mebibytes(run.bytesAtEnd));
    std::printf("  verified  %s records in %.2f s: text, updates and checksum of each\n",
                grouped(input.records.size()).text, run.verifySeconds);
}
}  // namespace

void printSummary(const Options& options, const Settings& settings, const Input& input,
                  const Board& board, const RunFigures& run)
{
    Figures sum = {};
    addUp(board, sum);
    const auto workers = static_cast<uint32_t>(settings.number[kWorkers]);

    std::printf("\n");
    printRun(options, settings, input, board, run, sum);
    printHeadings();
    printRow("parent", board.parent, board.tagLimit);
    printRow("desk", board.desk, board.tagLimit);
    for (uint32_t i = 0; i < workers; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "worker %u", i + 1);
        printRow(name, board.worker[i], board.tagLimit);
    }
    printRow("all workers", sum, uint64_t{workers} * board.tagLimit);
    std::printf(
        "  (waits: how often a lock was held by another process, and the seconds lost to it)\n");
    printCounters(board, sum);
    std::printf("\nEvery record matches the input and the updates made to it.\n");
}

uint64_t countedByAll(const Board& board, Counter counter)
{
    uint64_t sum = board.parent.counter[counter] + board.desk.counter[counter];
    for (const Figures& figures : board.worker) {
        sum += figures.counter[counter];
    }
    return sum;
}

}  // namespace catalogue
