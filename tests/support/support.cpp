// Why: the helpers that every test program shares, see the header.
//
// Invariant: nothing here is left in the way of a test's own look at the process: no descriptor, no
// file in the case's directory, no child.
//
// Fatal: the library may end a process with status 0, which a test runner would take for success.
// While a case runs, an exit of the test program itself therefore ends with kTestEndedEarly.
#include "support.h"

#include "rm.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the platform's names

// There only in a build that counts coverage.
extern "C" void __gcov_dump(void) __attribute__((weak));

extern "C" [[noreturn]] void __real__exit(int status);
extern "C" [[noreturn]] void __wrap__exit(int status);

void __wrap__exit(int status)
{
    rmtest::dumpCoverage();
    __real__exit(status);
}

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace rmtest
{

namespace
{

using Clock = std::chrono::steady_clock;

// The names of the files that processes meet by.
constexpr std::array<const char*, 3> kTokenFiles = {".ZNT.RM.SEM", ".ZNT.RM.MEM", ".ZNT.RM.QUEUE"};
constexpr int kTokenProjects = 20;  // the largest that the library gives to ftok
constexpr int kDirectoryTries = 64;

pid_t testProcess = -1;  // while a case runs: the process that runs it
bool inCase = false;

void exitGuard()
{
    if (inCase && getpid() == testProcess) {
        std::fputs("the test program was made to exit in the middle of a case\n", stderr);
        _exit(kTestEndedEarly);
    }
}

// Watches every case of the program, whatever its fixture is.
class CaseWatch : public ::testing::EmptyTestEventListener
{
  public:
    void OnTestStart(const ::testing::TestInfo& /*test*/) override { guardThisProcess(); }

    void OnTestEnd(const ::testing::TestInfo& /*test*/) override { inCase = false; }
};

[[maybe_unused]] const bool watching = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new CaseWatch);
    return std::atexit(exitGuard) == 0;
}();

int failuresSoFar()
{
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    if (test == nullptr) {
        return 0;
    }
    int failures = 0;
    const ::testing::TestResult* result = test->result();
    for (int i = 0; i < result->total_part_count(); ++i) {
        failures += result->GetTestPartResult(i).failed() ? 1 : 0;
    }
    return failures;
}

// A signal that ends a child would take its coverage counts along.
void dumpAndDie(int signalNumber)
{
    dumpCoverage();
    raise(signalNumber);
}

void prepareChild(int out, int err)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    inCase = false;
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    if (__gcov_dump != nullptr) {
        for (const int number : {SIGTERM, SIGABRT}) {
            struct sigaction action = {};
            action.sa_handler = dumpAndDie;
            action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
            sigaction(number, &action, nullptr);
        }
    }
}

[[noreturn]] void endChild(int failuresBefore)
{
    const int status = failuresSoFar() > failuresBefore ? kChildTestFailed : 0;
    std::fflush(nullptr);
    _exit(status);
}

// An unnamed file in memory. Tests look at their directory, so nothing is made there.
int memoryFile()
{
    return memfd_create("captured", MFD_CLOEXEC);
}

std::string contentsAndClose(int fd)
{
    std::string text;
    std::array<char, 4096> chunk;
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n = read(fd, chunk.data(), chunk.size()); n > 0;
         n = read(fd, chunk.data(), chunk.size())) {
        text.append(chunk.data(), static_cast<std::size_t>(n));
    }
    close(fd);
    return text;
}

// Without the line in which an emulator tells of the signal that ended its program.
std::string withoutEmulator(std::string text)
{
    const std::size_t line = text.rfind("qemu: uncaught target signal ");
    if (line != std::string::npos && (line == 0 || text[line - 1] == '\n')) {
        text.erase(line, text.find('\n', line) - line + 1);
    }
    return text;
}

void setStatus(ChildResult& result, int status)
{
    result.exited = WIFEXITED(status);
    if (result.exited) {
        result.status = WEXITSTATUS(status);
    } else {
        result.signal = WTERMSIG(status);
    }
}

// Waits for the child; over the limit kills it and all of its process group.
void reap(pid_t pid, Milliseconds limit, ChildResult& result)
{
    const Clock::time_point deadline = Clock::now() + limit;
    int status = 0;
    auto pause = std::chrono::microseconds(100);
    while (true) {
        const pid_t ended = waitpid(pid, &status, WNOHANG);
        if (ended == pid) {
            break;
        }
        if (ended == -1 && errno != EINTR) {
            ADD_FAILURE() << "the child has gone: " << std::strerror(errno);
            return;
        }
        if (!result.timedOut && Clock::now() >= deadline) {
            result.timedOut = true;
            ::kill(-pid, SIGKILL);
            ::kill(pid, SIGKILL);
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(5000));
    }
    setStatus(result, status);
}

void reportFailedChild(const ChildResult& result)
{
    if (result.exited && result.status == kChildTestFailed) {
        ADD_FAILURE() << "an expectation failed in a child\n" << result.out << result.err;
    }
}

std::string capture(int descriptor, std::FILE* stream, const std::function<void()>& body)
{
    std::fflush(stdout);
    std::fflush(stream);
    const int target = memoryFile();
    const int saved = fcntl(descriptor, F_DUPFD_CLOEXEC, 3);
    dup2(target, descriptor);
    body();
    std::fflush(stream);
    dup2(saved, descriptor);
    close(saved);
    return contentsAndClose(target);
}

std::string temporaryRoot()
{
    const char* root = std::getenv("TMPDIR");
    return root == nullptr || *root == '\0' ? "/tmp" : root;
}

// True when an IPC object already exists under the key that a token file made here would have. The
// file is taken away again: the file system gives its inode number, of which the key keeps 16 bits,
// to the next file that is made, or a number that no token file in use has.
bool keysInUse(const std::filesystem::path& directory)
{
    bool used = false;
    for (const char* name : kTokenFiles) {
        const std::filesystem::path token = directory / name;
        writeFile(token, "");
        for (int project = 1; project <= kTokenProjects && !used; ++project) {
            used = ipcKeyInUse(ftok(token.c_str(), project));
        }
        std::filesystem::remove(token);
    }
    return used;
}

// A directory whose keys are in use is kept until another one is found: removed at once, it would
// give the same numbers again.
std::filesystem::path makeDirectory()
{
    std::vector<std::filesystem::path> refused;
    std::filesystem::path found;
    for (int tries = 0; found.empty() && tries < kDirectoryTries; ++tries) {
        std::string path = temporaryRoot() + "/rmtest-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            ADD_FAILURE() << "no temporary directory " << path << ": " << std::strerror(errno);
            break;
        }
        if (keysInUse(path)) {
            writeFile(std::filesystem::path(path) / kTokenFiles[0], "");
            refused.emplace_back(path);
        } else {
            found = path;
        }
    }
    for (const std::filesystem::path& path : refused) {
        std::filesystem::remove_all(path);
    }
    return found;
}

std::string describe(const IpcObject& object)
{
    return std::string(1, object.kind) + " id " + std::to_string(object.id) + " key " +
           std::to_string(object.key);
}

bool validStamp(std::string_view line)
{
    constexpr std::string_view kPattern = "[99-Aaa-99 99:99:99]  ";
    constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
    if (line.size() < kPattern.size()) {
        return false;
    }
    for (std::size_t i = 0; i < kPattern.size(); ++i) {
        const char c = line[i];
        switch (kPattern[i]) {
            case '9':
                if (c < '0' || c > '9') {
                    return false;
                }
                break;
            case 'A':
            case 'a':
                break;
            default:
                if (c != kPattern[i]) {
                    return false;
                }
        }
    }
    const std::size_t month = kMonths.find(line.substr(4, 3));
    return month != std::string_view::npos && month % 3 == 0;
}

}  // namespace

// --- The fixture

void guardThisProcess()
{
    testProcess = getpid();
    inCase = true;
}

void RmTest::SetUp()
{
    // Keys are 16 bits of the numbers of token files, so an object of a case that runs beside, or
    // of a server on this machine, may have the same one. As root a case has a namespace of its
    // own.
    static_cast<void>(unshare(CLONE_NEWIPC));
    std::error_code ignored;
    before_ = std::filesystem::current_path(ignored);
    directory_ = makeDirectory();
    ASSERT_FALSE(directory_.empty());
    std::filesystem::current_path(directory_);
    rm_tokenName("");
    descriptors_ = openDescriptors();
    resetCalls();
}

void RmTest::TearDown()
{
    if (directory_.empty()) {
        return;
    }
    rm_freeall();
    EXPECT_EQ(rm_memused(), 0U) << "library memory is left after rm_freeall";
    EXPECT_EQ(openDescriptors(), descriptors_) << "descriptors are left open, or were closed";
    for (const IpcObject& object : ipcObjects()) {
        ADD_FAILURE() << "an IPC object is left: " << describe(object);
        removeIpcObject(object);
    }
    for (const char* name : kTokenFiles) {
        EXPECT_FALSE(std::filesystem::exists(directory_ / name)) << name << " is left";
    }
    const pid_t child = waitpid(-1, nullptr, WNOHANG);
    EXPECT_TRUE(child == -1 && errno == ECHILD) << "a child is left: " << child;
    std::error_code failure;
    std::filesystem::current_path(before_, failure);
    std::filesystem::remove_all(directory_, failure);
    EXPECT_FALSE(failure) << failure.message();
}

// --- Children

void dumpCoverage()
{
    if (__gcov_dump != nullptr) {
        disarmFaults();  // the counters need memory and files
        __gcov_dump();
    }
}

ChildResult runChild(const std::function<void()>& body, Milliseconds limit)
{
    ChildResult result;
    const int out = memoryFile();
    const int err = memoryFile();
    std::fflush(nullptr);
    const int failures = failuresSoFar();
    const Clock::time_point started = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        prepareChild(out, err);
        close(out);
        close(err);
        std::atexit(disarmFaults);
        body();
        endChild(failures);
    }
    if (pid == -1) {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
    } else {
        setpgid(pid, pid);
        reap(pid, limit, result);
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - started).count();
    result.out = contentsAndClose(out);
    result.err = withoutEmulator(contentsAndClose(err));
    reportFailedChild(result);
    return result;
}

void inChild(const std::function<void()>& body)
{
    const ChildResult result = runChild(body);
    const bool reported = result.exited && result.status == kChildTestFailed;
    if (!reported && (!result.exited || result.status != 0)) {
        ADD_FAILURE() << "a child has ended before its time, "
                      << (result.exited ? "status " : "signal ")
                      << (result.exited ? result.status : result.signal) << '\n'
                      << result.out << result.err;
    }
}

void Peer::Channel::say(std::string_view line)
{
    std::string text(line);
    text += '\n';
    const ssize_t written = write(out_, text.data(), text.size());
    if (written != static_cast<ssize_t>(text.size())) {
        if (inPeer_) {
            _exit(kPeerAbandoned);
        }
        ADD_FAILURE() << "the peer does not listen to \"" << line << '"';
    }
}

std::string Peer::Channel::hear(Milliseconds limit)
{
    const Clock::time_point deadline = Clock::now() + limit;
    while (true) {
        const std::size_t end = pending_.find('\n');
        if (end != std::string::npos) {
            std::string line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()).count();
        struct pollfd input = {in_, POLLIN, 0};
        const int ready = left < 0 ? 0 : poll(&input, 1, static_cast<int>(left) + 1);
        if (ready == -1 && errno == EINTR) {
            continue;
        }
        std::array<char, 512> chunk;
        const ssize_t n = ready > 0 ? read(in_, chunk.data(), chunk.size()) : 0;
        if (n <= 0) {
            if (inPeer_) {
                std::fflush(nullptr);
                _exit(kPeerAbandoned);
            }
            ADD_FAILURE() << (ready > 0 ? "the peer has closed its end"
                                        : "nothing was heard from the peer in time");
            return "";
        }
        pending_.append(chunk.data(), static_cast<std::size_t>(n));
    }
}

Peer::Peer(const std::function<void(Channel&)>& body) : started_(Clock::now())
{
    std::array<int, 2> toPeer = {-1, -1};
    std::array<int, 2> fromPeer = {-1, -1};
    if (pipe2(toPeer.data(), O_CLOEXEC) != 0 || pipe2(fromPeer.data(), O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
    }
    out_ = memoryFile();
    err_ = memoryFile();
    std::fflush(nullptr);
    const int failures = failuresSoFar();
    pid_ = fork();
    if (pid_ == 0) {
        signal(SIGPIPE, SIG_IGN);
        prepareChild(out_, err_);
        close(toPeer[1]);
        close(fromPeer[0]);
        Channel channel(toPeer[0], fromPeer[1]);
        channel.inPeer_ = true;
        body(channel);
        endChild(failures);
    }
    close(toPeer[0]);
    close(fromPeer[1]);
    channel_ = Channel(fromPeer[0], toPeer[1]);
    if (pid_ == -1) {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
        waited_ = true;
    } else {
        setpgid(pid_, pid_);
    }
}

Peer::~Peer()
{
    if (!waited_) {
        kill(SIGKILL);
        static_cast<void>(wait());
    }
    closeChannel();
    if (out_ != -1) {
        close(out_);
        close(err_);
    }
}

void Peer::closeChannel()
{
    if (channel_.in_ != -1) {
        close(channel_.in_);
        close(channel_.out_);
        channel_.in_ = -1;
        channel_.out_ = -1;
    }
}

void Peer::kill(int signalNumber)
{
    if (!waited_) {
        ::kill(pid_, signalNumber);
    }
}

ChildResult Peer::wait(Milliseconds limit)
{
    if (!waited_) {
        reap(pid_, limit, result_);
        waited_ = true;
        result_.seconds = std::chrono::duration<double>(Clock::now() - started_).count();
        result_.out = contentsAndClose(out_);
        result_.err = withoutEmulator(contentsAndClose(err_));
        out_ = -1;
        err_ = -1;
        closeChannel();
        reportFailedChild(result_);
    }
    return result_;
}

bool Peer::running()
{
    siginfo_t info = {};
    return !waited_ &&
           waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

bool waitFor(const std::function<bool()>& condition, Milliseconds limit)
{
    const Clock::time_point deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return true;
}

// --- Output and the fatal path

std::string captureStderr(const std::function<void()>& body)
{
    return capture(STDERR_FILENO, stderr, body);
}

std::string captureStdout(const std::function<void()>& body)
{
    return capture(STDOUT_FILENO, stdout, body);
}

std::vector<std::string> logLines(std::string_view text)
{
    constexpr std::size_t kStampLength = 22;
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        if (end == std::string_view::npos) {
            ADD_FAILURE() << "the last log line is not ended: " << line;
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (validStamp(line)) {
            lines.emplace_back(line.substr(kStampLength));
        } else {
            ADD_FAILURE() << "a log line has no proper stamp: " << line;
            lines.emplace_back(line);
        }
    }
    return lines;
}

std::string failure(const char* function, const char* message, int error)
{
    return std::string("**** ") + function + "() " + message + ", errno=" + std::to_string(error) +
           " (" + std::strerror(error) + ")";
}

std::vector<std::string> logOfFirstFailure(const std::string& line)
{
    return {line,
            "***********************************",
            "* Please report this condition to *",
            "* Virlo Engineering.              *",
            "*     TechOps 1-800-555-0142      *",
            "*     BBS:    1-800-555-0143      *",
            "*     FAX:    1-800-555-0144      *",
            "***********************************",
            "Exiting to shutdown processing"};
}

int catchFatal(const std::function<void()>& body)
{
    jmp_buf outer;
    std::memcpy(&outer, &rmsrv::error_jmp_buf, sizeof outer);
    const int32_t outerSet = rmsrv::error_jmpset;
    jmp_buf here;
    volatile int jumped = 0;
    if (setjmp(here) == 0) {
        rm_errorJump(here);
        body();
    } else {
        jumped = 1;
    }
    std::memcpy(&rmsrv::error_jmp_buf, &outer, sizeof outer);
    rmsrv::error_jmpset = outerSet;
    return jumped;
}

int catchExit(const std::function<void()>& body)
{
    jmp_buf outer;
    std::memcpy(&outer, &rmsrv::exit_jmp_buf, sizeof outer);
    const int32_t outerSet = rmsrv::exit_jmpset;
    jmp_buf here;
    volatile int code = -1;
    const int arrived = setjmp(here);
    if (arrived == 0) {
        rm_exitJump(here);
        body();
    } else {
        code = arrived;
    }
    std::memcpy(&rmsrv::exit_jmp_buf, &outer, sizeof outer);
    rmsrv::exit_jmpset = outerSet;
    return code;
}

// --- State of this process and of the machine

std::string readFile(const std::filesystem::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        ADD_FAILURE() << "cannot read " << path;
    }
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void writeFile(const std::filesystem::path& path, std::string_view text)
{
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream.write(text.data(), static_cast<std::streamsize>(text.size()));
    stream.close();
    if (!stream) {
        ADD_FAILURE() << "cannot write " << path;
    }
}

int semValue(int id, int number)
{
    return semctl(id, number, GETVAL);
}

int semWaiters(int id, int number)
{
    return semctl(id, number, GETNCNT);
}

int semZeroWaiters(int id, int number)
{
    return semctl(id, number, GETZCNT);
}

std::vector<int> openDescriptors()
{
    std::vector<int> descriptors;
    DIR* listing = opendir("/proc/self/fd");
    if (listing == nullptr) {
        ADD_FAILURE() << "no /proc/self/fd";
        return descriptors;
    }
    for (const dirent* entry = readdir(listing); entry != nullptr; entry = readdir(listing)) {
        if (entry->d_name[0] != '.') {
            descriptors.push_back(std::atoi(entry->d_name));
        }
    }
    std::erase(descriptors, dirfd(listing));
    closedir(listing);
    std::sort(descriptors.begin(), descriptors.end());
    return descriptors;
}

// --- Random runs

uint64_t seedOfThisRun(uint64_t otherwise)
{
    const char* given = std::getenv("RM_TEST_SEED");
    return given != nullptr && *given != '\0' ? std::strtoull(given, nullptr, 10) : otherwise;
}

long operationsOfThisRun(long otherwise)
{
    const char* given = std::getenv("RM_TEST_OPERATIONS");
    return given != nullptr && *given != '\0' ? std::strtol(given, nullptr, 10) : otherwise;
}

}  // namespace rmtest
