// FF bag: first in, first out, of fixed capacity, in memory that processes share.
//
// Why: processes hand each other small records - jobs, notices - in order and without a system call
// for each. The bag is plain memory and takes no lock; who shares it holds one around every call.
//
//   offset  0  reserved, capacity, count, next, elementSize, the slots' address at the creator's
//          16  slot 0, slot 1, ... each of elementSize bytes
//
// The oldest element stands `count` slots before `next`, going round at the capacity.
//
// Everything in the area may change under us: another process makes the bag again, or somebody else
// writes there, since the segment is open to everybody. So the slots are found from the area's own
// address, each field is read once, and what it says is believed as far as the memory reaches that
// this process asked for.
//
// Owns: what this process knows about the areas that it created: all whose shared memory object it
// has, and the latest of the others.
//
// Invariant: count <= capacity; next < capacity, or 0. checkFfBag() tests it.
//
// Lifecycle: each creation clears the area, so a bag that others use is emptied for all. The memory
// goes with the global shared memory; nothing is detached, so a handle stays good.
//
// Fatal: the shared memory that cannot be had.
#include "rm/ffbag.h"

#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cstring>

using namespace ffbag;

namespace
{
constexpr std::size_t kAreasKnown = os::kGshmSlots;  // room for every object of the process

// An area as this process made it. Nobody else can change this.
struct Known {
    const void* bag;       // null in an unused record
    uint32_t capacity;     // slots
    uint32_t elementSize;  // bytes; the buffers of this process have room for so much
};

// In the order of creation, the unused ones first. An area is never detached, so an old handle
// stays good when its object has gone, and its record stays as long as there is room.
std::array<Known, kAreasKnown> knownAreas = {};

// The one that was used last: most processes have one.
Known lastUsed = {nullptr, 0, 0};

// The fields of a bag as they were at one moment each.
struct Fields {
    uint32_t capacity;
    uint32_t count;
    uint32_t next;
    uint32_t elementSize;
};

// One look, which the compiler does not repeat: a second one might see something else.
uint16_t readOnce(const volatile uint16_t* field)
{
    return *field;
}

void write(volatile uint16_t* field, uint32_t value)
{
    *field = static_cast<uint16_t>(value);
}

Area* areaOf(void* bag)
{
    return reinterpret_cast<Area*>(static_cast<char*>(bag) - kBagOffset);
}

inline Fields fieldsOf(const Area* area)
{
    return {readOnce(&area->capacity), readOnce(&area->count), readOnce(&area->next),
            readOnce(&area->elementSize)};
}

char* slotAt(Area* area, uint32_t slot, uint32_t elementSize)
{
    char* slots = reinterpret_cast<char*>(area) + kSlotsOffset;
    return &slots[std::size_t{slot} * elementSize];
}

// What this process knows of a bag that was not the last one; null when it has not made it.
const Known* lookUp(const void* bag)
{
    const auto* known = std::find_if(knownAreas.begin(), knownAreas.end(),
                                     [bag](const Known& area) { return area.bag == bag; });
    if (known == knownAreas.end()) {
        return nullptr;
    }
    lastUsed = *known;
    return &lastUsed;
}

// True when the bag's shared memory is one of the objects that this process has.
bool hasObject(const void* bag)
{
    return std::any_of(os::rmGshm.begin(), os::rmGshm.end(), [bag](const os::GshmSlot& slot) {
        return slot.address != nullptr && &static_cast<Area*>(slot.address)->capacity == bag;
    });
}

// Enters a new area in place of the one that stood at the same address, when the host itself has
// detached that; else of the oldest without an object. There is one: there are as many records as
// objects at most, and the new object has none yet.
void remember(const Known& made)
{
    auto* gone = std::find_if(knownAreas.begin(), knownAreas.end(),
                              [&made](const Known& area) { return area.bag == made.bag; });
    if (gone == knownAreas.end()) {
        gone = std::find_if(knownAreas.begin(), knownAreas.end(),
                            [](const Known& area) { return !hasObject(area.bag); });
    }
    RM_ASSERT(gone != knownAreas.end());
    std::rotate(gone, gone + 1, knownAreas.end());
    knownAreas.back() = made;
}

inline const Known* knowledgeOf(const void* bag)
{
    return lastUsed.bag == bag ? &lastUsed : lookUp(bag);
}

// True when the slot is one of the bag's and lies in memory that this process has, and an element
// is no larger than its buffers. A bag that this process has not made is taken at its word.
inline bool isWithin(const void* bag, const Fields& fields, uint32_t slot)
{
    if (slot >= fields.capacity) {
        return false;
    }
    const Known* known = knowledgeOf(bag);
    if (known == nullptr) {
        return true;
    }
    if (fields.elementSize > known->elementSize) {
        return false;
    }
    return slot < known->capacity || (uint64_t{slot} + 1) * fields.elementSize <=
                                         uint64_t{known->capacity} * known->elementSize;
}
}  // namespace

int16_t ffBagCreate(uint16_t capacity, uint16_t elementSize, void** bag, void** area)
{
    const uint64_t size = uint64_t{capacity} * elementSize + kSlotsOffset;  // below 2^32
    void* base = nullptr;
    rm_gshmCreate("FFBAG1", static_cast<uint32_t>(size), &base);
    std::memset(base, 0, static_cast<std::size_t>(size));
    *area = base;
    auto* made = static_cast<Area*>(base);
    *bag = &made->capacity;
    made->data = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(base) + kSlotsOffset);
    made->elementSize = elementSize;
    made->capacity = capacity;
    lastUsed = {*bag, capacity, elementSize};
    remember(lastUsed);
    return RM_SUCCESS;
}

int16_t ffBagPush(void* bag, const void* element)
{
    Area* area = areaOf(bag);
    const Fields fields = fieldsOf(area);
    if (fields.count >= fields.capacity) {
        return RM_FULL;
    }
    if (!isWithin(bag, fields, fields.next)) {
        return RM_INVALID;
    }
    if (fields.elementSize > 0) {
        std::memcpy(slotAt(area, fields.next, fields.elementSize), element, fields.elementSize);
    }
    write(&area->next, fields.next + 1 < fields.capacity ? fields.next + 1 : 0);
    write(&area->count, fields.count + 1);
    return RM_SUCCESS;
}

int16_t ffBagPop(void* bag, void* buffer)
{
    Area* area = areaOf(bag);
    const Fields fields = fieldsOf(area);
    if (fields.count == 0) {
        return RM_NO_ELEMENT;
    }
    // Out of the bag, and so refused, when a field has been damaged.
    const uint32_t slot = fields.next < fields.count ? fields.capacity + fields.next - fields.count
                                                     : fields.next - fields.count;
    if (fields.count > fields.capacity || fields.next >= fields.capacity ||
        !isWithin(bag, fields, slot)) {
        return RM_INVALID;
    }
    if (fields.elementSize > 0) {
        std::memcpy(buffer, slotAt(area, slot, fields.elementSize), fields.elementSize);
    }
    write(&area->count, fields.count - 1);
    return RM_SUCCESS;
}

uint32_t ffbag::checkFfBag(const void* bag)
{
    const Area* area = areaOf(const_cast<void*>(bag));
    const Known* known = knowledgeOf(bag);
    uint32_t violations = 0;
    if (area->count > area->capacity || (area->next >= area->capacity && area->next != 0)) {
        ++violations;
        rm_systemLogWrite("WARNING: FF bag: %u elements, next %u, capacity %u", area->count,
                          area->next, area->capacity);
    }
    if (known != nullptr && (area->elementSize > known->elementSize ||
                             uint64_t{area->capacity} * area->elementSize >
                                 uint64_t{known->capacity} * known->elementSize)) {
        ++violations;
        rm_systemLogWrite("WARNING: FF bag: %u slots of %u bytes, made as %u of %u", area->capacity,
                          area->elementSize, known->capacity, known->elementSize);
    }
    return violations;
}
