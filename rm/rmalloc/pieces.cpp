// Slabs of pieces. What they are for: pieces.h.
#include "rm/rmalloc/pieces.h"

#include "rm/rmalloc/rmalloc.h"

#include <cstdlib>
#include <cstring>

using namespace rmalloc;

namespace
{
constexpr std::size_t kSlab = std::size_t{16} << 10;  // bytes

// As long as it is not out.
struct Piece {
    Piece* next;  // of those that were given back to the slab
};

// It stands at a multiple of its size, so that a piece leads to it, and takes the first of the
// places that it is cut into.
struct Slab {
    Slab* next;      // in the list; means nothing while the slab is not in it
    Slab* previous;  // as `next`
    Piece* free;     // given back
    uint32_t fresh;  // the first of the places that were never out
    uint32_t used;   // pieces that are out
};

static_assert(sizeof(Slab) <= kLine);

// By the lines of their pieces.
Slab* withRoom[kLargestPiece + 1];    // the list
Slab* emptySlabs[kLargestPiece + 1];  // the one that was emptied last; null

constexpr uint32_t placesOf(uint32_t lines)
{
    return static_cast<uint32_t>(kSlab / (lines * kLine));
}

constexpr uint32_t piecesOf(uint32_t lines)
{
    return placesOf(lines) - 1;
}

Slab* slabOf(void* piece)
{
    return reinterpret_cast<Slab*>(reinterpret_cast<uintptr_t>(piece) & ~uintptr_t{kSlab - 1});
}

void addToRoom(Slab* slab, uint32_t lines)
{
    slab->previous = nullptr;
    slab->next = withRoom[lines];
    if (slab->next != nullptr) {
        slab->next->previous = slab;
    }
    withRoom[lines] = slab;
}

void removeFromRoom(Slab* slab, uint32_t lines)
{
    (slab->previous != nullptr ? slab->previous->next : withRoom[lines]) = slab->next;
    if (slab->next != nullptr) {
        slab->next->previous = slab->previous;
    }
}

// Puts an empty slab into the list. Null when there is no memory for one.
Slab* addSlab(uint32_t lines)
{
    Slab* slab = emptySlabs[lines];
    emptySlabs[lines] = nullptr;
    if (slab == nullptr) {
        slab = static_cast<Slab*>(std::aligned_alloc(kSlab, kSlab));
    }
    if (slab != nullptr) {
        *slab = {nullptr, nullptr, nullptr, 1, 0};
        addToRoom(slab, lines);
    }
    return slab;
}
}  // namespace

void* rmalloc::newPiece(uint32_t lines)
{
    RM_ASSERT(lines >= 1 && lines <= kLargestPiece);
    Slab* slab = withRoom[lines] != nullptr ? withRoom[lines] : addSlab(lines);
    if (slab == nullptr) {
        return nullptr;
    }
    void* piece = slab->free;
    if (slab->free != nullptr) {
        slab->free = slab->free->next;
    } else {
        piece = reinterpret_cast<char*>(slab) + std::size_t{slab->fresh} * lines * kLine;
        ++slab->fresh;
    }
    ++slab->used;
    if (slab->used == piecesOf(lines)) {
        removeFromRoom(slab, lines);
    }
    return std::memset(piece, 0, lines * kLine);
}

void rmalloc::freePiece(void* piece, uint32_t lines)
{
    Slab* slab = slabOf(piece);
    RM_ASSERT(slab->used > 0);
    auto* freed = static_cast<Piece*>(piece);
    freed->next = slab->free;
    slab->free = freed;
    if (slab->used == piecesOf(lines)) {
        addToRoom(slab, lines);
    }
    --slab->used;
    if (slab->used == 0) {
        removeFromRoom(slab, lines);
        std::free(emptySlabs[lines]);
        emptySlabs[lines] = slab;
    }
}

void rmalloc::trimPieces()
{
    for (Slab*& slab : emptySlabs) {
        std::free(slab);
        slab = nullptr;
    }
}

namespace
{
uint32_t checkSlab(Slab* slab, uint32_t lines)
{
    const uint32_t places = placesOf(lines);
    uint32_t free = places - slab->fresh;
    for (Piece* piece = slab->free; piece != nullptr && free < places; piece = piece->next) {
        const auto offset = reinterpret_cast<uintptr_t>(piece) - reinterpret_cast<uintptr_t>(slab);
        const std::size_t fresh = std::size_t{slab->fresh} * lines * kLine;
        if (offset == 0 || offset >= fresh || offset % (lines * kLine) != 0) {
            return 1;  // it leads elsewhere
        }
        ++free;
    }
    return free != 0 && slab->used != 0 && free + slab->used == piecesOf(lines) ? 0 : 1;
}
}  // namespace

uint32_t rmalloc::checkPieces()
{
    uint32_t violations = 0;
    for (uint32_t lines = 1; lines <= kLargestPiece; ++lines) {
        const Slab* previous = nullptr;
        for (Slab* slab = withRoom[lines]; slab != nullptr; slab = slab->next) {
            if (slab->previous != previous) {
                return violations + 1;  // it may lead in a circle
            }
            violations += checkSlab(slab, lines);
            previous = slab;
        }
    }
    return violations;
}
