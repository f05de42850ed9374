// Reads logs and keeps the reports that were asked for.
#ifndef RMHEAP_COLLECT_H
#define RMHEAP_COLLECT_H

#include "report.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace rmheap
{

// Numbers of reports, from 1.
constexpr std::size_t kNewest = 0;            // the last complete one
constexpr std::size_t kOneBefore = SIZE_MAX;  // the complete one before that

struct Reports {
    std::size_t count = 0;     // in the log
    std::size_t complete = 0;  // of these, and with something in them
    std::size_t lastCut = 0;   // number of the last one that is cut; 0: none
    // One for each that was asked for, in that order; null when the log has none.
    std::vector<std::shared_ptr<Report>> found;
};

// Keeps what comes by of a log: never more than the reports that were asked for and two others.
class Collector
{
  public:
    explicit Collector(std::vector<std::size_t> wanted) : wanted_(std::move(wanted))
    {
        reports_.found.resize(wanted_.size());
    }

    void take(Report&& report);
    Reports finish();

  private:
    std::vector<std::size_t> wanted_;
    Reports reports_;
    std::shared_ptr<Report> newest_;
    std::shared_ptr<Report> oneBefore_;
    std::shared_ptr<Report> cut_;  // the last one that is not complete
};

// Gives every report of the logs to `take`; no files are standard input. False when one could not
// be read, with a message; the others were read.
bool readLogs(const std::vector<const char*>& files, const std::function<void(Report&&)>& take);

}  // namespace rmheap

#endif
