// What /proc tells.
//
// Why: it is the system's own word, but not all of it: a process chooses its name, and the columns
// of a table have become more over the years. So columns are found by their names, and what does
// not read as it should is not there.
#include "procfs.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace rmipc
{
namespace
{
constexpr std::size_t kMostBytes = std::size_t{64} << 20;
constexpr std::string_view kBlanks = " \t\n\r";

// The text up to the character, which is taken away with it.
std::string_view takeUpTo(std::string_view& text, char end)
{
    const std::size_t length = std::min(text.find(end), text.size());
    const std::string_view taken = text.substr(0, length);
    text.remove_prefix(std::min(length + 1, text.size()));
    return taken;
}
}  // namespace

std::optional<std::string> readWhole(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd == -1) {
        return std::nullopt;
    }
    std::string text;
    char part[65536];
    ssize_t got = 0;
    do {
        got = read(fd, part, sizeof(part));
        text.append(part, got > 0 ? static_cast<std::size_t>(got) : 0);
    } while ((got > 0 && text.size() < kMostBytes) || (got < 0 && errno == EINTR));
    const int error = errno;
    close(fd);
    if (got < 0) {
        errno = error;
        return std::nullopt;
    }
    return text;
}

std::vector<std::string_view> wordsOf(std::string_view text)
{
    std::vector<std::string_view> words;
    for (;;) {
        text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
        if (text.empty()) {
            return words;
        }
        const std::size_t length = std::min(text.find_first_of(kBlanks), text.size());
        words.push_back(text.substr(0, length));
        text.remove_prefix(length);
    }
}

Table::Table(std::string text) : text_(std::move(text))
{
    std::string_view rest = text_;
    names_ = wordsOf(takeUpTo(rest, '\n'));
    while (!rest.empty()) {
        std::vector<std::string_view> cells = wordsOf(takeUpTo(rest, '\n'));
        if (!cells.empty()) {
            rows_.push_back(std::move(cells));
        }
    }
}

bool Table::isSound() const
{
    return std::ranges::find(names_, "key") != names_.end();
}

std::size_t Table::rows() const
{
    return rows_.size();
}

std::string_view Table::cell(std::size_t row, std::string_view column) const
{
    const auto name = std::ranges::find(names_, column);
    const auto index = static_cast<std::size_t>(name - names_.begin());
    // A row may have more cells than the table has names.
    return name != names_.end() && row < rows_.size() && index < rows_[row].size()
               ? rows_[row][index]
               : std::string_view();
}

std::optional<Stat> parseStat(std::string_view text)
{
    // The name stands in parentheses and may hold some itself.
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return std::nullopt;
    }
    constexpr std::size_t kState = 0;
    constexpr std::size_t kThreads = 17;
    constexpr std::size_t kStart = 19;
    const std::vector<std::string_view> words = wordsOf(text.substr(close + 1));
    if (words.size() <= kStart || words[kState].size() != 1) {
        return std::nullopt;
    }
    const auto threads = numberOf<uint64_t>(words[kThreads]);
    const auto start = numberOf<uint64_t>(words[kStart]);
    if (!threads || !start) {
        return std::nullopt;
    }
    return Stat{std::string(text.substr(open + 1, close - open - 1)), words[kState][0], *threads,
                *start};
}

std::optional<Mapping> parseMapping(std::string_view line)
{
    constexpr std::string_view kName = "/SYSV";
    constexpr std::size_t kDigits = 8;
    const std::vector<std::string_view> words = wordsOf(line);
    constexpr std::size_t kInode = 4;
    constexpr std::size_t kPath = 5;
    // A file of that name has its directory before it, or it lies in the root: then it is one of
    // another device, and the caller finds no segment of its number.
    if (words.size() <= kPath || !words[kPath].starts_with(kName) ||
        words[kPath].size() != kName.size() + kDigits) {
        return std::nullopt;
    }
    const auto key = numberOf<uint32_t>(words[kPath].substr(kName.size()), 16);
    const auto id = numberOf<int32_t>(words[kInode]);
    if (!key || !id || *id < 0) {
        return std::nullopt;
    }
    return Mapping{static_cast<int32_t>(*key), *id};
}

}  // namespace rmipc
