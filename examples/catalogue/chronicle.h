// What the parent's log says about the run as a whole.
#ifndef CATALOGUE_CHRONICLE_H
#define CATALOGUE_CHRONICLE_H

#include "board.h"
#include "server.h"

#include "rm.h"

namespace catalogue
{

// The first lines: the process, its settings, its input.
void noteStart(const Host& host);

// Keeps why the run ends, for its last line.
void endBecause(const char* format, ...) RM_PRINTF(1, 2);
const char* endReason();

// The last lines of a run that ended well: what all processes have counted, and how long it took.
void noteEnd(const Board& board, double seconds);

}  // namespace catalogue

#endif
