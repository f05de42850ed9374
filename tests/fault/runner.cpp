// Why: see the header. A worker is a process of its own, so that it can wait for its child alone;
// jobs are taken from a shared counter, since some take longer than others.
//
// Invariant: whatever a child leaves in the system is removed before the next one lives.
#include "runner.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fault
{

namespace
{

constexpr int kLimitMs = 20'000;  // of a child; nothing in it waits

// The platform leaves it to the caller to define the fourth argument of semctl.
union SemctlArgument {
    int val;
    semid_ds* buf;
};

Page* currentPage = nullptr;
volatile sig_atomic_t stopped = 0;  // by a signal: what lives is ended and cleaned up

void stop(int /*signal*/)
{
    stopped = 1;
}

template <typename T>
T* shared(std::size_t count)
{
    void* memory =
        mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("mmap");
        std::exit(2);
    }
    return static_cast<T*>(memory);
}

int memoryFile()
{
    const int fd = memfd_create("captured", MFD_CLOEXEC);
    fcntl(fd, F_SETFL, O_APPEND);
    return fd;
}

std::string contents(int fd)
{
    std::string text;
    std::array<char, 4096> chunk;
    off_t at = 0;
    for (ssize_t n = pread(fd, chunk.data(), chunk.size(), at); n > 0;
         n = pread(fd, chunk.data(), chunk.size(), at)) {
        text.append(chunk.data(), static_cast<std::size_t>(n));
        at += n;
    }
    return text;
}

bool exists(const IpcNote& note)
{
    if (note.kind == 's') {
        semid_ds state;
        SemctlArgument argument{};
        argument.buf = &state;
        return semctl(note.id, 0, IPC_STAT, argument) != -1;
    }
    if (note.kind == 'm') {
        shmid_ds state;
        return shmctl(note.id, IPC_STAT, &state) != -1 && (state.shm_perm.mode & SHM_DEST) == 0;
    }
    msqid_ds state;
    return msgctl(note.id, IPC_STAT, &state) != -1;
}

void removeObject(const IpcNote& note)
{
    if (note.kind == 's') {
        semctl(note.id, 0, IPC_RMID, SemctlArgument{});
    } else if (note.kind == 'm') {
        shmctl(note.id, IPC_RMID, nullptr);
    } else {
        msgctl(note.id, IPC_RMID, nullptr);
    }
}

std::string removeObjects(const Page& page)
{
    std::string left;
    for (std::size_t i = 0; i < page.objectCount; ++i) {
        if (exists(page.objects[i])) {
            left += page.objects[i].kind;
            removeObject(page.objects[i]);
        }
    }
    return left;
}

// Without a restart: whoever waits looks again.
void stopOnSignals()
{
    struct sigaction action = {};
    action.sa_handler = stop;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

[[noreturn]] void beChild(const std::string& directory, int out, int err, const Run& run,
                          const Injection& injection)
{
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    if (chdir(directory.c_str()) != 0) {
        _exit(3);
    }
    liveAsHost(run.host, *run.scenario, injection);
}

// Waits for the child; false when it had to be killed.
bool waitFor(pid_t child, int* status)
{
    const auto fd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    pollfd ended = {fd, POLLIN, 0};
    const bool inTime = poll(&ended, 1, kLimitMs) == 1;
    close(fd);
    if (!inTime) {
        kill(-child, SIGKILL);
        kill(child, SIGKILL);
    }
    while (waitpid(child, status, 0) == -1 && errno == EINTR) {
    }
    return inTime;
}

}  // namespace

Page& page()
{
    return *currentPage;
}

std::string nameOf(const Host& host)
{
    std::string name;
    const auto add = [&name](const char* part) {
        name += (name.empty() ? "" : "+") + std::string(part);
    };
    if (host.log) {
        add("log");
    }
    if (host.fatalTarget) {
        add("fatal");
    }
    if (host.exitTarget) {
        add("exit");
    }
    return name.empty() ? "plain" : name;
}

std::string nameOf(const Run& run, const Injection& injection)
{
    std::string name = std::string(run.scenario->name) + " " + nameOf(run.host);
    if (injection.k != 0) {
        name +=
            std::string(" ") + callTable()[injection.row].name + " " + std::to_string(injection.k) +
            (injection.mode == Mode::kOnce ? " once " : " for-ever ") + nameOf(injection.outcome);
    }
    return name;
}

Cell::Cell(const std::string& parent, int number)
    : directory_(parent + "/" + std::to_string(number)),
      page_(shared<Page>(1)),
      out_(memoryFile()),
      err_(memoryFile())
{
    std::filesystem::create_directory(directory_);
}

Cell::~Cell()
{
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
    munmap(page_, sizeof(Page));
    close(out_);
    close(err_);
}

void Cell::clean()
{
    for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
        std::filesystem::remove_all(entry.path());
    }
}

Life Cell::live(const Run& run, const Injection& injection)
{
    std::memset(static_cast<void*>(page_), 0, sizeof(Page));
    currentPage = page_;
    static_cast<void>(ftruncate(out_, 0));
    static_cast<void>(ftruncate(err_, 0));
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        beChild(directory_, out_, err_, run, injection);
    }
    Life life = {page_, run.host, run.scenario, injection, 0, false, {}, {}, {}, {}, {}};
    life.outOfTime = !waitFor(child, &life.waitStatus);
    life.out = contents(out_);
    life.err = contents(err_);
    for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
        life.files.push_back(entry.path().filename());
        const std::string extension = entry.path().extension();
        if (extension == ".log" || extension == ".bak" || life.files.back() == "second") {
            std::ifstream stream(entry.path(), std::ios::binary);
            std::ostringstream text;
            text << stream.rdbuf();
            life.log += text.str();
        }
    }
    life.objects = removeObjects(*page_);
    clean();
    return life;
}

namespace
{

// What the workers share: the next job that nobody has taken, and what came of each.
struct Board {
    std::atomic<std::size_t>* next;
    Verdict* verdicts;
};

// How often memory is asked for depends on where it lies: the heap knows its segments by their
// addresses, and those move with what this process has in memory by now. So a call that was counted
// elsewhere may be one more than are made here.
bool isAbsent(Cell& cell, const Run& run, const Injection& injection)
{
    return cell.live(run, {}).page->calls[injection.row] < injection.k;
}

// Lives through jobs until none is left, and writes the findings down.
void work(const std::vector<Run>& runs, const std::vector<Job>& jobs,
          const std::vector<std::size_t>& numbers, const Board& board, Cell& cell,
          std::ostream& report)
{
    for (std::size_t i = board.next->fetch_add(1); i < jobs.size() && stopped == 0;
         i = board.next->fetch_add(1)) {
        const Run& run = runs[jobs[i].run];
        const Life life = cell.live(run, jobs[i].injection);
        if (stopped != 0) {
            return;  // it was ended from outside
        }
        std::vector<std::string> findings = judgeLife(life);
        const auto known =
            std::erase_if(findings, [&](const std::string& each) { return isKnown(life, each); });
        board.verdicts[i] = {1, fateOf(life), 0, static_cast<uint8_t>(known > 0 ? 1 : 0), 0};
        if (life.page->hits == 0 && isAbsent(cell, run, jobs[i].injection)) {
            std::erase_if(findings, [](const std::string& each) { return each.starts_with(kHit); });
            board.verdicts[i].absent = 1;
        }
        board.verdicts[i].findings =
            static_cast<uint8_t>(std::min<std::size_t>(findings.size(), 255));
        if (findings.empty()) {
            continue;
        }
        report << '#' << numbers[i] << ' ' << nameOf(run, jobs[i].injection) << '\n';
        for (const std::string& finding : findings) {
            report << "  " << finding << '\n';
        }
        report << '\0' << std::flush;
    }
}

}  // namespace

Tally runJobs(const std::vector<Run>& runs, const std::vector<Job>& jobs,
              const std::vector<std::size_t>& numbers, int workers, const std::string& parent)
{
    const Board board = {new (shared<std::atomic<std::size_t>>(1)) std::atomic<std::size_t>(0),
                         shared<Verdict>(std::max<std::size_t>(jobs.size(), 1))};
    std::fflush(nullptr);
    std::vector<pid_t> pids;
    for (int worker = 0; worker < workers; ++worker) {
        const pid_t pid = fork();
        if (pid != 0) {
            pids.push_back(pid);
            continue;
        }
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        stopOnSignals();
        // As root each has its objects for itself: the key of another's may be the same.
        static_cast<void>(unshare(CLONE_NEWIPC));
        {
            Cell cell(parent, worker);
            std::ofstream report(parent + "/findings" + std::to_string(worker), std::ios::binary);
            work(runs, jobs, numbers, board, cell, report);
        }
        _exit(0);
    }
    Tally tally;
    stopOnSignals();
    for (const pid_t pid : pids) {
        while (waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
            std::for_each(pids.begin(), pids.end(), [](pid_t each) { kill(each, SIGTERM); });
        }
    }
    tally.verdicts.assign(board.verdicts, board.verdicts + jobs.size());
    for (int worker = 0; worker < workers; ++worker) {
        std::ifstream report(parent + "/findings" + std::to_string(worker), std::ios::binary);
        for (std::string finding; std::getline(report, finding, '\0');) {
            tally.findings.push_back(finding);
        }
    }
    return tally;
}

}  // namespace fault
