// What the processes of a run tell each other: memory that they share from before the fork.
//
// Why: the parent must know how many updates each record has had, also when the worker that made
// them is dead, and it must know in the middle of what that worker died. Messages in a pipe would
// be lost with their sender's buffer; these words are there the moment they are written.
//
// Owns: one anonymous mapping. It has no name, so nothing of it can be left behind.
#include "board.h"

#include "console.h"

#include "rm.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include <sys/mman.h>

namespace catalogue
{
namespace
{
void* mapShared(std::size_t bytes)
{
    void* area = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return area == MAP_FAILED ? nullptr : area;
}
}  // namespace

FileMoves fileMoves()
{
    FileMoves moves = {};
    rm_fileCounts(nullptr, nullptr, &moves.parkings, &moves.reopens);
    return moves;
}

void noteResources(Figures& figures, const FileMoves& before, int16_t tag, uint32_t tagLimit)
{
    uint32_t open = 0;
    uint32_t parked = 0;
    rm_fileCounts(&open, &parked, nullptr, nullptr);
    figures.filesOpen = open;
    figures.filesParked = parked;
    const FileMoves now = fileMoves();
    figures.parkings = now.parkings - before.parkings;
    figures.reopens = now.reopens - before.reopens;
    figures.memoryUsed = static_cast<int32_t>(tagLimit) - rm_memoryAvail(tag);
}

Board* makeBoard(uint32_t records)
{
    void* board = mapShared(sizeof(Board));
    void* updates = mapShared(records * sizeof(std::atomic<uint32_t>));
    if (board == nullptr || updates == nullptr) {
        complain("cannot map memory for %u records: %s", records, std::strerror(errno));
        return nullptr;
    }
    auto* const made = new (board) Board();
    made->updatesOf = static_cast<std::atomic<uint32_t>*>(updates);
    std::uninitialized_value_construct_n(made->updatesOf, records);
    return made;
}

}  // namespace catalogue
