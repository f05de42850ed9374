// What /proc tells, as text that may be anything.
#ifndef RMIPC_PROCFS_H
#define RMIPC_PROCFS_H

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rmipc
{

// The whole file; nothing, with errno set, when it cannot be read.
std::optional<std::string> readWhole(const std::string& path);

// The words of a text, which blanks and ends of lines divide.
std::vector<std::string_view> wordsOf(std::string_view text);

// A whole word as a number.
template <typename T>
std::optional<T> numberOf(std::string_view word, int base = 10)
{
    T value = 0;
    const auto result = std::from_chars(word.data(), word.data() + word.size(), value, base);
    if (result.ec != std::errc() || result.ptr != word.data() + word.size()) {
        return std::nullopt;
    }
    return value;
}

// A table of /proc/sysvipc: a line with the names of the columns, and a line for each object.
class Table
{
  public:
    explicit Table(std::string text);
    // The cells are views of the text.
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    Table(Table&&) = delete;
    Table& operator=(Table&&) = delete;
    ~Table() = default;

    // False for a text that has no line of names.
    bool isSound() const;
    std::size_t rows() const;

    // A cell as a number; nothing where there is none.
    template <typename T>
    std::optional<T> at(std::size_t row, std::string_view column, int base = 10) const
    {
        return numberOf<T>(cell(row, column), base);
    }

  private:
    std::string_view cell(std::size_t row, std::string_view column) const;

    std::string text_;
    std::vector<std::string_view> names_;
    std::vector<std::vector<std::string_view>> rows_;
};

// /proc/PID/stat
struct Stat {
    std::string name;  // as the process has it: any bytes
    char state;
    uint64_t threads;
    uint64_t start;  // clock ticks after the system's start
};

std::optional<Stat> parseStat(std::string_view text);

// A line of /proc/PID/maps that is about a segment of shared memory.
struct Mapping {
    int32_t key;  // with which it was made, also of one that has been removed since
    int32_t id;
};

std::optional<Mapping> parseMapping(std::string_view line);

}  // namespace rmipc

#endif
