// The lines of an INI file, and what the rules of the library make of them.
#ifndef RMINI_DOCUMENT_H
#define RMINI_DOCUMENT_H

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace rmini
{

using Lines = std::span<const std::string_view>;
using LineIndex = std::optional<std::size_t>;  // 0 is the first line

// Bytes of a value that readers get of a longer one, with the largest buffer that the interface can
// be told of.
constexpr std::size_t kLongestValue = 32765;

struct Document {
    std::string bytes;                       // the file
    std::vector<std::string_view> lines;     // all of them, without "\n": what a rewrite copies
    std::vector<std::string_view> readable;  // those that readers get, up to a zero byte
    bool terminated = true;                  // the last line ends with "\n"
};

// Fills `lines` from `bytes`.
void splitLines(Document& document);

// Fills `readable`: the first `count` lines, `count` being what the library's reader gives.
void setReadable(Document& document, std::size_t count);

// ---- one line

bool isHeader(std::string_view line);
bool isComment(std::string_view line);
bool isEmpty(std::string_view line);  // for readers: nothing before its carriage return
bool beginsWithSpace(std::string_view line);
bool isEntry(std::string_view line);  // for readers: "=" in it, and no comment

// The parts as readers see them: a line ends at its first carriage return.
std::string_view sectionName(std::string_view header);
std::string_view entryKey(std::string_view line);
std::string_view entryValue(std::string_view line);
std::string_view withoutReturn(std::string_view line);

// The names as a rewrite compares them, which copies carriage returns like any other byte.
std::string_view rewrittenSection(std::string_view header);
std::string_view rewrittenKey(std::string_view line);

bool sameName(std::string_view a, std::string_view b);  // but for the case of ASCII letters
std::string_view trimmed(std::string_view text);        // without blanks at its ends

// ---- readers

LineIndex findSection(Lines lines, std::string_view section, std::size_t from = 0);
LineIndex findEntry(Lines lines, std::string_view section, std::string_view key);

// The header above `line`.
LineIndex sectionAbove(Lines lines, std::size_t line);

// The first line behind `line` that begins with "[", or the number of lines.
std::size_t nextHeader(Lines lines, std::size_t line);

// The first empty line behind `header` and before `end`.
LineIndex emptyLine(Lines lines, std::size_t header, std::size_t end);

}  // namespace rmini

#endif
