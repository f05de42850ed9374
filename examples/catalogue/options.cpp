// Command line of the catalogue.
//
// Why: the demonstration needs no argument at all, so every option has a default that works on any
// Debian. What is wrong with an argument is said together with what would be right.
//
// No function of the library is called here: these frames cannot be jumped over, and they may own
// what they like.
#include "options.h"

#include "console.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace catalogue
{
namespace
{
constexpr const char* kDefaultInput = "/var/lib/dpkg/status";
constexpr uint64_t kMaxOperations = 1000000000;

constexpr const char* kHelp =
    R"(usage: catalogue [option...] [file...]

Loads records into 32 bucket files, lets worker processes look them up and update
them at the same time, and compares every record with the input at the end.

A file holds records of "Field: value" lines, separated by blank lines; a line
that begins with white space continues the field before it. The value of a
record's first field is its name. Without a file, the package database of this
machine is taken: /var/lib/dpkg/status.

  --dir DIR         make the run directory in DIR
                    (default: $TMPDIR, or the current directory without it)
  --workers N       worker processes, 1 to 16 (default 4)
  --operations N    lookups and updates, all workers together (default 250000)
  --help            print this text

Test aids:
  --kill-worker N   worker N kills itself half-way through an update
  --damage-record N flip one byte of record N (1 is the first) before verification

Exit status: 0 every record is as it must be; 1 something failed, standard error
says what; 2 the command line is wrong; 130 or 143 interrupted, ended in order.
)";

bool parseNumber(std::string_view text, uint64_t low, uint64_t high, uint64_t& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && low <= number &&
           number <= high;
}

// An option that takes a number, and where the number goes.
struct NumberOption {
    std::string_view name;
    uint64_t low;
    uint64_t high;
    uint64_t value;
};

std::string defaultDirectory()
{
    const char* temporary = std::getenv("TMPDIR");
    return temporary != nullptr && *temporary != '\0' ? temporary : ".";
}
}  // namespace

CommandLine parseOptions(int argc, char** argv, Options& options)
{
    NumberOption numbers[] = {
        {"--workers", 1, kMaxWorkers, options.workers},
        {"--operations", 1, kMaxOperations, options.operations},
        {"--kill-worker", 1, kMaxWorkers, 0},
        {"--damage-record", 1, UINT32_MAX, 0},
    };
    options.directory = defaultDirectory();

    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--help") {
            std::fputs(kHelp, stdout);
            return CommandLine::kHelp;
        }
        if (!argument.starts_with("--")) {
            options.inputs.emplace_back(argument);
            continue;
        }
        if (i + 1 == argc) {
            complain("\"%s\" is not an option, or lacks its value; see catalogue --help", argv[i]);
            return CommandLine::kWrong;
        }
        const std::string_view value = argv[++i];
        if (argument == "--dir") {
            options.directory = value;
            continue;
        }
        NumberOption* wanted = nullptr;
        for (NumberOption& number : numbers) {
            if (number.name == argument) {
                wanted = &number;
            }
        }
        if (wanted == nullptr) {
            complain("\"%s\" is not an option; see catalogue --help", argv[i - 1]);
            return CommandLine::kWrong;
        }
        if (!parseNumber(value, wanted->low, wanted->high, wanted->value)) {
            complain("%s takes a number from %llu to %llu, not \"%s\"", argv[i - 1],
                     static_cast<unsigned long long>(wanted->low),
                     static_cast<unsigned long long>(wanted->high), argv[i]);
            return CommandLine::kWrong;
        }
    }

    options.workers = static_cast<uint32_t>(numbers[0].value);
    options.operations = numbers[1].value;
    options.killWorker = static_cast<uint32_t>(numbers[2].value);
    options.damageRecord = static_cast<uint32_t>(numbers[3].value);
    if (options.killWorker > options.workers) {
        complain("--kill-worker %u: there are %u workers", options.killWorker, options.workers);
        return CommandLine::kWrong;
    }
    if (options.inputs.empty()) {
        options.inputs.emplace_back(kDefaultInput);
    }
    return CommandLine::kRun;
}

}  // namespace catalogue
