// What the user of rmini sees.
//
// Owns: whether notes are printed.
#include "console.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace rmini
{
namespace
{
bool quiet = false;

void say(const char* format, va_list arguments)
{
    static char plain[12288];  // it holds up to two whole paths
    std::vsnprintf(plain, sizeof(plain), format, arguments);
    tools::complain(plain);
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

}  // namespace rmini
