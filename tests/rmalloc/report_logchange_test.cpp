// The memory report whose own lines change the heap: a log file at level 2 that was parked, and
// that cannot be opened again, takes the table of the files with it, and so the tag that the report
// may just be walking through.
//
// All memory is guarded: one look at a segment that has gone ends the case.
#include "tests/rmalloc/report_case.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::foundHeap;
using rmtest::kEverything;
using rmtest::kReportDone;
using rmtest::kReportHeading;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::linesThatBegin;
using rmtest::makeReport;
using rmtest::passThrough;
using rmtest::pointerText;
using rmtest::report;
using rmtest::ScopedFault;
using rmtest::segmentsOf;

constexpr const char* kLost = "WARNING: failed file reopen in rm_filePrintf(0)";
constexpr int kFullReport = kEverything | RM_REPORT_FREE | RM_REPORT_SUMMARY;

// The heap of a case: tag 1 with a block, the tag of the files with the log file alone, and a later
// tag with a block.
class ReportLosesLogFile : public rmtest::HeapTest
{
  protected:
    void SetUp() override
    {
        HeapTest::SetUp();
        fileSem = RM_NULL_SYNC;
        growSem = RM_NULL_SYNC;
        guard_.emplace();
    }

    void TearDown() override
    {
        rm_systemLogClose();
        rm_freeall();
        guard_.reset();
        HeapTest::TearDown();
    }

    void makeHeap()
    {
        rm_getMemory(10, 1);
        std::filesystem::create_directory("logs");
        sysfile = rm_fileOpen("logs/log", RM_O_WRONLY | RM_O_CREAT, FILE_STREAM, 0, 0);
        ASSERT_EQ(sysfile, 0);
        rm_systemLog(2);
        fileTag_ = file::fileTag;
        ASSERT_EQ(fileTag_, 2);
        later_ = rm_allocTag(nullptr, RM_NO_LIMIT);
        rm_setTagName("later", later_);
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

    // Loses the log file with the line `at` of what is logged, counted from 0: just before that
    // line would be written into it.
    static rmtest::Fault loss(std::size_t at)
    {
        return {.call = Call::kFwrite,
                .skip = static_cast<int>(at),
                .when = [](const CallRecord& call) { return call.pointer<FILE>(3) == stderr; },
                .action =
                    [](const CallRecord& call) {
                        loseLogFile();
                        return passThrough(call);
                    }};
    }

    // What a report logs that loses the log file with its line `at`.
    static Lines reportThatLosesAt(std::size_t at, int flags, int tag = 0)
    {
        ScopedFault fault(loss(at));
        Lines lines = report(flags, tag);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(sysfile, -1);
        EXPECT_EQ(file::ftab, nullptr);
        return lines;
    }

    // Makes the report once for each of its lines, and loses the log file with that one. What is
    // said of the tag after the one that goes, and the end, are as if nothing had happened.
    void loseAtEveryLine(int flags, int tag)
    {
        const Lines whole = report(flags, tag);
        const std::string laterSegment = "SEGMENT @ " + pointerText(segmentsOf(later_).at(0));
        ASSERT_GT(whole.size(), 30U);
        for (std::size_t at = 0; at < whole.size(); ++at) {
            if (at > 0) {
                std::filesystem::rename("gone", "logs");
                sysfile = rm_fileOpen("logs/log", RM_O_WRONLY | RM_O_CREAT, FILE_STREAM, 0, 0);
                ASSERT_EQ(file::fileTag, fileTag_);
            }
            Lines lines = reportThatLosesAt(at, flags, tag);
            ASSERT_EQ(lines.at(at + 1), kLost);
            lines = withoutLoss(lines);
            for (const std::string& start : {std::string("TAG  3("), laterSegment}) {
                EXPECT_EQ(linesThatBegin(lines, start), linesThatBegin(whole, start)) << at;
            }
            EXPECT_EQ(linesThatBegin(lines, "TOTAL : ").size(), 1U) << at;
            EXPECT_EQ(lines.back(), kReportDone) << at;
            EXPECT_EQ(rmalloc::checkMemory(), 0U) << at;
        }
    }

    // Loses the log file with the one warning that begins like that, about the tag's second
    // segment.
    void loseAtWarning(const std::string& start)
    {
        const Lines whole = report(RM_REPORT_DETAIL);
        ASSERT_EQ(linesThatBegin(whole, start).size(), 1U);
        std::size_t at = 0;
        while (!whole.at(at).starts_with(start)) {
            ++at;
        }
        const Lines lines = reportThatLosesAt(at, RM_REPORT_DETAIL);
        EXPECT_EQ(Lines(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(at) + 1),
                  Lines(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(at) + 1));
        EXPECT_EQ(lines.at(at + 1), kLost);
        EXPECT_EQ(lines.at(at + 2).substr(0, 26), "WARNING: Tag byte count, 0");
        EXPECT_EQ(lines.at(at + 5), "     and contains 2 segments");
        EXPECT_EQ(lines.back(), kReportDone);
    }

    // The lines that do not come from the report itself left out.
    static Lines withoutLoss(Lines lines)
    {
        std::erase_if(lines, [](const std::string& line) { return line == kLost; });
        return lines;
    }

    Tag fileTag() const { return fileTag_; }

  private:
    std::optional<rmtest::GuardedMemory> guard_;
    Tag fileTag_ = -1;
    Tag later_ = -1;
};

TEST_F(ReportLosesLogFile, WithItsHeadingAndFindsTheTagFree)
{
    makeHeap();
    const Lines lines = reportThatLosesAt(0, kFullReport);
    EXPECT_EQ(lines.at(0), kReportHeading);
    EXPECT_EQ(lines.at(1), kLost);
    EXPECT_EQ(withoutLoss(lines), foundHeap().lines(kFullReport, 0));
}

TEST_F(ReportLosesLogFile, WithTheHeadingBeforeTheNameOfItsTag)
{
    makeHeap();
    const Lines lines = reportThatLosesAt(0, RM_REPORT_TAG | RM_REPORT_DETAIL, fileTag());
    EXPECT_EQ(lines.at(0), kReportHeading);
    EXPECT_EQ(lines.at(1), kLost);
    EXPECT_EQ(lines.back(), kReportDone);
}

TEST_F(ReportLosesLogFile, WithTheTitleBeforeTheNameOfItsTag)
{
    makeHeap();
    const Lines lines = reportThatLosesAt(1, RM_REPORT_TAG | RM_REPORT_DETAIL, fileTag());
    EXPECT_EQ(lines.at(2), kLost);
    EXPECT_EQ(lines.back(), kReportDone);
}

TEST_F(ReportLosesLogFile, WithAWarningsHeadingAndCountsNothingOfTheTag)
{
    makeHeap();
    rmalloc::tagTable[1].allocated += 8;
    const Lines lines = reportThatLosesAt(0, 0);
    rmalloc::tagTable[1].allocated -= 8;
    EXPECT_EQ(lines,
              (Lines{kReportHeading, kLost, "",
                     "WARNING: Tag byte count, 32 mismatch with counted blocks, 24", kReportDone}));
}

TEST_F(ReportLosesLogFile, AtAnyLineGoesOnWithTheTagsThatAreLeft)
{
    makeHeap();
    loseAtEveryLine(kFullReport, 0);
}

// Each block of the file table is a segment of its own then, and the tag loses many at a time.
TEST_F(ReportLosesLogFile, AtAnyLineWithSegAllocGoesOnWithTheTagsThatAreLeft)
{
    seg_alloc = 1;
    makeHeap();
    loseAtEveryLine(kFullReport, 0);
}

// Whatever line takes the segment away, the next one of the report is none of the walk's; what had
// been counted until then is compared with a tag that has nothing.
TEST_F(ReportLosesLogFile, InsideItsTagSaysNothingMoreOfTheSegment)
{
    makeHeap();
    constexpr int kFlags = kFullReport | RM_REPORT_TAG;
    const Lines whole = report(kFlags, fileTag());
    constexpr std::size_t kThirdLiveBlock = 9;  // behind frame, table, tag, segment, anchor, free
    ASSERT_EQ(whole.at(kThirdLiveBlock - 5).substr(0, 10), "SEGMENT @ ");
    ASSERT_TRUE(whole.at(kThirdLiveBlock).ends_with("(2)"));
    const Lines lines = reportThatLosesAt(kThirdLiveBlock, kFlags, fileTag());
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + kThirdLiveBlock + 1),
              Lines(whole.begin(), whole.begin() + kThirdLiveBlock + 1));
    EXPECT_EQ(lines.at(kThirdLiveBlock + 1), kLost);
    EXPECT_EQ(linesThatBegin({lines.begin() + kThirdLiveBlock + 1, lines.end()}, "    0x"),
              Lines{});
    EXPECT_EQ(lines.at(kThirdLiveBlock + 2).substr(0, 26), "WARNING: Tag byte count, 0");
    EXPECT_EQ(lines.at(kThirdLiveBlock + 3).substr(0, 5), "TAG: ");
    EXPECT_EQ(linesThatBegin(lines, "SEGMENT: "), Lines{});
}

TEST_F(ReportLosesLogFile, AtAnyLineOfASingleTagEndsInOrder)
{
    makeHeap();
    loseAtEveryLine(kFullReport | RM_REPORT_TAG, fileTag());
}

TEST_F(ReportLosesLogFile, AtAnyLineOfASingleTagWithSegAllocEndsInOrder)
{
    seg_alloc = 1;
    makeHeap();
    loseAtEveryLine(kFullReport | RM_REPORT_TAG, fileTag());
}

TEST_F(ReportLosesLogFile, WithAWarningOfASegmentsUnitsLeavesTheTag)
{
    seg_alloc = 1;
    makeHeap();
    segmentsOf(fileTag()).at(1)->anchor.units = 1;
    loseAtWarning("WARNING: Segment unit count, ");
}

TEST_F(ReportLosesLogFile, WithAWarningOfASegmentsBlocksLeavesTheTag)
{
    seg_alloc = 1;
    makeHeap();
    segmentsOf(fileTag()).at(1)->blocks = 2;
    segmentsOf(fileTag()).at(1)->anchor.units = 1;  // of this nothing is said then
    loseAtWarning("WARNING: Segment block count, ");
}

// A file of the host's keeps the table and its tag: only the log file's own name is given back.
TEST_F(ReportLosesLogFile, BesideAnotherFileKeepsTheTagAndItsSegments)
{
    makeHeap();
    ASSERT_EQ(rm_fileOpen("other", RM_O_RDWR | RM_O_CREAT, 0, 0, 0), 1);
    ScopedFault fault(loss(4));
    const Lines lines = withoutLoss(report(kFullReport));
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(sysfile, -1);
    EXPECT_EQ(lines, foundHeap().lines(kFullReport, 0));
}

// A log file that must not fail ends the report, as it ends any call: there is no closing line.
TEST_F(ReportLosesLogFile, OfTheFatalModeEndsAsTheLogWriterDoes)
{
    makeHeap();
    rm_fileClose(sysfile);
    sysfile = rm_fileOpen("logs/log", RM_O_WRONLY | RM_O_CREAT, FILE_STREAM | FILE_FATAL, 0, 0);
    int jumped = 0;
    Lines lines;
    {
        ScopedFault fault(loss(6));
        lines = linesOf([&] { jumped = rmtest::catchFatal([] { makeReport(kFullReport); }); });
    }
    EXPECT_EQ(jumped, 1);
    EXPECT_EQ(linesThatBegin(lines, kReportDone), Lines{});
    EXPECT_EQ(linesThatBegin(lines, "reopenFile: errno=2: failed to create file 'logs/log'").size(),
              1U);
}

TEST_F(ReportLosesLogFile, OfTheFatalModeLeavesNothingToTheNextReport)
{
    makeHeap();
    rm_fileClose(sysfile);
    sysfile = rm_fileOpen("logs/log", RM_O_WRONLY | RM_O_CREAT, FILE_STREAM | FILE_FATAL, 0, 0);
    int jumped = 0;
    {
        ScopedFault fault(loss(6));
        linesOf([&] { jumped = rmtest::catchFatal([] { makeReport(kFullReport); }); });
    }
    EXPECT_EQ(jumped, 1);
    rm_systemLog(1);  // the lost log file is not asked for again
    EXPECT_EQ(report(kFullReport), foundHeap().lines(kFullReport, 0));
}
}  // namespace
