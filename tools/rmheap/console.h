// What the user of rmheap sees, and how it ends.
#ifndef RMHEAP_CONSOLE_H
#define RMHEAP_CONSOLE_H

#include "common/console.h"

namespace rmheap
{

using tools::complain;
using tools::examineTerminal;
using tools::finishOutput;
using tools::print;
using tools::Terminal;

enum Status {
    kOk = 0,
    kNoReport = 1,  // the log has no such report, or the report no such tag
    kFailed = 2,    // wrong command line; something could not be read or written; no memory
    kDamaged = 3,   // the report says that the heap is damaged
    kDoubtful = 4,  // the report is cut, or contradicts itself
};

}  // namespace rmheap

#endif
