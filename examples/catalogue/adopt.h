// Gives the library, and this host, the settings: at the start, and while the run goes on.
#ifndef CATALOGUE_ADOPT_H
#define CATALOGUE_ADOPT_H

#include "board.h"
#include "options.h"
#include "profile.h"
#include "settings.h"

namespace catalogue
{

// Keeps the library from making semaphores and a token file: so the settings can be read before
// there is a run directory. Ends with startLibrary.
void readWithoutLocks();

// In the parent, in the run directory and before the first file: limits, the locks of the file
// layer, the environment, counters and log.
void startLibrary(const Settings& settings, const Profile& profile);

// In the desk, and in the parent while there is none, between two steps: reads the settings again.
// New ones are taken over as far as a running server can, and published; a file with faults changes
// nothing. The log says what came of it.
void reloadSettings(const Options& options, Profile& profile, Settings& settings, Board& board);

// In the others, between two steps: takes over what was published since `generation`. False when
// nothing was.
bool followSettings(const Board& board, Settings& settings, uint32_t& generation);

// Says once that the disk has become so full that the library extends no file ahead of writes.
void watchDisk();

// How often a request is an update, by the environment.
uint32_t updateOneIn();

}  // namespace catalogue

#endif
