// Tagged memory against malloc doing the same, in heaps of growing size.
//
// What is measured, each in one tag against malloc in a heap of its own:
//
//   get, free    the same size in and out, with one other block live
//   fill         blocks of 20 to 219 bytes, one after the other
//   replace      one block, anywhere in the heap, is given back and one of another size is got
//   extend       one block, anywhere in the heap, gets another size
//
// A heap in which blocks are replaced or extended has first had as many calls as it has blocks, so
// that it is as such a heap is later on, and not as it was filled. Two more heaps are measured: all
// blocks in one segment of 400 MiB, and each block in a segment of its own. Some pairs compare the
// library with itself: what must not grow with the size of the heap or the number of tags.
#include "pairs.h"
#include "tests/models/plain_allocator.h"

#include "rm.h"

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

namespace
{
constexpr uint32_t kSmallest = 20;  // bytes of a block in the larger heaps
constexpr uint32_t kLargest = 219;
constexpr uint32_t kLargeSegment = 400U << 20;  // bytes

// --- Heaps: a tag, malloc, and tags of special kinds

class Ours
{
  public:
    Ours() : tag_(rm_allocTag(nullptr, RM_NO_LIMIT)) {}

    ~Ours() { rm_freeTagMemory(tag_, 1); }

    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;

    void* get(uint32_t size) const { return rm_getMemory(size, tag_); }

    void release(void* pointer) const { rm_freeMemory(pointer, tag_); }

    void* extend(void* pointer, uint32_t size) const
    {
        return rm_extendMemory(pointer, size, tag_);
    }

    int16_t tag() const { return tag_; }

  private:
    int16_t tag_;
};

struct Malloc {
    static void* get(uint32_t size) { return std::malloc(size); }

    static void release(void* pointer) { std::free(pointer); }

    static void* extend(void* pointer, uint32_t size) { return std::realloc(pointer, size); }
};

// The same placement, found by walking along segments and free chains: what it would cost without
// anything kept beside the segments.
class PlainWalk
{
  public:
    PlainWalk() : tag_(plain_.allocTag()) {}

    void* get(uint32_t size) { return plain_.get(size, tag_); }

    void release(void* pointer) { plain_.release(pointer, tag_); }

    void* extend(void* pointer, uint32_t size) { return plain_.extend(pointer, size, tag_); }

  private:
    rmtest::PlainAllocator plain_;
    int16_t tag_;
};

class OursInOneSegment : public Ours
{
  public:
    OursInOneSegment() { rm_setTagAlloc(kLargeSegment, tag()); }
};

class OursWithSegAlloc : public Ours
{
  public:
    OursWithSegAlloc() { seg_alloc = 1; }

    ~OursWithSegAlloc() { seg_alloc = 0; }

    OursWithSegAlloc(const OursWithSegAlloc&) = delete;
    OursWithSegAlloc& operator=(const OursWithSegAlloc&) = delete;
};

// One tag, of several thousand that hold a few blocks each.
template <int kTags>
class OursAmong
{
  public:
    OursAmong()
    {
        constexpr int kBlocks = 5;
        for (int i = 0; i < kTags; ++i) {
            others_.push_back(rm_allocTag(nullptr, RM_NO_LIMIT));
            for (int block = 0; block < kBlocks; ++block) {
                rm_getMemory(kLargest, others_.back());
            }
        }
    }

    ~OursAmong()
    {
        for (const int16_t tag : others_) {
            rm_freeTagMemory(tag, 1);
        }
    }

    OursAmong(const OursAmong&) = delete;
    OursAmong& operator=(const OursAmong&) = delete;

    void* get(uint32_t size) const { return own_.get(size); }

    void release(void* pointer) const { own_.release(pointer); }

  private:
    std::vector<int16_t> others_;
    Ours own_;
};

// --- What is done with them

// Drawn beforehand, so that drawing costs neither side anything.
template <typename T>
std::vector<T> draw(std::size_t count, T least, T most, uint32_t seed)
{
    std::mt19937 generator(seed);
    std::uniform_int_distribution<T> chance(least, most);
    std::vector<T> drawn(count);
    for (T& value : drawn) {
        value = chance(generator);
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
    const std::vector<uint32_t> sizes = draw(count, kSmallest, kLargest, 1);
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

// A filled heap, and calls that are drawn for it.
template <typename Heap>
class Workload
{
  public:
    explicit Workload(std::size_t count)
        : blocks_(count),
          places_(draw<uint32_t>(kDraws, 0, static_cast<uint32_t>(count - 1), 2)),
          sizes_(draw(kDraws, kSmallest, kLargest, 3))
    {
        const std::vector<uint32_t> first = draw(count, kSmallest, kLargest, 4);
        for (std::size_t i = 0; i < count; ++i) {
            blocks_[i] = heap_.get(first[i]);
        }
    }

    ~Workload()
    {
        for (void* block : blocks_) {
            heap_.release(block);
        }
    }

    Workload(const Workload&) = delete;
    Workload& operator=(const Workload&) = delete;

    void replace()
    {
        void*& block = blocks_[places_[next_]];
        heap_.release(block);
        block = heap_.get(sizes_[next_]);
        next_ = (next_ + 1) % kDraws;
    }

    void extend()
    {
        void*& block = blocks_[places_[next_]];
        block = heap_.extend(block, sizes_[next_]);
        next_ = (next_ + 1) % kDraws;
    }

  private:
    static constexpr std::size_t kDraws = 1 << 22;

    Heap heap_;
    std::vector<void*> blocks_;
    std::vector<uint32_t> places_;
    std::vector<uint32_t> sizes_;
    std::size_t next_ = 0;
};

template <typename Heap>
void replace(benchmark::State& state)
{
    const auto count = static_cast<std::size_t>(state.range(0));
    Workload<Heap> workload(count);
    for (std::size_t i = 0; i < count; ++i) {
        workload.replace();
    }
    for (auto _ : state) {
        workload.replace();
    }
}

template <typename Heap>
void extend(benchmark::State& state)
{
    const auto count = static_cast<std::size_t>(state.range(0));
    Workload<Heap> workload(count);
    for (std::size_t i = 0; i < count; ++i) {
        workload.extend();
    }
    for (auto _ : state) {
        workload.extend();
    }
}

// The same in a heap of 1,000 blocks, whatever the argument is.
template <typename Heap>
void replaceInThousand(benchmark::State& state)
{
    Workload<Heap> workload(1000);
    for (std::size_t i = 0; i < 1000; ++i) {
        workload.replace();
    }
    for (auto _ : state) {
        workload.replace();
    }
}

constexpr std::size_t kBlocksOfATag = 100'000;

// One iteration releases a tag of 100,000 blocks; the argument is the size of its segments.
void freeTag(benchmark::State& state)
{
    const std::vector<uint32_t> sizes = draw(kBlocksOfATag, kSmallest, kLargest, 1);
    for (auto _ : state) {
        state.PauseTiming();
        const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
        rm_setTagAlloc(static_cast<uint32_t>(state.range(0)), tag);
        for (const uint32_t size : sizes) {
            rm_getMemory(size, tag);
        }
        state.ResumeTiming();
        rm_freeTagMemory(tag, 1);
    }
}

void freeAll(benchmark::State& state)
{
    const std::vector<uint32_t> sizes = draw(kBlocksOfATag, kSmallest, kLargest, 1);
    std::vector<void*> blocks(kBlocksOfATag);
    for (auto _ : state) {
        state.PauseTiming();
        for (std::size_t i = 0; i < kBlocksOfATag; ++i) {
            blocks[i] = std::malloc(sizes[i]);
        }
        state.ResumeTiming();
        for (void* block : blocks) {
            std::free(block);
        }
    }
}

std::string named(const std::string& what, long count)
{
    return "memory: " + what + ' ' + std::to_string(count);
}
}  // namespace

void rmbench::addMemoryPairs()
{
    constexpr int kTimes = 5;
    constexpr long kCalls = 1'000'000;
    constexpr long kAll = 1'000'000;  // blocks of the largest heap
    const char* kBareWay = "malloc, free";
    for (const long size : {16L, 64L, 1000L}) {
        addPair(named("get, free", size), kBareWay, 1.5, alternate<Ours>, alternate<Malloc>, size);
    }
    for (const long count : {1000L, 100'000L, kAll}) {
        addPair(named("fill", count), kBareWay, 2.5, fill<Ours>, fill<Malloc>, count);
    }
    for (const long count : {10L, 100L, 1000L, 10'000L, 100'000L, kAll}) {
        const bool limited = count == 1000 || count >= 100'000;
        const double limit = count == 1000 ? 8.0 : 5.0;
        addSlowPair(named("replace in", count), kBareWay, limited ? limit : kForTheRecord,
                    replace<Ours>, replace<Malloc>, count, kTimes, kCalls);
        plotAs("memory-replace", count);
    }
    for (const long count : {10L, 100L, 1000L, 10'000L, 100'000L}) {
        constexpr long kFew = 20'000;  // a walk takes its time
        addSlowPair(named("replace in", count) + ", plain walk", kBareWay, kForTheRecord,
                    replace<PlainWalk>, replace<Malloc>, count, 3, kFew);
        plotAs("memory-walk", count);
    }
    addSlowPair(named("replace in", kAll) + ", growth", "replace in 1000", 6.0, replace<Ours>,
                replaceInThousand<Ours>, kAll, kTimes, kCalls);
    for (const long count : {1000L, 100'000L, kAll}) {
        addSlowPair(named("extend in", count), "realloc", 3.0, extend<Ours>, extend<Malloc>, count,
                    kTimes, kCalls);
    }
    addSlowPair("memory: replace, segment of 400 MiB", "replace in 1000", 4.0,
                replace<OursInOneSegment>, replaceInThousand<OursInOneSegment>, kAll, kTimes,
                kCalls);
    addSlowPair("memory: replace, SEG_ALLOC=1", kBareWay, 8.0, replace<OursWithSegAlloc>,
                replace<Malloc>, 100'000, kTimes, kCalls);
    for (const long size : {8192L, 131'072L, 1'048'576L}) {
        addPair(named("free tag of 100000 in", size), "free, each", kForTheRecord, freeTag, freeAll,
                size);
    }
    addPair("memory: get, free 64, 10000 tags", "with 1 tag", 1.2, alternate<OursAmong<10'000>>,
            alternate<OursAmong<1>>, 64);
}
