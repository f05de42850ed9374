// Global shared memory that comes and goes, and the FF bag.
//
// Why: whoever creates the next object meets the one that is there, and gets zeros when there is
// none. The tokens of the FF bag are in the bag, or in the hand of one worker, and come out in the
// order in which they went in.
//
// Deaths: an object whose maker has died before its deletion is met by the next one. A hand is read
// by the replacement, which puts the tokens back; what a death inside a push or a pop may have done
// to the bag, the parent puts right from the hands.
//
// Locks: kWorkspaceLock, kTokensLock.
#include "soak.h"

#include "rm.h"
#include "rm/ffbag.h"

#include <algorithm>
#include <cstring>

#include <sys/shm.h>

namespace soak
{
namespace
{
constexpr uint64_t kWorkspaceSeed = 77;

void startNothing() {}

// Deleted memory stays attached for as long as the process lives, so a life has not many of these;
// it is given back by the call that is the system's own.
void stepWorkspace()
{
    if (!enter(kWorkspaceLock)) {
        return;
    }
    WorkspaceBoard& workspace = board->workspace;
    const bool stale = workspace.stale != 0;
    void* address = nullptr;
    workspace.open.store(me + 1);
    const int16_t handle = rm_gshmCreate("workspace", kWorkspaceSize, &address);
    SOAK_CHECK(handle == 2, "the object has the handle %d", handle);
    auto* const bytes = static_cast<unsigned char*>(address);
    if (!stale) {
        SOAK_CHECK(std::all_of(bytes, bytes + kWorkspaceSize, [](int byte) { return byte == 0; }),
                   "new shared memory is not zero");
    }
    dawdle();
    fill(bytes, kWorkspaceSize, kWorkspaceSeed);
    SOAK_CHECK(isFilled(bytes, kWorkspaceSize, kWorkspaceSeed), "shared memory was changed");
    SOAK_CHECK(rm_gshmDelete(handle) == RM_SUCCESS, "the object is not deleted");
    SOAK_CHECK(isFilled(bytes, kWorkspaceSize, kWorkspaceSeed), "deleted memory was changed");
    shmdt(address);
    ++workspace.made;
    workspace.stale = 0;
    workspace.open.store(0);
    leave(kWorkspaceLock);
}

// --- The FF bag

void lookAt(const Token& token)
{
    const Token expected = tokenOf(token.number, token.turn);
    SOAK_CHECK(token.number < kTokens && token.sum == expected.sum, "token %u is damaged",
               token.number);
    SOAK_CHECK(token.turn > board->tokens.lastTurn, "token %u of turn %llu comes after turn %llu",
               token.number, static_cast<unsigned long long>(token.turn),
               static_cast<unsigned long long>(board->tokens.lastTurn));
}

void pop()
{
    WorkerBoard& worker = mine();
    const uint32_t held = worker.handCount.load();
    Token token = {};
    board->tokens.open.store(me + 1);
    const int16_t status = ffBagPop(tokenBag, &token);
    SOAK_CHECK(status == RM_SUCCESS, "a pop gives %d", status);
    dawdle();
    worker.hand[held] = token.number;
    worker.handCount.store(held + 1);
    board->tokens.open.store(0);
    lookAt(token);
    board->tokens.lastTurn = token.turn;
}

void push()
{
    WorkerBoard& worker = mine();
    const uint32_t held = worker.handCount.load();
    TokenBoard& tokens = board->tokens;
    ++tokens.turn;
    const Token token = tokenOf(worker.hand[held - 1], tokens.turn);
    tokens.open.store(me + 1);
    const int16_t status = ffBagPush(tokenBag, &token);
    SOAK_CHECK(status == RM_SUCCESS, "a push gives %d", status);
    dawdle();
    worker.handCount.store(held - 1);
    tokens.open.store(0);
}

uint32_t tokensOut()
{
    uint32_t out = 0;
    for (const WorkerBoard& worker : board->worker) {
        out += worker.handCount.load();
    }
    return out;
}

// Hands change under the lock only, so the sum is right here.
void stepTokens()
{
    if (!enter(kTokensLock)) {
        return;
    }
    const uint32_t held = mine().handCount.load();
    if (held < kHandSize && (held == 0 || plan.once(2))) {
        pop();
    } else {
        push();
    }
    if (plan.once(16)) {
        const auto* const area = reinterpret_cast<const ffbag::Area*>(
            static_cast<const char*>(tokenBag) - ffbag::kBagOffset);
        SOAK_CHECK(ffbag::checkFfBag(tokenBag) == 0, "the FF bag: %.300s", newLog().c_str());
        SOAK_CHECK(area->count + tokensOut() == kTokens, "%u tokens in the bag, %u out",
                   area->count, tokensOut());
    }
    leave(kTokensLock);
}

// The hand of the one whose place we take, and at the end our own.
void emptyHand()
{
    while (mine().handCount.load() != 0 && enter(kTokensLock)) {
        push();
        leave(kTokensLock);
    }
}
}  // namespace

Token tokenOf(uint32_t number, uint64_t turn)
{
    const uint64_t both[] = {number, turn};
    return {number, static_cast<uint32_t>(sumOf(both, sizeof both)), turn};
}

void sweepWorkspace()
{
    void* address = nullptr;
    const int16_t handle = rm_gshmCreate("workspace", kWorkspaceSize, &address);
    rm_gshmDelete(handle);
    shmdt(address);
}

const Family kSharedMemory = {"shared memory", 8,       startNothing, stepWorkspace,
                              nullptr,         nullptr, false};
const Family kFfBag = {"FF bag", 150, emptyHand, stepTokens, nullptr, emptyHand, false};

}  // namespace soak
