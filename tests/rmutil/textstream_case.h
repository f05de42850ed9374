// What the tests of text streams share: a fixture, contents of any size, and a buffer that shows
// what was written beside it.
#ifndef RM_TESTS_RMUTIL_TEXTSTREAM_CASE_H
#define RM_TESTS_RMUTIL_TEXTSTREAM_CASE_H

#include "tests/file/file_case.h"

#include "rm/rmutil/rmutil.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace streamtest
{

using namespace filetest;

using rmutil::kStreamBlock;

using Line = std::optional<std::string>;

constexpr const char* kPath = "f";

// `length` bytes without a newline or a zero, no two neighbours alike.
inline std::string letters(std::size_t length)
{
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>('a' + i % 23);
    }
    return text;
}

// A line of `length` bytes, its newline included.
inline std::string lineOf(std::size_t length)
{
    return letters(length - 1) + "\n";
}

// `bytes` bytes in lines of `length` bytes each, cut where they end.
inline std::string linesUpTo(std::size_t bytes, std::size_t length)
{
    std::string text;
    while (text.size() < bytes) {
        text += lineOf(length);
    }
    text.resize(bytes);
    return text;
}

// `bytes` bytes of memory of their own, on the heap, so that a sanitizer watches their ends, with
// some more around them that must stay as they are.
class Guarded
{
  public:
    explicit Guarded(std::size_t bytes) : bytes_(bytes), memory_(new char[bytes + 2 * kGuard])
    {
        std::memset(memory_.get(), kFill, bytes_ + 2 * kGuard);
    }

    char* data() { return memory_.get() + kGuard; }

    // Bytes from the start of the buffer on that are not as they were made.
    std::size_t written() const
    {
        std::size_t n = bytes_;
        while (n > 0 && memory_[kGuard + n - 1] == kFill) {
            --n;
        }
        return n;
    }

    bool intact() const
    {
        char fill[kGuard];
        std::memset(fill, kFill, kGuard);
        return std::memcmp(memory_.get(), fill, kGuard) == 0 &&
               std::memcmp(memory_.get() + kGuard + bytes_, fill, kGuard) == 0;
    }

  private:
    static constexpr char kFill = '\xA5';
    static constexpr std::size_t kGuard = 64;

    std::size_t bytes_;
    std::unique_ptr<char[]> memory_;
};

// A line of at most `size` - 1 bytes; none when the call gives null. The guards must hold.
inline Line gets(FileStream* stream, int32_t size)
{
    const auto bytes = static_cast<std::size_t>(std::max(size, 0));
    Guarded buffer(bytes);
    const char* result = rm_fileStreamGets(stream, buffer.data(), size);
    EXPECT_TRUE(buffer.intact()) << "size " << size;
    EXPECT_TRUE(result == nullptr || result == buffer.data());
    return result == nullptr ? Line() : Line(result);
}

// All lines up to the first null. That it comes is a part of every case.
inline Lines allLines(FileStream* stream, int32_t size)
{
    constexpr std::size_t kMost = 10'000;
    Lines lines;
    for (Line line = gets(stream, size); line.has_value() && lines.size() < kMost;
         line = gets(stream, size)) {
        lines.push_back(*line);
    }
    EXPECT_LT(lines.size(), kMost) << "there is no end";
    return lines;
}

inline std::string joined(const Lines& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += line;
    }
    return text;
}

// A buffer for lines, as a caller of rm_fileStreamGetLine keeps it. Freed at the end.
struct LineBuffer {
    char* buffer = nullptr;
    uint32_t size = 0;

    LineBuffer() = default;

    explicit LineBuffer(uint32_t bytes)
        : buffer(static_cast<char*>(rm_getMemory(bytes, 0))), size(bytes)
    {
    }

    ~LineBuffer() { rm_freeMemory(buffer, 0); }

    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    Line next(FileStream* stream)
    {
        const char* line = rm_fileStreamGetLine(stream, &buffer, &size);
        EXPECT_TRUE(line == nullptr || line == buffer);
        return line == nullptr ? Line() : Line(line);
    }

    // Bytes that the memory manager keeps for it.
    uint32_t units() const { return rmalloc::headerOf(buffer)->units; }
};

class StreamTest : public FileTest
{
  protected:
    // A stream that reads a file with these bytes. The file is a new one each time: one that is
    // truncated and written again goes to the disk at once on many systems.
    static FileStream* reading(std::string_view bytes, const char* path = kPath)
    {
        std::filesystem::remove(path);
        writeFile(path, bytes);
        FileStream* stream = rm_fileStreamOpen(path, "r");
        EXPECT_NE(stream, nullptr);
        return stream;
    }

    static FileStream* writing(const char* path = kPath, const char* mode = "w")
    {
        FileStream* stream = rm_fileStreamOpen(path, mode);
        EXPECT_NE(stream, nullptr);
        return stream;
    }

    static uint32_t puts(FileStream* stream, const std::string& text)
    {
        return rm_fileStreamPuts(stream, text.c_str());
    }

    static void append(std::string_view bytes, const char* path = kPath)
    {
        std::ofstream stream(path, std::ios::binary | std::ios::app);
        stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    static uintmax_t sizeOnDisk(const char* path = kPath)
    {
        return std::filesystem::file_size(path);
    }
};

}  // namespace streamtest

#endif
