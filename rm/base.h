// What every part of the library shares: widths with a meaning, and the debug assertion.
//
// The library's fatal errors leave by a jump over the frames between the failure and the host, so
// the whole of rm/ keeps to plain data on the stack: scalars, arrays, plain structs, views. Nothing
// here owns memory, nothing here throws, and no lock guard exists. CI reads the objects and fails
// when a destructor would be live across a call that may not return.
#ifndef RM_BASE_H
#define RM_BASE_H

#include "rm.h"

#include <cstdint>

using Tag = int16_t;         // index of a record in the tag table; -1 is no tag
using FileHandle = int16_t;  // index of a slot in the file table; -1 is none
using SyncHandle = int16_t;  // semaphore number 0 to 19; -2 is the null object, -1 is none

// Aborts a debug build whose own logic is wrong. Never used on what a caller may do: that has a
// defined result. It goes to standard error directly, since the log itself may be what is broken.
#ifdef NDEBUG
#define RM_ASSERT(condition) static_cast<void>(0)
#else
#define RM_ASSERT(condition) \
    ((condition) ? static_cast<void>(0) : rmAssertFailed(#condition, __FILE__, __LINE__))
[[noreturn]] void rmAssertFailed(const char* condition, const char* file, int line);
#endif

#endif
