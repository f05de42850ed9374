// The summary of a run.
#ifndef CATALOGUE_REPORT_H
#define CATALOGUE_REPORT_H

#include "board.h"
#include "options.h"
#include "records.h"
#include "settings.h"

#include <cstdint>

namespace catalogue
{

// What the parent has measured, beside the figures on the board.
struct RunFigures {
    double loadSeconds;
    double serveSeconds;
    double verifySeconds;
    uint64_t bytesLoaded;  // of all bucket files, once loaded
    uint64_t bytesAtEnd;
};

void printSummary(const Options& options, const Settings& settings, const Input& input,
                  const Board& board, const RunFigures& run);

// The sum of a counter over all processes.
uint64_t countedByAll(const Board& board, Counter counter);

}  // namespace catalogue

#endif
