// The commands of rmini.
//
// Why: what is read and what is changed is decided by the library alone. Around its calls stands
// what it does not say: whether a change will do what is meant, before it is made, and what was
// wrong when it is not.
//
// Owns: the file that is worked on, its lines, the plan of a change. They are static, since a fatal
// error jumps out of the frames that call the library; those frames hold scalars and views, and the
// text of a message only while no call runs.
//
// Locks: none across calls. Between plan and change another process may change the file: a change
// is read back, and planned anew when it is not found.
//
// Fatal: as store.cpp.
#include "commands.h"

#include "check.h"
#include "console.h"
#include "document.h"
#include "files.h"
#include "plan.h"
#include "store.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

namespace rmini
{
namespace
{
constexpr int kAttempts = 5;        // to change a file that others change all the time
constexpr int kReadAttempts = 100;  // to see one content of it twice
constexpr int kGoOn = -1;           // no status yet

Source source;
Document document;  // its lines
Document after;     // its lines after a change
Plan plan;
std::string newValue;
bool made = false;  // by --create, and not written yet

// ---- lines and messages

// The file's lines, and how many of them readers get, of one content of it.
int load(Document& lines)
{
    for (int attempt = 0;; ++attempt) {
        const Version before = versionOf(source);
        const int status = readDocument(source, lines);
        if (status != kOk) {
            return status;
        }
        const std::size_t readable = countReadable(source.path);
        if (versionOf(source) == before || attempt == kReadAttempts) {
            setReadable(lines, readable);
            return kOk;
        }
    }
}

// "FILE:LINE: text", or without a line "FILE: text".
void sayAt(void (*say)(const char* format, ...), LineIndex line, const std::string& text)
{
    if (line) {
        say("%s:%zu: %s", source.given, *line + 1, text.c_str());
    } else {
        say("%s: %s", source.given, text.c_str());
    }
}

// A key that is found in a section behind the one that was asked for.
void noteOtherSection(const char* section, const char* key)
{
    const LineIndex asked = findSection(document.readable, section);
    const LineIndex entry = findEntry(document.readable, section, key);
    const LineIndex above = entry ? sectionAbove(document.readable, *entry) : LineIndex();
    if (asked && above && *asked != *above) {
        sayAt(note, entry,
              std::string("taken from [") + shown(sectionName(document.readable[*above])).text +
                  "]: no empty line ends [" + shown(section).text + "] before it");
    }
}

// A value that servers get cut off.
void noteLength(const char* section, const char* key, std::string_view value)
{
    if (value.size() > kLongestValue) {
        sayAt(note, findEntry(document.readable, section, key),
              "the value has " + std::to_string(value.size()) + " bytes: readers get the first " +
                  std::to_string(kLongestValue) + " at most");
    }
}

// ---- get, sections, keys

// The value by the library; by the lines when it may have been cut, or when the file was replaced
// at that moment. False when there is none, or with a status other than kOk.
bool findValue(const char* section, const char* key, std::string_view& value, int& status)
{
    const Got got = getValue(section, key, source.path, value);
    status = load(document);
    const LineIndex entry = findEntry(document.readable, section, key);
    if (status == kOk && got != Got::kAll && entry) {
        value = entryValue(document.readable[*entry]);
    }
    return status == kOk && (got == Got::kAll || entry);
}

int get(const Options& options)
{
    const char* section = options.operands[1];
    const char* key = options.operands[2];
    std::string_view value;
    int status = kOk;
    if (findValue(section, key, value, status)) {
        noteOtherSection(section, key);
        noteLength(section, key, value);
    } else if (status != kOk) {
        return status;
    } else if (options.defaultValue != nullptr) {
        value = options.defaultValue;
    } else {
        sayAt(note, findSection(document.readable, section), whyAbsent(document, section, key));
        return kAbsent;
    }
    print(value);
    print('\n');
    return kOk;
}

void printEach(std::string_view list, char separator)
{
    while (!list.empty()) {
        const std::string_view text = list.substr(0, list.find('\0'));
        list.remove_prefix(text.size() + 1);
        print(text);
        print(separator);
    }
}

void printSectionsOfLines(char separator)
{
    for (const std::string_view line : document.readable) {
        if (isHeader(line)) {
            print(sectionName(line));
            print(separator);
        }
    }
}

void printEntriesOfLines(std::string_view section, bool values, char separator)
{
    const auto& lines = document.readable;
    const LineIndex header = findSection(lines, section);
    for (std::size_t i = header ? *header + 1 : lines.size();
         i < lines.size() && !isEmpty(lines[i]) && !isHeader(lines[i]); ++i) {
        if (!isComment(lines[i])) {
            print(values ? withoutReturn(lines[i]) : entryKey(lines[i]));
            print(separator);
        }
    }
}

int listOf(const char* section, const Options& options)
{
    const char separator = options.null ? '\0' : '\n';
    std::string_view list;
    const Got got = getList(section, options.values, source.path, list);
    if (got == Got::kAll) {
        printEach(list, separator);
        return kOk;
    }
    const int status = load(document);
    if (status != kOk) {
        return status;
    }
    if (section != nullptr && !findSection(document.readable, section)) {
        sayAt(note, {}, whyAbsent(document, section, nullptr));
        return kAbsent;
    }
    // It may have been cut, or the file was replaced at that moment: the lines have it whole.
    section == nullptr ? printSectionsOfLines(separator)
                       : printEntriesOfLines(section, options.values, separator);
    return kOk;
}

// ---- set, delete

int refuse(const std::string& why)
{
    complain("%s", why.c_str());
    return kRefused;
}

// Names and values that would be read back differently, or not at all.
int examineNames(std::string_view section, std::string_view key, std::string_view value)
{
    constexpr std::string_view kEnds("\n\r\0", 3);
    if (section.empty() || section.find(']') != std::string_view::npos ||
        section.find_first_of(kEnds) != std::string_view::npos) {
        return refuse(
            std::string("the section \"") + shown(section).text +
            "\" could not be read back: it must not be empty, or hold \"]\" or a newline" +
            (isHeader(section) ? kNoBrackets : ""));
    }
    if (key.empty() || isHeader(key) || isComment(key) || beginsWithSpace(key) ||
        key.find('=') != std::string_view::npos ||
        key.find_first_of(kEnds) != std::string_view::npos) {
        return refuse(std::string("the key \"") + shown(key).text +
                      "\" could not be read back: it must not be empty, begin with \";\", \"[\" or "
                      "white space,\nor hold \"=\" or a newline");
    }
    if (value.find_first_of(kEnds) != std::string_view::npos) {
        return refuse(std::string("the value \"") + shown(value).text +
                      "\" could not be read back: it must not hold a newline, a carriage return or "
                      "a zero byte");
    }
    if (value.size() > kLongestValue) {
        return refuse("the value of " + std::to_string(value.size()) +
                      " bytes could not be read back: readers take " +
                      std::to_string(kLongestValue) + " at most");
    }
    return kGoOn;
}

bool isTemporaryName()
{
    return std::strcmp(source.path, source.temporary) == 0;
}

// Before a change: what stands in its way beside the file.
int examinePlace()
{
    if (isTemporaryName()) {
        return refuse(std::string(source.given) +
                      " cannot be changed: that is the name of the copy that a change is made in");
    }
    if (source.exists && !mayWrite(source)) {
        // The library needs the right to write the directory alone.
        complain("cannot write %s: %s", source.given, std::strerror(errno));
        return kUnwritten;
    }
    if (isLeftOver(source)) {
        complain(
            "%s is not changed: a change in its directory was cut off\n"
            "%s is left of it, and this change would overwrite it. It may be all that\n"
            "is left of a file: if one is missing, rmini recover puts it back. Otherwise remove "
            "it.",
            source.given, source.temporary);
        return kRefused;
    }
    return kGoOn;
}

// True when readers get the value that was set. When they do not, `changed` says whether the
// section has the key all the same: then somebody else has set it since.
bool readsBack(const char* section, const char* key, bool& changed)
{
    std::string_view value;
    const Got got = getValue(section, key, source.path, value);
    if (got == Got::kAll && value == newValue) {
        return true;
    }
    changed = false;
    if (load(after) != kOk) {
        return false;
    }
    const LineIndex entry = findEntry(after.readable, section, key);
    if (entry && entryValue(after.readable[*entry]) == newValue) {
        return true;
    }
    changed = entry && sectionAbove(after.readable, *entry) == findSection(after.readable, section);
    return false;
}

// Makes the planned change.
int makeChange(const char* section, const char* key, const char* value)
{
    if (!source.exists) {
        // Somebody else may make it meanwhile: then the library changes what he has written.
        const int status = createSource(source, made);
        source.exists = status == kOk;
        if (status != kOk) {
            return status;
        }
    }
    const int16_t result = change(section, key, value, source.path);
    if (result != 0) {
        return explainFailure(source, result, librarySaid());
    }
    made = false;
    return kOk;
}

// Lines beside a new entry that its user may have meant, by their numbers before or after the
// change.
void noteNeighbours(const char* key, bool isMade)
{
    const auto number = [isMade](LineIndex line) {
        return LineIndex(isMade ? lineAfter(plan, *line) : *line);
    };
    if (plan.stays) {
        // A new entry goes before a line that begins with white space, whatever stands behind that.
        sayAt(note, number(plan.stays),
              std::string("\"") + shown(key).text +
                  (plan.removed.empty() && beginsWithSpace(document.lines[plan.at])
                       ? "\" stands here too, behind a line that begins with white space: it is "
                         "not replaced, and not read"
                       : "\" stands here too, and stays behind the entry that is set"));
    }
    if (plan.like) {
        sayAt(note, number(plan.like),
              std::string("\"") + shown(entryKey(document.lines[*plan.like])).text +
                  "\" is another key than \"" + shown(key).text + "\": blanks belong to it");
    }
}

// Plans the change and makes it. kGoOn when it could not be read back.
int setOnce(const Options& options)
{
    const char* section = options.operands[1];
    const char* key = options.operands[2];
    int status = source.exists ? load(document) : int{kOk};
    if (status != kOk) {
        return status;
    }
    plan = planSet(document, section, key, newValue, options.insert);
    if (plan.refused) {
        sayAt(complain, plan.line, plan.why);
        return kRefused;
    }
    if (!plan.changes) {
        return kOk;
    }
    if (!options.dryRun) {
        status = makeChange(section, plan.key.c_str(), plan.value.c_str());
        bool changed = false;
        if (status == kOk && !readsBack(section, key, changed)) {
            status = changed ? int{kOk} : kGoOn;
        }
        if (changed) {
            note("%s: another program has changed \"%s\" since", source.given, shown(key).text);
        }
    }
    if (status == kOk) {
        noteNeighbours(key, !options.dryRun);
    }
    if (status == kOk && (options.dryRun || options.diff)) {
        printDiff(source.given, document, plan);
    }
    return status;
}

int set(const Options& options)
{
    if (std::strcmp(options.operands[3], "-") != 0) {
        newValue = options.operands[3];
    } else if (!readInput(newValue)) {
        return kUnreadable;
    }
    int status = examineNames(options.operands[1], options.operands[2], newValue);
    if (status == kGoOn) {
        status = findSource(options.operands[0], true, source);
    }
    if (status == kOk && !source.exists && !options.create) {
        complain("cannot open %s: it does not exist; --create makes it", source.given);
        status = kUnreadable;
    }
    if (status == kOk) {
        status = examinePlace();
    }
    for (int attempt = 0; status == kGoOn && attempt < kAttempts; ++attempt) {
        status = setOnce(options);
    }
    if (made) {
        removeEmpty(source);
    }
    if (status == kGoOn) {
        complain("%s: \"%s\" was set and is not there: other programs change the file",
                 source.given, shown(options.operands[2]).text);
        return kUnwritten;
    }
    return status;
}

// What readers find after something was deleted.
void noteWhatRemains(const char* section, const char* key)
{
    std::string_view value;
    if (key != nullptr ? getValue(section, key, source.path, value) != Got::kAll
                       : getList(section, false, source.path, value) == Got::kNothing) {
        return;
    }
    if (load(after) != kOk) {
        return;
    }
    const LineIndex line = key != nullptr ? findEntry(after.readable, section, key)
                                          : findSection(after.readable, section);
    if (line) {
        sayAt(note, line,
              key != nullptr ? std::string("a reader finds \"") + shown(key).text +
                                   "\" here now: no empty line ends the section before it"
                             : std::string("another section [") + shown(section).text +
                                   "] stands here, which readers find now");
    }
}

int remove(const Options& options)
{
    const char* section = options.operands[1];
    const char* key = options.operands.size() > 2 ? options.operands[2] : nullptr;
    int status = findSource(options.operands[0], false, source);
    if (status == kOk) {
        status = examinePlace();
    }
    if (status == kGoOn) {
        status = load(document);
    }
    if (status != kOk) {
        return status;
    }
    plan = planDelete(document, section, key);
    if (plan.absent) {
        sayAt(note, plan.line, plan.why);
        return kAbsent;
    }
    if (!options.dryRun) {
        status = makeChange(section, key, nullptr);
        if (status != kOk) {
            return status;
        }
        noteWhatRemains(section, key);
    }
    if (options.dryRun || options.diff) {
        printDiff(source.given, document, plan);
    }
    return kOk;
}

// ---- check, recover

void report(const Options& options, const std::string& finding)
{
    if (!options.quiet) {
        print(finding);
    }
}

// kOk, kFindings, or why the file could not be looked at.
int checkOne(const char* file, const Options& options)
{
    int status = findSource(file, false, source);
    if (status == kOk) {
        status = load(document);
    }
    if (status != kOk) {
        return status;
    }
    bool clean = true;
    if ((options.ignored & kindBit(Kind::kLeftOver)) == 0 && !isTemporaryName() &&
        isLeftOver(source)) {
        clean = false;
        report(options, std::string(file) + ": " + source.temporary +
                            " stands beside it, left of a change that was cut off [left-over]\n");
    }
    for (const Finding& finding : examine(document)) {
        if ((options.ignored & kindBit(finding.kind)) == 0) {
            clean = false;
            report(options, std::string(file) + ":" + std::to_string(finding.line + 1) + ": " +
                                finding.text + " [" + std::string(nameOf(finding.kind)) + "]\n");
        }
    }
    return clean ? kOk : kFindings;
}

int check(const Options& options)
{
    int status = kOk;
    for (const char* file : options.operands) {
        const int one = checkOne(file, options);
        // A file that was not looked at counts more than what was found in another.
        if (status == kOk || (one != kOk && one != kFindings)) {
            status = one;
        }
    }
    return status;
}

int recover(const Options& options)
{
    const int status = findMissing(options.operands[0], source);
    return status == kOk ? recoverSource(source) : status;
}
}  // namespace

int runCommand(const Options& options)
{
    switch (options.command) {
        case Command::kSet:
            return set(options);
        case Command::kDelete:
            return remove(options);
        case Command::kCheck:
            return check(options);
        case Command::kRecover:
            return recover(options);
        default:
            break;
    }
    const int status = findSource(options.operands[0], false, source);
    if (status != kOk) {
        return status;
    }
    switch (options.command) {
        case Command::kGet:
            return get(options);
        case Command::kSections:
            return listOf(nullptr, options);
        default:
            return listOf(options.operands[1], options);
    }
}

void abandonCommand()
{
    complain("ended by an error that cannot be mended%s", whatLibrarySaid(librarySaid()).c_str());
    if (made) {
        removeEmpty(source);
    }
}

}  // namespace rmini
