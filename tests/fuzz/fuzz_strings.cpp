// The string functions on any texts, each beside its rule written out byte by byte.
//
// Input: a byte that says which function, then what it needs: sizes first (2 bytes), then texts,
// each with a zero behind it. The splitting of words has a target of its own.
#include "fuzz.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Input;
using rmfuzz::Text;
using MaybeText = std::optional<std::string>;

constexpr int kLargestBuffer = 600;  // bytes
constexpr std::size_t kMostTexts = 40;

enum Function : uint8_t {
    kDigits,
    kCase,
    kCompare,
    kCompareSome,
    kConcatenate,
    kConcatenateInto,
    kCopy,
    kReadLines,
    kFunctions,
};

// --- The rules

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// As unsigned values of upper-case forms; an end is the smallest.
int compared(const std::string& a, const std::string& b, std::size_t most)
{
    for (std::size_t i = 0; i < most; ++i) {
        const unsigned left = i < a.size() ? static_cast<unsigned char>(upper(a[i])) : 0U;
        const unsigned right = i < b.size() ? static_cast<unsigned char>(upper(b[i])) : 0U;
        if (left != right) {
            return left < right ? -1 : 1;
        }
        if (left == 0) {
            break;
        }
    }
    return 0;
}

// --- The calls

// A byte before the text says whether there is one.
MaybeText maybeText(Input& input)
{
    const bool absent = input.byte() == UINT8_MAX;
    const std::string text = input.text();
    return absent ? MaybeText() : MaybeText(text);
}

void checkDigits(Input& input)
{
    const Text text(input.text());
    const std::string& original = text.original();
    FUZZ_CHECK(AllDigits(text.get()) == (std::all_of(original.begin(), original.end(), isDigit)));
    FUZZ_CHECK(AllDigits(nullptr) == 1);
    FUZZ_CHECK(text.unchanged());
}

void checkCase(Input& input)
{
    const std::string original = input.text();
    std::string expected = original;
    Text raised(original);
    std::transform(expected.begin(), expected.end(), expected.begin(), upper);
    FUZZ_CHECK(StrUpper(raised.writable()) == raised.get());
    FUZZ_CHECK(raised.bytes() == std::string_view(expected.c_str(), expected.size() + 1));
    Text lowered(original);
    expected = original;
    std::transform(expected.begin(), expected.end(), expected.begin(), lower);
    FUZZ_CHECK(StrLower(lowered.writable()) == lowered.get());
    FUZZ_CHECK(lowered.bytes() == std::string_view(expected.c_str(), expected.size() + 1));
    FUZZ_CHECK(StrUpper(nullptr) == nullptr && StrLower(nullptr) == nullptr);
}

void checkCompare(Input& input, bool some)
{
    const uint32_t most = some ? static_cast<uint16_t>(input.int16()) : 0;
    const MaybeText one = maybeText(input);
    const MaybeText other = maybeText(input);
    const Text left(one.value_or(""));
    const Text right(other.value_or(""));
    const char* leftText = one ? left.get() : nullptr;
    const char* rightText = other ? right.get() : nullptr;
    const std::size_t bytes = some ? most : std::string::npos;
    const int expected = compared(left.original(), right.original(), bytes);
    FUZZ_CHECK((some ? strnicmp(leftText, rightText, most) : stricmp(leftText, rightText)) ==
               expected);
    FUZZ_CHECK((some ? strnicmp(rightText, leftText, most) : stricmp(rightText, leftText)) ==
               -expected);
    FUZZ_CHECK(left.unchanged() && right.unchanged());
}

// What is compared may have no end, when the count stops before it.
void checkCompareUnended(Input& input)
{
    const std::string bytes = input.text();
    const auto size = static_cast<uint32_t>(bytes.size());
    const std::unique_ptr<char[]> left(new char[size]);
    const std::unique_ptr<char[]> right(new char[size]);
    std::copy(bytes.begin(), bytes.end(), left.get());
    std::transform(bytes.begin(), bytes.end(), right.get(), lower);
    FUZZ_CHECK(strnicmp(left.get(), right.get(), size) == 0);
}

struct Texts {
    std::vector<std::unique_ptr<Text>> owned;
    std::vector<const char*> pointers;
    std::string joined;

    bool unchanged() const
    {
        return std::all_of(owned.begin(), owned.end(),
                           [](const auto& text) { return text->unchanged(); });
    }
};

Texts textsOf(Input& input)
{
    Texts texts;
    while (!input.empty() && texts.pointers.size() < kMostTexts) {
        const MaybeText text = maybeText(input);
        texts.joined += text.value_or("");
        texts.owned.push_back(std::make_unique<Text>(text.value_or("")));
        texts.pointers.push_back(text ? texts.owned.back()->get() : nullptr);
    }
    return texts;
}

void checkConcatenate(Input& input)
{
    const int16_t count = input.int16();
    const Texts texts = textsOf(input);
    const auto all = static_cast<int16_t>(texts.pointers.size());
    char* joined = StrArrayCat(texts.pointers.data(), all, 0);
    FUZZ_CHECK(joined != nullptr);
    FUZZ_CHECK(rmalloc::headerOf(joined)->units ==
               rmalloc::unitsFor(static_cast<uint32_t>(texts.joined.size()) + 1));
    const bool isWritten = std::any_of(texts.pointers.begin(), texts.pointers.end(),
                                       [](const char* text) { return text != nullptr; });
    FUZZ_CHECK(!isWritten || texts.joined == joined);
    rm_freeMemory(joined, 0);
    // A count that is none gives a block of one byte.
    if (count <= 0) {
        char* nothing = StrArrayCat(texts.pointers.data(), count, 0);
        FUZZ_CHECK(nothing != nullptr && rmalloc::headerOf(nothing)->units == rmalloc::unitsFor(1));
        rm_freeMemory(nothing, 0);
    }
    FUZZ_CHECK(texts.unchanged());
}

void checkConcatenateInto(Input& input)
{
    const auto size = static_cast<uint16_t>(static_cast<uint16_t>(input.int16()) % kLargestBuffer);
    const Texts texts = textsOf(input);
    Buffer buffer(std::max<int>(size, 1));  // a byte is written into none when there is nothing
    const int16_t status = StrArrayCatBuf(
        texts.pointers.data(), static_cast<uint16_t>(texts.pointers.size()), buffer.data(), size);
    buffer.check();
    FUZZ_CHECK(texts.unchanged());
    const bool isCut = !texts.pointers.empty() && texts.joined.size() >= size &&
                       (size > 0 || std::any_of(texts.pointers.begin(), texts.pointers.end(),
                                                [](const char* text) { return text != nullptr; }));
    FUZZ_CHECK(status == (isCut ? -1 : 0));
    if (size == 0) {
        FUZZ_CHECK(isCut ? buffer.untouched() : buffer.text().empty());
    } else {
        const std::string expected = texts.joined.substr(0, size - 1U);
        FUZZ_CHECK(buffer.text() == expected && buffer.untouched(size));
    }
}

// All n bytes are written: zeros behind a shorter text.
void checkCopy(Input& input)
{
    const int size = input.int16() % kLargestBuffer;
    const MaybeText source = maybeText(input);
    const Text text(source.value_or(""));
    Buffer buffer(std::max(size, 0) + 1);
    FUZZ_CHECK(StrncpyZ(buffer.data(), source ? text.get() : nullptr, size) == buffer.data());
    buffer.check();
    FUZZ_CHECK(text.unchanged());
    if (size <= 0) {
        FUZZ_CHECK(buffer.untouched());
        return;
    }
    const auto room = static_cast<std::size_t>(size);
    std::string expected = text.original().substr(0, room - 1);
    expected.resize(room, '\0');
    FUZZ_CHECK(buffer.contents().substr(0, room) == expected && buffer.untouched(room));
}

// Lines of a stream into buffers of any sizes, until it ends.
void checkReadLines(Input& input)
{
    std::vector<int16_t> sizes(1 + input.byte() % 4U);
    for (int16_t& size : sizes) {
        size = static_cast<int16_t>(input.int16() % kLargestBuffer);
    }
    // A stream of no bytes cannot be made.
    const std::string whole = input.rest() + '\n';
    Text bytes(whole);
    FILE* stream = fmemopen(bytes.writable(), whole.size(), "r");
    FUZZ_CHECK(stream != nullptr);
    std::string_view left = whole;
    for (std::size_t i = 0; i <= whole.size(); ++i) {
        const int16_t size = sizes[i % sizes.size()];
        Buffer buffer(size);
        const char* line = FgetsTrim(buffer.data(), size, stream);
        buffer.check();
        FUZZ_CHECK(line == (left.empty() ? nullptr : buffer.data()));
        // A zero ends the text in the buffer, and not the line in the stream.
        const std::string_view next = left.substr(0, left.find('\n'));
        const std::string_view taken =
            next.substr(0, static_cast<std::size_t>(std::max(1, +size)) - 1);
        FUZZ_CHECK(size <= 0 || buffer.text() == taken.substr(0, taken.find('\0')));
        if (left.empty()) {
            break;
        }
        left.remove_prefix(next.size() + 1);
    }
    FUZZ_CHECK(std::fclose(stream) == 0);
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    switch (input.byte() % kFunctions) {
        case kDigits:
            checkDigits(input);
            break;
        case kCase:
            checkCase(input);
            break;
        case kCompare:
            checkCompare(input, false);
            break;
        case kCompareSome:
            checkCompare(input, true);
            checkCompareUnended(input);
            break;
        case kConcatenate:
            checkConcatenate(input);
            break;
        case kConcatenateInto:
            checkConcatenateInto(input);
            break;
        case kCopy:
            checkCopy(input);
            break;
        default:
            checkReadLines(input);
            break;
    }
}
