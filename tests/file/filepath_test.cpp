// Remove, rename and temporary names.
#include "tests/file/file_case.h"

#include <set>

#include <sys/stat.h>

using namespace filetest;

namespace
{

class FileRemove : public FileTest
{
};

class FileRename : public FileTest
{
};

class FileTempName : public FileTest
{
  protected:
    // A name, given back at once.
    static std::string name(const char* path)
    {
        char* made = rm_fileTempName(path);
        std::string copy(made);
        rm_freeMemory(made, 0);
        return copy;
    }
};

// --- Remove

TEST_F(FileRemove, RemovesAFileThatNobodyHasOpen)
{
    writeFile("f", "");
    EXPECT_EQ(rm_fileRemove("f"), 0);
    EXPECT_FALSE(std::filesystem::exists("f"));
}

TEST_F(FileRemove, RefusesTheFileOfAnOpenHandle)
{
    openWith("f", kDigits);
    resetCalls();
    EXPECT_EQ(rm_fileRemove("f"), -1);
    EXPECT_EQ(callCount(Call::kRemove), 0);
    EXPECT_EQ(readFile("f"), kDigits);
}

TEST_F(FileRemove, RefusesTheFileOfAParkedHandle)
{
    parkedWith("f", kDigits);
    EXPECT_EQ(rm_fileRemove("f"), -1);
    EXPECT_EQ(readFile("f"), kDigits);
    EXPECT_EQ(entryOf(0)->state, file::kSlotParked);
}

TEST_F(FileRemove, FindsTheHandleInAnySlot)
{
    fileHandleLimit = -1;
    openMany(40);
    for (const char* path : {"f0", "f31", "f32", "f39"}) {
        EXPECT_EQ(rm_fileRemove(path), -1) << path;
    }
}

TEST_F(FileRemove, RemovesTheFileOnceItsHandleIsClosed)
{
    openMany(2);
    rm_fileClose(1);
    EXPECT_EQ(rm_fileRemove("f1"), 0);
    EXPECT_FALSE(std::filesystem::exists("f1"));
}

TEST_F(FileRemove, RefusesAsLongAsOneOfTwoHandlesIsThere)
{
    openWith("f", kDigits);
    rm_fileOpen("f", RM_O_RDONLY, 0, 0, 0);
    rm_fileClose(0);
    EXPECT_EQ(rm_fileRemove("f"), -1);
    rm_fileClose(1);
    EXPECT_EQ(rm_fileRemove("f"), 0);
}

TEST_F(FileRemove, DoesNotRecogniseAnotherSpellingOfThePath)
{
    openWith("f", kDigits);
    EXPECT_EQ(rm_fileRemove("./f"), 0);
    EXPECT_FALSE(std::filesystem::exists("f"));
}

TEST_F(FileRemove, DoesNotTakeAPrefixForThePath)
{
    openWith("file", kDigits);
    writeFile("fil", "");
    writeFile("file2", "");
    EXPECT_EQ(rm_fileRemove("fil"), 0);
    EXPECT_EQ(rm_fileRemove("file2"), 0);
    EXPECT_TRUE(std::filesystem::exists("file"));
}

TEST_F(FileRemove, OfAMissingFileIsNotZero)
{
    EXPECT_NE(rm_fileRemove("missing"), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileRemove, OfADirectoryWithFilesIsNotZero)
{
    std::filesystem::create_directory("d");
    writeFile("d/f", "");
    EXPECT_NE(rm_fileRemove("d"), 0);
    EXPECT_TRUE(std::filesystem::exists("d/f"));
}

TEST_F(FileRemove, WritesNoLineAndTakesNoLock)
{
    openWith("f", kDigits);
    LockWatch locks;
    EXPECT_THAT(linesOf([] {
                    rm_fileRemove("f");
                    rm_fileRemove("missing");
                }),
                IsEmpty());
    EXPECT_THAT(locks.steps(), IsEmpty());
}

// --- Rename

TEST_F(FileRename, GivesTheFileItsNewName)
{
    writeFile("old", kDigits);
    EXPECT_EQ(rm_fileRename("old", "new"), 0);
    EXPECT_FALSE(std::filesystem::exists("old"));
    EXPECT_EQ(readFile("new"), kDigits);
}

TEST_F(FileRename, ReplacesAFileThatHasTheName)
{
    writeFile("old", "old");
    writeFile("new", "new");
    EXPECT_EQ(rm_fileRename("old", "new"), 0);
    EXPECT_EQ(readFile("new"), "old");
}

TEST_F(FileRename, DoesNotAskWhetherAHandleHasTheFileOpen)
{
    openWith("f", kDigits);
    EXPECT_EQ(rm_fileRename("f", "g"), 0);
    EXPECT_EQ(read(0, 4), "0123");
    park(0);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(read(0, 4), ""); }),
                ElementsAre("WARNING: failed file reopen in rm_fileRead(0)",
                            "rm_fileRead: errno=9: unable to read, file=f"));
}

TEST_F(FileRename, OfAMissingFileIsMinusOne)
{
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileRename("missing", "new"), -1); }), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists("new"));
}

// --- Temporary names

TEST_F(FileTempName, StandsInTheSystemsPlaceForTemporaryFiles)
{
    EXPECT_EQ(name(nullptr).rfind(P_tmpdir "/", 0), 0U);
}

TEST_F(FileTempName, IsTheNameOfNoFile)
{
    EXPECT_FALSE(std::filesystem::exists(name(nullptr)));
}

TEST_F(FileTempName, IsANewOneEveryTime)
{
    std::set<std::string> names;
    for (int i = 0; i < 1000; ++i) {
        names.insert(name("d/f"));
    }
    EXPECT_EQ(names.size(), 1000U);
}

TEST_F(FileTempName, IsANewOneInEveryProcess)
{
    const std::string here = name(nullptr);
    const rmtest::ChildResult child =
        rmtest::runChild([] { std::printf("%s", name(nullptr).c_str()); });
    EXPECT_EQ(child.status, 0);
    EXPECT_NE(child.out, here);
}

TEST_F(FileTempName, IsNotMadeByThePath)
{
    for (const char* path : {"f", "d/f", "/", "", "/no/such/place/f", "a/b/"}) {
        EXPECT_EQ(name(path).rfind(P_tmpdir "/", 0), 0U) << path;
    }
}

TEST_F(FileTempName, LeavesThePathAsItWas)
{
    char path[] = "some/place/file";
    name(path);
    EXPECT_STREQ(path, "some/place/file");
}

TEST_F(FileTempName, BelongsToTheCallerUnderTag0)
{
    rm_freeMemory(rm_getMemory(8, 0), 0);
    const uint32_t before = rmalloc::tagTable[0].allocated;
    char* made = rm_fileTempName(nullptr);
    EXPECT_NE(rmalloc::findInTag(0, rmalloc::headerOf(made)), nullptr);
    EXPECT_GT(rmalloc::tagTable[0].allocated, before);
    rm_freeMemory(made, 0);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, before);
}

TEST_F(FileTempName, CreatesNothing)
{
    resetCalls();
    name(nullptr);
    EXPECT_EQ(callCount(Call::kOpen), 0);
}

TEST_F(FileTempName, PassesNamesThatFilesHave)
{
    // The first two candidates exist already.
    int looks = 0;
    ScopedFault fault({.call = Call::kLstat, .times = 2, .action = [&](const CallRecord&) {
                           ++looks;
                           return int64_t{0};
                       }});
    resetCalls();
    const std::string made = name(nullptr);
    EXPECT_EQ(looks, 2);
    const std::vector<CallRecord> trace = callTrace({Call::kLstat});
    ASSERT_EQ(trace.size(), 3U);
    EXPECT_EQ(trace[2].path(), made);
    EXPECT_NE(trace[0].path(), trace[1].path());
}

TEST_F(FileTempName, WithoutMemoryIsFatal)
{
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
    const FatalEnd end = fatalEnd([] { rm_fileTempName(nullptr); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("Out of memory!"));
}

}  // namespace
