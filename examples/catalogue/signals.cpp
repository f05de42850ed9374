// The signals of the parent.
//
// Why: all of them stay blocked, and are fetched between two steps: between two records while it
// loads and verifies, between two looks at its children. So none interrupts a call of the library,
// and what one asks for may be answered by calling it. (With a handler the same holds if it sets a
// flag and nothing else.)
//
// Owns: what has come.
//
// No function of the library is called here.
#include "signals.h"

#include <csignal>

namespace catalogue
{
namespace
{
Asked asked = {};
int endSignal = 0;

sigset_t handledSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signalNumber : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2}) {
        sigaddset(&set, signalNumber);
    }
    return set;
}

void take(int signalNumber)
{
    switch (signalNumber) {
        case SIGHUP:
            asked.reload = true;
            break;
        case SIGUSR1:
            asked.report = true;
            break;
        case SIGUSR2:
            asked.locks = true;
            break;
        case SIGINT:
        case SIGTERM:
            endSignal = endSignal == 0 ? signalNumber : endSignal;
            ++asked.ends;
            break;
        default:
            break;
    }
}
}  // namespace

void blockSignals()
{
    // A reader that has gone must not end a run in its middle: the write fails instead.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);  // likewise where the size of a file is limited
    std::signal(SIGCHLD, SIG_DFL);  // ignored, if whoever started us left it so
    // Children inherit the mask: an interrupt from the terminal reaches every process of the run,
    // and only the parent acts on it.
    const sigset_t set = handledSignals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

Asked& awaitSignals(std::chrono::milliseconds wait)
{
    const sigset_t set = handledSignals();
    const timespec time = {static_cast<time_t>(wait.count() / 1000),
                           static_cast<long>(wait.count() % 1000) * 1000000};
    const timespec none = {};
    for (int signalNumber = sigtimedwait(&set, nullptr, &time); signalNumber > 0;
         signalNumber = sigtimedwait(&set, nullptr, &none)) {
        take(signalNumber);
    }
    return asked;
}

int interruptedBy()
{
    return endSignal;
}

}  // namespace catalogue
