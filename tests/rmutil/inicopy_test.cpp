// The opening of the copy, when an INI file is changed: whose it is, and whether it is emptied.
#include "tests/rmutil/ini_case.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>

using namespace initest;

namespace
{

using rmtest::CallRecord;

constexpr const char* kText = "[a]\nk=1\n";
constexpr const char* kChanged = "[a]\nk=2\n";

class IniCopy : public IniTest
{
  protected:
    void SetUp() override
    {
        IniTest::SetUp();
        writeFile(kFile, kText);
    }

    // Times that a change empties the copy.
    static int64_t timesEmptied()
    {
        rmtest::resetCalls();
        EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
        EXPECT_EQ(readFile(kFile), kChanged);
        const std::vector<CallRecord> opened = rmtest::callTrace({Call::kOpen});
        return std::count_if(opened.begin(), opened.end(), [](const CallRecord& call) {
            return call.path() == kTemporary && (call.args[1] & O_TRUNC) != 0;
        });
    }
};

// Between the lock and the opening somebody cleans up without asking, and another process begins.
TEST_F(IniCopy, ThatIsAnothersByNowIsNotWritten)
{
    int opened = 0;
    const ScopedFault spy = look(Call::kOpen, [&opened](const CallRecord& call) {
        if (call.path() == kFile) {
            ++opened;
            std::filesystem::remove(kTemporary);
            writeFile(kTemporary, "another's");
        }
    });
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    EXPECT_EQ(opened, 1);
    EXPECT_EQ(readFile(kTemporary), "another's");
    EXPECT_EQ(readFile(kFile), kText);
}

// The same when nobody has begun yet: there is no copy to take the place of the file.
TEST_F(IniCopy, ThatHasGoneIsNotMadeAnew)
{
    writeFile(kTemporary, "what a process has left that was killed");
    const ScopedFault spy = look(Call::kOpen, [](const CallRecord& call) {
        if (call.path() == kFile) {
            std::filesystem::remove(kTemporary);
        }
    });
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    EXPECT_EQ(readFile(kFile), kText);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

// A file system takes the emptying for the beginning of a replacement, and is in a hurry then.
TEST_F(IniCopy, ThatIsEmptyIsNotEmptied)
{
    EXPECT_EQ(timesEmptied(), 0) << "made by the change";
    writeFile(kTemporary, "");
    EXPECT_EQ(timesEmptied(), 0) << "left by another process";
}

TEST_F(IniCopy, WithSomethingInItIsEmptied)
{
    writeFile(kTemporary, "what a process has left that was killed");
    EXPECT_EQ(timesEmptied(), 1);
}

}  // namespace
