// Unloading modules: the object goes first, and only then the module is forgotten.
//
// rm_OSemUnload is wrapped here: the dynamic linker says no more than yes and no, and the registry
// passes on whatever it is told.
#include "tests/support/modules.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/ems.h"

#include <initializer_list>
#include <optional>
#include <string>
#include <utility>

#include <dlfcn.h>

#include <gmock/gmock.h>

namespace
{
std::optional<int16_t> unloadStatus;  // what rm_OSemUnload is to say, once
}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" int16_t __real_rm_OSemUnload(void* module);
extern "C" int16_t __wrap_rm_OSemUnload(void* module);

int16_t __wrap_rm_OSemUnload(void* module)
{
    const std::optional<int16_t> status = std::exchange(unloadStatus, std::nullopt);
    return status ? *status : __real_rm_OSemUnload(module);
}

// NOLINTEND(bugprone-reserved-identifier)

namespace
{
using ems::EmBag;
using rmtest::blockBytes;
using rmtest::blocksOfTag0;
using rmtest::bytesOfTag0;
using rmtest::Call;
using rmtest::callCount;
using rmtest::captureStderr;
using rmtest::installModule;
using rmtest::kForever;
using rmtest::modulesClosed;
using rmtest::modulesEntered;
using rmtest::ScopedFault;
using rmtest::textBytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

char nothing;  // its address is no function's

std::string numbered(int number)
{
    return (number < 10 ? "./m0" : "./m") + std::to_string(number);
}

int16_t load(const std::string& path)
{
    int16_t handle = -77;
    EXPECT_EQ(rm_emLoad(path.c_str(), &handle), 0) << path;
    return handle;
}

void loadMany(int count)
{
    for (int number = 0; number < count; ++number) {
        EXPECT_EQ(load(installModule("plain", numbered(number))), number);
    }
}

bool isKnown(int16_t handle)
{
    void* address = nullptr;
    return rm_emGetFcnAddr(handle, "exportedSum", &address) != RM_UNKNOWN_MODULE;
}

class EmUnload : public rmtest::ModuleTest
{
};

TEST_F(EmUnload, ClosesTheObjectAndForgetsTheModule)
{
    loadMany(1);
    EXPECT_EQ(rm_emUnload(0), 0);
    EXPECT_THAT(modulesClosed(), ElementsAre("./m00"));
    EXPECT_EQ(EmBag->usedCount, 0);
    EXPECT_FALSE(isKnown(0));
    uint16_t handle = 99;
    EXPECT_EQ(ems::exmFind("m00", &handle), RM_NOT_FOUND);
}

TEST_F(EmUnload, GivesBackAllThatALoadTook)
{
    EXPECT_EQ(rm_emInit(), 0);
    const uint32_t bytes = bytesOfTag0();
    const uint32_t blocks = blocksOfTag0();
    for (int times = 0; times < 3; ++times) {
        EXPECT_EQ(load(times == 0 ? installModule("plain", "./geo") : "./geo"), 0);
        EXPECT_EQ(rm_emUnload(0), 0);
    }
    EXPECT_EQ(bytesOfTag0(), bytes);
    EXPECT_EQ(blocksOfTag0(), blocks);
}

TEST_F(EmUnload, LeavesTheListOfFunctionsAndTheSecondCopyOfTheName)
{
    EXPECT_EQ(rm_emInit(), 0);
    const uint32_t bytes = bytesOfTag0();
    EXPECT_EQ(rm_emUnload(load(installModule("registers", "./reg3"))), 0);
    EXPECT_EQ(bytesOfTag0(), bytes + textBytes("reg3") + blockBytes(sizeof(Bag)) +
                                 blockBytes(3 * sizeof(ems::EmFcnRec)));
}

TEST_F(EmUnload, GivesBackTheNamesOf50Functions)
{
    EXPECT_EQ(rm_emInit(), 0);
    const uint32_t blocks = blocksOfTag0();
    EXPECT_EQ(rm_emUnload(load(installModule("registers", "./reg50"))), 0);
    EXPECT_EQ(blocksOfTag0(), blocks + 3);  // the copy of the name, the list's record and its slots
}

TEST_F(EmUnload, OneIsEnoughHoweverOftenTheModuleWasLoaded)
{
    loadMany(1);
    EXPECT_EQ(load("./m00"), 0);
    EXPECT_EQ(load("./m00"), 0);
    EXPECT_EQ(rm_emUnload(0), 0);
    EXPECT_THAT(modulesClosed(), ElementsAre("./m00"));
    EXPECT_EQ(rm_emUnload(0), RM_UNKNOWN_MODULE);
    EXPECT_EQ(callCount(Call::kDlclose), 1);
}

TEST_F(EmUnload, AModuleLoadedAgainIsEnteredAgain)
{
    loadMany(1);
    EXPECT_EQ(rm_emUnload(0), 0);
    EXPECT_EQ(load("./m00"), 0);
    EXPECT_THAT(modulesEntered(), ElementsAre("M00 ./m00", "M00 ./m00"));
}

TEST_F(EmUnload, AModuleLoadedAgainHasOnlyWhatItRegistersAnew)
{
    const int16_t handle = load(installModule("registers", "./reg1"));
    EXPECT_EQ(rm_emRegFcn("reg1", "added", &nothing), 0);
    EXPECT_EQ(rm_emUnload(handle), 0);
    EXPECT_EQ(load("./reg1"), handle);
    void* address = nullptr;
    EXPECT_EQ(rm_emGetFcnAddr(handle, "f0", &address), 0);
    EXPECT_EQ(rm_emGetFcnAddr(handle, "added", &address), RM_NOT_FOUND);
}

TEST_F(EmUnload, FreeSlotsAreGivenAgainLowestFirst)
{
    loadMany(10);
    for (const int16_t handle : std::initializer_list<int16_t>{7, 2, 5, 3}) {
        EXPECT_EQ(rm_emUnload(handle), 0);
    }
    EXPECT_EQ(load(installModule("plain", numbered(20))), 2);
    EXPECT_EQ(load(installModule("plain", numbered(21))), 3);
    EXPECT_EQ(load(numbered(7)), 5);
    EXPECT_EQ(load(installModule("plain", numbered(22))), 7);
    EXPECT_EQ(load(installModule("plain", numbered(23))), 10);
}

TEST_F(EmUnload, OtherModulesKeepTheirHandles)
{
    loadMany(20);
    for (int16_t handle = 0; handle < 20; handle = static_cast<int16_t>(handle + 2)) {
        EXPECT_EQ(rm_emUnload(handle), 0);
    }
    for (int16_t handle = 1; handle < 20; handle = static_cast<int16_t>(handle + 2)) {
        EXPECT_EQ(load(numbered(handle)), handle);
        EXPECT_TRUE(isKnown(handle));
    }
    EXPECT_THAT(modulesClosed(), SizeIs(10));
}

TEST_F(EmUnload, TheModuleInTheLastSlotIsReached)
{
    loadMany(16);
    EXPECT_EQ(rm_emUnload(15), 0);
    EXPECT_THAT(modulesClosed(), ElementsAre("./m15"));
    EXPECT_EQ(EmBag->usedCount, 15);
    EXPECT_EQ(load("./m15"), 15);
}

TEST_F(EmUnload, AModuleThatOnlyRegisteredFunctionsStays)
{
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(rm_emRegFcn("geo", "f", &nothing), 0);
    const uint32_t bytes = bytesOfTag0();
    EXPECT_EQ(rm_emUnload(0), 0);
    void* address = nullptr;
    EXPECT_EQ(rm_emGetFcnAddr(0, "f", &address), 0);
    EXPECT_EQ(address, &nothing);
    EXPECT_EQ(bytesOfTag0(), bytes);
    EXPECT_EQ(callCount(Call::kDlclose), 0);
}

// --- Handles that are none

TEST_F(EmUnload, WithoutARegistryEveryHandleIsUnknown)
{
    for (const int handle : {INT16_MIN, -2, -1, 0, 1, 15, INT16_MAX}) {
        EXPECT_EQ(rm_emUnload(static_cast<int16_t>(handle)), RM_UNKNOWN_MODULE) << handle;
    }
    EXPECT_EQ(EmBag, nullptr);
}

TEST_F(EmUnload, KnowsNoOtherHandleThanThoseGiven)
{
    loadMany(3);
    EXPECT_EQ(rm_emUnload(1), 0);
    for (int handle = INT16_MIN; handle <= INT16_MAX; ++handle) {
        if (handle != 0 && handle != 2) {
            ASSERT_EQ(rm_emUnload(static_cast<int16_t>(handle)), RM_UNKNOWN_MODULE) << handle;
        }
    }
    EXPECT_EQ(EmBag->usedCount, 2);
    EXPECT_THAT(modulesClosed(), SizeIs(1));
}

TEST_F(EmUnload, LogsNothing)
{
    loadMany(1);
    const std::string log = captureStderr([] {
        EXPECT_EQ(rm_emUnload(0), 0);
        EXPECT_EQ(rm_emUnload(0), RM_UNKNOWN_MODULE);
    });
    EXPECT_EQ(log, "");
}

// --- Objects that are not closed

TEST_F(EmUnload, SucceedsAndKeepsTheModuleWhenTheSystemRefuses)
{
    loadMany(2);
    const uint32_t bytes = bytesOfTag0();
    {
        const ScopedFault close({.call = Call::kDlclose, .times = kForever});
        EXPECT_EQ(rm_emUnload(1), 0);
        EXPECT_EQ(rm_emUnload(1), 0);
        EXPECT_EQ(close.hits(), 2);
    }
    EXPECT_EQ(bytesOfTag0(), bytes);
    EXPECT_EQ(load("./m01"), 1);
    EXPECT_THAT(modulesEntered(), SizeIs(2));
    EXPECT_TRUE(isKnown(1));
    EXPECT_EQ(rm_emUnload(1), 0);
    EXPECT_FALSE(isKnown(1));
}

TEST_F(EmUnload, KeepsTheFunctionsOfAModuleThatTheSystemRefusesToClose)
{
    const int16_t handle = load(installModule("registers", "./reg3"));
    const ScopedFault close({.call = Call::kDlclose});
    EXPECT_EQ(rm_emUnload(handle), 0);
    void* address = nullptr;
    EXPECT_EQ(rm_emGetFcnAddr(handle, "f2", &address), 0);
}

TEST_F(EmUnload, ReturnsAnyOtherStatusAndKeepsTheModule)
{
    loadMany(1);
    const uint32_t bytes = bytesOfTag0();
    for (const int16_t status : std::initializer_list<int16_t>{1, 2, 4, 6, -1, -5, -2011, 32767}) {
        unloadStatus = status;
        EXPECT_EQ(rm_emUnload(0), status);
        EXPECT_TRUE(isKnown(0));
        EXPECT_EQ(bytesOfTag0(), bytes);
        EXPECT_EQ(load("./m00"), 0);
    }
    EXPECT_THAT(modulesEntered(), SizeIs(1));
    EXPECT_THAT(modulesClosed(), IsEmpty());
}

TEST_F(EmUnload, AModuleThatWantsToStayIsForgottenAllTheSame)
{
    const int16_t handle = load(installModule("nodelete", "./geo"));
    void* address = nullptr;
    EXPECT_EQ(rm_emGetFcnAddr(handle, "exportedSum", &address), 0);
    EXPECT_EQ(rm_emUnload(handle), 0);
    EXPECT_FALSE(isKnown(handle));
    EXPECT_THAT(modulesClosed(), IsEmpty());
    EXPECT_EQ(reinterpret_cast<int (*)(int, int)>(address)(40, 2), 42);
    EXPECT_EQ(load("./geo"), handle);
    EXPECT_THAT(modulesEntered(), SizeIs(2));
}

// --- Modules that use the library while they are closed

TEST_F(EmUnload, AModuleMayLoadUnloadAndRegisterWhileItIsClosed)
{
    installModule("plain", "./m01");
    EXPECT_EQ(load(installModule("closing", "./closing")), 0);
    EXPECT_EQ(load(installModule("plain", "./m00")), 1);
    EXPECT_EQ(rm_emUnload(0), 0);
    // While its own slot was still used, "late" came into slot 2 and m01 into that of m00.
    EXPECT_FALSE(isKnown(0));
    EXPECT_EQ(load("./m01"), 1);
    void* address = nullptr;
    EXPECT_EQ(rm_emGetFcnAddr(2, "atTheEnd", &address), 0);
    EXPECT_EQ(EmBag->usedCount, 2);
    EXPECT_THAT(modulesClosed(), ElementsAre("./m00"));
    EXPECT_THAT(modulesEntered(), ElementsAre("M00 ./m00", "M01 ./m01"));
}

TEST_F(EmUnload, TheFunctionsThatAModuleRegistersWhileItIsClosedGoWithIt)
{
    EXPECT_EQ(rm_emInit(), 0);
    const uint32_t blocks = blocksOfTag0();
    rmtest::onModuleClose(
        [](const char* name) { EXPECT_EQ(rm_emRegFcn(name, "late", &nothing), 0); });
    loadMany(1);
    EXPECT_EQ(rm_emUnload(0), 0);
    EXPECT_EQ(EmBag->usedCount, 0);
    EXPECT_EQ(blocksOfTag0(), blocks + 2);  // the list's record and its slots
}

TEST_F(EmUnload, AModuleThatMakesTheRegistryGrowWhileItIsClosedIsForgotten)
{
    loadMany(15);
    rmtest::onModuleClose([](const char*) {
        for (const char* name : {"a", "b", "c", "d"}) {
            EXPECT_EQ(rm_emRegFcn(name, "f", &nothing), 0);
        }
    });
    EXPECT_EQ(rm_emUnload(3), 0);
    EXPECT_EQ(EmBag->slotCount, 32);
    EXPECT_EQ(EmBag->usedCount, 18);
    EXPECT_FALSE(isKnown(3));
    EXPECT_TRUE(isKnown(2));
    EXPECT_TRUE(isKnown(4));
}

TEST_F(EmUnload, AModuleThatUnloadsItselfWhileItIsClosedIsForgottenOnce)
{
    loadMany(2);
    rmtest::onModuleClose([](const char*) { EXPECT_EQ(rm_emUnload(1), 0); });
    EXPECT_EQ(rm_emUnload(1), 0);
    EXPECT_THAT(modulesClosed(), ElementsAre("./m01"));
    EXPECT_EQ(EmBag->usedCount, 1);
}

TEST_F(EmUnload, AModuleThatFreesTheRegistryWhileItIsClosedIsGone)
{
    loadMany(2);
    rmtest::onModuleClose([](const char*) { rm_freeTagMemory(0, 0); });
    EXPECT_EQ(rm_emUnload(0), 0);
    EXPECT_EQ(EmBag, nullptr);
    rmtest::onModuleClose(nullptr);
    EXPECT_EQ(load("./m00"), 0);
}

TEST_F(EmUnload, AModuleThatHasTheRegistryMadeAgainWhileItIsClosedTakesNobodyWithIt)
{
    loadMany(2);
    rmtest::onModuleClose([](const char*) {
        rm_freeTagMemory(0, 0);
        rm_emInit();
        rm_emRegFcn("another", "function", nullptr);
    });
    EXPECT_EQ(rm_emUnload(0), 0);
    rmtest::onModuleClose(nullptr);
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_EQ(ems::exmFind("another", nullptr), 0);
}

TEST_F(EmUnload, AModuleWhoseEndIsFatalStaysRegistered)
{
    loadMany(2);
    rmtest::onModuleClose([](const char*) { fatalRMExit("a module does not want to go"); });
    int jumped = 0;
    captureStderr([&] { jumped = rmtest::catchFatal([] { rm_emUnload(0); }); });
    rmtest::onModuleClose(nullptr);
    EXPECT_EQ(jumped, 1);
    EXPECT_EQ(EmBag->usedCount, 2);
    EXPECT_EQ(bags::checkBag(EmBag), 0U);
}
}  // namespace
