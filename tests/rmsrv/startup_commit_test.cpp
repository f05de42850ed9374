// Start-up and the profile: where "FileCommit" is looked for, what it may be, and what it does.
#include "startup_case.h"

#include <cstdlib>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::kForever;
using rmtest::kProfile;
using rmtest::outcomeOf;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::writeFile;

namespace fs = std::filesystem;

class StartupCommit : public rmtest::StartupCase
{
};

// A profile with one section.
void writeProfile(std::string_view entries, const fs::path& path = kProfile)
{
    writeFile(path, "[server]\n" + std::string(entries));
}

void start()
{
    rm_init(RM_NO_LIMIT, 32, 0.0);
}

// --- What stands in the profile

struct CommitCase {
    const char* name;
    const char* profile;
    int16_t expected;
};

void PrintTo(const CommitCase& commit, std::ostream* out)
{
    *out << commit.name;
}

const CommitCase kCommitCases[] = {
    {"Zero", "[server]\nFileCommit=0\n", 0},
    {"One", "[server]\nFileCommit=1\n", 1},
    {"AnotherNumber", "[server]\nFileCommit=17\n", 17},
    {"Negative", "[server]\nFileCommit=-5\n", -5},
    {"BeyondSixteenBits", "[server]\nFileCommit=65536\n", INT16_MAX},
    {"BelowSixteenBits", "[server]\nFileCommit=-65536\n", INT16_MIN},
    {"NoNumber", "[server]\nFileCommit=yes\n", 0},
    {"Nothing", "[server]\nFileCommit=\n", 0},
    {"NumberThenText", "[server]\nFileCommit=3 # three\n", 3},
    {"TextThenNumber", "[server]\nFileCommit=x1\n", 0},
    {"BlankBeforeTheNumber", "[server]\nFileCommit= 4\n", 4},
    {"Plus", "[server]\nFileCommit=+6\n", 6},
    {"EightDigitsFit", "[server]\nFileCommit=00000012\n", 12},
    {"ALongTextIsCutAfterEight", "[server]\nFileCommit=000000123456\n", 12},
    {"ALongTextWithoutANumber", "[server]\nFileCommit=never ever, or so it seems\n", 0},
    {"NoKey", "[server]\nother=0\n", 1},
    {"NoSection", "[other]\nx=0\n", 1},
    {"InAnotherSection", "[other]\nFileCommit=0\n\n[server]\nx=0\n", 1},
    {"InASectionBefore", "[other]\nFileCommit=0\n\n[server]\nFileCommit=2\n", 2},
    {"InAFollowingSection", "[server]\nx=0\n[other]\nFileCommit=0\n", 0},
    {"BehindAnEmptyLine", "[server]\nx=0\n\n[other]\nFileCommit=0\n", 1},
    {"WithoutASection", "FileCommit=0\n", 1},
    {"InAnyCase", "[SERVER]\nfilecommit=0\n", 0},
    {"AsAComment", "[server]\n;FileCommit=0\n", 1},
    {"TheFirstOfTwo", "[server]\nFileCommit=0\nFileCommit=1\n", 0},
    {"WithABlankInTheKey", "[server]\nFileCommit =0\n", 1},
    {"WithACarriageReturn", "[server]\r\nFileCommit=0\r\n", 0},
    {"OnALastLineThatDoesNotEnd", "[server]\nFileCommit=0", 1},
    {"EmptyProfile", "", 1},
    {"NoEquals", "[server]\nFileCommit\n", 1},
};

class StartupCommitOf : public StartupCommit, public ::testing::WithParamInterface<CommitCase>
{
};

std::string commitName(const ::testing::TestParamInfo<CommitCase>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Profiles, StartupCommitOf, ::testing::ValuesIn(kCommitCases), commitName);

TEST_P(StartupCommitOf, IsTheNumberOfTheKeyAndOneWithoutIt)
{
    writeFile(kProfile, GetParam().profile);
    EXPECT_EQ(captureStderr([] { start(); }), "");
    EXPECT_EQ(fileCommit, GetParam().expected);
}

TEST_F(StartupCommit, WithoutAProfileIsOne)
{
    EXPECT_EQ(captureStderr([] { start(); }), "");
    EXPECT_EQ(fileCommit, 1);
    EXPECT_FALSE(fs::exists(kProfile));
}

// --- What it does, and when it is read

TEST_F(StartupCommit, OfZeroTurnsSyncsOff)
{
    writeProfile("FileCommit=0\n");
    start();
    const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    resetCalls();
    EXPECT_EQ(rm_fileSync(handle), 0);
    EXPECT_EQ(callCount(Call::kFsync), 0);
    rm_fileClose(handle);
}

TEST_F(StartupCommit, OfAnyOtherNumberLeavesThemOn)
{
    for (const char* value : {"1", "-1", "2", "-7"}) {
        fileCommit = -1;
        writeProfile("FileCommit=" + std::string(value) + "\n");
        start();
        const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
        resetCalls();
        EXPECT_EQ(rm_fileSync(handle), 0);
        EXPECT_EQ(callCount(Call::kFsync), 1) << value;
        rm_fileClose(handle);
    }
}

TEST_F(StartupCommit, ThatTheHostHasSetIsNotRead)
{
    for (const int16_t set : std::to_array<int16_t>({0, 1, 5, -2})) {
        fileCommit = set;
        writeProfile("FileCommit=9\n");
        resetCalls();
        start();
        EXPECT_EQ(fileCommit, set);
        for (const CallRecord& call : callTrace({Call::kOpen})) {
            EXPECT_NE(call.path(), kProfile);
        }
    }
}

TEST_F(StartupCommit, OfAMissingProfileIsNotLookedForAgain)
{
    start();
    writeProfile("FileCommit=0\n");
    start();
    EXPECT_EQ(fileCommit, 1);
}

// --- Where it stands

TEST_F(StartupCommit, IsReadWhereCatpathOfTheProcessPoints)
{
    fs::create_directory("conf");
    writeProfile("FileCommit=4\n", "conf/corvane.ini");
    writeProfile("FileCommit=0\n");
    setenv("CATPATH", (directory() / "conf").c_str(), 1);
    start();
    EXPECT_EQ(fileCommit, 4);
}

TEST_F(StartupCommit, IsReadWhereCatpathOfTheLocalEnvironmentPoints)
{
    // Entries are upper case, so the directory is.
    fs::create_directory("CONF");
    fs::create_directory("other");
    writeProfile("FileCommit=4\n", "CONF/corvane.ini");
    writeProfile("FileCommit=0\n", "other/corvane.ini");
    setenv("CATPATH", (directory() / "other").c_str(), 1);
    rm_putLocalEnv("CATPATH=CONF");
    start();
    EXPECT_EQ(fileCommit, 4);
}

TEST_F(StartupCommit, IsOneWhereCatpathPointsToNoProfile)
{
    fs::create_directory("conf");
    writeProfile("FileCommit=0\n");
    for (const char* place : {"conf", "missing"}) {
        fileCommit = -1;
        setenv("CATPATH", (directory() / place).c_str(), 1);
        EXPECT_EQ(captureStderr([] { start(); }), "");
        EXPECT_EQ(fileCommit, 1);
    }
}

// --- A profile that is no use

TEST_F(StartupCommit, AProfileThatCannotBeOpenedCountsAsNone)
{
    writeProfile("FileCommit=0\n");
    for (const int error : {EACCES, EMFILE, EIO}) {
        fileCommit = -1;
        const ScopedFault fault(
            {.call = Call::kOpen, .error = error, .times = kForever, .when = [](const auto& call) {
                 return call.path() == kProfile;
             }});
        EXPECT_EQ(outcomeOf([] { start(); }).jumped, 0);
        EXPECT_EQ(fileCommit, 1);
    }
}

TEST_F(StartupCommit, AProfileThatCannotBeReadCountsAsNone)
{
    fs::create_directory(kProfile);
    const rmtest::Outcome outcome = outcomeOf([] { start(); });
    EXPECT_EQ(outcome.jumped, 0);
    EXPECT_EQ(fileCommit, 1);
}

TEST_F(StartupCommit, OfMinusOneIsReadAgainAtTheNextStart)
{
    // -1 is the setting that nobody has made.
    writeProfile("FileCommit=-1\n");
    start();
    EXPECT_EQ(fileCommit, -1);
    writeProfile("FileCommit=0\n");
    start();
    EXPECT_EQ(fileCommit, 0);
}
}  // namespace
