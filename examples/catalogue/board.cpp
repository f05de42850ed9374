// What the processes of a run tell each other: memory that they share.
//
// Why: the parent must know how many updates each record has had, also when the worker that made
// them is dead, and a worker that takes the place of a dead one must know in the middle of what
// that one died. Messages would be lost with their sender; these words are there the moment they
// are written.
//
// Owns: the first segment of global shared memory, so that a client, which inherits nothing, finds
// its head there. Records and intents stand behind the board, by offsets: the segment is not at the
// same address for everybody.
//
// Fatal: no segment of that size.
#include "board.h"

#include "journal.h"

#include "rm.h"

#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr uint64_t kAlignment = 64;  // so that two processes do not share a line of the cache

constexpr uint64_t aligned(uint64_t bytes)
{
    return (bytes + kAlignment - 1) / kAlignment * kAlignment;
}

struct Places {
    uint64_t records;
    uint64_t intents;
    uint64_t stride;
    uint64_t bytes;
};

Places placesOf(uint32_t records, uint32_t largest)
{
    Places places = {};
    places.records = aligned(sizeof(Board));
    places.intents = aligned(places.records + records * sizeof(RecordState));
    places.stride = aligned(sizeof(Intent) + imageSize(largest));
    places.bytes = places.intents + kMaxWorkers * places.stride;
    return places;
}

char* at(Board& board, uint64_t offset)
{
    return reinterpret_cast<char*>(&board) + offset;
}
}  // namespace

void publishSettings(Board& board, const Settings& settings)
{
    SharedSettings& shared = board.settings;
    uint32_t words[kSettingsWords];
    std::memcpy(words, &settings, sizeof(words));
    const uint32_t next = shared.generation.load(std::memory_order_relaxed) + 1;
    // Whoever sees a word of the new copy sees by then that the one before is over.
    std::atomic_thread_fence(std::memory_order_release);
    for (std::size_t i = 0; i < kSettingsWords; ++i) {
        shared.words[next % 2][i].store(words[i], std::memory_order_relaxed);
    }
    shared.generation.store(next, std::memory_order_release);
    board.head.figures.generation = next;
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

RecordState& recordState(Board& board, uint32_t record)
{
    return reinterpret_cast<RecordState*>(at(board, board.recordsAt))[record];
}

const RecordState& recordState(const Board& board, uint32_t record)
{
    return recordState(const_cast<Board&>(board), record);
}

Intent& intentOf(Board& board, uint32_t worker)
{
    return *reinterpret_cast<Intent*>(at(board, board.intentsAt + worker * board.intentStride));
}

char* imageOf(Intent& intent)
{
    return reinterpret_cast<char*>(&intent + 1);
}

uint64_t boardBytes(uint32_t records, uint32_t largest)
{
    return placesOf(records, largest).bytes;
}

Board* makeBoard(uint32_t records, uint32_t largest)
{
    const Places places = placesOf(records, largest);
    void* area = nullptr;
    rm_gshmCreate(kBoardName, static_cast<uint32_t>(places.bytes), &area);
    auto* const board = new (area) Board();
    board->recordsAt = places.records;
    board->intentsAt = places.intents;
    board->intentStride = places.stride;
    board->imageRoom = imageSize(largest);
    std::uninitialized_value_construct_n(&recordState(*board, 0), records);
    for (uint32_t i = 0; i < kMaxWorkers; ++i) {
        new (&intentOf(*board, i)) Intent();
    }
    board->head.layout = kBoardLayout;
    board->head.headBytes = sizeof(BoardHead);
    board->head.boardBytes = places.bytes;
    board->head.figures.pid = getpid();
    board->head.figures.started = std::time(nullptr);
    board->head.figures.records = records;
    board->head.figures.window = kWindow;
    return board;
}

void openBoard(Board& board)
{
    board.head.magic.store(kBoardMagic, std::memory_order_release);
}

}  // namespace catalogue
