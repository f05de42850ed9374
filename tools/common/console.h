// What the user of a tool sees: answers on standard output, messages on standard error.
#ifndef TOOLS_COMMON_CONSOLE_H
#define TOOLS_COMMON_CONSOLE_H

#include <cstddef>
#include <string_view>

namespace tools
{

// What the tools say differently. Each defines its own.
struct Tool {
    const char* name;
    const char* version;
    std::string_view help;
    int unwritten;  // exit status when standard output could not be written
    int fatal;      // exit status without memory, or without standard files
};

extern const Tool kTool;

// Takes the standard files that the process lacks, makes writes fail where signals would end it,
// and ends it with a message when there is no memory. To be called first.
void prepareProcess();

// Says on standard error what failed and what to do, in one write: the lines of several processes
// do not mix. What follows a "\n" is indented below the first line. Needs no memory.
void complain(std::string_view message);

// Standard output; what cannot be written is remembered.
void print(std::string_view text);
void print(char c);

// Flushes standard output. The status, or the tool's own with a message when the output was lost.
int finishOutput(int status);

// What standard output can show.
struct Terminal {
    bool utf8 = false;    // names may be printed as they are
    bool blocks = false;  // bars of block characters: a terminal, in UTF-8
    bool colour = false;
    std::size_t width = 80;  // columns
};

Terminal examineTerminal();

}  // namespace tools

#endif
