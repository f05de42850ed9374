// An independent model of an FF bag: all bytes of its memory, and what a push and a pop do to them.
//
// It is written from the behaviour, not from the library: fields are bytes at their offsets, the
// oldest element is found by walking back a slot at a time. What the fields say is followed as far
// as the memory reaches that the bag was made with; a step that would leave it is refused.
#ifndef RM_TESTS_MODELS_FFBAG_MODEL_H
#define RM_TESTS_MODELS_FFBAG_MODEL_H

#include "rm.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace rmtest
{

class FfBagModel
{
  public:
    using Bytes = std::vector<unsigned char>;

    // Where the fields are, bytes from the start of the area.
    enum Field : std::size_t {
        kReserved = 0,
        kCapacity = 4,
        kCount = 6,
        kNext = 8,
        kElementSize = 10,
        kData = 12,
        kSlots = 16,
    };

    // A new bag at `address`, at the start of `memory`. What lies behind it stays as it is.
    FfBagModel(uint16_t capacity, uint16_t elementSize, uintptr_t address, Bytes memory)
        : memory_(std::move(memory)),
          asked_(std::size_t{capacity} * elementSize),
          largest_(elementSize)
    {
        std::fill_n(memory_.begin(), kSlots + asked_, static_cast<unsigned char>(0));
        set(kCapacity, capacity);
        set(kElementSize, elementSize);
        const auto slots = static_cast<uint32_t>(address + kSlots);
        std::memcpy(&memory_[kData], &slots, sizeof(slots));
    }

    const Bytes& memory() const { return memory_; }

    uint16_t get(Field field) const
    {
        uint16_t value = 0;
        std::memcpy(&value, &memory_[field], sizeof(value));
        return value;
    }

    void set(Field field, uint32_t value)
    {
        const auto narrow = static_cast<uint16_t>(value);
        std::memcpy(&memory_[field], &narrow, sizeof(narrow));
    }

    // One byte, by somebody else.
    void write(std::size_t offset, unsigned char value) { memory_.at(offset) = value; }

    int16_t push(const unsigned char* element)
    {
        const uint32_t next = get(kNext);
        if (get(kCount) >= get(kCapacity)) {
            return RM_FULL;
        }
        if (!mayTouch(next)) {
            return RM_INVALID;
        }
        std::copy_n(element, get(kElementSize), memory_.begin() + offsetOf(next));
        set(kNext, next + 1 == get(kCapacity) ? 0 : next + 1);
        set(kCount, get(kCount) + 1U);
        return RM_SUCCESS;
    }

    int16_t pop(unsigned char* buffer)
    {
        if (get(kCount) == 0) {
            return RM_NO_ELEMENT;
        }
        if (get(kCount) > get(kCapacity) || get(kNext) >= get(kCapacity) || !mayTouch(oldest())) {
            return RM_INVALID;
        }
        std::copy_n(memory_.begin() + offsetOf(oldest()), get(kElementSize), buffer);
        set(kCount, get(kCount) - 1U);
        return RM_SUCCESS;
    }

    // The fields say what a bag's fields may say.
    bool isSound() const
    {
        const bool fits = get(kElementSize) <= largest_ &&
                          std::size_t{get(kCapacity)} * get(kElementSize) <= asked_;
        return fits && get(kCount) <= get(kCapacity) &&
               (get(kNext) < get(kCapacity) || get(kNext) == 0);
    }

  private:
    bool mayTouch(std::size_t slot) const
    {
        return slot < get(kCapacity) && get(kElementSize) <= largest_ &&
               (slot + 1) * get(kElementSize) <= asked_;
    }

    std::ptrdiff_t offsetOf(std::size_t slot) const
    {
        return static_cast<std::ptrdiff_t>(kSlots + slot * get(kElementSize));
    }

    // Only of a bag whose count and next are within its capacity.
    std::size_t oldest() const
    {
        std::size_t slot = get(kNext);
        for (uint32_t back = get(kCount); back > 0; --back) {
            slot = slot == 0 ? get(kCapacity) - 1U : slot - 1;
        }
        return slot;
    }

    Bytes memory_;
    std::size_t asked_;    // bytes of all slots, as this process made the bag
    std::size_t largest_;  // bytes of an element, likewise
};

}  // namespace rmtest

#endif
