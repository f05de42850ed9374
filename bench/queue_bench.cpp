// Message queues against the same two system calls made bare, with messages of the same size.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <array>
#include <cstring>

#include <sys/ipc.h>
#include <sys/msg.h>

namespace
{
constexpr std::size_t kLargest = 4096;
constexpr std::size_t kBesideData = 9;  // bytes that travel with the data

struct Message {
    long type;
    std::array<char, kLargest + kBesideData> text;
};

void ours(benchmark::State& state)
{
    const int16_t queue = rm_queueCreate("bench");
    std::array<char, kLargest> data = {};
    char* buffer = data.data();
    const auto bytes = static_cast<int16_t>(state.range(0));
    for (auto _ : state) {
        int16_t length = 0;
        uint16_t code = 0;
        rm_queueWrite(queue, data.data(), bytes, 1);
        rm_queueRead(queue, &buffer, &length, &code, 0);
        if (length != bytes) {
            state.SkipWithError("another message than was sent");
            break;
        }
    }
    rm_queueDelete(queue);
}

void bare(benchmark::State& state)
{
    const int queue = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    rmbench::must(queue != -1, "msgget");
    Message message = {1, {}};
    const std::size_t bytes = static_cast<std::size_t>(state.range(0)) + kBesideData;
    for (auto _ : state) {
        const int sent = msgsnd(queue, &message, bytes, IPC_NOWAIT);
        const ssize_t received = msgrcv(queue, &message, sizeof(message.text), 0, IPC_NOWAIT);
        if (sent != 0 || received != static_cast<ssize_t>(bytes)) {
            state.SkipWithError("another message than was sent");
            break;
        }
    }
    msgctl(queue, IPC_RMID, nullptr);
}
}  // namespace

void rmbench::addQueuePairs()
{
    constexpr double kLimit = 1.15;
    addPair("queue: write, read 100 bytes", "msgsnd, msgrcv", kLimit, ours, bare, 100);
    addPair("queue: write, read 4096 bytes", "msgsnd, msgrcv", kForTheRecord, ours, bare, kLargest);
}
