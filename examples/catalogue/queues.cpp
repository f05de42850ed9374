// The message queues: requests and reports to the desk, answers to clients.
//
// Why: a client is no child of the server and shares nothing with it but names. A queue hands any
// message to any reader, so there is one that only the desk reads, and one for each client that is
// served at a time, which only that client reads.
//
// A write to a full queue is fatal, to the writer. In the first one everything has its bounds: a
// worker reports once for each handful of at most kJobSlots jobs under way, the parent has one
// notice of a kind under way, a client one request. What a client does not take out of its own
// queue stays there, so an answer looks for room first. (It can be filled between the look and the
// write by somebody else who is allowed to: then this worker dies, and is replaced.)
//
// Fatal: a full queue; one that has been removed.
#include "queues.h"

#include "rm.h"

#include <cstring>

#include <sys/ipc.h>
#include <sys/msg.h>

namespace catalogue
{
namespace
{
constexpr std::size_t kBesideData = 9;  // bytes of a message that the library adds

// The system's id of the queue with this handle: the library has no call that tells how full one
// is. Made as the library makes it, by the token file and the number of the slot.
int idOf(int16_t handle)
{
    static int ids[kQueues];
    int& id = ids[handle];
    if (id == 0) {
        id = 1 + msgget(ftok(kQueueToken, 1 + handle), 0);
    }
    return id - 1;
}

bool hasRoom(int16_t handle, std::size_t bytes)
{
    msqid_ds queue = {};
    return msgctl(idOf(handle), IPC_STAT, &queue) == 0 &&
           queue.__msg_cbytes + bytes + kBesideData <= queue.msg_qbytes;
}

void write(Notice notice, const void* data, std::size_t bytes)
{
    rm_queueWrite(kRequestQueue, data, static_cast<int16_t>(bytes), notice);
}
}  // namespace

void createQueues()
{
    for (const char* const name : kQueueNames) {
        rm_queueCreate(name);
    }
}

void tellDesk(Notice notice)
{
    write(notice, nullptr, 0);
}

void reportTickets(Notice notice, const Tickets& tickets)
{
    write(notice, &tickets, offsetof(Tickets, ticket) + tickets.count * sizeof(uint64_t));
}

void reportDeath(const Death& death)
{
    write(kNoticeReplaced, &death, sizeof(death));
}

bool nextMessage(Message& message, uint16_t& code, uint32_t& bytes, bool wait)
{
    char* buffer = message.bytes;
    int16_t length = 0;
    if (rm_queueRead(kRequestQueue, &buffer, &length, &code, wait ? 1 : 0) != RM_SUCCESS) {
        return false;
    }
    bytes = static_cast<uint32_t>(length);
    return true;
}

void sendAnswer(uint16_t channel, const Answer& answer, Status status)
{
    const std::size_t bytes = sizeof(AnswerHead) + answer.head.dataBytes;
    const auto handle = static_cast<int16_t>(channel);
    if (hasRoom(handle, bytes)) {
        rm_queueWrite(handle, &answer, static_cast<int16_t>(bytes), status);
    }
}

}  // namespace catalogue
