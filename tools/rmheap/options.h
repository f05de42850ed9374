// Command line of rmheap.
#ifndef RMHEAP_OPTIONS_H
#define RMHEAP_OPTIONS_H

#include "collect.h"
#include "common/cmdline.h"

#include <cstddef>
#include <string>
#include <vector>

namespace rmheap
{

enum class Sort { kBytes, kBlocks, kFree, kFragmentation, kLargest, kSegments, kTag, kName };

struct Options {
    std::vector<const char*> files;  // none: standard input
    std::vector<std::string> tags;   // numbers or names; none: all
    const char* svg = nullptr;       // file of the map; "-" is standard output
    std::size_t report = kNewest;
    std::size_t from = kOneBefore;  // of a comparison, the report to begin with
    std::size_t to = kNewest;
    std::size_t sizes = 0;  // block sizes of a tag that are shown
    Sort sort = Sort::kBytes;
    bool compare = false;
    bool list = false;
    bool json = false;
    bool human = false;
    bool quiet = false;
};

using tools::CommandLine;
using tools::Takes;

CommandLine parseOptions(int argc, char** argv, Options& options);

}  // namespace rmheap

#endif
