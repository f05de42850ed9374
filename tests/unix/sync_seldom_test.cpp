// The checker of the sync objects, where one of the two things is missing that every object needs.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace
{
using rmtest::captureStderr;
using rmtest::logLines;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class SyncChecker : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        rm_syncTerminate();
        RmTest::TearDown();
    }

    // What it says; each line is one violation.
    static std::vector<std::string> linesOfCheck()
    {
        uint32_t violations = 0;
        std::vector<std::string> lines =
            logLines(captureStderr([&] { violations = os::checkSync(); }));
        EXPECT_EQ(violations, lines.size());
        return lines;
    }
};

TEST_F(SyncChecker, SeesObjectsWithoutASet)
{
    ASSERT_EQ(rm_syncCreate("object"), 0);
    const auto set = std::exchange(os::iSem, -1);
    EXPECT_THAT(linesOfCheck(),
                ElementsAre(StartsWith("WARNING: sync objects: set -1, token stream 0x")));
    os::iSem = set;
    EXPECT_THAT(linesOfCheck(), IsEmpty());
}

TEST_F(SyncChecker, SeesObjectsWithoutATokenFile)
{
    ASSERT_EQ(rm_syncCreate("object"), 0);
    FILE* token = std::exchange(os::gfpRMSemTokenFile, nullptr);
    EXPECT_THAT(linesOfCheck(), ElementsAre("WARNING: sync objects: set " +
                                            std::to_string(os::iSem) + ", token stream (nil)"));
    os::gfpRMSemTokenFile = token;
    EXPECT_THAT(linesOfCheck(), IsEmpty());
}

TEST_F(SyncChecker, NeedsNeitherWithoutObjects)
{
    ASSERT_EQ(rm_syncCreate("object"), 0);
    rm_syncDelete(0);
    EXPECT_THAT(linesOfCheck(), IsEmpty());
}

}  // namespace
