// Command line of the catalogue.
//
// Why: the demonstration needs no argument at all, so every option has a default that works on any
// Debian. What is wrong with an argument is said together with what would be right.
//
// A setting that the command line gives is checked here and kept as its text: it is put over what
// the file says whenever that is read.
//
// No function of the library is called here: these frames cannot be jumped over, and they may own
// what they like.
#include "options.h"

#include "console.h"
#include "records.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace catalogue
{
namespace
{
constexpr const char* kHelp =
    R"(usage: catalogue [option...] [file...]
       catalogue get | put | list | stats ...   asks one that runs; see
                                                catalogue get --help

Loads records into bucket files, lets worker processes look them up and update
them at the same time, and compares every record with the input at the end.

A file holds records of a format that one of the format modules reads; those
that come with the program read records of "Field: value" lines (fields), CSV
with a header (csv) and INI files (ini). Without a file, the package database of
this machine is taken: /var/lib/dpkg/status.

  --dir DIR           make the run directory in DIR
                      (default: $TMPDIR, or the current directory without it)
  --stay              when the operations are done, go on serving clients until
                      Ctrl-C, which is the normal end then
  -h, --help          print this text

Settings come from corvane.ini in the current directory, or in the one that
$CATPATH names; options win over the file. SIGHUP has the file read again.
  --config FILE       take FILE instead of corvane.ini
  --print-config      print the settings in effect, as such a file, and end

  --workers N         worker processes, 1 to 16 (default 4)
  --operations N      lookups and updates, all workers together (default 250000)
  --buckets N         files for the records, 1 to 64 (default 32)
  --rotate N          seconds between two backups of the files (default 0: at the
                      start and at each reload only)
  --handle-limit N    descriptors of a process for its files (default 8)
  --memory-limit N    memory budget of a process in bytes, or none (default none)
  --free-space N      bytes of the disk that growing files leave (default 0)
  --progress N        milliseconds between two progress lines (default 1000)
  --log-level N       0 only warnings, 1 on standard error, 2 into a file as well
                      (default 0)
  --log FILE          the log file (default catalogue.log)
  --modules DIR       the format modules (default: modules beside the program)
  --format NAME       the format of all files (default: each is recognised)
  --key FIELD         the field that names a record (default: the first one, in
                      an INI file the header of a section)
  --report            write a report of the parent's memory into the log file at
                      the end; SIGUSR1 asks for one at any time

Test aids:
  --kill-worker N     worker N kills itself half-way through an update, once
  --kill-every N      a worker is killed every N milliseconds
  --damage-record N   flip one byte of record N (1 is the first) before verification

Exit status: 0 every record is as it must be; 1 something failed, standard error
says what; 2 the command line or corvane.ini is wrong; 130 or 143 interrupted:
what was done by then is verified, unless a second interrupt did not wait for it.
)";

constexpr uint64_t kMostMs = 60000;  // between two kills

// An option that takes a number and is no setting.
struct NumberOption {
    std::string_view name;
    uint64_t high;
    uint64_t value;
};

using Numbers = NumberOption[3];

std::string defaultDirectory()
{
    const char* temporary = std::getenv("TMPDIR");
    return temporary != nullptr && *temporary != '\0' ? temporary : ".";
}

bool takeNumber(NumberOption& option, std::string_view value)
{
    if (parseNumber(value, 1, option.high, option.value)) {
        return true;
    }
    complain("%s takes a number from 1 to %llu, not \"%s\"", option.name.data(),
             static_cast<unsigned long long>(option.high), value.data());
    return false;
}

bool takeSettingOption(Setting setting, const char* value, Options& options)
{
    Settings scratch = {};
    if (!takeSetting(scratch, setting, value, Origin::kCommandLine)) {
        complain("%s takes %s, not \"%s\"", kDefinitions[setting].option,
                 allowedValues(setting).text, value);
        return false;
    }
    options.given[setting] = value;
    return true;
}

// The setting that an option sets; kSettings when it sets none.
Setting settingOf(std::string_view name)
{
    uint32_t i = 0;
    while (i < kSettings && (kDefinitions[i].option == nullptr || name != kDefinitions[i].option)) {
        ++i;
    }
    return static_cast<Setting>(i);
}

bool takesValue(std::string_view name, const Numbers& numbers)
{
    const Setting setting = settingOf(name);
    return name == "--dir" || name == "--config" ||
           std::ranges::any_of(
               numbers, [name](const NumberOption& number) { return name == number.name; }) ||
           (setting != kSettings && setting != kReport);
}

// One of the options that take a value. False after having said what is wrong with it.
bool takeOption(const char* name, const char* value, Numbers& numbers, Options& options)
{
    const std::string_view argument = name;
    if (argument == "--dir") {
        options.directory = value;
        return true;
    }
    if (argument == "--config") {
        options.config = value;
        return true;
    }
    for (NumberOption& number : numbers) {
        if (argument == number.name) {
            return takeNumber(number, value);
        }
    }
    return takeSettingOption(settingOf(argument), value, options);
}

// Says why an argument that begins with "--" cannot be taken.
void refuse(std::string_view argument, const Numbers& numbers)
{
    const std::size_t equals = argument.find('=');
    const std::string name(argument.substr(0, equals));
    if (settingOf(name) == kReport || name == "--stay") {
        complain("\"%s\": write %s alone", std::string(argument).c_str(), name.c_str());
    } else if (!takesValue(name, numbers)) {
        complain("\"%s\" is not an option; see catalogue --help", name.c_str());
    } else if (equals == std::string_view::npos) {
        complain("%s lacks its value", name.c_str());
    } else {
        const std::string value(argument.substr(equals + 1));
        complain("\"%s=%s\": write %s %s", name.c_str(), value.c_str(), name.c_str(),
                 value.c_str());
    }
}
}  // namespace

CommandLine parseOptions(int argc, char** argv, Options& options)
{
    Numbers numbers = {{"--kill-worker", kMaxWorkers, 0},
                       {"--damage-record", UINT32_MAX, 0},
                       {"--kill-every", kMostMs, 0}};
    options.directory = defaultDirectory();

    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            std::fputs(kHelp, stdout);
            return CommandLine::kHelp;
        }
        if (argument == "--print-config") {
            options.printConfig = true;
            continue;
        }
        if (argument == "--stay") {
            options.stay = true;
            continue;
        }
        if (argument == kDefinitions[kReport].option) {
            options.given[kReport] = "1";
            continue;
        }
        if (!argument.starts_with("--")) {
            options.inputs.emplace_back(argument);
            continue;
        }
        if (i + 1 == argc || !takesValue(argument, numbers)) {
            refuse(argument, numbers);
            return CommandLine::kWrong;
        }
        ++i;
        if (!takeOption(argv[i - 1], argv[i], numbers, options)) {
            return CommandLine::kWrong;
        }
    }

    options.killWorker = static_cast<uint32_t>(numbers[0].value);
    options.damageRecord = static_cast<uint32_t>(numbers[1].value);
    options.killEvery = static_cast<uint32_t>(numbers[2].value);
    if (options.inputs.empty()) {
        options.inputs.emplace_back(kDefaultInput);
    }
    return CommandLine::kRun;
}

}  // namespace catalogue
