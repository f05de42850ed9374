// Changing INI files: entries and sections that are deleted, byte for byte.
#include "tests/rmutil/ini_case.h"

#include <string>

using namespace initest;

namespace
{

class IniDeleteEntry : public IniTest
{
};

class IniDeleteSection : public IniTest
{
};

// --- Entries

TEST_F(IniDeleteEntry, TakesItsLineAway)
{
    expectChange("[a]\nj=1\nk=2\nl=3\n", "a", "k", nullptr, "[a]\nj=1\nl=3\n");
}

TEST_F(IniDeleteEntry, TakesEveryLineOfTheSectionWithTheKey)
{
    expectChange("[a]\nk=1\nj=2\nK=3\nk=\nl=4\nk=5\n", "a", "k", nullptr, "[a]\nj=2\nl=4\n");
}

TEST_F(IniDeleteEntry, TakesThoseBehindEmptyAndIndentedLinesToo)
{
    expectChange("[a]\nk=1\n\n x\n\r\nk=2\n", "a", "k", nullptr, "[a]\n\n x\n\r\n");
}

TEST_F(IniDeleteEntry, LeavesTheKeyInOtherSections)
{
    expectChange("[b]\nk=1\n[a]\nk=2\n[c]\nk=3\n[a]\nk=4\n", "a", "k", nullptr,
                 "[b]\nk=1\n[a]\n[c]\nk=3\n[a]\nk=4\n");
}

TEST_F(IniDeleteEntry, LeavesAnIndentedOne)
{
    expectChange("[a]\n k=1\nk=2\n", "a", "k", nullptr, "[a]\n k=1\n");
}

TEST_F(IniDeleteEntry, TakesAnIndentedOneWhenThatIsTheKey)
{
    expectChange("[a]\n k=1\nk=2\n", "a", " k", nullptr, "[a]\nk=2\n");
}

TEST_F(IniDeleteEntry, LeavesCommentsThatLookLikeIt)
{
    expectChange("[a]\n;k=1\n; k=2\nk=3\n", "a", "k", nullptr, "[a]\n;k=1\n; k=2\n");
    expectChange("[a]\n;k=1\n", "a", ";k", nullptr, "[a]\n;k=1\n");
}

TEST_F(IniDeleteEntry, LeavesLinesWithoutAnEqualsSign)
{
    expectChange("[a]\nk\nk=1\n", "a", "k", nullptr, "[a]\nk\n");
}

TEST_F(IniDeleteEntry, TakesTheEntryOfAnEmptyKey)
{
    expectChange("[a]\n=1\nk=2\n", "a", "", nullptr, "[a]\nk=2\n");
}

TEST_F(IniDeleteEntry, TakesTheCarriageReturnWithTheLine)
{
    expectChange("[a]\r\nk=1\r\nl=2\r\n", "a", "k", nullptr, "[a]\r\nl=2\r\n");
}

TEST_F(IniDeleteEntry, TakesALastLineWithoutANewline)
{
    expectChange("[a]\nj=1\nk=2", "a", "k", nullptr, "[a]\nj=1\n");
}

TEST_F(IniDeleteEntry, ThatIsNotThereChangesNothing)
{
    const std::string text = "[a]\nk=1\n\r\n[b]\nl=2\n";
    expectChange(text, "a", "l", nullptr, text);
    expectChange(text, "b", "k", nullptr, text);
}

TEST_F(IniDeleteEntry, OfASectionThatIsNotThereChangesNothing)
{
    const std::string text = "[a]\nk=1\n";
    expectChange(text, "c", "k", nullptr, text);
    expectChange("", "c", "k", nullptr, "");
}

TEST_F(IniDeleteEntry, MakesItNotFound)
{
    writeFile(kFile, "[a]\nk=1\nk=2\nl=3\n");
    EXPECT_EQ(set("a", "k", nullptr), RM_SUCCESS);
    EXPECT_EQ(value("a", "k"), "(not found)");
    EXPECT_EQ(value("a", "l"), "3");
}

// --- Sections

TEST_F(IniDeleteSection, TakesItsHeaderAndItsLinesUpToTheNextHeader)
{
    expectChange("; head\n[a]\nk=1\n\n[b]\nl=2\n;x\n\n[c]\nm=3\n", "b", nullptr, nullptr,
                 "; head\n[a]\nk=1\n\n[c]\nm=3\n");
}

TEST_F(IniDeleteSection, TakesWhateverStandsInIt)
{
    expectChange("[a]\n;k\n\n\r\n indented\nno entry\nk=1\n[b]\n", "a", nullptr, nullptr, "[b]\n");
}

TEST_F(IniDeleteSection, TakesTheFirstSectionOfAFile)
{
    expectChange("[a]\nk=1\n[b]\nl=2\n", "a", nullptr, nullptr, "[b]\nl=2\n");
}

TEST_F(IniDeleteSection, TakesTheLastSectionUpToTheEndOfTheFile)
{
    expectChange("[a]\nk=1\n\n[b]\nl=2\n\n; end\n", "b", nullptr, nullptr, "[a]\nk=1\n\n");
    expectChange("[a]\nk=1\n\n[b]\nl=2", "b", nullptr, nullptr, "[a]\nk=1\n\n");
}

TEST_F(IniDeleteSection, TakesTheOnlySection)
{
    expectChange("[a]\nk=1\n", "a", nullptr, nullptr, "");
    expectChange("[a]", "a", nullptr, nullptr, "");
}

TEST_F(IniDeleteSection, TakesOnlyTheFirstOfTheName)
{
    expectChange("[a]\nk=1\n[A]\nk=2\n[a]\nk=3\n", "a", nullptr, nullptr, "[A]\nk=2\n[a]\nk=3\n");
}

TEST_F(IniDeleteSection, FindsItWhateverTheCase)
{
    expectChange("[Some Name]\nk=1\n[b]\n", "sOME nAME", nullptr, nullptr, "[b]\n");
}

TEST_F(IniDeleteSection, ComparesTheNameWhole)
{
    expectChange("[ab]\n[a ]\n[a]\nk=1\n[b]\n", "a", nullptr, nullptr, "[ab]\n[a ]\n[b]\n");
}

TEST_F(IniDeleteSection, NeedsNoClosingBracketAndTakesWhatFollowsIt)
{
    expectChange("[a\nk=1\n[b]\n", "a", nullptr, nullptr, "[b]\n");
    expectChange("[a] ; note\nk=1\n[b]\n", "a", nullptr, nullptr, "[b]\n");
}

TEST_F(IniDeleteSection, DoesNotLookAtTheValue)
{
    expectChange("[a]\nk=1\n[b]\n", "a", nullptr, "value", "[b]\n");
}

TEST_F(IniDeleteSection, ThatIsNotThereChangesNothing)
{
    const std::string text = "[a]\r\nk=1\n\n; end\n";
    expectChange(text, "b", nullptr, nullptr, text);
    expectChange(text, "b", nullptr, "value", text);
    expectChange("", "b", nullptr, nullptr, "");
}

TEST_F(IniDeleteSection, LeavesWhatStandsBeforeEverySection)
{
    expectChange("k=0\n\n; x\n[a]\nk=1\n", "a", nullptr, nullptr, "k=0\n\n; x\n");
}

TEST_F(IniDeleteSection, IgnoresIndentedHeadersInside)
{
    expectChange("[a]\n [b]\n;[c]\n[d]\n", "a", nullptr, nullptr, "[d]\n");
}

TEST_F(IniDeleteSection, OfManyBlocksTakesThemAll)
{
    std::string longSection = "[a]\n";
    for (int n = 0; n < 500; ++n) {
        longSection += "key " + std::to_string(n) + "=value\r\n";
    }
    expectChange("[x]\n" + longSection + "[y]\n" + std::string(600, 'z') + "\n", "a", nullptr,
                 nullptr, "[x]\n[y]\n" + std::string(600, 'z') + "\n");
}

TEST_F(IniDeleteSection, MakesItNotFound)
{
    writeFile(kFile, "[a]\nk=1\n[b]\nl=2\n");
    EXPECT_EQ(set("a", nullptr, nullptr), RM_SUCCESS);
    EXPECT_THAT(sections(), ElementsAre("b"));
    EXPECT_EQ(value("a", "k"), "(not found)");
}

}  // namespace
