// The exported functions of the library, and which of them the scenarios have called.
#ifndef RM_TESTS_FAULT_EXPORTS_H
#define RM_TESTS_FAULT_EXPORTS_H

#include "page.h"

#include <string>
#include <vector>

namespace fault
{

// Reads the list of exports. False, with a message on standard error, when it cannot be read or
// does not name the variables that are known here.
bool loadExports();

// Adds up what a host has called.
void addCalled(const Page& page);

std::size_t exportedFunctions();

// Those that no host has called so far.
std::vector<std::string> functionsNotCalled();

}  // namespace fault

#endif
