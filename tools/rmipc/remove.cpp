// rmipc remove.
//
// Why: what is removed is gone for every process, so nothing goes that was not shown, and nothing
// that somebody has begun to use while the question stood there: after the answer everything is
// looked at once more, and each object goes only when it is still the same and still left over.
//
// Token files go last, each with the last object that it leads to. One that a process has open
// stays, as does a link or a directory of that name, which the library has not made.
#include "remove.h"

#include "common/text.h"
#include "judge.h"
#include "list.h"
#include "words.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>

#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

namespace rmipc
{
namespace
{
// Something that could be removed: an object, or a token file.
struct Item {
    Family family;
    std::string words;      // "semaphore set 12"
    std::string json;       // members that name it
    std::optional<int> id;  // of an object; none for a token file
    std::optional<Token> token;
    Verdict verdict;
    std::string reason;
};

// What became of an item.
struct Outcome {
    Item item;
    std::string reason;  // why it was left; empty when it was removed
};

struct Plan {
    std::vector<Item> remove;
    std::vector<Item> leave;
};

bool isWanted(Verdict verdict, const Options& options)
{
    return verdict == Verdict::kLeft || (options.force && verdict != Verdict::kForeign);
}

Item itemOf(const Object& object)
{
    const std::string id = std::to_string(object.id);
    Item item = {.family = object.family,
                 .words = std::string(nameOf(object.family)) + " " + id,
                 .json = "\"kind\": " + text(nameOf(object.family)) + ", \"id\": " + id +
                         ", \"slot\": " + std::to_string(object.slot) + ", \"path\": null",
                 .id = object.id,
                 .token = {},
                 .verdict = object.verdict,
                 .reason = object.reason};
    if (object.family != kSemaphores) {
        item.words += " of slot " + std::to_string(object.slot);
    }
    return item;
}

Item itemOf(const Token& token, Family family, const Survey& survey, People& people)
{
    Item item = {.family = family,
                 .words = "token file " + tools::printable(token.path),
                 .json = "\"kind\": \"token file\", \"id\": null, \"slot\": null, \"path\": " +
                         text(token.path),
                 .id = {},
                 .token = token,
                 .verdict = survey.tokens[family],
                 .reason = "it leads to objects that stay"};
    if (!survey.holders[family].empty()) {
        item.reason = "open in " + namesOf(survey.holders[family], people);
    } else if (item.verdict == Verdict::kDoubt) {
        item.reason = "others of this prefix are, or may be, in use";
    }
    return item;
}

std::vector<Item> itemsOf(const std::vector<Survey>& surveys, People& people)
{
    std::vector<Item> items;
    for (const Survey& survey : surveys) {
        for (const Object* object : objectsOf(survey)) {
            const bool going =
                object->family == kSegments && static_cast<const Segment*>(object)->removed;
            if (!going) {
                items.push_back(itemOf(*object));
            }
        }
        for (const Family family : kEachFamily) {
            const Token& token = survey.place.tokens[family];
            if (token.state == TokenState::kPresent) {
                items.push_back(itemOf(token, family, survey, people));
            }
        }
    }
    return items;
}

Plan planFor(const std::vector<Survey>& surveys, const Options& options, People& people)
{
    Plan plan;
    for (Item& item : itemsOf(surveys, people)) {
        (isWanted(item.verdict, options) ? plan.remove : plan.leave).push_back(std::move(item));
    }
    return plan;
}

bool isSame(const Item& a, const Item& b)
{
    if (a.family != b.family || a.id != b.id || a.token.has_value() != b.token.has_value()) {
        return false;
    }
    return !a.token || (a.token->path == b.token->path && a.token->device == b.token->device &&
                        a.token->number == b.token->number);
}

int removeObject(Family family, int id)
{
    switch (family) {
        case kSemaphores:
            return semctl(id, 0, IPC_RMID);
        case kSegments:
            return shmctl(id, IPC_RMID, nullptr);
        case kQueues:
            break;
    }
    return msgctl(id, IPC_RMID, nullptr);
}

// Why the token file has to stay; empty when it may go.
std::string whyTokenStays(const Item& item)
{
    const Token now = lookAt(item.token->path);
    if (now.state == TokenState::kAbsent) {
        return "";  // it has gone already
    }
    if (now.state != TokenState::kPresent || now.device != item.token->device ||
        now.number != item.token->number) {
        return "it has been replaced since";
    }
    for (int slot = 0; slot < kKeys[item.family]; ++slot) {
        if (idOf(item.family, keyOf(*now.base, slot)) != -1 || errno != ENOENT) {
            return "it leads to an object that stays";
        }
    }
    return "";
}

// Empty when the item has gone, or the reason why not.
std::string removeItem(const Item& item, bool& trouble)
{
    if (item.token) {
        std::string why = whyTokenStays(item);
        if (why.empty() && unlink(item.token->path.c_str()) != 0 && errno != ENOENT) {
            trouble = true;
            why = std::strerror(errno);
        }
        return why;
    }
    if (removeObject(item.family, *item.id) == 0 || errno == EIDRM || errno == EINVAL) {
        return "";  // or somebody else was faster
    }
    trouble = true;
    return errno == EPERM ? "only its owner, its creator and root may remove it"
                          : std::strerror(errno);
}

// Objects before token files.
std::vector<Outcome> carryOut(const Plan& plan, const std::vector<Item>& now,
                              const Options& options, bool& trouble)
{
    std::vector<Outcome> outcomes;
    for (const bool tokens : {false, true}) {
        for (const Item& item : plan.remove) {
            if (item.token.has_value() != tokens) {
                continue;
            }
            const auto found = std::ranges::find_if(
                now, [&item](const Item& other) { return isSame(item, other); });
            if (found == now.end()) {
                // Gone without our help. A token file of that name is then another one.
                outcomes.push_back({item, ""});
            } else if (!isWanted(found->verdict, options)) {
                outcomes.push_back({item, found->reason});
            } else {
                outcomes.push_back({item, removeItem(item, trouble)});
            }
        }
    }
    return outcomes;
}

std::string countsOf(const std::vector<Item>& items)
{
    constexpr std::array<std::string_view, kFamilies + 1> kThings = {"semaphore set", "segment",
                                                                     "queue", "token file"};
    std::array<uint64_t, kFamilies + 1> counts = {};
    for (const Item& item : items) {
        ++counts[item.token ? kFamilies : static_cast<std::size_t>(item.family)];
    }
    std::vector<std::string> parts;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        if (counts[i] > 0) {
            parts.push_back(tools::counted(counts[i], kThings[i]));
        }
    }
    std::string text;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        text += (i == 0 ? "" : i + 1 == parts.size() ? " and " : ", ") + parts[i];
    }
    return text;
}

bool isYes(const std::string& question)
{
    const std::string whole = question + " [y/N] ";
    std::string answer;
    if (write(STDERR_FILENO, whole.data(), whole.size()) < 0) {
        return false;
    }
    if (!std::getline(std::cin, answer)) {
        // The end of input leaves the cursor where it was.
        [[maybe_unused]] const ssize_t put = write(STDERR_FILENO, "\n", 1);
        return false;
    }
    return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes" || answer == "YES";
}

enum class Answer { kYes, kNo, kNobodyThere };

Answer ask(const Plan& plan, const Options& options)
{
    if (options.yes) {
        return Answer::kYes;
    }
    if (isatty(STDIN_FILENO) != 1) {
        return Answer::kNobodyThere;
    }
    if (!isYes("Remove " + countsOf(plan.remove) + "?")) {
        return Answer::kNo;
    }
    const auto used = std::ranges::count_if(
        plan.remove, [](const Item& item) { return item.verdict != Verdict::kLeft; });
    if (used > 0 && !isYes("Of these, " + std::to_string(used) +
                           " are in use or may be, and the processes that use them will fail.\n"
                           "Remove them all the same?")) {
        return Answer::kNo;
    }
    return Answer::kYes;
}

void printItems(const Paper& paper, const std::string& heading, const std::vector<Item>& items,
                bool reasons)
{
    if (items.empty()) {
        return;
    }
    paper.line(heading);
    for (const Item& item : items) {
        paper.paragraph(2, item.words + (reasons ? ": " + item.reason : ""));
    }
}

void printPlan(const Paper& paper, const Plan& plan, const Options& options)
{
    printItems(paper, options.dryRun ? "Would be removed:" : "To be removed:", plan.remove, false);
    const bool helps = !options.force && std::ranges::any_of(plan.leave, [](const Item& item) {
        return item.verdict != Verdict::kForeign;
    });
    printItems(paper, helps ? "Left, unless with --force:" : "Left:", plan.leave, true);
    if (plan.remove.empty()) {
        paper.line(plan.leave.empty() ? "There is nothing to remove."
                                      : "There is nothing else to remove.");
    }
}

std::string listed(const std::vector<Outcome>& outcomes, const std::vector<Item>& left,
                   bool removed)
{
    std::vector<std::string> elements;
    for (const Outcome& outcome : outcomes) {
        if (outcome.reason.empty() == removed) {
            elements.push_back("{" + outcome.item.json +
                               (removed ? "}" : ", \"reason\": " + text(outcome.reason) + "}"));
        }
    }
    for (const Item& item : left) {
        elements.push_back("{" + item.json + ", \"reason\": " + text(item.reason) + "}");
    }
    return array(elements, ",\n  ");
}

void printJson(const Plan& plan, const std::vector<Outcome>& outcomes, const Options& options)
{
    tools::print(object({{"dryRun", truth(options.dryRun)},
                         {"removed", listed(outcomes, {}, true)},
                         {"left", listed(outcomes, plan.leave, false)}}) +
                 "\n");
}

// What was left and should have gone is said in any case, on standard error.
void report(const Paper& paper, const std::vector<Outcome>& outcomes, const Options& options)
{
    std::vector<Item> removed;
    for (const Outcome& outcome : outcomes) {
        if (outcome.reason.empty()) {
            removed.push_back(outcome.item);
        } else {
            tools::complain(outcome.item.words + " was left: " + outcome.reason);
        }
    }
    if (!options.json && !options.quiet) {
        paper.line(removed.empty() ? "Nothing was removed."
                                   : "Removed: " + countsOf(removed) + ".");
    }
}

// What would happen, as what did.
std::vector<Outcome> supposed(const Plan& plan)
{
    std::vector<Outcome> outcomes;
    outcomes.reserve(plan.remove.size());
    for (const Item& item : plan.remove) {
        outcomes.push_back({item, ""});
    }
    return outcomes;
}

// Nothing goes.
std::vector<Outcome> refused(const Plan& plan, const std::string& reason)
{
    std::vector<Outcome> outcomes;
    outcomes.reserve(plan.remove.size());
    for (const Item& item : plan.remove) {
        outcomes.push_back({item, reason});
    }
    return outcomes;
}
}  // namespace

int removeLeftovers(const Options& options)
{
    bool trouble = false;
    const Paper paper(tools::examineTerminal());
    const std::vector<Place> places = placesOf(options, trouble);
    People people;
    const std::vector<Survey> surveys = surveyAll(places, false, people);
    const Plan plan = planFor(surveys, options, people);
    const bool text = !options.json && !options.quiet;
    if (text) {
        for (const Place& place : places) {
            if (!place.note.empty()) {
                paper.paragraph(0, tools::printable(place.given) + " is " + place.note);
            }
        }
        printPlan(paper, plan, options);
    }
    std::vector<Outcome> outcomes;
    if (options.dryRun) {
        outcomes = supposed(plan);
    } else if (!plan.remove.empty()) {
        tools::finishOutput(kOk);  // the question comes behind what it is about
        const Answer answer = ask(plan, options);
        if (answer == Answer::kYes) {
            People later;
            const std::vector<Survey> fresh = surveyAll(places, false, later);
            outcomes = carryOut(plan, itemsOf(fresh, later), options, trouble);
            report(paper, outcomes, options);
        } else {
            outcomes = refused(plan, "not confirmed");
            trouble |= answer == Answer::kNobodyThere;
            tools::complain(answer == Answer::kNo ? "nothing was removed"
                            : options.force ? "nothing was removed: --force asks, and standard "
                                              "input is no terminal"
                                            : "nothing was removed: standard input is no "
                                              "terminal; --yes does it without asking");
        }
    }
    if (options.json && !options.quiet) {
        printJson(plan, outcomes, options);
    }
    if (trouble) {
        return kTrouble;
    }
    const bool stays = !plan.leave.empty() || std::ranges::any_of(outcomes, [](const Outcome& one) {
        return !one.reason.empty();
    });
    return stays ? kFound : kOk;
}

}  // namespace rmipc
