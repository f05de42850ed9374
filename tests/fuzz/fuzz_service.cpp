// The small states of the library, each beside its plain copy: counters, the log level, the disk
// state, priorities and termination, raw segments, and questions about any path.
//
// Input: a byte for each call, then what it is made with; texts end with a zero.
#include "fuzz.h"

#include "rm.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/unix/unix.h"

#include <cstring>
#include <optional>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace
{
using rmfuzz::Input;
using rmfuzz::Text;

constexpr int kMostCalls = 200;
constexpr uint16_t kDefaultCounters = 54;

enum Call : uint8_t {
    kInit,
    kIncrement,
    kIncrementToo,
    kClear,
    kClearAll,
    kDiskFull,
    kTermination,
    kThreads,
    kSegment,
    kPath,
    kHostVariables,
    kCalls,
};

using Counters = std::optional<std::vector<uint32_t>>;

bool isCounter(const Counters& counters, int16_t index)
{
    return counters && index >= 0 && static_cast<std::size_t>(index) < counters->size();
}

// Mostly near the counters that there are.
int16_t indexBy(Input& input)
{
    const uint8_t first = input.byte();
    return first < 250 ? static_cast<int16_t>(first - 10) : input.int16();
}

void compareCounters(const Counters& counters)
{
    uint16_t count = 1;
    const uint32_t* found = rm_statRep(&count);
    FUZZ_CHECK(found == rm_statRep(nullptr));
    FUZZ_CHECK((found != nullptr) == counters.has_value());
    FUZZ_CHECK(count == (counters ? counters->size() : 0));
    for (uint16_t i = 0; i < count; ++i) {
        FUZZ_CHECK(found[i] == (*counters)[i]);
    }
}

void callCounters(Call call, Input& input, Counters* counters)
{
    switch (call) {
        case kInit: {
            const auto count = static_cast<uint16_t>(static_cast<uint16_t>(input.int16()) % 300);
            rm_statInit(count);
            *counters = std::vector<uint32_t>(count);
            break;
        }
        case kClear: {
            const int16_t index = indexBy(input);
            rm_statClear(index);
            if (isCounter(*counters, index)) {
                (*counters)->at(static_cast<std::size_t>(index)) = 0;
            }
            break;
        }
        case kClearAll:
            rm_statClearAll();
            if (*counters) {
                (*counters)->assign((*counters)->size(), 0);
            }
            break;
        default: {
            const int16_t index = indexBy(input);
            const auto amount = static_cast<uint16_t>(input.int16());
            rm_statInc(index, amount);
            if (!*counters) {
                *counters = std::vector<uint32_t>(kDefaultCounters);
            }
            if (isCounter(*counters, index)) {
                (*counters)->at(static_cast<std::size_t>(index)) += amount;
            }
            break;
        }
    }
    compareCounters(*counters);
}

void callThreads(Input& input)
{
    const int16_t priority = input.int16();
    FUZZ_CHECK(rm_threadDefaultPriority(priority) == 0 && os::DefaultPriority == priority);
    FUZZ_CHECK(rm_threadBegin(priority, nullptr) == 1);
    rm_threadEnd();
    rm_enterCritSec(priority);
    rm_exitCritSec(priority);
    rm_setOSHandleLimit();
    FUZZ_CHECK(rm_sleep(0) == 0);
    FUZZ_CHECK(rm_sleep(UINT32_MAX - input.byte()) == 0);  // wraps around to no sleep at all
}

void callSegment(Input& input)
{
    const auto size = static_cast<uint16_t>(input.int16());
    void* segment = rm_getSeg(size);
    FUZZ_CHECK(segment != nullptr);
    std::memset(segment, input.byte(), size);
    rm_freeSeg(segment);
    rm_freeSeg(nullptr);
}

// 32 bits of the free blocks, of 512 bytes each. Others use the disk meanwhile.
void callPath(Input& input)
{
    const Text path(input.text());
    struct stat status = {};
    FUZZ_CHECK(rm_fileValidate(path.get()) == stat(path.get(), &status));
    struct statvfs space = {};
    const bool isThere = statvfs(path.get(), &space) == 0;
    const double found = rm_getDiskFreeSpace(path.get());
    FUZZ_CHECK(isThere == (found != -1.0));
    FUZZ_CHECK(isThere == (rm_flGetDiskFreeSpace(path.get()) != -1.0));
    FUZZ_CHECK(!isThere || (found >= 0.0 && found <= 512.0 * UINT32_MAX));
    FUZZ_CHECK(path.unchanged());
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    beginAnew(true);
    const InDirectory inDirectory;
    Counters counters;
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        const auto call = static_cast<Call>(input.byte() % kCalls);
        switch (call) {
            case kDiskFull: {
                const int16_t flag = input.int16();
                rm_setDiskFull(flag);
                FUZZ_CHECK(rm_getDiskFull() == flag && rmDiskFull == flag);
                break;
            }
            case kTermination: {
                const int16_t state = input.int16();
                rm_setOSTerm(state);
                FUZZ_CHECK(rm_getOSTerm() == state && rmanTerm == state);
                break;
            }
            case kThreads:
                callThreads(input);
                break;
            case kSegment:
                callSegment(input);
                break;
            case kPath:
                callPath(input);
                break;
            case kHostVariables:
                // Nothing in the library reads them.
                FUZZ_CHECK(hNormSh == 0 && hPriSh == 0);
                break;
            default:
                callCounters(call, input, &counters);
                break;
        }
    }
    rm_setDiskFull(1);
    rm_setOSTerm(0);
}
