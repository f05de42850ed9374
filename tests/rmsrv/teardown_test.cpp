// The complete teardown of a process that has everything - log file, shared memory, queues, sync
// objects, memory - as its parent sees it: what goes, in which order, once, with every combination
// of targets and from every way in.
#include "teardown_case.h"

#include <ostream>

using namespace teardown;

namespace
{
// What the parent expects of a host's end, whose exit has the code `code`.
void expectWholeTeardown(const End& end, const Host& host, int code)
{
    expectEndSoon(end.child, host.exitTarget ? kLanded : code & 0xFF);
    const int atTarget = code == 0 ? 1 : code;  // the language's rule
    EXPECT_EQ(end.exitValue, host.exitTarget ? atTarget : -1);
    const Steps expected = host.log ? kWhole : without(kWhole, {"log file closed"});
    EXPECT_THAT(end.steps, ElementsAreArray(expected));
    EXPECT_EQ(end.memoryLeft, 0);
    expectNothingLeft();
    for (std::size_t i = 0; i < end.steps.size(); ++i) {
        if (end.steps[i] != "log file closed") {
            EXPECT_EQ(end.states[i], 3) << end.steps[i];
        } else {
            EXPECT_NE(end.states[i], 3);
        }
    }
}

// --- From the exit itself

class TeardownExit : public TeardownTest, public ::testing::WithParamInterface<Host>
{
};

template <int kCode>
void exitWith()
{
    rm_exit(kCode);
}

TEST_P(TeardownExit, TakesEverythingDownInItsOrder)
{
    expectWholeTeardown(endOfHost(GetParam(), exitWith<5>), GetParam(), 5);
}

TEST_P(TeardownExit, TakesTheSameDownWhateverTheCode)
{
    expectWholeTeardown(endOfHost(GetParam(), exitWith<0>), GetParam(), 0);
    expectWholeTeardown(endOfHost(GetParam(), exitWith<-1>), GetParam(), -1);
    expectWholeTeardown(endOfHost(GetParam(), exitWith<256>), GetParam(), 256);
    expectWholeTeardown(endOfHost(GetParam(), exitWith<32767>), GetParam(), 32767);
}

TEST_P(TeardownExit, LogsNothing)
{
    EXPECT_THAT(endOfHost(GetParam(), exitWith<5>).lines, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Hosts, TeardownExit, ::testing::ValuesIn(allHosts()),
                         [](const auto& test) { return nameOf(test.param); });

// --- From every fatal way in

struct WayIn {
    const char* name;
    void (*take)();
    const char* firstLine;  // of the log
    const char* secondLine = nullptr;
};

void failAnswer(Call call, int error)
{
    static std::deque<ScopedFault> faults;
    faults.emplace_back(rmtest::Fault{.call = call, .error = error});
}

const std::vector<WayIn> kWaysIn = {
    {"SystemCallFailure", [] { internalErrorExit("host", "a call", EIO); },
     "**** host() a call, errno=5 (Input/output error)"},
    {"LogicalFailure", [] { fatalRMExit("a problem"); }, "***Fatal resource manager error***",
     "    Specific problem: a problem"},
    {"CommonTail", [] { rm_errorExit(); }, "***********************************"},
    {"OutOfMemory",
     [] {
         failAnswer(Call::kMalloc, ENOMEM);
         rm_getMemory(1'000'000, 0);
     },
     "Out of memory!"},
    {"LockTimeout",
     [] {
         failAnswer(Call::kSemtimedop, EAGAIN);
         rm_fileOpen("data", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
     },
     "***Fatal resource manager error***", "    Specific problem: fileSem timeout in rm_fileOpen"},
    {"BadSyncHandle", [] { rm_syncEnterExcl(19, RM_WAIT_FOREVER); },
     "**** rm_syncEnterExcl() Invalid Semaphore Handle, errno=0 (Success)"},
    {"BadQueueHandle", [] { rm_queueWrite(4, "text", 4, 0); },
     "**** rm_queueWrite() Invalid Message Queue Handle, errno=0 (Success)"},
    {"FullQueue",
     [] {
         failAnswer(Call::kMsgsnd, EAGAIN);
         rm_queueWrite(0, "text", 4, 0);
     },
     "**** rm_queueWrite() msgsnd() failure, errno=11 (Resource temporarily unavailable)"},
    {"LostQueue",
     [] {
         msgctl(os::rmQueue[0].id, IPC_RMID, nullptr);
         record().steps.clear();
         record().states.clear();
         rm_queueRead(0, nullptr, nullptr, nullptr, 0);
     },
     "**** rm_queueRead() msgrcv() failure, errno=22 (Invalid argument)"},
    {"NoQueue",
     [] {
         failAnswer(Call::kMsgget, ENOSPC);
         rm_queueCreate("third");
     },
     "**** rm_queueCreate() msgget() failure, errno=28 (No space left on device)"},
};

void PrintTo(const WayIn& way, std::ostream* out)
{
    *out << way.name;
}

class TeardownFatal : public TeardownTest, public ::testing::WithParamInterface<WayIn>
{
};

TEST_P(TeardownFatal, TakesEverythingDownInItsOrder)
{
    for (const Host& host : allHosts()) {
        SCOPED_TRACE(nameOf(host));
        const End end = endOfHost(host, GetParam().take);
        expectWholeTeardown(end, host, host.fatalTarget ? kShutdownCode : 0);
    }
}

TEST_P(TeardownFatal, LogsWhatHappenedThenTheBannerThenTheWayOut)
{
    for (const Host& host : {Host{true, false, false}, Host{false, true, false}}) {
        SCOPED_TRACE(nameOf(host));
        const End end = endOfHost(host, GetParam().take);
        ASSERT_GE(end.lines.size(), 8U);
        EXPECT_EQ(end.lines[0], GetParam().firstLine);
        if (GetParam().secondLine != nullptr) {
            EXPECT_EQ(end.lines[1], GetParam().secondLine);
        }
        EXPECT_EQ(rmtest::banners(end.lines), 1);
        const std::string wayOut =
            host.fatalTarget ? "Exiting to shutdown processing" : "Exiting to operating system";
        const auto banner =
            std::find(end.lines.begin(), end.lines.end(), "* Please report this condition to *");
        EXPECT_LT(banner, std::find(end.lines.begin(), end.lines.end(), wayOut));
        EXPECT_EQ(end.lines.back(), host.fatalTarget ? "shutting down, 1" : wayOut);
    }
}

TEST_P(TeardownFatal, TheLogFileHasEveryLine)
{
    for (const bool fatalTarget : {false, true}) {
        const End end = endOfHost({.log = true, .fatalTarget = fatalTarget}, GetParam().take);
        EXPECT_EQ(fileLines(), end.lines);
    }
}

INSTANTIATE_TEST_SUITE_P(WaysIn, TeardownFatal, ::testing::ValuesIn(kWaysIn),
                         [](const auto& test) { return std::string(test.param.name); });

// --- At the exit target

class TeardownTarget : public rmtest::FrameTest
{
  protected:
    void SetUp() override
    {
        FrameTest::SetUp();
        makeEverything();
    }

    void TearDown() override
    {
        rm_gshmTerminate();
        rm_queueTerminate();
        FrameTest::TearDown();
    }
};

TEST_F(TeardownTarget, TheTablesAreEmpty)
{
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    EXPECT_EQ(os::nGshm, 0);
    EXPECT_EQ(os::nQueues, 0);
    EXPECT_EQ(os::nSems, 0);
    EXPECT_EQ(rm_memused(), 0U);
    EXPECT_EQ(os::gfpRMGshmTokenFile, nullptr);
    EXPECT_EQ(os::gfpRMQueueTokenFile, nullptr);
    EXPECT_EQ(os::gfpRMSemTokenFile, nullptr);
    EXPECT_EQ(os::checkGshm() + os::checkQueues(), 0U);
    expectNothingLeft();
}

TEST_F(TeardownTarget, ASegmentIsStillAttached)
{
    void* address = os::rmGshm[1].address;
    std::memcpy(address, "shared", 7);
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    EXPECT_STREQ(static_cast<const char*>(address), "shared");
}

TEST_F(TeardownTarget, OldHandlesAreThoseOfFreeSlots)
{
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    EXPECT_EQ(rm_gshmDelete(0), RM_SUCCESS);
    EXPECT_EQ(rm_queueDelete(1), RM_SUCCESS);
    EXPECT_EQ(rm_queueOpen("queue"), RM_NONE);
    EXPECT_EQ(rmtest::outcomeOf([] { rm_queueWrite(0, "text", 4, 0); }).out,
              "**** rm_queueWrite() Invalid Message Queue Handle, errno=0 (Success)\n");
}

TEST_F(TeardownTarget, EverythingCanBeMadeAgain)
{
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    void* address = nullptr;
    EXPECT_EQ(rm_gshmCreate("segment", 100, &address), 0);
    std::memset(address, 'x', 100);
    EXPECT_EQ(rm_queueCreate("queue"), 0);
    EXPECT_EQ(rm_queueWrite(0, "text", 4, 1), RM_SUCCESS);
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(os::checkGshm() + os::checkQueues() + os::checkSync(), 0U);
}

TEST_F(TeardownTarget, ASecondExitTearsNothingDown)
{
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    void* address = nullptr;
    rm_gshmCreate("segment", 100, &address);
    rm_queueCreate("queue");
    rm_syncCreate("lock");
    const uint32_t used = rm_memused();
    rmtest::resetCalls();
    EXPECT_EQ(catchExit([] { rm_exit(6); }), 6);
    EXPECT_THAT(rmtest::callTrace({Call::kShmctl, Call::kMsgctl, Call::kSemctl, Call::kSemop,
                                   Call::kUnlink, Call::kFclose, Call::kFree}),
                IsEmpty());
    EXPECT_EQ(objectsLeft('m'), 1);
    EXPECT_EQ(objectsLeft('q'), 1);
    EXPECT_EQ(objectsLeft('s'), 1);
    EXPECT_EQ(rm_memused(), used);
}

TEST_F(TeardownTarget, AFatalErrorAfterAnExitTearsNothingDown)
{
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    rm_queueCreate("queue");
    static volatile int code = 0;
    captureStderr([] { code = catchExit([] { fatalRMExit("later"); }); });
    EXPECT_EQ(code, 1);
    EXPECT_EQ(objectsLeft('q'), 1);
}

// --- With parts only

class TeardownParts : public TeardownTest
{
};

End endOfParts(const std::function<void()>& make)
{
    return endOf(runChild([&] {
        make();
        startRecord();
        std::atexit(printRecord);
        rm_exit(5);
    }));
}

TEST_F(TeardownParts, OfNothingNothingIsTouched)
{
    const End end = endOfParts([] {});
    expectEndSoon(end.child, 5);
    EXPECT_THAT(without(end.steps, {"memory freed"}), IsEmpty());
}

TEST_F(TeardownParts, OfSharedMemoryAlone)
{
    const End end = endOfParts([] {
        static void* address = nullptr;
        rm_gshmCreate("segment", 100, &address);
    });
    EXPECT_THAT(end.steps, ElementsAre("segment 0 removed", "token of the segments closed",
                                       "token of the segments removed", "memory freed"));
    expectNothingLeft();
}

TEST_F(TeardownParts, OfQueuesAlone)
{
    const End end = endOfParts([] { rm_queueCreate("queue"); });
    EXPECT_THAT(end.steps, ElementsAre("queue 0 removed", "token of the queues closed",
                                       "token of the queues removed", "memory freed"));
    expectNothingLeft();
}

TEST_F(TeardownParts, WhatTheHostHasDeletedItselfIsNotTouchedAgain)
{
    const End end = endOfParts([] {
        makeEverything();
        rm_gshmTerminate();
        rm_queueDelete(0);
    });
    EXPECT_THAT(end.steps,
                ElementsAre("queue 1 removed", "token of the queues closed",
                            "token of the queues removed", "set removed", "token of the set closed",
                            "token of the set removed", "memory freed"));
    expectNothingLeft();
}

TEST_F(TeardownParts, AfterAReleaseOfAllMemoryWhatWasForgottenStays)
{
    const End end = endOfParts([] {
        makeEverything();
        rm_freeall();
    });
    expectEndSoon(end.child, 5);
    EXPECT_EQ(objectsLeft('m'), 2);
    EXPECT_EQ(objectsLeft('q'), 2);
    EXPECT_EQ(objectsLeft('s'), 0);
    EXPECT_THAT(tokensLeft(), ElementsAre(kSegmentToken, kQueueToken));
    removeEverythingLeft();
}

TEST_F(TeardownParts, OfTokensUnderAnotherPrefix)
{
    const ChildResult child = runChild([] {
        rm_tokenName("p.");
        makeEverything();
        rm_tokenName("later.");
        rm_exit(5);
    });
    expectEndSoon(child, 5);
    for (const char* token : {kSegmentToken, kQueueToken, kSetToken}) {
        EXPECT_FALSE(std::filesystem::exists(std::string("p.") + token));
    }
    expectNothingLeft();
}

TEST_F(TeardownTarget, OfAFatalErrorFindsEverythingStanding)
{
    rmtest::resetCalls();
    EXPECT_EQ(rmtest::outcomeOf([] { fatalRMExit("a problem"); }).jumped, 1);
    EXPECT_THAT(rmtest::callTrace({Call::kShmctl, Call::kMsgctl, Call::kSemctl, Call::kUnlink}),
                IsEmpty());
    EXPECT_EQ(objectsLeft('m'), 2);
    EXPECT_EQ(objectsLeft('q'), 2);
    EXPECT_EQ(objectsLeft('s'), 1);
    EXPECT_THAT(tokensLeft(), ElementsAre(kSegmentToken, kQueueToken, kSetToken));
}

}  // namespace
