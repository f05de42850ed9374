// The list for programs: all that is known of each object. What is not known is null.
#include "judge.h"
#include "list.h"
#include "words.h"

#include <array>

namespace rmipc
{
namespace
{
constexpr std::string_view kLine = ",\n    ";

// The members that all objects have, to be followed by others.
std::string headOf(const Object& object)
{
    char mode[16];
    std::snprintf(mode, sizeof(mode), "\"%03o\"", object.mode);
    std::string head = rmipc::object({{"slot", std::to_string(object.slot)},
                                      {"id", std::to_string(object.id)},
                                      {"key", text(keyText(object.key))},
                                      {"uid", std::to_string(object.owner)},
                                      {"mode", mode},
                                      {"verdict", text(verdictWord(object.verdict))},
                                      {"reason", text(object.reason)}});
    head.pop_back();
    return head + ", ";
}

std::string tailOf(Members members)
{
    return object(members).substr(1);
}

std::string jsonOf(const SemaphoreSet& set, People& people)
{
    std::vector<std::string> elements;
    elements.reserve(set.semaphores.size());
    for (std::size_t i = 0; i < set.semaphores.size(); ++i) {
        const Semaphore& semaphore = set.semaphores[i];
        const Guess guess = guessOf(semaphore, people);
        elements.push_back(object({{"slot", std::to_string(i)},
                                   {"value", std::to_string(semaphore.value)},
                                   {"toEnter", std::to_string(semaphore.toEnter)},
                                   {"toPass", std::to_string(semaphore.toPass)},
                                   {"last", rmipc::jsonOf(people.look(semaphore.last))},
                                   {"state", text(guess.state)},
                                   {"words", text(guess.words)}}));
    }
    const bool read = set.sight == Sight::kSeen;
    return headOf(set) + tailOf({{"size", std::to_string(set.size)},
                                 {"used", orNull(set.used)},
                                 {"changed", orNull(set.changed)},
                                 {"semaphores", read ? array(elements, kLine) : "null"}});
}

std::string jsonOf(const Segment& segment, People& people)
{
    std::string bag = "null";
    if (segment.bag) {
        bag = object({{"capacity", std::to_string(segment.bag->capacity)},
                      {"count", std::to_string(segment.bag->count)},
                      {"elementSize", std::to_string(segment.bag->elementSize)}});
    }
    return headOf(segment) + tailOf({{"bytes", std::to_string(segment.bytes)},
                                     {"attached", std::to_string(segment.attached)},
                                     {"users", rmipc::jsonOf(segment.users, people)},
                                     {"creator", rmipc::jsonOf(people.look(segment.maker))},
                                     {"last", rmipc::jsonOf(people.look(segment.last))},
                                     {"attachedAt", orNull(segment.attachedAt)},
                                     {"detachedAt", orNull(segment.detachedAt)},
                                     {"changed", orNull(segment.changed)},
                                     {"removed", truth(segment.removed)},
                                     {"looksLikeBag", bag}});
}

std::string jsonOf(const Queue& queue, People& people)
{
    return headOf(queue) + tailOf({{"messages", std::to_string(queue.messages)},
                                   {"bytes", std::to_string(queue.bytes)},
                                   {"limit", queue.limit ? std::to_string(*queue.limit) : "null"},
                                   {"sender", rmipc::jsonOf(people.look(queue.sender))},
                                   {"sent", orNull(queue.sent)},
                                   {"reader", rmipc::jsonOf(people.look(queue.reader))},
                                   {"received", orNull(queue.received)},
                                   {"changed", orNull(queue.changed)}});
}

std::string jsonOf(const Survey& survey, Family family, People& people)
{
    constexpr std::array<std::string_view, kFamilies> kFamilyNames = {"semaphores", "segments",
                                                                      "queues"};
    constexpr std::array<std::string_view, 4> kStates = {"absent", "present", "unusable",
                                                         "unknown"};
    const Token& token = survey.place.tokens[family];
    const bool present = token.state == TokenState::kPresent;
    return object({{"family", text(kFamilyNames[family])},
                   {"path", text(token.path)},
                   {"state", text(kStates[static_cast<std::size_t>(token.state)])},
                   {"trouble", token.trouble.empty() ? "null" : text(token.trouble)},
                   {"verdict", present ? text(verdictWord(survey.tokens[family])) : "null"},
                   {"openIn", rmipc::jsonOf(survey.holders[family], people)}});
}
}  // namespace

std::string jsonOf(const Survey& survey, People& people)
{
    std::vector<std::string> tokens;
    std::vector<std::string> segments;
    std::vector<std::string> queues;
    tokens.reserve(kFamilies);
    segments.reserve(survey.segments.size());
    queues.reserve(survey.queues.size());
    for (const Family family : kEachFamily) {
        tokens.push_back(jsonOf(survey, family, people));
    }
    for (const Segment& segment : survey.segments) {
        segments.push_back(jsonOf(segment, people));
    }
    for (const Queue& queue : survey.queues) {
        queues.push_back(jsonOf(queue, people));
    }
    const Place& place = survey.place;
    return object({{"given", text(place.given)},
                   {"prefix", text(place.prefix)},
                   {"note", place.note.empty() ? "null" : text(place.note)},
                   {"leftovers", truth(hasLeftovers(survey))},
                   {"unseen", survey.hidden ? "null" : std::to_string(survey.unseen)},
                   {"tokens", array(tokens, kLine)},
                   {"semaphores", survey.set ? jsonOf(*survey.set, people) : "null"},
                   {"segments", array(segments, kLine)},
                   {"queues", array(queues, kLine)}});
}

}  // namespace rmipc
