// A client: one request to a catalogue that runs, from outside.
//
// Why: to show how a process that nobody forked takes part in a server's objects without harming
// them. What it must not do is more than what it does: create no sync object, which would make a
// lock free twice; not end with rm_exit, which would remove everything for everybody; not wait in a
// call of the library for somebody who may be dead.
//
// Owns: room for one record as a whole. It is printed when it is complete, since another version
// may come in the middle of it.
//
// Lifecycle: every end is an _exit, an interrupt from the keyboard the default one: there is
// nothing to undo, as the system gives back the channel and what is left in its queue is thrown
// away by the next client.
//
// Fatal: any call of the library may jump to the target here. The usual reason is that the run
// has ended and taken the queues with it. Plain data only.
#include "client.h"

#include "console.h"
#include "link.h"
#include "present.h"

#include "rm.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace catalogue
{
namespace
{
jmp_buf fatalTarget;
const FoundRun* joined = nullptr;
Link link;
char whole[kWholeBytes];

// Says what an answer that is no success means, and with which status the client ends.
int explain(const Question& question, Status status)
{
    switch (status) {
        case kAnswerNotFound:
            complain("there is no record \"%s\".", shown(question.name).text);
            return kClientNotFound;
        case kAnswerRefused:
            complain("the catalogue in %s does not take this name or text.", joined->path);
            return kClientFailed;
        case kAnswerEnding:
            complain("the catalogue in %s ends; the request was not done.", joined->path);
            return kClientFailed;
        default:
            complain("the catalogue in %s met an error; its log says which.", joined->path);
            return kClientFailed;
    }
}

bool makesSenseOfGet(const Question& question, const Reply& reply)
{
    if (reply.status != kAnswerDone) {
        return true;
    }
    const AnswerHead& head = reply.head;
    if (head.version == 0 || head.total > kWholeBytes || head.bodyBytes > head.total ||
        head.total - head.bodyBytes > kTextBytes || head.index != question.index) {
        return false;
    }
    const uint32_t left = head.total - std::min(head.index, head.total);
    return head.dataBytes <= left && (head.dataBytes != 0 || left == 0);
}

bool makesSenseOfPut(const Question& /*question*/, const Reply& reply)
{
    return reply.status != kAnswerDone || (reply.head.version > 1 && reply.head.dataBytes == 0);
}

// The name at the front of the data, which is taken off them. False when there is no whole one.
bool takeName(std::string_view& data, std::string_view& name)
{
    uint16_t length = 0;
    if (data.size() < sizeof(length)) {
        return false;
    }
    std::memcpy(&length, data.data(), sizeof(length));
    data.remove_prefix(sizeof(length));
    if (length == 0 || length > kNameBytes || length > data.size()) {
        return false;
    }
    name = data.substr(0, length);
    data.remove_prefix(length);
    return true;
}

bool makesSenseOfList(const Question& question, const Reply& reply)
{
    if (reply.status != kAnswerDone) {
        return reply.status != kAnswerNotFound;
    }
    const AnswerHead& head = reply.head;
    std::string_view data(reply.data, head.dataBytes);
    std::string_view name;
    while (!data.empty()) {
        if (!takeName(data, name) || !name.starts_with(question.name)) {
            return false;
        }
    }
    return head.index == kListEnd || (head.index > question.index && head.index < head.total);
}

int get(const Command& command)
{
    Question question = {kRequestGet, command.name, "", 0};
    Reply reply = {};
    uint32_t version = 0;
    for (;;) {
        if (!ask(link, question, makesSenseOfGet, reply)) {
            return kClientFailed;
        }
        if (reply.status != kAnswerDone) {
            return explain(question, reply.status);
        }
        const AnswerHead& head = reply.head;
        if (question.index != 0 && head.version != version) {
            question.index = 0;  // somebody has written to it meanwhile
            continue;
        }
        version = head.version;
        // One check more than makesSenseOfGet's, for whoever reads this alone.
        if (question.index > sizeof(whole) || head.dataBytes > sizeof(whole) - question.index) {
            return explain(question, kAnswerBroken);
        }
        std::memcpy(whole + question.index, reply.data, head.dataBytes);
        question.index += head.dataBytes;
        if (question.index >= head.total) {
            break;
        }
    }
    const std::string_view all(whole, reply.head.total);
    if (!printRecord(all.substr(0, reply.head.bodyBytes), all.substr(reply.head.bodyBytes),
                     version)) {
        return explain(question, kAnswerBroken);
    }
    return kClientDone;
}

int put(const Command& command)
{
    const Question question = {kRequestPut, command.name, command.text, 0};
    Reply reply = {};
    if (!ask(link, question, makesSenseOfPut, reply)) {
        return kClientFailed;
    }
    if (reply.status != kAnswerDone) {
        return explain(question, reply.status);
    }
    std::printf("version %u\n", reply.head.version);
    return kClientDone;
}

int list(const Command& command)
{
    Question question = {kRequestList, command.name, "", 0};
    bool any = false;
    while (question.index != kListEnd) {
        Reply reply = {};
        if (!ask(link, question, makesSenseOfList, reply)) {
            return kClientFailed;
        }
        if (reply.status != kAnswerDone) {
            return explain(question, reply.status);
        }
        std::string_view data(reply.data, reply.head.dataBytes);
        std::string_view name;
        while (!data.empty() && takeName(data, name)) {
            printName(name);
            any = true;
        }
        question.index = reply.head.index;
    }
    if (!any) {
        complain("there is no record whose name begins with \"%s\".", shown(command.name).text);
    }
    return any ? kClientDone : kClientNotFound;
}

int stats(const Command& command)
{
    const BoardHead* board = nullptr;
    if (!joinBoard(*joined, board)) {
        return kClientFailed;
    }
    if (command.json) {
        printFiguresAsJson(board->figures);
    } else {
        printFigures(board->figures);
    }
    return kClientDone;
}

int doCommand(const Command& command)
{
    if (command.verb == Verb::kStats) {
        return stats(command);
    }
    if (!openLink(link, *joined, command.timeoutMs)) {
        return kClientFailed;
    }
    switch (command.verb) {
        case Verb::kGet:
            return get(command);
        case Verb::kPut:
            return put(command);
        default:
            return list(command);
    }
}

[[noreturn]] void end(int status)
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        complain("standard output could not be written.");
        status = kClientFailed;
    }
    _exit(status);
}
}  // namespace

void runClient(const Command& command, const FoundRun& run)
{
    joined = &run;
    // The prefix of the token files may have 31 bytes, so the client goes where they are.
    if (chdir(run.path) != 0) {
        complain("cannot go into %s: %s", run.path, std::strerror(errno));
        end(kClientFailed);
    }
    if (setjmp(fatalTarget) != 0) {
        std::fflush(stdout);
        const bool gone = joinedHasGone() || !runLives(run);
        removeOwnMakings();
        if (gone) {
            complain("the catalogue in %s has ended.", run.path);
        } else {
            complain(
                "the library met an error that cannot be mended; its log lines above say which.\n"
                "The catalogue in %s goes on.",
                run.path);
        }
        _exit(kClientFailed);
    }
    rm_errorJump(fatalTarget);
    // Without them the library would make locks of its own, in the run's set of semaphores.
    fileSem = growSem = RM_NULL_SYNC;
    end(doCommand(command));
}

}  // namespace catalogue
