// Command line of a client: get, put, list and stats.
//
// Why: one program is server and client, as one that is installed in one place would be, so the
// first word decides. A file of records that is called like one of them is given as ./list.
//
// Limits are checked here as far as a client knows them: a name or a text that no server would take
// is a mistake in the command line, and nobody has to be reached to say so.
//
// No function of the library is called here.
#include "command.h"

#include "console.h"
#include "protocol.h"
#include "settings.h"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace catalogue
{
namespace
{
constexpr const char* kHelp =
    R"(usage: catalogue get NAME          [option...]
       catalogue put NAME TEXT     [option...]
       catalogue list [PREFIX]     [option...]
       catalogue stats [--json]    [option...]

Asks a catalogue that is running.

  get     print the fields of a record, its version and its note
  put     write a note to a record: 1 to 63 characters of printable ASCII.
          Prints the version that the record has now
  list    print the names of all records, or of those that begin with PREFIX
  stats   print the figures of the run, with --json as one JSON object

  --run DIR           the directory of the run, or the one in which to look for
                      it (default: the current directory, then $TMPDIR); only
                      one run must live there
  --timeout SECONDS   give up after so long, 1 to 3600 (default 10)
  -h, --help          print this text
  --                  what follows is no option, like a name that begins with -

At most four clients are served at a time, others wait for their turn; stats
asks nobody and waits for nobody. What is printed shows control characters as
\xNN.

Exit status: 0 done; 1 there is no such record; 2 the command line is wrong;
3 there is no such run, it cannot be reached, or it gave no answer in time. A
put that ends with 3 may have been done nevertheless.
)";

constexpr uint32_t kDefaultTimeout = 10;  // seconds
constexpr uint64_t kMostTimeout = 3600;
constexpr int kMostOperands = 2;

struct VerbWord {
    const char* word;
    Verb verb;
    int least;  // operands
    int most;
    const char* operands;
};

constexpr VerbWord kVerbs[] = {
    {"get", Verb::kGet, 1, 1, "the name of a record"},
    {"put", Verb::kPut, 2, 2, "the name of a record and a text"},
    {"list", Verb::kList, 0, 1, "nothing, or what the names begin with"},
    {"stats", Verb::kStats, 0, 0, "nothing"},
};

const VerbWord* findVerb(const char* word)
{
    for (const VerbWord& verb : kVerbs) {
        if (std::strcmp(verb.word, word) == 0) {
            return &verb;
        }
    }
    return nullptr;
}

bool takesValue(std::string_view option)
{
    return option == "--run" || option == "--timeout";
}

// The index of the verb, behind options of a client; `argc` when there is none.
int verbIndex(int argc, char** argv)
{
    int i = 1;
    while (i < argc) {
        if (takesValue(argv[i])) {
            i += 2;
        } else if (std::strcmp(argv[i], "--json") == 0) {
            ++i;
        } else {
            return findVerb(argv[i]) != nullptr ? i : argc;
        }
    }
    return argc;
}

// One that takes a value. False after having said what is wrong with it.
bool takeOption(std::string_view option, const char* value, Command& command)
{
    if (value == nullptr) {
        complain("%s lacks its value", option.data());
        return false;
    }
    if (option == "--run") {
        command.run = value;
        return true;
    }
    uint64_t seconds = 0;
    if (!parseNumber(value, 1, kMostTimeout, seconds)) {
        complain("--timeout takes a number from 1 to %u, not \"%s\"",
                 static_cast<unsigned>(kMostTimeout), value);
        return false;
    }
    command.timeoutMs = static_cast<uint32_t>(seconds) * 1000;
    return true;
}

// Says why an argument that begins with "-" cannot be taken.
void refuse(std::string_view argument, const VerbWord& verb)
{
    const std::size_t equals = argument.find('=');
    const auto nameBytes = static_cast<int>(argument.substr(0, equals).size());
    if (equals != std::string_view::npos && takesValue(argument.substr(0, equals))) {
        complain("\"%s\": write %.*s %s", argument.data(), nameBytes, argument.data(),
                 argument.data() + equals + 1);
    } else if (argument == "--json") {
        complain("--json belongs to stats, not to %s", verb.word);
    } else {
        complain("\"%s\" is not an option of catalogue %s; see catalogue %s --help",
                 argument.data(), verb.word, verb.word);
    }
}

// An argument that begins with "-"; `next` is the one behind it, null for none. False after having
// said what is wrong.
bool takeDashed(std::string_view argument, const char* next, const VerbWord* verb, Command& command)
{
    if (takesValue(argument)) {
        return takeOption(argument, next, command);
    }
    if (verb == nullptr) {
        return true;  // what is wrong is that there is none
    }
    if (argument == "--json" && verb->verb == Verb::kStats) {
        command.json = true;
        return true;
    }
    refuse(argument, *verb);
    return false;
}

// Whether name and text are such as a record can have.
bool withinLimits(const Command& command)
{
    const std::size_t nameBytes = std::strlen(command.name);
    if (nameBytes > kNameBytes) {
        complain("the name has %zu bytes; names have at most %u", nameBytes, kNameBytes);
        return false;
    }
    if (nameBytes == 0 && (command.verb == Verb::kGet || command.verb == Verb::kPut)) {
        complain("the name is empty; no record has an empty one");
        return false;
    }
    if (command.verb == Verb::kPut && !isNote(command.text, std::strlen(command.text))) {
        complain("the text has %zu bytes; a note is 1 to %u characters of printable ASCII",
                 std::strlen(command.text), kTextBytes);
        return false;
    }
    return true;
}

struct Operands {
    const char* text[kMostOperands];
    int count;
};

bool takeOperands(const VerbWord& verb, const Operands& operands, Command& command)
{
    if (operands.count < verb.least || operands.count > verb.most) {
        complain("%s takes %s; see catalogue %s --help", verb.word, verb.operands, verb.word);
        return false;
    }
    command.verb = verb.verb;
    command.name = operands.count > 0 ? operands.text[0] : "";
    command.text = operands.count > 1 ? operands.text[1] : "";
    return withinLimits(command);
}
}  // namespace

bool isCommand(int argc, char** argv)
{
    return verbIndex(argc, argv) < argc || (argc > 1 && takesValue(argv[1]));
}

CommandLine parseCommand(int argc, char** argv, Command& command)
{
    command = {};
    command.timeoutMs = kDefaultTimeout * 1000;
    const int at = verbIndex(argc, argv);
    const VerbWord* const verb = at < argc ? findVerb(argv[at]) : nullptr;
    Operands operands = {};
    bool options = true;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (i == at) {
            continue;
        }
        if (!options || !argument.starts_with("-")) {
            if (operands.count < kMostOperands) {
                operands.text[operands.count] = argv[i];
            }
            ++operands.count;
        } else if (argument == "--help" || argument == "-h") {
            std::fputs(kHelp, stdout);
            return CommandLine::kHelp;
        } else if (argument == "--") {
            options = false;
        } else if (!takeDashed(argument, i + 1 < argc ? argv[i + 1] : nullptr, verb, command)) {
            return CommandLine::kWrong;
        } else if (takesValue(argument)) {
            ++i;
        }
    }
    if (verb == nullptr) {
        complain(
            "--run and --timeout are options of a client; one of get, put, list and stats is "
            "missing");
        return CommandLine::kWrong;
    }
    return takeOperands(*verb, operands, command) ? CommandLine::kRun : CommandLine::kWrong;
}

}  // namespace catalogue
