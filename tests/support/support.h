// What every test program shares: a fixture that leaves nothing behind, processes, captured output.
//
// Why: the library keeps its state per process, ends processes, and meets other processes through
// objects that outlive them all. So each case runs in a directory of its own, a call that ends the
// process runs in a child, and at the end of the case nothing may be left: no descriptor, no IPC
// object, no block of memory, no child.
#ifndef RM_TESTS_SUPPORT_SUPPORT_H
#define RM_TESTS_SUPPORT_SUPPORT_H

#include "faults.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include <gtest/gtest.h>

namespace rmtest
{

using Milliseconds = std::chrono::milliseconds;

// How long anything may take that ought to happen at once. Generous, since the machine may be busy
// and the program instrumented; a case that needs it has failed.
constexpr Milliseconds kLimit{30'000};

// Exit statuses of processes that ended in another way than the test meant.
constexpr int kChildTestFailed = 113;  // an expectation failed inside a child
constexpr int kTestEndedEarly = 112;   // the test program itself was made to exit
constexpr int kPeerAbandoned = 111;    // a peer's parent closed its end or stayed silent

// --- The fixture

// SetUp: a fresh temporary directory is the current directory, the token prefix is empty, counts
// and trace of calls start at zero. TearDown: rm_freeall, then the case fails when descriptors, IPC
// objects, token files, children or library memory are left.
class RmTest : public ::testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // Absolute path of the case's directory.
    const std::filesystem::path& directory() const { return directory_; }

  private:
    std::filesystem::path directory_;
    std::filesystem::path before_;
    std::vector<int> descriptors_;
};

// --- Children

struct ChildResult {
    bool exited = false;    // by exit or _exit; else by a signal
    int status = -1;        // exit status
    int signal = 0;         // that ended it
    std::string out;        // standard output
    std::string err;        // standard error
    double seconds = 0;     // of wall clock
    bool timedOut = false;  // killed since it was over the limit
};

// Runs `body` in a child. When it returns, the child ends with status 0, after stdio and coverage
// counts were flushed, or with kChildTestFailed when an expectation failed in it; the test then
// fails here too, with the child's output. Over the limit the child and its children are killed.
ChildResult runChild(const std::function<void()>& body, Milliseconds limit = kLimit);

// The same for a body that has to come to its end: a child that ends with another status than 0, or
// by a signal, fails the test.
void inChild(const std::function<void()>& body);

// Another process that is driven step by step, a line of text at a time.
//
//     Peer peer([](Peer::Channel& ch) { lock(); ch.say("held"); ch.hear(); unlock(); });
//     ASSERT_EQ(peer.hear(), "held");
//     peer.say("go");
//     EXPECT_EQ(peer.wait().status, 0);
class Peer
{
  public:
    // One end of the connection.
    class Channel
    {
      public:
        Channel(int in, int out) : in_(in), out_(out) {}

        void say(std::string_view line);
        // The next line. Fails the test and returns "" when none comes within the limit; on the
        // peer's side the process ends with kPeerAbandoned instead.
        std::string hear(Milliseconds limit = kLimit);

      private:
        friend class Peer;

        int in_;
        int out_;
        bool inPeer_ = false;
        std::string pending_;
    };

    // Ends as a child of runChild does when `body` returns. Its output is captured.
    explicit Peer(const std::function<void(Channel&)>& body);
    // Kills it when it has not been waited for.
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    pid_t pid() const { return pid_; }

    void say(std::string_view line) { channel_.say(line); }

    std::string hear(Milliseconds limit = kLimit) { return channel_.hear(limit); }

    // Sends a signal; returns at once.
    void kill(int signalNumber);
    // Waits for the end, which must come within the limit; beyond it the peer is killed.
    ChildResult wait(Milliseconds limit = kLimit);
    // True while it has not ended.
    bool running();

  private:
    void closeChannel();

    pid_t pid_ = -1;
    bool waited_ = false;
    ChildResult result_;
    Channel channel_{-1, -1};
    int out_ = -1;
    int err_ = -1;
    std::chrono::steady_clock::time_point started_;
};

// True as soon as `condition` holds; false when it does not within the limit.
bool waitFor(const std::function<bool()>& condition, Milliseconds limit = kLimit);

// From here to the end of the case, an exit of this very process ends it with kTestEndedEarly.
// Every case of a test program starts with this.
void guardThisProcess();

// Writes the coverage counts of this process, where there are any; for a child that is about to end
// in a way that loses them. _exit does this by itself in a test program.
void dumpCoverage();

// --- Output and the fatal path

// What `body` writes to descriptor 2 or 1 of this process. It must come back: see catchFatal.
std::string captureStderr(const std::function<void()>& body);
std::string captureStdout(const std::function<void()>& body);

// The lines of a captured standard error without their "[dd-Mon-yy hh:mm:ss]  " stamp. A line
// without a proper stamp fails the test and is given whole.
std::vector<std::string> logLines(std::string_view text);

// The line of a system call that failed, without its stamp.
std::string failure(const char* function, const char* message, int error);

// The log of a process whose first failure that was, up to where control goes back to the host.
std::vector<std::string> logOfFirstFailure(const std::string& line);

// Runs `body` with a fatal target of its own: 0 when it returned, 1 when the fatal path jumped. The
// target that was set before is set again. Objects with destructors that live in `body` across the
// call that jumps are lost, so hold them outside.
int catchFatal(const std::function<void()>& body);

// The same for rm_exit: -1 when `body` returned, else the jump's value.
int catchExit(const std::function<void()>& body);

// --- Random runs

// The same run every time, unless the environment asks for another one: RM_TEST_SEED, and
// RM_TEST_OPERATIONS in place of what the everyday suite makes.
uint64_t seedOfThisRun(uint64_t otherwise = 1);
long operationsOfThisRun(long otherwise);

// --- State of this process and of the machine

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, std::string_view text);

// Value of semaphore `number` of set `id`, -1 when there is none.
int semValue(int id, int number);
// Processes that wait for the semaphore to grow, and for it to become 0.
int semWaiters(int id, int number);
int semZeroWaiters(int id, int number);

// Descriptors of this process, ascending.
std::vector<int> openDescriptors();

}  // namespace rmtest

#endif
