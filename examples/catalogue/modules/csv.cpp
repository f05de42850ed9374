// Comma-separated values with a header, by the rules of RFC 4180.
//
// Format: rows of fields with commas between them. A field that holds a comma, a quote or the end
// of a line stands in quotes, with its own quotes doubled. Rows end with a newline, with or without
// a carriage return before it. The first row names the columns; every row has as many fields. A
// line without a character is no row.
//
// Blanks are part of a field. What the rules leave open is refused, with its line: guessing would
// make other fields of them.
//
// Fields lose their quotes in place. The header shrinks to a row of names with a zero behind each,
// which is walked along with the fields of every row.
#include "module.h"

namespace
{
constexpr std::size_t kMostColumns = 4096;
constexpr uint32_t kEveryRowFits = 70;
constexpr uint32_t kFirstRowFits = 40;
constexpr uint32_t kHeaderFits = 30;  // and no row is there to see
constexpr uint32_t kHasCommas = 20;   // the fault in it is said when it is read

struct State {
    std::size_t at;         // offset of the next byte
    std::size_t line;       // in which it stands, from 1
    std::size_t rowLine;    // in which the row begins
    std::size_t names;      // offset of the first name
    std::size_t nextName;   // of the name of the next field
    std::size_t columns;    // how many there are
    std::size_t column;     // of the next field, 0 at the beginning of a row
    std::size_t keyColumn;  // that names the record
};

// What stands behind a field.
enum class Behind { kField, kRow, kFault };

const char* name()
{
    return "csv";
}

const char* advice()
{
    return "Rows of fields with commas between them, the first row with the names of the\n"
           "columns. Quotes stand around fields with a comma, a quote or a newline in\n"
           "them, and a quote within is doubled.";
}

// Length of the end of a line at an offset: 0 when there is none, and at the end of the text.
std::size_t lineEnd(std::string_view text, std::size_t at)
{
    if (at < text.size() && text[at] == '\n') {
        return 1;
    }
    if (at < text.size() && text[at] == '\r') {
        return at + 1 == text.size() ? 1 : text[at + 1] == '\n' ? 2 : 0;
    }
    return 0;
}

// The line of which `at` is a byte, from there on.
std::string_view restOfLine(std::string_view text, std::size_t at)
{
    return text.substr(at, text.find('\n', at) - at);
}

// Passes over what ends a field.
Behind passEnd(FormatReader& reader, State& state, const char* faultOtherwise)
{
    const std::string_view text(reader.text, reader.size);
    if (state.at == text.size()) {
        return Behind::kRow;
    }
    if (text[state.at] == ',') {
        ++state.at;
        return Behind::kField;
    }
    const std::size_t end = lineEnd(text, state.at);
    if (end == 0) {
        format::fault(reader, state.line, faultOtherwise, restOfLine(text, state.at));
        return Behind::kFault;
    }
    state.at += end;
    ++state.line;
    return Behind::kRow;
}

Behind takeQuoted(FormatReader& reader, State& state, std::string_view& value)
{
    const std::string_view text(reader.text, reader.size);
    const std::size_t opening = state.at++;
    const std::size_t openingLine = state.line;
    char* const first = reader.text + state.at;
    std::size_t length = 0;
    for (;; ++state.at) {
        if (state.at == text.size()) {
            // Its first line has been moved when a doubled quote stood in it; the name is enough.
            format::fault(reader, openingLine, "the quote that opens here is never closed",
                          text.substr(opening, 1));
            return Behind::kFault;
        }
        if (text[state.at] == '"') {
            if (state.at + 1 == text.size() || text[state.at + 1] != '"') {
                break;
            }
            ++state.at;
        } else if (text[state.at] == '\n') {
            ++state.line;
        }
        first[length++] = text[state.at];
    }
    ++state.at;
    value = {first, length};
    return passEnd(reader, state, "text behind the quote that closes a field");
}

Behind takePlain(FormatReader& reader, State& state, std::string_view& value)
{
    const std::string_view text(reader.text, reader.size);
    const std::size_t begin = state.at;
    state.at = text.find_first_of(",\n\r\"", begin);
    if (state.at == std::string_view::npos) {
        state.at = text.size();
    }
    value = text.substr(begin, state.at - begin);
    const bool quote = state.at < text.size() && text[state.at] == '"';
    return passEnd(reader, state,
                   quote ? "a quote in a field that does not begin with one"
                         : "a carriage return that ends no line, outside of quotes");
}

Behind takeField(FormatReader& reader, State& state, std::string_view& value)
{
    const bool quoted = state.at < reader.size && reader.text[state.at] == '"';
    return quoted ? takeQuoted(reader, state, value) : takePlain(reader, state, value);
}

void passEmptyLines(const FormatReader& reader, State& state)
{
    const std::string_view text(reader.text, reader.size);
    for (std::size_t end = lineEnd(text, state.at); end != 0; end = lineEnd(text, state.at)) {
        state.at += end;
        ++state.line;
    }
}

// ---- recognising

// What a row of the head has: its fields, and whether it was seen to its end.
struct Row {
    std::size_t fields;
    bool complete;
};

Row rowAt(std::string_view text, std::size_t& at)
{
    Row row = {1, false};
    bool quoted = false;
    for (; at < text.size(); ++at) {
        if (text[at] == '"') {
            quoted = !quoted;  // twice for a doubled one
        } else if (!quoted && text[at] == ',') {
            ++row.fields;
        } else if (!quoted && text[at] == '\n') {
            ++at;
            row.complete = true;
            break;
        }
    }
    return row;
}

uint32_t probe(const char* head, std::size_t size, int whole)
{
    const std::string_view text(head, size);
    std::size_t at = 0;
    std::size_t columns = 0;
    std::size_t rows = 0;  // behind the header, with as many fields
    while (at < size) {
        if (const std::size_t end = lineEnd(text, at); end != 0) {
            at += end;
            continue;
        }
        const Row row = rowAt(text, at);
        if (columns == 0) {
            // With one column anything is such a file: that must be asked for.
            if (row.fields == 1) {
                return 0;
            }
            columns = row.fields;
        } else if (row.fields == columns) {
            ++rows;
        } else if (row.complete || whole != 0) {
            return rows == 0 ? kHasCommas : kFirstRowFits;
        }
    }
    return columns == 0 ? 0 : rows == 0 ? kHeaderFits : kEveryRowFits;
}

// ---- reading

std::size_t findName(const FormatReader& reader, const State& state, std::string_view wanted)
{
    const char* each = reader.text + state.names;
    std::size_t column = 0;
    while (column < state.columns && wanted != each) {
        each += std::strlen(each) + 1;
        ++column;
    }
    return column;
}

int begin(FormatReader* reader)
{
    auto& state = format::beginState<State>(*reader);
    reader->keyText = reader->key == nullptr ? "the first column" : "the key column";
    state.line = 1;
    passEmptyLines(*reader, state);
    state.names = state.at;
    if (state.at == reader->size) {
        return 0;  // no header and no rows
    }
    char* packed = reader->text + state.names;
    for (Behind behind = Behind::kField; behind == Behind::kField; ++state.columns) {
        const std::size_t line = state.line;
        std::string_view column;
        behind = takeField(*reader, state, column);
        if (behind == Behind::kFault) {
            return FORMAT_FAULT;
        }
        if (column.empty()) {
            return format::fault(*reader, line, "a column without a name");
        }
        if (state.columns == kMostColumns) {
            return format::fault(*reader, line, "more than 4096 columns", column);
        }
        if (findName(*reader, state, column) != state.columns) {
            return format::fault(*reader, line, "a second column of this name", column);
        }
        // What is read later stays as it is: each name has at least its separator behind it.
        std::memmove(packed, column.data(), column.size());
        packed[column.size()] = '\0';
        packed += column.size() + 1;
    }
    if (reader->key != nullptr) {
        state.keyColumn = findName(*reader, state, reader->key);
        if (state.keyColumn == state.columns) {
            return format::fault(*reader, 1, "the header has no column of this name", reader->key);
        }
    }
    return 0;
}

int wrongCount(FormatReader& reader, const State& state, std::size_t fields, const char* more)
{
    char text[FORMAT_FAULT_ROOM];
    std::snprintf(text, sizeof(text), "the row has %zu field%s%s, and the header has %zu", fields,
                  fields == 1 ? "" : "s", more, state.columns);
    return format::fault(reader, state.rowLine, text);
}

int next(FormatReader* reader, FormatField* field)
{
    auto& state = format::stateOf<State>(*reader);
    if (state.column == 0) {
        passEmptyLines(*reader, state);
        if (state.at == reader->size) {
            return FORMAT_END;
        }
        state.rowLine = state.line;
        state.nextName = state.names;
    }
    const std::size_t line = state.line;
    std::string_view value;
    const Behind behind = takeField(*reader, state, value);
    if (behind == Behind::kFault) {
        return FORMAT_FAULT;
    }
    const bool last = state.column + 1 == state.columns;
    if (behind == Behind::kRow && !last) {
        return wrongCount(*reader, state, state.column + 1, "");
    }
    if (behind == Behind::kField && last) {
        return wrongCount(*reader, state, state.columns + 1, " or more");
    }
    const std::string_view fieldName(reader->text + state.nextName);
    unsigned flags = state.column == 0 ? FORMAT_NEW_RECORD : 0;
    flags |= state.column == state.keyColumn ? FORMAT_KEY : 0;
    *field = {fieldName.data(), fieldName.size(), value.data(), value.size(), line, flags};
    state.nextName += fieldName.size() + 1;
    state.column = last ? 0 : state.column + 1;
    return FORMAT_FIELD;
}
}  // namespace

FORMAT_ENTRY(CSV_ModEntry)
{
    format::registerFunctions(module, name, advice, probe, begin, next);
}
