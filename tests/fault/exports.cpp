// Why: a function that no scenario calls would be left out without a word. So every call of a
// scenario is noted by its name, and the names are compared with the list that the shared object is
// checked against.
#include "exports.h"

#include <algorithm>
#include <fstream>
#include <iostream>

namespace fault
{

namespace
{

// What is exported and cannot be called.
constexpr const char* kVariables[] = {
    "fileCommit", "fileHandleLimit", "fileSem",  "growSem",   "hNormSh", "hPriSh",  "rmDiskFull",
    "rmanTerm",   "rmemavail",       "rminfree", "seg_alloc", "sysfile", "syslogon"};

std::vector<std::string> functions;  // sorted
std::array<uint8_t, kMostFunctions> called = {};

}  // namespace

bool loadExports()
{
    std::ifstream list(RM_FAULT_EXPORTS);
    for (std::string name; std::getline(list, name);) {
        functions.push_back(name);
    }
    for (const char* variable : kVariables) {
        if (std::erase(functions, variable) != 1) {
            std::cerr << variable << " is not in " << RM_FAULT_EXPORTS << '\n';
            return false;
        }
    }
    std::sort(functions.begin(), functions.end());
    if (functions.empty() || functions.size() > kMostFunctions) {
        std::cerr << functions.size() << " functions in " << RM_FAULT_EXPORTS << '\n';
        return false;
    }
    return true;
}

void noteCalled(const char* function)
{
    const auto at = std::lower_bound(functions.begin(), functions.end(), function);
    if (at == functions.end() || *at != function) {
        finding("exports", "%s is not exported", function);
        return;
    }
    page().functions[static_cast<std::size_t>(at - functions.begin())] = 1;
}

void addCalled(const Page& page)
{
    for (std::size_t i = 0; i < functions.size(); ++i) {
        called[i] = called[i] != 0 || page.functions[i] != 0 ? 1 : 0;
    }
}

std::size_t exportedFunctions()
{
    return functions.size();
}

std::vector<std::string> functionsNotCalled()
{
    std::vector<std::string> missing;
    for (std::size_t i = 0; i < functions.size(); ++i) {
        if (called[i] == 0) {
            missing.push_back(functions[i]);
        }
    }
    return missing;
}

}  // namespace fault
