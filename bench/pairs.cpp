#include "pairs.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace
{
std::vector<rmbench::Pair>& pairs()
{
    static std::vector<rmbench::Pair> all;
    return all;
}

std::vector<double> sorted(const std::map<std::string, std::vector<double>>& all,
                           const std::string& name)
{
    const auto found = all.find(name);
    std::vector<double> times = found == all.end() ? std::vector<double>{} : found->second;
    std::sort(times.begin(), times.end());
    return times;
}
}  // namespace

void rmbench::addPair(const std::string& name, const std::string& bareWay, double limit, Body ours,
                      Body bare, long argument)
{
    pairs().push_back({name, bareWay, limit, "", argument});
    const Pair& pair = pairs().back();
    benchmark::RegisterBenchmark(oursName(pair).c_str(), ours)->Arg(argument)->UseRealTime();
    benchmark::RegisterBenchmark(bareName(pair).c_str(), bare)->Arg(argument)->UseRealTime();
}

void rmbench::addSlowPair(const std::string& name, const std::string& bareWay, double limit,
                          Body ours, Body bare, long argument, int repetitions, long iterations)
{
    pairs().push_back({name, bareWay, limit, "", argument});
    const Pair& pair = pairs().back();
    for (const auto& [side, body] : {std::pair(oursName(pair), ours), {bareName(pair), bare}}) {
        benchmark::RegisterBenchmark(side.c_str(), body)
            ->Arg(argument)
            ->UseRealTime()
            ->Iterations(iterations)
            ->Repetitions(repetitions);
    }
}

void rmbench::plotAs(const std::string& series, long size)
{
    pairs().back().series = series;
    pairs().back().size = size;
}

const std::vector<rmbench::Pair>& rmbench::allPairs()
{
    return pairs();
}

std::string rmbench::oursName(const Pair& pair)
{
    return pair.name + "/rm";
}

std::string rmbench::bareName(const Pair& pair)
{
    return pair.name + "/bare";
}

bool rmbench::Collector::ReportContext(const Context& /*context*/)
{
    return true;
}

void rmbench::Collector::ReportRuns(const std::vector<Run>& runs)
{
    constexpr double kNsPerSecond = 1e9;
    for (const Run& run : runs) {
        if (run.error_occurred) {
            std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(),
                         run.error_message.c_str());
            continue;
        }
        if (run.run_type == Run::RT_Iteration) {
            nanoseconds_[run.run_name.function_name].push_back(
                run.real_accumulated_time / static_cast<double>(run.iterations) * kNsPerSecond);
        }
    }
}

double rmbench::Collector::least(const std::string& name) const
{
    const std::vector<double> times = sorted(nanoseconds_, name);
    return times.empty() ? 0.0 : times.front();
}

double rmbench::Collector::median(const std::string& name) const
{
    const std::vector<double> times = sorted(nanoseconds_, name);
    return times.empty() ? 0.0 : times[times.size() / 2];
}

std::size_t rmbench::Collector::repetitions(const std::string& name) const
{
    return sorted(nanoseconds_, name).size();
}
