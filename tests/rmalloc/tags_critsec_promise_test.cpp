// Critical section 0 around everything that changes the heap: on this platform the calls are empty,
// on others they are what keeps two callers apart. They are counted here, with the heap as it is at
// each of them.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace
{
// A call: 1 entered, -1 left; of which section, and the heap at that moment.
struct CritSecCall {
    int sign;
    int16_t section;
    std::string heap;
};

std::vector<CritSecCall> calls;
bool counting = false;

void note(int sign, int16_t section)
{
    if (counting) {
        calls.push_back({sign, section, rmtest::wholeHeap()});
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
    __real_rm_enterCritSec(section);
}

void __wrap_rm_exitCritSec(int16_t section)
{
    note(-1, section);
    __real_rm_exitCritSec(section);
}

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace
{
using rmtest::draw;
using rmtest::Drawn;
using rmtest::linesOf;
using rmtest::wholeHeap;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HeapCriticalSection : public rmtest::HeapTest
{
  protected:
    // The signs of all calls. Each is for section 0, and outside of the section the heap stays.
    static std::vector<int> callsOf(const std::function<void()>& body)
    {
        calls.clear();
        std::string outside = wholeHeap();
        counting = true;
        body();
        counting = false;
        std::vector<int> signs;
        for (const CritSecCall& call : calls) {
            EXPECT_EQ(call.section, 0);
            if (call.sign == 1) {
                EXPECT_EQ(call.heap, outside) << "changed before the section is entered";
            }
            outside = call.heap;
            signs.push_back(call.sign);
        }
        EXPECT_EQ(wholeHeap(), outside) << "changed after the section is left";
        return signs;
    }
};

TEST_F(HeapCriticalSection, IsAroundANewTag)
{
    rm_allocTag(nullptr, RM_NO_LIMIT);
    EXPECT_THAT(callsOf([] { rm_allocTag(nullptr, 5); }), ElementsAre(1, -1));
}

TEST_F(HeapCriticalSection, IsAroundATableThatGrows)
{
    while (rm_allocTag(nullptr, RM_NO_LIMIT) < 39) {
    }
    EXPECT_THAT(callsOf([] { rm_allocTag(nullptr, 5); }), ElementsAre(1, -1));
    EXPECT_EQ(rmalloc::tagTabSize, 80);
}

TEST_F(HeapCriticalSection, IsAroundEveryAllocation)
{
    const Drawn drawn = draw("9 [1]");
    EXPECT_THAT(callsOf([&] { rm_getMemory(8, drawn.tag); }), ElementsAre(1, -1));
    EXPECT_THAT(callsOf([&] { rm_cGetMemory(8, drawn.tag); }), ElementsAre(1, -1));
    EXPECT_THAT(callsOf([&] { rm_Strdup("text", drawn.tag); }), ElementsAre(1, -1));
    EXPECT_THAT(callsOf([&] { rm_getMemory(100'000, drawn.tag); }), ElementsAre(1, -1));
}

TEST_F(HeapCriticalSection, IsAroundEveryBlockThatIsGivenBack)
{
    const Drawn drawn = draw("[2] [3] [1] | [4]");
    void* pointer = drawn.live[1];
    EXPECT_THAT(callsOf([&] { rm_freeMemory(drawn.live[0], drawn.tag); }), ElementsAre(1, -1));
    EXPECT_THAT(callsOf([&] { rm_zFreeMemory(&pointer, drawn.tag); }), ElementsAre(1, -1));
    EXPECT_THAT(callsOf([&] { rm_freeMemory(drawn.live[3], drawn.tag); }), ElementsAre(1, -1));
    void* last = rm_getMemory(8, drawn.tag);
    EXPECT_THAT(callsOf([&] { rm_freeMemory(last, drawn.tag); }), ElementsAre(1, -1));
}

TEST_F(HeapCriticalSection, IsLeftWhereAPointerOrATagIsRefused)
{
    const Drawn drawn = draw("2 [6] [1]");
    const Drawn other = draw("2 [3] [1]");
    void* block = drawn.live[0];
    char* inside = static_cast<char*>(block) + 8;
    linesOf([&] {
        EXPECT_THAT(callsOf([&] { rm_freeMemory(inside, drawn.tag); }), ElementsAre(1, -1));
        EXPECT_THAT(callsOf([&] { rm_freeMemory(block, 77); }), ElementsAre(1, -1));
        EXPECT_THAT(callsOf([&] { rm_freeMemory(block, other.tag); }), ElementsAre(1, -1));
        EXPECT_THAT(callsOf([&] { rm_extendMemory(inside, 8, drawn.tag); }), ElementsAre(1, -1));
        EXPECT_THAT(callsOf([&] { rm_extendMemory(block, 8, 77); }), ElementsAre(1, -1));
        EXPECT_THAT(callsOf([&] { rm_extendMemory(block, 8, other.tag); }), ElementsAre(1, -1));
        EXPECT_THAT(callsOf([&] { rm_freeTagMemory(77, 1); }), ElementsAre(1, -1));
    });
}

TEST_F(HeapCriticalSection, IsAroundEveryExtension)
{
    const Drawn drawn = draw("[2] 4 [1] 9 [1]");
    void* block = drawn.live[0];
    EXPECT_THAT(callsOf([&] { block = rm_extendMemory(block, 24, drawn.tag); }),
                ElementsAre(1, -1));
    EXPECT_THAT(callsOf([&] { block = rm_extendMemory(block, 60, drawn.tag); }),
                ElementsAre(1, -1));
    EXPECT_THAT(callsOf([&] { rm_extendMemory(nullptr, 8, drawn.tag); }), ElementsAre(1, -1));
}

TEST_F(HeapCriticalSection, IsAroundTheReleaseOfATag)
{
    const Drawn drawn = draw("[2] | [3]");
    EXPECT_THAT(callsOf([&] { rm_freeTagMemory(drawn.tag, 0); }), ElementsAre(1, -1));
    EXPECT_THAT(callsOf([&] { rm_freeTagMemory(drawn.tag, 1); }), ElementsAre(1, -1));
}

TEST_F(HeapCriticalSection, IsAroundTheReleaseOfEverything)
{
    draw("[2] | [3]");
    EXPECT_THAT(callsOf([] { rm_freeall(); }), ElementsAre(1, -1));
    EXPECT_EQ(rmalloc::nTags, 0);
    EXPECT_THAT(callsOf([] { rm_freeall(); }), ElementsAre(1, -1));
}

// The block is given back and another one taken, each in its turn.
TEST_F(HeapCriticalSection, IsNotEnteredByRmGrowMemoryItself)
{
    const Drawn drawn = draw("[3] 9 [1]");
    void* block = drawn.live[0];
    EXPECT_THAT(callsOf([&] { rm_growMemory(block, 16, drawn.tag); }), IsEmpty());
    EXPECT_THAT(callsOf([&] { rm_growMemory(nullptr, 8, drawn.tag); }), ElementsAre(1, -1));
    EXPECT_THAT(callsOf([&] { rm_growMemory(block, 64, drawn.tag); }), ElementsAre(1, -1, 1, -1));
    linesOf([&] { EXPECT_THAT(callsOf([&] { rm_growMemory(block, 64, 77); }), IsEmpty()); });
}

TEST_F(HeapCriticalSection, IsNotEnteredToLookAtFigures)
{
    const Drawn drawn = draw("[3] [1]");
    EXPECT_THAT(callsOf([&] {
                    rm_memoryAvail(drawn.tag);
                    rm_memused();
                }),
                IsEmpty());
}

TEST_F(HeapCriticalSection, IsNotEnteredForNothing)
{
    const Drawn drawn = draw("[3] [1]");
    void* null = nullptr;
    EXPECT_THAT(callsOf([&] {
                    rm_freeMemory(nullptr, drawn.tag);
                    rm_zFreeMemory(&null, drawn.tag);
                    rm_zFreeMemory(nullptr, drawn.tag);
                    rm_freeTagMemory(-1, 1);
                }),
                IsEmpty());
}

// There is nobody to keep apart from before there is a table.
TEST_F(HeapCriticalSection, IsEnteredOnceTheTableHasBeenMade)
{
    calls.clear();
    counting = true;
    rm_getMemory(8, 1);
    counting = false;
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[0].sign, 1);
    EXPECT_THAT(calls[0].heap, ::testing::HasSubstr(" 1 of 40\n"));
    EXPECT_EQ(calls[1].sign, -1);
    EXPECT_THAT(calls[1].heap, ::testing::HasSubstr(" 2 of 40\n"));
    EXPECT_EQ(calls[2].sign, 1);
    EXPECT_EQ(calls[3].sign, -1);
}
}  // namespace
