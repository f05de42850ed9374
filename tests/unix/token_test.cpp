// Token files: the prefix, the path, and an open that neither follows a link nor blocks.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::callTrace;
using rmtest::kForever;
using rmtest::openDescriptors;
using rmtest::readFile;
using rmtest::ScopedFault;
using rmtest::writeFile;

constexpr const char* kFile = "a.token";

class TokenName : public rmtest::RmTest
{
};

class TokenPath : public rmtest::RmTest
{
};

class TokenOpen : public rmtest::RmTest
{
};

std::string pathOf(const char* fileName)
{
    char path[os::kTokenPathSize];
    os::tokenPath(path, fileName);
    return path;
}

mode_t modeOf(const char* path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path, &status), 0);
    return status.st_mode & 07777U;
}

// --- The prefix

TEST(TokenNameAtStart, IsEmpty)
{
    EXPECT_STREQ(os::tokName, "");
}

TEST_F(TokenName, IsKeptAsItIs)
{
    rm_tokenName("/var/run/host/");
    EXPECT_STREQ(os::tokName, "/var/run/host/");
}

TEST_F(TokenName, IsACopy)
{
    std::array<char, 8> prefix = {"one/"};
    rm_tokenName(prefix.data());
    std::strcpy(prefix.data(), "two/");
    EXPECT_STREQ(os::tokName, "one/");
}

TEST_F(TokenName, ReplacesTheOneBefore)
{
    rm_tokenName("a long prefix/");
    rm_tokenName("b/");
    EXPECT_STREQ(os::tokName, "b/");
}

TEST_F(TokenName, CanBeEmptiedAgain)
{
    rm_tokenName("a/");
    rm_tokenName("");
    EXPECT_STREQ(os::tokName, "");
}

TEST_F(TokenName, Holds31Characters)
{
    const std::string longest(31, 'x');
    rm_tokenName(longest.c_str());
    EXPECT_EQ(os::tokName, longest);
}

TEST_F(TokenName, IsCutAfter31Characters)
{
    rm_tokenName((std::string(31, 'x') + "y").c_str());
    EXPECT_EQ(os::tokName, std::string(31, 'x'));
}

TEST_F(TokenName, IsCutWhateverItsLength)
{
    rm_tokenName(std::string(100'000, 'x').c_str());
    EXPECT_EQ(os::tokName, std::string(31, 'x'));
}

TEST_F(TokenName, MakesNoSystemCall)
{
    rmtest::resetCalls();
    rm_tokenName("somewhere/");
    EXPECT_TRUE(callTrace().empty());
}

// --- The path

TEST_F(TokenPath, IsTheFileNameWhenThePrefixIsEmpty)
{
    EXPECT_EQ(pathOf(".ZNT.RM.SEM"), ".ZNT.RM.SEM");
}

TEST_F(TokenPath, PutsThePrefixBeforeTheFileName)
{
    rm_tokenName("/tmp/");
    EXPECT_EQ(pathOf(".ZNT.RM.SEM"), "/tmp/.ZNT.RM.SEM");
}

// A caller that means a directory ends the prefix with a slash; none is added.
TEST_F(TokenPath, AddsNoSeparator)
{
    rm_tokenName("host1");
    EXPECT_EQ(pathOf(".ZNT.RM.SEM"), "host1.ZNT.RM.SEM");
}

TEST_F(TokenPath, HoldsTheLongestPrefixAndTheLongestFileName)
{
    const std::string longest(31, 'x');
    rm_tokenName(longest.c_str());
    EXPECT_EQ(pathOf(".ZNT.RM.QUEUE"), longest + ".ZNT.RM.QUEUE");
}

// --- The open

TEST_F(TokenOpen, CreatesAnEmptyFile)
{
    FILE* stream = os::openToken(kFile);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(readFile(kFile), "");
    std::fclose(stream);
}

TEST_F(TokenOpen, GivesTheFileToEverybodyLessTheMask)
{
    const mode_t before = umask(027);
    FILE* stream = os::openToken(kFile);
    umask(before);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(modeOf(kFile), 0640U);
    std::fclose(stream);
}

TEST_F(TokenOpen, TruncatesAFileThatIsThere)
{
    writeFile(kFile, "left by an older release");
    FILE* stream = os::openToken(kFile);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(readFile(kFile), "");
    std::fclose(stream);
}

// The key is made from the file's identity: a file made anew would part the processes.
TEST_F(TokenOpen, KeepsTheIdentityOfAFileThatIsThere)
{
    writeFile(kFile, "x");
    std::filesystem::create_hard_link(kFile, "pinned");  // its number is not given to another
    struct stat before = {};
    struct stat after = {};
    ASSERT_EQ(stat(kFile, &before), 0);
    FILE* stream = os::openToken(kFile);
    ASSERT_NE(stream, nullptr);
    ASSERT_EQ(stat(kFile, &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    std::fclose(stream);
}

TEST_F(TokenOpen, GivesAStreamThatCanBeWritten)
{
    FILE* stream = os::openToken(kFile);
    ASSERT_NE(stream, nullptr);
    EXPECT_GE(std::fputs("text", stream), 0);
    EXPECT_EQ(std::fclose(stream), 0);
    EXPECT_EQ(readFile(kFile), "text");
}

TEST_F(TokenOpen, IsNotInheritedByAProgramThatTheServerStarts)
{
    FILE* stream = os::openToken(kFile);
    ASSERT_NE(stream, nullptr);
    EXPECT_NE(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, 0);
    std::fclose(stream);
}

TEST_F(TokenOpen, RefusesASymbolicLink)
{
    writeFile("target", "precious");
    std::filesystem::create_symlink("target", kFile);
    errno = 0;
    EXPECT_EQ(os::openToken(kFile), nullptr);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(TokenOpen, LeavesTheTargetOfARefusedLinkAlone)
{
    writeFile("target", "precious");
    std::filesystem::create_symlink("target", kFile);
    static_cast<void>(os::openToken(kFile));
    EXPECT_EQ(readFile("target"), "precious");
    EXPECT_TRUE(std::filesystem::is_symlink(kFile));
}

TEST_F(TokenOpen, MakesNoFileBehindADanglingLink)
{
    std::filesystem::create_symlink("nowhere", kFile);
    errno = 0;
    EXPECT_EQ(os::openToken(kFile), nullptr);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(std::filesystem::exists("nowhere"));
}

// An administrator may have moved the directory and left a link in its place.
TEST_F(TokenOpen, FollowsALinkToTheDirectory)
{
    std::filesystem::create_directory("real");
    std::filesystem::create_directory_symlink("real", "linked");
    FILE* stream = os::openToken("linked/token");
    ASSERT_NE(stream, nullptr);
    EXPECT_TRUE(std::filesystem::exists("real/token"));
    std::fclose(stream);
}

TEST_F(TokenOpen, DoesNotWaitForTheReaderOfAPipe)
{
    ASSERT_EQ(mkfifo(kFile, 0600), 0);
    const rmtest::ChildResult result = rmtest::runChild([] {
        errno = 0;
        EXPECT_EQ(os::openToken(kFile), nullptr);
        EXPECT_EQ(errno, ENXIO);
    });
    EXPECT_FALSE(result.timedOut);
}

TEST_F(TokenOpen, DoesNotWaitForAPipeThatHasAReader)
{
    ASSERT_EQ(mkfifo(kFile, 0600), 0);
    const rmtest::ChildResult result = rmtest::runChild([] {
        const int reader = open(kFile, O_RDONLY | O_NONBLOCK);
        EXPECT_NE(reader, -1);
        EXPECT_NE(os::openToken(kFile), nullptr);
    });
    EXPECT_FALSE(result.timedOut);
}

TEST_F(TokenOpen, RefusesADirectory)
{
    std::filesystem::create_directory(kFile);
    errno = 0;
    EXPECT_EQ(os::openToken(kFile), nullptr);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(TokenOpen, FailsWithoutTheDirectory)
{
    errno = 0;
    EXPECT_EQ(os::openToken("nowhere/token"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(TokenOpen, PassesOnWhyTheOpenFailed)
{
    for (const int error :
         {EACCES,  EDQUOT, EEXIST,       EFAULT,    EFBIG,  EINTR,  EINVAL, EISDIR,
          ELOOP,   EMFILE, ENAMETOOLONG, ENFILE,    ENODEV, ENOENT, ENOMEM, ENOSPC,
          ENOTDIR, ENXIO,  EOPNOTSUPP,   EOVERFLOW, EPERM,  EROFS,  ETXTBSY}) {
        SCOPED_TRACE(std::strerror(error));
        ScopedFault fault({.call = Call::kOpen, .error = error});
        errno = 0;
        EXPECT_EQ(os::openToken(kFile), nullptr);
        EXPECT_EQ(errno, error);
    }
    EXPECT_FALSE(std::filesystem::exists(kFile));
}

TEST_F(TokenOpen, PassesOnWhyThereIsNoStream)
{
    for (const int error : {EINVAL, ENOMEM}) {
        SCOPED_TRACE(std::strerror(error));
        ScopedFault fault({.call = Call::kFdopen, .error = error});
        errno = 0;
        EXPECT_EQ(os::openToken(kFile), nullptr);
        EXPECT_EQ(errno, error);
    }
}

TEST_F(TokenOpen, ClosesTheDescriptorThatGotNoStream)
{
    const auto before = openDescriptors();
    ScopedFault fault({.call = Call::kFdopen, .error = ENOMEM});
    static_cast<void>(os::openToken(kFile));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(TokenOpen, PassesOnWhyThereIsNoStreamWhenClosingFailsToo)
{
    ScopedFault fdopenFault({.call = Call::kFdopen, .error = ENOMEM});
    ScopedFault closeFault({.call = Call::kClose, .error = EIO});
    errno = 0;
    EXPECT_EQ(os::openToken(kFile), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(closeFault.hits(), 1);
}

// What a server prints and logs after it has closed them must not go into the file.
TEST_F(TokenOpen, HasTheNumberOfNoStandardStream)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        close(STDERR_FILENO);
        FILE* stream = os::openToken(kFile);
        EXPECT_NE(stream, nullptr);
        EXPECT_GT(fileno(stream), STDERR_FILENO);
        EXPECT_EQ(fcntl(fileno(stream), F_GETFD), FD_CLOEXEC);
        rm_systemLogWrite("logged");
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(readFile(kFile), "");
}

TEST_F(TokenOpen, PassesOnWhyThereIsNoOtherNumber)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        close(STDERR_FILENO);
        ScopedFault fault({.call = Call::kFcntl, .error = EMFILE});
        errno = 0;
        EXPECT_EQ(os::openToken(kFile), nullptr);
        EXPECT_EQ(errno, EMFILE);
        EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFD), -1);
    });
    EXPECT_EQ(child.status, 0);
}

TEST_F(TokenOpen, IsTriedOnce)
{
    ScopedFault fault({.call = Call::kOpen, .error = EMFILE, .times = kForever});
    rmtest::resetCalls();
    static_cast<void>(os::openToken(kFile));
    EXPECT_EQ(callCount(Call::kOpen), 1);
}
}  // namespace
