// Dynamic arrays that are large in every direction, what lookups leave alone, and where the line of
// a damaged array goes.
#include "tests/containers/darray_case.h"

#include <limits>

#include <gmock/gmock.h>

using namespace arraytest;

namespace
{
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::logLines;
using rmtest::readFile;
using ::testing::IsEmpty;

constexpr int16_t kLargest = std::numeric_limits<int16_t>::max();

class DArrayLarge : public ArrayTest
{
  protected:
    // Each record's bytes are the low byte of its index, and the last ones all of it.
    static void write(void* record, int16_t index, int16_t size)
    {
        std::memset(record, index & 0xFF, static_cast<std::size_t>(size));
        std::memcpy(static_cast<char*>(record) + size - 2, &index, sizeof(index));
    }
};

class DArrayLog : public ArrayTest
{
  protected:
    void SetUp() override
    {
        ArrayTest::SetUp();
        rm_systemLog(2);
        rm_systemLogOpen("server.log");
    }

    void TearDown() override
    {
        rm_systemLogClose();
        rm_syncTerminate();
        ArrayTest::TearDown();
    }
};

class DArrayLookup : public ArrayTest
{
};

// --- Large arrays

TEST_F(DArrayLarge, HaveRecordsBeyondTheFirst65535BytesOfABlock)
{
    constexpr int16_t kSize = 1000;
    DArray* array = make(200, 100, kSize);
    std::vector<void*> records;
    for (int16_t index = 0; index < 200; ++index) {
        records.push_back(create(array).data);
        write(records.back(), index, kSize);
    }
    for (int16_t index = 0; index < 200; ++index) {
        const char* first = array->blocks[index / 100]->data;
        ASSERT_EQ(darrayGetEntryPtr(array, index), first + std::ptrdiff_t{index % 100} * kSize);
        ASSERT_EQ(darrayGetEntryPtr(array, index), records.at(static_cast<std::size_t>(index)));
        void* found = kUntouched;
        ASSERT_EQ(darrayGetEntryFromData(array, &index, kSize - 2, 2, 0, &found), index);
        ASSERT_EQ(found, records.at(static_cast<std::size_t>(index)));
    }
}

TEST_F(DArrayLarge, HaveRecordsOf32767Bytes)
{
    DArray* array = make(6, 3, kLargest);
    for (int16_t index = 0; index < 6; ++index) {
        const Made made = create(array);
        ASSERT_EQ(made.index, index);
        write(made.data, index, kLargest);
    }
    for (int16_t index = 0; index < 6; ++index) {
        std::string expected(std::size_t{kLargest}, '\0');
        write(expected.data(), index, kLargest);
        const void* record = darrayGetEntryPtr(array, index);
        EXPECT_EQ(std::memcmp(record, expected.data(), expected.size()), 0) << index;
        EXPECT_EQ(darrayGetEntryFromData(array, &index, kLargest - 2, 2, 0, nullptr), index);
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_F(DArrayLarge, HaveAsManyBlocksAsEntries)
{
    DArray* array = make(kLargest, 1, 0);
    EXPECT_EQ(createMany(array, kLargest), upFrom(0, kLargest));
    EXPECT_EQ(create(array).index, -1);
    EXPECT_EQ(array->blockCount, kLargest);
    darrayDeleteEntry(array, kLargest - 1);
    EXPECT_EQ(create(array, "last").index, kLargest - 1);
    EXPECT_EQ(darrayFindEntry(array, "last", nullptr), kLargest - 1);
}

// --- Lookups

TEST_F(DArrayLookup, AsksTheSystemForNothingAndChangesNothing)
{
    DArray* array = makeWith(15, 20, 10);
    fillRecords(array, 15, '.');
    darrayDeleteEntry(array, 3);
    const DArray before = *array;
    const Slots free = freeList(array, 0);
    rmtest::resetCalls();
    darrayFindEntry(array, "entry", nullptr);
    darrayFindEntry(array, "other", nullptr);
    darrayGetEntryFromData(array, "x", 0, 1, 0, nullptr);
    darrayGetEntryFromData(array, "x", 0, 1, 1, nullptr);
    darrayGetFirstUsedEntry(array);
    darrayGetEntryPtr(array, 3);
    darrayGetEntryName(array, 3);
    darrayGetEntryName(array, 20);
    EXPECT_THAT(callTrace(), IsEmpty());
    EXPECT_EQ(std::memcmp(array, &before, sizeof(before)), 0);
    EXPECT_EQ(freeList(array, 0), free);
}

TEST_F(DArrayLookup, ByDataFindsAnEntryWhoseNameIsEmpty)
{
    DArray* array = makeWith(1, 20, 10);
    std::memcpy(darrayGetEntryPtr(array, 0), "........", 8);
    const Made made = create(array, "");
    std::memcpy(made.data, "contents", 8);
    EXPECT_EQ(darrayGetEntryFromData(array, "content", 0, 7, 0, nullptr), made.index);
    EXPECT_EQ(darrayGetEntryFromData(array, "content", 0, 7, 1, nullptr), made.index);
}

// --- The log

TEST_F(DArrayLog, FileHasTheLineOfADamagedArrayFirst)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 3);
    darrayDeleteEntry(array, 3);
    create(array);
    captureStderr([&] { EXPECT_EQ(catchFatal([&] { create(array); }), 1); });
    const Lines lines = logLines(readFile("server.log"));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "Corruption in dynamic arrays");
    forget(array);
}

}  // namespace
