// The objects of a place, as the system shows them. Nothing is changed by looking.
#ifndef RMIPC_SURVEY_H
#define RMIPC_SURVEY_H

#include "place.h"
#include "process.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace rmipc
{

enum class Sight {
    kSeen,
    kPartly,   // it may not be read; what /proc/sysvipc shows to everybody is there
    kForeign,  // of another shape than the library makes
};

enum class Verdict {
    kUsed,     // somebody lives who uses it
    kDoubt,    // nobody was seen, but somebody may
    kLeft,     // nobody that could be seen lives
    kForeign,  // not the library's: never touched
};

// What all kinds of objects have.
struct Object {
    Family family = kSemaphores;
    int slot = 0;  // of a set: 0
    int id = 0;
    key_t key = 0;
    uid_t owner = 0;
    uid_t creator = 0;
    unsigned mode = 0;
    Sight sight = Sight::kSeen;
    Verdict verdict = Verdict::kLeft;
    std::string reason;  // of the verdict, in words
};

struct Semaphore {
    int value = 0;
    int toEnter = 0;  // processes that wait to take one
    int toPass = 0;   // processes that wait for 0
    pid_t last = 0;   // who operated on it last
};

struct SemaphoreSet : Object {
    int64_t used = 0;     // last operation on any of them; 0 for none
    int64_t changed = 0;  // made, or changed otherwise
    uint64_t size = 0;
    std::vector<Semaphore> semaphores;  // none unless seen
};

struct Bag {
    unsigned capacity;
    unsigned count;
    unsigned elementSize;
};

struct Segment : Object {
    uint64_t bytes = 0;
    uint64_t attached = 0;
    pid_t maker = 0;
    pid_t last = 0;
    int64_t attachedAt = 0;
    int64_t detachedAt = 0;
    int64_t changed = 0;
    bool removed = false;           // marked: it goes with the last process that has it
    std::vector<pid_t> users = {};  // processes that have it, as far as they may be looked at
    std::optional<Bag> bag = {};
};

struct Queue : Object {
    uint64_t messages = 0;
    uint64_t bytes = 0;
    std::optional<uint64_t> limit;  // bytes
    pid_t sender = 0;
    pid_t reader = 0;
    int64_t sent = 0;
    int64_t received = 0;
    int64_t changed = 0;
};

struct Survey {
    Place place;
    std::optional<SemaphoreSet> set = {};
    std::vector<Segment> segments = {};
    std::vector<Queue> queues = {};
    std::array<std::vector<pid_t>, kFamilies> holders = {};  // of the token files
    std::array<Verdict, kFamilies> tokens = {};              // what is to be thought of them
    std::size_t unseen = 0;  // processes that could not be looked at
    bool hidden = false;     // there are others that were not even counted
};

// `bags`: segments are attached, to be read, for a moment. That changes who used them last.
Survey lookAround(const Place& place, const Scan& scan, bool bags);

// Objects by their numbers; nothing when there is none. `slot` and the family are the caller's.
std::optional<SemaphoreSet> readSet(int id);
std::optional<Segment> readSegment(int id);
std::optional<Queue> readQueue(int id);

// The number of the object that has the key; -1 with errno for none.
int idOf(Family family, key_t key);

// The bag that the bytes at the beginning of a segment describe, when they can be those of one.
std::optional<Bag> bagIn(const unsigned char* area, uint64_t bytes);

}  // namespace rmipc

#endif
