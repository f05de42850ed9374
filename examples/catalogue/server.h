// The parent process: loads the buckets, starts and watches the workers, verifies the result.
#ifndef CATALOGUE_SERVER_H
#define CATALOGUE_SERVER_H

#include "formats.h"
#include "options.h"
#include "profile.h"
#include "records.h"
#include "rundir.h"
#include "settings.h"

namespace catalogue
{

// How a run ends, as the value that rm_exit hands to the exit target. An exit jump with 0 would
// arrive as 1, so the values begin at 1.
enum Outcome : int16_t { kVerified = 1, kFailed = 2, kInterrupted = 3, kWrongSettings = 4 };

// What the parent works with. All of it stands in static storage of main.
struct Job {
    const Options& options;
    const Formats& formats;
    const Input& input;
    RunDirectory& directory;
    Profile& profile;
    Settings& settings;
};

// Keeps the signals that end a run, or ask for new settings, from interrupting it anywhere but
// where it looks for them.
void blockSignals();

// The whole run, in its directory, to the summary. May leave by the fatal target.
Outcome runServer(const Job& job);

// Ends and reaps all workers that there still are. Takes at most a few seconds, whatever locks the
// dead ones held; calls nothing of the library, so that shutdown processing may use it.
void stopWorkers();

// The signal that interrupted the run; 0 when none did.
int interruptedBy();

}  // namespace catalogue

#endif
