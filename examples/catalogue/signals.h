// The signals of the parent: fetched where it stands between two steps, never delivered.
#ifndef CATALOGUE_SIGNALS_H
#define CATALOGUE_SIGNALS_H

#include <chrono>

namespace catalogue
{

// What signals have asked for and nobody has done yet.
struct Asked {
    int ends;     // times that SIGINT or SIGTERM has come
    int heeded;   // of these, those that were granted an end in order
    bool reload;  // SIGHUP
    bool report;  // SIGUSR1
    bool locks;   // SIGUSR2, from a worker: there may be locks to free
};

// Keeps the signals that end a run, or ask for something, from interrupting it anywhere but where
// it looks for them.
void blockSignals();

// Sleeps until a signal comes or a child ends, or the time is over, and notes all that have come.
// What `Asked` says is the caller's to clear.
Asked& awaitSignals(std::chrono::milliseconds wait);

// The signal that asked for the end first; 0 when none did.
int interruptedBy();

}  // namespace catalogue

#endif
