// The blocks of the local environment: what is not kept is given back, and a lookup stays within
// an entry.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmutil/rmutil.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace
{

using rmtest::captureStderr;
using rmutil::LocalEnv;

class LocalEnvBlocks : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        unsetenv("CATPATH");
        fileSem = RM_NULL_SYNC;
        growSem = RM_NULL_SYNC;
    }

    static uint32_t allocated() { return rmalloc::tagTable[0].allocated; }
};

TEST_F(LocalEnvBlocks, ASettingOfTheDefaultFileLeavesItsEntryOnly)
{
    rmtest::writeFile("corvane.ini", "[environment]\nkey=1\n");
    EXPECT_EQ(rm_iniSet("environment", "key", "2"), RM_SUCCESS);
    const uint32_t before = allocated();
    EXPECT_EQ(rm_iniSet("environment", "key", "3"), RM_SUCCESS);
    EXPECT_STREQ(rm_getLocalEnv("key"), "3");
    EXPECT_EQ(allocated(), before) << "it has taken the place of the other";
}

TEST_F(LocalEnvBlocks, AnEntryThatTheArrayHasNoPlaceForIsGivenBack)
{
    rm_putLocalEnv("A=1");
    const uint32_t before = allocated();
    rmalloc::BlockHeader* header = rmalloc::headerOf(LocalEnv);
    header->word1 = 0;
    captureStderr([] { rm_putLocalEnv("B=2"); });
    header->word1 = rmalloc::kLiveMagic;
    EXPECT_EQ(allocated(), before);
    EXPECT_EQ(rm_getLocalEnv("B"), nullptr);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

// Whatever stands behind its zero, here in the same block, is no value of a name that is longer.
TEST_F(LocalEnvBlocks, ALongNameHasNoValueBehindTheEndOfAnEntry)
{
    constexpr std::size_t kNameLength = 127;  // the longest that is found
    constexpr std::size_t kBlock = 300;
    rm_putLocalEnv("A=1");
    auto* block = static_cast<char*>(rm_getMemory(kBlock, 0));
    std::memset(block, '=', kBlock);
    std::memset(block, 'N', kNameLength);
    block[kNameLength] = '\0';
    block[kBlock - 1] = '\0';
    rm_freeMemory(LocalEnv[0], 0);
    LocalEnv[0] = block;
    for (std::size_t length = kNameLength; length < kBlock - 1; ++length) {
        EXPECT_EQ(rm_getLocalEnv(std::string(length, 'n').c_str()), nullptr) << length;
    }
}

}  // namespace
