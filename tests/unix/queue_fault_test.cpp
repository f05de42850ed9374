// Message queues whose system calls fail: once and for ever after, with each errno that the call
// documents. A failure is never returned: what is printed and logged, what state is left, that the
// process can go on, and that it can end in order and leave nothing behind is looked at for each.
#include "queue_case.h"

#include <ostream>

using namespace queuetest;

namespace
{
using Errors = std::vector<int>;

const Errors kOpenErrors = {EACCES,     EDQUOT,    EEXIST, EFAULT, EFBIG,        EINTR,
                            EINVAL,     EISDIR,    ELOOP,  EMFILE, ENAMETOOLONG, ENFILE,
                            ENODEV,     ENOENT,    ENOMEM, ENOSPC, ENOTDIR,      ENXIO,
                            EOPNOTSUPP, EOVERFLOW, EPERM,  EROFS,  ETXTBSY};
const Errors kFdopenErrors = {EINVAL, EMFILE, ENOMEM};
const Errors kFtokErrors = {EACCES, EFAULT, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR};
const Errors kMsggetErrors = {EACCES, EEXIST, ENOENT, ENOMEM, ENOSPC};
const Errors kMsgsndErrors = {EACCES, EAGAIN, EFAULT, EIDRM, EINTR, EINVAL, ENOMEM};
const Errors kMsgrcvErrors = {E2BIG, EACCES, EFAULT, EIDRM, EINTR, EINVAL, ENOSYS};
const Errors kMsgctlErrors = {EACCES, EFAULT, EIDRM, EINVAL, EPERM};
const Errors kCloseErrors = {EBADF, EINTR, EIO, ENOSPC, EDQUOT};
const Errors kUnlinkErrors = {EACCES,       EBUSY,  EFAULT, EIO,     EISDIR, ELOOP,
                              ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM,  EROFS};

// What the process knows of its queues.
struct State {
    int named;
    int16_t counted;
    bool stream;
    bool file;  // the token file

    bool operator==(const State&) const = default;
};

void PrintTo(const State& state, std::ostream* out)
{
    *out << state.named << " named, " << state.counted << " counted, "
         << (state.stream ? "a stream, " : "no stream, ") << (state.file ? "a file" : "no file");
}

State stateNow()
{
    return {namedSlots(), os::nQueues, os::gfpRMQueueTokenFile != nullptr,
            std::filesystem::exists(kToken)};
}

// --- The table: every call whose failure ends the operation

struct Point {
    const char* name;
    Call call;  // that fails
    int skip;   // of those calls that succeed before
    const Errors& errors;
    int queues;            // that there are before anything fails
    void (*act)();         // meets the failure
    const char* function;  // of the failure line
    const char* message;
    State after;
};

void PrintTo(const Point& point, std::ostream* out)
{
    *out << point.name;
}

void create()
{
    rm_queueCreate("new");
}

void write()
{
    rm_queueWrite(0, "text", 4, 1);
}

void read(uint16_t flags)
{
    std::array<char, 64> buffer = {};
    char* pointer = buffer.data();
    int16_t length = 0;
    rm_queueRead(0, &pointer, &length, nullptr, flags);
}

constexpr State kOne = {1, 1, true, true};

const std::vector<Point> kPoints = {
    {"CreateOpen",
     Call::kOpen,
     0,
     kOpenErrors,
     0,
     create,
     "rm_queueCreate",
     "fopen() failure",
     {0, 0, false, false}},
    // The file was made and there is no stream by which to tell that it is ours.
    {"CreateFdopen",
     Call::kFdopen,
     0,
     kFdopenErrors,
     0,
     create,
     "rm_queueCreate",
     "fopen() failure",
     {0, 0, false, true}},
    {"CreateFtokOfSlot0",
     Call::kFtok,
     0,
     kFtokErrors,
     0,
     create,
     "rm_queueCreate",
     "ftok() failure",
     {0, 0, true, true}},
    {"CreateFtokOfSlot1",
     Call::kFtok,
     1,
     kFtokErrors,
     0,
     create,
     "rm_queueCreate",
     "ftok() failure",
     {0, 0, true, true}},
    {"CreateFtokOfSlot2",
     Call::kFtok,
     2,
     kFtokErrors,
     0,
     create,
     "rm_queueCreate",
     "ftok() failure",
     {0, 0, true, true}},
    {"CreateFtokOfSlot3",
     Call::kFtok,
     3,
     kFtokErrors,
     0,
     create,
     "rm_queueCreate",
     "ftok() failure",
     {0, 0, true, true}},
    {"CreateFtokOfSlot4",
     Call::kFtok,
     4,
     kFtokErrors,
     0,
     create,
     "rm_queueCreate",
     "ftok() failure",
     {0, 0, true, true}},
    {"CreateMsgget", Call::kMsgget, 0, kMsggetErrors, 0, create, "rm_queueCreate",
     "msgget() failure", kOne},
    {"CreateSecondMsgget",
     Call::kMsgget,
     0,
     kMsggetErrors,
     1,
     create,
     "rm_queueCreate",
     "msgget() failure",
     {2, 2, true, true}},
    {"CreateFifthMsgget",
     Call::kMsgget,
     0,
     kMsggetErrors,
     4,
     create,
     "rm_queueCreate",
     "msgget() failure",
     {5, 5, true, true}},
    {"WriteMsgsnd", Call::kMsgsnd, 0, kMsgsndErrors, 1, write, "rm_queueWrite", "msgsnd() failure",
     kOne},
    {"ReadMsgrcv", Call::kMsgrcv, 0, kMsgrcvErrors, 1, [] { read(0); }, "rm_queueRead",
     "msgrcv() failure", kOne},
    {"WaitMsgrcv", Call::kMsgrcv, 0, kMsgrcvErrors, 1, [] { read(kWait); }, "rm_queueRead",
     "msgrcv() failure", kOne},
};

class QueueFault : public QueueTest, public ::testing::WithParamInterface<Point>
{
  protected:
    static rmtest::Fault faultOf(const Point& point, int error, int times)
    {
        return {.call = point.call, .error = error, .skip = point.skip, .times = times};
    }
};

TEST_P(QueueFault, IsFatalWithItsErrnoAndLeavesTheStateThatItLeaves)
{
    const Point& point = GetParam();
    for (const int error : point.errors) {
        SCOPED_TRACE(std::strerror(error));
        createQueues(point.queues);
        {
            ScopedFault fault(faultOf(point, error, 1));
            EXPECT_EQ(failureOf(point.act), failure(point.function, point.message, error));
            EXPECT_EQ(fault.hits(), 1);
        }
        EXPECT_EQ(stateNow(), point.after);
        rm_queueTerminate();
        std::filesystem::remove(kToken);  // of a stream that never was
        EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
        EXPECT_THAT(ipcObjects(), IsEmpty());
    }
}

TEST_P(QueueFault, TheProcessGoesOnWhenItHasPassed)
{
    const Point& point = GetParam();
    for (const int error : point.errors) {
        SCOPED_TRACE(std::strerror(error));
        createQueues(point.queues);
        {
            ScopedFault fault(faultOf(point, error, 1));
            EXPECT_EQ(fatalQuietly(point.act), 1);
        }
        if (point.after.named > point.queues) {
            EXPECT_EQ(violationsNow(), 1U);  // a name without a queue
            EXPECT_EQ(rm_queueDelete(static_cast<int16_t>(point.queues)), RM_SUCCESS);
        }
        EXPECT_EQ(createQueue("again"), point.queues);
        const auto handle = static_cast<int16_t>(point.queues);
        writeQueue(handle, "text", 9);
        EXPECT_EQ(readQueue(handle), got("text", 9));
        rm_queueTerminate();
        EXPECT_FALSE(std::filesystem::exists(kToken));
    }
}

TEST_P(QueueFault, ForEverItIsFatalEachTime)
{
    const Point& point = GetParam();
    for (const int error : point.errors) {
        SCOPED_TRACE(std::strerror(error));
        createQueues(point.queues);
        {
            ScopedFault fault(faultOf(point, error, kForever));
            for (int i = 0; i < 3; ++i) {
                std::string message = failure(point.function, point.message, error);
                if (point.call == Call::kMsgget && i + point.queues >= 5) {
                    message = failure("rm_queueCreate", "Out of Message Queues!", 0);
                }
                EXPECT_EQ(failureOf(point.act), message) << "attempt " << i;
                if (point.call == Call::kFtok) {
                    break;  // the skip is used up: the first slot fails from now on
                }
            }
        }
        rm_queueTerminate();
        std::filesystem::remove(kToken);
        EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
    }
}

TEST_P(QueueFault, TheProcessEndsInOrderWithTheCallFailingForEver)
{
    const Point& point = GetParam();
    for (const int error : point.errors) {
        SCOPED_TRACE(std::strerror(error));
        const ChildResult child = runChild([&] {
            createQueues(point.queues);
            static ScopedFault fault(faultOf(point, error, kForever));
            point.act();
        });
        EXPECT_TRUE(child.exited);
        EXPECT_EQ(child.status, 0);
        EXPECT_EQ(child.out, failure(point.function, point.message, error));
        EXPECT_THAT(ipcObjects(), IsEmpty());
        if (point.call != Call::kFdopen) {
            EXPECT_FALSE(std::filesystem::exists(kToken));
        }
        std::filesystem::remove(kToken);
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, QueueFault, ::testing::ValuesIn(kPoints),
                         [](const auto& test) { return std::string(test.param.name); });

// --- Memory

class QueueMemory : public QueueTest
{
};

TEST_F(QueueMemory, WithoutItACreationIsFatal)
{
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    std::vector<std::string> lines =
        logLines(captureStderr([] { EXPECT_EQ(catchFatal([] { rm_queueCreate("queue"); }), 1); }));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "Out of memory!");
    EXPECT_EQ(lines.back(), "Exiting to shutdown processing");
    damaged();
}

TEST_F(QueueMemory, WithoutItNoQueueIsMade)
{
    createWithoutMemory();
    EXPECT_EQ(callCount(Call::kMsgget), 0);
    EXPECT_EQ(stateNow(), (State{1, 0, true, true}));
    damaged();
}

TEST_F(QueueMemory, WithoutItTheOtherQueuesWorkOn)
{
    createQueue();
    createWithoutMemory();
    EXPECT_EQ(stateNow(), (State{2, 1, true, true}));
    EXPECT_EQ(rm_queueWrite(0, "text", 4, 1), RM_SUCCESS);
    EXPECT_EQ(receiveBare(idOf(0)), messageOf(1, "text"));
    damaged();
}

TEST_F(QueueMemory, WithoutItTheSlotKeepsItsName)
{
    createQueue();
    createWithoutMemory("named");
    EXPECT_EQ(rm_queueOpen("named"), 1);
    EXPECT_EQ(rm_queueCreate("next"), 2);
    damaged();
}

TEST_F(QueueMemory, WithoutItForEverTheProcessEndsInOrder)
{
    const ChildResult child = runChild([] {
        createQueues(2);
        static ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
        rm_queueCreate("third");
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
    EXPECT_THAT(ipcObjects(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

// --- Calls whose failure is not minded

class QueueDeleteFault : public QueueTest
{
};

TEST_F(QueueDeleteFault, TheResultOfTheRemovalIsNotLookedAt)
{
    for (const int error : kMsgctlErrors) {
        SCOPED_TRACE(std::strerror(error));
        keepKeys();
        createQueues(2);
        const int id = idOf(0);
        {
            ScopedFault fault({.call = Call::kMsgctl, .error = error});
            EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
            EXPECT_EQ(fault.hits(), 1);
        }
        EXPECT_EQ(stateNow(), kOne);
        EXPECT_EQ(os::checkQueues(), 0U);
        EXPECT_TRUE(queueExists(id));
        rm_queueTerminate();
        EXPECT_FALSE(std::filesystem::exists(kToken));
        removeLeftQueues();
    }
}

TEST_F(QueueDeleteFault, RemovalsThatFailForEverLeaveTheQueuesOnly)
{
    for (const int error : kMsgctlErrors) {
        SCOPED_TRACE(std::strerror(error));
        void* keeper = rm_getMemory(8, 0);
        const uint32_t before = rm_memused();
        keepKeys();
        createQueues(5);
        {
            ScopedFault fault({.call = Call::kMsgctl, .error = error, .times = kForever});
            EXPECT_EQ(rm_queueTerminate(), RM_SUCCESS);
            EXPECT_EQ(fault.hits(), 5);
        }
        EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
        EXPECT_EQ(rm_memused(), before);
        EXPECT_EQ(ipcObjects().size(), 5U);
        removeLeftQueues();
        rm_freeMemory(keeper, 0);
    }
}

TEST_F(QueueDeleteFault, AnErrnoOfTheRemovalIsNotTakenForOneOfTheLibrary)
{
    keepKeys();
    createQueues(2);
    ScopedFault fault({.call = Call::kMsgctl, .error = EPERM});
    EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
    EXPECT_EQ(rm_queueRead(1, nullptr, nullptr, nullptr, 0), RM_NOT_FOUND);
    removeLeftQueues();
}

TEST_F(QueueDeleteFault, ATokenStreamThatDoesNotCloseIsGivenUp)
{
    for (const int error : kCloseErrors) {
        SCOPED_TRACE(std::strerror(error));
        createQueue();
        {
            ScopedFault fault({.call = Call::kFclose,
                               .error = error,
                               .action = [error](const CallRecord& call) -> int64_t {
                                   rmtest::passThrough(call);
                                   errno = error;
                                   return EOF;
                               }});
            EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
            EXPECT_EQ(fault.hits(), 1);
        }
        EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
    }
}

TEST_F(QueueDeleteFault, ATokenFileThatCannotBeRemovedStays)
{
    for (const int error : kUnlinkErrors) {
        SCOPED_TRACE(std::strerror(error));
        createQueue();
        {
            ScopedFault fault({.call = Call::kUnlink, .error = error, .times = kForever});
            EXPECT_EQ(rm_queueDelete(0), RM_SUCCESS);
            EXPECT_EQ(fault.hits(), 1);
        }
        EXPECT_EQ(stateNow(), (State{0, 0, false, true}));
        EXPECT_THAT(ipcObjects(), IsEmpty());
        std::filesystem::remove(kToken);
    }
}

// --- A read that finds nothing, and one that was disturbed

class QueueReadFault : public QueueTest
{
};

TEST_F(QueueReadFault, EnomsgMeansThatThereIsNoMessage)
{
    createQueue();
    ScopedFault fault({.call = Call::kMsgrcv, .error = ENOMSG});
    EXPECT_EQ(readQueue(0), kNothing);
    EXPECT_EQ(fault.hits(), 1);
}

TEST_F(QueueReadFault, EagainIsNotEnomsg)
{
    createQueue();
    ScopedFault fault({.call = Call::kMsgrcv, .error = EAGAIN});
    EXPECT_EQ(failureOf([] { read(0); }), failure("rm_queueRead", "msgrcv() failure", EAGAIN));
}

TEST_F(QueueReadFault, AFailureTouchesNoOutput)
{
    createQueue();
    ScopedFault fault({.call = Call::kMsgrcv, .error = EIDRM});
    Guarded buffer;
    static int16_t length = -77;
    static uint16_t code = 0xBEEF;
    EXPECT_EQ(fatalQuietly([&buffer] {
                  char* pointer = buffer.data();
                  rm_queueRead(0, &pointer, &length, &code, 0);
              }),
              1);
    EXPECT_TRUE(buffer.isWhole(0));
    EXPECT_EQ(length, -77);
    EXPECT_EQ(code, 0xBEEF);
}

TEST_F(QueueReadFault, IsNotTriedAgain)
{
    createQueue();
    ScopedFault fault({.call = Call::kMsgrcv, .error = EINTR, .times = kForever});
    EXPECT_EQ(fatalQuietly([] { read(kWait); }), 1);
    EXPECT_EQ(fault.hits(), 1);
}

TEST_F(QueueReadFault, AFailedWriteIsNotTriedAgain)
{
    createQueue();
    ScopedFault fault({.call = Call::kMsgsnd, .error = EINTR, .times = kForever});
    EXPECT_EQ(fatalQuietly(write), 1);
    EXPECT_EQ(fault.hits(), 1);
}

TEST_F(QueueReadFault, AMessageThatWasNotReadIsStillThere)
{
    createQueue();
    writeQueue(0, "kept", 1);
    {
        ScopedFault fault({.call = Call::kMsgrcv, .error = EINTR});
        EXPECT_EQ(fatalQuietly([] { read(0); }), 1);
    }
    EXPECT_EQ(readQueue(0), got("kept", 1));
}

// --- The log

class QueueFailureLog : public QueueTest
{
};

TEST_F(QueueFailureLog, HasTheLineOfTheFirstFailureAndTheBanner)
{
    createQueue();
    ScopedFault fault({.call = Call::kMsgsnd, .error = EAGAIN});
    std::vector<std::string> lines;
    captureStdout(
        [&lines] { lines = logLines(captureStderr([] { EXPECT_EQ(catchFatal(write), 1); })); });
    ASSERT_EQ(lines.size(), 9U);
    EXPECT_EQ(lines[0] + "\n", failure("rm_queueWrite", "msgsnd() failure", EAGAIN));
    EXPECT_EQ(lines[2], "* Please report this condition to *");
    EXPECT_EQ(lines[8], "Exiting to shutdown processing");
}

TEST_F(QueueFailureLog, OfASecondFailureHasNoLine)
{
    createQueue();
    EXPECT_EQ(fatalQuietly([] { rm_queueWrite(1, "text", 4, 0); }), 1);
    std::vector<std::string> lines;
    captureStdout([&lines] {
        lines = logLines(captureStderr(
            [] { EXPECT_EQ(catchFatal([] { rm_queueWrite(1, "text", 4, 0); }), 1); }));
    });
    EXPECT_THAT(lines, ElementsAre("Exiting to shutdown processing"));
}

}  // namespace
