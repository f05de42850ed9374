// The message queues: requests and reports to the desk, answers to clients.
#ifndef CATALOGUE_QUEUES_H
#define CATALOGUE_QUEUES_H

#include "board.h"
#include "jobs.h"
#include "protocol.h"

#include <cstdint>
#include <type_traits>

namespace catalogue
{

// What the processes of the run tell the desk, as the code of the message.
enum Notice : uint16_t {
    kNoticeReported = kFirstInternal,  // a worker is through with its hand: tickets
    kNoticeReady,     // a worker can take jobs; if it is a replacement, it has settled
    kNoticeReplaced,  // a worker has died, another takes its place: all of Death
    kNoticeEnd,       // no new jobs; end when those under way are finished
    kNoticeReload,    // read the settings again
    kNoticeReport,    // report the memory
    kNoticeRotate     // make new backups of the files
};

// With kNoticeReported and kNoticeReady: from `worker`, a number from 1.
struct Tickets {
    uint32_t worker;
    uint32_t count;
    uint64_t ticket[kHandful];
};

// With kNoticeReplaced.
struct Death {
    uint32_t worker;
    int32_t pid;
    int32_t signalNumber;
    uint32_t record;
    Doing doing;
    uint32_t freedLocks;
};

static_assert(std::is_trivially_copyable_v<Tickets> && std::is_trivially_copyable_v<Death>);

// Room for any message.
union Message {
    char bytes[32768];
    RequestHead request;
    Tickets tickets;
    Death death;
};

// Makes the five queues. Call it once, in the parent, before it forks.
void createQueues();

// Sends the desk a notice without anything else.
void tellDesk(Notice notice);

void reportTickets(Notice notice, const Tickets& tickets);

void reportDeath(const Death& death);

// In the desk: the next message. False when there is none, and it is not to be waited for.
bool nextMessage(Message& message, uint16_t& code, uint32_t& bytes, bool wait);

// An answer to a client. It is dropped when the queue of the channel has no room.
struct Answer {
    AnswerHead head;
    char data[kPartBytes];
};

static_assert(sizeof(Answer) == kAnswerBytes);

void sendAnswer(uint16_t channel, const Answer& answer, Status status);

}  // namespace catalogue

#endif
