// A client's way to the run: a channel of its own, and messages there and back.
//
// Why: a process that was not forked by the server has nothing of it. What it joins it finds by the
// order of creation in the directory of the run, and the calls that join also create: so it looks
// beforehand whether there is something to join, with the system's own calls, which can look
// without creating, and afterwards whether that is what it has got.
//
// Owns: the lock on the channel file, which the system gives back however the process ends; the
// numbers of the objects that were there before it joined them.
//
// Invariant: a process has a channel to itself, so what it finds in that channel's queue when it
// begins was meant for somebody who died; and it has one request under way at a time.
//
// Lifecycle: nothing is closed. The objects are the run's, and go with it.
//
// Fatal: a queue that is removed between a look at it and its use, which is when the run ends. What
// such a client says is the business of the target.
#include "link.h"

#include "console.h"

#include "rm.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
using Clock = std::chrono::steady_clock;

constexpr int64_t kFirstPauseUs = 20;
constexpr int64_t kLongestPauseUs = 10000;
constexpr int64_t kLookMs = 100;           // how often the owner's lock is tried
constexpr std::size_t kLibraryBytes = 9;   // that travel with the data of a message
constexpr std::size_t kReadBytes = 32767;  // of data in a message that anybody may have sent
constexpr const char* kEnded = "the catalogue in %s has ended%s.";

using Find = int(key_t key);  // the number of an object; -1 when there is none

int findQueue(key_t key)
{
    return msgget(key, 0);
}

int findSegment(key_t key)
{
    return shmget(key, 0, 0);
}

// The objects of a token file as they were before this process joined them.
struct Before {
    const char* token;
    Find* find;
    int count;    // of objects
    ino_t inode;  // of the token file; 0 until it has been looked at
    key_t key[kQueues];
    int id[kQueues];
};

Before queuesBefore = {kQueueToken, findQueue, kQueues, 0, {}, {}};
Before boardBefore = {kBoardToken, findSegment, 1, 0, {}, {}};

alignas(RequestHead) char requestRoom[kRequestBytes];
alignas(AnswerHead) char answerRoom[kReadBytes + 1];

int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
        .count();
}

// Waiting for something that nobody announces: short pauses that become longer.
struct Patience {
    const Link* link;
    int64_t pauseUs;
    int64_t nextLookMs;  // at the owner
    bool ended;          // the run has
};

Patience patienceOf(const Link& link)
{
    return {&link, kFirstPauseUs, nowMs() + kLookMs, false};
}

// Pauses once. False when the time is over, or the run.
bool pauseOnce(Patience& patience)
{
    const int64_t now = nowMs();
    if (now >= patience.nextLookMs) {
        patience.nextLookMs = now + kLookMs;
        if (!runLives(*patience.link->run)) {
            patience.ended = true;
            return false;
        }
    }
    const int64_t leftUs = (patience.link->deadlineMs - now) * 1000;
    if (leftUs <= 0) {
        patience.ended = !runLives(*patience.link->run);
        return false;
    }
    const int64_t us = std::min(patience.pauseUs, leftUs);
    const timespec time = {static_cast<time_t>(us / 1000000),
                           static_cast<long>(us % 1000000) * 1000};
    nanosleep(&time, nullptr);
    patience.pauseUs = std::min(patience.pauseUs * 2, kLongestPauseUs);
    return true;
}

ino_t inodeOf(const char* path)
{
    struct stat status = {};
    return lstat(path, &status) == 0 ? status.st_ino : 0;
}

// Notes what the slots of a token file lead to. False when something is missing.
bool lookBefore(Before& before)
{
    before.inode = inodeOf(before.token);
    for (int i = 0; i < before.count; ++i) {
        before.key[i] = before.inode == 0 ? -1 : ftok(before.token, i + 1);
        before.id[i] = before.key[i] == -1 ? -1 : before.find(before.key[i]);
        if (before.id[i] == -1) {
            return false;
        }
    }
    return true;
}

// Whether the token file still leads to what it led to.
bool sameAsBefore(const Before& before)
{
    bool same = inodeOf(before.token) == before.inode;
    for (int i = 0; i < before.count; ++i) {
        same = same && before.find(before.key[i]) == before.id[i];
    }
    return same;
}

// Whether none of what it led to is there still.
bool nothingFromBefore(const Before& before)
{
    for (int i = 0; i < before.count; ++i) {
        if (before.find(before.key[i]) == before.id[i]) {
            return false;
        }
    }
    return true;
}

// Removes the queues that have come into being under keys that led elsewhere before. Segments do
// not: a client asks for one of 0 bytes, which the system does not make.
void removeNewQueues(const Before& before, const key_t (&keys)[kQueues])
{
    for (int i = 0; i < before.count; ++i) {
        const int id = keys[i] == -1 || before.find != findQueue ? -1 : findQueue(keys[i]);
        if (id != -1 && id != before.id[i]) {
            msgctl(id, IPC_RMID, nullptr);
        }
    }
}

// Locks one of the channels, if one is free. A file that was removed meanwhile is no channel.
bool tryChannels(Link& link, bool& anyThere)
{
    anyThere = false;
    for (uint16_t i = 0; i < kChannels; ++i) {
        // The next one to try differs from process to process, so that they do not all meet on one.
        const auto number =
            static_cast<uint16_t>((i + static_cast<uint32_t>(getpid())) % kChannels);
        const int fd = open(kChannelFiles[number], O_RDWR | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        anyThere = true;
        struct stat status = {};
        if (flock(fd, LOCK_EX | LOCK_NB) == 0 && fstat(fd, &status) == 0 && status.st_nlink > 0) {
            link.channel = static_cast<uint16_t>(number + 1);
            link.channelFd = fd;
            return true;
        }
        close(fd);
    }
    return false;
}

bool claimChannel(Link& link)
{
    Patience patience = patienceOf(link);
    bool anyThere = false;
    while (!tryChannels(link, anyThere)) {
        if (pauseOnce(patience)) {
            continue;
        }
        if (patience.ended) {
            complain(kEnded, link.run->path, " before it served this client");
        } else if (anyThere) {
            complain(
                "all %u channels of %s were taken for %u s; try again, or with a longer "
                "--timeout.",
                kChannels, link.run->path, link.timeoutMs / 1000);
        } else {
            complain("the catalogue in %s serves no clients now: it loads still, or ends.",
                     link.run->path);
        }
        return false;
    }
    return true;
}

// After openLink: a queue that has gone is noticed before the library has to.
bool queueStands(const Link& link, int16_t queue, msqid_ds& state)
{
    return msgctl(link.queueId[queue], IPC_STAT, &state) == 0;
}

bool joinQueues(Link& link)
{
    if (!lookBefore(queuesBefore)) {
        complain("%s has no queues to join: its catalogue ends just now, or is none.",
                 link.run->path);
        return false;
    }
    for (int16_t i = 0; i < kQueues; ++i) {
        rm_queueCreate(kQueueNames[i]);
    }
    if (!sameAsBefore(queuesBefore)) {
        removeOwnMakings();
        complain(kEnded, link.run->path, " while this client joined it");
        return false;
    }
    std::copy(std::begin(queuesBefore.id), std::end(queuesBefore.id), std::begin(link.queueId));
    return true;
}

// One message of the channel's queue, if there is one.
bool readOne(const Link& link, uint16_t& code, std::size_t& bytes)
{
    char* room = answerRoom;  // the call wants the address of a pointer
    int16_t length = 0;
    const auto queue = static_cast<int16_t>(link.channel);
    if (rm_queueRead(queue, &room, &length, &code, 0) != RM_SUCCESS) {
        return false;
    }
    bytes = static_cast<std::size_t>(length);
    return true;
}

// A predecessor may have died with answers in the queue.
bool emptyChannel(const Link& link)
{
    uint16_t code = 0;
    std::size_t bytes = 0;
    while (nowMs() < link.deadlineMs) {
        msqid_ds state = {};
        if (!queueStands(link, static_cast<int16_t>(link.channel), state)) {
            complain(kEnded, link.run->path, " while this client joined it");
            return false;
        }
        if (!readOne(link, code, bytes)) {
            return true;
        }
    }
    complain("somebody writes to channel %u of %s without end.", link.channel, link.run->path);
    return false;
}

// Puts the question into requestRoom. Returns its length.
std::size_t composeRequest(const Link& link, const Question& question)
{
    RequestHead head = {};
    head.magic = kProtocolMagic;
    head.pid = getpid();
    head.sequence = link.sequence;
    head.index = question.index;
    head.channel = link.channel;
    head.nameBytes =
        static_cast<uint16_t>(std::min<std::size_t>(std::strlen(question.name), kNameBytes));
    head.textBytes =
        static_cast<uint16_t>(std::min<std::size_t>(std::strlen(question.text), kTextBytes));
    std::memcpy(requestRoom, &head, sizeof(head));
    std::memcpy(requestRoom + sizeof(head), question.name, head.nameBytes);
    std::memcpy(requestRoom + sizeof(head) + head.nameBytes, question.text, head.textBytes);
    return sizeof(head) + head.nameBytes + head.textBytes;
}

// Writing to a full queue is fatal, so there has to be room. Somebody else may take it between the
// look and the write; the server keeps what is under way far below the room that there is.
bool send(Link& link, const Question& question)
{
    ++link.sequence;
    link.dropped = 0;
    if (nowMs() >= link.deadlineMs) {  // one question of many, each of them answered in time
        complain("%s has not answered everything within %u s.", link.run->path,
                 link.timeoutMs / 1000);
        return false;
    }
    const std::size_t bytes = composeRequest(link, question);
    Patience patience = patienceOf(link);
    for (;;) {
        msqid_ds state = {};
        if (!queueStands(link, kRequestQueue, state)) {
            complain(kEnded, link.run->path, "; the request was not sent");
            return false;
        }
        if (state.msg_cbytes + bytes + kLibraryBytes <= state.msg_qbytes &&
            state.msg_qnum < state.msg_qbytes) {
            rm_queueWrite(kRequestQueue, requestRoom, static_cast<int16_t>(bytes),
                          question.request);
            return true;
        }
        if (!pauseOnce(patience)) {
            complain(patience.ended ? kEnded : "the queue of requests of %s is full%s.",
                     link.run->path, "; the request was not sent");
            return false;
        }
    }
}

// Takes what the room holds for an answer to the last request, if it is one.
bool takeAnswer(const Link& link, uint16_t code, std::size_t bytes, Reply& reply)
{
    if (bytes < sizeof(AnswerHead) || bytes > kAnswerBytes || code < kAnswerDone ||
        code > kAnswerBroken) {
        return false;
    }
    std::memcpy(&reply.head, answerRoom, sizeof(AnswerHead));
    reply.status = static_cast<Status>(code);
    reply.data = answerRoom + sizeof(AnswerHead);
    return reply.head.magic == kProtocolMagic && reply.head.pid == getpid() &&
           reply.head.sequence == link.sequence &&
           reply.head.dataBytes == bytes - sizeof(AnswerHead);
}

void complainOfSilence(const Link& link, bool ended, const char* unknown)
{
    if (ended) {
        complain("the catalogue in %s has ended without an answer.%s", link.run->path, unknown);
    } else if (link.dropped != 0) {
        complain("no answer from %s within %u s, but %u messages that were none.%s", link.run->path,
                 link.timeoutMs / 1000, link.dropped, unknown);
    } else {
        complain("no answer from %s within %u s.%s", link.run->path, link.timeoutMs / 1000,
                 unknown);
    }
}
}  // namespace

bool openLink(Link& link, const FoundRun& run, uint32_t timeoutMs)
{
    link = {};
    link.run = &run;
    link.timeoutMs = timeoutMs;
    link.deadlineMs = nowMs() + timeoutMs;
    // Begins where no client with the same process id has been.
    link.sequence = static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch() /
                                          std::chrono::nanoseconds(1));
    return claimChannel(link) && joinQueues(link) && emptyChannel(link);
}

bool ask(Link& link, const Question& question, SenseCheck* makesSense, Reply& reply)
{
    if (!send(link, question)) {
        return false;
    }
    Patience patience = patienceOf(link);
    const char* const unknown =
        question.request == kRequestPut ? "\nWhether the note was written is not known." : "";
    bool over = false;
    for (;;) {
        msqid_ds state = {};
        if (!queueStands(link, static_cast<int16_t>(link.channel), state)) {
            complainOfSilence(link, true, unknown);
            return false;
        }
        uint16_t code = 0;
        std::size_t bytes = 0;
        if (!readOne(link, code, bytes)) {
            if (over) {
                complainOfSilence(link, patience.ended, unknown);
                return false;
            }
            over = !pauseOnce(patience);  // one more look: the answer may have been the last thing
        } else if (takeAnswer(link, code, bytes, reply) && makesSense(question, reply)) {
            return true;
        } else {
            ++link.dropped;
            if (nowMs() >= link.deadlineMs) {  // without a pause, however fast they come
                complainOfSilence(link, false, unknown);
                return false;
            }
        }
    }
}

bool joinBoard(const FoundRun& run, const BoardHead*& board)
{
    if (!lookBefore(boardBefore)) {
        complain("%s has no board to read yet, or no more: its catalogue starts or ends just now.",
                 run.path);
        return false;
    }
    shmid_ds state = {};
    if (shmctl(boardBefore.id[0], IPC_STAT, &state) != 0) {
        complain(kEnded, run.path, " while this client joined it");
        return false;
    }
    if (state.shm_segsz < sizeof(BoardHead)) {
        complain("the board of %s is none that this program can read.", run.path);
        return false;
    }
    void* address = nullptr;
    rm_gshmCreate(kBoardName, 0, &address);
    if (!sameAsBefore(boardBefore)) {
        removeOwnMakings();
        complain(kEnded, run.path, " while this client joined it");
        return false;
    }
    const auto* const head = static_cast<const BoardHead*>(address);
    const uint64_t magic = head->magic.load(std::memory_order_acquire);
    if (magic == 0) {
        complain("the catalogue in %s is just starting; try again.", run.path);
        return false;
    }
    if (magic != kBoardMagic || head->layout != kBoardLayout ||
        head->headBytes != sizeof(BoardHead) || head->boardBytes > state.shm_segsz) {
        complain("the board of %s is laid out for another version of this program.", run.path);
        return false;
    }
    board = head;
    return true;
}

bool joinedHasGone()
{
    return (queuesBefore.inode != 0 && !sameAsBefore(queuesBefore)) ||
           (boardBefore.inode != 0 && !sameAsBefore(boardBefore));
}

void removeOwnMakings()
{
    for (const Before* const before : {&queuesBefore, &boardBefore}) {
        if (before->inode == 0) {
            continue;  // this process has not come to joining it
        }
        const bool allGone = nothingFromBefore(*before);
        removeNewQueues(*before, before->key);
        // A token file that leads to nothing of the run's is another, also when it has got the
        // number of the one before: then joining has made it, with all that it leads to.
        if (allGone || inodeOf(before->token) != before->inode) {
            key_t keys[kQueues] = {};
            for (int i = 0; i < before->count; ++i) {
                keys[i] = ftok(before->token, i + 1);
            }
            removeNewQueues(*before, keys);
            unlink(before->token);
        }
    }
}

}  // namespace catalogue
