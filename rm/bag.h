// Bags, front page: what bag.cpp shows to the tests beside the interface.
#ifndef RM_BAG_H
#define RM_BAG_H

#include "rm/base.h"

#include <cstdint>

namespace bags
{

// Bytes of the map of used slots for `slotCount` slots.
uint16_t usedSlotMapBytes(uint16_t slotCount);

// Sets or clears the bit of a slot. RM_INVALID with a log line when the bag has no map.
int16_t markSlotUsed(Bag* bag, uint16_t slot, uint16_t used);

// 1 or 0; RM_INVALID with a log line when a bag that needs a map has none.
int16_t isSlotUsed(const Bag* bag, uint16_t slot);

// Chooses the slot of the next addition, which may need more memory, and stores its address.
int16_t findEmptySlot(Bag* bag, void** slot);

// bagSetCurHandle and bagGetCurPtr in one: the element; null when the slot is not used.
void* goTo(Bag* bag, uint16_t handle);

// Counts and logs what does not hold in a bag; 0 is sound.
uint32_t checkBag(const Bag* bag);

}  // namespace bags

#endif
