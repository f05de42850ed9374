// The end of a failed debug assertion. Neither the log nor the fatal path is used: the state that
// the assertion doubts may be theirs.
#include "rm/base.h"

#ifndef NDEBUG
#include <cstdio>
#include <cstdlib>

void rmAssertFailed(const char* condition, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, condition);
    std::abort();
}
#endif
