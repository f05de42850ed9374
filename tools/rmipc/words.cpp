// What the commands have in common on paper.
#include "words.h"

#include "common/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include <pwd.h>

namespace rmipc
{
namespace
{
constexpr std::size_t kGap = 2;  // between columns

bool isRight(const std::string& heading)
{
    return heading.starts_with('>');
}

std::string bare(const std::string& cell, bool heading)
{
    return heading && isRight(cell) ? cell.substr(1) : cell;
}
}  // namespace

void Paper::line(const std::string& text) const
{
    tools::print((terminal_.utf8 ? text : tools::asciiOnly(text)) + "\n");
}

void Paper::paragraph(std::size_t indent, const std::string& text) const
{
    const std::string margin(indent, ' ');
    std::string current;
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::size_t length = std::min(rest.find(' '), rest.size());
        const std::string word(rest.substr(0, length));
        rest.remove_prefix(std::min(length + 1, rest.size()));
        if (!current.empty() &&
            indent + tools::columns(current) + 1 + tools::columns(word) > terminal_.width) {
            line(margin + current);
            current.clear();
        }
        current += (current.empty() ? "" : " ") + word;
    }
    line(margin + current);
}

std::vector<std::string> Grid::lines(std::size_t indent) const
{
    std::vector<std::size_t> widths;
    for (std::size_t row = 0; row < rows_.size(); ++row) {
        widths.resize(std::max(widths.size(), rows_[row].size()));
        for (std::size_t i = 0; i < rows_[row].size(); ++i) {
            widths[i] = std::max(widths[i], tools::columns(bare(rows_[row][i], row == 0)));
        }
    }
    std::vector<std::string> lines;
    for (std::size_t row = 0; row < rows_.size(); ++row) {
        std::string line(indent, ' ');
        for (std::size_t i = 0; i < rows_[row].size(); ++i) {
            const std::string cell = bare(rows_[row][i], row == 0);
            const std::string blanks(widths[i] - tools::columns(cell), ' ');
            const bool right = i < rows_[0].size() && isRight(rows_[0][i]);
            line +=
                (i == 0 ? "" : std::string(kGap, ' ')) + (right ? blanks + cell : cell + blanks);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(line);
    }
    return lines;
}

void Grid::print(const Paper& paper, std::size_t indent) const
{
    for (const std::string& line : lines(indent)) {
        paper.line(line);
    }
}

std::string ageOf(int64_t time, int64_t now)
{
    constexpr int64_t kMinute = 60;
    constexpr int64_t kHour = 60 * kMinute;
    constexpr int64_t kDay = 24 * kHour;
    const int64_t age = now - time;
    if (age < 0) {
        return "in the future";
    }
    if (age == 0) {
        return "just now";
    }
    if (age < 2 * kMinute) {
        return tools::counted(static_cast<uint64_t>(age), "second") + " ago";
    }
    if (age < 2 * kHour) {
        return tools::counted(static_cast<uint64_t>(age / kMinute), "minute") + " ago";
    }
    if (age < 2 * kDay) {
        return tools::counted(static_cast<uint64_t>(age / kHour), "hour") + " ago";
    }
    return tools::counted(static_cast<uint64_t>(age / kDay), "day") + " ago";
}

int64_t nowInSeconds()
{
    return std::time(nullptr);
}

std::string userOf(uid_t user)
{
    passwd entry = {};
    passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(user, &entry, buffer, sizeof(buffer), &found) == 0 && found != nullptr) {
        return tools::printable(found->pw_name);
    }
    return "user " + std::to_string(user);
}

std::string processes(uint64_t count)
{
    return tools::grouped(count) + (count == 1 ? " process" : " processes");
}

std::string keyText(key_t key)
{
    char digits[16];
    std::snprintf(digits, sizeof(digits), "0x%08x", static_cast<unsigned>(key));
    return digits;
}

std::string unseenWords(std::size_t unseen, bool hidden)
{
    if (hidden) {
        return "This system hides the processes of other users.";
    }
    return unseen == 0
               ? ""
               : "The files of " + processes(unseen) + " may not be looked at by this user.";
}

Guess guessOf(const Semaphore& semaphore, People& people)
{
    const auto waiting = [](int count) {
        return count == 1 ? "1 waits" : std::to_string(count) + " wait";
    };
    if (semaphore.toPass > 0) {
        return {"an event, not signalled; " + waiting(semaphore.toPass) + " for it", "event"};
    }
    if (semaphore.value > 1) {
        return {"an event that woke several; a lock left twice", "raised"};
    }
    if (semaphore.value == 1) {
        return {"a free lock; or an event, not signalled", "free"};
    }
    if (semaphore.last == 0 && semaphore.toEnter == 0) {
        return {"not in use", "unused"};
    }
    const Person& person = people.look(semaphore.last);
    const std::string by =
        person.life == Life::kNobody
            ? "by a process not seen from here"
            : "by " + std::to_string(person.pid) + (person.life == Life::kGone ? " (gone)" : "");
    if (semaphore.toEnter > 0) {
        return {"held " + by + "; " + waiting(semaphore.toEnter) + " to enter", "held"};
    }
    return {"held " + by + ", or signalled", "heldOrSignalled"};
}

std::string bagWords(const Bag& bag)
{
    return "looks like an FF bag: " + tools::grouped(bag.count) + " of " +
           tools::counted(bag.capacity, "element") + " of " +
           tools::counted(bag.elementSize, "byte");
}

std::string_view verdictWord(Verdict verdict)
{
    constexpr std::array<std::string_view, 4> kWords = {"used", "doubtful", "left", "foreign"};
    return kWords[static_cast<std::size_t>(verdict)];
}

std::string verdictWords(const Object& object)
{
    constexpr std::array<std::string_view, 4> kWords = {
        "in use: ", "in doubt: ", "no living owner: ", "foreign: "};
    return std::string(kWords[static_cast<std::size_t>(object.verdict)]) + object.reason;
}

std::string_view nameOf(Family family)
{
    constexpr std::array<std::string_view, kFamilies> kNames = {"semaphore set", "segment",
                                                                "queue"};
    return kNames[family];
}

std::string object(Members members)
{
    std::string result = "{";
    for (const auto& [name, value] : members) {
        result += (result.size() > 1 ? ", \"" : "\"") + std::string(name) + "\": " + value;
    }
    return result + "}";
}

std::string array(const std::vector<std::string>& elements, std::string_view separator)
{
    std::string result = "[";
    for (const std::string& element : elements) {
        result += (result.size() > 1 ? std::string(separator) : "") + element;
    }
    return result + "]";
}

std::string text(std::string_view bytes)
{
    return tools::quoted(tools::printable(bytes));
}

std::string orNull(int64_t time)
{
    return time == 0 ? "null" : std::to_string(time);
}

std::string truth(bool value)
{
    return value ? "true" : "false";
}

std::string jsonOf(const Person& person)
{
    if (person.life == Life::kNobody) {
        return "null";
    }
    return object({{"pid", std::to_string(person.pid)},
                   {"lives", truth(person.life == Life::kLives)},
                   {"name", person.name.empty() ? "null" : text(person.name)}});
}

std::string jsonOf(const std::vector<pid_t>& pids, People& people)
{
    std::vector<std::string> elements;
    elements.reserve(pids.size());
    for (const pid_t pid : pids) {
        elements.push_back(jsonOf(people.look(pid)));
    }
    return array(elements);
}

}  // namespace rmipc
