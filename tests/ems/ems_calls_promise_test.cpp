// Modules from outside: what loads, lookups and unloads ask of the system, of the log and of the
// functions that they give.
#include "ems_case.h"

#include "rm.h"
#include "rm/ems.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace
{
constexpr uint16_t kMostModules = 57344;  // slots of the largest registry

// What rm_getEmList gives: nothing, or one module of each kind; of one kind, more than there is
// room for.
bool linkedIn = false;
int tooLong = -1;
bool othersBehind = true;  // it is followed by the other kinds
int timesCalled = 0;       // functions of the linked-in modules

void ofTheHost()
{
    ++timesCalled;
}

void* function()
{
    return reinterpret_cast<void*>(&ofTheHost);
}

EmListEntry em[kMostModules + 1];
IefListEntry ief[kMostModules + 1];
UdfListEntry udf[kMostModules + 1];
UdpListEntry udp[kMostModules + 1];

uint16_t countOf(int kind)
{
    if (!linkedIn || (tooLong >= 0 && kind > tooLong && !othersBehind)) {
        return 0;
    }
    return kind == tooLong ? uint16_t{kMostModules + 1} : uint16_t{1};
}
}  // namespace

void rm_getEmList(uint16_t* emCount, const EmListEntry** emList, uint16_t* iefCount,
                  const IefListEntry** iefList, uint16_t* udfCount, const UdfListEntry** udfList,
                  uint16_t* udpCount, const UdpListEntry** udpList)
{
    std::fill(std::begin(em), std::end(em), EmListEntry{"em", function(), function(), function()});
    std::fill(std::begin(ief), std::end(ief), IefListEntry{"ief", function()});
    std::fill(std::begin(udf), std::end(udf), UdfListEntry{"udf", function()});
    std::fill(std::begin(udp), std::end(udp),
              UdpListEntry{"udp", function(), function(), function()});
    *emCount = countOf(0);
    *iefCount = countOf(1);
    *udfCount = countOf(2);
    *udpCount = countOf(3);
    *emList = linkedIn ? em : nullptr;
    *iefList = linkedIn ? ief : nullptr;
    *udfList = linkedIn ? udf : nullptr;
    *udpList = linkedIn ? udp : nullptr;
}

namespace
{
using rmtest::addressOf;
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
using rmtest::resetCalls;
using rmtest::ScopedFault;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The calls of the trace that are neither memory nor the test's own, as "name text".
std::vector<std::string> systemCalls()
{
    std::vector<std::string> calls;
    for (const CallRecord& call : callTrace()) {
        const bool memory = call.call == Call::kMalloc || call.call == Call::kFree ||
                            call.call == Call::kGetMemory || call.call == Call::kAllocBlock ||
                            call.call == Call::kAlignedAlloc || call.call == Call::kCalloc;
        if (!memory) {
            calls.push_back(std::string(call.name) + " " + std::string(call.path()));
        }
    }
    return calls;
}

class EmCalls : public rmtest::ModuleTest
{
};

TEST_F(EmCalls, OfALoadAreOneObjectAndItsEntryPoint)
{
    installModule("plain", "./libgeo");
    EXPECT_EQ(rm_emInit(), 0);
    resetCalls();
    const int16_t handle = load("./libgeo");
    EXPECT_THAT(systemCalls(), ElementsAre("dlopen ./libgeo.so", "dlsym GEO_ModEntry"));
    resetCalls();
    EXPECT_EQ(load("./libgeo"), handle);
    EXPECT_THAT(systemCalls(), IsEmpty());
}

TEST_F(EmCalls, OfAnUnloadAreTheClosingOfItsObject)
{
    const int16_t handle = load(installModule("plain", "./geo"));
    resetCalls();
    EXPECT_EQ(rm_emUnload(handle), 0);
    EXPECT_EQ(rm_emUnload(handle), RM_UNKNOWN_MODULE);
    EXPECT_THAT(systemCalls(), ElementsAre("dlclose "));
}

TEST_F(EmCalls, OfALookupAreOneOfItsNameInTheObject)
{
    const int16_t handle = load(installModule("registers", "./reg3"));
    resetCalls();
    addressOf(handle, "f1");
    EXPECT_THAT(systemCalls(), IsEmpty());
    addressOf(handle, "registered");
    EXPECT_THAT(systemCalls(), ElementsAre("dlsym registered"));
    addressOf(9, "registered", RM_UNKNOWN_MODULE);
    EXPECT_EQ(callCount(Call::kDlsym), 1);
}

TEST_F(EmCalls, OfRegistrationsAndOfLinkedInModulesAreNone)
{
    linkedIn = true;
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    resetCalls();
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(load("udf"), 2);
    EXPECT_EQ(rm_emRegFcn("geo", "f", &nothing), 0);
    EXPECT_EQ(addressOf(4, "f"), &nothing);
    EXPECT_EQ(addressOf(0, "absent"), &nothing);
    EXPECT_EQ(rm_emUnload(0), 0);
    EXPECT_EQ(rm_emUnload(4), 0);
    EXPECT_THAT(systemCalls(), IsEmpty());
}

TEST_F(EmCalls, OfALoadWithoutMemoryForNameOrRecordAreNone)
{
    setenv("SEG_ALLOC", "1", 1);  // each block is an allocation of its own
    installModule("plain", "./geo");
    EXPECT_EQ(rm_emInit(), 0);
    for (int allocation = 0; allocation < 2; ++allocation) {
        int16_t handle = kUntouched;
        int jumped = 0;
        const std::string log = captureStderr([&] {
            const ScopedFault memory({.call = Call::kMalloc, .error = ENOMEM, .skip = allocation});
            jumped = catchFatal([&] { rm_emLoad("./geo", &handle); });
        });
        EXPECT_EQ(jumped, 1);
        EXPECT_EQ(rmtest::logLines(log).at(0), "Out of memory!");
        EXPECT_EQ(callCount(Call::kDlopen), 0) << allocation;
        EXPECT_EQ(handle, kUntouched);
    }
    unsetenv("SEG_ALLOC");
}

TEST_F(EmCalls, OfTheFunctionsOfLinkedInModulesAreNone)
{
    linkedIn = true;
    const std::vector<std::string> names = {"em", "ief", "udf", "udp"};
    for (int16_t handle = 0; handle < 4; ++handle) {
        EXPECT_EQ(load(names.at(static_cast<std::size_t>(handle))), handle);
        for (const char* name : {"ModInit", "ModCleanup", "ModDescribeFcns", "iefDescribeFcns",
                                 "udfDescribeFcns", "udpDescribeFcns"}) {
            addressOf(handle, name);
        }
        EXPECT_EQ(rm_emUnload(handle), 0);
    }
    rm_freeall();
    EXPECT_EQ(timesCalled, 0);
    EXPECT_EQ(load("em"), 0);
    reinterpret_cast<void (*)()>(addressOf(0, "ModInit"))();
    EXPECT_EQ(timesCalled, 1);
}

TEST_F(EmCalls, ThatSucceedLogNothing)
{
    linkedIn = true;
    installModule("registers", "./reg3");
    EXPECT_EQ(captureStderr([] {
                  EXPECT_EQ(rm_emInit(), 0);
                  EXPECT_EQ(load("./reg3"), 4);
                  EXPECT_EQ(load("./reg3"), 4);
                  EXPECT_EQ(load("udp"), 3);
                  EXPECT_EQ(rm_emRegFcn("reg3", "g", &nothing), 0);
                  EXPECT_EQ(addressOf(4, "g"), &nothing);
                  EXPECT_EQ(addressOf(3, "g"), &nothing);
                  EXPECT_EQ(rm_emUnload(3), 0);
                  EXPECT_EQ(rm_emUnload(4), 0);
              }),
              "");
}

TEST_F(EmCalls, OfAnInitEndWithTheFirstListThatDoesNotFit)
{
    linkedIn = true;
    const std::vector<const char*> names = {"ModCleanup", "iefDescribeFcns", "udfDescribeFcns",
                                            "udpDescribeFcns"};
    for (int i = 0; i < 8; ++i) {
        tooLong = i / 2;
        othersBehind = i % 2 == 0;
        EXPECT_EQ(rm_emInit(), RM_OUT_OF_MEMORY) << tooLong;
        EXPECT_EQ(ems::EmBag->usedCount, kMostModules);
        for (int kind = 0; kind < tooLong; ++kind) {
            const auto handle = static_cast<int16_t>(kind);
            EXPECT_EQ(addressOf(handle, names.at(static_cast<std::size_t>(kind))), function());
        }
        for (const char* name : names) {
            const auto first = static_cast<int16_t>(tooLong);
            EXPECT_EQ(addressOf(first, name, RM_NOT_FOUND), nullptr) << tooLong;
            EXPECT_EQ(addressOf(static_cast<int16_t>(first + 1), name, RM_NOT_FOUND), nullptr);
        }
        rm_freeall();
    }
}

TEST_F(EmCalls, OnlyReadTheTextsOfTheirCallers)
{
    EXPECT_EQ(rm_emInit(), 0);
    installModule("plain", "./some/geo");
    char path[] = "./some/geo";
    char name[] = "area";
    int16_t handle = kUntouched;
    EXPECT_EQ(rm_emLoad(path, &handle), 0);
    EXPECT_EQ(rm_emRegFcn(path, name, &nothing), 0);
    EXPECT_EQ(addressOf(handle, name), &nothing);
    EXPECT_STREQ(path, "./some/geo");
    EXPECT_STREQ(name, "area");
    // The registry has copies: the caller's texts may change.
    std::memset(path, 'x', sizeof(path) - 1);
    std::memset(name, 'x', sizeof(name) - 1);
    EXPECT_EQ(load("geo"), handle);
    EXPECT_EQ(addressOf(handle, "area"), &nothing);
}
}  // namespace
