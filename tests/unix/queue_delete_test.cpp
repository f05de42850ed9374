// Deletion of message queues, one by one, all at once and more often than they were created; what
// a release of their memory leaves; and the checker of their table.
#include "queue_case.h"

using namespace queuetest;

namespace
{
class QueueDelete : public QueueTest
{
};

// The count stays below 0 until the next creation, which is what the checker reports.
class QueueDeletedTooMany : public QueueTest
{
  protected:
    void TearDown() override
    {
        os::nQueues = std::max<int16_t>(os::nQueues, 0);
        QueueTest::TearDown();
    }
};

class QueueTerminate : public QueueTest
{
};

class QueueForget : public QueueTest
{
};

class QueueCheck : public QueueTest
{
  protected:
    void SetUp() override
    {
        QueueTest::SetUp();
        createQueues(2);
        saved_ = os::rmQueue;
        stream_ = os::gfpRMQueueTokenFile;
    }

    void TearDown() override
    {
        os::rmQueue = saved_;
        os::nQueues = 2;
        os::gfpRMQueueTokenFile = stream_;
        QueueTest::TearDown();
    }

    // The lines with which the check reports what does not hold; their number is its result.
    static std::vector<std::string> report()
    {
        uint32_t violations = 0;
        std::vector<std::string> lines =
            logLines(captureStderr([&] { violations = os::checkQueues(); }));
        EXPECT_EQ(lines.size(), violations);
        return lines;
    }

  private:
    std::array<os::QueueSlot, os::kQueueSlots> saved_ = {};
    FILE* stream_ = nullptr;
};

const std::string kTooMany = failure("rm_queueDelete", "Deleted too many Message Queues!", 0);

bool tokenExists()
{
    return std::filesystem::exists(kToken);
}

// --- Deletion

TEST_F(QueueDelete, RemovesTheQueueWithItsMessages)
{
    createQueue();
    const int id = idOf(0);
    writeQueue(0, "unread");
    resetCalls();
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    const auto calls = callTrace({Call::kMsgctl});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].args[0], id);
    EXPECT_EQ(calls[0].args[1], IPC_RMID);
    EXPECT_FALSE(queueExists(id));
}

TEST_F(QueueDelete, LeavesTheOtherQueues)
{
    createQueues(3);
    writeQueue(2, "text", 2);
    rm_queueDelete(0);
    EXPECT_EQ(os::checkQueues(), 0U);
    EXPECT_EQ(os::nQueues, 2);
    EXPECT_EQ(readQueue(2), got("text", 2));
}

TEST_F(QueueDelete, OfAFreeSlotDoesNothing)
{
    createQueues(2);
    rm_queueDelete(0);
    resetCalls();
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_EQ(rm_queueDelete(3), RM_SUCCESS);
    EXPECT_THAT(callTrace({Call::kMsgctl, Call::kUnlink, Call::kFclose, Call::kFree}), IsEmpty());
    EXPECT_EQ(os::nQueues, 1);
}

TEST_F(QueueDelete, OutOfRangeDoesNothing)
{
    createQueue();
    resetCalls();
    for (const int16_t handle : kOutOfRange) {
        EXPECT_EQ(rm_queueDelete(handle), RM_SUCCESS) << handle;
    }
    EXPECT_THAT(callTrace({Call::kMsgctl, Call::kUnlink, Call::kFclose, Call::kFree}), IsEmpty());
    EXPECT_EQ(os::nQueues, 1);
}

TEST_F(QueueDelete, BeforeThereIsAQueueDoesNothing)
{
    writeFile(kToken, "of another process");
    for (const int16_t handle : std::to_array<int16_t>({-1, 0, 4, 5})) {
        EXPECT_EQ(rm_queueDelete(handle), RM_SUCCESS) << handle;
    }
    EXPECT_EQ(os::nQueues, 0);
    EXPECT_EQ(readFile(kToken), "of another process");
    std::filesystem::remove(kToken);
}

TEST_F(QueueDelete, DoesNotMindThatTheQueueHasGoneAlready)
{
    createQueues(2);
    ASSERT_EQ(msgctl(idOf(0), IPC_RMID, nullptr), 0);
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_EQ(os::checkQueues(), 0U);
    EXPECT_EQ(os::nQueues, 1);
}

TEST_F(QueueDelete, TwiceIsAccepted)
{
    createQueue();
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_EQ(os::nQueues, 0);
}

TEST_F(QueueDelete, ASlotThatIsTakenAgainHasAnEmptyQueue)
{
    createQueues(2);
    writeQueue(0, "old");
    rm_queueDelete(0);
    createQueue();
    EXPECT_EQ(readQueue(0), kNothing);
}

// --- More deletions than creations

TEST_F(QueueDeletedTooMany, AQueueWithoutMemoryWasNotCounted)
{
    createWithoutMemory();
    EXPECT_EQ(os::nQueues, 0);
    EXPECT_EQ(failureOf([] { rm_queueDelete(0); }), kTooMany);
}

TEST_F(QueueDeletedTooMany, HasErrorZero)
{
    createWithoutMemory();
    EXPECT_EQ(failureOf([] {
                  errno = EIO;
                  rm_queueDelete(0);
              }),
              kTooMany);
}

TEST_F(QueueDeletedTooMany, ComesAfterTheTokenFileHasGone)
{
    createWithoutMemory();
    EXPECT_TRUE(tokenExists());
    EXPECT_EQ(fatalQuietly([] { rm_queueDelete(0); }), 1);
    EXPECT_FALSE(tokenExists());
    EXPECT_EQ(os::gfpRMQueueTokenFile, nullptr);
    EXPECT_EQ(namedSlots(), 0);
}

TEST_F(QueueDeletedTooMany, MeetsWhoeverIsDeletedLast)
{
    createQueue("sound");
    const int id = idOf(0);
    createWithoutMemory();
    EXPECT_EQ(rm_queueDelete(1), RM_SUCCESS);
    EXPECT_EQ(failureOf([] { rm_queueDelete(0); }), kTooMany);
    EXPECT_FALSE(queueExists(id));
    EXPECT_EQ(namedSlots(), 0);
    EXPECT_FALSE(tokenExists());
}

TEST_F(QueueDeletedTooMany, TheSoundOneFirstLeavesTheOtherToBeMet)
{
    createQueue("sound");
    createWithoutMemory();
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_EQ(failureOf([] { rm_queueDelete(1); }), kTooMany);
    EXPECT_FALSE(tokenExists());
}

TEST_F(QueueDeletedTooMany, MeetsTheDeletionOfAllToo)
{
    createQueue();
    createWithoutMemory();
    EXPECT_EQ(failureOf([] { rm_queueTerminate(); }), kTooMany);
    EXPECT_THAT(ipcObjects(), IsEmpty());
    EXPECT_FALSE(tokenExists());
}

TEST_F(QueueDeletedTooMany, EveryFurtherDeletionIsFatalUntilAQueueIsCreated)
{
    createWithoutMemory();
    EXPECT_EQ(failureOf([] { rm_queueDelete(0); }), kTooMany);
    EXPECT_EQ(failureOf([] { rm_queueDelete(0); }), kTooMany);
    EXPECT_EQ(failureOf([] { rm_queueDelete(-1); }), kTooMany);
    EXPECT_EQ(createQueue(), 0);
    EXPECT_EQ(os::nQueues, 1);
    EXPECT_EQ(rm_queueDelete(-1), RM_SUCCESS);
}

TEST_F(QueueDeletedTooMany, WithoutAStreamNothingIsUnlinked)
{
    createWithoutMemory();
    EXPECT_EQ(fatalQuietly([] { rm_queueDelete(0); }), 1);
    writeFile(kToken, "of another process");
    EXPECT_EQ(failureOf([] { rm_queueDelete(0); }), kTooMany);
    EXPECT_EQ(readFile(kToken), "of another process");
    std::filesystem::remove(kToken);
}

TEST_F(QueueDeletedTooMany, ACountOf0TakesNoTokenFileFromAQueueThatIsThere)
{
    createQueue("sound");
    createWithoutMemory();
    EXPECT_EQ(rm_queueDelete(1), RM_SUCCESS);
    EXPECT_EQ(os::nQueues, 0);
    EXPECT_TRUE(tokenExists());
    EXPECT_NE(os::gfpRMQueueTokenFile, nullptr);
    EXPECT_EQ(fatalQuietly([] { rm_queueDelete(0); }), 1);
}

TEST_F(QueueDeletedTooMany, ACountOf0LosesNoQueueThatIsThere)
{
    createQueue("sound");
    const int id = idOf(0);
    writeQueue(0, "kept", 5);
    createWithoutMemory();
    EXPECT_EQ(rm_queueDelete(1), RM_SUCCESS);
    EXPECT_EQ(createQueue(), 1);
    EXPECT_EQ(os::nQueues, 2);
    EXPECT_EQ(idOf(0), id);
    EXPECT_EQ(readQueue(0), got("kept", 5));
    rm_queueTerminate();
    EXPECT_EQ(os::nQueues, 0);
    EXPECT_FALSE(tokenExists());
}

TEST_F(QueueDeletedTooMany, TheDeletionOfAllRemovesEveryQueueFirst)
{
    createQueues(3);
    rm_queueDelete(0);
    rm_queueDelete(1);
    createWithoutMemory();
    createWithoutMemory();
    createWithoutMemory();
    const int id = idOf(2);
    EXPECT_EQ(failureOf([] { rm_queueTerminate(); }), kTooMany);
    EXPECT_FALSE(queueExists(id));
    EXPECT_EQ(namedSlots(), 0);
    EXPECT_FALSE(tokenExists());
}

TEST_F(QueueDeletedTooMany, TheDeletionOfAllHasNothingToDeleteAfterwards)
{
    createWithoutMemory();
    EXPECT_EQ(fatalQuietly([] { rm_queueDelete(0); }), 1);
    EXPECT_EQ(rm_queueTerminate(), RM_SUCCESS);
}

TEST_F(QueueDeletedTooMany, ACountOf0MakesNoNewKeysForQueuesThatAreThere)
{
    createQueue("sound");
    createWithoutMemory();
    EXPECT_EQ(rm_queueDelete(1), RM_SUCCESS);
    rm_tokenName("later.");
    resetCalls();
    EXPECT_EQ(createQueue(), 1);
    EXPECT_EQ(callCount(Call::kFtok), 0);
    EXPECT_EQ(os::rmQueue[1].key, ftok(kToken, 2));
    EXPECT_FALSE(std::filesystem::exists("later..ZNT.RM.QUEUE"));
}

TEST_F(QueueDeletedTooMany, ASlotWithoutMemoryIsGivenUpByACreationThatBeginsAnew)
{
    createWithoutMemory("lost");
    {
        ScopedFault fault({.call = Call::kOpen, .error = EMFILE});
        EXPECT_EQ(fatalQuietly([] { rm_queueCreate("queue"); }), 1);
    }
    EXPECT_EQ(rm_queueOpen("lost"), RM_NONE);
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    // The attempt has closed the stream; the file may be another process's by now.
    EXPECT_EQ(os::gfpRMQueueTokenFile, nullptr);
    EXPECT_TRUE(tokenExists());
    std::filesystem::remove(kToken);
}

TEST_F(QueueDeletedTooMany, TheNextCreationStartsAnew)
{
    createWithoutMemory();
    EXPECT_EQ(createQueue(), 0);
    EXPECT_EQ(os::nQueues, 1);
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_FALSE(tokenExists());
}

// --- Deletion of all

TEST_F(QueueTerminate, RemovesAllQueuesInTheOrderOfTheirHandles)
{
    createQueues(5);
    rm_queueDelete(1);
    std::vector<int64_t> ids;
    for (const int16_t handle : std::to_array<int16_t>({0, 2, 3, 4})) {
        ids.push_back(idOf(handle));
    }
    resetCalls();
    EXPECT_EQ(rm_queueTerminate(), RM_SUCCESS);
    std::vector<int64_t> removed;
    for (const CallRecord& call : callTrace({Call::kMsgctl})) {
        removed.push_back(call.args[0]);
    }
    EXPECT_EQ(removed, ids);
    EXPECT_EQ(os::nQueues, 0);
    EXPECT_FALSE(tokenExists());
    EXPECT_THAT(ipcObjects(), IsEmpty());
}

TEST_F(QueueTerminate, WithoutQueuesAsksTheSystemNothing)
{
    writeFile(kToken, "of another process");
    resetCalls();
    EXPECT_EQ(rm_queueTerminate(), RM_SUCCESS);
    EXPECT_THAT(callTrace(), IsEmpty());
    EXPECT_TRUE(tokenExists());
    std::filesystem::remove(kToken);
}

TEST_F(QueueTerminate, TwiceIsAccepted)
{
    createQueues(2);
    EXPECT_EQ(rm_queueTerminate(), RM_SUCCESS);
    EXPECT_EQ(rm_queueTerminate(), RM_SUCCESS);
}

TEST_F(QueueTerminate, QueuesCanBeCreatedAgain)
{
    createQueues(2);
    rm_queueTerminate();
    EXPECT_EQ(createQueue(), 0);
    writeQueue(0, "text", 1);
    EXPECT_EQ(readQueue(0), got("text", 1));
}

TEST_F(QueueTerminate, TakesTheTokenFileOfACreationThatFailedBeforeItHadASlot)
{
    {
        ScopedFault fault({.call = Call::kFtok, .error = ENOENT});
        EXPECT_EQ(fatalQuietly([] { rm_queueCreate("queue"); }), 1);
    }
    EXPECT_TRUE(tokenExists());
    EXPECT_EQ(rm_queueTerminate(), RM_SUCCESS);
    EXPECT_FALSE(tokenExists());
}

// --- Memory that goes below the queues

void expectForgotten()
{
    EXPECT_EQ(namedSlots(), 0);
    EXPECT_EQ(os::nQueues, 0);
    EXPECT_EQ(os::gfpRMQueueTokenFile, nullptr);
    for (const os::QueueSlot& slot : os::rmQueue) {
        EXPECT_EQ(slot.buffer, nullptr);
    }
    EXPECT_EQ(os::checkQueues(), 0U);
    EXPECT_TRUE(tokenExists());
    EXPECT_EQ(ipcObjects().size(), 2U);
}

TEST_F(QueueForget, ReleaseOfAllMemoryForgetsTheQueuesAndLeavesThemToOthers)
{
    createQueues(2);
    rm_freeall();
    expectForgotten();
    removeLeftQueues();
}

TEST_F(QueueForget, ReleaseOfTag0ForgetsTheQueuesAndLeavesThemToOthers)
{
    createQueues(2);
    rm_freeTagMemory(0, 0);
    expectForgotten();
    removeLeftQueues();
}

TEST_F(QueueForget, ReleaseOfAnotherTagIsNoneOfTheirBusiness)
{
    createQueues(2);
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_freeTagMemory(tag, 1);
    EXPECT_EQ(os::nQueues, 2);
    writeQueue(1, "text", 1);
    EXPECT_EQ(readQueue(1), got("text", 1));
}

TEST_F(QueueForget, TheNextCreationJoinsTheSameQueueAgain)
{
    createQueues(2);
    const int id = idOf(0);
    writeQueue(0, "unread", 9);
    rm_freeall();
    EXPECT_EQ(createQueue(), 0);
    EXPECT_EQ(idOf(0), id);
    EXPECT_EQ(readQueue(0), got("unread", 9));
    rm_queueTerminate();
    removeLeftQueues();
}

TEST_F(QueueForget, OldHandlesAreThoseOfFreeSlots)
{
    createQueue();
    rm_freeall();
    EXPECT_EQ(failureOf([] { rm_queueWrite(0, "text", 4, 0); }),
              failure("rm_queueWrite", "Invalid Message Queue Handle", 0));
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_EQ(rm_queueOpen("queue"), RM_NONE);
    EXPECT_EQ(ipcObjects().size(), 1U);
    removeLeftQueues();
}

// --- The checker

TEST_F(QueueCheck, ASoundTableIsSilent)
{
    EXPECT_THAT(report(), IsEmpty());
}

TEST_F(QueueCheck, ANameWithoutABufferIsReported)
{
    os::rmQueue[1].buffer = nullptr;
    const std::vector<std::string> lines = report();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_THAT(lines[0], ::testing::StartsWith("WARNING: message queues: queue has queue "));
}

TEST_F(QueueCheck, ABufferWithoutANameIsReported)
{
    os::rmQueue[1].name = nullptr;
    os::nQueues = 1;
    const std::vector<std::string> lines = report();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_THAT(lines[0], ::testing::StartsWith("WARNING: message queues: - has queue "));
}

TEST_F(QueueCheck, ANameWithoutAQueueIsReported)
{
    os::rmQueue[0].id = RM_NONE;
    const std::vector<std::string> lines = report();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_THAT(lines[0], ::testing::StartsWith("WARNING: message queues: queue has queue -1, "));
}

TEST_F(QueueCheck, ACountThatIsNotTheNumberOfNamesIsReported)
{
    for (const int16_t counted : std::to_array<int16_t>({1, 3, 0, -1})) {
        os::nQueues = counted;
        const std::vector<std::string> lines = report();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_THAT(lines[0], ::testing::StartsWith("WARNING: message queues: 2 named, " +
                                                    std::to_string(counted) + " counted, "));
    }
}

TEST_F(QueueCheck, AMissingTokenStreamIsReported)
{
    os::gfpRMQueueTokenFile = nullptr;
    EXPECT_EQ(report().size(), 1U);
}

TEST_F(QueueCheck, ATokenStreamWithoutQueuesIsReported)
{
    for (os::QueueSlot& slot : os::rmQueue) {
        slot.name = nullptr;
        slot.buffer = nullptr;
    }
    os::nQueues = 0;
    EXPECT_EQ(report().size(), 1U);
}

TEST_F(QueueCheck, EachDamagedSlotIsReported)
{
    os::rmQueue[0].buffer = nullptr;
    os::rmQueue[1].id = RM_NONE;
    os::nQueues = 5;
    EXPECT_EQ(report().size(), 3U);
}

TEST_F(QueueCheck, ReadsOnly)
{
    os::nQueues = 4;
    const auto before = os::rmQueue;
    report();
    EXPECT_EQ(std::memcmp(&before, &os::rmQueue, sizeof before), 0);
    EXPECT_EQ(os::nQueues, 4);
}

}  // namespace
