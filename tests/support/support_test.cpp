// The support library itself: what it says about children, output and calls must be true before
// any other test can be believed.
#include "support.h"

#include "rm.h"

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::ChildResult;
using rmtest::inChild;
using rmtest::kForever;
using rmtest::Peer;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;

class SupportChildren : public rmtest::RmTest
{
};

class SupportPeers : public rmtest::RmTest
{
};

class SupportCapture : public rmtest::RmTest
{
};

class SupportFaults : public rmtest::RmTest
{
};

class SupportFixture : public rmtest::RmTest
{
};

// --- The fixture

TEST_F(SupportFixture, StartsInAnEmptyDirectoryOfItsOwn)
{
    EXPECT_EQ(std::filesystem::current_path(), directory());
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

// The fixture's own end, run on cases that leave something behind.
class Untidy : public rmtest::RmTest
{
  public:
    void TestBody() override {}

    void begin() { SetUp(); }

    void end() { TearDown(); }
};

TEST(SupportFixtureEnd, RemovesTheDirectory)
{
    Untidy untidy;
    untidy.begin();
    const std::filesystem::path made = std::filesystem::current_path();
    rmtest::writeFile("a file", "text");
    untidy.end();
    EXPECT_FALSE(std::filesystem::exists(made));
    EXPECT_NE(std::filesystem::current_path(), made);
}

TEST(SupportFixtureEnd, FailsWhenADescriptorIsLeftOpen)
{
    static Untidy untidy;
    untidy.begin();
    const int left = open("/dev/null", O_RDONLY);
    EXPECT_NONFATAL_FAILURE(untidy.end(), "descriptors are left open");
    close(left);
}

TEST(SupportFixtureEnd, FailsWhenAnIpcObjectIsLeftAndRemovesIt)
{
    static Untidy untidy;
    untidy.begin();
    const int left = semget(IPC_PRIVATE, 1, 0600);
    EXPECT_NONFATAL_FAILURE(untidy.end(), "an IPC object is left: s id");
    EXPECT_EQ(rmtest::semValue(left, 0), -1);
}

TEST(SupportFixtureEnd, FailsWhenAnIpcObjectOfAChildIsLeft)
{
    static Untidy untidy;
    untidy.begin();
    inChild([] { static_cast<void>(semget(IPC_PRIVATE, 1, 0600)); });
    EXPECT_NONFATAL_FAILURE(untidy.end(), "an IPC object is left: s id");
}

TEST(SupportFixtureEnd, FailsWhenATokenFileIsLeft)
{
    static Untidy untidy;
    untidy.begin();
    rmtest::writeFile(".ZNT.RM.SEM", "");
    EXPECT_NONFATAL_FAILURE(untidy.end(), ".ZNT.RM.SEM is left");
}

TEST(SupportFixtureEnd, FailsWhenAChildIsLeft)
{
    static Untidy untidy;
    untidy.begin();
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    EXPECT_NONFATAL_FAILURE(untidy.end(), "a child is left");
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST(SupportFixtureEnd, GivesBackTheMemoryOfTheLibrary)
{
    Untidy untidy;
    untidy.begin();
    static_cast<void>(rm_getMemory(100, 0));
    EXPECT_GT(rm_memused(), 0U);
    untidy.end();
    EXPECT_EQ(rm_memused(), 0U);
}

// --- Children

TEST_F(SupportChildren, EndsWithZeroWhenTheBodyReturns)
{
    const ChildResult child = runChild([] {});
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.signal, 0);
}

TEST_F(SupportChildren, GivesTheExitStatus)
{
    EXPECT_EQ(runChild([] { exit(5); }).status, 5);
    EXPECT_EQ(runChild([] { _exit(6); }).status, 6);
}

TEST_F(SupportChildren, GivesTheSignalThatEndedIt)
{
    const ChildResult child = runChild([] { raise(SIGTERM); });
    EXPECT_FALSE(child.exited);
    EXPECT_EQ(child.signal, SIGTERM);
}

TEST_F(SupportChildren, CapturesBothOutputsApart)
{
    const ChildResult child = runChild([] {
        std::printf("to the output");
        std::fprintf(stderr, "to the error");
    });
    EXPECT_EQ(child.out, "to the output");
    EXPECT_EQ(child.err, "to the error");
}

TEST_F(SupportChildren, KillsAChildThatIsOverTheLimit)
{
    const ChildResult child = runChild([] { pause(); }, std::chrono::milliseconds(50));
    EXPECT_FALSE(child.exited);
    EXPECT_EQ(child.signal, SIGKILL);
    EXPECT_TRUE(child.timedOut);
    EXPECT_GE(child.seconds, 0.05);
}

TEST_F(SupportChildren, ThatEndsBeforeItsTimeFailsTheTest)
{
    EXPECT_NONFATAL_FAILURE(inChild([] { _exit(3); }), "before its time, status 3");
    EXPECT_NONFATAL_FAILURE(inChild([] { raise(SIGKILL); }), "before its time, signal 9");
    inChild([] {});
}

TEST_F(SupportChildren, AFailedExpectationInTheChildFailsTheTest)
{
    // The expected failure is looked for in this thread only, so the child, which inherits the
    // looking, fails from another one.
    const auto failing = [] { std::thread([] { ADD_FAILURE() << "in the child"; }).join(); };
    EXPECT_NONFATAL_FAILURE(runChild(failing), "an expectation failed in a child");
}

TEST_F(SupportChildren, TheTestProgramItselfCannotExitWithSuccess)
{
    const pid_t program = fork();
    if (program == 0) {
        // A second test program, as far as the guard can tell: a case runs in it.
        close(STDERR_FILENO);
        rmtest::guardThisProcess();
        exit(0);
    }
    int status = 0;
    waitpid(program, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), rmtest::kTestEndedEarly);
}

// --- Peers

TEST_F(SupportPeers, SayAndHearGoBothWays)
{
    Peer peer([](Peer::Channel& ch) {
        ch.say("ready");
        ch.say("you said " + ch.hear());
    });
    EXPECT_EQ(peer.hear(), "ready");
    peer.say("hello");
    EXPECT_EQ(peer.hear(), "you said hello");
    EXPECT_EQ(peer.wait().status, 0);
}

TEST_F(SupportPeers, TwoLinesSaidAtOnceAreHeardOneByOne)
{
    Peer peer([](Peer::Channel& ch) { ch.say("one\ntwo"); });
    EXPECT_EQ(peer.hear(), "one");
    EXPECT_EQ(peer.hear(), "two");
}

TEST_F(SupportPeers, CapturesOutputAndStatus)
{
    Peer peer([](Peer::Channel&) {
        std::fprintf(stderr, "a line\n");
        _exit(3);
    });
    const ChildResult result = peer.wait();
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.err, "a line\n");
}

TEST_F(SupportPeers, AreKilledWhenToldTo)
{
    Peer peer([](Peer::Channel& ch) { ch.hear(); });
    EXPECT_TRUE(peer.running());
    peer.kill(SIGKILL);
    EXPECT_EQ(peer.wait().signal, SIGKILL);
    EXPECT_FALSE(peer.running());
}

TEST_F(SupportPeers, AreEndedWithTheObject)
{
    pid_t pid = -1;
    {
        Peer peer([](Peer::Channel& ch) { ch.hear(); });
        pid = peer.pid();
    }
    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(SupportPeers, SilenceOverTheLimitFailsTheTest)
{
    static Peer* silent = nullptr;
    Peer peer([](Peer::Channel& ch) { ch.hear(); });
    silent = &peer;
    EXPECT_NONFATAL_FAILURE(silent->hear(std::chrono::milliseconds(10)), "nothing was heard");
}

TEST_F(SupportPeers, AnEndedPeerIsHeardAsFailure)
{
    static Peer* ended = nullptr;
    Peer peer([](Peer::Channel&) {});
    ended = &peer;
    EXPECT_NONFATAL_FAILURE(ended->hear(), "closed its end");
}

TEST_F(SupportPeers, AFailedExpectationInThePeerFailsTheTest)
{
    static Peer* failing = nullptr;
    Peer peer([](Peer::Channel&) { EXPECT_TRUE(false); });
    failing = &peer;
    EXPECT_NONFATAL_FAILURE(failing->wait(), "an expectation failed in a child");
}

TEST_F(SupportPeers, WaitForSeesAPeerBlockOnASemaphore)
{
    const int set = semget(IPC_PRIVATE, 1, 0600);
    {
        Peer peer([set](Peer::Channel&) {
            struct sembuf down = {0, -1, 0};
            semop(set, &down, 1);
        });
        EXPECT_TRUE(rmtest::waitFor([set] { return rmtest::semWaiters(set, 0) == 1; }));
        EXPECT_EQ(rmtest::semZeroWaiters(set, 0), 0);
        EXPECT_EQ(rmtest::semValue(set, 0), 0);
    }
    semctl(set, 0, IPC_RMID);
}

// --- Output

TEST_F(SupportCapture, TakesWhatIsWrittenAndNoMore)
{
    const std::string text = rmtest::captureStderr([] {
        std::fprintf(stderr, "inside");
        std::printf("%s", "");
    });
    EXPECT_EQ(text, "inside");
    EXPECT_EQ(rmtest::captureStdout([] { std::printf("out %d", 1); }), "out 1");
}

TEST_F(SupportCapture, NestsWithTheOtherStream)
{
    std::string inner;
    const std::string outer = rmtest::captureStdout([&] {
        inner = rmtest::captureStderr([] {
            std::printf("o");
            std::fprintf(stderr, "e");
        });
    });
    EXPECT_EQ(outer, "o");
    EXPECT_EQ(inner, "e");
}

TEST_F(SupportCapture, LogLinesLoseTheirStamp)
{
    const std::vector<std::string> expected = {"one", "", "  three"};
    EXPECT_EQ(rmtest::logLines("[07-Mar-96 14:05:09]  one\n"
                               "[07-Mar-96 14:05:09]  \n"
                               "[31-Dec-25 23:59:59]    three\n"),
              expected);
    EXPECT_TRUE(rmtest::logLines("").empty());
}

TEST_F(SupportCapture, ALineWithoutAStampFailsTheTest)
{
    EXPECT_NONFATAL_FAILURE(rmtest::logLines("plain\n"), "no proper stamp");
    EXPECT_NONFATAL_FAILURE(rmtest::logLines("[07-Mxr-96 14:05:09]  x\n"), "no proper stamp");
    EXPECT_NONFATAL_FAILURE(rmtest::logLines("[07-Mar-96 14:05:09] x\n"), "no proper stamp");
    EXPECT_NONFATAL_FAILURE(rmtest::logLines("[07-Mar-96 14:05:09]  x"), "is not ended");
}

TEST_F(SupportCapture, CatchFatalTellsAReturnFromAJump)
{
    EXPECT_EQ(rmtest::catchFatal([] {}), 0);
    rmtest::captureStderr([] { EXPECT_EQ(rmtest::catchFatal([] { rm_errorExit(); }), 1); });
}

TEST_F(SupportCapture, CatchFatalGivesTheOuterTargetBack)
{
    int inner = -1;
    int outer = -1;
    rmtest::captureStderr([&] {
        outer = rmtest::catchFatal([&] {
            inner = rmtest::catchFatal([] { rm_errorExit(); });
            rm_errorExit();
        });
    });
    EXPECT_EQ(inner, 1);
    EXPECT_EQ(outer, 1);
}

TEST_F(SupportCapture, CatchExitGivesTheCode)
{
    int code = 0;
    rmtest::captureStderr([&] { code = rmtest::catchExit([] { rm_exit(5); }); });
    EXPECT_EQ(code, 5);
    EXPECT_EQ(rmtest::catchExit([] {}), -1);
}

TEST_F(SupportCapture, FilesAreReadAsTheyWereWritten)
{
    const std::string text("a\0b\n", 4);
    rmtest::writeFile("file", text);
    EXPECT_EQ(rmtest::readFile("file"), text);
}

// --- Faults

TEST_F(SupportFaults, NothingArmedPassesThroughAndCounts)
{
    resetCalls();
    EXPECT_EQ(access("nowhere", F_OK), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(callCount(Call::kAccess), 1);
    EXPECT_EQ(callCount(Call::kUnlink), 0);
}

TEST_F(SupportFaults, OnceMeansTheNextCallOnly)
{
    ScopedFault fault({.call = Call::kUnlink, .error = EACCES});
    rmtest::writeFile("file", "");
    EXPECT_EQ(unlink("file"), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_TRUE(std::filesystem::exists("file"));
    EXPECT_EQ(unlink("file"), 0);
    EXPECT_EQ(fault.hits(), 1);
}

TEST_F(SupportFaults, ForeverLastsAsLongAsItsScope)
{
    {
        ScopedFault fault({.call = Call::kAccess, .error = EIO, .times = kForever});
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(access(".", F_OK), -1);
            EXPECT_EQ(errno, EIO);
        }
        EXPECT_EQ(fault.hits(), 5);
    }
    EXPECT_EQ(access(".", F_OK), 0);
}

TEST_F(SupportFaults, SkipLetsTheFirstCallsThrough)
{
    ScopedFault fault({.call = Call::kAccess, .error = EIO, .skip = 2});
    EXPECT_EQ(access(".", F_OK), 0);
    EXPECT_EQ(access(".", F_OK), 0);
    EXPECT_EQ(access(".", F_OK), -1);
    EXPECT_EQ(access(".", F_OK), 0);
}

TEST_F(SupportFaults, APredicateChoosesTheCall)
{
    ScopedFault fault({.call = Call::kAccess,
                       .error = EIO,
                       .times = kForever,
                       .when = [](const CallRecord& call) { return call.path() == "/"; }});
    EXPECT_EQ(access(".", F_OK), 0);
    EXPECT_EQ(access("/", F_OK), -1);
}

TEST_F(SupportFaults, SkippedCallsAreThoseThatFitThePredicate)
{
    ScopedFault fault(
        {.call = Call::kAccess, .error = EIO, .skip = 1, .when = [](const CallRecord& call) {
             return call.path() == "/";
         }});
    EXPECT_EQ(access(".", F_OK), 0);
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(access(".", F_OK), 0);
    EXPECT_EQ(access("/", F_OK), -1);
}

TEST_F(SupportFaults, OfTwoThatFitTheOldestAnswersFirst)
{
    ScopedFault first({.call = Call::kAccess, .error = EIO});
    ScopedFault second({.call = Call::kAccess, .error = ENOMEM});
    EXPECT_EQ(access(".", F_OK), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(access(".", F_OK), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(access(".", F_OK), 0);
}

TEST_F(SupportFaults, AShortWriteReallyWritesThatMuch)
{
    const int fd = open("file", O_WRONLY | O_CREAT, 0600);
    {
        ScopedFault fault({.call = Call::kWrite, .result = 3});
        EXPECT_EQ(write(fd, "abcdef", 6), 3);
    }
    close(fd);
    EXPECT_EQ(rmtest::readFile("file"), "abc");
}

TEST_F(SupportFaults, AReadOfNothingIsAnEndOfFile)
{
    rmtest::writeFile("file", "text");
    const int fd = open("file", O_RDONLY);
    char buffer[4];
    {
        ScopedFault fault({.call = Call::kRead, .result = 0});
        EXPECT_EQ(read(fd, buffer, 4), 0);
    }
    EXPECT_EQ(read(fd, buffer, 4), 4);
    close(fd);
}

TEST_F(SupportFaults, AFailingCloseStillCloses)
{
    const int fd = open("/dev/null", O_RDONLY);
    ScopedFault fault({.call = Call::kClose, .error = EIO});
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(SupportFaults, AllocationsFailBySize)
{
    ScopedFault fault({.call = Call::kMalloc,
                       .error = ENOMEM,
                       .times = kForever,
                       .when = [](const CallRecord& call) { return call.args[0] == 12345; }});
    void* small = std::malloc(10);
    EXPECT_NE(small, nullptr);
    EXPECT_EQ(rm_getSeg(12345), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    std::free(small);
}

TEST_F(SupportFaults, ZeroedAllocationsFailOnTheirOwn)
{
    const int before = callCount(Call::kCalloc);
    ScopedFault fault({.call = Call::kCalloc,
                       .error = ENOMEM,
                       .times = kForever,
                       .when = [](const CallRecord& call) { return call.args[1] == 12345; }});
    void* small = std::calloc(3, 10);
    EXPECT_NE(small, nullptr);
    void* volatile faulted = std::calloc(3, 12345);
    EXPECT_EQ(faulted, nullptr);
    EXPECT_EQ(errno, ENOMEM);
    void* plain = std::malloc(12345);
    EXPECT_NE(plain, nullptr);
    EXPECT_EQ(callCount(Call::kCalloc), before + 2);
    EXPECT_EQ(fault.hits(), 1);
    std::free(plain);
    std::free(small);
}

TEST_F(SupportFaults, AlignedAllocationsFailOnTheirOwn)
{
    const int before = callCount(Call::kAlignedAlloc);
    ScopedFault fault({.call = Call::kAlignedAlloc, .error = ENOMEM});
    void* volatile faulted = std::aligned_alloc(64, 640);
    EXPECT_EQ(faulted, nullptr);
    EXPECT_EQ(errno, ENOMEM);
    void* volatile aligned = std::aligned_alloc(64, 640);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned) % 64, 0U);
    EXPECT_EQ(callCount(Call::kAlignedAlloc), before + 2);
    EXPECT_EQ(fault.hits(), 1);
    std::free(aligned);
}

TEST_F(SupportFaults, AFaultCountsTwoCallsAsOne)
{
    ScopedFault fault({.call = Call::kCalloc, .also = Call::kAlignedAlloc, .skip = 1, .times = 2});
    void* volatile first = std::calloc(3, 10);
    void* volatile second = std::aligned_alloc(64, 640);
    void* volatile third = std::calloc(3, 10);
    void* volatile fourth = std::aligned_alloc(64, 640);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(third, nullptr);
    EXPECT_NE(fourth, nullptr);
    EXPECT_EQ(fault.hits(), 2);
    std::free(first);
    std::free(fourth);
}

TEST_F(SupportFaults, AnActionStandsInForTheCall)
{
    struct statvfs info = {};
    ScopedFault fault({.call = Call::kStatvfs, .action = [](const CallRecord& call) -> int64_t {
                           call.pointer<struct statvfs>(1)->f_bavail = 42;
                           return 0;
                       }});
    EXPECT_EQ(statvfs("nowhere", &info), 0);
    EXPECT_EQ(info.f_bavail, 42U);
}

TEST_F(SupportFaults, AnActionMayMakeTheCallAfterSomethingElse)
{
    ScopedFault fault({.call = Call::kUnlink, .action = [](const CallRecord& call) {
                           rmtest::writeFile(call.path(), "made just before");
                           return rmtest::passThrough(call);
                       }});
    EXPECT_EQ(unlink("file"), 0);
    EXPECT_FALSE(std::filesystem::exists("file"));
}

TEST_F(SupportFaults, VariadicCallsKeepTheirArguments)
{
    const int fd = open("file", O_CREAT | O_WRONLY, 0640);
    struct stat info = {};
    ASSERT_EQ(fstat(fd, &info), 0);
    EXPECT_EQ(
        info.st_mode & 07777, 0640U & ~[] {
            const mode_t mask = umask(0);
            umask(mask);
            return mask;
        }());
    close(fd);

    union {
        int val;
        void* full;
    } value = {};

    value.val = 7;
    const int set = semget(IPC_PRIVATE, 2, 0600);
    EXPECT_EQ(semctl(set, 1, SETVAL, value), 0);
    EXPECT_EQ(semctl(set, 1, GETVAL), 7);
    EXPECT_EQ(semctl(set, 0, IPC_RMID), 0);

    EXPECT_EQ(rmtest::captureStderr([] { std::fprintf(stderr, "%d %s %.1f", 1, "two", 3.0); }),
              "1 two 3.0");
}

TEST_F(SupportFaults, TheTraceGivesNameArgumentsAndOutcome)
{
    resetCalls();
    static_cast<void>(rename("from", "to"));
    static_cast<void>(alarm(0));
    const std::vector<CallRecord> trace = callTrace({Call::kRename, Call::kAlarm});
    ASSERT_EQ(trace.size(), 2U);
    EXPECT_STREQ(trace[0].name, "rename");
    EXPECT_EQ(trace[0].path(), "from");
    EXPECT_EQ(trace[0].path2(), "to");
    EXPECT_EQ(trace[0].result, -1);
    EXPECT_EQ(trace[0].error, ENOENT);
    EXPECT_FALSE(trace[0].faulted);
    EXPECT_STREQ(trace[1].name, "alarm");
}

TEST_F(SupportFaults, TheTraceMarksWhatAFaultAnswered)
{
    ScopedFault fault({.call = Call::kSleep, .result = 0});
    resetCalls();
    EXPECT_EQ(sleep(1000), 0U);
    const std::vector<CallRecord> trace = callTrace({Call::kSleep});
    ASSERT_EQ(trace.size(), 1U);
    EXPECT_TRUE(trace[0].faulted);
    EXPECT_EQ(trace[0].args[0], 1000);
}

TEST_F(SupportFaults, AreArmedInAChildToo)
{
    ScopedFault fault({.call = Call::kAccess, .error = EIO, .times = kForever});
    inChild([] { EXPECT_EQ(access(".", F_OK), -1); });
    EXPECT_EQ(fault.hits(), 0);
}

TEST_F(SupportFaults, FailuresHaveTheShapeOfTheirCall)
{
    ScopedFault opened({.call = Call::kFopen, .error = EMFILE});
    ScopedFault handled({.call = Call::kSignal, .error = EINVAL});
    ScopedFault timed({.call = Call::kLocaltime, .error = EOVERFLOW});
    ScopedFault joined({.call = Call::kSemget, .error = ENOSPC});
    ScopedFault keyed({.call = Call::kFtok, .error = ENOENT});
    EXPECT_EQ(fopen("file", "w"), nullptr);
    EXPECT_EQ(signal(SIGUSR1, SIG_DFL), SIG_ERR);
    const time_t now = 0;
    EXPECT_EQ(localtime(&now), nullptr);
    EXPECT_EQ(semget(IPC_PRIVATE, 1, 0600), -1);
    EXPECT_EQ(ftok(".", 1), -1);
}

TEST_F(SupportFaults, TheInnerAllocationCallOfTheLibraryIsSeen)
{
    resetCalls();
    void* block = rm_getMemory(24, 0);
    EXPECT_EQ(callCount(Call::kAllocBlock), 1);
    const std::vector<CallRecord> trace = callTrace({Call::kAllocBlock});
    ASSERT_EQ(trace.size(), 1U);
    EXPECT_EQ(trace[0].args[0], 24);
    EXPECT_EQ(trace[0].args[1], 0);
    rm_freeMemory(block, 0);
}

TEST_F(SupportFaults, AnAllocationOfAnotherPartCanComeBackEmpty)
{
    ScopedFault fault({.call = Call::kGetMemory});
    EXPECT_EQ(rm_getMemory(8, 0), nullptr);
    EXPECT_EQ(callCount(Call::kAllocBlock), 0);
}

TEST_F(SupportFaults, TheInnerAllocationCallCanComeBackEmpty)
{
    jmp_buf unused = {};
    const int16_t tag = rm_allocTag(unused, RM_NO_LIMIT);
    ScopedFault fault({.call = Call::kAllocBlock});
    rmtest::captureStderr([tag] {
        EXPECT_EQ(rmtest::catchFatal([tag] { static_cast<void>(rm_getMemory(8, tag)); }), 1);
    });
    EXPECT_EQ(fault.hits(), 1);
}
}  // namespace
