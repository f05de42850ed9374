// A module that releases tag 0 while it is loaded takes along what the load has allocated: the load
// must not give any of it back a second time.
#include "tests/support/modules.h"

#include "rm.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace
{
using rmtest::captureStderr;
using rmtest::installModule;

constexpr int16_t kUntouched = -77;

class EmLoadReleased : public rmtest::ModuleTest
{
};

TEST_F(EmLoadReleased, SaysNothingOfPointersThatWentWithTheTag)
{
    const std::string path = installModule("plain", "./m00");
    rmtest::onModuleEntry([](const char*) { rm_freeTagMemory(0, 0); });
    int16_t handle = kUntouched;
    int16_t status = 0;
    EXPECT_EQ(captureStderr([&] { status = rm_emLoad(path.c_str(), &handle); }), "");
    EXPECT_EQ(status, RM_NOT_FOUND);
    EXPECT_EQ(handle, kUntouched);
}

TEST_F(EmLoadReleased, LeavesTheBlocksThatTheHostHasTakenSince)
{
    const std::string path = installModule("plain", "./m00");
    static char* taken = nullptr;
    // Of the same sizes in the same order as what the load has: they come to stand in its places.
    rmtest::onModuleEntry([](const char*) {
        rm_freeTagMemory(0, 0);
        rm_emInit();
        taken = rm_Strdup("m77", 0);
    });
    int16_t handle = kUntouched;
    EXPECT_EQ(rm_emLoad(path.c_str(), &handle), RM_NOT_FOUND);
    rmtest::onModuleEntry(nullptr);
    char* later = rm_Strdup("m88", 0);
    EXPECT_NE(later, taken);
    EXPECT_STREQ(taken, "m77");
    rm_freeMemory(later, 0);
    rm_freeMemory(taken, 0);
}
}  // namespace
