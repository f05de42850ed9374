// Lines of a large text file, read one by one, against the calls that its blocks of 512 bytes need.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <memory>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace
{
using rmbench::BareLock;
using rmbench::must;
using rmbench::Scratch;

constexpr std::size_t kFileSize = 100'000'000;
constexpr std::size_t kBlock = 512;
constexpr int32_t kLineSize = 256;
constexpr int kLineLengths = 120;  // of 0 to 119 characters, in turn

// Made once: both ways read the same file, which the system has in its memory then.
class LargeFile
{
  public:
    LargeFile() : path_(scratch_.make("large.txt", text())) {}

    const char* path() const { return path_.c_str(); }

  private:
    static std::string text()
    {
        std::string all;
        all.reserve(kFileSize + kLineLengths);
        for (int i = 0; all.size() < kFileSize; ++i) {
            all.append(static_cast<std::size_t>(i % kLineLengths), static_cast<char>('a' + i % 26));
            all += '\n';
        }
        return all;
    }

    Scratch scratch_;
    std::string path_;
};

const char* largeFile()
{
    static const LargeFile file;
    return file.path();
}

void getsOurs(benchmark::State& state)
{
    const char* path = largeFile();
    char line[kLineSize];
    for (auto _ : state) {
        FileStream* stream = rm_fileStreamOpen(path, "r");
        must(stream != nullptr, path);
        uint64_t lines = 0;
        while (rm_fileStreamGets(stream, line, kLineSize) != nullptr) {
            ++lines;
        }
        benchmark::DoNotOptimize(lines);
        rm_fileStreamClose(stream);
    }
    rm_syncTerminate();
}

void getLineOurs(benchmark::State& state)
{
    const char* path = largeFile();
    for (auto _ : state) {
        FileStream* stream = rm_fileStreamOpen(path, "r");
        must(stream != nullptr, path);
        char* line = nullptr;
        uint32_t size = 0;
        uint64_t lines = 0;
        while (rm_fileStreamGetLine(stream, &line, &size) != nullptr) {
            ++lines;
        }
        benchmark::DoNotOptimize(lines);
        rm_freeMemory(line, 0);
        rm_fileStreamClose(stream);
    }
    rm_syncTerminate();
}

void blocksBare(benchmark::State& state)
{
    const char* path = largeFile();
    const BareLock lock;
    char block[kBlock];
    for (auto _ : state) {
        const int fd = open(path, O_RDONLY);
        must(fd != -1, path);
        off_t position = 0;
        ssize_t count = 0;
        do {
            lock.enter();
            lock.leave();
            lseek(fd, position, SEEK_SET);
            count = read(fd, block, kBlock);
            benchmark::DoNotOptimize(block);
            position += count;
        } while (count > 0);
        close(fd);
    }
}
}  // namespace

void rmbench::addStreamPairs()
{
    constexpr double kLimit = 1.3;
    addPair("stream: lines of 100 MB, gets", "lock, lseek, read", kLimit, getsOurs, blocksBare);
    addPair("stream: lines of 100 MB, whole", "lock, lseek, read", kLimit, getLineOurs, blocksBare);
}
