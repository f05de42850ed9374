// The buffers of the requests.
//
// Why: every request needs room for its answer, of a size that the next one does not have. A pool
// keeps what was given back, so after the first few requests of a process no memory is taken or
// freed any more but for an answer that is larger than any before.
//
// Owns: a tag, and in it the pool and every buffer.
//
// Locks: one sync object, like the locks of the buckets, made before the fork. It would guard a
// pool that lies in common memory, or that threads share. Between processes like these it guards
// nothing: a worker has the parent's pool as it was at the fork, empty, and from then on a list of
// its own. In a server of your own of such processes, pass null for the name.
//
// Invariant: nobody holds a bucket's lock while he waits for the pool's, or the other way round.
//
// Fatal: no memory; the sync object has gone.
#include "buffers.h"

#include "console.h"
#include "counters.h"

#include "rm.h"

namespace catalogue
{
namespace
{
constexpr const char* kName = "buffers";  // the library keeps the pointer
constexpr uint32_t kTimeoutMs = 1000;     // as for a bucket: afterwards it looks at the board
constexpr int kTimeouts = 10;
constexpr uint32_t kExpected = 1;  // a process answers one request at a time; it limits nothing

RmPool* pool = nullptr;

// After a time-out: whether to try again.
Entered waitOn(const Board& board, int& timeouts)
{
    if (board.stop != 0) {
        return Entered::kStopped;
    }
    count(kLockTimeouts);
    if (++timeouts == kTimeouts) {
        complain("the lock \"%s\" was not free within %d s: its holder does not answer.", kName,
                 kTimeouts);
        return Entered::kGaveUp;
    }
    return Entered::kYes;
}
}  // namespace

void createBuffers()
{
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_setTagName("buffers", tag);
    pool = rm_allocPool(kExpected, tag, kName, kTimeoutMs);
}

Entered takeBuffer(uint32_t bytes, const Board& board, char*& buffer)
{
    Entered entered = Entered::kYes;
    int timeouts = 0;
    do {
        buffer = static_cast<char*>(rm_getFromPool(bytes, pool));
    } while (buffer == nullptr && (entered = waitOn(board, timeouts)) == Entered::kYes);
    count(kBuffers, buffer == nullptr ? 0 : 1);
    return entered;
}

Entered returnBuffer(char* buffer, const Board& board)
{
    Entered entered = Entered::kYes;
    int timeouts = 0;
    while (rm_putInPool(buffer, pool) == RM_TIMEOUT &&
           (entered = waitOn(board, timeouts)) == Entered::kYes) {
    }
    return entered;
}

int16_t buffersLock()
{
    return rm_syncOpen(kName);
}

void freeBuffers()
{
    if (rm_zFreePool(&pool) == RM_TIMEOUT) {
        complain("the lock \"%s\" is held, and no worker is there to hold it.", kName);
    }
}

}  // namespace catalogue
