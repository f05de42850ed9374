// What the user of rmheap sees: answers on standard output, messages on standard error.
#ifndef RMHEAP_CONSOLE_H
#define RMHEAP_CONSOLE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace rmheap
{

enum Status {
    kOk = 0,
    kNoReport = 1,  // the log has no such report, or the report no such tag
    kFailed = 2,    // wrong command line; something could not be read or written; no memory
    kDamaged = 3,   // the report says that the heap is damaged
    kDoubtful = 4,  // the report is cut, or contradicts itself
};

// Says on standard error what failed. What follows a "\n" is indented below the first line.
void complain(const std::string& message);

// What standard output can show.
struct Terminal {
    bool utf8 = false;    // names may be printed as they are
    bool blocks = false;  // bars of block characters: a terminal, in UTF-8
    bool colour = false;
    std::size_t width = 80;  // columns
};

Terminal examineTerminal();

// Standard output; what cannot be written is remembered.
void print(std::string_view text);

// Flushes standard output. The status, or kFailed with a message when the output was lost.
int finishOutput(int status);

}  // namespace rmheap

#endif
