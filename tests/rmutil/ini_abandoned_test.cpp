// What a fatal error leaves of a change of an INI file, and the next call that clears it away: it
// writes nothing of what the change had still to write, and touches no memory of the host's.
#include "tests/rmutil/ini_case.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using namespace initest;

namespace
{

constexpr const char* kText = "[a]\nkey=1\n";

class IniAbandoned : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        growSem = RM_NULL_SYNC;
        fileSem = rm_syncCreate("fileSem");
        writeFile(kFile, kText);
    }

    void TearDown() override
    {
        rm_freeall();
        rm_syncTerminate();
        fileSem = RM_NULL_SYNC;
        RmTest::TearDown();
    }

    // A change whose lock cannot be had when the file has been read, and its end is looked for:
    // both files are open then, and no line of the copy is written.
    static void abandonAChange()
    {
        rmtest::captureStderr([] {
            bool read = false;
            const ScopedFault watch =
                look(Call::kRead, [&read](const rmtest::CallRecord&) { read = true; });
            const ScopedFault fault({.call = Call::kSemtimedop,
                                     .error = EINVAL,
                                     .when = [&read](const auto&) { return read; }});
            EXPECT_EQ(catchFatal([] { set("a", "key", "2"); }), 1);
            EXPECT_EQ(fault.hits(), 1);
        });
        EXPECT_EQ(readFile(kTemporary), "");
    }
};

// The lock on the copy has gone with the call, so another process may be writing into it.
TEST_F(IniAbandoned, NothingOfItGoesIntoACopyThatAnotherWritesByNow)
{
    abandonAChange();
    const std::string another = "[a]\nkey=3\n;of another process\n";
    writeFile(kTemporary, another);
    EXPECT_EQ(value("a", "key"), "1");
    EXPECT_EQ(readFile(kTemporary), another);
}

TEST_F(IniAbandoned, WhatTheHostPutsInThePlaceOfItsRecordsStays)
{
    constexpr std::size_t kBlocks = 100;
    const std::string contents(sizeof(FileStream), kUntouched);
    abandonAChange();
    rm_freeTagMemory(0, 0);
    std::vector<char*> blocks;
    for (std::size_t n = 0; n < kBlocks; ++n) {
        auto* block = static_cast<char*>(rm_getMemory(sizeof(FileStream), 0));
        blocks.push_back(block);
        contents.copy(block, contents.size());
    }
    const std::string log = rmtest::captureStderr([] { EXPECT_EQ(value("a", "key"), "1"); });
    EXPECT_EQ(log, "");
    for (char* block : blocks) {
        EXPECT_EQ(std::string_view(block, contents.size()), contents);
    }
    EXPECT_EQ(rmtest::captureStderr([&blocks] {
                  for (char* block : blocks) {
                      rm_freeMemory(block, 0);
                  }
              }),
              "")
        << "one was freed with the call";
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    uint32_t open = 1;
    uint32_t parked = 1;
    rm_fileCounts(&open, &parked, nullptr, nullptr);
    EXPECT_EQ(open + parked, 0U) << "the handles are closed all the same";
}

}  // namespace
