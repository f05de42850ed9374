// The critical sections on the fatal path: empty on this platform, and left all the same, so that a
// port which fills them in does not jump out of them. The calls are noted here.
#include "frame.h"

namespace
{
std::vector<std::string> steps;
bool noting = false;
}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" void __real_rm_exitCritSec(int16_t section);
extern "C" void __wrap_rm_exitCritSec(int16_t section);

void __wrap_rm_exitCritSec(int16_t section)
{
    if (noting) {
        steps.push_back("section " + std::to_string(section) + " left");
    }
    __real_rm_exitCritSec(section);
}

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::ScopedFault;
using ::testing::ElementsAre;

class FatalCritSec : public rmtest::FrameTest
{
};

TEST_F(FatalCritSec, BothSectionsAreLeftBeforeTheBanner)
{
    ScopedFault line({.call = Call::kFwrite, .when = [](const CallRecord&) {
                          if (noting && (steps.empty() || steps.back() != "line")) {
                              steps.emplace_back("line");
                          }
                          return false;
                      }});
    captureStderr([] {
        EXPECT_EQ(catchFatal([] {
                      noting = true;
                      fatalRMExit("a problem");
                  }),
                  1);
        noting = false;
    });
    EXPECT_THAT(steps, ElementsAre("line", "section 0 left", "section 1 left", "line"));
}
}  // namespace
