// The parent process: loads the buckets, starts and watches the workers, verifies the result.
#ifndef CATALOGUE_SERVER_H
#define CATALOGUE_SERVER_H

#include "options.h"
#include "records.h"
#include "rundir.h"

namespace catalogue
{

// How a run ends, as the value that rm_exit hands to the exit target. An exit jump with 0 would
// arrive as 1, so the values begin at 1.
enum Outcome : int16_t { kVerified = 1, kFailed = 2, kInterrupted = 3 };

// Keeps the signals that end a run from interrupting it anywhere but where it looks for them.
void blockSignals();

// The whole run, from the first call of the library to the summary. May leave by the fatal target.
Outcome runServer(const Options& options, const Input& input, RunDirectory& directory);

// Ends and reaps all workers that there still are. Takes at most a few seconds, whatever locks the
// dead ones held; calls nothing of the library, so that shutdown processing may use it.
void stopWorkers();

// The signal that interrupted the run; 0 when none did.
int interruptedBy();

}  // namespace catalogue

#endif
