// Block sizes of a tag: what leaks is mostly of one size.
#ifndef RMHEAP_SIZES_H
#define RMHEAP_SIZES_H

#include "report.h"

#include <cstdint>
#include <map>
#include <vector>

namespace rmheap
{

// Used blocks by their size, headers included.
std::map<uint32_t, uint64_t> blocksBySize(const Report& report, const Tag& tag);

struct SizeCount {
    uint32_t size;
    uint64_t blocks;
};

// The sizes that hold most bytes first.
std::vector<SizeCount> sizesByBytes(const Report& report, const Tag& tag);

}  // namespace rmheap

#endif
