// Text that may be anything.
//
// Why: the names that a tool meets are whatever a host, a user or a file system gave, in whatever
// encoding. No byte of them may reach a terminal, an SVG file or a JSON text as anything but a
// character.
#include "common/text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace tools
{
namespace
{
constexpr char32_t kReplacement = 0xFFFD;

struct Range {
    char32_t first;
    char32_t last;
};

bool isIn(const Range* begin, const Range* end, char32_t code)
{
    return std::any_of(begin, end, [code](const Range& range) {
        return code >= range.first && code <= range.last;
    });
}

// Not to be printed: controls, marks of direction, what is no character.
constexpr Range kUnprintable[] = {{0x0000, 0x001F}, {0x007F, 0x009F},  {0x061C, 0x061C},
                                  {0x200B, 0x200F}, {0x2028, 0x202E},  {0x2060, 0x206F},
                                  {0xFDD0, 0xFDEF}, {0xFEFF, 0xFEFF},  {0xFFF9, 0xFFFB},
                                  {0xFFFE, 0xFFFF}, {0xE0000, 0xE0FFF}};
constexpr Range kNoWidth[] = {
    {0x0300, 0x036F}, {0x1AB0, 0x1AFF}, {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}};
constexpr Range kTwoColumns[] = {{0x1100, 0x115F}, {0x2E80, 0xA4CF},   {0xAC00, 0xD7A3},
                                 {0xF900, 0xFAFF}, {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
                                 {0xFFE0, 0xFFE6}, {0x1F300, 0x1FAFF}, {0x20000, 0x3FFFD}};

template <std::size_t N>
bool isIn(const Range (&ranges)[N], char32_t code)
{
    return isIn(ranges, ranges + N, code);
}

std::size_t columnsOf(char32_t code)
{
    if (isIn(kNoWidth, code)) {
        return 0;
    }
    return isIn(kTwoColumns, code) ? 2 : 1;
}

// Bytes of a character that begins with this one; 0 when none does.
std::size_t lengthFrom(unsigned char byte)
{
    if (byte < 0x80) {
        return 1;
    }
    if (byte < 0xC2 || byte > 0xF4) {
        return 0;
    }
    return byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
}
}  // namespace

Character firstCharacter(std::string_view text)
{
    if (text.empty()) {
        return {0, 0};
    }
    const auto byteAt = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const std::size_t length = lengthFrom(byteAt(0));
    if (length <= 1) {
        return {length == 0 ? kReplacement : byteAt(0), 1};
    }
    char32_t code = byteAt(0) & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if (i >= text.size() || (byteAt(i) & 0xC0U) != 0x80) {
            return {kReplacement, 1};
        }
        code = code << 6 | (byteAt(i) & 0x3FU);
    }
    constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kLeast[length] || surrogate || code > 0x10FFFF) {
        return {kReplacement, 1};
    }
    return {code, length};
}

std::string printable(std::string_view bytes)
{
    std::string result;
    result.reserve(bytes.size());
    for (Character c = {}; (c = firstCharacter(bytes)).length != 0; bytes.remove_prefix(c.length)) {
        if (c.code == '\t') {
            result += ' ';
        } else if (c.code == kReplacement || isIn(kUnprintable, c.code)) {
            result += "\uFFFD";
        } else {
            result += bytes.substr(0, c.length);
        }
    }
    return result;
}

std::size_t columns(std::string_view text)
{
    std::size_t sum = 0;
    for (Character c = {}; (c = firstCharacter(text)).length != 0; text.remove_prefix(c.length)) {
        sum += columnsOf(c.code);
    }
    return sum;
}

std::string fitted(const std::string& text, std::size_t most, std::string_view mark)
{
    if (columns(text) <= most) {
        return text;
    }
    const std::size_t room = most - std::min(most, columns(mark));
    std::string_view rest = text;
    std::size_t used = 0;
    for (Character c = {}; (c = firstCharacter(rest)).length != 0; rest.remove_prefix(c.length)) {
        used += columnsOf(c.code);
        if (used > room) {
            break;
        }
    }
    return text.substr(0, text.size() - rest.size()) +
           (columns(mark) <= most ? std::string(mark) : std::string());
}

std::string asciiOnly(std::string_view text)
{
    std::string result;
    for (Character c = {}; (c = firstCharacter(text)).length != 0; text.remove_prefix(c.length)) {
        result += c.code < 0x80 ? static_cast<char>(c.code) : '?';
    }
    return result;
}

std::string grouped(uint64_t value)
{
    std::string digits = std::to_string(value);
    for (std::size_t i = digits.size(); i > 3;) {
        i -= 3;
        digits.insert(i, 1, ',');
    }
    return digits;
}

std::string rounded(uint64_t bytes)
{
    constexpr std::array<char, 4> kUnits = {'K', 'M', 'G', 'T'};
    if (bytes < 1024) {
        return std::to_string(bytes);
    }
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // 999.5 would be printed with four digits.
    while (value >= 999.5 && unit + 1 < kUnits.size()) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    const int decimals = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
    std::snprintf(text, sizeof(text), "%.*f%c", decimals, value, kUnits[unit]);
    return text;
}

std::string hexadecimal(uint64_t address)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(address));
    return text;
}

std::string counted(uint64_t count, std::string_view thing)
{
    return grouped(count) + ' ' + std::string(thing) + (count == 1 ? "" : "s");
}

std::string quoted(std::string_view printable)
{
    std::string text = "\"";
    for (const char c : printable) {
        if (c == '"' || c == '\\') {
            text += '\\';
        }
        text += c;
    }
    return text + '"';
}

}  // namespace tools
