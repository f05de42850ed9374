// What the processes of a run tell each other: memory that they share from before the fork.
//
// Why: the parent must know how many updates each record has had, also when the worker that made
// them is dead, and it must know in the middle of what that worker died. Messages in a pipe would
// be lost with their sender's buffer; these words are there the moment they are written.
//
// Owns: one anonymous mapping. It has no name, so nothing of it can be left behind.
#include "board.h"

#include "console.h"
#include "journal.h"

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

void publishSettings(SharedSettings& shared, const Settings& settings)
{
    uint32_t words[kSettingsWords];
    std::memcpy(words, &settings, sizeof(words));
    const uint32_t next = shared.generation.load(std::memory_order_relaxed) + 1;
    // Whoever sees a word of the new copy sees by then that the one before is over.
    std::atomic_thread_fence(std::memory_order_release);
    for (std::size_t i = 0; i < kSettingsWords; ++i) {
        shared.words[next % 2][i].store(words[i], std::memory_order_relaxed);
    }
    shared.generation.store(next, std::memory_order_release);
}

uint32_t copySettings(const SharedSettings& shared, Settings& settings)
{
    uint32_t words[kSettingsWords];
    for (;;) {
        const uint32_t generation = shared.generation.load(std::memory_order_acquire);
        for (std::size_t i = 0; i < kSettingsWords; ++i) {
            words[i] = shared.words[generation % 2][i].load(std::memory_order_relaxed);
        }
        std::atomic_thread_fence(std::memory_order_acquire);
        if (shared.generation.load(std::memory_order_relaxed) == generation) {
            std::memcpy(&settings, words, sizeof(words));
            return generation;
        }
    }
}

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
    const int32_t available = rm_memoryAvail(tag);
    figures.memoryUsed = static_cast<int32_t>(tagLimit) - available;
    if (available < 0) {
        warn("its memory passes the limit of %u bytes by %d", tagLimit, -available);
    }
    publishCounters(figures.counter);
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
