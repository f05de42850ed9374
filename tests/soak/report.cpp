// What a run says: a line every ten seconds, the table, and the last line.
#include "soak.h"

#include <algorithm>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace soak
{
namespace
{
using Count = unsigned long long;

Count operationsOf(uint32_t family)
{
    Count sum = 0;
    for (const WorkerBoard& worker : board->worker) {
        sum += worker.operations[family];
    }
    return sum;
}

void row(const char* name, Count value)
{
    std::printf("  %-32s %14llu\n", name, value);
}

template <typename Field>
Count sumOver(Field field)
{
    Count sum = 0;
    for (const WorkerBoard& worker : board->worker) {
        sum += field(worker);
    }
    return sum;
}

template <typename Field>
Count sumOverQueues(Field field)
{
    Count sum = 0;
    for (const QueueBoard& queue : board->queue) {
        sum += field(queue);
    }
    return sum;
}
}  // namespace

uint64_t operationsSoFar()
{
    uint64_t sum = 0;
    for (uint32_t i = 0; i < families().size(); ++i) {
        sum += operationsOf(i);
    }
    return sum;
}

uint64_t residentKb()
{
    char text[128] = "";
    const int fd = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    const ssize_t count = fd == -1 ? -1 : read(fd, text, sizeof text - 1);
    close(fd);
    unsigned long total = 0;
    unsigned long resident = 0;
    if (count <= 0 || std::sscanf(text, "%lu %lu", &total, &resident) != 2) {
        return 0;
    }
    return uint64_t{resident} * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

void showProgress(const Tally& tally)
{
    std::printf("soak: %4.0f s, %llu operations, %llu workers killed, %u locks recovered\n",
                tally.seconds, static_cast<Count>(operationsSoFar()),
                static_cast<Count>(tally.killed), locksRecovered());
    std::fflush(stdout);
}

void showTable(const Tally& tally)
{
    const Totals sums = totals();
    std::printf("\n  %-32s %14s\n", "operations", "");
    for (uint32_t i = 0; i < families().size(); ++i) {
        row(families()[i]->name, operationsOf(i));
    }
    std::printf("\n");
    row("checks", sumOver([](const WorkerBoard& worker) { return worker.checks; }));
    row("workers killed", tally.killed);
    row("workers replaced", tally.replaced);
    row("locks recovered", locksRecovered());
    row("records written", sums.recordsWritten);
    row("records lost", sums.recordsLost);
    row("records written again", board->records.redone);
    row("transfers", sums.transfers);
    row("transfers undone", board->accounts.undone);
    row("parcels", sums.parcels);
    row("messages", sums.messages);
    row("messages taken from an outbox",
        sumOverQueues([](const QueueBoard& queue) { return queue.refetched; }));
    row("messages that came twice",
        sumOverQueues([](const QueueBoard& queue) { return queue.repeated; }));
    row("FF bag filled again", board->tokens.refills);
    row("changes of the shared INI file",
        sumOver([](const WorkerBoard& worker) { return worker.settingAcked; }));
    row("and put back, or cleared away",
        sumOver([](const WorkerBoard& worker) { return worker.settled; }));
    row("records in diaries", sumOver([](const WorkerBoard& worker) { return worker.diaryAcked; }));
    row("files parked",
        sumOver([](const WorkerBoard& worker) { return worker.parkingsBefore + worker.parkings; }));
    row("files reopened",
        sumOver([](const WorkerBoard& worker) { return worker.reopensBefore + worker.reopens; }));
    Count tagged = 0;
    Count resident = 0;
    for (const WorkerBoard& worker : board->worker) {
        tagged = std::max(tagged, static_cast<Count>(worker.tagged / 1024));
        resident = std::max(resident, static_cast<Count>(worker.residentKb));
    }
    row("KB tagged, largest worker", tagged);
    row("KB resident, largest worker", resident);
    row("KB resident, parent at start", tally.residentKbAtStart);
    row("KB resident, parent at end", tally.residentKbAtEnd);
    std::printf("\n");
}

int showResult(const Tally& tally)
{
    const uint32_t findings = board->findings.load();
    if (findings == 0) {
        std::printf(
            "soak: %llu operations in %.0f s, %llu workers killed, nothing lost, nothing left "
            "behind\n",
            static_cast<Count>(operationsSoFar()), tally.seconds, static_cast<Count>(tally.killed));
        return 0;
    }
    for (uint32_t i = 0; i < std::min(findings, kFindings); ++i) {
        std::printf("finding: %s\n", board->finding[i]);
    }
    std::printf("soak: %u findings after %.0f s; the plan: --seed=%llu --kill-every=%u\n", findings,
                tally.seconds, static_cast<Count>(options.seed), options.killEveryMs);
    std::printf("soak: files and logs of the run: %s\n", scratch().c_str());
    return 1;
}

}  // namespace soak
