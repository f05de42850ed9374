// The log writer: every diagnostic of the library and of its host leaves through here.
//
// Why: one line format, one place that decides where a line goes. Standard error gets every line,
// whatever the level, so that nothing is lost before a log file is open or after it broke.
//
// Owns: the log level, the re-entry flag, the log file that has failed, the buffer of optional
// messages.
//
// Invariant: while a line goes into the log file, a line that this causes (the file layer reports
// its own failures through this writer) goes to standard error only. Else a full disk would
// recurse.
//
// Locks: fileSem, inside rm_filePrintf. Fatal: only what rm_filePrintf ends.
#include "rm/rmsrv/rmsrv.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

int16_t syslogon = 0;  // 0 off, 1 on, 2 or more on and copied to the log file

namespace rmsrv
{
int32_t writingLogFile = 0;
int16_t failedLogFile = RM_NONE;
}  // namespace rmsrv

namespace
{
constexpr std::size_t kStampSize = 40;  // bytes, terminator included
constexpr std::size_t kZoneSize = 64;  // of a time zone's name; under a longer one no stamp is kept
constexpr int16_t kLevelWithLogFile = 2;  // from here on the log file gets a copy
constexpr const char* kStampFormat = "[%d-%b-%y %H:%M:%S]  ";

// The stamp of the last line: most lines of a burst fall into the same second.
struct KeptStamp {
    bool kept;  // the rest holds for the next line too, if it comes in time
    std::time_t second;
    bool hasZone;           // TZ was set: an empty one is another zone than none
    char zone[kZoneSize];   // its value then
    char text[kStampSize];  // empty when the system could not tell
};

// The stamp, the message and the newline of one line, built where they are written from.
struct Line {
    char text[kStampSize + rmsrv::kLogMessageSize + 1];
    std::size_t length;
};

KeptStamp keptStamp;
char optionalMessage[rmsrv::kLogMessageSize];

bool isCurrent(std::time_t now, const char* zone)
{
    return keptStamp.kept && keptStamp.second == now && keptStamp.hasZone == (zone != nullptr) &&
           (zone == nullptr || std::strcmp(keptStamp.zone, zone) == 0);
}

// The local time of now, formatted anew when the second or the time zone has changed.
const char* stampOfNow()
{
    const std::time_t now = std::time(nullptr);
    const char* zone = std::getenv("TZ");
    if (!isCurrent(now, zone)) {
        const std::tm* local = std::localtime(&now);
        keptStamp.text[0] = '\0';
        if (local == nullptr ||
            std::strftime(keptStamp.text, sizeof(keptStamp.text), kStampFormat, local) == 0) {
            keptStamp.text[0] = '\0';
        }
        keptStamp.kept = local != nullptr && (zone == nullptr || std::strlen(zone) < kZoneSize);
        keptStamp.second = now;
        keptStamp.hasZone = zone != nullptr;
        StrncpyZ(keptStamp.zone, zone, kZoneSize);
    }
    return keptStamp.text;
}

void formatLine(Line* line, const char* format, va_list arguments)
{
    const int savedErrno = errno;  // the message may show it
    StrncpyZ(line->text, stampOfNow(), kStampSize);
    char* message = line->text + std::strlen(line->text);
    errno = savedErrno;
    *message = '\0';
    std::vsnprintf(message, rmsrv::kLogMessageSize, format, arguments);
    char* end = message + std::strlen(message);
    *end++ = '\n';
    *end = '\0';
    line->length = static_cast<std::size_t>(end - line->text);
}
}  // namespace

void rmsrv::abandonLogLine()
{
    if (writingLogFile != 0 && sysfile != RM_NONE) {
        failedLogFile = failedLogFile == RM_NONE ? sysfile : kEveryLogFile;
    }
    writingLogFile = 0;
}

void rmsrv::trustLogFile()
{
    failedLogFile = RM_NONE;
}

int16_t rm_systemLog(int16_t level)
{
    const int16_t previous = syslogon;
    syslogon = level;
    return previous;
}

void rm_systemLogWrite(const char* format, ...)
{
    const int savedErrno = errno;  // callers log first and look at errno afterwards
    Line line;
    va_list arguments;
    va_start(arguments, format);
    formatLine(&line, format, arguments);
    va_end(arguments);

    // Standard output is flushed around the line, so that what a process prints and what it logs
    // stand in the order in which they were written when both go to one terminal. The line leaves
    // in one piece: lines of several processes do not mix.
    std::fflush(stdout);
    std::fwrite(line.text, 1, line.length, stderr);
    std::fflush(stdout);

    if (rmsrv::writingLogFile == 0 && syslogon >= kLevelWithLogFile && sysfile != RM_NONE &&
        sysfile != rmsrv::failedLogFile && rmsrv::failedLogFile != rmsrv::kEveryLogFile) {
        rmsrv::writingLogFile = 1;
        rm_filePrintf(sysfile, "%s", line.text);
        rmsrv::writingLogFile = 0;
    }
    errno = savedErrno;
}

void rm_systemLogOptWrite(const char* format, ...)
{
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(optionalMessage, sizeof(optionalMessage), format, arguments);
    va_end(arguments);
    if (syslogon != 0) {
        // Deliberate: the text is expanded a second time, as a format without arguments. Hosts
        // write "%%%%" for a percent sign in an optional message.
        char expanded[rmsrv::kLogMessageSize];
        errno = savedErrno;
        rmsrv::expandOverZeros(expanded, sizeof(expanded), optionalMessage);
        rm_systemLogWrite("%s", expanded);
    }
    errno = savedErrno;
}
