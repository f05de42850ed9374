// The parent process: loads the buckets, cares for its children, verifies the result.
#ifndef CATALOGUE_SERVER_H
#define CATALOGUE_SERVER_H

#include "formats.h"
#include "options.h"
#include "profile.h"
#include "records.h"
#include "rundir.h"
#include "settings.h"

#include <cstdint>

namespace catalogue
{

// How a run ends, as the value that rm_exit hands to the exit target. An exit jump with 0 would
// arrive as 1, so the values begin at 1.
enum Outcome : int16_t { kVerified = 1, kFailed = 2, kInterrupted = 3, kWrongSettings = 4 };

// What the processes of a run work with. All of it stands in static storage of main.
struct Host {
    const Options& options;
    const Formats& formats;
    const Input& input;
    const RecordIndex& index;
    RunDirectory& directory;
    Profile& profile;
    Settings& settings;
};

struct Board;

// In the parent while it has no children, between two steps: does what signals have asked for, and
// looks at the disk. False when the run is to end at once.
bool goOn(const Host& host, Board& shared);

// The whole run, in its directory, to the summary. May leave by the fatal target.
Outcome runServer(const Host& host);

// Ends and reaps all children that there still are. Takes at most a few seconds, whatever locks the
// dead ones held; calls nothing of the library, so that shutdown processing may use it.
void stopServer();

}  // namespace catalogue

#endif
