// What a fatal error prints.
#ifndef RM_TESTS_SUPPORT_PRINTED_H
#define RM_TESTS_SUPPORT_PRINTED_H

#include "tests/support/support.h"

#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace rmtest
{

// What `body`, which must end in the fatal path, prints on the way.
inline std::string printedBy(const std::function<void()>& body)
{
    int jumped = 0;
    std::string out;
    captureStderr([&] { out = captureStdout([&] { jumped = catchFatal(body); }); });
    EXPECT_EQ(jumped, 1) << "no fatal error";
    return out;
}

}  // namespace rmtest

#endif
