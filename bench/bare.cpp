#include "bare.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

namespace
{
constexpr unsigned kTimeoutSeconds = 14;

void onAlarm(int /*signalNumber*/) {}
}  // namespace

void rmbench::must(bool done, const char* what)
{
    if (!done) {
        std::perror(what);
        std::exit(1);
    }
}

std::string rmbench::builtFile(const std::string& relative)
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / relative;
}

rmbench::Scratch::Scratch()
{
    const char* base = std::getenv("TMPDIR");
    directory_ = std::string(base != nullptr ? base : "/tmp") + "/rm_bench.XXXXXX";
    must(mkdtemp(directory_.data()) != nullptr, "mkdtemp");
}

rmbench::Scratch::~Scratch()
{
    for (const std::string& file : files_) {
        unlink(file.c_str());
    }
    rmdir(directory_.c_str());
}

std::string rmbench::Scratch::path(const std::string& name)
{
    files_.push_back(directory_ + "/" + name);
    return files_.back();
}

std::string rmbench::Scratch::make(const std::string& name, const std::string& bytes)
{
    std::string file = path(name);
    const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    must(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "write");
    close(fd);
    return file;
}

std::string rmbench::Scratch::copyOfBuilt(const std::string& name)
{
    std::filesystem::copy_file(builtFile(name), path(name));
    return files_.back();
}

rmbench::BareLock::BareLock() : id_(semget(IPC_PRIVATE, 1, IPC_CREAT | 0600))
{
    must(id_ != -1, "semget");
    leave();
}

rmbench::BareLock::~BareLock()
{
    semctl(id_, 0, IPC_RMID);
}

void rmbench::BareLock::enter() const
{
    sembuf operation = {0, -1, 0};
    const timespec limit = {kTimeoutSeconds, 0};
    signal(SIGALRM, onAlarm);
    alarm(kTimeoutSeconds);
    benchmark::DoNotOptimize(semtimedop(id_, &operation, 1, &limit));
    alarm(0);
}

void rmbench::BareLock::enterUntimed() const
{
    sembuf operation = {0, -1, 0};
    benchmark::DoNotOptimize(semop(id_, &operation, 1));
    alarm(0);
}

void rmbench::BareLock::leave() const
{
    sembuf operation = {0, 1, 0};
    benchmark::DoNotOptimize(semop(id_, &operation, 1));
}
