// The memory report while a line of it gives one segment of a tag back and the tag stays: a log
// file that cannot be opened again loses its name, which with SEG_ALLOC is a segment of its own.
// The walk stands in a later one, finds it again among those that are left, and goes on.
//
// All memory is guarded: one look at a segment that has gone ends the case.
#include "tests/rmalloc/report_case.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/segments.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::kReportDone;
using rmtest::Lines;
using rmtest::linesThatBegin;
using rmtest::passThrough;
using rmtest::pointerText;
using rmtest::report;
using rmtest::ScopedFault;
using rmtest::segmentsOf;

constexpr const char* kLost = "WARNING: failed file reopen in rm_filePrintf(0)";
constexpr int kFlags = rmtest::kEverything | RM_REPORT_TAG;

class ReportLosesOneSegment : public rmtest::HeapTest
{
  protected:
    void SetUp() override
    {
        HeapTest::SetUp();
        fileSem = RM_NULL_SYNC;
        growSem = RM_NULL_SYNC;
        guard_.emplace();
        seg_alloc = 1;
        std::filesystem::create_directory("logs");
        sysfile = rm_fileOpen("logs/log", RM_O_WRONLY | RM_O_CREAT, FILE_STREAM, 0, 0);
        ASSERT_EQ(sysfile, 0);
        ASSERT_EQ(rm_fileOpen("other", RM_O_RDWR | RM_O_CREAT, 0, 0, 0), 1);
        rm_systemLog(2);
    }

    void TearDown() override
    {
        rm_systemLogClose();
        rm_freeall();
        guard_.reset();
        seg_alloc = 0;
        HeapTest::TearDown();
    }

    // Parks the log file and takes away the directory that it would be found in.
    static void loseLogFile()
    {
        file::FileEntry* entry = file::usedEntry(sysfile);
        ASSERT_NE(entry, nullptr);
        entry->recentlyUsed = 0;
        file::lruNext = sysfile;
        file::closeOneOpenFile();
        ASSERT_EQ(entry->state, file::kSlotParked);
        std::filesystem::rename("logs", "gone");
    }

    // The report on the tag of the files, which loses the log file just before line `at` of it is
    // written there.
    static Lines reportThatLosesAt(std::ptrdiff_t at)
    {
        ScopedFault fault(
            {.call = Call::kFwrite,
             .skip = static_cast<int>(at),
             .when = [](const CallRecord& call) { return call.pointer<FILE>(3) == stderr; },
             .action =
                 [](const CallRecord& call) {
                     loseLogFile();
                     return passThrough(call);
                 }});
        Lines lines = report(kFlags, file::fileTag);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(sysfile, -1);
        return lines;
    }

  private:
    std::optional<rmtest::GuardedMemory> guard_;
};

TEST_F(ReportLosesOneSegment, AndGoesOnInTheOneThatItStandsIn)
{
    const Lines whole = report(kFlags, file::fileTag);
    const auto segments = segmentsOf(file::fileTag);
    const auto* last = segments.back();
    const auto begin = std::find_if(whole.begin(), whole.end(), [&](const std::string& line) {
        return line.starts_with("SEGMENT @ " + pointerText(last));
    });
    ASSERT_NE(begin, whole.end());
    const auto at = begin - whole.begin();

    const Lines lines = reportThatLosesAt(at);
    ASSERT_EQ(segmentsOf(file::fileTag).size(), segments.size() - 1);
    ASSERT_EQ(segmentsOf(file::fileTag).back(), last);
    // All that was said of the last segment is said again, behind the line about the log file.
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + at + 1),
              Lines(whole.begin(), whole.begin() + at + 1));
    EXPECT_EQ(lines.at(static_cast<std::size_t>(at) + 1), kLost);
    const std::string end = "SEGMENT: ";
    ASSERT_EQ(linesThatBegin(whole, end).size(), segments.size());
    EXPECT_EQ(linesThatBegin(lines, end), linesThatBegin(whole, end));
    EXPECT_EQ(linesThatBegin(lines, "    0x"), linesThatBegin(whole, "    0x"));
    EXPECT_EQ(lines.back(), kReportDone);
}

// So many go that the slots of those that are left move together: the walk stands in a slot that is
// none any more, or another segment's.
TEST_F(ReportLosesOneSegment, AndFindsItWhereItHasMoved)
{
    constexpr std::size_t kSegments = 200;

    struct Kept {
        std::size_t first;
        std::size_t last;
    };

    for (const Kept kept : {Kept{197, 199}, Kept{2, 20}}) {
        SCOPED_TRACE(kept.first);
        const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
        std::vector<void*> blocks(kSegments);
        for (void*& block : blocks) {
            block = rm_getMemory(10, tag);
        }
        const std::vector<rmalloc::Segment*> segments = segmentsOf(tag);
        const uint32_t slots = rmalloc::chains[tag].bounds.length;
        constexpr int kFlagsOfTag = RM_REPORT_DETAIL | RM_REPORT_TAG;
        const Lines whole = report(kFlagsOfTag, tag);
        const std::string stands = "SEGMENT @ " + pointerText(segments.at(kept.first));
        const auto begin = std::find_if(whole.begin(), whole.end(), [&](const std::string& line) {
            return line.starts_with(stands);
        });
        ASSERT_NE(begin, whole.end());
        ScopedFault fault(
            {.call = Call::kFwrite,
             .skip = static_cast<int>(begin - whole.begin()),
             .when = [](const CallRecord& call) { return call.pointer<FILE>(3) == stderr; },
             .action =
                 [&](const CallRecord& call) {
                     rmtest::meetFaults([&] {
                         for (std::size_t i = 0; i < kSegments; ++i) {
                             if (i < kept.first || i > kept.last) {
                                 rm_freeMemory(blocks[i], tag);
                             }
                         }
                     });
                     return passThrough(call);
                 }});
        Lines expected;
        for (std::size_t i = 0; i <= kept.last; ++i) {
            expected.push_back("SEGMENT @ " + pointerText(segments.at(i)));
        }
        Lines told = linesThatBegin(report(kFlagsOfTag, tag), "SEGMENT @ ");
        for (std::string& line : told) {
            line.resize(line.find(' ', std::strlen("SEGMENT @ ")));
        }
        EXPECT_EQ(told, expected);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_LT(rmalloc::chains[tag].bounds.length, slots);
    }
}

// The closing line is written whatever comes of the log file.
TEST_F(ReportLosesOneSegment, AtAnyLineEndsInOrder)
{
    const auto lineCount = static_cast<std::ptrdiff_t>(report(kFlags, file::fileTag).size());
    ASSERT_GT(lineCount, 50);
    for (std::ptrdiff_t at = 0; at + 1 < lineCount; ++at) {
        const Lines lines = reportThatLosesAt(at);
        EXPECT_EQ(lines.at(static_cast<std::size_t>(at) + 1), kLost) << at;
        EXPECT_EQ(lines.back(), kReportDone) << at;
        EXPECT_EQ(rmalloc::checkMemory(), 0U) << at;
        std::filesystem::rename("gone", "logs");
        sysfile = rm_fileOpen("logs/log", RM_O_WRONLY | RM_O_CREAT, FILE_STREAM, 0, 0);
        ASSERT_EQ(sysfile, 0) << at;
    }
}

}  // namespace
