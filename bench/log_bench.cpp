// A line of the log against one formatting and one write of the same bytes; with the log file, also
// against the calls that its write needs. Standard error goes nowhere meanwhile: what is left is
// the cost of getting there.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <cstdio>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace
{
using rmbench::BareLock;
using rmbench::must;
using rmbench::Scratch;

constexpr const char* kFormat = "worker %d: %s, %ld bytes at offset %lu, errno=%d";
constexpr const char* kStamp = "[07-Mar-96 14:05:09]  ";
constexpr std::size_t kLongest = 300;

// Standard error leads nowhere while this lives.
class Silence
{
  public:
    Silence() : saved_(dup(STDERR_FILENO))
    {
        const int nowhere = open("/dev/null", O_WRONLY);
        must(nowhere != -1, "/dev/null");
        std::fflush(stderr);
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }

    ~Silence()
    {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }

    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

  private:
    int saved_;
};

void logLine(long number)
{
    rm_systemLogWrite(kFormat, 3, "a short write", number, 4096UL, 28);
}

std::size_t formatLine(char (&line)[kLongest], long number)
{
    std::size_t length = static_cast<std::size_t>(std::snprintf(line, kLongest, "%s", kStamp));
    length += static_cast<std::size_t>(std::snprintf(line + length, kLongest - length, kFormat, 3,
                                                     "a short write", number, 4096UL, 28));
    line[length++] = '\n';
    return length;
}

void errorOurs(benchmark::State& state)
{
    const Silence silence;
    long number = 0;
    for (auto _ : state) {
        logLine(++number);
    }
}

void errorBare(benchmark::State& state)
{
    const Silence silence;
    long number = 0;
    char line[kLongest];
    for (auto _ : state) {
        const std::size_t length = formatLine(line, ++number);
        benchmark::DoNotOptimize(write(STDERR_FILENO, line, length));
    }
}

void bothOurs(benchmark::State& state)
{
    Scratch scratch;
    const Silence silence;
    rm_systemLog(2);
    rm_systemLogOpen(scratch.path("server.log").c_str());
    long number = 0;
    for (auto _ : state) {
        logLine(++number);
    }
    rm_systemLogClose();
    rm_syncTerminate();
}

void bothBare(benchmark::State& state)
{
    Scratch scratch;
    const Silence silence;
    const BareLock lock;
    const int fd = open(scratch.path("server.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    must(fd != -1, "open");
    long number = 0;
    char line[kLongest];
    for (auto _ : state) {
        const std::size_t length = formatLine(line, ++number);
        benchmark::DoNotOptimize(write(STDERR_FILENO, line, length));
        lock.enter();
        lock.leave();
        benchmark::DoNotOptimize(write(fd, line, length));
    }
    close(fd);
}
}  // namespace

void rmbench::addLogPairs()
{
    constexpr double kErrorLimit = 2.0;
    constexpr double kBothLimit = 1.3;
    addPair("log: a line to standard error", "vsnprintf, write", kErrorLimit, errorOurs, errorBare);
    addPair("log: a line to both places", "that, lock, write", kBothLimit, bothOurs, bothBare);
}
