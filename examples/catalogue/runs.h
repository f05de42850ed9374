// Finding a run that lives, for those who do not belong to it.
#ifndef CATALOGUE_RUNS_H
#define CATALOGUE_RUNS_H

#include "settings.h"

namespace catalogue
{

// A run as a client sees it. Plain data.
struct FoundRun {
    char path[kPathRoom];  // as the user may look for it
    int ownerFd;           // the owner file, whose lock says whether the run lives
};

// Finds the run in `where`, which is its directory or the one that holds it; null for the current
// directory and then $TMPDIR. False after having said why there is none, or not just one.
bool findRun(const char* where, FoundRun& run);

// Whether a process of the run lives still.
bool runLives(const FoundRun& run);

}  // namespace catalogue

#endif
