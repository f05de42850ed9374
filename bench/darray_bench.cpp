// Dynamic arrays against a pool of the same shape made by hand: records in blocks, a free list.
#include "pairs.h"

#include "rm.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <random>
#include <vector>

namespace
{
constexpr int kPerBlock = 64;
constexpr int kDataSize = 64;  // bytes
constexpr std::size_t kDraws = 4096;

// The same by hand, as a module of the host, with the same answers to wrong calls: blocks of
// entries and records that stay where they are, the free entries of a block in a list. Its shape is
// given when it is made, as an array's is.
class BarePool
{
  public:
    BarePool(int entries, int perBlock, int dataSize)
        : mostBlocks_((entries - 1) / perBlock + 1), perBlock_(perBlock), dataSize_(dataSize)
    {
    }

    ~BarePool()
    {
        for (const Block* block : blocks_) {
            std::free(block->entries);
            std::free(block->data);
            delete block;
        }
    }

    BarePool(const BarePool&) = delete;
    BarePool& operator=(const BarePool&) = delete;

    [[gnu::noinline]] int create(const char* name, void** data)
    {
        for (int number = firstWithRoom_;; ++number) {
            if (number == static_cast<int>(blocks_.size())) {
                if (number == mostBlocks_) {
                    return -1;
                }
                blocks_.push_back(makeBlock());
            }
            Block* block = blocks_[static_cast<std::size_t>(number)];
            firstWithRoom_ = number;
            const int slot = block->freeHead;
            if (slot == -1) {
                continue;
            }
            block->freeHead = block->entries[slot].nextFree;
            if (block->entries[slot].name != nullptr) {
                std::abort();
            }
            block->entries[slot].name = name;
            *data = block->data + std::ptrdiff_t{slot} * dataSize_;
            return number * perBlock_ + slot;
        }
    }

    [[gnu::noinline]] void remove(int index)
    {
        const int number = index / perBlock_;
        const int slot = index % perBlock_;
        if (index < 0 || number >= static_cast<int>(blocks_.size())) {
            return;
        }
        Block* block = blocks_[static_cast<std::size_t>(number)];
        block->entries[slot] = {nullptr, block->freeHead};
        block->freeHead = slot;
        firstWithRoom_ = std::min(firstWithRoom_, number);
    }

  private:
    struct Entry {
        const char* name;
        int nextFree;
    };

    struct Block {
        int freeHead;
        Entry* entries;
        char* data;
    };

    Block* makeBlock() const
    {
        const auto count = static_cast<std::size_t>(perBlock_);
        auto* block =
            new Block{0, static_cast<Entry*>(std::calloc(count, sizeof(Entry))),
                      static_cast<char*>(std::malloc(count * static_cast<std::size_t>(dataSize_)))};
        for (int slot = 0; slot < perBlock_; ++slot) {
            block->entries[slot].nextFree = slot + 1 < perBlock_ ? slot + 1 : -1;
        }
        return block;
    }

    int mostBlocks_;
    int perBlock_;
    int dataSize_;
    int firstWithRoom_ = 0;
    std::vector<Block*> blocks_;
};

class OurArray
{
  public:
    OurArray(int entries, int perBlock, int dataSize)
        : array_(darrayCreate(static_cast<int16_t>(entries), static_cast<int16_t>(perBlock),
                              static_cast<int16_t>(dataSize)))
    {
    }

    ~OurArray() { darrayDestroy(array_); }

    OurArray(const OurArray&) = delete;
    OurArray& operator=(const OurArray&) = delete;

    int create(const char* name, void** data) { return darrayCreateEntry(array_, name, data); }

    void remove(int index) { darrayDeleteEntry(array_, static_cast<int16_t>(index)); }

  private:
    DArray* array_;
};

// One iteration fills an array and deletes every entry again.
template <typename Array>
void fill(benchmark::State& state)
{
    const auto count = static_cast<int>(state.range(0));
    int perBlock = kPerBlock;
    benchmark::DoNotOptimize(perBlock);  // neither side knows it beforehand
    Array array(count, perBlock, kDataSize);
    for (auto _ : state) {
        void* data = nullptr;
        for (int i = 0; i < count; ++i) {
            benchmark::DoNotOptimize(array.create("entry", &data));
        }
        for (int i = 0; i < count; ++i) {
            array.remove(i);
        }
    }
}

// One iteration deletes an entry anywhere in a full array and makes one again.
template <typename Array>
void replace(benchmark::State& state)
{
    const auto count = static_cast<int>(state.range(0));
    int perBlock = kPerBlock;
    benchmark::DoNotOptimize(perBlock);  // neither side knows it beforehand
    Array array(count, perBlock, kDataSize);
    void* data = nullptr;
    for (int i = 0; i < count; ++i) {
        array.create("entry", &data);
    }
    std::mt19937 generator(1);
    std::uniform_int_distribution<int> indexes(0, count - 1);
    std::vector<int> drawn(kDraws);
    for (int& index : drawn) {
        index = indexes(generator);
    }
    std::size_t next = 0;
    for (auto _ : state) {
        array.remove(drawn[next]);
        benchmark::DoNotOptimize(array.create("entry", &data));
        next = (next + 1) % kDraws;
    }
}
}  // namespace

void rmbench::addDArrayPairs()
{
    constexpr double kLimit = 1.5;
    for (const long count : {64L, 1024L, 32000L}) {
        const std::string size = std::to_string(count);
        addPair("darray: fill and empty " + size, "blocks with free lists", kLimit, fill<OurArray>,
                fill<BarePool>, count);
        addPair("darray: replace in " + size, "blocks with free lists", kLimit, replace<OurArray>,
                replace<BarePool>, count);
    }
}
