// What the user of a tool sees.
//
// Why: scripts read standard output and people read standard error, so answers go to the one,
// alone, and all else to the other.
//
// Owns: the first error of standard output.
#include "common/console.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tools
{
namespace
{
constexpr std::size_t kMostBytes = 12288;  // of a message: it holds up to two whole paths
constexpr std::size_t kLeastWidth = 20;
constexpr std::size_t kMostWidth = 1000;

int outputError = 0;  // errno of the first write to standard output that failed

// A message is put together in one piece, with "\n" indented.
struct Message {
    char text[kMostBytes];
    std::size_t length;
};

void add(Message& message, std::string_view text)
{
    const std::size_t room = sizeof(message.text) - message.length;
    const std::size_t count = std::min(text.size(), room);
    std::memcpy(&message.text[message.length], text.data(), count);
    message.length += count;
}

void rememberError()
{
    if (outputError == 0) {
        outputError = errno != 0 ? errno : EIO;
    }
}

// A file that is opened must not become the standard output of a program that has none.
void holdStandardFiles()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // The wrong way round, so that using it fails as it would without.
        if (fcntl(fd, F_GETFD) == -1 &&
            open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) == -1) {
            std::_Exit(kTool.fatal);
        }
    }
}

[[noreturn]] void outOfMemory()
{
    complain("out of memory");
    std::_Exit(kTool.fatal);
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

void prepareProcess()
{
    holdStandardFiles();
    std::signal(SIGPIPE, SIG_IGN);  // the write fails instead, and the status says so
    std::signal(SIGXFSZ, SIG_IGN);
    std::set_new_handler(outOfMemory);
}

void complain(std::string_view message)
{
    static Message whole;
    whole.length = 0;
    add(whole, kTool.name);
    add(whole, ": ");
    for (const char& c : message) {
        add(whole, c == '\n' ? "\n  " : std::string_view(&c, 1));
    }
    whole.length = std::min(whole.length, sizeof(whole.text) - 1);
    add(whole, "\n");
    // Where nobody reads it there is nobody to tell.
    if (write(STDERR_FILENO, whole.text, whole.length) < 0) {
        return;
    }
}

void print(std::string_view text)
{
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        rememberError();
    }
}

void print(char c)
{
    print(std::string_view(&c, 1));
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
        char message[128];
        std::snprintf(message, sizeof(message), "standard output could not be written: %s",
                      std::strerror(outputError));
        complain(message);
    }
    return kTool.unwritten;
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

}  // namespace tools
