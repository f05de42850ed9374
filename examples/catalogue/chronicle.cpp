// What the parent's log says about the run as a whole.
//
// Why: the log is read after the fact, by somebody who has neither the settings nor the summary of
// that run before his eyes. So it begins with the ones and ends with the other.
//
// Fatal: a line for the log file may jump to the target that main has registered.
#include "chronicle.h"

#include "console.h"
#include "counters.h"
#include "journal.h"
#include "report.h"

#include "rm.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr std::size_t kLineRoom = 240;  // bytes of a line, as composed here
constexpr int16_t kCountersInALine = 6;

char reason[200] = "standard error says why";

// Appends to a line, as far as there is room.
void append(char (&line)[kLineRoom], std::size_t& length, const char* format, ...) RM_PRINTF(3, 4);

void append(char (&line)[kLineRoom], std::size_t& length, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line + length, sizeof(line) - length, format, arguments);
    va_end(arguments);
    length += std::strlen(line + length);
}

// A line for each section.
void noteSettings(const Settings& settings)
{
    for (uint32_t i = 0; i < kSettings;) {
        const char* const section = kDefinitions[i].section;
        char line[kLineRoom] = "";
        std::size_t length = 0;
        for (; i < kSettings && std::strcmp(kDefinitions[i].section, section) == 0; ++i) {
            append(line, length, " %s=%s", kDefinitions[i].key,
                   valueOf(settings, static_cast<Setting>(i)).text);
        }
        note("settings: [%s]%s", section, line);
    }
}
}  // namespace

void noteStart(const Host& host)
{
    note("start: process %d, semaphore set %d, files in %s", getpid(), host.directory.setId(),
         host.directory.path().c_str());
    if (host.profile.found) {
        note("settings: read from %s", host.profile.path);
    } else {
        note("settings: there is no %s; these are the defaults", host.profile.path);
    }
    if (host.profile.foreign[0] != '\0') {
        note("settings: sections for others are left alone: %s", host.profile.foreign);
    }
    noteSettings(host.settings);
    for (const char* entry = host.settings.environment; *entry != '\0';
         entry += std::strlen(entry) + 1) {
        note("settings: [ENVIRONMENT] %s", entry);
    }
    note("formats: %s, from %s", formatNames(host.formats).text, host.formats.directory);
    if (host.formats.refused[0] != '\0') {
        note("formats: modules that cannot be used, as said above:%s", host.formats.refused);
    }
    note("input: %s records of %s bytes", grouped(host.input.records.size()).text,
         grouped(host.input.bytes).text);
}

void endBecause(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(reason, sizeof(reason), format, arguments);
    va_end(arguments);
}

const char* endReason()
{
    return reason;
}

void noteEnd(const Board& board, double seconds)
{
    for (int16_t i = 0; i < kCounters;) {
        char line[kLineRoom] = "";
        const int16_t behind =
            std::min<int16_t>(kCounters, static_cast<int16_t>(i + kCountersInALine));
        for (std::size_t length = 0; i < behind; ++i) {
            const auto counter = static_cast<Counter>(i);
            append(line, length, "%s%s %s", length == 0 ? "" : ", ",
                   grouped(countedByAll(board, counter)).text, counterName(counter));
        }
        note("counted: %s", line);
    }
    note("end: every record matches, after %.2f s", seconds);
}

}  // namespace catalogue
