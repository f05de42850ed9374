// What the user sees while the catalogue works: progress and complaints.
//
// Why: on a terminal one line, redrawn in place, shows that something moves; in a file or a pipe
// the same line would be noise, so a few plain lines stand there instead.
//
// Owns: whether standard output is a terminal, and whether a progress line stands on it.
//
// Invariant: the cursor rests at the left edge while a progress line stands. A log line of the
// library, which goes to standard error without asking us, then overwrites it instead of being
// appended to it.
#include "console.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <sys/ioctl.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRedrawInterval(100);
constexpr int kDefaultColumns = 80;    // of a terminal that does not say
constexpr int kColumnsBesideBar = 60;  // phase, percentage, counts
constexpr int kMaxBar = 40;            // columns

std::chrono::milliseconds plainInterval(1000);
bool onTerminal = false;
bool lineShown = false;       // a progress line stands on the terminal
const char* shownPhase = "";  // of the last progress shown
Clock::time_point lastDraw;   // of the line, or of the last plain one
Clock::time_point phaseBegin;
bool phaseEnded = false;  // its last plain line has been printed

int barColumns()
{
    winsize size = {};
    int columns = kDefaultColumns;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0) {
        columns = size.ws_col;
    }
    return std::clamp(columns - kColumnsBesideBar, 0, kMaxBar);
}

uint64_t perSecond(uint64_t count, Clock::duration time)
{
    const double seconds = std::chrono::duration<double>(time).count();
    return seconds > 0 ? static_cast<uint64_t>(static_cast<double>(count) / seconds) : 0;
}

unsigned percent(uint64_t done, uint64_t total)
{
    return static_cast<unsigned>(done * 100 / total);
}

void drawLine(const char* phase, uint64_t done, uint64_t total, Clock::time_point now)
{
    char bar[kMaxBar + 1];
    const int columns = barColumns();
    const auto filled = static_cast<int>(done * static_cast<uint64_t>(columns) / total);
    std::memset(bar, '.', static_cast<std::size_t>(columns));
    std::memset(bar, '#', static_cast<std::size_t>(filled));
    bar[columns] = '\0';
    std::printf("\r\033[K%-9s [%s] %3u %%  %s of %s", phase, bar, percent(done, total),
                grouped(done).text, grouped(total).text);
    if (const uint64_t rate = perSecond(done, now - phaseBegin); rate != 0) {
        std::printf(", %s/s", grouped(rate).text);
    }
    std::putchar('\r');
    std::fflush(stdout);
    lineShown = true;
    lastDraw = now;
}
}  // namespace

void openConsole()
{
    onTerminal = isatty(STDOUT_FILENO) == 1;
}

void complain(const char* format, ...)
{
    char text[1000];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);

    char lines[1200] = "catalogue: ";
    std::size_t length = std::strlen(lines);
    for (const char* from = text; *from != '\0' && length + 4 < sizeof(lines); ++from) {
        lines[length++] = *from;
        if (*from == '\n') {
            lines[length++] = ' ';
            lines[length++] = ' ';
        }
    }
    lines[length++] = '\n';

    clearProgress();
    std::fflush(stdout);
    // Nobody is left to tell when standard error itself cannot be written.
    static_cast<void>(!write(STDERR_FILENO, lines, length));
}

void showProgress(const char* phase, uint64_t done, uint64_t total)
{
    const Clock::time_point now = Clock::now();
    const bool newPhase = std::string_view(phase) != shownPhase;
    if (newPhase) {
        clearProgress();
        shownPhase = phase;
        phaseBegin = lastDraw = now;
        phaseEnded = false;
    }
    const Clock::duration sinceLast = now - lastDraw;
    if (onTerminal) {
        if (newPhase || sinceLast >= kRedrawInterval) {
            drawLine(phase, done, total, now);
        }
    } else if (!phaseEnded && (done == total || sinceLast >= plainInterval)) {
        std::printf("%s: %s of %s (%u %%)\n", phase, grouped(done).text, grouped(total).text,
                    percent(done, total));
        std::fflush(stdout);
        lastDraw = now;
        phaseEnded = done == total;
    }
}

void clearProgress()
{
    if (lineShown) {
        std::fputs("\r\033[K", stdout);
        std::fflush(stdout);
        lineShown = false;
    }
}

void makeWay()
{
    if (onTerminal) {
        std::fputs("\r\033[K", stdout);
        std::fflush(stdout);
        lineShown = false;
    }
}

void setProgressInterval(uint32_t milliseconds)
{
    plainInterval = std::chrono::milliseconds(milliseconds);
}

void disownProgress()
{
    lineShown = false;
}

Grouped grouped(uint64_t number)
{
    Grouped result = {};
    char* end = result.text + sizeof(result.text) - 1;
    char* at = end;
    int digits = 0;
    do {
        if (digits != 0 && digits % 3 == 0) {
            *--at = ',';
        }
        *--at = static_cast<char>('0' + number % 10);
        number /= 10;
        ++digits;
    } while (number != 0);
    std::memmove(result.text, at, static_cast<std::size_t>(end - at) + 1);
    return result;
}

}  // namespace catalogue
