// INI files while calls to the system fail, each in turn, once and for ever, and while there is no
// memory: the file is the old one or the new one, or the new one stands whole beside the place
// where it was; the result says which; nothing leaks; and the next call works.
#include "tests/file/fault_case.h"
#include "tests/rmutil/ini_case.h"

#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <span>
#include <string>

#include <unistd.h>

using namespace initest;

namespace
{

using filetest::Outcome;
using filetest::under;
using rmtest::CallRecord;
using rmtest::Fault;

constexpr int kAborted = 1000;  // no result: the call did not come back

std::string manyLines()
{
    std::string lines;
    for (int n = 0; n < 25; ++n) {
        lines += "key " + std::to_string(n) + "=" + std::string(30, 'v') + "\r\n";
    }
    return lines;
}

// A change of a file, and what it makes of it.
struct Change {
    const char* name;
    std::string before;
    int (*make)();
    std::string after;
};

void PrintTo(const Change& change, std::ostream* out)
{
    *out << change.name;
}

std::string changeName(const ::testing::TestParamInfo<Change>& info)
{
    return info.param.name;
}

std::vector<Change> changes()
{
    const std::string lines = manyLines();
    return {
        {"SetOfAnEntry", "[a]\nk=1\n[b]\n", [] { return set("a", "k", "2"); }, "[a]\nk=2\n[b]\n"},
        {"SetOfANewSection", "[a]\nk=1\n", [] { return set("b", "k", "2"); },
         "[a]\nk=1\n\n[b]\nk=2\n"},
        {"DeletionOfASection", "[a]\nk=1\n[b]\n", [] { return set("a", nullptr, nullptr); },
         "[b]\n"},
        {"SetInAFileOfManyBlocks", "[a]\r\n" + lines + "k=1\r\n", [] { return set("a", "k", "2"); },
         "[a]\r\n" + lines + "k=2\n"}};
}

struct Failing {
    Call call;
    const char* name;
    std::span<const int> errors;
};

constexpr auto kLockErrors = std::to_array<int>({ENOLCK, EBADF, EINVAL, ENOSYS, EOPNOTSUPP});
constexpr auto kPermissionErrors = std::to_array<int>({EPERM, EACCES, EROFS, EIO, ENOENT});
constexpr auto kStatErrors = std::to_array<int>({EACCES, ENOENT, EIO, ELOOP, ENOMEM, EOVERFLOW});

const Failing kFailing[] = {
    {Call::kOpen, "open", filetest::kOpenErrors},
    {Call::kClose, "close", filetest::kCloseErrors},
    {Call::kRead, "read", filetest::kReadErrors},
    {Call::kWrite, "write", filetest::kWriteErrors},
    {Call::kLseek, "lseek", filetest::kLseekErrors},
    {Call::kFsync, "fsync", filetest::kFsyncErrors},
    {Call::kRemove, "remove", filetest::kRemoveErrors},
    {Call::kRename, "rename", filetest::kRenameErrors},
    {Call::kFlock, "flock", kLockErrors},
    {Call::kStat, "stat", kStatErrors},
    {Call::kFstat, "fstat", kStatErrors},
    {Call::kFchmod, "fchmod", kPermissionErrors},
    {Call::kFchown, "fchown", kPermissionErrors},
};

class IniFaultCase : public IniTest
{
  protected:
    void SetUp() override
    {
        IniTest::SetUp();
        fileCommit = -1;
        descriptors_ = rmtest::openDescriptors();
        enterFastDirectory();
    }

    static bool isThere(const char* path) { return access(path, F_OK) == 0; }

    static bool holds(const char* path, const std::string& text)
    {
        return isThere(path) && readFile(path) == text;
    }

    static void fresh(const std::string& text)
    {
        std::filesystem::remove(kTemporary);
        writeFile(kFile, text);
    }

    void expectNothingLeftOpen() const
    {
        expectNothingLeft();
        EXPECT_EQ(rmtest::openDescriptors(), descriptors_);
    }

    // Calls are made only when they are asked for again and again without an end in between.
    static void expectNextWorks()
    {
        fresh("[x]\ny=1\n");
        rmtest::resetCalls();
        EXPECT_EQ(set("x", "y", "2"), RM_SUCCESS);
        EXPECT_EQ(value("x", "y"), "2");
        EXPECT_EQ(rmtest::callCount(Call::kNanosleep), 0) << "a lock was left";
        EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
    }

    std::vector<int> descriptors_;
};

// --- Changes

class IniFault : public IniFaultCase, public ::testing::WithParamInterface<Change>
{
  protected:
    // The change under the fault.
    Outcome change(const Fault& fault)
    {
        fresh(GetParam().before);
        result_ = kAborted;
        return under(fault, [this] {
            const FastTime time;
            result_ = GetParam().make();
        });
    }

    bool oldFile() const { return holds(kFile, GetParam().before); }

    bool newFile() const { return holds(kFile, GetParam().after); }

    bool newCopy() const { return holds(kTemporary, GetParam().after); }

    // What the result says, and nothing else, has come of it.
    void expectWhatTheResultSays(Call call) const
    {
        switch (result_) {
            case RM_SUCCESS:
                EXPECT_TRUE(newFile());
                EXPECT_FALSE(isThere(kTemporary));
                break;
            case RM_CANNOT_OPEN:
                EXPECT_TRUE(oldFile());
                // A copy that cannot be told from another process's is left to it.
                EXPECT_TRUE(!isThere(kTemporary) || call == Call::kStat || call == Call::kFstat);
                break;
            case RM_RENAME_FAILED:
                if (call == Call::kRename) {
                    EXPECT_FALSE(isThere(kFile));
                    EXPECT_TRUE(newCopy());
                } else if (call == Call::kRemove || call == Call::kStat || call == Call::kFstat) {
                    EXPECT_TRUE(oldFile());
                    EXPECT_TRUE(newCopy());
                } else {
                    EXPECT_TRUE(oldFile());
                    EXPECT_FALSE(isThere(kTemporary));
                }
                break;
            default:
                ADD_FAILURE() << "result " << result_;
        }
    }

    // The results that a failure of the call may have.
    static std::set<int> resultsOf(Call call, int error, int times)
    {
        const bool again = error == EINTR && times == 1;
        switch (call) {
            case Call::kOpen:
                return {RM_SUCCESS, RM_CANNOT_OPEN};
            case Call::kStat:
            case Call::kFstat:
                return {RM_SUCCESS, RM_CANNOT_OPEN, RM_RENAME_FAILED};
            case Call::kRead:
                return {again ? RM_SUCCESS : RM_RENAME_FAILED};
            case Call::kWrite:
            case Call::kRemove:
            case Call::kRename:
                return {RM_RENAME_FAILED};
            case Call::kLseek:
                return {RM_SUCCESS, RM_CANNOT_OPEN, RM_RENAME_FAILED};
            case Call::kFsync:
                return {RM_SUCCESS, again || error == EINVAL ? RM_SUCCESS : RM_RENAME_FAILED};
            default:
                return {RM_SUCCESS};
        }
    }

    int result_ = kAborted;
};

INSTANTIATE_TEST_SUITE_P(Changes, IniFault, ::testing::ValuesIn(changes()), changeName);

TEST_P(IniFault, LeavesTheOldFileOrTheNewOneWhicheverCallFails)
{
    for (const Failing& failing : kFailing) {
        int failed = 0;
        filetest::forEach(failing.name, failing.errors, [&](int error, int times) {
            int hits = 1;
            for (int skip = 0; hits > 0 && !HasFailure(); ++skip) {
                SCOPED_TRACE("call " + std::to_string(skip));
                const Outcome outcome =
                    change({.call = failing.call, .error = error, .skip = skip, .times = times});
                hits = outcome.hits;
                failed += hits;
                EXPECT_FALSE(outcome.jumped);
                if (hits == 0) {
                    EXPECT_EQ(result_, RM_SUCCESS);
                } else {
                    EXPECT_TRUE(resultsOf(failing.call, error, times).contains(result_)) << result_;
                }
                expectWhatTheResultSays(failing.call);
                expectNothingLeftOpen();
                expectNextWorks();
            }
        });
        EXPECT_GT(failed, 0) << failing.name << " is not called";
        ASSERT_FALSE(HasFailure());
    }
}

TEST_P(IniFault, LeavesTheOldFileWhenAWriteIsShort)
{
    for (const int64_t length : {0, 1, 2, 511}) {
        for (const int times : {1, kForever}) {
            int hits = 1;
            for (int skip = 0; hits > 0 && !HasFailure(); ++skip) {
                SCOPED_TRACE("written " + std::to_string(length) + ", call " +
                             std::to_string(skip));
                bool cut = false;
                const Outcome outcome = change({.call = Call::kWrite,
                                                .skip = skip,
                                                .times = times,
                                                .result = length,
                                                .when = [&](const CallRecord& call) {
                                                    cut = cut || call.args[2] > length;
                                                    return call.args[2] > length;
                                                }});
                hits = outcome.hits;
                EXPECT_EQ(result_, hits > 0 ? RM_RENAME_FAILED : RM_SUCCESS);
                expectWhatTheResultSays(Call::kWrite);
                expectNothingLeftOpen();
                expectNextWorks();
            }
        }
    }
}

TEST_P(IniFault, ReadsOnAfterAShortRead)
{
    for (const int64_t length : {1, 2, 100, 511}) {
        for (const int times : {1, kForever}) {
            int hits = 1;
            for (int skip = 0; hits > 0 && skip < 20 && !HasFailure(); ++skip) {
                SCOPED_TRACE("read " + std::to_string(length) + ", call " + std::to_string(skip));
                const Outcome outcome =
                    change({.call = Call::kRead, .skip = skip, .times = times, .result = length});
                hits = outcome.hits;
                EXPECT_EQ(result_, RM_SUCCESS);
                expectWhatTheResultSays(Call::kRead);
                expectNothingLeftOpen();
            }
        }
    }
}

TEST_P(IniFault, LeavesTheOldFileOnAFullDisk)
{
    // The disk has room for so many bytes, and a write that passes the end is short.
    for (std::size_t room = 0; room <= GetParam().after.size(); ++room) {
        std::size_t left = room;
        change({.call = Call::kWrite, .times = kForever, .action = [&](const CallRecord& call) {
                    CallRecord cut = call;
                    cut.args[2] = std::min(cut.args[2], static_cast<int64_t>(left));
                    if (cut.args[2] == 0) {
                        errno = ENOSPC;
                        return int64_t{-1};
                    }
                    const int64_t written = rmtest::passThrough(cut);
                    left -= static_cast<std::size_t>(written);
                    return written;
                }});
        ASSERT_EQ(result_, room < GetParam().after.size() ? RM_RENAME_FAILED : RM_SUCCESS) << room;
        expectWhatTheResultSays(Call::kWrite);
        ASSERT_FALSE(HasFailure()) << room;
    }
    expectNothingLeftOpen();
}

// --- What the result says, one by one

class IniFailure : public IniFaultCase
{
  protected:
    void SetUp() override
    {
        IniFaultCase::SetUp();
        fresh("[a]\nk=1\n");
    }

    // The result of a change while the fault is armed.
    static int changeUnder(const Fault& fault)
    {
        int result = kAborted;
        under(fault, [&] { result = set("a", "k", "2"); });
        return result;
    }

    static Fault opening(const char* path, int error)
    {
        return {.call = Call::kOpen,
                .error = error,
                .times = kForever,
                .when = [path](const CallRecord& call) { return call.path() == path; }};
    }
};

TEST_F(IniFailure, OfTheOpeningOfTheFileIsMinus46)
{
    for (const int error : {EACCES, EMFILE, EIO}) {
        EXPECT_EQ(changeUnder(opening(kFile, error)), RM_CANNOT_OPEN);
    }
    EXPECT_EQ(readFile(kFile), "[a]\nk=1\n");
    EXPECT_FALSE(isThere(kTemporary));
}

TEST_F(IniFailure, OfTheOpeningOfTheTemporaryFileIsMinus46)
{
    for (const int error : {EACCES, EMFILE, ENOSPC, EROFS}) {
        EXPECT_EQ(changeUnder(opening(kTemporary, error)), RM_CANNOT_OPEN);
    }
    EXPECT_EQ(readFile(kFile), "[a]\nk=1\n");
    EXPECT_FALSE(isThere(kTemporary));
}

TEST_F(IniFailure, OfAWriteIsMinus1019AndTheTemporaryFileIsRemoved)
{
    EXPECT_EQ(changeUnder({.call = Call::kWrite, .error = ENOSPC}), RM_RENAME_FAILED);
    EXPECT_EQ(readFile(kFile), "[a]\nk=1\n");
    EXPECT_FALSE(isThere(kTemporary));
}

TEST_F(IniFailure, OfAnEarlierWriteIsNotForgotten)
{
    fresh("[a]\n" + std::string(3000, 'x') + "\nk=1\n");
    EXPECT_EQ(changeUnder({.call = Call::kWrite, .error = ENOSPC, .skip = 2}), RM_RENAME_FAILED);
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_FALSE(isThere(kTemporary));
}

TEST_F(IniFailure, OfAReadIsMinus1019AndTheTemporaryFileIsRemoved)
{
    EXPECT_EQ(changeUnder({.call = Call::kRead, .error = EIO}), RM_RENAME_FAILED);
    EXPECT_EQ(readFile(kFile), "[a]\nk=1\n");
    EXPECT_FALSE(isThere(kTemporary));
}

TEST_F(IniFailure, OfTheSyncIsMinus1019AndTheTemporaryFileIsRemoved)
{
    for (const int error : {EIO, ENOSPC, EDQUOT}) {
        EXPECT_EQ(changeUnder({.call = Call::kFsync, .error = error}), RM_RENAME_FAILED);
    }
    EXPECT_EQ(readFile(kFile), "[a]\nk=1\n");
    EXPECT_FALSE(isThere(kTemporary));
}

TEST_F(IniFailure, OfTheRemovalIsMinus1019AndBothFilesStand)
{
    EXPECT_EQ(changeUnder({.call = Call::kRemove, .error = EACCES}), RM_RENAME_FAILED);
    EXPECT_EQ(readFile(kFile), "[a]\nk=1\n");
    EXPECT_EQ(readFile(kTemporary), "[a]\nk=2\n");
}

TEST_F(IniFailure, OfTheRenamingIsMinus1019AndTheTemporaryFileStands)
{
    EXPECT_EQ(changeUnder({.call = Call::kRename, .error = EACCES}), RM_RENAME_FAILED);
    EXPECT_FALSE(isThere(kFile));
    EXPECT_EQ(readFile(kTemporary), "[a]\nk=2\n");
}

TEST_F(IniFailure, OfTheRemovalOfAnIncompleteFileIsStillMinus1019)
{
    const ScopedFault removal({.call = Call::kRemove, .error = EACCES, .times = kForever});
    EXPECT_EQ(changeUnder({.call = Call::kWrite, .error = ENOSPC}), RM_RENAME_FAILED);
    EXPECT_EQ(readFile(kFile), "[a]\nk=1\n");
}

TEST_F(IniFailure, LogsNothingOfItsOwn)
{
    for (const Call call : {Call::kOpen, Call::kFsync, Call::kRemove, Call::kRename}) {
        fresh("[a]\nk=1\n");
        const Outcome outcome = under({.call = call, .error = EIO}, [] { set("a", "k", "2"); });
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(outcome.out, "");
    }
    fresh("[a]\nk=1\n");
    const Outcome outcome =
        under({.call = Call::kWrite, .error = ENOSPC}, [] { set("a", "k", "2"); });
    EXPECT_THAT(outcome.lines,
                ElementsAre("rm_fileWrite: errno=28: unable to write, file=_temp_.ini"));
}

// --- Questions

class IniReadFault : public IniFaultCase
{
};

TEST_F(IniReadFault, FindsTheValueOrNothingWhicheverCallFails)
{
    const std::string text = "[a]\r\n" + manyLines() + "k=value\r\n";
    for (const Failing& failing : kFailing) {
        filetest::forEach(failing.name, failing.errors, [&](int error, int times) {
            int hits = 1;
            for (int skip = 0; hits > 0 && !HasFailure(); ++skip) {
                SCOPED_TRACE("call " + std::to_string(skip));
                fresh(text);
                Answer answer = {};
                const Outcome outcome =
                    under({.call = failing.call, .error = error, .skip = skip, .times = times},
                          [&] { answer = ask("a", "k", 20); });
                hits = outcome.hits;
                const bool found =
                    answer == Answer{0, "value" + std::string(14, '\0') + kUntouched};
                EXPECT_TRUE(found || (hits > 0 && answer == notFound(20)))
                    << ::testing::PrintToString(answer);
                expectNothingLeftOpen();
                EXPECT_EQ(readFile(kFile), text);
            }
        });
    }
}

TEST_F(IniReadFault, ListsAllOrSaysThatItCannotWhicheverCallFails)
{
    const std::string text = "[a]\n" + manyLines();
    fresh(text);
    const Texts all = keys("a");
    ASSERT_EQ(all.size(), 25U);
    const std::string whole = ask("a", nullptr, kRoomy, 0).bytes;
    for (const Failing& failing : kFailing) {
        filetest::forEach(failing.name, failing.errors, [&](int error, int times) {
            int hits = 1;
            for (int skip = 0; hits > 0 && !HasFailure(); ++skip) {
                SCOPED_TRACE("call " + std::to_string(skip));
                Answer answer = {};
                const Outcome outcome =
                    under({.call = failing.call, .error = error, .skip = skip, .times = times},
                          [&] { answer = ask("a", nullptr, kRoomy, 0); });
                hits = outcome.hits;
                if (answer.result == RM_SUCCESS) {
                    EXPECT_EQ(listOf(answer), all);
                } else {
                    EXPECT_EQ(answer.result, RM_NOT_FOUND);
                    // What had come by then is a list with its end, or nothing is.
                    const std::string got = answer.bytes.substr(0, answer.bytes.find(kUntouched));
                    if (!got.empty()) {
                        EXPECT_EQ(got.back(), '\0');
                        EXPECT_TRUE(got.size() == 1 || got[got.size() - 2] == '\0');
                        EXPECT_TRUE(whole.starts_with(got.substr(0, got.size() - 1)));
                    }
                }
                expectNothingLeftOpen();
            }
        });
    }
}

TEST_F(IniReadFault, ShortReadsWriteNothingOutsideOfTheBuffer)
{
    fresh("[a]\n" + manyLines() + "k=value\n");
    for (const int64_t length : {0, 1, 2, 100, 511}) {
        for (int skip = 0; skip < 5; ++skip) {
            for (const int times : {1, kForever}) {
                under({.call = Call::kRead, .skip = skip, .times = times, .result = length}, [] {
                    ask("a", "k", 5);
                    ask("a", nullptr, 100);
                    ask(nullptr, nullptr, 3);
                });
                expectNothingLeftOpen();
            }
        }
    }
}

// --- Without memory. Each allocation asks the platform, and can be refused.

class IniWithoutMemory : public IniFaultCase
{
  protected:
    void SetUp() override
    {
        rm_freeall();
        setenv("SEG_ALLOC", "1", 1);
        IniFaultCase::SetUp();
        fileCommit = 0;
    }

    void TearDown() override
    {
        startAnew();
        IniFaultCase::TearDown();
        unsetenv("SEG_ALLOC");
    }

    // What a host does that goes on after a fatal error.
    void startAnew()
    {
        rm_freeall();
        rm_freeMemory(rm_getMemory(1, 0), 0);
        keepMemory();
    }

    // Lets each allocation of `run` fail, once and for ever. `check` sees what is left of the
    // files.
    void sweep(const std::string& before, void (*run)(), const std::function<void()>& check)
    {
        int failed = 0;
        for (const int times : {1, kForever}) {
            int hits = 1;
            for (int skip = 0; hits > 0 && !HasFailure(); ++skip) {
                SCOPED_TRACE("allocation " + std::to_string(skip) + ", times " +
                             std::to_string(times));
                fresh(before);
                startAnew();
                const Outcome outcome = under(
                    {.call = Call::kMalloc, .error = ENOMEM, .skip = skip, .times = times}, run);
                hits = outcome.hits;
                failed += hits;
                EXPECT_EQ(outcome.jumped, hits > 0);
                if (hits > 0) {
                    check();
                }
                startAnew();
                expectNothingLeftOpen();
                expectNextWorks();
            }
        }
        EXPECT_GT(failed, 5);
    }
};

TEST_F(IniWithoutMemory, AChangeIsFatalAndLeavesTheOldFile)
{
    static const std::string kBefore = "[a]\n" + std::string(1000, 'x') + "\nk=1\n";
    sweep(
        kBefore, [] { set("a", "k", "2"); },
        [] {
            EXPECT_EQ(readFile(kFile), kBefore);
            // The others are not held up.
            writeFile("y.ini", "[a]\nk=1\n");
            rmtest::resetCalls();
            EXPECT_EQ(set("a", "k", "2", "./y.ini"), RM_SUCCESS);
            EXPECT_EQ(rmtest::callCount(Call::kNanosleep), 0);
            EXPECT_EQ(readFile("y.ini"), "[a]\nk=2\n");
            std::filesystem::remove("y.ini");
            EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS) << "nor is the process itself";
        });
}

TEST_F(IniWithoutMemory, AQuestionIsFatalAndTheNextOneIsAnswered)
{
    static const std::string kBefore = "[a]\n" + std::string(1000, 'x') + "\nk=1\n";
    // The frames of a call that is fatal are abandoned: no string may live in them.
    static char text[10];
    sweep(
        kBefore, [] { rm_iniGetPrivate("a", "k", text, sizeof(text), 0, kFile); },
        [] {
            EXPECT_EQ(readFile(kFile), kBefore);
            EXPECT_EQ(value("a", "k"), "1");
        });
}

TEST_F(IniWithoutMemory, AChangeOfTheEnvironmentLeavesAWholeFile)
{
    const auto run = [] {
        std::filesystem::create_directory("d");
        writeFile("d/corvane.ini", "[environment]\nk=1\n");
        rm_iniSet("environment", "k", "2");
        std::filesystem::remove_all("d");
    };
    setenv("CATPATH", "d", 1);
    sweep("", run, [] {
        const std::string now = readFile("d/corvane.ini");
        EXPECT_TRUE(now == "[environment]\nk=1\n" || now == "[environment]\nk=2\n") << now;
        std::filesystem::remove_all("d");
    });
    unsetenv("CATPATH");
}

// --- Locks of the managed files that fail

TEST_F(IniFailure, OfALockIsFatalAndLeavesTheOldFileOrTheNewOne)
{
    int failed = 0;
    for (const Call call : {Call::kSemtimedop, Call::kSemop}) {
        int hits = 1;
        for (int skip = 0; hits > 0 && !HasFailure(); ++skip) {
            SCOPED_TRACE("call " + std::to_string(skip));
            fresh("[a]\nk=1\n");
            fileSem = rm_syncCreate("fileSem");
            const Outcome outcome =
                under({.call = call, .error = EINVAL, .skip = skip}, [] { set("a", "k", "2"); });
            hits = outcome.hits;
            failed += hits;
            EXPECT_EQ(outcome.jumped, hits > 0);
            EXPECT_EQ(readFile(kFile), hits > 0 ? "[a]\nk=1\n" : "[a]\nk=2\n");
            rm_freeall();
            rm_syncTerminate();
            fileSem = RM_NULL_SYNC;
            rm_freeMemory(rm_getMemory(1, 0), 0);
            keepMemory();
            EXPECT_EQ(rmtest::openDescriptors(), descriptors_);
            expectNextWorks();
        }
    }
    EXPECT_GT(failed, 10);
}

// What a fatal error has left open does not keep the process from the file: not when the host goes
// on, nor when it releases the memory of tag 0 in between.
TEST_F(IniFailure, OfALockDoesNotKeepTheProcessFromItsNextChange)
{
    static char text[10];
    const std::vector<std::function<void()>> calls = {
        [] { rm_iniSetPrivate("a", "k", "2", kFile); },
        [] { rm_iniGetPrivate("a", "k", text, sizeof(text), 0, kFile); }};
    int failed = 0;
    for (const bool released : {false, true}) {
        for (const auto& run : calls) {
            for (const Call call : {Call::kSemtimedop, Call::kSemop}) {
                int hits = 1;
                for (int skip = 0; hits > 0 && !HasFailure(); ++skip) {
                    SCOPED_TRACE("call " + std::to_string(skip) + (released ? ", released" : ""));
                    fresh("[a]\nk=1\n");
                    fileSem = rm_syncCreate("fileSem");
                    hits = under({.call = call, .error = EINVAL, .skip = skip}, run).hits;
                    failed += hits;
                    if (released) {
                        rm_freeTagMemory(0, 0);
                    }
                    EXPECT_EQ(set("a", "k", "3"), RM_SUCCESS);
                    EXPECT_EQ(readFile(kFile), "[a]\nk=3\n");
                    uint32_t open = 1;
                    uint32_t parked = 1;
                    rm_fileCounts(&open, &parked, nullptr, nullptr);
                    EXPECT_EQ(open + parked, 0U);
                    rm_freeall();
                    rm_syncTerminate();
                    fileSem = RM_NULL_SYNC;
                    rm_freeMemory(rm_getMemory(1, 0), 0);
                    keepMemory();
                    EXPECT_EQ(rmtest::openDescriptors(), descriptors_);
                }
            }
        }
    }
    EXPECT_GT(failed, 30);
}

}  // namespace
