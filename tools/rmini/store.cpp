// The calls of the library.
//
// Why: all of them in one file, so that the rule of jumps can be seen to be kept: every frame here
// holds scalars, arrays and views, and what they give is views of static memory.
//
// Owns: the buffer of answers; what the library has logged.
//
// The log lines of the library go to standard error, where they would stand between messages that
// say the same in other words. They are kept, and printed with the message when something failed.
//
// Locks: a process alone needs none, so the two of the file layer are the null object, and no
// semaphores and no token file are made. Files of one directory are changed in turn, by a lock that
// the library takes.
//
// Fatal: no memory.
#include "store.h"

#include "document.h"

#include "rm.h"

#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace rmini
{
namespace
{
constexpr int16_t kBufferSize = 32767;            // the largest that the interface can be told
static_assert(kBufferSize == kLongestValue + 2);  // of values the last byte stays unused
constexpr char kUntouched = '\xFF';

char buffer[kBufferSize];
char said[4096];
int errorOutput = -1;  // standard error, while the library has another one
int saidFile = -1;

// The library gets a file for its log.
void enterLibrary()
{
    if (saidFile == -1) {
        saidFile = memfd_create("rmini", MFD_CLOEXEC);
    }
    if (saidFile == -1 || ftruncate(saidFile, 0) != 0 || lseek(saidFile, 0, SEEK_SET) != 0) {
        return;
    }
    errorOutput = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (errorOutput != -1) {
        dup2(saidFile, STDERR_FILENO);
    }
}

// A change that is interrupted could leave its copy behind: signals of the terminal wait for it.
sigset_t endSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signalNumber : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaddset(&set, signalNumber);
    }
    return set;
}
}  // namespace

void openStore(jmp_buf target)
{
    rm_errorJump(target);
    rm_setForegroundThread();
    fileSem = RM_NULL_SYNC;
    growSem = RM_NULL_SYNC;
}

Got getValue(const char* section, const char* key, const char* path, std::string_view& value)
{
    enterLibrary();
    const int16_t result = rm_iniGetPrivate(section, key, buffer, kBufferSize, 1, path);
    leaveLibrary();
    if (result != RM_SUCCESS) {
        return Got::kNothing;
    }
    value = buffer;
    return value.size() >= kLongestValue ? Got::kFull : Got::kAll;
}

Got getList(const char* section, bool withValues, const char* path, std::string_view& list)
{
    // Names may be empty, so two zeros do not tell the end of a list. The last one that the library
    // has written does.
    std::memset(buffer, kUntouched, sizeof(buffer));
    enterLibrary();
    const int16_t result =
        rm_iniGetPrivate(section, nullptr, buffer, kBufferSize, withValues ? 1 : 0, path);
    leaveLibrary();
    if (result != RM_SUCCESS) {
        return Got::kNothing;
    }
    std::size_t end = sizeof(buffer) - 1;
    while (buffer[end] != '\0') {
        --end;
    }
    list = std::string_view(buffer, end);
    return end == sizeof(buffer) - 1 ? Got::kFull : Got::kAll;
}

int16_t change(const char* section, const char* key, const char* value, const char* path)
{
    const sigset_t signals = endSignals();
    sigset_t before;
    sigprocmask(SIG_BLOCK, &signals, &before);
    enterLibrary();
    const int16_t result = rm_iniSetPrivate(section, key, value, path);
    leaveLibrary();
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return result;
}

std::size_t countReadable(const char* path)
{
    enterLibrary();
    std::size_t count = 0;
    if (FileStream* stream = rm_fileStreamOpen(path, "r"); stream != nullptr) {
        char* line = nullptr;
        uint32_t size = 0;
        while (rm_fileStreamGetLine(stream, &line, &size) != nullptr) {
            ++count;
        }
        rm_freeMemory(line, 0);
        rm_fileStreamClose(stream);
    }
    leaveLibrary();
    return count;
}

const char* librarySaid()
{
    return said;
}

void leaveLibrary()
{
    if (errorOutput == -1) {
        return;
    }
    std::fflush(stderr);
    dup2(errorOutput, STDERR_FILENO);
    close(errorOutput);
    errorOutput = -1;
    const ssize_t length = pread(saidFile, said, sizeof(said) - 1, 0);
    said[length > 0 ? length : 0] = '\0';
}

}  // namespace rmini
