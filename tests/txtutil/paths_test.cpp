// Paths: the pieces of which they are made, and what CATPATH does to a directory.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/txtutil/txtutil.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The text and its end; the block is freed.
std::string taken(char* text, int16_t tag = 0)
{
    EXPECT_NE(text, nullptr);
    std::string copy = text != nullptr ? text : "";
    rm_freeMemory(text, tag);
    return copy;
}

class PathTest : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        unsetenv("CATPATH");
    }

    void TearDown() override
    {
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        unsetenv("CATPATH");
        RmTest::TearDown();
    }

    static void setCatPath(const std::string& value) { setenv("CATPATH", value.c_str(), 1); }

    // The directory that `directory` stands for.
    static std::string resolved(const char* directory)
    {
        return taken(allocWithCatPath(directory));
    }

    static std::string made(const char* directory, const char* base, const char* extension)
    {
        return taken(makeAllocPath(directory, base, extension, 0));
    }
};

class PathBaseExt : public PathTest
{
};

class MakePathInt : public PathTest
{
};

class AllocWithCatPath : public PathTest
{
};

class MakeAllocPath : public PathTest
{
};

class MakePath : public PathTest
{
};

class PathsWithoutMemory : public PathTest
{
};

// --- The last component

TEST_F(PathBaseExt, PointsBehindTheLastSlash)
{
    const char* path = "/a/b/c.x";
    EXPECT_EQ(pathBaseExt(path), path + 5);
    EXPECT_STREQ(pathBaseExt(path), "c.x");
}

TEST_F(PathBaseExt, WithoutASlashIsThePathItself)
{
    const char* path = "c.x";
    EXPECT_EQ(pathBaseExt(path), path);
}

TEST_F(PathBaseExt, BehindASlashAtTheEndIsEmpty)
{
    const char* path = "/a/b/";
    EXPECT_EQ(pathBaseExt(path), path + 5);
    EXPECT_STREQ(pathBaseExt("/"), "");
    EXPECT_STREQ(pathBaseExt("//"), "");
}

TEST_F(PathBaseExt, OfAnEmptyPathIsThatPath)
{
    const char* path = "";
    EXPECT_EQ(pathBaseExt(path), path);
}

TEST_F(PathBaseExt, KeepsDotsAndBackslashes)
{
    EXPECT_STREQ(pathBaseExt("a/.."), "..");
    EXPECT_STREQ(pathBaseExt("a\\b"), "a\\b");
    EXPECT_STREQ(pathBaseExt("a.b/c"), "c");
}

TEST_F(PathBaseExt, NullGivesNull)
{
    EXPECT_EQ(pathBaseExt(nullptr), nullptr);
}

// --- The pieces

constexpr const char* kUntouched = "untouched";

// The pieces that are listed; the rest of the array must stay as it is.
std::vector<const char*> pieces(const char* directory, const char* base, const char* extension)
{
    std::array<const char*, 5> parts;
    parts.fill(kUntouched);
    const uint16_t count = makePathInt(parts.data(), directory, base, extension);
    EXPECT_LE(count, parts.size());
    for (std::size_t i = count; i < parts.size(); ++i) {
        EXPECT_EQ(parts[i], kUntouched) << i;
    }
    return {parts.begin(), parts.begin() + count};
}

TEST_F(MakePathInt, AreDirectorySlashBaseDotExtension)
{
    const std::vector<const char*> parts = pieces("/tmp", "db", "ini");
    ASSERT_EQ(parts.size(), 5U);
    EXPECT_STREQ(parts[1], "/");
    EXPECT_STREQ(parts[3], ".");
}

TEST_F(MakePathInt, AreTheArgumentsThemselves)
{
    const char directory[] = "/tmp";
    const char base[] = "db";
    const char extension[] = "ini";
    const std::vector<const char*> parts = pieces(directory, base, extension);
    ASSERT_EQ(parts.size(), 5U);
    EXPECT_EQ(parts[0], directory);
    EXPECT_EQ(parts[2], base);
    EXPECT_EQ(parts[4], extension);
}

TEST_F(MakePathInt, InEveryCombinationAreThoseThatThereAre)
{
    struct Directory {
        const char* text;
        bool slash;  // follows it
    };

    const Directory directories[] = {{nullptr, false}, {"", false}, {"/", false}, {"/tmp", true},
                                     {"/tmp/", false}, {"a", true}, {".", true},  {"//", false}};
    for (const Directory& directory : directories) {
        for (const char* base : {static_cast<const char*>(nullptr), "", "db", "/db", "a/b/"}) {
            for (const char* extension : {static_cast<const char*>(nullptr), "", "ini", ".x"}) {
                std::vector<std::string> expected;
                if (directory.text != nullptr) {
                    expected.emplace_back(directory.text);
                }
                if (directory.slash) {
                    expected.emplace_back("/");
                }
                if (base != nullptr) {
                    expected.emplace_back(base);
                }
                if (extension != nullptr) {
                    expected.emplace_back(".");
                    expected.emplace_back(extension);
                }
                const std::vector<const char*> parts = pieces(directory.text, base, extension);
                EXPECT_EQ(std::vector<std::string>(parts.begin(), parts.end()), expected);
            }
        }
    }
}

TEST_F(MakePathInt, OfNothingAreNone)
{
    EXPECT_THAT(pieces(nullptr, nullptr, nullptr), IsEmpty());
}

TEST_F(MakePathInt, AnEmptyDirectoryIsAPieceWithoutASlash)
{
    const char directory[] = "";
    EXPECT_THAT(pieces(directory, nullptr, nullptr), ElementsAre(directory));
}

TEST_F(MakePathInt, CatPathPlaysNoPart)
{
    setCatPath("/a/b/c");
    const char directory[] = "./x";
    const std::vector<const char*> parts = pieces(directory, nullptr, nullptr);
    ASSERT_EQ(parts.size(), 2U);
    EXPECT_EQ(parts[0], directory);
}

// --- Directories by CATPATH

struct Resolution {
    const char* catPath;
    const char* directory;
    const char* result;
};

void PrintTo(const Resolution& resolution, std::ostream* out)
{
    *out << '"' << resolution.directory << "\" by \"" << resolution.catPath << '"';
}

class CatPath : public PathTest, public ::testing::WithParamInterface<Resolution>
{
};

TEST_P(CatPath, Resolves)
{
    setCatPath(GetParam().catPath);
    EXPECT_EQ(resolved(GetParam().directory), GetParam().result);
}

TEST_P(CatPath, ResolvesInTheLocalEnvironmentInUpperCase)
{
    setCatPath("/of/the/process");
    rm_putLocalEnv((std::string("CATPATH=") + GetParam().catPath).c_str());
    std::string expected = GetParam().result;
    const std::string lower = GetParam().directory;
    // The value is upper case; what comes from the directory stays as it is.
    const std::size_t rest = lower.find_first_not_of('.');
    const std::size_t kept =
        rest == std::string::npos ? expected.size() : expected.size() - (lower.size() - rest);
    for (std::size_t i = 0; i < kept; ++i) {
        expected[i] = txtutil::toUpper(expected[i]);
    }
    EXPECT_EQ(resolved(GetParam().directory), expected);
}

INSTANTIATE_TEST_SUITE_P(
    OfThreeComponents, CatPath,
    ::testing::Values(
        Resolution{"/a/b/c", "./x", "/a/b/c/x"}, Resolution{"/a/b/c", ".x", "/a/b/c/x"},
        Resolution{"/a/b/c", ".", "/a/b/c/"}, Resolution{"/a/b/c", "../x", "/a/b/x"},
        Resolution{"/a/b/c", "..", "/a/b/"}, Resolution{"/a/b/c", "./", "/a/b/c/"},
        Resolution{"/a/b/c", "../", "/a/b/"}, Resolution{"/a/b/c", "..x", "/a/b/x"},
        Resolution{"/a/b/c", "../..", "/a/b/.."}, Resolution{"/a/b/c", "...", "/a/b/."},
        Resolution{"/a/b/c", "./x/", "/a/b/c/x/"}, Resolution{"/a/b/c", ".//x", "/a/b/c//x"},
        Resolution{"/a/b/c", "./../x", "/a/b/c/../x"}));

INSTANTIATE_TEST_SUITE_P(OfThreeComponentsAndASlash, CatPath,
                         ::testing::Values(Resolution{"/a/b/c/", "./x", "/a/b/c/x"},
                                           Resolution{"/a/b/c/", ".x", "/a/b/c/x"},
                                           Resolution{"/a/b/c/", ".", "/a/b/c/"},
                                           Resolution{"/a/b/c/", "../x", "/a/b/x"},
                                           Resolution{"/a/b/c/", "..", "/a/b/"},
                                           Resolution{"/a/b/c/", "./", "/a/b/c/"},
                                           Resolution{"/a/b/c/", "../", "/a/b/"},
                                           Resolution{"/a/b/c/", "..x", "/a/b/x"},
                                           Resolution{"/a/b/c/", "../..", "/a/b/.."},
                                           Resolution{"/a/b/c/", "...", "/a/b/."}));

INSTANTIATE_TEST_SUITE_P(OfOneComponent, CatPath,
                         ::testing::Values(Resolution{"/abc", ".", "/abc/"},
                                           Resolution{"/abc", "./x", "/abc/x"},
                                           Resolution{"/abc", "..", "/"},
                                           Resolution{"/abc", "../x", "/x"},
                                           Resolution{"/abc/", "../x", "/x"}));

INSTANTIATE_TEST_SUITE_P(
    OfNoComponent, CatPath,
    ::testing::Values(Resolution{"/", ".", "/"}, Resolution{"/", "./x", "/x"},
                      Resolution{"/", "..", "/"}, Resolution{"/", "../x", "/x"},
                      Resolution{"//", ".", "//"}, Resolution{"//", "./x", "//x"},
                      Resolution{"//", "..", "/"}, Resolution{"//", "../x", "/x"},
                      Resolution{"", ".", "/"}, Resolution{"", "./x", "/x"},
                      Resolution{"", "..", "/"}, Resolution{"", "../x", "/x"}));

INSTANTIATE_TEST_SUITE_P(
    WithoutALeadingSlash, CatPath,
    ::testing::Values(Resolution{"a/b", ".", "a/b/"}, Resolution{"a/b", "./x", "a/b/x"},
                      Resolution{"a/b", "..", "a/"}, Resolution{"a/b", "../x", "a/x"},
                      Resolution{"a/b/", "../x", "a/x"}, Resolution{"abc", ".", "abc/"},
                      Resolution{"abc", "./x", "abc/x"}));

// Only one slash counts as the end of a component; what is kept loses one slash as well.
INSTANTIATE_TEST_SUITE_P(OfSlashesInARow, CatPath,
                         ::testing::Values(Resolution{"/a/b//", ".", "/a/b//"},
                                           Resolution{"/a/b//", "../x", "/a/b/x"},
                                           Resolution{"/a//b", "../x", "/a//x"}));

INSTANTIATE_TEST_SUITE_P(OfOneCharacter, CatPath,
                         ::testing::Values(Resolution{"a", ".", "a/"},
                                           Resolution{"a", "./x", "a/x"},
                                           Resolution{".", "./x", "./x"}));

TEST_F(AllocWithCatPath, AParentOfACatPathWithoutASlashKeepsNothingOfIt)
{
    for (const char* catPath : {"abc", "a", "abc/"}) {
        setCatPath(catPath);
        EXPECT_EQ(resolved("../x"), "/x") << catPath;
        EXPECT_EQ(resolved(".."), "/") << catPath;
    }
}

TEST_F(AllocWithCatPath, WithoutCatPathGivesNull)
{
    EXPECT_EQ(allocWithCatPath("./x"), nullptr);
    EXPECT_EQ(allocWithCatPath(".."), nullptr);
}

TEST_F(AllocWithCatPath, OfADirectoryThatDoesNotBeginWithADotGivesNull)
{
    setCatPath("/a/b/c");
    EXPECT_EQ(allocWithCatPath("/tmp"), nullptr);
    EXPECT_EQ(allocWithCatPath("x"), nullptr);
    EXPECT_EQ(allocWithCatPath("x/./y"), nullptr);
    EXPECT_EQ(allocWithCatPath(""), nullptr);
}

TEST_F(AllocWithCatPath, NullGivesNull)
{
    setCatPath("/a/b/c");
    EXPECT_EQ(allocWithCatPath(nullptr), nullptr);
}

TEST_F(AllocWithCatPath, ALocalCatPathComesFirst)
{
    setCatPath("/process");
    rm_putLocalEnv("catpath=/local/dir");
    EXPECT_EQ(resolved("./x"), "/LOCAL/DIR/x");
    rm_putLocalEnv("catpath");
    EXPECT_EQ(resolved("./x"), "/process/x");
}

TEST_F(AllocWithCatPath, AnEmptyLocalCatPathComesFirstToo)
{
    setCatPath("/process");
    rm_putLocalEnv("CATPATH=");
    EXPECT_EQ(resolved("./x"), "/x");
}

TEST_F(AllocWithCatPath, IsAskedForAnewEachTime)
{
    setCatPath("/one");
    EXPECT_EQ(resolved("."), "/one/");
    setCatPath("/two");
    EXPECT_EQ(resolved("."), "/two/");
}

TEST_F(AllocWithCatPath, ADirectoryAndACatPathMayBeVeryLong)
{
    const std::string catPath = "/" + std::string(100'000, 'c');
    const std::string rest(100'000, 'd');
    setCatPath(catPath);
    EXPECT_EQ(resolved(("./" + rest).c_str()), catPath + "/" + rest);
    EXPECT_EQ(resolved(("../" + rest).c_str()), "/" + rest);
}

TEST_F(AllocWithCatPath, BelongsToTagZeroAndIsAsLongAsBothTogether)
{
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    setCatPath("/a/b/c");
    const uint32_t before = rmalloc::tagTable[0].allocated;
    char* path = allocWithCatPath("../xyz");
    EXPECT_EQ(rmalloc::tagTable[0].allocated - before, rmalloc::unitsFor(6 + 6 + 1) * 8);
    rm_freeMemory(path, 0);
}

TEST_F(AllocWithCatPath, ItsBlockIsClearedBehindTheText)
{
    // Memory that has been something else before.
    setCatPath("/a/b/c/d/e/f");
    void* neighbour = rm_getMemory(8, 0);
    char* dirty = static_cast<char*>(rm_getMemory(15, 0));
    std::memset(dirty, 0xFF, 15);
    rm_freeMemory(dirty, 0);
    char* path = allocWithCatPath("..");
    EXPECT_TRUE(path == dirty || seg_alloc != 0) << "the case needs the same place again";
    EXPECT_EQ(std::string(path, 15), std::string("/a/b/c/d/e/\0\0\0\0", 15));
    rm_freeMemory(path, 0);
    rm_freeMemory(neighbour, 0);
}

TEST_F(AllocWithCatPath, NeverWritesItsDirectory)
{
    setCatPath("/a/b/c");
    char directory[] = "../x";
    EXPECT_EQ(resolved(directory), "/a/b/x");
    EXPECT_STREQ(directory, "../x");
    EXPECT_STREQ(getenv("CATPATH"), "/a/b/c");
}

// --- Paths in memory

TEST_F(MakeAllocPath, JoinsDirectoryBaseAndExtension)
{
    EXPECT_EQ(made("/tmp", "db", "ini"), "/tmp/db.ini");
}

TEST_F(MakeAllocPath, ADirectoryThatEndsWithASlashGetsNoOther)
{
    EXPECT_EQ(made("/tmp/", "db", "ini"), "/tmp/db.ini");
    EXPECT_EQ(made("/", "db", "ini"), "/db.ini");
    EXPECT_EQ(made("/tmp//", "db", "ini"), "/tmp//db.ini");
}

TEST_F(MakeAllocPath, AnEmptyDirectoryAddsNothing)
{
    EXPECT_EQ(made("", "db", "ini"), "db.ini");
}

TEST_F(MakeAllocPath, ANullDirectoryAddsNothing)
{
    EXPECT_EQ(made(nullptr, "db", "ini"), "db.ini");
}

TEST_F(MakeAllocPath, WithoutABaseEndsWithTheSlash)
{
    EXPECT_EQ(made("/tmp", nullptr, nullptr), "/tmp/");
    EXPECT_EQ(made("/tmp", "", nullptr), "/tmp/");
    EXPECT_EQ(made("/tmp", nullptr, "ini"), "/tmp/.ini");
}

TEST_F(MakeAllocPath, WithoutAnExtensionHasNoDot)
{
    EXPECT_EQ(made("/tmp", "db", nullptr), "/tmp/db");
}

TEST_F(MakeAllocPath, WithAnEmptyExtensionEndsWithTheDot)
{
    EXPECT_EQ(made("/tmp", "db", ""), "/tmp/db.");
}

TEST_F(MakeAllocPath, OfNothingIsAnEmptyText)
{
    // Memory that has been something else before.
    void* neighbour = rm_getMemory(8, 0);
    char* dirty = static_cast<char*>(rm_getMemory(1, 0));
    *dirty = 'x';
    rm_freeMemory(dirty, 0);
    EXPECT_EQ(made(nullptr, nullptr, nullptr), "");
    EXPECT_EQ(made("", nullptr, nullptr), "");
    EXPECT_EQ(made("", "", nullptr), "");
    EXPECT_EQ(made(".", nullptr, nullptr), "") << "without CATPATH";
    rm_freeMemory(neighbour, 0);
}

TEST_F(MakeAllocPath, ABaseWithASlashIsTheWholePath)
{
    setCatPath("/a/b/c");
    for (const char* directory : {static_cast<const char*>(nullptr), "", "/tmp", ".", "../x"}) {
        for (const char* extension : {static_cast<const char*>(nullptr), "", "ini"}) {
            EXPECT_EQ(made(directory, "/etc/x.ini", extension), "/etc/x.ini");
            EXPECT_EQ(made(directory, "a/b", extension), "a/b");
            EXPECT_EQ(made(directory, "b/", extension), "b/");
            EXPECT_EQ(made(directory, "/", extension), "/");
        }
    }
}

TEST_F(MakeAllocPath, ABaseThatIsTheWholePathIsCopied)
{
    char base[] = "/etc/x.ini";
    char* path = makeAllocPath("/tmp", base, nullptr, 0);
    EXPECT_NE(path, base);
    base[1] = '?';
    EXPECT_EQ(taken(path), "/etc/x.ini");
}

TEST_F(MakeAllocPath, ADirectoryWithADotIsDroppedWithoutCatPath)
{
    EXPECT_EQ(made("./data", "f", nullptr), "f");
    EXPECT_EQ(made("../data", "f", "x"), "f.x");
    EXPECT_EQ(made(".data", "f", nullptr), "f");
}

TEST_F(MakeAllocPath, ADirectoryWithADotCountsFromCatPath)
{
    setCatPath("/srv/app");
    EXPECT_EQ(made("../log", "a", "txt"), "/srv/log/a.txt");
    EXPECT_EQ(made("./log", "a", "txt"), "/srv/app/log/a.txt");
    EXPECT_EQ(made(".", "a", "txt"), "/srv/app/a.txt");
    EXPECT_EQ(made("..", "a", "txt"), "/srv/a.txt");
}

TEST_F(MakeAllocPath, OtherDirectoriesDoNotAskForCatPath)
{
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    setCatPath("/srv/app");
    resetCalls();
    EXPECT_EQ(made("/tmp", "a", nullptr), "/tmp/a");
    EXPECT_EQ(made("tmp/.", "a", nullptr), "tmp/./a");
    EXPECT_EQ(made(nullptr, "a", nullptr), "a");
    EXPECT_EQ(made("", ".a", nullptr), ".a");
    EXPECT_EQ(callCount(Call::kGetenv), 0);
}

TEST_F(MakeAllocPath, BelongsToTheTagAndLeavesNothingInAnother)
{
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    setCatPath("/srv/app");
    const uint32_t zero = rmalloc::tagTable[0].allocated;
    const uint32_t used = rm_memused();
    for (const char* directory : {"/tmp", "./log", "..", ""}) {
        for (const char* base : {"a", "/whole"}) {
            char* path = makeAllocPath(directory, base, "x", tag);
            EXPECT_EQ(rmalloc::tagTable[0].allocated, zero) << directory;
            EXPECT_EQ(rmalloc::tagTable[tag].allocated,
                      rmalloc::unitsFor(static_cast<uint32_t>(std::strlen(path) + 1)) * 8);
            rm_freeMemory(path, tag);
            EXPECT_EQ(rmalloc::tagTable[tag].allocated, 0U);
        }
    }
    EXPECT_EQ(rm_memused(), used);
}

TEST_F(MakeAllocPath, MayBeVeryLong)
{
    const std::string catPath = "/" + std::string(100'000, 'c');
    const std::string base(100'000, 'b');
    setCatPath(catPath);
    EXPECT_EQ(made("./x", base.c_str(), "e"), catPath + "/x/" + base + ".e");
    EXPECT_EQ(made("/d", "b", base.c_str()), "/d/b." + base);
}

// --- Paths in a buffer

constexpr char kFill = '\xA5';

// A path as the call leaves it in a buffer of `size` bytes, with what stands around that.
struct Made {
    int16_t status;
    std::string text;  // the buffer up to its terminator
    bool intact;       // nothing else was written
};

// Of size 0 one byte may be written.
Made madeIn(std::size_t size, const char* directory, const char* base, const char* extension)
{
    constexpr std::size_t kGuard = 32;
    std::vector<char> memory(size + 2 * kGuard, kFill);
    char* buffer = memory.data() + kGuard;
    Made result = {makePath(buffer, static_cast<uint16_t>(size), directory, base, extension), "",
                   true};
    const std::size_t room = size > 0 ? size : 1;
    for (std::size_t i = 0; i < memory.size(); ++i) {
        const bool inside = i >= kGuard && i < kGuard + room;
        result.intact = result.intact && (inside || memory[i] == kFill);
    }
    result.text = size > 0 ? std::string(buffer, strnlen(buffer, size)) : "";
    return result;
}

TEST_F(MakePath, JoinsDirectoryBaseAndExtension)
{
    const Made result = madeIn(100, "/tmp", "db", "ini");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.text, "/tmp/db.ini");
}

TEST_F(MakePath, ThatDoesNotFitIsCutAndReported)
{
    const Made result = madeIn(8, "/tmp", "db", "ini");
    EXPECT_EQ(result.status, -1);
    EXPECT_EQ(result.text, "/tmp/db");
    EXPECT_TRUE(result.intact);
}

TEST_F(MakePath, WithEverySizeIsTheWholePathOrItsFirstBytes)
{
    setCatPath("/srv/app");
    for (const char* directory : {static_cast<const char*>(nullptr), "", "/", "/tmp", "/tmp/", ".",
                                  "..", "./log", "../log", ".x", "..x", "..."}) {
        for (const char* base : {static_cast<const char*>(nullptr), "", "db", "/db", "a/b"}) {
            for (const char* extension : {static_cast<const char*>(nullptr), "", "ini"}) {
                const std::string whole = madeIn(1000, directory, base, extension).text;
                for (std::size_t size = 1; size <= whole.size() + 3; ++size) {
                    const Made result = madeIn(size, directory, base, extension);
                    ASSERT_EQ(result.status, size > whole.size() ? 0 : -1) << whole << size;
                    ASSERT_EQ(result.text, whole.substr(0, size - 1)) << whole << size;
                    ASSERT_TRUE(result.intact) << whole << size;
                }
            }
        }
    }
}

TEST_F(MakePath, OfSizeZeroIsCutAndWritesNothing)
{
    char buffer[] = {kFill, kFill};
    EXPECT_EQ(makePath(buffer, 0, "/tmp", "db", "ini"), -1);
    EXPECT_EQ(buffer[0], kFill);
    EXPECT_EQ(buffer[1], kFill);
}

TEST_F(MakePath, OfNothingWithSizeZeroStillEndsWithAZero)
{
    char buffer[] = {kFill, kFill};
    EXPECT_EQ(makePath(buffer, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], kFill);
}

TEST_F(MakePath, OfNothingIsAnEmptyText)
{
    for (const char* directory : {static_cast<const char*>(nullptr), "", "."}) {
        const Made result = madeIn(10, directory, nullptr, nullptr);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.text, "");
        EXPECT_TRUE(result.intact);
    }
}

TEST_F(MakePath, ABaseWithASlashIsJoinedLikeAnyOther)
{
    EXPECT_EQ(madeIn(100, "/tmp", "/etc/x", "ini").text, "/tmp//etc/x.ini");
    EXPECT_EQ(madeIn(100, "/tmp", "a/b", nullptr).text, "/tmp/a/b");
    EXPECT_EQ(madeIn(100, "", "a/b", nullptr).text, "a/b");
}

TEST_F(MakePath, ADirectoryWithADotCountsFromCatPath)
{
    setCatPath("/srv/app");
    EXPECT_EQ(madeIn(100, "../log", "a", "txt").text, "/srv/log/a.txt");
    EXPECT_EQ(madeIn(100, ".", "a", "txt").text, "/srv/app/a.txt");
    EXPECT_EQ(madeIn(100, ".", "/a", "txt").text, "/srv/app//a.txt");
}

TEST_F(MakePath, ADirectoryWithADotIsDroppedWithoutCatPath)
{
    EXPECT_EQ(madeIn(100, "./data", "f", nullptr).text, "f");
}

TEST_F(MakePath, KeepsNoMemory)
{
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    setCatPath("/srv/app");
    const uint32_t used = rm_memused();
    const uint32_t allocated = rmalloc::tagTable[0].allocated;
    for (const char* directory : {"/tmp", "./log", "..", ""}) {
        madeIn(100, directory, "a", "x");
        madeIn(3, directory, "a", "x");
    }
    EXPECT_EQ(rm_memused(), used);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, allocated);
}

TEST_F(MakePath, OfAVeryLongCatPathIsCut)
{
    const std::string catPath = "/" + std::string(100'000, 'c');
    setCatPath(catPath);
    for (const std::size_t size : std::to_array<std::size_t>({1, 8, 1000, 65'535})) {
        const Made result = madeIn(size, "./x", "f", nullptr);
        EXPECT_EQ(result.status, -1);
        EXPECT_EQ(result.text, catPath.substr(0, size - 1));
        EXPECT_TRUE(result.intact);
    }
}

TEST_F(MakePath, AnEntryOf65536BytesIsCutToo)
{
    // Lengths that a count of 16 bits would take for 0 and 1.
    for (const std::size_t length : std::to_array<std::size_t>({65'536, 65'537})) {
        const std::string base(length, 'b');
        const Made result = madeIn(10, "", base.c_str(), nullptr);
        EXPECT_EQ(result.status, -1);
        EXPECT_EQ(result.text, "bbbbbbbbb");
        EXPECT_TRUE(result.intact);
    }
}

// --- Without memory

// Every segment is one request, so each allocation asks the platform and can be refused. True when
// `body` made an allocation number `failing` (from 0), which must have been fatal.
bool isFatal(int failing, const std::function<void()>& body)
{
    int hits = 0;
    int fatal = 0;
    const std::string log = captureStderr([&] {
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .skip = failing});
        fatal = catchFatal(body);
        hits = fault.hits();
    });
    EXPECT_EQ(fatal, hits) << failing;
    if (fatal == 1) {
        EXPECT_EQ(rmtest::logLines(log).at(0), "Out of memory!");
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    return fatal == 1;
}

TEST_F(PathsWithoutMemory, EveryRefusedAllocationIsFatal)
{
    setenv("SEG_ALLOC", "1", 1);
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    setCatPath("/srv/app");
    char buffer[100];
    EXPECT_TRUE(isFatal(0, [] { allocWithCatPath("./x"); }));
    EXPECT_TRUE(isFatal(0, [tag] { makeAllocPath("./x", "f", nullptr, tag); }));
    EXPECT_TRUE(isFatal(1, [tag] { makeAllocPath("./x", "f", nullptr, tag); }));
    EXPECT_TRUE(isFatal(0, [tag] { makeAllocPath("/tmp", "f", nullptr, tag); }));
    EXPECT_TRUE(isFatal(0, [tag] { makeAllocPath("/tmp", "/f", nullptr, tag); }));
    EXPECT_TRUE(isFatal(0, [&buffer] { makePath(buffer, sizeof(buffer), "./x", "f", nullptr); }));
    EXPECT_FALSE(isFatal(0, [&buffer] { makePath(buffer, sizeof(buffer), "/x", "f", nullptr); }));
    EXPECT_STREQ(buffer, "/x/f");
    EXPECT_EQ(made("./x", "f", nullptr), "/srv/app/x/f");
    unsetenv("SEG_ALLOC");
}

}  // namespace
