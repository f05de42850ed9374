// The settings of a run: defaults, then corvane.ini, then the command line.
#ifndef CATALOGUE_PROFILE_H
#define CATALOGUE_PROFILE_H

#include "inicheck.h"
#include "settings.h"

#include <cstdint>

namespace catalogue
{

// The file, and what was found in it. Plain data.
struct Profile {
    bool isDefault;        // the library's default file, so rm_init reads it too
    bool found;            // there is one
    char path[kPathRoom];  // absolute: the current directory changes
    char name[kPathRoom];  // as messages call it
    char foreign[256];     // sections that are none of ours, "[a] [b]"
};

// Makes CATPATH name the directory of the default file, absolutely: the one that it names already,
// or else the current one. Call it before anything changes directory; it calls nothing of the
// library. False after having said why not.
bool settleHome();

// Decides which file it is: `given` by the command line, or the default one when null.
// False when `given` cannot be reached; `problems` says why.
bool findProfile(Profile& profile, const char* given, Problems& problems);

// Makes the settings: from the defaults, the file if there is one, and the texts that the command
// line gave, null for none, which are known to be good. Changes nothing and returns false when the
// file has faults.
bool readSettings(Profile& profile, const char* const (&given)[kSettings], Settings& settings,
                  Problems& problems);

// Where the log file is: a path that does not begin with "/" counts from CATPATH. False when it is
// too long.
bool findLogPath(const Settings& settings, char (&path)[kPathRoom]);

}  // namespace catalogue

#endif
