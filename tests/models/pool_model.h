// A model of a pool: which element a request gets, and what is in it.
//
// Why: the elements of a pool are recycled last in, first out, and only where they are large
// enough; that is promised to callers that keep buffers warm. The model knows addresses as numbers
// only, and nothing of the allocator but its unit.
#ifndef RM_TESTS_MODELS_POOL_MODEL_H
#define RM_TESTS_MODELS_POOL_MODEL_H

#include <cstdint>
#include <vector>

namespace rmtest
{

class PoolModel
{
  public:
    struct Element {
        void* address = nullptr;  // the caller's
        uint32_t room = 0;        // bytes that it can have without being replaced
        uint32_t seed = 0;        // of the pattern that its last user left in it
        uint32_t written = 0;     // bytes of that pattern
    };

    enum Kind { kNew, kRecycled, kReplaced };

    // What a request gets. With kReplaced, the element is the one that is freed.
    struct Got {
        Kind kind;
        Element element;
    };

    // Bytes that an element made for `size` has room for: whole units of 8, less the link.
    static uint32_t roomFor(uint32_t size)
    {
        constexpr uint32_t kUnit = 8;
        constexpr uint32_t kLink = sizeof(void*);
        return (size + kLink + kUnit - 1) / kUnit * kUnit - kLink;
    }

    Got get(uint32_t size)
    {
        if (free_.empty()) {
            return {kNew, {}};
        }
        const Element last = free_.back();
        free_.pop_back();
        return {last.room >= size ? kRecycled : kReplaced, last};
    }

    void put(const Element& element) { free_.push_back(element); }

    const std::vector<Element>& free() const { return free_; }

  private:
    std::vector<Element> free_;  // the one that came back last is the last
};

}  // namespace rmtest

#endif
