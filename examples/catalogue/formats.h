// The formats that a run can read, from its modules.
#ifndef CATALOGUE_FORMATS_H
#define CATALOGUE_FORMATS_H

#include "modules/format.h"
#include "settings.h"

#include <cstdint>
#include <string_view>
#include <type_traits>

namespace catalogue
{

// The library's registry of modules has 16 slots at first, and what registers functions from its
// entry point is not found again in the last of them: of a 16th module one function would be
// registered in that slot and the next in another. So a run has no more than 15.
constexpr uint32_t kMostFormats = 15;
constexpr std::size_t kModuleNameRoom = 95;  // of a file without ".so"; more the library refuses

struct Format {
    const char* name;  // the module's own text, like what the next one returns
    FormatTextFunction* advice;
    FormatProbeFunction* probe;
    FormatBeginFunction* begin;
    FormatNextFunction* next;
    char module[kModuleNameRoom];  // its file, without ".so"
};

// Plain data: a module's entry point may end in a fatal error of the library.
struct Formats {
    uint32_t count;
    Format format[kMostFormats];
    char directory[kPathRoom];  // from which they come
    char refused[256];          // modules there that are not used, " a.so b.so"
};

static_assert(std::is_trivially_destructible_v<Formats>);

// Loads what stands in the directory of the modules. Says of each that cannot be used what is wrong
// with it, and goes on without it. False after having said why there is none at all, or not the one
// that the settings name.
bool loadFormats(const Settings& settings, Formats& formats);

// Null when there is none of the name.
const Format* findFormat(const Formats& formats, std::string_view name);

// The names of the formats, "csv, fields, ini", as far as there is room.
struct FormatNames {
    char text[200];
};

FormatNames formatNames(const Formats& formats);

}  // namespace catalogue

#endif
