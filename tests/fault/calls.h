// The calls to the operating system that are made to fail, and what is documented of each.
//
// Why: what a scenario has to stand is a matter of the call alone. So it is said once, in a table:
// the ways in which the call fails by its manual page, and what the library may make of that.
#ifndef RM_TESTS_FAULT_CALLS_H
#define RM_TESTS_FAULT_CALLS_H

#include "tests/support/faults.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace fault
{

// One way in which a call fails.
struct Outcome {
    enum Kind : uint8_t {
        kError,    // with an errno
        kNothing,  // without one: a null pointer, or what is left of a sleep
        kNone,     // no byte moved: the end of a file, a full disk that does not say so
        kOne,      // one byte moved
        kHalf,     // half of them
    } kind = kError;

    int error = 0;
};

std::string nameOf(const Outcome& outcome);

// Calls that tests/support does not wrap; this program does.
enum class Own : uint8_t { kNone, kGetc, kPrintf };

// What a failure may leave behind when it comes from the call that was to remove it.
enum Leaves : uint8_t {
    kNothing = 0,
    kSet = 1,          // the semaphore set, and the token file that leads to it
    kSegment = 2,      // a shared memory segment
    kQueue = 4,        // a message queue
    kToken = 8,        // a token file
    kDescriptor = 16,  // a descriptor: only of a close that failed with EBADF
    kCopy = 32,        // the copy of an INI file
};

struct CallRow {
    const char* name;
    rmtest::Call call;
    // Which of the calls the row is about; null: all of them.
    bool (*fits)(const rmtest::CallRecord& record);
    Own own;
    int64_t failure;  // what the call returns when it fails
    std::span<const Outcome> outcomes;
    // The ends to which a failure may lead, and no other; empty: it never ends anything.
    //   "sys:T"   internalErrorExit with the text T and the errno of the failure
    //   "cond:T"  fatalRMExit with a text that begins with T
    //   "log:T"   rm_errorExit after a line with T; %d in it stands for the errno
    //   "memory"  "Out of memory!"
    std::span<const char* const> ends;
    uint8_t leaves;
};

std::span<const CallRow> callTable();

// The row of that name; null.
const CallRow* findCall(const std::string& name);

}  // namespace fault

#endif
