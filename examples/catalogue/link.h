// A client's way to the run: a channel of its own, and messages there and back.
#ifndef CATALOGUE_LINK_H
#define CATALOGUE_LINK_H

#include "protocol.h"
#include "runs.h"

#include <cstdint>

namespace catalogue
{

// Plain data: it lies in frames that a fatal error jumps over.
struct Link {
    const FoundRun* run;
    int64_t deadlineMs;  // of the command, on the steady clock
    uint32_t timeoutMs;  // the same as a length, for messages
    uint16_t channel;
    int channelFd;
    int queueId[kQueues];  // as the system numbers them
    uint64_t sequence;     // of the last request
    uint32_t dropped;      // messages that were no answer to it
};

// What an answer says. The data stand in memory of this file until the next one.
struct Reply {
    Status status;
    AnswerHead head;
    const char* data;
};

struct Question {
    Request request;
    const char* name;
    const char* text;  // empty but for a put
    uint32_t index;
};

// All of these call the library. They return false after having said why; when the run has gone
// under them, the fatal target may be where it goes on.

// Waits for a channel, joins the queues in the current directory, which is the run's, and empties
// the queue of the channel.
bool openLink(Link& link, const FoundRun& run, uint32_t timeoutMs);

// Joins the board. Needs no link.
bool joinBoard(const FoundRun& run, const BoardHead*& board);

// Sends the question and waits for an answer of which `makesSense` can be made. Others are dropped,
// as are those to somebody else.
using SenseCheck = bool(const Question& question, const Reply& reply);
bool ask(Link& link, const Question& question, SenseCheck* makesSense, Reply& reply);

// After a fatal error: whether what this process was to join has been removed, or replaced.
bool joinedHasGone();

// After a fatal error: removes what this process has made by joining what was gone already.
void removeOwnMakings();

}  // namespace catalogue

#endif
