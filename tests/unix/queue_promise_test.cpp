// What a message queue does beside its results: what its table looks like, what it asks the system
// for, what it logs, and what is left of a creation for which the system had no queue.
#include "queue_case.h"

#include <cstddef>

using namespace queuetest;

namespace
{
class QueueTable : public QueueTest
{
};

class QueueRequest : public QueueTest
{
};

class QueueLog : public QueueTest
{
};

// The system has refused the first queue.
class QueueRefused : public QueueTest
{
  protected:
    void SetUp() override
    {
        QueueTest::SetUp();
        const ScopedFault fault({.call = Call::kMsgget, .error = ENOSPC});
        EXPECT_EQ(fatalQuietly([] { rm_queueCreate("refused"); }), 1);
        EXPECT_EQ(fault.hits(), 1);
        damaged();  // a name without a queue
    }
};

// What `body` prints and logs.
std::string outputOf(const std::function<void()>& body)
{
    std::string out;
    const std::string log = captureStderr([&] { out = captureStdout(body); });
    return out + log;
}

// --- The table

TEST_F(QueueTable, HasFiveSlotsWithTheirFieldsInOrder)
{
    EXPECT_EQ(os::rmQueue.size(), 5U);
    EXPECT_EQ(offsetof(os::QueueSlot, id), 0U);
    EXPECT_EQ(offsetof(os::QueueSlot, key), 4U);
    EXPECT_EQ(offsetof(os::QueueSlot, buffer), 8U);
    EXPECT_EQ(offsetof(os::QueueSlot, name), 8U + sizeof(void*));
    EXPECT_EQ(sizeof(os::QueueSlot::id), 4U);
    EXPECT_EQ(sizeof(os::QueueSlot::key), 4U);
    EXPECT_EQ(sizeof(os::nQueues), 2U);
}

TEST_F(QueueTable, IsEmptyAtTheStartAndCountsEachQueueOnce)
{
    EXPECT_EQ(os::nQueues, 0);
    EXPECT_EQ(os::gfpRMQueueTokenFile, nullptr);
    EXPECT_EQ(namedSlots(), 0);
    for (int16_t count = 1; count <= 5; ++count) {
        createQueue();
        EXPECT_EQ(os::nQueues, count);
    }
    for (int16_t count = 4; count >= 0; --count) {
        rm_queueDelete(count);
        EXPECT_EQ(os::nQueues, count);
    }
}

// --- What the system is asked

TEST_F(QueueRequest, OfAReadHasNoOtherFlagThanNotToWait)
{
    createQueue();
    for (unsigned bit = 0; bit < 16; ++bit) {
        const auto flags = static_cast<uint16_t>(1U << bit);
        for (const uint16_t more : std::to_array<uint16_t>({0, kWait})) {
            const auto all = static_cast<uint16_t>(flags | more);
            writeQueue(0, "x", all);
            resetCalls();
            EXPECT_EQ(readQueue(0, all), got("x", all));
            const auto calls = callTrace({Call::kMsgrcv});
            ASSERT_EQ(calls.size(), 1U);
            EXPECT_EQ(calls[0].args[4], (all & kWait) != 0 ? 0 : IPC_NOWAIT) << all;
        }
    }
}

TEST_F(QueueRequest, OfASecondCreationIsForTheQueueAlone)
{
    createQueue();
    resetCalls();
    createQueue();
    const auto calls = callTrace({Call::kOpen, Call::kFdopen, Call::kFclose, Call::kUnlink,
                                  Call::kFtok, Call::kMsgget, Call::kMsgctl});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].call, Call::kMsgget);
    EXPECT_EQ(calls[0].args[0], os::rmQueue[1].key);
    EXPECT_EQ(calls[0].args[1], 1023);
}

TEST_F(QueueRequest, OfASearchByNameIsNone)
{
    createQueues(2);
    resetCalls();
    EXPECT_EQ(rm_queueOpen("queue"), 0);
    EXPECT_EQ(rm_queueOpen("none"), RM_NONE);
    EXPECT_THAT(callTrace(), IsEmpty());
}

TEST_F(QueueRequest, ThatFindsNoMessageIsAnEmptyQueueForAWaitToo)
{
    createQueue();
    const ScopedFault fault({.call = Call::kMsgrcv, .error = ENOMSG});
    EXPECT_EQ(readQueue(0, kWait), kNothing);
    EXPECT_EQ(fault.hits(), 1);
}

// --- What is printed and logged

TEST_F(QueueLog, HasNothingOfQueuesThatAreUsedAsTheyShould)
{
    EXPECT_EQ(outputOf([] {
                  rm_queueDelete(0);
                  createQueues(5);
                  writeQueue(0, "text", 1);
                  readQueue(0);
                  readQueue(0);
                  rm_queueOpen("none");
                  rm_queueDelete(3);
                  rm_queueDelete(3);
                  rm_queueDelete(-1);
                  rm_queueTerminate();
              }),
              "");
}

TEST_F(QueueLog, HasNothingOfAQueueThatHadGoneBeforeItsDeletion)
{
    createQueue();
    ASSERT_EQ(msgctl(idOf(0), IPC_RMID, nullptr), 0);
    EXPECT_EQ(outputOf([] { EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS); }), "");
}

// --- A creation that the system refuses

TEST_F(QueueRefused, LeavesASlotThatIsFoundByItsName)
{
    EXPECT_EQ(rm_queueOpen("refused"), 0);
    EXPECT_EQ(os::nQueues, 1);
    EXPECT_NE(os::rmQueue[0].buffer, nullptr);
    EXPECT_EQ(rm_queueCreate("next"), 1);
}

TEST_F(QueueRefused, LeavesASlotThroughWhichNothingCanBeSentOrRead)
{
    EXPECT_EQ(failureOf([] { rm_queueWrite(0, "text", 4, 0); }),
              failure("rm_queueWrite", "msgsnd() failure", EINVAL));
    EXPECT_EQ(failureOf([] {
                  int16_t length = 0;
                  char* none = nullptr;
                  rm_queueRead(0, &none, &length, nullptr, 0);
              }),
              failure("rm_queueRead", "msgrcv() failure", EINVAL));
}

TEST_F(QueueRefused, LeavesASlotThatIsDeletedWithoutAskingTheSystem)
{
    void* keeper = rm_getMemory(8, 0);
    const auto before = static_cast<uint32_t>(rmalloc::tagTable[0].allocated);
    resetCalls();
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_EQ(callCount(Call::kMsgctl), 0);
    EXPECT_EQ(os::nQueues, 0);
    EXPECT_EQ(os::gfpRMQueueTokenFile, nullptr);
    EXPECT_FALSE(std::filesystem::exists(kToken));
    EXPECT_LT(rmalloc::tagTable[0].allocated, before - kReceived) << "the buffer stayed";
    rm_freeMemory(keeper, 0);
}

TEST_F(QueueRequest, OfTheFirstCreationAreTheTokenFileThenAllKeysThenTheQueue)
{
    resetCalls();
    createQueue();
    std::vector<Call> calls;
    for (const CallRecord& call :
         callTrace({Call::kOpen, Call::kFdopen, Call::kFtok, Call::kMsgget})) {
        calls.push_back(call.call);
    }
    EXPECT_THAT(calls, ElementsAre(Call::kOpen, Call::kFdopen, Call::kFtok, Call::kFtok,
                                   Call::kFtok, Call::kFtok, Call::kFtok, Call::kMsgget));
}

TEST_F(QueueRequest, OfTheLastDeletionAreTheRemovalThenTheTokenFile)
{
    createQueues(2);
    rm_queueDelete(1);
    const int id = idOf(0);
    resetCalls();
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    const auto calls = callTrace({Call::kMsgctl, Call::kFclose, Call::kUnlink});
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0].call, Call::kMsgctl);
    EXPECT_EQ(calls[0].args[0], id);
    EXPECT_EQ(calls[0].args[1], IPC_RMID);
    EXPECT_EQ(calls[1].call, Call::kFclose);
    EXPECT_EQ(calls[2].call, Call::kUnlink);
    EXPECT_EQ(calls[2].path(), kToken);
}

}  // namespace
