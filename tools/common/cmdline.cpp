// Command line of a tool.
#include "common/cmdline.h"

#include "common/console.h"

#include <algorithm>
#include <cctype>

namespace tools
{
namespace
{
CommandLine wrongWithAdvice(const Arguments& arguments, const std::string& what)
{
    return wrong(what + std::string(arguments.syntax->advice));
}

CommandLine unknownOption(const Arguments& arguments, std::string_view word)
{
    return wrongWithAdvice(arguments, "\"" + arguments.syntax->shown(word) + "\" is no option");
}

// False when the command is known and does not have the option.
bool belongs(const Option& option, const Arguments& arguments)
{
    return arguments.command == 0 || (option.commands & arguments.command) != 0;
}

CommandLine ofAnother(const Option& option, const Arguments& arguments)
{
    return wrongWithAdvice(arguments, std::string(option.name) + " is no option of " + kTool.name +
                                          " " + std::string(arguments.commandName));
}

CommandLine wantsValue(const Option& option, const Arguments& arguments)
{
    return wrongWithAdvice(arguments, std::string(option.name) + " wants a value");
}

bool isOption(std::string_view word, const Syntax& syntax)
{
    if (word.size() < 2 || word[0] != '-') {
        return false;
    }
    return !syntax.numbersAreOperands || std::isdigit(static_cast<unsigned char>(word[1])) == 0;
}

CommandLine apply(const Option& option, const char* value, Arguments& arguments,
                  const TakeOption& take)
{
    arguments.seen.push_back(&option);
    if (option.letter == kHelpOption.letter) {
        print(kTool.help);
        return CommandLine::kDone;
    }
    if (option.letter == kVersionOption.letter) {
        print(std::string(kTool.name) + " " + kTool.version + "\n");
        return CommandLine::kDone;
    }
    return take(option, value);
}

CommandLine takeLong(std::string_view word, Arguments& arguments, const TakeOption& take)
{
    const std::size_t equals = word.find('=');
    const std::string_view name = word.substr(0, equals);
    const auto option = std::ranges::find(arguments.syntax->options, name, &Option::name);
    if (option == arguments.syntax->options.end()) {
        return unknownOption(arguments, word);
    }
    if (!belongs(*option, arguments)) {
        return ofAnother(*option, arguments);
    }
    const char* value = nullptr;
    if (equals != std::string_view::npos) {
        value = word.data() + equals + 1;
    } else if (option->takes == Takes::kValue && arguments.next < arguments.count) {
        value = arguments.words[arguments.next++];
    }
    if (value == nullptr && option->takes == Takes::kValue) {
        return wantsValue(*option, arguments);
    }
    if (value != nullptr && option->takes == Takes::kNothing) {
        return wrong(std::string(name) + " takes no value");
    }
    return apply(*option, value, arguments, take);
}

CommandLine takeLetters(std::string_view word, Arguments& arguments, const TakeOption& take)
{
    CommandLine result = CommandLine::kRun;
    for (std::size_t i = 1; i < word.size() && result == CommandLine::kRun; ++i) {
        const auto option = std::ranges::find(arguments.syntax->options, word[i], &Option::letter);
        if (option == arguments.syntax->options.end() || option->longOnly) {
            return unknownOption(arguments, word);
        }
        if (!belongs(*option, arguments)) {
            return ofAnother(*option, arguments);
        }
        const char* value = nullptr;
        if (option->takes == Takes::kValue) {
            const bool attached = i + 1 < word.size();
            if (!attached && arguments.next == arguments.count) {
                return wantsValue(*option, arguments);
            }
            value = attached ? word.data() + i + 1 : arguments.words[arguments.next++];
            i = word.size();
        }
        result = apply(*option, value, arguments, take);
    }
    return result;
}
}  // namespace

CommandLine wrong(const std::string& what)
{
    complain(what + "; see " + kTool.name + " --help");
    return CommandLine::kWrong;
}

CommandLine readArguments(Arguments& arguments, const TakeOption& option,
                          const TakeOperand& operand)
{
    CommandLine result = CommandLine::kRun;
    while (arguments.next < arguments.count && result == CommandLine::kRun) {
        const char* word = arguments.words[arguments.next++];
        const std::string_view text = word;
        if (arguments.ended || !isOption(text, *arguments.syntax)) {
            result = operand(word);
        } else if (text == "--") {
            arguments.ended = true;
        } else {
            result = text.starts_with("--") ? takeLong(text, arguments, option)
                                            : takeLetters(text, arguments, option);
        }
    }
    return result;
}

CommandLine checkSeen(const Arguments& arguments)
{
    for (const Option* option : arguments.seen) {
        if (!belongs(*option, arguments)) {
            return ofAnother(*option, arguments);
        }
    }
    return CommandLine::kRun;
}

}  // namespace tools
