// Command line of rmheap.
#include "options.h"

#include "console.h"
#include "text.h"

#include <algorithm>
#include <string_view>

namespace rmheap
{
namespace
{
constexpr std::size_t kDefaultSizes = 5;
constexpr std::size_t kMostSizes = 1000;

constexpr std::string_view kHelp =
    R"(usage: rmheap [OPTION...] [LOG...]

Shows the heap of a server, from the last complete memory report in its logs, or
in standard input: a table of the tags, and what the report says is damaged.

  -s, --svg=FILE       write a map of the segments to FILE too; "-" prints it
  -r, --report=N       show report N of the logs, not the last complete one
  -l, --list           list the reports
  -c, --compare[=A[,B]]
                       show what grew from report A to B; without numbers, from
                       the last complete report but one to the last
  -t, --tag=TAG        only this tag, a number or name; may be repeated
  -S, --sort=KEY       bytes (default), blocks, free, frag, largest, segments,
                       tag or name
  -z, --sizes[=N]      the N (5) block sizes that hold most of each tag
  -H, --human          sizes in K, M and G
  -j, --json           print JSON
  -q, --quiet          print nothing; the exit status tells
  -h, --help           print this text
  -V, --version        print the version

Exit status: 0 done; 1 no such report or tag; 2 wrong command line, or something
could not be read or written; 3 the heap is damaged; 4 the report is cut or
contradicts itself. The manual page rmheap(1) tells what the figures mean.
)";

enum class Takes { kNothing, kValue, kMaybe };

struct Option {
    char letter;
    std::string_view name;
    Takes takes;
};

constexpr Option kOptions[] = {
    {'s', "--svg", Takes::kValue},    {'r', "--report", Takes::kValue},
    {'l', "--list", Takes::kNothing}, {'c', "--compare", Takes::kMaybe},
    {'t', "--tag", Takes::kValue},    {'S', "--sort", Takes::kValue},
    {'z', "--sizes", Takes::kMaybe},  {'H', "--human", Takes::kNothing},
    {'j', "--json", Takes::kNothing}, {'q', "--quiet", Takes::kNothing},
    {'h', "--help", Takes::kNothing}, {'V', "--version", Takes::kNothing},
};

struct SortName {
    std::string_view name;
    Sort sort;
};

constexpr SortName kSorts[] = {
    {"bytes", Sort::kBytes},     {"blocks", Sort::kBlocks},
    {"free", Sort::kFree},       {"frag", Sort::kFragmentation},
    {"largest", Sort::kLargest}, {"segments", Sort::kSegments},
    {"tag", Sort::kTag},         {"name", Sort::kName},
};

struct Reading {
    Options* options;
    int count;
    char** arguments;
    int next = 1;         // argument to be read
    bool ended = false;   // "--" has been met
    bool single = false;  // --report was given
};

CommandLine wrong(const std::string& what)
{
    complain(printable(what) + "; see rmheap --help");
    return CommandLine::kWrong;
}

bool readNumber(std::string_view text, std::size_t& value)
{
    Scanner scanner = {text};
    uint64_t number = 0;
    if (!scanner.number(number) || !scanner.rest.empty() || number == 0) {
        return false;
    }
    value = number;
    return true;
}

CommandLine takeSort(std::string_view name, Options& options)
{
    const auto* found = std::ranges::find(kSorts, name, &SortName::name);
    if (found == std::end(kSorts)) {
        return wrong("--sort: there is no key \"" + std::string(name) + "\"");
    }
    options.sort = found->sort;
    return CommandLine::kRun;
}

CommandLine takeCompare(const char* value, Options& options)
{
    options.compare = true;
    if (value == nullptr) {
        return CommandLine::kRun;
    }
    const std::string_view text = value;
    const std::size_t comma = text.find(',');
    const bool second = comma != std::string_view::npos;
    if (!readNumber(text.substr(0, comma), options.from) ||
        (second && !readNumber(text.substr(comma + 1), options.to))) {
        return wrong("--compare wants numbers of reports, as --list shows them, not \"" +
                     std::string(text) + "\"");
    }
    return CommandLine::kRun;
}

CommandLine takeSizes(const char* value, Options& options)
{
    options.sizes = kDefaultSizes;
    if (value != nullptr && (!readNumber(value, options.sizes) || options.sizes > kMostSizes)) {
        return wrong("--sizes wants a number from 1 to 1000, not \"" + std::string(value) + "\"");
    }
    return CommandLine::kRun;
}

CommandLine apply(const Option& option, const char* value, Reading& reading)
{
    Options& options = *reading.options;
    switch (option.letter) {
        case 's':
            options.svg = value;
            return *value != '\0' ? CommandLine::kRun : wrong("--svg wants the name of a file");
        case 'r':
            reading.single = true;
            return readNumber(value, options.report)
                       ? CommandLine::kRun
                       : wrong("--report wants a number, as --list shows it, not \"" +
                               std::string(value) + "\"");
        case 'c':
            return takeCompare(value, options);
        case 't':
            options.tags.emplace_back(value);
            return CommandLine::kRun;
        case 'S':
            return takeSort(value, options);
        case 'z':
            return takeSizes(value, options);
        case 'h':
            print(kHelp);
            return CommandLine::kDone;
        case 'V':
            print("rmheap " RMHEAP_VERSION "\n");
            return CommandLine::kDone;
        default:
            options.list |= option.letter == 'l';
            options.json |= option.letter == 'j';
            options.human |= option.letter == 'H';
            options.quiet |= option.letter == 'q';
            return CommandLine::kRun;
    }
}

CommandLine unknownOption(std::string_view argument)
{
    return wrong("\"" + std::string(argument) + "\" is no option");
}

CommandLine takeLong(std::string_view argument, Reading& reading)
{
    const std::size_t equals = argument.find('=');
    const std::string_view name = argument.substr(0, equals);
    const auto* option = std::ranges::find(kOptions, name, &Option::name);
    if (option == std::end(kOptions)) {
        return unknownOption(argument);
    }
    const char* value = nullptr;
    if (equals != std::string_view::npos) {
        value = argument.data() + equals + 1;
    } else if (option->takes == Takes::kValue && reading.next < reading.count) {
        value = reading.arguments[reading.next++];
    }
    if (value == nullptr && option->takes == Takes::kValue) {
        return wrong(std::string(name) + " wants a value");
    }
    if (value != nullptr && option->takes == Takes::kNothing) {
        return wrong(std::string(name) + " takes no value");
    }
    return apply(*option, value, reading);
}

CommandLine takeLetters(std::string_view argument, Reading& reading)
{
    CommandLine result = CommandLine::kRun;
    for (std::size_t i = 1; i < argument.size() && result == CommandLine::kRun; ++i) {
        const auto* option = std::ranges::find(kOptions, argument[i], &Option::letter);
        if (option == std::end(kOptions)) {
            return unknownOption(argument);
        }
        const char* value = nullptr;
        if (option->takes == Takes::kValue) {
            const bool attached = i + 1 < argument.size();
            if (!attached && reading.next == reading.count) {
                return wrong(std::string(option->name) + " wants a value");
            }
            value = attached ? argument.data() + i + 1 : reading.arguments[reading.next++];
            i = argument.size();
        }
        result = apply(*option, value, reading);
    }
    return result;
}

CommandLine takeNext(Reading& reading)
{
    const char* argument = reading.arguments[reading.next++];
    const std::string_view text = argument;
    if (reading.ended || !text.starts_with('-') || text == "-") {
        if (text.empty()) {
            return wrong("the name of a LOG is empty");
        }
        reading.options->files.push_back(argument);
        return CommandLine::kRun;
    }
    if (text == "--") {
        reading.ended = true;
        return CommandLine::kRun;
    }
    return text.starts_with("--") ? takeLong(text, reading) : takeLetters(text, reading);
}

// Options that do not go together.
CommandLine examine(const Reading& reading)
{
    const Options& options = *reading.options;
    if (options.list && options.compare) {
        return wrong("--list and --compare do not go together");
    }
    if (reading.single && (options.list || options.compare)) {
        return wrong(options.list ? "--report and --list do not go together"
                                  : "--report and --compare do not go together: --compare=A,B");
    }
    if (options.svg != nullptr && (options.list || options.compare)) {
        return wrong("--svg shows one report; choose it with --report");
    }
    if (options.svg != nullptr && std::string_view(options.svg) == "-" &&
        (options.json || options.quiet)) {
        return wrong("--svg=- prints the map alone");
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
    return examine(reading);
}

}  // namespace rmheap
