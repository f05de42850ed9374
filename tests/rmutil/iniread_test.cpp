// Reading INI files: values, entries, names of sections, and what counts as what in a line.
// The buffers are the subject of inibuffer_test.cpp, the default file of inidefault_test.cpp.
#include "tests/rmutil/ini_case.h"

#include <cerrno>

using namespace initest;

namespace
{

class IniValue : public IniTest
{
};

class IniEntries : public IniTest
{
};

class IniSections : public IniTest
{
};

class IniArguments : public IniTest
{
};

class IniMissing : public IniTest
{
};

class IniLines : public IniTest
{
};

// --- Values

TEST_F(IniValue, IsTheTextBehindTheEqualsSign)
{
    writeFile(kFile, "[a]\nk=value\n");
    EXPECT_EQ(value("a", "k"), "value");
}

TEST_F(IniValue, IsFoundAmongOthers)
{
    writeFile(kFile, "[a]\nk=1\nl=2\nm=3\n[b]\nk=4\n");
    EXPECT_EQ(value("a", "l"), "2");
    EXPECT_EQ(value("a", "m"), "3");
    EXPECT_EQ(value("b", "k"), "4");
}

TEST_F(IniValue, IsFoundWhateverTheCaseOfSectionAndKey)
{
    writeFile(kFile, "[SeCtIoN]\nKeY=VaLuE\n");
    EXPECT_EQ(value("sEcTiOn", "kEy"), "VaLuE");
    EXPECT_EQ(value("SECTION", "KEY"), "VaLuE");
    EXPECT_EQ(value("section", "key"), "VaLuE");
}

TEST_F(IniValue, CaseIsThatOfAsciiLettersOnly)
{
    writeFile(kFile, "[\xE4]\nk=1\n[b]\n\xF6=2\n[c]\n{=3\n");
    EXPECT_EQ(value("\xE4", "k"), "1");
    EXPECT_EQ(value("\xC4", "k"), "(not found)");
    EXPECT_EQ(value("b", "\xF6"), "2");
    EXPECT_EQ(value("b", "\xD6"), "(not found)");
    EXPECT_EQ(value("c", "["), "(not found)");
}

TEST_F(IniValue, NamesAreComparedToTheirEnds)
{
    writeFile(kFile, "[ab]\nkey=1\n");
    EXPECT_EQ(value("a", "key"), "(not found)");
    EXPECT_EQ(value("abc", "key"), "(not found)");
    EXPECT_EQ(value("ab", "ke"), "(not found)");
    EXPECT_EQ(value("ab", "keys"), "(not found)");
}

TEST_F(IniValue, NothingIsTrimmed)
{
    writeFile(kFile, "[ a ]\nkey = value \n\tl\t=\t1\t\n");
    EXPECT_EQ(value(" a ", "key "), " value ");
    EXPECT_EQ(value(" a ", "\tl\t"), "\t1\t");
    EXPECT_EQ(value(" a ", "key"), "(not found)");
    EXPECT_EQ(value("a", "key "), "(not found)");
}

TEST_F(IniValue, MayHoldEqualsSigns)
{
    writeFile(kFile, "[a]\nk=x=y==\nl==\n");
    EXPECT_EQ(value("a", "k"), "x=y==");
    EXPECT_EQ(value("a", "l"), "=");
}

TEST_F(IniValue, MayBeEmpty)
{
    writeFile(kFile, "[a]\nk=\nl=1\n");
    EXPECT_EQ(value("a", "k"), "");
}

TEST_F(IniValue, MayBelongToAnEmptyKey)
{
    writeFile(kFile, "[a]\n=1\nk=2\n");
    EXPECT_EQ(value("a", ""), "1");
}

TEST_F(IniValue, MayStandInASectionWithoutAName)
{
    writeFile(kFile, "[a]\nk=1\n\n[]\nk=2\n");
    EXPECT_EQ(value("", "k"), "2");
}

TEST_F(IniValue, MayHoldSemicolonsAndBrackets)
{
    writeFile(kFile, "[a]\nk=1;2\nl=[3]\n");
    EXPECT_EQ(value("a", "k"), "1;2");
    EXPECT_EQ(value("a", "l"), "[3]");
}

TEST_F(IniValue, OfDuplicateKeysTheFirstOneCounts)
{
    writeFile(kFile, "[a]\nk=1\nK=2\nk=3\n");
    EXPECT_EQ(value("a", "k"), "1");
}

TEST_F(IniValue, OfDuplicateSectionsTheFirstOneCounts)
{
    writeFile(kFile, "[a]\nk=1\n\n[b]\n\n[A]\nk=2\nl=3\n");
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(value("a", "l"), "(not found)");
}

TEST_F(IniValue, CommentsAreNoEntries)
{
    writeFile(kFile, "[a]\n;k=1\n; k=2\nk=3\n");
    EXPECT_EQ(value("a", "k"), "3");
    EXPECT_EQ(value("a", ";k"), "(not found)");
    EXPECT_EQ(value("a", "; k"), "(not found)");
}

TEST_F(IniValue, AnIndentedSemicolonIsNoComment)
{
    writeFile(kFile, "[a]\n ;k=1\n");
    EXPECT_EQ(value("a", " ;k"), "1");
}

TEST_F(IniValue, LinesWithoutAnEqualsSignArePassed)
{
    writeFile(kFile, "[a]\nk\nnothing here\nk=1\n");
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(value("a", "nothing here"), "(not found)");
}

TEST_F(IniValue, AnEmptyLineEndsTheSearch)
{
    writeFile(kFile, "[a]\nk=1\n\nl=2\n");
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(value("a", "l"), "(not found)");
}

TEST_F(IniValue, AnEmptyLineWithACarriageReturnEndsTheSearch)
{
    writeFile(kFile, "[a]\r\nk=1\r\n\r\nl=2\r\n");
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(value("a", "l"), "(not found)");
}

TEST_F(IniValue, ALineThatIsCutToNothingEndsTheSearch)
{
    writeFile(kFile, "[a]\n\rk=1\nl=2\n");
    EXPECT_EQ(value("a", "k"), "(not found)");
    EXPECT_EQ(value("a", "l"), "(not found)");
}

TEST_F(IniValue, ALineOfBlanksDoesNotEndTheSearch)
{
    writeFile(kFile, "[a]\n \n\t\nk=1\n");
    EXPECT_EQ(value("a", "k"), "1");
}

TEST_F(IniValue, IsFoundBehindTheHeaderOfAnotherSection)
{
    writeFile(kFile, "[a]\nk=1\n[b]\nl=2\n[c]\nm=3\n\n[d]\nn=4\n");
    EXPECT_EQ(value("a", "l"), "2");
    EXPECT_EQ(value("a", "m"), "3");
    EXPECT_EQ(value("a", "n"), "(not found)") << "an empty line stands before";
}

TEST_F(IniValue, IsNotFoundBeforeItsSection)
{
    writeFile(kFile, "k=1\n[a]\nl=2\n");
    EXPECT_EQ(value("a", "k"), "(not found)");
}

TEST_F(IniValue, OfAHeaderWithAnEqualsSignIsFoundAsAnEntry)
{
    writeFile(kFile, "[a]\n[b=c]\n");
    EXPECT_EQ(value("a", "[b"), "c]");
}

TEST_F(IniValue, IsNotFoundInAnotherSection)
{
    writeFile(kFile, "[a]\nk=1\n\n[b]\nl=2\n");
    EXPECT_EQ(value("a", "l"), "(not found)");
    EXPECT_EQ(value("b", "k"), "(not found)");
    EXPECT_EQ(value("c", "k"), "(not found)");
}

// --- Headers

TEST_F(IniLines, AHeaderNeedsNoClosingBracket)
{
    writeFile(kFile, "[a\nk=1\n\n[b\r\nk=2\r\n");
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(value("b", "k"), "2");
    EXPECT_THAT(sections(), ElementsAre("a", "b"));
}

TEST_F(IniLines, WhatFollowsTheFirstClosingBracketIsNoName)
{
    writeFile(kFile, "[a] ; the first\nk=1\n\n[b]]\nk=2\n\n[c]d]\nk=3\n");
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(value("b", "k"), "2");
    EXPECT_EQ(value("c", "k"), "3");
    EXPECT_EQ(value("b]", "k"), "(not found)");
    EXPECT_THAT(sections(), ElementsAre("a", "b", "c"));
}

TEST_F(IniLines, ASecondOpeningBracketIsPartOfTheName)
{
    writeFile(kFile, "[[a]\nk=1\n");
    EXPECT_EQ(value("[a", "k"), "1");
    EXPECT_EQ(value("a", "k"), "(not found)");
}

TEST_F(IniLines, AnIndentedBracketIsNoHeader)
{
    writeFile(kFile, " [a]\nk=1\n");
    EXPECT_EQ(value("a", "k"), "(not found)");
    EXPECT_THAT(sections(), IsEmpty());
}

TEST_F(IniLines, AHeaderInACommentIsNoHeader)
{
    writeFile(kFile, ";[a]\nk=1\n");
    EXPECT_EQ(value("a", "k"), "(not found)");
    EXPECT_THAT(sections(), IsEmpty());
}

TEST_F(IniLines, AreCutAtTheirFirstCarriageReturn)
{
    writeFile(kFile, "[a]\r\nk=1\r2\r\n\n[b\rc]\nl=3\n");
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(value("b", "l"), "3");
    EXPECT_THAT(entries("a"), ElementsAre("k=1"));
    EXPECT_THAT(sections(), ElementsAre("a", "b"));
}

TEST_F(IniLines, AnEqualsSignBehindACarriageReturnDoesNotCount)
{
    writeFile(kFile, "[a]\nk\r=1\nl=2\n");
    EXPECT_EQ(value("a", "k\r"), "(not found)");
    EXPECT_EQ(value("a", "k"), "(not found)");
    EXPECT_EQ(value("a", "l"), "2");
    EXPECT_THAT(entries("a"), ElementsAre("k", "l=2"));
}

TEST_F(IniLines, MayEndBothWaysInOneFile)
{
    writeFile(kFile, "[a]\r\nk=1\nl=2\r\nm=3\n");
    EXPECT_THAT(entries("a"), ElementsAre("k=1", "l=2", "m=3"));
    EXPECT_EQ(value("a", "l"), "2");
}

// --- Lists of entries

TEST_F(IniEntries, AreWholeLinesOrKeysOnly)
{
    writeFile(kFile, "[a]\nk=1\nl=2=3\n=4\n m = 5 \n");
    EXPECT_THAT(entries("a"), ElementsAre("k=1", "l=2=3", "=4", " m = 5 "));
    writeFile(kFile, "[a]\nk=1\nl=2=3\n m = 5 \n");
    EXPECT_THAT(keys("a"), ElementsAre("k", "l", " m "));
}

TEST_F(IniEntries, StandOneBehindTheOtherWithAZeroEachAndOneMore)
{
    writeFile(kFile, "[a]\nk=1\nl=2\n");
    EXPECT_EQ(ask("a", nullptr, 20, 1), (Answer{0, bytes({"k=1", "l=2", ""}) + untouched(11)}));
    EXPECT_EQ(ask("a", nullptr, 20, 0), (Answer{0, bytes({"k", "l", ""}) + untouched(15)}));
}

TEST_F(IniEntries, AnyNumberButZeroAsksForValues)
{
    writeFile(kFile, "[a]\nk=1\n");
    EXPECT_EQ(ask("a", nullptr, 10, 2), ask("a", nullptr, 10, 1));
    EXPECT_EQ(ask("a", nullptr, 10, 0xFFFF), ask("a", nullptr, 10, 1));
}

TEST_F(IniEntries, AnEmptyKeyIsAnEmptyTextInTheList)
{
    writeFile(kFile, "[a]\n=1\nk=2\n");
    EXPECT_EQ(ask("a", nullptr, 10, 0), (Answer{0, bytes({"", "k", ""}) + untouched(6)}));
}

TEST_F(IniEntries, LinesWithoutAnEqualsSignAreListed)
{
    writeFile(kFile, "[a]\nk\nl=1\n");
    EXPECT_THAT(entries("a"), ElementsAre("k", "l=1"));
    EXPECT_THAT(keys("a"), ElementsAre("k", "l"));
}

TEST_F(IniEntries, DuplicatesAreListed)
{
    writeFile(kFile, "[a]\nk=1\nK=2\nk=1\n");
    EXPECT_THAT(entries("a"), ElementsAre("k=1", "K=2", "k=1"));
}

TEST_F(IniEntries, CommentsAreNotListed)
{
    writeFile(kFile, "[a]\n;1\nk=1\n;l=2\n;\nm=3\n");
    EXPECT_THAT(entries("a"), ElementsAre("k=1", "m=3"));
    EXPECT_THAT(keys("a"), ElementsAre("k", "m"));
}

TEST_F(IniEntries, EndAtAnEmptyLine)
{
    writeFile(kFile, "[a]\nk=1\n\nl=2\n");
    EXPECT_THAT(entries("a"), ElementsAre("k=1"));
}

TEST_F(IniEntries, EndAtAnEmptyLineWithACarriageReturn)
{
    writeFile(kFile, "[a]\r\nk=1\r\n\r\nl=2\r\n");
    EXPECT_THAT(entries("a"), ElementsAre("k=1"));
}

TEST_F(IniEntries, EndAtTheNextHeader)
{
    writeFile(kFile, "[a]\nk=1\n[b]\nl=2\n");
    EXPECT_THAT(entries("a"), ElementsAre("k=1"));
}

TEST_F(IniEntries, EndAtTheEndOfTheFile)
{
    writeFile(kFile, "[a]\nk=1\n\n[b]\nl=2\nm=3\n");
    EXPECT_THAT(entries("b"), ElementsAre("l=2", "m=3"));
}

TEST_F(IniEntries, DoNotEndAtALineOfBlanks)
{
    writeFile(kFile, "[a]\nk=1\n \nl=2\n");
    EXPECT_THAT(entries("a"), ElementsAre("k=1", " ", "l=2"));
}

TEST_F(IniEntries, AreThoseOfTheFirstSectionOfTheName)
{
    writeFile(kFile, "[a]\nk=1\n[b]\n[A]\nl=2\n");
    EXPECT_THAT(entries("A"), ElementsAre("k=1"));
}

TEST_F(IniEntries, AreFoundWhateverTheCaseOfTheSection)
{
    writeFile(kFile, "[Name]\nKey=Value\n");
    EXPECT_THAT(entries("nAME"), ElementsAre("Key=Value"));
    EXPECT_THAT(keys("nAME"), ElementsAre("Key"));
}

TEST_F(IniEntries, OfASectionThatIsEmptyAreAnEmptyListThatIsNotFound)
{
    writeFile(kFile, "[a]\n\n[b]\n[c]\n;k=1\n");
    for (const char* section : {"a", "b", "c"}) {
        EXPECT_EQ(ask(section, nullptr, 5), (Answer{RM_NOT_FOUND, '\0' + untouched(4)})) << section;
    }
}

TEST_F(IniEntries, OfASectionThatIsMissingAreAnEmptyListThatIsNotFound)
{
    writeFile(kFile, "[a]\nk=1\n");
    EXPECT_EQ(ask("b", nullptr, 5), (Answer{RM_NOT_FOUND, '\0' + untouched(4)}));
}

// --- Lists of sections

TEST_F(IniSections, AreAllNamesInTheirOrder)
{
    writeFile(kFile, "[a]\nk=1\n\n[b]\n");
    EXPECT_EQ(ask(nullptr, nullptr, 10), (Answer{0, bytes({"a", "b", ""}) + untouched(5)}));
}

TEST_F(IniSections, AreListedWhateverTheKeyAndTheValuesAskedFor)
{
    writeFile(kFile, "[a]\nk=1\n[b]\n");
    EXPECT_EQ(ask(nullptr, "k", 10, 0), ask(nullptr, nullptr, 10, 1));
    EXPECT_EQ(ask(nullptr, "k", 10, 1), ask(nullptr, nullptr, 10, 0));
}

TEST_F(IniSections, EmptyLinesDoNotEndTheList)
{
    writeFile(kFile, "\n\n[a]\n\n\n[b]\r\n\r\n[c]\r\n");
    EXPECT_THAT(sections(), ElementsAre("a", "b", "c"));
}

TEST_F(IniSections, DuplicatesAreListedAsTheyAreWritten)
{
    writeFile(kFile, "[a]\n[A]\n[a]\n");
    EXPECT_THAT(sections(), ElementsAre("a", "A", "a"));
}

TEST_F(IniSections, MayHaveNoName)
{
    writeFile(kFile, "[]\n[a]\n[\n");
    EXPECT_EQ(ask(nullptr, nullptr, 10), (Answer{0, bytes({"", "a", "", ""}) + untouched(5)}));
}

TEST_F(IniSections, OfAFileWithoutAnyAreAnEmptyListThatIsNotFound)
{
    writeFile(kFile, "k=1\n;[a]\n");
    EXPECT_EQ(ask(nullptr, nullptr, 5), (Answer{RM_NOT_FOUND, '\0' + untouched(4)}));
}

TEST_F(IniSections, OfAnEmptyFileAreAnEmptyListThatIsNotFound)
{
    writeFile(kFile, "");
    EXPECT_EQ(ask(nullptr, nullptr, 5), (Answer{RM_NOT_FOUND, '\0' + untouched(4)}));
    EXPECT_EQ(ask("a", nullptr, 5), (Answer{RM_NOT_FOUND, '\0' + untouched(4)}));
    EXPECT_EQ(value("a", "k"), "(not found)");
}

// --- Arguments, files that cannot be read

TEST_F(IniArguments, ANullBufferIsMissing)
{
    writeFile(kFile, "[a]\nk=1\n");
    EXPECT_EQ(rm_iniGetPrivate("a", "k", nullptr, 10, 0, kFile), RM_MISSING_ARGUMENT);
    EXPECT_EQ(rm_iniGetPrivate(nullptr, nullptr, nullptr, 10, 0, kFile), RM_MISSING_ARGUMENT);
    EXPECT_EQ(rm_iniGetPrivate("a", "k", nullptr, 0, 0, kFile), RM_MISSING_ARGUMENT);
}

TEST_F(IniArguments, ANullPathIsMissing)
{
    EXPECT_EQ(ask("a", "k", 10, 0, nullptr), (Answer{RM_MISSING_ARGUMENT, untouched(10)}));
    EXPECT_EQ(ask(nullptr, nullptr, 10, 0, nullptr), (Answer{RM_MISSING_ARGUMENT, untouched(10)}));
}

TEST_F(IniMissing, AFileThatIsNotThereGivesNothingFound)
{
    EXPECT_EQ(ask("a", "k"), notFound());
    EXPECT_EQ(ask("a", nullptr), notFound());
    EXPECT_EQ(ask(nullptr, nullptr), notFound());
    EXPECT_EQ(ask("a", "k", 10, 0, "no/such/x.ini"), notFound(10));
    EXPECT_EQ(ask("a", "k", 10, 0, ""), notFound(10));
    EXPECT_THAT(namesIn("."), IsEmpty()) << "nothing is made";
}

TEST_F(IniMissing, AFileThatMayNotBeReadGivesNothingFound)
{
    writeFile(kFile, "[a]\nk=1\n");
    const ScopedFault fault({.call = Call::kOpen, .error = EACCES, .times = kForever});
    EXPECT_EQ(ask("a", "k"), notFound());
    EXPECT_EQ(ask(nullptr, nullptr), notFound());
}

TEST_F(IniMissing, ADirectoryHasNoValuesAndAnEmptyList)
{
    std::filesystem::create_directory("d");
    rmtest::captureStderr([] {
        EXPECT_EQ(ask("a", "k", 10, 0, "d"), notFound(10));
        EXPECT_EQ(ask(nullptr, nullptr, 5, 0, "d"), (Answer{RM_NOT_FOUND, '\0' + untouched(4)}));
    });
}

TEST_F(IniMissing, AnotherFilesNameInADirectoryThatIsAFileGivesNothingFound)
{
    writeFile(kFile, "[a]\nk=1\n");
    EXPECT_EQ(ask("a", "k", 10, 0, "x.ini/x.ini"), notFound(10));
}

TEST_F(IniMissing, ALinkLeadsToItsFile)
{
    writeFile("real", "[a]\nk=1\n");
    std::filesystem::create_symlink("real", kFile);
    EXPECT_EQ(value("a", "k"), "1");
}

TEST_F(IniMissing, AFileIsReadAnewByEveryCall)
{
    writeFile(kFile, "[a]\nk=1\n");
    EXPECT_EQ(value("a", "k"), "1");
    writeFile(kFile, "[a]\nk=2\n");
    EXPECT_EQ(value("a", "k"), "2");
}

TEST_F(IniMissing, AFileThatIsOpenInThisProcessIsRead)
{
    writeFile(kFile, "[a]\nk=1\n");
    const int16_t handle = rm_fileOpen(kFile, RM_O_RDWR, 0, 0, 0);
    EXPECT_EQ(value("a", "k"), "1");
    rm_fileClose(handle);
}

TEST_F(IniMissing, AFileIsNotWrittenByReading)
{
    const std::string text = "[a]\nk=1\nno end";
    writeFile(kFile, text);
    const ScopedFault fault({.call = Call::kWrite, .error = EIO, .times = kForever});
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_THAT(sections(), ElementsAre("a"));
    EXPECT_EQ(readFile(kFile), text);
    EXPECT_EQ(fault.hits(), 0);
}

TEST_F(IniEntries, DoNotEndAtAnIndentedHeader)
{
    writeFile(kFile, "[a]\nk=1\n [b]\nl=2\n");
    EXPECT_THAT(entries("a"), ElementsAre("k=1", " [b]", "l=2"));
}

}  // namespace
