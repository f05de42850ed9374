// Command line of rmini.
//
// Why: options may stand anywhere, as people type them, so a value that begins with "-" needs a
// rule: "-" alone and "-" before a digit are no options, and behind "--" nothing is.
//
// No function of the library is called here: these frames may own what they like.
#include "options.h"

#include "check.h"
#include "console.h"

#include <algorithm>
#include <cctype>
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

constexpr uint32_t kEvery = UINT32_MAX;

struct Option {
    char letter;
    std::string_view name;
    uint32_t commands;  // a bit for each that it belongs to
    bool takesValue;
};

constexpr Option kOptions[] = {
    {'d', "--default", bit(Command::kGet), true},
    {'c', "--create", bit(Command::kSet), false},
    {'i', "--insert", bit(Command::kSet), false},
    {'D', "--diff", bit(Command::kSet) | bit(Command::kDelete), false},
    {'n', "--dry-run", bit(Command::kSet) | bit(Command::kDelete), false},
    {'v', "--values", bit(Command::kKeys), false},
    {'z', "--null", bit(Command::kSections) | bit(Command::kKeys), false},
    {'x', "--ignore", bit(Command::kCheck), true},
    {'q', "--quiet", kEvery, false},
    {'h', "--help", kEvery, false},
    {'V', "--version", kEvery, false},
    {'C', "--check", bit(Command::kCheck), false},
};

// What has been read of the command line.
struct Reading {
    Options* options;
    int count;
    char** arguments;
    int next = 1;        // argument to be read
    bool ended = false;  // "--" has been met
    const CommandName* command = nullptr;
    std::vector<const Option*> seen;  // to be compared with the command, which may come later
};

// What might have been meant as a name or value, and begins with "-".
constexpr const char* kAdvice = "; before a name or value like that write --";

CommandLine wrong(const std::string& what)
{
    complain("%s; see rmini --help", what.c_str());
    return CommandLine::kWrong;
}

bool isOption(std::string_view argument)
{
    return argument.size() > 1 && argument[0] == '-' &&
           std::isdigit(static_cast<unsigned char>(argument[1])) == 0;
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

CommandLine apply(const Option& option, const char* value, Reading& reading)
{
    Options& options = *reading.options;
    reading.seen.push_back(&option);
    switch (option.letter) {
        case 'd':
            options.defaultValue = value;
            break;
        case 'x':
            return ignoreKinds(value, options);
        case 'C':
            reading.command = &kCommands[static_cast<std::size_t>(Command::kCheck)];
            break;
        case 'h':
            print(kHelp);
            return CommandLine::kDone;
        case 'V':
            print("rmini " RMINI_VERSION "\n");
            return CommandLine::kDone;
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

CommandLine unknownOption(std::string_view argument)
{
    return wrong("\"" + std::string(shown(argument).text) + "\" is no option" + kAdvice);
}

// False when the command is known and does not have the option.
bool belongs(const Option& option, const Reading& reading)
{
    return reading.command == nullptr || (option.commands & bit(reading.command->command)) != 0;
}

CommandLine ofAnother(const Option& option, const CommandName& command)
{
    return wrong(std::string(option.name) + " is no option of rmini " + std::string(command.name) +
                 kAdvice);
}

CommandLine takeLong(std::string_view argument, Reading& reading)
{
    const std::size_t equals = argument.find('=');
    const std::string_view name = argument.substr(0, equals);
    const auto* option = std::ranges::find(kOptions, name, &Option::name);
    if (option == std::end(kOptions)) {
        return unknownOption(argument);
    }
    if (!belongs(*option, reading)) {
        return ofAnother(*option, *reading.command);
    }
    const char* value = nullptr;
    if (equals != std::string_view::npos) {
        value = argument.data() + equals + 1;
    } else if (option->takesValue && reading.next < reading.count) {
        value = reading.arguments[reading.next++];
    }
    if ((value != nullptr) != option->takesValue) {
        return option->takesValue ? wrong(std::string(name) + " wants a value" + kAdvice)
                                  : wrong(std::string(name) + " takes no value");
    }
    return apply(*option, value, reading);
}

CommandLine takeLetters(std::string_view argument, Reading& reading)
{
    CommandLine result = CommandLine::kRun;
    for (std::size_t i = 1; i < argument.size() && result == CommandLine::kRun; ++i) {
        const auto* option = std::ranges::find(kOptions, argument[i], &Option::letter);
        if (option == std::end(kOptions) || option->letter == 'C') {
            return unknownOption(argument);
        }
        if (!belongs(*option, reading)) {
            return ofAnother(*option, *reading.command);
        }
        const char* value = nullptr;
        if (option->takesValue) {
            const bool attached = i + 1 < argument.size();
            if (!attached && reading.next == reading.count) {
                return wrong(std::string(option->name) + " wants a value" + kAdvice);
            }
            value = attached ? argument.data() + i + 1 : reading.arguments[reading.next++];
            i = argument.size();
        }
        result = apply(*option, value, reading);
    }
    return result;
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
    reading.command = found;
    return CommandLine::kRun;
}

CommandLine takeNext(Reading& reading)
{
    const char* argument = reading.arguments[reading.next++];
    const std::string_view text = argument;
    if (reading.ended || !isOption(text)) {
        return takeOperand(argument, reading);
    }
    if (text == "--") {
        reading.ended = true;
        return CommandLine::kRun;
    }
    return text.starts_with("--") ? takeLong(text, reading) : takeLetters(text, reading);
}

CommandLine examine(const Reading& reading)
{
    const Options& options = *reading.options;
    const CommandName* command = reading.command;
    if (command == nullptr) {
        return wrong("a command is missing");
    }
    for (const Option* option : reading.seen) {
        if (!belongs(*option, reading)) {
            return ofAnother(*option, *command);
        }
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
    reading.count = argc;
    reading.arguments = argv;
    while (reading.next < argc) {
        const CommandLine result = takeNext(reading);
        if (result != CommandLine::kRun) {
            return result;
        }
    }
    const CommandLine result = examine(reading);
    if (result == CommandLine::kRun) {
        options.command = reading.command->command;
    }
    return result;
}

}  // namespace rmini
