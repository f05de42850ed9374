// rmipc: what the library's processes leave behind in the system.
//
//   prefix ──> place ──> survey ──> judge ──> list, json
//              token     objects,   who uses  └─> remove
//              files     processes  them
//
// Why: System V objects outlive their processes. A server that ends in order removes its own; one
// that was killed leaves them, and the next finds locks that nobody will leave.
#include "common/console.h"
#include "list.h"
#include "machine.h"
#include "options.h"
#include "orphans.h"
#include "remove.h"

namespace
{
int run(const rmipc::Options& options)
{
    switch (options.command) {
        case rmipc::Command::kList:
            return listPlaces(options);
        case rmipc::Command::kRemove:
            return removeLeftovers(options);
        case rmipc::Command::kOrphans:
            return listOrphans(options);
        case rmipc::Command::kLimits:
            break;
    }
    return checkLimits(options);
}
}  // namespace

int main(int argc, char** argv)
{
    tools::prepareProcess();
    rmipc::Options options;
    switch (rmipc::parseOptions(argc, argv, options)) {
        case tools::CommandLine::kRun:
            return tools::finishOutput(run(options));
        case tools::CommandLine::kDone:
            return tools::finishOutput(rmipc::kOk);
        case tools::CommandLine::kWrong:
            break;
    }
    return rmipc::kTrouble;
}
