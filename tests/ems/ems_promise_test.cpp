// The registry of modules step by step: what it holds, when it is made, and what a module finds in
// it while its own code runs.
#include "ems_case.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/ems.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace
{
int timesAsked = 0;
uint32_t blocksWhenAsked = 0;
}  // namespace

// It says when it is called, and has no modules.
void rm_getEmList(uint16_t* emCount, const EmListEntry** emList, uint16_t* iefCount,
                  const IefListEntry** iefList, uint16_t* udfCount, const UdfListEntry** udfList,
                  uint16_t* udpCount, const UdpListEntry** udpList)
{
    ++timesAsked;
    blocksWhenAsked = rmtest::blocksOfTag0();
    *emCount = *iefCount = *udfCount = *udpCount = 0;
    *emList = nullptr;
    *iefList = nullptr;
    *udfList = nullptr;
    *udpList = nullptr;
}

namespace
{
using ems::EmBag;
using rmtest::addressOf;
using rmtest::bytesOfTag0;
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::installModule;
using rmtest::kUntouched;
using rmtest::load;
using rmtest::nothing;
using rmtest::onModuleClose;
using rmtest::onModuleEntry;
using rmtest::ScopedFault;
using ::testing::ElementsAre;
using ::testing::SizeIs;

// A slot of a bag as the words that it is made of.
std::vector<void*> wordsOf(Bag* bag, uint16_t slot)
{
    void* at = nullptr;
    EXPECT_EQ(bagSetCurHandle(bag, slot), 0);
    EXPECT_EQ(bagGetCurPtr(bag, &at), 0);
    std::vector<void*> words(bag->ctl->elementSize / sizeof(void*));
    std::memcpy(words.data(), at, words.size() * sizeof(void*));
    return words;
}

class EmRegistry : public rmtest::ModuleTest
{
};

class EmDuringLoad : public rmtest::ModuleTest
{
};

class EmDuringUnload : public rmtest::ModuleTest
{
};

// --- The registry

TEST_F(EmRegistry, BeginsWithNothing)
{
    EXPECT_EQ(EmBag, nullptr);
    EXPECT_EQ(ems::pEmList, nullptr);
    EXPECT_EQ(ems::pIefList, nullptr);
    EXPECT_EQ(ems::pUdfList, nullptr);
    EXPECT_EQ(ems::pUdpList, nullptr);
    EXPECT_EQ(ems::endEmList, 0);
    EXPECT_EQ(ems::endIefList, 0);
    EXPECT_EQ(ems::endUdfList, 0);
    EXPECT_EQ(ems::endUdpList, 0);
}

TEST_F(EmRegistry, IsThereBeforeTheListsAreAskedFor)
{
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(timesAsked, 1);
    EXPECT_EQ(blocksWhenAsked, 3U);  // its record, its slots and their map
}

TEST_F(EmRegistry, ThatFindsNoMemoryAsksForNoLists)
{
    setenv("SEG_ALLOC", "1", 1);  // each block is an allocation of its own
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    captureStderr([] {
        for (int allocation = 0; allocation < 3; ++allocation) {
            const ScopedFault memory({.call = Call::kMalloc, .error = ENOMEM, .skip = allocation});
            EXPECT_EQ(catchFatal([] { rm_emInit(); }), 1) << allocation;
            EXPECT_EQ(memory.hits(), 1) << allocation;
        }
    });
    EXPECT_EQ(timesAsked, 0);
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(timesAsked, 1);
    unsetenv("SEG_ALLOC");
}

TEST_F(EmRegistry, HoldsNameObjectAndFunctionsInThisOrder)
{
    const int16_t handle = load(installModule("registers", "./reg3"));
    const std::vector<CallRecord> opened = callTrace({Call::kDlopen});
    ASSERT_THAT(opened, SizeIs(1));
    const std::vector<void*> module = wordsOf(EmBag, static_cast<uint16_t>(handle));
    ASSERT_THAT(module, SizeIs(3));
    EXPECT_STREQ(static_cast<char*>(module[0]), "reg3");
    // The object is the record of rm_OSemLoad, which begins with the linker's handle.
    void* object = nullptr;
    std::memcpy(&object, module[1], sizeof(object));
    EXPECT_EQ(reinterpret_cast<intptr_t>(object), opened[0].result);
    auto* functions = static_cast<Bag*>(module[2]);
    ASSERT_EQ(functions->usedCount, 3);
    auto* first = static_cast<char*>(addressOf(handle, "registered"));
    for (uint16_t i = 0; i < 3; ++i) {
        const std::vector<void*> words = wordsOf(functions, i);
        ASSERT_THAT(words, SizeIs(2));
        EXPECT_EQ(std::string(static_cast<char*>(words[0])), "f" + std::to_string(i));
        EXPECT_EQ(words[1], first + i);
    }
}

TEST_F(EmRegistry, GrowsBy16SlotsBelow100AndToTwiceFromThereOn)
{
    EXPECT_EQ(rm_emInit(), 0);
    std::vector<int> counts = {EmBag->slotCount};
    for (int i = 0; i < 225; ++i) {
        ASSERT_EQ(rm_emRegFcn(("r" + std::to_string(i)).c_str(), "f", &nothing), 0);
        if (EmBag->slotCount != counts.back()) {
            EXPECT_EQ(EmBag->usedCount, counts.back() + 1) << "it had been full";
            counts.push_back(EmBag->slotCount);
        }
    }
    EXPECT_THAT(counts, ElementsAre(16, 32, 48, 64, 80, 96, 112, 224, 448));
    EXPECT_EQ(addressOf(224, "f"), &nothing);
}

TEST_F(EmRegistry, IsEachProcesssOwn)
{
    EXPECT_EQ(load(installModule("plain", "./m00")), 0);
    installModule("plain", "./m01");
    const rmtest::ChildResult child = rmtest::runChild([] {
        EXPECT_EQ(rm_emUnload(0), 0);
        EXPECT_EQ(load("./m01"), 0);
        EXPECT_EQ(rm_emRegFcn("m00", "f", &nothing), 0);
        rm_freeall();
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_NE(addressOf(0, "exportedSum"), nullptr);
    EXPECT_EQ(addressOf(0, "f", RM_NOT_FOUND), nullptr);
    EXPECT_EQ(load("./m00"), 0);
}

// --- While the module's own code runs

TEST_F(EmDuringLoad, AModuleThatHasRegisteredNothingIsUnknown)
{
    installModule("plain", "./m00");
    onModuleEntry([](const char* /*name*/) {
        uint16_t found = 99;
        EXPECT_EQ(ems::exmFind("m00", &found), RM_NOT_FOUND);
        EXPECT_EQ(EmBag->usedCount, 0);
        addressOf(0, "exportedSum", RM_UNKNOWN_MODULE);
        EXPECT_EQ(rm_emUnload(0), RM_UNKNOWN_MODULE);
    });
    EXPECT_EQ(load("./m00"), 0);
    EXPECT_NE(addressOf(0, "exportedSum"), nullptr);
}

TEST_F(EmDuringLoad, AModuleThatHasRegisteredIsKnownWithoutItsObject)
{
    installModule("plain", "./m00");
    onModuleEntry([](const char* name) {
        EXPECT_EQ(rm_emRegFcn(name, "f", &nothing), 0);
        EXPECT_EQ(wordsOf(EmBag, 0).at(1), nullptr);
        EXPECT_EQ(addressOf(0, "f"), &nothing);
        EXPECT_EQ(addressOf(0, "exportedSum", RM_NOT_FOUND), nullptr);
        EXPECT_EQ(rm_emUnload(0), 0);
        EXPECT_EQ(EmBag->usedCount, 1);
    });
    EXPECT_EQ(load("./m00"), 0);
    EXPECT_EQ(callCount(Call::kDlclose), 0);
    EXPECT_NE(addressOf(0, "exportedSum"), nullptr);
    EXPECT_EQ(addressOf(0, "f"), &nothing);
}

TEST_F(EmDuringLoad, TheHandleIsStoredWhenTheEntryPointHasComeBack)
{
    installModule("plain", "./m00");
    int16_t handle = kUntouched;
    onModuleEntry([&handle](const char* name) {
        EXPECT_EQ(rm_emRegFcn(name, "f", &nothing), 0);
        EXPECT_EQ(handle, kUntouched);
    });
    EXPECT_EQ(rm_emLoad("./m00", &handle), 0);
    EXPECT_EQ(handle, 0);
}

TEST_F(EmDuringLoad, The16thModuleThatRegistersOneFunctionIsEnteredBesideIt)
{
    EXPECT_EQ(rm_emInit(), 0);
    for (int i = 0; i < 15; ++i) {
        ASSERT_EQ(rm_emRegFcn(("r" + std::to_string(i)).c_str(), "f", &nothing), 0);
    }
    // The function makes the record in the last slot, which the lookup after the load misses.
    EXPECT_EQ(load(installModule("registers", "./reg1")), 16);
    EXPECT_EQ(EmBag->usedCount, 17);
    EXPECT_EQ(EmBag->slotCount, 32);
    const std::vector<void*> registered = wordsOf(EmBag, 15);
    EXPECT_STREQ(static_cast<char*>(registered[0]), "reg1");
    EXPECT_EQ(registered[1], nullptr);
    EXPECT_NE(registered[2], nullptr);
    const std::vector<void*> loaded = wordsOf(EmBag, 16);
    EXPECT_STREQ(static_cast<char*>(loaded[0]), "reg1");
    EXPECT_NE(loaded[1], nullptr);
    EXPECT_EQ(loaded[2], nullptr);
    EXPECT_EQ(addressOf(15, "f0"), addressOf(16, "registered"));
    addressOf(16, "f0", RM_NOT_FOUND);
    EXPECT_EQ(load("./reg1"), 15);
}

TEST_F(EmDuringUnload, TheModuleIsStillKnownWithAllItsFunctions)
{
    installModule("plain", "./m00");
    onModuleEntry([](const char* name) { EXPECT_EQ(rm_emRegFcn(name, "f", &nothing), 0); });
    EXPECT_EQ(load("./m00"), 0);
    const uint32_t bytes = bytesOfTag0();
    bool closed = false;
    onModuleClose([&](const char* /*name*/) {
        closed = true;
        EXPECT_EQ(bytesOfTag0(), bytes);
        uint16_t found = 99;
        EXPECT_EQ(ems::exmFind("m00", &found), 0);
        EXPECT_EQ(found, 0);
        EXPECT_EQ(addressOf(0, "f"), &nothing);
    });
    EXPECT_EQ(rm_emUnload(0), 0);
    onModuleClose(nullptr);
    EXPECT_TRUE(closed);
    EXPECT_LT(bytesOfTag0(), bytes);
    EXPECT_EQ(ems::exmFind("m00", nullptr), RM_NOT_FOUND);
}

TEST_F(EmDuringUnload, OneThatIsRefusedFreesNothing)
{
    const int16_t handle = load(installModule("registers", "./reg3"));
    const uint32_t bytes = bytesOfTag0();
    const std::vector<void*> record = wordsOf(EmBag, static_cast<uint16_t>(handle));
    const std::string log = captureStderr([&] {
        const ScopedFault close({.call = Call::kDlclose});
        EXPECT_EQ(rm_emUnload(handle), 0);
        EXPECT_EQ(close.hits(), 1);
    });
    EXPECT_EQ(log, "");
    EXPECT_EQ(bytesOfTag0(), bytes);
    EXPECT_EQ(wordsOf(EmBag, static_cast<uint16_t>(handle)), record);
    EXPECT_EQ(load("./reg3"), handle);
    EXPECT_EQ(callCount(Call::kDlopen), 1);
}
}  // namespace
