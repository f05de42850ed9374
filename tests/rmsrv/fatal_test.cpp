// The fatal path and the orderly exit, as a host and its supervisor see them.
//
// Fatal errors with a registered target are caught in this process; those that end the process run
// in a child, of which status, log, standard output and leftovers are looked at.
#include "frame.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>

#include <sys/sem.h>

namespace
{
using rmtest::banners;
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::catchExit;
using rmtest::catchFatal;
using rmtest::ChildResult;
using rmtest::contains;
using rmtest::count;
using rmtest::expectEnd;
using rmtest::expectEndAtOnce;
using rmtest::fileLines;
using rmtest::kForever;
using rmtest::kSemToken;
using rmtest::linesOfChild;
using rmtest::logLines;
using rmtest::openLog;
using rmtest::Outcome;
using rmtest::outcomeOf;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::runHost;
using rmtest::ScopedFault;
using rmtest::systemCallLines;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr std::size_t kBannerLines = 7;

class FatalSystemCall : public rmtest::FrameTest
{
};

class FatalLogical : public rmtest::FrameTest
{
};

class FatalBanner : public rmtest::FrameTest
{
};

class FatalWithTarget : public rmtest::FrameTest
{
};

class FatalWithoutTarget : public rmtest::FrameTest
{
};

class FatalWorker : public rmtest::FrameTest
{
};

class ExitJump : public rmtest::FrameTest
{
};

class ExitOrder : public rmtest::FrameTest
{
};

class ExitOnce : public rmtest::FrameTest
{
};

class UserSlot : public rmtest::FrameTest
{
};

// The first seven lines that follow the first `skip` ones.
std::vector<std::string> bannerOf(const std::vector<std::string>& lines, std::size_t skip)
{
    EXPECT_GE(lines.size(), skip + kBannerLines);
    const auto begin = lines.begin() + static_cast<std::ptrdiff_t>(std::min(skip, lines.size()));
    const auto length = std::min(kBannerLines, static_cast<std::size_t>(lines.end() - begin));
    return {begin, begin + static_cast<std::ptrdiff_t>(length)};
}

// --- A failed system call

TEST_F(FatalSystemCall, LogsFunctionMessageErrorNumberAndItsText)
{
    const Outcome outcome =
        outcomeOf([] { internalErrorExit("rm_syncCreate", "semget() failure", ENOENT); });
    ASSERT_FALSE(outcome.lines.empty());
    EXPECT_EQ(outcome.lines[0],
              "**** rm_syncCreate() semget() failure, errno=2 (No such file or directory)");
}

TEST_F(FatalSystemCall, PrintsTheSameLineOnStandardOutput)
{
    const Outcome outcome =
        outcomeOf([] { internalErrorExit("rm_syncCreate", "semget() failure", ENOENT); });
    EXPECT_EQ(outcome.out,
              "**** rm_syncCreate() semget() failure, errno=2 (No such file or directory)\n");
}

TEST_F(FatalSystemCall, AConditionOfTheLibraryHasErrorZero)
{
    const Outcome outcome =
        outcomeOf([] { internalErrorExit("rm_syncWait", "Invalid Semaphore Handle", 0); });
    EXPECT_EQ(outcome.out, "**** rm_syncWait() Invalid Semaphore Handle, errno=0 (Success)\n");
}

TEST_F(FatalSystemCall, AnErrorNumberThatNobodyKnowsIsPrintedAsItIs)
{
    for (const int32_t error : {-1, 99999, INT32_MIN, INT32_MAX}) {
        const Outcome outcome = outcomeOf([error] { internalErrorExit("f", "m", error); });
        EXPECT_EQ(outcome.out, "**** f() m, errno=" + std::to_string(error) + " (" +
                                   std::strerror(error) + ")\n");
    }
}

TEST_F(FatalSystemCall, TheSecondOneReachesStandardOutputOnly)
{
    const Outcome first = outcomeOf([] { internalErrorExit("first", "semop() failure", EIDRM); });
    const Outcome second = outcomeOf([] { internalErrorExit("second", "ftok() failure", EIO); });
    EXPECT_EQ(systemCallLines(first.lines), 1);
    EXPECT_EQ(systemCallLines(second.lines), 0);
    EXPECT_EQ(second.out, "**** second() ftok() failure, errno=5 (Input/output error)\n");
}

TEST_F(FatalSystemCall, EveryFurtherOneReachesStandardOutputOnly)
{
    static_cast<void>(outcomeOf([] { internalErrorExit("first", "m", EIDRM); }));
    for (int i = 0; i < 5; ++i) {
        const Outcome further = outcomeOf([] { internalErrorExit("further", "m", 0); });
        EXPECT_EQ(systemCallLines(further.lines), 0);
        EXPECT_EQ(further.out, "**** further() m, errno=0 (Success)\n");
    }
}

TEST_F(FatalSystemCall, IsNotSpentByALogicalFailure)
{
    static_cast<void>(outcomeOf([] { fatalRMExit("something else"); }));
    const Outcome outcome = outcomeOf([] { internalErrorExit("f", "m", 0); });
    EXPECT_EQ(systemCallLines(outcome.lines), 1);
}

TEST_F(FatalSystemCall, ALongTextIsCutInTheLogAndWholeOnStandardOutput)
{
    static const std::string longText(1000, 'x');
    const Outcome outcome = outcomeOf([] { internalErrorExit("f", longText.c_str(), 0); });
    ASSERT_FALSE(outcome.lines.empty());
    EXPECT_EQ(outcome.lines[0], "**** f() " + std::string(250, 'x'));
    EXPECT_EQ(outcome.out, "**** f() " + longText + ", errno=0 (Success)\n");
}

TEST_F(FatalSystemCall, PercentSignsInTheTextsAreTexts)
{
    const Outcome outcome = outcomeOf([] { internalErrorExit("%s%n", "%d", 0); });
    EXPECT_EQ(outcome.out, "**** %s%n() %d, errno=0 (Success)\n");
    EXPECT_TRUE(contains(outcome.lines, "**** %s%n() %d, errno=0 (Success)"));
}

TEST_F(FatalSystemCall, LogLineComesBeforeTheBanner)
{
    const Outcome outcome = outcomeOf([] { internalErrorExit("f", "m", 0); });
    ASSERT_THAT(outcome.lines, SizeIs(1 + kBannerLines + 1));
    EXPECT_EQ(outcome.lines[2], "* Please report this condition to *");
    EXPECT_EQ(outcome.lines.back(), "Exiting to shutdown processing");
}

// --- A condition that the library detects itself

TEST_F(FatalLogical, LogsTheHeadingAndTheProblem)
{
    const Outcome outcome = outcomeOf([] { fatalRMExit("fileSem timeout in rm_fileOpen"); });
    ASSERT_GE(outcome.lines.size(), 2U);
    EXPECT_EQ(outcome.lines[0], "***Fatal resource manager error***");
    EXPECT_EQ(outcome.lines[1], "    Specific problem: fileSem timeout in rm_fileOpen");
}

TEST_F(FatalLogical, EachOneIsLogged)
{
    static_cast<void>(outcomeOf([] { fatalRMExit("one"); }));
    const Outcome second = outcomeOf([] { fatalRMExit("two"); });
    EXPECT_THAT(second.lines,
                ElementsAre("***Fatal resource manager error***", "    Specific problem: two",
                            "Exiting to shutdown processing"));
}

TEST_F(FatalLogical, PrintsNothingOnStandardOutput)
{
    EXPECT_EQ(outcomeOf([] { fatalRMExit("one"); }).out, "");
}

TEST_F(FatalLogical, ALongProblemIsCut)
{
    static const std::string problem(1000, 'x');
    const Outcome outcome = outcomeOf([] { fatalRMExit(problem.c_str()); });
    EXPECT_TRUE(contains(outcome.lines, ("    Specific problem: " + problem).substr(0, 259)));
}

TEST_F(FatalLogical, NoMemoryIsALineAndTheFatalPath)
{
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
    const Outcome outcome = outcomeOf([] { static_cast<void>(rm_getMemory(100, 0)); });
    EXPECT_EQ(outcome.jumped, 1);
    ASSERT_FALSE(outcome.lines.empty());
    EXPECT_EQ(outcome.lines[0], "Out of memory!");
    EXPECT_EQ(banners(outcome.lines), 1);
}

// --- The banner

TEST_F(FatalBanner, IsSevenLinesOf35Characters)
{
    const Outcome outcome = outcomeOf([] { rm_errorExit(); });
    ASSERT_THAT(outcome.lines, SizeIs(kBannerLines + 1));
    EXPECT_THAT(bannerOf(outcome.lines, 0), Each(SizeIs(35)));
}

TEST_F(FatalBanner, IsFramedByStars)
{
    const std::vector<std::string> banner = bannerOf(outcomeOf([] { rm_errorExit(); }).lines, 0);
    ASSERT_THAT(banner, SizeIs(kBannerLines));
    EXPECT_EQ(banner.front(), std::string(35, '*'));
    EXPECT_EQ(banner.back(), std::string(35, '*'));
    for (const std::string& line : banner) {
        EXPECT_EQ(line.front(), '*');
        EXPECT_EQ(line.back(), '*');
    }
}

TEST_F(FatalBanner, AsksForAReportToTheMaker)
{
    const std::vector<std::string> banner = bannerOf(outcomeOf([] { rm_errorExit(); }).lines, 0);
    ASSERT_THAT(banner, SizeIs(kBannerLines));
    EXPECT_EQ(banner[1], "* Please report this condition to *");
    EXPECT_EQ(banner[2], "* Virlo Engineering.              *");
}

TEST_F(FatalBanner, GivesThreeNumbers)
{
    const std::vector<std::string> banner = bannerOf(outcomeOf([] { rm_errorExit(); }).lines, 0);
    ASSERT_THAT(banner, SizeIs(kBannerLines));
    const std::array<std::string_view, 3> labels = {"*     TechOps ",
                                                    "*     BBS:    ", "*     FAX:    "};
    for (std::size_t i = 0; i < labels.size(); ++i) {
        const std::string& line = banner[3 + i];
        EXPECT_TRUE(line.starts_with(labels[i])) << line;
        const std::string rest = line.substr(labels[i].size());
        EXPECT_NE(rest.find_first_of("0123456789"), std::string::npos) << line;
        EXPECT_EQ(rest.find_first_not_of("0123456789-+() *"), std::string::npos) << line;
    }
}

TEST_F(FatalBanner, IsLoggedOncePerProcess)
{
    std::vector<std::string> lines = outcomeOf([] { rm_errorExit(); }).lines;
    for (int i = 0; i < 3; ++i) {
        for (const std::string& line : outcomeOf([] { rm_errorExit(); }).lines) {
            lines.push_back(line);
        }
    }
    EXPECT_EQ(banners(lines), 1);
    EXPECT_EQ(count(lines, "Exiting to shutdown processing"), 4);
}

TEST_F(FatalBanner, IsSharedByAllKindsOfFatalError)
{
    static_cast<void>(outcomeOf([] { internalErrorExit("f", "m", 0); }));
    EXPECT_EQ(banners(outcomeOf([] { fatalRMExit("later"); }).lines), 0);
}

TEST_F(FatalBanner, OfAChildIsItsOwn)
{
    static_cast<void>(outcomeOf([] { rm_errorExit(); }));
    // A copy of the process that has logged it already does not log it again.
    EXPECT_EQ(banners(linesOfChild([] { rm_errorExit(); })), 0);
}

TEST_F(FatalBanner, ReachesTheLogFileToo)
{
    openLog();
    static_cast<void>(outcomeOf([] { rm_errorExit(); }));
    EXPECT_EQ(fileLines().size(), kBannerLines + 1);
    EXPECT_EQ(banners(fileLines()), 1);
}

// --- With a fatal target

TEST_F(FatalWithTarget, SetjmpReturnsOne)
{
    static volatile int arrived = 0;
    captureStderr([] {
        static jmp_buf target;
        const int value = setjmp(target);
        if (value == 0) {
            rm_errorJump(target);
            rm_errorExit();
        }
        arrived = value;
    });
    EXPECT_EQ(arrived, 1);
    rmsrv::error_jmpset = 0;  // the frame of the target is gone
}

TEST_F(FatalWithTarget, SaysThatItExitsToShutdownProcessing)
{
    EXPECT_EQ(outcomeOf([] { rm_errorExit(); }).lines.back(), "Exiting to shutdown processing");
}

TEST_F(FatalWithTarget, ASecondFatalErrorHasNoBannerButSaysSo)
{
    static_cast<void>(outcomeOf([] { rm_errorExit(); }));
    EXPECT_THAT(outcomeOf([] { rm_errorExit(); }).lines,
                ElementsAre("Exiting to shutdown processing"));
}

TEST_F(FatalWithTarget, ALaterTargetReplacesTheFirst)
{
    static volatile int first = 0;
    static volatile int second = 0;
    captureStderr([] {
        static jmp_buf one;
        static jmp_buf two;
        if (setjmp(one) != 0) {
            first = 1;
            return;
        }
        if (setjmp(two) != 0) {
            second = 1;
            return;
        }
        rm_errorJump(one);
        rm_errorJump(two);
        rm_errorExit();
    });
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
    rmsrv::error_jmpset = 0;
}

TEST_F(FatalWithTarget, TheCallersBufferIsCopied)
{
    static volatile int arrived = 0;
    captureStderr([] {
        static jmp_buf target;
        if (setjmp(target) != 0) {
            arrived = 1;
            return;
        }
        rm_errorJump(target);
        std::memset(static_cast<void*>(&target), 0x5A, sizeof target);
        rm_errorExit();
    });
    EXPECT_EQ(arrived, 1);
    rmsrv::error_jmpset = 0;
}

TEST_F(FatalWithTarget, ItsFlagIsSetByTheRegistrationAndStays)
{
    EXPECT_EQ(rmsrv::error_jmpset, 0);
    static jmp_buf target;
    captureStderr([] {
        if (setjmp(target) == 0) {
            rm_errorJump(target);
            EXPECT_EQ(rmsrv::error_jmpset, 1);
            rm_errorExit();
        }
    });
    EXPECT_EQ(rmsrv::error_jmpset, 1);
    rmsrv::error_jmpset = 0;
}

TEST_F(FatalWithTarget, NothingIsTornDown)
{
    openLog();
    void* block = rm_getMemory(100, 0);
    const uint32_t before = rm_memused();
    EXPECT_EQ(outcomeOf([] { fatalRMExit("a problem"); }).jumped, 1);
    EXPECT_EQ(rm_memused(), before);
    EXPECT_NE(sysfile, RM_NONE);
    EXPECT_EQ(syslogon, 2);
    EXPECT_EQ(rmtest::semValue(os::iSem, fileSem), 1);
    EXPECT_EQ(rm_getOSTerm(), 0);
    rm_freeMemory(block, 0);
}

TEST_F(FatalWithTarget, TheLibraryWorksOnAfterwards)
{
    openLog();
    static_cast<void>(outcomeOf([] { fatalRMExit("a problem"); }));
    const int16_t handle = rm_fileOpen("data", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    ASSERT_NE(handle, RM_NONE);
    EXPECT_EQ(rm_fileWrite(handle, "text", 4), 4U);
    rm_fileClose(handle);
    captureStderr([] { rm_systemLogWrite("afterwards"); });
    EXPECT_EQ(fileLines().back(), "afterwards");
    EXPECT_EQ(rmtest::violations(), 0U);
}

TEST_F(FatalWithTarget, ShutdownProcessingMayEndThroughRmExit)
{
    const ChildResult child = runChild([] {
        runHost(
            [] {
                openLog();
                fatalRMExit("a problem");
            },
            [] {
                rm_systemLogWrite("shutting down");
                rm_exit(3);
            });
    });
    expectEndAtOnce(child, 3);
    EXPECT_EQ(fileLines(), logLines(child.err));
    EXPECT_EQ(fileLines().back(), "shutting down");
    EXPECT_FALSE(std::filesystem::exists(kSemToken));
}

// --- Without a fatal target

TEST_F(FatalWithoutTarget, ExitsWithStatusZero)
{
    expectEndAtOnce(runChild([] { rm_errorExit(); }), 0);
    expectEndAtOnce(runChild([] { fatalRMExit("a problem"); }), 0);
    expectEndAtOnce(runChild([] { internalErrorExit("f", "m", EIO); }), 0);
    expectEndAtOnce(runChild([] { rmsrv::outOfMemory(); }), 0);
}

TEST_F(FatalWithoutTarget, SaysThatItExitsToTheOperatingSystemAfterTheBanner)
{
    const std::vector<std::string> lines = linesOfChild([] { rm_errorExit(); });
    ASSERT_THAT(lines, SizeIs(kBannerLines + 1));
    EXPECT_EQ(lines[1], "* Please report this condition to *");
    EXPECT_EQ(lines.back(), "Exiting to operating system");
}

TEST_F(FatalWithoutTarget, ClosesTheLogFileWithAllLinesInIt)
{
    const ChildResult child = runChild([] {
        openLog();
        fatalRMExit("a problem");
    });
    expectEndAtOnce(child, 0);
    EXPECT_EQ(fileLines(), logLines(child.err));
    EXPECT_EQ(fileLines().back(), "Exiting to operating system");
}

TEST_F(FatalWithoutTarget, RemovesTheSemaphoresAndTheirTokenFile)
{
    const ChildResult child = runChild([] {
        static_cast<void>(rm_syncCreate("a lock"));
        EXPECT_TRUE(std::filesystem::exists(kSemToken));
        rm_errorExit();
    });
    expectEndAtOnce(child, 0);
    EXPECT_TRUE(rmtest::ipcObjects().empty());
    EXPECT_FALSE(std::filesystem::exists(kSemToken));
}

TEST_F(FatalWithoutTarget, FreesAllMemory)
{
    // Exit handlers run last and tell what is left.
    const ChildResult child = runChild([] {
        static_cast<void>(rm_getMemory(100'000, rm_allocTag(nullptr, RM_NO_LIMIT)));
        std::atexit([] { std::printf("%u", rm_memused()); });
        rm_errorExit();
    });
    expectEnd(child, 0);
    EXPECT_EQ(child.out, "0");
}

TEST_F(FatalWithoutTarget, WhatTheHostPrintedIsNotLost)
{
    const ChildResult child = runChild([] {
        std::printf("unfinished");
        rm_errorExit();
    });
    expectEnd(child, 0);
    EXPECT_EQ(child.out, "unfinished");
}

TEST_F(FatalWithoutTarget, ArrivesAtTheExitTargetWithOne)
{
    // The code is 0, which the language turns into 1 on the way.
    static volatile int code = 0;
    const std::vector<std::string> lines =
        logLines(captureStderr([] { code = catchExit([] { fatalRMExit("a problem"); }); }));
    EXPECT_EQ(code, 1);
    EXPECT_EQ(lines.back(), "Exiting to operating system");
}

// --- Workers and the foreground

TEST_F(FatalWorker, WithTargetIsMarkedAsUnwinding)
{
    ASSERT_EQ(rm_foregroundThread(), 1);
    const ChildResult child = runChild(
        [] { runHost([] { rm_errorExit(); }, [] { std::printf("%d", rm_getOSTerm()); }); });
    expectEnd(child, 0);
    EXPECT_EQ(child.out, "2");
}

// What the process is marked with when a fatal error writes its first line.
void expectTermAtFirstLine(int16_t term, const std::function<void()>& end)
{
    static int16_t atFirstLine = -1;
    const ScopedFault watch({.call = Call::kFwrite, .when = [](const CallRecord&) {
                                 if (atFirstLine == -1) {
                                     atFirstLine = rm_getOSTerm();
                                 }
                                 return false;
                             }});
    EXPECT_EQ(catchFatal(end), 1);
    EXPECT_EQ(atFirstLine, term);
}

TEST_F(FatalWorker, IsMarkedBeforeTheBanner)
{
    ASSERT_EQ(rm_foregroundThread(), 1);
    EXPECT_EQ(runChild([] { expectTermAtFirstLine(2, [] { rm_errorExit(); }); }).status, 0);
}

TEST_F(FatalWorker, IsMarkedAfterItsOwnLines)
{
    ASSERT_EQ(rm_foregroundThread(), 1);
    EXPECT_EQ(runChild([] { expectTermAtFirstLine(0, [] { fatalRMExit("a problem"); }); }).status,
              0);
}

TEST_F(FatalWorker, TheForegroundIsNotMarked)
{
    ASSERT_EQ(rm_foregroundThread(), 1);
    EXPECT_EQ(outcomeOf([] { rm_errorExit(); }).jumped, 1);
    EXPECT_EQ(rm_getOSTerm(), 0);
}

TEST_F(FatalWorker, AProcessThatNobodyAskedIsTheForeground)
{
    ASSERT_EQ(os::ForegroundThreadID, -1);
    EXPECT_EQ(outcomeOf([] { rm_errorExit(); }).jumped, 1);
    EXPECT_EQ(rm_getOSTerm(), 0);
    EXPECT_EQ(os::ForegroundThreadID, getpid());
}

TEST_F(FatalWorker, AWorkerThatBecameTheForegroundIsNotMarked)
{
    ASSERT_EQ(rm_foregroundThread(), 1);
    const ChildResult child = runChild([] {
        static_cast<void>(rm_setForegroundThread());
        runHost([] { rm_errorExit(); }, [] { std::printf("%d", rm_getOSTerm()); });
    });
    expectEnd(child, 0);
    EXPECT_EQ(child.out, "0");
}

TEST_F(FatalWorker, WithoutTargetIsNeverMarkedAsUnwinding)
{
    ASSERT_EQ(rm_foregroundThread(), 1);
    const ChildResult child = runChild([] {
        static bool unwinding = false;
        static ScopedFault watch({.call = Call::kFwrite, .when = [](const CallRecord&) {
                                      unwinding = unwinding || rm_getOSTerm() == 2;
                                      return false;
                                  }});
        std::atexit([] { std::printf("%d %d", unwinding ? 1 : 0, rm_getOSTerm()); });
        rm_errorExit();
    });
    expectEnd(child, 0);
    EXPECT_EQ(child.out, "0 3");
}

// --- The orderly exit

TEST_F(ExitJump, StatusIsTheCode)
{
    expectEndAtOnce(runChild([] { rm_exit(5); }), 5);
    expectEndAtOnce(runChild([] { rm_exit(0); }), 0);
}

TEST_F(ExitJump, OfACodeTheSystemKeepsEightBits)
{
    expectEnd(runChild([] { rm_exit(256 + 7); }), 7);
    expectEnd(runChild([] { rm_exit(-1); }), 255);
}

TEST_F(ExitJump, FiveArrivesAsFive)
{
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
}

TEST_F(ExitJump, ZeroArrivesAsOne)
{
    EXPECT_EQ(catchExit([] { rm_exit(0); }), 1);
}

TEST_F(ExitJump, EveryOtherCodeArrivesAsItIs)
{
    for (const int code : {INT16_MIN, -7, 1, 256, INT16_MAX}) {
        EXPECT_EQ(catchExit([code] { rm_exit(static_cast<int16_t>(code)); }), code);
    }
}

TEST_F(ExitJump, ALaterTargetReplacesTheFirst)
{
    static volatile int first = 0;
    static volatile int second = 0;
    static jmp_buf one;
    static jmp_buf two;
    const auto body = [] {
        first = setjmp(one);
        if (first != 0) {
            return;
        }
        second = setjmp(two);
        if (second != 0) {
            return;
        }
        rm_exitJump(one);
        rm_exitJump(two);
        rm_exit(9);
    };
    body();
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 9);
    rmsrv::exit_jmpset = 0;
}

TEST_F(ExitJump, TheCallersBufferIsCopied)
{
    static jmp_buf target;
    static volatile int arrived = 0;
    const auto body = [] {
        arrived = setjmp(target);
        if (arrived != 0) {
            return;
        }
        rm_exitJump(target);
        std::memset(static_cast<void*>(&target), 0x5A, sizeof target);
        rm_exit(9);
    };
    body();
    EXPECT_EQ(arrived, 9);
    rmsrv::exit_jmpset = 0;
}

TEST_F(ExitJump, LogsNothing)
{
    EXPECT_EQ(captureStderr([] { static_cast<void>(catchExit([] { rm_exit(5); })); }), "");
}

TEST_F(ExitJump, ExitHandlersOfTheHostRun)
{
    const ChildResult child = runChild([] {
        std::atexit([] { std::printf("handler"); });
        rm_exit(4);
    });
    expectEnd(child, 4);
    EXPECT_EQ(child.out, "handler");
}

TEST_F(ExitJump, DoesNotUseTheFatalTarget)
{
    static volatile int fatal = -1;
    EXPECT_EQ(catchExit([] { fatal = catchFatal([] { rm_exit(6); }); }), 6);
    EXPECT_EQ(fatal, -1);
    rmsrv::error_jmpset = 0;
}

// --- What the exit takes down, and in which order

TEST_F(ExitOrder, EverythingHasGoneWhenTheTargetIsReached)
{
    openLog();
    static_cast<void>(rm_syncCreate("a lock"));
    static_cast<void>(rm_getMemory(100'000, 0));
    const int set = os::iSem;
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_EQ(syslogon, 0);
    EXPECT_EQ(rmtest::semValue(set, 0), -1);
    EXPECT_FALSE(std::filesystem::exists(kSemToken));
    EXPECT_EQ(rm_memused(), 0U);
    EXPECT_EQ(rm_getOSTerm(), 3);
}

TEST_F(ExitOrder, LogFileThenSemaphoresThenMemory)
{
    openLog();
    static_cast<void>(rm_getMemory(100, 0));
    const auto logStream = reinterpret_cast<intptr_t>(file::ftab[sysfile]->stream);
    const auto tagTable = reinterpret_cast<intptr_t>(rmalloc::tagTable);
    resetCalls();
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    std::vector<std::string> steps;
    for (const CallRecord& call :
         callTrace({Call::kFclose, Call::kSemctl, Call::kUnlink, Call::kFree})) {
        if (call.call == Call::kFclose) {
            steps.emplace_back(call.args[0] == logStream ? "log file" : "token stream");
        } else if (call.call == Call::kSemctl && call.args[2] == IPC_RMID) {
            steps.emplace_back("set");
        } else if (call.call == Call::kUnlink) {
            steps.emplace_back("token file");
        } else if (call.call == Call::kFree && call.args[0] == tagTable) {
            steps.emplace_back("memory");
        }
    }
    EXPECT_THAT(steps, ElementsAre("log file", "set", "token stream", "token file", "memory"));
}

TEST_F(ExitOrder, IsMarkedAsExitingAfterTheLogFileAndBeforeTheSemaphores)
{
    openLog();
    static int16_t atLogFile = -1;
    static int16_t atSemaphores = -1;
    const auto logStream = reinterpret_cast<intptr_t>(file::ftab[sysfile]->stream);
    ScopedFault watchClose({.call = Call::kFclose, .when = [logStream](const CallRecord& call) {
                                if (call.args[0] == logStream) {
                                    atLogFile = rm_getOSTerm();
                                }
                                return false;
                            }});
    ScopedFault watchSet({.call = Call::kSemctl, .when = [](const CallRecord& call) {
                              if (call.args[2] == IPC_RMID) {
                                  atSemaphores = rm_getOSTerm();
                              }
                              return false;
                          }});
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    EXPECT_EQ(atLogFile, 0);
    EXPECT_EQ(atSemaphores, 3);
}

TEST_F(ExitOrder, LaterLinesGoToStandardErrorOnly)
{
    // The first line that can come after the closing: a semaphore that cannot be read.
    const ChildResult child = runChild([] {
        openLog();
        rm_systemLogWrite("before");
        static ScopedFault fault({.call = Call::kSemctl, .error = EIDRM});
        rm_exit(5);
    });
    expectEnd(child, 0);
    EXPECT_THAT(fileLines(), ElementsAre("before"));
    EXPECT_EQ(systemCallLines(logLines(child.err)), 1);
    rmtest::removeLeftovers();
}

TEST_F(ExitOrder, WithNothingMadeNoSystemObjectIsTouched)
{
    resetCalls();
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    EXPECT_TRUE(callTrace({Call::kSemctl, Call::kSemop, Call::kFclose, Call::kUnlink}).empty());
}

TEST_F(ExitOrder, FilesThatAreStillOpenAreClosed)
{
    const std::vector<int> before = rmtest::openDescriptors();
    ASSERT_NE(rm_fileOpen("a", RM_O_WRONLY | RM_O_CREAT, 0, 0, 0), RM_NONE);
    ASSERT_NE(rm_fileOpen("b", RM_O_WRONLY | RM_O_CREAT, FILE_STREAM, 0, 0), RM_NONE);
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    EXPECT_EQ(rmtest::openDescriptors(), before);
}

TEST_F(ExitOrder, TheHostThatJumpedOutCanCallOn)
{
    openLog();
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    EXPECT_EQ(fileSem, RM_NONE);
    openLog();
    captureStderr([] { rm_systemLogWrite("anew"); });
    EXPECT_THAT(fileLines(), ElementsAre("anew"));
}

// --- Each step once

TEST_F(ExitOnce, ASecondExitTearsNothingDown)
{
    openLog();
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    openLog();
    const uint32_t used = rm_memused();
    const int set = os::iSem;
    EXPECT_EQ(catchExit([] { rm_exit(6); }), 6);
    EXPECT_NE(sysfile, RM_NONE);
    EXPECT_EQ(rmtest::semValue(set, fileSem), 1);
    EXPECT_EQ(rm_memused(), used);
}

TEST_F(ExitOnce, AnExitWithoutALogFileLeavesItsClosingForALaterOne)
{
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    openLog();
    EXPECT_EQ(catchExit([] { rm_exit(6); }), 6);
    EXPECT_EQ(sysfile, RM_NONE);
}

TEST_F(ExitOnce, ASecondExitStillMarksTheProcess)
{
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    rm_setOSTerm(0);
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    EXPECT_EQ(rm_getOSTerm(), 3);
}

// A step of the exit that can be made to fail.
struct Step {
    const char* name;
    Call call;
    bool (*fits)(const CallRecord&);
    std::vector<int> errors;
    bool endsInFatalPath;  // whether its failure comes back as a fatal error
    bool leavesTheSet;     // whether the set cannot have gone afterwards
};

void PrintTo(const Step& step, std::ostream* out)
{
    *out << step.name;
}

bool isValueQuestion(const CallRecord& call)
{
    return call.args[2] == GETVAL;
}

bool isRemoval(const CallRecord& call)
{
    return call.args[2] == IPC_RMID;
}

bool any(const CallRecord&)
{
    return true;
}

bool hasNoWait(const CallRecord& call)
{
    return (call.pointer<sembuf>(1)->sem_flg & IPC_NOWAIT) != 0;
}

bool hasWait(const CallRecord& call)
{
    return !hasNoWait(call);
}

const std::vector<int> kSemop(rmtest::kSemopErrors.begin(), rmtest::kSemopErrors.end());
const std::vector<int> kSemctl(rmtest::kSemctlErrors.begin(), rmtest::kSemctlErrors.end());
const std::vector<int> kClose(rmtest::kCloseErrors.begin(), rmtest::kCloseErrors.end());
const std::vector<int> kUnlink = {EACCES, EBUSY,   EFAULT, EIO,   EISDIR, ELOOP,
                                  ENOENT, ENOTDIR, ENOMEM, EPERM, EROFS,  ENAMETOOLONG};

// A wait of which every call is interrupted lasts as long as its time-out, which is for the tests
// of the locks: interruptions happen once here.
const std::vector<Step> kSteps = {
    {"LockOfTheLogFile", Call::kSemtimedop, any, kSemop, true, false},
    {"UnlockOfTheLogFile", Call::kSemop, hasWait, kSemop, true, false},
    {"CloseOfStreams", Call::kFclose, any, kClose, false, false},
    {"ValueOfASemaphore", Call::kSemctl, isValueQuestion, kSemctl, true, true},
    {"ResetOfASemaphore", Call::kSemop, hasNoWait, kSemop, true, true},
    {"RemovalOfTheSet", Call::kSemctl, isRemoval, kSemctl, true, true},
    {"RemovalOfTheTokenFile", Call::kUnlink, any, kUnlink, false, false},
};

class ExitStepFails : public rmtest::FrameTest, public ::testing::WithParamInterface<Step>
{
  protected:
    // Opens a log file, makes the step fail, lets `host` end the process and looks at the end.
    void endWithFault(int error, int times, void (*host)(), int status)
    {
        const Step& step = GetParam();
        SCOPED_TRACE(std::string(std::strerror(error)) + (times == 1 ? " once" : " for ever"));
        const ChildResult child = runChild([&] {
            openLog();
            rm_systemLogWrite("work");
            static ScopedFault fault(
                {.call = step.call, .error = error, .times = times, .when = step.fits});
            host();
        });
        expectEndAtOnce(child, status);
        const std::vector<std::string> lines = logLines(child.err);
        EXPECT_LE(banners(lines), 1);
        EXPECT_LE(systemCallLines(lines), 1);
        ASSERT_FALSE(fileLines().empty());
        EXPECT_EQ(fileLines()[0], "work");
        if (!step.leavesTheSet) {
            EXPECT_TRUE(rmtest::ipcObjects().empty());
        }
        rmtest::removeLeftovers();
    }

    void endForEachError(int times, void (*host)(), int status)
    {
        for (const int error : GetParam().errors) {
            if (times == kForever && error == EINTR && GetParam().call == Call::kSemtimedop) {
                continue;
            }
            endWithFault(error, times, host, status);
            if (HasFailure()) {
                return;  // a process that waits for itself takes long to say so
            }
        }
    }
};

void exitPlainly()
{
    rm_exit(5);
}

void failPlainly()
{
    fatalRMExit("a problem");
}

void failIntoShutdown()
{
    runHost([] { fatalRMExit("a problem"); },
            [] {
                rm_systemLogWrite("shutting down");
                rm_exit(3);
            });
}

TEST_P(ExitStepFails, OnceAtAnExit)
{
    // A failed step ends in the fatal path, which has no target here and exits with 0.
    for (const int error : GetParam().errors) {
        const bool interruptedWait = GetParam().call == Call::kSemtimedop && error == EINTR;
        endWithFault(error, 1, exitPlainly, GetParam().endsInFatalPath && !interruptedWait ? 0 : 5);
    }
}

TEST_P(ExitStepFails, ForEverAtAnExit)
{
    endForEachError(kForever, exitPlainly, GetParam().endsInFatalPath ? 0 : 5);
}

TEST_P(ExitStepFails, OnceAtAFatalError)
{
    endForEachError(1, failPlainly, 0);
}

TEST_P(ExitStepFails, ForEverAtAFatalError)
{
    endForEachError(kForever, failPlainly, 0);
}

TEST_P(ExitStepFails, OnceInTheShutdownProcessingOfAHost)
{
    endForEachError(1, failIntoShutdown, 3);
}

TEST_P(ExitStepFails, ForEverInTheShutdownProcessingOfAHost)
{
    endForEachError(kForever, failIntoShutdown, 3);
}

INSTANTIATE_TEST_SUITE_P(Steps, ExitStepFails, ::testing::ValuesIn(kSteps),
                         [](const auto& test) { return std::string(test.param.name); });

// Arms everything that the way out can meet.
void failEverything(int error)
{
    static std::vector<std::unique_ptr<ScopedFault>> faults;
    for (const Call call : {Call::kSemop, Call::kSemtimedop, Call::kSemctl, Call::kClose,
                            Call::kFclose, Call::kUnlink, Call::kWrite, Call::kLseek, Call::kFsync,
                            Call::kFflush, Call::kVfprintf, Call::kMalloc, Call::kLocaltime}) {
        faults.push_back(std::make_unique<ScopedFault>(
            rmtest::Fault{.call = call, .error = error, .times = kForever}));
    }
}

TEST_F(ExitOnce, EndsWhenEverySystemCallFailsForEver)
{
    for (const int error : {EIO, EIDRM, EINVAL, ENOSPC}) {
        const ChildResult child = runChild([error] {
            openLog();
            failEverything(error);
            rm_exit(5);
        });
        expectEndAtOnce(child, 0);
        rmtest::removeLeftovers();
    }
}

TEST_F(ExitOnce, AFatalErrorEndsWhenEverySystemCallFailsForEver)
{
    for (const int error : {EIO, EIDRM, EINVAL, ENOSPC}) {
        const ChildResult child = runChild([error] {
            openLog();
            failEverything(error);
            rm_errorExit();
        });
        expectEndAtOnce(child, 0);
        rmtest::removeLeftovers();
    }
}

TEST_F(ExitOnce, AShutdownThatExitsEndsWhenEverySystemCallFailsForEver)
{
    const ChildResult child = runChild([] {
        runHost(
            [] {
                openLog();
                failEverything(EIDRM);
                rm_errorExit();
            },
            [] {
                rm_systemLogWrite("shutting down");
                rm_exit(3);
            });
    });
    expectEndAtOnce(child, 3);
    rmtest::removeLeftovers();
}

TEST_F(ExitOnce, FailedStepsAreNotTriedAgain)
{
    // Reset for good: the set stays, and it is asked for its first value only.
    const ChildResult child = runChild([] {
        openLog();
        static ScopedFault fault({.call = Call::kSemctl, .error = EIDRM, .times = kForever});
        std::atexit([] { std::printf(" %d", fault.hits()); });
        rm_exit(5);
    });
    expectEnd(child, 0);
    EXPECT_TRUE(child.out.ends_with(" 1")) << child.out;
    rmtest::removeLeftovers();
}

TEST_F(ExitOnce, AStepThatFailsComesBackToTheFatalTarget)
{
    openLog();
    const int set = os::iSem;
    Outcome outcome;
    {
        ScopedFault fault({.call = Call::kSemctl, .error = EACCES});
        outcome = outcomeOf([] { rm_exit(5); });
    }
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(outcome.lines.back(), "Exiting to shutdown processing");
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_EQ(rm_getOSTerm(), 3);
    EXPECT_EQ(rmtest::semValue(set, 0), 1);
}

TEST_F(ExitOnce, TheStepsAfterAFailedOneAreStillMade)
{
    const ChildResult child = runChild([] {
        static_cast<void>(rm_syncCreate("a lock"));
        static_cast<void>(rm_getMemory(100, 0));
        std::atexit([] { std::printf(" %u", rm_memused()); });
        static ScopedFault fault({.call = Call::kSemctl, .error = EIDRM});
        rm_exit(5);
    });
    expectEndAtOnce(child, 0);
    EXPECT_TRUE(child.out.ends_with(" 0")) << child.out;
    rmtest::removeLeftovers();
}

// --- The saved user

TEST_F(UserSlot, GivesBackWhatWasSaved)
{
    rm_userSave("operator", 40000);
    char name[15];
    uint16_t session = 0;
    rm_userGet(name, &session);
    EXPECT_STREQ(name, "operator");
    EXPECT_EQ(session, 40000);
}

TEST_F(UserSlot, IsEmptyBeforeAnySave)
{
    char name[15] = "?";
    uint16_t session = 7;
    rm_userGet(name, &session);
    EXPECT_STREQ(name, "");
    EXPECT_EQ(session, 0);
}

TEST_F(UserSlot, TwoNullPointersDoNothing)
{
    rm_userSave("operator", 3);
    rm_userGet(nullptr, nullptr);
    EXPECT_STREQ(rmsrv::szUserName_save, "operator");
    EXPECT_EQ(rmsrv::hSess_save, 3);
}

TEST_F(UserSlot, EachPointerMayBeNullAlone)
{
    rm_userSave("operator", 3);
    char name[15];
    uint16_t session = 0;
    rm_userGet(name, nullptr);
    rm_userGet(nullptr, &session);
    EXPECT_STREQ(name, "operator");
    EXPECT_EQ(session, 3);
}

TEST_F(UserSlot, ALaterSaveReplacesTheFirst)
{
    rm_userSave("a long operator", 3);
    rm_userSave("b", 4);
    char name[15];
    uint16_t session = 0;
    rm_userGet(name, &session);
    EXPECT_STREQ(name, "b");
    EXPECT_EQ(session, 4);
}

TEST_F(UserSlot, FourteenCharactersFit)
{
    rm_userSave("fourteen chars", 1);
    char name[15];
    rm_userGet(name, nullptr);
    EXPECT_STREQ(name, "fourteen chars");
}

TEST_F(UserSlot, ALongerNameIsCutAtFourteenCharacters)
{
    rm_userSave(std::string(5000, 'n').c_str(), 9);
    EXPECT_EQ(std::string(rmsrv::szUserName_save), std::string(14, 'n'));
    EXPECT_EQ(rmsrv::hSess_save, 9);
    // What lies behind the slot is whole.
    EXPECT_EQ(rmsrv::error_jmpset, 0);
    EXPECT_EQ(rmsrv::exit_jmpset, 0);
}

TEST_F(UserSlot, ACallersBufferIsWrittenNoFurtherThanTheTerminator)
{
    rm_userSave("abc", 1);
    char name[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
    rm_userGet(name, nullptr);
    EXPECT_EQ(std::string(name, sizeof name), std::string("abc\0xxxx", 8));
}
}  // namespace
