// Message queues between processes: who meets whom, who gets what, who waits, and what one process
// does to the others when it deletes, dies or exits. A peer that is to be a process started on its
// own is forked before anything was made: it has nothing of this one's tables.
#include "tests/unix/queue_case.h"

#include <map>
#include <memory>
#include <set>
#include <sstream>

#include <signal.h>

using namespace queuetest;

namespace
{
using Channel = Peer::Channel;

class QueueMeeting : public QueueTest
{
};

class QueueReaders : public QueueTest
{
};

class QueueWaiting : public QueueTest
{
};

class QueueSignal : public QueueTest
{
};

class QueueRemoved : public QueueTest
{
};

class QueueSurvives : public QueueTest
{
};

constexpr uint16_t kStop = 0xFFFF;  // code of a message after which a reader ends

const std::string kRemoved = failure("rm_queueRead", "msgrcv() failure", EIDRM);

std::string textOf(const Received& received)
{
    return std::to_string(received.result) + " " + std::to_string(received.code) + " " +
           received.data;
}

// A peer that waits for one message and says what it got.
std::unique_ptr<Peer> waitingReader(
    int16_t handle, const std::function<void()>& prepare = [] {})
{
    auto peer = std::make_unique<Peer>([=](Channel& channel) {
        prepare();
        channel.say("ready");
        channel.say(textOf(readQueue(handle, kWait)));
    });
    EXPECT_EQ(peer->hear(), "ready");
    return peer;
}

// True as soon as the process sleeps, which a peer that is ready does in its wait only.
bool sleeps(const Peer& peer)
{
    return waitFor([&peer] {
        const std::string stat = readFile("/proc/" + std::to_string(peer.pid()) + "/stat");
        return stat.find(") S ") != std::string::npos;
    });
}

void onSignal(int /*number*/) {}

void handleSignal(int number, int flags = 0)
{
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = flags;
    sigaction(number, &action, nullptr);
}

// --- Who meets whom

TEST_F(QueueMeeting, ProcessesThatBeginOnTheirOwnMeetInTheSameSlot)
{
    Peer peer([](Channel& channel) {
        channel.hear();
        rm_queueCreate("of the peer");
        channel.say(textOf(readQueue(0)));
        writeQueue(0, "answer", 2);
        channel.say("written");
    });
    createQueue("of the parent");
    writeQueue(0, "question", 1);
    peer.say("go");
    EXPECT_EQ(peer.hear(), "0 1 question");
    EXPECT_EQ(peer.hear(), "written");
    EXPECT_EQ(readQueue(0), got("answer", 2));
    EXPECT_EQ(peer.wait().status, 0);
}

TEST_F(QueueMeeting, TheOrderOfCreationDecidesNotTheName)
{
    Peer peer([](Channel& channel) {
        channel.hear();
        rm_queueCreate("b");
        rm_queueCreate("a");
        channel.say(textOf(readQueue(rm_queueOpen("b"))));
        channel.say(textOf(readQueue(rm_queueOpen("a"))));
    });
    createQueue("a");
    createQueue("b");
    writeQueue(rm_queueOpen("a"), "first queue", 1);
    writeQueue(rm_queueOpen("b"), "second queue", 2);
    peer.say("go");
    EXPECT_EQ(peer.hear(), "0 1 first queue");
    EXPECT_EQ(peer.hear(), "0 2 second queue");
    EXPECT_EQ(peer.wait().status, 0);
}

TEST_F(QueueMeeting, ASlotThatBecameFreeIsWhereTheNextOneMeets)
{
    Peer peer([](Channel& channel) {
        rm_queueCreate("0");
        rm_queueCreate("1");
        channel.say("made");
        channel.hear();
        channel.say(textOf(readQueue(1)));
    });
    EXPECT_EQ(peer.hear(), "made");
    createQueue("0");
    createQueue("1");
    EXPECT_EQ(createQueue("2"), 2);
    writeQueue(1, "for slot 1", 1);
    peer.say("go");
    EXPECT_EQ(peer.hear(), "0 1 for slot 1");
    EXPECT_EQ(peer.wait().status, 0);
}

TEST_F(QueueMeeting, UnderAnotherPrefixNobodyMeets)
{
    Peer peer([](Channel& channel) {
        rm_tokenName("other.");
        channel.hear();
        rm_queueCreate("queue");
        channel.say(textOf(readQueue(0)));
        rm_queueTerminate();
    });
    createQueue();
    writeQueue(0, "text", 1);
    peer.say("go");
    EXPECT_EQ(peer.hear(), "2 0 ");
    EXPECT_EQ(peer.wait().status, 0);
    EXPECT_EQ(readQueue(0), got("text", 1));
}

TEST_F(QueueMeeting, AnotherWayToTheSameFileLeadsToTheSameQueue)
{
    std::filesystem::create_directory("d");
    std::filesystem::create_directory_symlink("d", "l");
    Peer peer([](Channel& channel) {
        rm_tokenName("l/");
        channel.hear();
        rm_queueCreate("queue");
        channel.say(textOf(readQueue(0)));
    });
    rm_tokenName("./d/");
    createQueue();
    writeQueue(0, "text", 1);
    peer.say("go");
    EXPECT_EQ(peer.hear(), "0 1 text");
    EXPECT_EQ(peer.wait().status, 0);
}

TEST_F(QueueMeeting, AWorkerUsesTheQueuesThatItInherited)
{
    createQueues(2);
    Peer peer([](Channel& channel) {
        channel.say(textOf(readQueue(0, kWait)));
        writeQueue(1, "answer", 2);
    });
    writeQueue(0, "question", 1);
    EXPECT_EQ(peer.hear(), "0 1 question");
    EXPECT_EQ(readQueue(1, kWait), got("answer", 2));
    EXPECT_EQ(peer.wait().status, 0);
}

TEST_F(QueueMeeting, BuffersAreThoseOfEachProcess)
{
    createQueue();
    Peer peer([](Channel& channel) {
        writeQueue(0, std::string(500, 'p'), 1);
        channel.say("written");
    });
    EXPECT_EQ(peer.hear(), "written");
    EXPECT_EQ(peer.wait().status, 0);
    EXPECT_EQ(readQueue(0), got(std::string(500, 'p'), 1));
    writeQueue(0, "ab", 2);
    EXPECT_EQ(receiveBare(idOf(0)), messageOf(2, "ab"));
}

TEST_F(QueueMeeting, QuestionsAndAnswersGoBackAndForthAThousandTimes)
{
    createQueues(2);
    Peer peer([](Channel&) {
        for (Received question = readQueue(0, kWait); question.code != kStop;
             question = readQueue(0, kWait)) {
            writeQueue(1, question.data + "!", question.code);
        }
    });
    for (uint16_t i = 0; i < 1000; ++i) {
        const std::string data = pattern(i % 300);
        writeQueue(0, data, i);
        ASSERT_EQ(readQueue(1, kWait), got(data + "!", i));
    }
    writeQueue(0, "", kStop);
    EXPECT_EQ(peer.wait().status, 0);
}

// --- Several readers and writers

TEST_F(QueueReaders, TakeEachMessageOnce)
{
    constexpr int kReaders = 4;
    constexpr uint16_t kMessages = 400;
    createQueue();
    std::vector<std::unique_ptr<Peer>> readers;
    readers.reserve(kReaders);
    for (int i = 0; i < kReaders; ++i) {
        readers.push_back(std::make_unique<Peer>([](Channel& channel) {
            std::string codes;
            for (Received received = readQueue(0, kWait); received.code != kStop;
                 received = readQueue(0, kWait)) {
                EXPECT_EQ(received.data, pattern(received.code % 50));
                codes += " " + std::to_string(received.code);
            }
            channel.say(codes);
        }));
    }
    const std::size_t most = limit("msgmnb") - 200;  // bytes; a full queue is fatal
    for (uint16_t code = 0; code < kMessages; ++code) {
        ASSERT_TRUE(waitFor([=] { return stateOf(idOf(0)).__msg_cbytes < most; }));
        writeQueue(0, pattern(code % 50), code);
    }
    for (int i = 0; i < kReaders; ++i) {
        writeQueue(0, "", kStop);
    }
    std::multiset<int> taken;
    for (auto& reader : readers) {
        std::istringstream codes(reader->hear());
        for (int code = 0; codes >> code;) {
            taken.insert(code);
        }
        EXPECT_EQ(reader->wait().status, 0);
    }
    EXPECT_EQ(taken.size(), kMessages);
    EXPECT_EQ(std::set<int>(taken.begin(), taken.end()).size(), kMessages);
    EXPECT_EQ(readQueue(0), kNothing);
}

TEST_F(QueueReaders, GetTheMessagesOfEachWriterInItsOrder)
{
    constexpr int kWriters = 3;
    constexpr uint16_t kMessages = 100;
    createQueue();
    std::vector<std::unique_ptr<Peer>> writers;
    writers.reserve(kWriters);
    for (int i = 0; i < kWriters; ++i) {
        writers.push_back(std::make_unique<Peer>([i](Channel&) {
            for (uint16_t code = 0; code < kMessages; ++code) {
                writeQueue(0, std::string(1, static_cast<char>('a' + i)), code);
            }
        }));
    }
    std::map<std::string, uint16_t> next;
    for (int i = 0; i < kWriters * kMessages; ++i) {
        const Received received = readQueue(0, kWait);
        ASSERT_EQ(received.code, next[received.data]++);
    }
    for (auto& writer : writers) {
        EXPECT_EQ(writer->wait().status, 0);
    }
    EXPECT_EQ(next.size(), static_cast<std::size_t>(kWriters));
    EXPECT_EQ(readQueue(0), kNothing);
}

TEST_F(QueueReaders, OneMessageWakesOneOfThoseThatWait)
{
    createQueue();
    std::array<std::unique_ptr<Peer>, 2> readers = {waitingReader(0), waitingReader(0)};
    EXPECT_TRUE(sleeps(*readers[0]));
    EXPECT_TRUE(sleeps(*readers[1]));
    writeQueue(0, "one", 1);
    EXPECT_TRUE(waitFor([&] { return !readers[0]->running() || !readers[1]->running(); }));
    Peer* const woken = readers[0]->running() ? readers[1].get() : readers[0].get();
    Peer* const other = readers[0]->running() ? readers[0].get() : readers[1].get();
    EXPECT_EQ(woken->hear(), "0 1 one");
    EXPECT_TRUE(sleeps(*other));
    EXPECT_TRUE(other->running());
    writeQueue(0, "two", 2);
    EXPECT_EQ(other->hear(), "0 2 two");
}

TEST_F(QueueReaders, MakeRoomInAFullQueue)
{
    createQueue();
    limitBytes(idOf(0), 19);
    writeQueue(0, std::string(10, 'x'), 1);
    EXPECT_EQ(fatalQuietly([] { rm_queueWrite(0, "x", 1, 2); }), 1);
    const std::unique_ptr<Peer> reader = waitingReader(0);
    EXPECT_EQ(reader->hear(), "0 1 " + std::string(10, 'x'));
    writeQueue(0, "x", 2);
    EXPECT_EQ(readQueue(0), got("x", 2));
}

// --- Waiting

TEST_F(QueueWaiting, ReadBlocksUntilAMessageArrives)
{
    createQueue();
    const std::unique_ptr<Peer> reader = waitingReader(0);
    EXPECT_TRUE(sleeps(*reader));
    EXPECT_TRUE(reader->running());
    writeQueue(0, "at last", 3);
    EXPECT_EQ(reader->hear(), "0 3 at last");
    EXPECT_EQ(reader->wait().status, 0);
}

TEST_F(QueueWaiting, AMessageInAnotherQueueWakesNobody)
{
    createQueues(2);
    const std::unique_ptr<Peer> reader = waitingReader(0);
    EXPECT_TRUE(sleeps(*reader));
    writeQueue(1, "elsewhere", 1);
    EXPECT_TRUE(sleeps(*reader));
    EXPECT_TRUE(reader->running());
    writeQueue(0, "here", 2);
    EXPECT_EQ(reader->hear(), "0 2 here");
}

TEST_F(QueueWaiting, AnEmptyMessageWakesToo)
{
    createQueue();
    const std::unique_ptr<Peer> reader = waitingReader(0);
    EXPECT_TRUE(sleeps(*reader));
    writeQueue(0, "", 9);
    EXPECT_EQ(reader->hear(), "0 9 ");
}

TEST_F(QueueWaiting, ReadWithoutWaitingDoesNotBlock)
{
    createQueue();
    inChild([] { EXPECT_EQ(readQueue(0, 0xFFFE), kNothing); });
}

// --- Signals

TEST_F(QueueSignal, WithAHandlerEndsTheWaitFatallyWithEintr)
{
    createQueue();
    for (const int flags : {0, SA_RESTART}) {
        const std::unique_ptr<Peer> reader =
            waitingReader(0, [flags] { handleSignal(SIGUSR1, flags); });
        EXPECT_TRUE(sleeps(*reader));
        // The reader shares the queue, which its own end must not remove.
        ASSERT_EQ(stateOf(idOf(0)).msg_qnum, 0U);
        reader->kill(SIGUSR1);
        const ChildResult result = reader->wait();
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, failure("rm_queueRead", "msgrcv() failure", EINTR));
        rm_queueTerminate();  // a fatal error without a target has removed it for all
        createQueue();
    }
}

TEST_F(QueueSignal, WithAHandlerAndAFatalTargetTheReaderGoesOn)
{
    createQueue();
    Peer reader([](Channel& channel) {
        handleSignal(SIGUSR1);
        channel.say("ready");
        const std::string out = failureOf([] { readQueue(0, kWait); });
        channel.say(out.substr(0, out.size() - 1));
        channel.say(textOf(readQueue(0, kWait)));
    });
    EXPECT_EQ(reader.hear(), "ready");
    EXPECT_TRUE(sleeps(reader));
    reader.kill(SIGUSR1);
    EXPECT_EQ(reader.hear() + "\n", failure("rm_queueRead", "msgrcv() failure", EINTR));
    writeQueue(0, "afterwards", 1);
    EXPECT_EQ(reader.hear(), "0 1 afterwards");
    EXPECT_EQ(reader.wait().status, 0);
}

TEST_F(QueueSignal, ThatIsIgnoredDoesNotDisturbTheWait)
{
    createQueue();
    const std::unique_ptr<Peer> reader = waitingReader(0, [] { signal(SIGUSR1, SIG_IGN); });
    EXPECT_TRUE(sleeps(*reader));
    reader->kill(SIGUSR1);
    reader->kill(SIGCHLD);  // ignored by default
    writeQueue(0, "text", 1);
    EXPECT_EQ(reader->hear(), "0 1 text");
}

TEST_F(QueueSignal, ThatIsBlockedDoesNotDisturbTheWait)
{
    createQueue();
    const std::unique_ptr<Peer> reader = waitingReader(0, [] {
        handleSignal(SIGUSR1);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        sigprocmask(SIG_BLOCK, &set, nullptr);
    });
    EXPECT_TRUE(sleeps(*reader));
    reader->kill(SIGUSR1);
    EXPECT_TRUE(reader->running());
    writeQueue(0, "text", 1);
    EXPECT_EQ(reader->hear(), "0 1 text");
}

// --- Removed by another process

TEST_F(QueueRemoved, WhoWaitsIsWokenAndEndsFatallyWithEidrm)
{
    createQueue();
    const std::unique_ptr<Peer> reader = waitingReader(0);
    EXPECT_TRUE(sleeps(*reader));
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    const ChildResult result = reader->wait();
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, kRemoved);
}

TEST_F(QueueRemoved, AllThatWaitAreWoken)
{
    createQueue();
    std::array<std::unique_ptr<Peer>, 3> readers;
    for (auto& reader : readers) {
        reader = waitingReader(0);
        EXPECT_TRUE(sleeps(*reader));
    }
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    for (auto& reader : readers) {
        EXPECT_EQ(reader->wait().out, kRemoved);
    }
}

TEST_F(QueueRemoved, ThenReadingWithoutWaitingAndWritingAreFatalToo)
{
    createQueues(2);
    Peer peer([](Channel& channel) {
        channel.hear();
        std::string out = failureOf([] { readQueue(0); });
        channel.say(out.substr(0, out.size() - 1));
        out = failureOf([] { writeQueue(0, "text"); });
        channel.say(out.substr(0, out.size() - 1));
        EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    });
    rm_queueDelete(0);
    peer.say("go");
    EXPECT_EQ(peer.hear() + "\n", failure("rm_queueRead", "msgrcv() failure", EINVAL));
    EXPECT_EQ(peer.hear() + "\n", failure("rm_queueWrite", "msgsnd() failure", EINVAL));
    EXPECT_EQ(peer.wait().status, 0);
}

TEST_F(QueueRemoved, EveryProcessMayDeleteItOnceMore)
{
    Peer peer([](Channel& channel) {
        rm_queueCreate("queue");
        channel.say("made");
        channel.hear();
        EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
        EXPECT_EQ(os::checkQueues(), 0U);
    });
    EXPECT_EQ(peer.hear(), "made");
    createQueue();
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_FALSE(std::filesystem::exists(kToken));
    peer.say("go");
    EXPECT_EQ(peer.wait().status, 0);
}

TEST_F(QueueRemoved, UnreadMessagesGoWithIt)
{
    createQueue();
    writeQueue(0, "unread", 1);
    Peer peer([](Channel&) { EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS); });
    EXPECT_EQ(peer.wait().status, 0);
    rm_queueDelete(0);
    createQueue();
    EXPECT_EQ(readQueue(0), kNothing);
}

TEST_F(QueueRemoved, AWorkerThatExitsThroughTheLibraryRemovesItForAll)
{
    createQueue();
    const int id = idOf(0);
    Peer peer([](Channel&) { rm_exit(7); });
    EXPECT_EQ(peer.wait().status, 7);
    EXPECT_FALSE(queueExists(id));
    EXPECT_FALSE(std::filesystem::exists(kToken));
    EXPECT_EQ(failureOf([] { readQueue(0); }), failure("rm_queueRead", "msgrcv() failure", EINVAL));
}

// --- What outlives a process

TEST_F(QueueSurvives, AWorkerThatEndsByItself)
{
    createQueue();
    Peer peer([](Channel&) { writeQueue(0, "legacy", 1); });
    EXPECT_EQ(peer.wait().status, 0);
    EXPECT_TRUE(std::filesystem::exists(kToken));
    EXPECT_EQ(readQueue(0), got("legacy", 1));
}

TEST_F(QueueSurvives, AWriterThatIsKilled)
{
    createQueue();
    Peer peer([](Channel& channel) {
        writeQueue(0, "legacy", 1);
        channel.say("written");
        channel.hear();
    });
    EXPECT_EQ(peer.hear(), "written");
    peer.kill(SIGKILL);
    EXPECT_EQ(peer.wait().signal, SIGKILL);
    EXPECT_EQ(readQueue(0), got("legacy", 1));
}

TEST_F(QueueSurvives, AReaderThatIsKilledWhileItWaitsTakesNoMessageAlong)
{
    createQueue();
    const std::unique_ptr<Peer> reader = waitingReader(0);
    EXPECT_TRUE(sleeps(*reader));
    reader->kill(SIGKILL);
    EXPECT_EQ(reader->wait().signal, SIGKILL);
    writeQueue(0, "for somebody else", 1);
    EXPECT_EQ(readQueue(0), got("for somebody else", 1));
}

TEST_F(QueueSurvives, AllItsProcesses)
{
    Peer first([](Channel&) {
        rm_queueCreate("queue");
        writeQueue(0, "of the run before", 1);
    });
    EXPECT_EQ(first.wait().status, 0);
    createQueue();
    EXPECT_EQ(readQueue(0), got("of the run before", 1));
}

}  // namespace
