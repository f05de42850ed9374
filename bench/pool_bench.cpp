// Pools: one element out and in, against malloc and free, and against the bare lock.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <cstdlib>
#include <vector>

namespace
{
constexpr uint32_t kMost = 100;

// A tag with `holes` free blocks between live ones.
int16_t makeTag(std::size_t holes)
{
    constexpr uint32_t kBlock = 16;
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_setTagAlloc(1U << 20U, tag);
    std::vector<void*> blocks(2 * holes);
    for (void*& block : blocks) {
        block = rm_getMemory(kBlock, tag);
    }
    for (std::size_t i = 0; i < blocks.size(); i += 2) {
        rm_freeMemory(blocks[i], tag);
    }
    return tag;
}

template <bool kLocked, std::size_t kHoles = 0>
void pool(benchmark::State& state)
{
    const auto size = static_cast<uint32_t>(state.range(0));
    const int16_t tag = makeTag(kHoles);
    RmPool* pool = rm_allocPool(kMost, tag, kLocked ? "bench pool" : nullptr, RM_WAIT_FOREVER);
    for (auto _ : state) {
        void* element = rm_getFromPool(size, pool);
        benchmark::DoNotOptimize(element);
        rm_putInPool(element, pool);
    }
    rm_zFreePool(&pool);
    rm_freeTagMemory(tag, 1);
}

void allocate(benchmark::State& state)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        void* element = std::malloc(size);
        benchmark::DoNotOptimize(element);
        std::free(element);
    }
}

void bareLock(benchmark::State& state)
{
    const rmbench::BareLock lock;
    for (auto _ : state) {
        for (int i = 0; i < 2; ++i) {
            lock.enterUntimed();
            lock.leave();
        }
    }
}
}  // namespace

void rmbench::addPoolPairs()
{
    for (const long size : {64L, 512L, 4096L}) {
        addPair("pool: get, put " + std::to_string(size), "malloc, free", 1.5, pool<false>,
                allocate, size);
    }
    addPair("pool: get, put 512, 5000 holes", "malloc, free", 1.5, pool<false, 5000>, allocate,
            512);
    addPair("pool: get, put 512, locked", "semop alarm semop, twice", 1.2, pool<true>, bareLock,
            512);
}
