// A text stream that reads, byte by byte: the rules of its three readers, at the pace of a pencil.
#ifndef RM_TESTS_FUZZ_STREAM_MODEL_H
#define RM_TESTS_FUZZ_STREAM_MODEL_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace rmfuzz
{

class StreamModel
{
  public:
    // What one read gave. When it gave no line, the bytes are those on which it was lost.
    struct Got {
        bool found = false;
        std::string bytes;
    };

    explicit StreamModel(std::string file) : file_(std::move(file)) {}

    // At most size - 1 bytes, and one when the size is 1.
    Got gets(int64_t size)
    {
        Got got;
        std::size_t count = 0;  // of the block that this call has read
        do {
            if (cursor_ % kBlock == 0) {
                count = readBlock();
            }
            if (count != 0 && cursor_ == count) {
                break;
            }
            if (block_.at(cursor_) == '\0') {
                return got;
            }
            got.bytes += block_.at(cursor_++);
        } while (got.bytes.back() != '\n' && static_cast<int64_t>(got.bytes.size()) < size - 1);
        got.found = true;
        return got;
    }

    // A line of any length. A buffer of `*size` bytes has been made as large as it asked for.
    Got getLine(uint32_t* size)
    {
        constexpr uint32_t kStep = 100;
        if (*size == 1) {
            *size += kStep;
        }
        Got line = gets(*size);
        bool more = line.found;
        while (more && line.bytes.find('\n') == std::string::npos) {
            *size += kStep;
            const Got next = gets(kStep + 1);
            line.bytes += next.bytes;
            more = next.found;
        }
        return line;
    }

  private:
    static constexpr std::size_t kBlock = 512;

    std::size_t readBlock()
    {
        const std::size_t count = std::min(kBlock, file_.size() - offset_);
        std::copy_n(file_.begin() + static_cast<std::ptrdiff_t>(offset_), count, block_.begin());
        offset_ += count;
        if (count != kBlock) {
            block_.at(count) = '\0';
        }
        cursor_ = 0;
        return count;
    }

    std::string file_;
    std::size_t offset_ = 0;
    std::size_t cursor_ = 0;
    std::array<char, kBlock> block_{};
};

}  // namespace rmfuzz

#endif
