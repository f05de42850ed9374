// Start-up and processes: what the children of a process that has started share with it and with
// each other, and what each of them has for itself.
#include "tests/file/file_case.h"

#include <cstdlib>
#include <memory>
#include <utility>

#include <sys/mman.h>

using namespace filetest;

namespace
{

using rmtest::ChildResult;
using rmtest::Peer;
using rmtest::runChild;
using rmtest::waitFor;

constexpr const char* kProfile = "corvane.ini";
constexpr const char* kLog = "server.log";

// Which of the two locks a case is about.
struct Lock {
    const char* name;
    int16_t* handle;
};

void PrintTo(const Lock& lock, std::ostream* out)
{
    *out << lock.name;
}

// The parent has started before it forks.
class StartedProcesses : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        unsetenv("CATPATH");
        rm_init(RM_NO_LIMIT, 32, 0.0);
    }

    static bool somebodyWaitsFor(int16_t lock, int howMany = 1)
    {
        return waitFor([&] { return rmtest::semWaiters(os::iSem, lock) == howMany; });
    }
};

class StartedLock : public StartedProcesses, public ::testing::WithParamInterface<Lock>
{
  protected:
    static int16_t lock() { return *GetParam().handle; }
};

std::string lockName(const ::testing::TestParamInfo<Lock>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Both, StartedLock,
                         ::testing::Values(Lock{"fileSem", &fileSem}, Lock{"growSem", &growSem}),
                         lockName);

// A number in memory that processes share.
class SharedNumber
{
  public:
    SharedNumber()
        : page_(static_cast<volatile int*>(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE,
                                                MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
    }

    ~SharedNumber() { munmap(const_cast<int*>(page_), sizeof(int)); }

    SharedNumber(const SharedNumber&) = delete;
    SharedNumber& operator=(const SharedNumber&) = delete;

    int get() const { return *page_; }

    void set(int value) { *page_ = value; }

  private:
    volatile int* page_;
};

// --- Exclusion

TEST_P(StartedLock, HeldByOneChildIsWaitedForByAnother)
{
    Peer first([](Peer::Channel& ch) {
        rm_syncEnterExcl(lock(), RM_WAIT_FOREVER);
        ch.say("held");
        ch.hear();
        rm_syncExitExcl(lock());
    });
    ASSERT_EQ(first.hear(), "held");
    Peer second([](Peer::Channel& ch) {
        rm_syncEnterExcl(lock(), RM_WAIT_FOREVER);
        ch.say("held");
        rm_syncExitExcl(lock());
    });
    ASSERT_TRUE(somebodyWaitsFor(lock()));
    EXPECT_TRUE(second.running());
    first.say("leave");
    EXPECT_EQ(second.hear(), "held");
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(second.wait().status, 0);
    EXPECT_EQ(semValue(os::iSem, lock()), 1);
}

TEST_P(StartedLock, HeldByTheParentIsWaitedForByAChild)
{
    rm_syncEnterExcl(lock(), RM_WAIT_FOREVER);
    Peer child([](Peer::Channel&) {
        rm_syncEnterExcl(lock(), RM_WAIT_FOREVER);
        rm_syncExitExcl(lock());
    });
    ASSERT_TRUE(somebodyWaitsFor(lock()));
    rm_syncExitExcl(lock());
    EXPECT_EQ(child.wait().status, 0);
}

TEST_P(StartedLock, LetsOneOfManyInAtATime)
{
    constexpr int kWorkers = 4;
    constexpr int kRounds = 300;
    SharedNumber number;
    std::vector<std::unique_ptr<Peer>> workers;
    workers.reserve(kWorkers);
    for (int i = 0; i < kWorkers; ++i) {
        workers.push_back(std::make_unique<Peer>([&](Peer::Channel& ch) {
            ch.say("ready");
            ch.hear();
            for (int round = 0; round < kRounds; ++round) {
                rm_syncEnterExcl(lock(), RM_WAIT_FOREVER);
                const int before = number.get();
                getppid();  // the system may let another one run
                number.set(before + 1);
                rm_syncExitExcl(lock());
            }
        }));
    }
    for (const auto& worker : workers) {
        ASSERT_EQ(worker->hear(), "ready");
    }
    for (const auto& worker : workers) {
        worker->say("go");
    }
    for (const auto& worker : workers) {
        EXPECT_EQ(worker->wait().status, 0);
    }
    EXPECT_EQ(number.get(), kWorkers * kRounds);
    EXPECT_EQ(semValue(os::iSem, lock()), 1);
}

TEST_F(StartedProcesses, TheTwoLocksDoNotHinderEachOther)
{
    rm_syncEnterExcl(fileSem, RM_WAIT_FOREVER);
    EXPECT_EQ(runChild([] {
                  rm_syncEnterExcl(growSem, RM_WAIT_FOREVER);
                  rm_syncExitExcl(growSem);
              }).status,
              0);
    rm_syncExitExcl(fileSem);
}

TEST_F(StartedProcesses, AnOpenOfOneChildIsWaitedForByAnother)
{
    Peer first([](Peer::Channel& ch) {
        Spy spy(Call::kOpen, [&](const CallRecord&) {
            ch.say("inside");
            ch.hear();
        });
        EXPECT_NE(openNew("slow"), RM_NONE);
    });
    ASSERT_EQ(first.hear(), "inside");
    Peer second([](Peer::Channel&) { EXPECT_NE(openNew("f"), RM_NONE); });
    ASSERT_TRUE(somebodyWaitsFor(fileSem));
    EXPECT_FALSE(std::filesystem::exists("f"));
    first.say("go on");
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(second.wait().status, 0);
}

TEST_F(StartedProcesses, AGrowthOfOneChildIsWaitedForByAnother)
{
    rmDiskFull = 0;
    Peer first([](Peer::Channel& ch) {
        const int16_t handle = openNew("f", 0, 0, 1000);
        Spy spy(Call::kStatvfs, [&](const CallRecord&) {
            ch.say("inside");
            ch.hear();
        });
        EXPECT_EQ(seekWrite(handle, 0, "x"), 1U);
    });
    ASSERT_EQ(first.hear(), "inside");
    Peer second([](Peer::Channel&) {
        const int16_t handle = openNew("g", 0, 0, 1000);
        EXPECT_EQ(seekWrite(handle, 0, "x"), 1U);
    });
    ASSERT_TRUE(somebodyWaitsFor(growSem));
    first.say("go on");
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(second.wait().status, 0);
}

// --- A start of a child's own

TEST_F(StartedProcesses, AChildThatStartsAgainMakesNoLocks)
{
    const int32_t set = os::iSem;
    const ChildResult child = runChild([set] {
        resetCalls();
        rm_init(1000, 5, 2.0);
        EXPECT_TRUE(callTrace().empty());
        EXPECT_EQ(os::iSem, set);
        EXPECT_EQ(fileHandleLimit, 5);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(semValue(set, fileSem), 1);
    EXPECT_EQ(semValue(set, growSem), 1);
    // Its limits are its own.
    EXPECT_EQ(fileHandleLimit, 32);
    EXPECT_EQ(rminfree, 0.0);
    EXPECT_EQ(rmemavail, RM_NO_LIMIT);
}

TEST_F(StartedProcesses, AChildDoesNotReadTheProfileAgain)
{
    ASSERT_EQ(fileCommit, 1);
    writeFile(kProfile, "[server]\nFileCommit=0\n");
    EXPECT_EQ(runChild([] {
                  rm_init(RM_NO_LIMIT, 32, 0.0);
                  EXPECT_EQ(fileCommit, 1);
              }).status,
              0);
}

TEST_F(StartedProcesses, TheDiskOfAChildIsItsOwn)
{
    rm_setDiskFull(0);
    EXPECT_EQ(runChild([] {
                  EXPECT_EQ(rm_getDiskFull(), 0);
                  rm_setDiskFull(1);
              }).status,
              0);
    EXPECT_EQ(rm_getDiskFull(), 0);
}

TEST_F(StartedProcesses, TheCountersOfAChildAreItsOwn)
{
    rm_statInc(3, 2);
    EXPECT_EQ(runChild([] {
                  EXPECT_EQ(rm_statRep(nullptr)[3], 2U);
                  rm_statInc(3, 5);
                  rm_statInit(1);
              }).status,
              0);
    EXPECT_EQ(rm_statRep(nullptr)[3], 2U);
}

TEST_F(StartedProcesses, AStrangerWhoStartsUnderTheSameTokenRaisesTheLocks)
{
    // No child of this process: it knows nothing of its objects, and meets it by the token file.
    const int32_t set = os::iSem;
    const ChildResult stranger = runChild([set] {
        os::rmSem.fill(nullptr);
        os::nSems = 0;
        os::iSem = -1;
        os::gfpRMSemTokenFile = nullptr;
        fileSem = RM_NONE;
        growSem = RM_NONE;
        rm_init(RM_NO_LIMIT, 32, 0.0);
        EXPECT_EQ(os::iSem, set);
    });
    EXPECT_EQ(stranger.status, 0);
    EXPECT_EQ(semValue(set, fileSem), 2);
    EXPECT_EQ(semValue(set, growSem), 2);
    rm_syncEnterExcl(fileSem, RM_WAIT_FOREVER);
}

// --- Ends

TEST_F(StartedProcesses, AWorkerThatJustEndsLeavesTheLocks)
{
    EXPECT_EQ(runChild([] {
                  EXPECT_NE(openNew("f"), RM_NONE);
                  _exit(7);
              }).status,
              7);
    EXPECT_EQ(semValue(os::iSem, fileSem), 1);
    EXPECT_NE(openNew("g"), RM_NONE);
}

TEST_F(StartedProcesses, AWorkerThatEndsInOrderTakesTheLocksOfAll)
{
    const int32_t set = os::iSem;
    EXPECT_EQ(runChild([] { rm_exit(5); }).status, 5);
    EXPECT_EQ(semValue(set, fileSem), -1);
    EXPECT_FALSE(std::filesystem::exists(".ZNT.RM.SEM"));
    // The objects of this process have lost their set: a host that jumps out of what that does to
    // it forgets them by terminating them, which is told once, and makes new ones.
    EXPECT_TRUE(fatalEnd([] { openNew("f"); }).jumped);
    EXPECT_TRUE(fatalEnd([] { rm_syncTerminate(); }).jumped);
    EXPECT_EQ(rm_syncTerminate(), 0);
    rm_init(RM_NO_LIMIT, 32, 0.0);
    EXPECT_NE(openNew("g"), RM_NONE);
    EXPECT_EQ(semValue(os::iSem, fileSem), 1);
    EXPECT_EQ(semValue(os::iSem, growSem), 1);
}

TEST_F(StartedProcesses, AWorkerThatEndsFatallyToItsTargetLeavesTheLocks)
{
    EXPECT_EQ(runChild([] {
                  EXPECT_EQ(catchFatal([] { rm_fileOpen("no/f", RM_O_RDWR, FILE_FATAL, 0, 0); }),
                            1);
              }).status,
              0);
    EXPECT_EQ(semValue(os::iSem, fileSem), 1);
    EXPECT_EQ(runChild([] { EXPECT_NE(openNew("g"), RM_NONE); }).status, 0);
}

// --- The log file over a fork

TEST_F(StartedProcesses, TheLogFileTakesTheLinesOfAllChildren)
{
    constexpr int kWorkers = 4;
    constexpr int kLines = 100;
    rm_systemLog(2);
    rm_systemLogOpen(kLog);
    std::vector<std::unique_ptr<Peer>> workers;
    workers.reserve(kWorkers);
    for (int worker = 0; worker < kWorkers; ++worker) {
        workers.push_back(std::make_unique<Peer>([worker](Peer::Channel&) {
            for (int i = 0; i < kLines; ++i) {
                rm_systemLogWrite("worker %d line %d", worker, i);
            }
        }));
    }
    Lines expected;
    for (int worker = 0; worker < kWorkers; ++worker) {
        const ChildResult result = workers[static_cast<std::size_t>(worker)]->wait();
        EXPECT_EQ(result.status, 0);
        Lines own;
        for (int i = 0; i < kLines; ++i) {
            own.push_back("worker " + std::to_string(worker) + " line " + std::to_string(i));
        }
        EXPECT_EQ(logLines(result.err), own);
        expected.insert(expected.end(), own.begin(), own.end());
    }
    EXPECT_THAT(logLines(readFile(kLog)), ::testing::UnorderedElementsAreArray(expected));
}

TEST_F(StartedProcesses, AChildThatClosesTheLogFileLeavesItToTheParent)
{
    rm_systemLog(2);
    rm_systemLogOpen(kLog);
    EXPECT_EQ(runChild([] {
                  rm_systemLogWrite("the child's");
                  rm_systemLogClose();
              }).status,
              0);
    EXPECT_NE(sysfile, RM_NONE);
    captureStderr([] { rm_systemLogWrite("the parent's"); });
    EXPECT_THAT(logLines(readFile(kLog)), ElementsAre("the child's", "the parent's"));
}

TEST_F(StartedProcesses, AChildThatOpensALogOfItsOwnKeepsTheParentsAsBackup)
{
    rm_systemLog(2);
    rm_systemLogOpen(kLog);
    captureStderr([] { rm_systemLogWrite("one"); });
    EXPECT_EQ(runChild([] {
                  rm_systemLogClose();
                  rm_systemLog(2);
                  rm_systemLogOpen(kLog);
                  rm_systemLogWrite("two");
              }).status,
              0);
    // The parent's stream has moved along with its file.
    captureStderr([] { rm_systemLogWrite("three"); });
    EXPECT_THAT(logLines(readFile(kLog)), ElementsAre("two"));
    EXPECT_THAT(logLines(readFile("server.bak")), ElementsAre("one", "three"));
}

TEST_F(StartedProcesses, ALineOfAChildDoesNotWaitWhileASiblingHoldsTheLockForItsOwnLine)
{
    // A line in the middle of an open: the sibling writes it inside fileSem, and gives that back.
    rm_systemLog(2);
    rm_systemLogOpen(kLog);
    rmDiskFull = 0;
    rminfree = 1e18;
    Peer grower([](Peer::Channel& ch) {
        ch.say("ready");
        ch.hear();
        for (int i = 0; i < 20; ++i) {
            rmDiskFull = 0;
            rm_fileClose(openNew("f", 0, static_cast<uint32_t>(100 + i)));
        }
    });
    ASSERT_EQ(grower.hear(), "ready");
    Peer logger([](Peer::Channel& ch) {
        ch.say("ready");
        ch.hear();
        for (int i = 0; i < 200; ++i) {
            rm_systemLogWrite("line %d", i);
        }
    });
    ASSERT_EQ(logger.hear(), "ready");
    grower.say("go");
    logger.say("go");
    const ChildResult grown = grower.wait();
    const ChildResult logged = logger.wait();
    EXPECT_EQ(grown.status, 0);
    EXPECT_EQ(logged.status, 0);
    EXPECT_LT(grown.seconds, 10.0) << "nobody has waited for a time-out";
    EXPECT_LT(logged.seconds, 10.0);
    Lines expected = logLines(grown.err);
    EXPECT_EQ(expected.size(), 40U);
    const Lines other = logLines(logged.err);
    EXPECT_EQ(other.size(), 200U);
    expected.insert(expected.end(), other.begin(), other.end());
    EXPECT_THAT(logLines(readFile(kLog)), ::testing::UnorderedElementsAreArray(expected));
}

}  // namespace
