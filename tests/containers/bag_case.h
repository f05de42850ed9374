// What the tests of bags share: control records, bags that are given back when the case ends, and a
// way to draw one.
//
// A drawing has a letter for each slot of one byte, "." for a zero byte, then the current position,
// "-" for nowhere: "ab.d @1". Rings add the next slot, "abcd @1 >2", and slot maps the used slots,
// "ab.d x..x @1".
#ifndef RM_TESTS_CONTAINERS_BAG_CASE_H
#define RM_TESTS_CONTAINERS_BAG_CASE_H

#include "tests/support/faults.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace bagtest
{

using rmtest::Call;
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::logLines;
using rmtest::ScopedFault;

using Lines = std::vector<std::string>;
using Numbers = std::vector<uint16_t>;  // flags, counts, slots

inline const char* const kNoMark = "markSlotUsed failed";
inline const char* const kNoSlotFound = "findEmptySlot failed";
inline const char* const kNoKind = "can't bagFind";

// The three kinds of bag.
constexpr uint16_t kCompact = 0;
constexpr uint16_t kMapped = BAG_SLOT_MAP;
constexpr uint16_t kRing = BAG_RING;

// Slots of one byte unless the case says otherwise.
struct Shape {
    uint16_t flags = kCompact;
    uint16_t initialSlots = 4;
    uint16_t growIncrement = 4;
    uint16_t growThreshold = 100;
    uint16_t elementSize = 1;
    Tag tag = 0;
    uint32_t keyOffset = 0;
    uint16_t keyLength = 0;
};

inline BagCtl control(const Shape& shape)
{
    return {shape.flags,       shape.initialSlots, shape.growIncrement, shape.growThreshold,
            shape.elementSize, shape.tag,          shape.keyOffset,     shape.keyLength};
}

// What `body` logs.
inline Lines linesOf(const std::function<void()>& body)
{
    return logLines(captureStderr(body));
}

// The slots and the positions.
inline std::string draw(const Bag* bag)
{
    const auto* bytes = static_cast<const char*>(bag->data);
    std::string text(bytes, bytes + std::size_t{bag->slotCount} * bag->ctl->elementSize);
    std::replace(text.begin(), text.end(), '\0', '.');
    if ((bag->ctl->flags & BAG_SLOT_MAP) != 0) {
        text += ' ';
        for (uint16_t slot = 0; slot < bag->slotCount; ++slot) {
            text += bags::isSlotUsed(bag, slot) == 1 ? 'x' : '.';
        }
    }
    text += " @" + (bag->curSlot == RM_NO_SLOT ? "-" : std::to_string(bag->curSlot));
    if ((bag->ctl->flags & BAG_RING) != 0) {
        text += " >" + std::to_string(bag->nextSlot);
    }
    return text;
}

// All of a bag: its record and every byte that it owns.
inline std::string snapshot(const Bag* bag)
{
    std::string bytes(reinterpret_cast<const char*>(bag), sizeof(*bag));
    if (bag->data != nullptr) {
        bytes.append(static_cast<const char*>(bag->data),
                     std::size_t{bag->slotCount} * bag->ctl->elementSize);
    }
    if (bag->slotMap != nullptr) {
        bytes.append(reinterpret_cast<const char*>(bag->slotMap),
                     bags::usedSlotMapBytes(bag->slotCount));
    }
    return bytes;
}

// Cases leave sound bags, which are destroyed and leave nothing under tag 0.
class BagTest : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        for (Bag* bag : bags_) {
            EXPECT_EQ(bags::checkBag(bag), 0U);
            EXPECT_EQ(bagDestroy(bag), RM_SUCCESS);
        }
        if (rmalloc::nTags > 0) {
            EXPECT_EQ(rmalloc::tagTable[0].allocated, 0U) << "memory of bags is left";
        }
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        RmTest::TearDown();
    }

    Bag* makeFrom(const BagCtl& ctl)
    {
        controls_.push_back(ctl);
        Bag* bag = nullptr;
        EXPECT_EQ(bagCreate(&controls_.back(), &bag), RM_SUCCESS);
        bags_.push_back(bag);
        return bag;
    }

    Bag* make(const Shape& shape) { return makeFrom(control(shape)); }

    // A bag of one-byte slots with an element for each letter.
    Bag* make(const Shape& shape, std::string_view letters)
    {
        Bag* bag = make(shape);
        addAll(bag, letters);
        return bag;
    }

    static void addAll(Bag* bag, std::string_view letters)
    {
        for (const char letter : letters) {
            ASSERT_EQ(bagAdd(bag, &letter), RM_SUCCESS);
        }
    }

    static void fill(Bag* bag, uint32_t elements)
    {
        const std::vector<char> element(bag->ctl->elementSize, 'e');
        for (uint32_t i = 0; i < elements; ++i) {
            ASSERT_EQ(bagAdd(bag, element.data()), RM_SUCCESS);
        }
    }

    // Deletes what stands in a slot that is used.
    static int16_t deleteAt(Bag* bag, uint16_t slot)
    {
        EXPECT_EQ(bagSetCurHandle(bag, slot), RM_SUCCESS);
        return bagDelete(bag);
    }

    // The map of a bag goes, as if its memory could not be had.
    static void loseMap(Bag* bag) { rm_zFreeMemory(&bag->slotMap, bag->ctl->tag); }

  private:
    std::deque<BagCtl> controls_;  // which do not move
    std::vector<Bag*> bags_;
};

}  // namespace bagtest

#endif
