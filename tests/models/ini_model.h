// An independent model of the INI files, for comparison with random runs: what is read from a file
// with given bytes, and which bytes it has after a change.
//
// It is written from the behaviour, not from the library: a file is a string, nothing is kept
// between two questions. Reading follows the lines of the text streams byte by byte, since what
// becomes of a last line without a newline, and of zero bytes, depends on where the blocks and the
// line buffer end. Changing takes the bytes as they are.
#ifndef RM_TESTS_MODELS_INI_MODEL_H
#define RM_TESTS_MODELS_INI_MODEL_H

#include "rm.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rmtest
{

// The lines of a file as a text stream gives them.
class StreamLinesModel
{
  public:
    explicit StreamLinesModel(std::string_view file) : file_(file) {}

    // The next line with its newline; nothing at the end.
    std::optional<std::string> next()
    {
        std::string line;
        if (!gets(size_ - 1, &line)) {
            return std::nullopt;
        }
        std::size_t searched = 0;
        while (line.find('\n', searched) == std::string::npos) {
            searched = line.size();
            size_ += kStep;
            // Whatever this one gives: what has been read is a line.
            if (!gets(kStep, &line)) {
                break;
            }
        }
        return line;
    }

    // Bytes that the line buffer has grown to.
    std::size_t size() const { return size_; }

  private:
    static constexpr std::size_t kBlock = 512;
    static constexpr std::size_t kStep = 100;

    std::size_t readBlock()
    {
        block_ = file_.substr(std::min(at_, file_.size()), kBlock);
        at_ += block_.size();
        cursor_ = 0;
        return block_.size();
    }

    // Appends at most `most` bytes, up to a newline. False at the end mark behind a block that is
    // not full, and at a zero byte.
    bool gets(std::size_t most, std::string* line)
    {
        std::size_t count = 0;
        for (std::size_t taken = 0; taken < most; ++taken) {
            if (cursor_ % kBlock == 0) {
                count = readBlock();
            }
            if (count != 0 && cursor_ == count) {
                return true;
            }
            if (cursor_ == block_.size() || block_[cursor_] == '\0') {
                return false;
            }
            line->push_back(block_[cursor_]);
            ++cursor_;
            if (line->back() == '\n') {
                return true;
            }
        }
        return true;
    }

    std::string_view file_;
    std::size_t at_ = 0;  // where the next block begins
    std::string_view block_;
    std::size_t cursor_ = 0;
    std::size_t size_ = kStep;
};

class IniModel
{
  public:
    using Name = std::optional<std::string>;

    // Reads from `file` into `buffer`, whose size counts when `size` is not negative.
    static int get(std::string_view file, const Name& section, const Name& key, bool withValues,
                   int size, std::string* buffer)
    {
        StreamLinesModel lines(file);
        if (section && key) {
            return getValue(&lines, *section, *key, size, buffer);
        }
        std::vector<std::string> entries;
        if (!section) {
            entries = sectionsOf(&lines);
        } else if (find(&lines, *section)) {
            entries = entriesOf(&lines, withValues);
        }
        return putList(entries, size, buffer);
    }

    // The bytes of `file` after the change.
    static std::string set(std::string_view file, const std::string& section, const Name& key,
                           const Name& value)
    {
        if (!key) {
            return withoutSection(file, section);
        }
        return value ? withEntry(file, section, *key, *value) : withoutEntry(file, section, *key);
    }

  private:
    using Lines = std::vector<std::string_view>;

    static char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

    static bool same(std::string_view a, std::string_view b)
    {
        return a.size() == b.size() &&
               std::equal(a.begin(), a.end(), b.begin(),
                          [](char x, char y) { return upper(x) == upper(y); });
    }

    static std::string_view upTo(std::string_view text, std::string_view stop)
    {
        return text.substr(0, text.find_first_of(stop));
    }

    static bool isHeader(std::string_view line) { return !line.empty() && line[0] == '['; }

    static std::string_view nameOf(std::string_view header) { return upTo(header.substr(1), "]"); }

    // --- Reading

    // A line without what ends it.
    static bool nextLine(StreamLinesModel* lines, std::string* line)
    {
        const std::optional<std::string> read = lines->next();
        *line = read ? upTo(*read, "\r\n") : std::string_view();
        return read.has_value();
    }

    static bool find(StreamLinesModel* lines, std::string_view section)
    {
        std::string line;
        while (nextLine(lines, &line)) {
            if (isHeader(line) && same(nameOf(line), section)) {
                return true;
            }
        }
        return false;
    }

    static std::vector<std::string> sectionsOf(StreamLinesModel* lines)
    {
        std::vector<std::string> names;
        std::string line;
        while (nextLine(lines, &line)) {
            if (isHeader(line)) {
                names.emplace_back(nameOf(line));
            }
        }
        return names;
    }

    static std::vector<std::string> entriesOf(StreamLinesModel* lines, bool withValues)
    {
        std::vector<std::string> entries;
        std::string line;
        while (nextLine(lines, &line) && !line.empty() && line[0] != '[') {
            if (line[0] != ';') {
                entries.emplace_back(withValues ? std::string_view(line) : upTo(line, "="));
            }
        }
        return entries;
    }

    static int putList(const std::vector<std::string>& entries, int size, std::string* buffer)
    {
        if (size < 1) {
            return RM_NOT_FOUND;
        }
        const std::size_t capacity = static_cast<std::size_t>(size) - 1;
        std::string list;
        for (const std::string& entry : entries) {
            list += entry;
            list += '\0';
        }
        const int result = entries.empty() || capacity == 0 ? RM_NOT_FOUND : RM_SUCCESS;
        if (list.size() >= capacity && capacity > 0) {
            list.resize(capacity);
            list.back() = '\0';
        }
        list.resize(std::min(list.size(), capacity));
        list += '\0';
        buffer->replace(0, list.size(), list);
        return result;
    }

    static int getValue(StreamLinesModel* lines, std::string_view section, std::string_view key,
                        int size, std::string* buffer)
    {
        std::string line;
        if (!find(lines, section)) {
            return RM_NOT_FOUND;
        }
        while (nextLine(lines, &line) && !line.empty()) {
            const std::size_t equals = line.find('=');
            if (line[0] == ';' || equals == std::string::npos ||
                !same(std::string_view(line).substr(0, equals), key)) {
                continue;
            }
            const int room = size == 1 ? 1 : size - 1;
            if (room > 0) {
                std::string value = line.substr(equals + 1, static_cast<std::size_t>(room) - 1);
                value.resize(static_cast<std::size_t>(room), '\0');
                buffer->replace(0, value.size(), value);
            }
            return RM_SUCCESS;
        }
        return RM_NOT_FOUND;
    }

    // --- Changing

    static Lines linesOf(std::string_view file)
    {
        Lines lines;
        while (!file.empty()) {
            const std::size_t end = std::min(file.find('\n'), file.size());
            lines.push_back(file.substr(0, end));
            file.remove_prefix(std::min(end + 1, file.size()));
        }
        return lines;
    }

    static std::string join(const Lines& lines)
    {
        std::string file;
        for (const std::string_view line : lines) {
            file += line;
            file += '\n';
        }
        return file;
    }

    static bool isHeaderOf(std::string_view line, std::string_view section)
    {
        return isHeader(line) && same(nameOf(line), section);
    }

    static bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

    static bool isEntryOf(std::string_view line, std::string_view key)
    {
        return line.find('=') != std::string_view::npos && line[0] != ';' &&
               same(upTo(line, "="), key);
    }

    // First line of the section behind its header, and the first one behind the section.
    static std::pair<std::size_t, std::size_t> extent(const Lines& lines, std::string_view section)
    {
        std::size_t begin = 0;
        while (begin < lines.size() && !isHeaderOf(lines[begin], section)) {
            ++begin;
        }
        if (begin == lines.size()) {
            return {0, 0};
        }
        ++begin;
        std::size_t end = begin;
        while (end < lines.size() && !isHeader(lines[end])) {
            ++end;
        }
        return {begin, end};
    }

    static Lines::iterator place(Lines& lines, std::size_t n)
    {
        return lines.begin() + static_cast<std::ptrdiff_t>(n);
    }

    static std::string withoutSection(std::string_view file, std::string_view section)
    {
        Lines lines = linesOf(file);
        const auto [begin, end] = extent(lines, section);
        if (begin > 0) {
            lines.erase(place(lines, begin - 1), place(lines, end));
        }
        return join(lines);
    }

    static std::string withoutEntry(std::string_view file, std::string_view section,
                                    std::string_view key)
    {
        Lines lines = linesOf(file);
        const auto [begin, end] = extent(lines, section);
        const auto kept = std::remove_if(place(lines, begin), place(lines, end),
                                         [&](auto line) { return isEntryOf(line, key); });
        lines.erase(kept, place(lines, end));
        return join(lines);
    }

    static std::string withEntry(std::string_view file, const std::string& section,
                                 std::string_view key, std::string_view value)
    {
        Lines lines = linesOf(file);
        const auto [begin, end] = extent(lines, section);
        const std::string entry = std::string(key) + '=' + std::string(value);
        const std::string header = '[' + section + ']';
        if (begin == 0) {
            lines.insert(lines.end(), {"", header, entry});
            return join(lines);
        }
        for (std::size_t n = begin; n < end; ++n) {
            if (!lines[n].empty() && isSpace(lines[n][0])) {
                lines.insert(place(lines, n), entry);
                return join(lines);
            }
            if (isEntryOf(lines[n], key)) {
                lines[n] = entry;
                return join(lines);
            }
        }
        if (end == lines.size()) {
            lines.push_back(entry);
        }
        return join(lines);
    }
};

}  // namespace rmtest

#endif
