// Message queues: four, from every worker to whoever reads.
//
// Why: what was written is read once, in the order of its sender, and nothing is lost by a death.
// A sender notes the number of a message before it is written and after; its replacement writes the
// message again when only the first is noted, and then it may come twice. A reader that is killed
// may take a message with it: the next one finds the gap in the numbers of the sender, or the queue
// empty, and takes the message from the sender's outbox. What is in a message follows from its
// number, so the outbox is two numbers.
//
// Limits: a sender has at most kWindow messages under way in a queue, so none is ever full.
//
// Locks: that of the queue, by readers. A message has no addressee, so a queue has one reader at a
// time.
#include "soak.h"

#include "rm.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>

namespace soak
{
namespace
{
constexpr uint32_t kHead = 12;             // bytes: sender, queue, number
constexpr std::size_t kMostRoom = 32'767;  // anybody may write

char received[kMostRoom];

uint64_t seedOf(uint32_t sender, uint32_t queue, uint32_t number)
{
    const uint32_t all[] = {sender, queue, number};
    return sumOf(all, sizeof all);
}

void write(uint32_t queue, uint32_t number)
{
    char data[kMostData];
    const uint32_t head[] = {me, queue, number};
    static_assert(sizeof head == kHead);
    const uint32_t length = lengthOfMessage(me, queue, number);
    std::memcpy(data, head, kHead);
    fill(data + kHead, length - kHead, seedOf(me, queue, number));
    rm_queueWrite(queues[queue], data, static_cast<int16_t>(length), static_cast<uint16_t>(number));
}

void send(uint32_t queue)
{
    Outbox& outbox = mine().outbox[queue];
    const uint32_t number = outbox.intended.load() + 1;
    if (number - board->queue[queue].received[me].load() > kWindow) {
        return;
    }
    outbox.intended.store(number);
    dawdle();
    write(queue, number);
    dawdle();
    outbox.sent.store(number);
}

using Numbers = std::array<uint32_t, kWorkers>;

Numbers sentTo(uint32_t queue)
{
    Numbers numbers = {};
    for (uint32_t i = 0; i < kWorkers; ++i) {
        numbers[i] = board->worker[i].outbox[queue].sent.load();
    }
    return numbers;
}

// Messages up to these that nobody has received.
uint32_t missing(uint32_t queue, const Numbers& numbers)
{
    uint32_t count = 0;
    for (uint32_t i = 0; i < kWorkers; ++i) {
        const uint32_t last = board->queue[queue].received[i].load();
        count += numbers[i] > last ? numbers[i] - last : 0;
    }
    return count;
}

void refetch(uint32_t queue, uint32_t sender, uint32_t last)
{
    QueueBoard& state = board->queue[queue];
    const uint32_t before = state.received[sender].load();
    if (last <= before) {
        return;
    }
    SOAK_CHECK(last - before <= state.strays,
               "queue %u lost the messages %u to %u of worker %u, and %u readers have died in it",
               queue, before + 1, last, sender, state.strays);
    state.strays -= last - before;
    state.refetched += last - before;
    state.received[sender].store(last);
}

void count(uint32_t queue, uint32_t sender, uint32_t number)
{
    QueueBoard& state = board->queue[queue];
    const uint32_t last = state.received[sender].load();
    if (number <= last) {
        ++state.repeated;
        SOAK_CHECK(number + kWindow >= last, "message %u of worker %u comes again after %u", number,
                   sender, last);
        return;
    }
    SOAK_CHECK(number <= board->worker[sender].outbox[queue].intended.load(),
               "message %u of worker %u was never sent", number, sender);
    refetch(queue, sender, number - 1);
    state.received[sender].store(number);
}

// With the signals blocked: one that came now would end the wait, and with it this process.
int16_t readWaiting(uint32_t queue, int16_t* length, uint16_t* code)
{
    char* data = received;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    const int16_t status = rm_queueRead(queues[queue], static_cast<void*>(&data), length, code, 1);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return status;
}

void receive(uint32_t queue)
{
    if (!enter(kQueueLock + queue)) {
        return;
    }
    const QueueBoard& state = board->queue[queue];
    for (uint32_t left = 1 + plan.below(6); left > 0; --left) {
        // Nobody else reads, and nothing may be missing: then a message is there for certain.
        const bool certain = state.strays == 0 && missing(queue, sentTo(queue)) != 0;
        if (!takeMessage(queue, certain && plan.once(2))) {
            SOAK_CHECK(!certain, "queue %u is empty and should not be", queue);
            break;
        }
    }
    leave(kQueueLock + queue);
}

void start()
{
    for (uint32_t queue = 0; queue < kQueues; ++queue) {
        Outbox& outbox = mine().outbox[queue];
        if (outbox.intended.load() != outbox.sent.load()) {
            write(queue, outbox.intended.load());
            outbox.sent.store(outbox.intended.load());
        }
    }
}

void step()
{
    const uint32_t queue = plan.below(kQueues);
    if (plan.below(4) == 0) {
        receive(queue);
    } else {
        send(queue);
    }
    SOAK_CHECK(rm_queueOpen("nobody") == RM_NONE, "a queue that nobody made");
}
}  // namespace

uint32_t lengthOfMessage(uint32_t sender, uint32_t queue, uint32_t number)
{
    return kHead + static_cast<uint32_t>(seedOf(sender, queue, number) % (mostData - kHead));
}

bool isMessage(const char* data, int16_t length, uint16_t code, uint32_t queue, uint32_t* sender,
               uint32_t* number)
{
    uint32_t head[3] = {};
    if (length < static_cast<int16_t>(kHead)) {
        return false;
    }
    std::memcpy(head, data, kHead);
    *sender = head[0];
    *number = head[2];
    return head[0] < kWorkers && head[1] == queue && code == static_cast<uint16_t>(head[2]) &&
           static_cast<uint32_t>(length) == lengthOfMessage(head[0], queue, head[2]) &&
           isFilled(data + kHead, static_cast<std::size_t>(length) - kHead,
                    seedOf(head[0], queue, head[2]));
}

bool takeMessage(uint32_t queue, bool wait)
{
    QueueBoard& state = board->queue[queue];
    const Numbers sent = sentTo(queue);
    char* data = received;
    int16_t length = 0;
    uint16_t code = 0;
    state.open.store(me + 1);
    const int16_t status =
        wait ? readWaiting(queue, &length, &code)
             : rm_queueRead(queues[queue], static_cast<void*>(&data), &length, &code, 0);
    dawdle();
    if (status == RM_SUCCESS) {
        uint32_t sender = 0;
        uint32_t number = 0;
        SOAK_CHECK(isMessage(received, length, code, queue, &sender, &number),
                   "a message of %d bytes in queue %u is damaged", length, queue);
        count(queue, sender, number);
    } else {
        SOAK_CHECK(status == RM_NOT_FOUND, "a read gives %d", status);
        // Whatever was sent before has been read: what is missing has gone with a reader.
        for (uint32_t i = 0; i < kWorkers; ++i) {
            refetch(queue, i, sent[i]);
        }
    }
    state.open.store(0);
    return status == RM_SUCCESS;
}

const Family kQueuesFamily = {"message queues", 150, start, step, nullptr, nullptr, false};

}  // namespace soak
