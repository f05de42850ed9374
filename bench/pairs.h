// Pairs of benchmarks: the library's way of doing something and the bare way.
//
// Why: the machines are noisy and differ from each other, so a figure alone says little. Both ways
// run in the same process, repeated and interleaved, and what counts is the ratio of their least
// disturbed repetitions.
#ifndef RM_BENCH_PAIRS_H
#define RM_BENCH_PAIRS_H

#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace rmbench
{
constexpr double kForTheRecord = 0.0;  // no limit

struct Pair {
    std::string name;
    std::string bareWay;  // what the library is compared with
    double limit;         // largest ratio that counts as good, kForTheRecord for none
    std::string series;   // of a plot of cost against size; empty for a pair of its own
    long size;            // in that series: blocks, or bytes
};

using Body = void (*)(benchmark::State&);

// Registers both ways; `argument` reaches them as state.range(0).
void addPair(const std::string& name, const std::string& bareWay, double limit, Body ours,
             Body bare, long argument = 0);

// A pair of which one iteration takes seconds, or one that takes seconds to get ready: so many
// repetitions of so many iterations each.
void addSlowPair(const std::string& name, const std::string& bareWay, double limit, Body ours,
                 Body bare, long argument, int repetitions, long iterations = 1);

// Makes the pair that was added last a point of a plot.
void plotAs(const std::string& series, long size);

const std::vector<Pair>& allPairs();

// Collects the time of every repetition, by the name of the benchmark.
class Collector : public benchmark::BenchmarkReporter
{
  public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;

    // Nanoseconds of one iteration; 0 when the benchmark did not run.
    double least(const std::string& name) const;
    double median(const std::string& name) const;
    std::size_t repetitions(const std::string& name) const;

  private:
    std::map<std::string, std::vector<double>> nanoseconds_;
};

std::string oursName(const Pair& pair);
std::string bareName(const Pair& pair);

// The groups, each in its own file.
void addSyncPairs();
void addFilePairs();
void addMemoryPairs();
void addLogPairs();
void addStreamPairs();
void addIniPairs();
void addPoolPairs();
void addReportPairs();
void addBagPairs();
void addDArrayPairs();
void addModulePairs();
void addFfBagPairs();
void addQueuePairs();
void addCopyPairs();
}  // namespace rmbench

#endif
