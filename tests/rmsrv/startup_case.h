// What the cases of start-up share.
#ifndef RM_TESTS_RMSRV_STARTUP_CASE_H
#define RM_TESTS_RMSRV_STARTUP_CASE_H

#include "frame.h"

#include <cstdlib>

namespace rmtest
{
constexpr const char* kProfile = "corvane.ini";

// Starts without a CATPATH of the machine's own: the profile is the one of the case's directory.
class StartupCase : public FrameTest
{
  protected:
    void SetUp() override
    {
        FrameTest::SetUp();
        unsetenv("CATPATH");
    }

    void TearDown() override
    {
        unsetenv("CATPATH");
        FrameTest::TearDown();
    }
};
}  // namespace rmtest

#endif
