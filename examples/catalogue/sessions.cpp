// The sessions of a worker: who is talking to it.
//
// Why: a server knows its clients between two requests: what each has asked for, and when. They
// come and go all the time, and are asked for by their number and by the handle of their slot: that
// is a bag with a slot map, in which a handle stays good while others come and go.
//
// Owns: a bag of up to kMostSessions sessions, in the tag of the worker.
//
// Invariant: the bag has a slot more than there are sessions. A search, and an iteration forward,
// ends before the last slot, so nothing may be in it; the lowest hole is filled first, so nothing
// ever is. It follows too that the bag does not grow.
//
// Fatal: no memory, when the bag is made. Plain data only.
#include "sessions.h"

#include "counters.h"

#include <cstddef>

namespace catalogue
{
namespace
{
// The bag keeps a pointer to it. The tag is that of the process that makes the bag.
BagCtl control = {
    BAG_KEY_BINARY | BAG_SLOT_MAP,  // flags
    kMostSessions + 1,              // slots at first
    kMostSessions,                  // added by a growth that does not happen
    kMostSessions,                  // from which on it would double
    sizeof(Session),                // bytes of a slot
    0,                              // tag
    offsetof(Session, client),      // of the key
    sizeof(Session::client),        // bytes of the key
};

// Ends the session at the bag's position, and keeps its figures.
void end(Sessions& sessions)
{
    void* slot = nullptr;
    bagGetCurPtr(sessions.open, &slot);
    const auto& session = *static_cast<const Session*>(slot);
    sessions.lookups += session.lookups;
    sessions.updates += session.updates;
    bagDelete(sessions.open);
}

// Ends the session that was idle longest.
void makeRoom(Sessions& sessions)
{
    uint16_t idle = RM_NO_SLOT;
    uint64_t lastUsed = UINT64_MAX;
    for (int16_t status = bagFirst(sessions.open); status == RM_SUCCESS;
         status = bagNext(sessions.open)) {
        void* slot = nullptr;
        bagGetCurPtr(sessions.open, &slot);
        const auto& session = *static_cast<const Session*>(slot);
        if (session.lastUsed < lastUsed) {
            lastUsed = session.lastUsed;
            bagGetCurHandle(sessions.open, &idle);
        }
    }
    bagSetCurHandle(sessions.open, idle);
    end(sessions);
    ++sessions.evicted;
}
}  // namespace

void openSessions(Sessions& sessions, int16_t tag)
{
    sessions = {};
    control.tag = tag;
    bagCreate(&control, &sessions.open);
}

uint16_t sessionOf(Sessions& sessions, uint32_t client)
{
    uint16_t handle = RM_NO_SLOT;
    if (bagFind(sessions.open, &client, &handle, nullptr) != RM_SUCCESS) {
        if (sessions.open->usedCount == kMostSessions) {
            makeRoom(sessions);
        }
        const Session session = {client, 0, 0, 0, 0};
        bagAdd(sessions.open, &session);
        bagGetCurHandle(sessions.open, &handle);
        ++sessions.opened;
        count(kSessions);
    }
    sessionAt(sessions, handle).lastUsed = ++sessions.requests;
    return handle;
}

Session& sessionAt(Sessions& sessions, uint16_t handle)
{
    void* slot = nullptr;
    bagSetCurHandle(sessions.open, handle);
    bagGetCurPtr(sessions.open, &slot);
    return *static_cast<Session*>(slot);
}

void endSession(Sessions& sessions, uint16_t handle)
{
    bagSetCurHandle(sessions.open, handle);
    end(sessions);
    ++sessions.ended;
}

void closeSessions(Sessions& sessions)
{
    while (bagFirst(sessions.open) == RM_SUCCESS) {
        end(sessions);
    }
    bagDestroy(sessions.open);
    sessions.open = nullptr;
}

}  // namespace catalogue
