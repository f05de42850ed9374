// rmipc limits: whether the machine lets a server have what the library makes.
#ifndef RMIPC_MACHINE_H
#define RMIPC_MACHINE_H

#include "options.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rmipc
{

// What the machine has.
struct Limits {
    // Of semaphores, in the order of kernel.sem: of a set, of all, steps of an operation, sets.
    std::optional<uint64_t> semmsl, semmns, semopm, semmni;
    std::optional<uint64_t> semvmx;                                     // the greatest value
    std::optional<uint64_t> shmmax, shmall, shmmni;                     // bytes, pages, segments
    std::optional<uint64_t> msgmax, msgmnb, msgmni;                     // bytes, bytes, queues
    std::optional<uint64_t> sets, semaphores, pages, segments, queues;  // in use
    uint64_t pageSize = 4096;
};

struct Check {
    std::string name;
    std::string what;  // in words
    std::optional<uint64_t> value;
    std::optional<uint64_t> used;
    uint64_t needed;     // with what is in use
    std::string advice;  // when it is too low; empty otherwise

    bool known() const { return value.has_value(); }

    bool isEnough() const { return value && *value >= needed; }
};

std::vector<Check> check(const Limits& limits, const Options& options);

// The settings that would be enough, as sysctl takes them.
std::vector<std::string> settingsFor(const Limits& limits, const std::vector<Check>& checks);

Limits readLimits(const std::string& proc);

int checkLimits(const Options& options);

}  // namespace rmipc

#endif
