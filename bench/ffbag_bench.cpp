// The FF bag against a ring of the same shape that a host would write for itself: in shared memory,
// a head with capacity, count, next and element size, behind it the elements, of a size that is
// known at run time, memcpy in and out. It stands behind a call, as a module of a host would.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <cstdint>
#include <cstring>
#include <vector>

#include <sys/ipc.h>
#include <sys/shm.h>

namespace
{
constexpr uint16_t kCapacity = 1024;

struct Ring {
    uint32_t reserved;
    uint16_t capacity;
    uint16_t count;
    uint16_t next;
    uint16_t elementSize;
    uint32_t alsoReserved;
    char slots[1];  // and on
};

[[gnu::noinline]] int pushToRing(Ring* ring, const void* element)
{
    if (ring->count >= ring->capacity) {
        return RM_FULL;
    }
    std::memcpy(&ring->slots[std::size_t{ring->next} * ring->elementSize], element,
                ring->elementSize);
    const unsigned next = ring->next + 1U;
    ring->next = static_cast<uint16_t>(next < ring->capacity ? next : 0);
    ++ring->count;
    return RM_SUCCESS;
}

[[gnu::noinline]] int popFromRing(Ring* ring, void* buffer)
{
    if (ring->count == 0) {
        return RM_NO_ELEMENT;
    }
    const unsigned slot = ring->next < ring->count
                              ? unsigned{ring->capacity} + ring->next - ring->count
                              : unsigned{ring->next} - ring->count;
    std::memcpy(buffer, &ring->slots[std::size_t{slot} * ring->elementSize], ring->elementSize);
    --ring->count;
    return RM_SUCCESS;
}

// One iteration is a push and a pop, with the ring half full: both ends go round.
template <typename Push, typename Pop>
void halfFull(benchmark::State& state, Push push, Pop pop)
{
    std::vector<char> element(static_cast<std::size_t>(state.range(0)), 'e');
    for (int i = 0; i < kCapacity / 2; ++i) {
        rmbench::must(push(element.data()) == RM_SUCCESS, "push");
    }
    for (auto _ : state) {
        const int pushed = push(element.data());
        const int popped = pop(element.data());
        if (pushed != RM_SUCCESS || popped != RM_SUCCESS) {
            state.SkipWithError("the ring is full or empty");
            break;
        }
    }
}

void ours(benchmark::State& state)
{
    void* bag = nullptr;
    void* area = nullptr;
    ffBagCreate(kCapacity, static_cast<uint16_t>(state.range(0)), &bag, &area);
    halfFull(
        state, [bag](const void* element) { return ffBagPush(bag, element); },
        [bag](void* buffer) { return ffBagPop(bag, buffer); });
    rm_gshmTerminate();
}

void bare(benchmark::State& state)
{
    const auto elementSize = static_cast<uint16_t>(state.range(0));
    const int segment =
        shmget(IPC_PRIVATE, sizeof(Ring) + std::size_t{kCapacity} * elementSize, IPC_CREAT | 0600);
    rmbench::must(segment != -1, "shmget");
    auto* ring = static_cast<Ring*>(shmat(segment, nullptr, 0));
    shmctl(segment, IPC_RMID, nullptr);
    *ring = {0, kCapacity, 0, 0, elementSize, 0, {}};
    halfFull(
        state, [ring](const void* element) { return pushToRing(ring, element); },
        [ring](void* buffer) { return popFromRing(ring, buffer); });
    shmdt(ring);
}
}  // namespace

void rmbench::addFfBagPairs()
{
    constexpr double kLimit = 1.5;
    for (const long bytes : {16L, 64L, 512L}) {
        addPair("FF bag: push, pop " + std::to_string(bytes) + " bytes", "memcpy ring", kLimit,
                ours, bare, bytes);
    }
}
