// What the user of rmini sees: messages on standard error, answers on standard output.
#ifndef RMINI_CONSOLE_H
#define RMINI_CONSOLE_H

#include "common/console.h"

#include "rm.h"

#include <string_view>

namespace rmini
{

using tools::finishOutput;
using tools::print;

enum Status {
    kOk = 0,
    kAbsent = 1,      // no such section or key
    kUsage = 2,       // the command line is wrong
    kUnreadable = 3,  // a file cannot be opened or read
    kRefused = 4,     // the change would be lost, or could not be read back
    kUnwritten = 5,   // a file or standard output could not be written
    kFindings = 6,    // check found something
    kFatal = 7,       // no memory, or another end that the library does not come back from
};

// Notes are not printed from now on, nor that something was not found.
void beQuiet();

// Says on standard error what failed and what to do, as all tools do.
void complain(const char* format, ...) RM_PRINTF(1, 2);

// The same, for what the status tells as well: not when quiet.
void note(const char* format, ...) RM_PRINTF(1, 2);

// A name as messages print it: control characters become "?", a long one is cut. Plain data.
struct Shown {
    char text[84];
};

Shown shown(std::string_view name);

}  // namespace rmini

#endif
