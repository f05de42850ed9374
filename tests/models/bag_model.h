// An independent model of a bag: its slots byte by byte, its map, its positions and its log lines.
//
// It is written from the behaviour, not from the library: every walk is one slot at a time, the
// bytes of a growing ring are moved one after the other out of a copy. What lookups follow pointers
// to is asked of the test, so that the model knows before the library does when a lookup would read
// what nobody has put there.
#ifndef RM_TESTS_MODELS_BAG_MODEL_H
#define RM_TESTS_MODELS_BAG_MODEL_H

#include "rm.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rmtest
{

class BagModel
{
  public:
    using Bytes = std::vector<unsigned char>;
    using View = std::span<const unsigned char>;
    // What may be read from an address on; nothing when it is not known.
    using Memory = std::function<View(uintptr_t)>;

    struct State {
        uint16_t slotCount = 0;
        uint16_t usedCount = 0;
        uint16_t curSlot = RM_NO_SLOT;
        uint16_t nextSlot = 0;
        Bytes data;
        std::vector<uint16_t> map;  // empty without one
    };

    struct Found {
        int16_t status = RM_NOT_FOUND;
        uint16_t handle = RM_NO_SLOT;
    };

    explicit BagModel(const BagCtl& ctl) : ctl_(ctl)
    {
        state.slotCount = ctl.initialSlots;
        state.data.resize(std::size_t{ctl.initialSlots} * ctl.elementSize);
        if (isMapped()) {
            state.map.resize(mapBytes(state.slotCount) / 2);
        }
    }

    State state;

    // The map goes: nothing gives it back.
    void loseMap() { state.map.clear(); }

    bool isMapped() const { return is(BAG_SLOT_MAP); }

    bool isRing() const { return is(BAG_RING); }

    bool holdsPointers() const { return is(BAG_POINTERS); }

    // The lines since the last time, each with its newline.
    std::string takeLog() { return std::exchange(log_, {}); }

    // What of the bag is not as the model says; nothing when all is.
    std::string_view difference(const Bag& bag) const
    {
        if (bag.slotCount != state.slotCount || bag.usedCount != state.usedCount) {
            return "a count";
        }
        if (bag.curSlot != state.curSlot || bag.nextSlot != state.nextSlot) {
            return "a position";
        }
        if ((bag.data == nullptr) != (state.slotCount == 0) ||
            !sameBytes(bag.data, state.data.data(), state.data.size())) {
            return "the data area";
        }
        if ((bag.slotMap == nullptr) != state.map.empty() ||
            !sameBytes(bag.slotMap, state.map.data(), state.map.size() * sizeof(uint16_t))) {
            return "the map";
        }
        return {};
    }

    bool matches(const Bag& bag) const { return difference(bag).empty(); }

    // A compact bag does not say what is in slots that no element has been in since it grew: those
    // bytes get a mark, in the bag and here, and have to keep it.
    void takeOverUnknown(const Bag& bag)
    {
        constexpr unsigned char kMark = 0xC3;
        if (bag.data != nullptr && unknownFrom_ < state.data.size()) {
            std::memset(static_cast<unsigned char*>(bag.data) + unknownFrom_, kMark,
                        state.data.size() - unknownFrom_);
            std::fill(state.data.begin() + static_cast<std::ptrdiff_t>(unknownFrom_),
                      state.data.end(), kMark);
        }
        unknownFrom_ = SIZE_MAX;
    }

    // --- The calls

    int16_t add(const void* element)
    {
        std::size_t slot = 0;
        const int16_t status = chooseSlot(&slot);
        if (status != RM_SUCCESS) {
            return status;
        }
        if (holdsPointers()) {
            const auto address = reinterpret_cast<uintptr_t>(element);
            std::memcpy(&state.data.at(at(slot)), &address, sizeof(address));
        } else {
            std::memcpy(&state.data.at(at(slot)), element, ctl_.elementSize);
        }
        ++state.usedCount;
        if (isMapped()) {
            mark(state.curSlot, true);
        }
        return RM_SUCCESS;
    }

    int16_t remove()
    {
        if (isPastEnd() || state.usedCount == 0) {
            return RM_NO_ELEMENT;
        }
        if (isRing()) {
            zero(state.curSlot);
            --state.usedCount;
            return next();
        }
        if (isMapped()) {
            if (!state.map.empty() && !bit(state.curSlot)) {
                return RM_NO_ELEMENT;
            }
            mark(state.curSlot, false);
            zero(state.curSlot);
            --state.usedCount;
            return next();
        }
        --state.usedCount;
        if (state.curSlot < state.usedCount) {
            for (std::size_t i = 0; i < ctl_.elementSize; ++i) {
                state.data[at(state.curSlot) + i] = state.data[at(state.usedCount) + i];
            }
            if (!holdsPointers()) {
                say("markSlotUsed failed");
            }
            zero(state.usedCount);
        }
        state.curSlot = RM_NO_SLOT;
        return RM_SUCCESS;
    }

    int16_t first()
    {
        if (state.usedCount == 0) {
            return RM_NO_ELEMENT;
        }
        if (isRing()) {
            const int oldest = state.nextSlot - state.usedCount;
            state.curSlot = static_cast<uint16_t>(
                state.nextSlot < state.usedCount ? state.slotCount + oldest : oldest);
            return RM_SUCCESS;
        }
        state.curSlot = 0;
        return isUsed(0) ? int16_t{RM_SUCCESS} : next();
    }

    int16_t next()
    {
        ++state.curSlot;
        const int limit = isMapped() ? state.slotCount - 1 : state.usedCount;
        for (; state.curSlot < limit; ++state.curSlot) {
            if (isUsed(state.curSlot)) {
                return RM_SUCCESS;
            }
        }
        return RM_NO_ELEMENT;
    }

    int16_t last()
    {
        if (state.usedCount == 0) {
            return RM_NO_ELEMENT;
        }
        if (isRing()) {
            state.curSlot =
                static_cast<uint16_t>((state.nextSlot == 0 ? state.slotCount : state.nextSlot) - 1);
            return RM_SUCCESS;
        }
        state.curSlot = static_cast<uint16_t>((isMapped() ? state.slotCount : state.usedCount) - 1);
        return isUsed(state.curSlot) ? int16_t{RM_SUCCESS} : prev();
    }

    int16_t prev()
    {
        // Slots that do not exist are not used, so the steps over them can be taken at once.
        if (!(isMapped() && state.map.empty())) {
            state.curSlot = std::min(state.curSlot, state.slotCount);
        }
        while (state.curSlot != 0) {
            --state.curSlot;
            if (isUsed(state.curSlot)) {
                return RM_SUCCESS;
            }
        }
        return RM_NO_ELEMENT;
    }

    int16_t setHandle(uint16_t handle)
    {
        const bool used = isUsed(handle);
        state.curSlot = used ? handle : uint16_t{RM_NO_SLOT};
        return used ? RM_SUCCESS : RM_NOT_FOUND;
    }

    int16_t getHandle() const { return state.curSlot == RM_NO_SLOT ? RM_NO_ELEMENT : RM_SUCCESS; }

    // Of the address and of the bytes.
    int16_t read() const { return isPastEnd() ? RM_NO_ELEMENT : RM_SUCCESS; }

    // The bytes of the current slot, after a successful read.
    View current() const { return View(state.data).subspan(at(state.curSlot), ctl_.elementSize); }

    // Where the pointer in the current slot leads to, likewise.
    uintptr_t pointer() const { return pointerIn(current()); }

    // Nothing, with nothing changed, when the lookup would read unknown bytes.
    std::optional<Found> find(const void* key, const Memory& memory)
    {
        const uint16_t before = state.curSlot;
        const std::string logBefore = log_;
        std::optional<Found> found = search(static_cast<const unsigned char*>(key), memory);
        if (!found) {
            state.curSlot = before;
            log_ = logBefore;
        }
        return found;
    }

    static uint32_t mapBytes(uint32_t slots)
    {
        const uint32_t bytes = std::max<uint32_t>((slots + 7) / 8, 4);
        return bytes % 2 == 0 ? bytes : bytes + 1;
    }

  private:
    enum class Compared { kSame, kDifferent, kUnknown };

    static bool sameBytes(const void* a, const void* b, std::size_t count)
    {
        return count == 0 || std::memcmp(a, b, count) == 0;
    }

    bool is(uint16_t flag) const { return (ctl_.flags & flag) != 0; }

    std::size_t at(std::size_t slot) const { return slot * ctl_.elementSize; }

    void say(std::string_view line) { (log_ += line) += '\n'; }

    void zero(std::size_t slot)
    {
        std::fill_n(state.data.begin() + static_cast<std::ptrdiff_t>(at(slot)), ctl_.elementSize,
                    static_cast<unsigned char>(0));
    }

    static uint16_t maskOf(uint16_t slot) { return static_cast<uint16_t>(0x8000 >> (slot % 16)); }

    bool bit(uint16_t slot) const
    {
        return slot < state.slotCount && (state.map.at(slot / 16) & maskOf(slot)) != 0;
    }

    void mark(uint16_t slot, bool used)
    {
        if (state.map.empty()) {
            say("markSlotUsed failed");
            return;
        }
        uint16_t& word = state.map.at(slot / 16);
        word = static_cast<uint16_t>(used ? word | maskOf(slot) : word & ~maskOf(slot));
    }

    bool isUsed(uint16_t slot)
    {
        if (!isMapped()) {
            return slot < state.usedCount;
        }
        if (state.map.empty()) {
            say("markSlotUsed failed");
            return true;
        }
        return bit(slot);
    }

    bool isPastEnd() const
    {
        return state.curSlot == RM_NO_SLOT ||
               state.curSlot >= (isMapped() || isRing() ? state.slotCount : state.usedCount);
    }

    int16_t chooseSlot(std::size_t* slot)
    {
        if (state.usedCount >= state.slotCount) {
            return grow(slot);
        }
        *slot = state.usedCount;
        if (isRing()) {
            *slot = state.nextSlot;
            state.curSlot = state.nextSlot++;
            if (state.nextSlot == state.slotCount) {
                state.nextSlot = 0;
            }
        } else if (isMapped()) {
            uint16_t hole = 0;
            while (!state.map.empty() && hole < state.slotCount && bit(hole)) {
                ++hole;
            }
            if (state.map.empty() || hole == state.slotCount) {
                say("findEmptySlot failed");
                return RM_INVALID;
            }
            *slot = hole;
            state.curSlot = hole;
        }
        return RM_SUCCESS;
    }

    int16_t grow(std::size_t* slot)
    {
        const uint16_t old = state.slotCount;
        const int increment = old < ctl_.growThreshold ? ctl_.growIncrement : old;
        if (increment == 0 || old + increment > UINT16_MAX) {
            return RM_OUT_OF_MEMORY;
        }
        state.slotCount = static_cast<uint16_t>(old + increment);
        state.data.resize(at(state.slotCount));
        if (!isRing() && !isMapped()) {
            unknownFrom_ = at(old) + (holdsPointers() ? sizeof(void*) : ctl_.elementSize);
        }
        if (isRing()) {
            state.curSlot = state.nextSlot;
            if (state.nextSlot < state.usedCount) {
                moveBytes(old, increment);
            }
        }
        if (isMapped()) {
            if (!state.map.empty()) {
                state.map.resize(mapBytes(state.slotCount) / 2);
            }
            state.curSlot = old;
        }
        *slot = state.usedCount;
        state.nextSlot = static_cast<uint16_t>(state.usedCount + 1);
        if (isRing() && state.nextSlot == state.slotCount) {
            state.nextSlot = 0;
        }
        return RM_SUCCESS;
    }

    void moveBytes(std::ptrdiff_t old, std::ptrdiff_t increment)
    {
        const Bytes before = state.data;
        const std::ptrdiff_t target = old * ctl_.elementSize - 1;
        const std::ptrdiff_t source = target - increment * ctl_.elementSize;
        const std::ptrdiff_t length =
            std::ptrdiff_t{state.usedCount - state.nextSlot} * ctl_.elementSize;
        const auto inside = [&before](std::ptrdiff_t position) {
            return position >= 0 && position < std::ssize(before);
        };
        for (std::ptrdiff_t i = 0; i < length; ++i) {
            if (inside(source + i) && inside(target + i)) {
                state.data[static_cast<std::size_t>(target + i)] =
                    before[static_cast<std::size_t>(source + i)];
            }
        }
    }

    static uintptr_t pointerIn(View bytes)
    {
        uintptr_t address = 0;
        std::memcpy(&address, bytes.data(), sizeof(address));
        return address;
    }

    std::optional<Found> search(const unsigned char* key, const Memory& memory)
    {
        if (first() != RM_SUCCESS) {
            return Found{};
        }
        const int kind = ctl_.flags & 0x7F;
        if (kind == BAG_KEY_STRING || kind == BAG_KEY_ISTRING) {
            if (*key == '\0') {
                return Found{};
            }
        } else if (kind != BAG_KEY_BINARY) {
            say("can't bagFind");
            return Found{RM_INVALID};
        }
        do {
            switch (compareCurrent(key, memory)) {
                case Compared::kSame:
                    return Found{RM_SUCCESS, state.curSlot};
                case Compared::kUnknown:
                    return std::nullopt;
                default:
                    break;
            }
        } while (next() == RM_SUCCESS);
        return Found{};
    }

    // The slot, or the element that the pointer in it leads to, from its key on; then, with
    // indirect keys, the key itself.
    Compared compareCurrent(const unsigned char* key, const Memory& memory) const
    {
        View bytes = View(state.data).subspan(at(state.curSlot));
        if (holdsPointers()) {
            if (pointerIn(bytes) == 0) {
                return Compared::kDifferent;
            }
            bytes = memory(pointerIn(bytes));
        }
        if (bytes.size() < ctl_.keyOffset) {
            return Compared::kUnknown;
        }
        bytes = bytes.subspan(ctl_.keyOffset);
        if (is(BAG_KEY_INDIRECT)) {
            if (bytes.size() < sizeof(uintptr_t)) {
                return Compared::kUnknown;
            }
            if (pointerIn(bytes) == 0) {
                return Compared::kDifferent;
            }
            bytes = memory(pointerIn(bytes));
        }
        return compare(key, bytes);
    }

    static unsigned char lower(unsigned char c)
    {
        return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
    }

    Compared compare(const unsigned char* key, View candidate) const
    {
        const int kind = ctl_.flags & 0x7F;
        const auto end = std::find(candidate.begin(), candidate.end(), 0);
        if (kind == BAG_KEY_BINARY ? candidate.size() < ctl_.keyLength : end == candidate.end()) {
            return Compared::kUnknown;
        }
        const std::size_t length = kind == BAG_KEY_BINARY
                                       ? ctl_.keyLength
                                       : static_cast<std::size_t>(end - candidate.begin()) + 1;
        for (std::size_t i = 0; i < length; ++i) {
            const bool folded = kind == BAG_KEY_ISTRING;
            if (folded ? lower(key[i]) != lower(candidate[i]) : key[i] != candidate[i]) {
                return Compared::kDifferent;
            }
        }
        return Compared::kSame;
    }

    BagCtl ctl_;
    std::string log_;
    std::size_t unknownFrom_ = SIZE_MAX;  // after a growth
};

}  // namespace rmtest

#endif
