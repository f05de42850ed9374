// The buffers of the requests.
#ifndef CATALOGUE_BUFFERS_H
#define CATALOGUE_BUFFERS_H

#include "board.h"
#include "locks.h"

#include <cstdint>

namespace catalogue
{

// Makes the pool of buffers and its lock. Call it once, in the parent, before it forks.
void createBuffers();

// Takes a buffer of at least `bytes` bytes, which hold whatever they held last.
Entered takeBuffer(uint32_t bytes, const Board& board, char*& buffer);

// Gives it back. Only kYes has done so.
Entered returnBuffer(char* buffer, const Board& board);

// The lock, for whoever frees those of dead workers.
int16_t buffersLock();

// Frees the pool. Only where every worker has ended, and the locks of those that were killed are
// freed.
void freeBuffers();

}  // namespace catalogue

#endif
