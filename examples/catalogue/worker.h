// A worker process.
#ifndef CATALOGUE_WORKER_H
#define CATALOGUE_WORKER_H

#include "board.h"
#include "server.h"

#include <cstdint>

#include <sys/types.h>

namespace catalogue
{

struct Work {
    uint32_t number;  // of this worker, from 1
    pid_t parent;     // a worker whose parent has gone ends by itself
    const Host& host;
    Board& board;
    uint32_t generation;  // of the settings on the board when the worker was forked
    bool replaces;        // one that was killed
};

// Does jobs until there are no more, and ends the process with one of the ChildEnds, with _exit:
// rm_exit would take what the processes share away from everybody, and an ordinary exit would run
// the parent's endings a second time.
[[noreturn]] void runWorker(const Work& work);

}  // namespace catalogue

#endif
