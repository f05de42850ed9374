// The token file of the shared memory objects: when it is made and removed, and what may stand in
// its place; and what the checker of the table finds.
#include "tests/unix/gshm_case.h"

#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>

using namespace gshmtest;

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::captureStderr;
using rmtest::ChildResult;
using rmtest::logLines;
using rmtest::openDescriptors;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::writeFile;
using ::testing::SizeIs;

class GshmToken : public GshmCase
{
};

class GshmCheck : public GshmFaultCase
{
};

// --- The token file

TEST_F(GshmToken, IsMadeWithTheFirstObjectAndRemovedWithTheLast)
{
    EXPECT_FALSE(tokenExists());
    make();
    make();
    EXPECT_EQ(readFile(kToken), "");
    rm_gshmDelete(0);
    EXPECT_TRUE(tokenExists());
    rm_gshmDelete(1);
    EXPECT_FALSE(tokenExists());
}

TEST_F(GshmToken, IsMadeAgainWithTheNextFirstObject)
{
    make();
    rm_gshmDelete(0);
    make();
    EXPECT_TRUE(tokenExists());
    EXPECT_EQ(stateNow(), kOne);
}

TEST_F(GshmToken, ThatIsThereIsTruncatedAndKeepsItsIdentity)
{
    pinToken();  // so that a file made anew cannot have the same identity
    writeFile(kToken, "left by another process");
    const ino_t before = inodeOf(kToken);
    make();
    EXPECT_EQ(readFile(kToken), "");
    EXPECT_EQ(inodeOf(kToken), before);
}

TEST_F(GshmToken, IsOpenAsLongAsThereIsAnObject)
{
    const std::vector<int> before = openDescriptors();
    make();
    make();
    EXPECT_THAT(openDescriptors(), SizeIs(before.size() + 1));
    rm_gshmDelete(1);
    EXPECT_THAT(openDescriptors(), SizeIs(before.size() + 1));
    rm_gshmDelete(0);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(GshmToken, IsNotInheritedByAProgramThatTheHostStarts)
{
    make();
    EXPECT_NE(fcntl(fileno(os::gfpRMGshmTokenFile), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(GshmToken, IsOpenedOnceForAllObjects)
{
    resetCalls();
    for (int n = 0; n < os::kGshmSlots; ++n) {
        make();
    }
    EXPECT_EQ(callCount(Call::kOpen), 1);
    EXPECT_EQ(callCount(Call::kFtok), 20);
}

TEST_F(GshmToken, ThatSomebodyHasTakenAwayDoesNotKeepTheObjectsFromGoing)
{
    make();
    const int id = idOf(0);
    std::filesystem::remove(kToken);
    EXPECT_EQ(rm_gshmDelete(0), 0);
    EXPECT_EQ(stateNow(), kNothing);
    EXPECT_TRUE(isMarkedForRemoval(id));
}

TEST_F(GshmToken, IsInTheDirectoryOfThePrefix)
{
    std::filesystem::create_directory("run");
    rm_tokenName("run/");
    make();
    EXPECT_TRUE(std::filesystem::exists("run/.ZNT.RM.MEM"));
    rm_gshmDelete(0);
    EXPECT_FALSE(std::filesystem::exists("run/.ZNT.RM.MEM"));
}

// What stands in the way of the token file, and how the open fails.
struct Obstacle {
    const char* name;
    void (*arrange)();
    int error;
    bool staysInPlace;  // under the name of the token file
};

void PrintTo(const Obstacle& obstacle, std::ostream* out)
{
    *out << obstacle.name;
}

class GshmTokenInTheWay : public GshmFaultCase, public ::testing::WithParamInterface<Obstacle>
{
};

// In a child, since an open that waits for somebody would wait for ever.
TEST_P(GshmTokenInTheWay, IsFatal)
{
    GetParam().arrange();
    const ChildResult result = runChild([] {
        const Outcome outcome = outcomeOf([] { make(); });
        expectFirstFailure(outcome, failure("rm_gshmCreate", "fopen() failure", GetParam().error));
        EXPECT_EQ(stateNow(), kNothing);
    });
    EXPECT_FALSE(result.timedOut);
    std::filesystem::remove(kToken);
}

TEST_P(GshmTokenInTheWay, IsLeftWhereItIsByTheEndOfTheProcess)
{
    GetParam().arrange();
    const ChildResult result = runChild([] { make(); });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, failure("rm_gshmCreate", "fopen() failure", GetParam().error) + '\n');
    EXPECT_EQ(tokenExists(), GetParam().staysInPlace);
    if (std::filesystem::exists("target")) {
        EXPECT_EQ(readFile("target"), "precious");
    }
    std::filesystem::remove(kToken);
}

INSTANTIATE_TEST_SUITE_P(
    As, GshmTokenInTheWay,
    ::testing::Values(
        Obstacle{"ALink",
                 [] {
                     writeFile("target", "precious");
                     std::filesystem::create_symlink("target", kToken);
                 },
                 ELOOP, true},
        Obstacle{"ADanglingLink", [] { std::filesystem::create_symlink("nowhere", kToken); }, ELOOP,
                 true},
        Obstacle{"APipeWithoutAReader", [] { mkfifo(kToken, 0600); }, ENXIO, true},
        Obstacle{"ADirectory", [] { std::filesystem::create_directory(kToken); }, EISDIR, true},
        Obstacle{"AMissingDirectory", [] { rm_tokenName("missing/"); }, ENOENT, false},
        Obstacle{"AFileForADirectory",
                 [] {
                     writeFile("file", "");
                     rm_tokenName("file/");
                 },
                 ENOTDIR, false}),
    [](const ::testing::TestParamInfo<Obstacle>& obstacle) {
        return std::string(obstacle.param.name);
    });

// --- The checker

TEST_F(GshmCheck, FindsNothingInASoundTableAtAnyTime)
{
    for (int round = 0; round < 3; ++round) {
        for (int n = 0; n < os::kGshmSlots; ++n) {
            make();
            EXPECT_EQ(os::checkGshm(), 0U);
        }
        for (int16_t handle = 0; handle < os::kGshmSlots; ++handle) {
            rm_gshmDelete(handle);
            EXPECT_EQ(os::checkGshm(), 0U);
        }
    }
}

struct Damage {
    const char* name;
    void (*inflict)();
    uint32_t violations;
    const char* line;  // how the first line begins
};

void PrintTo(const Damage& damage, std::ostream* out)
{
    *out << damage.name;
}

class GshmDamage : public GshmFaultCase, public ::testing::WithParamInterface<Damage>
{
};

TEST_P(GshmDamage, IsFoundAndLogged)
{
    make("first");
    make("second");
    const auto slots = os::rmGshm;
    const int16_t counted = os::nGshm;
    FILE* const stream = os::gfpRMGshmTokenFile;
    GetParam().inflict();
    uint32_t violations = 0;
    const Lines log = logLines(captureStderr([&] { violations = os::checkGshm(); }));
    os::rmGshm = slots;
    os::nGshm = counted;
    os::gfpRMGshmTokenFile = stream;
    EXPECT_EQ(violations, GetParam().violations);
    ASSERT_THAT(log, SizeIs(GetParam().violations));
    EXPECT_THAT(log.front(), ::testing::StartsWith(GetParam().line));
    EXPECT_EQ(os::checkGshm(), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Of, GshmDamage,
    ::testing::Values(Damage{"TheSegmentsId", [] { os::rmGshm[1].id = -1; }, 1,
                             "WARNING: shared memory: second has segment -1 at "},
                      Damage{"TheAddress", [] { os::rmGshm[0].address = nullptr; }, 1,
                             "WARNING: shared memory: first has segment "},
                      Damage{"BothOfTwoSlots",
                             [] {
                                 os::rmGshm[0].address = nullptr;
                                 os::rmGshm[1].id = -1;
                             },
                             2, "WARNING: shared memory: first has segment "},
                      Damage{"ALostName", [] { os::rmGshm[1].name = nullptr; }, 1,
                             "WARNING: shared memory: 1 named, 2 counted, token stream "},
                      Damage{"ACountTooHigh", [] { os::nGshm = 3; }, 1,
                             "WARNING: shared memory: 2 named, 3 counted, token stream "},
                      Damage{"ACountTooLow", [] { os::nGshm = 0; }, 1,
                             "WARNING: shared memory: 2 named, 0 counted, token stream "},
                      Damage{"ACountBelowZero", [] { os::nGshm = -1; }, 1,
                             "WARNING: shared memory: 2 named, -1 counted, token stream "},
                      Damage{"ALostStream", [] { os::gfpRMGshmTokenFile = nullptr; }, 1,
                             "WARNING: shared memory: 2 named, 2 counted, token stream (nil)"},
                      Damage{"AStreamWithoutObjects",
                             [] {
                                 os::rmGshm[0].name = nullptr;
                                 os::rmGshm[1].name = nullptr;
                                 os::nGshm = 0;
                             },
                             1, "WARNING: shared memory: 0 named, 0 counted, token stream 0x"}),
    [](const ::testing::TestParamInfo<Damage>& damage) { return std::string(damage.param.name); });
}  // namespace
