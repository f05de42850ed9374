// Text: writing names that may be anything.
#ifndef TOOLS_COMMON_TEXT_H
#define TOOLS_COMMON_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tools
{

// The character at the beginning of a text.
struct Character {
    char32_t code;       // U+FFFD for bytes that are none
    std::size_t length;  // bytes; 0 at the end
};

Character firstCharacter(std::string_view text);

// UTF-8 that can be printed anywhere: what is no character, controls a terminal or would turn the
// direction of a line becomes U+FFFD.
std::string printable(std::string_view bytes);

// Columns on a terminal, of printable text.
std::size_t columns(std::string_view text);

// Printable text in at most so many columns; cut, it ends with `mark`.
std::string fitted(const std::string& text, std::size_t most, std::string_view mark);

// The text with "?" for everything that is not ASCII.
std::string asciiOnly(std::string_view text);

std::string grouped(uint64_t value);  // 1,234,567
std::string rounded(uint64_t bytes);  // 1.18M
std::string hexadecimal(uint64_t address);

// "1 block", "2 blocks".
std::string counted(uint64_t count, std::string_view thing);

// A JSON string of printable text, with its quotes.
std::string quoted(std::string_view printable);

}  // namespace tools

#endif
