// What the tests of message queues share: messages as the system carries them, reads into guarded
// buffers, and the text of a failure.
#ifndef RM_TESTS_UNIX_QUEUE_CASE_H
#define RM_TESTS_UNIX_QUEUE_CASE_H

#include "tests/support/support.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <sched.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace queuetest
{

using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::captureStdout;
using rmtest::catchFatal;
using rmtest::ChildResult;
using rmtest::ipcObjects;
using rmtest::kForever;
using rmtest::logLines;
using rmtest::Peer;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;
using rmtest::waitFor;
using rmtest::writeFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kToken = ".ZNT.RM.QUEUE";
constexpr std::size_t kHead = 4;          // bytes of code and length
constexpr std::size_t kBeyond = 5;        // bytes that travel behind the data
constexpr std::size_t kLongest = 32767;   // bytes of data that a length can name
constexpr std::size_t kReceived = 32776;  // bytes of the largest message that is received
constexpr uint16_t kWait = 1;             // of a read
constexpr int16_t kOutOfRange[] = {-32768, -2, -1, 5, 6, 20, 32767};

// --- Failures

// What the library prints when it takes its fatal path.
inline std::string failure(const char* function, const char* message, int error)
{
    return std::string("**** ") + function + "() " + message + ", errno=" + std::to_string(error) +
           " (" + std::strerror(error) + ")\n";
}

// What `body` printed when it ended in the fatal path.
inline std::string failureOf(const std::function<void()>& body)
{
    int jumped = 0;
    std::string out;
    captureStderr([&] { out = captureStdout([&] { jumped = catchFatal(body); }); });
    return jumped == 1 ? out : "it came back, having printed: " + out;
}

// 1 when `body` ended in the fatal path; what it printed and logged is dropped.
inline int fatalQuietly(const std::function<void()>& body)
{
    int jumped = 0;
    captureStderr([&] { captureStdout([&] { jumped = catchFatal(body); }); });
    return jumped;
}

// Runs `body` in a child, which has to come to its end: a fatal error would end it with status 0.
// What it has to say is said here too.
inline void inChild(const std::function<void()>& body, rmtest::Milliseconds limit = rmtest::kLimit)
{
    constexpr std::string_view kEnd = "came to its end";
    const ChildResult child = runChild(
        [&] {
            body();
            std::fputs(kEnd.data(), stdout);
        },
        limit);
    EXPECT_FALSE(child.timedOut);
    EXPECT_EQ(child.signal, 0) << child.out << child.err;
    ASSERT_TRUE(child.out.ends_with(kEnd)) << child.out << child.err;
    std::fputs(child.out.substr(0, child.out.size() - kEnd.size()).c_str(), stdout);
}

// --- Messages as the system carries them

struct BareMessage {
    long type;
    char text[1 << 16];
};

struct Wire {
    long type = 0;
    std::string text;

    bool operator==(const Wire&) const = default;
};

inline void PrintTo(const Wire& wire, std::ostream* out)
{
    *out << "type " << wire.type << ", " << wire.text.size() << " bytes "
         << ::testing::PrintToString(wire.text);
}

// Sends what a process that does not use the library could send. False when it is refused.
inline bool sendBare(int id, std::string_view text, long type = 1)
{
    static BareMessage message;
    message.type = type;
    text.copy(message.text, sizeof message.text);
    return msgsnd(id, &message, text.size(), IPC_NOWAIT) == 0;
}

// Takes the oldest message; of type 0 when there is none.
inline Wire receiveBare(int id)
{
    static BareMessage message;
    const ssize_t size = msgrcv(id, &message, sizeof message.text, 0, IPC_NOWAIT);
    return size == -1 ? Wire{} : Wire{message.type, {message.text, static_cast<std::size_t>(size)}};
}

inline std::string headOf(uint16_t code, uint16_t length)
{
    std::string head(kHead, '\0');
    std::memcpy(head.data(), &code, sizeof code);
    std::memcpy(&head[sizeof code], &length, sizeof length);
    return head;
}

// A message as the library has to send it.
inline Wire messageOf(uint16_t code, std::string_view data)
{
    return {1, headOf(code, static_cast<uint16_t>(data.size())) + std::string(data) +
                   std::string(kBeyond, '\0')};
}

// Bytes of which no two neighbours are the same and none is zero.
inline std::string pattern(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(1 + i % 251);
    }
    return bytes;
}

// --- Queues as the system knows them

inline int idOf(int16_t handle)
{
    return os::rmQueue.at(static_cast<std::size_t>(handle)).id;
}

inline msqid_ds stateOf(int id)
{
    msqid_ds state = {};
    EXPECT_EQ(msgctl(id, IPC_STAT, &state), 0) << std::strerror(errno);
    return state;
}

inline bool queueExists(int id)
{
    msqid_ds state = {};
    return msgctl(id, IPC_STAT, &state) == 0;
}

inline uint64_t messagesIn(int id)
{
    return stateOf(id).msg_qnum;
}

// Makes the queue full with so many bytes, which the system counts without those of the types.
inline void limitBytes(int id, uint64_t bytes)
{
    msqid_ds state = stateOf(id);
    state.msg_qbytes = static_cast<msglen_t>(bytes);
    EXPECT_EQ(msgctl(id, IPC_SET, &state), 0) << std::strerror(errno);
}

// One of the machine's limits, by its name.
inline std::size_t limit(const std::string& name)
{
    return std::strtoul(readFile("/proc/sys/kernel/" + name).c_str(), nullptr, 10);
}

inline bool setLimit(const std::string& path, const std::string& value)
{
    std::ofstream file(path);
    file << value;
    file.close();
    return file.good();
}

// Gives this process, a child of the case, queues that no other process sees, with limits of its
// own. Where an ordinary process may not have that, the machine's own limits stay in force, and
// false is returned.
inline bool enterOwnLimits(std::size_t mostBytesOfAMessage, std::size_t mostBytesOfAQueue)
{
    const std::string owner = std::to_string(getuid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWIPC) != 0) {
        return false;
    }
    // What is made here would be looked for, and removed, among the objects outside.
    static ScopedFault unnoted(
        {.call = Call::kMsgget, .times = kForever, .action = [](const CallRecord& call) -> int64_t {
             return syscall(SYS_msgget, static_cast<long>(call.args[0]),
                            static_cast<long>(call.args[1]));
         }});
    return setLimit("/proc/self/uid_map", "0 " + owner + " 1") &&
           setLimit("/proc/sys/kernel/msgmax", std::to_string(mostBytesOfAMessage)) &&
           setLimit("/proc/sys/kernel/msgmnb", std::to_string(mostBytesOfAQueue));
}

// Gives the token file a second name, or the first one back. A queue that stays behind outlives its
// token file, whose inode, and with it the key, the next file would get: that of a case which runs
// beside.
inline void keepKeys()
{
    constexpr const char* kKept = "kept";
    if (!std::filesystem::exists(kKept)) {
        writeFile(kToken, "");
        std::filesystem::create_hard_link(kToken, kKept);
    } else if (!std::filesystem::exists(kToken)) {
        std::filesystem::create_hard_link(kKept, kToken);
    }
}

// --- Reading through the library

struct Received {
    int16_t result = -1;
    std::string data;
    uint16_t code = 0;

    bool operator==(const Received&) const = default;
};

inline void PrintTo(const Received& received, std::ostream* out)
{
    *out << "result " << received.result << ", code " << received.code << ", "
         << received.data.size() << " bytes " << ::testing::PrintToString(received.data);
}

inline Received got(std::string_view data, uint16_t code)
{
    return {RM_SUCCESS, std::string(data), code};
}

// A caller's buffer with bytes on both sides that nobody may touch.
struct Guarded {
    static constexpr char kUntouched = '\xA5';
    static constexpr std::size_t kSide = 64;

    Guarded() : bytes(kLongest + 2 * kSide, kUntouched) {}

    char* data() { return &bytes[kSide]; }

    // Everything but the first `length` bytes of the buffer is as it was.
    bool isWhole(std::size_t length) const
    {
        const std::string_view all = bytes;
        return all.substr(0, kSide).find_first_not_of(kUntouched) == std::string_view::npos &&
               all.find_first_not_of(kUntouched, kSide + length) == std::string_view::npos;
    }

    std::string bytes;
};

// Reads a message and fails when anything but the outputs was written.
inline Received readQueue(int16_t handle, uint16_t flags = 0)
{
    constexpr int16_t kNoLength = -77;
    constexpr uint16_t kNoCode = 0xBEEF;
    static Guarded buffer;  // a read that jumps out would lose it
    buffer = Guarded();
    char* pointer = buffer.data();
    int16_t length = kNoLength;
    Received received;
    received.code = kNoCode;
    received.result = rm_queueRead(handle, &pointer, &length, &received.code, flags);
    EXPECT_EQ(pointer, buffer.data());
    EXPECT_EQ(os::checkQueues(), 0U);
    if (received.result == RM_SUCCESS) {
        EXPECT_GE(length, 0);
        received.data.assign(buffer.data(), static_cast<std::size_t>(std::max<int16_t>(length, 0)));
    } else {
        EXPECT_EQ(length, kNoLength);
        EXPECT_EQ(received.code, kNoCode);
        received.code = 0;
    }
    EXPECT_TRUE(buffer.isWhole(received.data.size()));
    return received;
}

const Received kNothing = {RM_NOT_FOUND, "", 0};

// --- Writing through the library

inline void writeQueue(int16_t handle, std::string_view data, uint16_t code = 0)
{
    EXPECT_EQ(rm_queueWrite(handle, data.data(), static_cast<int16_t>(data.size()), code),
              RM_SUCCESS);
    EXPECT_EQ(os::checkQueues(), 0U);
}

inline int16_t createQueue(const char* name = "queue")
{
    const int16_t handle = rm_queueCreate(name);
    EXPECT_EQ(os::checkQueues(), 0U);
    return handle;
}

inline void createQueues(int count)
{
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(createQueue(), i);
    }
}

// A creation for which there is no memory: the slot keeps its name and is not counted.
inline void createWithoutMemory(const char* name = "queue")
{
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(fatalQuietly([name] { rm_queueCreate(name); }), 1);
}

inline uint32_t violationsNow()
{
    uint32_t violations = 0;
    captureStderr([&] { violations = os::checkQueues(); });
    return violations;
}

inline int namedSlots()
{
    return static_cast<int>(
        std::count_if(os::rmQueue.begin(), os::rmQueue.end(),
                      [](const os::QueueSlot& slot) { return slot.name != nullptr; }));
}

// Takes the queues and the token file of the case away. Cases that damage the table say so.
class QueueTest : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        if (!damaged_) {
            EXPECT_EQ(os::checkQueues(), 0U);
        }
        fatalQuietly([] { rm_queueTerminate(); });
        RmTest::TearDown();
    }

    void damaged() { damaged_ = true; }

  private:
    bool damaged_ = false;
};

// Takes away what a case was meant to leave to other processes.
inline void removeLeftQueues()
{
    for (const rmtest::IpcObject& object : ipcObjects()) {
        if (object.kind == 'q') {
            removeIpcObject(object);
        }
    }
    std::filesystem::remove(kToken);
}

}  // namespace queuetest

#endif
