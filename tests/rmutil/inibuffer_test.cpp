// Reading INI files: buffers of all sizes, long lines, zero bytes, and a last line without a
// newline.
#include "tests/rmutil/ini_case.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

using namespace initest;
using namespace std::string_view_literals;

namespace
{

class IniValueBuffer : public IniTest
{
};

class IniListBuffer : public IniTest
{
  protected:
    void SetUp() override
    {
        IniTest::SetUp();
        writeFile(kFile, "[ab]\nk=12\nl=3\n[cd]\n");
    }
};

class IniLongLines : public IniTest
{
};

class IniLastLine : public IniTest
{
};

class IniZeroBytes : public IniTest
{
};

// --- A value's buffer

TEST_F(IniValueBuffer, HoldsTwoBytesLessThanItsSizeAndTheZero)
{
    writeFile(kFile, "[a]\nk=123456\n");
    EXPECT_EQ(ask("a", "k", 8), (Answer{0, bytes({"123456"}) + untouched(1)})) << "fits exactly";
    EXPECT_EQ(ask("a", "k", 7), (Answer{0, bytes({"12345"}) + untouched(1)})) << "one short";
    EXPECT_EQ(ask("a", "k", 5), (Answer{0, bytes({"123"}) + untouched(1)}));
}

TEST_F(IniValueBuffer, IsFilledWithZerosButForItsLastByte)
{
    writeFile(kFile, "[a]\nk=12\n");
    EXPECT_EQ(ask("a", "k", 9), (Answer{0, "12" + std::string(6, '\0') + untouched(1)}));
}

TEST_F(IniValueBuffer, OfThreeBytesHoldsOne)
{
    writeFile(kFile, "[a]\nk=123\n");
    EXPECT_EQ(ask("a", "k", 3), (Answer{0, bytes({"1"}) + untouched(1)}));
}

TEST_F(IniValueBuffer, OfTwoBytesGetsAnEmptyText)
{
    writeFile(kFile, "[a]\nk=123\n");
    EXPECT_EQ(ask("a", "k", 2), (Answer{0, '\0' + untouched(1)}));
}

TEST_F(IniValueBuffer, OfOneByteGetsAnEmptyText)
{
    writeFile(kFile, "[a]\nk=123\n");
    EXPECT_EQ(ask("a", "k", 1), (Answer{0, std::string(1, '\0')}));
}

TEST_F(IniValueBuffer, OfNoBytesIsNotWritten)
{
    writeFile(kFile, "[a]\nk=123\n");
    EXPECT_EQ(ask("a", "k", 0), (Answer{0, ""}));
    EXPECT_EQ(ask("a", "l", 0), (Answer{RM_NOT_FOUND, ""}));
}

TEST_F(IniValueBuffer, OfANegativeSizeIsNotWritten)
{
    writeFile(kFile, "[a]\nk=123\n");
    for (const int16_t size : std::to_array<int16_t>({-1, -2, INT16_MIN + 1, INT16_MIN})) {
        EXPECT_EQ(ask("a", "k", size), (Answer{0, ""})) << size;
    }
}

TEST_F(IniValueBuffer, OfTheLargestSizeIsFilledWhole)
{
    const std::string text(40'000, 'v');
    writeFile(kFile, "[a]\nk=" + text + "\n");
    EXPECT_EQ(ask("a", "k", INT16_MAX),
              (Answer{0, bytes({text.substr(0, INT16_MAX - 2)}) + untouched(1)}));
}

TEST_F(IniValueBuffer, StaysAsItIsWhenNothingIsFound)
{
    writeFile(kFile, "[a]\nk=1\n");
    for (const int16_t size : {int16_t{1}, int16_t{2}, int16_t{3}, int16_t{100}}) {
        EXPECT_EQ(ask("a", "l", size), notFound(static_cast<std::size_t>(size))) << size;
        EXPECT_EQ(ask("b", "k", size), notFound(static_cast<std::size_t>(size))) << size;
    }
}

// --- A list's buffer

TEST_F(IniListBuffer, OfExactlyTheSizeHoldsTheWholeList)
{
    EXPECT_EQ(ask("ab", nullptr, 10), (Answer{0, bytes({"k=12", "l=3", ""})}));
    EXPECT_EQ(ask("ab", nullptr, 5, 0), (Answer{0, bytes({"k", "l", ""})}));
    EXPECT_EQ(ask(nullptr, nullptr, 7), (Answer{0, bytes({"ab", "cd", ""})}));
}

TEST_F(IniListBuffer, OneByteTooSmallCutsTheLastEntry)
{
    EXPECT_EQ(ask("ab", nullptr, 9), (Answer{0, bytes({"k=12", "l=", ""})}));
    EXPECT_EQ(ask(nullptr, nullptr, 6), (Answer{0, bytes({"ab", "c", ""})}));
}

TEST_F(IniListBuffer, OneByteLargerThanTheListStaysUntouchedBehindIt)
{
    EXPECT_EQ(ask("ab", nullptr, 11), (Answer{0, bytes({"k=12", "l=3", ""}) + untouched(1)}));
}

TEST_F(IniListBuffer, ThatEndsWithAnEntryEndsTheList)
{
    EXPECT_EQ(ask("ab", nullptr, 6), (Answer{0, bytes({"k=12", ""})}));
    EXPECT_EQ(ask(nullptr, nullptr, 4), (Answer{0, bytes({"ab", ""})}));
}

TEST_F(IniListBuffer, WithOneByteLeftGetsAnEmptyEntry)
{
    EXPECT_EQ(ask("ab", nullptr, 7), (Answer{0, bytes({"k=12", "", ""})}));
}

TEST_F(IniListBuffer, OfThreeBytesHoldsOne)
{
    EXPECT_EQ(ask("ab", nullptr, 3), (Answer{0, bytes({"k", ""})}));
    EXPECT_EQ(ask(nullptr, nullptr, 3), (Answer{0, bytes({"a", ""})}));
}

TEST_F(IniListBuffer, OfTwoBytesGetsAnEmptyEntryAndTheEnd)
{
    EXPECT_EQ(ask("ab", nullptr, 2), (Answer{0, bytes({"", ""})}));
    EXPECT_EQ(ask(nullptr, nullptr, 2), (Answer{0, bytes({"", ""})}));
    EXPECT_EQ(ask("no", nullptr, 2), (Answer{RM_NOT_FOUND, '\0' + untouched(1)}));
}

TEST_F(IniListBuffer, OfOneByteHasRoomForTheEndOnly)
{
    EXPECT_EQ(ask("ab", nullptr, 1), (Answer{RM_NOT_FOUND, std::string(1, '\0')}));
    EXPECT_EQ(ask(nullptr, nullptr, 1), (Answer{RM_NOT_FOUND, std::string(1, '\0')}));
}

TEST_F(IniListBuffer, OfNoBytesIsNotWritten)
{
    EXPECT_EQ(ask("ab", nullptr, 0), (Answer{RM_NOT_FOUND, ""}));
    EXPECT_EQ(ask(nullptr, nullptr, 0), (Answer{RM_NOT_FOUND, ""}));
}

TEST_F(IniListBuffer, OfANegativeSizeIsNotWritten)
{
    for (const int16_t size : std::to_array<int16_t>({-1, INT16_MIN + 1, INT16_MIN})) {
        EXPECT_EQ(ask("ab", nullptr, size), (Answer{RM_NOT_FOUND, ""})) << size;
        EXPECT_EQ(ask(nullptr, nullptr, size), (Answer{RM_NOT_FOUND, ""})) << size;
    }
}

TEST_F(IniListBuffer, ThatIsUsedUpStopsTheReading)
{
    writeFile(kFile, "[a]\nk=1\n" + std::string(100'000, 'x') + "\n");
    rmtest::resetCalls();
    EXPECT_EQ(ask("a", nullptr, 5), (Answer{0, bytes({"k=1", ""})}));
    EXPECT_LE(rmtest::callCount(Call::kRead), 2);
}

TEST_F(IniListBuffer, OfTheLargestSizeIsFilledWhole)
{
    std::string text = "[a]\n";
    std::string list;
    for (int i = 10'000; list.size() < INT16_MAX; ++i) {
        text += std::to_string(i) + '\n';
        list += std::to_string(i) + '\0';
    }
    writeFile(kFile, text);
    list.resize(INT16_MAX - 1);
    list.back() = '\0';
    EXPECT_EQ(ask("a", nullptr, INT16_MAX), (Answer{0, list + '\0'}));
}

// --- Long lines

TEST_F(IniLongLines, AreReadWholeAroundEverySizeThatMatters)
{
    for (const std::size_t length :
         {96U,  97U,  98U,  99U,  100U, 101U,  198U,  199U,  200U,  201U,  508U,
          509U, 510U, 511U, 512U, 513U, 1022U, 1023U, 1024U, 1025U, 5000U, 32'000U}) {
        std::string text;
        for (std::size_t i = 0; i < length; ++i) {
            text += static_cast<char>('a' + i % 26);
        }
        writeFile(kFile, "[a]\nj=1\nk=" + text + "\nl=2\n");
        const Answer answer = ask("a", "k", INT16_MAX);
        EXPECT_EQ(answer.result, RM_SUCCESS);
        EXPECT_EQ(answer.bytes.c_str(), text) << length;
        EXPECT_EQ(value("a", "l"), "2") << length;
        EXPECT_EQ(listOf(ask("a", nullptr, INT16_MAX)), (Texts{"j=1", "k=" + text, "l=2"}));
    }
}

TEST_F(IniLongLines, OfAHundredThousandBytesArePassed)
{
    const std::string longLine(100'000, 'x');
    writeFile(kFile, longLine + "\n;" + longLine + "\n[" + longLine + "]\n[a]\n" + longLine + "\n" +
                         longLine + "=1\nk=2\n");
    EXPECT_EQ(value("a", "k"), "2");
    EXPECT_EQ(value("a", longLine.c_str()), "1");
    EXPECT_EQ(value(longLine.c_str(), "k"), "2");
}

TEST_F(IniLongLines, OfAHundredThousandBytesAreCutToTheBuffer)
{
    const std::string longText(100'000, 'x');
    writeFile(kFile, "[" + longText + "]\nk=" + longText + "\n");
    EXPECT_EQ(ask(nullptr, nullptr, 12), (Answer{0, bytes({std::string(10, 'x'), ""})}));
    EXPECT_EQ(ask(longText.c_str(), "k", 12),
              (Answer{0, bytes({std::string(10, 'x')}) + untouched(1)}));
    EXPECT_EQ(ask(longText.c_str(), nullptr, 12), (Answer{0, bytes({"k=xxxxxxxx", ""})}));
}

TEST_F(IniLongLines, BringAHeaderAnywhereInABlock)
{
    for (std::size_t before = 480; before < 530; ++before) {
        writeFile(kFile, ';' + std::string(before, '.') + "\n[section]\r\nkey=value\r\n");
        ASSERT_EQ(value("section", "key"), "value") << before;
    }
}

// --- The last line

TEST_F(IniLastLine, WithoutANewlineIsNotReadWhenItsBlockWasReadBefore)
{
    writeFile(kFile, "[a]\nk=1\nl=2");
    EXPECT_EQ(value("a", "l"), "(not found)");
    EXPECT_THAT(entries("a"), ElementsAre("k=1"));
    writeFile(kFile, "[a]\n[b]");
    EXPECT_THAT(sections(), ElementsAre("a"));
}

TEST_F(IniLastLine, WithoutANewlineIsReadWhenItsBlockBeginsWithIt)
{
    const std::string start = "[a]\n;" + std::string(506, '.') + "\n";
    ASSERT_EQ(start.size(), 512U);
    writeFile(kFile, start + "l=2");
    EXPECT_EQ(value("a", "l"), "2");
    EXPECT_THAT(entries("a"), ElementsAre("l=2"));
    writeFile(kFile, start + "[b]");
    EXPECT_THAT(sections(), ElementsAre("a", "b"));
}

TEST_F(IniLastLine, WithoutANewlineIsReadWhenItReachesIntoABlock)
{
    const std::string start = "[a]\n;" + std::string(503, '.') + "\n";
    ASSERT_EQ(start.size(), 509U);
    writeFile(kFile, start + "l=2");
    EXPECT_EQ(value("a", "l"), "(not found)") << "its last byte is the last one of the block";
    writeFile(kFile, start + "l=23");
    EXPECT_EQ(value("a", "l"), "23") << "its last byte is the first one of a block";
}

TEST_F(IniLastLine, WithoutANewlineIsReadWhenTheWholeFileIsOneLine)
{
    writeFile(kFile, "[a]");
    EXPECT_THAT(sections(), ElementsAre("a"));
}

TEST_F(IniLastLine, WithoutANewlineIsReadWhenItIsLongerThanTheLineBuffer)
{
    const std::string text(97, 'v');
    writeFile(kFile, "[a]\nk=" + text);
    EXPECT_EQ(value("a", "k"), text) << "99 bytes fill the buffer";
    writeFile(kFile, "[a]\nk=" + text.substr(1));
    EXPECT_EQ(value("a", "k"), "(not found)") << "98 bytes do not";
    writeFile(kFile, "[a]\nk=" + text + text);
    EXPECT_EQ(value("a", "k"), text + text);
}

TEST_F(IniLastLine, ALongerLineBeforeMakesTheLineBufferLonger)
{
    const std::string text(198, 'v');
    writeFile(kFile, "[a]\nk=" + text);
    EXPECT_EQ(value("a", "k"), text) << "more than 100 bytes";
    writeFile(kFile, "[a]\n;" + std::string(197, '.') + "\nk=" + text);
    EXPECT_EQ(value("a", "k"), text) << "the comment has 199 bytes, which 200 hold";
    writeFile(kFile, "[a]\n;" + std::string(198, '.') + "\nk=" + text);
    EXPECT_EQ(value("a", "k"), "(not found)") << "the comment has 200, which takes 300";
}

TEST_F(IniLastLine, WithANewlineIsReadWhereverItEnds)
{
    for (std::size_t before = 495; before < 515; ++before) {
        writeFile(kFile, "[a]\n;" + std::string(before, '.') + "\nk=1\n");
        ASSERT_EQ(value("a", "k"), "1") << before;
    }
}

// --- Zero bytes

TEST_F(IniZeroBytes, AtTheBeginningOfALineEndTheFile)
{
    writeFile(kFile, "[a]\nk=1\n\0l=2\n[b]\n"sv);
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(value("a", "l"), "(not found)");
    EXPECT_THAT(entries("a"), ElementsAre("k=1"));
    EXPECT_THAT(sections(), ElementsAre("a"));
}

TEST_F(IniZeroBytes, InAShortLineEndTheFileBeforeIt)
{
    writeFile(kFile, "[a]\nk=1\nl=2\0003\nm=4\n"sv);
    EXPECT_EQ(value("a", "l"), "(not found)");
    EXPECT_EQ(value("a", "m"), "(not found)");
    EXPECT_THAT(entries("a"), ElementsAre("k=1"));
}

TEST_F(IniZeroBytes, InALongLineEndTheFileBehindTheBytesBeforeThem)
{
    const std::string text(150, 'v');
    writeFile(kFile, "[a]\nk=" + text + '\0' + "more\nl=1\n");
    EXPECT_EQ(value("a", "k"), text);
    EXPECT_EQ(value("a", "l"), "(not found)");
}

TEST_F(IniZeroBytes, AloneMakeAnEmptyFile)
{
    writeFile(kFile, std::string(2000, '\0'));
    EXPECT_THAT(sections(), IsEmpty());
    EXPECT_EQ(value("a", "k"), "(not found)");
}

}  // namespace
