// The desk: the process that hands out the jobs.
#ifndef CATALOGUE_DESK_H
#define CATALOGUE_DESK_H

#include "board.h"
#include "server.h"

#include <sys/types.h>

namespace catalogue
{

// How a child of the parent ends, as its exit status.
enum ChildEnd : int {
    kChildDone = 0,     // what there was to do is done, or the parent stopped it
    kChildFailed = 10,  // it has said why
    kChildFatal = 11    // the library has
};

struct DeskWork {
    const Host& host;
    Board& board;
    pid_t parent;
};

// Hands out the operations of the load generator, serves clients meanwhile, and afterwards if the
// command line says so, until the parent ends it or all is done; then it ends the workers and
// itself, with _exit.
[[noreturn]] void runDesk(const DeskWork& work);

}  // namespace catalogue

#endif
