// What the targets of the memory manager share: patterns that fill blocks, the lines about bad
// pointers, and the comparison of a tag with the allocator's model.
#ifndef RM_TESTS_FUZZ_MEMORY_H
#define RM_TESTS_FUZZ_MEMORY_H

#include "fuzz.h"
#include "tests/models/allocator_model.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

namespace rmfuzz
{

// No byte of it is one of the magic's, which lie above 0xCB.
inline char patternByte(uint32_t seed, std::size_t at)
{
    return static_cast<char>((seed * 31 + at * 7) % 127);
}

inline void fillPattern(void* block, std::size_t size, uint32_t seed)
{
    for (std::size_t i = 0; i < size; ++i) {
        static_cast<char*>(block)[i] = patternByte(seed, i);
    }
}

inline bool holdsPattern(const void* block, std::size_t size, uint32_t seed)
{
    for (std::size_t i = 0; i < size; ++i) {
        if (static_cast<const char*>(block)[i] != patternByte(seed, i)) {
            return false;
        }
    }
    return true;
}

inline std::string warningAbout(const char* text, const void* pointer)
{
    std::array<char, 96> line{};
    std::snprintf(line.data(), line.size(), "WARNING: %s %p", text, pointer);
    return line.data();
}

inline std::string badPointer(const void* pointer)
{
    return warningAbout("attempting to free bad pointer,", pointer);
}

inline std::string corruptedChain(const void* pointer)
{
    return warningAbout("corrupted free chain searching for", pointer);
}

// Where a block lies, by its name in the model.
using PlaceOf = std::function<const void*(rmtest::AllocatorModel::Block)>;

// Fails unless the pieces, live and free, are the model's, and the free chain leads through them.
inline void checkPieces(rmalloc::Segment* segment, const rmtest::AllocatorModel::Segment& expected,
                        const PlaceOf& placeOf)
{
    uint32_t offset = 1;
    uint32_t link = segment->anchor.word1;
    for (const rmtest::AllocatorModel::Piece& piece : expected.pieces) {
        const rmalloc::BlockHeader* header = rmalloc::blockAt(segment, offset);
        FUZZ_CHECK(header->units == piece.units);
        if (piece.block == rmtest::AllocatorModel::kFree) {
            FUZZ_CHECK(link == offset);
            link = header->word1;
        } else {
            FUZZ_CHECK(header->word1 == rmalloc::kLiveMagic);
            FUZZ_CHECK(placeOf(piece.block) == header + 1);
        }
        offset += piece.units;
    }
    FUZZ_CHECK(link == 0);
}

inline void checkSegments(const rmalloc::TagRecord& record,
                          const rmtest::AllocatorModel::Tag& expected, const PlaceOf& placeOf)
{
    rmalloc::Segment* segment = record.segments;
    for (const rmtest::AllocatorModel::Segment& one : expected.segments) {
        FUZZ_CHECK(segment != nullptr && segment->units == one.units);
        FUZZ_CHECK(segment->blocks == one.live);
        checkPieces(segment, one, placeOf);
        segment = segment->next;
    }
    FUZZ_CHECK(segment == nullptr);
}

}  // namespace rmfuzz

#endif
