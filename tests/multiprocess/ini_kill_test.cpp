// Changes of INI files by processes that are killed: before and after every call to the system that
// a change makes. Whatever the moment, the file is the old one or the new one, or the new one
// stands whole beside the place where it was.
#include "tests/models/ini_model.h"
#include "tests/rmutil/ini_case.h"

#include "rm/unix/unix.h"

#include <array>
#include <list>
#include <string>

#include <signal.h>
#include <unistd.h>

using namespace initest;

namespace
{

using rmtest::CallRecord;
using rmtest::ChildResult;
using rmtest::IniModel;
using rmtest::passThrough;
using rmtest::runChild;

enum class Moment { kBeforeTheCall, kAfterTheCall };

constexpr auto kCalls = std::to_array<Call>(
    {Call::kOpen,   Call::kClose, Call::kRead,   Call::kWrite,      Call::kLseek,    Call::kFsync,
     Call::kStat,   Call::kLstat, Call::kFstat,  Call::kAccess,     Call::kRemove,   Call::kUnlink,
     Call::kRename, Call::kChmod, Call::kChown,  Call::kFchmod,     Call::kFchown,   Call::kFlock,
     Call::kSemget, Call::kSemop, Call::kSemctl, Call::kSemtimedop, Call::kFtruncate});

// While it lives, the n-th of the calls is the last thing that this process does.
class DeathAt
{
  public:
    DeathAt(int n, Moment moment) : left_(n)
    {
        for (const Call call : kCalls) {
            faults_.emplace_back(rmtest::Fault{.call = call,
                                               .when =
                                                   [this](const CallRecord&) {
                                                       --left_;
                                                       return left_ == 0;
                                                   },
                                               .action =
                                                   [moment](const CallRecord& record) {
                                                       if (moment == Moment::kAfterTheCall) {
                                                           passThrough(record);
                                                       }
                                                       rmtest::dumpCoverage();
                                                       kill(getpid(), SIGKILL);
                                                       return int64_t{-1};
                                                   }});
        }
    }

  private:
    int left_;
    std::list<ScopedFault> faults_;
};

struct Change {
    const char* name;
    std::string before;
    const char* section;
    IniModel::Name key;
    IniModel::Name value;

    std::string after() const { return IniModel::set(before, section, key, value); }

    int make() const
    {
        return set(section, key ? key->c_str() : nullptr, value ? value->c_str() : nullptr);
    }
};

void PrintTo(const Change& change, std::ostream* out)
{
    *out << change.name;
}

std::string manyLines()
{
    std::string lines;
    for (int n = 0; n < 60; ++n) {
        lines += "key " + std::to_string(n) + "=" + std::string(30, 'v') + "\r\n";
    }
    return lines;
}

std::vector<Change> changes()
{
    return {{"SetOfAnEntry", "; head\n[a]\nk=1\n[b]\n", "a", "k", "new"},
            {"SetOfANewSection", "[a]\nk=1\n", "b", "k", "new"},
            {"DeletionOfAnEntry", "[a]\nk=1\nl=2\nk=3\n", "a", "k", std::nullopt},
            {"DeletionOfTheOnlySection", "[a]\nk=1\n", "a", std::nullopt, std::nullopt},
            {"DeletionOfASection", "[a]\nk=1\n[b]\nl=2\n", "a", std::nullopt, std::nullopt},
            {"SetInAFileOfManyBlocks", "[a]\r\n" + manyLines() + "k=1\r\n[b]\r\n" + manyLines(),
             "a", "k", "new"}};
}

class IniKill : public IniTest, public ::testing::WithParamInterface<Change>
{
  protected:
    void SetUp() override
    {
        IniTest::SetUp();
        fileSem = rm_syncCreate("fileSem");
        enterFastDirectory();
    }

    void TearDown() override
    {
        leaveFastDirectory();
        rm_syncTerminate();
        IniTest::TearDown();
    }

    static bool isThere(const char* path) { return access(path, F_OK) == 0; }

    // Makes the change in another process, which is killed at its n-th call. False when it came to
    // its end before.
    static bool dies(int n, Moment moment)
    {
        const ChildResult result = runChild([&] {
            fileCommit = -1;
            const DeathAt death(n, moment);
            EXPECT_EQ(GetParam().make(), RM_SUCCESS);
        });
        EXPECT_TRUE(result.signal == SIGKILL || result.status == 0) << result.err;
        return result.signal == SIGKILL;
    }

    // What the next start of the server does.
    static void freeTheLocksOfTheDead()
    {
        while (rmtest::semValue(os::iSem, fileSem) < 1) {
            rm_syncExitExcl(fileSem);
        }
    }

    // The next process finds the file and changes it.
    void expectUsable(const std::string& contents)
    {
        ASSERT_EQ(readFile(kFile), contents);
        EXPECT_EQ(set("next", "key", "value"), RM_SUCCESS);
        EXPECT_EQ(readFile(kFile), IniModel::set(contents, "next", "key", "value"));
        EXPECT_EQ(value("next", "key"), "value");
        EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
    }

    // The next process finds no file, and a copy that it may put in its place.
    void expectRecoverable()
    {
        EXPECT_EQ(ask("a", "k"), notFound());
        EXPECT_EQ(set("next", "key", "value"), RM_CANNOT_OPEN);
        EXPECT_EQ(namesIn("."), (std::set<std::string>{kTemporary}));
        EXPECT_EQ(readFile(kTemporary), GetParam().after());
        EXPECT_EQ(rm_fileRename(kTemporary, kFile), RM_SUCCESS);
        expectUsable(GetParam().after());
    }

    void expectWholeAfterDeath()
    {
        if (!isThere(kFile)) {
            ++gone_;
            expectRecoverable();
        } else if (readFile(kFile) == GetParam().before) {
            ++old_;
            expectUsable(GetParam().before);
        } else {
            ++new_;
            EXPECT_FALSE(isThere(kTemporary));
            expectUsable(GetParam().after());
        }
    }

    void sweep(Moment moment)
    {
        for (int n = 1;; ++n) {
            SCOPED_TRACE("call " + std::to_string(n));
            std::filesystem::remove(kTemporary);
            writeFile(kFile, GetParam().before);
            if (!dies(n, moment)) {
                EXPECT_EQ(readFile(kFile), GetParam().after());
                return;
            }
            freeTheLocksOfTheDead();
            expectWholeAfterDeath();
            ASSERT_FALSE(HasFailure());
        }
    }

    int old_ = 0;   // deaths that left the old file
    int new_ = 0;   // the new one
    int gone_ = 0;  // the copy alone
};

std::string changeName(const ::testing::TestParamInfo<Change>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Changes, IniKill, ::testing::ValuesIn(changes()), changeName);

TEST_P(IniKill, BeforeAnyCallLeavesTheOldFileOrTheNewOneWhole)
{
    sweep(Moment::kBeforeTheCall);
    EXPECT_GT(old_, 10);
    EXPECT_GT(new_, 0);
    EXPECT_EQ(gone_, 1) << "between the two steps there is nothing else to do";
}

TEST_P(IniKill, AfterAnyCallLeavesTheOldFileOrTheNewOneWhole)
{
    sweep(Moment::kAfterTheCall);
    EXPECT_GT(old_, 10);
    EXPECT_GT(new_, 0);
    EXPECT_EQ(gone_, 1) << "between the two steps there is nothing else to do";
}

}  // namespace
