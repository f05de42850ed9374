// The second expansion of optional messages: any text as a format without arguments.
//
// Input: level of the log, size of the buffer (2 bytes), the text.
#include "fuzz.h"

#include "rm.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Text;

constexpr std::size_t kLargestBuffer = 1024;  // bytes
constexpr std::size_t kMostDigits = 3;        // of a width or precision that is simple
constexpr std::size_t kStampLength = 22;      // "[07-Mar-96 14:05:09]  "
constexpr std::size_t kMessage = rmsrv::kLogMessageSize;

// --- The platform's printf as a model, where a text is simple

// One conversion: its whole text, its length letters and its type.
struct Conversion {
    std::string text;
    std::string length;
    char type = '\0';
};

// Takes the bytes out of `set` from the front of `text`.
std::string take(std::string_view* text, std::string_view set)
{
    std::string taken(text->substr(0, text->find_first_not_of(set)));
    text->remove_prefix(taken.size());
    return taken;
}

// `text` begins behind the percent sign. Nothing when printf would not define it.
std::optional<Conversion> takeConversion(std::string_view* text)
{
    constexpr std::string_view kDigits = "0123456789";
    Conversion conversion;
    const std::string flags = take(text, "-+ #0");
    const std::string width = take(text, kDigits);
    std::string precision;
    std::string dot;
    if (text->starts_with('.')) {
        dot = ".";
        text->remove_prefix(1);
        precision = take(text, kDigits);
    }
    conversion.length = take(text, "hljztL");
    if (text->empty() || width.size() > kMostDigits || precision.size() > kMostDigits) {
        return {};
    }
    conversion.type = text->front();
    text->remove_prefix(1);
    conversion.text = "%" + flags + width + dot + precision + conversion.length + conversion.type;
    return conversion;
}

template <typename Zero>
std::string printed(const std::string& format, Zero zero)
{
    std::string buffer(4 * kLargestBuffer, '\0');
    const int length = std::snprintf(buffer.data(), buffer.size(), format.c_str(), zero);
    FUZZ_CHECK(length >= 0 && static_cast<std::size_t>(length) < buffer.size());
    buffer.resize(static_cast<std::size_t>(length));
    return buffer;
}

std::optional<std::string> printedInteger(const Conversion& conversion)
{
    const std::string& length = conversion.length;
    if (length.empty() || length == "h" || length == "hh") {
        return printed(conversion.text, 0);
    }
    if (length == "l") {
        return printed(conversion.text, 0L);
    }
    if (length == "ll" || length == "j") {
        return printed(conversion.text, 0LL);
    }
    if (length == "z" || length == "t") {
        return printed(conversion.text, std::ptrdiff_t{0});
    }
    return {};
}

std::optional<std::string> printedZero(const Conversion& conversion)
{
    constexpr std::string_view kIntegers = "diouxX";
    constexpr std::string_view kFloats = "eEfFgGaA";
    if (kIntegers.find(conversion.type) != std::string_view::npos) {
        return printedInteger(conversion);
    }
    if (conversion.text == "%%") {
        return "%";
    }
    if (conversion.text == "%n") {
        return "";
    }
    const bool isFloat = kFloats.find(conversion.type) != std::string_view::npos;
    if (isFloat && conversion.length == "L") {
        return printed(conversion.text, 0.0L);
    }
    if (!conversion.length.empty()) {
        return {};
    }
    if (isFloat) {
        return printed(conversion.text, 0.0);
    }
    switch (conversion.type) {
        case 's':
            return printed(conversion.text, static_cast<char*>(nullptr));
        case 'p':
            return printed(conversion.text, static_cast<void*>(nullptr));
        case 'c':
            return printed(conversion.text, 0);
        case 'm':
            return conversion.text == "%m" ? std::strerror(errno) : std::optional<std::string>();
        default:
            return {};
    }
}

// What printf makes of the text; nothing when it holds anything but simple conversions.
std::optional<std::string> printedOverZeros(std::string_view text)
{
    std::string whole;
    while (!text.empty()) {
        const std::size_t plain = std::min(text.find('%'), text.size());
        whole += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty()) {
            break;
        }
        text.remove_prefix(1);
        const std::optional<Conversion> conversion = takeConversion(&text);
        const std::optional<std::string> zero =
            conversion ? printedZero(*conversion) : std::optional<std::string>();
        if (!zero) {
            return {};
        }
        whole += *zero;
    }
    // A character of zero ends it.
    whole.resize(std::min(whole.find('\0'), whole.size()));
    return whole;
}

// --- The calls

std::string checkExpansion(const Text& text, std::size_t size)
{
    Buffer buffer(static_cast<int64_t>(size));
    errno = ENOENT;
    const std::size_t length = rmsrv::expandOverZeros(buffer.data(), size, text.get());
    buffer.check();
    FUZZ_CHECK(text.unchanged());
    if (size == 0) {
        FUZZ_CHECK(length == 0);
        return "";
    }
    std::string expanded = buffer.text();
    FUZZ_CHECK(expanded.size() == length);
    errno = ENOENT;
    const std::optional<std::string> expected = printedOverZeros(text.original());
    FUZZ_CHECK(!expected || expanded == expected->substr(0, size - 1));
    return expanded;
}

// The optional message is cut before it is expanded again.
void checkLogLine(const Text& text, int16_t level)
{
    const Text cut(text.original().substr(0, kMessage - 1));
    const std::string expanded = checkExpansion(cut, kMessage);
    rmfuzz::expectLog();
    rm_systemLog(level);
    errno = ENOENT;
    rm_systemLogOptWrite("%s", text.get());
    FUZZ_CHECK(errno == ENOENT);
    rm_systemLog(0);
    const std::string line = rmfuzz::takeLog();
    FUZZ_CHECK(text.unchanged());
    if (level == 0) {
        FUZZ_CHECK(line.empty());
    } else {
        FUZZ_CHECK(line.size() == kStampLength + expanded.size() + 1);
        FUZZ_CHECK(line.substr(kStampLength) == expanded + "\n");
    }
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    const auto level = static_cast<int16_t>(input.byte() % 3);
    const auto size = static_cast<uint16_t>(input.int16()) % kLargestBuffer;
    const Text text(input.text());
    const std::string small = checkExpansion(text, size);
    const std::string large = checkExpansion(text, kLargestBuffer);
    FUZZ_CHECK(large.starts_with(small));
    FUZZ_CHECK(size == 0 || small.size() == std::min(size - 1, large.size()));
    checkLogLine(text, level);
}
