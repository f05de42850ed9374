// Command line of rmheap.
#include "options.h"

#include "common/console.h"
#include "console.h"
#include "text.h"

#include <algorithm>
#include <limits>
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

constexpr tools::Option kOptions[] = {
    {'s', "--svg", Takes::kValue},
    {'r', "--report", Takes::kValue},
    {'l', "--list"},
    {'c', "--compare", Takes::kMaybe},
    {'t', "--tag", Takes::kValue},
    {'S', "--sort", Takes::kValue},
    {'z', "--sizes", Takes::kMaybe},
    {'H', "--human"},
    {'j', "--json"},
    {'q', "--quiet"},
    tools::kHelpOption,
    tools::kVersionOption,
};

constexpr tools::Syntax kSyntax = {.options = kOptions, .shown = printable};

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

CommandLine wrong(const std::string& what)
{
    return tools::wrong(printable(what));
}

bool readNumber(std::string_view text, std::size_t& value)
{
    Scanner scanner = {text};
    uint64_t number = 0;
    if (!scanner.number(number) || !scanner.rest.empty() || number == 0 ||
        number > std::numeric_limits<std::size_t>::max()) {
        return false;
    }
    value = static_cast<std::size_t>(number);
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

CommandLine apply(const tools::Option& option, const char* value, Options& options, bool& single)
{
    switch (option.letter) {
        case 's':
            options.svg = value;
            return *value != '\0' ? CommandLine::kRun : wrong("--svg wants the name of a file");
        case 'r':
            single = true;
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
        default:
            options.list |= option.letter == 'l';
            options.json |= option.letter == 'j';
            options.human |= option.letter == 'H';
            options.quiet |= option.letter == 'q';
            return CommandLine::kRun;
    }
}

CommandLine takeFile(const char* name, Options& options)
{
    if (*name == '\0') {
        return wrong("the name of a LOG is empty");
    }
    options.files.push_back(name);
    return CommandLine::kRun;
}

// Options that do not go together.
CommandLine examine(const Options& options, bool single)
{
    if (options.list && options.compare) {
        return wrong("--list and --compare do not go together");
    }
    if (single && (options.list || options.compare)) {
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
    tools::Arguments arguments = {.syntax = &kSyntax, .count = argc, .words = argv};
    bool single = false;  // --report was given
    const CommandLine result = tools::readArguments(
        arguments,
        [&](const tools::Option& option, const char* value) {
            return apply(option, value, options, single);
        },
        [&](const char* name) { return takeFile(name, options); });
    return result == CommandLine::kRun ? examine(options, single) : result;
}

}  // namespace rmheap

const tools::Tool tools::kTool = {.name = "rmheap",
                                  .version = RMHEAP_VERSION,
                                  .help = rmheap::kHelp,
                                  .unwritten = rmheap::kFailed,
                                  .fatal = rmheap::kFailed};
