// Paths: which memory they take, when CATPATH is asked for, and that nothing is logged.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::kForever;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Each block is an allocation of its own, so that each can be counted.
class PathPromise : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        setenv("SEG_ALLOC", "1", 1);
        setenv("CATPATH", "/srv/app", 1);
        tag_ = rm_allocTag(nullptr, RM_NO_LIMIT);
        resetCalls();
    }

    void TearDown() override
    {
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        unsetenv("CATPATH");
        unsetenv("SEG_ALLOC");
        RmTest::TearDown();
    }

    // Makes the path and gives it back to its tag.
    std::string made(const char* directory, const char* base, const char* extension) const
    {
        char* path = makeAllocPath(directory, base, extension, tag_);
        std::string copy = path;
        rm_freeMemory(path, tag_);
        return copy;
    }

    int16_t tag_ = RM_NONE;
    char buffer_[64] = {};
};

class PathMemory : public PathPromise
{
};

class PathCatPath : public PathPromise
{
};

class PathLog : public PathPromise
{
};

class PathBase : public PathPromise
{
};

class PathBuffer : public PathPromise
{
};

uint32_t bytesFor(std::string_view text)
{
    return rmalloc::unitsFor(static_cast<uint32_t>(text.size()) + 1) * 8;
}

// What tag 0 and `tag` hold each time that `body` asks the platform for memory.
std::vector<std::pair<uint32_t, uint32_t>> heldAtEachAllocation(int16_t tag,
                                                                const std::function<void()>& body)
{
    std::vector<std::pair<uint32_t, uint32_t>> held;
    held.reserve(8);
    const ScopedFault watch(
        {.call = Call::kMalloc, .times = kForever, .action = [&](const CallRecord& call) {
             held.emplace_back(rmalloc::tagTable[0].allocated, rmalloc::tagTable[tag].allocated);
             return rmtest::passThrough(call);
         }});
    body();
    return held;
}

int timesAsked()
{
    const std::vector<CallRecord> calls = callTrace({Call::kGetenv});
    return static_cast<int>(std::count_if(calls.begin(), calls.end(), [](const CallRecord& call) {
        return call.path() == "CATPATH";
    }));
}

// --- Memory

TEST_F(PathMemory, OfAResolvedDirectoryIsOfTagZeroUntilThePathIsMade)
{
    // The directory takes what CATPATH, the text given and a terminator take together.
    const uint32_t directory = bytesFor("/srv/app./log");
    char* path = nullptr;
    EXPECT_THAT(
        heldAtEachAllocation(tag_, [&] { path = makeAllocPath("./log", "a", "txt", tag_); }),
        ElementsAre(std::pair(0U, 0U), std::pair(directory, 0U)));
    EXPECT_EQ(rmalloc::tagTable[0].allocated, 0U);
    EXPECT_EQ(rmalloc::tagTable[tag_].allocated, bytesFor("/srv/app/log/a.txt"));
    rm_freeMemory(path, tag_);
}

TEST_F(PathMemory, OfAPathInABufferIsTheResolvedDirectoryAlone)
{
    EXPECT_THAT(heldAtEachAllocation(
                    tag_, [&] { makePath(buffer_, sizeof(buffer_), "./log", "a", "txt"); }),
                ElementsAre(std::pair(0U, 0U)));
    EXPECT_EQ(rmalloc::tagTable[0].allocated, 0U);
    EXPECT_STREQ(buffer_, "/srv/app/log/a.txt");
}

TEST_F(PathMemory, IsAsLongAsWhatIsMade)
{
    for (std::size_t length = 1; length <= 24; ++length) {
        // A unit is 8 bytes: every length beside a boundary is among these.
        const std::string directory = "." + std::string(length, 'd');
        char* resolved = allocWithCatPath(directory.c_str());
        EXPECT_EQ(rmalloc::tagTable[0].allocated, bytesFor("/srv/app" + directory)) << length;
        rm_freeMemory(resolved, 0);
        const std::string base(length, 'b');
        char* path = makeAllocPath("", base.c_str(), nullptr, tag_);
        EXPECT_EQ(rmalloc::tagTable[tag_].allocated, bytesFor(base)) << length;
        rm_freeMemory(path, tag_);
    }
}

TEST_F(PathMemory, OfAnyOtherDirectoryIsThePathAlone)
{
    EXPECT_THAT(heldAtEachAllocation(tag_, [&] { EXPECT_EQ(made("/tmp", "a", "x"), "/tmp/a.x"); }),
                ElementsAre(std::pair(0U, 0U)));
    unsetenv("CATPATH");
    EXPECT_THAT(heldAtEachAllocation(tag_, [&] { EXPECT_EQ(made("./log", "a", "x"), "a.x"); }),
                ElementsAre(std::pair(0U, 0U)));
}

TEST_F(PathMemory, IsNotAskedForByAPathInABufferThatNeedsNoCatPath)
{
    makePath(buffer_, sizeof(buffer_), "/tmp", "a", "x");
    makePath(buffer_, 3, "/tmp", "a", "x");
    unsetenv("CATPATH");
    makePath(buffer_, sizeof(buffer_), "./log", "a", "x");
    EXPECT_EQ(callCount(Call::kMalloc), 0);
    EXPECT_EQ(callCount(Call::kFree), 0);
}

TEST_F(PathMemory, IsNotAskedForByThePiecesOfAPathOrItsLastPart)
{
    const char* parts[5];
    EXPECT_EQ(makePathInt(parts, "./log", "a", "x"), 5);
    EXPECT_STREQ(pathBaseExt("/srv/app/a.x"), "a.x");
    EXPECT_THAT(callTrace(), IsEmpty());
}

TEST_F(PathMemory, OfABaseThatIsTheWholePathIsItsCopyAlone)
{
    EXPECT_THAT(
        heldAtEachAllocation(tag_, [&] { EXPECT_EQ(made("./log", "/etc/x", "y"), "/etc/x"); }),
        ElementsAre(std::pair(0U, 0U)));
    EXPECT_EQ(timesAsked(), 0);
}

// --- CATPATH

TEST_F(PathCatPath, IsAskedForOnceForEachDirectoryWithADot)
{
    rm_freeMemory(allocWithCatPath("./log"), 0);
    EXPECT_EQ(timesAsked(), 1);
    made("../log", "a", nullptr);
    EXPECT_EQ(timesAsked(), 2);
    makePath(buffer_, sizeof(buffer_), ".", "a", nullptr);
    EXPECT_EQ(timesAsked(), 3);
}

TEST_F(PathCatPath, IsNotAskedForByAPathInABufferOfAnyOtherDirectory)
{
    for (const char* directory : {"/tmp", "", "a.b", "/.", "a/.."}) {
        EXPECT_EQ(makePath(buffer_, sizeof(buffer_), directory, ".a", ".x"), 0);
    }
    EXPECT_STREQ(buffer_, "a/../.a..x");
    EXPECT_EQ(timesAsked(), 0);
}

TEST_F(PathCatPath, OfTheLocalEnvironmentComesFirstInEveryPath)
{
    rm_putLocalEnv("CATPATH=/LOCAL/DIR");
    EXPECT_EQ(made("./log", "a", "txt"), "/LOCAL/DIR/log/a.txt");
    EXPECT_EQ(makePath(buffer_, sizeof(buffer_), "../log", "a", "txt"), 0);
    EXPECT_STREQ(buffer_, "/LOCAL/log/a.txt");
    EXPECT_EQ(timesAsked(), 0) << "the process was asked";
    rm_putLocalEnv("CATPATH");
    EXPECT_EQ(made("./log", "a", "txt"), "/srv/app/log/a.txt");
    EXPECT_EQ(makePath(buffer_, sizeof(buffer_), "../log", "a", "txt"), 0);
    EXPECT_STREQ(buffer_, "/srv/log/a.txt");
}

TEST_F(PathCatPath, OfTheLocalEnvironmentAloneIsEnough)
{
    unsetenv("CATPATH");
    EXPECT_EQ(made("./log", "a", nullptr), "a");
    rm_putLocalEnv("CATPATH=/LOCAL/DIR");
    EXPECT_EQ(made("./log", "a", nullptr), "/LOCAL/DIR/log/a");
}

// --- The log

TEST_F(PathLog, HasNoLineOfAnyPath)
{
    const std::string log = rmtest::captureStderr([&] {
        for (const char* catPath : {"/srv/app", "", static_cast<const char*>(nullptr)}) {
            if (catPath != nullptr) {
                setenv("CATPATH", catPath, 1);
            } else {
                unsetenv("CATPATH");
            }
            for (const char* directory : {"/tmp", "", ".", "..", "./x", "..x", "..."}) {
                rm_freeMemory(allocWithCatPath(directory), 0);
                made(directory, "a", "x");
                made(directory, "/etc/a", "x");
                made(directory, nullptr, nullptr);
                makePath(buffer_, sizeof(buffer_), directory, "a", "x");
                makePath(buffer_, 2, directory, "a/b", "x");
                makePath(buffer_, 0, directory, nullptr, nullptr);
            }
        }
    });
    EXPECT_EQ(log, "");
}

// --- What makes a whole path, and what fits

TEST_F(PathBase, IsTheWholePathByASlashOfItsOwnAlone)
{
    EXPECT_EQ(made("/a/b", "db", "i/ni"), "/a/b/db.i/ni");
    EXPECT_EQ(made("a/", nullptr, "/x"), "a/./x");
    EXPECT_EQ(made("/a", "d\\b", nullptr), "/a/d\\b");
}

TEST_F(PathBuffer, MayHaveUpTo65535Bytes)
{
    const std::string base(40'000, 'b');
    std::vector<char> buffer(65'536, '?');
    EXPECT_EQ(makePath(buffer.data(), 40'005, "/d", base.c_str(), "x"), -1);
    EXPECT_EQ(std::string(buffer.data()), "/d/" + base + ".");
    EXPECT_EQ(makePath(buffer.data(), 40'006, "/d", base.c_str(), "x"), 0);
    EXPECT_EQ(std::string(buffer.data()), "/d/" + base + ".x");
    EXPECT_EQ(makePath(buffer.data(), 65'535, "/d", base.c_str(), "x"), 0);
    EXPECT_EQ(buffer[65'535], '?');
}

TEST_F(PathBuffer, MayBeFilledToItsLastByteFromCatPath)
{
    // "/srv/app/x/f" and its terminator.
    EXPECT_EQ(makePath(buffer_, 13, "./x", "f", nullptr), 0);
    EXPECT_STREQ(buffer_, "/srv/app/x/f");
    EXPECT_EQ(makePath(buffer_, 12, "./x", "f", nullptr), -1);
    EXPECT_STREQ(buffer_, "/srv/app/x/");
    EXPECT_EQ(makePath(buffer_, 11, "./x", "f", nullptr), -1);
    EXPECT_STREQ(buffer_, "/srv/app/x");
}
}  // namespace
