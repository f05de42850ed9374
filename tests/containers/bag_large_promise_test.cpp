// Bags that are large in every direction: bytes of the data area, of an element, handles of a ring.
#include "tests/containers/bag_case.h"

using namespace bagtest;

namespace
{

class BagLarge : public BagTest
{
};

TEST_F(BagLarge, HaveSlotsBeyondTheFirst65535Bytes)
{
    constexpr uint16_t kSize = 1000;
    for (const uint16_t flags : {kCompact, kMapped}) {
        Bag* bag =
            make({.flags = flags, .initialSlots = 0, .growIncrement = 40, .elementSize = kSize});
        std::vector<char> element(kSize);
        for (uint16_t handle = 0; handle < 200; ++handle) {
            std::fill(element.begin(), element.end(), static_cast<char>(handle));
            ASSERT_EQ(bagAdd(bag, element.data()), RM_SUCCESS);
        }
        for (uint16_t handle = 0; handle < 200; ++handle) {
            std::fill(element.begin(), element.end(), static_cast<char>(handle));
            std::vector<char> copy(kSize);
            void* pointer = nullptr;
            ASSERT_EQ(bagSetCurHandle(bag, handle), RM_SUCCESS);
            ASSERT_EQ(bagGetCurData(bag, copy.data()), RM_SUCCESS);
            ASSERT_EQ(bagGetCurPtr(bag, &pointer), RM_SUCCESS);
            ASSERT_TRUE(copy == element) << handle;
            ASSERT_EQ(pointer, static_cast<char*>(bag->data) + std::ptrdiff_t{handle} * kSize);
        }
    }
}

TEST_F(BagLarge, FindKeysInSlotsBeyondTheFirst65535Bytes)
{
    Bag* bag = make({.flags = kMapped | BAG_KEY_BINARY,
                     .initialSlots = 100,
                     .elementSize = 1000,
                     .keyOffset = 990,
                     .keyLength = 2});
    std::vector<char> element(1000, 'e');
    for (uint16_t i = 0; i < 90; ++i) {
        std::memcpy(&element[990], &i, sizeof(i));
        ASSERT_EQ(bagAdd(bag, element.data()), RM_SUCCESS);
    }
    for (const uint16_t wanted : Numbers{0, 64, 65, 66, 89}) {
        uint16_t handle = 0;
        ASSERT_EQ(bagFind(bag, &wanted, &handle, nullptr), RM_SUCCESS) << wanted;
        EXPECT_EQ(handle, wanted);
    }
}

TEST_F(BagLarge, FindKeysBeyondTheFirst65535BytesOfAnElement)
{
    constexpr uint32_t kOffset = 70'000;
    Bag* bag = make({.flags = BAG_POINTERS | BAG_KEY_STRING,
                     .elementSize = sizeof(void*),
                     .keyOffset = kOffset});
    std::string one(kOffset + 8, '\0');
    std::string other = one;
    one.replace(kOffset, 3, "one");
    one.replace(kOffset - 65'536, 5, "other");
    other.replace(kOffset, 5, "other");
    bagAdd(bag, one.data());
    bagAdd(bag, other.data());
    uint16_t handle = 9;
    EXPECT_EQ(bagFind(bag, "other", &handle, nullptr), RM_SUCCESS);
    EXPECT_EQ(handle, 1);
    EXPECT_EQ(bagFind(bag, "one", &handle, nullptr), RM_SUCCESS);
    EXPECT_EQ(handle, 0);
}

TEST_F(BagLarge, GoRoundBehindTheLastHandleAsRings)
{
    Bag* bag = make({.flags = kRing, .initialSlots = 65535});
    fill(bag, 65534);
    EXPECT_EQ(bag->nextSlot, 65534);
    fill(bag, 1);
    EXPECT_EQ(bag->curSlot, 65534);
    EXPECT_EQ(bag->nextSlot, 0);
    EXPECT_EQ(bagFirst(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 0);
    EXPECT_EQ(bagLast(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 65534);
    deleteAt(bag, 0);
    addAll(bag, "n");
    EXPECT_EQ(bag->curSlot, 0);
    EXPECT_EQ(bagFirst(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 1);
    EXPECT_EQ(bagLast(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 0);
}

TEST_F(BagLarge, HaveElementsOf65535Bytes)
{
    constexpr uint16_t kSize = 65'535;
    for (const uint16_t flags : {kCompact, kMapped}) {
        Bag* bag =
            make({.flags = flags, .initialSlots = 2, .growIncrement = 2, .elementSize = kSize});
        for (const char letter : {'a', 'b', 'c'}) {
            const std::string element(kSize, letter);
            ASSERT_EQ(bagAdd(bag, element.data()), RM_SUCCESS);
        }
        for (const uint16_t handle : Numbers{0, 1, 2}) {
            std::string copy(std::size_t{kSize} + 1, '!');
            ASSERT_EQ(bagSetCurHandle(bag, handle), RM_SUCCESS);
            ASSERT_EQ(bagGetCurData(bag, copy.data()), RM_SUCCESS);
            EXPECT_TRUE(copy == std::string(kSize, "abc"[handle]) + '!') << handle;
        }
    }
}

}  // namespace
