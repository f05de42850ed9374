// Slabs of pieces. What they are for: pieces.h.
#include "rm/rmalloc/pieces.h"

#include <cstdlib>
#include <cstring>

using namespace rmalloc;

namespace
{
constexpr std::size_t kSlab = std::size_t{16} << 10;  // bytes

struct Piece {
    Piece* next;  // that is free
};

// It stands at a multiple of its size, so that a piece leads to it, and takes the first of the
// places that it is cut into.
struct Slab {
    Slab* next;      // with room
    Slab* previous;  // with room
    Piece* free;     // given back
    uint32_t fresh;  // the first of the places that were never out
    uint32_t used;   // pieces that are out
};

static_assert(sizeof(Slab) <= kLine);

Slab* withRoom[kLargestPiece + 1];  // by the lines of their pieces

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

Slab* newSlab(uint32_t lines)
{
    auto* slab = static_cast<Slab*>(std::aligned_alloc(kSlab, kSlab));
    if (slab != nullptr) {
        *slab = {nullptr, nullptr, nullptr, 1, 0};
        addToRoom(slab, lines);
    }
    return slab;
}

void freeSlab(Slab* slab, uint32_t lines)
{
    removeFromRoom(slab, lines);
    std::free(slab);
}
}  // namespace

void* rmalloc::newPiece(uint32_t lines)
{
    Slab* slab = withRoom[lines] != nullptr ? withRoom[lines] : newSlab(lines);
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
    auto* freed = static_cast<Piece*>(piece);
    freed->next = slab->free;
    slab->free = freed;
    if (slab->used == piecesOf(lines)) {
        addToRoom(slab, lines);
    }
    --slab->used;
    const bool alone = slab->previous == nullptr && slab->next == nullptr;
    if (slab->used == 0 && !alone) {
        freeSlab(slab, lines);
    }
}

void rmalloc::trimPieces()
{
    for (uint32_t lines = 1; lines <= kLargestPiece; ++lines) {
        for (Slab* slab = withRoom[lines]; slab != nullptr;) {
            Slab* next = slab->next;
            if (slab->used == 0) {
                freeSlab(slab, lines);
            }
            slab = next;
        }
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
        if (offset == 0 || offset >= kSlab || offset % (lines * kLine) != 0) {
            return 1;  // it leads elsewhere
        }
        ++free;
    }
    return free != 0 && free + slab->used == piecesOf(lines) ? 0 : 1;
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
