// Command line of the catalogue.
#ifndef CATALOGUE_OPTIONS_H
#define CATALOGUE_OPTIONS_H

#include "settings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace catalogue
{

struct Options {
    std::vector<std::string> inputs;    // files to load; never empty after parseOptions
    std::string directory;              // where the run directory is made
    const char* given[kSettings] = {};  // settings as the command line has them, null for none
    const char* config = nullptr;       // the INI file; null for the default one
    bool printConfig = false;           // print the settings and end
    bool stay = false;                  // serve clients when the operations are done
    uint32_t killEvery = 0;             // test aid: milliseconds between two kills, 0 for none
    uint32_t killWorker = 0;            // test aid: worker that dies in mid-update, 0 for none
    uint32_t damageRecord = 0;          // test aid: record damaged before verification, 0 for none
};

enum class CommandLine {
    kRun,
    kHelp,   // the help text has been printed
    kWrong,  // what is wrong has been printed
};

CommandLine parseOptions(int argc, char** argv, Options& options);

}  // namespace catalogue

#endif
