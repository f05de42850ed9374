// The commands of rmini.
#ifndef RMINI_COMMANDS_H
#define RMINI_COMMANDS_H

#include "options.h"

namespace rmini
{

// Does what the command line asks for. The exit status.
int runCommand(const Options& options);

// At the fatal target: takes back what the command would have taken back, and says what happened.
void abandonCommand();

}  // namespace rmini

#endif
