// The layer of processes as another platform would bring it: what the rest of the library asks of
// it, in which order, and that every section which is entered is left.
//
// The program defines the whole layer itself, so the linker takes none of it from the library: its
// sections are counted, its segments are known, its environment is a table.
#include "tests/rmsrv/frame.h"

#include <iterator>
#include <map>
#include <utility>

namespace
{
std::vector<std::string> asked;  // what the library asked for, as long as somebody listens
bool listening = false;
int16_t inForeground = 1;
bool noSegments = false;
std::map<const char*, uint32_t> segments;  // live ones, with their sizes
std::map<std::string, std::string> variables;

void hear(const std::string& what)
{
    if (listening) {
        asked.push_back(what);
    }
}
}  // namespace

// --- The layer

namespace os
{
int32_t ForegroundThreadID = -1;
int16_t DefaultPriority = 0;
}  // namespace os

int16_t rmanTerm = 0;

int16_t rm_threadDefaultPriority(int16_t /*priority*/)
{
    return 0;
}

int16_t rm_threadBegin(...)
{
    return 1;
}

void rm_threadEnd()
{
    hear("end of thread");
}

int16_t rm_foregroundThread()
{
    hear("foreground?");
    return inForeground;
}

int16_t rm_setForegroundThread()
{
    return 0;
}

void rm_enterCritSec(int16_t section)
{
    hear("enter " + std::to_string(section));
}

void rm_exitCritSec(int16_t section)
{
    hear("leave " + std::to_string(section));
}

uint32_t rm_sleep(uint32_t /*milliseconds*/)
{
    return 0;
}

char* rm_OSgetenv(const char* name)
{
    hear(std::string("variable ") + name);
    const auto found = variables.find(name);
    return found == variables.end() ? nullptr : found->second.data();
}

void rm_setOSHandleLimit() {}

void rm_setOSTerm(int16_t state)
{
    hear("state " + std::to_string(state));
    rmanTerm = state;
}

int16_t rm_getOSTerm()
{
    return rmanTerm;
}

void* rm_getSeg(uint32_t size)
{
    auto* segment = noSegments ? nullptr : static_cast<char*>(std::malloc(size));
    if (segment != nullptr) {
        segments[segment] = size;
    }
    return segment;
}

void rm_freeSeg(void* segment)
{
    if (segment != nullptr) {
        EXPECT_EQ(segments.erase(static_cast<char*>(segment)), 1U) << "never handed out";
    }
    std::free(segment);
}

namespace
{
using rmtest::captureStderr;
using rmtest::catchExit;
using rmtest::Outcome;
using rmtest::outcomeOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Asked = std::vector<std::string>;

class PortCase : public rmtest::FrameTest
{
  protected:
    // What the library asks for while `body` runs; also when that ends in the fatal path.
    template <typename Body>
    static Asked askedBy(const Body& body)
    {
        asked.clear();
        listening = true;
        body();
        listening = false;
        return std::exchange(asked, {});
    }
};

class PortedFrame : public PortCase
{
};

class PortedSegments : public PortCase
{
};

class PortedEnvironment : public PortCase
{
};

class PortedSections : public PortCase
{
};

// --- Sections

TEST_F(PortedSections, AreEnteredAndLeftOnceByWhatChangesOrReportsTheHeap)
{
    static int16_t tag = RM_NONE;
    static void* block = nullptr;
    constexpr void (*kOperations[])() = {
        [] { tag = rm_allocTag(nullptr, RM_NO_LIMIT); },
        [] { block = rm_getMemory(100, tag); },
        [] { static_cast<void>(rm_cGetMemory(100000, tag)); },
        [] { static_cast<void>(rm_Strdup("text", tag)); },
        [] { static_cast<void>(rm_setTagName("name", tag)); },
        [] { block = rm_extendMemory(block, 50, tag); },
        [] { block = rm_extendMemory(block, 5000, tag); },
        [] { rm_freeMemory(&tag, tag); },  // a bad pointer
        [] { rm_freeMemory(block, tag); },
        [] { rm_memReport(1, RM_NONE, "title"); },
        [] { rm_freeTagMemory(tag, 1); },
        [] { rm_freeTagMemory(tag, 1); },  // a bad tag
        [] { rm_freeall(); },
    };
    static_cast<void>(rm_getMemory(1, 0));
    for (std::size_t i = 0; i < std::size(kOperations); ++i) {
        Asked seen;
        captureStderr([&] { seen = askedBy(kOperations[i]); });
        EXPECT_THAT(seen, ElementsAre("enter 0", "leave 0")) << i;
    }
}

TEST_F(PortedSections, IsEnteredForTheFirstTableAndAgainForTheFirstBlock)
{
    variables.clear();
    rm_freeall();
    EXPECT_THAT(askedBy([] { static_cast<void>(rm_getMemory(1, 0)); }),
                ElementsAre("variable SEG_ALLOC", "enter 0", "leave 0", "enter 0", "leave 0"));
}

TEST_F(PortedSections, IsEnteredTwiceForABlockThatHasToGrowElsewhere)
{
    static void* small = nullptr;
    small = rm_getMemory(10, 1);
    EXPECT_THAT(askedBy([] { small = rm_growMemory(small, 1000, 1); }),
                ElementsAre("enter 0", "leave 0", "enter 0", "leave 0"));
}

// --- The error frame

TEST_F(PortedFrame, LeavesBothSectionsBeforeItAsksForTheForeground)
{
    inForeground = 1;
    EXPECT_THAT(askedBy([] { EXPECT_EQ(outcomeOf([] { rm_errorExit(); }).jumped, 1); }),
                ElementsAre("leave 0", "leave 1", "foreground?"));
}

TEST_F(PortedFrame, MarksAWorkerThenEndsItsThread)
{
    inForeground = 0;
    EXPECT_THAT(askedBy([] { EXPECT_EQ(outcomeOf([] { rm_errorExit(); }).jumped, 1); }),
                ElementsAre("leave 0", "leave 1", "foreground?", "state 2", "end of thread"));
    inForeground = 1;
}

TEST_F(PortedFrame, LeavesTheSectionOfAnAllocationThatFails)
{
    static_cast<void>(rm_getMemory(1, 0));
    noSegments = true;
    Outcome outcome;
    const Asked seen = askedBy([&] { outcome = outcomeOf([] { rm_getMemory(100000, 0); }); });
    noSegments = false;
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(outcome.lines.front(), "Out of memory!");
    EXPECT_THAT(seen, ElementsAre("enter 0", "leave 0", "leave 1", "foreground?"));
}

TEST_F(PortedFrame, LeavesTheSectionOfAnAllocationUnderABadTag)
{
    static_cast<void>(rm_getMemory(1, 0));
    EXPECT_THAT(askedBy([] { EXPECT_EQ(outcomeOf([] { rm_getMemory(1, 99); }).jumped, 1); }),
                ElementsAre("enter 0", "leave 0", "leave 1", "foreground?"));
}

TEST_F(PortedFrame, OfAnExitMarksItBeforeAllMemoryGoes)
{
    static_cast<void>(rm_getMemory(1, 0));
    EXPECT_THAT(askedBy([] { EXPECT_EQ(catchExit([] { rm_exit(3); }), 3); }),
                ElementsAre("state 3", "enter 0", "leave 0"));
    rmanTerm = 0;
}

// --- Segments

// The live segment in which `size` bytes at `at` lie, or null.
const char* segmentOf(const void* at, uint32_t size)
{
    const auto* begin = static_cast<const char*>(at);
    auto next = segments.upper_bound(begin);
    if (next == segments.begin()) {
        return nullptr;
    }
    --next;
    return begin + size <= next->first + next->second ? next->first : nullptr;
}

TEST_F(PortedSegments, HoldEveryBlockAndTheTableOfTags)
{
    for (const int16_t oneBlockEach : std::to_array<int16_t>({0, 1})) {
        seg_alloc = oneBlockEach;
        for (const int16_t owner : std::to_array<int16_t>({0, 1})) {
            for (const uint32_t size : {1U, 100U, 8000U, 9000U, 60000U, 1000000U}) {
                const void* taken = rm_getMemory(size, owner);
                EXPECT_NE(segmentOf(taken, size), nullptr) << size;
            }
        }
        EXPECT_NE(segmentOf(rmalloc::tagTable, sizeof(rmalloc::TagRecord)), nullptr);
    }
    seg_alloc = 0;
}

TEST_F(PortedSegments, HoldAllBytesThatCountAsUsed)
{
    for (const uint32_t size : {1U, 100U, 9000U, 1000000U}) {
        static_cast<void>(rm_getMemory(size, 1));
    }
    uint32_t least = 0;
    for (const auto& [segment, size] : segments) {
        least += size;
    }
    EXPECT_LE(rm_memused(), least);
}

TEST_F(PortedSegments, GoBackOneByOneOrTogether)
{
    for (const int16_t oneBlockEach : std::to_array<int16_t>({0, 1})) {
        static_cast<void>(rm_getMemory(1, 0));
        seg_alloc = oneBlockEach;
        const std::size_t before = segments.size();
        void* large = rm_getMemory(500000, 1);
        EXPECT_EQ(segments.size(), before + 1);
        rm_freeMemory(large, 1);
        EXPECT_EQ(segments.size(), before);
        static_cast<void>(rm_getMemory(500000, 1));
        rm_freeTagMemory(1, 0);
        EXPECT_EQ(segments.size(), before);
        rm_freeall();
        EXPECT_THAT(segments, IsEmpty());
    }
    seg_alloc = 0;
}

TEST_F(PortedSegments, ThatTheLayerDoesNotHaveAreFatal)
{
    noSegments = true;
    const Outcome outcome = outcomeOf([] { rm_getMemory(1, 0); });
    noSegments = false;
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(outcome.lines.front(), "Out of memory!");
    EXPECT_THAT(segments, IsEmpty());
    static_cast<void>(rm_getMemory(1, 0));
    EXPECT_EQ(rmtest::violations(), 0U);
}

// --- Environment

TEST_F(PortedEnvironment, IsAskedForWhatTheLocalOneDoesNotHave)
{
    variables = {{"RM_TEST_VARIABLE", "of the process"}};
    EXPECT_THAT(askedBy([] { EXPECT_STREQ(rm_getenv("RM_TEST_VARIABLE"), "of the process"); }),
                ElementsAre("variable RM_TEST_VARIABLE"));
    EXPECT_EQ(rm_getenv("RM_TEST_OTHER"), nullptr);
}

TEST_F(PortedEnvironment, IsNotAskedForWhatTheLocalOneHas)
{
    variables = {{"RM_TEST_VARIABLE", "of the process"}};
    rm_putLocalEnv("RM_TEST_VARIABLE=LOCAL");
    EXPECT_THAT(askedBy([] { EXPECT_STREQ(rm_getenv("RM_TEST_VARIABLE"), "LOCAL"); }), IsEmpty());
}

TEST_F(PortedFrame, NeitherMarksNorEndsAWorkerWithoutATarget)
{
    static_cast<void>(rm_getMemory(1, 0));
    inForeground = 0;
    Asked seen;
    captureStderr([&] { seen = askedBy([] { EXPECT_EQ(catchExit([] { rm_errorExit(); }), 1); }); });
    inForeground = 1;
    rmanTerm = 0;
    EXPECT_THAT(seen,
                ElementsAre("leave 0", "leave 1", "foreground?", "state 3", "enter 0", "leave 0"));
}
}  // namespace
