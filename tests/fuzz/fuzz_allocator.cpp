// Every allocation call on several tags, beside the plain model of the tests: where each block
// lies, what the counters say, what is logged. Blocks hold patterns that must survive all other
// calls.
//
// Input: a byte that says how segments are got, then one for each call with what it needs behind
// it. The low five bits of a call say which; 0x20 makes it through its logging variant, 0x40 lets
// the platform refuse memory from the next segment on, 0x80 from the one after that.
#include "fuzz.h"
#include "memory.h"
#include "tests/models/allocator_model.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>

// The linker leads all calls of malloc to the first. Their names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" void* __wrap_malloc(std::size_t size);
extern "C" void* __real_malloc(std::size_t size);

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace
{
using rmfuzz::badPointer;
using rmfuzz::holdsPattern;
using rmfuzz::Input;
using rmtest::AllocatorModel;
using Outcome = AllocatorModel::Outcome;
using Lines = std::vector<std::string>;

constexpr int kMostCalls = 300;
constexpr std::size_t kMostBlocks = 150;
constexpr std::size_t kMostTags = 90;  // the table grows twice
constexpr std::size_t kMostStale = 20;
constexpr std::size_t kLongestMessage = 259;  // bytes that a line of the log carries
constexpr uint32_t kHuge = 0x80000000U;       // bytes from which on no platform has them here

enum Call : uint8_t {
    kGet,
    kClear,
    kDuplicate,
    kExtendNull,
    kGrowNull,
    kFree,
    kFreeToo,
    kFreeAndNull,
    kExtend,
    kExtendToo,
    kGrow,
    kAllocTag,
    kSetSegments,
    kFreeTag,
    kName,
    kReset,
    kAvailable,
    kLimit,
    kFreeInside,
    kFreeStale,
    kFreeOfOther,
    kFreeNull,
    kBadTag,
    kFreeAll,
    kCalls,
};

enum CallFlag : uint8_t {
    kLogged = 0x20,
    kNoMemory = 0x40,
    kOneSegmentMore = 0x80,
};

std::optional<int> supply;  // requests that the platform still meets; none for all of them

std::string invalidTag(int16_t tag, const std::string& function)
{
    return "Invalid tag " + std::to_string(tag) + " supplied to " + function;
}

class Heap
{
  public:
    Heap(Input& input, bool exact)
        : input_(input), exact_(exact), model_(sizeof(rmalloc::TagRecord))
    {
        rmfuzz::beginAnew(exact);
        model_.setExactSegments(exact);
        blocks_.resize(1);
        rmfuzz::takeLog();
    }

    void step()
    {
        const uint8_t call = input_.byte();
        const auto operation = static_cast<Call>((call & 31U) % kCalls);
        logged_ = (call & kLogged) != 0;
        setSupply((call & kOneSegmentMore) != 0 ? std::optional<int>(1)
                  : (call & kNoMemory) != 0     ? std::optional<int>(0)
                                                : std::nullopt);
        expected_.clear();
        make(operation);
        setSupply({});
        FUZZ_CHECK(rmfuzz::takeLines() == expected_);
        compare();
    }

    // Everything goes, and nothing is left but what the model has left.
    void end()
    {
        for (uint32_t name = 1; name < blocks_.size(); ++name) {
            checkContents(name);
        }
        rm_freeall();
        model_.freeAll();
        FUZZ_CHECK(rm_memused() == model_.used());
        FUZZ_CHECK(rmalloc::tagTable == nullptr && rmalloc::nTags == 0);
    }

  private:
    struct Block {
        char* pointer = nullptr;  // null when it has gone
        uint32_t size = 0;
        int16_t tag = 0;
        bool isName = false;  // of its tag: it goes with the tag
    };

    struct TagFacts {
        uint32_t limit = RM_NO_LIMIT;
        int16_t state = rmalloc::kTagInUse;
        std::optional<std::string> name;
    };

    // --- Choices of the input

    void setSupply(std::optional<int> requests)
    {
        supply = requests;
        model_.setSupply(requests);
    }

    // Small mostly. What no platform has is refused without asking this one.
    uint32_t size()
    {
        const uint8_t first = input_.byte();
        if (first < 200) {
            return first;
        }
        const auto word = static_cast<uint16_t>(input_.int16());
        if (first < 250) {
            return word;
        }
        setSupply(0);
        return first < 253 ? UINT32_MAX - word : kHuge + word;
    }

    int16_t tag()
    {
        const std::size_t count = std::max<std::size_t>(2, model_.tags().size());
        auto tag = static_cast<int16_t>(input_.byte() % count);
        return isUsable(tag) ? tag : int16_t{0};
    }

    bool isUsable(int16_t tag) const
    {
        return model_.tags().empty() || model_.tags().at(static_cast<std::size_t>(tag)).inUse;
    }

    bool hasTable() const { return !model_.tags().empty(); }

    // A block that callers hold; 0 when there is none.
    uint32_t block()
    {
        std::vector<uint32_t> held;
        for (uint32_t name = 1; name < blocks_.size(); ++name) {
            if (blocks_[name].pointer != nullptr && !blocks_[name].isName) {
                held.push_back(name);
            }
        }
        return held.empty() ? 0 : held[input_.byte() % held.size()];
    }

    // What the logging variant of a call says, with the text that names a source file.
    std::string file(const char* function, const char** name)
    {
        static std::string source;
        source = input_.text();
        std::replace(source.begin(), source.end(), '\n', ' ');
        *name = source.c_str();
        const std::string line =
            "WARNING: Calling " + std::string(function) + " from " + source + ", 4000000000";
        expected_.push_back(line.substr(0, kLongestMessage));
        return source;
    }

    static constexpr unsigned kLine = 4000000000U;

    void sayPlain(const char* function)
    {
        expected_.push_back(std::string("WARNING: Calling ") + function);
    }

    void expectNoMemory()
    {
        expected_.emplace_back("Out of memory!");
        expected_.emplace_back(rmfuzz::kFatalEnd);
    }

    // --- Blocks

    uint32_t add(void* pointer, uint32_t size, int16_t tag, bool isName = false)
    {
        const auto name = static_cast<uint32_t>(blocks_.size());
        blocks_.push_back({static_cast<char*>(pointer), size, tag, isName});
        return name;
    }

    void fill(uint32_t name)
    {
        rmfuzz::fillPattern(blocks_[name].pointer, blocks_[name].size, name);
    }

    void checkContents(uint32_t name) const
    {
        const Block& block = blocks_[name];
        FUZZ_CHECK(block.pointer == nullptr || block.isName ||
                   holdsPattern(block.pointer, block.size, name));
    }

    void drop(uint32_t name)
    {
        if (stale_.size() == kMostStale) {
            stale_.erase(stale_.begin());
        }
        stale_.push_back(blocks_[name].pointer);
        blocks_[name].pointer = nullptr;
    }

    std::size_t liveBlocks() const
    {
        return static_cast<std::size_t>(std::count_if(
            blocks_.begin(), blocks_.end(), [](const Block& b) { return b.pointer != nullptr; }));
    }

    // The tags that an allocation makes first when there is no table.
    void noteTags()
    {
        for (auto tag = static_cast<int16_t>(facts_.size());
             static_cast<std::size_t>(tag) < model_.tags().size(); ++tag) {
            facts_.emplace_back();
        }
    }

    // --- Calls

    void* get(Call call, uint32_t size, int16_t tag, const char* copied, const char* source)
    {
        switch (call) {
            case kClear:
                return logged_ ? rm_LOG_cGetMemory(size, tag, source, kLine)
                               : rm_cGetMemory(size, tag);
            case kDuplicate:
                return logged_ ? rm_LOG_Strdup(copied, tag, source, kLine) : rm_Strdup(copied, tag);
            case kExtendNull:
                return logged_ ? rm_LOG_extendMemory(nullptr, size, tag, source, kLine)
                               : rm_extendMemory(nullptr, size, tag);
            case kGrowNull:
                return logged_ ? rm_LOG_growMemory(nullptr, size, tag, source, kLine)
                               : rm_growMemory(nullptr, size, tag);
            default:
                return logged_ ? rm_LOG_getMemory(size, tag, source, kLine)
                               : rm_getMemory(size, tag);
        }
    }

    void take(Call call)
    {
        constexpr std::array<const char*, 5> kNames = {"rm_LOG_getMemory", "rm_LOG_cGetMemory",
                                                       "rm_LOG_Strdup", "rm_LOG_extendMemory",
                                                       "rm_LOG_growMemory"};
        const int16_t owner = tag();
        if (call == kGrowNull && !hasTable()) {
            return;  // asks for the tag before there is one
        }
        std::string copied;
        uint32_t bytes = 0;
        if (call == kDuplicate) {
            copied = input_.text();
            bytes = static_cast<uint32_t>(copied.size()) + 1;
        } else {
            bytes = size();
        }
        const char* source = nullptr;
        if (logged_) {
            file(kNames.at(call), &source);
        }
        const rmfuzz::Text original(copied);
        void* pointer = nullptr;
        const bool returned =
            rmfuzz::comesBack([&] { pointer = get(call, bytes, owner, original.get(), source); });
        const auto name = static_cast<uint32_t>(blocks_.size());
        FUZZ_CHECK(model_.take(owner, bytes, name) == returned);
        noteTags();
        if (!returned) {
            expectNoMemory();
            return;
        }
        const auto* bytesGot = static_cast<const char*>(pointer);
        FUZZ_CHECK(call != kDuplicate || std::memcmp(pointer, original.get(), bytes) == 0);
        FUZZ_CHECK(call != kClear ||
                   std::all_of(bytesGot, bytesGot + bytes, [](char c) { return c == 0; }));
        add(pointer, bytes, owner);
        fill(name);
    }

    void give(bool andNull)
    {
        const uint32_t name = block();
        if (name == 0) {
            return;
        }
        checkContents(name);
        void* pointer = blocks_[name].pointer;
        const int16_t owner = blocks_[name].tag;
        if (logged_) {
            sayPlain(andNull ? "rm_LOG_zFreeMemory" : "rm_LOG_freeMemory");
        }
        if (andNull) {
            logged_ ? rm_LOG_zFreeMemory(&pointer, owner) : rm_zFreeMemory(&pointer, owner);
            FUZZ_CHECK(pointer == nullptr);
        } else {
            logged_ ? rm_LOG_freeMemory(pointer, owner) : rm_freeMemory(pointer, owner);
        }
        model_.give(owner, name);
        drop(name);
    }

    void extend()
    {
        const uint32_t name = block();
        if (name == 0) {
            return;
        }
        const uint32_t bytes = size();
        const char* source = nullptr;
        if (logged_) {
            file("rm_LOG_extendMemory", &source);
        }
        Block& old = blocks_[name];
        checkContents(name);
        void* pointer = nullptr;
        const bool returned = rmfuzz::comesBack([&] {
            pointer = logged_ ? rm_LOG_extendMemory(old.pointer, bytes, old.tag, source, kLine)
                              : rm_extendMemory(old.pointer, bytes, old.tag);
        });
        FUZZ_CHECK((model_.extend(old.tag, name, bytes) != Outcome::kNoMemory) == returned);
        if (!returned) {
            expectNoMemory();
            return;
        }
        const std::size_t kept = std::min(old.size, bytes);
        FUZZ_CHECK(holdsPattern(static_cast<char*>(pointer), kept, name));
        if (pointer != old.pointer) {
            stale_.push_back(old.pointer);
        }
        old.pointer = static_cast<char*>(pointer);
        old.size = bytes;
        fill(name);
    }

    void grow()
    {
        const uint32_t name = block();
        if (name == 0) {
            return;
        }
        const uint32_t bytes = size();
        const char* source = nullptr;
        if (logged_) {
            file("rm_LOG_growMemory", &source);
        }
        Block& old = blocks_[name];
        checkContents(name);
        void* pointer = nullptr;
        const bool returned = rmfuzz::comesBack([&] {
            pointer = logged_ ? rm_LOG_growMemory(old.pointer, bytes, old.tag, source, kLine)
                              : rm_growMemory(old.pointer, bytes, old.tag);
        });
        const Outcome outcome = model_.grow(old.tag, name, bytes);
        FUZZ_CHECK((outcome != Outcome::kNoMemory) == returned);
        if (!returned) {
            expectNoMemory();
            drop(name);
            return;
        }
        if (outcome == Outcome::kKept) {
            FUZZ_CHECK(pointer == old.pointer && holdsPattern(old.pointer, old.size, name));
            old.size = std::max(old.size, bytes);
        } else {
            old.pointer = static_cast<char*>(pointer);
            old.size = bytes;
        }
        fill(name);
    }

    void allocTag()
    {
        if (model_.tags().size() > kMostTags) {
            return;
        }
        static jmp_buf target;
        const uint8_t choice = input_.byte();
        const uint32_t limit =
            choice < 128 ? RM_NO_LIMIT : static_cast<uint32_t>(input_.int16()) * choice;
        const bool withTarget = choice % 2 == 1;
        int16_t tag = RM_NONE;
        const bool returned =
            rmfuzz::comesBack([&] { tag = rm_allocTag(withTarget ? target : nullptr, limit); });
        const std::optional<int16_t> expected = model_.allocTag();
        FUZZ_CHECK(expected.has_value() == returned);
        noteTags();
        if (!returned) {
            expectNoMemory();
            return;
        }
        FUZZ_CHECK(tag == *expected);
        facts_.at(static_cast<std::size_t>(tag)) = {
            limit, withTarget ? rmalloc::kTagInUseWithJump : rmalloc::kTagInUse, {}};
    }

    // Of any tag, also of one that is none.
    void setSegments()
    {
        const auto owner = static_cast<int16_t>(input_.byte() - 4);
        const auto bytes = static_cast<uint16_t>(input_.int16());
        const bool isTag = owner > 0 && static_cast<std::size_t>(owner) < model_.tags().size();
        const bool isFree = isTag && !isUsable(owner);
        FUZZ_CHECK(rmfuzz::comesBack([&] { rm_setTagAlloc(bytes, owner); }) == !isFree);
        if (isFree) {
            expectInvalidTag();
        } else if (isTag) {
            model_.setSegmentSize(owner, bytes);
        }
    }

    void expectInvalidTag()
    {
        expected_.emplace_back("invalid tag");
        expected_.emplace_back(rmfuzz::kFatalEnd);
    }

    void freeTag()
    {
        if (!hasTable()) {
            return;
        }
        const int16_t owner = tag();
        const bool release = owner != 0 && input_.byte() % 2 == 1;
        for (uint32_t name = 1; name < blocks_.size(); ++name) {
            if (blocks_[name].tag == owner) {
                checkContents(name);
                blocks_[name].pointer = nullptr;
            }
        }
        // Live headers went as they were, and memory that is got again may show them.
        stale_.clear();
        rm_freeTagMemory(RM_NONE, 1);  // no tag at all
        rm_freeTagMemory(owner, release ? 1 : 0);
        model_.freeTag(owner, release);
        TagFacts& facts = facts_.at(static_cast<std::size_t>(owner));
        facts.name = {};
        if (release) {
            facts.state = rmalloc::kTagFree;
        }
    }

    void name()
    {
        const auto owner = static_cast<int16_t>(input_.byte() - 2);
        const rmfuzz::Text given(input_.text());
        const bool isTag =
            owner > 0 && static_cast<std::size_t>(owner) < model_.tags().size() && isUsable(owner);
        char* copy = nullptr;
        const bool returned = rmfuzz::comesBack([&] { copy = rm_setTagName(given.get(), owner); });
        FUZZ_CHECK(given.unchanged());
        if (!isTag) {
            FUZZ_CHECK(!returned);
            expectInvalidTag();
            return;
        }
        const auto bytes = static_cast<uint32_t>(given.original().size()) + 1;
        const auto block = static_cast<uint32_t>(blocks_.size());
        FUZZ_CHECK(model_.take(owner, bytes, block) == returned);
        if (!returned) {
            expectNoMemory();
            return;
        }
        FUZZ_CHECK(given.original() == copy);
        add(copy, bytes, owner, true);
        facts_.at(static_cast<std::size_t>(owner)).name = given.original();
    }

    void reset()
    {
        static jmp_buf target;
        const auto owner = static_cast<int16_t>(input_.byte() - 2);
        const bool withTarget = input_.byte() % 2 == 1;
        const bool isTag =
            owner >= 0 && static_cast<std::size_t>(owner) < model_.tags().size() && isUsable(owner);
        FUZZ_CHECK(rmfuzz::comesBack([&] { rm_resetTag(withTarget ? target : nullptr, owner); }) ==
                   isTag);
        if (!isTag) {
            expectInvalidTag();
        } else {
            facts_.at(static_cast<std::size_t>(owner)).state =
                withTarget ? rmalloc::kTagInUseWithJump : rmalloc::kTagInUse;
        }
    }

    void available()
    {
        const auto owner = static_cast<int16_t>(input_.byte() - 2);
        const bool isTag =
            owner >= 0 && static_cast<std::size_t>(owner) < model_.tags().size() && isUsable(owner);
        const int32_t left = rm_memoryAvail(owner);
        if (!isTag) {
            FUZZ_CHECK(left == 0);
            expected_.push_back(invalidTag(owner, "rm_memoryAvail"));
            return;
        }
        const uint32_t limit = facts_.at(static_cast<std::size_t>(owner)).limit;
        const uint32_t allocated = model_.tags().at(static_cast<std::size_t>(owner)).allocated;
        FUZZ_CHECK(left == (limit == RM_NO_LIMIT ? -1 : static_cast<int32_t>(limit - allocated)));
    }

    // --- Misuse: nothing may change

    // Frees or resizes the pointer, as the input says; both refuse it with the same lines.
    void refuse(void* pointer, int16_t owner, const Lines& lines)
    {
        const uint8_t way = input_.byte();
        if (way % 2 == 0) {
            rm_freeMemory(pointer, owner);
        } else {
            FUZZ_CHECK(rm_extendMemory(pointer, way, owner) == nullptr);
        }
        expected_.insert(expected_.end(), lines.begin(), lines.end());
    }

    void freeInside()
    {
        const uint32_t name = block();
        if (name == 0 || blocks_[name].size == 0) {
            return;
        }
        void* pointer = blocks_[name].pointer + 1 + input_.byte() % blocks_[name].size;
        refuse(pointer, blocks_[name].tag, {badPointer(pointer)});
    }

    void freeStale()
    {
        if (stale_.empty()) {
            return;
        }
        void* pointer = stale_.at(input_.byte() % stale_.size());
        const bool isBlock = std::any_of(blocks_.begin(), blocks_.end(), [pointer](const Block& b) {
            return b.pointer == pointer;
        });
        if (!isBlock) {
            refuse(pointer, tag(), {badPointer(pointer)});
        }
    }

    void freeOfOther()
    {
        const uint32_t name = block();
        const int16_t other = tag();
        if (name == 0 || blocks_[name].tag == other) {
            return;
        }
        void* pointer = blocks_[name].pointer;
        std::array<char, 64> place{};
        std::snprintf(place.data(), place.size(), "tag = %d, freeHDR = %08lX", other,
                      static_cast<unsigned long>(reinterpret_cast<uintptr_t>(pointer) - 8));
        refuse(pointer, other,
               {place.data(),
                rmfuzz::warningAbout("pointer not found within tag segments,", pointer)});
    }

    static void freeNull()
    {
        void* none = nullptr;
        rm_freeMemory(nullptr, 0);
        rm_zFreeMemory(nullptr, 0);
        rm_zFreeMemory(&none, 0);
    }

    void badTag()
    {
        if (!hasTable()) {
            return;
        }
        const int16_t any = input_.int16();
        const bool isTag =
            any >= 0 && static_cast<std::size_t>(any) < model_.tags().size() && isUsable(any);
        const uint32_t name = block();
        if (isTag || any == RM_NONE || name == 0) {
            return;
        }
        char* pointer = blocks_[name].pointer;
        rm_freeMemory(pointer, any);
        FUZZ_CHECK(rm_extendMemory(pointer, 10, any) == nullptr);
        FUZZ_CHECK(rm_growMemory(pointer, 10, any) == nullptr);
        rm_freeTagMemory(any, 1);
        FUZZ_CHECK(!rmfuzz::comesBack([&] { rm_getMemory(10, any); }));
        for (const char* function : {"rm_freeMemory", "rm_extendMemory", "rm_growMemory",
                                     "rm_freeTagMemory", "rm_getMemory"}) {
            expected_.push_back(invalidTag(any, function));
        }
        expected_.emplace_back(rmfuzz::kFatalEnd);
    }

    void freeAll()
    {
        rm_freeall();
        model_.freeAll();
        model_.setExactSegments(exact_);
        for (Block& block : blocks_) {
            block.pointer = nullptr;
        }
        facts_.clear();
        stale_.clear();
    }

    void make(Call call)
    {
        switch (call) {
            case kGet:
            case kClear:
            case kDuplicate:
            case kExtendNull:
            case kGrowNull:
                if (liveBlocks() < kMostBlocks) {
                    take(call);
                }
                break;
            case kFreeAndNull:
                give(true);
                break;
            case kExtend:
            case kExtendToo:
                extend();
                break;
            case kGrow:
                grow();
                break;
            case kAllocTag:
                allocTag();
                break;
            case kSetSegments:
                setSegments();
                break;
            case kFreeTag:
                freeTag();
                break;
            case kName:
                name();
                break;
            case kReset:
                reset();
                break;
            case kAvailable:
                available();
                break;
            case kLimit:
                limit();
                break;
            case kFreeInside:
                freeInside();
                break;
            case kFreeStale:
                freeStale();
                break;
            case kFreeOfOther:
                freeOfOther();
                break;
            case kFreeNull:
                freeNull();
                break;
            case kBadTag:
                badTag();
                break;
            case kFreeAll:
                freeAll();
                break;
            default:
                give(false);
                break;
        }
    }

    // The limit that tag 1 gets when it is made with the table.
    void limit()
    {
        const auto bytes = static_cast<uint16_t>(input_.int16());
        rm_setMemoryLimit(bytes);
        FUZZ_CHECK(rmemavail == bytes);
        rm_setMemoryLimit(RM_NO_LIMIT);
    }

    // --- Comparing

    void compare() const
    {
        FUZZ_CHECK(rm_memused() == model_.used());
        FUZZ_CHECK(static_cast<std::size_t>(rmalloc::nTags) == model_.tags().size());
        FUZZ_CHECK(static_cast<std::size_t>(rmalloc::tagTabSize) == model_.capacity());
        for (std::size_t tag = 0; tag < model_.tags().size(); ++tag) {
            compareTag(rmalloc::tagTable[tag], model_.tags()[tag], facts_.at(tag));
        }
    }

    void compareTag(const rmalloc::TagRecord& record, const AllocatorModel::Tag& expected,
                    const TagFacts& facts) const
    {
        FUZZ_CHECK(record.state == facts.state && expected.inUse == (record.state != 0));
        if (!expected.inUse) {
            FUZZ_CHECK(record.segments == nullptr);
            return;
        }
        FUZZ_CHECK(record.limit == facts.limit && record.allocated == expected.allocated);
        FUZZ_CHECK(record.segmentSize == expected.segmentSize);
        FUZZ_CHECK((record.name != nullptr) == facts.name.has_value());
        FUZZ_CHECK(record.name == nullptr || *facts.name == record.name);
        rmfuzz::checkSegments(record, expected, [this](AllocatorModel::Block name) {
            return blocks_.at(name).pointer;
        });
    }

    Input& input_;
    bool exact_;
    AllocatorModel model_;
    std::vector<Block> blocks_;  // by name, 0 is none
    std::vector<TagFacts> facts_;
    std::vector<void*> stale_;  // were blocks
    Lines expected_;
    bool logged_ = false;
};
}  // namespace

void* __wrap_malloc(std::size_t size)
{
    return supply && (*supply)-- <= 0 ? nullptr : __real_malloc(size);
}

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    Heap heap(input, input.byte() % 2 == 1);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        heap.step();
    }
    heap.end();
}
