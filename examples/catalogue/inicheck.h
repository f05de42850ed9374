// What is wrong with an INI file, apart from its values.
#ifndef CATALOGUE_INICHECK_H
#define CATALOGUE_INICHECK_H

#include "rm.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace catalogue
{

constexpr uint32_t kMostProblems = 8;
constexpr std::size_t kProblemRoom = 400;

// What is wrong with a file, a text for each fault: for standard error at the start, for the log
// when the file is read again. What does not fit is left out; one fault is enough to refuse it.
struct Problems {
    uint32_t count;
    char text[kMostProblems][kProblemRoom];
};

void addProblem(Problems& problems, const char* format, ...) RM_PRINTF(2, 3);

// Finds what the library's reading would pass over without a word: lines that belong to no section,
// a section of ours that stands twice, a last line without its newline. `name` is what the messages
// call the file.
void checkIniFile(const char* path, const char* name, Problems& problems);

// The number of a section of ours, counted from 0; -1 for any other.
int knownSection(std::string_view name);

// As names in INI files are compared: without regard to case.
bool sameName(std::string_view text, const char* name);

// For "%.*s": how much of a text from a file a message shows.
int shownLength(std::string_view text);

}  // namespace catalogue

#endif
