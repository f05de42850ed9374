// Numbers of a log, which is read after something went wrong: none may overflow.
#include "text.h"

#include <algorithm>

namespace rmheap
{
namespace
{
int hexDigit(char c)
{
    if (isDigit(c)) {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}
}  // namespace

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool Scanner::literal(std::string_view text)
{
    if (!rest.starts_with(text)) {
        return false;
    }
    rest.remove_prefix(text.size());
    return true;
}

void Scanner::blanks()
{
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
}

bool Scanner::number(uint64_t& value)
{
    std::size_t length = 0;
    uint64_t sum = 0;
    while (length < rest.size() && isDigit(rest[length])) {
        sum = sum * 10 + static_cast<uint64_t>(rest[length] - '0');
        if (sum > UINT32_MAX) {
            return false;
        }
        ++length;
    }
    if (length == 0) {
        return false;
    }
    rest.remove_prefix(length);
    value = sum;
    return true;
}

bool Scanner::integer(int64_t& value)
{
    Scanner other = *this;
    const bool negative = other.literal("-");
    uint64_t digits = 0;
    if (!other.number(digits) || (negative && digits > uint64_t{1} << 31)) {
        return false;
    }
    value = negative ? -static_cast<int64_t>(digits) : static_cast<int64_t>(digits);
    *this = other;
    return true;
}

bool Scanner::address(uint64_t& value)
{
    Scanner other = *this;
    if (!other.literal("0x")) {
        other.literal("0X");
    }
    std::size_t length = 0;
    uint64_t sum = 0;
    while (length < other.rest.size() && hexDigit(other.rest[length]) >= 0) {
        if (sum >> 60 != 0) {
            return false;
        }
        sum = sum << 4 | static_cast<uint64_t>(hexDigit(other.rest[length]));
        ++length;
    }
    if (length == 0) {
        return false;
    }
    other.rest.remove_prefix(length);
    *this = other;
    value = sum;
    return true;
}

}  // namespace rmheap
