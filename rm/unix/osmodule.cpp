// Modules: shared objects that a server loads while it runs.
//
// Why: what a module is called, what its file is called and what its entry point is called follow
// from one another, and only this file knows how. The registry of the modules is above.
//
//   name          /usr/lib/db/libgeo
//   file          /usr/lib/db/libgeo.so
//   entry point   GEO_ModEntry     the last part of the name, without "lib", in capitals
//
// Owns: nothing. The record of a loaded module lies in tag 0 and belongs to who loaded it.
//
// Fatal: no memory; whatever the module's own entry point ends.
#include "rm/rmalloc/rmalloc.h"
#include "rm/unix/unix.h"

#include <cstring>

#include <dlfcn.h>

using namespace os;

namespace
{
constexpr std::size_t kPathSize = 100;    // bytes, terminator included
constexpr std::size_t kSymbolSize = 104;  // bytes, terminator included
constexpr const char* kExtension = ".so";
constexpr const char* kPrefix = "lib";
constexpr uint32_t kPrefixLength = 3;
constexpr const char* kEntrySuffix = "_ModEntry";

struct Names {
    char path[kPathSize];
    char symbol[kSymbolSize];  // of the entry point
};

// Where the name without its directory and without "lib" begins.
const char* baseOf(const char* name)
{
    const char* base = pathBaseExt(name);
    return strnicmp(base, kPrefix, kPrefixLength) == 0 ? base + kPrefixLength : base;
}

// False when a name does not fit. Half of one could be that of another module.
bool nameFiles(Names* names, const char* name)
{
    const char* base = baseOf(name);
    if (std::strlen(name) + std::strlen(kExtension) >= kPathSize ||
        std::strlen(base) + std::strlen(kEntrySuffix) >= kSymbolSize) {
        return false;
    }
    std::strcpy(names->path, name);
    std::strcat(names->path, kExtension);
    std::strcpy(names->symbol, base);
    StrUpper(names->symbol);
    std::strcat(names->symbol, kEntrySuffix);
    return true;
}

void logFailure(const char* path)
{
    const char* reason = dlerror();  // before anything else can change it
    rm_systemLogWrite("Failed to load module '%s'\n", path);
    // The linker gives a text and no number.
    rm_systemLogWrite("  REASON: errno = %d  %s", 0, reason == nullptr ? "" : reason);
}

// Null for no module, and for one that was unloaded.
void* libraryOf(void* module)
{
    return module == nullptr ? nullptr : static_cast<OsModule*>(module)->library;
}
}  // namespace

int16_t rm_OSemLoad(const char* name, void** module)
{
    Names names;
    if (!nameFiles(&names, name)) {
        return RM_NOT_FOUND;
    }
    auto* made = static_cast<OsModule*>(rm_cGetMemory(sizeof(OsModule), 0));
    const uint32_t before = rmalloc::tagZeroReleases;
    void* library = dlopen(names.path, RTLD_NOW);
    if (before != rmalloc::tagZeroReleases) {
        return RM_NOT_FOUND;  // the object's constructors have released tag 0, and the record with
                              // it
    }
    if (library == nullptr) {
        logFailure(names.path);
        rm_freeMemory(made, 0);
        return RM_NOT_FOUND;
    }
    made->library = library;
    made->entry = reinterpret_cast<ModuleEntry>(dlsym(library, names.symbol));
    if (made->entry == nullptr) {
        // Deliberate: the record stays behind. The figures of tag 0 are compared between releases.
        dlclose(library);
        return RM_NOT_FOUND;
    }
    made->entry(name);
    if (before != rmalloc::tagZeroReleases) {
        return RM_NOT_FOUND;  // likewise the entry point; the object stays loaded
    }
    *module = made;
    return RM_SUCCESS;
}

int16_t rm_OSemGetFcnAddr(void* module, const char* function, void** address)
{
    void* library = libraryOf(module);
    // A null library would be the whole process to the linker.
    *address = library == nullptr ? nullptr : dlsym(library, function);
    return *address != nullptr ? RM_SUCCESS : RM_NOT_FOUND;
}

int16_t rm_OSemUnload(void* module)
{
    void* library = libraryOf(module);
    if (library == nullptr) {
        return RM_FULL;
    }
    // Beforehand: the object's destructors may release the record with its tag.
    static_cast<OsModule*>(module)->library = nullptr;
    const uint32_t before = rmalloc::tagZeroReleases;
    if (dlclose(library) != 0) {
        if (before == rmalloc::tagZeroReleases) {
            static_cast<OsModule*>(module)->library = library;
        }
        return RM_FULL;
    }
    return RM_SUCCESS;
}
