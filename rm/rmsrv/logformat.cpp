// The second expansion of a text: a format whose arguments do not exist.
//
// Why: an optional log message is expanded twice, and what is left of percent signs after the first
// time is taken for conversions by the second. Given to printf such a text would read whatever lies
// on the stack, or write there ("%n"). Here every conversion prints the zero of its type instead.
//
// Fatal: never. The result is always terminated and never longer than its buffer.
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace
{
constexpr std::string_view kFlags = "-+ #0'I";
constexpr std::string_view kKeptFlags = "-+ #0";
constexpr std::string_view kLengths = "hlqLjzZt";
constexpr int kNoPrecision = -1;
constexpr int kLargestNumber = 100000000;  // of a width or precision; times ten it still fits
constexpr int kLongestPlain = 128;         // bytes that a zero, or an error's text, takes at most
constexpr std::string_view kPrecisionIsLength = "diouxXeEfFaA";  // zeros up to the precision
constexpr int kNullTextLength = 6;  // "(null)" is printed whole or not at all

struct Conversion {
    char flags[kKeptFlags.size() + 1];  // each at most once
    int width;
    int precision;
    char type;        // '\0' when the text ends inside it
    const char* end;  // the first byte after it
};

struct Output {
    char* at;
    std::size_t room;  // bytes left, terminator included
};

bool contains(std::string_view set, char c)
{
    return c != '\0' && set.find(c) != std::string_view::npos;
}

// Reads a width or precision; "*" and "*n$" take a zero.
const char* readNumber(const char* at, int* value)
{
    *value = 0;
    if (*at == '*') {
        ++at;
        const char* position = at;
        while (*position >= '0' && *position <= '9') {
            ++position;
        }
        return *position == '$' ? position + 1 : at;
    }
    for (; *at >= '0' && *at <= '9'; ++at) {
        *value = std::min(*value * 10 + (*at - '0'), kLargestNumber);
    }
    return at;
}

// `at` is the byte after the percent sign.
Conversion parse(const char* at)
{
    Conversion result = {};
    const char* position = at;
    while (*position >= '0' && *position <= '9') {
        ++position;
    }
    if (*position == '$' && position != at) {
        at = position + 1;  // "%3$d": every argument is the same zero
    }
    std::size_t flags = 0;
    for (; contains(kFlags, *at); ++at) {
        if (contains(kKeptFlags, *at) && std::strchr(result.flags, *at) == nullptr) {
            result.flags[flags++] = *at;
        }
    }
    at = readNumber(at, &result.width);
    result.precision = kNoPrecision;
    if (*at == '.') {
        at = readNumber(at + 1, &result.precision);
    }
    while (contains(kLengths, *at)) {
        ++at;
    }
    result.type = *at;
    result.end = *at == '\0' ? at : at + 1;
    return result;
}

// Brings a width and a precision down to what shows in a buffer of less than `room` bytes, so that
// nobody waits for a million blanks. The blanks before a long row of zeros stay as many.
void shorten(Conversion* conversion, int room)
{
    const bool isLength = contains(kPrecisionIsLength, conversion->type) ||
                          std::strchr(conversion->flags, '#') != nullptr;
    const int excess = conversion->precision - room;
    if (excess > 0) {
        conversion->precision = room;
        if (isLength) {
            conversion->width = std::max(conversion->width - excess, 0);
        }
    }
    conversion->width = std::min(conversion->width, 2 * room + kLongestPlain);
}

void advance(Output* out, int printed)
{
    const auto length = std::min(static_cast<std::size_t>(std::max(printed, 0)), out->room - 1);
    out->at += length;
    out->room -= length;
}

void copyText(Output* out, const char* from, const char* to)
{
    const auto length = std::min(static_cast<std::size_t>(to - from), out->room - 1);
    std::memcpy(out->at, from, length);
    advance(out, static_cast<int>(length));
}

template <typename Zero>
void printZero(Output* out, const Conversion& conversion, char type, Zero zero)
{
    char format[sizeof(conversion.flags) + sizeof("%*.*c")];
    std::snprintf(format, sizeof(format), "%%%s*.*%c", conversion.flags, type);
    advance(out, std::snprintf(out->at, out->room, format, conversion.width, conversion.precision,
                               zero));
}

// False when the type is none, and the text is to be printed as it is.
bool printConversion(Output* out, const Conversion& conversion, const char* errorText)
{
    switch (conversion.type) {
        case 'd':
        case 'i':
        case 'c':
            printZero(out, conversion, conversion.type, 0);
            return true;
        case 'C':
            printZero(out, conversion, 'c', 0);
            return true;
        case 'o':
        case 'u':
        case 'x':
        case 'X':
            printZero(out, conversion, conversion.type, 0U);
            return true;
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            printZero(out, conversion, conversion.type, 0.0);
            return true;
        case 's':
        case 'S': {
            const bool whole =
                conversion.precision == kNoPrecision || conversion.precision >= kNullTextLength;
            printZero(out, conversion, 's', whole ? "(null)" : "");
            return true;
        }
        case 'p':
            printZero(out, conversion, 'p', static_cast<void*>(nullptr));
            return true;
        case 'm':
            printZero(out, conversion, 's', errorText);
            return true;
        case 'n':
            return true;
        case '%':
            advance(out, std::snprintf(out->at, out->room, "%%"));
            return true;
        default:
            return false;
    }
}
}  // namespace

std::size_t rmsrv::expandOverZeros(char* out, std::size_t size, const char* text)
{
    if (size == 0) {
        return 0;
    }
    const char* errorText = std::strerror(errno);
    Output output = {out, size};
    const int room = static_cast<int>(std::min<std::size_t>(size, kLargestNumber)) + kLongestPlain;
    while (*text != '\0' && output.room > 1) {
        const char* percent = std::strchr(text, '%');
        if (percent == nullptr) {
            percent = text + std::strlen(text);
        }
        copyText(&output, text, percent);
        text = percent;
        if (*text == '%') {
            Conversion conversion = parse(text + 1);
            shorten(&conversion, room);
            if (!printConversion(&output, conversion, errorText)) {
                copyText(&output, text, conversion.end);
            }
            text = conversion.end;
        }
    }
    *output.at = '\0';
    return std::strlen(out);
}
