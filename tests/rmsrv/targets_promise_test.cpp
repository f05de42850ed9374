// The two targets, workers, an exit that meets itself, and the saved user: what stays over fatal
// errors and exits, and what is each process's own.
#include "teardown_case.h"

#include <type_traits>

using namespace teardown;

namespace
{
using rmtest::banners;
using rmtest::outcomeOf;
using rmtest::resetCalls;
using rmtest::systemCallLines;

constexpr const char* kOperatingSystem = "Exiting to operating system";

class FatalTargets : public rmtest::FrameTest
{
};

class FatalOfAWorker : public rmtest::FrameTest
{
};

class ExitMeetsItself : public TeardownTest
{
};

class UserSlotKept : public rmtest::FrameTest
{
};

// --- The targets

TEST_F(FatalTargets, AreRegisteredInSilence)
{
    static jmp_buf target;
    ASSERT_EQ(setjmp(target), 0);
    const std::string err = captureStderr([] {
        resetCalls();
        rm_errorJump(target);
        rm_exitJump(target);
        EXPECT_THAT(rmtest::callTrace(), IsEmpty());
    });
    EXPECT_EQ(err, "");
    EXPECT_EQ(rm_memused(), 0U);
    rmsrv::error_jmpset = 0;  // the frame of the target is gone
    rmsrv::exit_jmpset = 0;
}

TEST_F(FatalTargets, DoNotStandForEachOther)
{
    static jmp_buf target;
    ASSERT_EQ(setjmp(target), 0);
    rm_errorJump(target);
    EXPECT_EQ(rmsrv::exit_jmpset, 0);
    rmsrv::error_jmpset = 0;
    rm_exitJump(target);
    EXPECT_EQ(rmsrv::error_jmpset, 0);
    EXPECT_EQ(rmsrv::exit_jmpset, 1);
    rmsrv::exit_jmpset = 0;
}

TEST_F(FatalTargets, OneForFatalErrorsServesEveryOneOfThem)
{
    static volatile int arrivals = 0;
    captureStderr([] {
        static jmp_buf target;
        if (setjmp(target) == 0) {
            rm_errorJump(target);
        } else {
            arrivals = arrivals + 1;
        }
        if (arrivals < 3) {
            rm_errorExit();
        }
    });
    EXPECT_EQ(arrivals, 3);
    EXPECT_EQ(rmsrv::error_jmpset, 1);
    rmsrv::error_jmpset = 0;
}

TEST_F(FatalTargets, OneForTheExitServesEveryExit)
{
    static volatile int sum = 0;
    static volatile int arrivals = 0;
    static jmp_buf target;
    const auto body = [] {
        const int code = setjmp(target);
        if (code == 0) {
            rm_exitJump(target);
        } else {
            sum = sum + code;
            arrivals = arrivals + 1;
        }
        if (arrivals < 3) {
            rm_exit(static_cast<int16_t>(10 + arrivals));
        }
    };
    body();
    EXPECT_EQ(arrivals, 3);
    EXPECT_EQ(sum, 10 + 11 + 12);
    EXPECT_EQ(rmsrv::exit_jmpset, 1);
    rmsrv::exit_jmpset = 0;
}

TEST_F(FatalTargets, AreInheritedByAChild)
{
    static jmp_buf target;
    const int code = setjmp(target);
    if (code != 0) {
        std::_Exit(40 + code);  // in the child, whose frames are a copy of these
    }
    rm_exitJump(target);
    EXPECT_EQ(runChild([] { rm_exit(2); }).status, 42);
    rmsrv::exit_jmpset = 0;
}

TEST_F(FatalTargets, HaveTheWidthsOfTheInterface)
{
    EXPECT_TRUE((std::is_same_v<decltype(&rm_errorJump), void (*)(jmp_buf)>));
    EXPECT_TRUE((std::is_same_v<decltype(&rm_exitJump), void (*)(jmp_buf)>));
    EXPECT_TRUE((
        std::is_same_v<decltype(&internalErrorExit), void (*)(const char*, const char*, int32_t)>));
    EXPECT_TRUE((std::is_same_v<decltype(&fatalRMExit), void (*)(const char*)>));
    EXPECT_TRUE((std::is_same_v<decltype(&rm_errorExit), void (*)()>));
    EXPECT_TRUE((std::is_same_v<decltype(&rm_exit), void (*)(int16_t)>));
    EXPECT_TRUE((std::is_same_v<decltype(&rm_userSave), void (*)(const char*, uint16_t)>));
    EXPECT_TRUE((std::is_same_v<decltype(&rm_userGet), void (*)(char*, uint16_t*)>));
}

// --- Workers

TEST_F(FatalOfAWorker, IsMarkedEachTimeAndNotUnmarked)
{
    ASSERT_EQ(rm_foregroundThread(), 1);
    EXPECT_EQ(runChild([] {
                  EXPECT_EQ(catchFatal([] { rm_errorExit(); }), 1);
                  EXPECT_EQ(rm_getOSTerm(), 2);
                  rm_setOSTerm(0);
                  EXPECT_EQ(catchFatal([] { fatalRMExit("again"); }), 1);
                  EXPECT_EQ(rm_getOSTerm(), 2);
              }).status,
              0);
}

TEST_F(FatalOfAWorker, OutOfItsExitIsMarkedAsUnwindingUntilItExitsAgain)
{
    ASSERT_EQ(rm_foregroundThread(), 1);
    const ChildResult child = runChild([] {
        static_cast<void>(rm_syncCreate("a lock"));
        static ScopedFault fault({.call = Call::kSemctl, .error = EIDRM});
        rmtest::runHost([] { rm_exit(5); },
                        [] {
                            std::atexit([] { std::printf(" %d", rm_getOSTerm()); });
                            std::printf("%d", rm_getOSTerm());
                            rm_exit(6);
                        });
    });
    EXPECT_EQ(child.status, 6);
    EXPECT_TRUE(child.out.ends_with("\n2 3")) << child.out;
    rmtest::removeLeftovers();
}

// --- The exit within itself

TEST_F(ExitMeetsItself, ALogFileThatDidNotCloseIsNotClosedAgainButGoesWithTheMemory)
{
    const End end = endOfHost(
        {}, [] { rm_exit(5); },
        [] { static ScopedFault lock({.call = Call::kSemtimedop, .error = EIDRM}); });
    expectEndSoon(end.child, 0);
    Steps expected = without(kWhole, {"log file closed", "memory freed"});
    expected.insert(expected.end(), {"log file closed", "memory freed"});
    EXPECT_THAT(end.steps, ElementsAreArray(expected));
    EXPECT_EQ(banners(end.lines), 1);
    EXPECT_EQ(systemCallLines(end.lines), 1);
    expectNothingLeft();
}

TEST_F(ExitMeetsItself, AFailureOfItsOwnEndsWithZeroWhateverItsCode)
{
    for (const Host& host : {Host{}, Host{.exitTarget = true}}) {
        const End end = endOfHost(
            host, [] { rm_exit(5); },
            [] { static ScopedFault segments({.call = Call::kShmctl, .error = EPERM}); });
        expectEndSoon(end.child, host.exitTarget ? kLanded : 0);
        EXPECT_EQ(end.exitValue, host.exitTarget ? 1 : -1);
        EXPECT_THAT(end.steps, ElementsAreArray(kWhole));
        EXPECT_EQ(end.lines.back(), kOperatingSystem);
        removeEverythingLeft();
    }
}

// --- The saved user

TEST_F(UserSlotKept, OutlivesFatalErrorsAndExits)
{
    rm_userSave("operator", 65535);
    static_cast<void>(outcomeOf([] { rm_errorExit(); }));
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    char name[15] = "";
    uint16_t session = 0;
    rm_userGet(name, &session);
    EXPECT_STREQ(name, "operator");
    EXPECT_EQ(session, 65535);
}

TEST_F(UserSlotKept, IsEmptiedByAnEmptyName)
{
    rm_userSave("operator", 7);
    rm_userSave("", 0);
    char name[15] = "?";
    uint16_t session = 1;
    rm_userGet(name, &session);
    EXPECT_STREQ(name, "");
    EXPECT_EQ(session, 0);
}

TEST_F(UserSlotKept, OfAWorkerIsItsOwn)
{
    rm_userSave("parent", 1);
    EXPECT_EQ(runChild([] {
                  char name[15] = "";
                  rm_userGet(name, nullptr);
                  EXPECT_STREQ(name, "parent");
                  rm_userSave("child", 2);
              }).status,
              0);
    EXPECT_STREQ(rmsrv::szUserName_save, "parent");
    EXPECT_EQ(rmsrv::hSess_save, 1);
}

TEST_F(FatalTargets, TheOneForFatalErrorsIsInheritedByAChildToo)
{
    static jmp_buf target;
    const int code = setjmp(target);
    if (code != 0) {
        std::_Exit(40 + code);  // in the child, whose frames are a copy of these
    }
    rm_errorJump(target);
    EXPECT_EQ(runChild([] { fatalRMExit("a problem"); }).status, 41);
    rmsrv::error_jmpset = 0;
}

TEST_F(FatalTargets, AreCopiedInTheirWholeSize)
{
    // Behind the registers stands what only some jumps need: a mask of signals.
    static jmp_buf target;
    const auto bytesOf = [](const jmp_buf& buffer) {
        return std::string(reinterpret_cast<const char*>(&buffer), sizeof buffer);
    };
    std::memset(static_cast<void*>(&target), 'e', sizeof target);
    rm_errorJump(target);
    std::memset(static_cast<void*>(&target), 'x', sizeof target);
    rm_exitJump(target);
    EXPECT_EQ(bytesOf(rmsrv::error_jmp_buf), std::string(sizeof(jmp_buf), 'e'));
    EXPECT_EQ(bytesOf(rmsrv::exit_jmp_buf), std::string(sizeof(jmp_buf), 'x'));
    rmsrv::error_jmpset = 0;  // no frame has them
    rmsrv::exit_jmpset = 0;
}
}  // namespace
