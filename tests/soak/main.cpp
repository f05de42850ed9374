// rm_soak: what it is asked for.
//
// Why: a soak is run by hand, by the suite and from ./run; all say how long and with which seed.
#include "soak.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <sched.h>

namespace
{
using soak::options;

void usage(std::FILE* out)
{
    std::fprintf(out,
                 "usage: rm_soak [SECONDS] [OPTION...]\n"
                 "\n"
                 "Eight processes use every family of the library at random for SECONDS (60), and\n"
                 "are killed at random. Ends with 0 when nothing was lost and nothing is left.\n"
                 "\n"
                 "  --seed=N        the plan of each worker (1)\n"
                 "  --kill-every=MS a worker is killed so often, on average (300); 0: never\n"
                 "  --check-every=N the checkers run after so many operations of a worker (500)\n"
                 "  --dir=DIR       where the scratch directory is made ($TMPDIR, else /tmp)\n"
                 "  --keep          the scratch directory stays; it does so too with findings\n");
}

bool number(std::string_view text, uint64_t most, uint64_t* value)
{
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, *value);
    return !text.empty() && error == std::errc() && stop == end && *value <= most;
}

bool numberOption(std::string_view argument, std::string_view name, uint64_t most, uint64_t* value)
{
    return argument.starts_with(name) && number(argument.substr(name.size()), most, value);
}

bool take(std::string_view argument)
{
    uint64_t value = 0;
    if (number(argument, 10'000'000, &value) && value > 0) {
        options.seconds = static_cast<uint32_t>(value);
    } else if (numberOption(argument, "--seed=", UINT64_MAX, &value)) {
        options.seed = value;
    } else if (numberOption(argument, "--kill-every=", 1'000'000, &value)) {
        options.killEveryMs = static_cast<uint32_t>(value);
    } else if (numberOption(argument, "--check-every=", 1'000'000, &value) && value > 0) {
        options.checkEvery = static_cast<uint32_t>(value);
    } else if (argument.starts_with("--dir=") && argument.size() > 6) {
        options.directory = argument.substr(6);
    } else if (argument == "--keep") {
        options.keep = true;
    } else {
        return false;
    }
    return true;
}

// A key holds 16 bits of the number of its token file, so an object of another program can have the
// same one, and either takes the other's away. Nobody else's objects are in a namespace of one's
// own. Without the privilege the run takes the risk.
bool isAlone()
{
    return unshare(CLONE_NEWIPC) == 0;
}
}  // namespace

int main(int argc, char** argv)
{
    const char* const temporary = std::getenv("TMPDIR");
    options.directory = temporary != nullptr && *temporary != '\0' ? temporary : "/tmp";
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) {
            usage(stdout);
            return 0;
        }
        if (!take(argv[i])) {
            std::fprintf(stderr, "rm_soak: %s?\n\n", argv[i]);
            usage(stderr);
            return 2;
        }
    }
    std::printf("soak: its objects are %s\n",
                isAlone() ? "in a namespace of their own" : "among those of the machine");
    return soak::runParent();
}
