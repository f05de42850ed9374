// Queues that somebody else writes into, removes or fills: queues are open to every user of the
// machine. Whatever arrives, a read stays inside the caller's bytes that the message has, and what
// it gives follows from what was received alone.
#include "queue_case.h"

#include <limits>

using namespace queuetest;

namespace
{
class QueueForeign : public QueueTest
{
  protected:
    void SetUp() override
    {
        QueueTest::SetUp();
        createQueue();
    }

    // What the library makes of a message of these bytes.
    static Received afterSending(std::string_view text, long type = 1)
    {
        EXPECT_TRUE(sendBare(idOf(0), text, type)) << std::strerror(errno);
        return readQueue(0);
    }
};

class QueueGone : public QueueTest
{
};

class QueueFlooded : public QueueTest
{
};

// Messages larger than this machine may allow, sent for real in a child with limits of its own.
class QueueTooLarge : public QueueTest
{
  protected:
    static void withLargeMessages(const std::function<void()>& body)
    {
        inChild([&body] {
            if (!enterOwnLimits(60'000, 400'000)) {
                std::puts("No limits of its own for a process here: only QueueLarge has looked.");
                return;
            }
            createQueue();
            body();
            rm_queueTerminate();
        });
    }
};

// The same messages on any machine: a system that has one for the next read stands in for the real
// one, and follows its rules.
class QueueLarge : public QueueTest
{
  protected:
    void SetUp() override
    {
        QueueTest::SetUp();
        createQueue();
    }

    void send(std::string_view text) { waiting_ = text; }

    bool isWaiting() const { return !waiting_.empty(); }

    // What the last write has sent.
    const Wire& sent() const { return sent_; }

  private:
    int64_t receive(const CallRecord& call)
    {
        const auto room = static_cast<std::size_t>(call.args[2]);
        const bool mayBeCut = (call.args[4] & MSG_NOERROR) != 0;
        if (waiting_.empty() || (waiting_.size() > room && !mayBeCut)) {
            errno = waiting_.empty() ? ENOMSG : E2BIG;
            return -1;
        }
        auto* message = call.pointer<BareMessage>(1);
        message->type = 1;
        const std::size_t size = waiting_.copy(message->text, room);
        waiting_.clear();
        return static_cast<int64_t>(size);
    }

    int64_t take(const CallRecord& call)
    {
        const auto* message = call.pointer<const BareMessage>(1);
        sent_ = {message->type, {message->text, static_cast<std::size_t>(call.args[2])}};
        return 0;
    }

    std::string waiting_;
    Wire sent_;
    ScopedFault receive_{{.call = Call::kMsgrcv,
                          .times = kForever,
                          .action = [this](const CallRecord& call) { return receive(call); }}};
    ScopedFault send_{{.call = Call::kMsgsnd,
                       .times = kForever,
                       .action = [this](const CallRecord& call) { return take(call); }}};
};

const std::string kReadInvalid = failure("rm_queueRead", "msgrcv() failure", EINVAL);
const std::string kWriteInvalid = failure("rm_queueWrite", "msgsnd() failure", EINVAL);

void read(uint16_t flags)
{
    std::array<char, 64> buffer = {};
    char* pointer = buffer.data();
    int16_t length = 0;
    rm_queueRead(0, &pointer, &length, nullptr, flags);
}

// The code in the first bytes of a text; zeros stand for those that it does not have.
uint16_t codeIn(std::string_view text)
{
    uint16_t code = 0;
    std::memcpy(&code, text.data(), std::min(text.size(), sizeof code));
    return code;
}

// --- Shorter than a head

TEST_F(QueueForeign, AMessageWithoutAnyByteIsEmptyWithCode0)
{
    EXPECT_EQ(afterSending(""), got("", 0));
}

TEST_F(QueueForeign, AMessageShorterThanAHeadIsEmpty)
{
    for (const std::string_view text : {"\x12", "\x12\x34", "\x12\x34\x56"}) {
        EXPECT_EQ(afterSending(text), got("", codeIn(text))) << text.size();
    }
}

TEST_F(QueueForeign, AMessageShorterThanAHeadHasNothingOfTheOneBefore)
{
    writeQueue(0, pattern(50), 0xABCD);
    EXPECT_EQ(readQueue(0), got(pattern(50), 0xABCD));
    EXPECT_EQ(afterSending(""), got("", 0));
    writeQueue(0, pattern(50), 0xABCD);
    EXPECT_EQ(readQueue(0), got(pattern(50), 0xABCD));
    EXPECT_EQ(afterSending("\x7F"), got("", codeIn("\x7F")));
}

TEST_F(QueueForeign, AMessageShorterThanAHeadHasNothingOfOneThatWasWritten)
{
    writeQueue(0, pattern(50), 0xABCD);
    receiveBare(idOf(0));
    EXPECT_EQ(afterSending(""), got("", 0));
}

TEST_F(QueueForeign, ABareHeadIsEmptyWithItsCode)
{
    EXPECT_EQ(afterSending(headOf(0x1234, 0)), got("", 0x1234));
}

// --- Lengths that are not those of the bytes

TEST_F(QueueForeign, ABareHeadThatClaimsDataHasNone)
{
    for (const uint16_t claimed : std::to_array<uint16_t>({1, 5, 100, 0x7FFF, 0x8000, 0xFFFF})) {
        EXPECT_EQ(afterSending(headOf(3, claimed)), got("", 3)) << claimed;
    }
}

TEST_F(QueueForeign, ALengthBeyondTheBytesCountsAsTheBytes)
{
    const std::string data = pattern(10);
    for (const uint16_t claimed :
         std::to_array<uint16_t>({10, 11, 15, 0x7FFF, 0x8000, 0x8001, 0xFFFF})) {
        EXPECT_EQ(afterSending(headOf(4, claimed) + data), got(data, 4)) << claimed;
    }
}

TEST_F(QueueForeign, ALengthWithinTheBytesIsBelieved)
{
    const std::string data = pattern(40);
    for (const uint16_t claimed : std::to_array<uint16_t>({0, 1, 7, 35, 39})) {
        EXPECT_EQ(afterSending(headOf(4, claimed) + data), got(data.substr(0, claimed), 4));
    }
}

TEST_F(QueueForeign, ForgedLengthsBringNothingOfAnEarlierMessage)
{
    writeQueue(0, std::string(1000, 's'), 1);
    EXPECT_EQ(readQueue(0).data.size(), 1000U);
    EXPECT_EQ(afterSending(headOf(4, 0xFFFF) + "few"), got("few", 4));
    EXPECT_EQ(afterSending(headOf(4, 1000) + "few"), got("few", 4));
}

TEST_F(QueueForeign, EveryCombinationOfLengthAndBytesFollowsTheRule)
{
    for (std::size_t bytes = 0; bytes < 24; ++bytes) {
        const std::string data = pattern(bytes);
        for (uint16_t claimed = 0; claimed < 30; ++claimed) {
            EXPECT_EQ(afterSending(headOf(claimed, claimed) + data),
                      got(data.substr(0, claimed), claimed))
                << bytes << " bytes, " << claimed << " claimed";
        }
    }
}

TEST_F(QueueForeign, AMessageAsLargeAsTheMachineAllowsIsReadWhole)
{
    const std::size_t size = std::min(limit("msgmax"), kReceived) - kHead;
    const std::string data = pattern(size);
    const std::size_t believed = std::min(size, kLongest);
    EXPECT_EQ(afterSending(headOf(1, 0xFFFF) + data), got(data.substr(0, believed), 1));
}

// --- Types

TEST_F(QueueForeign, MessagesOfEveryTypeAreTakenInTheirOrder)
{
    const std::vector<long> types = {2, 1, std::numeric_limits<long>::max(), 77, 1};
    for (const long type : types) {
        const auto code = static_cast<uint16_t>(type % 1000);
        EXPECT_TRUE(sendBare(idOf(0), headOf(code, 1) + "x", type));
    }
    for (const long type : types) {
        EXPECT_EQ(readQueue(0), got("x", static_cast<uint16_t>(type % 1000)));
    }
}

TEST_F(QueueForeign, AnAnswerHasItsOwnTypeAgain)
{
    EXPECT_EQ(afterSending(headOf(1, 1) + "x", 99), got("x", 1));
    writeQueue(0, "y", 2);
    EXPECT_EQ(receiveBare(idOf(0)), messageOf(2, "y"));
}

// --- A message that does not fit

TEST_F(QueueTooLarge, IsFatalWithE2big)
{
    createQueue();
    ScopedFault fault({.call = Call::kMsgrcv, .error = E2BIG});
    EXPECT_EQ(failureOf([] { read(0); }), failure("rm_queueRead", "msgrcv() failure", E2BIG));
}

TEST_F(QueueTooLarge, OneByteMoreThanTheBufferTakesStaysInTheQueue)
{
    withLargeMessages([] {
        ASSERT_TRUE(sendBare(idOf(0), headOf(1, 100) + pattern(kReceived - kHead + 1)));
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(failureOf([] { read(0); }),
                      failure("rm_queueRead", "msgrcv() failure", E2BIG));
            EXPECT_EQ(messagesIn(idOf(0)), 1U);
        }
        receiveBare(idOf(0));
        writeQueue(0, "after", 2);
        EXPECT_EQ(readQueue(0), got("after", 2));
    });
}

TEST_F(QueueTooLarge, TheLargestThatFitsHasAsMuchDataAsALengthCanName)
{
    withLargeMessages([] {
        const std::string data = pattern(kReceived - kHead);
        for (const uint16_t claimed :
             std::to_array<uint16_t>({0xFFFF, 0x8004, 0x8001, 0x8000, 0x7FFF, 0x7FFE})) {
            ASSERT_TRUE(sendBare(idOf(0), headOf(claimed, claimed) + data));
            EXPECT_EQ(readQueue(0),
                      got(data.substr(0, std::min<std::size_t>(claimed, kLongest)), claimed));
        }
    });
}

TEST_F(QueueTooLarge, AWriteAfterALargeMessageStaysInsideTheBuffer)
{
    withLargeMessages([] {
        void* neighbour = rm_getMemory(64, 0);
        ASSERT_TRUE(sendBare(idOf(0), headOf(1, 0xFFFF) + pattern(kReceived - kHead)));
        EXPECT_EQ(readQueue(0).data.size(), kLongest);
        writeQueue(0, std::string(kLongest, 'x'), 2);
        EXPECT_EQ(receiveBare(idOf(0)), messageOf(2, std::string(kLongest, 'x')));
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        rm_freeMemory(neighbour, 0);
    });
}

TEST_F(QueueLarge, OfTheLargestThatFitsAsMuchIsReadAsALengthCanName)
{
    const std::string data = pattern(kReceived - kHead);
    for (const uint16_t claimed :
         std::to_array<uint16_t>({0xFFFF, 0x8004, 0x8001, 0x8000, 0x7FFF, 0x7FFE})) {
        send(headOf(claimed, claimed) + data);
        EXPECT_EQ(readQueue(0),
                  got(data.substr(0, std::min<std::size_t>(claimed, kLongest)), claimed));
    }
    EXPECT_EQ(readQueue(0), kNothing);
}

TEST_F(QueueLarge, OneByteMoreThanTheBufferTakesStaysInTheQueue)
{
    send(headOf(1, 100) + pattern(kReceived - kHead + 1));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(failureOf([] { read(0); }), failure("rm_queueRead", "msgrcv() failure", E2BIG));
        EXPECT_TRUE(isWaiting());
    }
    send(headOf(2, 5) + "after");
    EXPECT_EQ(readQueue(0), got("after", 2));
}

TEST_F(QueueLarge, IsFollowedByAWriteThatStaysInsideTheBuffer)
{
    void* neighbour = rm_getMemory(64, 0);
    send(headOf(1, 0xFFFF) + pattern(kReceived - kHead));
    EXPECT_EQ(readQueue(0).data.size(), kLongest);
    writeQueue(0, std::string(kLongest, 'x'), 2);
    EXPECT_EQ(sent(), messageOf(2, std::string(kLongest, 'x')));
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    rm_freeMemory(neighbour, 0);
}

// --- A queue that somebody has removed

TEST_F(QueueGone, WritingIsFatal)
{
    createQueue();
    ASSERT_EQ(msgctl(idOf(0), IPC_RMID, nullptr), 0);
    EXPECT_EQ(failureOf([] { rm_queueWrite(0, "text", 4, 0); }), kWriteInvalid);
}

TEST_F(QueueGone, ReadingIsFatalWaitingOrNot)
{
    createQueue();
    ASSERT_EQ(msgctl(idOf(0), IPC_RMID, nullptr), 0);
    EXPECT_EQ(failureOf([] { read(0); }), kReadInvalid);
    EXPECT_EQ(failureOf([] { read(kWait); }), kReadInvalid);
}

TEST_F(QueueGone, DeletingAndCreatingItAgainMendsTheSlot)
{
    createQueue();
    ASSERT_EQ(msgctl(idOf(0), IPC_RMID, nullptr), 0);
    EXPECT_EQ(fatalQuietly([] { read(0); }), 1);
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_EQ(createQueue(), 0);
    writeQueue(0, "text", 1);
    EXPECT_EQ(readQueue(0), got("text", 1));
}

TEST_F(QueueGone, TheOthersOfTheProcessWorkOn)
{
    createQueues(2);
    ASSERT_EQ(msgctl(idOf(0), IPC_RMID, nullptr), 0);
    EXPECT_EQ(fatalQuietly([] { read(0); }), 1);
    writeQueue(1, "text", 1);
    EXPECT_EQ(readQueue(1), got("text", 1));
}

TEST_F(QueueGone, OneMadeAnewUnderTheKeyIsNotTakenForIt)
{
    createQueue();
    ASSERT_EQ(msgctl(idOf(0), IPC_RMID, nullptr), 0);
    const int other = msgget(os::rmQueue[0].key, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_NE(other, -1);
    ASSERT_TRUE(sendBare(other, messageOf(1, "of the other one").text));
    EXPECT_EQ(failureOf([] { read(0); }), kReadInvalid);
    EXPECT_EQ(failureOf([] { rm_queueWrite(0, "text", 4, 0); }), kWriteInvalid);
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_TRUE(queueExists(other));
    EXPECT_EQ(messagesIn(other), 1U);
    removeLeftQueues();
}

// --- A queue that somebody has filled

TEST_F(QueueFlooded, WritingIsFatalUntilSomebodyReads)
{
    createQueue();
    int sent = 0;
    while (sendBare(idOf(0), pattern(limit("msgmax")))) {
        ++sent;
    }
    ASSERT_GT(sent, 0);
    const std::size_t room = limit("msgmnb") % limit("msgmax");
    const std::string data = pattern(room);
    EXPECT_EQ(
        failureOf([&data] { rm_queueWrite(0, data.data(), static_cast<int16_t>(data.size()), 0); }),
        failure("rm_queueWrite", "msgsnd() failure", EAGAIN));
    EXPECT_EQ(readQueue(0).result, RM_SUCCESS);
    writeQueue(0, data, 1);
}

TEST_F(QueueFlooded, MessagesWithoutBytesDoNotKeepAReaderBusyForEver)
{
    createQueue();
    int sent = 0;
    while (sent < 1000 && sendBare(idOf(0), "")) {
        ++sent;
    }
    for (int i = 0; i < sent; ++i) {
        EXPECT_EQ(readQueue(0), got("", 0));
    }
    EXPECT_EQ(readQueue(0), kNothing);
}

TEST_F(QueueFlooded, AQueueThatTakesNothingAnyMoreIsFull)
{
    createQueue();
    limitBytes(idOf(0), 0);
    EXPECT_EQ(failureOf([] { rm_queueWrite(0, "x", 1, 0); }),
              failure("rm_queueWrite", "msgsnd() failure", EAGAIN));
    EXPECT_EQ(readQueue(0), kNothing);
}

}  // namespace
