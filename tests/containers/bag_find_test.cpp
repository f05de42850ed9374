// Lookup by key: the kinds of keys, where they stand, and which element is found.
#include "tests/containers/bag_case.h"

using namespace bagtest;

namespace
{

// An element with keys of every kind, none of them at its start.
struct Record {
    char number[4];
    char text[8];      // a key of a text kind, or 4 bytes of a binary one
    const char* name;  // an indirect key
};

constexpr uint32_t kTextOffset = offsetof(Record, text);
constexpr uint32_t kNameOffset = offsetof(Record, name);

class BagFind : public BagTest
{
  protected:
    // A bag of the discipline with a record for each text, which is its key both ways. With
    // BAG_POINTERS the records stay in `records`.
    Bag* makeRecords(uint16_t flags, const std::vector<const char*>& texts)
    {
        const bool pointers = (flags & BAG_POINTERS) != 0;
        const bool indirect = (flags & BAG_KEY_INDIRECT) != 0;
        Bag* bag =
            make({.flags = flags,
                  .initialSlots = 10,
                  .elementSize = pointers ? uint16_t{sizeof(void*)} : uint16_t{sizeof(Record)},
                  .keyOffset = indirect ? kNameOffset : kTextOffset,
                  .keyLength = 4});
        for (const char* text : texts) {
            Record record = {};
            record.name = text;
            if (text != nullptr) {
                std::string_view(text).copy(record.text, sizeof(record.text) - 1);
            }
            records.push_back(record);
            EXPECT_EQ(bagAdd(bag, &records.back()), RM_SUCCESS);
        }
        return bag;
    }

    // The handle of what is found, or the status as a negative number when it is not 0 or 2.
    static int find(Bag* bag, const char* key)
    {
        uint16_t handle = 9999;
        const int16_t status = bagFind(bag, key, &handle, nullptr);
        if (status != RM_SUCCESS) {
            EXPECT_EQ(handle, 9999);
            return -status;
        }
        EXPECT_EQ(handle, bag->curSlot);
        return handle;
    }

    static constexpr int kNotFound = -RM_NOT_FOUND;

    std::deque<Record> records;  // which do not move
};

// A discipline, and whether slots hold pointers and keys are pointed to.
class EveryLookup : public BagFind,
                    public ::testing::WithParamInterface<std::tuple<uint16_t, uint16_t, uint16_t>>
{
  protected:
    static uint16_t flags(int kind)
    {
        return static_cast<uint16_t>(std::get<0>(GetParam()) | std::get<1>(GetParam()) |
                                     std::get<2>(GetParam()) | kind);
    }
};

INSTANTIATE_TEST_SUITE_P(BagFind, EveryLookup,
                         ::testing::Combine(::testing::Values(kCompact, kMapped, kRing),
                                            ::testing::Values(0, BAG_POINTERS),
                                            ::testing::Values(0, BAG_KEY_INDIRECT)));

TEST_P(EveryLookup, FindsTextsOfTheSameCaseOnly)
{
    Bag* bag = makeRecords(flags(BAG_KEY_STRING), {"abc", "ABC", "abcd", "ab"});
    EXPECT_EQ(find(bag, "abc"), 0);
    EXPECT_EQ(find(bag, "ABC"), 1);
    EXPECT_EQ(find(bag, "abcd"), 2);
    EXPECT_EQ(find(bag, "ab"), 3);
    EXPECT_EQ(find(bag, "Abc"), kNotFound);
    EXPECT_EQ(find(bag, "a"), kNotFound);
    EXPECT_EQ(find(bag, "abcde"), kNotFound);
}

TEST_P(EveryLookup, FindsTextsOfAnyCase)
{
    Bag* bag = makeRecords(flags(BAG_KEY_ISTRING), {"aBc", "x", "ABcd"});
    EXPECT_EQ(find(bag, "ABC"), 0);
    EXPECT_EQ(find(bag, "abc"), 0);
    EXPECT_EQ(find(bag, "X"), 1);
    EXPECT_EQ(find(bag, "abCD"), 2);
    EXPECT_EQ(find(bag, "ab"), kNotFound);
    EXPECT_EQ(find(bag, "abcde"), kNotFound);
}

TEST_P(EveryLookup, FindsBytesOfTheLength)
{
    Bag* bag = makeRecords(flags(BAG_KEY_BINARY), {"abcd1", "abce2", "ab\0x", "ABCD"});
    EXPECT_EQ(find(bag, "abcd"), 0);
    EXPECT_EQ(find(bag, "abceXY"), 1);
    EXPECT_EQ(find(bag, "ABCD"), 3);
    EXPECT_EQ(find(bag, "abcx"), kNotFound);
    EXPECT_EQ(find(bag, "Abcd"), kNotFound);
}

TEST_P(EveryLookup, FindsTheFirstOfSeveral)
{
    Bag* bag = makeRecords(flags(BAG_KEY_STRING), {"x", "same", "y", "same", "same"});
    EXPECT_EQ(find(bag, "same"), 1);
}

TEST_P(EveryLookup, GivesTheElement)
{
    Bag* bag = makeRecords(flags(BAG_KEY_STRING), {"x", "y", "z"});
    void* pointer = nullptr;
    EXPECT_EQ(bagFind(bag, "y", nullptr, &pointer), RM_SUCCESS);
    const bool pointers = (bag->ctl->flags & BAG_POINTERS) != 0;
    EXPECT_EQ(pointer, pointers ? static_cast<void*>(&records[1])
                                : static_cast<char*>(bag->data) + sizeof(Record));
    void* current = nullptr;
    EXPECT_EQ(bagGetCurPtr(bag, &current), RM_SUCCESS);
    EXPECT_EQ(pointer, current);
}

TEST_P(EveryLookup, MakesTheMatchCurrent)
{
    Bag* bag = makeRecords(flags(BAG_KEY_STRING), {"x", "y", "z"});
    EXPECT_EQ(bagFind(bag, "y", nullptr, nullptr), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 1);
}

TEST_P(EveryLookup, EndsBehindTheElementsWhenNothingIsFound)
{
    Bag* bag = makeRecords(flags(BAG_KEY_STRING), {"x", "y", "z"});
    void* pointer = this;
    EXPECT_EQ(bagFind(bag, "w", nullptr, &pointer), RM_NOT_FOUND);
    EXPECT_EQ(pointer, this);
    EXPECT_EQ(bag->curSlot, (bag->ctl->flags & BAG_SLOT_MAP) != 0 ? 9 : 3);
}

TEST_P(EveryLookup, LooksFromTheFirstElementOnWhereverThePositionStands)
{
    Bag* bag = makeRecords(flags(BAG_KEY_STRING), {"x", "y", "z"});
    for (const uint16_t position : Numbers{0, 2, 5, 65534, 65535}) {
        bag->curSlot = position;
        EXPECT_EQ(find(bag, "x"), 0);
    }
}

TEST_P(EveryLookup, LogsNothing)
{
    Bag* bag = makeRecords(flags(BAG_KEY_ISTRING), {"x", "y"});
    EXPECT_EQ(linesOf([&] {
                  find(bag, "y");
                  find(bag, "w");
              }),
              Lines{});
}

// --- Empty keys

TEST_P(EveryLookup, NeverFindsTheEmptyText)
{
    for (const int kind : {BAG_KEY_STRING, BAG_KEY_ISTRING}) {
        Bag* bag = makeRecords(flags(kind), {"x", "", "z"});
        EXPECT_EQ(find(bag, ""), kNotFound);
        // It has gone to the first element and not looked at it.
        EXPECT_EQ(bag->curSlot, 0);
    }
}

TEST_P(EveryLookup, PassesElementsWithEmptyKeys)
{
    EXPECT_EQ(find(makeRecords(flags(BAG_KEY_STRING), {"", "x"}), "x"), 1);
    EXPECT_EQ(find(makeRecords(flags(BAG_KEY_ISTRING), {"", "x"}), "X"), 1);
}

TEST_P(EveryLookup, FindsBytesThatBeginWithZero)
{
    EXPECT_EQ(find(makeRecords(flags(BAG_KEY_BINARY), {"abcd", "\0\0\0"}), "\0\0\0\0"), 1);
}

TEST_F(BagFind, OfBytesOfNoLengthFindsTheFirst)
{
    Bag* bag = make({.flags = kMapped | BAG_KEY_BINARY}, "ab");
    EXPECT_EQ(find(bag, "x"), 0);
}

// --- Unknown kinds

TEST_P(EveryLookup, RefusesEveryOtherKind)
{
    for (int kind = 0; kind <= 0x7F; ++kind) {
        if (kind >= BAG_KEY_STRING && kind <= BAG_KEY_BINARY) {
            continue;
        }
        Bag* bag = makeRecords(flags(kind), {"x", "y"});
        bag->curSlot = 1;
        void* pointer = this;
        uint16_t handle = 77;
        int16_t status = 0;
        ASSERT_EQ(linesOf([&] { status = bagFind(bag, "y", &handle, &pointer); }), Lines{kNoKind});
        ASSERT_EQ(status, RM_INVALID) << kind;
        ASSERT_EQ(pointer, this);
        ASSERT_EQ(handle, 77);
        ASSERT_EQ(bag->curSlot, 0);
    }
}

TEST_P(EveryLookup, IsNotFoundInAnEmptyBagWhateverTheKind)
{
    for (const int kind : {0, BAG_KEY_STRING, BAG_KEY_ISTRING, BAG_KEY_BINARY, 4, 0x7F}) {
        Bag* bag = makeRecords(flags(kind), {});
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(find(bag, "x"), kNotFound); }), Lines{});
        EXPECT_EQ(bag->curSlot, RM_NO_SLOT);
    }
}

// --- Null

TEST_F(BagFind, PassesIndirectKeysThatAreNull)
{
    for (const int kind : {BAG_KEY_STRING, BAG_KEY_ISTRING, BAG_KEY_BINARY}) {
        Bag* bag = makeRecords(static_cast<uint16_t>(kind | BAG_KEY_INDIRECT), {nullptr, "wxyz"});
        EXPECT_EQ(find(bag, "wxyz"), 1);
        EXPECT_EQ(find(bag, "wxy"), kNotFound);
    }
}

TEST_F(BagFind, PassesElementsThatAreNull)
{
    for (const uint16_t indirect : Numbers{0, BAG_KEY_INDIRECT}) {
        Bag* bag = make({.flags = static_cast<uint16_t>(BAG_POINTERS | BAG_KEY_STRING | indirect),
                         .elementSize = sizeof(void*),
                         .keyOffset = indirect != 0 ? kNameOffset : kTextOffset});
        const Record record = {"", "x", "x"};
        bagAdd(bag, nullptr);
        bagAdd(bag, &record);
        EXPECT_EQ(find(bag, "x"), 1);
    }
}

TEST_F(BagFind, PassesDeletedPointersOfARing)
{
    Bag* bag = makeRecords(kRing | BAG_POINTERS | BAG_KEY_STRING, {"w", "x", "y", "z"});
    deleteAt(bag, 1);
    EXPECT_EQ(find(bag, "x"), kNotFound);
}

// --- What iteration does not reach

TEST_F(BagFind, DoesNotReachTheSixteenthOfSixteenElements)
{
    Bag* bag = make({.flags = kMapped | BAG_KEY_BINARY,
                     .initialSlots = 16,
                     .growIncrement = 16,
                     .keyLength = 1},
                    "abcdefghijklmnop");
    EXPECT_EQ(find(bag, "o"), 14);
    EXPECT_EQ(find(bag, "p"), kNotFound);
    EXPECT_EQ(bag->curSlot, 15);
    addAll(bag, "q");
    EXPECT_EQ(find(bag, "p"), 15);
}

TEST_F(BagFind, DoesNotFindWhatWasDeleted)
{
    Bag* bag = makeRecords(kMapped | BAG_KEY_STRING, {"x", "y", "x"});
    deleteAt(bag, 0);
    EXPECT_EQ(find(bag, "x"), 2);
    deleteAt(bag, 2);
    EXPECT_EQ(find(bag, "x"), kNotFound);
}

TEST_F(BagFind, DoesNotFindTheDeletedLastElementOfACompactBag)
{
    Bag* bag = makeRecords(BAG_KEY_STRING, {"x", "y"});
    deleteAt(bag, 1);
    EXPECT_EQ(find(bag, "y"), kNotFound);
}

TEST_F(BagFind, InARingGoesFromTheOldestToTheEndOfTheArea)
{
    Bag* bag = make({.flags = kRing | BAG_KEY_BINARY, .keyLength = 1}, "abcd");
    deleteAt(bag, 0);
    addAll(bag, "e");
    EXPECT_EQ(draw(bag), "ebcd @0 >1");
    EXPECT_EQ(find(bag, "b"), 1);
    EXPECT_EQ(find(bag, "d"), 3);
    EXPECT_EQ(find(bag, "e"), kNotFound);
}

TEST_F(BagFind, InTheFirstWordOfLongTextsComparesAll)
{
    const std::string text(1000, 'x');
    const std::string other = text.substr(1) + "y";
    Bag* bag = makeRecords(BAG_KEY_STRING | BAG_KEY_INDIRECT, {text.c_str(), other.c_str()});
    EXPECT_EQ(find(bag, other.c_str()), 1);
}

}  // namespace
