// The file that is worked on: its path, its bytes, its directory, and what stands beside it.
#ifndef RMINI_FILES_H
#define RMINI_FILES_H

#include "document.h"

#include <climits>
#include <string>

namespace rmini
{

// Plain data: it may live in a frame that is jumped over.
struct Source {
    const char* given;         // as on the command line
    char path[PATH_MAX];       // without symbolic links, so that a link is not replaced by a file
    char temporary[PATH_MAX];  // the copy that the library makes when it changes the file
    char directory[PATH_MAX];
    bool exists;
};

// Finds the file. A file that is being replaced at this moment is waited for. When it is missing,
// and `mayBeMissing`, the paths are those that it would have; everything else is said, and the
// status is returned.
int findSource(const char* given, bool mayBeMissing, Source& source);

// The paths of a file that is to be put back: it need not be there.
int findMissing(const char* given, Source& source);

// Reads the whole file and splits it. Says what is wrong, and returns the status.
int readDocument(const Source& source, Document& document);

// Tells one content of the file from the next.
struct Version {
    unsigned long long device;
    unsigned long long number;
    long long size;
    long long seconds;
    long nanoseconds;

    bool operator==(const Version&) const = default;
};

Version versionOf(const Source& source);

bool exists(const char* path);

// False, with errno, when the user has no right to write the file.
bool mayWrite(const Source& source);

// True when there is a temporary file that holds something, and no process is at work on it.
bool isLeftOver(const Source& source);

// Moves the temporary file to the path, which must be absent.
int recoverSource(const Source& source);

// Makes an empty file. `made` says whether this call did.
int createSource(const Source& source, bool& made);

// Takes back what createSource made, if nobody has written to it.
void removeEmpty(const Source& source);

// Why a change could not be made that the library refused with `result`; said, with what stands
// where. The status.
int explainFailure(const Source& source, int result, const char* librarySaid);

// The library's log lines without their times, each on a line of its own behind a "\n".
std::string whatLibrarySaid(const char* log);

// Standard input without its last newline. False with a message when it cannot be read.
bool readInput(std::string& value);

}  // namespace rmini

#endif
