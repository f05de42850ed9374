// Modules without memory, and after the memory of tag 0 has gone: every allocation that a call
// makes is failed, and the host that jumped out goes on with a registry that is sound.
#include "tests/support/modules.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/ems.h"
#include "rm/rmalloc/rmalloc.h"

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>

#include <gmock/gmock.h>

namespace
{
using ems::EmBag;
using ems::EmRec;
using rmtest::Call;
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::installModule;
using rmtest::modulesEntered;
using rmtest::ScopedFault;
using ::testing::HasSubstr;
using ::testing::SizeIs;

char function;  // its address is what the cases register

// Each block is an allocation of its own, so that each can be failed.
class EmFaults : public rmtest::ModuleTest
{
  protected:
    void SetUp() override
    {
        setenv("SEG_ALLOC", "1", 1);
        ModuleTest::SetUp();
        for (const char* name : {"./m00", "./m01", "./m02", "./m03"}) {
            installModule("plain", name);
        }
        installModule("registers", "./reg3");
        installModule("registers", "./reg50");
    }

    // Every record has a name, and the lists of functions are whole.
    static void expectSound()
    {
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        if (EmBag == nullptr) {
            return;
        }
        EXPECT_EQ(bags::checkBag(EmBag), 0U);
        for (uint16_t handle = 0; handle < EmBag->slotCount; ++handle) {
            void* found = nullptr;
            if (bagSetCurHandle(EmBag, handle) != 0) {
                continue;
            }
            ASSERT_EQ(bagGetCurPtr(EmBag, &found), 0);
            const auto* record = static_cast<EmRec*>(found);
            EXPECT_FALSE(std::string(record->name).empty());
            if (record->fcnBag != nullptr) {
                EXPECT_EQ(bags::checkBag(record->fcnBag), 0U);
                for (int16_t s = bagFirst(record->fcnBag); s == 0; s = bagNext(record->fcnBag)) {
                    ASSERT_EQ(bagGetCurPtr(record->fcnBag, &found), 0);
                    EXPECT_NE(std::string(static_cast<ems::EmFcnRec*>(found)->name), "");
                }
            }
        }
    }

    // The registry takes a module and a function and gives them back.
    static void expectUsable()
    {
        int16_t handle = -77;
        void* address = nullptr;
        EXPECT_EQ(rm_emLoad("./m03", &handle), 0);
        EXPECT_EQ(rm_emGetFcnAddr(handle, "exportedSum", &address), 0);
        EXPECT_NE(address, nullptr);
        EXPECT_EQ(rm_emRegFcn("m03", "late", &function), 0);
        EXPECT_EQ(rm_emGetFcnAddr(handle, "late", &address), 0);
        EXPECT_EQ(address, &function);
        EXPECT_EQ(rm_emUnload(handle), 0);
        EXPECT_EQ(rm_emGetFcnAddr(handle, "late", &address), RM_UNKNOWN_MODULE);
    }

    // Runs `body` after `before` again and again, and each time the next allocation of it fails.
    // Gives the number of allocations.
    static int failEach(const std::function<void()>& before, const std::function<void()>& body)
    {
        for (int allocation = 0;; ++allocation) {
            rm_freeall();
            before();
            int jumped = 0;
            bool met = false;
            captureStderr([&] {
                const ScopedFault memory(
                    {.call = Call::kMalloc, .error = ENOMEM, .skip = allocation});
                jumped = catchFatal(body);
                met = memory.hits() > 0;
            });
            EXPECT_EQ(jumped, met ? 1 : 0) << "allocation " << allocation;
            expectSound();
            expectUsable();
            if (!met || HasFailure()) {
                return allocation;
            }
        }
    }
};

void loadOrEnd(const char* path)
{
    int16_t handle = -77;
    rm_emLoad(path, &handle);
}

TEST_F(EmFaults, TheFirstLoad)
{
    // The tag table, the registry's three blocks, the name, the object.
    EXPECT_EQ(failEach([] {}, [] { loadOrEnd("./m00"); }), 6);
}

TEST_F(EmFaults, AnInit)
{
    EXPECT_EQ(failEach([] {}, [] { rm_emInit(); }), 4);
}

TEST_F(EmFaults, ALaterLoad)
{
    EXPECT_EQ(failEach([] { loadOrEnd("./m00"); }, [] { loadOrEnd("./m01"); }), 2);
}

TEST_F(EmFaults, ALoadOfAModuleThatIsThere)
{
    EXPECT_EQ(failEach([] { loadOrEnd("./m00"); }, [] { loadOrEnd("./m00"); }), 1);
}

TEST_F(EmFaults, ALoadOfAModuleThatRegistersThreeFunctions)
{
    // The name, the object; the registry's name, the list and its slots, and each function's name,
    // with the name of the module looked up again before it.
    EXPECT_EQ(failEach([] { rm_emInit(); }, [] { loadOrEnd("./reg3"); }), 2 + 1 + 2 + 3 + 2);
}

TEST_F(EmFaults, ALoadOfAModuleThatRegisters50Functions)
{
    // As above; the list grows at 3, 6, 9, 12, 15, 18, 21 and 42 functions.
    EXPECT_EQ(failEach([] { rm_emInit(); }, [] { loadOrEnd("./reg50"); }), 2 + 1 + 2 + 50 + 49 + 8);
}

TEST_F(EmFaults, ALoadThatMakesTheRegistryGrow)
{
    const auto fill = [] {
        EXPECT_EQ(rm_emInit(), 0);
        for (int i = 0; i < 64; ++i) {
            EXPECT_EQ(rm_emRegFcn(("r" + std::to_string(i)).c_str(), "f", &function), 0);
        }
    };
    // The name, the object, the slots, the map.
    EXPECT_EQ(failEach(fill, [] { loadOrEnd("./m00"); }), 4);
}

TEST_F(EmFaults, ARegistration)
{
    EXPECT_EQ(failEach([] { rm_emInit(); }, [] { rm_emRegFcn("geo", "f", &function); }), 4);
}

TEST_F(EmFaults, ARegistrationWithoutARegistry)
{
    // The table and the name that is looked up.
    EXPECT_EQ(failEach([] {}, [] { rm_emRegFcn("geo", "f", &function); }), 2);
}

TEST_F(EmFaults, AnUnloadingTakesNoMemory)
{
    EXPECT_EQ(failEach([] { loadOrEnd("./reg3"); }, [] { rm_emUnload(0); }), 0);
}

TEST_F(EmFaults, ALookupTakesNoMemory)
{
    void* address = nullptr;
    EXPECT_EQ(failEach([] { loadOrEnd("./reg3"); },
                       [&] {
                           rm_emGetFcnAddr(0, "f2", &address);
                           rm_emGetFcnAddr(0, "absent", &address);
                       }),
              0);
}

TEST_F(EmFaults, ANameThatIsRegisteredAgainAfterAFailureIsFound)
{
    ASSERT_EQ(rm_emInit(), 0);
    captureStderr([] {
        const ScopedFault memory({.call = Call::kMalloc, .error = ENOMEM, .skip = 3});
        EXPECT_EQ(catchFatal([] { rm_emRegFcn("geo", "f", &function); }), 1);
    });
    // The module was entered before its function's name found no room.
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_EQ(rm_emRegFcn("geo", "f", &function), 0);
    EXPECT_EQ(EmBag->usedCount, 1);
    void* address = nullptr;
    EXPECT_EQ(rm_emGetFcnAddr(0, "f", &address), 0);
    EXPECT_EQ(address, &function);
}

// --- After the memory has gone

class EmForgotten : public rmtest::ModuleTest, public ::testing::WithParamInterface<bool>
{
  protected:
    // By rm_freeall, or by freeing tag 0 alone.
    static void freeMemory()
    {
        if (GetParam()) {
            rm_freeall();
        } else {
            rm_freeTagMemory(0, 0);
        }
    }

    static int16_t load(const std::string& path)
    {
        int16_t handle = -77;
        EXPECT_EQ(rm_emLoad(path.c_str(), &handle), 0) << path;
        return handle;
    }
};

TEST_P(EmForgotten, TheRegistryIsEmptyAndCanBeMadeAgain)
{
    load(installModule("plain", "./m00"));
    load(installModule("plain", "./m01"));
    freeMemory();
    EXPECT_EQ(EmBag, nullptr);
    EXPECT_EQ(rm_emUnload(0), RM_UNKNOWN_MODULE);
    void* address = &function;
    EXPECT_EQ(rm_emGetFcnAddr(1, "exportedSum", &address), RM_UNKNOWN_MODULE);
    EXPECT_EQ(address, &function);
    EXPECT_EQ(load("./m01"), 0);
    EXPECT_EQ(load("./m00"), 1);
}

TEST_P(EmForgotten, AnObjectStaysLoadedAndItsEntryPointRunsAgain)
{
    load(installModule("registers", "./reg3"));
    load(installModule("plain", "./m00"));
    freeMemory();
    EXPECT_THAT(rmtest::modulesClosed(), SizeIs(0));
    EXPECT_EQ(load("./m00"), 0);
    EXPECT_THAT(modulesEntered(), SizeIs(2));
    EXPECT_EQ(load("./reg3"), 1);
    void* address = nullptr;
    EXPECT_EQ(rm_emGetFcnAddr(1, "f2", &address), 0);
}

TEST_P(EmForgotten, ARegistrationMeetsNoRegistry)
{
    load(installModule("plain", "./m00"));
    freeMemory();
    const std::string log =
        captureStderr([] { EXPECT_EQ(rm_emRegFcn("m00", "f", &function), RM_NOT_FOUND); });
    EXPECT_THAT(log, HasSubstr("Can't register function 'f' for unknown extension module 'm00'"));
}

TEST_P(EmForgotten, TheRegistryTakesNothingOfTheOldOneWithIt)
{
    ASSERT_EQ(rm_emInit(), 0);
    const uint32_t bytes = rmtest::bytesOfTag0();
    for (int times = 0; times < 3; ++times) {
        EXPECT_EQ(rm_emRegFcn("geo", "f", &function), 0);
        freeMemory();
        EXPECT_EQ(rmtest::bytesOfTag0(), 0U);
        ASSERT_EQ(rm_emInit(), 0);
        EXPECT_EQ(rmtest::bytesOfTag0(), bytes);
    }
}

INSTANTIATE_TEST_SUITE_P(By, EmForgotten, ::testing::Bool(), [](const auto& all) {
    return std::string(all.param ? "FreeingAllMemory" : "FreeingTagZero");
});
}  // namespace
