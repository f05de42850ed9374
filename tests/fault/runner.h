// Runs hosts under injections: one child each, several workers at a time.
#ifndef RM_TESTS_FAULT_RUNNER_H
#define RM_TESTS_FAULT_RUNNER_H

#include "rules.h"

#include <string>
#include <vector>

namespace fault
{

// A scenario as one host lives through it.
struct Run {
    const Scenario* scenario;
    Host host;
    std::array<uint32_t, kMostCalls> calls;  // that it makes without a failure, by row
};

struct Job {
    std::size_t run;  // in the list of runs
    Injection injection;
};

// What became of a job; the array is shared by all workers.
struct Verdict {
    uint8_t done;
    Fate fate;
    uint8_t findings;  // 255 and more count as 255
    uint8_t known;     // 1: what was found is known
    uint8_t absent;    // 1: the call was not made, and without a fault it is not made here either
};

std::string nameOf(const Host& host);

// "#12 files log+fatal open 3 once ENOSPC"
std::string nameOf(const Run& run, const Injection& injection);

// A place where children live one after the other: a directory, a page, captured output.
class Cell
{
  public:
    // Directory and all are made now and removed with the object.
    explicit Cell(const std::string& parent, int number);
    ~Cell();
    Cell(const Cell&) = delete;
    Cell& operator=(const Cell&) = delete;

    Life live(const Run& run, const Injection& injection);

  private:
    void clean();

    std::string directory_;
    Page* page_;
    int out_;
    int err_;
};

struct Tally {
    std::vector<Verdict> verdicts;      // of the jobs, in their order
    std::vector<std::string> findings;  // "#number name\n  [rule] text"
};

// Runs all jobs; `numbers` are those by which they are known.
Tally runJobs(const std::vector<Run>& runs, const std::vector<Job>& jobs,
              const std::vector<std::size_t>& numbers, int workers, const std::string& parent);

}  // namespace fault

#endif
