// Runs the pairs, prints the ratios as a table and writes them as JSON.
//
//   rm_bench [--json=FILE] [--plot=DIRECTORY] [--strict] [options of Google Benchmark]
//
// Without options every pair is repeated nine times, interleaved at random. The ratio is that of
// the least disturbed repetitions; the medians stand beside it, so that a noisy run can be told
// from a slow library. --strict ends with status 1 when a ratio is over its limit. --plot writes
// the cost against the size, a file of columns for each series, for bench/cost.gp to draw. With a
// filter of Google Benchmark only the pairs run, not the figures of whole processes.
#include "figures.h"
#include "pairs.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace
{
struct Options {
    std::string json = "bench.json";
    std::string plot;  // a directory; empty for none
    bool strict = false;
    bool filtered = false;
    std::vector<std::string> passedOn;
};

Options parse(int argc, char** argv)
{
    Options options;
    options.passedOn = {argv[0], "--benchmark_repetitions=9", "--benchmark_min_time=0.05",
                        "--benchmark_enable_random_interleaving=true"};
    constexpr const char* kJson = "--json=";
    constexpr const char* kPlot = "--plot=";
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], kJson, std::strlen(kJson)) == 0) {
            options.json = argv[i] + std::strlen(kJson);
        } else if (std::strncmp(argv[i], kPlot, std::strlen(kPlot)) == 0) {
            options.plot = argv[i] + std::strlen(kPlot);
        } else if (std::strcmp(argv[i], "--strict") == 0) {
            options.strict = true;
        } else {
            options.passedOn.emplace_back(argv[i]);
            options.filtered |= options.passedOn.back().starts_with("--benchmark_filter");
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

void printFigures(const std::vector<rmbench::Figure>& figures)
{
    std::printf("\n%-36s %-5s %12s %12s %5s\n", "figure", "unit", "best", "median", "runs");
    for (const rmbench::Figure& figure : figures) {
        std::printf("%-36s %-5s %12.1f %12.1f %5zu\n", figure.name.c_str(), figure.unit.c_str(),
                    figure.best, figure.median, figure.repetitions);
    }
}

// Columns: size, nanoseconds of the library, nanoseconds of the bare way.
bool writePlotData(const std::vector<Row>& rows, const std::string& directory)
{
    std::map<std::string, std::string> files;
    for (const Row& row : rows) {
        if (!row.pair->series.empty()) {
            char line[100];
            std::snprintf(line, sizeof(line), "%ld %.1f %.1f\n", row.pair->size, row.ours,
                          row.bare);
            files[row.pair->series] += line;
        }
    }
    std::filesystem::create_directories(directory);
    for (const auto& [series, lines] : files) {
        const std::filesystem::path file = std::filesystem::path(directory) / series;
        std::ofstream(file.string() + ".dat") << lines;
    }
    return !files.empty();
}

bool writeJson(const std::vector<Row>& rows, const std::vector<rmbench::Figure>& figures,
               const std::string& path)
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
    std::fprintf(file, "\n], \"figures\": [");
    separator = "\n";
    for (const rmbench::Figure& figure : figures) {
        std::fprintf(file,
                     "%s  {\"name\": \"%s\", \"unit\": \"%s\", \"best\": %.1f, "
                     "\"median\": %.1f, \"repetitions\": %zu}",
                     separator, figure.name.c_str(), figure.unit.c_str(), figure.best,
                     figure.median, figure.repetitions);
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
    rmbench::addFfBagPairs();
    rmbench::addQueuePairs();
    rmbench::addCopyPairs();

    std::printf("Running %zu pairs; a few minutes.\n", rmbench::allPairs().size());
    std::fflush(stdout);
    rmbench::Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    const std::vector<Row> rows = makeRows(collector);
    printTable(rows);
    std::vector<rmbench::Figure> figures;
    if (!options.filtered) {
        figures = rmbench::measureStart();
        for (const rmbench::Figure& figure : rmbench::measureHost()) {
            figures.push_back(figure);
        }
        printFigures(figures);
    }
    bool good = writeJson(rows, figures, options.json);
    if (!options.plot.empty()) {
        good = writePlotData(rows, options.plot) && good;
    }
    for (const Row& row : rows) {
        good = good && !(options.strict && row.over());
    }
    return good ? 0 : 1;
}
