// FF bag, front page: a queue of small records in memory that processes share.
#ifndef RM_FFBAG_H
#define RM_FFBAG_H

#include "rm/base.h"

#include <cstddef>
#include <cstdint>

namespace ffbag
{

// The area, as every process that attaches it sees it. A caller's handle is the address of
// `capacity`.
struct Area {
    uint32_t reserved;     // 0
    uint16_t capacity;     // element slots
    uint16_t count;        // elements
    uint16_t next;         // slot that the next push fills
    uint16_t elementSize;  // bytes
    uint32_t data;         // the low half of the slots' address where it was made; not trusted
};

constexpr std::size_t kSlotsOffset = 16;  // bytes from the start of the area
constexpr std::size_t kBagOffset = 4;     // likewise, of the handle

static_assert(sizeof(Area) == kSlotsOffset && offsetof(Area, capacity) == kBagOffset);

// Counts and logs what does not hold in a bag; 0 is sound.
uint32_t checkFfBag(const void* bag);

}  // namespace ffbag

#endif
