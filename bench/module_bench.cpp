// Extension modules: loading one, finding a function in it and unloading it again, against the bare
// calls of the dynamic linker.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <dlfcn.h>

namespace
{
constexpr const char* kObject = "scales.so";
constexpr const char* kEntry = "SCALES_ModEntry";
constexpr const char* kFunction = "weighShipment";

using Entry = void (*)(const char*);

// The object's path, and the module's, which lacks the ".so".
struct Module {
    Module() : object(scratch.copyOfBuilt(kObject)), name(object.substr(0, object.rfind('.'))) {}

    rmbench::Scratch scratch;
    std::string object;
    std::string name;
};

void loadOurs(benchmark::State& state)
{
    const Module module;
    for (auto _ : state) {
        int16_t handle = RM_NONE;
        void* function = nullptr;
        rmbench::must(rm_emLoad(module.name.c_str(), &handle) == RM_SUCCESS, "rm_emLoad");
        rm_emGetFcnAddr(handle, kFunction, &function);
        benchmark::DoNotOptimize(function);
        rm_emUnload(handle);
    }
}

void loadBare(benchmark::State& state)
{
    const Module module;
    for (auto _ : state) {
        void* library = dlopen(module.object.c_str(), RTLD_NOW);
        rmbench::must(library != nullptr, "dlopen");
        reinterpret_cast<Entry>(dlsym(library, kEntry))(module.name.c_str());
        benchmark::DoNotOptimize(dlsym(library, kFunction));
        dlclose(library);
    }
}

void findOurs(benchmark::State& state)
{
    const Module module;
    int16_t handle = RM_NONE;
    rmbench::must(rm_emLoad(module.name.c_str(), &handle) == RM_SUCCESS, "rm_emLoad");
    for (auto _ : state) {
        void* function = nullptr;
        rm_emGetFcnAddr(handle, kFunction, &function);
        benchmark::DoNotOptimize(function);
    }
    rm_emUnload(handle);
}

void findBare(benchmark::State& state)
{
    const Module module;
    void* library = dlopen(module.object.c_str(), RTLD_NOW);
    rmbench::must(library != nullptr, "dlopen");
    for (auto _ : state) {
        benchmark::DoNotOptimize(dlsym(library, kFunction));
    }
    dlclose(library);
}
}  // namespace

void rmbench::addModulePairs()
{
    addPair("module: load, look up, unload", "dlopen, dlsym, dlclose", 1.1, loadOurs, loadBare);
    // What looking at the handle adds to a lookup.
    addPair("module: look up", "dlsym", kForTheRecord, findOurs, findBare);
}
