// Entries of a dynamic array: which one a creation takes, what a deletion leaves, and what happens
// when an entry is deleted twice or memory ends.
#include "tests/containers/darray_case.h"

#include <cerrno>
#include <functional>
#include <string_view>

#include <gmock/gmock.h>

using namespace arraytest;

namespace
{
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::ChildResult;
using rmtest::logLines;
using rmtest::runChild;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kCorruption = "Corruption in dynamic arrays";
constexpr const char* kShutdown = "Exiting to shutdown processing";

class DArrayEntry : public ArrayTest
{
};

class DArrayDelete : public ArrayTest
{
};

// The lines of a log without the banner, which comes once per process.
Lines withoutBanner(std::string_view log)
{
    Lines lines = logLines(log);
    std::erase_if(lines, [](const std::string& line) { return line.starts_with('*'); });
    return lines;
}

class DArrayDeletedTwice : public ArrayTest
{
  protected:
    // What a creation that must be fatal logs.
    static Lines fatalCreation(DArray* array)
    {
        int jumped = 0;
        const std::string log = captureStderr(
            [&] { jumped = catchFatal([&] { darrayCreateEntry(array, "entry", nullptr); }); });
        EXPECT_EQ(jumped, 1);
        return withoutBanner(log);
    }
};

class DArrayNoMemory : public ArrayTest
{
};

// --- Which entry a creation takes

TEST_F(DArrayEntry, TheFirstHasIndexZero)
{
    EXPECT_EQ(create(make(100, 10, 8)).index, 0);
}

TEST_F(DArrayEntry, NewOnesCountUpAcrossBlocks)
{
    EXPECT_EQ(createMany(make(100, 10, 8), 35), upFrom(0, 35));
}

TEST_F(DArrayEntry, ADeletedIndexOfAFullBlockIsTheNextOne)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 3);
    EXPECT_EQ(create(array).index, 3);
}

TEST_F(DArrayEntry, TheOneThatWasDeletedLastComesFirst)
{
    DArray* array = makeWith(10, 100, 10);
    for (const int16_t index : Slots{3, 7, 5}) {
        darrayDeleteEntry(array, index);
    }
    EXPECT_EQ(freeList(array, 0), (Slots{5, 7, 3}));
    EXPECT_EQ(createMany(array, 4), (Slots{5, 7, 3, 10}));
}

TEST_F(DArrayEntry, ADeletedOneComesBeforeThoseNeverUsed)
{
    DArray* array = makeWith(4, 100, 10);
    darrayDeleteEntry(array, 1);
    EXPECT_EQ(createMany(array, 3), (Slots{1, 4, 5}));
}

TEST_F(DArrayEntry, TheLowestBlockWithRoomComesBeforeTheOneDeletedLast)
{
    DArray* array = makeWith(30, 100, 10);
    darrayDeleteEntry(array, 14);
    darrayDeleteEntry(array, 4);
    darrayDeleteEntry(array, 24);
    darrayDeleteEntry(array, 12);
    EXPECT_EQ(createMany(array, 5), (Slots{4, 12, 14, 24, 30}));
}

TEST_F(DArrayEntry, RoomInALowerBlockIsFoundAfterAHigherOneWasUsed)
{
    DArray* array = makeWith(30, 100, 10);
    darrayDeleteEntry(array, 25);
    EXPECT_EQ(create(array).index, 25);
    darrayDeleteEntry(array, 0);
    EXPECT_EQ(create(array).index, 0);
    EXPECT_EQ(create(array).index, 30);
}

TEST_F(DArrayEntry, BlocksThatAreKnownToBeFullAreNotLookedAt)
{
    DArray* array = makeWith(21, 100, 10);
    EXPECT_EQ(array->firstWithRoom, ~2);
    darrayDeleteEntry(array, 13);
    EXPECT_EQ(array->firstWithRoom, 1);
    darrayDeleteEntry(array, 20);
    EXPECT_EQ(array->firstWithRoom, 1);
    createMany(array, 2);
    EXPECT_EQ(array->firstWithRoom, 2);
}

TEST_F(DArrayEntry, TheOnlyBlockWithRoomIsKnown)
{
    DArray* array = makeWith(30, 30, 10);
    EXPECT_EQ(array->firstWithRoom, 3);
    darrayDeleteEntry(array, 23);
    darrayDeleteEntry(array, 21);
    EXPECT_EQ(array->firstWithRoom, ~2);
    EXPECT_EQ(create(array).index, 21);
    EXPECT_EQ(array->firstWithRoom, ~2);
    EXPECT_EQ(create(array).index, 23);
    EXPECT_EQ(array->firstWithRoom, 3);
}

TEST_F(DArrayEntry, ASecondBlockWithRoomIsFoundBelowAndAboveTheOnlyOne)
{
    for (const int16_t second : {int16_t{3}, int16_t{23}}) {
        DArray* array = makeWith(30, 30, 10);
        darrayDeleteEntry(array, 13);
        darrayDeleteEntry(array, second);
        EXPECT_EQ(array->firstWithRoom, second == 3 ? 0 : 1);
        EXPECT_EQ(create(array).index, std::min<int16_t>(second, 13));
        EXPECT_EQ(create(array).index, std::max<int16_t>(second, 13));
        EXPECT_EQ(create(array).index, RM_NONE);
        EXPECT_EQ(array->firstWithRoom, 3);
        EXPECT_EQ(darrays::checkDArray(array), 0U);
    }
}

TEST_F(DArrayEntry, AFullArrayGivesMinusOne)
{
    DArray* array = makeWith(20, 20, 10);
    EXPECT_EQ(array->maxBlocks, 2);
    EXPECT_EQ(create(array).index, -1);
    EXPECT_EQ(create(array).index, -1);
    EXPECT_EQ(array->blockCount, 2);
}

TEST_F(DArrayEntry, AFullArrayLeavesTheCallersPointerAlone)
{
    DArray* array = makeWith(20, 20, 10);
    EXPECT_EQ(create(array).data, kUntouched);
}

TEST_F(DArrayEntry, AnArrayThatWasFullHasRoomAfterADeletion)
{
    DArray* array = makeWith(20, 20, 10);
    EXPECT_EQ(create(array).index, -1);
    darrayDeleteEntry(array, 6);
    EXPECT_EQ(create(array).index, 6);
    EXPECT_EQ(create(array).index, -1);
}

TEST_F(DArrayEntry, TheMaximumIsRoundedUpToWholeBlocks)
{
    EXPECT_EQ(createMany(make(11, 10, 8), 21).back(), -1);
    EXPECT_EQ(createMany(make(11, 10, 8), 20).back(), 19);
}

TEST_F(DArrayEntry, WithoutRoomForOneThereIsABlockAllTheSame)
{
    EXPECT_EQ(createMany(make(0, 3, 8), 4), (Slots{0, 1, 2, -1}));
}

// --- What it stores

TEST_F(DArrayEntry, StoresTheAddressOfItsRecord)
{
    DArray* array = make(100, 10, 8);
    const Made made = create(array);
    EXPECT_EQ(made.data, array->blocks[0]->data);
    EXPECT_EQ(create(array).data, array->blocks[0]->data + 8);
    EXPECT_EQ(darrayGetEntryPtr(array, made.index), made.data);
}

TEST_F(DArrayEntry, NeedsNoPlaceForTheAddress)
{
    DArray* array = make(100, 10, 8);
    EXPECT_EQ(darrayCreateEntry(array, "entry", nullptr), 0);
    EXPECT_STREQ(darrayGetEntryName(array, 0), "entry");
}

TEST_F(DArrayEntry, KeepsTheNameAsAPointer)
{
    DArray* array = make(100, 10, 8);
    std::array<char, 8> name = {"before"};
    create(array, name.data());
    EXPECT_EQ(darrayGetEntryName(array, 0), name.data());
    name = {"after"};
    EXPECT_EQ(darrayFindEntry(array, "after", nullptr), 0);
    EXPECT_EQ(darrayFindEntry(array, "before", nullptr), -1);
}

TEST_F(DArrayEntry, NeverMovesARecord)
{
    DArray* array = make(300, 10, 16);
    std::vector<Made> all;
    for (int i = 0; i < 300; ++i) {
        all.push_back(create(array));
        std::memset(all.back().data, i, 16);
    }
    for (int i = 0; i < 300; ++i) {
        const Made& made = all[static_cast<std::size_t>(i)];
        const std::string expected(16, static_cast<char>(i));
        ASSERT_EQ(darrayGetEntryPtr(array, made.index), made.data);
        ASSERT_EQ(std::memcmp(made.data, expected.data(), 16), 0) << i;
    }
}

// --- Deleting

TEST_F(DArrayDelete, TakesTheNameAway)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 4);
    EXPECT_EQ(darrayGetEntryName(array, 4), nullptr);
    EXPECT_STREQ(darrayGetEntryName(array, 3), "entry");
    EXPECT_STREQ(darrayGetEntryName(array, 5), "entry");
}

TEST_F(DArrayDelete, LeavesTheRecordWhereAndAsItWas)
{
    DArray* array = makeWith(10, 100, 10);
    void* record = darrayGetEntryPtr(array, 4);
    std::memcpy(record, "contents", 8);
    darrayDeleteEntry(array, 4);
    EXPECT_EQ(darrayGetEntryPtr(array, 4), record);
    EXPECT_EQ(std::memcmp(record, "contents", 8), 0);
    const Made again = create(array);
    EXPECT_EQ(again.data, record);
    EXPECT_EQ(std::memcmp(record, "contents", 8), 0);
}

TEST_F(DArrayDelete, LinksTheSlotBeforeTheFreeOnes)
{
    DArray* array = makeWith(7, 100, 10);
    darrayDeleteEntry(array, 2);
    EXPECT_EQ(freeList(array, 0), (Slots{2, 7, 8, 9}));
}

TEST_F(DArrayDelete, WorksInTheLastSlotOfTheLastBlock)
{
    DArray* array = makeWith(20, 20, 10);
    darrayDeleteEntry(array, 19);
    EXPECT_EQ(create(array).index, 19);
}

TEST_F(DArrayDelete, OfABadIndexChangesNothing)
{
    DArray* array = makeWith(20, 100, 10);
    const std::string log = captureStderr([&] {
        for (const int index : {-1, -10, -32'768, 20, 29, 30, 99, 100, 32'767}) {
            darrayDeleteEntry(array, static_cast<int16_t>(index));
        }
    });
    EXPECT_THAT(log, IsEmpty());
    for (const int16_t index : upFrom(0, 20)) {
        EXPECT_STREQ(darrayGetEntryName(array, index), "entry");
    }
    EXPECT_EQ(create(array).index, 20);
}

// --- Deleted twice

TEST_F(DArrayDeletedTwice, IsNotNoticedByTheDeletion)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 3);
    EXPECT_THAT(captureStderr([&] { darrayDeleteEntry(array, 3); }), IsEmpty());
    EXPECT_EQ(create(array).index, 3);
    forget(array);
}

TEST_F(DArrayDeletedTwice, LogsCorruptionAndJumpsAtTheSecondReuse)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 3);
    darrayDeleteEntry(array, 3);
    EXPECT_EQ(create(array).index, 3);
    EXPECT_THAT(fatalCreation(array), ElementsAre(kCorruption, kShutdown));
    forget(array);
}

TEST_F(DArrayDeletedTwice, IsFoundBehindAnotherEntryThatWasDeletedInBetween)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 3);
    darrayDeleteEntry(array, 8);
    darrayDeleteEntry(array, 3);
    EXPECT_EQ(createMany(array, 2), (Slots{3, 8}));
    EXPECT_THAT(fatalCreation(array), ElementsAre(kCorruption, kShutdown));
    forget(array);
}

TEST_F(DArrayDeletedTwice, AnEntryThatWasNeverUsedIsFoundToo)
{
    DArray* array = makeWith(4, 100, 10);
    darrayDeleteEntry(array, 6);  // still on the list behind 4 and 5
    EXPECT_EQ(createMany(array, 1), (Slots{6}));
    EXPECT_EQ(createMany(array, 2), (Slots{4, 5}));
    EXPECT_THAT(fatalCreation(array), ElementsAre(kCorruption, kShutdown));
    forget(array);
}

TEST_F(DArrayDeletedTwice, LeavesTheNameAndTheRecordsThatAreInUse)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 3);
    darrayDeleteEntry(array, 3);
    void* data = kUntouched;
    darrayCreateEntry(array, "first", &data);
    std::memcpy(data, "contents", 8);
    void* second = kUntouched;
    captureStderr(
        [&] { EXPECT_EQ(catchFatal([&] { darrayCreateEntry(array, "second", &second); }), 1); });
    EXPECT_STREQ(darrayGetEntryName(array, 3), "first");
    EXPECT_EQ(std::memcmp(data, "contents", 8), 0);
    EXPECT_EQ(second, kUntouched);
    forget(array);
}

TEST_F(DArrayDeletedTwice, IsWhatTheCheckerSees)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 3);
    darrayDeleteEntry(array, 3);
    captureStderr([&] { EXPECT_GT(darrays::checkDArray(array), 0U); });
    forget(array);
}

TEST_F(DArrayDeletedTwice, LeavesTheOtherArraysUsable)
{
    DArray* damaged = makeWith(10, 100, 10);
    DArray* sound = makeWith(10, 100, 10);
    darrayDeleteEntry(damaged, 3);
    darrayDeleteEntry(damaged, 3);
    create(damaged);
    EXPECT_THAT(fatalCreation(damaged), ElementsAre(kCorruption, kShutdown));
    EXPECT_EQ(create(sound).index, 10);
    destroy(damaged);
}

TEST_F(DArrayDeletedTwice, EndsAProcessWithoutATarget)
{
    const ChildResult result = runChild([] {
        DArray* array = darrayCreate(100, 10, 8);
        createMany(array, 10);
        darrayDeleteEntry(array, 3);
        darrayDeleteEntry(array, 3);
        createMany(array, 2);
        std::fputs("it came back\n", stderr);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(withoutBanner(result.err), ElementsAre(kCorruption, "Exiting to operating system"));
}

// --- Without memory

struct Piece {
    const char* name;
    int block;    // that is made when it fails
    int request;  // of the block's, in order
};

void PrintTo(const Piece& piece, std::ostream* out)
{
    *out << piece.name;
}

const Piece kPieces[] = {{"TheTable", 0, 0},         {"TheFirstBlock", 0, 1},
                         {"ItsHeaders", 0, 2},       {"ItsRecords", 0, 3},
                         {"AFurtherBlock", 1, 0},    {"TheFurtherHeaders", 1, 1},
                         {"TheFurtherRecords", 1, 2}};

class DArrayNoMemoryFor : public DArrayNoMemory, public ::testing::WithParamInterface<Piece>
{
  protected:
    // Fails the platform's memory at that request; each block of memory is a request of its own.
    static void makeItFail(const Piece& piece, DArray* array)
    {
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .skip = piece.request});
        void* data = kUntouched;
        const std::string log = captureStderr(
            [&] { EXPECT_EQ(catchFatal([&] { darrayCreateEntry(array, "lost", &data); }), 1); });
        EXPECT_THAT(log, ::testing::HasSubstr("Out of memory!"));
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(data, kUntouched);
    }
};

TEST_P(DArrayNoMemoryFor, IsFatalAndLeavesTheArrayAsItWas)
{
    segmentsOfOneBlock();
    const Piece& piece = GetParam();
    DArray* array = makeWith(piece.block * 5, 20, 5);
    makeItFail(piece, array);
    EXPECT_EQ(array->blockCount, piece.block);
    EXPECT_EQ(darrays::checkDArray(array), 0U);
    EXPECT_EQ(darrayFindEntry(array, "lost", nullptr), -1);
    EXPECT_EQ(darrayGetFirstUsedEntry(array), piece.block == 0 ? -1 : 0);
    EXPECT_EQ(darrayGetEntryPtr(array, static_cast<int16_t>(piece.block * 5)), nullptr);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_P(DArrayNoMemoryFor, LeavesAnArrayThatGoesOnWhenThereIsMemoryAgain)
{
    segmentsOfOneBlock();
    const Piece& piece = GetParam();
    DArray* array = makeWith(piece.block * 5, 20, 5);
    makeItFail(piece, array);
    makeItFail(piece.request == 0 ? piece : Piece{"Again", piece.block, 0}, array);
    const int made = piece.block * 5;
    EXPECT_EQ(createMany(array, 20 - made), upFrom(made, 20 - made));
    EXPECT_EQ(create(array).index, -1);
}

TEST_P(DArrayNoMemoryFor, LeavesTheRestOfTheArrayUsable)
{
    segmentsOfOneBlock();
    const Piece& piece = GetParam();
    DArray* array = makeWith(piece.block * 5, 20, 5);
    makeItFail(piece, array);
    if (piece.block > 0) {
        const ScopedFault fault(
            {.call = Call::kMalloc, .error = ENOMEM, .times = rmtest::kForever});
        darrayDeleteEntry(array, 2);
        EXPECT_EQ(create(array).index, 2);
    }
    const uint32_t before = rm_memused();
    destroy(array);
    EXPECT_LT(rm_memused(), before);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

INSTANTIATE_TEST_SUITE_P(All, DArrayNoMemoryFor, ::testing::ValuesIn(kPieces),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_F(DArrayDeletedTwice, IsFatalForEveryCreationThatComesToIt)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 3);
    darrayDeleteEntry(array, 3);
    EXPECT_EQ(create(array).index, 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(fatalCreation(array), ElementsAre(kCorruption, kShutdown)) << i;
    }
    EXPECT_EQ(array->blockCount, 1);
    forget(array);
}

}  // namespace
