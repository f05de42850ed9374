// The lines of an INI file, and what the rules of the library make of them.
//
// Why: the library says what a key's value is and nothing about the lines around it. Whoever is to
// be told why a key is not found, or why a new one would be lost, needs the line.
//
// No function of the library is called here that could jump: these frames may own what they like.
#include "document.h"

#include "rm.h"

#include <algorithm>

namespace rmini
{
namespace
{
constexpr std::string_view kSpace = " \t\n\v\f\r";

std::string_view before(std::string_view text, char c)
{
    return text.substr(0, text.find(c));
}
}  // namespace

void splitLines(Document& document)
{
    document.lines.clear();
    std::string_view rest = document.bytes;
    document.terminated = rest.empty() || rest.ends_with('\n');
    while (!rest.empty()) {
        const std::string_view line = before(rest, '\n');
        document.lines.push_back(line);
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    }
}

void setReadable(Document& document, std::size_t count)
{
    document.readable.clear();
    for (std::size_t i = 0; i < std::min(count, document.lines.size()); ++i) {
        document.readable.push_back(before(document.lines[i], '\0'));
    }
}

bool isHeader(std::string_view line)
{
    return line.starts_with('[');
}

bool isComment(std::string_view line)
{
    return line.starts_with(';');
}

bool isEmpty(std::string_view line)
{
    return line.empty() || line.front() == '\r';
}

bool beginsWithSpace(std::string_view line)
{
    return !line.empty() && kSpace.find(line.front()) != std::string_view::npos;
}

bool isEntry(std::string_view line)
{
    return !isComment(line) && withoutReturn(line).find('=') != std::string_view::npos;
}

std::string_view withoutReturn(std::string_view line)
{
    return before(line, '\r');
}

std::string_view sectionName(std::string_view header)
{
    return before(withoutReturn(header).substr(1), ']');
}

std::string_view entryKey(std::string_view line)
{
    return before(withoutReturn(line), '=');
}

std::string_view entryValue(std::string_view line)
{
    const std::string_view all = withoutReturn(line);
    return all.substr(std::min(all.find('='), all.size() - 1) + 1);
}

std::string_view rewrittenSection(std::string_view header)
{
    return before(header.substr(1), ']');
}

std::string_view rewrittenKey(std::string_view line)
{
    return before(line, '=');
}

bool sameName(std::string_view a, std::string_view b)
{
    return a.size() == b.size() &&
           strnicmp(a.data(), b.data(), static_cast<uint32_t>(a.size())) == 0;
}

std::string_view trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

LineIndex findSection(Lines lines, std::string_view section, std::size_t from)
{
    for (std::size_t i = from; i < lines.size(); ++i) {
        if (isHeader(lines[i]) && sameName(sectionName(lines[i]), section)) {
            return i;
        }
    }
    return {};
}

LineIndex findEntry(Lines lines, std::string_view section, std::string_view key)
{
    const LineIndex header = findSection(lines, section);
    if (!header) {
        return {};
    }
    // Only an empty line ends the search, not the next header.
    for (std::size_t i = *header + 1; i < lines.size() && !isEmpty(lines[i]); ++i) {
        if (isEntry(lines[i]) && sameName(entryKey(lines[i]), key)) {
            return i;
        }
    }
    return {};
}

LineIndex sectionAbove(Lines lines, std::size_t line)
{
    for (std::size_t i = std::min(line, lines.size()); i > 0; --i) {
        if (isHeader(lines[i - 1])) {
            return i - 1;
        }
    }
    return {};
}

std::size_t nextHeader(Lines lines, std::size_t line)
{
    std::size_t i = line + 1;
    while (i < lines.size() && !isHeader(lines[i])) {
        ++i;
    }
    return std::min(i, lines.size());
}

LineIndex emptyLine(Lines lines, std::size_t header, std::size_t end)
{
    for (std::size_t i = header + 1; i < end; ++i) {
        if (isEmpty(lines[i])) {
            return i;
        }
    }
    return {};
}

}  // namespace rmini
