// A worker process.
#ifndef CATALOGUE_WORKER_H
#define CATALOGUE_WORKER_H

#include "board.h"
#include "records.h"
#include "settings.h"

#include <cstdint>

#include <sys/types.h>

namespace catalogue
{

// How a worker ends, as its exit status.
enum WorkerEnd : int {
    kWorkerDone = 0,     // its share is done, or the parent stopped it
    kWorkerFailed = 10,  // it has said why
    kWorkerFatal = 11    // the library has
};

struct Work {
    uint32_t number;      // of this worker, from 1
    pid_t parent;         // a worker whose parent has gone ends by itself
    uint64_t operations;  // its share
    const Input* input;   // inherited
    Board* board;         // shared
    Settings* settings;   // inherited, those of `generation`
    uint32_t generation;  // of the settings on the board when the worker was forked
    bool killHalfway;     // test aid: die in the middle of an update
};

// Does the share and ends the process, with _exit: rm_exit would take the semaphore set away from
// everybody, and an ordinary exit would run the parent's endings a second time.
[[noreturn]] void runWorker(const Work& work);

}  // namespace catalogue

#endif
