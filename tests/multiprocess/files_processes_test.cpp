// Managed files in several processes: the locks between them, holders that die, files that grow
// from both sides, and what a fork makes of handles.
#include "tests/file/file_case.h"

#include <chrono>
#include <memory>
#include <utility>

#include <signal.h>
#include <sys/ipc.h>

using namespace filetest;

namespace
{

using rmtest::ChildResult;
using rmtest::Peer;
using rmtest::runChild;
using rmtest::waitFor;

using Clock = std::chrono::steady_clock;

// The locks are made before anybody forks.
class FileProcesses : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        fileSem = rm_syncCreate("fileSem");
        growSem = rm_syncCreate("growSem");
    }

    // Opens a file and says "inside" in the middle of it, with fileSem held; goes on when told to.
    static void openSlowly(Peer::Channel& ch)
    {
        Spy spy(Call::kOpen, [&](const CallRecord&) {
            ch.say("inside");
            ch.hear();
        });
        EXPECT_NE(openNew("slow"), -1);
    }

    static bool somebodyWaitsFor(int16_t lock, int howMany = 1)
    {
        return waitFor([&] { return rmtest::semWaiters(os::iSem, lock) == howMany; });
    }
};

class FileProcessesBy : public FileProcesses, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, FileProcessesBy, ::testing::ValuesIn(fileOperations()),
                         operationName);

class FileGrowthProcesses : public FileProcesses
{
  protected:
    void SetUp() override
    {
        FileProcesses::SetUp();
        rmDiskFull = 0;
    }

    static bool isZeroBlock(const CallRecord& call)
    {
        return call.pointer<const char>(1) == os::null_block.data();
    }
};

class FileInheritance : public FileProcesses
{
};

class FileWorkers : public FileProcesses
{
};

// --- fileSem

TEST_F(FileProcesses, AnOpenWaitsForTheOpenOfAnotherProcess)
{
    Peer first([](Peer::Channel& ch) { openSlowly(ch); });
    ASSERT_EQ(first.hear(), "inside");
    Peer second([](Peer::Channel& ch) {
        EXPECT_NE(openNew("f"), -1);
        ch.say("opened");
    });
    ASSERT_TRUE(somebodyWaitsFor(fileSem));
    EXPECT_FALSE(std::filesystem::exists("f"));
    first.say("go on");
    EXPECT_EQ(second.hear(), "opened");
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(second.wait().status, 0);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_P(FileProcessesBy, AnOperationWaitsForTheOpenOfAnotherProcess)
{
    const FileOperation& operation = GetParam();
    const int16_t handle = openWith("f", kDigits, operation.mode());
    Peer holder([](Peer::Channel& ch) { openSlowly(ch); });
    ASSERT_EQ(holder.hear(), "inside");
    Peer other([&](Peer::Channel&) { EXPECT_EQ(operation.run(handle), operation.good); });
    EXPECT_TRUE(somebodyWaitsFor(fileSem));
    EXPECT_EQ(readFile("f"), kDigits);
    holder.say("go on");
    EXPECT_EQ(other.wait().status, 0);
    EXPECT_EQ(holder.wait().status, 0);
}

TEST_F(FileProcesses, ATransferIsNotHeldUpByTheOpenOfAnotherProcess)
{
    const int16_t handle = openNew("f");
    Peer other([](Peer::Channel& ch) {
        ch.hear();
        openSlowly(ch);
    });
    bool meanwhile = false;
    Spy spy(Call::kWrite, [&](const CallRecord&) {
        if (!std::exchange(meanwhile, true)) {
            other.say("start");
            EXPECT_EQ(other.hear(), "inside");
        }
    });
    EXPECT_EQ(write(handle, "text"), 4U);
    EXPECT_TRUE(meanwhile);
    EXPECT_EQ(fileSemValue(), 0) << "the other one is still inside";
    other.say("go on");
    EXPECT_EQ(other.wait().status, 0);
}

// The one case that waits for the real time-out.
TEST_F(FileProcesses, AHolderThatWasKilledIsWaitedFor14SecondsAndIsFatal)
{
    // The log file, inherited by all, needs the lock as well: it is not waited for once more.
    openLog("log");
    Peer holder([](Peer::Channel& ch) { openSlowly(ch); });
    ASSERT_EQ(holder.hear(), "inside");
    holder.kill(SIGKILL);
    EXPECT_EQ(holder.wait().signal, SIGKILL);

    Peer peer([](Peer::Channel&) {
        const auto started = Clock::now();
        EXPECT_EQ(catchFatal([] { rm_fileOpen("f", kReadWrite, 0, 0, 0); }), 1);
        const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
        EXPECT_GE(seconds, 13.9);
        EXPECT_LT(seconds, 16.0);
        EXPECT_EQ(file::checkFtab(), 0U);
        EXPECT_EQ(file::nHandles, 1) << "the log file";
    });
    ASSERT_TRUE(somebodyWaitsFor(fileSem));
    const ChildResult result = peer.wait();
    EXPECT_EQ(result.status, 0);
    const Lines lines = logLines(result.err);
    EXPECT_THAT(withoutFrame(lines),
                ElementsAre("***Fatal resource manager error***",
                            "    Specific problem: fileSem timeout in rm_fileOpen"));
    EXPECT_EQ(logLines(readFile("log")), lines);
    EXPECT_FALSE(std::filesystem::exists("f"));
    EXPECT_EQ(fileSemValue(), 0) << "what the dead one holds stays held";
    rm_syncExitExcl(fileSem);
}

TEST_F(FileProcesses, AHolderThatEndsFatallyGivesTheLockBack)
{
    Peer holder([](Peer::Channel& ch) {
        // No memory for the table: the end begins inside the lock.
        bool isInside = false;
        const ScopedFault fault({.call = Call::kMalloc,
                                 .error = ENOMEM,
                                 .times = kForever,
                                 .when = [&](const CallRecord&) {
                                     if (!isInside) {
                                         isInside = true;
                                         ch.say("inside");
                                         ch.hear();
                                     }
                                     return true;
                                 }});
        EXPECT_EQ(catchFatal([] { openNew("other"); }), 1);
        ch.say("ended");
        ch.hear();
    });
    ASSERT_EQ(holder.hear(), "inside");
    Peer second([](Peer::Channel&) { EXPECT_NE(openNew("f"), -1); });
    ASSERT_TRUE(somebodyWaitsFor(fileSem));
    holder.say("go on");
    EXPECT_EQ(holder.hear(), "ended");
    EXPECT_EQ(second.wait().status, 0);
    holder.say("go on");
    EXPECT_EQ(holder.wait().status, 0);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(FileProcesses, AWorkerThatIsKilledInATransferHoldsNobodyUp)
{
    writeFile("f", kDigits);
    Peer worker([](Peer::Channel& ch) {
        const int16_t handle = rm_fileOpen("f", RM_O_RDWR, 0, 0, 0);
        Spy spy(Call::kWrite, [&](const CallRecord& call) {
            if (call.args[0] == entryOf(handle)->fd) {
                ch.say("inside");
                ch.hear();
            }
        });
        write(handle, "text");
    });
    ASSERT_EQ(worker.hear(), "inside");
    worker.kill(SIGKILL);
    EXPECT_EQ(worker.wait().signal, SIGKILL);
    EXPECT_EQ(fileSemValue(), 1);
    const int16_t handle = rm_fileOpen("f", RM_O_RDWR, 0, 0, 0);
    EXPECT_EQ(write(handle, "text"), 4U);
}

TEST_F(FileProcesses, LocksThatAreRemovedAreFatalToThoseWhoWait)
{
    Peer holder([](Peer::Channel& ch) {
        Spy spy(Call::kOpen, [&](const CallRecord&) {
            ch.say("inside");
            ch.hear();
        });
        EXPECT_EQ(catchFatal([] { rm_fileOpen("slow", kReadWrite, 0, 0, 0); }), 1);
    });
    ASSERT_EQ(holder.hear(), "inside");
    Peer waiter([](Peer::Channel&) {
        EXPECT_EQ(catchFatal([] { rm_fileOpen("f", kReadWrite, 0, 0, 0); }), 1);
    });
    ASSERT_TRUE(somebodyWaitsFor(fileSem));
    rm_syncTerminate();
    const ChildResult waited = waiter.wait();
    EXPECT_EQ(waited.status, 0);
    EXPECT_LT(waited.seconds, 10.0) << "it was not the time-out";
    EXPECT_THAT(waited.out, ::testing::StartsWith("**** rm_syncEnterExcl() semop() failure, "
                                                  "errno=43 (Identifier removed)"));
    holder.say("go on");
    const ChildResult held = holder.wait();
    EXPECT_EQ(held.status, 0);
    EXPECT_THAT(held.out, ::testing::StartsWith("**** rm_syncExitExcl() semop() failure"));
}

TEST_F(FileProcesses, AFatalEndWithoutATargetRemovesTheLocksOfAll)
{
    const ChildResult child = runChild([] {
        rm_fileOpen("missing", RM_O_RDWR, FILE_FATAL, 0, 0);
        _exit(99);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(semValue(os::iSem, fileSem), -1);
    // This process still has its table of objects, and a set that is gone.
    const FatalEnd end = fatalEnd([] { rm_fileOpen("f", kReadWrite, 0, 0, 0); });
    EXPECT_TRUE(end.jumped);
    EXPECT_LT(end.seconds, 1.0);
    // It gives them up, and its files have locks again that work: entered, grown and left.
    EXPECT_TRUE(fatalEnd([] { rm_syncTerminate(); }).jumped);
    rmDiskFull = 0;
    const int16_t handle = openNew("f", 0, 1000, 1000);
    EXPECT_EQ(seekWrite(handle, 2000, "text"), 4U);
    EXPECT_EQ(fileSemValue(), 1);
    EXPECT_EQ(growSemValue(), 1);
}

// --- Growth

TEST_F(FileGrowthProcesses, OneProcessWaitsForTheGrowthOfAnother)
{
    Peer first([](Peer::Channel& ch) {
        const int16_t handle = openNew("f", 0, 0, 1000);
        bool told = false;
        Spy spy(Call::kWrite, [&](const CallRecord& call) {
            if (isZeroBlock(call) && !std::exchange(told, true)) {
                ch.say("inside");
                ch.hear();
            }
        });
        EXPECT_EQ(seekWrite(handle, 0, "first"), 5U);
    });
    ASSERT_EQ(first.hear(), "inside");
    Peer second([](Peer::Channel&) {
        const int16_t handle = openNew("f", 0, 0, 1000);
        EXPECT_EQ(seekWrite(handle, 995, "other"), 5U);
    });
    ASSERT_TRUE(somebodyWaitsFor(growSem));
    first.say("go on");
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(second.wait().status, 0);
    EXPECT_EQ(growSemValue(), 1);
    EXPECT_EQ(readFile("f"), "first" + std::string(990, '\0') + "other" + std::string(1000, '\0'));
}

TEST_F(FileGrowthProcesses, TwoProcessesThatGrowOneFileLoseNothing)
{
    constexpr uint32_t kRecords = 300;
    constexpr uint32_t kRecordSize = 97;
    const auto record = [](uint32_t n) {
        std::string text = "record " + std::to_string(n) + ' ';
        text.resize(kRecordSize, static_cast<char>('a' + n % 26));
        return text;
    };
    const auto work = [&](Peer::Channel& ch, uint32_t remainder) {
        const int16_t handle = openNew("f", 0, 0, 1000);
        ch.say("ready");
        ch.hear();
        for (uint32_t n = remainder; n < kRecords; n += 2) {
            EXPECT_EQ(seekWrite(handle, n * kRecordSize, record(n)), kRecordSize);
        }
    };
    Peer even([&](Peer::Channel& ch) { work(ch, 0); });
    Peer odd([&](Peer::Channel& ch) { work(ch, 1); });
    ASSERT_EQ(even.hear(), "ready");
    ASSERT_EQ(odd.hear(), "ready");
    even.say("go");
    odd.say("go");
    EXPECT_EQ(even.wait().status, 0);
    EXPECT_EQ(odd.wait().status, 0);
    const std::string contents = readFile("f");
    EXPECT_EQ(contents.size(), (kRecords * kRecordSize / 1000 + 1) * 1000);
    for (uint32_t n = 0; n < kRecords; ++n) {
        ASSERT_EQ(contents.substr(n * kRecordSize, kRecordSize), record(n));
    }
    EXPECT_EQ(growSemValue(), 1);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(FileGrowthProcesses, OneThatFailsLetsAllThatWaitThrough)
{
    Peer failing([](Peer::Channel& ch) {
        const int16_t handle = openNew("f", 0, 0, 1000);
        ScopedFault fault(
            {.call = Call::kWrite, .when = isZeroBlock, .action = [&](const CallRecord&) {
                 ch.say("inside");
                 ch.hear();
                 errno = ENOSPC;
                 return int64_t{-1};
             }});
        EXPECT_EQ(catchFatal([&] { seekWrite(handle, 0, "x"); }), 1);
    });
    ASSERT_EQ(failing.hear(), "inside");
    const auto grow = [](Peer::Channel& ch, const char* name) {
        const int16_t handle = openNew(name, 0, 0, 1000);
        // The growths of the two stay inside until both are in: neither waits for the other.
        Spy spy(Call::kStatvfs, [&](const CallRecord&) {
            ch.say("through");
            ch.hear();
        });
        EXPECT_EQ(seekWrite(handle, 0, "x"), 1U);
    };
    Peer one([&](Peer::Channel& ch) { grow(ch, "g"); });
    Peer two([&](Peer::Channel& ch) { grow(ch, "h"); });
    ASSERT_TRUE(somebodyWaitsFor(growSem, 2));
    failing.say("fail");
    EXPECT_EQ(one.hear(), "through");
    EXPECT_EQ(two.hear(), "through");
    one.say("go on");
    two.say("go on");
    EXPECT_EQ(one.wait().status, 0);
    EXPECT_EQ(two.wait().status, 0);
    const ChildResult result = failing.wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(logLines(result.err).front(), "Error expanding file f");
    EXPECT_EQ(growSemValue(), 2);
}

TEST_F(FileGrowthProcesses, AWaitForGrowSemOutlivesTheTimeOutsOfTheOtherLocks)
{
    rm_syncEnterExcl(growSem, RM_WAIT_FOREVER);
    Peer waiter([](Peer::Channel&) {
        const int16_t handle = openNew("f", 0, 0, 1000);
        EXPECT_EQ(seekWrite(handle, 0, "x"), 1U);
    });
    ASSERT_TRUE(somebodyWaitsFor(growSem));
    // What would end a wait with a time-out.
    for (int i = 0; i < 3; ++i) {
        waiter.kill(SIGALRM);
        ASSERT_TRUE(somebodyWaitsFor(growSem));
        EXPECT_TRUE(waiter.running());
    }
    rm_syncExitExcl(growSem);
    EXPECT_EQ(waiter.wait().status, 0);
}

// --- Handles over a fork

TEST_F(FileInheritance, AHandleIsValidInTheChild)
{
    const int16_t handle = openWith("f", kDigits);
    EXPECT_EQ(runChild([&] {
                  EXPECT_EQ(seekRead(handle, 3, 4), "3456");
                  EXPECT_STREQ(entryOf(handle)->name, "f");
              }).status,
              0);
}

TEST_F(FileInheritance, TheTableOfTheChildIsItsOwn)
{
    const int16_t handle = openWith("f", kDigits);
    EXPECT_EQ(runChild([&] {
                  openNew("g");
                  rm_fileClose(handle);
              }).status,
              0);
    EXPECT_EQ(counts(), (Counts{1, 0, 0, 0}));
    EXPECT_EQ(read(handle, 4), "0123");
}

TEST_F(FileInheritance, ParkingInTheChildDoesNotParkInTheParent)
{
    const int16_t handle = openWith("f", kDigits);
    EXPECT_EQ(runChild([&] { park(handle); }).status, 0);
    EXPECT_EQ(entryOf(handle)->state, file::kSlotOpen);
    EXPECT_EQ(read(handle, 4), "0123");
}

TEST_F(FileInheritance, ThePositionOfAHandleIsNotShared)
{
    const int16_t handle = openWith("f", kDigits);
    EXPECT_EQ(runChild([&] { EXPECT_EQ(read(handle, 4), "0123"); }).status, 0);
    EXPECT_EQ(rm_filePosition(handle), 0U);
    EXPECT_EQ(read(handle, 4), "0123");
}

TEST_F(FileInheritance, TheOffsetOfADescriptorIsShared)
{
    const int16_t handle = openWith("f", kDigits);
    EXPECT_EQ(runChild([&] { rm_fileSeek(handle, 6); }).status, 0);
    EXPECT_EQ(seekRead(handle, RM_CURRENT_POSITION, 4), "6789");
}

TEST_F(FileInheritance, AFileThatWasReopenedSharesNothing)
{
    const int16_t handle = parkedWith("f", kDigits);
    EXPECT_EQ(runChild([&] { rm_fileSeek(handle, 6); }).status, 0);
    EXPECT_EQ(seekRead(handle, RM_CURRENT_POSITION, 4), "0123");
}

TEST_F(FileInheritance, UnderALockOfTheHostAnInheritedHandleLosesNothing)
{
    const int16_t handle = openNew("f");
    const int16_t hostLock = rm_syncCreate("host");
    constexpr uint32_t kRecords = 200;
    const auto work = [&](uint32_t remainder) {
        for (uint32_t n = remainder; n < kRecords; n += 2) {
            rm_syncEnterExcl(hostLock, RM_WAIT_FOREVER);
            std::string text = std::to_string(1'000'000 + n);
            EXPECT_EQ(seekWrite(handle, n * 7, text), 7U);
            EXPECT_EQ(seekRead(handle, n * 7, 7), text);
            rm_syncExitExcl(hostLock);
        }
    };
    Peer even([&](Peer::Channel&) { work(0); });
    Peer odd([&](Peer::Channel&) { work(1); });
    EXPECT_EQ(even.wait().status, 0);
    EXPECT_EQ(odd.wait().status, 0);
    const std::string contents = readFile("f");
    for (uint32_t n = 0; n < kRecords; ++n) {
        ASSERT_EQ(contents.substr(n * 7, 7), std::to_string(1'000'000 + n));
    }
}

TEST_F(FileInheritance, AnInheritedLogFileTakesTheLinesOfAll)
{
    openLog("log", FILE_FATAL | FILE_STREAM | FILE_PINNED);
    constexpr int kLines = 100;
    std::vector<std::unique_ptr<Peer>> workers;
    workers.reserve(4);
    for (int worker = 0; worker < 4; ++worker) {
        workers.push_back(std::make_unique<Peer>([worker](Peer::Channel&) {
            for (int i = 0; i < kLines; ++i) {
                rm_systemLogWrite("worker %d line %d", worker, i);
            }
        }));
    }
    for (const auto& worker : workers) {
        EXPECT_EQ(worker->wait().status, 0);
    }
    Lines expected;
    for (int worker = 0; worker < 4; ++worker) {
        for (int i = 0; i < kLines; ++i) {
            expected.push_back("worker " + std::to_string(worker) + " line " + std::to_string(i));
        }
    }
    EXPECT_THAT(logLines(readFile("log")), ::testing::UnorderedElementsAreArray(expected));
}

// --- Workers that open their files after the fork

TEST_F(FileWorkers, ShareFilesThatEachHasOpenedItself)
{
    constexpr uint32_t kWorkers = 4;
    constexpr uint32_t kFiles = 10;
    constexpr uint32_t kRounds = 30;
    constexpr uint32_t kRecordSize = 24;
    rmDiskFull = 0;
    const auto record = [](uint32_t worker, uint32_t file, uint32_t round) {
        std::string text =
            std::to_string(worker) + '/' + std::to_string(file) + '/' + std::to_string(round);
        text.resize(kRecordSize, '.');
        return text;
    };
    const auto place = [](uint32_t worker, uint32_t round) {
        return (round * kWorkers + worker) * kRecordSize;
    };
    std::vector<std::unique_ptr<Peer>> workers;
    workers.reserve(kWorkers);
    for (uint32_t worker = 0; worker < kWorkers; ++worker) {
        workers.push_back(std::make_unique<Peer>([=](Peer::Channel&) {
            fileHandleLimit = 4;
            for (uint32_t i = 0; i < kFiles; ++i) {
                EXPECT_EQ(openNew(("f" + std::to_string(i)).c_str(), 0, 0, 500),
                          static_cast<int16_t>(i));
            }
            for (uint32_t round = 0; round < kRounds; ++round) {
                for (uint32_t i = 0; i < kFiles; ++i) {
                    EXPECT_EQ(seekWrite(static_cast<int16_t>(i), place(worker, round),
                                        record(worker, i, round)),
                              kRecordSize);
                }
            }
            for (uint32_t round = 0; round < kRounds; ++round) {
                for (uint32_t i = 0; i < kFiles; ++i) {
                    EXPECT_EQ(seekRead(static_cast<int16_t>(i), place(worker, round), kRecordSize),
                              record(worker, i, round));
                }
            }
            EXPECT_EQ(counts().open, 4U);
            EXPECT_EQ(counts().parked, kFiles - 4);
            EXPECT_EQ(file::checkFtab(), 0U);
        }));
    }
    for (const auto& worker : workers) {
        EXPECT_EQ(worker->wait().status, 0);
    }
    for (uint32_t i = 0; i < kFiles; ++i) {
        const std::string contents = readFile("f" + std::to_string(i));
        for (uint32_t worker = 0; worker < kWorkers; ++worker) {
            for (uint32_t round = 0; round < kRounds; ++round) {
                ASSERT_EQ(contents.substr(place(worker, round), kRecordSize),
                          record(worker, i, round));
            }
        }
    }
    EXPECT_EQ(fileSemValue(), 1);
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(FileWorkers, FindADiskThatOneOfThemHasFilledFullForThatOneOnly)
{
    rmDiskFull = 0;
    rminfree = 1e18;
    const ChildResult child = runChild([] {
        const int16_t handle = openNew("f", 0, 0, 1000);
        seekWrite(handle, 0, "x");
        EXPECT_EQ(rmDiskFull, 1);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_THAT(logLines(child.err),
                ElementsAre("extending file f exceeded min threshold by 2147483647 bytes",
                            "READ ACCESS ONLY!"));
    EXPECT_EQ(rmDiskFull, 0);
}

}  // namespace
