// catalogue: a small multi-process server on the resource manager, as an example of a host.
//
// Why: to show where the calls of the library go in a program that does real work: what a host
// registers, what it creates before it forks and opens after, how it ends, and what it must keep
// off the frames that a fatal error jumps over.
//
// The rule for those frames: a jump runs no destructors. So an object that owns something may live
//   - in static storage of main, as the input and the run directory do;
//   - in a frame during which the library is not called, as everywhere in options, records, rundir
//     (the format modules, which records calls, call nothing of it either);
//   - in memory of a tag, if it is plain data.
// It may not be a local of a function that calls the library, directly or through others.
//
// Lifecycle: command line, targets, settings, modules, input, run directory, run. From the targets
// on every end passes through rm_exit and arrives at the exit target: sync objects and tagged
// memory are gone then, and what remains to be done is to remove the run directory.
//
//   main ──> settings, run ──> rm_exit(outcome) ──> exit target ──> remove directory, exit status
//                 │                  ^
//                 └─ fatal target ───┘  (shutdown processing: stop the children)
//
// The settings are read before there is anything of a run, so a mistake in them leaves nothing
// behind. Reading a file takes the library's lock of its file table, for which it would make a
// semaphore set and a token file in the current directory; readWithoutLocks keeps it from that.
#include "adopt.h"
#include "board.h"
#include "client.h"
#include "command.h"
#include "console.h"
#include "formats.h"
#include "jobs.h"
#include "journal.h"
#include "options.h"
#include "profile.h"
#include "records.h"
#include "rundir.h"
#include "server.h"
#include "settings.h"
#include "signals.h"

#include "rm.h"

#include <csetjmp>
#include <csignal>
#include <cstdio>

namespace
{
constexpr int kExitVerified = 0;
constexpr int kExitFailed = 1;
constexpr int kExitWrong = 2;     // command line, settings
constexpr int kExitSignal = 128;  // and the signal's number

// Static, and not locals of main: see above. The jumps also leave their values alone there.
catalogue::Options options;
catalogue::Command command;
catalogue::FoundRun found;
catalogue::Formats formats;
catalogue::Input input;
catalogue::RecordIndex recordIndex;
catalogue::RunDirectory directory;
catalogue::Profile profile;
catalogue::Settings settings;
catalogue::Problems problems;
jmp_buf fatalTarget;
jmp_buf exitTarget;

// False after having said what is wrong with them.
bool findSettings()
{
    using namespace catalogue;
    readWithoutLocks();
    if (!findProfile(profile, options.config, problems) ||
        !readSettings(profile, options.given, settings, problems)) {
        for (uint32_t i = 0; i < problems.count; ++i) {
            complain("%s", problems.text[i]);
        }
        return false;
    }
    if (options.killWorker > settings.number[kWorkers]) {
        complain("--kill-worker %u: there are %u workers", options.killWorker,
                 static_cast<unsigned>(settings.number[kWorkers]));
        return false;
    }
    return true;
}

// What is needed before the run. True, or false with the outcome.
bool prepare(catalogue::Outcome& outcome)
{
    using namespace catalogue;
    outcome = kWrongSettings;
    if (!loadFormats(settings, formats)) {
        return false;
    }
    outcome = kFailed;
    if (!readInput(options.inputs, {formats, settings.format, settings.key}, input)) {
        return false;
    }
    indexInput(input, recordIndex);
    if (options.damageRecord > input.records.size()) {
        complain("--damage-record %u: there are %zu records", options.damageRecord,
                 input.records.size());
        outcome = kWrongSettings;
        return false;
    }
    const auto records = static_cast<uint32_t>(input.records.size());
    return directory.make(options.directory, {boardBytes(records, input.largest),
                                              kBagHeadBytes + kJobSlots * sizeof(Job)});
}

catalogue::Outcome work()
{
    using namespace catalogue;
    if (!findSettings()) {
        return kWrongSettings;
    }
    if (options.printConfig) {
        printSettings(settings, profile.found ? profile.path : nullptr);
        return kVerified;
    }
    Outcome outcome = kFailed;
    if (!prepare(outcome)) {
        return outcome;
    }
    return runServer({options, formats, input, recordIndex, directory, profile, settings});
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

// A client has nothing of a server: its signals, targets and ends are its own.
int clientMain(int argc, char** argv)
{
    using namespace catalogue;
    switch (parseCommand(argc, argv, command)) {
        case CommandLine::kRun:
            break;
        case CommandLine::kHelp:
            return kClientDone;
        case CommandLine::kWrong:
            return kClientWrong;
    }
    if (!findRun(command.run, found)) {
        return kClientFailed;
    }
    runClient(command, found);
}
}  // namespace

int main(int argc, char** argv)
{
    using namespace catalogue;
    if (isCommand(argc, argv)) {
        return clientMain(argc, argv);
    }
    blockSignals();
    switch (parseOptions(argc, argv, options)) {
        case CommandLine::kRun:
            break;
        case CommandLine::kHelp:
            return kExitVerified;
        case CommandLine::kWrong:
            return kExitWrong;
    }
    if (!settleHome()) {
        return kExitWrong;
    }
    openConsole();

    switch (setjmp(exitTarget)) {
        case 0:
            break;
        case kVerified:
            return finish(kExitVerified);
        case kWrongSettings:
            return finish(kExitWrong);
        case kInterrupted:
            return finish(kExitSignal + interruptedBy());
        default:
            return finish(kExitFailed);
    }
    if (setjmp(fatalTarget) != 0) {
        restoreStandardError();
        // Shutdown processing. The library has logged what happened, and has given back the locks
        // that this process held. Nothing here may wait for a lock: a dead worker may hold it.
        stopServer();
        complain(
            "the library met an error that cannot be mended; its log lines above say which.\n"
            "Everything of this run is removed, so the next one starts afresh.");
        closeJournalInHaste("end: failed, the library met an error that cannot be mended");
        rm_exit(kFailed);
    }
    rm_errorJump(fatalTarget);
    rm_exitJump(exitTarget);
    rm_setForegroundThread();  // so the library can tell this process from its workers
    rm_exit(work());
}
