// What several parts of the soak use: bytes that follow from a seed, files read whole, findings.
//
// Why: what is compared must be made and looked at in one way everywhere.
#include "soak.h"

#include "rm.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include <unistd.h>

namespace soak
{

Options options;
Board* board = nullptr;
int16_t locks[kLocks];
int16_t parcelEvent = RM_NULL_SYNC;
int16_t queues[kQueues];
void* tokenBag = nullptr;
RmPool* sharedPool = nullptr;
uint32_t mostData = kMostData;
uint32_t me = kWorkers;
Random plan;

std::string Random::text(uint32_t length)
{
    constexpr std::string_view kLetters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::string text(length, ' ');
    for (char& c : text) {
        c = kLetters[below(kLetters.size())];
    }
    return text;
}

std::span<const Family* const> families()
{
    static constexpr std::array kAll = {
        &kMemory,  &kReports,     &kPools,       &kFiles,        &kDiary,          &kCopies,
        &kRecords, &kLocksFamily, &kEvents,      &kSharedMemory, &kQueuesFamily,   &kFfBag,
        &kBags,    &kArrays,      &kEnvironment, &kSettings,     &kSharedSettings, &kStreams,
        &kTexts,   &kPaths,       &kLog,         &kStatistics,   &kModules,        &kErrorFrames,
    };
    static_assert(kAll.size() <= kMostFamilies);
    return kAll;
}

namespace
{
// Where a finding was made, in the words by which it can be made again.
void tell(char (&line)[kFindingSize], const char* text)
{
    if (me < kWorkers) {
        const WorkerBoard& worker = mine();
        const char* const family =
            worker.family < families().size() ? families()[worker.family]->name : "start or end";
        std::snprintf(line, sizeof line, "worker %u, life %u, step %llu, %s: %s", me, worker.life,
                      static_cast<unsigned long long>(worker.step), family, text);
    } else {
        std::snprintf(line, sizeof line, "parent: %s", text);
    }
}
}  // namespace

void found(const char* format, ...)
{
    static char text[kFindingSize - 64];
    static char line[kFindingSize];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (board == nullptr) {
        std::printf("%s\n", text);
        return;
    }
    tell(line, text);
    if (const uint32_t place = board->findings.fetch_add(1); place < kFindings) {
        std::memcpy(board->finding[place], line, kFindingSize);
    }
    board->stop = 1;
    if (me < kWorkers) {
        _exit(kEndedByFinding);
    }
}

void countCheck()
{
    if (board != nullptr && me < kWorkers) {
        ++mine().checks;
    }
}

std::string own(std::string_view name)
{
    return "w" + std::to_string(me) + "/" + std::string(name);
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void spit(const std::string& path, std::string_view text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

uint64_t sumOf(const void* bytes, std::size_t count)
{
    uint64_t sum = 0xCBF29CE484222325U;
    const auto* const at = static_cast<const unsigned char*>(bytes);
    for (std::size_t i = 0; i < count; ++i) {
        sum = (sum ^ at[i]) * 0x100000001B3U;
    }
    return sum;
}

namespace
{
unsigned char byteOf(uint64_t seed, std::size_t place)
{
    const uint64_t mixed = (seed + place / 7) * 0x9E3779B97F4A7C15U;
    return static_cast<unsigned char>((mixed >> 40U) + place);
}
}  // namespace

void fill(void* bytes, std::size_t count, uint64_t seed)
{
    auto* const at = static_cast<unsigned char*>(bytes);
    for (std::size_t i = 0; i < count; ++i) {
        at[i] = byteOf(seed, i);
    }
}

bool isFilled(const void* bytes, std::size_t count, uint64_t seed)
{
    const auto* const at = static_cast<const unsigned char*>(bytes);
    for (std::size_t i = 0; i < count; ++i) {
        if (at[i] != byteOf(seed, i)) {
            return false;
        }
    }
    return true;
}

}  // namespace soak
