// What the three modules have in common.
#ifndef CATALOGUE_MODULE_H
#define CATALOGUE_MODULE_H

#include "format.h"

#include "rm.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

// The head of an entry point, the only function that a module exports. It gets the name of its
// module as `module`.
#define FORMAT_ENTRY(function)                                                           \
    extern "C" __attribute__((visibility("default"))) void function(const char* module); \
    void function(const char* module)

namespace format
{

// Registers the functions of a module, from its entry point.
inline void registerFunctions(const char* module, FormatTextFunction* name,
                              FormatTextFunction* advice, FormatProbeFunction* probe,
                              FormatBeginFunction* begin, FormatNextFunction* next)
{
    // Compiled into each module: the version is the one that the module was made with.
    FormatVersionFunction* const version = +[] { return FORMAT_VERSION; };
    rm_emRegFcn(module, "formatVersion", reinterpret_cast<void*>(version));
    rm_emRegFcn(module, "formatName", reinterpret_cast<void*>(name));
    rm_emRegFcn(module, "formatAdvice", reinterpret_cast<void*>(advice));
    rm_emRegFcn(module, "formatProbe", reinterpret_cast<void*>(probe));
    rm_emRegFcn(module, "formatBegin", reinterpret_cast<void*>(begin));
    rm_emRegFcn(module, "formatNext", reinterpret_cast<void*>(next));
}

// The state of a reader. Plain data: nobody ends its life.
template <class State>
State& beginState(FormatReader& reader)
{
    static_assert(sizeof(State) <= FORMAT_STATE_ROOM && alignof(State) <= alignof(void*));
    static_assert(offsetof(FormatReader, state) % alignof(void*) == 0);
    return *new (reader.state) State();
}

template <class State>
State& stateOf(FormatReader& reader)
{
    return *std::launder(reinterpret_cast<State*>(reader.state));
}

inline int fault(FormatReader& reader, std::size_t line, const char* what,
                 std::string_view shown = {})
{
    std::snprintf(reader.fault, sizeof(reader.fault), "%s", what);
    reader.line = line;
    reader.shown = shown.data();
    reader.shownLength = shown.size();
    return FORMAT_FAULT;
}

// A place between two lines.
struct Lines {
    std::size_t at;    // offset of the next line
    std::size_t line;  // number of the one before it, 0 at first
};

// The next line, without its end: a newline, or a carriage return and a newline. False at the end.
inline bool nextLine(std::string_view text, Lines& lines, std::string_view& line)
{
    if (lines.at >= text.size()) {
        return false;
    }
    const std::size_t end = text.find('\n', lines.at);
    const bool last = end == std::string_view::npos;
    line = text.substr(lines.at, (last ? text.size() : end) - lines.at);
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    lines.at = last ? text.size() : end + 1;
    ++lines.line;
    return true;
}

inline bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

inline bool isBlank(std::string_view line)
{
    return std::ranges::all_of(line, [](char c) { return isBlank(c); });
}

}  // namespace format

#endif
