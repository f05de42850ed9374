#include "figures.h"

#include "bare.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace
{
constexpr int kStarts = 40;
constexpr int kHostRuns = 3;
constexpr const char* kHostOperations = "200000";

// What a command prints; ends the program when it cannot be run or fails.
std::string outputOf(const std::string& command)
{
    FILE* pipe = popen(command.c_str(), "r");
    rmbench::must(pipe != nullptr, command.c_str());
    std::string output;
    char part[4096];
    while (std::fgets(part, sizeof(part), pipe) != nullptr) {
        output += part;
    }
    if (pclose(pipe) != 0) {
        std::fprintf(stderr, "failed: %s\n", command.c_str());
        std::exit(1);
    }
    return output;
}

std::string quoted(const std::string& path)
{
    return "'" + path + "'";
}

enum class Best { kLeast, kMost };

rmbench::Figure figureOf(const std::string& name, const std::string& unit,
                         std::vector<double> values, Best best)
{
    std::sort(values.begin(), values.end());
    return {name, unit, best == Best::kLeast ? values.front() : values.back(),
            values[values.size() / 2], values.size()};
}

// The number that follows the last comma and blank of the line that begins with the word.
double perSecond(const std::string& output, const std::string& word)
{
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t at = line.find_first_not_of(' ');
        if (at == std::string::npos || line.compare(at, word.size() + 1, word + " ") != 0) {
            continue;
        }
        std::string digits = line.substr(line.rfind(", ") + 1);
        std::erase_if(digits, [](unsigned char c) { return std::isdigit(c) == 0; });
        return std::strtod(digits.c_str(), nullptr);
    }
    std::fprintf(stderr, "no line of %s in the host's summary\n", word.c_str());
    std::exit(1);
}
}  // namespace

std::vector<rmbench::Figure> rmbench::measureStart()
{
    const std::string command =
        quoted(builtFile("rm_bench_start")) + " " + quoted(builtFile("../_rm.so"));
    std::vector<double> load;
    std::vector<double> init;
    std::vector<double> end;
    std::vector<double> resident;
    std::vector<double> own;
    for (int i = 0; i < kStarts; ++i) {
        std::istringstream line(outputOf(command));
        double values[5] = {};
        for (double& value : values) {
            must(static_cast<bool>(line >> value), "the output of rm_bench_start");
        }
        load.push_back(values[0]);
        init.push_back(values[1]);
        end.push_back(values[2]);
        resident.push_back(values[3]);
        own.push_back(values[4]);
    }
    return {figureOf("process: load the library", "us", load, Best::kLeast),
            figureOf("process: rm_init", "us", init, Best::kLeast),
            figureOf("process: rm_exit", "us", end, Best::kLeast),
            figureOf("process: library resident", "KiB", resident, Best::kLeast),
            figureOf("process: of that its own", "KiB", own, Best::kLeast)};
}

std::vector<rmbench::Figure> rmbench::measureHost()
{
    const std::string host = builtFile("../examples/catalogue/catalogue");
    std::vector<Figure> figures;
    if (!std::filesystem::exists(host)) {
        std::printf("The example host is not built: its figures are left out.\n");
        return figures;
    }
    for (const char* workers : {"1", "2", "4"}) {
        std::vector<double> lookups;
        for (int i = 0; i < kHostRuns; ++i) {
            const std::string output = outputOf(quoted(host) + " --workers " + workers +
                                                " --operations " + kHostOperations);
            lookups.push_back(perSecond(output, "lookups"));
        }
        figures.push_back(figureOf(std::string("host: lookups a second, ") + workers +
                                       (*workers == '1' ? " worker" : " workers"),
                                   "1/s", lookups, Best::kMost));
    }
    return figures;
}
