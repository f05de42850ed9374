// Critical section 0 around the memory report: on this platform the calls are empty, on others they
// keep the heap as it is while it is walked. They are noted here, in one row with the lines.
#include "tests/rmalloc/report_case.h"

#include "rm.h"

#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace
{
std::vector<std::string> events;
bool noting = false;

void note(const char* event, int16_t section)
{
    if (noting) {
        events.push_back(event + std::to_string(section));
    }
}
}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" void __real_rm_enterCritSec(int16_t section);
extern "C" void __real_rm_exitCritSec(int16_t section);
extern "C" void __wrap_rm_enterCritSec(int16_t section);
extern "C" void __wrap_rm_exitCritSec(int16_t section);

void __wrap_rm_enterCritSec(int16_t section)
{
    note("enter ", section);
    __real_rm_enterCritSec(section);
}

void __wrap_rm_exitCritSec(int16_t section)
{
    note("exit ", section);
    __real_rm_exitCritSec(section);
}

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::draw;
using rmtest::ScopedFault;
using ::testing::ElementsAre;

class ReportCriticalSection : public rmtest::HeapTest
{
  protected:
    // The calls and the lines of a report, in their order.
    static std::vector<std::string> eventsOf(int flags, int tag = 0)
    {
        const ScopedFault lines({.call = Call::kFwrite,
                                 .when =
                                     [](const CallRecord& call) {
                                         if (call.pointer<FILE>(3) == stderr) {
                                             events.emplace_back("line");
                                         }
                                         return false;
                                     },
                                 .action = nullptr});
        events.clear();
        noting = true;
        rmtest::report(flags, tag);
        noting = false;
        return events;
    }
};

TEST_F(ReportCriticalSection, IsHeldForEveryLineButTheLast)
{
    draw("2 [3]");
    EXPECT_THAT(eventsOf(RM_REPORT_TOTALS),
                ElementsAre("enter 0", "line", "line", "line", "line", "line", "exit 0", "line"));
}

TEST_F(ReportCriticalSection, IsEnteredAndLeftByAReportWithoutLinesToo)
{
    draw("2 [3]");
    EXPECT_THAT(eventsOf(0), ElementsAre("enter 0", "exit 0", "line"));
    EXPECT_THAT(eventsOf(RM_REPORT_DETAIL | RM_REPORT_TAG, 39),
                ElementsAre("enter 0", "exit 0", "line"));
}
}  // namespace
