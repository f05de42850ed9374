// Bags: growable arrays of slots that are addressed by small handles.
//
// Why: modules, sessions, functions, open tables - a server keeps many small sets of records. One
// container with a current position serves them all; a constant control record says what kind it
// is. Lookup is a scan, which for sets of this size is what the machine does best.
//
//   compact   the elements fill the first slots; a deletion moves the last one into the hole
//   slot map  a bitmap says which slots are used; holes stay and are filled lowest first, so that a
//             handle is good until its own element is deleted
//   ring      slots are handed out one after the other, round and round
//
// Owns: nothing of its own. A bag, its data area and its map lie in the tag of its control record.
//
// Invariant: usedCount <= slotCount; a slot map has as many bits set as there are elements, none
// from slotCount on; a ring's nextSlot is a slot. checkBag() tests it.
//
// The current position may stand where no element is: past the end after an iteration, on a hole,
// nowhere at all (RM_NO_SLOT). Nothing is read or changed through it then beyond the used part of a
// compact bag, or beyond the data area of the other two.
//
// Fatal: no memory. A bag is complete, and as it was, whenever a growth does not come back.
#include "rm/bag.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

using namespace bags;

namespace
{
constexpr uint16_t kKeyKindMask = 0x007F;
constexpr uint32_t kMostSlots = std::numeric_limits<uint16_t>::max();
constexpr uint32_t kBitsPerByte = 8;
constexpr uint16_t kAllUsed = 0xFFFF;
constexpr uint16_t kSmallestMap = 4;                                   // bytes
constexpr uintptr_t kOutside = std::numeric_limits<uintptr_t>::max();  // no place in a data area

void zeroSlot(Bag* bag, std::size_t slot)
{
    std::memset(slotAt(bag, slot), 0, bag->ctl->elementSize);
}

// Deliberate: forward iteration ends before the last slot of a bag with a slot map. Hosts have
// built on which of their modules a lookup finds.
int32_t forwardLimit(const Bag* bag)
{
    return has(bag, BAG_SLOT_MAP) ? bag->slotCount - 1 : bag->usedCount;
}

// True when nothing may be read or deleted at the current position.
bool isPastEnd(const Bag* bag)
{
    const bool holes = has(bag, BAG_SLOT_MAP | BAG_RING);
    return bag->curSlot >= (holes ? bag->slotCount : bag->usedCount);
}

// The first used slot from `slot` on, which is below `limit`; `limit` when there is none below it.
uint32_t nextInMap(const uint16_t* map, uint32_t slot, uint32_t limit)
{
    do {
        const auto rest = static_cast<uint16_t>(map[slot / kBitsPerWord] << (slot % kBitsPerWord));
        if (rest != 0) {
            return std::min(slot + static_cast<uint32_t>(std::countl_zero(rest)), limit);
        }
        slot = (slot / kBitsPerWord + 1) * kBitsPerWord;
    } while (slot < limit);
    return limit;
}

// The lowest slot whose bit is clear; the number of bits when all are set. Eight words at a time as
// long as they are full: that is most of them in a large bag.
uint32_t firstHole(const Bag* bag)
{
    constexpr uint32_t kStride = 8;  // words
    const auto words = static_cast<uint32_t>(usedSlotMapBytes(bag->slotCount) / sizeof(uint16_t));
    uint32_t word = 0;
    while (word + kStride <= words) {
        uint64_t both[kStride * sizeof(uint16_t) / sizeof(uint64_t)];
        std::memcpy(both, bag->slotMap + word, sizeof(both));
        if ((both[0] & both[1]) != std::numeric_limits<uint64_t>::max()) {
            break;
        }
        word += kStride;
    }
    while (word < words && bag->slotMap[word] == kAllUsed) {
        ++word;
    }
    return word == words
               ? words * kBitsPerWord
               : word * kBitsPerWord + static_cast<uint32_t>(std::countl_one(bag->slotMap[word]));
}

// The first used slot from `slot` on that iteration reaches, in a bag with holes; a slot at or
// beyond `limit`, that of the iteration, when there is none.
int32_t nextUsed(const Bag* bag, const uint16_t* map, int32_t slot, int32_t limit)
{
    if (slot >= limit) {
        return slot;
    }
    if (map == nullptr) {
        isSlotUsed(bag, static_cast<uint16_t>(slot));  // says so; the slot is taken as used
        return slot;
    }
    const auto place = static_cast<uint32_t>(slot);
    if ((map[place / kBitsPerWord] & bitOf(place)) != 0) {
        return slot;
    }
    return static_cast<int32_t>(nextInMap(map, place, static_cast<uint32_t>(limit)));
}

// Copies kHalf to twice as many bytes, in two halves that overlap as far as they have to.
template <std::size_t kHalf>
void copyHalves(unsigned char* to, const void* from, std::size_t size)
{
    const std::size_t rest = size - kHalf;
    std::memcpy(to, from, kHalf);
    std::memcpy(to + rest, static_cast<const unsigned char*>(from) + rest, kHalf);
}

constexpr std::size_t kSmallestCopied = 8;  // bytes that copyShort can copy
constexpr std::size_t kLargestCopied = 64;

// Most elements are short, and a call to copy them would take longer than the copy.
void copyShort(unsigned char* to, const void* from, std::size_t size)
{
    if (size >= kLargestCopied / 2) {
        copyHalves<kLargestCopied / 2>(to, from, size);
    } else if (size >= 2 * kSmallestCopied) {
        copyHalves<2 * kSmallestCopied>(to, from, size);
    } else {
        copyHalves<kSmallestCopied>(to, from, size);
    }
}

// Makes the elements behind the oldest ones of a wrapped ring follow what was added.
// Deliberate: the distance is the increment and the end is one byte short. What that reaches
// outside the data area stays as it is.
void moveWrapped(Bag* bag, uint16_t oldCount, int64_t increment, int64_t areaBytes)
{
    const int64_t elementSize = bag->ctl->elementSize;
    const int64_t target = oldCount * elementSize - 1;
    const int64_t source = target - increment * elementSize;
    const int64_t length = (bag->usedCount - bag->nextSlot) * elementSize;
    const int64_t first = std::max({int64_t{0}, -source, -target});
    const int64_t end = std::min(length, areaBytes - std::max(source, target));
    if (first < end) {
        auto* bytes = static_cast<unsigned char*>(bag->data);
        std::memmove(bytes + target + first, bytes + source + first,
                     static_cast<std::size_t>(end - first));
    }
}

// Nothing of the bag counts before it is there: the larger areas are published first and the
// number of slots last.
int16_t grow(Bag* bag)
{
    const BagCtl* ctl = bag->ctl;
    const uint16_t oldCount = bag->slotCount;
    const uint32_t increment = oldCount < ctl->growThreshold ? ctl->growIncrement : oldCount;
    const uint32_t newCount = oldCount + increment;
    if (increment == 0 || newCount > kMostSlots) {
        return RM_OUT_OF_MEMORY;
    }
    const uint32_t oldBytes = uint32_t{oldCount} * ctl->elementSize;
    const uint32_t newBytes = newCount * ctl->elementSize;
    void* data = rm_extendMemory(bag->data, newBytes, ctl->tag);
    if (data == nullptr) {
        return RM_OUT_OF_MEMORY;
    }
    bag->data = data;
    if (has(bag, BAG_SLOT_MAP | BAG_RING)) {
        // Positions can come to stand on slots that were never used; in a compact bag they cannot.
        std::memset(static_cast<unsigned char*>(data) + oldBytes, 0, newBytes - oldBytes);
    }

    const uint16_t oldMap = usedSlotMapBytes(oldCount);
    const uint16_t newMap = usedSlotMapBytes(static_cast<uint16_t>(newCount));
    if (has(bag, BAG_SLOT_MAP) && bag->slotMap != nullptr && newMap > oldMap) {
        bag->slotMap = static_cast<uint16_t*>(rm_extendMemory(bag->slotMap, newMap, ctl->tag));
        if (bag->slotMap != nullptr) {
            std::memset(reinterpret_cast<unsigned char*>(bag->slotMap) + oldMap, 0,
                        static_cast<std::size_t>(newMap - oldMap));
        }
    }
    bag->slotCount = static_cast<uint16_t>(newCount);

    if (has(bag, BAG_RING)) {
        bag->curSlot = bag->nextSlot;
        if (bag->nextSlot < bag->usedCount) {
            moveWrapped(bag, oldCount, increment, newBytes);
        }
    }
    if (has(bag, BAG_SLOT_MAP)) {
        bag->curSlot = oldCount;
    }
    return RM_SUCCESS;
}

// The slot after the one that a ring has handed out.
uint16_t followingInRing(const Bag* bag, uint16_t slot)
{
    return slot + 1 >= bag->slotCount ? uint16_t{0} : static_cast<uint16_t>(slot + 1);
}

// Where in the data area the bytes at `element` begin.
uintptr_t placeInBag(const Bag* bag, const void* element)
{
    const uintptr_t place =
        reinterpret_cast<uintptr_t>(element) - reinterpret_cast<uintptr_t>(bag->data);
    const std::size_t bytes = std::size_t{bag->slotCount} * bag->ctl->elementSize;
    return bag->data != nullptr && place < bytes ? place : kOutside;
}

int16_t findSlotByGrowing(Bag* bag, void** slot)
{
    const int16_t status = grow(bag);
    if (status != RM_SUCCESS) {
        return status;
    }
    *slot = slotAt(bag, bag->usedCount);
    bag->nextSlot = has(bag, BAG_RING) ? followingInRing(bag, bag->usedCount)
                                       : static_cast<uint16_t>(bag->usedCount + 1);
    return RM_SUCCESS;
}

// What stands where the key of an element is: the key, or a pointer to it.
const unsigned char* keyOf(const Bag* bag, const unsigned char* element)
{
    const unsigned char* key = element + bag->ctl->keyOffset;
    return has(bag, BAG_KEY_INDIRECT) ? pointerAt(key) : key;
}

// The slot behind the used ones that follow each other from `slot` on, which is looked at whatever
// the map says. In a bag with holes it may come early.
int32_t endOfRun(const Bag* bag, const uint16_t* map, int32_t slot, int32_t limit)
{
    int32_t length = limit - slot;
    if (has(bag, BAG_SLOT_MAP)) {
        const auto place = static_cast<uint32_t>(slot);
        const int32_t used =
            map == nullptr ? 1
                           : std::countl_one(static_cast<uint16_t>(map[place / kBitsPerWord]
                                                                   << (place % kBitsPerWord)));
        length = std::min(length, used);
    }
    return slot + std::max(length, 1);
}

// From the current position to the end of the iteration, which passes the slots of a ring that were
// deleted too: they have no key where it would be reached through a pointer. True when the position
// stands on a match.
template <typename Matches>
bool scan(Bag* bag, Matches matches)
{
    const bool plain = !has(bag, BAG_POINTERS | BAG_KEY_INDIRECT);
    const uint16_t* map = bag->slotMap;
    const std::size_t size = bag->ctl->elementSize;
    const unsigned char* keys = slotAt(bag, 0) + bag->ctl->keyOffset;
    const int32_t limit = forwardLimit(bag);
    int32_t slot = bag->curSlot;
    do {
        const int32_t end = endOfRun(bag, map, slot, limit);
        for (; slot < end; ++slot) {
            const unsigned char* key = keys + static_cast<std::size_t>(slot) * size;
            if (!plain) {
                const unsigned char* element = elementAt(bag, static_cast<std::size_t>(slot));
                key = element == nullptr ? nullptr : keyOf(bag, element);
            }
            if (key != nullptr && matches(key)) {
                bag->curSlot = static_cast<uint16_t>(slot);
                return true;
            }
        }
        if (has(bag, BAG_SLOT_MAP)) {
            slot = nextUsed(bag, map, slot, limit);
        }
    } while (slot < limit);
    bag->curSlot = static_cast<uint16_t>(slot);
    return false;
}

bool scanForKey(Bag* bag, uint16_t kind, const void* key)
{
    const auto* text = static_cast<const char*>(key);
    if (kind == BAG_KEY_STRING) {
        return scan(bag, [text](const void* candidate) {
            return std::strcmp(text, static_cast<const char*>(candidate)) == 0;
        });
    }
    if (kind == BAG_KEY_ISTRING) {
        return scan(bag, [text](const void* candidate) {
            return stricmp(text, static_cast<const char*>(candidate)) == 0;
        });
    }
    const std::size_t length = bag->ctl->keyLength;
    return scan(bag, [key, length](const void* candidate) {
        return std::memcmp(key, candidate, length) == 0;
    });
}

// Every way to add but the short one in bagAdd, which a call of this would make longer.
[[gnu::noinline]] int16_t addAnywhere(Bag* bag, const void* element)
{
    // An element of the bag itself may be added again: it moves when the bag grows.
    const uintptr_t place = placeInBag(bag, element);
    void* slot = nullptr;
    const int16_t status = findEmptySlot(bag, &slot);
    if (status != RM_SUCCESS) {
        return status;
    }
    if (has(bag, BAG_POINTERS)) {
        std::memcpy(slot, &element, sizeof(element));
    } else {
        const void* source = place == kOutside ? element : slotAt(bag, 0) + place;
        std::memcpy(slot, source, bag->ctl->elementSize);
    }
    ++bag->usedCount;
    if (has(bag, BAG_SLOT_MAP)) {
        markSlotUsed(bag, bag->curSlot, 1);
    }
    return RM_SUCCESS;
}

// The last element moves into the hole, so that the elements stay together.
void deleteCompact(Bag* bag)
{
    --bag->usedCount;
    if (bag->curSlot < bag->usedCount) {
        std::memcpy(slotAt(bag, bag->curSlot), slotAt(bag, bag->usedCount), bag->ctl->elementSize);
        if (!has(bag, BAG_POINTERS)) {
            // Deliberate: there is no map here, so this logs a line and does nothing. Deletions
            // that renumber an element are followed in the log by it.
            markSlotUsed(bag, bag->curSlot, 0);
        }
        zeroSlot(bag, bag->usedCount);
    }
    bag->curSlot = RM_NO_SLOT;
}
}  // namespace

uint16_t bags::usedSlotMapBytes(uint16_t slotCount)
{
    const auto bytes = static_cast<uint16_t>((slotCount + (kBitsPerByte - 1)) / kBitsPerByte);
    const uint16_t atLeast = std::max(bytes, kSmallestMap);
    return static_cast<uint16_t>(atLeast + atLeast % sizeof(uint16_t));
}

int16_t bags::missingMap()
{
    rm_systemLogWrite("markSlotUsed failed");
    return RM_INVALID;
}

int16_t bags::markSlotUsed(Bag* bag, uint16_t slot, uint16_t used)
{
    if (bag->slotMap == nullptr) {
        return missingMap();
    }
    uint16_t* word = &bag->slotMap[slot / kBitsPerWord];
    *word = static_cast<uint16_t>(used != 0 ? *word | bitOf(slot) : *word & ~bitOf(slot));
    return RM_SUCCESS;
}

int16_t bags::findEmptySlot(Bag* bag, void** slot)
{
    if (bag->usedCount >= bag->slotCount) {
        return findSlotByGrowing(bag, slot);
    }
    if (has(bag, BAG_RING)) {
        bag->curSlot = bag->nextSlot;
        bag->nextSlot = followingInRing(bag, bag->nextSlot);
        *slot = slotAt(bag, bag->curSlot);
        return RM_SUCCESS;
    }
    if (has(bag, BAG_SLOT_MAP)) {
        const uint32_t hole = bag->slotMap == nullptr ? kMostSlots : firstHole(bag);
        if (hole >= bag->slotCount) {
            rm_systemLogWrite("findEmptySlot failed");
            return RM_INVALID;
        }
        bag->curSlot = static_cast<uint16_t>(hole);
        *slot = slotAt(bag, hole);
        return RM_SUCCESS;
    }
    *slot = slotAt(bag, bag->usedCount);
    return RM_SUCCESS;
}

uint32_t bags::checkBag(const Bag* bag)
{
    uint32_t violations = 0;
    const auto expect = [&violations](bool holds, const char* what) {
        if (!holds) {
            ++violations;
            rm_systemLogWrite("WARNING: bag check: %s", what);
        }
    };
    expect(bag->usedCount <= bag->slotCount, "more elements than slots");
    expect(bag->slotCount == 0 || bag->data != nullptr, "slots without a data area");
    if (has(bag, BAG_RING)) {
        expect(bag->nextSlot < std::max<uint16_t>(bag->slotCount, 1), "the next slot is none");
    }
    expect(has(bag, BAG_SLOT_MAP) || bag->slotMap == nullptr, "a map that nobody asked for");
    if (has(bag, BAG_SLOT_MAP) && bag->slotMap != nullptr) {
        uint32_t used = 0;
        uint32_t beyond = 0;
        const uint32_t bits = usedSlotMapBytes(bag->slotCount) * kBitsPerByte;
        for (uint32_t slot = 0; slot < bits; ++slot) {
            if ((bag->slotMap[slot / kBitsPerWord] & bitOf(slot)) != 0) {
                ++(slot < bag->slotCount ? used : beyond);
            }
        }
        expect(used == bag->usedCount || has(bag, BAG_RING), "the map and the count differ");
        expect(beyond == 0, "a slot that does not exist is used");
    }
    return violations;
}

int16_t bagCreate(const BagCtl* ctl, Bag** bag)
{
    if ((ctl->flags & BAG_POINTERS) != 0 && ctl->elementSize < sizeof(void*)) {
        rm_systemLogWrite("bagCreate failed");
        return RM_INVALID;
    }
    auto* made = static_cast<Bag*>(rm_cGetMemory(sizeof(Bag), ctl->tag));
    made->ctl = ctl;
    if (ctl->initialSlots != 0) {
        made->data = rm_cGetMemory(uint32_t{ctl->initialSlots} * ctl->elementSize, ctl->tag);
    }
    made->slotCount = ctl->initialSlots;
    made->curSlot = RM_NO_SLOT;
    if (has(made, BAG_SLOT_MAP)) {
        made->slotMap =
            static_cast<uint16_t*>(rm_cGetMemory(usedSlotMapBytes(made->slotCount), ctl->tag));
    }
    *bag = made;
    return RM_SUCCESS;
}

int16_t bagDestroy(Bag* bag)
{
    if (bag == nullptr) {
        return RM_SUCCESS;
    }
    const Tag tag = bag->ctl->tag;
    if (has(bag, BAG_SLOT_MAP)) {
        rm_zFreeMemory(&bag->slotMap, tag);
    }
    rm_zFreeMemory(&bag->data, tag);
    rm_zFreeMemory(&bag, tag);
    return RM_SUCCESS;
}

int16_t bagAdd(Bag* bag, const void* element)
{
    // The short way, without a call: a compact bag with room for a short copy.
    const std::size_t size = bag->ctl->elementSize;
    if (!has(bag, BAG_SLOT_MAP | BAG_RING | BAG_POINTERS) && bag->usedCount < bag->slotCount &&
        size >= kSmallestCopied && size <= kLargestCopied) {
        copyShort(slotAt(bag, bag->usedCount), element, size);
        ++bag->usedCount;
        return RM_SUCCESS;
    }
    return addAnywhere(bag, element);
}

int16_t bagDelete(Bag* bag)
{
    if (isPastEnd(bag) || bag->usedCount == 0) {
        return RM_NO_ELEMENT;
    }
    if (!has(bag, BAG_RING | BAG_SLOT_MAP)) {
        deleteCompact(bag);
        return RM_SUCCESS;
    }
    if (!has(bag, BAG_RING)) {
        if (bag->slotMap != nullptr && isSlotUsed(bag, bag->curSlot) == 0) {
            return RM_NO_ELEMENT;
        }
        markSlotUsed(bag, bag->curSlot, 0);
    }
    zeroSlot(bag, bag->curSlot);
    --bag->usedCount;
    return bagNext(bag);
}

int16_t bagFirst(Bag* bag)
{
    if (bag->usedCount == 0) {
        return RM_NO_ELEMENT;
    }
    if (has(bag, BAG_RING)) {
        const int32_t oldest = bag->nextSlot - bag->usedCount;
        bag->curSlot = static_cast<uint16_t>(oldest < 0 ? oldest + bag->slotCount : oldest);
        return RM_SUCCESS;
    }
    bag->curSlot = 0;
    return isSlotUsed(bag, 0) != 0 ? int16_t{RM_SUCCESS} : bagNext(bag);
}

int16_t bagNext(Bag* bag)
{
    const uint16_t slot = static_cast<uint16_t>(bag->curSlot + 1);
    if (!has(bag, BAG_SLOT_MAP)) {
        bag->curSlot = slot;
        return slot < bag->usedCount ? RM_SUCCESS : RM_NO_ELEMENT;
    }
    const int32_t limit = forwardLimit(bag);
    const int32_t next = nextUsed(bag, bag->slotMap, slot, limit);
    bag->curSlot = static_cast<uint16_t>(next);
    return next < limit ? RM_SUCCESS : RM_NO_ELEMENT;
}

int16_t bagLast(Bag* bag)
{
    if (bag->usedCount == 0) {
        return RM_NO_ELEMENT;
    }
    if (has(bag, BAG_RING)) {
        bag->curSlot =
            static_cast<uint16_t>((bag->nextSlot == 0 ? bag->slotCount : bag->nextSlot) - 1);
        return RM_SUCCESS;
    }
    bag->curSlot =
        static_cast<uint16_t>((has(bag, BAG_SLOT_MAP) ? bag->slotCount : bag->usedCount) - 1);
    return isSlotUsed(bag, bag->curSlot) != 0 ? int16_t{RM_SUCCESS} : bagPrev(bag);
}

int16_t bagPrev(Bag* bag)
{
    while (bag->curSlot != 0) {
        --bag->curSlot;
        if (isSlotUsed(bag, bag->curSlot) != 0) {
            return RM_SUCCESS;
        }
    }
    return RM_NO_ELEMENT;
}

int16_t bagGetCurHandle(Bag* bag, uint16_t* handle)
{
    if (bag->curSlot == RM_NO_SLOT) {
        return RM_NO_ELEMENT;
    }
    *handle = bag->curSlot;
    return RM_SUCCESS;
}

int16_t bagSetCurHandle(Bag* bag, uint16_t handle)
{
    if (isSlotUsed(bag, handle) == 0) {
        bag->curSlot = RM_NO_SLOT;
        return RM_NOT_FOUND;
    }
    bag->curSlot = handle;
    return RM_SUCCESS;
}

int16_t bagGetCurPtr(Bag* bag, void** pointer)
{
    if (isPastEnd(bag)) {
        return RM_NO_ELEMENT;
    }
    *pointer = elementAt(bag, bag->curSlot);
    return RM_SUCCESS;
}

int16_t bagGetCurData(Bag* bag, void* buffer)
{
    if (isPastEnd(bag)) {
        return RM_NO_ELEMENT;
    }
    std::memcpy(buffer, slotAt(bag, bag->curSlot), bag->ctl->elementSize);
    return RM_SUCCESS;
}

int16_t bagFind(Bag* bag, const void* key, uint16_t* handle, void** pointer)
{
    if (bagFirst(bag) != RM_SUCCESS) {
        return RM_NOT_FOUND;
    }
    const auto kind = static_cast<uint16_t>(bag->ctl->flags & kKeyKindMask);
    if (kind != BAG_KEY_STRING && kind != BAG_KEY_ISTRING && kind != BAG_KEY_BINARY) {
        rm_systemLogWrite("can't bagFind");
        return RM_INVALID;
    }
    if (kind != BAG_KEY_BINARY && *static_cast<const char*>(key) == '\0') {
        return RM_NOT_FOUND;
    }
    if (!scanForKey(bag, kind, key)) {
        return RM_NOT_FOUND;
    }
    if (handle != nullptr) {
        *handle = bag->curSlot;
    }
    if (pointer != nullptr) {
        *pointer = elementAt(bag, bag->curSlot);
    }
    return RM_SUCCESS;
}
