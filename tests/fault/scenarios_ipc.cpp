// Shared memory, sync objects, message queues.
#include "scenario.h"

#include <cstring>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fault
{

namespace
{

void shareMemory()
{
    RM(rm_tokenName)("p");
    void* first = nullptr;
    void* second = nullptr;
    const int16_t one = RM_HANDLE(rm_gshmCreate, ("first", 1000, &first));
    const int16_t two = RM_HANDLE(rm_gshmCreate, ("second", 5000, &second));
    expect(one == 0 && two == 1, "effect", "handles %d and %d", one, two);
    std::memset(first, 1, 1000);
    std::memset(second, 2, 5000);
    expect(static_cast<char*>(first)[999] == 1, "effect", "the memory does not keep its bytes");
    static_cast<void>(RM_STATUS(rm_gshmDelete, (one), 0));
    void* third = nullptr;
    expect(RM_HANDLE(rm_gshmCreate, ("third", 10, &third)) == 0, "effect", "no free slot is used");
    static_cast<void>(RM_STATUS(rm_gshmTerminate, (), 0));
}

void useLocks()
{
    const int16_t lock = RM_HANDLE(rm_syncCreate, ("lock"));
    const int16_t event = RM_HANDLE(rm_syncCreate, ("event"));
    expect(RM_HANDLE(rm_syncOpen, ("event")) == event, "effect", "the event is not found");
    if (RM_STATUS(rm_syncEnterExcl, (lock, 3000), 0, RM_TIMEOUT) == 0) {
        // Held by this process: a second entry times out.
        const int64_t before = elapsedMs();
        const int16_t again = RM(rm_syncEnterExcl)(lock, 1500);
        expect(again == RM_TIMEOUT, "effect", "a held lock was entered");
        expectWithoutFault(elapsedMs() - before >= 2000, "the time-out is not two seconds");
        static_cast<void>(RM_STATUS(rm_syncExitExcl, (lock), 0));
    }
    if (RM_STATUS(rm_syncEnterExcl, (lock, RM_WAIT_FOREVER), 0, RM_TIMEOUT) == 0) {
        static_cast<void>(RM_STATUS(rm_syncExitExcl, (lock), 0));
    }
    expectWithoutFault(RM(rm_syncWait)(event, 500) == RM_TIMEOUT, "an event that is reset woke");
    static_cast<void>(RM_STATUS(rm_syncResume, (event), 0));
    static_cast<void>(RM_STATUS(rm_syncWait, (event, 1000), 0, RM_TIMEOUT));
    static_cast<void>(RM_STATUS(rm_syncResume, (event), 0));
    static_cast<void>(RM_STATUS(rm_syncStart, (event), 0));
    RM(catchAlarm)(SIGALRM);
    static_cast<void>(RM_STATUS(rm_syncDelete, (event), 0));
    static_cast<void>(RM_STATUS(rm_syncRecover, (lock), 0));
    static_cast<void>(RM_STATUS(rm_syncDelete, (lock), 0));
}

// A lock whose holder has died.
void recover()
{
    const int16_t lock = RM_HANDLE(rm_syncCreate, ("lock"));
    pauseFaults();
    const pid_t child = fork();
    if (child == 0) {
        rm_syncEnterExcl(lock, 1000);
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    resumeFaults();
    // Where it cannot be told whether the holder lives, it counts as alive.
    if (RM_STATUS(rm_syncRecover, (lock), 1, 0) == 1 &&
        RM_STATUS(rm_syncEnterExcl, (lock, 1000), 0, RM_TIMEOUT) == 0) {
        static_cast<void>(RM_STATUS(rm_syncExitExcl, (lock), 0));
    }
    static_cast<void>(RM_STATUS(rm_syncTerminate, (), 0));
}

void exchangeMessages()
{
    const int16_t queue = RM_HANDLE(rm_queueCreate, ("questions"));
    const int16_t other = RM_HANDLE(rm_queueCreate, ("answers"));
    expect(RM_HANDLE(rm_queueOpen, ("questions")) == queue, "effect", "the queue is not found");
    static_cast<void>(RM_STATUS(rm_queueWrite, (queue, "hello", 6, 42), 0));
    static_cast<void>(RM_STATUS(rm_queueWrite, (queue, "", 0, 43), 0));
    static char buffer[32768];
    void* data = buffer;
    int16_t length = -1;
    uint16_t code = 0;
    if (RM_STATUS(rm_queueRead, (queue, &data, &length, &code, 1), 0, RM_NOT_FOUND) == 0) {
        expect(length == 6 && code == 42 && std::strcmp(buffer, "hello") == 0, "effect",
               "another message came");
    }
    if (RM_STATUS(rm_queueRead, (queue, &data, &length, &code, 0), 0, RM_NOT_FOUND) == 0) {
        expect(code == (wasHit() ? code : 43), "effect", "another message came");
    }
    expectWithoutFault(RM(rm_queueRead)(queue, &data, &length, &code, 0) == RM_NOT_FOUND,
                       "there is a third message");
    static_cast<void>(RM_STATUS(rm_queueDelete, (other), 0));
    static_cast<void>(RM_STATUS(rm_queueTerminate, (), 0));
}

// Everything at once, left to rm_exit.
void useAll()
{
    RM(rm_init)(RM_NO_LIMIT, 32, 0.0);
    void* address = nullptr;
    RM_HANDLE(rm_gshmCreate, ("one", 100, &address));
    RM_HANDLE(rm_gshmCreate, ("two", 100, &address));
    RM_HANDLE(rm_queueCreate, ("one"));
    RM_HANDLE(rm_syncCreate, ("one"));
}

constexpr Scenario kScenarios[] = {
    {"shared-memory", shareMemory, nullptr, Hosts::kSome, false},
    {"locks", useLocks, nullptr, Hosts::kSome, false},
    {"recover", recover, nullptr, Hosts::kSome, false},
    {"messages", exchangeMessages, nullptr, Hosts::kSome, false},
    {"all-objects", useAll, nullptr, Hosts::kSome, false},
    {"objects-without-input", useAll, nullptr, Hosts::kFew, false, true},
};

}  // namespace

std::span<const Scenario> ipcScenarios()
{
    return kScenarios;
}

}  // namespace fault
