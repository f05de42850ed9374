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
void addUp(const Options& options, const Board& board, Figures& sum)
{
    for (uint32_t i = 0; i < options.workers; ++i) {
        const Figures& figures = board.worker[i];
        sum.lookups += figures.lookups;
        sum.updates += figures.updates;
        sum.lockEnters += figures.lockEnters;
        sum.lockWaits += figures.lockWaits;
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
    if (figures.lockEnters != 0) {
        std::printf("%9s%8s%7.2f", grouped(figures.lockEnters).text,
                    grouped(figures.lockWaits).text,
                    static_cast<double>(figures.lockWaitedNs) / kNsPerSecond);
    } else {
        std::printf("%9s%8s%7s", "-", "-", "-");
    }
    char memory[40];
    std::snprintf(memory, sizeof(memory), "%.0f of %.0f", figures.memoryUsed / kKiB,
                  static_cast<double>(tagLimit) / kKiB);
    std::printf("%11s\n", memory);
}

void printRun(const Options& options, const Input& input, const RunFigures& run, const Figures& sum)
{
    for (const std::string& path : options.inputs) {
        std::printf("  input     %s\n", path.c_str());
    }
    std::printf("  records   %s of %s bytes\n", grouped(input.records.size()).text,
                grouped(input.bytes).text);
    std::printf("  loaded    into %u bucket files of %.1f MiB together, in %.2f s\n", kBuckets,
                mebibytes(run.bytesLoaded), run.loadSeconds);
    std::printf("  lookups   %s, %s per second\n", grouped(sum.lookups).text,
                rate(sum.lookups, run.serveSeconds).text);
    std::printf("  updates   %s, %s per second\n", grouped(sum.updates).text,
                rate(sum.updates, run.serveSeconds).text);
    std::printf("  files     %.1f MiB together now: a first update moves its record to the end\n",
                mebibytes(run.bytesAtEnd));
    std::printf("  verified  %s records in %.2f s: text, updates and checksum of each\n",
                grouped(input.records.size()).text, run.verifySeconds);
}
}  // namespace

void printSummary(const Options& options, const Input& input, const Board& board,
                  const RunFigures& run)
{
    Figures sum = {};
    addUp(options, board, sum);

    std::printf("\n");
    printRun(options, input, run, sum);
    printHeadings();
    printRow("parent", board.parent, board.tagLimit);
    for (uint32_t i = 0; i < options.workers; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "worker %u", i + 1);
        printRow(name, board.worker[i], board.tagLimit);
    }
    printRow("all workers", sum, uint64_t{options.workers} * board.tagLimit);
    std::printf(
        "  (waits: how often a lock was held by another process, and the seconds lost to it)\n");
    std::printf("\nEvery record matches the input and the updates made to it.\n");
}

}  // namespace catalogue
