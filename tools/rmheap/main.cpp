// rmheap: the heap of a server, from the memory reports in its log.
//
//   logs ──> line ──> reader ──> collect ──> figures, warnings ──> table, json, compare
//            what a   reports    the one     what it says,     └─> layout ──> svg
//            line is             asked for   what is wrong
//
// Why: the report is written for a log, one line a block. Whoever reads it has a server that grows
// or that damaged its heap, and wants to see which tag it is, and where.
#include "collect.h"
#include "compare.h"
#include "console.h"
#include "figures.h"
#include "json.h"
#include "options.h"
#include "outfile.h"
#include "svg.h"
#include "table.h"
#include "text.h"

#include <algorithm>
#include <string_view>

namespace
{
using namespace rmheap;

// Failure goes before all else, damage before doubt.
int worst(int a, int b)
{
    constexpr int kOrder[] = {kFailed, kNoReport, kDamaged, kDoubtful, kOk};
    return *std::ranges::find_if(kOrder, [a, b](int status) { return status == a || status == b; });
}

int listReports(const Options& options, const Terminal& terminal)
{
    std::size_t count = 0;
    const bool read = readLogs(options.files, [&](Report&& report) {
        ++count;
        if (options.quiet) {
            return;
        }
        if (options.json) {
            print((count == 1 ? "[\n" : ",\n") + jsonListed(report));
        } else {
            printListed(report, terminal, count == 1);
        }
    });
    if (options.json && !options.quiet) {
        print(count == 0 ? "[]\n" : "\n]\n");
    }
    if (count == 0 && read) {
        complain("there is no memory report");
    }
    return worst(read ? kOk : kFailed, count == 0 ? kNoReport : kOk);
}

std::string wordsFor(std::size_t number, const Reports& reports)
{
    if (number == kOneBefore) {
        return "there is no complete memory report before the last one";
    }
    if (number == kNewest || reports.count == 0) {
        return reports.count == 0 ? "there is no memory report"
                                  : "there is no memory report with anything in it";
    }
    return "there is no report " + std::to_string(number) + ", only " +
           std::to_string(reports.count);
}

bool isWanted(const Tag& tag, const std::string& wanted)
{
    return wanted == tag.name || (tag.number != kNoTag && wanted == std::to_string(tag.number));
}

// Leaves the tags that were asked for, and of the rest nothing. False with a message when none is
// there.
bool select(Report& report, const Options& options)
{
    if (options.tags.empty()) {
        return true;
    }
    const auto isLeft = [&options](const Tag& tag) {
        return std::ranges::any_of(options.tags,
                                   [&tag](const std::string& one) { return isWanted(tag, one); });
    };
    std::erase_if(report.tags, [&isLeft](const Tag& tag) { return !isLeft(tag); });
    std::erase_if(report.warnings, [&report](const Warning& warning) {
        return warning.tag != kNoTag &&
               std::ranges::find(report.tags, warning.tag, &Tag::number) == report.tags.end();
    });
    report.used.reset();
    report.free.reset();
    report.row.reset();
    report.tagCount.reset();
    return !report.tags.empty();
}

int saySelected(const Options& options, const Report& report)
{
    complain("report " + std::to_string(report.number) + " has no tag " +
             printable(options.tags.front()) + (options.tags.size() > 1 ? ", nor the others" : ""));
    return kNoReport;
}

int compareReports(const Options& options, const Terminal& terminal)
{
    Collector collector({options.from, options.to});
    const bool read =
        readLogs(options.files, [&](Report&& report) { collector.take(std::move(report)); });
    const Reports reports = collector.finish();
    for (std::size_t i = 0; i < 2; ++i) {
        if (reports.found[i] == nullptr) {
            complain(wordsFor(i == 0 ? options.from : options.to, reports));
            return read ? kNoReport : kFailed;
        }
    }
    const bool first = select(*reports.found[0], options);
    if (!select(*reports.found[1], options) && !first) {
        return saySelected(options, *reports.found[1]);
    }
    const Analysis before = analyse(*reports.found[0]);
    const Analysis after = analyse(*reports.found[1]);
    const Side from = {reports.found[0].get(), &before};
    const Side to = {reports.found[1].get(), &after};
    if (options.json && !options.quiet) {
        printJsonComparison(from, to);
    } else if (!options.quiet) {
        printComparison(from, to, reports.count, options, terminal);
    }
    return worst(read ? kOk : kFailed, worst(before.status, after.status));
}

int showReport(const Options& options, const Terminal& terminal)
{
    Collector collector({options.report});
    const bool read =
        readLogs(options.files, [&](Report&& report) { collector.take(std::move(report)); });
    const Reports reports = collector.finish();
    if (reports.found[0] == nullptr) {
        complain(wordsFor(options.report, reports));
        return read ? kNoReport : kFailed;
    }
    Report& report = *reports.found[0];
    if (!select(report, options)) {
        return saySelected(options, report);
    }
    const Analysis analysis = analyse(report);
    int status = worst(read ? kOk : kFailed, analysis.status);
    std::string map;
    const bool alone = options.svg != nullptr && std::string_view(options.svg) == "-";
    if (options.svg != nullptr) {
        map = svgOf(report, analysis, reports.count, sorted(report, analysis, options.sort));
    }
    if (alone) {
        print(map);
        return status;
    }
    if (options.json && !options.quiet) {
        printJson(report, analysis, reports.count);
    } else if (!options.quiet) {
        printReport(report, analysis, reports, options, terminal);
    }
    if (options.svg != nullptr && !replaceFile(options.svg, map)) {
        status = kFailed;
    } else if (options.svg != nullptr && !options.json && !options.quiet) {
        print("\nThe map is in " + printable(options.svg) + "\n");
    }
    return status;
}
}  // namespace

int main(int argc, char** argv)
{
    tools::prepareProcess();
    Options options;
    switch (parseOptions(argc, argv, options)) {
        case CommandLine::kRun:
            break;
        case CommandLine::kDone:
            return finishOutput(kOk);
        case CommandLine::kWrong:
            return kFailed;
    }
    const Terminal terminal = examineTerminal();
    const int status = options.list      ? listReports(options, terminal)
                       : options.compare ? compareReports(options, terminal)
                                         : showReport(options, terminal);
    return finishOutput(status);
}
