// Block sizes of a tag.
#include "sizes.h"

#include <algorithm>

namespace rmheap
{

std::map<uint32_t, uint64_t> blocksBySize(const Report& report, const Tag& tag)
{
    std::map<uint32_t, uint64_t> result;
    for (const Segment& segment : tag.segments) {
        for (std::size_t i = segment.firstBlock; i < segment.lastBlock; ++i) {
            const Block& block = report.blocks[i];
            if (block.used) {
                ++result[block.size];
            }
        }
    }
    return result;
}

std::vector<SizeCount> sizesByBytes(const Report& report, const Tag& tag)
{
    std::vector<SizeCount> result;
    for (const auto& [size, blocks] : blocksBySize(report, tag)) {
        result.push_back({size, blocks});
    }
    std::ranges::stable_sort(result, [](const SizeCount& a, const SizeCount& b) {
        return a.size * a.blocks > b.size * b.blocks;
    });
    return result;
}

}  // namespace rmheap
