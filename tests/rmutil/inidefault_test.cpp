// The default INI file: where it is, and what a change of its section "ENVIRONMENT" does to the
// local environment.
#include "tests/rmutil/ini_case.h"

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>

using namespace initest;

namespace
{

constexpr const char* kDefaultFile = "corvane.ini";

Answer askDefault(const char* section, const char* key, int16_t size = 100, uint16_t withValues = 1)
{
    WatchedBuffer buffer(size);
    const int16_t result = rm_iniGet(section, key, buffer.data(), size, withValues);
    EXPECT_TRUE(buffer.guardsStand()) << "written outside of the buffer";
    return {result, buffer.contents()};
}

std::string defaultValue(const char* section, const char* key)
{
    const Answer answer = askDefault(section, key);
    return answer.result == RM_SUCCESS ? answer.bytes.c_str() : "(not found)";
}

std::optional<std::string> local(const char* name)
{
    const char* text = rm_getLocalEnv(name);
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

class IniDefault : public IniTest
{
  protected:
    // What is in the local environment stays there.
    void TearDown() override
    {
        unsetenv("CATPATH");
        IniTest::TearDown();
    }

    static void makeFileIn(const std::string& directory, const std::string& text)
    {
        std::filesystem::create_directories(directory);
        writeFile(directory + "/corvane.ini", "[a]\nk=" + text + "\n");
    }
};

class IniEnvironment : public IniDefault
{
  protected:
    void SetUp() override
    {
        IniDefault::SetUp();
        writeFile(kDefaultFile, "[Environment]\nOld=1\n");
    }

    void TearDown() override
    {
        keepMemory();
        IniDefault::TearDown();
    }
};

// --- Where it is

TEST_F(IniDefault, IsInTheCurrentDirectory)
{
    writeFile(kDefaultFile, "[a]\nk=1\n");
    EXPECT_EQ(defaultValue("a", "k"), "1");
    EXPECT_EQ(rm_iniSet("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile(kDefaultFile), "[a]\nk=2\n");
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kDefaultFile}));
}

TEST_F(IniDefault, IsInTheDirectoryThatIsCurrentAtTheCall)
{
    makeFileIn("d", "1");
    makeFileIn("e", "2");
    std::filesystem::current_path("d");
    EXPECT_EQ(defaultValue("a", "k"), "1");
    std::filesystem::current_path("../e");
    EXPECT_EQ(defaultValue("a", "k"), "2");
    EXPECT_EQ(rm_iniSet("a", "k", "3"), RM_SUCCESS);
    std::filesystem::current_path("..");
    EXPECT_EQ(readFile("d/corvane.ini"), "[a]\nk=1\n");
    EXPECT_EQ(readFile("e/corvane.ini"), "[a]\nk=3\n");
}

TEST_F(IniDefault, IsWhereCatpathPointsAtTheCall)
{
    makeFileIn("d", "1");
    makeFileIn("e", "2");
    makeFileIn(".", "3");
    setenv("CATPATH", "d", 1);
    EXPECT_EQ(defaultValue("a", "k"), "1");
    setenv("CATPATH", (directory() / "e/").c_str(), 1);
    EXPECT_EQ(defaultValue("a", "k"), "2");
    unsetenv("CATPATH");
    EXPECT_EQ(defaultValue("a", "k"), "3");
}

TEST_F(IniDefault, IsChangedWhereCatpathPointsAtTheCall)
{
    makeFileIn("d", "1");
    makeFileIn("e", "2");
    setenv("CATPATH", "d", 1);
    EXPECT_EQ(rm_iniSet("a", "k", "new"), RM_SUCCESS);
    setenv("CATPATH", "e/", 1);
    EXPECT_EQ(rm_iniSet("a", "k", nullptr), RM_SUCCESS);
    EXPECT_EQ(readFile("d/corvane.ini"), "[a]\nk=new\n");
    EXPECT_EQ(readFile("e/corvane.ini"), "[a]\n");
    EXPECT_EQ(namesIn("d"), (std::set<std::string>{kDefaultFile}));
    EXPECT_EQ(namesIn("."), (std::set<std::string>{"d", "e"}));
}

TEST_F(IniDefault, IsWhereTheLocalEnvironmentPoints)
{
    makeFileIn("d", "1");
    makeFileIn("E", "2");
    setenv("CATPATH", "d", 1);
    rm_putLocalEnv("CATPATH=e");  // which is kept in upper case
    keepMemory();
    EXPECT_EQ(defaultValue("a", "k"), "2");
    rm_putLocalEnv("CATPATH");
    keepMemory();
    EXPECT_EQ(defaultValue("a", "k"), "1");
}

TEST_F(IniDefault, IsReadInAllForms)
{
    writeFile(kDefaultFile, "[a]\nk=1\n[b]\n");
    EXPECT_EQ(askDefault(nullptr, nullptr, 6), (Answer{0, bytes({"a", "b", ""}) + untouched(1)}));
    EXPECT_EQ(askDefault("a", nullptr, 6, 1), (Answer{0, bytes({"k=1", ""}) + untouched(1)}));
    EXPECT_EQ(askDefault("a", nullptr, 6, 0), (Answer{0, bytes({"k", ""}) + untouched(3)}));
    EXPECT_EQ(askDefault("a", "k", 4), (Answer{0, bytes({"1", ""}) + untouched(1)}));
}

TEST_F(IniDefault, ThatIsNotThereIsNotFound)
{
    EXPECT_EQ(askDefault("a", "k", 10), notFound(10));
    EXPECT_EQ(askDefault("a", nullptr, 10), notFound(10));
    EXPECT_EQ(askDefault(nullptr, nullptr, 10), notFound(10));
}

TEST_F(IniDefault, ThatIsNotThereCannotBeChanged)
{
    EXPECT_EQ(rm_iniSet("a", "k", "1"), RM_CANNOT_OPEN);
    setenv("CATPATH", "no/such/directory", 1);
    EXPECT_EQ(rm_iniSet("a", "k", "1"), RM_CANNOT_OPEN);
    EXPECT_THAT(namesIn("."), IsEmpty());
}

TEST_F(IniDefault, IsNotReadWithoutABuffer)
{
    writeFile(kDefaultFile, "[a]\nk=1\n");
    EXPECT_EQ(rm_iniGet("a", "k", nullptr, 10, 0), RM_MISSING_ARGUMENT);
    EXPECT_EQ(rm_iniGet(nullptr, nullptr, nullptr, 10, 0), RM_MISSING_ARGUMENT);
}

TEST_F(IniDefault, IsNotChangedWithoutASection)
{
    writeFile(kDefaultFile, "[a]\nk=1\n");
    EXPECT_EQ(rm_iniSet(nullptr, "k", "2"), RM_MISSING_ARGUMENT);
    EXPECT_EQ(rm_iniSet(nullptr, nullptr, nullptr), RM_MISSING_ARGUMENT);
    EXPECT_EQ(readFile(kDefaultFile), "[a]\nk=1\n");
}

TEST_F(IniDefault, LosesAnEntryOrASection)
{
    writeFile(kDefaultFile, "[a]\nk=1\nl=2\n[b]\nm=3\n");
    EXPECT_EQ(rm_iniSet("a", "k", nullptr), RM_SUCCESS);
    EXPECT_EQ(readFile(kDefaultFile), "[a]\nl=2\n[b]\nm=3\n");
    EXPECT_EQ(rm_iniSet("a", nullptr, nullptr), RM_SUCCESS);
    EXPECT_EQ(readFile(kDefaultFile), "[b]\nm=3\n");
}

// --- The section "ENVIRONMENT"

TEST_F(IniEnvironment, HasItsEffectInThisProcessAtOnce)
{
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "Key", "Value"), RM_SUCCESS);
    EXPECT_EQ(readFile(kDefaultFile), "[Environment]\nOld=1\nKey=Value\n");
    EXPECT_EQ(local("KEY"), "VALUE");
    EXPECT_STREQ(rm_getenv("Key"), "VALUE");
}

TEST_F(IniEnvironment, IsKnownWhateverItsCase)
{
    for (const char* section : {"environment", "Environment", "eNVIRONMENT"}) {
        rm_putLocalEnv("K");
        EXPECT_EQ(rm_iniSet(section, "k", section), RM_SUCCESS);
        EXPECT_EQ(local("K"), "ENVIRONMENT") << section;
    }
}

TEST_F(IniEnvironment, IsKnownByItsWholeName)
{
    for (const char* section : {"ENVIRONMENTS", "ENVIRON", "", " ENVIRONMENT", "a"}) {
        EXPECT_EQ(rm_iniSet(section, "k", "1"), RM_SUCCESS);
        EXPECT_EQ(local("K"), std::nullopt) << section;
    }
}

TEST_F(IniEnvironment, GivesTheTextKeyEqualsValue)
{
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "a=b", "c=d"), RM_SUCCESS);
    ASSERT_EQ(rmutil::NumLocalEnv, 1);
    EXPECT_STREQ(rmutil::LocalEnv[0], "A=B=C=D");
}

TEST_F(IniEnvironment, GivesPercentSignsAsTheyAre)
{
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "%s%d", "%n"), RM_SUCCESS);
    EXPECT_EQ(local("%s%d"), "%N");
}

TEST_F(IniEnvironment, GivesTextsOfAnyLength)
{
    const std::string key(120, 'K');
    const std::string text(10'000, 'V');
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", key.c_str(), text.c_str()), RM_SUCCESS);
    EXPECT_EQ(local(key.c_str()), text);
}

TEST_F(IniEnvironment, GivesAnEmptyValue)
{
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "k", ""), RM_SUCCESS);
    EXPECT_EQ(local("K"), "");
}

TEST_F(IniEnvironment, ReplacesAnEarlierValue)
{
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "k", "1"), RM_SUCCESS);
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "K", "2"), RM_SUCCESS);
    EXPECT_EQ(local("K"), "2");
    EXPECT_EQ(rmutil::NumLocalEnv, 1);
}

TEST_F(IniEnvironment, KeepsTheValueOfAnEntryThatIsDeleted)
{
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "k", "1"), RM_SUCCESS);
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "k", nullptr), RM_SUCCESS);
    EXPECT_EQ(readFile(kDefaultFile), "[Environment]\nOld=1\n");
    EXPECT_EQ(local("K"), "1");
}

TEST_F(IniEnvironment, GivesNothingForADeletion)
{
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "Old", nullptr), RM_SUCCESS);
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", nullptr, "1"), RM_SUCCESS);
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", nullptr, nullptr), RM_SUCCESS);
    EXPECT_EQ(rmutil::NumLocalEnv, 0);
}

TEST_F(IniEnvironment, GivesNothingWhenTheFileIsMissing)
{
    std::filesystem::remove(kDefaultFile);
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "k", "1"), RM_CANNOT_OPEN);
    EXPECT_EQ(rmutil::NumLocalEnv, 0);
}

TEST_F(IniEnvironment, GivesNothingWhenTheFileCannotBeReplaced)
{
    {
        const ScopedFault fault({.call = Call::kRemove, .error = EACCES});
        EXPECT_EQ(rm_iniSet("ENVIRONMENT", "k", "1"), RM_RENAME_FAILED);
    }
    {
        const ScopedFault fault({.call = Call::kRename, .error = EACCES});
        EXPECT_EQ(rm_iniSet("ENVIRONMENT", "k", "1"), RM_RENAME_FAILED);
    }
    EXPECT_EQ(rmutil::NumLocalEnv, 0);
}

TEST_F(IniEnvironment, OfAnotherFileGivesNothing)
{
    EXPECT_EQ(rm_iniSetPrivate("ENVIRONMENT", "k", "1", kDefaultFile), RM_SUCCESS);
    EXPECT_EQ(readFile(kDefaultFile), "[Environment]\nOld=1\nk=1\n");
    EXPECT_EQ(rmutil::NumLocalEnv, 0);
}

TEST_F(IniEnvironment, GivesNothingToTheEnvironmentOfTheSystem)
{
    unsetenv("RM_TEST_VARIABLE");
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "RM_TEST_VARIABLE", "1"), RM_SUCCESS);
    EXPECT_EQ(getenv("RM_TEST_VARIABLE"), nullptr);
}

TEST_F(IniEnvironment, CanMoveTheDefaultFileItself)
{
    makeFileIn("D", "1");
    EXPECT_EQ(rm_iniSet("ENVIRONMENT", "CatPath", "d"), RM_SUCCESS);
    EXPECT_EQ(defaultValue("a", "k"), "1");
}

}  // namespace
