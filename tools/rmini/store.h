// The calls of the library. Nothing here or above on the stack may own anything while they run: a
// fatal error jumps to the target of main, and no destructor runs.
#ifndef RMINI_STORE_H
#define RMINI_STORE_H

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace rmini
{

// Sets up the library for a process that works alone; `target` is that of fatal errors.
void openStore(jmp_buf target);

enum class Got {
    kAll,
    kFull,  // it filled the buffer, so it may have been cut
    kNothing,
};

// The value of a key. Valid until the next call.
Got getValue(const char* section, const char* key, const char* path, std::string_view& value);

// The sections of a file with a null section, the entries of a section otherwise: texts, each with
// a zero behind it. Valid until the next call.
Got getList(const char* section, bool withValues, const char* path, std::string_view& list);

// Sets an entry, deletes one with a null value, deletes a section with a null key. What
// rm_iniSetPrivate gives.
int16_t change(const char* section, const char* key, const char* value, const char* path);

// Lines that the library's reader gives before it meets the end of the file.
std::size_t countReadable(const char* path);

// What the library logged in the call that made the process end here, or in the last one.
const char* librarySaid();

// At the fatal target: standard error is ours again.
void leaveLibrary();

}  // namespace rmini

#endif
