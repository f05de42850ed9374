// Copying a file against the system calls that its steps of 4,096 bytes have to make: for each read
// and each write the timed lock of the file table, the seek and the transfer.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <array>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace
{
constexpr std::size_t kStep = 4096;
constexpr long kMib = 1L << 20;

// A file of zeros without blocks, so that the reading side costs no disk.
std::string makeSource(rmbench::Scratch* scratch, long bytes)
{
    std::string path = scratch->make("source", "");
    rmbench::must(truncate(path.c_str(), bytes) == 0, "truncate");
    return path;
}

bool hasLength(const std::string& path, long bytes)
{
    const int fd = open(path.c_str(), O_RDONLY);
    const off_t end = lseek(fd, 0, SEEK_END);
    close(fd);
    return end == bytes;
}

// One iteration copies the file; taking the copy away is not measured.
template <typename Copy>
void copies(benchmark::State& state, Copy copy)
{
    const long bytes = state.range(0) * kMib;
    rmbench::Scratch scratch;
    const std::string source = makeSource(&scratch, bytes);
    const std::string destination = scratch.path("copy");
    for (auto _ : state) {
        copy(source.c_str(), destination.c_str());
        state.PauseTiming();
        rmbench::must(hasLength(destination, bytes), "a copy of another length");
        unlink(destination.c_str());
        state.ResumeTiming();
    }
}

void ours(benchmark::State& state)
{
    rmbench::Scratch scratch;
    // Handle 0 does not count in copying.
    const int16_t zero = rm_fileOpen(scratch.make("zero", "").c_str(), RM_O_RDONLY, 0, 0, 0);
    copies(state, [](const char* source, const char* destination) {
        rmbench::must(rm_fileCopy(source, destination) == RM_SUCCESS, "rm_fileCopy");
    });
    rm_fileClose(zero);
    rm_syncTerminate();
}

void bare(benchmark::State& state)
{
    const rmbench::BareLock lock;
    copies(state, [&lock](const char* source, const char* destination) {
        static std::array<char, kStep> buffer;
        const int from = open(source, O_RDONLY);
        const int to = open(destination, O_RDWR | O_CREAT | O_EXCL, 0600);
        off_t position = 0;
        for (;;) {
            lock.enter();
            lock.leave();
            lseek(from, position, SEEK_SET);
            const ssize_t count = read(from, buffer.data(), buffer.size());
            if (count <= 0) {
                break;
            }
            lock.enter();
            lock.leave();
            lseek(to, position, SEEK_SET);
            rmbench::must(write(to, buffer.data(), static_cast<std::size_t>(count)) == count,
                          "write");
            position += count;
        }
        close(from);
        close(to);
    });
}
}  // namespace

void rmbench::addCopyPairs()
{
    constexpr double kLimit = 1.15;
    constexpr long kMibOfGib = 1024;
    constexpr int kFew = 5;  // repetitions of what takes seconds
    addPair("copy: 1 MiB", "lock, lseek, read; write", kLimit, ours, bare, 1);
    addSlowPair("copy: 1 GiB", "lock, lseek, read; write", kLimit, ours, bare, kMibOfGib, kFew);
}
