// What the tests of copy and move share: a fixture in which handle 0 is taken, files of any length
// whose every byte tells its place, and eyes on the system calls of the transfer.
#ifndef RM_TESTS_RMUTIL_COPY_CASE_H
#define RM_TESTS_RMUTIL_COPY_CASE_H

#include "tests/file/file_case.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace copytest
{

using namespace filetest;

constexpr const char* kKeeper = ".keeper";  // has handle 0, with which nothing can be copied
constexpr std::size_t kStep = 4096;         // bytes of one read and write
constexpr int16_t kFrom = 1;                // the handles of a copy beside the keeper's
constexpr int16_t kTo = 2;

// Bytes none of which stands where another one could have come from.
inline std::string pattern(std::size_t length, uint32_t seed = 1)
{
    std::string bytes(length, '\0');
    uint32_t state = seed * 2654435761U + 1;
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24U);
    }
    return bytes;
}

// One block of the size of a step, all of one letter.
inline std::string block(char letter)
{
    return std::string(kStep, letter);
}

inline std::string cannotWrite(int error, std::string_view path = "dst")
{
    return "rm_fileWrite: errno=" + std::to_string(error) +
           ": unable to write, file=" + std::string(path);
}

inline std::string cannotRead(int error, std::string_view path = "src")
{
    return "rm_fileRead: errno=" + std::to_string(error) +
           ": unable to read, file=" + std::string(path);
}

// The lengths that the calls of one kind asked for, in order.
inline std::vector<int64_t> lengthsOf(Call call)
{
    std::vector<int64_t> lengths;
    for (const CallRecord& record : callTrace({call})) {
        lengths.push_back(record.args[2]);
    }
    return lengths;
}

// The calls of these kinds, each with the path or paths that it was about.
inline Lines pathCalls(std::initializer_list<Call> calls)
{
    Lines lines;
    for (const CallRecord& record : callTrace(calls)) {
        std::string line = record.name;
        for (const std::string_view path : {record.path(), record.path2()}) {
            if (!path.empty()) {
                line.append(" ").append(path);
            }
        }
        lines.push_back(line);
    }
    return lines;
}

// The descriptor that the last open of the path gave; -1 when it was not opened.
inline int64_t descriptorOf(std::string_view path)
{
    int64_t fd = -1;
    for (const CallRecord& record : callTrace({Call::kOpen})) {
        if (record.path() == path) {
            fd = record.result;
        }
    }
    return fd;
}

inline bool isThere(const std::string& path)
{
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

inline ino_t inodeOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

inline mode_t permissionsOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

// A file of `size` bytes without contents, but for the texts at their places.
struct Mark {
    int64_t offset;
    std::string text;
};

inline void writeSparse(const char* path, int64_t size, const std::vector<Mark>& marks = {})
{
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    EXPECT_EQ(ftruncate(fd, size), 0);
    for (const Mark& mark : marks) {
        EXPECT_EQ(pwrite(fd, mark.text.data(), mark.text.size(), mark.offset),
                  static_cast<ssize_t>(mark.text.size()));
    }
    close(fd);
}

inline std::string readSome(const char* path, int64_t offset, std::size_t length)
{
    std::string bytes(length, '\0');
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t count = pread(fd, bytes.data(), length, offset);
    close(fd);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return bytes;
}

// True for the open that makes a destination.
inline bool makesFile(const CallRecord& call)
{
    return (call.args[1] & O_CREAT) != 0;
}

// The calls that read the source or write to the destination, from the n-th on.
inline rmtest::Fault failing(Call call, int error, int skip = 0, int times = 1)
{
    return {.call = call, .error = error, .skip = skip, .times = times};
}

// On top of what FileTest checks: the buffer was given back and only the keeper's handle is left.
class CopyCase : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        ASSERT_EQ(openNew(kKeeper), 0);
        memory_ = rm_memused();
        resetCalls();
    }

    void TearDown() override
    {
        if (!fatal_) {
            EXPECT_EQ(rm_memused(), memory_) << "the copy has not given all memory back";
            EXPECT_EQ(file::nHandles, handles_) << "handles are left";
        }
        FileTest::TearDown();
    }

    // Handles that the case itself leaves open, beside the keeper's.
    void expectHandles(int more)
    {
        handles_ = static_cast<int16_t>(1 + more);
        memory_ = rm_memused();
    }

    // The case ends in the fatal path, which abandons what was in progress.
    void expectFatal() { fatal_ = true; }

    // Runs `body` once, when both files are open and before the first read.
    class OnceOpen
    {
      public:
        explicit OnceOpen(const std::function<void()>& body)
            : opens_(Call::kOpen, [this](const CallRecord& call) { opened_ |= makesFile(call); }),
              enters_(Call::kSemtimedop, [this, body](const CallRecord&) {
                  if (opened_ && !run_) {
                      run_ = true;
                      body();
                  }
              })
        {
        }

      private:
        bool opened_ = false;
        bool run_ = false;
        Spy opens_;
        Spy enters_;
    };

    // Makes both handles stand where they would stand after so many bytes.
    static void startAt(uint32_t offset)
    {
        entryOf(kFrom)->position = offset;
        entryOf(kTo)->position = offset;
    }

  private:
    uint32_t memory_ = 0;
    int16_t handles_ = 1;
    bool fatal_ = false;
};

}  // namespace copytest

#endif
