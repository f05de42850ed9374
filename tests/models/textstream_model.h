// A model of text streams: what each call of a reader or a writer gives, one byte at a time.
//
// Why: the readers look ahead, copy whole pieces and grow their buffer in their own steps; the
// bytes and the sizes that they give are promised all the same. This model takes every byte by
// itself, knows no buffer but the block, and shares no code with the library.
//
// What it says about ends, since callers depend on it: behind a block that was not filled stands a
// zero. A last line without a newline is given by the call that has read its block and by no later
// one; one that ends with its block is not given at all, unless an earlier piece of it was.
#ifndef RM_TESTS_MODELS_TEXTSTREAM_MODEL_H
#define RM_TESTS_MODELS_TEXTSTREAM_MODEL_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace rmtest
{

// A stream that is read.
class TextReaderModel
{
  public:
    // What a call gives: without a line, the bytes that it has used up before it met the end.
    struct Piece {
        bool found;
        std::string bytes;

        bool operator==(const Piece&) const = default;
    };

    // A line of any length and the size to which it brings the buffer.
    struct Line {
        bool found;
        std::string bytes;
        uint32_t size;

        bool operator==(const Line&) const = default;
    };

    explicit TextReaderModel(std::string file) : file_(std::move(file)) {}

    // The file grows behind the reader's back.
    void grow(std::string_view bytes) { file_ += bytes; }

    Piece gets(int32_t size)
    {
        Piece piece = {false, ""};
        if (size <= 0) {
            return piece;
        }
        uint32_t count = 0;  // of the last block that this call has read
        for (int64_t index = 0;; ++index) {
            if (cursor_ % kBlock == 0) {
                count = readBlock();
            }
            if (count != 0 && cursor_ == count) {
                break;
            }
            const char byte = block_[cursor_];
            if (byte == '\0') {
                return piece;
            }
            ++cursor_;
            if (size > 1) {
                piece.bytes += byte;
            }
            if (byte == '\n' || index >= int64_t{size} - 2) {
                break;
            }
        }
        piece.found = true;
        return piece;
    }

    // With a buffer of `size` bytes; 0 stands for none.
    Line getLine(uint32_t size)
    {
        if (size == 0) {
            size = kStep;
        } else if (size == 1) {
            size += kStep;
        }
        Piece piece = gets(static_cast<int32_t>(size));
        Line line = {piece.found, piece.bytes, size};
        while (piece.found && piece.bytes.find('\n') == std::string::npos) {
            line.size += kStep;
            piece = gets(kStep + 1);
            line.bytes += piece.bytes;
        }
        if (!line.found) {
            line.bytes.clear();
        }
        return line;
    }

  private:
    static constexpr uint32_t kBlock = 512;
    static constexpr uint32_t kStep = 100;

    uint32_t readBlock()
    {
        const std::size_t left = std::min<std::size_t>(kBlock, file_.size() - position_);
        std::copy_n(file_.begin() + static_cast<std::ptrdiff_t>(position_), left, block_.begin());
        if (left != kBlock) {
            block_[left] = '\0';
        }
        position_ += left;
        cursor_ = 0;
        return static_cast<uint32_t>(left);
    }

    std::string file_;
    std::size_t position_ = 0;
    uint32_t cursor_ = 0;
    std::array<char, kBlock> block_ = {};
};

// A stream that is written.
class TextWriterModel
{
  public:
    void puts(std::string_view text)
    {
        for (const char byte : text) {
            put(byte);
        }
        put('\n');
    }

    // What is in the file now, and what the end of the stream will add.
    const std::string& file() const { return file_; }

    const std::string& pending() const { return block_; }

    std::string whole() const { return file_ + block_; }

  private:
    static constexpr std::size_t kBlock = 512;

    void put(char byte)
    {
        if (block_.size() == kBlock) {
            file_ += block_;
            block_.clear();
        }
        block_ += byte;
    }

    std::string file_;
    std::string block_;
};

}  // namespace rmtest

#endif
