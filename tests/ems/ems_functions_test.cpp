// Functions of modules: registered ones first, then exported ones, and what registration leaves in
// tag 0.
#include "tests/support/modules.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/ems.h"

#include <string>

#include <gmock/gmock.h>

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
using rmtest::logLines;
using rmtest::textBytes;
using ::testing::ElementsAre;

constexpr uint32_t kFunctionRecord = sizeof(ems::EmFcnRec);

char nothing;  // its address is no function's

int16_t load(const std::string& path)
{
    int16_t handle = -77;
    EXPECT_EQ(rm_emLoad(path.c_str(), &handle), 0) << path;
    return handle;
}

// The address, or null when the status is not `status`.
void* addressOf(int16_t handle, const char* function, int16_t status = 0)
{
    void* address = &nothing;
    EXPECT_EQ(rm_emGetFcnAddr(handle, function, &address), status) << function;
    return address;
}

// The array that modules of registers.c take their addresses from.
char* registeredBy(int16_t handle)
{
    return static_cast<char*>(addressOf(handle, "registered"));
}

class EmGetFcnAddr : public rmtest::ModuleTest
{
};

class EmRegFcn : public rmtest::ModuleTest
{
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        ASSERT_EQ(rm_emInit(), 0);
        bytes_ = bytesOfTag0();
    }

    // Since the registry was made.
    uint32_t bytesTaken() const { return bytesOfTag0() - bytes_; }

    char addresses_[64] = {};

  private:
    uint32_t bytes_ = 0;
};

// --- Looking up

TEST_F(EmGetFcnAddr, FindsWhatAModuleExports)
{
    const int16_t handle = load(installModule("plain", "./geo"));
    void* address = addressOf(handle, "exportedSum");
    EXPECT_EQ(reinterpret_cast<int (*)(int, int)>(address)(40, 2), 42);
}

TEST_F(EmGetFcnAddr, FindsWhatAModuleHasRegistered)
{
    const int16_t handle = load(installModule("registers", "./reg3"));
    char* first = registeredBy(handle);
    EXPECT_EQ(addressOf(handle, "f0"), first);
    EXPECT_EQ(addressOf(handle, "f1"), first + 1);
    EXPECT_EQ(addressOf(handle, "f2"), first + 2);
}

TEST_F(EmGetFcnAddr, FindsOneRegisteredFunction)
{
    const int16_t handle = load(installModule("registers", "./reg1"));
    EXPECT_EQ(addressOf(handle, "f0"), registeredBy(handle));
    EXPECT_EQ(addressOf(handle, "f1", RM_NOT_FOUND), nullptr);
}

TEST_F(EmGetFcnAddr, FindsEachOf50RegisteredFunctions)
{
    const int16_t handle = load(installModule("registers", "./reg50"));
    char* first = registeredBy(handle);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(addressOf(handle, ("f" + std::to_string(i)).c_str()), first + i);
    }
    EXPECT_EQ(addressOf(handle, "f50", RM_NOT_FOUND), nullptr);
    void* status = addressOf(handle, "registerStatus");
    EXPECT_EQ(*static_cast<int16_t*>(status), 0);
}

TEST_F(EmGetFcnAddr, TheFirstRegistrationOfANameWins)
{
    const int16_t handle = load(installModule("registers", "./regtwice"));
    EXPECT_EQ(addressOf(handle, "f0"), registeredBy(handle));
}

TEST_F(EmGetFcnAddr, ARegisteredFunctionComesBeforeAnExportedOne)
{
    const int16_t handle = load(installModule("registers", "./regexported"));
    EXPECT_EQ(addressOf(handle, "sharedName"), registeredBy(handle) + 2);
}

TEST_F(EmGetFcnAddr, RegisteredNamesDifferInCase)
{
    const int16_t handle = load(installModule("registers", "./reg1"));
    EXPECT_EQ(addressOf(handle, "F0", RM_NOT_FOUND), nullptr);
    EXPECT_EQ(rm_emRegFcn("reg1", "F0", &nothing), 0);
    EXPECT_EQ(addressOf(handle, "F0"), &nothing);
    EXPECT_EQ(addressOf(handle, "f0"), registeredBy(handle));
}

TEST_F(EmGetFcnAddr, AnUnknownFunctionOfALoadedModuleIsNotFoundAndNullIsStored)
{
    const int16_t handle = load(installModule("plain", "./geo"));
    EXPECT_EQ(addressOf(handle, "absent", RM_NOT_FOUND), nullptr);
    EXPECT_EQ(addressOf(handle, "", RM_NOT_FOUND), nullptr);
}

TEST_F(EmGetFcnAddr, AModuleKnownOnlyByItsFunctionsHasThem)
{
    load(installModule("othername", "./othername"));
    void* borrowed = addressOf(1, "borrowed");
    EXPECT_EQ(addressOf(0, "borrowed"), borrowed);
}

TEST_F(EmGetFcnAddr, AModuleKnownOnlyByItsFunctionsHasNoOthers)
{
    load(installModule("othername", "./othername"));
    for (const char* function : {"exportedSum", "ModInit", "iefDescribeFcns", "absent", ""}) {
        EXPECT_EQ(addressOf(0, function, RM_NOT_FOUND), nullptr) << function;
    }
    EXPECT_EQ(callCount(Call::kDlsym), 1);
}

TEST_F(EmGetFcnAddr, TheEntryNamesOfLinkedInModulesAreNoneOfALoadedOne)
{
    const int16_t handle = load(installModule("plain", "./geo"));
    for (const char* function : {"ModInit", "ModCleanup", "ModDescribeFcns", "iefDescribeFcns",
                                 "udfDescribeFcns", "udpDescribeFcns"}) {
        EXPECT_EQ(addressOf(handle, function, RM_NOT_FOUND), nullptr) << function;
    }
}

TEST_F(EmGetFcnAddr, WithoutARegistryEveryHandleIsUnknown)
{
    for (const int handle : {INT16_MIN, -2, -1, 0, 1, 15, INT16_MAX}) {
        EXPECT_EQ(addressOf(static_cast<int16_t>(handle), "f", RM_UNKNOWN_MODULE), &nothing);
    }
    EXPECT_EQ(EmBag, nullptr);
}

TEST_F(EmGetFcnAddr, KnowsNoOtherHandleThanThoseGiven)
{
    load(installModule("plain", "./m00"));
    load(installModule("registers", "./reg1"));
    load(installModule("plain", "./m02"));
    EXPECT_EQ(rm_emUnload(0), 0);
    for (int handle = INT16_MIN; handle <= INT16_MAX; ++handle) {
        const bool known = handle == 1 || handle == 2;
        void* address = &nothing;
        const int16_t status = rm_emGetFcnAddr(static_cast<int16_t>(handle), "absent", &address);
        ASSERT_EQ(status, known ? RM_NOT_FOUND : RM_UNKNOWN_MODULE) << handle;
        ASSERT_EQ(address, known ? nullptr : &nothing) << handle;
    }
}

TEST_F(EmGetFcnAddr, LogsNothing)
{
    const int16_t handle = load(installModule("registers", "./reg1"));
    const std::string log = captureStderr([&] {
        addressOf(handle, "f0");
        addressOf(handle, "absent", RM_NOT_FOUND);
        addressOf(9, "absent", RM_UNKNOWN_MODULE);
    });
    EXPECT_EQ(log, "");
}

// --- Registering

TEST_F(EmRegFcn, EntersAModuleThatIsUnknown)
{
    EXPECT_EQ(rm_emRegFcn("geo", "f", &addresses_[0]), 0);
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_EQ(addressOf(0, "f"), &addresses_[0]);
    uint16_t handle = 99;
    EXPECT_EQ(ems::exmFind("geo", &handle), 0);
    EXPECT_EQ(handle, 0);
}

TEST_F(EmRegFcn, TakesTheLastPartOfAPath)
{
    EXPECT_EQ(rm_emRegFcn("/x/y/libgeo", "f", &addresses_[0]), 0);
    EXPECT_EQ(rm_emRegFcn("libgeo", "g", &addresses_[1]), 0);
    EXPECT_EQ(rm_emRegFcn("z/libgeo", "h", &addresses_[2]), 0);
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_EQ(addressOf(0, "f"), &addresses_[0]);
    EXPECT_EQ(addressOf(0, "g"), &addresses_[1]);
    EXPECT_EQ(addressOf(0, "h"), &addresses_[2]);
}

TEST_F(EmRegFcn, NamesOfModulesDifferInCaseAndPrefix)
{
    EXPECT_EQ(rm_emRegFcn("geo", "f", &addresses_[0]), 0);
    EXPECT_EQ(rm_emRegFcn("Geo", "f", &addresses_[1]), 0);
    EXPECT_EQ(rm_emRegFcn("libgeo", "f", &addresses_[2]), 0);
    for (int16_t handle = 0; handle < 3; ++handle) {
        EXPECT_EQ(addressOf(handle, "f"), &addresses_[handle]);
    }
}

TEST_F(EmRegFcn, KeepsCopiesOfBothNames)
{
    std::string module = "geo";
    std::string function = "function";
    EXPECT_EQ(rm_emRegFcn(module.c_str(), function.c_str(), &addresses_[0]), 0);
    module = "xxx";
    function = "xxxxxxxx";
    uint16_t handle = 99;
    EXPECT_EQ(ems::exmFind("geo", &handle), 0);
    EXPECT_EQ(addressOf(0, "function"), &addresses_[0]);
}

TEST_F(EmRegFcn, TakesMemoryForModuleListAndName)
{
    EXPECT_EQ(rm_emRegFcn("/x/libgeo", "first", &addresses_[0]), 0);
    EXPECT_EQ(bytesTaken(), textBytes("libgeo") + blockBytes(sizeof(Bag)) +
                                blockBytes(3 * kFunctionRecord) + textBytes("first"));
}

TEST_F(EmRegFcn, OfAKnownModuleTakesMemoryForItsNameAlone)
{
    EXPECT_EQ(rm_emRegFcn("libgeo", "first", &addresses_[0]), 0);
    const uint32_t bytes = bytesTaken();
    EXPECT_EQ(rm_emRegFcn("libgeo", "the second one", &addresses_[1]), 0);
    EXPECT_EQ(bytesTaken(), bytes + textBytes("the second one"));
}

TEST_F(EmRegFcn, TheListGrowsByThreeAndFrom20OnToTwice)
{
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(rm_emRegFcn("geo", ("f" + std::to_string(i)).c_str(), &addresses_[i]), 0);
        void* record = nullptr;
        ASSERT_EQ(bagFind(EmBag, "geo", nullptr, &record), 0);
        const Bag* functions = static_cast<ems::EmRec*>(record)->fcnBag;
        ASSERT_EQ(functions->usedCount, i + 1);
        ASSERT_EQ(functions->slotCount, i < 21 ? i / 3 * 3 + 3 : i < 42 ? 42 : 84);
    }
}

TEST_F(EmRegFcn, KeepsEveryRegistrationOfAName)
{
    EXPECT_EQ(rm_emRegFcn("geo", "f", &addresses_[0]), 0);
    const uint32_t bytes = bytesTaken();
    EXPECT_EQ(rm_emRegFcn("geo", "f", &addresses_[1]), 0);
    EXPECT_EQ(bytesTaken(), bytes + textBytes("f"));
    EXPECT_EQ(addressOf(0, "f"), &addresses_[0]);
}

TEST_F(EmRegFcn, OfALoadedModuleAddsToIt)
{
    const int16_t handle = load(installModule("plain", "./geo"));
    EXPECT_EQ(rm_emRegFcn("geo", "added", &addresses_[0]), 0);
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_EQ(addressOf(handle, "added"), &addresses_[0]);
    EXPECT_NE(addressOf(handle, "exportedSum"), nullptr);
}

TEST_F(EmRegFcn, StoresANullAddressAsItIs)
{
    EXPECT_EQ(rm_emRegFcn("geo", "none", nullptr), 0);
    EXPECT_EQ(addressOf(0, "none"), nullptr);
}

TEST_F(EmRegFcn, AFunctionWithoutANameIsNeverFound)
{
    EXPECT_EQ(rm_emRegFcn("geo", "", &addresses_[0]), 0);
    EXPECT_EQ(addressOf(0, "", RM_NOT_FOUND), nullptr);
}

TEST_F(EmRegFcn, AModuleWithoutANameIsEnteredEachTime)
{
    EXPECT_EQ(rm_emRegFcn("x/", "f", &addresses_[0]), 0);
    EXPECT_EQ(rm_emRegFcn("", "f", &addresses_[1]), 0);
    EXPECT_EQ(EmBag->usedCount, 2);
    EXPECT_EQ(addressOf(0, "f"), &addresses_[0]);
    EXPECT_EQ(addressOf(1, "f"), &addresses_[1]);
}

TEST_F(EmRegFcn, TakesTheLowestFreeSlot)
{
    load(installModule("plain", "./m00"));
    load(installModule("plain", "./m01"));
    EXPECT_EQ(rm_emUnload(0), 0);
    EXPECT_EQ(rm_emRegFcn("geo", "f", &addresses_[0]), 0);
    EXPECT_EQ(addressOf(0, "f"), &addresses_[0]);
}

TEST_F(EmRegFcn, The16thModuleIsEnteredAgain)
{
    for (std::size_t i = 0; i < 16; ++i) {
        ASSERT_EQ(rm_emRegFcn(("m" + std::to_string(i)).c_str(), "f", &addresses_[i]), 0);
    }
    EXPECT_EQ(EmBag->usedCount, 16);
    EXPECT_EQ(rm_emRegFcn("m15", "g", &addresses_[16]), 0);
    EXPECT_EQ(EmBag->usedCount, 17);
    EXPECT_EQ(addressOf(15, "g", RM_NOT_FOUND), nullptr);
    EXPECT_EQ(addressOf(16, "g"), &addresses_[16]);
}

TEST_F(EmRegFcn, LogsNothingWhenItSucceeds)
{
    const std::string log =
        captureStderr([&] { EXPECT_EQ(rm_emRegFcn("geo", "f", &addresses_[0]), 0); });
    EXPECT_EQ(log, "");
}

TEST_F(EmRegFcn, AListThatCannotGrowLeavesNothing)
{
    EXPECT_EQ(rm_emRegFcn("geo", "f", &addresses_[0]), 0);
    void* record = nullptr;
    ASSERT_EQ(bagFind(EmBag, "geo", nullptr, &record), 0);
    Bag* functions = static_cast<ems::EmRec*>(record)->fcnBag;
    // 21 slots from 18 on, then twice as many each time; 86016 would be next. Filled from behind,
    // without a name of its own for each.
    constexpr int kMost = 43008;
    static char name[] = "filler";
    const ems::EmFcnRec filler = {name, &addresses_[2]};
    for (int i = 1; i < kMost; ++i) {
        ASSERT_EQ(bagAdd(functions, &filler), 0);
    }
    const uint32_t bytes = bytesOfTag0();
    const uint32_t blocks = blocksOfTag0();
    EXPECT_EQ(rm_emRegFcn("geo", "one more", &addresses_[1]), RM_OUT_OF_MEMORY);
    EXPECT_EQ(bytesOfTag0(), bytes);
    EXPECT_EQ(blocksOfTag0(), blocks);
    EXPECT_EQ(addressOf(0, "one more", RM_NOT_FOUND), nullptr);
    EXPECT_EQ(addressOf(0, "f"), &addresses_[0]);
}

// --- Without a registry

class EmRegFcnWithoutRegistry : public rmtest::ModuleTest
{
};

TEST_F(EmRegFcnWithoutRegistry, IsNotFoundAndLogsBothNamesAsGiven)
{
    const std::string log = captureStderr(
        [] { EXPECT_EQ(rm_emRegFcn("/x/y/libgeo", "area", &nothing), RM_NOT_FOUND); });
    EXPECT_THAT(
        logLines(log),
        ElementsAre("Can't register function 'area' for unknown extension module '/x/y/libgeo'"));
}

TEST_F(EmRegFcnWithoutRegistry, MakesNoneAndLeavesNothing)
{
    captureStderr([] { EXPECT_EQ(rm_emRegFcn("geo", "area", &nothing), RM_NOT_FOUND); });
    EXPECT_EQ(EmBag, nullptr);
    EXPECT_EQ(bytesOfTag0(), 0U);
}
}  // namespace
