// Critical section 1 around the free lists of a dynamic array: on this platform the calls are
// empty, on others they are what makes creations safe. They are counted here, and another caller
// steps in where one would have to wait.
#include "tests/containers/darray_case.h"

#include <functional>
#include <utility>

#include <gmock/gmock.h>

using namespace arraytest;

namespace
{
constexpr int16_t kSection = 1;

// Each call by its sign: 1 entered, -1 left. Other sections are the memory manager's and the log's.
std::vector<int> calls;
bool counting = false;

// What another caller does while the next one waits to enter; once.
std::function<void()> meanwhile;

// What another caller does, or sees, as soon as the next one has left; once.
std::function<void()> afterwards;

void note(int sign, int16_t section)
{
    if (counting && section == kSection) {
        calls.push_back(sign);
    }
}
}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" void __real_rm_enterCritSec(int16_t section);
extern "C" void __real_rm_exitCritSec(int16_t section);
extern "C" void __wrap_rm_enterCritSec(int16_t section);
extern "C" void __wrap_rm_exitCritSec(int16_t section);

void __wrap_rm_enterCritSec(int16_t section)
{
    note(1, section);
    if (section == kSection && meanwhile) {
        std::exchange(meanwhile, nullptr)();
    }
    __real_rm_enterCritSec(section);
}

void __wrap_rm_exitCritSec(int16_t section)
{
    note(-1, section);
    __real_rm_exitCritSec(section);
    if (section == kSection && afterwards) {
        std::exchange(afterwards, nullptr)();
    }
}

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace
{
using rmtest::captureStderr;
using rmtest::catchFatal;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class DArrayCriticalSection : public ArrayTest
{
  protected:
    static std::vector<int> callsOf(const std::function<void()>& body)
    {
        calls.clear();
        counting = true;
        body();
        counting = false;
        return calls;
    }
};

TEST_F(DArrayCriticalSection, IsEnteredAndLeftOnceToTakeAnEntry)
{
    DArray* array = makeWith(1, 100, 10);
    EXPECT_THAT(callsOf([&] { create(array); }), ElementsAre(1, -1));
}

TEST_F(DArrayCriticalSection, IsEnteredForTheBlockAndAgainForTheEntry)
{
    DArray* array = make(100, 10, 8);
    EXPECT_THAT(callsOf([&] { create(array); }), ElementsAre(1, -1, 1, -1));
}

TEST_F(DArrayCriticalSection, IsWhereABlockThatSomebodyElseMadeIsSeen)
{
    DArray* array = make(100, 10, 8);
    meanwhile = [&] { darrays::darrayMakeNewBlock(array); };
    EXPECT_EQ(create(array).index, 0);
    EXPECT_EQ(array->blockCount, 1);
}

TEST_F(DArrayCriticalSection, IsWhereAnEntryThatSomebodyElseTookIsSeen)
{
    DArray* array = makeWith(9, 20, 10);
    int16_t taken = -1;
    meanwhile = [&] { taken = create(array, "theirs").index; };
    EXPECT_EQ(create(array, "ours").index, 10);
    EXPECT_EQ(taken, 9);
    EXPECT_STREQ(darrayGetEntryName(array, 9), "theirs");
}

TEST_F(DArrayCriticalSection, IsEnteredAndLeftOnceToDelete)
{
    DArray* array = makeWith(10, 100, 10);
    EXPECT_THAT(callsOf([&] { darrayDeleteEntry(array, 3); }), ElementsAre(1, -1));
}

TEST_F(DArrayCriticalSection, IsLeftAloneByADeletionOfABadIndex)
{
    DArray* array = makeWith(10, 100, 10);
    EXPECT_THAT(callsOf([&] { darrayDeleteEntry(array, 10); }), IsEmpty());
}

TEST_F(DArrayCriticalSection, IsNotEnteredForABlockThatIsFull)
{
    DArray* array = makeWith(10, 100, 10);
    EXPECT_THAT(callsOf([&] { EXPECT_EQ(create(array).index, 10); }), ElementsAre(1, -1, 1, -1));
    DArray* full = makeWith(20, 20, 10);
    EXPECT_THAT(callsOf([&] { EXPECT_EQ(create(full).index, -1); }), IsEmpty());
}

TEST_F(DArrayCriticalSection, IsLeftBeforeCorruptionIsFatal)
{
    DArray* array = makeWith(10, 100, 10);
    darrayDeleteEntry(array, 3);
    darrayDeleteEntry(array, 3);
    create(array);
    captureStderr([&] {
        // The last one is the fatal path's, which cannot know.
        EXPECT_THAT(callsOf([&] { EXPECT_EQ(catchFatal([&] { create(array); }), 1); }),
                    ElementsAre(1, -1, -1));
    });
    forget(array);
}

TEST_F(DArrayCriticalSection, IsNotEnteredByLookups)
{
    DArray* array = makeWith(10, 100, 10);
    fillRecords(array, 10, '.');
    EXPECT_THAT(callsOf([&] {
                    darrayFindEntry(array, "entry", nullptr);
                    darrayGetEntryFromData(array, "x", 0, 1, 0, nullptr);
                    darrayGetFirstUsedEntry(array);
                    darrayGetEntryPtr(array, 0);
                    darrayGetEntryName(array, 0);
                }),
                IsEmpty());
}

TEST_F(DArrayCriticalSection, IsEnteredByADeletionWhenTheNameIsGone)
{
    DArray* array = makeWith(10, 100, 10);
    const char* name = "unseen";
    Slots free = {-1};
    meanwhile = [&] {
        name = darrayGetEntryName(array, 3);
        free = freeList(array, 0);
    };
    darrayDeleteEntry(array, 3);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(free, Slots{});
}

TEST_F(DArrayCriticalSection, IsLeftByACreationBeforeTheNameIsThere)
{
    DArray* array = makeWith(1, 100, 10);
    const char* name = "unseen";
    Slots free;
    afterwards = [&] {
        name = darrayGetEntryName(array, 1);
        free = freeList(array, 0);
    };
    EXPECT_EQ(create(array).index, 1);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(free, upFrom(2, 8));
}

TEST_F(DArrayCriticalSection, IsWhereADeletionInALowerBlockIsNoted)
{
    DArray* array = makeWith(15, 20, 10);
    meanwhile = [&] { darrayDeleteEntry(array, 3); };
    EXPECT_EQ(create(array).index, 15);
    EXPECT_EQ(darrays::checkDArray(array), 0U);
    EXPECT_EQ(createMany(array, 6), (Slots{3, 16, 17, 18, 19, -1}));
}

TEST_F(DArrayCriticalSection, IsWhereADeletionInAFullArrayIsNoted)
{
    DArray* array = makeWith(20, 20, 10);
    darrayDeleteEntry(array, 3);
    darrayDeleteEntry(array, 13);
    EXPECT_EQ(createMany(array, 2), (Slots{3, 13}));
    meanwhile = [&] { darrayDeleteEntry(array, 4); };
    EXPECT_EQ(create(array).index, -1);
    EXPECT_EQ(meanwhile, nullptr);
    EXPECT_EQ(darrays::checkDArray(array), 0U);
    EXPECT_EQ(createMany(array, 2), (Slots{4, -1}));
}

TEST_F(DArrayCriticalSection, IsEnteredOnceToNoteThatAnArrayIsFull)
{
    DArray* array = makeWith(20, 20, 10);
    darrayDeleteEntry(array, 3);
    darrayDeleteEntry(array, 13);
    createMany(array, 2);
    EXPECT_THAT(callsOf([&] { EXPECT_EQ(create(array).index, -1); }), ElementsAre(1, -1));
    EXPECT_THAT(callsOf([&] { EXPECT_EQ(create(array).index, -1); }), IsEmpty());
}

TEST_F(DArrayCriticalSection, IsWhereADeletionBeforeANewBlockIsNoted)
{
    DArray* array = makeWith(10, 20, 10);
    meanwhile = [&] { darrayDeleteEntry(array, 3); };
    EXPECT_EQ(create(array).index, 3);
    EXPECT_EQ(array->blockCount, 2);
    EXPECT_EQ(createMany(array, 11), (Slots{10, 11, 12, 13, 14, 15, 16, 17, 18, 19, -1}));
}

}  // namespace
