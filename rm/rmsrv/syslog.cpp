// The log writer: every diagnostic of the library and of its host leaves through here.
//
// Why: one line format, one place that decides where a line goes. Standard error gets every line,
// whatever the level, so that nothing is lost before a log file is open or after it broke.
//
// Owns: the log level, the re-entry flag, the buffer of optional messages.
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
#include <ctime>

int16_t syslogon = 0;  // 0 off, 1 on, 2 or more on and copied to the log file

namespace rmsrv
{
int32_t writingLogFile = 0;
}  // namespace rmsrv

namespace
{
constexpr std::size_t kStampSize = 40;    // bytes, terminator included
constexpr int16_t kLevelWithLogFile = 2;  // from here on the log file gets a copy
constexpr const char* kStampFormat = "[%d-%b-%y %H:%M:%S]  ";

char optionalMessage[rmsrv::kLogMessageSize];
bool logFileFailed = false;  // a fatal error came out of writing to it

void formatStamp(char (&stamp)[kStampSize])
{
    const std::time_t now = std::time(nullptr);
    const std::tm* local = std::localtime(&now);
    stamp[0] = '\0';
    if (local != nullptr) {
        std::strftime(stamp, sizeof(stamp), kStampFormat, local);
    }
}
}  // namespace

void rmsrv::abandonLogLine()
{
    logFileFailed = logFileFailed || (writingLogFile != 0 && sysfile != RM_NONE);
    writingLogFile = 0;
}

void rmsrv::trustLogFile()
{
    logFileFailed = false;
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
    char stamp[kStampSize];
    formatStamp(stamp);

    char message[rmsrv::kLogMessageSize];
    message[0] = '\0';
    errno = savedErrno;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);

    // Standard output is flushed around the line, so that what a process prints and what it logs
    // stand in the order in which they were written when both go to one terminal. The line leaves
    // in one piece: lines of several processes do not mix.
    std::fflush(stdout);
    std::fprintf(stderr, "%s%s\n", stamp, message);
    std::fflush(stdout);

    if (rmsrv::writingLogFile == 0 && syslogon >= kLevelWithLogFile && sysfile != RM_NONE &&
        !logFileFailed) {
        rmsrv::writingLogFile = 1;
        rm_filePrintf(sysfile, "%s%s\n", stamp, message);
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
