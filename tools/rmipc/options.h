// Command line of rmipc.
#ifndef RMIPC_OPTIONS_H
#define RMIPC_OPTIONS_H

#include "common/cmdline.h"

#include <cstdint>
#include <string>
#include <vector>

namespace rmipc
{

enum Status {
    kOk = 0,       // in order, or done
    kFound = 1,    // something is left over, was left, or a limit is too low
    kTrouble = 2,  // wrong command line; something could not be read, removed or written
};

enum class Command { kList, kRemove, kOrphans, kLimits };

struct Options {
    Command command = Command::kList;
    std::vector<std::string> prefixes;  // none: the current directory
    std::string proc = "/proc";
    uint64_t message = 32767;  // bytes of data in the longest message
    uint64_t segment = 65536;  // bytes of each of 20 segments
    bool json = false;
    bool quiet = false;
    bool all = false;
    bool bags = false;
    bool yes = false;
    bool dryRun = false;
    bool force = false;
    bool ids = false;
};

tools::CommandLine parseOptions(int argc, char** argv, Options& options);

}  // namespace rmipc

#endif
