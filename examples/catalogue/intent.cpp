// Intents: what makes an update survive the death of its worker.
//
// Why: a worker may be killed at any instruction, between two of the writes of an update or in the
// middle of one. The slot is neither the old nor the new one then, and the client may have been
// told nothing, or that it is done. So each worker writes down what it is going to write before it
// does, where it does not die with it. Whoever takes its place does all of it again.
//
// Order, which is what it rests on:
//   1  the bucket's lock is entered
//   2  the intent is filled, and then said to be valid
//   3  the writes to the file
//   4  what must be true of the record, and the progress of the job, as absolute values
//   5  the intent is no longer valid
//   6  the lock is left, and only then the client answered
// A death before the end of 2 has changed nothing, and one after 5 has lost nothing. In between,
// the lock stays held by the dead until 3 to 5 were done again, which may be interrupted and begun
// again as often as it likes: everything is written at the same place, with the same bytes.
//
// Locks: that of the bucket is held throughout.
//
// Fatal: a file that cannot be written.
#include "intent.h"

#include <cstring>

namespace catalogue
{

void declareUpdate(Board& board, const Store& store, const Update& update, const SlotChange& change)
{
    Intent& intent = intentOf(board, update.worker);
    intent.record = update.record;
    intent.held = update.held;
    intent.ticket = board.hand[update.worker].held[update.held].job.ticket;
    intent.noteBytes = static_cast<uint32_t>(update.note.copy(intent.note, kNoteRoom));
    intent.change = change;
    std::memcpy(imageOf(intent), store.image, change.bytes);
    intent.valid.store(1, std::memory_order_release);
}

bool carryOut(Board& board, Store& store, uint32_t worker, bool dieHalfway)
{
    Intent& intent = intentOf(board, worker);
    if (!applyChange(store, intent.change, imageOf(intent), dieHalfway)) {
        return false;
    }
    RecordState& state = recordState(board, intent.record);
    std::memcpy(state.note, intent.note, intent.noteBytes);
    state.noteBytes = intent.noteBytes;
    state.updates = intent.change.version - 1;
    Held& held = board.hand[worker].held[intent.held];
    held.version = intent.change.version;
    held.progress = Progress::kDone;
    intent.valid.store(0, std::memory_order_release);
    return true;
}

int32_t bucketUnderChange(Board& board, uint32_t worker)
{
    const Intent& intent = intentOf(board, worker);
    return intent.valid.load(std::memory_order_acquire) != 0
               ? static_cast<int32_t>(intent.change.bucket)
               : -1;
}

}  // namespace catalogue
