// The lines of the logged allocation calls: where they go, and that each stands before anything
// has happened to the heap.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::logLines;
using rmtest::readFile;
using rmtest::ScopedFault;
using rmtest::wholeHeap;

// A logged call on a tag of its own, and what it needs before it.
struct LoggedCall {
    const char* name;
    std::function<void(Tag, void**)> make;  // the block of 8 bytes that the tag has
    const char* line;
};

void PrintTo(const LoggedCall& call, std::ostream* out)
{
    *out << call.name;
}

const LoggedCall kCalls[] = {
    {"GetMemory", [](Tag tag, void**) { rm_LOG_getMemory(8, tag, "host.c", 12); },
     "WARNING: Calling rm_LOG_getMemory from host.c, 12"},
    {"CGetMemory", [](Tag tag, void**) { rm_LOG_cGetMemory(8, tag, "host.c", 12); },
     "WARNING: Calling rm_LOG_cGetMemory from host.c, 12"},
    {"ExtendMemory",
     [](Tag tag, void** block) { rm_LOG_extendMemory(*block, 1000, tag, "host.c", 12); },
     "WARNING: Calling rm_LOG_extendMemory from host.c, 12"},
    {"GrowMemory",
     [](Tag tag, void** block) { rm_LOG_growMemory(*block, 1000, tag, "host.c", 12); },
     "WARNING: Calling rm_LOG_growMemory from host.c, 12"},
    {"Strdup", [](Tag tag, void**) { rm_LOG_Strdup("text", tag, "host.c", 12); },
     "WARNING: Calling rm_LOG_Strdup from host.c, 12"},
    {"FreeMemory", [](Tag tag, void** block) { rm_LOG_freeMemory(*block, tag); },
     "WARNING: Calling rm_LOG_freeMemory"},
    {"ZFreeMemory", [](Tag tag, void** block) { rm_LOG_zFreeMemory(block, tag); },
     "WARNING: Calling rm_LOG_zFreeMemory"}};

class LogCallLine : public rmtest::HeapTest, public ::testing::WithParamInterface<LoggedCall>
{
  protected:
    void SetUp() override
    {
        HeapTest::SetUp();
        fileSem = RM_NULL_SYNC;
        growSem = RM_NULL_SYNC;
        tag_ = rm_allocTag(nullptr, RM_NO_LIMIT);
        block_ = rm_getMemory(8, tag_);
    }

    void TearDown() override
    {
        rm_systemLogClose();
        HeapTest::TearDown();
    }

    void makeCall() { GetParam().make(tag_, &block_); }

  private:
    Tag tag_ = RM_NONE;
    void* block_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Of, LogCallLine, ::testing::ValuesIn(kCalls),
                         [](const auto& call) { return call.param.name; });

TEST_P(LogCallLine, IsWrittenOnceBeforeTheHeapChanges)
{
    const std::string before = wholeHeap();
    std::vector<std::string> heaps;
    const ScopedFault watch({.call = Call::kFwrite,
                             .when =
                                 [&](const CallRecord& call) {
                                     if (call.pointer<FILE>(3) == stderr) {
                                         heaps.push_back(wholeHeap());
                                     }
                                     return false;
                                 },
                             .action = nullptr});
    EXPECT_EQ(linesOf([this] { makeCall(); }), Lines{GetParam().line});
    EXPECT_EQ(heaps, std::vector<std::string>{before});
    EXPECT_NE(wholeHeap(), before);
}

TEST_P(LogCallLine, StandsInTheLogFileAtLevelTwo)
{
    rm_systemLog(2);
    rm_systemLogOpen("log");
    ASSERT_NE(sysfile, -1);
    const std::string text = captureStderr([this] { makeCall(); });
    EXPECT_EQ(logLines(text), Lines{GetParam().line});
    EXPECT_EQ(readFile("log"), text);
}

TEST_P(LogCallLine, StandsOnStandardErrorAloneAtLevelOne)
{
    rm_systemLog(1);
    rm_systemLogOpen("log");
    ASSERT_NE(sysfile, -1);
    EXPECT_EQ(linesOf([this] { makeCall(); }), Lines{GetParam().line});
    EXPECT_EQ(readFile("log"), "");
}
}  // namespace
