// What the user sees while the catalogue works: progress and complaints.
#ifndef CATALOGUE_CONSOLE_H
#define CATALOGUE_CONSOLE_H

#include "rm.h"

#include <cstdint>

namespace catalogue
{

// Decides between a progress line, redrawn in place, and plain lines.
void openConsole();

// Says on standard error what failed, where, and what to do. In one write, so that the lines of
// several processes do not mix. What follows a "\n" is indented below the first line.
void complain(const char* format, ...) RM_PRINTF(1, 2);

// Shows how far `phase` has come, `total` being more than 0: on a terminal ten times a second,
// elsewhere every second and at the end of the phase. Call it as often as is convenient.
void showProgress(const char* phase, uint64_t done, uint64_t total);

// How often a plain line shows it.
void setProgressInterval(uint32_t milliseconds);

// Takes the progress line off the terminal: before other output, and at the end of a phase.
void clearProgress();

// Likewise, before a line of the log; also in a worker, which does not know what the parent shows.
void makeWay();

// In a forked worker: the progress line belongs to the parent.
void disownProgress();

// A number with thousands separated, as "12,345". Plain data, so it may live anywhere.
struct Grouped {
    char text[28];
};

Grouped grouped(uint64_t number);

}  // namespace catalogue

#endif
