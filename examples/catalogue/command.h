// Command line of a client: get, put, list and stats.
#ifndef CATALOGUE_COMMAND_H
#define CATALOGUE_COMMAND_H

#include "options.h"

#include <cstdint>

namespace catalogue
{

enum class Verb { kNone, kGet, kPut, kList, kStats };

// Plain data: it lies in frames that a fatal error jumps over. The texts are the command line's.
struct Command {
    Verb verb;
    const char* name;    // of a record; of list: the prefix, empty for all
    const char* text;    // for put
    const char* run;     // directory of the run, or in which to look for it; null without one
    uint32_t timeoutMs;  // for the command as a whole
    bool json;           // of stats
};

// Whether the command line is a client's and not a server's.
bool isCommand(int argc, char** argv);

CommandLine parseCommand(int argc, char** argv, Command& command);

}  // namespace catalogue

#endif
