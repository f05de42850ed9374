// The local environment: settings of this process that come before its environment.
//
// Why: settings that a server takes from its configuration file must have the same effect as if
// they had been set in the environment, at once and in this process only. The environment itself
// is not touched: other code reads it by pointers that a change would pull away.
//
// Owns: an array of texts NAME=value under tag 0. It only grows; a slot may be null.
//
// Invariant: every entry is upper case as a whole, the value included. checkLocalEnv() tests it.
//
// Fatal: no memory. The array is complete whenever that can happen.
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/rmutil/rmutil.h"
#include "rm/txtutil/txtutil.h"

#include <cstring>
#include <limits>

namespace rmutil
{
char** LocalEnv = nullptr;
uint16_t NumLocalEnv = 0;
}  // namespace rmutil

using namespace rmutil;

namespace
{
constexpr std::size_t kNameSize = 128;  // bytes of a name in a lookup, terminator included

// The slot of the first entry that begins with the `length` bytes at `name`, or NumLocalEnv.
// Deliberate: no "=" is asked for behind them, so putting PATH=x replaces an entry PATHLIST=y that
// stands first. `*firstNull` is the first empty slot met before that, or NumLocalEnv.
uint16_t findPrefix(const char* name, std::size_t length, uint16_t* firstNull)
{
    *firstNull = NumLocalEnv;
    for (uint16_t slot = 0; slot < NumLocalEnv; ++slot) {
        if (LocalEnv[slot] == nullptr) {
            if (*firstNull == NumLocalEnv) {
                *firstNull = slot;
            }
        } else if (std::strncmp(LocalEnv[slot], name, length) == 0) {
            return slot;
        }
    }
    return NumLocalEnv;
}

void append(char* entry)
{
    if (NumLocalEnv == std::numeric_limits<uint16_t>::max()) {
        rmsrv::outOfMemory();  // slots are counted in 16 bits
    }
    const auto bytes = static_cast<uint32_t>((NumLocalEnv + std::size_t{1}) * sizeof(char*));
    auto** longer = static_cast<char**>(rm_extendMemory(LocalEnv, bytes, 0));
    if (longer == nullptr) {
        rm_freeMemory(entry, 0);  // the array's header is damaged; the log has its warning
        return;
    }
    LocalEnv = longer;
    LocalEnv[NumLocalEnv] = entry;
    ++NumLocalEnv;
}
}  // namespace

void rm_putLocalEnv(const char* text)
{
    if (text == nullptr) {
        return;
    }
    char* copy = StrUpper(rm_Strdup(text, 0));
    const std::size_t nameLength = std::strcspn(copy, "=");
    uint16_t firstNull = 0;
    const uint16_t match = findPrefix(copy, nameLength, &firstNull);
    if (match < NumLocalEnv) {
        char* old = LocalEnv[match];
        LocalEnv[match] = copy;
        rm_freeMemory(old, 0);
    } else if (firstNull < NumLocalEnv) {
        LocalEnv[firstNull] = copy;
    } else {
        append(copy);
    }
}

char* rm_getLocalEnv(const char* name)
{
    if (name == nullptr) {
        return nullptr;
    }
    const std::size_t length = std::strlen(name);
    char upperName[kNameSize];
    StrUpper(StrncpyZ(upperName, name, sizeof(upperName)));
    if (length >= sizeof(upperName)) {
        return nullptr;  // compared over its full length, a name that was cut matches nothing
    }
    for (uint16_t slot = 0; slot < NumLocalEnv; ++slot) {
        char* entry = LocalEnv[slot];
        if (entry != nullptr && std::strncmp(entry, upperName, length) == 0 &&
            entry[length] == '=') {
            return entry + length + 1;
        }
    }
    return nullptr;
}

char* rm_getenv(const char* name)
{
    if (name == nullptr) {
        return nullptr;
    }
    char* value = rm_getLocalEnv(name);
    return value != nullptr ? value : rm_OSgetenv(name);
}

void rmutil::forgetLocalEnv()
{
    LocalEnv = nullptr;
    NumLocalEnv = 0;
}

uint32_t rmutil::checkLocalEnv()
{
    uint32_t violations = 0;
    if ((LocalEnv == nullptr) != (NumLocalEnv == 0)) {
        ++violations;
        rm_systemLogWrite("WARNING: local environment: %d slots at %p", NumLocalEnv,
                          static_cast<void*>(LocalEnv));
        return violations;
    }
    for (uint16_t slot = 0; slot < NumLocalEnv; ++slot) {
        const char* at = LocalEnv[slot];
        while (at != nullptr && *at != '\0' && !txtutil::isLower(*at)) {
            ++at;
        }
        if (at != nullptr && *at != '\0') {
            ++violations;
            rm_systemLogWrite("WARNING: local environment: slot %d is not upper case", slot);
        }
    }
    return violations;
}
