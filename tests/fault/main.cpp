// rm_fault: every scenario under every failure of every call that it makes.
//
// Why: a failure that nobody tried is a failure that nobody knows. First each host lives through
// each scenario undisturbed, and its calls are counted; then one child each meets one failure: the
// k-th call of that name fails once, or from then on for ever, in each documented way.
//
// See README.md.
#include "exports.h"
#include "runner.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/personality.h>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

using namespace fault;

constexpr std::size_t kShownFindings = 25;
constexpr std::ptrdiff_t kMostPerAbsent =
    50;  // injections, of which one may have had no call to fail
constexpr unsigned long kAskOnly = 0xFFFFFFFF;  // of personality()

struct Options {
    std::string scenario;
    std::string call;
    bool list = false;
    std::string only;        // number or name of an injection; empty: all
    std::size_t sample = 1;  // every so manieth
    std::size_t part = 0;    // of `parts`
    std::size_t parts = 1;
    int jobs = 0;
};

constexpr const char* kUsage =
    "usage: rm_fault [option]...\n"
    "  --scenario NAME  only that scenario\n"
    "  --call NAME      only failures of that call\n"
    "  --list           print scenarios and calls, and end\n"
    "  --only N         the injection of that number, with everything that it prints; or by its\n"
    "                   name, as \"files plain open 3 once ENOSPC\"\n"
    "  --sample N       every Nth injection\n"
    "  --part I/N       the Ith of N parts of them, counted from 1\n"
    "  --jobs N         workers; as many as the machine has processors\n";

std::vector<const Scenario*> allScenarios()
{
    std::vector<const Scenario*> all;
    for (const std::span<const Scenario> family :
         {coreScenarios(), memoryScenarios(), ipcScenarios(), fileScenarios(), textScenarios(),
          moduleScenarios(), containerScenarios()}) {
        for (const Scenario& scenario : family) {
            all.push_back(&scenario);
        }
    }
    return all;
}

std::vector<Host> hostsOf(Hosts hosts)
{
    std::vector<Host> all = {{false, false, false}, {true, true, true}};
    if (hosts != Hosts::kFew) {
        all.insert(all.end(), {{true, true, false}, {false, false, true}});
    }
    if (hosts == Hosts::kAll) {
        all.insert(
            all.end(),
            {{true, false, false}, {true, false, true}, {false, true, false}, {false, true, true}});
    }
    return all;
}

[[noreturn]] void usage(int status)
{
    (status == 0 ? std::cout : std::cerr) << kUsage;
    std::exit(status);
}

Options parse(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--help") {
            usage(0);
        }
        if (option == "--list") {
            options.list = true;
            continue;
        }
        if (i + 1 == argc) {
            usage(2);
        }
        const std::string value = argv[++i];
        const std::size_t number = std::strtoul(value.c_str(), nullptr, 10);
        if (option == "--scenario") {
            options.scenario = value;
        } else if (option == "--call") {
            options.call = value;
        } else if (option == "--only") {
            options.only = value;
        } else if (option == "--sample" && number > 0) {
            options.sample = number;
        } else if (option == "--jobs" && number > 0) {
            options.jobs = static_cast<int>(number);
        } else if (option == "--part" && number > 0 && value.find('/') != std::string::npos) {
            options.part = number - 1;
            options.parts = std::strtoul(value.c_str() + value.find('/') + 1, nullptr, 10);
        } else {
            usage(2);
        }
    }
    if (options.parts == 0 || options.part >= options.parts) {
        usage(2);
    }
    return options;
}

// --- Counting the calls

struct Plan {
    std::vector<Run> runs;
    std::vector<Job> jobs;  // all that there are; the number of the first is 1
    std::vector<std::string> findings;
};

void countCalls(Plan* plan, const std::string& parent)
{
    Cell cell(parent, 1000);
    for (const Scenario* scenario : allScenarios()) {
        for (const Host& host : hostsOf(scenario->hosts)) {
            Run run = {scenario, host, {}};
            const Life life = cell.live(run, {});
            run.calls = life.page->calls;
            addCalled(*life.page);
            for (const std::string& finding : judgeLife(life)) {
                plan->findings.push_back("#0 " + nameOf(run, {}) + "\n  " + finding);
            }
            plan->runs.push_back(run);
        }
    }
    for (const std::string& function : functionsNotCalled()) {
        plan->findings.push_back("no scenario calls " + function);
    }
    for (std::size_t row = 0; row < callTable().size(); ++row) {
        if (std::all_of(plan->runs.begin(), plan->runs.end(),
                        [row](const Run& run) { return run.calls[row] == 0; })) {
            plan->findings.push_back(std::string("no scenario leads to ") + callTable()[row].name);
        }
    }
}

void planJobs(Plan* plan)
{
    const std::span<const CallRow> table = callTable();
    for (std::size_t run = 0; run < plan->runs.size(); ++run) {
        for (std::size_t row = 0; row < table.size(); ++row) {
            for (uint32_t k = 1; k <= plan->runs[run].calls[row]; ++k) {
                for (const Outcome& outcome : table[row].outcomes) {
                    for (const Mode mode : {Mode::kOnce, Mode::kForEver}) {
                        plan->jobs.push_back({run, {row, k, outcome, mode}});
                    }
                }
            }
        }
    }
}

// --- Figures

struct Figures {
    std::size_t places = 0;
    std::size_t injections = 0;
    std::array<std::size_t, static_cast<std::size_t>(Fate::kFates)> fates = {};
    std::size_t findings = 0;

    void add(const Verdict& verdict)
    {
        ++injections;
        ++fates[static_cast<std::size_t>(verdict.fate)];
        findings += verdict.findings > 0 ? 1 : 0;
    }
};

void printHead(const char* what)
{
    std::printf("\n%-18s %7s %5s %10s %8s %8s %8s %8s %8s\n", what, "places", "kinds", "injections",
                "went on", "returned", "exited", "jumped", "findings");
}

void printFigures(const std::string& name, std::size_t kinds, const Figures& figures)
{
    const std::string shown = kinds == 0 ? "" : std::to_string(kinds);
    std::printf("%-18s %7zu %5s %10zu %8zu %8zu %8zu %8zu %8zu\n", name.c_str(), figures.places,
                shown.c_str(), figures.injections, figures.fates[0], figures.fates[1],
                figures.fates[2], figures.fates[3], figures.findings);
}

void printTables(const Plan& plan, const std::vector<std::size_t>& numbers, const Tally& tally)
{
    const std::span<const CallRow> table = callTable();
    std::vector<Figures> ofCalls(table.size());
    std::map<std::string, Figures> ofScenarios;
    Figures total;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const Job& job = plan.jobs[numbers[i] - 1];
        Figures& scenario = ofScenarios[plan.runs[job.run].scenario->name];
        for (Figures* figures : {&ofCalls[job.injection.row], &scenario, &total}) {
            figures->add(tally.verdicts[i]);
        }
    }
    for (const Run& run : plan.runs) {
        for (std::size_t row = 0; row < table.size(); ++row) {
            for (Figures* figures : {&ofCalls[row], &ofScenarios[run.scenario->name], &total}) {
                figures->places += run.calls[row];
            }
        }
    }
    printHead("call");
    for (std::size_t row = 0; row < table.size(); ++row) {
        if (ofCalls[row].injections > 0) {
            printFigures(table[row].name, table[row].outcomes.size(), ofCalls[row]);
        }
    }
    printHead("scenario");
    for (const Scenario* scenario : allScenarios()) {
        if (ofScenarios[scenario->name].injections > 0) {
            printFigures(scenario->name, 0, ofScenarios[scenario->name]);
        }
    }
    std::printf("\n");
    printFigures("all", 0, total);
}

// "[rule] scenario call" of a finding, to see what belongs together.
void printGroups(const std::vector<std::string>& findings)
{
    std::map<std::string, std::size_t> groups;
    for (const std::string& finding : findings) {
        const std::size_t open = finding.find('[');
        const std::size_t close = finding.find(']', open);
        const std::string head = finding.substr(0, finding.find('\n'));
        std::istringstream words(head);
        std::string number;
        std::string scenario;
        std::string host;
        std::string call;
        words >> number >> scenario >> host >> call;
        const std::string rule =
            open == std::string::npos ? "" : finding.substr(open, close - open + 1) + " ";
        std::string group = rule;
        group.append(scenario).append(" ").append(call);
        ++groups[group];
    }
    for (const auto& [group, count] : groups) {
        std::printf("%6zu  %s\n", count, group.c_str());
    }
}

void printFindings(const std::vector<std::string>& findings)
{
    if (findings.empty()) {
        return;
    }
    std::printf("\n%zu findings\n", findings.size());
    printGroups(findings);
    std::printf("\n");
    for (std::size_t i = 0; i < std::min(findings.size(), kShownFindings); ++i) {
        std::printf("%s\n", findings[i].c_str());
    }
}

// The number of an injection that is given by number or name; 0.
std::size_t numberOf(const Plan& plan, const std::string& wanted)
{
    const std::size_t number = std::strtoul(wanted.c_str(), nullptr, 10);
    if (number != 0) {
        return number <= plan.jobs.size() ? number : 0;
    }
    for (std::size_t i = 0; i < plan.jobs.size(); ++i) {
        if (nameOf(plan.runs[plan.jobs[i].run], plan.jobs[i].injection) == wanted) {
            return i + 1;
        }
    }
    return 0;
}

int runOnly(const Plan& plan, const std::string& wanted, const std::string& parent)
{
    const std::size_t number = numberOf(plan, wanted);
    if (number == 0) {
        std::cerr << "no such injection; there are " << plan.jobs.size() << '\n';
        return 2;
    }
    const Job& job = plan.jobs[number - 1];
    Cell cell(parent, 1001);
    const Life life = cell.live(plan.runs[job.run], job.injection);
    std::printf("#%zu %s\n", number, nameOf(plan.runs[job.run], job.injection).c_str());
    std::cout << "--- standard output\n"
              << life.out << "--- standard error\n"
              << life.err << "--- log files\n"
              << life.log << "---" << std::endl;
    const Page& facts = *life.page;
    std::printf("hits: %u, the first in %s\nends: %u, jumps: %u, failures returned: %u\n",
                facts.hits, facts.hitIn, facts.ends, facts.fatalJumps, facts.failures);
    std::printf("the longest wait: %lld ms in %s\noutcome: %s\n",
                static_cast<long long>(facts.longestWaitMs), facts.longestIn,
                std::string(nameOf(fateOf(life))).c_str());
    const std::vector<std::string> findings = judgeLife(life);
    for (const std::string& finding : findings) {
        std::printf("%s\n", finding.c_str());
    }
    return findings.empty() ? 0 : 1;
}

void list(const Plan& plan)
{
    for (const Scenario* scenario : allScenarios()) {
        const auto injections =
            std::count_if(plan.jobs.begin(), plan.jobs.end(),
                          [&](const Job& job) { return plan.runs[job.run].scenario == scenario; });
        std::printf("scenario %-20s %zu hosts %6td injections\n", scenario->name,
                    hostsOf(scenario->hosts).size(), injections);
    }
    for (const CallRow& row : callTable()) {
        std::printf("call     %-20s %2zu kinds:", row.name, row.outcomes.size());
        for (const Outcome& outcome : row.outcomes) {
            std::printf(" %s", nameOf(outcome).c_str());
        }
        std::printf("\n");
    }
    std::printf("%zu exported functions called, %zu injections\n", exportedFunctions(),
                plan.jobs.size());
}

std::vector<std::size_t> chosen(const Plan& plan, const Options& options)
{
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < plan.jobs.size(); ++i) {
        const Job& job = plan.jobs[i];
        const bool fits =
            (options.scenario.empty() || options.scenario == plan.runs[job.run].scenario->name) &&
            (options.call.empty() || options.call == callTable()[job.injection.row].name);
        if (fits && i % options.sample == 0 && i / options.sample % options.parts == options.part) {
            numbers.push_back(i + 1);
        }
    }
    return numbers;
}

double processorSeconds()
{
    rusage own{};
    rusage children{};
    getrusage(RUSAGE_SELF, &own);
    getrusage(RUSAGE_CHILDREN, &children);
    double seconds = 0;
    for (const timeval& time : {own.ru_utime, own.ru_stime, children.ru_utime, children.ru_stime}) {
        seconds += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    }
    return seconds;
}

int runAll(const Plan& plan, const Options& options, const std::string& parent)
{
    const std::vector<std::size_t> numbers = chosen(plan, options);
    std::vector<Job> jobs;
    jobs.reserve(numbers.size());
    for (const std::size_t number : numbers) {
        jobs.push_back(plan.jobs[number - 1]);
    }
    const int processors = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
    Tally tally =
        runJobs(plan.runs, jobs, numbers, options.jobs > 0 ? options.jobs : processors, parent);
    printTables(plan, numbers, tally);
    const auto undone = std::count_if(tally.verdicts.begin(), tally.verdicts.end(),
                                      [](const Verdict& verdict) { return verdict.done == 0; });
    if (undone > 0) {
        tally.findings.push_back(std::to_string(undone) + " injections were not made");
    }
    const auto absent = std::count_if(tally.verdicts.begin(), tally.verdicts.end(),
                                      [](const Verdict& verdict) { return verdict.absent != 0; });
    if (absent > 0) {
        std::printf("\n%td injections were meant for a call that a worker does not make\n", absent);
    }
    if (absent * kMostPerAbsent > std::ssize(jobs)) {
        tally.findings.emplace_back("too many calls are made now and then only");
    }
    tally.findings.insert(tally.findings.begin(), plan.findings.begin(), plan.findings.end());
    const auto known = std::count_if(tally.verdicts.begin(), tally.verdicts.end(),
                                     [](const Verdict& verdict) { return verdict.known != 0; });
    if (known > 0) {
        std::printf("\n%td injections show what is known:\n", known);
        for (const Deviation& deviation : knownDeviations()) {
            std::printf("  %s, %s: %s\n", deviation.scenario, deviation.call, deviation.reason);
        }
    }
    printFindings(tally.findings);
    std::printf(
        "\n%zu of %zu injections, %zu exported functions, %zu findings, %.1f s of processor\n",
        jobs.size(), plan.jobs.size(), exportedFunctions() - functionsNotCalled().size(),
        tally.findings.size(), processorSeconds());
    return tally.findings.empty() ? 0 : 1;
}

// How much memory the library asks for depends a little on where it lies. So that numbers are the
// same each time, the program starts once more with fixed addresses, where the system allows it.
void fixAddresses(char** argv)
{
    const int now = personality(kAskOnly);
    if (now != -1 && (now & ADDR_NO_RANDOMIZE) == 0 &&
        personality(static_cast<unsigned long>(now) | ADDR_NO_RANDOMIZE) != -1) {
        execv("/proc/self/exe", argv);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const Options options = parse(argc, argv);
    fixAddresses(argv);
    if (!loadExports()) {
        return 2;
    }
    std::string parent = std::filesystem::temp_directory_path() / "rmfault-XXXXXX";
    if (mkdtemp(parent.data()) == nullptr) {
        std::perror(parent.c_str());
        return 2;
    }
    installWrappers();
    Plan plan;
    countCalls(&plan, parent);
    planJobs(&plan);
    int status = 0;
    if (options.list) {
        list(plan);
    } else if (!options.only.empty()) {
        status = runOnly(plan, options.only, parent);
    } else {
        status = runAll(plan, options, parent);
    }
    std::filesystem::remove_all(parent);
    return status;
}
