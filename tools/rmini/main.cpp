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
#include <csignal>
#include <cstdlib>
#include <new>

#include <fcntl.h>
#include <unistd.h>

namespace
{
// Static, and not locals of main: a jump leaves them alone.
rmini::Options options;
jmp_buf fatalTarget;

// A file that is opened must not become the standard output of a program that has none.
void holdStandardFiles()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // The wrong way round, so that using it fails as it would without.
        if (fcntl(fd, F_GETFD) == -1 &&
            open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) == -1) {
            std::_Exit(rmini::kFatal);
        }
    }
}

[[noreturn]] void outOfMemory()
{
    rmini::complain("out of memory");
    std::_Exit(rmini::kFatal);
}
}  // namespace

int main(int argc, char** argv)
{
    using namespace rmini;
    holdStandardFiles();
    std::signal(SIGPIPE, SIG_IGN);  // the write fails instead, and the status says so
    std::signal(SIGXFSZ, SIG_IGN);
    std::set_new_handler(outOfMemory);
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
