// What the user of rmheap sees.
//
// Owns: the first error of standard output.
#include "console.h"

#include <cerrno>
#include <charconv>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace rmheap
{
namespace
{
constexpr std::size_t kLeastWidth = 20;
constexpr std::size_t kMostWidth = 1000;

int outputError = 0;  // errno of the first write to standard output that failed

void rememberError()
{
    if (outputError == 0) {
        outputError = errno != 0 ? errno : EIO;
    }
}

bool isSet(const char* variable)
{
    const char* value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

// The width that the environment gives, else that of the terminal; 0 for neither.
std::size_t widthGiven(bool terminal)
{
    const char* columns = std::getenv("COLUMNS");
    std::size_t width = 0;
    if (columns != nullptr) {
        const char* end = columns + std::strlen(columns);
        const auto result = std::from_chars(columns, end, width);
        if (result.ec == std::errc() && result.ptr == end) {
            return width;
        }
    }
    winsize size = {};
    return terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}
}  // namespace

void complain(const std::string& message)
{
    std::string text = "rmheap: ";
    for (const char c : message) {
        text += c;
        if (c == '\n') {
            text += "  ";
        }
    }
    text += '\n';
    // Where nobody reads it there is nobody to tell.
    if (write(STDERR_FILENO, text.data(), text.size()) < 0) {
        return;
    }
}

Terminal examineTerminal()
{
    Terminal terminal;
    const bool isTerminal = isatty(STDOUT_FILENO) == 1;
    std::setlocale(LC_CTYPE, "");
    terminal.utf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    std::setlocale(LC_CTYPE, "C");
    terminal.blocks = terminal.utf8 && isTerminal;
    const char* kind = std::getenv("TERM");
    terminal.colour = isTerminal && !isSet("NO_COLOR") && kind != nullptr && *kind != '\0' &&
                      std::strcmp(kind, "dumb") != 0;
    const std::size_t width = widthGiven(isTerminal);
    if (width >= kLeastWidth && width <= kMostWidth) {
        terminal.width = width;
    }
    return terminal;
}

void print(std::string_view text)
{
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        rememberError();
    }
}

int finishOutput(int status)
{
    errno = 0;
    if (std::fflush(stdout) != 0) {
        rememberError();
    }
    if (outputError == 0) {
        return status;
    }
    // Whoever closed the pipe has what he wanted and needs no message.
    if (outputError != EPIPE) {
        complain(std::string("standard output could not be written: ") +
                 std::strerror(outputError));
    }
    return kFailed;
}

}  // namespace rmheap
