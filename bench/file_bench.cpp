// Managed files against the bare sequence of the system calls that an operation has to make: the
// timed lock of the table, the seek and the transfer; and, when a file must come back, the close of
// another one, the open, the measuring and the seek to its place.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <array>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace
{
constexpr off_t kOffset = 4096;
constexpr std::size_t kLargest = 65536;
constexpr std::size_t kParked = 4096;  // bytes read from a file that was parked
constexpr int16_t kOpenAtOnce = 8;
constexpr std::size_t kManyFiles = 32;

using rmbench::BareLock;
using rmbench::Scratch;

// A file in which reads at kOffset find their bytes.
std::string makeFile(Scratch* scratch, std::size_t number)
{
    return scratch->make(std::to_string(number), std::string(kOffset + kLargest, '\0'));
}

std::array<char, kLargest>& buffer()
{
    static std::array<char, kLargest> bytes = {};
    return bytes;
}

// One file that stays open, the same place of it over and over.
template <typename Transfer>
void hotOurs(benchmark::State& state, Transfer transfer)
{
    Scratch scratch;
    const int16_t handle = rm_fileOpen(makeFile(&scratch, 0).c_str(), RM_O_RDWR, 0, 0, 0);
    const auto length = static_cast<uint32_t>(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(transfer(handle, kOffset, buffer().data(), length));
    }
    rm_fileClose(handle);
    rm_syncTerminate();
}

template <typename Transfer>
void hotBare(benchmark::State& state, Transfer transfer)
{
    Scratch scratch;
    const BareLock lock;
    const int fd = open(makeFile(&scratch, 0).c_str(), O_RDWR);
    const auto length = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        lock.enter();
        lock.leave();
        lseek(fd, kOffset, SEEK_SET);
        benchmark::DoNotOptimize(transfer(fd, buffer().data(), length));
    }
    close(fd);
}

void writeOurs(benchmark::State& state)
{
    hotOurs(state, rm_fileSeekWrite);
}

void writeBare(benchmark::State& state)
{
    hotBare(state, write);
}

void readOurs(benchmark::State& state)
{
    hotOurs(state, rm_fileSeekRead);
}

void readBare(benchmark::State& state)
{
    hotBare(state, read);
}

// Each operation meets a parked file and has to park another one: files in turn, more of them than
// may be open at once.
void parkOurs(benchmark::State& state)
{
    Scratch scratch;
    fileHandleLimit = kOpenAtOnce;
    std::array<int16_t, kManyFiles> handles = {};
    for (std::size_t i = 0; i < kManyFiles; ++i) {
        handles[i] = rm_fileOpen(makeFile(&scratch, i).c_str(), RM_O_RDWR, 0, 0, 0);
    }
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(rm_fileSeekRead(handles[next], kOffset, buffer().data(), kParked));
        next = (next + 1) % kManyFiles;
    }
    uint32_t reopened = 0;
    rm_fileCounts(nullptr, nullptr, nullptr, &reopened);
    if (reopened < state.iterations()) {
        state.SkipWithError("not every operation met a parked file");
    }
    for (const int16_t handle : handles) {
        rm_fileClose(handle);
    }
    rm_syncTerminate();
}

void parkBare(benchmark::State& state)
{
    Scratch scratch;
    const BareLock lock;
    std::array<const char*, kManyFiles> paths = {};
    std::array<std::string, kManyFiles> names;
    std::array<int, kManyFiles> fds = {};
    for (std::size_t i = 0; i < kManyFiles; ++i) {
        names[i] = makeFile(&scratch, i);
        paths[i] = names[i].c_str();
        fds[i] = i + kOpenAtOnce >= kManyFiles ? open(paths[i], O_RDWR) : -1;
    }
    std::size_t next = 0;
    for (auto _ : state) {
        const std::size_t victim = (next + kManyFiles - kOpenAtOnce) % kManyFiles;
        lock.enter();
        close(fds[victim]);
        fds[victim] = -1;
        const int fd = open(paths[next], O_RDWR, 0600);
        lseek(fd, 0, SEEK_CUR);  // the size: where it stands, the end, and back
        lseek(fd, 0, SEEK_END);
        lseek(fd, 0, SEEK_SET);
        lseek(fd, kOffset, SEEK_SET);  // its place
        fds[next] = fd;
        lock.leave();
        lseek(fd, kOffset, SEEK_SET);
        benchmark::DoNotOptimize(read(fd, buffer().data(), kParked));
        next = (next + 1) % kManyFiles;
    }
    for (const int fd : fds) {
        if (fd != -1) {
            close(fd);
        }
    }
}
}  // namespace

void rmbench::addFilePairs()
{
    constexpr double kHotLimit = 1.15;
    constexpr double kParkLimit = 1.3;
    for (const long length : {64L, 512L, 4096L, 16384L, 65536L}) {
        // What is copied grows with the length, and what the library does beside it does not.
        const double limit = length == 512 || length == 4096 ? kHotLimit : kForTheRecord;
        const std::string bytes = std::to_string(length) + " bytes, hot";
        addPair("file: seek and write " + bytes, "lock, lseek, write", limit, writeOurs, writeBare,
                length);
        plotAs("file-write", length);
        addPair("file: seek and read " + bytes, "lock, lseek, read", limit, readOurs, readBare,
                length);
        plotAs("file-read", length);
    }
    addPair("file: park one, reopen one, read", "lock, close, open, ...", kParkLimit, parkOurs,
            parkBare);
}
