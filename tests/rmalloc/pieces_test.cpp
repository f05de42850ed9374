// Pieces of slabs: that they are zeroed and apart, that slabs come when they are needed and go when
// they are empty, and what happens without memory.
//
//     RM_TEST_SEED=123            repeats the random run; a failure prints its seed
//     RM_TEST_OPERATIONS=1000000  makes a longer one
#include "rm/rmalloc/pieces.h"

#include "tests/support/support.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace
{
using rmalloc::checkPieces;
using rmalloc::freePiece;
using rmalloc::kLargestPiece;
using rmalloc::kLine;
using rmalloc::newPiece;
using rmalloc::trimPieces;
using rmtest::Call;
using rmtest::ScopedFault;

constexpr std::size_t kSlab = 16 << 10;
constexpr uint32_t kSizes[] = {1, 2, 3, 4, 5, 6, 7, 8};  // lines

// Of one slab, of which one place is the slab's own.
constexpr uint32_t piecesOf(uint32_t lines)
{
    return static_cast<uint32_t>(kSlab / (lines * kLine)) - 1;
}

class PiecesTest : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        trimPieces();
        rmtest::resetCalls();
    }

    void TearDown() override
    {
        EXPECT_EQ(checkPieces(), 0U);
        trimPieces();
        if (rmtest::callTrace().size() < 4000) {
            EXPECT_EQ(slabs(), 0);
        }
        RmTest::TearDown();
    }

    // Slabs that are held.
    static int slabs()
    {
        int held = 0;
        for (const auto& call : rmtest::callTrace({Call::kAlignedAlloc, Call::kFree})) {
            held += call.call == Call::kAlignedAlloc && call.result != 0 ? 1 : 0;
            held -= call.call == Call::kFree && call.args[0] != 0 ? 1 : 0;
        }
        return held;
    }

    // As many pieces, written to from end to end.
    static std::vector<void*> take(uint32_t count, uint32_t lines)
    {
        std::vector<void*> pieces;
        for (uint32_t i = 0; i < count; ++i) {
            pieces.push_back(newPiece(lines));
            std::memset(pieces.back(), 0xA5, lines * kLine);
        }
        return pieces;
    }

    static void giveBack(const std::vector<void*>& pieces, uint32_t lines)
    {
        for (void* piece : pieces) {
            freePiece(piece, lines);
        }
    }
};

bool isZero(const void* piece, uint32_t lines)
{
    const auto* bytes = static_cast<const unsigned char*>(piece);
    return std::all_of(bytes, bytes + lines * kLine, [](unsigned char c) { return c == 0; });
}

// What a slab has at its beginning.
struct Head {
    Head* next;
    Head* previous;
    void* free;
    uint32_t fresh;
    uint32_t used;
};

Head* headOf(void* piece)
{
    return reinterpret_cast<Head*>(reinterpret_cast<uintptr_t>(piece) & ~uintptr_t{kSlab - 1});
}

TEST_F(PiecesTest, AreZeroedAlsoWhenTheyWereUsedBefore)
{
    for (const uint32_t lines : kSizes) {
        giveBack(take(3, lines), lines);
        std::vector<void*> pieces;
        for (int i = 0; i < 4; ++i) {
            pieces.push_back(newPiece(lines));
            EXPECT_TRUE(isZero(pieces.back(), lines)) << lines;
        }
        giveBack(pieces, lines);
    }
}

TEST_F(PiecesTest, StandApartAtMultiplesOfALine)
{
    for (const uint32_t lines : kSizes) {
        std::vector<void*> pieces = take(2 * piecesOf(lines) + 1, lines);
        std::sort(pieces.begin(), pieces.end());
        uintptr_t end = 0;
        for (const void* piece : pieces) {
            const auto address = reinterpret_cast<uintptr_t>(piece);
            EXPECT_EQ(address % kLine, 0U);
            EXPECT_GE(address, end);
            end = address + lines * kLine;
        }
        EXPECT_EQ(checkPieces(), 0U);  // what was written has not reached the slabs
        giveBack(pieces, lines);
    }
}

TEST_F(PiecesTest, ShareASlabUntilItIsFull)
{
    for (const uint32_t lines : kSizes) {
        trimPieces();
        rmtest::resetCalls();
        std::vector<void*> pieces = take(piecesOf(lines), lines);
        EXPECT_EQ(slabs(), 1) << lines;
        pieces.push_back(newPiece(lines));
        EXPECT_EQ(slabs(), 2) << lines;
        giveBack(pieces, lines);
    }
}

TEST_F(PiecesTest, OfOtherSizesStandInOtherSlabs)
{
    void* one = newPiece(1);
    void* two = newPiece(2);
    EXPECT_EQ(slabs(), 2);
    freePiece(one, 1);
    freePiece(two, 2);
}

TEST_F(PiecesTest, AreGivenOutAgainLastFirst)
{
    const std::vector<void*> pieces = take(3, 7);
    freePiece(pieces[0], 7);
    freePiece(pieces[1], 7);
    EXPECT_EQ(newPiece(7), pieces[1]);
    EXPECT_EQ(newPiece(7), pieces[0]);
    giveBack(pieces, 7);
}

TEST_F(PiecesTest, OfAFullSlabMakeRoomInIt)
{
    const std::vector<void*> pieces = take(piecesOf(8), 8);
    freePiece(pieces[5], 8);
    EXPECT_EQ(checkPieces(), 0U);
    EXPECT_EQ(newPiece(8), pieces[5]);
    EXPECT_EQ(slabs(), 1);
    giveBack(pieces, 8);
}

TEST_F(PiecesTest, KeepTheirOnlySlabWhenTheyComeAndGo)
{
    for (int i = 0; i < 5; ++i) {
        freePiece(newPiece(8), 8);
    }
    EXPECT_EQ(rmtest::callCount(Call::kAlignedAlloc), 1);
    EXPECT_EQ(slabs(), 1);
}

TEST_F(PiecesTest, KeepTheSlabThatWasEmptiedLastAndGiveTheOthersBack)
{
    const uint32_t lines = 8;
    const std::vector<void*> first = take(piecesOf(lines), lines);
    const std::vector<void*> second = take(piecesOf(lines), lines);
    const std::vector<void*> third = take(1, lines);
    giveBack(third, lines);
    EXPECT_EQ(slabs(), 3);
    giveBack(first, lines);
    EXPECT_EQ(slabs(), 2);
    giveBack(second, lines);
    EXPECT_EQ(slabs(), 1);
    EXPECT_EQ(headOf(newPiece(lines)), headOf(second[0]));
    freePiece(second[0], lines);
}

TEST_F(PiecesTest, AreTakenFromASlabThatIsInUseBeforeAnEmptyOne)
{
    const std::vector<void*> first = take(piecesOf(8), 8);
    freePiece(newPiece(8), 8);
    EXPECT_EQ(slabs(), 2);
    freePiece(first[3], 8);
    EXPECT_EQ(newPiece(8), first[3]);
    giveBack(first, 8);
}

// Those that came first go first, so that now the one slab is empty and now the other.
TEST_F(PiecesTest, ComeAndGoInTurnAtTheBorderOfASlabWithoutThePlatform)
{
    const std::vector<void*> first = take(piecesOf(7) - 1, 7);
    freePiece(newPiece(7), 7);
    void* a = newPiece(7);
    void* b = newPiece(7);
    const int calls = rmtest::callCount(Call::kAlignedAlloc);
    for (int round = 0; round < 100; ++round) {
        freePiece(a, 7);
        freePiece(b, 7);
        a = newPiece(7);
        b = newPiece(7);
    }
    EXPECT_EQ(rmtest::callCount(Call::kAlignedAlloc), calls);
    freePiece(a, 7);
    freePiece(b, 7);
    giveBack(first, 7);
}

TEST_F(PiecesTest, GiveEverySlabBackWhenTheyAreTrimmed)
{
    for (const uint32_t lines : kSizes) {
        giveBack(take(2 * piecesOf(lines), lines), lines);
    }
    trimPieces();
    EXPECT_EQ(slabs(), 0);
    trimPieces();
}

TEST_F(PiecesTest, ThatAreOutSurviveATrim)
{
    void* piece = newPiece(3);
    void* other = newPiece(4);
    freePiece(other, 4);
    std::memset(piece, 1, 3 * kLine);
    trimPieces();
    EXPECT_EQ(slabs(), 1);
    EXPECT_EQ(checkPieces(), 0U);
    freePiece(piece, 3);
}

TEST_F(PiecesTest, AreNotThereWithoutMemory)
{
    {
        const ScopedFault fault({.call = Call::kAlignedAlloc, .error = ENOMEM});
        EXPECT_EQ(newPiece(7), nullptr);
    }
    EXPECT_EQ(checkPieces(), 0U);
    void* piece = newPiece(7);
    EXPECT_NE(piece, nullptr);
    {
        // There is room in the slab.
        const ScopedFault fault({.call = Call::kAlignedAlloc, .error = ENOMEM});
        void* next = newPiece(7);
        EXPECT_NE(next, nullptr);
        EXPECT_EQ(fault.hits(), 0);
        freePiece(next, 7);
    }
    freePiece(piece, 7);
}

// --- The checker

TEST_F(PiecesTest, AreCheckedForFreeOnesThatLeadElsewhere)
{
    const std::vector<void*> pieces = take(3, 2);
    freePiece(pieces[0], 2);
    freePiece(pieces[1], 2);
    void* link = nullptr;
    std::memcpy(&link, pieces[1], sizeof link);
    EXPECT_EQ(link, pieces[0]);
    const auto at = reinterpret_cast<uintptr_t>(pieces[0]);
    for (const uintptr_t wrong : {at + kLine, at + kSlab, at & ~uintptr_t{kSlab - 1},
                                  reinterpret_cast<uintptr_t>(pieces[1]), uintptr_t{0}}) {
        std::memcpy(pieces[1], &wrong, sizeof wrong);
        EXPECT_EQ(checkPieces(), 1U) << std::hex << wrong;
    }
    std::memcpy(pieces[1], &link, sizeof link);
    EXPECT_EQ(checkPieces(), 0U);
    freePiece(pieces[2], 2);
}

// It holds zeros, so that the list seems to end there.
TEST_F(PiecesTest, AreCheckedForAFreeOneInTheMiddleOfAnother)
{
    const std::vector<void*> pieces = take(3, 2);
    std::memset(pieces[0], 0, 2 * kLine);
    freePiece(pieces[0], 2);
    freePiece(pieces[1], 2);
    const auto wrong = reinterpret_cast<uintptr_t>(pieces[0]) + kLine;
    std::memcpy(pieces[1], &wrong, sizeof wrong);
    EXPECT_EQ(checkPieces(), 1U);
    void* const right = pieces[0];
    std::memcpy(pieces[1], &right, sizeof right);
    freePiece(pieces[2], 2);
}

TEST_F(PiecesTest, AreCheckedInSlabsOfEverySizeAndCounted)
{
    std::vector<void*> live;
    std::vector<void*> wrong;
    for (uint32_t lines = 1; lines <= kLargestPiece; ++lines) {
        live.push_back(newPiece(lines));
        wrong.push_back(newPiece(lines));
        freePiece(wrong.back(), lines);
        std::memset(wrong.back(), 1, sizeof(void*));
        EXPECT_EQ(checkPieces(), lines);
    }
    for (uint32_t lines = 1; lines <= kLargestPiece; ++lines) {
        std::memset(wrong[lines - 1], 0, sizeof(void*));
        freePiece(live[lines - 1], lines);
    }
}

TEST_F(PiecesTest, AreCheckedForSlabsThatDoNotLeadBack)
{
    const std::vector<void*> pieces = take(piecesOf(8) + 1, 8);
    freePiece(pieces[0], 8);
    Head* first = headOf(pieces[0]);
    Head* second = headOf(pieces.back());
    ASSERT_EQ(first->next, second);
    for (Head* wrong : {static_cast<Head*>(nullptr), second}) {
        second->previous = wrong;
        EXPECT_EQ(checkPieces(), 1U);
    }
    second->previous = first;
    second->next = second;  // nobody would get out of it
    EXPECT_EQ(checkPieces(), 1U);
    second->next = nullptr;
    EXPECT_EQ(newPiece(8), pieces[0]);
    giveBack(pieces, 8);
}

TEST_F(PiecesTest, AreCheckedForAFullSlabAmongThoseWithRoom)
{
    void* piece = newPiece(5);
    Head* head = headOf(piece);
    *head = {nullptr, nullptr, nullptr, piecesOf(5) + 1, piecesOf(5)};
    EXPECT_EQ(checkPieces(), 1U);
    *head = {nullptr, nullptr, nullptr, 2, 1};
    EXPECT_EQ(checkPieces(), 0U);
    freePiece(piece, 5);
}

TEST_F(PiecesTest, AreCheckedForAnEmptySlabAmongThoseWithRoom)
{
    void* piece = newPiece(5);
    Head* head = headOf(piece);
    *head = {nullptr, nullptr, nullptr, 1, 0};
    EXPECT_EQ(checkPieces(), 1U);
    *head = {nullptr, nullptr, nullptr, 2, 1};
    freePiece(piece, 5);
}

TEST_F(PiecesTest, AreCheckedForAFreeOneThatWasNeverOut)
{
    const std::vector<void*> pieces = take(2, 5);
    freePiece(pieces[1], 5);
    Head* head = headOf(pieces[0]);
    head->fresh = 2;  // the second one is free and fresh now
    head->used = 1;
    EXPECT_EQ(checkPieces(), 1U);
    head->fresh = 3;
    EXPECT_EQ(checkPieces(), 0U);
    freePiece(pieces[0], 5);
}

// --- What these cases count on

TEST_F(PiecesTest, AskForAlignedMemoryInATraceThatTellsSizeAndAlignmentApart)
{
    void* volatile memory = std::aligned_alloc(64, 640);
    const auto call = rmtest::callTrace({Call::kAlignedAlloc}).back();
    EXPECT_EQ(call.args[0], 64);
    EXPECT_EQ(call.args[1], 640);
    std::free(memory);
}

TEST_F(PiecesTest, AskWithoutAFaultThatIsForTwoOtherCalls)
{
    const ScopedFault fault({.call = Call::kCalloc, .also = Call::kMalloc, .error = ENOMEM});
    void* piece = newPiece(8);
    EXPECT_NE(piece, nullptr);
    EXPECT_EQ(fault.hits(), 0);
    freePiece(piece, 8);
}

// --- A long run

struct Out {
    uint32_t lines;
    unsigned char mark;
};

TEST_F(PiecesTest, KeepTheirContentsInARandomRun)
{
    std::mt19937_64 random(rmtest::seedOfThisRun());
    std::map<void*, Out> out;
    const long operations = rmtest::operationsOfThisRun(20'000);
    for (long i = 0; i < operations; ++i) {
        // Waves: the number of pieces goes up to some hundreds and down again.
        const bool isTaking = random() % 100 < (i / 2000 % 2 == 0 ? 60U : 40U);
        if (isTaking || out.empty()) {
            const auto lines = static_cast<uint32_t>(random() % kLargestPiece + 1);
            void* piece = newPiece(lines);
            ASSERT_TRUE(isZero(piece, lines));
            const auto mark = static_cast<unsigned char>(random());
            std::memset(piece, mark, lines * kLine);
            ASSERT_TRUE(out.emplace(piece, Out{lines, mark}).second);
        } else {
            auto at = out.lower_bound(reinterpret_cast<void*>(
                reinterpret_cast<uintptr_t>(out.begin()->first) + random() % (4 * kSlab)));
            at = at == out.end() ? out.begin() : at;
            const auto* bytes = static_cast<const unsigned char*>(at->first);
            ASSERT_TRUE(std::all_of(bytes, bytes + at->second.lines * kLine,
                                    [&](unsigned char c) { return c == at->second.mark; }));
            freePiece(at->first, at->second.lines);
            out.erase(at);
        }
        ASSERT_TRUE(i % 100 != 0 || checkPieces() == 0U);
    }
    for (const auto& [piece, what] : out) {
        freePiece(piece, what.lines);
    }
}
}  // namespace
