// What a process counts, and under which numbers.
//
// Why: the library keeps the counters of one process, and the run has several. Each counts for
// itself, without a lock, and copies its figures to the board; the parent adds them up there, also
// those of a worker that is dead.
//
// Fatal: no memory, for the counters.
#include "counters.h"

#include "rm.h"

#include <algorithm>

namespace catalogue
{
namespace
{
constexpr const char* kNames[] = {
    "lookups",    "updates",      "misses",     "records moved",  "growth steps",
    "file syncs", "bucket locks", "lock waits", "lock time-outs", "sessions",
    "buffers",    "file copies",  "reloads",    "warnings",
};
static_assert(std::size(kNames) == kCounters);

uint32_t before[kCounters];  // counted by the predecessors of this process
}  // namespace

const char* counterName(Counter counter)
{
    return kNames[counter];
}

void startCounters()
{
    rm_statInit(kCounters);
}

void resumeCounters(const std::atomic<uint32_t> (&board)[kCounters])
{
    std::copy(std::begin(board), std::end(board), std::begin(before));
}

uint32_t counted(Counter counter)
{
    uint16_t available = 0;
    const uint32_t* counters = rm_statRep(&available);
    return counter < available ? counters[counter] : 0;
}

void count(Counter counter, uint16_t amount)
{
    rm_statInc(counter, amount);
}

void publishCounters(std::atomic<uint32_t> (&board)[kCounters])
{
    uint16_t available = 0;
    const uint32_t* counters = rm_statRep(&available);
    for (uint16_t i = 0; i < std::min<uint16_t>(available, kCounters); ++i) {
        board[i].store(before[i] + counters[i], std::memory_order_relaxed);
    }
}

}  // namespace catalogue
