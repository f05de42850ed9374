// rmini: INI files from the command line, by the library's own rules.
//
// Why: the servers read and change their settings through the library, whose rules differ from what
// an editor shows. A tool that uses the same calls finds what they find.
//
//   main ──> runCommand ──> exit status
//                │
//                └─ fatal target: a message, status 7
//
// The library is used by this process alone and makes nothing that would have to be removed, so the
// end of the process is the end of it.
#include "commands.h"
#include "console.h"
#include "options.h"
#include "store.h"

#include <csetjmp>
#include <cstdlib>

namespace
{
// Static, and not locals of main: a jump leaves them alone.
rmini::Options options;
jmp_buf fatalTarget;
}  // namespace

int main(int argc, char** argv)
{
    using namespace rmini;
    tools::prepareProcess();
    switch (parseOptions(argc, argv, options)) {
        case CommandLine::kRun:
            break;
        case CommandLine::kDone:
            return finishOutput(kOk);
        case CommandLine::kWrong:
            return kUsage;
    }
    if (options.quiet) {
        beQuiet();
    }
    if (setjmp(fatalTarget) != 0) {
        leaveLibrary();
        abandonCommand();
        std::_Exit(kFatal);
    }
    openStore(fatalTarget);
    return finishOutput(runCommand(options));
}
