// Which objects nobody uses any more.
//
// Why: taking a living server's semaphores away ends it. What speaks for a living owner is
//
//   a set      somebody waits in it now; one of those who operated last lives
//   a segment  it is attached: the system counts that, and is never wrong
//   a queue    who sent or received last lives
//   all        a living process has the token file open
//
// Its absence proves less: who has waited in a queue since the start has not received, and other
// users' files may not be looked at. So a set or a queue without an owner is left over only when
// nothing else of its place is used; else it is in doubt. A detached segment is used by nobody
// whatever else there is, unless its creator is just about to attach it.
#include "judge.h"

#include "common/text.h"

#include <algorithm>

namespace rmipc
{
namespace
{
void decide(Object& object, Verdict verdict, const std::string& reason)
{
    object.verdict = verdict;
    object.reason = reason;
}

std::vector<pid_t> livingAmong(std::vector<pid_t> pids, People& people)
{
    std::erase_if(pids, [&people](pid_t pid) { return !people.lives(pid); });
    std::ranges::sort(pids);
    pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    return pids;
}

// Numbers are given again: a process that started after the object was used cannot have done it.
// But clocks are set, so this is said and not decided by.
std::string doubtOn(const std::vector<pid_t>& pids, int64_t used, People& people)
{
    constexpr int64_t kUnsure = 2;  // seconds; both times are cut off
    const bool all = std::ranges::all_of(pids, [&](pid_t pid) {
        const int64_t started = people.look(pid).started;
        return used > 0 && started > used + kUnsure;
    });
    return all ? ", but started later: the number may have been given again" : "";
}

std::string living(const std::vector<pid_t>& pids, People& people)
{
    return namesOf(pids, people) + (pids.size() == 1 ? " lives" : " live");
}

void useFromHolders(Object& object, const std::vector<pid_t>& holders, People& people)
{
    if (!holders.empty() && object.verdict != Verdict::kUsed &&
        object.verdict != Verdict::kForeign) {
        decide(object, Verdict::kUsed,
               namesOf(holders, people) + (holders.size() == 1 ? " has" : " have") +
                   " its token file open");
    }
}

void doubtFromOthers(Object& object)
{
    if (object.verdict == Verdict::kLeft) {
        decide(object, Verdict::kDoubt, object.reason + "; but others of this prefix are in use");
    }
}

bool isUsed(const Object* object)
{
    return object->verdict == Verdict::kUsed;
}

// Token files are judged by their objects, and by who has them open. `used`: something of the place
// is.
Verdict judgeToken(const Survey& survey, Family family, bool used)
{
    if (survey.place.tokens[family].state != TokenState::kPresent) {
        return Verdict::kForeign;
    }
    if (!survey.holders[family].empty()) {
        return Verdict::kUsed;
    }
    Verdict verdict =
        used && (survey.unseen > 0 || survey.hidden) ? Verdict::kDoubt : Verdict::kLeft;
    for (const Object* object : objectsOf(survey)) {
        if (object->family == family && object->verdict != Verdict::kLeft &&
            verdict != Verdict::kUsed) {
            verdict = object->verdict;
        }
    }
    return verdict;
}
}  // namespace

void judge(SemaphoreSet& set, People& people)
{
    if (set.sight == Sight::kForeign) {
        decide(set, Verdict::kForeign,
               "it has " + tools::counted(set.size, "semaphore") +
                   ", not 20: not the library's, though the key is the same");
        return;
    }
    if (set.sight == Sight::kPartly) {
        decide(set, Verdict::kDoubt, "it may not be read by this user");
        return;
    }
    uint64_t waiting = 0;
    std::vector<pid_t> last;
    bool anybody = false;
    for (const Semaphore& semaphore : set.semaphores) {
        waiting +=
            static_cast<uint64_t>(semaphore.toEnter) + static_cast<uint64_t>(semaphore.toPass);
        last.push_back(semaphore.last);
        anybody |= semaphore.last != 0;
    }
    last = livingAmong(last, people);
    if (waiting > 0) {
        decide(set, Verdict::kUsed,
               waiting == 1 ? "a process waits in it"
                            : tools::grouped(waiting) + " processes wait in it");
    } else if (!last.empty()) {
        decide(
            set, Verdict::kUsed,
            "of those who used it last " + living(last, people) + doubtOn(last, set.used, people));
    } else if (!anybody && set.used != 0) {
        decide(set, Verdict::kDoubt, "it was used by processes that cannot be seen from here");
    } else {
        decide(set, Verdict::kLeft,
               anybody ? "of those who used it last nobody lives" : "nobody has used it yet");
    }
}

void judge(Segment& segment, People& people)
{
    if (segment.attached > 0) {
        std::string reason = "attached";
        if (!segment.users.empty()) {
            reason += " by " + namesOf(segment.users, people);
        }
        decide(segment, Verdict::kUsed,
               segment.removed ? "removed, and goes with the last that has it " + reason : reason);
    } else if (segment.attachedAt == 0 && people.lives(segment.maker)) {
        decide(segment, Verdict::kDoubt,
               "never attached, and its creator " + nameOf(people.look(segment.maker)) + " lives");
    } else {
        decide(segment, Verdict::kLeft, "nobody has it attached");
    }
}

void judge(Queue& queue, People& people)
{
    const std::vector<pid_t> last = livingAmong({queue.sender, queue.reader}, people);
    const bool unseen =
        (queue.sent != 0 && queue.sender == 0) || (queue.received != 0 && queue.reader == 0);
    if (!last.empty()) {
        decide(queue, Verdict::kUsed,
               "of those who used it last " + living(last, people) +
                   doubtOn(last, std::max(queue.sent, queue.received), people));
    } else if (unseen) {
        decide(queue, Verdict::kDoubt, "it was used by processes that cannot be seen from here");
    } else if (queue.sight == Sight::kPartly) {
        decide(queue, Verdict::kDoubt, "it may not be read by this user");
    } else {
        const bool anybody = queue.sender != 0 || queue.reader != 0;
        decide(queue, Verdict::kLeft,
               anybody ? "of those who used it last nobody lives" : "nobody has used it yet");
    }
}

void judge(Survey& survey, People& people)
{
    if (survey.set) {
        judge(*survey.set, people);
        useFromHolders(*survey.set, survey.holders[kSemaphores], people);
    }
    for (Segment& segment : survey.segments) {
        judge(segment, people);
    }
    for (Queue& queue : survey.queues) {
        judge(queue, people);
        useFromHolders(queue, survey.holders[kQueues], people);
    }
    const bool anyHolder = std::ranges::any_of(
        survey.holders, [](const std::vector<pid_t>& holders) { return !holders.empty(); });
    const bool used = anyHolder || std::ranges::any_of(objectsOf(survey), isUsed);
    if (used) {
        if (survey.set) {
            doubtFromOthers(*survey.set);
        }
        std::ranges::for_each(survey.queues, doubtFromOthers);
    }
    for (const Family family : kEachFamily) {
        survey.tokens[family] = judgeToken(survey, family, used);
    }
}

std::vector<const Object*> objectsOf(const Survey& survey)
{
    std::vector<const Object*> objects;
    if (survey.set) {
        objects.push_back(&*survey.set);
    }
    for (const Segment& segment : survey.segments) {
        objects.push_back(&segment);
    }
    for (const Queue& queue : survey.queues) {
        objects.push_back(&queue);
    }
    return objects;
}

bool hasLeftovers(const Survey& survey)
{
    const auto isLeft = [](const Object* object) { return object->verdict == Verdict::kLeft; };
    return std::ranges::any_of(objectsOf(survey), isLeft) ||
           std::ranges::find(survey.tokens, Verdict::kLeft) != survey.tokens.end();
}

}  // namespace rmipc
