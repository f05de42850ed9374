// The formats that a run can read, from its modules.
//
// Why: what a file of records looks like is nobody's business but its module's. A format is added
// by putting a shared object into a directory; modules/format.h says what it has to have.
//
// Owns: nothing. Modules stay loaded as long as the process lives, and so do their texts.
//
// How a module is named: by its file alone. The library takes at most 96 bytes of path, which a
// directory of the user may well have; so this host changes to the directory while it loads.
//
// When: before the run directory is made and before rm_init. A module that is no good then leaves
// nothing behind. The registry is in tagged memory like any other and needs no lock.
//
// Fatal: no memory; and whatever an entry point does. Plain data only.
#include "formats.h"

#include "console.h"

#include "rm.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr uint32_t kMostFiles = 64;
constexpr std::size_t kMostName = 31;  // bytes of a format's
constexpr std::string_view kExtension = ".so";
constexpr const char* kBesideProgram = "/modules";

// The files of a directory that are to be modules, by their names without ".so".
struct Files {
    uint32_t count;
    char name[kMostFiles][kModuleNameRoom];
};

bool noDirectory(const char* path, int error)
{
    complain(
        "the directory of the format modules, %s: %s\n"
        "Name the one that holds them with --modules, or in corvane.ini: [formats] Modules.",
        path, std::strerror(error));
    return false;
}

// Where the modules are: as the settings say, else beside the program.
bool findDirectory(const Settings& settings, char (&path)[kPathRoom])
{
    if (settings.modules[0] != '\0') {
        const bool absolute = settings.modules[0] == '/';
        return makePath(path, kPathRoom, absolute ? "" : ".", settings.modules, nullptr) ==
                   RM_SUCCESS ||
               noDirectory(settings.modules, ENAMETOOLONG);
    }
    // What fills the room may have been cut.
    const ssize_t length = readlink("/proc/self/exe", path, kPathRoom);
    if (length < 0 || length == ssize_t{kPathRoom}) {
        return noDirectory("beside the program", length < 0 ? errno : ENAMETOOLONG);
    }
    std::string_view program(path, static_cast<std::size_t>(length));
    program.remove_suffix(program.size() - std::min(program.rfind('/'), program.size()));
    if (program.size() + std::strlen(kBesideProgram) >= kPathRoom) {
        return noDirectory("beside the program", ENAMETOOLONG);
    }
    std::strcpy(path + program.size(), kBesideProgram);
    return true;
}

void refuseFile(Formats& formats, const char* file)
{
    const std::size_t length = std::strlen(formats.refused);
    std::snprintf(formats.refused + length, sizeof(formats.refused) - length, " %s", file);
}

int isModule(const dirent* entry)
{
    const std::string_view name = entry->d_name;
    return !name.starts_with('.') && name.ends_with(kExtension) ? 1 : 0;
}

int byName(const dirent** a, const dirent** b)
{
    return std::strcmp((*a)->d_name, (*b)->d_name);
}

// Enters a file by its name without ".so", while there is room for it.
void takeFile(Formats& formats, Files& files, const char* file)
{
    std::string_view name = file;
    name.remove_suffix(kExtension.size());
    if (name.size() < kModuleNameRoom && files.count < kMostFiles) {
        name.copy(files.name[files.count++], name.size());
        return;
    }
    complain("the module %s in %s is not used: %s.", file, formats.directory,
             files.count == kMostFiles ? "there are more than 64 files"
                                       : "its name is longer than 97 bytes");
    refuseFile(formats, file);
}

// Finds the files, in the order of their names: of too many the first ones are used, whatever the
// order in which the directory has them. The list is freed before anything of the library is
// called.
bool listFiles(Formats& formats, Files& files)
{
    dirent** list = nullptr;
    const int found = scandir(formats.directory, &list, isModule, byName);
    if (found < 0) {
        return noDirectory(formats.directory, errno);
    }
    for (int i = 0; i < found; ++i) {
        takeFile(formats, files, list[i]->d_name);
        std::free(list[i]);
    }
    std::free(list);
    return true;
}

// The entry point that the library calls in a module.
void entryPointOf(const char* file, char (&entry)[kModuleNameRoom + sizeof("_ModEntry")])
{
    const bool prefixed = strnicmp(file, "lib", 3) == 0;
    std::snprintf(entry, sizeof(entry), "%s", file + (prefixed ? 3 : 0));
    StrUpper(entry);
    std::strcat(entry, "_ModEntry");
}

// A function of a module. False, with its name noted, when it has none.
template <class Function>
bool take(int16_t handle, const char* name, Function*& function, const char*& missing)
{
    void* address = nullptr;
    if (missing == nullptr &&
        (rm_emGetFcnAddr(handle, name, &address) != RM_SUCCESS || address == nullptr)) {
        missing = name;
    }
    function = reinterpret_cast<Function*>(address);
    return missing == nullptr;
}

bool isName(std::string_view name)
{
    return !name.empty() && name.size() <= kMostName &&
           std::ranges::all_of(name, [](char c) { return c > ' ' && c <= '~'; });
}

// Enters what a loaded module has. False, with the reason, when it is no format of this host.
bool takeFormat(Formats& formats, const char* file, int16_t handle, char (&reason)[200])
{
    Format format = {};
    const char* missing = nullptr;
    FormatVersionFunction* version = nullptr;
    FormatTextFunction* name = nullptr;
    // The version first: another one may have other functions.
    if (take(handle, "formatVersion", version, missing) && version() != FORMAT_VERSION) {
        std::snprintf(reason, sizeof(reason), "it is made for version %u of format.h, not for %u",
                      version(), FORMAT_VERSION);
        return false;
    }
    take(handle, "formatName", name, missing);
    take(handle, "formatAdvice", format.advice, missing);
    take(handle, "formatProbe", format.probe, missing);
    take(handle, "formatBegin", format.begin, missing);
    take(handle, "formatNext", format.next, missing);
    if (missing != nullptr) {
        std::snprintf(reason, sizeof(reason), "it lacks the function %s", missing);
        return false;
    }
    format.name = name();
    if (format.name == nullptr || !isName(format.name)) {
        std::snprintf(reason, sizeof(reason),
                      "its format has no name of 1 to 31 characters without a blank");
        return false;
    }
    if (const Format* other = findFormat(formats, format.name)) {
        std::snprintf(reason, sizeof(reason), "%s.so has a format %s already", other->module,
                      other->name);
        return false;
    }
    StrncpyZ(format.module, file, sizeof(format.module));
    formats.format[formats.count++] = format;
    return true;
}

void loadFile(const char* file, Formats& formats)
{
    char reason[200] = "";
    char path[sizeof("./") + kModuleNameRoom];
    std::snprintf(path, sizeof(path), "./%s", file);
    int16_t handle = RM_NONE;
    if (formats.count == kMostFormats) {
        std::snprintf(reason, sizeof(reason), "there are %u others", kMostFormats);
    } else if (rm_emLoad(path, &handle) != RM_SUCCESS) {
        // The library's status does not tell these apart. Of an object that cannot be loaded its
        // log lines have said why.
        char entry[kModuleNameRoom + sizeof("_ModEntry")];
        entryPointOf(file, entry);
        std::snprintf(reason, sizeof(reason),
                      "it cannot be loaded, or has no function %s to begin with", entry);
    } else if (takeFormat(formats, file, handle, reason)) {
        return;
    } else {
        rm_emUnload(handle);
    }
    complain("the module %s.so in %s is not used: %s.", file, formats.directory, reason);
    char name[kModuleNameRoom + kExtension.size()];
    std::snprintf(name, sizeof(name), "%s.so", file);
    refuseFile(formats, name);
}
}  // namespace

bool loadFormats(const Settings& settings, Formats& formats)
{
    static Files files;  // static for its size
    files = {};
    formats = {};
    if (!findDirectory(settings, formats.directory) || !listFiles(formats, files)) {
        return false;
    }
    const int back = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (back < 0) {
        complain("cannot open the directory of the start, to come back to it: %s",
                 std::strerror(errno));
        return false;
    }
    if (chdir(formats.directory) != 0) {
        const int error = errno;
        close(back);
        return noDirectory(formats.directory, error);
    }
    for (uint32_t i = 0; i < files.count; ++i) {
        loadFile(files.name[i], formats);
    }
    const bool returned = fchdir(back) == 0;
    close(back);
    if (!returned) {
        complain("cannot return from %s: %s", formats.directory, std::strerror(errno));
        return false;
    }
    if (formats.count == 0) {
        complain(
            "there is no format module that can be used in %s.\n"
            "Name the directory that holds them with --modules, or in corvane.ini: [formats] "
            "Modules.",
            formats.directory);
        return false;
    }
    if (settings.format[0] != '\0' && findFormat(formats, settings.format) == nullptr) {
        complain("there is no format \"%s\"; the modules in %s have: %s", settings.format,
                 formats.directory, formatNames(formats).text);
        return false;
    }
    return true;
}

const Format* findFormat(const Formats& formats, std::string_view name)
{
    const Format* const end = formats.format + formats.count;
    const Format* const found = std::find_if(
        formats.format, end, [name](const Format& format) { return name == format.name; });
    return found == end ? nullptr : found;
}

FormatNames formatNames(const Formats& formats)
{
    FormatNames names = {};
    std::size_t length = 0;
    for (uint32_t i = 0; i < formats.count && length < sizeof(names.text); ++i) {
        length += static_cast<std::size_t>(
            std::snprintf(names.text + length, sizeof(names.text) - length, "%s%s",
                          i == 0 ? "" : ", ", formats.format[i].name));
    }
    return names;
}

}  // namespace catalogue
