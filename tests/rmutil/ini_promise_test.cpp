// INI files: how far a question reads, what is not logged, and what a change leaves besides the new
// file.
#include "tests/rmutil/ini_case.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>

using namespace initest;

namespace
{

using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::logLines;

class IniReadOn : public IniTest
{
  protected:
    // Blocks that a question reads from a file that begins with `start` and has many more.
    static int blocksRead(const std::string& start, const char* section, const char* key,
                          int16_t size, int result)
    {
        writeFile(kFile, start + '\n' + std::string(100'000, '.') + "\n[z]\nz=1\n");
        rmtest::resetCalls();
        EXPECT_EQ(ask(section, key, size).result, result);
        return callCount(Call::kRead);
    }
};

class IniSilent : public IniTest
{
};

class IniFoundSection : public IniTest
{
  protected:
    // What is read behind the section, or a text that is none when it is not found.
    static std::string behind(const char* section)
    {
        FileStream* stream = rm_fileStreamOpen(kFile, "r");
        rmutil::LineContext lines = rmutil::linesOf(stream);
        std::string text = "(not found)";
        const int16_t found = rmutil::FindSection(&lines, section);
        EXPECT_TRUE(found == 0 || found == 1) << found;
        std::string_view line;
        if (rmutil::nextLine(&lines, &line)) {
            EXPECT_EQ(found, 1) << "the file was not read to its end";
            text = line;
        } else if (found == 1) {
            text = "";
        }
        rm_freeMemory(lines.buffer, 0);
        rm_fileStreamClose(stream);
        return text;
    }
};

class IniFirstEquals : public IniTest
{
};

class IniAsked : public IniTest
{
};

class IniChangeLeft : public IniTest
{
};

class IniEnvironmentOrder : public IniTest
{
  protected:
    void TearDown() override
    {
        keepMemory();  // what is in the local environment stays there
        IniTest::TearDown();
    }
};

// --- How far a question reads

TEST_F(IniReadOn, StopsWhereTheValueIsFound)
{
    EXPECT_EQ(blocksRead("[a]\nk=1", "a", "k", 100, RM_SUCCESS), 1);
}

TEST_F(IniReadOn, StopsAtTheEmptyLineThatEndsTheSearch)
{
    EXPECT_EQ(blocksRead("[a]\nk=1\n", "a", "l", 100, RM_NOT_FOUND), 1);
}

TEST_F(IniReadOn, StopsWhereTheEntriesEnd)
{
    EXPECT_EQ(blocksRead("[a]\nk=1\n", "a", nullptr, 100, RM_SUCCESS), 1);
    EXPECT_EQ(blocksRead("[a]\nk=1\n[b]", "a", nullptr, 100, RM_SUCCESS), 1);
}

TEST_F(IniReadOn, StopsWhenTheNamesOfTheSectionsHaveFilledTheBuffer)
{
    EXPECT_EQ(blocksRead("[a]\n[b]", nullptr, nullptr, 5, RM_SUCCESS), 1);
    EXPECT_EQ(blocksRead("[a]\n[b]", nullptr, nullptr, 4, RM_SUCCESS), 1);
    EXPECT_GT(blocksRead("[a]\n[b]", nullptr, nullptr, 6, RM_SUCCESS), 100) << "a byte is left";
}

// --- Nothing is logged

TEST_F(IniSilent, AreQuestionsWhateverTheirResult)
{
    writeFile(kFile, "[a]\nk=1\n");
    writeFile("corvane.ini", "");
    char buffer[10];
    EXPECT_EQ(captureStderr([&] {
                  EXPECT_EQ(ask("a", "k").result, RM_SUCCESS);
                  EXPECT_EQ(ask("a", "k", 3).result, RM_SUCCESS) << "a value that is cut";
                  EXPECT_EQ(ask("a", nullptr, 3).result, RM_SUCCESS);
                  EXPECT_EQ(ask(nullptr, nullptr).result, RM_SUCCESS);
                  EXPECT_EQ(ask("a", "l").result, RM_NOT_FOUND);
                  EXPECT_EQ(ask("b", nullptr).result, RM_NOT_FOUND);
                  EXPECT_EQ(ask("a", "k", 10, 0, "missing.ini").result, RM_NOT_FOUND);
                  EXPECT_EQ(ask("a", "k", 10, 0, "missing/x.ini").result, RM_NOT_FOUND);
                  EXPECT_EQ(rm_iniGet("a", "k", buffer, 10, 0), RM_NOT_FOUND);
                  EXPECT_EQ(rm_iniGet("a", "k", nullptr, 10, 0), RM_MISSING_ARGUMENT);
              }),
              "");
}

TEST_F(IniSilent, AreChangesThatSucceedOrCannotBegin)
{
    writeFile(kFile, "[a]\nk=1\n[b]\n");
    EXPECT_EQ(captureStderr([] {
                  EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
                  EXPECT_EQ(set("a", "new", "lost"), RM_SUCCESS);
                  EXPECT_EQ(set("a", "none", nullptr), RM_SUCCESS);
                  EXPECT_EQ(set("c", nullptr, nullptr), RM_SUCCESS);
                  EXPECT_EQ(set(nullptr, "k", "2"), RM_MISSING_ARGUMENT);
                  EXPECT_EQ(set("a", "k", "2", "missing.ini"), RM_CANNOT_OPEN);
                  EXPECT_EQ(set("a", "k", "2", "missing/x.ini"), RM_CANNOT_OPEN);
                  EXPECT_EQ(rm_iniSet("a", "k", "2"), RM_CANNOT_OPEN);
              }),
              "");
}

// --- The place of a section

TEST_F(IniFoundSection, IsBehindItsHeader)
{
    writeFile(kFile, "[b]\nl=1\n\n[A]x\nk=1\n[c]\n");
    EXPECT_EQ(behind("a"), "k=1");
    EXPECT_EQ(behind("c"), "");
}

TEST_F(IniFoundSection, IsTheEndOfTheFileWhenItIsMissing)
{
    writeFile(kFile, "[b]\nl=1\n\n[ab]\nk=1\n");
    EXPECT_EQ(behind("a"), "(not found)");
}

// --- Keys with an equals sign, which no line has

TEST_F(IniFirstEquals, EndsTheKeyOfALineThatIsRead)
{
    writeFile(kFile, "[a]\nk=x=1\n==2\n");
    EXPECT_EQ(value("a", "k=x"), "(not found)");
    EXPECT_EQ(value("a", "="), "(not found)");
    EXPECT_EQ(value("a", "k"), "x=1");
    EXPECT_EQ(value("a", ""), "=2");
}

TEST_F(IniFirstEquals, EndsTheKeyOfALineThatIsReplaced)
{
    expectChange("[a]\nk=x=1\n", "a", "k=x", "2", "[a]\nk=x=1\nk=x=2\n");
    expectChange("[a]\nk=x=1\nk=x=2\n", "a", "k=x", "3", "[a]\nk=x=1\nk=x=2\nk=x=3\n");
    expectChange("[a]\nk=x=1\n", "a", "k", "x=2", "[a]\nk=x=2\n");
}

TEST_F(IniFirstEquals, EndsTheKeyOfALineThatIsDeleted)
{
    expectChange("[a]\nk=x=1\n", "a", "k=x", nullptr, "[a]\nk=x=1\n");
    expectChange("[a]\nk=x=1\n", "a", "k", nullptr, "[a]\n");
}

// --- What asks for values

TEST_F(IniAsked, EachOfTheSixteenBitsAsksForValues)
{
    writeFile(kFile, "[a]\nk=1\n");
    for (unsigned bit = 0; bit < 16; ++bit) {
        const auto withValues = static_cast<uint16_t>(1U << bit);
        EXPECT_EQ(ask("a", nullptr, 5, withValues), (Answer{0, bytes({"k=1", ""})})) << bit;
    }
}

// --- What a change leaves

TEST_F(IniChangeLeft, ByALineThatMemoryHasNoRoomForAreTheOldFileAndTheBeginningOfTheCopy)
{
    constexpr std::size_t kLongLine = 100'000;
    const std::string text =
        "[a]\nk=1\n" + std::string(2000, 'x') + '\n' + std::string(kLongLine, 'y') + '\n';
    writeFile(kFile, text);
    std::string log;
    {
        const ScopedFault fault(
            {.call = Call::kMalloc, .error = ENOMEM, .when = [](const CallRecord& call) {
                 return call.args[0] > static_cast<int64_t>(kLongLine) / 2;
             }});
        log = captureStderr(
            [] { EXPECT_EQ(catchFatal([] { rm_iniSetPrivate("a", "k", "2", kFile); }), 1); });
        EXPECT_EQ(fault.hits(), 1);
    }
    EXPECT_EQ(logLines(log).at(0), "Out of memory!");
    EXPECT_EQ(readFile(kFile), text);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile, kTemporary}));
    EXPECT_TRUE(readFile(kTemporary).starts_with("[a]\nk=2\nxxx"));
    rm_freeall();  // what a host does that goes on
    rm_freeMemory(rm_getMemory(1, 0), 0);
    keepMemory();
}

TEST_F(IniChangeLeft, OfAFullDiskIsTheOldFileAndTheCopyingEndsThere)
{
    std::string text = "[a]\nk=1\n";
    for (int n = 0; n < 1000; ++n) {
        text += std::string(60, 'x') + '\n';
    }
    writeFile(kFile, text);
    const ScopedFault full({.call = Call::kWrite,
                            .error = ENOSPC,
                            .skip = 1,
                            .times = kForever,
                            .when = [](const CallRecord& call) { return call.args[2] == 512; }});
    captureStderr([] { EXPECT_EQ(set("a", "k", "2"), RM_RENAME_FAILED); });
    EXPECT_EQ(full.hits(), 1);
    EXPECT_EQ(readFile(kFile), text);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

TEST_F(IniChangeLeft, WhenTheFilesChangePlacesAreNoHandlesOpen)
{
    writeFile(kFile, "[a]\nk=1\n");
    int looks = 0;
    const auto expectNoHandle = [&looks](const CallRecord&) {
        uint32_t open = 1;
        uint32_t parked = 1;
        rm_fileCounts(&open, &parked, nullptr, nullptr);
        EXPECT_EQ(open + parked, 0U);
        ++looks;
    };
    const ScopedFault atRemove = look(Call::kRemove, expectNoHandle);
    const ScopedFault atRename = look(Call::kRename, expectNoHandle);
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(looks, 2);
}

TEST_F(IniChangeLeft, OfALinkIsAFileInItsPlaceAndTheOldFileWhereItLedTo)
{
    std::filesystem::create_directory("d");
    writeFile("d/real", "[a]\nk=1\n");
    std::filesystem::create_symlink("d/real", kFile);
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(kFile)));
    EXPECT_EQ(readFile(kFile), "[a]\nk=2\n");
    EXPECT_EQ(readFile("d/real"), "[a]\nk=1\n");
    EXPECT_EQ(namesIn("d"), (std::set<std::string>{"real"}));
}

TEST_F(IniChangeLeft, OfOneNameOfAFileIsTheOldFileUnderTheOther)
{
    writeFile(kFile, "[a]\nk=1\n");
    std::filesystem::create_hard_link(kFile, "other.ini");
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), "[a]\nk=2\n");
    EXPECT_EQ(readFile("other.ini"), "[a]\nk=1\n");
}

// --- The local environment, after the file

TEST_F(IniEnvironmentOrder, IsChangedWhenTheFileIs)
{
    writeFile("corvane.ini", "[environment]\nk=1\n");
    rm_putLocalEnv("K=old");
    int renames = 0;
    const ScopedFault spy = look(Call::kRename, [&renames](const CallRecord&) {
        EXPECT_STREQ(rm_getLocalEnv("K"), "OLD");
        ++renames;
    });
    EXPECT_EQ(rm_iniSet("Environment", "k", "new"), RM_SUCCESS);
    EXPECT_EQ(renames, 1);
    EXPECT_STREQ(rm_getLocalEnv("K"), "NEW");
}

// The entry has no place in the file, and the result is 0 all the same.
TEST_F(IniEnvironmentOrder, IsChangedAlsoWhenTheFileHasNoPlaceForTheEntry)
{
    const std::string text = "[environment]\nk=1\n[last]\n";
    writeFile("corvane.ini", text);
    EXPECT_EQ(rm_iniSet("environment", "l", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile("corvane.ini"), text);
    EXPECT_STREQ(rm_getLocalEnv("L"), "2");
}

}  // namespace
