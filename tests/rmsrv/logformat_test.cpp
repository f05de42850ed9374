// The second expansion of a text: every conversion prints the zero of its type.
//
// The platform's own printf, given that zero, is the reference wherever it defines a conversion.
#include "frame.h"

#include <cinttypes>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <random>

namespace
{
using rmtest::captureStderr;
using rmtest::logLines;

constexpr std::size_t kSize = rmsrv::kLogMessageSize;

class ZeroExpansion : public rmtest::FrameTest
{
};

class ZeroExpansionRandom : public rmtest::FrameTest
{
};

// The expansion of `text` in a buffer of exactly `size` bytes.
std::string expand(const std::string& text, std::size_t size = kSize)
{
    std::vector<char> buffer(size, '?');
    const std::size_t length = rmsrv::expandOverZeros(buffer.data(), size, text.c_str());
    EXPECT_LT(length, size);
    EXPECT_EQ(length, strnlen(buffer.data(), size));
    return {buffer.data(), length};
}

// --- Texts without conversions

TEST_F(ZeroExpansion, CopiesATextWithoutPercentSigns)
{
    EXPECT_EQ(expand("plain text\n"), "plain text\n");
    EXPECT_EQ(expand(""), "");
}

TEST_F(ZeroExpansion, TwoPercentSignsAreOne)
{
    EXPECT_EQ(expand("%%"), "%");
    EXPECT_EQ(expand("a%%b%%%%c"), "a%b%%c");
}

TEST_F(ZeroExpansion, APercentSignTakesFlagsAndWidthWithIt)
{
    EXPECT_EQ(expand("% %d"), "%d");
    EXPECT_EQ(expand("%5%|%-05.3l%"), "%|%");
}

TEST_F(ZeroExpansion, ALonePercentSignAtTheEndStays)
{
    EXPECT_EQ(expand("100%"), "100%");
    EXPECT_EQ(expand("%"), "%");
    EXPECT_EQ(expand("%%%"), "%%");
}

TEST_F(ZeroExpansion, AConversionThatTheTextCutsOffStays)
{
    EXPECT_EQ(expand("a%-05"), "a%-05");
    EXPECT_EQ(expand("a%5.3l"), "a%5.3l");
    EXPECT_EQ(expand("a%*."), "a%*.");
}

TEST_F(ZeroExpansion, AnUnknownConversionStays)
{
    EXPECT_EQ(expand("%y"), "%y");
    EXPECT_EQ(expand("%$d"), "%$d");
    EXPECT_EQ(expand("a%-5.2lyb"), "a%-5.2lyb");
    EXPECT_EQ(expand("%\x80%\xFF"), "%\x80%\xFF");
}

TEST_F(ZeroExpansion, WhatFollowsAnUnknownConversionIsExpanded)
{
    EXPECT_EQ(expand("%y%d"), "%y0");
}

// --- The zero of each type

TEST_F(ZeroExpansion, IntegersAreZero)
{
    EXPECT_EQ(expand("%d %i %u %o %x %X"), "0 0 0 0 0 0");
}

TEST_F(ZeroExpansion, EveryLengthIsAccepted)
{
    EXPECT_EQ(expand("%hhd %hd %ld %lld %qd %jd %zd %Zd %td"), "0 0 0 0 0 0 0 0 0");
    EXPECT_EQ(expand("%Lf %lf %Le"), "0.000000 0.000000 0.000000e+00");
}

TEST_F(ZeroExpansion, FloatsAreZero)
{
    EXPECT_EQ(expand("%f %F %e %E %g %G"), "0.000000 0.000000 0.000000e+00 0.000000E+00 0 0");
    EXPECT_EQ(expand("%a %A"), "0x0p+0 0X0P+0");
}

TEST_F(ZeroExpansion, TextsAreNull)
{
    EXPECT_EQ(expand("%s|%ls|%S"), "(null)|(null)|(null)");
}

TEST_F(ZeroExpansion, ATextTooShortForNullIsEmpty)
{
    EXPECT_EQ(expand("<%.5s><%.0s><%.s><%3.2s>"), "<><><><   >");
    EXPECT_EQ(expand("<%.6s><%.7s>"), "<(null)><(null)>");
}

TEST_F(ZeroExpansion, PointersAreNil)
{
    EXPECT_EQ(expand("%p"), "(nil)");
}

TEST_F(ZeroExpansion, AMessageOfErrnoIsThatOfTheCaller)
{
    errno = ENOENT;
    EXPECT_EQ(expand("%m %m"), "No such file or directory No such file or directory");
}

TEST_F(ZeroExpansion, ACountPrintsNothing)
{
    EXPECT_EQ(expand("a%nb%hhnc%lnd%5ne%*nf%1$ng"), "abcdefg");
}

TEST_F(ZeroExpansion, ACharacterEndsTheText)
{
    EXPECT_EQ(expand("before%cafter"), "before");
    EXPECT_EQ(expand("%c"), "");
    EXPECT_EQ(expand("%lc%C"), "");
}

TEST_F(ZeroExpansion, AWideCharacterFieldEndsTheTextAfterItsBlanks)
{
    EXPECT_EQ(expand("a%5cb"), "a    ");
    EXPECT_EQ(expand("a%-5cb"), "a");
}

// --- Flags, width, precision

TEST_F(ZeroExpansion, WidthAndPrecisionHold)
{
    EXPECT_EQ(expand("<%5d><%05d><%-5d><%+d><% d><%5.3d><%#x><%#o>"),
              "<    0><00000><0    ><+0>< 0><  000><0><0>");
    EXPECT_EQ(expand("<%.3f><%8.2f><%-8.2f><%08.2f><%#.0f>"),
              "<0.000><    0.00><0.00    ><00000.00><0.>");
}

TEST_F(ZeroExpansion, APrecisionOfZeroPrintsNoDigit)
{
    EXPECT_EQ(expand("<%.0d><%.d><%#.0o><%.0x>"), "<><><0><>");
}

TEST_F(ZeroExpansion, AStarIsZero)
{
    EXPECT_EQ(expand("<%*d><%-*d><%.*d><%*.*d><%.*s>"), "<0><0><><><>");
}

TEST_F(ZeroExpansion, PositionsAreAllTheSameZero)
{
    EXPECT_EQ(expand("%1$d %3$s %2$05d %1$*2$d %1$.*2$f"), "0 (null) 00000 0 0");
    EXPECT_EQ(expand("%999999999999999999999$d"), "0");
}

TEST_F(ZeroExpansion, RepeatedFlagsCountOnce)
{
    EXPECT_EQ(expand("<%-----5d><%+++++d><%00000000005d>"), "<0    ><+0><00000>");
    EXPECT_EQ(expand("%" + std::string(200, '-') + "5dx"), "0    x");
}

TEST_F(ZeroExpansion, GroupingAndForeignDigitsChangeNothing)
{
    EXPECT_EQ(expand("<%'d><%'5d><%Id>"), "<0><    0><0>");
}

// --- Bounds

TEST_F(ZeroExpansion, IsCutAtItsBuffer)
{
    const std::string text(1000, 'x');
    EXPECT_EQ(expand(text), std::string(kSize - 1, 'x'));
    EXPECT_EQ(expand("%300d"), std::string(kSize - 1, ' '));
    EXPECT_EQ(expand("%0300d"), std::string(kSize - 1, '0'));
    EXPECT_EQ(expand("%.300f"), "0." + std::string(kSize - 3, '0'));
    EXPECT_EQ(expand("%-300dx"), "0" + std::string(kSize - 2, ' '));
}

TEST_F(ZeroExpansion, EverySmallBufferGetsABeginning)
{
    errno = 0;
    const std::string text = "a%dbc%5s%%de%8.3fx%m%-6uy";
    const std::string whole = expand(text, 1000);
    for (std::size_t size = 1; size <= whole.size() + 2; ++size) {
        EXPECT_EQ(expand(text, size), whole.substr(0, size - 1));
    }
}

TEST_F(ZeroExpansion, ABufferOfNoBytesIsNotTouched)
{
    char untouched = '?';
    EXPECT_EQ(rmsrv::expandOverZeros(&untouched, 0, "text %d"), 0U);
    EXPECT_EQ(untouched, '?');
}

TEST_F(ZeroExpansion, AWidthBeyondAPrecisionThatFillsTheBufferStillShows)
{
    // Blanks to the width first, then the digits of the precision.
    EXPECT_EQ(expand("%300.280d"), std::string(20, ' ') + std::string(kSize - 1 - 20, '0'));
    EXPECT_EQ(expand("%310.300f"), std::string(8, ' ') + "0." + std::string(kSize - 11, '0'));
    EXPECT_EQ(expand("%20.15d", 10), "     0000");
    EXPECT_EQ(expand("%1020.1000d"), std::string(20, ' ') + std::string(kSize - 1 - 20, '0'));
    EXPECT_EQ(expand("%1010.1000f"), std::string(8, ' ') + "0." + std::string(kSize - 11, '0'));
    EXPECT_EQ(expand("%#1010.1000g"), std::string(9, ' ') + "0." + std::string(kSize - 12, '0'));
}

TEST_F(ZeroExpansion, AWidthBeyondTheBufferShowsBlanksOnly)
{
    // The value stands at the right end of its field, far outside.
    EXPECT_EQ(expand("%270s"), std::string(kSize - 1, ' '));
    EXPECT_EQ(expand("%+300e"), std::string(kSize - 1, ' '));
    EXPECT_EQ(expand("%-250dx%300s"), "0" + std::string(249, ' ') + "x" + std::string(8, ' '));
    EXPECT_EQ(expand("%20s", 10), std::string(9, ' '));
}

TEST_F(ZeroExpansion, AnAlternativeFormWithoutDigitsIsAsWideAsItIs)
{
    // The precision of "%g" adds no digits to a zero.
    EXPECT_EQ(expand("%5.300gx"), "    0x");
    EXPECT_EQ(expand("%280.1000g"), std::string(kSize - 1, ' '));
}

TEST_F(ZeroExpansion, ALargerBufferThanThatOfALogLineIsFilled)
{
    EXPECT_EQ(expand("%.400d", 1000), std::string(400, '0'));
    EXPECT_EQ(expand("%400d", 1000), std::string(399, ' ') + "0");
}

TEST_F(ZeroExpansion, HugeWidthsAndPrecisionsCostNoTime)
{
    const clock_t start = clock();
    for (int i = 0; i < 1000 && !HasFailure(); ++i) {
        EXPECT_EQ(expand("%2147483647d"), std::string(kSize - 1, ' '));
        EXPECT_EQ(expand("%.2147483647d"), std::string(kSize - 1, '0'));
        EXPECT_EQ(expand("%.999999999999f"), "0." + std::string(kSize - 3, '0'));
        EXPECT_EQ(expand("%99999999999999999999999s"), std::string(kSize - 1, ' '));
        EXPECT_EQ(expand("%99999999999999999999n"), "");
    }
    EXPECT_LT(clock() - start, 2 * CLOCKS_PER_SEC);
}

// --- The platform's printf as a model

using Random = std::mt19937;

std::size_t below(Random& random, std::size_t bound)
{
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
}

bool oneIn(Random& random, std::size_t n)
{
    return below(random, n) == 0;
}

template <typename T>
const T& oneOf(Random& random, const std::vector<T>& values)
{
    return values[below(random, values.size())];
}

// What printf makes of `format` with zeros for its stars and `zero` behind them.
template <typename Zero>
std::string printed(const std::string& format, int stars, Zero zero)
{
    std::vector<char> buffer(4096);
    int length = 0;
    switch (stars) {
        case 0:
            length = snprintf(buffer.data(), buffer.size(), format.c_str(), zero);
            break;
        case 1:
            length = snprintf(buffer.data(), buffer.size(), format.c_str(), 0, zero);
            break;
        default:
            length = snprintf(buffer.data(), buffer.size(), format.c_str(), 0, 0, zero);
            break;
    }
    EXPECT_GE(length, 0) << format;
    return {buffer.data(), static_cast<std::size_t>(std::max(length, 0))};
}

std::string printedInteger(const std::string& format, int stars, const std::string& length)
{
    if (length == "l") {
        return printed(format, stars, 0L);
    }
    if (length == "ll") {
        return printed(format, stars, 0LL);
    }
    if (length == "j") {
        return printed(format, stars, intmax_t{0});
    }
    if (length == "z") {
        return printed(format, stars, std::size_t{0});
    }
    if (length == "t") {
        return printed(format, stars, std::ptrdiff_t{0});
    }
    return printed(format, stars, 0);
}

// A piece of a text, and what it becomes.
struct Piece {
    std::string text;
    std::string expansion;
};

constexpr std::size_t kWidest = 1000;  // of a field; beyond the buffer, so that the cut is met too

struct Field {
    std::string before;  // flags, width and precision
    int stars = 0;
};

Field randomField(Random& random, const std::string& flags, bool hasPrecision)
{
    Field field;
    for (const char flag : flags) {
        if (oneIn(random, 4)) {
            field.before += flag;
        }
    }
    const std::size_t wide = oneIn(random, 10) ? kWidest : 12;
    if (oneIn(random, 8)) {
        field.before += '*';
        ++field.stars;
    } else if (oneIn(random, 2)) {
        field.before += std::to_string(1 + below(random, wide));
    }
    if (hasPrecision && oneIn(random, 2)) {
        field.before += '.';
        if (oneIn(random, 8)) {
            field.before += '*';
            ++field.stars;
        } else if (!oneIn(random, 8)) {
            field.before += std::to_string(below(random, wide));
        }
    }
    return field;
}

Piece randomConversion(Random& random)
{
    const std::string type(1, std::string("diouxXeEfFgGaAspc%nm")[below(random, 20)]);
    Field field;
    std::string length;
    std::string expansion;
    switch (type[0]) {
        case 'd':
        case 'i':
            field = randomField(random, "-+ 0", true);
            length = oneOf<std::string>(random, {"", "", "hh", "h", "l", "ll", "j", "z", "t"});
            expansion = printedInteger("%" + field.before + length + type, field.stars, length);
            break;
        case 'u':
            field = randomField(random, "-0", true);
            length = oneOf<std::string>(random, {"", "", "hh", "h", "l", "ll", "j", "z", "t"});
            expansion = printedInteger("%" + field.before + length + type, field.stars, length);
            break;
        case 'o':
        case 'x':
        case 'X':
            field = randomField(random, "-#0", true);
            length = oneOf<std::string>(random, {"", "", "hh", "h", "l", "ll", "j", "z", "t"});
            expansion = printedInteger("%" + field.before + length + type, field.stars, length);
            break;
        case 's':
            field = randomField(random, "-", true);
            length = oneOf<std::string>(random, {"", "l"});
            expansion = length.empty() ? printed("%" + field.before + type, field.stars,
                                                 static_cast<char*>(nullptr))
                                       : printed("%" + field.before + "l" + type, field.stars,
                                                 static_cast<wchar_t*>(nullptr));
            break;
        case 'p':
            field = randomField(random, "-", false);
            expansion =
                printed("%" + field.before + type, field.stars, static_cast<void*>(nullptr));
            break;
        case 'c':
            field = randomField(random, "-", false);
            expansion = printed("%" + field.before + type, field.stars, 0);
            break;
        case '%':
            expansion = "%";
            break;
        case 'n':
            length = oneOf<std::string>(random, {"", "hh", "h", "l", "ll", "j", "z", "t"});
            break;
        case 'm':
            expansion = std::strerror(errno);
            break;
        default:
            field = randomField(random, "-+ #0", true);
            length = oneOf<std::string>(random, {"", "", "l", "L"});
            expansion = length == "L"
                            ? printed("%" + field.before + "L" + type, field.stars, 0.0L)
                            : printed("%" + field.before + length + type, field.stars, 0.0);
            break;
    }
    const std::string position = type != "%" && field.stars == 0 && oneIn(random, 10)
                                     ? std::to_string(1 + below(random, 20)) + "$"
                                     : "";
    return {"%" + position + field.before + length + type, expansion};
}

Piece randomPiece(Random& random)
{
    if (oneIn(random, 3)) {
        std::string text;
        for (std::size_t n = below(random, 12); n > 0; --n) {
            text += static_cast<char>('!' + below(random, 94));
        }
        std::replace(text.begin(), text.end(), '%', '_');
        return {text, text};
    }
    Piece piece = randomConversion(random);
    // Characters end a text: let most of them run on.
    while (piece.text.ends_with('c') && !oneIn(random, 8)) {
        piece = randomConversion(random);
    }
    return piece;
}

// What reaches a log line: up to the first zero byte, and no more than fits.
std::string asMessage(const std::string& expansion, std::size_t size = kSize)
{
    return expansion.substr(0, std::min(expansion.find('\0'), size - 1));
}

Piece randomText(Random& random, std::size_t longest)
{
    Piece whole;
    for (std::size_t pieces = 1 + below(random, 12); pieces > 0; --pieces) {
        const Piece piece = randomPiece(random);
        if (whole.text.size() + piece.text.size() > longest) {
            break;
        }
        whole.text += piece.text;
        whole.expansion += piece.expansion;
    }
    return whole;
}

TEST_F(ZeroExpansionRandom, IsWhatPrintfMakesOfExplicitZeros)
{
    Random random(20240607);
    errno = ENOENT;
    for (int i = 0; i < 20'000 && !HasFailure(); ++i) {
        const Piece text = randomText(random, 1000);
        errno = ENOENT;
        EXPECT_EQ(expand(text.text), asMessage(text.expansion)) << text.text;
    }
}

TEST_F(ZeroExpansionRandom, IsTheSameInABufferOfAnySize)
{
    Random random(7);
    for (int i = 0; i < 5'000 && !HasFailure(); ++i) {
        errno = 0;
        const Piece text = randomText(random, 300);
        const std::size_t size = 1 + below(random, 600);
        errno = 0;
        EXPECT_EQ(expand(text.text, size), asMessage(text.expansion, size))
            << text.text << " in " << size;
    }
}

TEST_F(ZeroExpansionRandom, OptionalMessagesReachTheLogThroughIt)
{
    Random random(1996);
    rm_systemLog(1);
    for (int i = 0; i < 500 && !HasFailure(); ++i) {
        errno = ENOENT;
        const Piece text = randomText(random, kSize - 1);
        errno = ENOENT;
        const std::string err = captureStderr([&text] {
            errno = ENOENT;
            rm_systemLogOptWrite("%s", text.text.c_str());
        });
        EXPECT_EQ(logLines(err), std::vector<std::string>{asMessage(text.expansion)}) << text.text;
    }
}

TEST_F(ZeroExpansionRandom, NoTextReachesBeyondItsBuffer)
{
    Random random(99);
    const std::string bytes = "%%%%%%*$.-+ #0'I123456789hlqLjzZtdiouxXeEfFgGaAcCsSpmny\x80\xFF";
    for (int i = 0; i < 50'000 && !HasFailure(); ++i) {
        std::string text;
        for (std::size_t n = below(random, 60); n > 0; --n) {
            text += bytes[below(random, bytes.size())];
        }
        const std::size_t size = 1 + below(random, 300);
        static_cast<void>(expand(text, size));
    }
}
}  // namespace
