// What the user of rmini sees.
//
// Why: scripts read standard output and people read standard error, so answers go to the one,
// alone, and all else to the other.
//
// Owns: whether notes are printed, and the first error of standard output.
#include "console.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace rmini
{
namespace
{
constexpr std::size_t kMostBytes = 12288;  // of a message: it holds up to two whole paths

bool quiet = false;
int outputError = 0;  // errno of the first write to standard output that failed

// A message is put together in one piece, with "\n" indented.
struct Message {
    char text[kMostBytes];
    std::size_t length;
};

void add(Message& message, char c)
{
    if (message.length < sizeof(message.text)) {
        message.text[message.length++] = c;
    }
}

void say(const char* format, va_list arguments)
{
    static char plain[kMostBytes];
    static Message message;
    std::vsnprintf(plain, sizeof(plain), format, arguments);
    message.length = 0;
    for (const char c : std::string_view("rmini: ")) {
        add(message, c);
    }
    for (const char* c = plain; *c != '\0'; ++c) {
        add(message, *c);
        if (*c == '\n') {
            add(message, ' ');
            add(message, ' ');
        }
    }
    message.length = std::min(message.length, sizeof(message.text) - 1);
    add(message, '\n');
    // Where nobody reads it there is nobody to tell.
    if (write(STDERR_FILENO, message.text, message.length) < 0) {
        return;
    }
}

void rememberError()
{
    if (outputError == 0) {
        outputError = errno != 0 ? errno : EIO;
    }
}
}  // namespace

void beQuiet()
{
    quiet = true;
}

void complain(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    say(format, arguments);
    va_end(arguments);
}

void note(const char* format, ...)
{
    if (quiet) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    say(format, arguments);
    va_end(arguments);
}

Shown shown(std::string_view name)
{
    constexpr std::string_view kMore = "...";
    Shown result = {};
    const std::size_t room = sizeof(result.text) - 1;
    const bool cut = name.size() > room;
    const std::size_t length = cut ? room - kMore.size() : name.size();
    for (std::size_t i = 0; i < length; ++i) {
        const auto c = static_cast<unsigned char>(name[i]);
        result.text[i] = c < ' ' || c == 0x7F ? '?' : name[i];
    }
    if (cut) {
        std::memcpy(result.text + length, kMore.data(), kMore.size());
    }
    return result;
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
        complain("standard output could not be written: %s", std::strerror(outputError));
    }
    return kUnwritten;
}

}  // namespace rmini
