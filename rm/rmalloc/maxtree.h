// A tree of maxima over a row of bounds: which is the first that is large enough?
//
// Why: first fit asks for the first free block of so many units, in a row of strips of one segment,
// and in a row of segments of one tag. Walking the row costs more the longer it grows; descending a
// tree of maxima looks at one node for each factor of 16. A node is 16 entries wide and is compared
// as a whole, without a branch.
//
// The topmost level has no more than 16 entries and stands first, the row itself stands last; each
// entry of a level is for the 16 entries of one node of the level behind it. A row of up to 16 has
// no level above it, and a row of one is a single number.
//
// Bounds may be too large, which makes the tree cheap: a block that is cut smaller changes one
// number, or none. Whoever finds a bound too large by looking lowers it, so each cut is paid for
// once. Bounds are never too small.
//
// Invariant: an entry is at least as large as each of the 16 below it, and it is 0 exactly when
// they are all 0. Entries behind the end of a level are 0. checkMaxTree() tests it.
//
// Owns nothing: the memory is its user's.
#ifndef RM_RMALLOC_MAXTREE_H
#define RM_RMALLOC_MAXTREE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace rmalloc
{

constexpr uint32_t kFanOut = 16;
constexpr uint32_t kNoEntry = 0xFFFFFFFF;  // no such entry in the row

// Signed, since that is what machines without more compare four at a time; units fit.
using Bound = int32_t;

// No new largest bound. Whoever takes the least of it and what was known keeps what was known.
constexpr Bound kUnchanged = INT32_MAX;

struct MaxTree {
    Bound* row;
    Bound* top;       // the topmost level; the row itself when there is no other
    uint32_t length;  // of the row, at least 1
    uint32_t height;  // 4 for each level above the row: an entry's number is shifted by so much
};

// Bytes of memory for a row of `length`, which is to be zeroed.
std::size_t bytesOfMaxTree(uint32_t length);

// The tree of a row of `length` in that memory.
MaxTree makeMaxTree(void* memory, uint32_t length);

// --- For trees of more than one node

uint32_t firstInLevels(const MaxTree& tree, Bound need, uint32_t from);
uint32_t lastInLevels(const MaxTree& tree, uint32_t before);
void raiseLevels(const MaxTree& tree, uint32_t entry, Bound bound);
Bound lowerLevels(const MaxTree& tree, uint32_t entry, Bound bound);

// --- One node

// Four entries side by side, which every machine that can compares in one step.
using Four = Bound __attribute__((vector_size(16), may_alias));
using Two = uint64_t __attribute__((vector_size(16)));

// The entries of a node. They may stand anywhere: what the platform gives is no multiple of 16 on
// some machines. One by one, or the compiler would copy them to the stack.
inline void readNode(Four* fours, const Bound* node)
{
    std::memcpy(&fours[0], node, sizeof(Four));
    std::memcpy(&fours[1], node + 4, sizeof(Four));
    std::memcpy(&fours[2], node + 8, sizeof(Four));
    std::memcpy(&fours[3], node + 12, sizeof(Four));
}

// Bit i: entry i of the node is at least `need`. For every machine.
inline uint32_t atLeastAnywhere(const Bound* node, Bound need)
{
    constexpr Four kBits = {1, 2, 4, 8};
    Four fours[4];
    readNode(fours, node);
    const Four needs = {need, need, need, need};
    const Four found = ((fours[0] >= needs) & kBits) | ((fours[1] >= needs) & kBits << 4) |
                       ((fours[2] >= needs) & kBits << 8) | ((fours[3] >= needs) & kBits << 12);
    const auto halves = reinterpret_cast<Two>(found);
    const uint64_t bits = halves[0] | halves[1];
    return static_cast<uint32_t>(bits | bits >> 32);
}

// The same. It is most of what a search does, and some machines have an instruction for it.
inline uint32_t atLeast(const Bound* node, Bound need)
{
#ifdef __SSE2__
    Four fours[4];
    readNode(fours, node);
    const Four needs = {need, need, need, need};
    // A byte for each entry, all of its bits set when that is less: its uppermost bit is taken.
    const auto low = _mm_packs_epi32(reinterpret_cast<__m128i>(fours[0] < needs),
                                     reinterpret_cast<__m128i>(fours[1] < needs));
    const auto high = _mm_packs_epi32(reinterpret_cast<__m128i>(fours[2] < needs),
                                      reinterpret_cast<__m128i>(fours[3] < needs));
    return ~static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(low, high))) & 0xFFFF;
#else
    return atLeastAnywhere(node, need);
#endif
}

inline Bound largestOf(const Bound* node)
{
    Four fours[4];
    readNode(fours, node);
    const Four low = fours[0] > fours[1] ? fours[0] : fours[1];
    const Four high = fours[2] > fours[3] ? fours[2] : fours[3];
    const Four all = low > high ? low : high;
    return std::max(std::max(all[0], all[1]), std::max(all[2], all[3]));
}

// Sets an entry, and gives the largest of the node. Reads before it writes: a machine that has just
// written one entry waits before it can read four together.
inline Bound setAndGetLargest(Bound* node, uint32_t entry, Bound bound)
{
    constexpr Four kNumbers = {0, 1, 2, 3};
    Four fours[4];
    readNode(fours, node);
    const auto number = static_cast<Bound>(entry);
    const Four at = {number, number, number, number};
    const Four bounds = {bound, bound, bound, bound};
    Four all = at == kNumbers ? bounds : fours[0];
    for (Bound i = 1; i < static_cast<Bound>(kFanOut) / 4; ++i) {
        const Four next = at == kNumbers + 4 * i ? bounds : fours[i];
        all = next > all ? next : all;
    }
    node[entry] = bound;
    return std::max(std::max(all[0], all[1]), std::max(all[2], all[3]));
}

// --- The tree

// The first entry at or behind `from` of at least `need`, which is above 0; kNoEntry. Bounds of
// higher levels that turn out too large on the way are lowered.
inline uint32_t firstAtLeast(const MaxTree& tree, Bound need, uint32_t from)
{
    if (tree.height > 0) {
        return firstInLevels(tree, need, from);
    }
    if (tree.length == 1) {
        return from == 0 && tree.row[0] >= need ? 0 : kNoEntry;
    }
    const uint32_t found = from < kFanOut ? atLeast(tree.row, need) >> from << from : 0;
    return found != 0 ? static_cast<uint32_t>(__builtin_ctz(found)) : kNoEntry;
}

// The last entry above 0 before `before`, which is an entry of the row; kNoEntry.
inline uint32_t lastBefore(const MaxTree& tree, uint32_t before)
{
    if (before == 0) {
        return kNoEntry;
    }
    if (tree.height > 0) {
        return lastInLevels(tree, before);
    }
    const uint32_t found = atLeast(tree.row, 1) & ((1U << before) - 1);
    return found != 0 ? 31U - static_cast<uint32_t>(__builtin_clz(found)) : kNoEntry;
}

// Sets an entry to a bound that may be larger than it was.
inline void setBound(const MaxTree& tree, uint32_t entry, Bound bound)
{
    tree.row[entry] = bound;
    if (tree.height > 0) {
        raiseLevels(tree, entry, bound);
    }
}

// Makes an entry at least as large as `bound`.
inline void raiseBound(const MaxTree& tree, uint32_t entry, Bound bound)
{
    if (tree.row[entry] < bound) {
        setBound(tree, entry, bound);
    }
}

// No entry is larger than this.
inline Bound largestBound(const MaxTree& tree)
{
    return tree.length == 1 ? tree.row[0] : largestOf(tree.top);
}

// Sets an entry to a bound that is not larger than it was, and what is above it to the least it can
// be. The result is the largest bound of the tree if that may have changed, else kUnchanged.
inline Bound lowerBound(const MaxTree& tree, uint32_t entry, Bound bound)
{
    if (tree.row[entry] == bound) {
        return kUnchanged;
    }
    if (tree.height > 0) {
        return lowerLevels(tree, entry, bound);
    }
    if (tree.length == 1) {
        tree.row[0] = bound;
        return bound;
    }
    return setAndGetLargest(tree.row, entry, bound);
}

// Counts what does not hold; 0 is sound.
uint32_t checkMaxTree(const MaxTree& tree);

}  // namespace rmalloc

#endif
