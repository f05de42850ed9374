// Tagged memory against malloc and free: one block in and out, filling, and random replacement in
// heaps of growing size. For the record: the searches are plain walks, and these figures say what
// that costs.
#include "pairs.h"

#include "rm.h"

#include <cstdlib>
#include <random>
#include <vector>

namespace
{
constexpr uint32_t kSmallest = 20;  // bytes of a block in the larger heaps
constexpr uint32_t kLargest = 219;

struct Ours {
    Ours() : tag(rm_allocTag(nullptr, RM_NO_LIMIT)) {}

    ~Ours() { rm_freeTagMemory(tag, 1); }

    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;

    void* get(uint32_t size) const { return rm_getMemory(size, tag); }

    void release(void* pointer) const { rm_freeMemory(pointer, tag); }

    int16_t tag;
};

struct Bare {
    static void* get(uint32_t size) { return std::malloc(size); }

    static void release(void* pointer) { std::free(pointer); }
};

// Sizes are drawn beforehand, so that drawing them costs neither side anything.
std::vector<uint32_t> drawSizes(std::size_t count)
{
    std::mt19937 generator(1);
    std::uniform_int_distribution<uint32_t> sizes(kSmallest, kLargest);
    std::vector<uint32_t> drawn(count);
    for (uint32_t& size : drawn) {
        size = sizes(generator);
    }
    return drawn;
}

template <typename Heap>
void alternate(benchmark::State& state)
{
    const Heap heap;
    const auto size = static_cast<uint32_t>(state.range(0));
    void* other = heap.get(size);
    for (auto _ : state) {
        void* block = heap.get(size);
        benchmark::DoNotOptimize(block);
        heap.release(block);
    }
    heap.release(other);
}

// One iteration gets all the blocks; giving them back is not measured.
template <typename Heap>
void fill(benchmark::State& state)
{
    const auto count = static_cast<std::size_t>(state.range(0));
    const std::vector<uint32_t> sizes = drawSizes(count);
    std::vector<void*> blocks(count);
    for (auto _ : state) {
        const Heap heap;
        for (std::size_t i = 0; i < count; ++i) {
            blocks[i] = heap.get(sizes[i]);
        }
        state.PauseTiming();
        for (std::size_t i = count; i > 0; --i) {
            heap.release(blocks[i - 1]);
        }
        state.ResumeTiming();
    }
}

// One iteration gives one block back, anywhere in the heap, and gets one of another size.
template <typename Heap>
void replace(benchmark::State& state)
{
    constexpr std::size_t kDraws = 65536;
    const auto count = static_cast<std::size_t>(state.range(0));
    const Heap heap;
    std::vector<void*> blocks(count);
    const std::vector<uint32_t> first = drawSizes(count);
    for (std::size_t i = 0; i < count; ++i) {
        blocks[i] = heap.get(first[i]);
    }
    const std::vector<uint32_t> sizes = drawSizes(kDraws);
    std::mt19937 generator(2);
    std::uniform_int_distribution<std::size_t> places(0, count - 1);
    std::vector<std::size_t> drawn(kDraws);
    for (std::size_t& place : drawn) {
        place = places(generator);
    }
    std::size_t next = 0;
    for (auto _ : state) {
        void*& block = blocks[drawn[next]];
        heap.release(block);
        block = heap.get(sizes[next]);
        next = (next + 1) % kDraws;
    }
    for (void* block : blocks) {
        heap.release(block);
    }
}
}  // namespace

void rmbench::addMemoryPairs()
{
    const char* kBareWay = "malloc, free";
    for (const long size : {16L, 64L, 1000L}) {
        addPair("memory: get, free " + std::to_string(size), kBareWay, kForTheRecord,
                alternate<Ours>, alternate<Bare>, size);
    }
    for (const long count : {10L, 100L, 1000L, 10000L, 100000L}) {
        addPair("memory: fill " + std::to_string(count), kBareWay, kForTheRecord, fill<Ours>,
                fill<Bare>, count);
        addPair("memory: replace in " + std::to_string(count), kBareWay, kForTheRecord,
                replace<Ours>, replace<Bare>, count);
        plotAs("memory-replace", count);
    }
}
