// Changing INI files: the temporary file, the steps from it to the file, and what becomes of the
// file that is replaced. The lock is the subject of inilock_test.cpp.
#include "tests/rmutil/ini_case.h"

#include "rm/unix/unix.h"

#include <cerrno>
#include <functional>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace initest;

namespace
{

using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::inChild;

constexpr const char* kText = "[a]\nk=1\n";
constexpr const char* kChanged = "[a]\nk=2\n";
constexpr unsigned kNobody = 65534;

class IniRewrite : public IniTest
{
  protected:
    void SetUp() override
    {
        IniTest::SetUp();
        writeFile(kFile, kText);
    }

    static mode_t modeOf(const char* path)
    {
        struct stat status = {};
        EXPECT_EQ(stat(path, &status), 0);
        return status.st_mode & 07777;
    }
};

class IniRewriteMissing : public IniTest
{
};

class IniRewritePath : public IniTest
{
};

// --- Files that are not there, or cannot be opened

TEST_F(IniRewriteMissing, AFileThatIsNotThereCannotBeChangedAndIsNotMade)
{
    EXPECT_EQ(set("a", "k", "1"), RM_CANNOT_OPEN);
    EXPECT_EQ(set("a", "k", nullptr), RM_CANNOT_OPEN);
    EXPECT_EQ(set("a", nullptr, nullptr), RM_CANNOT_OPEN);
    EXPECT_THAT(namesIn("."), IsEmpty());
}

TEST_F(IniRewriteMissing, ATemporaryFileThatIsAllThatIsLeftIsNotTouched)
{
    writeFile(kTemporary, kText);
    EXPECT_EQ(set("a", "k", "1"), RM_CANNOT_OPEN);
    EXPECT_EQ(readFile(kTemporary), kText);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kTemporary}));
}

TEST_F(IniRewriteMissing, ATemporaryFileThatIsAllThatIsLeftKeepsItsPermissions)
{
    writeFile(kTemporary, kText);
    chmod(kTemporary, 0644);
    EXPECT_EQ(set("a", "k", "1"), RM_CANNOT_OPEN);
    EXPECT_EQ(std::filesystem::status(kTemporary).permissions(), std::filesystem::perms{0644});
}

TEST_F(IniRewriteMissing, ATemporaryFileThatIsAllThatIsLeftOfAnEmptyFileIsNotRemoved)
{
    writeFile(kTemporary, "");
    EXPECT_EQ(set("a", "k", "1"), RM_CANNOT_OPEN);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kTemporary}));
}

TEST_F(IniRewriteMissing, ADirectoryThatIsNotThereCannotBeWritten)
{
    EXPECT_EQ(set("a", "k", "1", "no/x.ini"), RM_CANNOT_OPEN);
    EXPECT_EQ(set("a", "k", "1", "x.ini/"), RM_CANNOT_OPEN);
    EXPECT_EQ(set("a", "k", "1", ""), RM_CANNOT_OPEN);
    EXPECT_THAT(namesIn("."), IsEmpty());
}

TEST_F(IniRewriteMissing, ADirectoryIsNotReplaced)
{
    std::filesystem::create_directory("d");
    EXPECT_EQ(set("a", "k", "1", "d"), RM_CANNOT_OPEN);
    EXPECT_TRUE(std::filesystem::is_directory("d"));
    EXPECT_EQ(namesIn("."), (std::set<std::string>{"d"}));
}

TEST_F(IniRewrite, InADirectoryThatMayNotBeWrittenChangesNothing)
{
    std::filesystem::create_directory("d");
    writeFile("d/x.ini", kText);
    chmod("d/x.ini", 0666);
    chmod("d", 0555);
    chmod(".", 0755);
    inChild([] {
        if (geteuid() == 0) {
            ASSERT_EQ(setgid(kNobody), 0);
            ASSERT_EQ(setuid(kNobody), 0);
        }
        EXPECT_EQ(set("a", "k", "2", "d/x.ini"), RM_CANNOT_OPEN);
    });
    EXPECT_EQ(readFile("d/x.ini"), kText);
    EXPECT_EQ(namesIn("d"), (std::set<std::string>{kFile}));
    chmod("d", 0755);
}

TEST_F(IniRewrite, OfAFileThatMayNotBeReadChangesNothing)
{
    chmod(kFile, 0);
    chmod(".", 0777);
    inChild([] {
        if (geteuid() == 0) {
            ASSERT_EQ(setgid(kNobody), 0);
            ASSERT_EQ(setuid(kNobody), 0);
        }
        EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    });
    chmod(kFile, 0600);
    EXPECT_EQ(readFile(kFile), kText);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

TEST_F(IniRewrite, ATemporaryFileThatIsADirectoryStopsIt)
{
    std::filesystem::create_directory(kTemporary);
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    EXPECT_EQ(readFile(kFile), kText);
    EXPECT_TRUE(std::filesystem::is_directory(kTemporary));
}

TEST_F(IniRewrite, OfTheTemporaryFileItselfIsRefused)
{
    writeFile(kTemporary, kText);
    EXPECT_EQ(set("a", "k", "2", kTemporary), RM_CANNOT_OPEN);
    EXPECT_EQ(set("a", "k", "2", "./_temp_.ini"), RM_CANNOT_OPEN);
    EXPECT_EQ(readFile(kTemporary), kText);
}

TEST_F(IniRewrite, OfALinkToTheTemporaryFileIsRefused)
{
    writeFile(kTemporary, kText);
    std::filesystem::create_symlink(kTemporary, "soft.ini");
    std::filesystem::create_hard_link(kTemporary, "hard.ini");
    EXPECT_EQ(set("a", "k", "2", "soft.ini"), RM_CANNOT_OPEN);
    EXPECT_EQ(set("a", "k", "2", "hard.ini"), RM_CANNOT_OPEN);
    EXPECT_EQ(readFile(kTemporary), kText);
}

// --- Paths

TEST_F(IniRewritePath, MayBeGivenInAnyForm)
{
    std::filesystem::create_directories("dir/sub");
    const std::string absolute = directory() / "dir" / kFile;
    for (const std::string& path :
         {std::string("dir/x.ini"), std::string("./dir/x.ini"), std::string("dir//x.ini"),
          std::string("dir/sub/../x.ini"), absolute}) {
        writeFile("dir/x.ini", kText);
        EXPECT_EQ(set("a", "k", "2", path.c_str()), RM_SUCCESS) << path;
        EXPECT_EQ(readFile("dir/x.ini"), kChanged) << path;
        EXPECT_EQ(namesIn("dir"), (std::set<std::string>{"sub", kFile})) << path;
    }
    EXPECT_EQ(namesIn("."), (std::set<std::string>{"dir"}));
}

TEST_F(IniRewritePath, SaysWhereTheTemporaryFileStands)
{
    std::filesystem::create_directory("dir");
    const std::string directoryText = directory();
    const std::vector<std::pair<std::string, std::string>> places = {
        {"x.ini", "_temp_.ini"},
        {"./x.ini", "./_temp_.ini"},
        {"dir/x.ini", "dir/_temp_.ini"},
        {"dir//x.ini", "dir//_temp_.ini"},
        {directoryText + "/x.ini", directoryText + "/_temp_.ini"}};
    for (const auto& [path, place] : places) {
        writeFile(path, kText);
        rmtest::resetCalls();
        EXPECT_EQ(set("a", "k", "2", path.c_str()), RM_SUCCESS);
        const std::vector<CallRecord> renames = callTrace({Call::kRename});
        ASSERT_EQ(renames.size(), 1U);
        EXPECT_EQ(renames[0].path(), place);
        EXPECT_EQ(renames[0].path2(), path);
    }
}

TEST_F(IniRewritePath, MayBeLong)
{
    std::string path;
    for (int n = 0; n < 6; ++n) {
        path += std::string(200, 'd') + '/';
    }
    std::filesystem::create_directories(path);
    path += kFile;
    writeFile(path, kText);
    EXPECT_EQ(set("a", "k", "2", path.c_str()), RM_SUCCESS);
    EXPECT_EQ(value("a", "k", path.c_str()), "2");
}

TEST_F(IniRewritePath, MayHaveBlanksAndPercentSigns)
{
    std::filesystem::create_directory("some %s%n dir");
    writeFile("some %s%n dir/%d.ini", kText);
    EXPECT_EQ(set("a", "%s", "%n", "some %s%n dir/%d.ini"), RM_SUCCESS);
    EXPECT_EQ(readFile("some %s%n dir/%d.ini"), "[a]\nk=1\n%s=%n\n");
}

// --- The steps

TEST_F(IniRewrite, HasWrittenAllBeforeTheOldFileIsRemoved)
{
    const ScopedFault spy = look(Call::kRemove, [](const CallRecord& call) {
        EXPECT_EQ(call.path(), kFile);
        EXPECT_EQ(readFile(kTemporary), kChanged);
        EXPECT_EQ(readFile(kFile), kText);
    });
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(callCount(Call::kRemove), 1);
}

TEST_F(IniRewrite, BringsTheNewFileToTheDiskBeforeTheOldOneIsRemoved)
{
    fileCommit = -1;
    rmtest::resetCalls();
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    std::vector<Call> calls;
    for (const CallRecord& call :
         callTrace({Call::kWrite, Call::kFsync, Call::kRemove, Call::kRename})) {
        calls.push_back(call.call);
    }
    EXPECT_THAT(calls, ElementsAre(Call::kWrite, Call::kFsync, Call::kFsync, Call::kRemove,
                                   Call::kRename, Call::kFsync))
        << "the file, its name, the other name";
    const std::vector<CallRecord> locks = callTrace({Call::kFlock});
    ASSERT_EQ(locks.size(), 1U);
    EXPECT_EQ(callTrace({Call::kFsync})[0].args[0], locks[0].args[0]) << "the file first";
}

// A crash must not leave the new file with the permissions of the copy.
TEST_F(IniRewrite, BringsItsPermissionsToTheDiskWithIt)
{
    fileCommit = -1;
    rmtest::resetCalls();
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    std::vector<Call> calls;
    for (const CallRecord& call : callTrace({Call::kFchmod, Call::kWrite, Call::kFsync})) {
        calls.push_back(call.call);
    }
    calls.resize(4);
    EXPECT_THAT(calls, ElementsAre(Call::kFchmod, Call::kWrite, Call::kFchmod, Call::kFsync));
}

TEST_F(IniRewrite, DoesNotSyncWhenTheHostHasSwitchedThatOff)
{
    fileCommit = 0;
    rmtest::resetCalls();
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(callCount(Call::kFsync), 0);
}

TEST_F(IniRewrite, WritesBlocksOf512Bytes)
{
    writeFile(kFile, "[a]\n" + std::string(2000, 'x') + "\n");
    rmtest::resetCalls();
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    const std::vector<CallRecord> writes = callTrace({Call::kWrite});
    ASSERT_EQ(writes.size(), 4U);
    EXPECT_EQ(writes[0].args[2], 512);
    EXPECT_EQ(writes[2].args[2], 512);
    EXPECT_EQ(writes[3].args[2], 4 + 2001 + 4 - 3 * 512);
}

TEST_F(IniRewrite, OverwritesATemporaryFileThatWasLeft)
{
    writeFile(kTemporary, std::string(5000, 'x'));
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), kChanged);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

TEST_F(IniRewrite, WorksWithTheLocksOfTheManagedFiles)
{
    fileSem = RM_NONE;
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(value("a", "k"), "2");
    EXPECT_EQ(rmtest::semValue(os::iSem, fileSem), 1);
    rm_syncTerminate();
}

TEST_F(IniRewrite, WorksWhenOtherFilesMustBeParkedForIt)
{
    fileHandleLimit = 4;
    for (const char* name : {"f0", "f1", "f2", "f3", "f4"}) {
        rm_fileOpen(name, RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    }
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(value("a", "k"), "2");
    for (int16_t handle = 0; handle < 5; ++handle) {
        rm_fileClose(handle);
    }
}

TEST_F(IniRewrite, WorksWithOneDescriptor)
{
    fileHandleLimit = 1;
    fileCommit = -1;
    const std::string comments = ";" + std::string(2000, 'x') + "\n";
    writeFile(kFile, comments + kText);
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), comments + kChanged);
    EXPECT_EQ(set("b", "k", "1"), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), comments + kChanged + "\n[b]\nk=1\n");
    EXPECT_EQ(set("b", nullptr, nullptr), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), comments + kChanged + "\n");
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

// The copy is parked when it gets permissions with which it could not be opened again.
TEST_F(IniRewrite, WorksWithOneDescriptorForAFileThatMayNotBeWritten)
{
    chmod(kFile, 0444);
    chmod(".", 0777);
    inChild([] {
        if (geteuid() == 0) {
            ASSERT_EQ(setgid(kNobody), 0);
            ASSERT_EQ(setuid(kNobody), 0);
        }
        fileHandleLimit = 1;
        EXPECT_EQ(rmtest::captureStderr([] { EXPECT_EQ(set("a", nullptr, nullptr), RM_SUCCESS); }),
                  "");
    });
    EXPECT_EQ(readFile(kFile), "");
    EXPECT_EQ(modeOf(kFile) & 0222U, 0U);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

// --- A file that this process has open

TEST_F(IniRewrite, OfAFileThatThisProcessHasOpenLeavesBothFiles)
{
    const int16_t handle = rm_fileOpen(kFile, RM_O_RDONLY, 0, 0, 0);
    EXPECT_EQ(set("a", "k", "2"), RM_RENAME_FAILED);
    EXPECT_EQ(readFile(kFile), kText);
    EXPECT_EQ(readFile(kTemporary), kChanged);
    rm_fileClose(handle);
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

TEST_F(IniRewrite, OfAFileThatThisProcessHasParkedLeavesBothFiles)
{
    const int16_t handle = rm_fileOpen(kFile, RM_O_RDONLY, 0, 0, 0);
    while (file::ftab[handle]->state != file::kSlotParked) {
        file::closeOneOpenFile();
    }
    EXPECT_EQ(set("a", "k", "2"), RM_RENAME_FAILED);
    EXPECT_EQ(readFile(kFile), kText);
    EXPECT_EQ(readFile(kTemporary), kChanged);
    rm_fileClose(handle);
}

TEST_F(IniRewrite, OfAnotherFileIsNotHeldUpByOneThatIsOpen)
{
    writeFile("y.ini", kText);
    const int16_t handle = rm_fileOpen("y.ini", RM_O_RDONLY, 0, 0, 0);
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), kChanged);
    rm_fileClose(handle);
}

// --- Permissions and owner

TEST_F(IniRewrite, KeepsThePermissionsOfTheFile)
{
    for (const mode_t mode : {0600U, 0640U, 0644U, 0666U, 0400U, 0755U}) {
        chmod(kFile, mode);
        EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
        EXPECT_EQ(modeOf(kFile), mode);
    }
}

TEST_F(IniRewrite, KeepsThePermissionsWhateverTheMaskOfNewFiles)
{
    const mode_t mask = umask(0777);
    chmod(kFile, 0664);
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    umask(mask);
    EXPECT_EQ(modeOf(kFile), 0664U);
}

TEST_F(IniRewrite, HasTheTemporaryFileForItsOwnerOnlyWhileItIsWritten)
{
    chmod(kFile, 0666);
    writeFile(kTemporary, "left");
    chmod(kTemporary, 0666);
    const ScopedFault spy =
        look(Call::kWrite, [](const CallRecord&) { EXPECT_EQ(modeOf(kTemporary), 0600U); });
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(modeOf(kFile), 0666U);
}

TEST_F(IniRewrite, HasThePermissionsOnTheTemporaryFileBeforeTheOldOneIsRemoved)
{
    chmod(kFile, 0640);
    const ScopedFault spy =
        look(Call::kRemove, [](const CallRecord&) { EXPECT_EQ(modeOf(kTemporary), 0640U); });
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
}

TEST_F(IniRewrite, AsksForTheOwnerOfTheFile)
{
    struct stat status = {};
    ASSERT_EQ(stat(kFile, &status), 0);
    rmtest::resetCalls();
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    const std::vector<CallRecord> owners = callTrace({Call::kFchown});
    ASSERT_EQ(owners.size(), 1U);
    EXPECT_EQ(static_cast<uid_t>(owners[0].args[1]), status.st_uid);
    EXPECT_EQ(static_cast<gid_t>(owners[0].args[2]), status.st_gid);
}

TEST_F(IniRewrite, KeepsWhatActsForTheOwner)
{
    chmod(kFile, 04755);
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(modeOf(kFile), 04755U);
}

TEST_F(IniRewrite, LeavesOutWhatWouldActForAnotherOwner)
{
    chmod(kFile, 06754);
    const ScopedFault fault({.call = Call::kFchown, .error = EPERM});
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(readFile(kFile), kChanged);
    EXPECT_EQ(modeOf(kFile), 0754U);
}

TEST_F(IniRewrite, LeavesOutWhatWouldBeAnotherGroups)
{
    chmod(kFile, 0664);
    const ScopedFault fault({.call = Call::kFchown, .error = EPERM, .times = kForever});
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), kChanged);
    EXPECT_EQ(modeOf(kFile), 0604U);
}

}  // namespace
