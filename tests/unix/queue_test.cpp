// Message queues: their names and handles, their keys and the token file, their buffers. Messages
// are the matter of queue_message_test.cpp, the end of queues that of queue_delete_test.cpp.
#include "queue_case.h"

#include <fcntl.h>
#include <sys/stat.h>

using namespace queuetest;

namespace
{
class QueueCreate : public QueueTest
{
};

class QueueKeys : public QueueTest
{
};

class QueueToken : public QueueTest
{
};

class QueueBuffer : public QueueTest
{
};

class QueueOpen : public QueueTest
{
};

ino_t inodeOf(const char* path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path, &status), 0);
    return status.st_ino;
}

bool tokenExists()
{
    return std::filesystem::exists(kToken);
}

uint32_t allocatedInTag0()
{
    return static_cast<uint32_t>(rmalloc::tagTable[0].allocated);
}

// --- Creation

TEST_F(QueueCreate, HandlesAscendFromZero)
{
    createQueues(5);
    EXPECT_EQ(os::nQueues, 5);
}

TEST_F(QueueCreate, TheLowestFreeSlotIsTaken)
{
    createQueues(4);
    rm_queueDelete(2);
    rm_queueDelete(1);
    EXPECT_EQ(createQueue(), 1);
    EXPECT_EQ(createQueue(), 2);
    EXPECT_EQ(createQueue(), 4);
}

TEST_F(QueueCreate, ASixthIsFatalWithErrorZero)
{
    createQueues(5);
    EXPECT_EQ(failureOf([] {
                  errno = EIO;
                  rm_queueCreate("sixth");
              }),
              failure("rm_queueCreate", "Out of Message Queues!", 0));
}

TEST_F(QueueCreate, ASixthTakesNothingAndLeavesTheOthersAsTheyAre)
{
    createQueues(5);
    writeQueue(4, "text", 4);
    const uint32_t memory = rm_memused();
    resetCalls();
    EXPECT_EQ(fatalQuietly([] { rm_queueCreate("sixth"); }), 1);
    EXPECT_EQ(callCount(Call::kMsgget), 0);
    EXPECT_EQ(rm_memused(), memory);
    EXPECT_EQ(os::checkQueues(), 0U);
    EXPECT_EQ(rm_queueOpen("sixth"), RM_NONE);
    EXPECT_EQ(readQueue(4), got("text", 4));
}

TEST_F(QueueCreate, AfterASixthASlotThatBecomesFreeIsTaken)
{
    createQueues(5);
    EXPECT_EQ(fatalQuietly([] { rm_queueCreate("sixth"); }), 1);
    rm_queueDelete(3);
    EXPECT_EQ(createQueue(), 3);
}

TEST_F(QueueCreate, TheNameIsThePointerOfTheCaller)
{
    static char name[] = "before";
    createQueue(name);
    EXPECT_EQ(os::rmQueue[0].name, name);
    std::strcpy(name, "after");
    EXPECT_EQ(rm_queueOpen("before"), RM_NONE);
    EXPECT_EQ(rm_queueOpen("after"), 0);
}

TEST_F(QueueCreate, ANullNameCountsAsAnEmptyOne)
{
    EXPECT_EQ(createQueue(nullptr), 0);
    ASSERT_NE(os::rmQueue[0].name, nullptr);
    EXPECT_STREQ(os::rmQueue[0].name, "");
    writeQueue(0, "text", 1);
    EXPECT_EQ(readQueue(0), got("text", 1));
}

TEST_F(QueueCreate, AnEmptyNameTakesASlot)
{
    EXPECT_EQ(createQueue(""), 0);
    EXPECT_EQ(createQueue(""), 1);
    writeQueue(0, "text", 1);
    EXPECT_EQ(readQueue(1), kNothing);
    EXPECT_EQ(readQueue(0), got("text", 1));
}

TEST_F(QueueCreate, EqualNamesAreDifferentQueues)
{
    createQueue("same");
    createQueue("same");
    EXPECT_NE(idOf(0), idOf(1));
}

TEST_F(QueueCreate, IsForEverybody)
{
    createQueue();
    const auto calls = callTrace({Call::kMsgget});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].args[1], 1023);
    EXPECT_EQ(stateOf(idOf(0)).msg_perm.mode & 0777U, 0777U);
}

TEST_F(QueueCreate, JoinsTheQueueThatIsThereWithItsMessages)
{
    writeFile(kToken, "");
    const int id = msgget(ftok(kToken, 1), IPC_CREAT | 0600);
    ASSERT_NE(id, -1);
    ASSERT_TRUE(sendBare(id, messageOf(7, "left before").text));
    createQueue();
    EXPECT_EQ(idOf(0), id);
    EXPECT_EQ(readQueue(0), got("left before", 7));
}

// --- Keys

TEST_F(QueueKeys, AreMadeFromTheTokenFileAndTheNumberOfTheSlot)
{
    createQueues(5);
    for (int slot = 0; slot < 5; ++slot) {
        const key_t key = ftok(kToken, slot + 1);
        EXPECT_EQ(os::rmQueue.at(static_cast<std::size_t>(slot)).key, key);
        EXPECT_EQ(msgget(key, 0), idOf(static_cast<int16_t>(slot)));
    }
}

TEST_F(QueueKeys, OfAllSlotsAreMadeWithTheFirstQueue)
{
    createQueue();
    const auto calls = callTrace({Call::kFtok});
    ASSERT_EQ(calls.size(), 5U);
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].args[1], static_cast<int64_t>(i + 1));
        EXPECT_EQ(calls[i].path(), kToken);
    }
    createQueue();
    EXPECT_EQ(callCount(Call::kFtok), 5);
}

TEST_F(QueueKeys, BelongToTheSlotNotToTheName)
{
    createQueue("a");
    createQueue("b");
    const int32_t first = os::rmQueue[0].key;
    rm_queueDelete(0);
    createQueue("c");
    EXPECT_EQ(os::rmQueue[0].key, first);
}

TEST_F(QueueKeys, OfAnotherPrefixAreOthers)
{
    writeFile(kToken, "");  // keeps its inode to itself
    rm_tokenName("other.");
    createQueue();
    EXPECT_NE(os::rmQueue[0].key, ftok(kToken, 1));
    EXPECT_EQ(os::rmQueue[0].key, ftok("other..ZNT.RM.QUEUE", 1));
    std::filesystem::remove(kToken);
}

// --- The token file

TEST_F(QueueToken, IsMadeWithTheFirstQueueAndEmpty)
{
    EXPECT_FALSE(tokenExists());
    createQueue();
    EXPECT_EQ(readFile(kToken), "");
    EXPECT_NE(os::gfpRMQueueTokenFile, nullptr);
}

TEST_F(QueueToken, OfAnEarlierRunIsTruncatedAndKeepsItsIdentity)
{
    writeFile(kToken, "of an earlier run");
    std::filesystem::create_hard_link(kToken, "pinned");  // its number is not given to another
    const ino_t before = inodeOf(kToken);
    createQueue();
    EXPECT_EQ(readFile(kToken), "");
    EXPECT_EQ(inodeOf(kToken), before);
}

TEST_F(QueueToken, IsNotTouchedByFurtherQueues)
{
    createQueue();
    writeFile(kToken, "marked");
    createQueue();
    rm_queueDelete(0);
    EXPECT_EQ(readFile(kToken), "marked");
}

TEST_F(QueueToken, IsNotInheritedByAProgramThatTheServerStarts)
{
    createQueue();
    EXPECT_NE(fcntl(fileno(os::gfpRMQueueTokenFile), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(QueueToken, IsClosedAndRemovedWithTheLastQueueOnly)
{
    createQueues(3);
    rm_queueDelete(0);
    rm_queueDelete(2);
    EXPECT_TRUE(tokenExists());
    EXPECT_NE(os::gfpRMQueueTokenFile, nullptr);
    rm_queueDelete(1);
    EXPECT_FALSE(tokenExists());
    EXPECT_EQ(os::gfpRMQueueTokenFile, nullptr);
}

TEST_F(QueueToken, IsClosedBeforeItIsRemoved)
{
    createQueue();
    const auto stream = static_cast<int64_t>(reinterpret_cast<intptr_t>(os::gfpRMQueueTokenFile));
    resetCalls();
    rm_queueDelete(0);
    const auto calls = callTrace({Call::kFclose, Call::kUnlink});
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].call, Call::kFclose);
    EXPECT_EQ(calls[0].args[0], stream);
    EXPECT_EQ(calls[1].call, Call::kUnlink);
    EXPECT_EQ(calls[1].path(), kToken);
}

TEST_F(QueueToken, IsMadeAnewByTheNextFirstQueue)
{
    createQueue();
    rm_queueDelete(0);
    EXPECT_EQ(createQueue(), 0);
    EXPECT_TRUE(tokenExists());
    EXPECT_EQ(os::rmQueue[0].key, ftok(kToken, 1));
}

TEST_F(QueueToken, StandsUnderThePrefix)
{
    std::filesystem::create_directory("d");
    rm_tokenName("d/");
    createQueue();
    EXPECT_TRUE(std::filesystem::exists("d/.ZNT.RM.QUEUE"));
    EXPECT_FALSE(tokenExists());
    rm_queueDelete(0);
    EXPECT_TRUE(std::filesystem::is_empty("d"));
}

TEST_F(QueueToken, KeepsItsPathWhenThePrefixChanges)
{
    createQueue();
    rm_tokenName("later.");
    createQueue();
    EXPECT_FALSE(std::filesystem::exists("later..ZNT.RM.QUEUE"));
    EXPECT_EQ(os::rmQueue[1].key, ftok(kToken, 2));
    rm_queueDelete(0);
    rm_queueDelete(1);
    EXPECT_FALSE(tokenExists());
    createQueue();
    EXPECT_TRUE(std::filesystem::exists("later..ZNT.RM.QUEUE"));
    EXPECT_FALSE(tokenExists());
    rm_queueDelete(0);
    EXPECT_FALSE(std::filesystem::exists("later..ZNT.RM.QUEUE"));
}

TEST_F(QueueToken, OfAnAbandonedCreationGoesWhenThePrefixChanges)
{
    createWithoutMemory();
    rm_tokenName("later.");
    createQueue();
    EXPECT_FALSE(tokenExists());
    EXPECT_TRUE(std::filesystem::exists("later..ZNT.RM.QUEUE"));
}

TEST_F(QueueToken, ThatIsASymbolicLinkIsRefused)
{
    writeFile("target", "precious");
    std::filesystem::create_symlink("target", kToken);
    EXPECT_EQ(failureOf([] { rm_queueCreate("queue"); }),
              failure("rm_queueCreate", "fopen() failure", ELOOP));
    EXPECT_EQ(readFile("target"), "precious");
    EXPECT_EQ(namedSlots(), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(kToken));
    std::filesystem::remove(kToken);
}

TEST_F(QueueToken, InADirectoryThatIsNotThereIsFatal)
{
    rm_tokenName("nowhere/");
    EXPECT_EQ(failureOf([] { rm_queueCreate("queue"); }),
              failure("rm_queueCreate", "fopen() failure", ENOENT));
}

// --- The buffer

TEST_F(QueueBuffer, HoldsTheLargestMessageAndTheBytesBeyond)
{
    EXPECT_GE(sizeof(os::QueueMessage), sizeof(long) + kReceived + kBeyond);
}

TEST_F(QueueBuffer, IsOneBlockOfTag0)
{
    void* block = rm_getMemory(sizeof(os::QueueMessage), 0);
    const uint32_t withBlock = rm_memused();
    const uint32_t allocated = allocatedInTag0();
    rm_freeMemory(block, 0);
    createQueue();
    EXPECT_EQ(rm_memused(), withBlock);
    EXPECT_EQ(allocatedInTag0(), allocated);
}

TEST_F(QueueBuffer, IsClearedAtTheStart)
{
    // Memory that somebody has used before.
    void* block = rm_getMemory(sizeof(os::QueueMessage), 0);
    void* keeper = rm_getMemory(8, 0);
    std::memset(block, 'x', sizeof(os::QueueMessage));
    rm_freeMemory(block, 0);
    createQueue();
    const std::string bytes(reinterpret_cast<const char*>(os::rmQueue[0].buffer),
                            sizeof(os::QueueMessage));
    EXPECT_EQ(bytes.find_first_not_of('\0'), std::string::npos);
    rm_freeMemory(keeper, 0);
}

TEST_F(QueueBuffer, OfEachSlotIsItsOwn)
{
    createQueues(5);
    for (std::size_t a = 0; a < 5; ++a) {
        for (std::size_t b = 0; b < a; ++b) {
            EXPECT_NE(os::rmQueue.at(a).buffer, os::rmQueue.at(b).buffer);
        }
    }
}

TEST_F(QueueBuffer, IsGivenBackWithTheQueue)
{
    void* keeper = rm_getMemory(8, 0);
    const uint32_t before = rm_memused();
    createQueues(5);
    EXPECT_GT(rm_memused(), before + 5 * kReceived);
    for (int16_t handle = 0; handle < 5; ++handle) {
        rm_queueDelete(handle);
    }
    EXPECT_EQ(rm_memused(), before);
    rm_freeMemory(keeper, 0);
}

// --- Open

TEST_F(QueueOpen, FindsAQueueByItsName)
{
    createQueue("a");
    createQueue("b");
    EXPECT_EQ(rm_queueOpen("b"), 1);
    EXPECT_EQ(rm_queueOpen("a"), 0);
}

TEST_F(QueueOpen, FindsTheFirstOfEqualNames)
{
    createQueue("other");
    createQueue("same");
    createQueue("same");
    EXPECT_EQ(rm_queueOpen("same"), 1);
    rm_queueDelete(1);
    EXPECT_EQ(rm_queueOpen("same"), 2);
}

TEST_F(QueueOpen, ComparesTextsNotPointers)
{
    createQueue("name");
    const std::string copy = "name";
    EXPECT_EQ(rm_queueOpen(copy.c_str()), 0);
}

TEST_F(QueueOpen, ComparesWholeNamesByteByByte)
{
    createQueue("Name");
    for (const char* other : {"name", "Nam", "Names", "", " Name"}) {
        EXPECT_EQ(rm_queueOpen(other), RM_NONE) << other;
    }
}

TEST_F(QueueOpen, FindsNothingBeforeThereIsAQueue)
{
    EXPECT_EQ(rm_queueOpen("name"), RM_NONE);
    EXPECT_EQ(rm_queueOpen(""), RM_NONE);
    EXPECT_EQ(rm_queueOpen(nullptr), RM_NONE);
}

TEST_F(QueueOpen, FindsNothingByANullName)
{
    createQueue(nullptr);
    createQueue("");
    EXPECT_EQ(rm_queueOpen(nullptr), RM_NONE);
}

TEST_F(QueueOpen, FindsAnEmptyNameAndNotAFreeSlot)
{
    createQueues(2);
    rm_queueDelete(0);
    EXPECT_EQ(rm_queueOpen(""), RM_NONE);
    createQueue("x");
    EXPECT_EQ(createQueue(""), 2);
    EXPECT_EQ(rm_queueOpen(""), 2);
}

TEST_F(QueueOpen, DoesNotFindWhatWasDeleted)
{
    createQueue("a");
    createQueue("b");
    rm_queueDelete(0);
    EXPECT_EQ(rm_queueOpen("a"), RM_NONE);
}

TEST_F(QueueOpen, AsksTheSystemNothing)
{
    createQueue("a");
    resetCalls();
    EXPECT_EQ(rm_queueOpen("a"), 0);
    EXPECT_THAT(callTrace(), IsEmpty());
}

}  // namespace
