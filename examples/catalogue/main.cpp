// catalogue: a small multi-process server on the resource manager, as an example of a host.
//
// Why: to show where the calls of the library go in a program that does real work: what a host
// registers, what it creates before it forks and opens after, how it ends, and what it must keep
// off the frames that a fatal error jumps over.
//
// The rule for those frames: a jump runs no destructors. So an object that owns something may live
//   - in static storage of main, as the input and the run directory do;
//   - in a frame during which the library is not called, as everywhere in options, records, rundir;
//   - in memory of a tag, if it is plain data.
// It may not be a local of a function that calls the library, directly or through others.
//
// Lifecycle: command line, input, run directory; then the two targets; then the run. Every end
// passes through rm_exit and arrives at the exit target: sync objects and tagged memory are gone
// then, and what remains to be done is to remove the run directory.
//
//   main ──> runServer ──────> rm_exit(outcome) ──> exit target ──> remove directory, exit status
//                 │                  ^
//                 └─ fatal target ───┘  (shutdown processing: stop the workers)
#include "console.h"
#include "options.h"
#include "records.h"
#include "rundir.h"
#include "server.h"

#include "rm.h"

#include <csetjmp>
#include <csignal>
#include <cstdio>

namespace
{
constexpr int kExitVerified = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitSignal = 128;  // and the signal's number

constexpr int16_t kFileHandles = 8;  // descriptors for 32 files: most of them are parked

// Static, and not locals of main: see above. The jumps also leave their values alone there.
catalogue::Options options;
catalogue::Input input;
catalogue::RunDirectory directory;
jmp_buf fatalTarget;
jmp_buf exitTarget;

// The settings that the library reads when it first needs them.
void setUpLibrary()
{
    rm_errorJump(fatalTarget);
    rm_exitJump(exitTarget);
    rm_setForegroundThread();  // so the library can tell this process from its workers
    fileHandleLimit = kFileHandles;
    rmDiskFull = 0;  // until then no file is extended ahead of writes
}

// The run is over and the library torn down.
int finish(int status)
{
    directory.remove();
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        catalogue::complain("standard output could not be written.");
        return kExitFailed;
    }
    return status;
}
}  // namespace

int main(int argc, char** argv)
{
    using namespace catalogue;
    switch (parseOptions(argc, argv, options)) {
        case CommandLine::kRun:
            break;
        case CommandLine::kHelp:
            return kExitVerified;
        case CommandLine::kWrong:
            return kExitUsage;
    }
    openConsole();
    blockSignals();
    if (!readInput(options.inputs, input)) {
        return kExitFailed;
    }
    if (options.damageRecord > input.records.size()) {
        complain("--damage-record %u: there are %zu records", options.damageRecord,
                 input.records.size());
        return kExitUsage;
    }
    if (!directory.make(options.directory)) {
        return finish(kExitFailed);
    }

    switch (setjmp(exitTarget)) {
        case 0:
            break;
        case kVerified:
            return finish(kExitVerified);
        case kInterrupted:
            return finish(kExitSignal + interruptedBy());
        default:
            return finish(kExitFailed);
    }
    if (setjmp(fatalTarget) != 0) {
        // Shutdown processing. The library has logged what happened, and has given back the locks
        // that this process held. Nothing here may wait for a lock: a dead worker may hold it.
        stopWorkers();
        complain(
            "the library met an error that cannot be mended; its log lines above say which.\n"
            "Everything of this run is removed, so the next one starts afresh.");
        rm_exit(kFailed);
    }
    setUpLibrary();
    rm_exit(runServer(options, input, directory));
}
