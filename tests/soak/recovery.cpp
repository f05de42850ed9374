// What a dead worker has left: changes half made, and locks.
//
// Why: a worker may be killed at any instruction. Under a lock that it held nobody else can be, so
// there is all the time to put right what the lock guards; the moment it is free the next one
// enters. So the order is: first the data, then the lock.
//
// Who: the parent alone, after waitpid. It waits for no lock, so nothing here is a call on a
// managed file, an INI file or a queue: the record is written by the calls below the managed files.
//
// What is not mended here: tokens in a hand, a message that was begun, the worker's files and its
// setting. The replacement sees to them.
#include "soak.h"

#include "rm.h"
#include "rm/rmutil/rmutil.h"

#include <algorithm>

namespace soak
{
namespace
{
uint32_t recovered = 0;

// The record is written again from the beginning, whatever of it had arrived.
void redoRecord(uint32_t index)
{
    RecordBoard& records = board->records;
    if (records.open.load() != index + 1) {
        return;
    }
    const Record& image = records.image;
    int32_t fd = -1;
    constexpr int32_t kSize = sizeof image;
    const auto offset = static_cast<int32_t>(image.slot) * kSize;
    const bool written = rm_flOpen(kRecordFile, RM_O_RDWR | RM_O_CREAT, 0, 0600, &fd) == 0 &&
                         rm_flSeek(fd, offset, 0, nullptr) == 0 &&
                         rm_flWrite(fd, &image, kSize) == kSize;
    SOAK_CHECK(written && isWhole(image), "record %u of dead worker %u cannot be written again",
               image.slot, index);
    rm_flClose(fd);
    records.version[image.slot] = image.version;
    records.used = std::max(records.used, image.slot + 1);
    records.written[index] = records.writtenAfter;
    ++records.redone;
    records.open.store(0);
}

void undoTransfer(uint32_t index)
{
    AccountBoard& accounts = board->accounts;
    if (accounts.open.load() != index + 1) {
        return;
    }
    accounts.balance[accounts.from] = accounts.fromBefore;
    accounts.balance[accounts.to] = accounts.toBefore;
    accounts.made[index] = accounts.madeBefore;
    ++accounts.undone;
    accounts.open.store(0);
}

// The hands are right at every moment, so the bag gets whatever is in none of them.
void refillBag(uint32_t index)
{
    TokenBoard& tokens = board->tokens;
    if (tokens.open.load() != index + 1) {
        return;
    }
    Token token = {};
    uint32_t popped = 0;
    while (popped <= UINT16_MAX && ffBagPop(tokenBag, &token) == RM_SUCCESS) {
        ++popped;
    }
    bool out[kTokens] = {};
    for (const WorkerBoard& worker : board->worker) {
        std::for_each_n(worker.hand, worker.handCount.load(),
                        [&out](uint32_t number) { out[number] = true; });
    }
    for (uint32_t number = 0; number < kTokens; ++number) {
        if (!out[number]) {
            token = tokenOf(number, ++tokens.turn);
            SOAK_CHECK(ffBagPush(tokenBag, &token) == RM_SUCCESS, "the bag takes no token %u",
                       number);
        }
    }
    ++tokens.refills;
    tokens.open.store(0);
}

// What was read may have gone with its reader.
void noteStrays(uint32_t index)
{
    for (QueueBoard& queue : board->queue) {
        if (queue.open.load() == index + 1) {
            ++queue.strays;
            queue.open.store(0);
        }
    }
    WorkspaceBoard& workspace = board->workspace;
    if (workspace.open.load() == index + 1) {
        workspace.stale = 1;
        workspace.open.store(0);
    }
}

void freeLock(int16_t handle)
{
    recovered += static_cast<uint32_t>(rm_syncRecover(handle));
}
}  // namespace

void recover(uint32_t index)
{
    redoRecord(index);
    undoTransfer(index);
    refillBag(index);
    noteStrays(index);
    for (std::atomic<uint32_t>& inside : board->inside) {
        uint32_t dead = index + 1;
        inside.compare_exchange_strong(dead, 0);
    }
    for (const int16_t lock : locks) {
        freeLock(lock);
    }
    freeLock(fileSem);
    freeLock(growSem);
    freeLock(sharedPool->lock);
}

uint32_t locksRecovered()
{
    return recovered;
}

}  // namespace soak
