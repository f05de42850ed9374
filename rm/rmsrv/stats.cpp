// Statistics: counters of events, indexed by numbers that the host assigns.
//
// Why: the modules of a server count what happens in them without knowing each other. What an index
// means is the host's business; here counters are only stored, added to, cleared and handed out.
//
// Owns: the array of counters, under tag 0.
//
// Invariant: `statcount` counters stand at `stattab`, and none at null.
//
// Fatal: no memory for the counters. There are none then, as before the first use.
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>

using namespace rmsrv;

namespace rmsrv
{
uint32_t* stattab = nullptr;
uint16_t statcount = 0;
}  // namespace rmsrv

namespace
{
constexpr uint16_t kDefaultCounters = 54;  // made by the first event that is counted

bool isCounter(int16_t index)
{
    return index >= 0 && index < int32_t{statcount};
}
}  // namespace

void rmsrv::forgetStatistics()
{
    stattab = nullptr;
    statcount = 0;
}

void rm_statInit(uint16_t count)
{
    uint32_t* old = stattab;
    forgetStatistics();
    rm_freeMemory(old, 0);
    const auto bytes = static_cast<uint32_t>(count * sizeof(uint32_t));
    stattab = static_cast<uint32_t*>(rm_cGetMemory(bytes, 0));
    statcount = count;
}

void rm_statInc(int16_t index, uint16_t amount)
{
    if (stattab == nullptr) {
        rm_statInit(kDefaultCounters);
    }
    if (isCounter(index)) {
        stattab[index] += amount;
    }
}

void rm_statClear(int16_t index)
{
    if (isCounter(index)) {
        stattab[index] = 0;
    }
}

void rm_statClearAll()
{
    std::fill_n(stattab, statcount, 0U);
}

uint32_t* rm_statRep(uint16_t* count)
{
    if (count != nullptr) {
        *count = statcount;
    }
    return stattab;
}
