// Command line of a tool.
//
// Why: options may stand anywhere, as people type them, also behind the operands that they are
// about; behind "--" there are none.
#ifndef TOOLS_COMMON_CMDLINE_H
#define TOOLS_COMMON_CMDLINE_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tools
{

enum class CommandLine {
    kRun,
    kDone,   // what was asked for has been printed
    kWrong,  // what is wrong has been printed
};

enum class Takes { kNothing, kValue, kMaybe };  // kMaybe: a value behind "=" only

constexpr uint32_t kEveryCommand = UINT32_MAX;

struct Option {
    char letter;
    std::string_view name;  // with its "--"
    Takes takes = Takes::kNothing;
    uint32_t commands = kEveryCommand;  // a bit for each that it belongs to
    bool longOnly = false;              // the letter is not to be typed
};

// Two options that every tool has; they are done here.
constexpr Option kHelpOption = {'h', "--help"};
constexpr Option kVersionOption = {'V', "--version"};

struct Syntax {
    std::span<const Option> options;
    std::string (*shown)(std::string_view);  // an argument as messages print it
    std::string_view advice = {};            // behind a message on what begins with "-"
    bool numbersAreOperands = false;         // "-" before a digit
};

// A command line that is being read.
struct Arguments {
    const Syntax* syntax;
    int count;
    char** words;
    int next = 1;          // word to be read
    bool ended = false;    // "--" has been met
    uint32_t command = 0;  // its bit, once it is known
    std::string_view commandName = {};
    std::vector<const Option*> seen = {};  // to be compared with a command that comes later
};

using TakeOption = std::function<CommandLine(const Option& option, const char* value)>;
using TakeOperand = std::function<CommandLine(const char* operand)>;

// Says what is wrong and where help is.
CommandLine wrong(const std::string& what);

// Reads all words, and gives options with their values, null for none, and operands to whom they
// concern, up to the first that is not kRun. From when on the command is known, options of others
// are refused.
CommandLine readArguments(Arguments& arguments, const TakeOption& option,
                          const TakeOperand& operand);

// Refuses options of other commands that stood before the command.
CommandLine checkSeen(const Arguments& arguments);

}  // namespace tools

#endif
