// Long random runs of the memory manager against the model of it.
//
// After every call the whole heap is compared: the segments of every tag in their order, every
// block and every free piece in them with its offset, the free chains, the counters. What is in the
// blocks is compared when a block is resized or freed, and for all of them now and then. Calls with
// pointers and tags that are none are mixed in; what they log is compared too.
//
//     RM_TEST_SEED=123            repeats a run; a failure prints its seed
//     RM_TEST_OPERATIONS=1000000  makes longer ones: the number of calls in each case
#include "tests/models/allocator_model.h"
#include "tests/rmalloc/heap.h"
#include "tests/rmalloc/random_run.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace
{
using rmalloc::BlockHeader;
using rmalloc::Segment;
using rmalloc::tagTable;
using rmtest::AllocatorModel;
using rmtest::Call;
using rmtest::Chance;
using rmtest::kForever;
using rmtest::Lines;
using rmtest::ScopedFault;
using rmtest::SegAlloc;
using Outcome = AllocatorModel::Outcome;

// One kind of run.
struct Mix {
    const char* name;
    uint32_t operations;
    uint32_t seed;
    std::vector<uint32_t> segmentSizes;  // bytes; given to tags now and then
    std::vector<uint32_t> requestSizes;  // upper bounds in bytes, each as likely as the others
    uint32_t mostBlocks;                 // live at a time
    int16_t mostTags;
    SegAlloc segAlloc = SegAlloc::kOff;
    bool memoryFails = false;     // now and then, for one call
    uint32_t resetsEvery = 9000;  // calls, on average, between two calls of rm_freeall
    uint32_t compareEvery = 1;    // calls
};

void PrintTo(const Mix& mix, std::ostream* out)
{
    *out << mix.name;
}

const uint32_t kMiB = 1024 * 1024;

const Mix kMixes[] = {
    {.name = "EverydaySizes",
     .operations = 150'000,
     .seed = 101,
     .segmentSizes = {104, 512, 1000, 4096, 8192, 65'536, kMiB},
     .requestSizes = {16, 64, 64, 200, 400, 3000, 20'000},
     .mostBlocks = 250,
     .mostTags = 6},
    {.name = "TightSegments",
     .operations = 200'000,
     .seed = 102,
     .segmentSizes = {0, 31, 104, 105, 111, 128, 184, 250},
     .requestSizes = {0, 8, 40, 90, 120},
     .mostBlocks = 200,
     .mostTags = 4},
    {.name = "OneCrowdedTag",
     .operations = 150'000,
     .seed = 103,
     .segmentSizes = {8192, 32'768},
     .requestSizes = {8, 16, 40, 100, 300},
     .mostBlocks = 400,
     .mostTags = 1,
     .resetsEvery = 20'000},
    {.name = "LargeSegments",
     .operations = 60'000,
     .seed = 104,
     .segmentSizes = {65'536, 262'144, kMiB},
     .requestSizes = {100, 2000, 2000, 20'000, 90'000},
     .mostBlocks = 200,
     .mostTags = 5},
    {.name = "SegAllocOn",
     .operations = 100'000,
     .seed = 105,
     .segmentSizes = {104, 8192, kMiB},
     .requestSizes = {0, 16, 64, 200, 1000},
     .mostBlocks = 150,
     .mostTags = 5,
     .segAlloc = SegAlloc::kOn},
    {.name = "SegAllocChanging",
     .operations = 100'000,
     .seed = 106,
     .segmentSizes = {104, 8192, 10'001},
     .requestSizes = {0, 16, 64, 200, 1000},
     .mostBlocks = 60,
     .mostTags = 5,
     .segAlloc = SegAlloc::kChanging,
     .resetsEvery = 150},
    {.name = "ManyTags",
     .operations = 60'000,
     .seed = 107,
     .segmentSizes = {104, 512, 8192},
     .requestSizes = {16, 64, 200},
     .mostBlocks = 150,
     .mostTags = 100,
     .resetsEvery = 4000},
    {.name = "MemoryFailing",
     .operations = 100'000,
     .seed = 108,
     .segmentSizes = {104, 111, 512, 8192},
     .requestSizes = {16, 64, 200, 400, 3000},
     .mostBlocks = 150,
     .mostTags = 45,
     .segAlloc = SegAlloc::kChanging,
     .memoryFails = true,
     .resetsEvery = 400},
    {.name = "ThousandsOfBlocks",
     .operations = 80'000,
     .seed = 109,
     .segmentSizes = {32'768, kMiB},
     .requestSizes = {16, 40, 100, 300},
     .mostBlocks = 8000,
     .mostTags = 2,
     .resetsEvery = 1'000'000,
     .compareEvery = 50},
};

class RandomRun
{
  public:
    RandomRun(const Mix& mix, uint32_t seed)
        : mix_(mix), chance_(seed), blocks_(mix.mostBlocks + 1), model_(rmtest::kRecord)
    {
        for (uint32_t name = mix.mostBlocks; name > 0; --name) {
            spare_.push_back(name);
        }
        setSegAlloc(mix.segAlloc == SegAlloc::kOn);
    }

    // Makes up to `operations` calls. False at the first difference, which story() tells.
    bool make(uint64_t operations)
    {
        constexpr uint64_t kChunk = 2000;
        for (uint64_t done = 0; done < operations && !failed(); done += kChunk) {
            const uint64_t end = std::min(operations, done + kChunk);
            const std::string text = rmtest::captureStderr([&] {
                for (operation_ = done; operation_ < end && !failed(); ++operation_) {
                    step();
                    compare(operation_ % mix_.compareEvery == 0 || operation_ + 1 == end);
                }
            });
            compareLines(rmtest::withoutBanner(rmtest::logLines(text)));
            compareContents();
        }
        return !failed();
    }

    // The last calls and what was found.
    std::string story() const
    {
        std::string text;
        for (std::size_t i = 0; i < recent_.size(); ++i) {
            text += recent_[(calls_ + i) % recent_.size()].data();
            text += '\n';
        }
        return text + "operation " + std::to_string(operation_) + ": " + difference_.text();
    }

    // Ends the run with rm_freeall; the result is what the model says is counted even then.
    uint32_t end()
    {
        rm_freeall();
        model_.freeAll();
        return model_.used();
    }

    uint32_t hits() const { return hits_; }

  private:
    struct Block {
        void* pointer;
        uint32_t size;
        uint32_t seed;  // of the pattern in it
        Tag tag;
        std::size_t place;  // in live_
    };

    // --- Chance

    uint32_t requestSize() { return chance_.below(chance_.oneOf(mix_.requestSizes) + 1); }

    // A tag in use. On an empty table the first allocation makes 0 and 1.
    Tag anyTag()
    {
        const auto& tags = model_.tags();
        if (tags.empty()) {
            return static_cast<Tag>(chance_.below(2));
        }
        uint32_t tag = chance_.below(static_cast<uint32_t>(tags.size()));
        while (!tags[tag].inUse) {
            tag = (tag + 1) % static_cast<uint32_t>(tags.size());
        }
        return static_cast<Tag>(tag);
    }

    uint32_t anyBlock() { return chance_.oneOf(live_); }

    // --- Differences

    bool failed() const { return difference_.found(); }

    __attribute__((format(printf, 2, 3))) void fail(const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        difference_.note(format, args);
        va_end(args);
    }

    __attribute__((format(printf, 2, 3))) void note(const char* format, ...)
    {
        std::array<char, 96>& line = recent_[calls_++ % recent_.size()];
        va_list args;
        va_start(args, format);
        std::vsnprintf(line.data(), line.size(), format, args);
        va_end(args);
    }

    void expect(const Lines& lines)
    {
        expected_.insert(expected_.end(), lines.begin(), lines.end());
    }

    void compareLines(const Lines& lines)
    {
        if (lines != expected_) {
            const auto at =
                std::mismatch(lines.begin(), lines.end(), expected_.begin(), expected_.end());
            fail("logged \"%s\" instead of \"%s\"",
                 at.first == lines.end() ? "" : at.first->c_str(),
                 at.second == expected_.end() ? "" : at.second->c_str());
        }
        expected_.clear();
    }

    void compareContents()
    {
        for (const uint32_t name : live_) {
            checkContents(name, blocks_[name].size);
        }
    }

    void checkContents(uint32_t name, uint32_t bytes)
    {
        if (!rmtest::holdsPattern(blocks_[name].pointer, bytes, blocks_[name].seed)) {
            fail("the contents of block %u have changed", name);
        }
    }

    // The counters always, the whole heap when asked for.
    void compare(bool whole)
    {
        const auto& tags = model_.tags();
        if (rm_memused() != model_.used()) {
            fail("rm_memused is %u, not %u", rm_memused(), model_.used());
        }
        if (static_cast<std::size_t>(rmalloc::nTags) != tags.size() ||
            static_cast<std::size_t>(rmalloc::tagTabSize) != model_.capacity()) {
            fail("%d tags of %d, not %zu of %zu", rmalloc::nTags, rmalloc::tagTabSize, tags.size(),
                 model_.capacity());
            return;
        }
        for (std::size_t tag = 0; tag < tags.size(); ++tag) {
            if ((tagTable[tag].state != 0) != tags[tag].inUse ||
                tagTable[tag].allocated != tags[tag].allocated) {
                fail("tag %zu: %u bytes allocated, not %u", tag, tagTable[tag].allocated,
                     tags[tag].allocated);
            }
        }
        if (whole) {
            for (std::size_t tag = 0; tag < tags.size(); ++tag) {
                compareSegments(tag);
            }
            if (rmalloc::checkMemory() != 0) {
                fail("the heap is not sound");
            }
        }
    }

    void compareSegments(std::size_t tag)
    {
        Segment* segment = tagTable[tag].segments;
        std::size_t n = 0;
        for (const AllocatorModel::Segment& expected : model_.tags()[tag].segments) {
            if (segment == nullptr) {
                fail("tag %zu has only %zu segments", tag, n);
                return;
            }
            if (segment->units != expected.units || segment->blocks != expected.live) {
                fail("tag %zu, segment %zu: %u units and %u blocks, not %u and %u", tag, n,
                     segment->units, segment->blocks, expected.units, expected.live);
                return;
            }
            comparePieces(tag, n, segment, expected);
            segment = segment->next;
            ++n;
        }
        if (segment != nullptr) {
            fail("tag %zu has more than %zu segments", tag, n);
        }
    }

    void comparePieces(std::size_t tag, std::size_t n, Segment* segment,
                       const AllocatorModel::Segment& expected)
    {
        auto* header = reinterpret_cast<BlockHeader*>(segment + 1);
        uint32_t offset = 1;  // in units, as the links of the free chain count
        uint32_t link = segment->anchor.word1;
        for (const AllocatorModel::Piece& piece : expected.pieces) {
            const bool isFree = piece.block == AllocatorModel::kFree;
            if (header->units != piece.units) {
                fail("tag %zu, segment %zu, unit %u: %u units, not %u", tag, n, offset - 1,
                     header->units, piece.units);
                return;
            }
            if (isFree
                    ? link != offset
                    : header->word1 != 0xFFEEDDCC || blocks_[piece.block].pointer != header + 1) {
                fail("tag %zu, segment %zu, unit %u: %s is not there", tag, n, offset - 1,
                     isFree ? "the free block" : "the live block");
                return;
            }
            if (isFree) {
                link = header->word1;
            }
            offset += piece.units;
            header += piece.units;
        }
        if (link != 0) {
            fail("tag %zu, segment %zu: the free chain goes on", tag, n);
        }
    }

    // --- Calls

    // Makes a call of the library. True when it returned; else it has ended fatally for want of
    // memory, which is as the mix and the model have it or is found out by the caller.
    template <typename Body>
    bool call(const Body& body)
    {
        if (!supply_) {
            body();
            return true;
        }
        ScopedFault fault(
            {.call = Call::kMalloc, .error = ENOMEM, .skip = *supply_, .times = kForever});
        const bool returned = rmtest::catchFatal(body) == 0;
        if (!returned) {
            ++hits_;
            expect(rmtest::outOfMemory());
        }
        return returned;
    }

    // Decides what memory there is for the next call.
    void decideSupply()
    {
        supply_.reset();
        if (mix_.memoryFails && chance_.oneIn(4)) {
            supply_ = static_cast<int>(chance_.below(2));
        }
        model_.setSupply(supply_);
    }

    void setSegAlloc(bool on)
    {
        setenv("SEG_ALLOC", on ? "1" : "0", 1);
        model_.setExactSegments(on);
    }

    void add(uint32_t name, void* pointer, uint32_t size, Tag tag)
    {
        blocks_[name] = {pointer, size, static_cast<uint32_t>(calls_), tag, live_.size()};
        live_.push_back(name);
        rmtest::fill(pointer, size, blocks_[name].seed);
    }

    void remove(uint32_t name)
    {
        const std::size_t place = blocks_[name].place;
        live_[place] = live_.back();
        blocks_[live_[place]].place = place;
        live_.pop_back();
        spare_.push_back(name);
    }

    // Remembers a pointer that is no block any more.
    void leave(void* pointer)
    {
        if (stale_.size() < 50) {
            stale_.push_back(pointer);
        } else {
            stale_[chance_.below(50)] = pointer;
        }
    }

    void take()
    {
        const Tag tag = anyTag();
        const uint32_t name = spare_.back();
        uint32_t size = requestSize();
        const uint32_t way = chance_.below(4);
        std::string text;
        if (way == 3) {
            size = size % 5000;
            text.assign(size, static_cast<char>('a' + chance_.below(26)));
            ++size;
        }
        note("take %u: %u bytes of tag %d, way %u", name, size, tag, way);
        void* pointer = nullptr;
        const bool returned = call([&] {
            pointer = way == 3   ? rm_Strdup(text.c_str(), tag)
                      : way == 2 ? rm_cGetMemory(size, tag)
                      : way == 1 ? rm_extendMemory(nullptr, size, tag)
                                 : rm_getMemory(size, tag);
        });
        if (returned != model_.take(tag, size, name)) {
            fail("memory %s", returned ? "was had" : "was not had");
        }
        if (!returned || failed()) {
            return;
        }
        if (way == 3 && text != static_cast<const char*>(pointer)) {
            fail("the copy differs");
        }
        if (way == 2) {
            const auto* bytes = static_cast<const char*>(pointer);
            if (std::find_if(bytes, bytes + size, [](char c) { return c != 0; }) != bytes + size) {
                fail("the block is not cleared");
            }
        }
        spare_.pop_back();
        add(name, pointer, size, tag);
    }

    void give()
    {
        const uint32_t name = anyBlock();
        const Block block = blocks_[name];
        note("free %u: %u bytes of tag %d", name, block.size, block.tag);
        checkContents(name, block.size);
        void* pointer = block.pointer;
        if (chance_.oneIn(4)) {
            rm_zFreeMemory(&pointer, block.tag);
            if (pointer != nullptr) {
                fail("the pointer is not null");
            }
        } else {
            rm_freeMemory(pointer, block.tag);
        }
        model_.give(block.tag, name);
        leave(block.pointer);
        remove(name);
    }

    void extend()
    {
        const uint32_t name = anyBlock();
        Block& block = blocks_[name];
        const uint32_t size = chance_.oneIn(3) ? block.size + chance_.below(40) : requestSize();
        note("extend %u: %u to %u bytes of tag %d", name, block.size, size, block.tag);
        checkContents(name, block.size);
        void* pointer = nullptr;
        const bool returned =
            call([&] { pointer = rm_extendMemory(block.pointer, size, block.tag); });
        if (returned != (model_.extend(block.tag, name, size) != Outcome::kNoMemory)) {
            fail("memory %s", returned ? "was had" : "was not had");
        }
        if (!returned || failed()) {
            return;
        }
        if (pointer != block.pointer) {
            leave(block.pointer);
            block.pointer = pointer;
        }
        const uint32_t kept = std::min(size, block.size);
        checkContents(name, kept);
        block.size = size;
        rmtest::fill(pointer, size, block.seed, kept);
    }

    void grow()
    {
        const uint32_t name = anyBlock();
        Block& block = blocks_[name];
        const uint32_t size = chance_.oneIn(2) ? block.size + chance_.below(16) : requestSize();
        note("grow %u: %u to %u bytes of tag %d", name, block.size, size, block.tag);
        checkContents(name, block.size);
        void* const old = block.pointer;
        void* pointer = nullptr;
        const bool returned = call([&] { pointer = rm_growMemory(old, size, block.tag); });
        const Outcome outcome = model_.grow(block.tag, name, size);
        if (returned != (outcome != Outcome::kNoMemory)) {
            fail("memory %s", returned ? "was had" : "was not had");
        }
        if (!returned) {
            leave(old);
            remove(name);
            return;
        }
        if (outcome == Outcome::kMoved) {
            if (pointer != old) {
                leave(old);
            }
            block.pointer = pointer;
            block.size = size;
            rmtest::fill(pointer, size, block.seed);
            return;
        }
        if (pointer != old) {
            fail("the block has moved");
            return;
        }
        if (size > block.size) {  // in the same units
            rmtest::fill(pointer, size, block.seed, block.size);
            block.size = size;
        }
        checkContents(name, block.size);
    }

    void makeTag()
    {
        note("make a tag");
        Tag tag = -1;
        const bool returned = call([&] { tag = rm_allocTag(nullptr, RM_NO_LIMIT); });
        const std::optional<int16_t> expected = model_.allocTag();
        if (returned != expected.has_value()) {
            fail("memory %s", returned ? "was had" : "was not had");
        } else if (returned && tag != *expected) {
            fail("tag %d was made instead of %d", tag, *expected);
        }
    }

    void setSize()
    {
        const Tag tag = anyTag();
        if (tag != 0 && !model_.tags().empty()) {
            const uint32_t size = chance_.oneOf(mix_.segmentSizes);
            note("segments of tag %d: %u bytes", tag, size);
            rm_setTagAlloc(size, tag);
            model_.setSegmentSize(tag, size);
        }
    }

    void forgetBlocks(std::optional<Tag> tag)
    {
        for (std::size_t i = live_.size(); i > 0; --i) {
            if (!tag || blocks_[live_[i - 1]].tag == *tag) {
                remove(live_[i - 1]);
            }
        }
        // Live headers were given back as they are. Memory that is got again may show them, and a
        // pointer that was freed long ago would then look like a block.
        stale_.clear();
    }

    void freeTag()
    {
        const Tag tag = anyTag();
        if (model_.tags().empty()) {
            return;
        }
        const bool release = tag != 0 && !chance_.oneIn(3);
        note("free tag %d, %s", tag, release ? "released" : "kept");
        rm_freeTagMemory(tag, release ? 1 : 0);
        model_.freeTag(tag, release);
        forgetBlocks(tag);
    }

    void freeAll()
    {
        note("free all");
        rm_freeall();
        model_.freeAll();
        forgetBlocks(std::nullopt);
        if (mix_.segAlloc == SegAlloc::kChanging) {
            setSegAlloc(chance_.oneIn(2));
        }
    }

    // A call with something that is no block, or no tag: nothing may change.
    void misuse()
    {
        void* pointer = nullptr;
        Tag tag = anyTag();
        Lines lines;
        const uint32_t kind = chance_.below(4);
        if (kind == 0 && !stale_.empty()) {
            pointer = chance_.oneOf(stale_);
            if (std::any_of(live_.begin(), live_.end(),
                            [&](uint32_t name) { return blocks_[name].pointer == pointer; })) {
                return;  // a block again
            }
            lines = {rmtest::badPointer(pointer)};
        } else if (kind == 1 && !live_.empty()) {
            const Block& block = blocks_[anyBlock()];
            if (block.size == 0) {
                return;
            }
            const uint32_t inside = 1 + chance_.below(block.size);
            pointer = static_cast<char*>(block.pointer) + inside;
            lines = {rmtest::badPointer(pointer)};
        } else if (kind == 2 && !live_.empty()) {
            const Block& block = blocks_[anyBlock()];
            pointer = block.pointer;
            if (tag == block.tag) {
                return;
            }
            lines = rmtest::notFound(tag, pointer);
        } else if (kind == 3 && !live_.empty()) {
            pointer = blocks_[anyBlock()].pointer;
            tag = static_cast<Tag>(chance_.oneIn(2)
                                       ? -1 - static_cast<int>(chance_.below(5000))
                                       : rmalloc::nTags + static_cast<int>(chance_.below(5000)));
            lines = {rmtest::invalidTag(tag, "rm_freeMemory")};
        } else {
            return;
        }
        const bool extending = kind != 3 && chance_.oneIn(2);
        note("misuse %u: %p of tag %d, %s", kind, pointer, tag, extending ? "extend" : "free");
        if (extending) {
            if (rm_extendMemory(pointer, requestSize(), tag) != nullptr) {
                fail("a pointer that is no block of the tag was extended");
            }
        } else {
            rm_freeMemory(pointer, tag);
        }
        expect(lines);
    }

    void step()
    {
        decideSupply();
        if (chance_.oneIn(mix_.resetsEvery)) {
            freeAll();
            return;
        }
        if (chance_.oneIn(mix_.resetsEvery / 4)) {
            freeTag();
            return;
        }
        if (chance_.oneIn(std::max<uint32_t>(150, mix_.mostBlocks))) {
            growing_ = !growing_;
        }
        const uint32_t chance = chance_.below(1000);
        const bool full = spare_.empty();
        const bool empty = live_.empty();
        if (model_.tags().size() <= static_cast<std::size_t>(mix_.mostTags) &&
            (chance < 20 || model_.tags().empty()) && !chance_.oneIn(3)) {
            makeTag();
        } else if (chance < 40) {
            setSize();
        } else if (chance < 70) {
            misuse();
        } else if (empty || (!full && chance < (growing_ ? 520U : 280U))) {
            take();
        } else if (chance < 680 || full) {
            give();
        } else if (chance < 900) {
            extend();
        } else {
            grow();
        }
    }

    const Mix& mix_;
    Chance chance_;
    std::vector<Block> blocks_;    // by name; 0 is not used
    std::vector<uint32_t> spare_;  // names without a block
    std::vector<uint32_t> live_;   // names with one
    std::vector<void*> stale_;     // were blocks
    AllocatorModel model_;
    std::optional<int> supply_;  // requests that malloc meets during the next call
    bool growing_ = true;
    uint64_t operation_ = 0;
    std::size_t calls_ = 0;
    uint32_t hits_ = 0;
    std::array<std::array<char, 96>, 16> recent_{};
    Lines expected_;
    rmtest::Difference difference_;
};

class PlacementRandom : public rmtest::HeapTest, public ::testing::WithParamInterface<Mix>
{
  protected:
    void TearDown() override
    {
        unsetenv("SEG_ALLOC");
        HeapTest::TearDown();
    }
};

TEST_P(PlacementRandom, AgreesWithTheModelAfterEveryCall)
{
    const auto seed = static_cast<uint32_t>(rmtest::seedOfThisRun(GetParam().seed));
    const auto operations = static_cast<uint64_t>(
        rmtest::operationsOfThisRun(static_cast<long>(GetParam().operations)));
    RandomRun run(GetParam(), seed);
    EXPECT_TRUE(run.make(operations))
        << run.story() << "\nRM_TEST_SEED=" << seed << " RM_TEST_OPERATIONS=" << operations;
    EXPECT_EQ(run.hits() > 0, GetParam().memoryFails);
    expectDrift(run.end());
}

INSTANTIATE_TEST_SUITE_P(With, PlacementRandom, ::testing::ValuesIn(kMixes),
                         [](const ::testing::TestParamInfo<Mix>& mix) {
                             return std::string(mix.param.name);
                         });
}  // namespace
