// Loading modules: the registry that is made when it is needed, one record a module, what stays in
// tag 0, and which handles are given.
#include "tests/support/modules.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/ems.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace
{
using ems::EmBag;
using ems::EmRec;
using rmtest::blockBytes;
using rmtest::blocksOfTag0;
using rmtest::bytesOfTag0;
using rmtest::Call;
using rmtest::callCount;
using rmtest::captureStderr;
using rmtest::installModule;
using rmtest::modulesClosed;
using rmtest::modulesEntered;
using rmtest::textBytes;
using rmtest::withoutStamps;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int16_t kUntouched = -77;
constexpr uint32_t kFirstSlots = 16;
// The registry as it is made: its record, its slots, the map of the used ones.
constexpr uint32_t kRegistryBytes =
    blockBytes(sizeof(Bag)) + blockBytes(kFirstSlots * sizeof(EmRec)) + blockBytes(4);
// What rm_OSemLoad leaves for a loaded module: two pointers and the head of their block.
constexpr uint32_t kObjectBytes = 8 + 2 * sizeof(void*);
constexpr uint32_t kFunctionsBytes =  // a list of one to three functions
    blockBytes(sizeof(Bag)) + blockBytes(3 * sizeof(ems::EmFcnRec));

// "m07": a name for which plain modules have an entry point.
std::string numbered(int number)
{
    return (number < 10 ? "m0" : "m") + std::to_string(number);
}

int16_t load(const std::string& path)
{
    int16_t handle = kUntouched;
    EXPECT_EQ(rm_emLoad(path.c_str(), &handle), 0) << path;
    return handle;
}

// Installs and loads ./m00, ./m01 and so on.
void loadMany(int count)
{
    for (int number = 0; number < count; ++number) {
        EXPECT_EQ(load(installModule("plain", "./" + numbered(number))), number);
    }
}

const EmRec* recordOf(int16_t handle)
{
    void* record = nullptr;
    EXPECT_EQ(bagSetCurHandle(EmBag, static_cast<uint16_t>(handle)), 0);
    EXPECT_EQ(bagGetCurPtr(EmBag, &record), 0);
    return static_cast<EmRec*>(record);
}

class EmInit : public rmtest::ModuleTest
{
};

class EmLoad : public rmtest::ModuleTest
{
};

// --- The registry

TEST_F(EmInit, MakesARegistryOf16Slots)
{
    EXPECT_EQ(rm_emInit(), 0);
    ASSERT_NE(EmBag, nullptr);
    EXPECT_EQ(EmBag->ctl, &ems::EmBagCtl);
    EXPECT_EQ(EmBag->slotCount, kFirstSlots);
    EXPECT_EQ(EmBag->usedCount, 0);
    EXPECT_EQ(bytesOfTag0(), kRegistryBytes);
}

TEST_F(EmInit, LeavesARegistryThatIsThereAsItIs)
{
    const int16_t handle = load(installModule("plain", "./geo"));
    const Bag* before = EmBag;
    const uint32_t bytes = bytesOfTag0();
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(EmBag, before);
    EXPECT_EQ(bytesOfTag0(), bytes);
    EXPECT_EQ(load("./geo"), handle);
    EXPECT_THAT(modulesEntered(), SizeIs(1));
}

TEST_F(EmInit, HasTwoControlRecordsOfItsOwn)
{
    const BagCtl& modules = ems::EmBagCtl;
    EXPECT_EQ(modules.flags, 0x0181);
    EXPECT_EQ(modules.initialSlots, 16);
    EXPECT_EQ(modules.growIncrement, 16);
    EXPECT_EQ(modules.growThreshold, 100);
    EXPECT_EQ(modules.elementSize, 3 * sizeof(void*));
    EXPECT_EQ(modules.tag, 0);
    EXPECT_EQ(modules.keyOffset, 0U);
    EXPECT_EQ(modules.keyLength, 0);
    const BagCtl& functions = ems::EmFcnBagCtl;
    EXPECT_EQ(functions.flags, 0x0081);
    EXPECT_EQ(functions.initialSlots, 0);
    EXPECT_EQ(functions.growIncrement, 3);
    EXPECT_EQ(functions.growThreshold, 20);
    EXPECT_EQ(functions.elementSize, 2 * sizeof(void*));
    EXPECT_EQ(functions.tag, 0);
    EXPECT_EQ(functions.keyOffset, 0U);
    EXPECT_EQ(functions.keyLength, 0);
}

TEST_F(EmLoad, MakesTheRegistryWhenThereIsNone)
{
    ASSERT_EQ(EmBag, nullptr);
    EXPECT_EQ(load(installModule("plain", "./geo")), 0);
    ASSERT_NE(EmBag, nullptr);
    EXPECT_EQ(EmBag->usedCount, 1);
}

TEST_F(EmLoad, MakesTheRegistryEvenWhenTheModuleIsMissing)
{
    int16_t handle = kUntouched;
    captureStderr([&] { EXPECT_EQ(rm_emLoad("./geo", &handle), RM_NOT_FOUND); });
    ASSERT_NE(EmBag, nullptr);
    EXPECT_EQ(EmBag->usedCount, 0);
    EXPECT_EQ(bytesOfTag0(), kRegistryBytes);
}

// --- A module

TEST_F(EmLoad, EntersTheModuleUnderTheLastPartOfItsPath)
{
    const int16_t handle = load(installModule("plain", "./some/where/libgeo"));
    const EmRec* record = recordOf(handle);
    EXPECT_STREQ(record->name, "libgeo");
    EXPECT_NE(record->osModule, nullptr);
    EXPECT_EQ(record->fcnBag, nullptr);
}

TEST_F(EmLoad, CallsTheEntryPointWithThePathAsGiven)
{
    load(installModule("plain", "./some/where/libgeo"));
    EXPECT_THAT(modulesEntered(), ElementsAre("GEO ./some/where/libgeo"));
}

TEST_F(EmLoad, KeepsTheNameAndTheObject)
{
    EXPECT_EQ(rm_emInit(), 0);
    load(installModule("plain", "./libgeo"));
    EXPECT_EQ(bytesOfTag0(), kRegistryBytes + textBytes("libgeo") + kObjectBytes);
}

TEST_F(EmLoad, GivesHandlesFromZeroUp)
{
    loadMany(5);
}

TEST_F(EmLoad, OfAModuleThatIsThereIsANoOp)
{
    const int16_t handle = load(installModule("plain", "./geo"));
    const uint32_t bytes = bytesOfTag0();
    const uint32_t blocks = blocksOfTag0();
    EXPECT_EQ(load("./geo"), handle);
    EXPECT_EQ(load("./geo"), handle);
    EXPECT_EQ(bytesOfTag0(), bytes);
    EXPECT_EQ(blocksOfTag0(), blocks);
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_THAT(modulesEntered(), SizeIs(1));
    EXPECT_EQ(callCount(Call::kDlopen), 1);
}

TEST_F(EmLoad, ByAnotherPathIsTheSameModule)
{
    const int16_t handle = load(installModule("plain", "./x/y/m01"));
    installModule("plain", "./z/m01");
    EXPECT_EQ(load("m01"), handle);
    EXPECT_EQ(load("./z/m01"), handle);
    EXPECT_EQ(load("/no/such/directory/m01"), handle);
    EXPECT_THAT(modulesEntered(), ElementsAre("M01 ./x/y/m01"));
}

TEST_F(EmLoad, NamesDifferInCaseAndPrefix)
{
    load(installModule("plain", "./a/geo"));
    EXPECT_EQ(load(installModule("plain", "./b/Geo")), 1);
    EXPECT_EQ(load(installModule("plain", "./c/libgeo")), 2);
    EXPECT_THAT(modulesEntered(), ElementsAre("GEO ./a/geo", "GEO ./b/Geo", "GEO ./c/libgeo"));
}

TEST_F(EmLoad, AModuleWithoutANameIsLoadedEachTime)
{
    installModule("plain", "./m/");
    EXPECT_EQ(load("./m/"), 0);
    EXPECT_EQ(load("./m/"), 1);
    EXPECT_THAT(modulesEntered(), ElementsAre(" ./m/", " ./m/"));
    EXPECT_STREQ(recordOf(1)->name, "");
}

TEST_F(EmLoad, OfAModuleThatOnlyRegisteredFunctionsLoadsNothing)
{
    char function = 0;
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(rm_emRegFcn("m03", "f", &function), 0);
    installModule("plain", "./m03");
    EXPECT_EQ(load("./m03"), 0);
    EXPECT_EQ(recordOf(0)->osModule, nullptr);
    EXPECT_EQ(callCount(Call::kDlopen), 0);
}

// --- Modules that register functions while they are loaded

TEST_F(EmLoad, AModuleThatRegistersFunctionsHasOneRecordWithItsObject)
{
    const int16_t handle = load(installModule("registers", "./reg3"));
    EXPECT_EQ(handle, 0);
    EXPECT_EQ(EmBag->usedCount, 1);
    const EmRec* record = recordOf(handle);
    EXPECT_STREQ(record->name, "reg3");
    EXPECT_NE(record->osModule, nullptr);
    ASSERT_NE(record->fcnBag, nullptr);
    EXPECT_EQ(record->fcnBag->ctl, &ems::EmFcnBagCtl);
    EXPECT_EQ(record->fcnBag->usedCount, 3);
    EXPECT_EQ(load("./reg3"), handle);
}

TEST_F(EmLoad, AModuleThatRegistersFunctionsLeavesASecondCopyOfItsName)
{
    EXPECT_EQ(rm_emInit(), 0);
    load(installModule("registers", "./reg3"));
    EXPECT_EQ(bytesOfTag0(), kRegistryBytes + 2 * textBytes("reg3") + kObjectBytes +
                                 kFunctionsBytes + 3 * textBytes("f0"));
}

TEST_F(EmLoad, AModuleThatRegistersForAnotherOneHasARecordBesideIt)
{
    const int16_t handle = load(installModule("othername", "./othername"));
    EXPECT_EQ(handle, 1);
    EXPECT_STREQ(recordOf(0)->name, "other");
    EXPECT_EQ(recordOf(0)->osModule, nullptr);
    EXPECT_STREQ(recordOf(1)->name, "othername");
    EXPECT_NE(recordOf(1)->osModule, nullptr);
    EXPECT_EQ(recordOf(1)->fcnBag, nullptr);
}

TEST_F(EmLoad, AModuleMayLoadAnotherOneWhileItIsLoaded)
{
    installModule("plain", "./inner/m00");
    const int16_t handle = load(installModule("loader", "./loader"));
    EXPECT_EQ(handle, 1);
    EXPECT_THAT(modulesEntered(), ElementsAre("M00 ./inner/m00"));
    void* address = nullptr;
    ASSERT_EQ(rm_emGetFcnAddr(handle, "innerStatus", &address), 0);
    EXPECT_EQ(*static_cast<int16_t*>(address), 0);
    ASSERT_EQ(rm_emGetFcnAddr(handle, "innerHandle", &address), 0);
    EXPECT_EQ(*static_cast<int16_t*>(address), 0);
    EXPECT_EQ(load("m00"), 0);
}

TEST_F(EmLoad, AModuleMayUnloadAnotherOneWhileItIsLoaded)
{
    loadMany(2);
    rmtest::onModuleEntry([](const char*) { EXPECT_EQ(rm_emUnload(0), 0); });
    // The slot that became free during the load is the lowest one.
    EXPECT_EQ(load(installModule("plain", "./m02")), 0);
    EXPECT_STREQ(recordOf(0)->name, "m02");
}

TEST_F(EmLoad, AModuleThatRegisteredAndLoadsItselfFindsItself)
{
    int16_t inner = kUntouched;
    rmtest::onModuleEntry([&inner](const char* name) {
        char function = 0;
        EXPECT_EQ(rm_emRegFcn(name, "f", &function), 0);
        inner = load(name);
    });
    EXPECT_EQ(load(installModule("plain", "./m00")), 0);
    EXPECT_EQ(inner, 0);
    EXPECT_THAT(modulesEntered(), SizeIs(1));
}

// --- Failures

class EmLoadFailure : public rmtest::ModuleTest
{
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        loadMany(3);
        bytes_ = bytesOfTag0();
        blocks_ = blocksOfTag0();
    }

    // The registry is as it was; the call gave 2 and `left` blocks of 24 bytes stay.
    void expectFailure(const char* path, uint32_t left)
    {
        int16_t handle = kUntouched;
        log_ = captureStderr([&] { EXPECT_EQ(rm_emLoad(path, &handle), RM_NOT_FOUND); });
        EXPECT_EQ(handle, kUntouched);
        EXPECT_EQ(EmBag->usedCount, 3);
        EXPECT_EQ(blocksOfTag0(), blocks_ + left);
        EXPECT_EQ(bytesOfTag0(), bytes_ + left * kObjectBytes);
        EXPECT_EQ(load("./m01"), 1);
        EXPECT_EQ(load(installModule("plain", "./m05")), 3);
    }

    std::string log_;

  private:
    uint32_t bytes_ = 0;
    uint32_t blocks_ = 0;
};

TEST_F(EmLoadFailure, AMissingObjectLeavesTheRegistryAsItWas)
{
    expectFailure("./geo", 0);
    EXPECT_EQ(withoutStamps(log_),
              "[stamp]  Failed to load module './geo.so'\n\n"
              "[stamp]    REASON: errno = 0  ./geo.so: cannot open shared object file: No such "
              "file or directory\n");
}

TEST_F(EmLoadFailure, AFileThatIsNoObjectLeavesTheRegistryAsItWas)
{
    rmtest::writeFile("geo.so", "This is a text.\n");
    expectFailure("./geo", 0);
}

TEST_F(EmLoadFailure, AnObjectWithoutItsEntryPointLeavesTheRegistryAsItWas)
{
    installModule("noentry", "./noentry");
    expectFailure("./noentry", 1);
    EXPECT_EQ(log_, "");
}

TEST_F(EmLoadFailure, AnUnresolvedFunctionLeavesTheRegistryAsItWas)
{
    installModule("unresolved", "./unresolved");
    expectFailure("./unresolved", 0);
}

TEST_F(EmLoadFailure, ATooLongNameLeavesTheRegistryAsItWas)
{
    expectFailure(("./" + std::string(95, 'x')).c_str(), 0);
    EXPECT_EQ(log_, "");
}

TEST_F(EmLoadFailure, AModuleCanBeLoadedOnceItsFileIsThere)
{
    int16_t handle = kUntouched;
    captureStderr([&] { EXPECT_EQ(rm_emLoad("./geo", &handle), RM_NOT_FOUND); });
    EXPECT_EQ(load(installModule("plain", "./geo")), 3);
}

// --- The last slot, which lookups do not reach

TEST_F(EmLoad, The16thModuleIsLoadedAgainUnderANewHandle)
{
    loadMany(16);
    EXPECT_EQ(EmBag->slotCount, 16);
    EXPECT_EQ(load("./m15"), 16);
    EXPECT_EQ(EmBag->slotCount, 32);
    EXPECT_EQ(modulesEntered().back(), "M15 ./m15");
    EXPECT_THAT(modulesEntered(), SizeIs(17));
    // The registry has grown, so the first of the two is found from now on.
    EXPECT_EQ(load("./m15"), 15);
    EXPECT_THAT(modulesEntered(), SizeIs(17));
}

TEST_F(EmLoad, BothRecordsOfThe16thModuleAreTheSameObject)
{
    loadMany(16);
    EXPECT_EQ(load("./m15"), 16);
    void* first = nullptr;
    void* second = nullptr;
    EXPECT_EQ(rm_emGetFcnAddr(15, "exportedSum", &first), 0);
    EXPECT_EQ(rm_emGetFcnAddr(16, "exportedSum", &second), 0);
    EXPECT_EQ(first, second);
    EXPECT_EQ(rm_emUnload(15), 0);
    EXPECT_THAT(modulesClosed(), IsEmpty());
    EXPECT_EQ(rm_emUnload(16), 0);
    EXPECT_THAT(modulesClosed(), ElementsAre("./m15"));
}

TEST_F(EmLoad, TheFirst15ModulesAreFoundWithAFullRegistry)
{
    loadMany(16);
    for (int number = 0; number < 15; ++number) {
        EXPECT_EQ(load("./" + numbered(number)), number);
    }
    EXPECT_THAT(modulesEntered(), SizeIs(16));
}

TEST_F(EmLoad, The16thModuleThatRegistersTwoFunctionsHasTwoRecords)
{
    loadMany(15);
    EXPECT_EQ(load(installModule("registers", "./reg3")), 15);
    // The second function did not find the record that the first one had made; the third one, in
    // the registry that had grown, did.
    EXPECT_EQ(EmBag->usedCount, 17);
    EXPECT_STREQ(recordOf(15)->name, "reg3");
    EXPECT_NE(recordOf(15)->osModule, nullptr);
    EXPECT_EQ(recordOf(15)->fcnBag->usedCount, 2);
    EXPECT_STREQ(recordOf(16)->name, "reg3");
    EXPECT_EQ(recordOf(16)->osModule, nullptr);
    EXPECT_EQ(recordOf(16)->fcnBag->usedCount, 1);
}

TEST_F(EmLoad, GrowsBy16SlotsAndKeepsAllHandles)
{
    loadMany(40);
    EXPECT_EQ(EmBag->slotCount, 48);
    for (int number = 0; number < 40; ++number) {
        EXPECT_EQ(load("./" + numbered(number)), number);
    }
    EXPECT_THAT(modulesEntered(), SizeIs(40));
}

TEST_F(EmLoad, TheLookupIsMadeTwiceBeforeAModuleIsOpened)
{
    // Whatever the first lookup misses, the second one sees the same registry.
    const int16_t handle = load(installModule("plain", "./geo"));
    uint16_t found = 99;
    EXPECT_EQ(ems::exmFind("geo", &found), 0);
    EXPECT_EQ(found, handle);
    found = 99;
    EXPECT_EQ(ems::exmFind("Geo", &found), RM_NOT_FOUND);
    EXPECT_EQ(ems::exmFind("", &found), RM_NOT_FOUND);
    EXPECT_EQ(found, 99);
}

// --- Entry points that do not come back

class EmLoadFatal : public rmtest::ModuleTest
{
};

TEST_F(EmLoadFatal, AModuleThatGivesUpIsKnownByWhatItHadRegistered)
{
    installModule("fatal", "./fatal");
    int16_t handle = kUntouched;
    int jumped = 0;
    const std::string log =
        captureStderr([&] { jumped = rmtest::catchFatal([&] { rm_emLoad("./fatal", &handle); }); });
    EXPECT_EQ(jumped, 1);
    EXPECT_THAT(log, ::testing::HasSubstr("a module gives up"));
    EXPECT_EQ(handle, kUntouched);
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_EQ(recordOf(0)->osModule, nullptr);
    EXPECT_EQ(load("./fatal"), 0);
    void* address = nullptr;
    EXPECT_EQ(rm_emGetFcnAddr(0, "early", &address), 0);
    EXPECT_NE(address, nullptr);
    EXPECT_EQ(callCount(Call::kDlopen), 1);
}

TEST_F(EmLoadFatal, AModuleThatEndsByAnInvalidTagIsUnknown)
{
    installModule("fatal", "./badtag");
    int16_t handle = kUntouched;
    int jumped = 0;
    const std::string log = captureStderr(
        [&] { jumped = rmtest::catchFatal([&] { rm_emLoad("./badtag", &handle); }); });
    EXPECT_EQ(jumped, 1);
    EXPECT_THAT(log, ::testing::HasSubstr("Invalid tag 1234 supplied to "));
    EXPECT_EQ(handle, kUntouched);
    EXPECT_EQ(EmBag->usedCount, 0);
}

TEST_F(EmLoadFatal, TheHostLoadsOtherModulesAfterwards)
{
    installModule("fatal", "./badtag");
    int16_t handle = kUntouched;
    captureStderr([&] { rmtest::catchFatal([&] { rm_emLoad("./badtag", &handle); }); });
    loadMany(3);
    EXPECT_EQ(load("./m01"), 1);
}

TEST_F(EmLoadFatal, AModuleThatReleasesTheRegistryIsNotFound)
{
    loadMany(2);
    rmtest::onModuleEntry([](const char*) { rm_freeTagMemory(0, 0); });
    int16_t handle = kUntouched;
    EXPECT_EQ(rm_emLoad(installModule("plain", "./m05").c_str(), &handle), RM_NOT_FOUND);
    rmtest::onModuleEntry(nullptr);
    EXPECT_EQ(handle, kUntouched);
    EXPECT_EQ(EmBag, nullptr);
    EXPECT_EQ(load("./m05"), 0);
}

TEST_F(EmLoadFatal, AModuleThatReleasesTheRegistryWhileItIsOpenedIsNotFound)
{
    loadMany(2);
    int16_t handle = kUntouched;
    EXPECT_EQ(rm_emLoad(installModule("opening", "./opening").c_str(), &handle), RM_NOT_FOUND);
    EXPECT_EQ(handle, kUntouched);
    EXPECT_EQ(EmBag, nullptr);
    EXPECT_EQ(load("./m00"), 0);
}

TEST_F(EmLoadFatal, AModuleThatHasTheRegistryMadeAgainIsNotEntered)
{
    rmtest::installModule("plain", "./m00");
    rmtest::onModuleEntry([](const char*) {
        rm_freeTagMemory(0, 0);
        rm_emInit();
        rm_emRegFcn("another", "function", nullptr);
    });
    int16_t handle = kUntouched;
    EXPECT_EQ(rm_emLoad("./m00", &handle), RM_NOT_FOUND);
    rmtest::onModuleEntry(nullptr);
    EXPECT_EQ(handle, kUntouched);
    EXPECT_EQ(ems::EmBag->usedCount, 1);
    EXPECT_EQ(ems::exmFind("m00", nullptr), RM_NOT_FOUND);
}

TEST_F(EmLoadFatal, AModuleThatExitsLeavesAnEmptyRegistryToTheHost)
{
    installModule("fatal", "./leaves");
    loadMany(2);
    int16_t handle = kUntouched;
    int code = -1;
    captureStderr([&] { code = rmtest::catchExit([&] { rm_emLoad("./leaves", &handle); }); });
    EXPECT_EQ(code, 3);
    EXPECT_EQ(EmBag, nullptr);
    EXPECT_EQ(load("./m01"), 0);
    EXPECT_EQ(modulesEntered().back(), "M01 ./m01");
}
}  // namespace
