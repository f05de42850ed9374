// Extension modules: loaded, asked, unloaded and loaded again, by every worker for itself.
//
// Why: the registry of a process has to know what is loaded, whatever came and went before, and a
// function that it gives has to be the module's.
//
// Memory: a module that registers functions leaves a little of it behind with every unload, so a
// life has not many of these steps.
#include "soak.h"

#include "rm.h"

#include <algorithm>
#include <array>

namespace soak
{
namespace
{
constexpr uint32_t kModuleCount = 3;
constexpr const char* kModuleNames[kModuleCount] = {"libalpha", "libbeta", "libgamma"};

using Function = int (*)(int);

struct Module {
    bool loaded;
    int16_t handle;
};

std::array<Module, kModuleCount> modules;
uint32_t unloads = 0;
int16_t named = RM_NONE;  // a module without an object: functions of the worker's own

int twice(int value)
{
    return 2 * value;
}

// A call by a name of each kind. What it must give follows from the module.
void ask(uint32_t index)
{
    const int16_t handle = modules[index].handle;
    const int value = static_cast<int>(plan.below(1000));
    for (const char* const name : {"exported", "registered"}) {
        void* address = nullptr;
        const int16_t status = rm_emGetFcnAddr(handle, name, &address);
        SOAK_CHECK(status == RM_SUCCESS && address != nullptr, "%s of %s: %d", name,
                   kModuleNames[index], status);
        const int expected = value + static_cast<int>(index + 1) * (*name == 'e' ? 1000 : 100'000);
        const int got = reinterpret_cast<Function>(address)(value);
        SOAK_CHECK(got == expected, "%s of %s gives %d and not %d", name, kModuleNames[index], got,
                   expected);
    }
    void* address = nullptr;
    SOAK_CHECK(rm_emGetFcnAddr(handle, "no such function", &address) == RM_NOT_FOUND,
               "a function that %s has not", kModuleNames[index]);
}

void load(uint32_t index)
{
    const std::string path = std::string("./") + kModuleDirectory + "/" + kModuleNames[index];
    Module& module = modules[index];
    int16_t handle = RM_NONE;
    const int16_t status = rm_emLoad(path.c_str(), &handle);
    SOAK_CHECK(status == RM_SUCCESS && handle >= 0, "%s is not loaded: %d", path.c_str(), status);
    SOAK_CHECK(!module.loaded || module.handle == handle, "%s has the handles %d and %d",
               path.c_str(), module.handle, handle);
    module = {true, handle};
}

void unload(uint32_t index)
{
    Module& module = modules[index];
    SOAK_CHECK(rm_emUnload(module.handle) == RM_SUCCESS, "%s is not unloaded", kModuleNames[index]);
    module.loaded = false;
    ++unloads;
    void* address = nullptr;
    SOAK_CHECK(rm_emGetFcnAddr(module.handle, "exported", &address) == RM_UNKNOWN_MODULE,
               "%s is still there", kModuleNames[index]);
}

void start()
{
    modules = {};
    SOAK_CHECK(rm_emInit() == RM_SUCCESS, "no registry");
    SOAK_CHECK(rm_emRegFcn("soak", "twice", reinterpret_cast<void*>(twice)) == RM_SUCCESS,
               "a function is not registered");
    // A module that is known is not loaded: this gives the handle.
    SOAK_CHECK(rm_emLoad("soak", &named) == RM_SUCCESS, "a module without an object");
}

void step()
{
    const uint32_t index = plan.below(kModuleCount);
    if (!modules[index].loaded || plan.once(8)) {
        load(index);
    } else if (plan.once(4)) {
        unload(index);
        return;
    }
    ask(index);
    void* address = nullptr;
    SOAK_CHECK(rm_emGetFcnAddr(named, "twice", &address) == RM_SUCCESS &&
                   reinterpret_cast<Function>(address)(21) == 42,
               "a function of the worker's own");
}

void end()
{
    for (uint32_t i = 0; i < kModuleCount; ++i) {
        if (modules[i].loaded) {
            unload(i);
        }
    }
}
}  // namespace

uint32_t modulesUnloaded()
{
    return unloads;
}

const Family kModules = {"extension modules", 6, start, step, nullptr, end, false};

}  // namespace soak
