// Runs the pairs, prints the ratios as a table and writes them as JSON.
//
//   rm_bench [--json=FILE] [--strict] [options of Google Benchmark]
//
// Without options every pair is repeated nine times, interleaved at random. The ratio is that of
// the least disturbed repetitions; the medians stand beside it, so that a noisy run can be told
// from a slow library. --strict ends with status 1 when a ratio is over its limit.
#include "pairs.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace
{
struct Options {
    std::string json = "bench.json";
    bool strict = false;
    std::vector<std::string> passedOn;
};

Options parse(int argc, char** argv)
{
    Options options;
    options.passedOn = {argv[0], "--benchmark_repetitions=9", "--benchmark_min_time=0.05",
                        "--benchmark_enable_random_interleaving=true"};
    constexpr const char* kJson = "--json=";
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], kJson, std::strlen(kJson)) == 0) {
            options.json = argv[i] + std::strlen(kJson);
        } else if (std::strcmp(argv[i], "--strict") == 0) {
            options.strict = true;
        } else {
            options.passedOn.emplace_back(argv[i]);
        }
    }
    return options;
}

struct Row {
    const rmbench::Pair* pair;
    double ours;
    double bare;
    double oursMedian;
    double bareMedian;
    std::size_t repetitions;

    double ratio() const { return ours / bare; }

    bool limited() const { return pair->limit != rmbench::kForTheRecord; }

    bool over() const { return limited() && ratio() > pair->limit; }
};

std::vector<Row> makeRows(const rmbench::Collector& collector)
{
    std::vector<Row> rows;
    for (const rmbench::Pair& pair : rmbench::allPairs()) {
        const std::string ours = rmbench::oursName(pair);
        const std::string bare = rmbench::bareName(pair);
        const Row row = {&pair,
                         collector.least(ours),
                         collector.least(bare),
                         collector.median(ours),
                         collector.median(bare),
                         collector.repetitions(ours)};
        if (row.ours > 0.0 && row.bare > 0.0) {
            rows.push_back(row);
        }
    }
    return rows;
}

void printTable(const std::vector<Row>& rows)
{
    std::printf("\n%-36s %-24s %11s %11s %11s %11s %8s %7s\n", "what", "compared with", "rm ns",
                "bare ns", "rm median", "bare med.", "ratio", "limit");
    for (const Row& row : rows) {
        std::printf("%-36s %-24s %11.1f %11.1f %11.1f %11.1f %8.2f ", row.pair->name.c_str(),
                    row.pair->bareWay.c_str(), row.ours, row.bare, row.oursMedian, row.bareMedian,
                    row.ratio());
        if (row.limited()) {
            std::printf("%7.2f %s\n", row.pair->limit, row.over() ? "OVER" : "ok");
        } else {
            std::printf("%7s\n", "-");
        }
    }
}

bool writeJson(const std::vector<Row>& rows, const std::string& path)
{
    FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        std::perror(path.c_str());
        return false;
    }
    std::fprintf(file, "{\"pairs\": [");
    const char* separator = "\n";
    for (const Row& row : rows) {
        std::fprintf(file,
                     "%s  {\"name\": \"%s\", \"compared_with\": \"%s\", \"rm_ns\": %.2f, "
                     "\"bare_ns\": %.2f, \"rm_median_ns\": %.2f, \"bare_median_ns\": %.2f, "
                     "\"ratio\": %.4f, \"limit\": ",
                     separator, row.pair->name.c_str(), row.pair->bareWay.c_str(), row.ours,
                     row.bare, row.oursMedian, row.bareMedian, row.ratio());
        if (row.limited()) {
            std::fprintf(file, "%.2f", row.pair->limit);
        } else {
            std::fprintf(file, "null");
        }
        std::fprintf(file, ", \"repetitions\": %zu}", row.repetitions);
        separator = ",\n";
    }
    std::fprintf(file, "\n]}\n");
    const bool written = std::fclose(file) == 0;
    std::printf("\nThe same figures as JSON: %s\n", path.c_str());
    return written;
}
}  // namespace

int main(int argc, char** argv)
{
    Options options = parse(argc, argv);
    std::vector<char*> arguments;
    for (std::string& text : options.passedOn) {
        arguments.push_back(text.data());
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 2;
    }
    rmbench::addSyncPairs();
    rmbench::addFilePairs();
    rmbench::addMemoryPairs();
    rmbench::addLogPairs();
    rmbench::addStreamPairs();
    rmbench::addIniPairs();
    rmbench::addPoolPairs();
    rmbench::addReportPairs();
    rmbench::addBagPairs();
    rmbench::addDArrayPairs();
    rmbench::addModulePairs();

    std::printf("Running %zu pairs; a few minutes.\n", rmbench::allPairs().size());
    std::fflush(stdout);
    rmbench::Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    const std::vector<Row> rows = makeRows(collector);
    printTable(rows);
    bool good = writeJson(rows, options.json);
    for (const Row& row : rows) {
        good = good && !(options.strict && row.over());
    }
    return good ? 0 : 1;
}
