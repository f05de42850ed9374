// Intents: what makes an update survive the death of its worker.
#ifndef CATALOGUE_INTENT_H
#define CATALOGUE_INTENT_H

#include "board.h"
#include "store.h"

#include <cstdint>
#include <string_view>

namespace catalogue
{

// Which update it is.
struct Update {
    uint32_t worker;  // index, from 0
    uint32_t record;
    uint32_t held;  // index in the worker's hand
    std::string_view note;
};

// Both under the lock of the bucket, the second one after the first.

// Says on the board what is about to be written: `change`, with the image in the store.
void declareUpdate(Board& board, const Store& store, const Update& update,
                   const SlotChange& change);

// Does it, and notes it on the board. With `dieHalfway` the process kills itself in the middle.
// False after having said why it could not be written.
bool carryOut(Board& board, Store& store, uint32_t worker, bool dieHalfway);

// The bucket of an update that has begun and not ended, of that worker; -1 when there is none.
int32_t bucketUnderChange(Board& board, uint32_t worker);

}  // namespace catalogue

#endif
