// Counters: whose memory they take, and who counts.
#include "frame.h"

#include <cstdint>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::openLog;
using rmtest::outcomeOf;
using ::testing::ElementsAre;

class StatPromise : public rmtest::FrameTest
{
};

uint32_t blocks()
{
    return rmalloc::tagTable[0].allocated;
}

TEST_F(StatPromise, TheOldOnesAreGivenBackBeforeTheNewOnesAreTaken)
{
    // So many that they have a segment of their own, which the system gets back.
    constexpr uint16_t kMany = 65535;
    rm_statInit(kMany);
    rm_statInit(kMany);
    std::vector<std::string> steps;
    int64_t segment = 0;
    for (const CallRecord& call : rmtest::callTrace({Call::kMalloc, Call::kFree})) {
        if (call.call == Call::kMalloc && call.args[0] >= kMany * 4) {
            steps.emplace_back("taken");
            segment = call.result;
        } else if (call.call == Call::kFree && segment != 0 && call.args[0] == segment) {
            steps.emplace_back("given back");
        }
    }
    EXPECT_THAT(steps, ElementsAre("taken", "given back", "taken"));
}

TEST_F(StatPromise, TheOldOnesAreUnderNoTagAnyMoreWhenTheMemoryForTheNewOnesIsMissing)
{
    void* behind = rm_getMemory(1, 0);
    const uint32_t before = blocks();
    rm_statInit(10);
    rmtest::ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = rmtest::kForever});
    EXPECT_EQ(outcomeOf([] { rm_statInit(65535); }).jumped, 1);
    EXPECT_EQ(blocks(), before);
    rm_freeMemory(behind, 0);
}

TEST_F(StatPromise, TheLibraryItselfCountsNothing)
{
    captureStderr([] {
        openLog();
        rm_systemLogWrite("a line");
        rm_fileClose(sysfile);
        rm_fileClose(99);
        static_cast<void>(outcomeOf([] { fatalRMExit("a problem"); }));
    });
    uint16_t count = 7;
    EXPECT_EQ(rm_statRep(&count), nullptr);
    EXPECT_EQ(count, 0);

    rm_statInit(54);
    captureStderr([] {
        openLog();
        rm_systemLogWrite("a line");
        static_cast<void>(outcomeOf([] { fatalRMExit("a problem"); }));
    });
    const uint32_t* first = rm_statRep(&count);
    EXPECT_EQ(std::vector<uint32_t>(first, first + count), std::vector<uint32_t>(54));
}

TEST_F(StatPromise, TheyAreThereForAFatalErrorsShutdown)
{
    rm_statInc(3, 2);
    static_cast<void>(outcomeOf([] { fatalRMExit("a problem"); }));
    EXPECT_EQ(rm_statRep(nullptr)[3], 2U);
    rm_statInc(3, 1);
    EXPECT_EQ(rm_statRep(nullptr)[3], 3U);
}
}  // namespace
