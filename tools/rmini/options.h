// Command line of rmini.
#ifndef RMINI_OPTIONS_H
#define RMINI_OPTIONS_H

#include "common/cmdline.h"

#include <cstdint>
#include <vector>

namespace rmini
{

enum class Command { kGet, kSet, kDelete, kSections, kKeys, kCheck, kRecover, kNone };

struct Options {
    Command command = Command::kNone;
    std::vector<const char*> operands;   // behind the command: FILE first; never too few or many
    const char* defaultValue = nullptr;  // of get
    uint32_t ignored = 0;                // kinds of check, a bit each
    bool quiet = false;
    bool create = false;
    bool insert = false;
    bool dryRun = false;
    bool diff = false;
    bool values = false;
    bool null = false;  // lists are separated by zero bytes
};

using tools::CommandLine;

CommandLine parseOptions(int argc, char** argv, Options& options);

}  // namespace rmini

#endif
