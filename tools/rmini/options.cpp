// Command line of rmini.
//
// Why: options may stand anywhere, as people type them, so a value that begins with "-" needs a
// rule: "-" alone and "-" before a digit are no options, and behind "--" nothing is.
//
// No function of the library is called here: these frames may own what they like.
#include "options.h"

#include "check.h"
#include "common/cmdline.h"
#include "common/console.h"
#include "console.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace rmini
{
namespace
{
constexpr std::size_t kAnyNumber = SIZE_MAX;

constexpr std::string_view kHelp =
    R"(usage: rmini get FILE SECTION KEY          print the value of a key
       rmini set FILE SECTION KEY VALUE    set it; VALUE "-" is read from standard input
       rmini delete FILE SECTION [KEY]     delete a key, or a whole section
       rmini sections FILE                 list the sections
       rmini keys FILE SECTION             list the keys of a section
       rmini check FILE...                 report what would surprise
       rmini recover FILE                  finish a change that was cut off

  -d, --default VALUE  get: print VALUE when there is no such key
  -c, --create         set: make FILE when it does not exist
  -i, --insert         set: find a place for an entry that would be refused
  -D, --diff           set, delete: print the change as a diff
  -n, --dry-run        set, delete: print the diff and change nothing
  -v, --values         keys: print whole lines, key=value
  -z, --null           sections, keys: end each with a zero byte, not a newline
  -x, --ignore KIND    check: do not report this kind; may be repeated
  -q, --quiet          print no notes and no findings; the exit status tells
  -h, --help           print this text
  -V, --version        print the version

Options may stand anywhere; behind "--" there are none. Names are compared
without regard to case, and blanks belong to them: "key = value" has the key
"key " and the value " value".

Exit status: 0 done; 1 no such section or key; 2 wrong command line; 3 FILE
cannot be read; 4 refused, since the change would be lost or could not be read
back; 5 FILE or standard output could not be written; 6 check found something;
7 no memory. The manual page rmini(1) has the rules.
)";

struct CommandName {
    std::string_view name;
    Command command;
    std::size_t least;  // operands
    std::size_t most;
    const char* operands;
};

constexpr CommandName kCommands[] = {
    {"get", Command::kGet, 3, 3, "FILE SECTION KEY"},
    {"set", Command::kSet, 4, 4, "FILE SECTION KEY VALUE"},
    {"delete", Command::kDelete, 2, 3, "FILE SECTION [KEY]"},
    {"sections", Command::kSections, 1, 1, "FILE"},
    {"keys", Command::kKeys, 2, 2, "FILE SECTION"},
    {"check", Command::kCheck, 1, kAnyNumber, "FILE..."},
    {"recover", Command::kRecover, 1, 1, "FILE"},
};

constexpr uint32_t bit(Command command)
{
    return uint32_t{1} << static_cast<uint32_t>(command);
}

using tools::Takes;

constexpr tools::Option kOptions[] = {
    {'d', "--default", Takes::kValue, bit(Command::kGet)},
    {'c', "--create", Takes::kNothing, bit(Command::kSet)},
    {'i', "--insert", Takes::kNothing, bit(Command::kSet)},
    {'D', "--diff", Takes::kNothing, bit(Command::kSet) | bit(Command::kDelete)},
    {'n', "--dry-run", Takes::kNothing, bit(Command::kSet) | bit(Command::kDelete)},
    {'v', "--values", Takes::kNothing, bit(Command::kKeys)},
    {'z', "--null", Takes::kNothing, bit(Command::kSections) | bit(Command::kKeys)},
    {'x', "--ignore", Takes::kValue, bit(Command::kCheck)},
    {'q', "--quiet"},
    tools::kHelpOption,
    tools::kVersionOption,
    {'C', "--check", Takes::kNothing, bit(Command::kCheck), true},
};

constexpr tools::Syntax kSyntax = {
    .options = kOptions,
    .shown = [](std::string_view word) { return std::string(shown(word).text); },
    // What might have been meant as a name or value, and begins with "-".
    .advice = "; before a name or value like that write --",
    .numbersAreOperands = true,
};

// What has been read of the command line.
struct Reading {
    Options* options;
    tools::Arguments arguments;
    const CommandName* command = nullptr;
};

CommandLine wrong(const std::string& what)
{
    return tools::wrong(what);
}

void setCommand(const CommandName& command, Reading& reading)
{
    reading.command = &command;
    reading.arguments.command = bit(command.command);
    reading.arguments.commandName = command.name;
}

CommandLine ignoreKinds(std::string_view names, Options& options)
{
    while (!names.empty()) {
        const std::string_view name = names.substr(0, names.find(','));
        names.remove_prefix(std::min(name.size() + 1, names.size()));
        const std::optional<Kind> kind = kindOf(name);
        if (!kind) {
            return wrong("--ignore: there is no kind \"" + std::string(name) + "\"");
        }
        options.ignored |= kindBit(*kind);
    }
    return CommandLine::kRun;
}

CommandLine apply(const tools::Option& option, const char* value, Reading& reading)
{
    Options& options = *reading.options;
    switch (option.letter) {
        case 'd':
            options.defaultValue = value;
            break;
        case 'x':
            return ignoreKinds(value, options);
        case 'C':
            setCommand(kCommands[static_cast<std::size_t>(Command::kCheck)], reading);
            break;
        default:
            options.quiet |= option.letter == 'q';
            options.create |= option.letter == 'c';
            options.insert |= option.letter == 'i';
            options.diff |= option.letter == 'D';
            options.dryRun |= option.letter == 'n';
            options.values |= option.letter == 'v';
            options.null |= option.letter == 'z';
            break;
    }
    return CommandLine::kRun;
}

CommandLine takeOperand(const char* argument, Reading& reading)
{
    if (reading.command != nullptr) {
        reading.options->operands.push_back(argument);
        return CommandLine::kRun;
    }
    const auto* found = std::ranges::find(kCommands, argument, &CommandName::name);
    if (found == std::end(kCommands)) {
        return wrong("there is no command \"" + std::string(shown(argument).text) + "\"");
    }
    setCommand(*found, reading);
    return CommandLine::kRun;
}

CommandLine examine(const Reading& reading)
{
    const Options& options = *reading.options;
    const CommandName* command = reading.command;
    if (command == nullptr) {
        return wrong("a command is missing");
    }
    if (tools::checkSeen(reading.arguments) != CommandLine::kRun) {
        return CommandLine::kWrong;
    }
    const std::size_t count = options.operands.size();
    if (count < command->least || count > command->most) {
        return wrong("usage: rmini " + std::string(command->name) + " " + command->operands);
    }
    const std::size_t files = command->command == Command::kCheck ? count : 1;
    for (std::size_t i = 0; i < files; ++i) {
        if (*options.operands[i] == '\0') {
            return wrong("FILE is empty");
        }
        if (std::string_view(options.operands[i]) == "-") {
            return wrong("FILE cannot be standard input; a file of that name is ./-");
        }
    }
    return CommandLine::kRun;
}
}  // namespace

CommandLine parseOptions(int argc, char** argv, Options& options)
{
    Reading reading = {};
    reading.options = &options;
    reading.arguments = {.syntax = &kSyntax, .count = argc, .words = argv};
    CommandLine result = tools::readArguments(
        reading.arguments,
        [&](const tools::Option& option, const char* value) {
            return apply(option, value, reading);
        },
        [&](const char* word) { return takeOperand(word, reading); });
    if (result == CommandLine::kRun) {
        result = examine(reading);
    }
    if (result == CommandLine::kRun) {
        options.command = reading.command->command;
    }
    return result;
}

}  // namespace rmini

const tools::Tool tools::kTool = {.name = "rmini",
                                  .version = RMINI_VERSION,
                                  .help = rmini::kHelp,
                                  .unwritten = rmini::kUnwritten,
                                  .fatal = rmini::kFatal};
