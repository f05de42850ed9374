// Records of "Field: value" lines, separated by blank lines.
//
// Format: a line is either "Field: value", or it begins with white space and continues the value
// before it. A line of nothing but white space ends the record. What is no part of a value: blanks
// around its first line, and of a continued line the first blank, which says that it is one.
//
// A continued value is joined in place: each of its lines moves down to the one before.
#include "module.h"

namespace
{
constexpr uint32_t kEveryLineFits = 90;  // of a head: surer than a comma in each line can be
constexpr uint32_t kFirstLineFits = 50;

struct State {
    format::Lines lines;
    bool within;  // a record
    bool named;   // it
};

const char* name()
{
    return "fields";
}

const char* advice()
{
    return "A record is a run of \"Field: value\" lines; a line that begins with\n"
           "white space continues a field; a blank line ends the record.";
}

// Length of the field's name, 0 when the line has none. A name is printable and has no blank.
std::size_t nameLength(std::string_view line)
{
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return 0;
    }
    for (const char c : line.substr(0, colon)) {
        if (c <= ' ' || c > '~') {
            return 0;
        }
    }
    return colon;
}

uint32_t probe(const char* head, std::size_t size, int whole)
{
    const std::string_view text(head, size);
    format::Lines lines = {};
    std::string_view line;
    bool within = false;
    while (format::nextLine(text, lines, line)) {
        if (format::isBlank(line) || (within && format::isBlank(line.front()))) {
            continue;
        }
        if (nameLength(line) == 0) {
            const bool cut = whole == 0 && lines.at == size && head[size - 1] != '\n';
            return !within ? 0 : cut ? kEveryLineFits : kFirstLineFits;
        }
        within = true;
    }
    return within ? kEveryLineFits : 0;
}

int begin(FormatReader* reader)
{
    format::beginState<State>(*reader);
    reader->keyText = "the first field";
    return 0;
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && format::isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && format::isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// Joins the lines that continue a value to it. Nothing that is still to be read is written over:
// every line of them is shorter by the blank at its beginning.
void joinContinuations(FormatReader& reader, State& state, std::string_view& value)
{
    char* const first = reader.text + (value.data() - reader.text);
    std::size_t length = value.size();
    format::Lines ahead = state.lines;
    std::string_view line;
    while (format::nextLine({reader.text, reader.size}, ahead, line) && !format::isBlank(line) &&
           format::isBlank(line.front())) {
        first[length++] = '\n';
        std::memmove(first + length, line.data() + 1, line.size() - 1);
        length += line.size() - 1;
        state.lines = ahead;
    }
    value = {first, length};
}

int next(FormatReader* reader, FormatField* field)
{
    auto& state = format::stateOf<State>(*reader);
    std::string_view line;
    for (;;) {
        if (!format::nextLine({reader->text, reader->size}, state.lines, line)) {
            return FORMAT_END;
        }
        if (!format::isBlank(line)) {
            break;
        }
        state.within = false;
    }
    const std::size_t number = state.lines.line;
    if (format::isBlank(line.front())) {
        return format::fault(*reader, number, "a continuation without a field before it", line);
    }
    const std::size_t length = nameLength(line);
    if (length == 0) {
        return format::fault(*reader, number, "neither a field nor a continuation", line);
    }
    const std::string_view fieldName(line.data(), length);
    std::string_view value = trimmed({line.data() + length + 1, line.size() - length - 1});
    joinContinuations(*reader, state, value);

    unsigned flags = 0;
    if (!state.within) {
        flags = FORMAT_NEW_RECORD;
        state.within = true;
        state.named = false;
    }
    if (!state.named && (reader->key == nullptr || fieldName == reader->key)) {
        flags |= FORMAT_KEY;
        state.named = true;
    }
    *field = {fieldName.data(), fieldName.size(), value.data(), value.size(), number, flags};
    return FORMAT_FIELD;
}
}  // namespace

FORMAT_ENTRY(FIELDS_ModEntry)
{
    format::registerFunctions(module, name, advice, probe, begin, next);
}
