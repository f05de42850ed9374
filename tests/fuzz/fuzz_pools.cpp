// Pools of several tags beside the model of the tests: which element a request gets, what is in it,
// and what is refused. Elements hold patterns, so one that two users had would show.
//
// Input: a byte that says how segments are got, then one for each call with what it needs behind
// it.
#include "fuzz.h"
#include "memory.h"
#include "tests/models/pool_model.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmutil/rmutil.h"

#include <algorithm>
#include <array>

namespace
{
using rmfuzz::Input;
using rmtest::PoolModel;
using rmutil::PoolElement;
using Element = PoolModel::Element;
using Lines = std::vector<std::string>;

constexpr int kMostCalls = 300;
constexpr std::size_t kPools = 4;
constexpr std::size_t kTags = 2;
constexpr std::size_t kMostHeld = 60;

enum Call : uint8_t {
    kGet,
    kGetToo,
    kPut,
    kPutToo,
    kPutTwice,
    kPutOfOther,
    kPutInside,
    kPutForeign,
    kPutNull,
    kFreePool,
    kEmptyTag,
    kTooMuch,
    kFreeNone,
    kCalls,
};

struct Pair {
    RmPool* pool = nullptr;
    PoolModel model;
    std::size_t tag = 0;
};

bool holdsPattern(const Element& element)
{
    return rmfuzz::holdsPattern(element.address, element.written, element.seed);
}

uint32_t unitsOf(void* element)
{
    return rmalloc::headerOf(static_cast<PoolElement*>(element) - 1)->units;
}

class Pools
{
  public:
    explicit Pools(Input& input) : input_(input)
    {
        rmfuzz::beginAnew(input.byte() % 2 == 1);
        for (int16_t& tag : tags_) {
            tag = rm_allocTag(nullptr, RM_NO_LIMIT);
        }
        for (std::size_t i = 0; i < kPools; ++i) {
            make(i);
        }
        rmfuzz::takeLog();
    }

    void step()
    {
        expected_.clear();
        ++seed_;
        call(static_cast<Call>(input_.byte() % kCalls));
        FUZZ_CHECK(rmfuzz::takeLines() == expected_);
        for (const Pair& pair : pairs_) {
            compare(pair);
        }
        FUZZ_CHECK(seed_ % 32 != 0 || rmalloc::checkMemory() == 0);
    }

    void end()
    {
        for (const std::vector<Element>& elements : held_) {
            FUZZ_CHECK(std::all_of(elements.begin(), elements.end(), holdsPattern));
        }
    }

  private:
    void make(std::size_t which)
    {
        Pair& pair = pairs_.at(which);
        pair.tag = input_.byte() % kTags;
        pair.model = {};
        // Without a lock, or with one that is none: the maximum limits nothing.
        const uint32_t maximum = input_.byte() % 3U;
        const uint32_t timeout = input_.byte();
        pair.pool =
            rm_allocPool(maximum, tags_.at(pair.tag), which % 2 == 0 ? nullptr : "", timeout);
    }

    std::size_t any(std::size_t count) { return input_.byte() % count; }

    uint32_t size()
    {
        const uint8_t first = input_.byte();
        return first < 230 ? first : static_cast<uint16_t>(input_.int16()) % 20'000U;
    }

    void get(Pair& pair)
    {
        std::vector<Element>& held = held_.at(pair.tag);
        if (held.size() >= kMostHeld) {
            return;
        }
        const uint32_t bytes = size();
        const PoolModel::Got expected = pair.model.get(bytes);
        void* address = rm_getFromPool(bytes, pair.pool);
        Element element = expected.element;
        if (expected.kind == PoolModel::kRecycled) {
            FUZZ_CHECK(address == element.address && holdsPattern(element));
        } else {
            element = {address, PoolModel::roomFor(bytes), 0, 0};
            const auto* first = static_cast<const char*>(address);
            FUZZ_CHECK(expected.kind == PoolModel::kReplaced ||
                       std::all_of(first, first + bytes, [](char c) { return c == 0; }));
        }
        FUZZ_CHECK(unitsOf(address) * rmalloc::kUnit ==
                   element.room + rmalloc::kUnit + uint32_t{sizeof(PoolElement)});
        element.seed = seed_;
        element.written = bytes;
        rmfuzz::fillPattern(address, bytes, seed_);
        held.push_back(element);
    }

    void put(Pair& pair)
    {
        std::vector<Element>& held = held_.at(pair.tag);
        if (held.empty()) {
            return;
        }
        const auto at = held.begin() + static_cast<std::ptrdiff_t>(any(held.size()));
        const Element element = *at;
        held.erase(at);
        FUZZ_CHECK(holdsPattern(element));
        FUZZ_CHECK(rm_putInPool(element.address, pair.pool) == RM_SUCCESS);
        FUZZ_CHECK(holdsPattern(element));
        pair.model.put(element);
    }

    // What no pool may take. Nothing changes but for a line.
    void putBad(Pair& pair, void* pointer)
    {
        FUZZ_CHECK(rm_putInPool(pointer, pair.pool) == RM_SUCCESS);
        expected_.push_back(rmfuzz::badPointer(pointer));
    }

    void putTwice(Pair& pair)
    {
        const std::vector<Element>& free = pairs_.at(any(kPools)).model.free();
        if (!free.empty()) {
            putBad(pair, free.at(any(free.size())).address);
        }
    }

    void putOfOther(Pair& pair)
    {
        const std::vector<Element>& held = held_.at(1 - pair.tag);
        if (!held.empty()) {
            putBad(pair, held.at(any(held.size())).address);
        }
    }

    void putInside(Pair& pair)
    {
        const std::vector<Element>& held = held_.at(pair.tag);
        if (!held.empty()) {
            const Element& element = held.at(any(held.size()));
            putBad(pair, static_cast<char*>(element.address) + 1 + any(std::max(element.room, 7U)));
        }
    }

    void freePool()
    {
        const std::size_t which = any(kPools);
        Pair& pair = pairs_.at(which);
        uint32_t gone = rmalloc::unitsFor(sizeof(RmPool));
        for (const Element& element : pair.model.free()) {
            gone += unitsOf(element.address);
        }
        const int16_t tag = tags_.at(pair.tag);
        const uint32_t before = rmalloc::tagTable[tag].allocated;
        FUZZ_CHECK(rm_zFreePool(&pair.pool) == RM_SUCCESS && pair.pool == nullptr);
        FUZZ_CHECK(rmalloc::tagTable[tag].allocated == before - gone * rmalloc::kUnit);
        make(which);
    }

    // The tag's memory goes as a whole, with its pools: they are made again.
    void emptyTag()
    {
        const std::size_t tag = any(kTags);
        rm_freeTagMemory(tags_.at(tag), 0);
        held_.at(tag).clear();
        for (std::size_t i = 0; i < kPools; ++i) {
            if (pairs_.at(i).tag == tag) {
                make(i);
            }
        }
    }

    void tooMuch(Pair& pair)
    {
        const uint32_t bytes = UINT32_MAX - input_.byte() % sizeof(PoolElement);
        FUZZ_CHECK(!rmfuzz::comesBack([&] { rm_getFromPool(bytes, pair.pool); }));
        expected_ = {"Out of memory!", rmfuzz::kFatalEnd};
    }

    void call(Call call)
    {
        Pair& pair = pairs_.at(any(kPools));
        switch (call) {
            case kPut:
            case kPutToo:
                put(pair);
                break;
            case kPutTwice:
                putTwice(pair);
                break;
            case kPutOfOther:
                putOfOther(pair);
                break;
            case kPutInside:
                putInside(pair);
                break;
            case kPutForeign:
                putBad(pair, &foreign_.at(any(foreign_.size())));
                break;
            case kPutNull:
                FUZZ_CHECK(rm_putInPool(nullptr, pair.pool) == RM_SUCCESS);
                break;
            case kFreePool:
                freePool();
                break;
            case kEmptyTag:
                emptyTag();
                break;
            case kTooMuch:
                tooMuch(pair);
                break;
            case kFreeNone: {
                RmPool* none = nullptr;
                FUZZ_CHECK(rm_zFreePool(&none) == RM_SUCCESS);
                FUZZ_CHECK(rm_zFreePool(nullptr) == RM_SUCCESS);
                break;
            }
            default:
                get(pair);
                break;
        }
    }

    // The free list, last in first, as the library links it.
    static void compare(const Pair& pair)
    {
        const std::vector<Element>& free = pair.model.free();
        PoolElement* link = pair.pool->freeList;
        for (auto element = free.rbegin(); element != free.rend(); ++element) {
            FUZZ_CHECK(link != nullptr && link + 1 == element->address);
            link = link->next;
        }
        FUZZ_CHECK(link == nullptr && pair.pool->count == 0);
    }

    Input& input_;
    std::array<int16_t, kTags> tags_{};
    std::array<Pair, kPools> pairs_{};
    std::array<std::vector<Element>, kTags> held_;
    std::array<char, 64> foreign_{};
    Lines expected_;
    uint32_t seed_ = 0;
};
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    Pools pools(input);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        pools.step();
    }
    pools.end();
}
