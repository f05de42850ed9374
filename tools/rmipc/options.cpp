// Command line of rmipc.
#include "options.h"

#include "common/console.h"
#include "common/text.h"
#include "procfs.h"

#include <algorithm>
#include <string_view>

namespace rmipc
{
namespace
{
using tools::CommandLine;
using tools::Takes;

constexpr std::string_view kHelp =
    R"(usage: rmipc [list] [PREFIX...]   show what belongs to a prefix of token files
       rmipc remove PREFIX...     remove what has no living owner, after asking
       rmipc orphans [PREFIX...]  list what no token file of a PREFIX leads to
       rmipc limits               check the limits of this machine

A PREFIX is what the server gives to rm_tokenName(); a directory is understood
too, and without any it is the current one.

  -a, --all            list: the semaphores that are not in use too
  -b, --bags           list: look for FF bags in the segments, which attaches
                       them for a moment
  -n, --dry-run        remove: show what would be removed, and change nothing
  -y, --yes            remove: do not ask
  -f, --force          remove: also what has living owners; asks twice
  -i, --ids            orphans: print options for ipcrm, nothing else
  -m, --message=BYTES  limits: the longest message of a queue (32767)
  -s, --segment=BYTES  limits: the size of each of 20 segments (64K)
  -p, --proc=DIR       limits: read DIR, not /proc
  -j, --json           print JSON
  -q, --quiet          print nothing; the exit status tells
  -h, --help           print this text
  -V, --version        print the version

Exit status: 0 nothing is left over, or all is done; 1 something is left over,
was not removed, or a limit is too low; 2 wrong command line, or something
could not be read, removed or written. The manual page rmipc(1) tells what the
figures prove, and what they do not.
)";

struct CommandName {
    std::string_view name;
    Command command;
};

constexpr CommandName kCommands[] = {
    {"list", Command::kList},
    {"remove", Command::kRemove},
    {"orphans", Command::kOrphans},
    {"limits", Command::kLimits},
};

constexpr uint32_t bit(Command command)
{
    return uint32_t{1} << static_cast<uint32_t>(command);
}

constexpr tools::Option kOptions[] = {
    {'a', "--all", Takes::kNothing, bit(Command::kList)},
    {'b', "--bags", Takes::kNothing, bit(Command::kList)},
    {'n', "--dry-run", Takes::kNothing, bit(Command::kRemove)},
    {'y', "--yes", Takes::kNothing, bit(Command::kRemove)},
    {'f', "--force", Takes::kNothing, bit(Command::kRemove)},
    {'i', "--ids", Takes::kNothing, bit(Command::kOrphans)},
    {'m', "--message", Takes::kValue, bit(Command::kLimits)},
    {'s', "--segment", Takes::kValue, bit(Command::kLimits)},
    {'p', "--proc", Takes::kValue, bit(Command::kLimits)},
    {'j', "--json"},
    {'q', "--quiet"},
    tools::kHelpOption,
    tools::kVersionOption,
};

constexpr tools::Syntax kSyntax = {.options = kOptions, .shown = tools::printable};

struct Reading {
    Options* options;
    tools::Arguments arguments;
    bool named = false;  // the first operand has told the command
};

CommandLine wrong(const std::string& what)
{
    return tools::wrong(tools::printable(what));
}

// "64K" and the like; K, M and G are of 1024.
bool readSize(std::string_view word, uint64_t& bytes)
{
    constexpr std::string_view kUnits = "KMG";
    unsigned shift = 0;
    if (!word.empty() && kUnits.find(word.back()) != std::string_view::npos) {
        shift = 10 * static_cast<unsigned>(kUnits.find(word.back()) + 1);
        word.remove_suffix(1);
    }
    const auto number = numberOf<uint32_t>(word);
    if (!number || *number == 0) {
        return false;
    }
    bytes = uint64_t{*number} << shift;
    return true;
}

CommandLine takeMessage(const char* value, Options& options)
{
    constexpr uint64_t kMost = 32767;  // a length is a signed 16-bit number
    return readSize(value, options.message) && options.message <= kMost
               ? CommandLine::kRun
               : wrong("--message wants a number of bytes from 1 to 32767, not \"" +
                       std::string(value) + "\"");
}

CommandLine takeSegment(const char* value, Options& options)
{
    return readSize(value, options.segment) && options.segment <= UINT32_MAX
               ? CommandLine::kRun
               : wrong("--segment wants a number of bytes from 1 to 4294967295, not \"" +
                       std::string(value) + "\"");
}

CommandLine apply(const tools::Option& option, const char* value, Options& options)
{
    switch (option.letter) {
        case 'm':
            return takeMessage(value, options);
        case 's':
            return takeSegment(value, options);
        case 'p':
            options.proc = value;
            return *value != '\0' ? CommandLine::kRun : wrong("--proc wants a directory");
        default:
            options.all |= option.letter == 'a';
            options.bags |= option.letter == 'b';
            options.dryRun |= option.letter == 'n';
            options.yes |= option.letter == 'y';
            options.force |= option.letter == 'f';
            options.ids |= option.letter == 'i';
            options.json |= option.letter == 'j';
            options.quiet |= option.letter == 'q';
            return CommandLine::kRun;
    }
}

CommandLine takeOperand(const char* word, Reading& reading)
{
    const auto* found = std::ranges::find(kCommands, word, &CommandName::name);
    if (!reading.named && !reading.arguments.ended && found != std::end(kCommands)) {
        reading.options->command = found->command;
        reading.arguments.command = bit(found->command);
        reading.arguments.commandName = found->name;
    } else {
        reading.options->prefixes.emplace_back(word);
    }
    reading.named = true;
    return CommandLine::kRun;
}

CommandLine examine(Reading& reading)
{
    const Options& options = *reading.options;
    reading.arguments.command = bit(options.command);
    reading.arguments.commandName = kCommands[static_cast<std::size_t>(options.command)].name;
    if (tools::checkSeen(reading.arguments) != CommandLine::kRun) {
        return CommandLine::kWrong;
    }
    if (options.command == Command::kRemove && options.prefixes.empty()) {
        return wrong("remove wants a PREFIX; for the current directory it is ./");
    }
    if (options.command == Command::kLimits && !options.prefixes.empty()) {
        return wrong("limits takes no PREFIX: they are those of the machine");
    }
    if (options.force && options.yes) {
        return wrong("--force asks, and --yes does not answer it");
    }
    if (options.command == Command::kRemove && (options.json || options.quiet) && !options.yes &&
        !options.dryRun) {
        return wrong("--json and --quiet do not show what would be removed: --yes or --dry-run");
    }
    if (options.ids && options.json) {
        return wrong("--ids and --json do not go together");
    }
    return CommandLine::kRun;
}
}  // namespace

CommandLine parseOptions(int argc, char** argv, Options& options)
{
    Reading reading = {};
    reading.options = &options;
    reading.arguments = {.syntax = &kSyntax, .count = argc, .words = argv};
    const CommandLine result = tools::readArguments(
        reading.arguments,
        [&](const tools::Option& option, const char* value) {
            return apply(option, value, options);
        },
        [&](const char* word) { return takeOperand(word, reading); });
    return result == CommandLine::kRun ? examine(reading) : result;
}

}  // namespace rmipc

const tools::Tool tools::kTool = {.name = "rmipc",
                                  .version = RMIPC_VERSION,
                                  .help = rmipc::kHelp,
                                  .unwritten = rmipc::kTrouble,
                                  .fatal = rmipc::kTrouble};
