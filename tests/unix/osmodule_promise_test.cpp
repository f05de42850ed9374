// Shared objects: in which order a load asks the linker, calls the entry point and gives the module
// out, and that nothing comes of what an entry point returns.
#include "tests/support/modules.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::kForever;
using rmtest::ScopedFault;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

char fakeObject;
int entryResult = 0;
std::vector<std::string> steps;
void* stored = nullptr;

int64_t wordOf(const void* pointer)
{
    return static_cast<int64_t>(reinterpret_cast<intptr_t>(pointer));
}

// An entry point of a module that was written with a result.
int entryWithResult(const char* /*name*/)
{
    steps.emplace_back(stored == nullptr ? "entered" : "entered too late");
    return entryResult;
}

int64_t fakeOpen(const CallRecord& /*call*/)
{
    steps.push_back("open with " + std::to_string(rmtest::blocksOfTag0()) + " record");
    return wordOf(&fakeObject);
}

int64_t fakeSymbol(const CallRecord& call)
{
    steps.push_back("look for " + std::string(call.text1.data()));
    return wordOf(reinterpret_cast<void*>(&entryWithResult));
}

int64_t noSymbol(const CallRecord& call)
{
    steps.push_back("look for " + std::string(call.text1.data()));
    return 0;
}

int64_t fakeClose(const CallRecord& call)
{
    steps.emplace_back(call.pointer<void>(0) == &fakeObject ? "close" : "close another");
    return 0;
}

// Loads through a linker of the test's own.
int16_t load(int64_t (*symbol)(const CallRecord&))
{
    steps.clear();
    const ScopedFault open({.call = Call::kDlopen, .times = kForever, .action = fakeOpen});
    const ScopedFault look({.call = Call::kDlsym, .times = kForever, .action = symbol});
    const ScopedFault close({.call = Call::kDlclose, .times = kForever, .action = fakeClose});
    return rm_OSemLoad("./libgeo", &stored);
}

class OsModuleEntryResult : public rmtest::ModuleTest
{
};

class OsModuleSteps : public rmtest::ModuleTest
{
};

TEST_F(OsModuleEntryResult, IsNotLookedAt)
{
    for (const int result : {0, 1, 2, 5, -1, -2011}) {
        entryResult = result;
        stored = nullptr;
        const std::string log = captureStderr([] { EXPECT_EQ(load(fakeSymbol), 0); });
        EXPECT_EQ(log, "");
        EXPECT_NE(stored, nullptr);
        rm_freeMemory(stored, 0);
    }
}

TEST_F(OsModuleSteps, OfALoadAreTheRecordTheObjectTheEntryPointAndItsCall)
{
    stored = nullptr;
    EXPECT_EQ(load(fakeSymbol), 0);
    EXPECT_THAT(steps, ElementsAre("open with 1 record", "look for GEO_ModEntry", "entered"));
    EXPECT_NE(stored, nullptr);
    rm_freeMemory(stored, 0);
}

TEST_F(OsModuleSteps, OfAnObjectWithoutItsEntryPointEndWithItsClosing)
{
    stored = nullptr;
    EXPECT_EQ(load(noSymbol), RM_NOT_FOUND);
    EXPECT_THAT(steps, ElementsAre("open with 1 record", "look for GEO_ModEntry", "close"));
    EXPECT_EQ(stored, nullptr);
    EXPECT_THAT(rmtest::modulesEntered(), IsEmpty());
    EXPECT_EQ(rmtest::blocksOfTag0(), 1U);
}
}  // namespace
