// What a change would make of a file, found out before the library makes it.
//
// Why: the library changes a file by rules that were made for servers: a new entry is written where
// the section has a line that begins with white space, or at the end of the file, and otherwise not
// at all, with a status of 0. Whoever types a command wants to hear that before, with the line.
//
// Invariant: what is planned is what rm_iniSetPrivate does, line by line; the tests compare the two
// on random files. What a plan says of reading, it takes from the reading rules in document.cpp.
//
// No function of the library is called here that could jump: these frames may own what they like.
#include "plan.h"

#include "console.h"

#include <algorithm>

namespace rmini
{
namespace
{
constexpr std::size_t kContext = 3;  // unchanged lines around a change in a diff

std::string quoted(std::string_view name)
{
    return std::string("\"") + shown(name).text + "\"";
}

std::string bracketed(std::string_view name)
{
    return std::string("[") + shown(name).text + "]";
}

std::string lineNumber(std::size_t index)
{
    return "line " + std::to_string(index + 1);
}

// The section that a rewrite changes: the first of its name.
LineIndex sectionToRewrite(const Document& document, std::string_view section)
{
    const auto& lines = document.lines;
    const auto header = std::find_if(lines.begin(), lines.end(), [section](std::string_view line) {
        return isHeader(line) && sameName(rewrittenSection(line), section);
    });
    return header != lines.end() ? LineIndex(header - lines.begin()) : LineIndex();
}

bool isEntryToRewrite(std::string_view line, std::string_view key)
{
    return !isComment(line) && line.find('=') != std::string_view::npos &&
           sameName(rewrittenKey(line), key);
}

// What a line that comes before line `at` has to end with to be like its neighbour.
std::string lineEnd(const Document& document, std::size_t at)
{
    const auto& lines = document.lines;
    const bool unterminated = at == lines.size() && !document.terminated;
    const std::size_t neighbour = unterminated ? at - 1 : at;
    const bool carriageReturn = neighbour > 0 && lines[neighbour - 1].ends_with('\r');
    return carriageReturn ? "\r" : "";
}

// The file after the change.
std::vector<std::string_view> linesAfter(const Document& document, const Plan& plan)
{
    std::vector<std::string_view> result;
    for (std::size_t i = 0; i <= document.lines.size(); ++i) {
        if (i == plan.at) {
            result.insert(result.end(), plan.added.begin(), plan.added.end());
        }
        if (i < document.lines.size() && !std::ranges::binary_search(plan.removed, i)) {
            result.push_back(document.lines[i]);
        }
    }
    return result;
}

// Where the last added line stands in the file after the change.
std::size_t placeOfEntry(const Plan& plan)
{
    return lineAfter(plan, plan.at) - 1;
}

// As the library goes through the lines of the section. False when it finds no place.
bool findPlace(const Document& document, const std::string& section, Plan& plan)
{
    const auto& lines = document.lines;
    const LineIndex header = sectionToRewrite(document, section);
    plan.at = lines.size();
    if (!header) {
        plan.added = {"", "[" + section + "]"};
        return true;
    }
    for (std::size_t i = *header + 1; i < lines.size(); ++i) {
        if (beginsWithSpace(lines[i])) {
            plan.at = i;
            return true;
        }
        if (isHeader(lines[i])) {
            plan.line = i;
            return false;
        }
        if (isEntryToRewrite(lines[i], plan.key)) {
            plan.removed = {i};
            plan.at = i + 1;
            return true;
        }
    }
    return true;
}

// The last entry of the section that readers reach and that the library would take for the first
// one with its key: asked to set it, the library writes it again at its place, and whatever follows
// in the value behind it.
LineIndex entryToInsertBehind(const Document& document, const std::string& section)
{
    const LineIndex header = sectionToRewrite(document, section);
    const auto& lines = document.readable;
    LineIndex best;
    if (!header || findSection(lines, section) != header) {
        return best;
    }
    for (std::size_t i = *header + 1; i < lines.size(); ++i) {
        const std::string_view line = lines[i];
        if (isEmpty(line) || isHeader(line) || beginsWithSpace(line)) {
            break;
        }
        const bool whole = line.size() == document.lines[i].size();
        if (isEntry(line) && whole && !entryKey(line).empty() &&
            std::none_of(lines.begin() + static_cast<std::ptrdiff_t>(*header) + 1,
                         lines.begin() + static_cast<std::ptrdiff_t>(i),
                         [line](std::string_view other) {
                             return isEntryToRewrite(other, entryKey(line));
                         })) {
            best = i;
        }
    }
    return best;
}

std::string adviceToInsert(const Document& document, const std::string& section)
{
    const LineIndex anchor = entryToInsertBehind(document, section);
    return anchor ? ", or use --insert, which writes it behind " + lineNumber(*anchor) + "." : ".";
}

void refuseLost(const Document& document, const std::string& section, Plan& plan)
{
    const std::size_t header = *sectionToRewrite(document, section);
    const std::size_t next = *plan.line;
    plan.refused = true;
    plan.why =
        "not set: the entry would be lost\n" + bracketed(section) + " of " + lineNumber(header) +
        " has no key " + quoted(plan.key) +
        ". A new entry goes before a line of its section\nthat begins with white space, and " +
        "there is none before " + bracketed(sectionName(document.lines[next])) + " of " +
        lineNumber(next) + ".\nPut a line of one blank before " +
        lineNumber(emptyLine(document.lines, header, next).value_or(next)) +
        adviceToInsert(document, section);
}

// The entry has a place, and readers would not get there, or get somewhere else first.
void refuseUnread(const Document& document, const std::string& section, Plan& plan)
{
    const std::vector<std::string_view> after = linesAfter(document, plan);
    const std::size_t place = placeOfEntry(plan);
    const LineIndex header = findSection(after, section);
    const bool below = header && header == sectionAbove(after, place);
    const LineIndex empty = below ? emptyLine(after, *header, place) : LineIndex();
    const auto zero = std::ranges::find_if(
        after, [](std::string_view line) { return line.find('\0') != std::string_view::npos; });
    plan.refused = true;
    if (zero != after.end() && static_cast<std::size_t>(zero - after.begin()) <= place) {
        plan.line = zero - after.begin();
        plan.why =
            "not set: the entry would not be found\nThe line holds a zero byte, and readers "
            "take that for the end of the file.\nRemove it.";
    } else if (empty) {
        plan.line = empty;
        plan.why = "not set: the entry would not be found\nThe line is empty, which ends " +
                   bracketed(section) + " of " + lineNumber(*header) +
                   " for readers, and the entry would stand in " + lineNumber(place) +
                   ".\nRemove the empty line" + adviceToInsert(document, section);
    } else {
        plan.line = header;
        plan.why = "not set: the entry would not be found\nIt would stand in " + lineNumber(place) +
                   ", and readers look for it below this line, since only the\nfirst section of a "
                   "name counts. Look at the file with rmini check.";
    }
}

bool readsBack(const Document& document, const std::string& section, const std::string& key,
               const std::string& value, const Plan& plan)
{
    std::vector<std::string_view> after = linesAfter(document, plan);
    const auto zero = std::ranges::find_if(
        after, [](std::string_view line) { return line.find('\0') != std::string_view::npos; });
    after.erase(zero, after.end());
    const LineIndex found = findEntry(after, section, key);
    return found && *found == placeOfEntry(plan) && entryValue(after[*found]) == value;
}

bool planInsertion(const Document& document, const std::string& section, const std::string& key,
                   const std::string& value, Plan& plan)
{
    const LineIndex anchor = entryToInsertBehind(document, section);
    if (!anchor) {
        return false;
    }
    const std::string_view line = document.lines[*anchor];
    const std::string entry = key + "=" + value + lineEnd(document, *anchor + 1);
    Plan insertion;
    insertion.key = entryKey(line);
    insertion.value = std::string(line.substr(insertion.key.size() + 1)) + "\n" + entry;
    insertion.at = *anchor + 1;
    insertion.added = {entry};
    if (!readsBack(document, section, key, value, insertion)) {
        return false;
    }
    plan = insertion;
    return true;
}

// Readers find the entry, at a place where the library would not replace it.
bool isThere(const Document& document, const std::string& section, const std::string& key,
             const std::string& value)
{
    const auto& lines = document.readable;
    const LineIndex found = findEntry(lines, section, key);
    return found && sectionAbove(lines, *found) == findSection(lines, section) &&
           entryKey(lines[*found]) == key && entryValue(lines[*found]) == value;
}

// Another line of the section with the key, which the change neither replaces nor removes.
LineIndex entryThatStays(const Document& document, const std::string& section,
                         const std::string& key, const Plan& plan)
{
    const LineIndex header = sectionToRewrite(document, section);
    const std::size_t end = header ? nextHeader(document.lines, *header) : 0;
    for (std::size_t i = plan.at; i < end; ++i) {
        if (isEntryToRewrite(document.lines[i], key)) {
            return i;
        }
    }
    return {};
}

// "key = value" beside a new "key=value" is a surprise.
LineIndex entryButForBlanks(const Document& document, const std::string& section,
                            const std::string& key)
{
    const LineIndex header = sectionToRewrite(document, section);
    const std::size_t end = header ? nextHeader(document.lines, *header) : 0;
    for (std::size_t i = header.value_or(0); i < end; ++i) {
        const std::string_view line = document.lines[i];
        if (isEntry(line) && !sameName(entryKey(line), key) &&
            sameName(trimmed(entryKey(line)), trimmed(key))) {
            return i;
        }
    }
    return {};
}

// ---- what is missing

std::string sectionsLike(const Document& document, std::string_view section)
{
    std::string result;
    for (std::size_t i = 0; i < document.lines.size(); ++i) {
        const std::string_view line = trimmed(withoutReturn(document.lines[i]));
        if (isHeader(line) && sameName(trimmed(sectionName(line)), trimmed(section))) {
            result += "\nCompare " + lineNumber(i) + ": " + quoted(document.lines[i]) +
                      "; blanks count, and a header begins its line.";
        }
    }
    return result;
}

std::string keysLike(const Document& document, std::size_t header, std::string_view key)
{
    std::string result;
    const auto& lines = document.lines;
    const std::size_t end = nextHeader(lines, header);
    const LineIndex empty = emptyLine(lines, header, end);
    for (std::size_t i = header + 1; i < end; ++i) {
        if (!isEntry(lines[i])) {
            continue;
        }
        const std::string_view found = trimmed(entryKey(lines[i]));
        if (found.starts_with('#') && sameName(trimmed(found.substr(1)), trimmed(key))) {
            result += "\n" + lineNumber(i) + " has the key " + quoted(entryKey(lines[i])) +
                      ": \"#\" begins no comment.";
        }
        if (!sameName(found, trimmed(key))) {
            continue;
        }
        if (!sameName(entryKey(lines[i]), key)) {
            result += "\n" + lineNumber(i) + " has the key " + quoted(entryKey(lines[i])) +
                      ": blanks belong to it.";
        } else if (empty && *empty < i) {
            result += "\n" + lineNumber(i) + " has it, behind the empty " + lineNumber(*empty) +
                      ", which ends the section.";
        } else if (i >= document.readable.size()) {
            result += "\n" + lineNumber(i) + " has it, and is not read: " +
                      (document.bytes.find('\0') == std::string::npos
                           ? "no newline ends it."
                           : "a zero byte ends the file before it.");
        }
    }
    return result;
}

// Readers find the entries of sections alone.
std::string keysBeforeSections(const Document& document, std::string_view key)
{
    std::string result;
    const auto& lines = document.lines;
    for (std::size_t i = 0; i < lines.size() && !isHeader(lines[i]); ++i) {
        if (isEntry(lines[i]) && sameName(trimmed(entryKey(lines[i])), trimmed(key))) {
            result += "\n" + lineNumber(i) + " has the key " + quoted(entryKey(lines[i])) +
                      ", before the first section: nobody finds it there.";
        }
    }
    return result;
}

// ---- diff

struct DiffLine {
    char kind;  // ' ', '-' or '+'
    std::string_view text;
    bool newline;
};

std::vector<DiffLine> diffLines(const Document& document, const Plan& plan)
{
    std::vector<DiffLine> result;
    const auto& lines = document.lines;
    for (std::size_t i = 0; i <= lines.size(); ++i) {
        if (i == plan.at) {
            for (const std::string& line : plan.added) {
                result.push_back({'+', line, true});
            }
        }
        if (i == lines.size()) {
            break;
        }
        // Whatever is changed, a rewrite ends the last line with a newline.
        const bool whole = i + 1 < lines.size() || document.terminated;
        if (std::ranges::binary_search(plan.removed, i)) {
            result.push_back({'-', lines[i], whole});
        } else if (whole) {
            result.push_back({' ', lines[i], true});
        } else {
            result.push_back({'-', lines[i], false});
            result.push_back({'+', lines[i], true});
        }
    }
    return result;
}

// The lines of a diff from `first` to before `last`.
void printHunk(const std::vector<DiffLine>& lines, std::size_t first, std::size_t last)
{
    const auto count = [&lines](std::size_t from, std::size_t to, char other) {
        return std::count_if(
            lines.begin() + static_cast<std::ptrdiff_t>(from),
            lines.begin() + static_cast<std::ptrdiff_t>(to),
            [other](const DiffLine& line) { return line.kind == ' ' || line.kind == other; });
    };
    const auto range = [&](char sign, char other) {
        const auto length = count(first, last, other);
        const auto start = count(0, first, other) + (length > 0 ? 1 : 0);
        return std::string(1, sign) + std::to_string(start) + "," + std::to_string(length);
    };
    print("@@ " + range('-', '-') + " " + range('+', '+') + " @@\n");
    for (std::size_t i = first; i < last; ++i) {
        print(lines[i].kind);
        print(lines[i].text);
        print(lines[i].newline ? "\n" : "\n\\ No newline at end of file\n");
    }
}
}  // namespace

Plan planSet(const Document& document, const std::string& section, const std::string& key,
             const std::string& value, bool insert)
{
    Plan plan;
    plan.key = key;
    const bool placed = findPlace(document, section, plan);
    plan.value = value + lineEnd(document, plan.at);
    plan.added.push_back(key + "=" + plan.value);
    const bool read = placed && readsBack(document, section, key, value, plan);
    if (!read && insert && planInsertion(document, section, key, value, plan)) {
        plan.line = {};
    } else if (!placed) {
        refuseLost(document, section, plan);
    } else if (!read) {
        refuseUnread(document, section, plan);
    }
    plan.changes = plan.removed.empty() ? !isThere(document, section, key, value)
                                        : document.lines[plan.removed[0]] != plan.added[0];
    plan.stays = entryThatStays(document, section, key, plan);
    plan.like = plan.removed.empty() ? entryButForBlanks(document, section, key) : LineIndex();
    if (plan.refused && plan.like) {
        plan.why += "\n" + lineNumber(*plan.like) + " has the key " +
                    quoted(entryKey(document.lines[*plan.like])) + ": blanks belong to it.";
    }
    return plan;
}

Plan planDelete(const Document& document, const std::string& section, const char* key)
{
    Plan plan;
    const auto& lines = document.lines;
    const LineIndex header = sectionToRewrite(document, section);
    plan.at = lines.size();
    const std::size_t first = header ? *header + (key != nullptr ? 1 : 0) : lines.size();
    const std::size_t end = header ? nextHeader(lines, *header) : lines.size();
    for (std::size_t i = first; i < end; ++i) {
        if (key == nullptr || isEntryToRewrite(lines[i], key)) {
            plan.removed.push_back(i);
        }
    }
    plan.absent = plan.removed.empty();
    if (plan.absent) {
        plan.line = header;
        plan.why = whyAbsent(document, section, key);
    }
    return plan;
}

std::string whyAbsent(const Document& document, const std::string& section, const char* key)
{
    const LineIndex header = findSection(document.readable, section);
    if (!header) {
        return "there is no section " + bracketed(section) +
               (isHeader(section) ? kNoBrackets : "") + sectionsLike(document, section) +
               (key != nullptr ? keysBeforeSections(document, key) : "");
    }
    if (key == nullptr) {
        return "nothing in section " + bracketed(section);
    }
    return bracketed(section) + " has no key " + quoted(key) + keysLike(document, *header, key) +
           keysBeforeSections(document, key);
}

std::size_t lineAfter(const Plan& plan, std::size_t line)
{
    const auto gone = std::ranges::lower_bound(plan.removed, line) - plan.removed.begin();
    return line - static_cast<std::size_t>(gone) + (line >= plan.at ? plan.added.size() : 0);
}

void printDiff(const char* path, const Document& document, const Plan& plan)
{
    const std::vector<DiffLine> lines = diffLines(document, plan);
    print(std::string("--- ") + path + "\n+++ " + path + "\n");
    std::size_t i = 0;
    while (i < lines.size()) {
        if (lines[i].kind == ' ') {
            ++i;
            continue;
        }
        const std::size_t first = i - std::min(i, kContext);
        std::size_t last = i + 1;  // behind the last change of the hunk
        for (std::size_t k = last; k < lines.size() && k <= last + 2 * kContext; ++k) {
            last = lines[k].kind != ' ' ? k + 1 : last;
        }
        i = std::min(last + kContext, lines.size());
        printHunk(lines, first, i);
    }
}

}  // namespace rmini
