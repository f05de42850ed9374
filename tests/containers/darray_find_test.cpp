// Looking into a dynamic array: by name, by what is in a record, by index.
#include "tests/containers/darray_case.h"

#include <limits>
#include <memory>
#include <string_view>

#include <gmock/gmock.h>

using namespace arraytest;

namespace
{

constexpr uint16_t kBytes = 0;
constexpr uint16_t kText = 1;

// What a lookup gave: the index, and what was stored as the address of the record.
struct Found {
    int16_t index;
    void* data;

    bool operator==(const Found&) const = default;
};

void PrintTo(const Found& found, std::ostream* out)
{
    *out << found.index << " at " << found.data;
}

const Found kNothing = {-1, nullptr};

Found find(DArray* array, const char* name)
{
    Found found = {0, kUntouched};
    found.index = darrayFindEntry(array, name, &found.data);
    return found;
}

Found findData(DArray* array, std::string_view key, int16_t offset, uint16_t mode)
{
    Found found = {0, kUntouched};
    // As large as the key, so that a sanitizer sees a read beyond it.
    const std::unique_ptr<char[]> bytes(new char[key.size()]);
    key.copy(bytes.get(), key.size());
    found.index = darrayGetEntryFromData(array, bytes.get(), offset,
                                         static_cast<uint16_t>(key.size()), mode, &found.data);
    return found;
}

Found entryAt(DArray* array, int16_t index)
{
    return {index, darrayGetEntryPtr(array, index)};
}

class DArrayFind : public ArrayTest
{
};

class DArrayFirstUsed : public ArrayTest
{
};

class DArrayGetEntry : public ArrayTest
{
};

// Records of 8 bytes, each block of memory its own allocation.
class DArrayFromData : public ArrayTest
{
  protected:
    void SetUp() override
    {
        ArrayTest::SetUp();
        segmentsOfOneBlock();
        array_ = make(100, 4, kSize);
    }

    int16_t add(std::string_view record, const char* name = "entry")
    {
        const Made made = create(array_, name);
        EXPECT_EQ(record.size(), std::size_t{kSize});
        std::memcpy(made.data, record.data(), std::size_t{kSize});
        return made.index;
    }

    static constexpr int16_t kSize = 8;

    DArray* array_ = nullptr;
};

// --- By name

TEST_F(DArrayFind, OnANewArrayFindsNothing)
{
    EXPECT_EQ(find(make(100, 10, 8), "name"), kNothing);
}

TEST_F(DArrayFind, GivesIndexAndRecord)
{
    DArray* array = makeWith(12, 100, 10);
    const Made made = create(array, "wanted");
    createMany(array, 12);
    EXPECT_EQ(find(array, "wanted"), (Found{made.index, made.data}));
}

TEST_F(DArrayFind, ComparesTheTextAndNotThePointer)
{
    DArray* array = make(100, 10, 8);
    const std::string name = "name";
    create(array, name.c_str());
    const std::string same = "name";
    EXPECT_EQ(find(array, same.c_str()), entryAt(array, 0));
}

TEST_F(DArrayFind, TakesTheWholeName)
{
    DArray* array = make(100, 10, 8);
    create(array, "names");
    create(array, "nam");
    create(array, "");
    EXPECT_EQ(find(array, "name"), kNothing);
    EXPECT_EQ(find(array, ""), entryAt(array, 2));
}

TEST_F(DArrayFind, TellsUpperFromLowerCase)
{
    DArray* array = make(100, 10, 8);
    create(array, "Name");
    EXPECT_EQ(find(array, "name"), kNothing);
}

TEST_F(DArrayFind, OfSeveralGivesTheLowestIndex)
{
    DArray* array = makeWith(30, 100, 10);
    for (const int16_t index : Slots{17, 5, 25}) {
        darrayDeleteEntry(array, index);
    }
    EXPECT_EQ(create(array, "wanted").index, 5);
    EXPECT_EQ(create(array, "wanted").index, 17);
    EXPECT_EQ(create(array, "wanted").index, 25);
    EXPECT_EQ(find(array, "wanted"), entryAt(array, 5));
    darrayDeleteEntry(array, 5);
    EXPECT_EQ(find(array, "wanted"), entryAt(array, 17));
}

TEST_F(DArrayFind, GoesByIndexAndNotByAge)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 8);
    create(array, "wanted");
    darrayDeleteEntry(array, 2);
    create(array, "wanted");
    EXPECT_EQ(find(array, "wanted"), entryAt(array, 2));
}

TEST_F(DArrayFind, LooksIntoTheLastSlotOfTheLastBlock)
{
    DArray* array = makeWith(19, 20, 10);
    EXPECT_EQ(create(array, "wanted").index, 19);
    EXPECT_EQ(find(array, "wanted"), entryAt(array, 19));
}

TEST_F(DArrayFind, SkipsDeletedEntries)
{
    DArray* array = make(100, 10, 8);
    create(array, "wanted");
    darrayDeleteEntry(array, 0);
    EXPECT_EQ(find(array, "wanted"), kNothing);
}

TEST_F(DArrayFind, NeedsNoPlaceForTheAddress)
{
    DArray* array = make(100, 10, 8);
    EXPECT_EQ(darrayFindEntry(array, "wanted", nullptr), -1);
    create(array, "wanted");
    EXPECT_EQ(darrayFindEntry(array, "wanted", nullptr), 0);
    EXPECT_EQ(darrayFindEntry(array, "other", nullptr), -1);
}

// --- The first one in use

TEST_F(DArrayFirstUsed, OfANewArrayIsNone)
{
    EXPECT_EQ(darrayGetFirstUsedEntry(make(100, 10, 8)), -1);
}

TEST_F(DArrayFirstUsed, IsTheLowestIndexInUse)
{
    DArray* array = makeWith(25, 100, 10);
    EXPECT_EQ(darrayGetFirstUsedEntry(array), 0);
    darrayDeleteEntry(array, 0);
    EXPECT_EQ(darrayGetFirstUsedEntry(array), 1);
    for (const int16_t index : upFrom(1, 22)) {
        darrayDeleteEntry(array, index);
    }
    EXPECT_EQ(darrayGetFirstUsedEntry(array), 23);
    EXPECT_EQ(create(array).index, 9);
    EXPECT_EQ(darrayGetFirstUsedEntry(array), 9);
}

TEST_F(DArrayFirstUsed, OfAnEmptiedArrayIsNone)
{
    DArray* array = makeWith(12, 100, 10);
    for (const int16_t index : upFrom(0, 12)) {
        darrayDeleteEntry(array, index);
    }
    EXPECT_EQ(darrayGetFirstUsedEntry(array), -1);
}

TEST_F(DArrayFirstUsed, CountsAnEmptyName)
{
    DArray* array = make(100, 10, 8);
    create(array, "");
    EXPECT_EQ(darrayGetFirstUsedEntry(array), 0);
}

// --- By index

TEST_F(DArrayGetEntry, GivesNameAndRecord)
{
    DArray* array = makeWith(12, 100, 10);
    const char* name = "name";
    const Made made = create(array, name);
    EXPECT_EQ(darrayGetEntryName(array, made.index), name);
    EXPECT_EQ(darrayGetEntryPtr(array, made.index), made.data);
}

TEST_F(DArrayGetEntry, OfADeletedOneGivesTheRecordAndNoName)
{
    DArray* array = make(100, 10, 8);
    const Made made = create(array);
    darrayDeleteEntry(array, made.index);
    EXPECT_EQ(darrayGetEntryName(array, made.index), nullptr);
    EXPECT_EQ(darrayGetEntryPtr(array, made.index), made.data);
}

TEST_F(DArrayGetEntry, OfOneThatWasNeverUsedGivesTheRecordAndNoName)
{
    DArray* array = makeWith(1, 100, 10);
    EXPECT_EQ(darrayGetEntryPtr(array, 9), array->blocks[0]->data + std::ptrdiff_t{9} * 8);
    EXPECT_EQ(darrayGetEntryName(array, 9), nullptr);
}

// --- By what is in the record: all bytes

TEST_F(DArrayFromData, OnANewArrayFindsNothing)
{
    EXPECT_EQ(findData(array_, "key", 0, kBytes), kNothing);
    EXPECT_EQ(findData(array_, "key", 0, kText), kNothing);
}

TEST_F(DArrayFromData, FindsBytesAtAnOffset)
{
    add("ABCDEFGH");
    add("abcdefgh");
    EXPECT_EQ(findData(array_, "cde", 2, kBytes), entryAt(array_, 1));
    EXPECT_EQ(findData(array_, "cde", 1, kBytes), kNothing);
    EXPECT_EQ(findData(array_, "cdx", 2, kBytes), kNothing);
    EXPECT_EQ(findData(array_, "CDE", 2, kBytes), entryAt(array_, 0));
}

TEST_F(DArrayFromData, ComparesAllBytesBehindAZeroToo)
{
    add(std::string_view("ab\0cdefg", 8));
    EXPECT_EQ(findData(array_, {"ab\0c", 4}, 0, kBytes), entryAt(array_, 0));
    EXPECT_EQ(findData(array_, {"ab\0x", 4}, 0, kBytes), kNothing);
}

TEST_F(DArrayFromData, OfSeveralGivesTheLowestIndex)
{
    for (int i = 0; i < 12; ++i) {
        add(i % 3 == 1 ? "wanted.." : "other...");
    }
    EXPECT_EQ(findData(array_, "want", 0, kBytes), entryAt(array_, 1));
    EXPECT_EQ(findData(array_, "want", 0, kText), entryAt(array_, 1));
    darrayDeleteEntry(array_, 1);
    darrayDeleteEntry(array_, 4);
    EXPECT_EQ(findData(array_, "want", 0, kBytes), entryAt(array_, 7));
    EXPECT_EQ(findData(array_, "want", 0, kText), entryAt(array_, 7));
}

TEST_F(DArrayFromData, SkipsDeletedEntriesWhoseBytesAreStillThere)
{
    add("wanted..");
    darrayDeleteEntry(array_, 0);
    EXPECT_EQ(std::memcmp(darrayGetEntryPtr(array_, 0), "wanted..", 8), 0);
    EXPECT_EQ(findData(array_, "wanted..", 0, kBytes), kNothing);
    EXPECT_EQ(findData(array_, "wanted..", 0, kText), kNothing);
}

TEST_F(DArrayFromData, AKeyOfNoBytesIsInTheFirstUsedRecord)
{
    add("abcdefgh");
    add("ABCDEFGH");
    darrayDeleteEntry(array_, 0);
    EXPECT_EQ(findData(array_, "", 0, kBytes), entryAt(array_, 1));
    EXPECT_EQ(findData(array_, "", 8, kBytes), entryAt(array_, 1));
    EXPECT_EQ(findData(array_, "", 3, kText), entryAt(array_, 1));
    EXPECT_EQ(findData(array_, "", 8, kText), entryAt(array_, 1));
}

TEST_F(DArrayFromData, NeedsNoPlaceForTheAddress)
{
    add("abcdefgh");
    EXPECT_EQ(darrayGetEntryFromData(array_, "cd", 2, 2, kBytes, nullptr), 0);
    EXPECT_EQ(darrayGetEntryFromData(array_, "xx", 2, 2, kBytes, nullptr), -1);
    EXPECT_EQ(darrayGetEntryFromData(array_, "xx", 7, 2, kBytes, nullptr), -1);
}

// --- Texts

TEST_F(DArrayFromData, ATextEndsAtItsZero)
{
    add(std::string_view("ab\0cdefg", 8));
    EXPECT_EQ(findData(array_, {"ab\0x", 4}, 0, kText), entryAt(array_, 0));
    EXPECT_EQ(findData(array_, {"abc\0", 4}, 0, kText), kNothing);
    EXPECT_EQ(findData(array_, {"a\0bc", 4}, 0, kText), kNothing);
}

TEST_F(DArrayFromData, ATextIsComparedUpToTheLengthAtMost)
{
    add("abcdefgh");
    EXPECT_EQ(findData(array_, "abc", 0, kText), entryAt(array_, 0));
    EXPECT_EQ(darrayGetEntryFromData(array_, "abcX", 0, 3, kText, nullptr), 0);
    EXPECT_EQ(darrayGetEntryFromData(array_, "abcX", 0, 4, kText, nullptr), -1);
}

TEST_F(DArrayFromData, TheFirstBitOfTheModeDecides)
{
    add(std::string_view("ab\0cdefg", 8));
    const std::string_view key{"ab\0x", 4};  // the record's as a text, not as bytes
    for (const uint16_t mode : std::vector<uint16_t>{0, 2, 4, 0x8000, 0xFFFE}) {
        EXPECT_EQ(findData(array_, key, 0, mode), kNothing) << mode;
    }
    for (const uint16_t mode : std::vector<uint16_t>{1, 3, 5, 0x8001, 0xFFFF}) {
        EXPECT_EQ(findData(array_, key, 0, mode), entryAt(array_, 0)) << mode;
    }
}

// --- The borders of the record. The last record of a block is the last one of its memory.

TEST_F(DArrayFromData, BytesUpToTheEndAreInside)
{
    for (int i = 0; i < 3; ++i) {
        add("........");
    }
    add("abcdefgh");
    EXPECT_EQ(findData(array_, "abcdefgh", 0, kBytes), entryAt(array_, 3));
    EXPECT_EQ(findData(array_, "gh", 6, kBytes), entryAt(array_, 3));
    EXPECT_EQ(findData(array_, "h", 7, kBytes), entryAt(array_, 3));
    EXPECT_EQ(findData(array_, "abcdefgh", 0, kText), entryAt(array_, 3));
    EXPECT_EQ(findData(array_, "gh", 6, kText), entryAt(array_, 3));
    EXPECT_EQ(findData(array_, "h", 7, kText), entryAt(array_, 3));
}

TEST_F(DArrayFromData, BytesBeyondTheEndAreInNoRecord)
{
    for (int i = 0; i < 4; ++i) {
        add("abcdefgh");
    }
    // Behind each record but the last one, these bytes do stand.
    EXPECT_EQ(findData(array_, "abcdefgha", 0, kBytes), kNothing);
    EXPECT_EQ(findData(array_, "ha", 7, kBytes), kNothing);
    EXPECT_EQ(findData(array_, "a", 8, kBytes), kNothing);
    EXPECT_EQ(findData(array_, "b", 9, kBytes), kNothing);
    EXPECT_EQ(findData(array_, "", 9, kBytes), kNothing);
    EXPECT_EQ(findData(array_, "a", std::numeric_limits<int16_t>::max(), kBytes), kNothing);
    EXPECT_EQ(findData(array_, std::string(65'535, 'a'), 0, kBytes), kNothing);
}

TEST_F(DArrayFromData, TextsBeyondTheEndAreInNoRecord)
{
    for (int i = 0; i < 4; ++i) {
        add("abcdefgh");
    }
    EXPECT_EQ(findData(array_, "abcdefgha", 0, kText), kNothing);
    EXPECT_EQ(findData(array_, "ha", 7, kText), kNothing);
    EXPECT_EQ(findData(array_, "a", 8, kText), kNothing);
    EXPECT_EQ(findData(array_, "b", 9, kText), kNothing);
    EXPECT_EQ(findData(array_, "", 9, kText), kNothing);
    EXPECT_EQ(findData(array_, "a", std::numeric_limits<int16_t>::max(), kText), kNothing);
}

TEST_F(DArrayFromData, BytesBeforeTheStartAreInNoRecord)
{
    for (int i = 0; i < 4; ++i) {
        add("abcdefgh");
    }
    for (const int16_t offset : {int16_t{-1}, int16_t{-8}, std::numeric_limits<int16_t>::min()}) {
        EXPECT_EQ(findData(array_, "h", offset, kBytes), kNothing) << offset;
        EXPECT_EQ(findData(array_, "h", offset, kText), kNothing) << offset;
        EXPECT_EQ(findData(array_, "", offset, kBytes), kNothing) << offset;
        EXPECT_EQ(findData(array_, "", offset, kText), kNothing) << offset;
    }
}

TEST_F(DArrayFromData, ATextThatFillsItsRecordEndsWithIt)
{
    for (int i = 0; i < 4; ++i) {
        add("abcdefgh");
    }
    EXPECT_EQ(findData(array_, {"abcdefgh\0", 9}, 0, kText), entryAt(array_, 0));
    EXPECT_EQ(findData(array_, {"gh\0more", 7}, 6, kText), entryAt(array_, 0));
    EXPECT_EQ(findData(array_, {"g\0", 2}, 6, kText), kNothing);
}

TEST_F(DArrayFromData, AShortTextIsFoundWithALengthBeyondTheRecord)
{
    for (int i = 0; i < 4; ++i) {
        add(std::string_view("name\0...", 8));
    }
    const char name[100] = "name";
    EXPECT_EQ(darrayGetEntryFromData(array_, name, 0, sizeof(name), kText, nullptr), 0);
    const char other[100] = "names";
    EXPECT_EQ(darrayGetEntryFromData(array_, other, 0, sizeof(other), kText, nullptr), -1);
    EXPECT_EQ(darrayGetEntryFromData(array_, "name", 0, 0xFFFF, kText, nullptr), 0);
}

TEST_F(DArrayFromData, RecordsOfNoBytesHoldNoByte)
{
    DArray* array = make(10, 5, 0);
    create(array);
    EXPECT_EQ(findData(array, "a", 0, kBytes), kNothing);
    EXPECT_EQ(findData(array, "a", 0, kText), kNothing);
    EXPECT_EQ(findData(array, "a", 1, kBytes), kNothing);
    EXPECT_EQ(findData(array, "", 0, kBytes), entryAt(array, 0));
}

}  // namespace
