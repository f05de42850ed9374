// The sessions of a worker: who is talking to it.
#ifndef CATALOGUE_SESSIONS_H
#define CATALOGUE_SESSIONS_H

#include "rm.h"

#include <cstdint>

namespace catalogue
{

constexpr uint16_t kMostSessions = 16;  // open at a time; the one that was idle longest makes way

// One client's conversation. Plain data: it is copied into a slot of the bag, and moved with it.
struct Session {
    uint32_t client;      // number of the client, from 1: the key
    uint32_t lookups;     // requests that read
    uint32_t updates;     // requests that wrote
    uint32_t lastRecord;  // number of the record that was asked for last
    uint64_t lastUsed;    // number of the worker's request that was this client's last
};

// What has become of all of a worker's sessions. Plain data.
struct Sessions {
    Bag* open;
    uint64_t requests;  // begun by the worker
    uint32_t opened;
    uint32_t ended;    // by their clients
    uint32_t evicted;  // idle, to make room
    uint64_t lookups;  // of sessions that are no more
    uint64_t updates;
};

// Makes an empty table whose memory is in `tag`. A process has one.
void openSessions(Sessions& sessions, int16_t tag);

// The session of a client, opened if it has none. The handle is good until the session ends; an
// address is good until the next one is opened, so none is given.
uint16_t sessionOf(Sessions& sessions, uint32_t client);

// A session that is open; good until the next one is opened.
Session& sessionAt(Sessions& sessions, uint16_t handle);

// The client has gone.
void endSession(Sessions& sessions, uint16_t handle);

// Ends all of them. The figures of the table are then those of everything that was asked.
void closeSessions(Sessions& sessions);

}  // namespace catalogue

#endif
