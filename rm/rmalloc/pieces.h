// Pieces of memory of the same size, packed side by side.
//
// Why: the maps of a large heap are asked for at random. Got from the platform one by one, they
// would lie between the segments that they belong to, each on a page of the machine's own, and
// every access would wait for the machine to find that page before it could wait for the map. Here
// they stand side by side in slabs of 16 KiB.
//
// Of each size, the slab that was emptied last is kept for the next one that is needed: pieces that
// come and go at the border of a slab cost no more than others. Pieces that were never out have not
// been touched.
//
// Invariant: a slab from which some of the pieces are out, but not all, is in the list of its size,
// and no other is; `used` counts them. checkPieces() tests the slabs of the lists.
//
// Cost: one place of each slab, what slabs have free, and what the platform leaves between slabs,
// which stand at multiples of their size. The memory comes from the platform and is not counted in
// memused.
#ifndef RM_RMALLOC_PIECES_H
#define RM_RMALLOC_PIECES_H

#include <cstddef>
#include <cstdint>

namespace rmalloc
{

constexpr std::size_t kLine = 64;      // bytes; sizes of pieces are counted in them
constexpr uint32_t kLargestPiece = 8;  // lines

// A piece of so many lines, 1 to kLargestPiece, zeroed; null when there is no memory.
void* newPiece(uint32_t lines);

// Takes back a piece of so many lines.
void freePiece(void* piece, uint32_t lines);

// Gives the empty slabs back that were kept.
void trimPieces();

// Counts what does not hold; 0 is sound.
uint32_t checkPieces();

}  // namespace rmalloc

#endif
