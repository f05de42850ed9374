// What tests of loaded modules share.
#ifndef RM_TESTS_EMS_EMS_CASE_H
#define RM_TESTS_EMS_EMS_CASE_H

#include "tests/support/modules.h"

#include "rm.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace rmtest
{

constexpr int16_t kUntouched = -77;  // what a handle holds before a call

inline char nothing;  // its address is no function's

inline int16_t load(const std::string& path)
{
    int16_t handle = kUntouched;
    EXPECT_EQ(rm_emLoad(path.c_str(), &handle), 0) << path;
    return handle;
}

inline void* addressOf(int16_t handle, const char* name, int16_t status = 0)
{
    void* address = &nothing;
    EXPECT_EQ(rm_emGetFcnAddr(handle, name, &address), status) << name;
    return address;
}

}  // namespace rmtest

#endif
