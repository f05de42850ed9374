// A client: one request to a catalogue that runs, from outside.
#ifndef CATALOGUE_CLIENT_H
#define CATALOGUE_CLIENT_H

#include "command.h"
#include "runs.h"

namespace catalogue
{

// How a client ends, as its exit status.
enum ClientEnd : int {
    kClientDone = 0,
    kClientNotFound = 1,
    kClientWrong = 2,  // the command line
    kClientFailed = 3  // no run, not reachable, no answer: it has said why
};

// Does what the command says and ends the process, with _exit: rm_exit would remove the queues and
// the board for everybody.
[[noreturn]] void runClient(const Command& command, const FoundRun& run);

}  // namespace catalogue

#endif
