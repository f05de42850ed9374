// The registry of modules when its bags refuse: one that is not made, a lookup that misses what a
// second one finds, and a registry that has lost its map.
#include "tests/support/modules.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/ems.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace
{
// The control record of the bags that are not made; null for none.
const BagCtl* refused = nullptr;

// Lookups that miss whatever stands in the bag, and all that were made.
int misses = 0;
int lookups = 0;
int16_t missStatus = RM_NOT_FOUND;  // what those lookups give

// What the linker's side says instead of doing it; 0 lets it.
int16_t loadStatus = 0;
int16_t addressStatus = 0;
}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" int16_t __real_bagCreate(const BagCtl* ctl, Bag** bag);
extern "C" int16_t __wrap_bagCreate(const BagCtl* ctl, Bag** bag);
extern "C" int16_t __real_bagFind(Bag* bag, const void* key, uint16_t* handle, void** pointer);
extern "C" int16_t __wrap_bagFind(Bag* bag, const void* key, uint16_t* handle, void** pointer);

int16_t __wrap_bagCreate(const BagCtl* ctl, Bag** bag)
{
    return refused != nullptr && ctl == refused ? int16_t{RM_INVALID} : __real_bagCreate(ctl, bag);
}

int16_t __wrap_bagFind(Bag* bag, const void* key, uint16_t* handle, void** pointer)
{
    ++lookups;
    if (misses > 0) {
        --misses;
        return missStatus;
    }
    return __real_bagFind(bag, key, handle, pointer);
}

extern "C" int16_t __real_rm_OSemLoad(const char* name, void** module);
extern "C" int16_t __wrap_rm_OSemLoad(const char* name, void** module);
extern "C" int16_t __real_rm_OSemGetFcnAddr(void* module, const char* name, void** address);
extern "C" int16_t __wrap_rm_OSemGetFcnAddr(void* module, const char* name, void** address);

int16_t __wrap_rm_OSemLoad(const char* name, void** module)
{
    return loadStatus != 0 ? loadStatus : __real_rm_OSemLoad(name, module);
}

int16_t __wrap_rm_OSemGetFcnAddr(void* module, const char* name, void** address)
{
    return addressStatus != 0 ? addressStatus : __real_rm_OSemGetFcnAddr(module, name, address);
}

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace
{
using ems::EmBag;
using rmtest::blocksOfTag0;
using rmtest::captureStderr;
using rmtest::installModule;
using rmtest::logLines;
using rmtest::modulesEntered;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

char function;  // its address is what the cases register

class EmBags : public rmtest::ModuleTest
{
  protected:
    void TearDown() override
    {
        refused = nullptr;
        misses = 0;
        missStatus = RM_NOT_FOUND;
        loadStatus = 0;
        addressStatus = 0;
        ModuleTest::TearDown();
    }
};

TEST_F(EmBags, WithoutARegistryNothingIsInitialisedNorLoaded)
{
    const std::string path = installModule("plain", "./m00");
    int16_t handle = -77;
    refused = &ems::EmBagCtl;
    EXPECT_EQ(rm_emInit(), RM_INVALID);
    EXPECT_EQ(EmBag, nullptr);
    EXPECT_EQ(rm_emLoad(path.c_str(), &handle), RM_INVALID);
    EXPECT_EQ(EmBag, nullptr);
    EXPECT_EQ(handle, -77);
    EXPECT_THAT(modulesEntered(), IsEmpty());
    refused = nullptr;
    EXPECT_EQ(rm_emLoad(path.c_str(), &handle), RM_SUCCESS);
    EXPECT_EQ(handle, 0);
}

TEST_F(EmBags, WithoutAListOfFunctionsARegistrationFailsAndTheModuleStays)
{
    ASSERT_EQ(rm_emInit(), RM_SUCCESS);
    refused = &ems::EmFcnBagCtl;
    EXPECT_EQ(rm_emRegFcn("geo", "f", &function), RM_INVALID);
    EXPECT_EQ(EmBag->usedCount, 1);
    const uint32_t blocks = blocksOfTag0();
    EXPECT_EQ(rm_emRegFcn("geo", "f", &function), RM_INVALID);
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_EQ(blocksOfTag0(), blocks) << "nothing more is kept";
    refused = nullptr;
    EXPECT_EQ(rm_emRegFcn("geo", "f", &function), RM_SUCCESS);
    void* address = nullptr;
    EXPECT_EQ(rm_emGetFcnAddr(0, "f", &address), RM_SUCCESS);
    EXPECT_EQ(address, &function);
}

TEST_F(EmBags, AreAskedTwiceForANameBeforeItIsLoaded)
{
    const std::string path = installModule("plain", "./m00");
    int16_t handle = -77;
    lookups = 0;
    EXPECT_EQ(rm_emLoad(path.c_str(), &handle), RM_SUCCESS);
    EXPECT_EQ(lookups, 2);
    lookups = 0;
    EXPECT_EQ(rm_emLoad(path.c_str(), &handle), RM_SUCCESS);
    EXPECT_EQ(lookups, 1) << "once where the first one finds it";
}

TEST_F(EmBags, GiveAModuleThatOnlyTheSecondLookupFinds)
{
    const std::string first = installModule("plain", "./m00");
    const std::string second = installModule("plain", "./m01");
    int16_t handle = -77;
    ASSERT_EQ(rm_emLoad(first.c_str(), &handle), RM_SUCCESS);
    ASSERT_EQ(rm_emLoad(second.c_str(), &handle), RM_SUCCESS);
    const uint32_t blocks = blocksOfTag0();
    const std::size_t entered = modulesEntered().size();
    handle = -77;
    misses = 1;
    EXPECT_EQ(rm_emLoad(first.c_str(), &handle), RM_SUCCESS);
    EXPECT_EQ(misses, 0);
    EXPECT_EQ(handle, 0);
    EXPECT_EQ(modulesEntered().size(), entered) << "it is not loaded again";
    EXPECT_EQ(blocksOfTag0(), blocks) << "the name is given back";
}

// Every slot counts as used then, and those that do not exist still do not.
TEST_F(EmBags, WithoutAMapHaveNoModuleBehindTheLastSlot)
{
    const std::string path = installModule("plain", "./m00");
    int16_t handle = -77;
    ASSERT_EQ(rm_emLoad(path.c_str(), &handle), RM_SUCCESS);
    uint16_t* map = std::exchange(EmBag->slotMap, nullptr);
    void* address = &function;
    for (const int beyond : {int{EmBag->slotCount}, EmBag->slotCount + 1, 32'767, -1}) {
        const auto lines = logLines(captureStderr([&] {
            const auto none = static_cast<int16_t>(beyond);
            EXPECT_EQ(rm_emGetFcnAddr(none, "exportedSum", &address), RM_UNKNOWN_MODULE) << beyond;
            EXPECT_EQ(rm_emUnload(none), RM_UNKNOWN_MODULE) << beyond;
        }));
        EXPECT_THAT(lines, ElementsAre("markSlotUsed failed", "markSlotUsed failed"));
    }
    EXPECT_EQ(address, &function);
    EmBag->slotMap = map;
    EXPECT_EQ(rm_emUnload(handle), RM_SUCCESS);
}

// The map is larger with the 33rd module, and its block is found damaged. The registry is what it
// is from then on: its free slots cannot be told from the others.
TEST_F(EmBags, WhoseMapIsLostWhenTheyGrowTakeNoFurtherModule)
{
    ASSERT_EQ(rm_emInit(), RM_SUCCESS);
    for (int n = 0; n < 32; ++n) {
        ASSERT_EQ(rm_emRegFcn(std::to_string(n).c_str(), "f", &function), RM_SUCCESS);
    }
    const std::string last = installModule("plain", "./m32");
    const std::string tooMany = installModule("plain", "./m33");
    uint16_t* map = EmBag->slotMap;
    uint32_t& header = rmalloc::headerOf(map)->word1;
    const uint32_t before = std::exchange(header, 0);
    int16_t handle = -77;
    captureStderr([&] { EXPECT_EQ(rm_emLoad(last.c_str(), &handle), RM_SUCCESS); });
    header = before;
    EXPECT_EQ(handle, 32);
    ASSERT_EQ(EmBag->slotMap, nullptr);

    handle = -77;
    const auto lines = logLines(
        captureStderr([&] { EXPECT_EQ(rm_emLoad(tooMany.c_str(), &handle), RM_INVALID); }));
    EXPECT_EQ(lines.back(), "findEmptySlot failed");
    EXPECT_EQ(handle, -77);
    captureStderr([&] { EXPECT_EQ(rm_emRegFcn("new", "f", &function), RM_INVALID); });
    EXPECT_EQ(EmBag->usedCount, 33);
    EXPECT_THAT(modulesEntered(), ElementsAre("M32 ./m32", "M33 ./m33"));
    captureStderr([&] { EXPECT_EQ(rm_emLoad(last.c_str(), &handle), RM_SUCCESS); });
    EXPECT_EQ(handle, 32) << "the others are found as before";
    rm_freeMemory(map, 0);
}

TEST_F(EmBags, WhoseLookupFailsTakeNoRegistration)
{
    ASSERT_EQ(rm_emInit(), RM_SUCCESS);
    ASSERT_EQ(rm_emRegFcn("geo", "f", &function), RM_SUCCESS);
    const uint32_t blocks = blocksOfTag0();
    misses = 1;
    missStatus = RM_INVALID;
    int16_t status = 0;
    const auto lines =
        logLines(captureStderr([&] { status = rm_emRegFcn("/x/geo", "g", &function); }));
    EXPECT_EQ(status, RM_NOT_FOUND);
    EXPECT_THAT(lines, ElementsAre("Can't register function 'g' for unknown extension module "
                                   "'/x/geo'"));
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_EQ(blocksOfTag0(), blocks);
}

TEST_F(EmBags, StayAsTheyAreWhateverALoadFailsWith)
{
    const std::string path = installModule("plain", "./m00");
    ASSERT_EQ(rm_emInit(), RM_SUCCESS);
    const uint32_t blocks = blocksOfTag0();
    for (const int status : {int{RM_OUT_OF_MEMORY}, 1, 5, -1}) {
        int16_t handle = -77;
        loadStatus = static_cast<int16_t>(status);
        EXPECT_EQ(rm_emLoad(path.c_str(), &handle), status);
        EXPECT_EQ(handle, -77);
        EXPECT_EQ(EmBag->usedCount, 0);
        EXPECT_EQ(blocksOfTag0(), blocks) << "the name is given back";
    }
}

TEST_F(EmBags, HaveNoFunctionWhateverTheLinkerFailsWith)
{
    const std::string path = installModule("plain", "./m00");
    int16_t handle = -77;
    ASSERT_EQ(rm_emLoad(path.c_str(), &handle), RM_SUCCESS);
    for (const int status : {1, 5, -1, int{RM_OUT_OF_MEMORY}}) {
        void* address = nullptr;
        addressStatus = static_cast<int16_t>(status);
        EXPECT_EQ(rm_emGetFcnAddr(handle, "exportedSum", &address), RM_NOT_FOUND) << status;
    }
}

}  // namespace
