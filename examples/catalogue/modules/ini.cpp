// INI files: each section is a record, which its header names.
//
// Format: "[name]" begins a section, "key=value" is an entry of it, a line that begins with a
// semicolon is a comment. Blanks count, in keys and values too, as in the INI files of the library.
// The header becomes the first field of its record, under the name "Section" or that of the key
// field that was asked for.
//
// The library's own calls are made for settings: they look one section up at a time, from the
// beginning of the file, into a buffer of 32 KiB at most, and pass over what belongs to no section.
// Here all of a file of any size is wanted. So this reads on where they would stop, at an empty
// line and on a last line without its newline, and refuses what is neither header, entry nor
// comment.
#include "module.h"

namespace
{
constexpr uint32_t kEveryLineFits = 95;
constexpr uint32_t kFirstLineFits = 60;
constexpr const char* kHeaderName = "Section";

struct State {
    format::Lines lines;
    bool within;  // a section
};

const char* name()
{
    return "ini";
}

const char* advice()
{
    return "A record is a section: \"[name]\", and lines of \"key=value\" below it; a line\n"
           "that begins with ; is a comment.";
}

bool isEntry(std::string_view line)
{
    return line.find('=') != std::string_view::npos && line.front() != '=';
}

bool isHeader(std::string_view line)
{
    return line.front() == '[' && line.find(']') != std::string_view::npos;
}

uint32_t probe(const char* head, std::size_t size, int whole)
{
    format::Lines lines = {};
    std::string_view line;
    bool within = false;
    while (format::nextLine({head, size}, lines, line)) {
        if (line.empty() || line.front() == ';' || format::isBlank(line)) {
            continue;
        }
        const bool fits = within ? isHeader(line) || isEntry(line) : isHeader(line);
        if (!fits) {
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
    reader->keyText = "the header of a section";
    return 0;
}

int takeHeader(FormatReader& reader, State& state, std::string_view line, FormatField& field)
{
    const std::size_t end = line.find(']');
    if (end == std::string_view::npos) {
        return format::fault(reader, state.lines.line, "the header of a section lacks its ]", line);
    }
    if (!format::isBlank(line.substr(end + 1))) {
        return format::fault(reader, state.lines.line, "text behind the header of a section", line);
    }
    const char* const fieldName = reader.key == nullptr ? kHeaderName : reader.key;
    state.within = true;
    field = {fieldName, std::strlen(fieldName), line.data() + 1,
             end - 1,   state.lines.line,       FORMAT_NEW_RECORD | FORMAT_KEY};
    return FORMAT_FIELD;
}

int next(FormatReader* reader, FormatField* field)
{
    auto& state = format::stateOf<State>(*reader);
    std::string_view line;
    do {
        if (!format::nextLine({reader->text, reader->size}, state.lines, line)) {
            return FORMAT_END;
        }
    } while (format::isBlank(line) || line.front() == ';');
    if (line.front() == '[') {
        return takeHeader(*reader, state, line, *field);
    }
    if (!state.within) {
        return format::fault(*reader, state.lines.line, "a line before the first section", line);
    }
    if (!isEntry(line)) {
        return format::fault(*reader, state.lines.line,
                             "neither the header of a section, an entry nor a comment", line);
    }
    const std::size_t equals = line.find('=');
    *field = {line.data(),      equals, line.data() + equals + 1, line.size() - equals - 1,
              state.lines.line, 0};
    return FORMAT_FIELD;
}
}  // namespace

FORMAT_ENTRY(INI_ModEntry)
{
    format::registerFunctions(module, name, advice, probe, begin, next);
}
