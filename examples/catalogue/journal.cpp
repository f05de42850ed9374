// The log of a run: lines of every process, in one file.
//
// Why: what happened when a server ended badly must be found in one place, in order, whichever of
// its processes saw it. So all of them write to the same file, and every line goes to its end.
//
// How that holds: the library's own log handle opens the file without an append flag and may be
// parked. A forked worker shares the descriptor and with it the place to write; once one of the two
// has parked its copy and opened the file again, it has a place of its own, which the others' lines
// do not move, and writes over them. With more files than descriptors that happens within
// milliseconds. So this host lets rm_systemLogOpen do what it is good at, which is to keep the
// predecessor and to begin an empty file, and then hands over a handle of its own instead:
//   - RM_O_APPEND: each line goes to the end of the file, whoever opened it, and when;
//   - FILE_PINNED: a line costs no parking and reopening of another file;
//   - without FILE_FATAL: a log that cannot be opened must not end the server.
// Workers inherit the handle, or open the file in the same way when its path changes in the run.
//
// A memory report has a line for each block. The library copies every line to standard error, where
// nobody would read so many; so that leads nowhere while a report is written to the file.
//
// Owns: the name that stands before the lines, the log handle while it is open, standard error
// while a report is written.
//
// Locks: a line for the file enters the library's lock of the file table. A worker that was killed
// may hold it until the parent has freed it, so the parent writes none while there are workers, and
// the end of a bad run is written with the calls for bare descriptors, which know
// no lock, and the handle is left to the end of the process.
//
// Fatal: opening, when the file has become unwritable since its path was checked.
#include "journal.h"

#include "console.h"
#include "counters.h"
#include "profile.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr std::size_t kLineRoom = 260;  // as much of a message as the library writes
constexpr int16_t kLevelWithFile = 2;

const char* name = "parent";
char openPath[kPathRoom];  // of the log file, while there is one
// A log file, by any process of the run: another report goes behind the first.
std::atomic<uint32_t> begunHere = 0;
std::atomic<uint32_t>* begun = &begunHere;
int16_t suspended = RM_NONE;  // the log handle, while the file gets nothing
int standardError = -1;       // a copy of it, while it leads nowhere

// The message with the name before it. A format is not passed on: the text may hold a "%".
void expand(char (&line)[kLineRoom], const char* kind, const char* format, va_list arguments)
{
    const int length = std::snprintf(line, sizeof(line), "%s: %s", name, kind);
    std::vsnprintf(line + length, sizeof(line) - static_cast<std::size_t>(length), format,
                   arguments);
}

// Takes the handle that the file gets its lines by; see above.
void joinFile(const char* path)
{
    sysfile = rm_fileOpen(path, RM_O_WRONLY | RM_O_APPEND, FILE_STREAM | FILE_PINNED, 0, 0);
    StrncpyZ(openPath, path, sizeof(openPath));
}

void openFile(const char* path)
{
    rm_systemLogOpen(path);
    rm_fileClose(sysfile);  // and with its handle the library's use of it
    joinFile(path);
    *begun = 1;
}

// Opens the log file for a report, below the level that has it open anyway.
void openForReport(const char* path)
{
    rm_systemLog(kLevelWithFile);
    if (*begun != 0) {
        joinFile(path);
    } else {
        openFile(path);
    }
}

void hushStandardError()
{
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    standardError = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (nowhere >= 0 && standardError >= 0) {
        dup2(nowhere, STDERR_FILENO);
    }
    if (nowhere >= 0) {
        close(nowhere);
    }
}

// The stamp of the library's lines.
void stamp(char (&text)[40])
{
    const std::time_t now = std::time(nullptr);
    const std::tm* local = std::localtime(&now);
    text[0] = '\0';
    if (local != nullptr) {
        std::strftime(text, sizeof(text), "[%d-%b-%y %H:%M:%S]  ", local);
    }
}
}  // namespace

void nameJournal(const char* who)
{
    name = who;
}

void note(const char* format, ...)
{
    if (syslogon == 0) {
        return;  // rm_systemLogWrite would print it even so
    }
    char line[kLineRoom];
    va_list arguments;
    va_start(arguments, format);
    expand(line, "", format, arguments);
    va_end(arguments);
    makeWay();
    rm_systemLogWrite("%s", line);
}

void warn(const char* format, ...)
{
    char line[kLineRoom];
    va_list arguments;
    va_start(arguments, format);
    expand(line, "warning: ", format, arguments);
    va_end(arguments);
    count(kWarnings);
    makeWay();
    rm_systemLogWrite("%s", line);
}

void openJournal(const Settings& settings)
{
    rm_systemLog(static_cast<int16_t>(settings.number[kLogLevel]));
    char path[kPathRoom];
    if (syslogon >= kLevelWithFile && findLogPath(settings, path)) {
        openFile(path);
    }
}

void shareJournal(std::atomic<uint32_t>& shared)
{
    shared = begun->load();
    begun = &shared;
}

void suspendJournal()
{
    suspended = sysfile;
    sysfile = RM_NONE;
}

void resumeJournal()
{
    sysfile = suspended;
    suspended = RM_NONE;
}

void changeJournal(const Settings& before, Settings& now)
{
    char path[kPathRoom];
    if (!findLogPath(now, path)) {
        return;  // readSettings has refused such settings
    }
    if (sysfile != RM_NONE && !sameValue(before, now, kLogPath)) {
        note("the log goes on in %s", path);
        rm_systemLogClose();
        ++now.journal;
    }
    rm_systemLog(static_cast<int16_t>(now.number[kLogLevel]));  // closing has turned logging off
    if (syslogon >= kLevelWithFile && sysfile == RM_NONE) {
        openFile(path);
        ++now.journal;
    }
}

void followJournal(const Settings& before, const Settings& now)
{
    char path[kPathRoom];
    if (before.journal != now.journal && sysfile != RM_NONE) {
        rm_systemLogClose();
    }
    rm_systemLog(static_cast<int16_t>(now.number[kLogLevel]));
    if (syslogon >= kLevelWithFile && sysfile == RM_NONE && findLogPath(now, path)) {
        joinFile(path);
    }
}

void restoreStandardError()
{
    if (standardError >= 0) {
        dup2(standardError, STDERR_FILENO);
        close(standardError);
        standardError = -1;
    }
}

void reportMemory(const Settings& settings, const char* occasion)
{
    char path[kPathRoom];
    const int16_t level = syslogon;
    const bool opens =
        sysfile == RM_NONE && settings.number[kReport] != 0 && findLogPath(settings, path);
    if (opens) {
        openForReport(path);
    }
    makeWay();
    if (sysfile != RM_NONE) {
        hushStandardError();
    }
    rm_memReport(RM_REPORT_ALL | RM_REPORT_FREE | RM_REPORT_SUMMARY, 0, "%s of process %d, %s",
                 name, getpid(), occasion);
    restoreStandardError();
    if (opens) {
        rm_systemLogClose();
        rm_systemLog(level);
    }
}

void closeJournalInHaste(const char* format, ...)
{
    char line[kLineRoom];
    va_list arguments;
    va_start(arguments, format);
    expand(line, "", format, arguments);
    va_end(arguments);

    const bool open = sysfile != RM_NONE || suspended != RM_NONE;
    const bool toFile = open && syslogon >= kLevelWithFile;
    sysfile = RM_NONE;  // rm_exit, too, would wait for the lock to close it
    if (syslogon != 0) {
        makeWay();
        rm_systemLogWrite("%s", line);
    }
    int32_t fd = -1;
    if (toFile && rm_flOpen(openPath, RM_O_WRONLY | RM_O_APPEND, 0, 0, &fd) == RM_SUCCESS) {
        char time[40];
        char text[sizeof(time) + kLineRoom + 1];
        stamp(time);
        const int length = std::snprintf(text, sizeof(text), "%s%s\n", time, line);
        rm_flWrite(fd, text, length);
        rm_flClose(fd);
    }
}

}  // namespace catalogue
