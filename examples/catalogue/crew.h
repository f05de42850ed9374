// The children of the parent: the desk and the workers.
#ifndef CATALOGUE_CREW_H
#define CATALOGUE_CREW_H

#include "board.h"
#include "server.h"

#include <cstdint>

namespace catalogue
{

// How it came that no child is left, or none is wanted.
enum class Watched {
    kDone,         // the desk and the workers have ended in order
    kInterrupted,  // a second signal asked for the end: at once
    kFailed        // said so
};

// Forks the desk and the workers. False after having said why not.
bool startCrew(const Host& host, Board& board);

// Watches them until all have ended, passes on to the desk what signals ask for, and puts another
// worker in the place of each that is killed. Calls nothing of the library that could wait for a
// lock.
Watched watchCrew(const Host& host, Board& board);

// Ends and reaps all of them. Takes at most a few seconds, whatever locks the dead ones held; calls
// nothing of the library.
void stopCrew(Board& board);

}  // namespace catalogue

#endif
