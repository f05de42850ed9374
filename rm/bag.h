// Bags, front page: the parts of a bag, for bag.cpp, the registry of modules and the tests. Short
// ones are inline: they are asked for every element.
#ifndef RM_BAG_H
#define RM_BAG_H

#include "rm/base.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace bags
{

// Bytes of the map of used slots for `slotCount` slots.
uint16_t usedSlotMapBytes(uint16_t slotCount);

constexpr uint32_t kBitsPerWord = 16;
constexpr uint16_t kFirstBit = 0x8000;  // the first slot of a word is its highest bit

inline bool has(const Bag* bag, uint16_t flag)
{
    return (bag->ctl->flags & flag) != 0;
}

inline unsigned char* slotAt(const Bag* bag, std::size_t slot)
{
    return static_cast<unsigned char*>(bag->data) + slot * bag->ctl->elementSize;
}

// The pointer whose bytes stand at `place`, aligned or not.
inline unsigned char* pointerAt(const void* place)
{
    void* pointer = nullptr;
    std::memcpy(&pointer, place, sizeof(pointer));
    return static_cast<unsigned char*>(pointer);
}

// What the caller put into the slot: its bytes, or with BAG_POINTERS what the pointer in it leads
// to. That is null in a slot that was deleted or never used.
inline unsigned char* elementAt(const Bag* bag, std::size_t slot)
{
    unsigned char* element = slotAt(bag, slot);
    return has(bag, BAG_POINTERS) ? pointerAt(element) : element;
}

constexpr uint16_t bitOf(uint32_t slot)
{
    return static_cast<uint16_t>(kFirstBit >> (slot % kBitsPerWord));
}

// The answer when a bag that needs a map has none: RM_INVALID, after its log line.
int16_t missingMap();

// Sets or clears the bit of a slot. RM_INVALID with a log line when the bag has no map.
int16_t markSlotUsed(Bag* bag, uint16_t slot, uint16_t used);

// 1 or 0; RM_INVALID with a log line when a bag that needs a map has none. Deliberate: the line is
// that of markSlotUsed, by which this fault has always been known.
inline int16_t isSlotUsed(const Bag* bag, uint16_t slot)
{
    if (!has(bag, BAG_SLOT_MAP)) {
        return slot < bag->usedCount ? 1 : 0;
    }
    if (bag->slotMap == nullptr) {
        return missingMap();
    }
    if (slot >= bag->slotCount) {
        return 0;
    }
    return (bag->slotMap[slot / kBitsPerWord] & bitOf(slot)) != 0 ? 1 : 0;
}

// Chooses the slot of the next addition, which may need more memory, and stores its address.
int16_t findEmptySlot(Bag* bag, void** slot);

// bagSetCurHandle and bagGetCurPtr in one: the element; null when the slot is not used.
inline void* goTo(Bag* bag, uint16_t handle)
{
    if (isSlotUsed(bag, handle) == 0 || handle >= bag->slotCount) {
        bag->curSlot = RM_NO_SLOT;
        return nullptr;
    }
    bag->curSlot = handle;
    return elementAt(bag, handle);
}

// Counts and logs what does not hold in a bag; 0 is sound.
uint32_t checkBag(const Bag* bag);

}  // namespace bags

#endif
