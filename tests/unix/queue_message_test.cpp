// Messages of queues: what travels, what arrives, in which order, and what the limits of the
// machine make of it.
#include "queue_case.h"

using namespace queuetest;

namespace
{
class QueueWire : public QueueTest
{
};

class QueueWrite : public QueueTest
{
};

class QueueRead : public QueueTest
{
};

class QueueLimits : public QueueTest
{
};

const std::string kInvalid = failure("rm_queueWrite", "Invalid Message Queue Handle", 0);
constexpr const char* kSndFailure = "msgsnd() failure";

// Bytes of data in the largest message that this machine takes, as far as a length can name them.
std::size_t mostData()
{
    return std::min(limit("msgmax") - kHead - kBeyond, kLongest);
}

// --- On the wire

TEST_F(QueueWire, TypeThenCodeThenLengthThenDataThenFiveBytes)
{
    createQueue();
    writeQueue(0, "abc", 0x1234);
    EXPECT_EQ(receiveBare(idOf(0)), (Wire{1, headOf(0x1234, 3) + "abc" + std::string(5, '\0')}));
}

TEST_F(QueueWire, AnEmptyMessageIsNineBytes)
{
    createQueue();
    writeQueue(0, "", 5);
    const Wire wire = receiveBare(idOf(0));
    EXPECT_EQ(wire.text.size(), 9U);
    EXPECT_EQ(wire, messageOf(5, ""));
}

TEST_F(QueueWire, EveryMessageIsItsDataAndNineBytes)
{
    createQueue();
    for (const std::size_t size : {std::size_t{1}, std::size_t{2}, std::size_t{7}, std::size_t{100},
                                   std::size_t{4095}, mostData()}) {
        const std::string data = pattern(size);
        writeQueue(0, data, static_cast<uint16_t>(size));
        EXPECT_EQ(receiveBare(idOf(0)), messageOf(static_cast<uint16_t>(size), data)) << size;
    }
}

TEST_F(QueueWire, NothingOfAnEarlierMessageTravelsBehindTheData)
{
    createQueue();
    writeQueue(0, std::string(200, 's'), 1);
    receiveBare(idOf(0));
    for (const std::size_t size : {0U, 1U, 50U, 199U}) {
        writeQueue(0, pattern(size), 2);
        EXPECT_EQ(receiveBare(idOf(0)), messageOf(2, pattern(size))) << size;
    }
}

TEST_F(QueueWire, NothingOfAMessageThatWasReadTravelsBehindTheData)
{
    createQueue();
    ASSERT_TRUE(sendBare(idOf(0), headOf(1, 300) + std::string(300, 's')));
    EXPECT_EQ(readQueue(0).data.size(), 300U);
    writeQueue(0, "ab", 2);
    EXPECT_EQ(receiveBare(idOf(0)), messageOf(2, "ab"));
}

TEST_F(QueueWire, TheSystemGetsTheSizeAndIsNotToWait)
{
    createQueue();
    resetCalls();
    writeQueue(0, "abcdef");
    const auto calls = callTrace({Call::kMsgsnd});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].args[0], idOf(0));
    EXPECT_EQ(calls[0].pointer<os::QueueMessage>(1), os::rmQueue[0].buffer);
    EXPECT_EQ(calls[0].args[2], 15);
    EXPECT_EQ(calls[0].args[3], IPC_NOWAIT);
}

TEST_F(QueueWire, DataOfAllBytesArriveAsTheyAre)
{
    std::string data(256, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i);
    }
    createQueue();
    writeQueue(0, data, 0);
    EXPECT_EQ(receiveBare(idOf(0)), messageOf(0, data));
}

// --- Writing

TEST_F(QueueWrite, CodesOfAllSizesGoWithTheMessage)
{
    createQueue();
    for (const uint16_t code :
         std::to_array<uint16_t>({0, 1, 0x00FF, 0x0100, 0x7FFF, 0x8000, 0xFFFF})) {
        writeQueue(0, "x", code);
        EXPECT_EQ(readQueue(0), got("x", code));
    }
}

TEST_F(QueueWrite, WithoutBytesTheDataMayBeNull)
{
    createQueue();
    EXPECT_EQ(rm_queueWrite(0, nullptr, 0, 3), RM_SUCCESS);
    EXPECT_EQ(readQueue(0), got("", 3));
}

TEST_F(QueueWrite, DoesNotChangeTheCallersBytes)
{
    std::string data = pattern(100);
    createQueue();
    writeQueue(0, data);
    EXPECT_EQ(data, pattern(100));
}

TEST_F(QueueWrite, TheMessageIsInTheQueueWhenTheCallComesBack)
{
    createQueue();
    std::string data = "first";
    writeQueue(0, data, 1);
    data = "other";
    EXPECT_EQ(messagesIn(idOf(0)), 1U);
    EXPECT_EQ(readQueue(0), got("first", 1));
}

TEST_F(QueueWrite, AFreeSlotIsFatalWithErrorZero)
{
    createQueue();
    resetCalls();
    for (const int16_t handle : std::to_array<int16_t>({1, 4})) {
        EXPECT_EQ(failureOf([handle] {
                      errno = EIO;
                      rm_queueWrite(handle, "text", 4, 0);
                  }),
                  kInvalid)
            << handle;
    }
    EXPECT_EQ(callCount(Call::kMsgsnd), 0);
}

TEST_F(QueueWrite, AHandleOutOfRangeIsFatalWithErrorZero)
{
    createQueues(5);
    for (const int16_t handle : kOutOfRange) {
        EXPECT_EQ(failureOf([handle] {
                      errno = EIO;
                      rm_queueWrite(handle, "text", 4, 0);
                  }),
                  kInvalid)
            << handle;
    }
}

TEST_F(QueueWrite, BeforeThereIsAQueueIsFatal)
{
    EXPECT_EQ(failureOf([] { rm_queueWrite(0, "text", 4, 0); }), kInvalid);
}

TEST_F(QueueWrite, ADeletedQueueIsFatal)
{
    createQueues(2);
    rm_queueDelete(0);
    EXPECT_EQ(failureOf([] { rm_queueWrite(0, "text", 4, 0); }), kInvalid);
}

TEST_F(QueueWrite, AQueueWithoutMemoryIsFatal)
{
    createWithoutMemory();
    EXPECT_EQ(failureOf([] { rm_queueWrite(0, "text", 4, 0); }), kInvalid);
    damaged();
}

TEST_F(QueueWrite, ANegativeLengthIsFatalWithEinval)
{
    createQueue();
    for (const int16_t length : std::to_array<int16_t>({-1, -9, -10, -32768})) {
        EXPECT_EQ(failureOf([length] { rm_queueWrite(0, "text", length, 0); }),
                  failure("rm_queueWrite", kSndFailure, EINVAL))
            << length;
    }
}

TEST_F(QueueWrite, OfANegativeLengthNothingIsCopiedAndNothingIsSent)
{
    createQueue();
    writeQueue(0, "before", 7);
    const std::string before(reinterpret_cast<const char*>(os::rmQueue[0].buffer),
                             sizeof(os::QueueMessage));
    const std::string data(40'000, 'x');
    resetCalls();
    EXPECT_EQ(fatalQuietly([&data] { rm_queueWrite(0, data.data(), -5, 9); }), 1);
    EXPECT_EQ(callCount(Call::kMsgsnd), 0);
    EXPECT_EQ(before, std::string(reinterpret_cast<const char*>(os::rmQueue[0].buffer),
                                  sizeof(os::QueueMessage)));
    EXPECT_EQ(readQueue(0), got("before", 7));
    EXPECT_EQ(readQueue(0), kNothing);
}

TEST_F(QueueWrite, AFreeSlotComesBeforeANegativeLength)
{
    createQueue();
    EXPECT_EQ(failureOf([] { rm_queueWrite(1, "text", -1, 0); }), kInvalid);
}

TEST_F(QueueWrite, AFullQueueIsFatalWithEagain)
{
    createQueue();
    limitBytes(idOf(0), 2 * (10 + 9));
    writeQueue(0, pattern(10), 1);
    writeQueue(0, pattern(10), 2);
    EXPECT_EQ(failureOf([] { rm_queueWrite(0, "x", 1, 3); }),
              failure("rm_queueWrite", kSndFailure, EAGAIN));
}

TEST_F(QueueWrite, AFullQueueKeepsItsMessagesAndTakesAnotherOneWhenThereIsRoom)
{
    createQueue();
    limitBytes(idOf(0), 2 * (10 + 9));
    writeQueue(0, pattern(10), 1);
    writeQueue(0, pattern(10), 2);
    EXPECT_EQ(fatalQuietly([] { rm_queueWrite(0, "refused", 7, 3); }), 1);
    EXPECT_EQ(os::checkQueues(), 0U);
    EXPECT_EQ(readQueue(0), got(pattern(10), 1));
    writeQueue(0, "taken", 4);
    EXPECT_EQ(readQueue(0), got(pattern(10), 2));
    EXPECT_EQ(readQueue(0), got("taken", 4));
    EXPECT_EQ(readQueue(0), kNothing);
}

TEST_F(QueueWrite, EmptyMessagesFillAQueueToo)
{
    createQueue();
    limitBytes(idOf(0), 3 * 9 + 8);
    for (int i = 0; i < 3; ++i) {
        writeQueue(0, "", 1);
    }
    EXPECT_EQ(failureOf([] { rm_queueWrite(0, nullptr, 0, 1); }),
              failure("rm_queueWrite", kSndFailure, EAGAIN));
}

TEST_F(QueueWrite, AFullQueueDoesNotStopAnother)
{
    createQueues(2);
    limitBytes(idOf(0), 9);
    writeQueue(0, "", 1);
    EXPECT_EQ(fatalQuietly([] { rm_queueWrite(0, nullptr, 0, 1); }), 1);
    writeQueue(1, "text", 2);
    EXPECT_EQ(readQueue(1), got("text", 2));
}

// --- The limits of the machine

TEST_F(QueueLimits, TheLargestMessageOfTheMachineArrives)
{
    createQueue();
    const std::string data = pattern(mostData());
    writeQueue(0, data, 1);
    EXPECT_EQ(readQueue(0), got(data, 1));
}

TEST_F(QueueLimits, OneByteMoreThanTheMachineTakesIsFatalWithEinval)
{
    inChild([] {
        enterOwnLimits(1000, 16'384);
        const std::string data = pattern(limit("msgmax") - 8);
        if (data.size() <= kLongest) {
            createQueue();
            EXPECT_EQ(failureOf([&data] {
                          rm_queueWrite(0, data.data(), static_cast<int16_t>(data.size()), 0);
                      }),
                      failure("rm_queueWrite", kSndFailure, EINVAL));
            EXPECT_EQ(messagesIn(idOf(0)), 0U);
        }
        rm_queueTerminate();
    });
}

TEST_F(QueueLimits, TheLongestMessageArrivesWhereTheMachineTakesIt)
{
    inChild([] {
        enterOwnLimits(40'000, 400'000);
        createQueue();
        const std::string data = pattern(kLongest);
        if (limit("msgmax") >= kLongest + 9) {
            writeQueue(0, data, 1);
            EXPECT_EQ(readQueue(0), got(data, 1));
            writeQueue(0, data, 2);
            EXPECT_EQ(receiveBare(idOf(0)), messageOf(2, data));
        } else {
            EXPECT_EQ(failureOf([&data] {
                          rm_queueWrite(0, data.data(), static_cast<int16_t>(data.size()), 0);
                      }),
                      failure("rm_queueWrite", kSndFailure, EINVAL));
        }
        rm_queueTerminate();
    });
}

TEST_F(QueueLimits, AfterTheLongestMessageAShortOneCarriesNothingOfIt)
{
    inChild([] {
        enterOwnLimits(40'000, 400'000);
        createQueue();
        const std::string data = pattern(mostData());
        writeQueue(0, data, 1);
        EXPECT_EQ(readQueue(0), got(data, 1));
        writeQueue(0, data.substr(0, data.size() - 1), 2);
        EXPECT_EQ(receiveBare(idOf(0)), messageOf(2, data.substr(0, data.size() - 1)));
        rm_queueTerminate();
    });
}

TEST_F(QueueLimits, AMachineWithoutRoomForAQueueIsFatal)
{
    inChild([] {
        // Never the limit of the machine: what runs beside needs queues.
        const bool lowered =
            enterOwnLimits(1000, 16'384) && setLimit("/proc/sys/kernel/msgmni", "2");
        createQueues(2);
        const ScopedFault fault({.call = Call::kMsgget,
                                 .error = ENOSPC,
                                 .when = [lowered](const CallRecord&) { return !lowered; }});
        EXPECT_EQ(failureOf([] { rm_queueCreate("third"); }),
                  failure("rm_queueCreate", "msgget() failure", ENOSPC));
        rm_queueTerminate();
        EXPECT_EQ(os::nQueues, 0);
    });
}

// --- Reading

TEST_F(QueueRead, GivesDataLengthAndCode)
{
    createQueue();
    writeQueue(0, "twelve bytes", 77);
    char data[20] = {};
    char* pointer = data;
    int16_t length = 0;
    uint16_t code = 0;
    EXPECT_EQ(rm_queueRead(0, &pointer, &length, &code, 0), RM_SUCCESS);
    EXPECT_EQ(length, 12);
    EXPECT_EQ(code, 77);
    EXPECT_STREQ(data, "twelve bytes");
    EXPECT_EQ(pointer, data);
}

TEST_F(QueueRead, ThePointerMayBeOfAnyType)
{
    struct Answer {
        int32_t number;
        char name[8];
    };

    const Answer sent = {123456, "answer"};
    Answer answer = {};
    Answer* where = &answer;
    int16_t length = 0;
    createQueue();
    EXPECT_EQ(rm_queueWrite(0, &sent, sizeof sent, 0), RM_SUCCESS);
    EXPECT_EQ(rm_queueRead(0, &where, &length, nullptr, 0), RM_SUCCESS);
    EXPECT_EQ(length, static_cast<int16_t>(sizeof sent));
    EXPECT_EQ(answer.number, 123456);
    EXPECT_STREQ(answer.name, "answer");
}

TEST_F(QueueRead, TheCodeNeedNotBeWanted)
{
    createQueue();
    writeQueue(0, "abc", 77);
    char data[8] = {};
    char* pointer = data;
    int16_t length = 0;
    EXPECT_EQ(rm_queueRead(0, &pointer, &length, nullptr, 0), RM_SUCCESS);
    EXPECT_EQ(length, 3);
    EXPECT_STREQ(data, "abc");
}

TEST_F(QueueRead, AnEmptyMessageHasLengthZeroAndItsCode)
{
    createQueue();
    writeQueue(0, "", 6);
    EXPECT_EQ(readQueue(0), got("", 6));
}

TEST_F(QueueRead, AnEmptyMessageNeedsNoBuffer)
{
    createQueue();
    writeQueue(0, "", 6);
    char* none = nullptr;
    int16_t length = -1;
    EXPECT_EQ(rm_queueRead(0, &none, &length, nullptr, 0), RM_SUCCESS);
    EXPECT_EQ(length, 0);
}

TEST_F(QueueRead, AnEmptyQueueGivesTwoAndTouchesNothing)
{
    createQueue();
    EXPECT_EQ(readQueue(0), kNothing);
    EXPECT_EQ(readQueue(0).result, 2);
}

TEST_F(QueueRead, AMessageIsTakenOnce)
{
    createQueue();
    writeQueue(0, "once", 1);
    EXPECT_EQ(readQueue(0), got("once", 1));
    EXPECT_EQ(readQueue(0), kNothing);
    EXPECT_EQ(messagesIn(idOf(0)), 0U);
}

TEST_F(QueueRead, MessagesComeInTheOrderOfTheirWriting)
{
    createQueue();
    for (uint16_t i = 0; i < 50; ++i) {
        writeQueue(0, pattern(i), i);
    }
    for (uint16_t i = 0; i < 50; ++i) {
        EXPECT_EQ(readQueue(0), got(pattern(i), i));
    }
    EXPECT_EQ(readQueue(0), kNothing);
}

TEST_F(QueueRead, AShortMessageAfterALongOneIsShort)
{
    createQueue();
    writeQueue(0, pattern(500), 1);
    writeQueue(0, "ab", 2);
    EXPECT_EQ(readQueue(0), got(pattern(500), 1));
    EXPECT_EQ(readQueue(0), got("ab", 2));
}

TEST_F(QueueRead, QueuesDoNotMix)
{
    createQueues(5);
    for (int16_t handle = 0; handle < 5; ++handle) {
        writeQueue(handle, pattern(static_cast<std::size_t>(handle)),
                   static_cast<uint16_t>(handle));
    }
    for (int16_t handle = 4; handle >= 0; --handle) {
        EXPECT_EQ(readQueue(handle),
                  got(pattern(static_cast<std::size_t>(handle)), static_cast<uint16_t>(handle)));
        EXPECT_EQ(readQueue(handle), kNothing);
    }
}

TEST_F(QueueRead, FlagsBeyondTheFirstBitAreNotLookedAt)
{
    createQueue();
    // In a child, which can be ended when it waits.
    inChild(
        [] {
            for (const uint16_t flags :
                 std::to_array<uint16_t>({0x0000, 0x0002, 0x0800, 0x8000, 0xFFFE})) {
                EXPECT_EQ(readQueue(0, flags), kNothing) << flags;
            }
        },
        rmtest::Milliseconds{10'000});
    for (const uint16_t flags : std::to_array<uint16_t>({0x0001, 0x0003, 0x0801, 0xFFFF})) {
        writeQueue(0, "x", flags);
        EXPECT_EQ(readQueue(0, flags), got("x", flags));
    }
}

TEST_F(QueueRead, TheSystemIsAskedForTheWholeBufferAndAnyType)
{
    createQueue();
    writeQueue(0, "x");
    resetCalls();
    readQueue(0, kWait);
    readQueue(0, 0);
    const auto calls = callTrace({Call::kMsgrcv});
    ASSERT_EQ(calls.size(), 2U);
    for (const CallRecord& call : calls) {
        EXPECT_EQ(call.args[0], idOf(0));
        EXPECT_EQ(call.pointer<os::QueueMessage>(1), os::rmQueue[0].buffer);
        EXPECT_EQ(call.args[2], static_cast<int64_t>(kReceived));
        EXPECT_EQ(call.args[3], 0);
    }
    EXPECT_EQ(calls[0].args[4], 0);
    EXPECT_EQ(calls[1].args[4], IPC_NOWAIT);
}

TEST_F(QueueRead, AnInvalidHandleIsFatalWithThePresentErrno)
{
    createQueue();
    resetCalls();
    std::vector<int16_t> handles(std::begin(kOutOfRange), std::end(kOutOfRange));
    handles.push_back(1);
    handles.push_back(4);
    for (const int16_t handle : handles) {
        for (const int error : {0, ENOTDIR, EPIPE}) {
            EXPECT_EQ(failureOf([=] {
                          int16_t length = 0;
                          char* none = nullptr;
                          errno = error;
                          rm_queueRead(handle, &none, &length, nullptr, 0);
                      }),
                      failure("rm_queueRead", "Invalid Message Queue Handle", error))
                << handle;
        }
    }
    EXPECT_EQ(callCount(Call::kMsgrcv), 0);
}

TEST_F(QueueRead, AQueueWithoutMemoryIsFatal)
{
    createWithoutMemory();
    EXPECT_EQ(failureOf([] {
                  int16_t length = 0;
                  char* none = nullptr;
                  errno = 0;
                  rm_queueRead(0, &none, &length, nullptr, 0);
              }),
              failure("rm_queueRead", "Invalid Message Queue Handle", 0));
    damaged();
}

TEST_F(QueueRead, WorksAfterAFatalErrorThatJumpedOut)
{
    createQueue();
    EXPECT_EQ(fatalQuietly([] { rm_queueWrite(3, "text", 4, 0); }), 1);
    writeQueue(0, "after", 8);
    EXPECT_EQ(readQueue(0), got("after", 8));
}

}  // namespace
