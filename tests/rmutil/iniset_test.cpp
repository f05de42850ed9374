// Changing INI files: entries that are set, byte for byte, and the place of a new one.
// Deleting is the subject of inidelete_test.cpp, the temporary file of inirewrite_test.cpp.
#include "tests/rmutil/ini_case.h"

#include <string>

using namespace initest;

namespace
{

class IniSet : public IniTest
{
};

class IniSetNew : public IniTest
{
};

class IniSetArguments : public IniTest
{
};

// --- An entry that is there

TEST_F(IniSet, ReplacesTheEntryAndKeepsItsPlace)
{
    expectChange("; head\n[a]\nj=1\nk=2\nl=3\n\n[b]\nk=4\n", "a", "k", "new",
                 "; head\n[a]\nj=1\nk=new\nl=3\n\n[b]\nk=4\n");
}

TEST_F(IniSet, ReplacesTheFirstAndTheLastEntryOfASection)
{
    expectChange("[a]\nk=1\nl=2\n[b]\n", "a", "k", "3", "[a]\nk=3\nl=2\n[b]\n");
    expectChange("[a]\nk=1\nl=2\n[b]\n", "a", "l", "3", "[a]\nk=1\nl=3\n[b]\n");
    expectChange("[a]\nk=1\nl=2\n", "a", "l", "3", "[a]\nk=1\nl=3\n");
}

TEST_F(IniSet, FindsTheEntryWhateverTheCaseAndWritesTheNewOne)
{
    expectChange("[SecTion]\nKEY=Old\n", "section", "kEy", "New", "[SecTion]\nkEy=New\n");
}

TEST_F(IniSet, ReplacesOnlyTheFirstOfDuplicateKeys)
{
    expectChange("[a]\nk=1\nK=2\nk=3\n", "a", "k", "new", "[a]\nk=new\nK=2\nk=3\n");
}

TEST_F(IniSet, ReplacesOnlyInTheFirstOfDuplicateSections)
{
    expectChange("[a]\nk=1\n[A]\nk=2\n", "A", "k", "new", "[a]\nk=new\n[A]\nk=2\n");
}

TEST_F(IniSet, DoesNotReplaceInAnotherSection)
{
    expectChange("[b]\nk=1\n\n[a]\nk=2\n", "a", "k", "new", "[b]\nk=1\n\n[a]\nk=new\n");
}

TEST_F(IniSet, ReplacesBehindAnEmptyLineOfTheSection)
{
    expectChange("[a]\n\n\nk=1\n", "a", "k", "new", "[a]\n\n\nk=new\n");
}

TEST_F(IniSet, ReplacesAnEntryWhoseValueHasEqualsSigns)
{
    expectChange("[a]\nk=1=2=3\n", "a", "k", "x=y", "[a]\nk=x=y\n");
}

TEST_F(IniSet, ReplacesAnEmptyValueAndByAnEmptyValue)
{
    expectChange("[a]\nk=\n", "a", "k", "1", "[a]\nk=1\n");
    expectChange("[a]\nk=1\n", "a", "k", "", "[a]\nk=\n");
}

TEST_F(IniSet, ReplacesTheEntryOfAnEmptyKey)
{
    expectChange("[a]\n=1\nk=2\n", "a", "", "new", "[a]\n=new\nk=2\n");
}

TEST_F(IniSet, ReplacesInASectionWithoutAName)
{
    expectChange("[]\nk=1\n", "", "k", "new", "[]\nk=new\n");
}

TEST_F(IniSet, ComparesNamesWithoutTrimming)
{
    expectChange("[a]\nk =1\nk=2\n", "a", "k", "new", "[a]\nk =1\nk=new\n");
    expectChange("[a]\nk =1\nk=2\n", "a", "k ", "new", "[a]\nk =new\nk=2\n");
    expectChange("[a ]\nk=1\n[a]\nk=2\n", "a", "k", "new", "[a ]\nk=1\n[a]\nk=new\n");
}

TEST_F(IniSet, ComparesNamesToTheirEnds)
{
    expectChange("[a]\nkey=1\nk=2\n", "a", "k", "new", "[a]\nkey=1\nk=new\n");
    expectChange("[a]\nk=1\nkey=2\n", "a", "key", "new", "[a]\nk=1\nkey=new\n");
    expectChange("[ab]\nk=1\n[a]\nk=2\n", "a", "k", "new", "[ab]\nk=1\n[a]\nk=new\n");
}

TEST_F(IniSet, WithTheSameValueLeavesTheSameBytes)
{
    expectChange("[a]\nk=1\n", "a", "k", "1", "[a]\nk=1\n");
}

TEST_F(IniSet, MayBeLongerThanABlock)
{
    const std::string text(3000, 'v');
    expectChange("[a]\nk=1\nl=2\n", "a", "k", text.c_str(), "[a]\nk=" + text + "\nl=2\n");
    expectChange("[a]\nk=" + text + "\nl=2\n", "a", "k", "1", "[a]\nk=1\nl=2\n");
}

TEST_F(IniSet, KeepsBytesAbove127)
{
    expectChange("[\xE4]\n\xF6=\xFC\n\xFF\n", "\xE4", "\xF6", "\x80", "[\xE4]\n\xF6=\x80\n\xFF\n");
}

TEST_F(IniSet, IsReadBack)
{
    writeFile(kFile, "[a]\nk=1\n");
    EXPECT_EQ(set("a", "k", " some text; [x] = y "), RM_SUCCESS);
    EXPECT_EQ(value("a", "k"), " some text; [x] = y ");
}

// --- Lines that are no entries

TEST_F(IniSet, NeverTakesACommentForAnEntry)
{
    expectChange("[a]\n;k=1\nk=2\n", "a", "k", "new", "[a]\n;k=1\nk=new\n");
    expectChange("[a]\n;k=1\n", "a", ";k", "new", "[a]\n;k=1\n;k=new\n");
}

TEST_F(IniSet, CopiesCommentsUnchanged)
{
    expectChange(";1\n; [a]\n[a]\n;k=0\n;\n;;x\nk=1\n; end\n", "a", "k", "new",
                 ";1\n; [a]\n[a]\n;k=0\n;\n;;x\nk=new\n; end\n");
}

TEST_F(IniSet, CopiesLinesWithoutAnEqualsSign)
{
    expectChange("[a]\nk\nsome text\nk=1\n", "a", "k", "new", "[a]\nk\nsome text\nk=new\n");
}

TEST_F(IniSet, TakesAHeaderWithTextBehindTheBracketAndKeepsIt)
{
    expectChange("[a] ; note\nk=1\n", "a", "k", "new", "[a] ; note\nk=new\n");
    expectChange("[a]b]\nk=1\n", "a", "k", "new", "[a]b]\nk=new\n");
}

TEST_F(IniSet, TakesAHeaderWithoutAClosingBracket)
{
    expectChange("[a\nk=1\n", "a", "k", "new", "[a\nk=new\n");
}

TEST_F(IniSet, TakesTheCarriageReturnOfAHeaderWithoutAClosingBracketForAPartOfItsName)
{
    expectChange("[a\r\nk=1\r\n", "a", "k", "new", "[a\r\nk=1\r\n\n[a]\nk=new\n");
}

TEST_F(IniSet, DoesNotTakeAnIndentedHeader)
{
    expectChange(" [a]\nk=1\n", "a", "k", "new", " [a]\nk=1\n\n[a]\nk=new\n");
}

// --- A new entry

TEST_F(IniSetNew, IsWrittenBeforeALineThatBeginsWithABlank)
{
    expectChange("[a]\nk=1\n indented=2\nl=3\n[b]\n", "a", "new", "x",
                 "[a]\nk=1\nnew=x\n indented=2\nl=3\n[b]\n");
}

TEST_F(IniSetNew, IsWrittenBeforeALineThatBeginsWithAnyWhiteSpace)
{
    for (const char space : {' ', '\t', '\v', '\f', '\r'}) {
        const std::string line = space + std::string("text\n");
        expectChange("[a]\nk=1\n" + line + "[b]\n", "a", "new", "x",
                     "[a]\nk=1\nnew=x\n" + line + "[b]\n");
    }
}

TEST_F(IniSetNew, IsWrittenBeforeAnEmptyLineWithACarriageReturn)
{
    expectChange("[a]\r\nk=1\r\n\r\n[b]\r\nl=2\r\n", "a", "new", "x",
                 "[a]\r\nk=1\r\nnew=x\n\r\n[b]\r\nl=2\r\n");
}

TEST_F(IniSetNew, IsWrittenBeforeALineOfOneBlank)
{
    expectChange("[a]\n \n[b]\n", "a", "new", "x", "[a]\nnew=x\n \n[b]\n");
}

TEST_F(IniSetNew, IsWrittenOnceBeforeTheFirstOfSuchLines)
{
    expectChange("[a]\n\r\n\r\n x\n", "a", "new", "x", "[a]\nnew=x\n\r\n\r\n x\n");
}

TEST_F(IniSetNew, IsWrittenBeforeWhiteSpaceAlsoWhenTheEntryFollows)
{
    expectChange("[a]\n x\nk=1\n", "a", "k", "new", "[a]\nk=new\n x\nk=1\n");
    expectChange("[a]\n k=1\n", "a", " k", "new", "[a]\n k=new\n k=1\n");
}

TEST_F(IniSetNew, IsNotWrittenBeforeAnEmptyLine)
{
    expectChange("[a]\nk=1\n\n", "a", "new", "x", "[a]\nk=1\n\nnew=x\n");
    expectChange("[a]\nk=1\n\n[b]\n", "a", "new", "x", "[a]\nk=1\n\n[b]\n");
}

TEST_F(IniSetNew, IsNotWrittenBeforeOtherBytesThatLookEmpty)
{
    expectChange("[a]\n\xA0\n\x85\n\x1F\n", "a", "new", "x", "[a]\n\xA0\n\x85\n\x1F\nnew=x\n");
}

TEST_F(IniSetNew, IsLostBeforeAnotherSection)
{
    const std::string text = "; head\n[a]\nk=1\n; end\n\n[b]\nl=2\n";
    expectChange(text, "a", "new", "x", text);
    expectChange("[a]\n[b]\n", "a", "new", "x", "[a]\n[b]\n");
}

TEST_F(IniSetNew, IsLostBeforeAnotherSectionOfTheSameName)
{
    expectChange("[a]\n[a]\n", "a", "new", "x", "[a]\n[a]\n");
}

TEST_F(IniSetNew, IsAppendedWhenTheSectionIsTheLastOne)
{
    expectChange("[a]\nk=1\n[b]\nl=2\n", "b", "new", "x", "[a]\nk=1\n[b]\nl=2\nnew=x\n");
    expectChange("[b]\n", "B", "New", "X", "[b]\nNew=X\n");
}

TEST_F(IniSetNew, IsAppendedBehindTheCommentsAndEmptyLinesOfTheLastSection)
{
    expectChange("[a]\nk=1\n\n; end\n\n", "a", "new", "x", "[a]\nk=1\n\n; end\n\nnew=x\n");
}

TEST_F(IniSetNew, OfANewSectionIsAppendedBehindAnEmptyLineAndTheHeader)
{
    expectChange("[a]\nk=1\n", "New", "Key", "Value", "[a]\nk=1\n\n[New]\nKey=Value\n");
}

TEST_F(IniSetNew, OfANewSectionInAnEmptyFileIsAllThereIs)
{
    expectChange("", "a", "k", "1", "\n[a]\nk=1\n");
}

TEST_F(IniSetNew, OfANewSectionIsAppendedToAFileWithoutSections)
{
    expectChange("; only this\nk=0\n", "a", "k", "1", "; only this\nk=0\n\n[a]\nk=1\n");
}

TEST_F(IniSetNew, IsAppendedWithANewlineAloneAlsoToLinesWithCarriageReturns)
{
    expectChange("[a]\r\nk=1\r\n", "a", "new", "x", "[a]\r\nk=1\r\nnew=x\n");
    expectChange("[a]\r\nk=1\r\n", "b", "new", "x", "[a]\r\nk=1\r\n\n[b]\nnew=x\n");
}

TEST_F(IniSetNew, MayHaveEmptyTexts)
{
    expectChange("[a]\n", "a", "", "", "[a]\n=\n");
    expectChange("[a]\n", "", "", "", "[a]\n\n[]\n=\n");
}

TEST_F(IniSetNew, IsReadBackFromTheEndOfAFile)
{
    for (std::size_t before = 480; before < 530; ++before) {
        writeFile(kFile, "[a]\n;" + std::string(before, '.') + "\n");
        ASSERT_EQ(set("a", "key", "value"), RM_SUCCESS);
        ASSERT_EQ(value("a", "key"), "value") << before;
        ASSERT_EQ(set("b", "key", "other"), RM_SUCCESS);
        ASSERT_EQ(value("b", "key"), "other") << before;
    }
}

// --- Bytes that are copied

TEST_F(IniSet, KeepsCarriageReturnsButThatOfTheEntryItself)
{
    expectChange("; x\r\n[a]\r\nk=1\r\nl=2\r\n\r\n[b]\r\n", "a", "l", "new",
                 "; x\r\n[a]\r\nk=1\r\nl=new\n\r\n[b]\r\n");
}

TEST_F(IniSet, KeepsCarriageReturnsInsideOfLines)
{
    expectChange("[a]\nx\ry\r\r\nk=1\n", "a", "k", "new", "[a]\nx\ry\r\r\nk=new\n");
}

TEST_F(IniSet, KeepsALastLineWithoutANewline)
{
    expectChange("[a]\nk=1\nl=2", "a", "k", "new", "[a]\nk=new\nl=2\n");
    expectChange("[a]\nk=1", "a", "k", "new", "[a]\nk=new\n");
    expectChange("[a]\nk=1", "a", "l", "new", "[a]\nk=1\nl=new\n");
    expectChange("[a]", "a", "l", "new", "[a]\nl=new\n");
    expectChange("x", "a", "l", "new", "x\n\n[a]\nl=new\n");
}

TEST_F(IniSet, KeepsALastLineWithoutANewlineWhereverItEnds)
{
    for (std::size_t before = 495; before < 520; ++before) {
        const std::string start = "[a]\nk=1\n;" + std::string(before, '.');
        const std::string end = ";" + std::string(before, '.');
        expectChange(start, "a", "k", "2", "[a]\nk=2\n" + end + "\n");
        expectChange(start + "\nl", "a", "k", "2", "[a]\nk=2\n" + end + "\nl\n");
    }
}

TEST_F(IniSet, KeepsZeroBytes)
{
    using namespace std::string_view_literals;
    expectChange("\0[a]\n\0\n[a]\nx\0y\n\0k=0\nk=1\n\0\0"sv, "a", "k", "new",
                 "\0[a]\n\0\n[a]\nx\0y\n\0k=0\nk=new\n\0\0\n"sv);
}

TEST_F(IniSet, ComparesWhatStandsBehindAZeroByteToo)
{
    using namespace std::string_view_literals;
    expectChange("[a\0]\nk=1\n[a]\nk\0=2\nk=3\n"sv, "a", "k", "new",
                 "[a\0]\nk=1\n[a]\nk\0=2\nk=new\n"sv);
}

TEST_F(IniSet, KeepsLongLinesWherever)
{
    const std::string longLine(100'000, 'x');
    expectChange(longLine + "\n[a]\n" + longLine + "\nk=" + longLine + "\n[" + longLine + "]\n",
                 "a", "k", "1", longLine + "\n[a]\n" + longLine + "\nk=1\n[" + longLine + "]\n");
    expectChange("[" + longLine + "]\n" + longLine + "=1\n", longLine.c_str(), longLine.c_str(),
                 longLine.c_str(), "[" + longLine + "]\n" + longLine + "=" + longLine + "\n");
}

TEST_F(IniSet, CopiesFilesOfManyBlocks)
{
    std::string before;
    for (int n = 0; n < 2000; ++n) {
        before += "line " + std::to_string(n) + (n % 3 == 0 ? "\r\n" : "\n");
    }
    expectChange(before + "[a]\nk=1\n" + before, "a", "k", "2", before + "[a]\nk=2\n" + before);
}

// --- Arguments

TEST_F(IniSetArguments, ANullSectionIsMissing)
{
    writeFile(kFile, "[a]\nk=1\n");
    EXPECT_EQ(set(nullptr, "k", "2"), RM_MISSING_ARGUMENT);
    EXPECT_EQ(set(nullptr, "k", nullptr), RM_MISSING_ARGUMENT);
    EXPECT_EQ(set(nullptr, nullptr, nullptr), RM_MISSING_ARGUMENT);
    EXPECT_EQ(readFile(kFile), "[a]\nk=1\n");
}

TEST_F(IniSetArguments, ANullPathIsMissing)
{
    EXPECT_EQ(set("a", "k", "2", nullptr), RM_MISSING_ARGUMENT);
    EXPECT_THAT(namesIn("."), IsEmpty());
}

TEST_F(IniSetArguments, NeitherLeavesATemporaryFile)
{
    writeFile(kFile, "[a]\n");
    EXPECT_EQ(set(nullptr, "k", "2"), RM_MISSING_ARGUMENT);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

TEST_F(IniSetArguments, LiteralsAreNotWritten)
{
    writeFile("literal.ini", "[Name]\nKey=1\n");
    EXPECT_EQ(rm_iniSetPrivate("Name", "Key", "2", "literal.ini"), RM_SUCCESS);
    EXPECT_EQ(readFile("literal.ini"), "[Name]\nKey=2\n");
}

// --- One line

class IniLineWriter : public IniTest
{
  protected:
    void SetUp() override
    {
        IniTest::SetUp();
        stream_ = rm_fileStreamOpen(kFile, "w");
        ASSERT_NE(stream_, nullptr);
    }

    std::string written()
    {
        rm_fileStreamClose(stream_);
        return readFile(kFile);
    }

    FileStream* stream_ = nullptr;
};

TEST_F(IniLineWriter, WritesAnEntry)
{
    EXPECT_EQ(rmutil::AddLine(stream_, nullptr, "key", "value"), RM_SUCCESS);
    EXPECT_EQ(written(), "key=value\n");
}

TEST_F(IniLineWriter, WritesAnEmptyLineAndTheHeaderBeforeAnEntryOfASection)
{
    EXPECT_EQ(rmutil::AddLine(stream_, "section", "key", "value"), RM_SUCCESS);
    EXPECT_EQ(written(), "\n[section]\nkey=value\n");
}

TEST_F(IniLineWriter, MissesAKeyOrAValueAndWritesNothing)
{
    EXPECT_EQ(rmutil::AddLine(stream_, nullptr, nullptr, "value"), RM_MISSING_ARGUMENT);
    EXPECT_EQ(rmutil::AddLine(stream_, nullptr, "key", nullptr), RM_MISSING_ARGUMENT);
    EXPECT_EQ(rmutil::AddLine(stream_, "section", nullptr, nullptr), RM_MISSING_ARGUMENT);
    EXPECT_EQ(written(), "");
}

}  // namespace
