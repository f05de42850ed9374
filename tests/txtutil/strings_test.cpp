// Strings: classes, case, comparison, splitting, joining, bounded copies, line reading.
//
// The program brings its own classification functions, which a case can switch to those of a
// Latin-1 locale: so it does not depend on the locales that a machine has installed.
#include "tests/support/support.h"

#include "rm/rmalloc/rmalloc.h"
#include "rm/txtutil/txtutil.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::catchFatal;
using rmtest::resetCalls;
using rmtest::ScopedFault;

constexpr int kBytes = 256;

bool latin1Locale = false;

bool isLatin1(int c)
{
    return latin1Locale && c >= 0x80 && c < kBytes;
}
}  // namespace

// The platform's classification functions, as they are in the C locale or, when that is switched
// on, in a Latin-1 one with a few more digits and blanks than it really has.

extern "C" int islower(int c) noexcept
{
    return (c >= 'a' && c <= 'z') || (isLatin1(c) && c >= 0xE0) ? 1 : 0;
}

extern "C" int isupper(int c) noexcept
{
    return (c >= 'A' && c <= 'Z') || (isLatin1(c) && c >= 0xC0 && c < 0xE0) ? 1 : 0;
}

extern "C" int isdigit(int c) noexcept
{
    return (c >= '0' && c <= '9') || (isLatin1(c) && c >= 0xB0 && c < 0xC0) ? 1 : 0;
}

extern "C" int isspace(int c) noexcept
{
    return c == ' ' || (c >= '\t' && c <= '\r') || (isLatin1(c) && c < 0xB0) ? 1 : 0;
}

extern "C" int toupper(int c) noexcept
{
    return islower(c) != 0 ? c - 0x20 : c;
}

extern "C" int tolower(int c) noexcept
{
    return isupper(c) != 0 ? c + 0x20 : c;
}

namespace
{
// Latin-1 letters, digits and blanks are in force as long as it lives.
class Latin1Locale
{
  public:
    Latin1Locale() { latin1Locale = true; }

    ~Latin1Locale() { latin1Locale = false; }

    Latin1Locale(const Latin1Locale&) = delete;
    Latin1Locale& operator=(const Latin1Locale&) = delete;
};

class AllDigitsTest : public rmtest::RmTest
{
};

class StrCase : public rmtest::RmTest
{
};

class Stricmp : public rmtest::RmTest
{
};

class Strnicmp : public rmtest::RmTest
{
};

class Words : public rmtest::RmTest
{
};

class Joined : public rmtest::RmTest
{
};

class JoinedInBuffer : public rmtest::RmTest
{
};

class BoundedCopy : public rmtest::RmTest
{
};

class LineReading : public rmtest::RmTest
{
};

std::string oneByte(int byte)
{
    return std::string(1, static_cast<char>(byte));
}

bool isModelDigit(int byte)
{
    return byte >= '0' && byte <= '9';
}

bool isModelSpace(int byte)
{
    return byte == ' ' || byte == '\t' || byte == '\n' || byte == '\v' || byte == '\f' ||
           byte == '\r';
}

int modelUpper(int byte)
{
    return byte >= 'a' && byte <= 'z' ? byte - 'a' + 'A' : byte;
}

int modelLower(int byte)
{
    return byte >= 'A' && byte <= 'Z' ? byte - 'A' + 'a' : byte;
}

// Independent of the library: unsigned bytes of both texts, folded one by one, ended by 0.
int modelCompare(const std::string& a, const std::string& b, uint64_t n)
{
    for (std::size_t i = 0; i < n; ++i) {
        const int left = i < a.size() ? modelUpper(static_cast<unsigned char>(a[i])) : 0;
        const int right = i < b.size() ? modelUpper(static_cast<unsigned char>(b[i])) : 0;
        if (left != right) {
            return left < right ? -1 : 1;
        }
        if (left == 0) {
            return 0;
        }
    }
    return 0;
}

std::string randomText(std::mt19937& random, std::string_view alphabet, std::size_t longest)
{
    std::string text(std::uniform_int_distribution<std::size_t>(0, longest)(random), ' ');
    for (char& c : text) {
        c = alphabet[std::uniform_int_distribution<std::size_t>(0, alphabet.size() - 1)(random)];
    }
    return text;
}

// --- AllDigits

TEST_F(AllDigitsTest, NullIsAllDigits)
{
    EXPECT_EQ(AllDigits(nullptr), 1);
}

TEST_F(AllDigitsTest, EmptyIsAllDigits)
{
    EXPECT_EQ(AllDigits(""), 1);
}

TEST_F(AllDigitsTest, DigitsOnlyGiveOne)
{
    EXPECT_EQ(AllDigits("007"), 1);
    EXPECT_EQ(AllDigits("0123456789"), 1);
}

TEST_F(AllDigitsTest, OneOtherByteAnywhereGivesZero)
{
    EXPECT_EQ(AllDigits("12a"), 0);
    EXPECT_EQ(AllDigits("a12"), 0);
    EXPECT_EQ(AllDigits("1 2"), 0);
    EXPECT_EQ(AllDigits("-12"), 0);
}

TEST_F(AllDigitsTest, KnowsExactlyTheTenDigits)
{
    for (int byte = 1; byte < kBytes; ++byte) {
        EXPECT_EQ(AllDigits(oneByte(byte).c_str()), isModelDigit(byte) ? 1 : 0) << byte;
    }
}

TEST_F(AllDigitsTest, TakesNoDigitsFromTheLocaleOfTheHost)
{
    const Latin1Locale locale;
    for (int byte = 0x80; byte < kBytes; ++byte) {
        EXPECT_EQ(AllDigits(oneByte(byte).c_str()), 0) << byte;
    }
}

// --- StrUpper and StrLower

TEST_F(StrCase, NullIsReturnedAsItIs)
{
    EXPECT_EQ(StrUpper(nullptr), nullptr);
    EXPECT_EQ(StrLower(nullptr), nullptr);
}

TEST_F(StrCase, EmptyIsReturnedUnchanged)
{
    char text[] = "";
    EXPECT_EQ(StrUpper(text), text);
    EXPECT_EQ(StrLower(text), text);
    EXPECT_STREQ(text, "");
}

TEST_F(StrCase, UpperChangesInPlaceAndReturnsItsArgument)
{
    char text[] = "Mixed case, 12_[z]";
    EXPECT_EQ(StrUpper(text), text);
    EXPECT_STREQ(text, "MIXED CASE, 12_[Z]");
}

TEST_F(StrCase, LowerChangesInPlaceAndReturnsItsArgument)
{
    char text[] = "Mixed CASE, 12_[Z]";
    EXPECT_EQ(StrLower(text), text);
    EXPECT_STREQ(text, "mixed case, 12_[z]");
}

TEST_F(StrCase, UpperChangesExactlyTheSmallLetters)
{
    for (int byte = 1; byte < kBytes; ++byte) {
        std::string text = oneByte(byte);
        StrUpper(text.data());
        EXPECT_EQ(text, oneByte(modelUpper(byte))) << byte;
    }
}

TEST_F(StrCase, LowerChangesExactlyTheCapitals)
{
    for (int byte = 1; byte < kBytes; ++byte) {
        std::string text = oneByte(byte);
        StrLower(text.data());
        EXPECT_EQ(text, oneByte(modelLower(byte))) << byte;
    }
}

TEST_F(StrCase, TheLocaleOfTheHostChangesNothing)
{
    const Latin1Locale locale;
    for (int byte = 0x80; byte < kBytes; ++byte) {
        std::string text = oneByte(byte);
        StrUpper(text.data());
        StrLower(text.data());
        EXPECT_EQ(text, oneByte(byte)) << byte;
    }
}

TEST_F(StrCase, StopsAtTheTerminator)
{
    char text[] = {'a', '\0', 'b', '\0'};
    StrUpper(text);
    EXPECT_EQ(text[0], 'A');
    EXPECT_EQ(text[2], 'b');
    text[2] = 'B';
    StrLower(text);
    EXPECT_EQ(text[2], 'B');
}

// --- stricmp

TEST_F(Stricmp, CaseMakesNoDifference)
{
    EXPECT_EQ(stricmp("abc", "ABC"), 0);
    EXPECT_EQ(stricmp("ABC", "abc"), 0);
}

TEST_F(Stricmp, NullIsReadAsTheEmptyText)
{
    EXPECT_EQ(stricmp(nullptr, ""), 0);
    EXPECT_EQ(stricmp("", nullptr), 0);
    EXPECT_EQ(stricmp(nullptr, nullptr), 0);
    EXPECT_EQ(stricmp(nullptr, "a"), -1);
    EXPECT_EQ(stricmp("a", nullptr), 1);
}

TEST_F(Stricmp, OrdersLettersWhateverTheirCase)
{
    EXPECT_EQ(stricmp("a", "B"), -1);
    EXPECT_EQ(stricmp("b", "A"), 1);
}

TEST_F(Stricmp, GivesTheSignAndNeverTheDifference)
{
    EXPECT_EQ(stricmp("a", "z"), -1);
    EXPECT_EQ(stricmp("z", "a"), 1);
    EXPECT_EQ(stricmp("\x01", "\xFF"), -1);
    EXPECT_EQ(stricmp("\xFF", "\x01"), 1);
}

TEST_F(Stricmp, AShorterTextThatIsABeginningComesFirst)
{
    EXPECT_EQ(stricmp("abc", "ABCD"), -1);
    EXPECT_EQ(stricmp("ABCD", "abc"), 1);
}

TEST_F(Stricmp, PunctuationBetweenTheCasesOrdersAsAgainstCapitals)
{
    for (const char* between : {"[", "\\", "]", "^", "_", "`"}) {
        EXPECT_EQ(stricmp(between, "a"), 1) << between;
        EXPECT_EQ(stricmp("z", between), -1) << between;
    }
}

TEST_F(Stricmp, BytesCompareAsUnsigned)
{
    EXPECT_EQ(stricmp("\x80", "z"), 1);
    EXPECT_EQ(stricmp("\x7F", "\x80"), -1);
}

TEST_F(Stricmp, BytesAboveAsciiAreNotFoldedInAnyLocale)
{
    const Latin1Locale locale;
    EXPECT_EQ(stricmp("\xE4", "\xC4"), 1);
    EXPECT_EQ(stricmp("\xC4", "\xE4"), -1);
}

TEST_F(Stricmp, OrdersEveryPairOfBytesByItsFoldedValue)
{
    for (int a = 1; a < kBytes; ++a) {
        for (int b = 1; b < kBytes; ++b) {
            ASSERT_EQ(stricmp(oneByte(a).c_str(), oneByte(b).c_str()),
                      modelCompare(oneByte(a), oneByte(b), UINT64_MAX))
                << a << " and " << b;
        }
    }
}

TEST_F(Stricmp, AgreesWithTheModelOnRandomTexts)
{
    std::mt19937 random(1);
    for (int i = 0; i < 20000; ++i) {
        const std::string a = randomText(random, "aAbB_\xE4\xC4 ", 6);
        const std::string b = randomText(random, "aAbB_\xE4\xC4 ", 6);
        ASSERT_EQ(stricmp(a.c_str(), b.c_str()), modelCompare(a, b, UINT64_MAX)) << a << '|' << b;
    }
}

// --- strnicmp

TEST_F(Strnicmp, ComparesAtMostTheCount)
{
    EXPECT_EQ(strnicmp("abcX", "ABCy", 3), 0);
    EXPECT_EQ(strnicmp("abcX", "ABCy", 4), -1);
}

TEST_F(Strnicmp, ACountOfZeroMakesAllTextsEqual)
{
    EXPECT_EQ(strnicmp("a", "b", 0), 0);
}

TEST_F(Strnicmp, ACountOfZeroReadsNeitherText)
{
    const auto* nowhere = reinterpret_cast<const char*>(uintptr_t{1});
    EXPECT_EQ(strnicmp(nowhere, nowhere, 0), 0);
}

TEST_F(Strnicmp, NullIsReadAsTheEmptyText)
{
    EXPECT_EQ(strnicmp(nullptr, "", 5), 0);
    EXPECT_EQ(strnicmp(nullptr, nullptr, 5), 0);
    EXPECT_EQ(strnicmp(nullptr, "a", 5), -1);
    EXPECT_EQ(strnicmp("a", nullptr, 5), 1);
    EXPECT_EQ(strnicmp(nullptr, "a", 0), 0);
}

TEST_F(Strnicmp, StopsAtTheTerminatorWhateverTheCount)
{
    EXPECT_EQ(strnicmp("abc", "ABC", UINT32_MAX), 0);
    EXPECT_EQ(strnicmp("abc", "ABCD", UINT32_MAX), -1);
    EXPECT_EQ(strnicmp("abc\0x", "ABC\0y", 5), 0);
}

TEST_F(Strnicmp, ReadsNoByteBeyondTheCount)
{
    // On the heap and without a terminator, so that a sanitizer sees the first byte too many.
    const std::vector<char> a = {'a', 'B', 'c'};
    const std::vector<char> b = {'A', 'b', 'C'};
    EXPECT_EQ(strnicmp(a.data(), b.data(), 3), 0);
}

TEST_F(Strnicmp, AgreesWithTheModelOnRandomTexts)
{
    std::mt19937 random(2);
    for (int i = 0; i < 20000; ++i) {
        const std::string a = randomText(random, "aAbB_\xE4\xC4 ", 6);
        const std::string b = randomText(random, "aAbB_\xE4\xC4 ", 6);
        const uint32_t n = std::uniform_int_distribution<uint32_t>(0, 8)(random);
        ASSERT_EQ(strnicmp(a.c_str(), b.c_str(), n), modelCompare(a, b, n))
            << a << '|' << b << '|' << n;
    }
}

// --- StrToArgv

// A split text with what came back.
struct Split {
    std::string text;  // as the call left it
    int count = -1;
    char** argv = nullptr;
    int16_t status = 1;

    explicit Split(std::string_view line, int16_t tag = 0) : text(line)
    {
        status = StrToArgv(text.data(), &count, &argv, tag);
    }

    std::vector<std::string> words() const { return {argv, argv + count}; }
};

std::vector<std::string> modelWords(const std::string& line)
{
    std::vector<std::string> words;
    bool inWord = false;
    for (const char c : line) {
        const bool space = isModelSpace(static_cast<unsigned char>(c));
        if (!space && !inWord) {
            words.emplace_back();
        }
        if (!space) {
            words.back() += c;
        }
        inWord = !space;
    }
    return words;
}

TEST_F(Words, AreSeparatedByRunsOfWhiteSpace)
{
    const Split split("  one\ttwo  three ");
    EXPECT_EQ(split.status, 0);
    EXPECT_EQ(split.count, 3);
    EXPECT_EQ(split.words(), (std::vector<std::string>{"one", "two", "three"}));
}

TEST_F(Words, AnEmptyTextHasNone)
{
    char* dummy = nullptr;
    char** argv = &dummy;
    int count = 7;
    char text[] = "";
    EXPECT_EQ(StrToArgv(text, &count, &argv, 0), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(argv, nullptr);
}

TEST_F(Words, BlanksOnlyHaveNone)
{
    char* dummy = nullptr;
    char** argv = &dummy;
    int count = 7;
    char text[] = " \t\n\v\f\r ";
    EXPECT_EQ(StrToArgv(text, &count, &argv, 0), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(argv, nullptr);
}

TEST_F(Words, WithoutAnyNothingIsAllocatedOrChanged)
{
    resetCalls();
    const Split split("  \t ");
    EXPECT_EQ(callCount(Call::kGetMemory), 0);
    EXPECT_EQ(split.text, "  \t ");
}

TEST_F(Words, QuotesAndBackslashesArePartOfThem)
{
    EXPECT_EQ(Split("\"a b\"").words(), (std::vector<std::string>{"\"a", "b\""}));
    EXPECT_EQ(Split("'a b' c\\ d").words(), (std::vector<std::string>{"'a", "b'", "c\\", "d"}));
}

TEST_F(Words, EverySeparatorSeparates)
{
    EXPECT_EQ(Split("a b\tc\nd\ve\ff\rg").words(),
              (std::vector<std::string>{"a", "b", "c", "d", "e", "f", "g"}));
}

TEST_F(Words, OnlyTheSixBlanksSeparate)
{
    for (int byte = 1; byte < kBytes; ++byte) {
        EXPECT_EQ(Split("a" + oneByte(byte) + "b").count, isModelSpace(byte) ? 2 : 1) << byte;
    }
}

TEST_F(Words, TheLocaleOfTheHostAddsNoSeparator)
{
    const Latin1Locale locale;
    for (int byte = 0x80; byte < kBytes; ++byte) {
        EXPECT_EQ(Split("a" + oneByte(byte) + "b").count, 1) << byte;
        EXPECT_EQ(Split(oneByte(byte)).count, 1) << byte;
    }
}

TEST_F(Words, OneWordWithoutBlanksIsTheWholeText)
{
    const Split split("word");
    EXPECT_EQ(split.count, 1);
    EXPECT_EQ(split.argv[0], split.text.data());
    EXPECT_EQ(split.text, "word");
}

TEST_F(Words, LiveInsideTheCallersText)
{
    const Split split(" one two");
    EXPECT_EQ(split.argv[0], split.text.data() + 1);
    EXPECT_EQ(split.argv[1], split.text.data() + 5);
}

TEST_F(Words, AllWhiteSpaceBecomesTerminators)
{
    EXPECT_EQ(Split("  a \t b\n\n").text, std::string("\0\0a\0\0\0b\0\0", 9));
}

TEST_F(Words, TheArrayHasExactlyAnEntryForEach)
{
    resetCalls();
    const Split split("a b c");
    const std::vector<CallRecord> trace = callTrace({Call::kGetMemory});
    ASSERT_EQ(trace.size(), 1U);
    EXPECT_EQ(trace[0].args[0], static_cast<int64_t>(3 * sizeof(char*)));
}

TEST_F(Words, TheArrayBelongsToTheCallersTag)
{
    const int16_t tag = rm_allocTag(nullptr, 1000);
    const int32_t before = rm_memoryAvail(tag);
    const Split split("a b", tag);
    EXPECT_LT(rm_memoryAvail(tag), before);
    rm_freeMemory(split.argv, tag);
    EXPECT_EQ(rm_memoryAvail(tag), before);
}

TEST_F(Words, AnArrayThatCannotBeHadGivesOutOfMemory)
{
    const ScopedFault fault({.call = Call::kGetMemory});
    char* dummy = nullptr;
    char** argv = &dummy;
    int count = 0;
    char text[] = " one two ";
    EXPECT_EQ(StrToArgv(text, &count, &argv, 0), RM_OUT_OF_MEMORY);
    EXPECT_EQ(count, 2) << "stored before the array is asked for";
    EXPECT_EQ(argv, &dummy) << "left as it was";
    EXPECT_STREQ(text, " one two ") << "not split";
}

TEST_F(Words, AnArrayThatCannotBeHadIsNotLogged)
{
    const ScopedFault fault({.call = Call::kGetMemory});
    EXPECT_EQ(rmtest::captureStderr([] { EXPECT_EQ(Split("a").status, RM_OUT_OF_MEMORY); }), "");
}

TEST_F(Words, WithoutMemoryTheFatalPathLeavesTextAndArrayAlone)
{
    char* dummy = nullptr;
    char** argv = &dummy;
    int count = 0;
    char text[] = " one two ";
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    {
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
        const std::string log = rmtest::captureStderr(
            [&] { EXPECT_EQ(catchFatal([&] { StrToArgv(text, &count, &argv, tag); }), 1); });
        EXPECT_EQ(rmtest::logLines(log).at(0), "Out of memory!");
    }
    EXPECT_EQ(count, 2);
    EXPECT_EQ(argv, &dummy);
    EXPECT_STREQ(text, " one two ");
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

// A text of that many words, and their array, do not fit into what 32 bits address.
#if UINTPTR_MAX > UINT32_MAX
// One gigabyte of "a a a ...", the same 16 MB over and over again, and a terminator.
class HugeText
{
  public:
    HugeText()
    {
        const std::string part = [] {
            std::string words(kPart, ' ');
            for (std::size_t i = 0; i < kPart; i += 2) {
                words[i] = 'a';
            }
            return words;
        }();
        const int file = memfd_create("words", MFD_CLOEXEC);
        EXPECT_EQ(write(file, part.data(), kPart), static_cast<ssize_t>(kPart));
        // The page behind the parts stays zero.
        text_ = static_cast<char*>(mmap(nullptr, kSize + kPart, PROT_READ | PROT_WRITE,
                                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        for (std::size_t at = 0; at < kSize; at += kPart) {
            EXPECT_NE(mmap(text_ + at, kPart, PROT_READ, MAP_SHARED | MAP_FIXED, file, 0),
                      MAP_FAILED);
        }
        close(file);
    }

    ~HugeText() { munmap(text_, kSize + kPart); }

    HugeText(const HugeText&) = delete;
    HugeText& operator=(const HugeText&) = delete;

    char* text() { return text_; }

    static constexpr int kWords = 1 << 29;  // of which the pointers take 4 GiB

  private:
    static constexpr std::size_t kPart = std::size_t{16} << 20;
    static constexpr std::size_t kSize = std::size_t{kWords} * 2;

    char* text_;
};

TEST_F(Words, MoreThanAnArrayCanHoldAreOutOfMemory)
{
    HugeText huge;
    char* dummy = nullptr;
    char** argv = &dummy;
    int count = 0;
    EXPECT_EQ(StrToArgv(huge.text(), &count, &argv, 0), RM_OUT_OF_MEMORY);
    EXPECT_EQ(count, HugeText::kWords);
    EXPECT_EQ(argv, &dummy);
}

#endif

TEST_F(Words, AnInvalidTagIsFatal)
{
    char* dummy = nullptr;
    char** argv = &dummy;
    int count = 0;
    char text[] = " one two ";
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    const std::string log = rmtest::captureStderr(
        [&] { EXPECT_EQ(catchFatal([&] { StrToArgv(text, &count, &argv, 99); }), 1); });
    EXPECT_EQ(rmtest::logLines(log).at(0), "Invalid tag 99 supplied to rm_getMemory");
    EXPECT_EQ(count, 2);
    EXPECT_EQ(argv, &dummy);
    EXPECT_STREQ(text, " one two ");
}

TEST_F(Words, AgreeWithTheModelOnRandomTexts)
{
    std::mt19937 random(3);
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    for (int i = 0; i < 5000; ++i) {
        const std::string line = randomText(random, "ab\"\\\xA0 \t\n\v\f\r", 20);
        const Split split(line, tag);
        ASSERT_EQ(split.status, 0);
        ASSERT_EQ(split.words(), modelWords(line)) << line;
        std::string cleared = line;
        if (split.count > 0) {
            for (char& c : cleared) {
                c = isModelSpace(static_cast<unsigned char>(c)) ? '\0' : c;
            }
        }
        ASSERT_EQ(split.text, cleared) << line;
        rm_freeMemory(split.argv, tag);
    }
    EXPECT_EQ(rmalloc::tagTable[tag].allocated, 0U);
}

// --- StrArrayCat

TEST_F(Joined, EntriesFollowEachOtherWithoutSeparator)
{
    const char* const entries[] = {"a", nullptr, "bc"};
    EXPECT_STREQ(StrArrayCat(entries, 3, 0), "abc");
}

TEST_F(Joined, TheBlockHasRoomForTheTextAndItsTerminator)
{
    const char* const entries[] = {"a", nullptr, "bc"};
    resetCalls();
    StrArrayCat(entries, 3, 0);
    const std::vector<CallRecord> trace = callTrace({Call::kGetMemory});
    ASSERT_EQ(trace.size(), 1U);
    EXPECT_EQ(trace[0].args[0], 4);
}

TEST_F(Joined, OnlyTheFirstCountEntriesAreTaken)
{
    const char* const entries[] = {"a", "b", "c"};
    EXPECT_STREQ(StrArrayCat(entries, 2, 0), "ab");
}

TEST_F(Joined, EmptyEntriesAddNothing)
{
    const char* const entries[] = {"", "x", ""};
    EXPECT_STREQ(StrArrayCat(entries, 3, 0), "x");
    EXPECT_STREQ(StrArrayCat(entries, 1, 0), "");
}

TEST_F(Joined, BelongsToTheCallersTag)
{
    const char* const entries[] = {"abc"};
    const int16_t tag = rm_allocTag(nullptr, 1000);
    const int32_t before = rm_memoryAvail(tag);
    char* joined = StrArrayCat(entries, 1, tag);
    EXPECT_EQ(rm_memoryAvail(tag), before - 16);
    rm_freeMemory(joined, tag);
    EXPECT_EQ(rm_memoryAvail(tag), before);
}

// What the allocator hands out is one byte of this.
char handedOut[8];

// Arms rm_getMemory to hand out a byte that holds an 'x'.
rmtest::Fault handOutAnX()
{
    std::memset(handedOut, 'x', sizeof handedOut);
    return {.call = Call::kGetMemory, .action = [](const CallRecord& call) -> int64_t {
                EXPECT_EQ(call.args[0], 1);
                return static_cast<int64_t>(reinterpret_cast<intptr_t>(handedOut));
            }};
}

TEST_F(Joined, WithACountOfZeroTheBlockIsLeftAsTheAllocatorGaveIt)
{
    const ScopedFault fault(handOutAnX());
    EXPECT_EQ(StrArrayCat(nullptr, 0, 0), handedOut);
    EXPECT_EQ(handedOut[0], 'x');
}

TEST_F(Joined, WithANegativeCountTheBlockIsLeftAsTheAllocatorGaveIt)
{
    const ScopedFault fault(handOutAnX());
    EXPECT_EQ(StrArrayCat(nullptr, INT16_MIN, 0), handedOut);
    EXPECT_EQ(handedOut[0], 'x');
}

TEST_F(Joined, WithNullEntriesOnlyTheBlockIsLeftAsTheAllocatorGaveIt)
{
    const char* const entries[] = {nullptr, nullptr};
    const ScopedFault fault(handOutAnX());
    EXPECT_EQ(StrArrayCat(entries, 2, 0), handedOut);
    EXPECT_EQ(handedOut[0], 'x');
}

TEST_F(Joined, ABlockThatCannotBeHadGivesNull)
{
    const char* const entries[] = {"a"};
    const ScopedFault fault({.call = Call::kGetMemory});
    EXPECT_EQ(rmtest::captureStderr([&] { EXPECT_EQ(StrArrayCat(entries, 1, 0), nullptr); }), "");
}

TEST_F(Joined, WithoutMemoryIsFatal)
{
    const char* const entries[] = {"a"};
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
    const std::string log = rmtest::captureStderr(
        [&] { EXPECT_EQ(catchFatal([&] { StrArrayCat(entries, 1, tag); }), 1); });
    EXPECT_EQ(rmtest::logLines(log).at(0), "Out of memory!");
}

TEST_F(Joined, MoreThanFourGigabytesAreOutOfMemory)
{
    // 32,767 times the same text of 132,000 bytes: the sum passes 2^32.
    const std::string text(132000, 'x');
    const std::vector<const char*> entries(INT16_MAX, text.c_str());
    const std::string log = rmtest::captureStderr(
        [&] { EXPECT_EQ(catchFatal([&] { StrArrayCat(entries.data(), INT16_MAX, 0); }), 1); });
    EXPECT_EQ(rmtest::logLines(log).at(0), "Out of memory!");
}

TEST_F(Joined, AgreesWithTheModelOnRandomArrays)
{
    std::mt19937 random(4);
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    for (int i = 0; i < 3000; ++i) {
        std::vector<std::string> texts(std::uniform_int_distribution<std::size_t>(1, 5)(random));
        std::vector<const char*> entries;
        std::string expected;
        bool any = false;
        for (std::string& text : texts) {
            text = randomText(random, "ab", 9);
            const bool null = std::uniform_int_distribution<>(0, 3)(random) == 0;
            entries.push_back(null ? nullptr : text.c_str());
            expected += null ? "" : text;
            any = any || !null;
        }
        char* joined = StrArrayCat(entries.data(), static_cast<int16_t>(entries.size()), tag);
        if (any) {
            ASSERT_EQ(joined, expected);
        }
        rm_freeMemory(joined, tag);
    }
}

// --- StrArrayCatBuf

// A buffer in the middle of bytes that must stay as they are.
class GuardedBuffer
{
  public:
    static constexpr char kFill = '#';

    explicit GuardedBuffer(std::size_t size) : size_(size), bytes_(size + 2 * kGuard, kFill) {}

    char* data() { return bytes_.data() + kGuard; }

    // The bytes of the buffer, terminators shown as '.' and untouched ones as '#'.
    std::string shown() const
    {
        std::string text(bytes_.begin() + kGuard,
                         bytes_.begin() + kGuard + static_cast<std::ptrdiff_t>(size_));
        for (char& c : text) {
            c = c == '\0' ? '.' : c;
        }
        return text;
    }

    // Nothing was written before the buffer, nor from its end on.
    bool sound() const
    {
        for (std::size_t i = 0; i < bytes_.size(); ++i) {
            const bool inside = i >= kGuard && i < kGuard + size_;
            if (!inside && bytes_[i] != kFill) {
                return false;
            }
        }
        return true;
    }

  private:
    static constexpr std::ptrdiff_t kGuard = 16;

    std::size_t size_;
    std::vector<char> bytes_;
};

TEST_F(JoinedInBuffer, WhatFitsIsJoinedWhole)
{
    GuardedBuffer buffer(6);
    const char* const entries[] = {"abc", "de"};
    EXPECT_EQ(StrArrayCatBuf(entries, 2, buffer.data(), 6), 0);
    EXPECT_EQ(buffer.shown(), "abcde.");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(JoinedInBuffer, WhatDoesNotFitIsCutAndTerminated)
{
    GuardedBuffer buffer(5);
    const char* const entries[] = {"abc", "de"};
    EXPECT_EQ(StrArrayCatBuf(entries, 2, buffer.data(), 5), -1);
    EXPECT_EQ(buffer.shown(), "abcd.");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(JoinedInBuffer, NoEntriesGiveAnEmptyText)
{
    GuardedBuffer buffer(4);
    EXPECT_EQ(StrArrayCatBuf(nullptr, 0, buffer.data(), 4), 0);
    EXPECT_EQ(buffer.shown(), ".###");
}

TEST_F(JoinedInBuffer, NullEntriesOnlyGiveAnEmptyText)
{
    GuardedBuffer buffer(4);
    const char* const entries[] = {nullptr, nullptr};
    EXPECT_EQ(StrArrayCatBuf(entries, 2, buffer.data(), 4), 0);
    EXPECT_EQ(buffer.shown(), ".###");
}

TEST_F(JoinedInBuffer, EmptyEntriesOnlyGiveAnEmptyText)
{
    GuardedBuffer buffer(4);
    const char* const entries[] = {"", ""};
    EXPECT_EQ(StrArrayCatBuf(entries, 2, buffer.data(), 4), 0);
    EXPECT_EQ(buffer.shown(), ".###");
}

TEST_F(JoinedInBuffer, NullEntriesAreSkipped)
{
    GuardedBuffer buffer(4);
    const char* const entries[] = {nullptr, "ab", nullptr, "c"};
    EXPECT_EQ(StrArrayCatBuf(entries, 4, buffer.data(), 4), 0);
    EXPECT_EQ(buffer.shown(), "abc.");
}

TEST_F(JoinedInBuffer, ATextOfExactlySizeMinusOneFits)
{
    GuardedBuffer buffer(4);
    const char* const entries[] = {"abc"};
    EXPECT_EQ(StrArrayCatBuf(entries, 1, buffer.data(), 4), 0);
    EXPECT_EQ(buffer.shown(), "abc.");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(JoinedInBuffer, ATextOfExactlyTheSizeIsCutByOne)
{
    GuardedBuffer buffer(4);
    const char* const entries[] = {"abcd"};
    EXPECT_EQ(StrArrayCatBuf(entries, 1, buffer.data(), 4), -1);
    EXPECT_EQ(buffer.shown(), "abc.");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(JoinedInBuffer, AFullBufferTakesEmptyEntriesButNoByteMore)
{
    GuardedBuffer buffer(4);
    const char* const fitting[] = {"abc", "", nullptr};
    EXPECT_EQ(StrArrayCatBuf(fitting, 3, buffer.data(), 4), 0);
    const char* const oneMore[] = {"abc", "d"};
    EXPECT_EQ(StrArrayCatBuf(oneMore, 2, buffer.data(), 4), -1);
    EXPECT_EQ(buffer.shown(), "abc.");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(JoinedInBuffer, NoEntryAfterTheCutIsReadOrCopied)
{
    GuardedBuffer buffer(3);
    const char* const entries[] = {"abc", reinterpret_cast<const char*>(uintptr_t{1})};
    EXPECT_EQ(StrArrayCatBuf(entries, 2, buffer.data(), 3), -1);
    EXPECT_EQ(buffer.shown(), "ab.");
}

TEST_F(JoinedInBuffer, ASizeOfOneHoldsTheTerminatorOnly)
{
    GuardedBuffer buffer(1);
    const char* const entries[] = {"a"};
    EXPECT_EQ(StrArrayCatBuf(entries, 1, buffer.data(), 1), -1);
    EXPECT_EQ(buffer.shown(), ".");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(JoinedInBuffer, ASizeOfZeroAndNothingToCopyStillWritesOneTerminator)
{
    GuardedBuffer buffer(1);
    EXPECT_EQ(StrArrayCatBuf(nullptr, 0, buffer.data(), 0), 0);
    EXPECT_EQ(buffer.shown(), ".");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(JoinedInBuffer, ASizeOfZeroAndAnEntryIsACutThatWritesNothing)
{
    GuardedBuffer buffer(1);
    const char* const text[] = {"a"};
    EXPECT_EQ(StrArrayCatBuf(text, 1, buffer.data(), 0), -1);
    const char* const empty[] = {""};
    EXPECT_EQ(StrArrayCatBuf(empty, 1, buffer.data(), 0), -1);
    EXPECT_EQ(buffer.shown(), "#");
}

TEST_F(JoinedInBuffer, AnEntryOf65536BytesCountsWithItsRealLength)
{
    GuardedBuffer buffer(UINT16_MAX);
    const std::string text(65536, 'x');
    const char* const entries[] = {text.c_str()};
    EXPECT_EQ(StrArrayCatBuf(entries, 1, buffer.data(), UINT16_MAX), -1);
    EXPECT_EQ(std::strlen(buffer.data()), UINT16_MAX - 1U);
    EXPECT_TRUE(buffer.sound());
}

TEST_F(JoinedInBuffer, AnEntryOfMoreThan65536BytesIsCutInASmallBuffer)
{
    GuardedBuffer buffer(8);
    const std::string text(65538, 'x');
    const char* const entries[] = {"ab", text.c_str()};
    EXPECT_EQ(StrArrayCatBuf(entries, 2, buffer.data(), 8), -1);
    EXPECT_EQ(buffer.shown(), "abxxxxx.");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(JoinedInBuffer, TheLargestBufferIsFilledToTheLastByte)
{
    GuardedBuffer buffer(UINT16_MAX);
    const std::string text(UINT16_MAX - 1, 'x');
    const char* const entries[] = {text.c_str()};
    EXPECT_EQ(StrArrayCatBuf(entries, 1, buffer.data(), UINT16_MAX), 0);
    EXPECT_EQ(buffer.data(), text);
    EXPECT_TRUE(buffer.sound());
}

TEST_F(JoinedInBuffer, TakesMoreThan32767Entries)
{
    GuardedBuffer buffer(UINT16_MAX);
    const std::vector<const char*> entries(40000, "x");
    EXPECT_EQ(StrArrayCatBuf(entries.data(), 40000, buffer.data(), UINT16_MAX), 0);
    EXPECT_EQ(std::strlen(buffer.data()), 40000U);
}

TEST_F(JoinedInBuffer, AgreesWithTheModelOnRandomArrays)
{
    std::mt19937 random(5);
    for (int i = 0; i < 20000; ++i) {
        const auto size = std::uniform_int_distribution<uint16_t>(0, 12)(random);
        std::vector<std::string> texts(std::uniform_int_distribution<std::size_t>(0, 4)(random));
        std::vector<const char*> entries;
        std::string whole;
        bool tooLong = false;
        for (std::string& text : texts) {
            text = randomText(random, "ab", 5);
            const bool null = std::uniform_int_distribution<>(0, 3)(random) == 0;
            entries.push_back(null ? nullptr : text.c_str());
            whole += null ? "" : text;
            tooLong = tooLong || (!null && whole.size() + 1 > size);
        }
        GuardedBuffer buffer(std::max<std::size_t>(size, 1));
        const int16_t status = StrArrayCatBuf(entries.data(), static_cast<uint16_t>(entries.size()),
                                              buffer.data(), size);
        ASSERT_EQ(status, tooLong ? -1 : 0) << whole << '|' << size;
        if (size > 0) {
            ASSERT_EQ(buffer.data(), whole.substr(0, size - 1U)) << size;
        }
        ASSERT_TRUE(buffer.sound());
    }
}

// --- StrncpyZ

TEST_F(BoundedCopy, IsAlwaysTerminated)
{
    GuardedBuffer buffer(3);
    EXPECT_EQ(StrncpyZ(buffer.data(), "hello", 3), buffer.data());
    EXPECT_EQ(buffer.shown(), "he.");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(BoundedCopy, ATextThatFitsIsCopiedWhole)
{
    GuardedBuffer buffer(6);
    StrncpyZ(buffer.data(), "hello", 6);
    EXPECT_EQ(buffer.shown(), "hello.");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(BoundedCopy, ATextOfExactlyTheSizeLosesItsLastByte)
{
    GuardedBuffer buffer(5);
    StrncpyZ(buffer.data(), "hello", 5);
    EXPECT_EQ(buffer.shown(), "hell.");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(BoundedCopy, TheRestOfTheSizeIsCleared)
{
    GuardedBuffer buffer(6);
    StrncpyZ(buffer.data(), "ab", 6);
    EXPECT_EQ(buffer.shown(), "ab....");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(BoundedCopy, ANullSourceIsReadAsTheEmptyText)
{
    GuardedBuffer buffer(3);
    EXPECT_EQ(StrncpyZ(buffer.data(), nullptr, 3), buffer.data());
    EXPECT_EQ(buffer.shown(), "...");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(BoundedCopy, ASizeOfOneHoldsTheTerminatorOnly)
{
    GuardedBuffer buffer(1);
    StrncpyZ(buffer.data(), "hello", 1);
    EXPECT_EQ(buffer.shown(), ".");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(BoundedCopy, ASizeOfZeroWritesNothing)
{
    GuardedBuffer buffer(1);
    EXPECT_EQ(StrncpyZ(buffer.data(), "hello", 0), buffer.data());
    EXPECT_EQ(buffer.shown(), "#");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(BoundedCopy, ANegativeSizeWritesNothing)
{
    GuardedBuffer buffer(1);
    for (const int n : {-1, -2, INT_MIN}) {
        EXPECT_EQ(StrncpyZ(buffer.data(), "hello", n), buffer.data());
        EXPECT_EQ(buffer.shown(), "#") << n;
        EXPECT_TRUE(buffer.sound()) << n;
    }
}

TEST_F(BoundedCopy, ReadsNoSourceByteBeyondTheSize)
{
    const std::vector<char> source = {'a', 'b', 'c'};
    char buffer[3];
    StrncpyZ(buffer, source.data(), 3);
    EXPECT_STREQ(buffer, "ab");
}

TEST_F(BoundedCopy, BytesOfAnyValueAreCopied)
{
    char buffer[4];
    StrncpyZ(buffer, "\xFF\x80\x01", 4);
    EXPECT_STREQ(buffer, "\xFF\x80\x01");
}

// --- FgetsTrim

// A stream over a file with the given bytes.
class Input
{
  public:
    explicit Input(std::string_view bytes)
    {
        rmtest::writeFile("input", bytes);
        stream_ = std::fopen("input", "r");
    }

    ~Input() { std::fclose(stream_); }

    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    std::FILE* stream() { return stream_; }

  private:
    std::FILE* stream_;
};

// What FgetsTrim gives, one string per line, with a buffer of `size` bytes, until it gives null.
std::vector<std::string> readAll(std::string_view bytes, int16_t size)
{
    Input input(bytes);
    GuardedBuffer buffer(static_cast<std::size_t>(size));
    std::vector<std::string> lines;
    while (FgetsTrim(buffer.data(), size, input.stream()) != nullptr) {
        lines.emplace_back(buffer.data());
        EXPECT_TRUE(buffer.sound());
    }
    EXPECT_TRUE(buffer.sound());
    return lines;
}

using Lines = std::vector<std::string>;

TEST_F(LineReading, TheNewlineIsDropped)
{
    EXPECT_EQ(readAll("one\ntwo\n", 80), (Lines{"one", "two"}));
}

TEST_F(LineReading, TheBufferItselfIsReturned)
{
    Input input("line\n");
    char buffer[10];
    EXPECT_EQ(FgetsTrim(buffer, 10, input.stream()), buffer);
}

TEST_F(LineReading, EmptyLinesAreLines)
{
    EXPECT_EQ(readAll("\n\nx\n\n", 80), (Lines{"", "", "x", ""}));
}

TEST_F(LineReading, ALongLineIsCutAndTheNextCallStartsAtTheNextLine)
{
    EXPECT_EQ(readAll("abcdefgh\nnext\n", 5), (Lines{"abcd", "next"}));
}

TEST_F(LineReading, ALineOfExactlySizeMinusOneBytesKeepsThemAll)
{
    EXPECT_EQ(readAll("abcd\nnext\n", 5), (Lines{"abcd", "next"}));
}

TEST_F(LineReading, ALineWhoseNewlineIsTheLastByteThatFits)
{
    EXPECT_EQ(readAll("abc\nnext\n", 5), (Lines{"abc", "next"}));
}

TEST_F(LineReading, TheLastLineNeedsNoNewline)
{
    EXPECT_EQ(readAll("one\ntwo", 80), (Lines{"one", "two"}));
}

TEST_F(LineReading, ALongLastLineWithoutNewlineIsCut)
{
    EXPECT_EQ(readAll("abcdefgh", 5), (Lines{"abcd"}));
}

TEST_F(LineReading, ALastLineOfExactlySizeMinusOneBytesWithoutNewline)
{
    EXPECT_EQ(readAll("abcd", 5), (Lines{"abcd"}));
}

TEST_F(LineReading, AtTheEndOfTheFileTheBufferIsEmptyAndTheResultNull)
{
    Input input("");
    GuardedBuffer buffer(4);
    EXPECT_EQ(FgetsTrim(buffer.data(), 4, input.stream()), nullptr);
    EXPECT_EQ(buffer.data()[0], '\0');
    EXPECT_TRUE(buffer.sound());
}

TEST_F(LineReading, AtTheEndOfTheFileTheRestOfTheBufferIsUntouched)
{
    Input input("");
    GuardedBuffer buffer(8);
    EXPECT_EQ(FgetsTrim(buffer.data(), 8, input.stream()), nullptr);
    EXPECT_EQ(buffer.shown(), ".#######");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(LineReading, BehindTheTerminatorTheBufferIsUntouched)
{
    Input input("ab\ncdefgh\n\nij");
    for (const char* expected : {"ab.####", "cdefgh.", ".######", "ij.####"}) {
        GuardedBuffer buffer(7);
        EXPECT_EQ(FgetsTrim(buffer.data(), 7, input.stream()), buffer.data());
        EXPECT_EQ(buffer.shown(), expected);
        EXPECT_TRUE(buffer.sound());
    }
}

TEST_F(LineReading, AReadErrorGivesNullAndAnEmptyBuffer)
{
    std::FILE* unreadable = std::fopen(".", "r");
    ASSERT_NE(unreadable, nullptr);
    char buffer[4] = "xxx";
    EXPECT_EQ(FgetsTrim(buffer, 4, unreadable), nullptr);
    EXPECT_EQ(buffer[0], '\0');
    std::fclose(unreadable);
}

TEST_F(LineReading, ACarriageReturnIsAByteOfTheLine)
{
    EXPECT_EQ(readAll("one\r\n", 80), (Lines{"one\r"}));
}

TEST_F(LineReading, ZeroBytesDoNotHideTheEndOfTheLine)
{
    Input input(std::string_view("ab\0cd\nnext\n", 11));
    char buffer[10];
    ASSERT_EQ(FgetsTrim(buffer, 10, input.stream()), buffer);
    EXPECT_EQ(std::string_view(buffer, 6), std::string_view("ab\0cd\0", 6));
    ASSERT_EQ(FgetsTrim(buffer, 10, input.stream()), buffer);
    EXPECT_STREQ(buffer, "next");
}

TEST_F(LineReading, ALineThatBeginsWithAZeroByteIsALine)
{
    Input input(std::string_view("\0\nnext\n", 7));
    char buffer[10];
    ASSERT_EQ(FgetsTrim(buffer, 10, input.stream()), buffer);
    EXPECT_STREQ(buffer, "");
    ASSERT_EQ(FgetsTrim(buffer, 10, input.stream()), buffer);
    EXPECT_STREQ(buffer, "next");
}

TEST_F(LineReading, ASizeOfTwoHoldsOneByte)
{
    EXPECT_EQ(readAll("a\nbcd\n\ne", 2), (Lines{"a", "b", "", "e"}));
}

TEST_F(LineReading, ASizeOfOneGivesAnEmptyTextForEachLine)
{
    EXPECT_EQ(readAll("one\n\nthree", 1), (Lines{"", "", ""}));
}

TEST_F(LineReading, ASizeOfOneGivesNullAtTheEndOfTheFile)
{
    Input input("");
    GuardedBuffer buffer(1);
    EXPECT_EQ(FgetsTrim(buffer.data(), 1, input.stream()), nullptr);
    EXPECT_EQ(buffer.shown(), ".");
    EXPECT_TRUE(buffer.sound());
}

TEST_F(LineReading, ASizeOfZeroOrLessConsumesTheLineAndWritesNothing)
{
    for (const int16_t size : {int16_t{0}, int16_t{-1}, int16_t{INT16_MIN}}) {
        Input input("one\ntwo\n");
        GuardedBuffer buffer(4);
        EXPECT_EQ(FgetsTrim(buffer.data(), size, input.stream()), buffer.data()) << size;
        EXPECT_EQ(buffer.shown(), "####") << size;
        EXPECT_TRUE(buffer.sound()) << size;
        EXPECT_EQ(FgetsTrim(buffer.data(), 4, input.stream()), buffer.data()) << size;
        EXPECT_EQ(buffer.shown().substr(0, 3), "two") << size;
    }
}

TEST_F(LineReading, ASizeOfZeroOrLessGivesNullAtTheEndOfTheFile)
{
    for (const int16_t size : {int16_t{0}, int16_t{INT16_MIN}}) {
        Input input("");
        GuardedBuffer buffer(4);
        EXPECT_EQ(FgetsTrim(buffer.data(), size, input.stream()), nullptr) << size;
        EXPECT_EQ(buffer.shown(), "####") << size;
        EXPECT_TRUE(buffer.sound()) << size;
    }
}

TEST_F(LineReading, APromptWithoutNewlineIsSeenBeforeTheRead)
{
    Input input("answer\n");
    const rmtest::ChildResult child = rmtest::runChild([&input] {
        char buffer[10];
        std::printf("prompt> ");
        FgetsTrim(buffer, 10, input.stream());
        _exit(0);  // without flushing anything more
    });
    EXPECT_EQ(child.out, "prompt> ");
}

TEST_F(LineReading, TheLargestSizeReadsALongLineWhole)
{
    const std::string line(INT16_MAX - 1, 'x');
    EXPECT_EQ(readAll(line + "\nnext\n", INT16_MAX), (Lines{line, "next"}));
}

TEST_F(LineReading, AgreesWithTheModelOnRandomFiles)
{
    std::mt19937 random(6);
    for (int i = 0; i < 500; ++i) {
        const std::string bytes = randomText(random, "abc\n", 40);
        const auto size = std::uniform_int_distribution<int16_t>(1, 8)(random);
        Lines expected;
        std::size_t at = 0;
        while (at < bytes.size()) {
            const std::size_t end = std::min(bytes.find('\n', at), bytes.size());
            expected.push_back(
                bytes.substr(at, std::min(end - at, static_cast<std::size_t>(size - 1))));
            at = end + 1;
        }
        ASSERT_EQ(readAll(bytes, size), expected) << bytes << '|' << size;
    }
}

// --- Literals

TEST(TextLiterals, AreReadAndNeverWritten)
{
    // They lie in memory that cannot be written: a write would end the process.
    char buffer[8];
    const char* const entries[] = {"abc", "DEF"};
    EXPECT_EQ(AllDigits("12"), 1);
    EXPECT_EQ(stricmp("abc", "ABC"), 0);
    EXPECT_EQ(strnicmp("abc", "ABC", 2), 0);
    EXPECT_STREQ(StrncpyZ(buffer, "literal", 8), "literal");
    EXPECT_EQ(StrArrayCatBuf(entries, 2, buffer, 8), 0);
    EXPECT_STREQ(buffer, "abcDEF");
    EXPECT_STREQ(StrArrayCat(entries, 2, 0), "abcDEF");
    rm_freeall();
}

TEST_F(Joined, AnEmptyEntryAloneIsTerminated)
{
    const ScopedFault fault(handOutAnX());
    const char* const entries[] = {nullptr, ""};
    EXPECT_EQ(StrArrayCat(entries, 2, 0), handedOut);
    EXPECT_EQ(handedOut[0], '\0');
    EXPECT_EQ(handedOut[1], 'x');
}

TEST_F(JoinedInBuffer, BehindATextThatFitsTheBufferStaysAsItIs)
{
    GuardedBuffer buffer(8);
    const char* const entries[] = {"ab", "c"};
    EXPECT_EQ(StrArrayCatBuf(entries, 2, buffer.data(), 8), 0);
    EXPECT_EQ(buffer.shown(), "abc.####");
}
}  // namespace
