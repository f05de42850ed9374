// rmipc list.
//
// Why: after a server was killed its objects stay, and with them locks that nobody will leave. What
// an operator wants to know is whose they are, whether somebody lives who needs them, and what they
// were doing.
#include "list.h"

#include "common/text.h"
#include "judge.h"
#include "words.h"

#include <algorithm>
#include <array>

namespace rmipc
{
namespace
{
constexpr std::size_t kNameWidth = 18;  // of a process in a table

// What all parts of the list are printed with.
struct Sheet {
    const Paper& paper;
    People& people;
    int64_t now;
    bool all;
};

std::string person(pid_t pid, const Sheet& sheet)
{
    return tools::fitted(nameOf(sheet.people.look(pid)), kNameWidth, "~");
}

// "0-3, 7"
std::string slotsText(const std::vector<int>& slots)
{
    std::string text;
    for (std::size_t i = 0; i < slots.size();) {
        std::size_t end = i + 1;
        while (end < slots.size() && slots[end] == slots[end - 1] + 1) {
            ++end;
        }
        text += (text.empty() ? "" : ", ") + std::to_string(slots[i]);
        if (end - i > 1) {
            text += "-" + std::to_string(slots[end - 1]);
        }
        i = end;
    }
    return (slots.size() == 1 ? "slot " : "slots ") + text;
}

// Remarks on slots; what is true of several is said once.
class Remarks
{
  public:
    void add(int slot, const std::string& remark)
    {
        const auto found = std::ranges::find(
            remarks_, remark, [](const auto& one) -> const std::string& { return one.first; });
        if (found != remarks_.end()) {
            found->second.push_back(slot);
        } else {
            remarks_.push_back({remark, {slot}});
        }
    }

    void print(const Sheet& sheet) const
    {
        for (const auto& [remark, slots] : remarks_) {
            sheet.paper.paragraph(2, slotsText(slots) + ": " + remark);
        }
    }

  private:
    std::vector<std::pair<std::string, std::vector<int>>> remarks_;
};

std::string tokenWords(const Survey& survey, Family family, const Sheet& sheet)
{
    const Token& token = survey.place.tokens[family];
    std::string words = "token file " + tools::printable(token.path);
    if (!survey.holders[family].empty()) {
        words += ", open in " + namesOf(survey.holders[family], sheet.people);
    }
    return words;
}

// The heading of a family, and what is to be said when it has no objects.
void printHeading(const Survey& survey, Family family, const std::string& what, bool any,
                  const Sheet& sheet)
{
    constexpr std::array<std::string_view, kFamilies> kHeadings = {"Semaphores", "Shared memory",
                                                                   "Message queues"};
    const std::string heading = std::string(kHeadings[family]) + ": ";
    const Token& token = survey.place.tokens[family];
    sheet.paper.line("");
    switch (token.state) {
        case TokenState::kAbsent:
            sheet.paper.paragraph(
                0, heading + "none, there is no token file " + tools::printable(token.path));
            return;
        case TokenState::kUnusable:
        case TokenState::kUnknown:
            sheet.paper.paragraph(
                0, heading + "not known, " + tools::printable(token.path) + ": " + token.trouble);
            return;
        case TokenState::kPresent:
            break;
    }
    sheet.paper.paragraph(0, heading + (any ? what : "none"));
    std::string words = tokenWords(survey, family, sheet);
    if (!any && survey.tokens[family] == Verdict::kLeft) {
        words += ", left over: nothing belongs to it and nobody has it open";
    }
    sheet.paper.paragraph(2, words);
}

std::string common(const Object& object)
{
    std::string text = "owner " + userOf(object.owner);
    if (object.mode != kMode) {
        char mode[16];
        std::snprintf(mode, sizeof(mode), ", mode %03o", object.mode);
        text += mode;
    }
    return text;
}

void printSet(const Survey& survey, const Sheet& sheet)
{
    std::string what;
    if (survey.set) {
        what =
            "set " + std::to_string(survey.set->id) + ", key " + keyText(survey.set->key) + ", " +
            common(*survey.set) + ", " +
            (survey.set->used == 0 ? "never used" : "used " + ageOf(survey.set->used, sheet.now));
    }
    printHeading(survey, kSemaphores, what, survey.set.has_value(), sheet);
    if (!survey.set) {
        return;
    }
    Grid grid;
    grid.add({">SLOT", ">VALUE", ">WAIT", "LAST PROCESS", "WHAT THE VALUE TELLS"});
    int shown = 0;
    for (std::size_t i = 0; i < survey.set->semaphores.size(); ++i) {
        const Semaphore& semaphore = survey.set->semaphores[i];
        const Guess guess = guessOf(semaphore, sheet.people);
        if (sheet.all || guess.state != "unused") {
            ++shown;
            grid.add({std::to_string(i), std::to_string(semaphore.value),
                      std::to_string(semaphore.toEnter + semaphore.toPass),
                      person(semaphore.last, sheet), guess.words});
        }
    }
    if (shown > 0) {
        grid.print(sheet.paper, 2);
    }
    const std::size_t rest = survey.set->semaphores.size() - static_cast<std::size_t>(shown);
    if (rest > 0) {
        sheet.paper.line("  " + tools::grouped(rest) + (shown > 0 ? " more are" : " are") +
                         " not in use");
    }
    sheet.paper.paragraph(2, verdictWords(*survey.set));
}

void printSegments(const Survey& survey, const Sheet& sheet)
{
    printHeading(survey, kSegments, tools::counted(survey.segments.size(), "segment"),
                 !survey.segments.empty(), sheet);
    if (survey.segments.empty()) {
        return;
    }
    Grid grid;
    Remarks remarks;
    grid.add({">SLOT", ">ID", ">BYTES", ">ATTACHED", "CREATED BY", "LAST USED BY"});
    for (const Segment& segment : survey.segments) {
        grid.add({std::to_string(segment.slot), std::to_string(segment.id),
                  tools::grouped(segment.bytes), tools::grouped(segment.attached),
                  person(segment.maker, sheet), person(segment.last, sheet)});
        if (segment.bag) {
            remarks.add(segment.slot, bagWords(*segment.bag));
        }
        remarks.add(segment.slot, verdictWords(segment) + " (" + common(segment) + ")");
    }
    grid.print(sheet.paper, 2);
    remarks.print(sheet);
}

void printQueues(const Survey& survey, const Sheet& sheet)
{
    printHeading(survey, kQueues, tools::counted(survey.queues.size(), "queue"),
                 !survey.queues.empty(), sheet);
    if (survey.queues.empty()) {
        return;
    }
    Grid grid;
    Remarks remarks;
    grid.add({">SLOT", ">ID", ">MESSAGES", ">BYTES", ">OF", "LAST SENT BY", "LAST READ BY"});
    for (const Queue& queue : survey.queues) {
        grid.add({std::to_string(queue.slot), std::to_string(queue.id),
                  tools::grouped(queue.messages), tools::grouped(queue.bytes),
                  queue.limit ? tools::grouped(*queue.limit) : "?", person(queue.sender, sheet),
                  person(queue.reader, sheet)});
        std::string remark =
            queue.sent == 0 ? "nothing sent" : "last sent " + ageOf(queue.sent, sheet.now);
        remark += queue.received == 0 ? ", nothing read"
                                      : ", last read " + ageOf(queue.received, sheet.now);
        remark += "; " + verdictWords(queue) + " (" + common(queue) + ")";
        remarks.add(queue.slot, remark);
    }
    grid.print(sheet.paper, 2);
    remarks.print(sheet);
}

void printSurvey(const Survey& survey, const Sheet& sheet)
{
    const std::string prefix = tools::printable(survey.place.prefix);
    sheet.paper.line(prefix.empty() ? "The current directory" : "Prefix " + prefix);
    if (!survey.place.note.empty()) {
        sheet.paper.paragraph(2, tools::printable(survey.place.given) + " is " + survey.place.note);
    }
    const bool nothing = std::ranges::all_of(
        survey.place.tokens, [](const Token& token) { return token.state == TokenState::kAbsent; });
    if (nothing) {
        sheet.paper.paragraph(2, "Nothing belongs to it: there is no token file " + prefix +
                                     ".ZNT.RM.SEM, .MEM or .QUEUE. Objects whose token file has "
                                     "gone are found by rmipc orphans.");
        return;
    }
    printSet(survey, sheet);
    printSegments(survey, sheet);
    printQueues(survey, sheet);
}

// What was said and what it proves.
void printEnd(const std::vector<Survey>& surveys, const Sheet& sheet)
{
    std::string prefixes;
    bool any = false;
    bool doubt = false;
    for (const Survey& survey : surveys) {
        any |= survey.place.anyToken();
        doubt |= std::ranges::any_of(objectsOf(survey), [](const Object* object) {
            return object->verdict == Verdict::kDoubt;
        });
        if (hasLeftovers(survey)) {
            prefixes += " " + (survey.place.prefix.empty() ? std::string("./")
                                                           : tools::printable(survey.place.prefix));
        }
    }
    if (!any) {
        return;
    }
    sheet.paper.line("");
    sheet.paper.paragraph(0, prefixes.empty()
                                 ? "Nothing is left over."
                                 : "To remove what is left over: rmipc remove" + prefixes);
    if (doubt) {
        sheet.paper.paragraph(0, "What is in doubt is removed with --force only.");
    }
    const std::string others = unseenWords(surveys.front().unseen, surveys.front().hidden);
    sheet.paper.paragraph(
        0,
        "A living owner is seen by what he used last, waits for or has attached, and by his "
        "open token files. " +
            (others.empty()
                 ? "One that has closed these and used nothing is not seen."
                 : others + " One of them that has not used an object yet is not seen."));
}
}  // namespace

std::vector<Place> placesOf(const Options& options, bool& trouble)
{
    std::vector<Place> places;
    for (const std::string& prefix :
         options.prefixes.empty() ? std::vector<std::string>{""} : options.prefixes) {
        places.push_back(understand(prefix));
        for (const Token& token : places.back().tokens) {
            if (token.state == TokenState::kUnknown) {
                trouble = true;
                tools::complain("cannot look at " + tools::printable(token.path) + ": " +
                                token.trouble);
            }
        }
    }
    return places;
}

std::vector<Survey> surveyAll(const std::vector<Place>& places, bool bags, People& people)
{
    const bool any = std::ranges::any_of(places, &Place::anyToken);
    const Scan scan = any ? scanProcesses() : Scan{};
    std::vector<Survey> surveys;
    surveys.reserve(places.size());
    for (const Place& place : places) {
        surveys.push_back(lookAround(place, scan, bags));
        judge(surveys.back(), people);
    }
    return surveys;
}

int listPlaces(const Options& options)
{
    bool trouble = false;
    People people;
    const std::vector<Place> places = placesOf(options, trouble);
    const std::vector<Survey> surveys = surveyAll(places, options.bags, people);
    if (options.json && !options.quiet) {
        std::vector<std::string> elements;
        elements.reserve(surveys.size());
        for (const Survey& survey : surveys) {
            elements.push_back(jsonOf(survey, people));
        }
        tools::print("{\"prefixes\": " + array(elements, ",\n") + "}\n");
    } else if (!options.quiet) {
        const Paper paper(tools::examineTerminal());
        const Sheet sheet = {paper, people, nowInSeconds(), options.all};
        for (const Survey& survey : surveys) {
            if (&survey != &surveys.front()) {
                paper.line("");
            }
            printSurvey(survey, sheet);
        }
        printEnd(surveys, sheet);
    }
    if (trouble) {
        return kTrouble;
    }
    return std::ranges::any_of(surveys, hasLeftovers) ? kFound : kOk;
}

}  // namespace rmipc
