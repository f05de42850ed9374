// The full memory report: its cost against the blocks that it walks, with its lines thrown away.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace
{
constexpr uint32_t kBlock = 40;  // bytes
constexpr long kTimes = 10;      // how much larger the one heap is

// Standard error leads nowhere for as long as the object lives.
class QuietLog
{
  public:
    QuietLog() : kept_(dup(STDERR_FILENO))
    {
        const int nowhere = open("/dev/null", O_WRONLY);
        rmbench::must(kept_ != -1 && nowhere != -1, "open");
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }

    ~QuietLog()
    {
        dup2(kept_, STDERR_FILENO);
        close(kept_);
    }

    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;

  private:
    int kept_;
};

// A tag of `count` blocks, every eighth of them free again.
int16_t makeHeap(long count)
{
    constexpr long kFreeEvery = 8;
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    // Segments as large as the heap: making it is a search from the front for every block else.
    rm_setTagAlloc(static_cast<uint32_t>(count) * (kBlock + 8) + 64, tag);
    std::vector<void*> blocks(static_cast<std::size_t>(count));
    for (void*& block : blocks) {
        block = rm_getMemory(kBlock, tag);
    }
    for (std::size_t i = 0; i < blocks.size(); i += kFreeEvery) {
        rm_freeMemory(blocks[i], tag);
    }
    return tag;
}

void report(benchmark::State& state, long times)
{
    const int16_t tag = makeHeap(state.range(0) / times);
    const QuietLog quiet;
    for (auto _ : state) {
        for (long i = 0; i < times; ++i) {
            rm_memReport(RM_REPORT_ALL | RM_REPORT_FREE | RM_REPORT_TAG, tag, "bench");
        }
    }
    rm_freeTagMemory(tag, 1);
}

void reportLarge(benchmark::State& state)
{
    report(state, 1);
}

void reportSmall(benchmark::State& state)
{
    report(state, kTimes);
}
}  // namespace

void rmbench::addReportPairs()
{
    addPair("report: 100,000 blocks", "ten of 10,000", 1.2, reportLarge, reportSmall, 100000);
}
