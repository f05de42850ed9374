// The default INI file when there is no memory for its path: both calls say so, and nothing else
// happens. The linker puts a call of its own in the place of makeAllocPath.
#include "tests/rmutil/ini_case.h"

#include <string>

namespace
{
bool noPath = false;
}

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" char* __real_makeAllocPath(const char* directory, const char* base,
                                      const char* extension, int16_t tag);
extern "C" char* __wrap_makeAllocPath(const char* directory, const char* base,
                                      const char* extension, int16_t tag);

char* __wrap_makeAllocPath(const char* directory, const char* base, const char* extension,
                           int16_t tag)
{
    return noPath ? nullptr : __real_makeAllocPath(directory, base, extension, tag);
}

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

using namespace initest;

namespace
{

constexpr const char* kDefaultFile = "corvane.ini";
constexpr const char* kText = "[environment]\nRM_SELDOM=1\n";

class IniWithoutPath : public IniTest
{
  protected:
    void SetUp() override
    {
        IniTest::SetUp();
        writeFile(kDefaultFile, kText);
        noPath = true;
    }

    void TearDown() override
    {
        noPath = false;
        IniTest::TearDown();
    }
};

TEST_F(IniWithoutPath, AQuestionIsOutOfMemoryAndLeavesTheBufferAlone)
{
    WatchedBuffer buffer(20);
    rmtest::resetCalls();
    EXPECT_EQ(rm_iniGet("environment", "RM_SELDOM", buffer.data(), 20, 0), RM_OUT_OF_MEMORY);
    EXPECT_EQ(buffer.contents(), untouched(20));
    EXPECT_TRUE(buffer.guardsStand());
    EXPECT_EQ(rmtest::callCount(Call::kOpen), 0);
}

TEST_F(IniWithoutPath, AChangeIsOutOfMemoryAndChangesNeitherFileNorEnvironment)
{
    rmtest::resetCalls();
    EXPECT_EQ(rm_iniSet("environment", "RM_SELDOM", "2"), RM_OUT_OF_MEMORY);
    EXPECT_EQ(rmtest::callCount(Call::kOpen), 0);
    EXPECT_EQ(readFile(kDefaultFile), kText);
    EXPECT_EQ(rm_getLocalEnv("RM_SELDOM"), nullptr);
}

TEST_F(IniWithoutPath, AMissingArgumentIsFoundFirst)
{
    EXPECT_EQ(rm_iniGet("environment", "RM_SELDOM", nullptr, 20, 0), RM_MISSING_ARGUMENT);
    EXPECT_EQ(rm_iniSet(nullptr, "RM_SELDOM", "2"), RM_MISSING_ARGUMENT);
}

}  // namespace
