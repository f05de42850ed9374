// Where the objects of a server are found: the prefix, its token files, and the keys made from
// them.
#ifndef RMIPC_PLACE_H
#define RMIPC_PLACE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace rmipc
{

enum Family : std::size_t { kSemaphores, kSegments, kQueues };

constexpr std::size_t kFamilies = 3;
constexpr std::array<Family, kFamilies> kEachFamily = {kSemaphores, kSegments, kQueues};

constexpr int kSetSize = 20;  // semaphores of a set
constexpr int kSegmentSlots = 20;
constexpr int kQueueSlots = 5;
constexpr unsigned kMode = 0777;  // with which the library makes all objects

// A slot's key is made with its number and 1; the set has the key of the first.
constexpr std::array<int, kFamilies> kKeys = {1, kSegmentSlots, kQueueSlots};

constexpr std::array<std::string_view, kFamilies> kTokenFiles = {".ZNT.RM.SEM", ".ZNT.RM.MEM",
                                                                 ".ZNT.RM.QUEUE"};

// The library keeps so many bytes of a prefix.
constexpr std::size_t kMostOfPrefix = 31;

// What ftok() takes of a file: 16 bits of its number and 8 of its device's. Another file may have
// the same.
uint32_t keyBase(dev_t device, ino_t number);

constexpr key_t keyOf(uint32_t base, int slot)
{
    return static_cast<key_t>(base | static_cast<uint32_t>(slot + 1) << 24);
}

enum class TokenState {
    kAbsent,
    kPresent,
    kUnusable,  // a link or a directory: the library refuses it, and it stays untouched here
    kUnknown,   // cannot be asked about
};

struct Token {
    std::string path;
    TokenState state = TokenState::kAbsent;
    std::string trouble;  // in words, of the last two states
    dev_t device = 0;
    ino_t number = 0;
    std::optional<uint32_t> base;  // of the keys; none without a file
};

Token lookAt(const std::string& path);

// A prefix as it was understood.
struct Place {
    std::string given;
    std::string prefix;  // stands before the names of the token files
    std::string note;    // why it is not the one that was given, or that there is another; or empty
    std::array<Token, kFamilies> tokens;

    bool anyToken() const;
    bool anyTrouble() const;
};

// A prefix is taken as it is. Where that leads to no token file, the directory of that name is
// tried, then what the library would keep of it.
Place understand(const std::string& given);

}  // namespace rmipc

#endif
