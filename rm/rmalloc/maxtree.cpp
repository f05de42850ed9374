// Trees of maxima of more than one node. What they are for, and what holds in them: maxtree.h.
#include "rm/rmalloc/maxtree.h"

using namespace rmalloc;

namespace
{
constexpr uint32_t kStep = 4;  // a level up: 16 entries become one

// Entries that a level takes: whole nodes, so that a node can be compared as one.
constexpr std::size_t entriesOf(uint32_t length, uint32_t height)
{
    return (std::size_t{(length - 1) >> height >> kStep} + 1) * kFanOut;
}

// How far the topmost level is above a row of `length`.
constexpr uint32_t heightOf(uint32_t length)
{
    uint32_t height = 0;
    while ((length - 1) >> height >= kFanOut) {
        height += kStep;
    }
    return height;
}

// Which entry of a node is the last one of those found, as a number of its level.
uint32_t lastOf(uint32_t node, uint32_t found)
{
    return node * kFanOut + 31U - static_cast<uint32_t>(__builtin_clz(found));
}

// A level of a tree while one goes up and down in it.
struct Level {
    Bound* entries;
    uint32_t height;
};

void goUp(Level* level, uint32_t length)
{
    level->height += kStep;
    level->entries -= entriesOf(length, level->height);
}

void goDown(Level* level, uint32_t length)
{
    level->entries += entriesOf(length, level->height);
    level->height -= kStep;
}
}  // namespace

std::size_t rmalloc::bytesOfMaxTree(uint32_t length)
{
    if (length == 1) {
        return sizeof(Bound);
    }
    std::size_t entries = 0;
    for (uint32_t height = 0; height <= heightOf(length); height += kStep) {
        entries += entriesOf(length, height);
    }
    return entries * sizeof(Bound);
}

MaxTree rmalloc::makeMaxTree(void* memory, uint32_t length)
{
    auto* top = static_cast<Bound*>(memory);
    Level level = {top, heightOf(length)};
    while (level.height > 0) {
        goDown(&level, length);
    }
    return {level.entries, top, length, heightOf(length)};
}

uint32_t rmalloc::firstInLevels(const MaxTree& tree, Bound need, uint32_t from)
{
    if (from >= tree.length) {
        return kNoEntry;
    }
    // From the very beginning the way leads down only; from elsewhere up first, to what is behind.
    Level level = from == 0 ? Level{tree.top, tree.height} : Level{tree.row, 0};
    uint32_t node = from / kFanOut;
    uint32_t skip = from % kFanOut;  // entries of it that are not asked
    for (;;) {
        Bound* entries = level.entries + std::size_t{node} * kFanOut;
        const uint32_t found = atLeast(entries, need) >> skip << skip;
        if (found != 0) {
            const uint32_t entry = node * kFanOut + static_cast<uint32_t>(__builtin_ctz(found));
            if (level.height == 0) {
                return entry;
            }
            goDown(&level, tree.length);
            node = entry;
            skip = 0;
        } else if (level.height == tree.height) {
            return kNoEntry;
        } else {
            goUp(&level, tree.length);
            level.entries[node] = largestOf(entries);
            skip = node % kFanOut + 1;
            node /= kFanOut;
        }
    }
}

uint32_t rmalloc::lastInLevels(const MaxTree& tree, uint32_t before)
{
    Level level = {tree.row, 0};
    uint32_t node = before / kFanOut;
    uint32_t kept = before % kFanOut;  // entries of it that are asked
    for (;;) {
        const Bound* entries = level.entries + std::size_t{node} * kFanOut;
        const uint32_t found = atLeast(entries, 1) & ((1U << kept) - 1);
        if (found != 0) {
            node = lastOf(node, found);
            break;
        }
        if (level.height == tree.height) {
            return kNoEntry;
        }
        goUp(&level, tree.length);
        kept = node % kFanOut;
        node /= kFanOut;
    }
    // An entry above 0 has one above 0 below it.
    while (level.height > 0) {
        goDown(&level, tree.length);
        node = lastOf(node, atLeast(level.entries + std::size_t{node} * kFanOut, 1));
    }
    return node;
}

void rmalloc::raiseLevels(const MaxTree& tree, uint32_t entry, Bound bound)
{
    Level level = {tree.row, 0};
    while (level.height < tree.height) {
        goUp(&level, tree.length);
        entry /= kFanOut;
        if (level.entries[entry] >= bound) {
            return;
        }
        level.entries[entry] = bound;
    }
}

Bound rmalloc::lowerLevels(const MaxTree& tree, uint32_t entry, Bound bound)
{
    Level level = {tree.row, 0};
    while (level.height < tree.height) {
        Level above = level;
        goUp(&above, tree.length);
        const uint32_t node = entry / kFanOut;
        Bound* entries = level.entries + std::size_t{node} * kFanOut;
        // Another one is the largest. Where that is only thought so, it may be that all are 0 now.
        if (bound != 0 && entries[entry % kFanOut] < above.entries[node]) {
            entries[entry % kFanOut] = bound;
            return kUnchanged;
        }
        bound = setAndGetLargest(entries, entry % kFanOut, bound);
        entry = node;
        level = above;
    }
    return setAndGetLargest(level.entries, entry, bound);
}

uint32_t rmalloc::checkMaxTree(const MaxTree& tree)
{
    if (tree.length == 1) {
        return tree.row[0] < 0 ? 1 : 0;
    }
    uint32_t violations = 0;
    Level level = {tree.row, 0};
    for (;;) {
        const uint32_t length = ((tree.length - 1) >> level.height) + 1;
        const std::size_t entries = entriesOf(tree.length, level.height);
        for (std::size_t i = 0; i < entries; ++i) {
            const bool holds = i < length ? level.entries[i] >= 0 : level.entries[i] == 0;
            violations += holds ? 0 : 1;
        }
        if (level.height == tree.height) {
            return violations + (level.entries == tree.top ? 0 : 1);
        }
        const Bound* below = level.entries;
        goUp(&level, tree.length);
        for (std::size_t node = 0; node < entries / kFanOut; ++node) {
            const Bound largest = largestOf(below + node * kFanOut);
            const Bound bound = level.entries[node];
            violations += bound >= largest && (bound == 0) == (largest == 0) ? 0 : 1;
        }
    }
}
