// What would surprise in an INI file.
//
// Why: the library reads and changes a file by rules that are simpler than people think, and says
// nothing when they bite: a key is not found, an entry is lost. Each rule that bites has a kind
// here, with a name that does not change, so that a script can ask for it.
//
// No function of the library is called here that could jump: these frames may own what they like.
#include "check.h"

#include "console.h"
#include "plan.h"

#include <algorithm>
#include <iterator>

namespace rmini
{
namespace
{
constexpr std::string_view kNames[] = {
    "before-section", "behind-empty", "byte-order-mark", "duplicate-key", "duplicate-section",
    "hash-comment",   "header-open",  "header-text",     "indented",      "key-blank",
    "left-over",      "lone-return",  "mixed-ends",      "no-equals",     "no-newline",
    "no-room",        "runs-on",      "value-blank",     "value-long",    "zero-byte",
};
static_assert(std::size(kNames) == static_cast<std::size_t>(Kind::kZeroByte) + 1);

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBlanks = " \t";

struct Examination {
    const Document& document;
    std::vector<Finding> findings;

    void add(Kind kind, std::size_t line, const std::string& text)
    {
        findings.push_back({kind, line, text});
    }
};

std::string number(std::size_t line)
{
    return "line " + std::to_string(line + 1);
}

std::string bracketed(std::string_view header)
{
    return std::string("[") + shown(sectionName(header)).text + "]";
}

std::string keyOf(std::string_view line)
{
    return std::string("\"") + shown(entryKey(line)).text + "\"";
}

bool isBlank(char c)
{
    return kBlanks.find(c) != std::string_view::npos;
}

// ---- the file as a whole

void examineFile(Examination& found)
{
    const auto& lines = found.document.lines;
    if (found.document.bytes.starts_with(kByteOrderMark)) {
        found.add(Kind::kByteOrderMark, 0,
                  "a byte order mark before the first line: it belongs to the line, so a header "
                  "there is none");
    }
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].find('\0') != std::string_view::npos) {
            found.add(Kind::kZeroByte, i,
                      "a zero byte: readers take it for the end of the file; nothing behind it is "
                      "read or checked");
            break;
        }
    }
    if (!lines.empty() && !found.document.terminated) {
        const bool read = found.document.readable.size() == lines.size();
        found.add(Kind::kNoNewline, lines.size() - 1,
                  read
                      ? "no newline at the end: the line is read only as long as the length of the "
                        "file is what it is"
                      : "no newline at the end: the line is not read");
    }
    const std::size_t whole = lines.size() - (found.document.terminated || lines.empty() ? 0 : 1);
    for (std::size_t i = 1; i < whole; ++i) {
        if (lines[i].ends_with('\r') != lines[0].ends_with('\r')) {
            found.add(Kind::kMixedEnds, i,
                      lines[i].ends_with('\r')
                          ? "ends with CR LF, and the lines before it with LF alone"
                          : "ends with LF alone, and the lines before it with CR LF");
            break;
        }
    }
}

// ---- single lines

void examineHeader(Examination& found, std::size_t i)
{
    const std::string_view line = withoutReturn(found.document.lines[i]);
    const std::size_t end = line.find(']');
    if (end == std::string_view::npos) {
        found.add(Kind::kHeaderOpen, i,
                  "the header has no \"]\": its name is the rest of the line");
    } else if (!trimmed(line.substr(end + 1)).empty()) {
        found.add(Kind::kHeaderText, i, "the text behind \"]\" is ignored");
    }
}

void examineEntry(Examination& found, std::size_t i)
{
    const std::string_view line = found.document.lines[i];
    const std::string_view key = entryKey(line);
    const std::string_view value = entryValue(line);
    if (key.empty()) {
        found.add(Kind::kKeyBlank, i, "nothing before \"=\": the key is empty");
    } else if (isBlank(key.front()) || isBlank(key.back())) {
        found.add(Kind::kKeyBlank, i, "blanks belong to the key: it is " + keyOf(line));
    }
    if (!value.empty() && isBlank(value.front())) {
        found.add(Kind::kValueBlank, i, "the value begins with a blank");
    }
    if (const std::size_t size = std::min(value.size(), value.find('\0')); size > kLongestValue) {
        found.add(Kind::kValueLong, i,
                  "the value has " + std::to_string(size) + " bytes: readers get the first " +
                      std::to_string(kLongestValue) + " at most");
    }
}

void examineLine(Examination& found, std::size_t i)
{
    const std::string_view line = found.document.lines[i];
    const std::string_view text = withoutReturn(line);
    const std::string_view core = trimmed(text);
    if (text.size() + 1 < line.size()) {
        found.add(Kind::kLoneReturn, i,
                  "a carriage return inside of the line: readers take it for its end");
    }
    if (beginsWithSpace(text) && (isHeader(core) || isComment(core))) {
        found.add(
            Kind::kIndented, i,
            isHeader(core) ? "indented, so this is no header" : "indented, so this is no comment");
    } else if (isHeader(text)) {
        examineHeader(found, i);
    } else if (text.starts_with('#')) {
        found.add(Kind::kHashComment, i,
                  isEntry(text)
                      ? "\"#\" begins no comment: this is an entry, its key is " + keyOf(text)
                      : "\"#\" begins no comment");
    } else if (isEntry(text)) {
        examineEntry(found, i);
    } else if (!core.empty() && !isComment(text)) {
        found.add(Kind::kNoEquals, i, "no \"=\": this is no entry");
    }
}

// ---- sections

// Entries that no reader finds, told once for each run of them.
void examineUnreachable(Examination& found, std::size_t header, std::size_t end)
{
    const auto& lines = found.document.lines;
    const LineIndex empty = emptyLine(lines, header, end);
    std::size_t first = end;
    std::size_t count = 0;
    for (std::size_t i = empty.value_or(end); i < end; ++i) {
        if (isEntry(lines[i]) && !lines[i].starts_with('#')) {
            first = std::min(first, i);
            ++count;
        }
    }
    if (count > 0) {
        const std::string more =
            count > 1 ? " and " + std::to_string(count - 1) + " more are" : " is";
        found.add(Kind::kBehindEmpty, first,
                  keyOf(lines[first]) + more + " not found: the empty " + number(*empty) +
                      " ends " + bracketed(lines[header]));
    }
}

void examineKeys(Examination& found, std::size_t header, std::size_t end)
{
    const auto& lines = found.document.lines;
    for (std::size_t i = header + 1; i < end && !isEmpty(lines[i]); ++i) {
        if (!isEntry(lines[i])) {
            continue;
        }
        const LineIndex first =
            findEntry(Lines(lines).subspan(header), sectionName(lines[header]), entryKey(lines[i]));
        if (first && header + *first < i) {
            found.add(Kind::kDuplicateKey, i,
                      keyOf(lines[i]) + " stands in " + number(header + *first) +
                          " already, which alone is read");
        }
    }
}

// What becomes of a key that the section does not have yet.
void examineRoom(Examination& found, std::size_t header, std::size_t end)
{
    const auto& lines = found.document.lines;
    const std::string section(sectionName(lines[header]));
    const Plan plan = planSet(found.document, section, "\x01", "", false);
    if (!plan.refused) {
        return;
    }
    const std::size_t line = plan.line.value_or(header);
    if (line == end && end < lines.size()) {
        found.add(
            Kind::kNoRoom, header,
            "a new key would be lost: put a line of one blank behind the last entry, before " +
                bracketed(lines[end]) + " of " + number(end));
    } else {
        const bool empty = line < lines.size() && isEmpty(lines[line]);
        found.add(Kind::kNoRoom, header,
                  "a new key would not be found: " +
                      (empty ? number(line) + " is empty and ends the section"
                             : "it would stand where readers do not look"));
    }
}

void examineSection(Examination& found, std::size_t header)
{
    const auto& lines = found.document.lines;
    const std::size_t end = nextHeader(lines, header);
    const LineIndex first = findSection(lines, sectionName(lines[header]));
    if (first && *first < header) {
        found.add(Kind::kDuplicateSection, header,
                  bracketed(lines[header]) + " begins in " + number(*first) +
                      " already; this one is not read");
        return;
    }
    examineUnreachable(found, header, end);
    examineKeys(found, header, end);
    examineRoom(found, header, end);
    if (end < lines.size() && !emptyLine(lines, header, end)) {
        found.add(Kind::kRunsOn, end,
                  "no empty line before it: a key that " + bracketed(lines[header]) + " of " +
                      number(header) + " does not have is looked for here too");
    }
}

void examineBeforeSections(Examination& found, std::size_t end)
{
    const auto& lines = found.document.lines;
    for (std::size_t i = 0; i < end; ++i) {
        if (isEntry(lines[i]) && !lines[i].starts_with('#')) {
            found.add(Kind::kBeforeSection, i,
                      keyOf(lines[i]) + " stands before the first section: it is not found");
        }
    }
}

// Readers do not get there, so nothing surprises them.
void forgetBehindZero(Examination& found)
{
    const auto zero = std::ranges::find(found.findings, Kind::kZeroByte, &Finding::kind);
    if (zero != found.findings.end()) {
        const std::size_t last = zero->line;
        std::erase_if(found.findings, [last](const Finding& one) { return one.line > last; });
    }
}
}  // namespace

std::string_view nameOf(Kind kind)
{
    return kNames[static_cast<std::size_t>(kind)];
}

std::optional<Kind> kindOf(std::string_view name)
{
    const auto* found = std::ranges::find(kNames, name);
    if (found == std::end(kNames)) {
        return {};
    }
    return static_cast<Kind>(found - std::begin(kNames));
}

std::vector<Finding> examine(const Document& document)
{
    Examination found = {document, {}};
    const auto& lines = document.lines;
    examineFile(found);
    bool inSection = false;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        examineLine(found, i);
        if (isHeader(lines[i])) {
            if (!inSection) {
                examineBeforeSections(found, i);
            }
            inSection = true;
            examineSection(found, i);
        }
    }
    if (!inSection) {
        examineBeforeSections(found, lines.size());
    }
    forgetBehindZero(found);
    std::ranges::stable_sort(found.findings, {}, &Finding::line);
    return std::move(found.findings);
}

}  // namespace rmini
