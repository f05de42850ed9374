// Modules of any names, loaded, registered, asked and unloaded in any order, against the model of
// the registry. The dynamic linker is the target's own: what stands behind a name follows from it.
//
// Input: operations. Each is a byte, then what it takes of
//   name    a byte that picks one of the names below, or, from 0xE0 on, a text and 0
//   handle  a byte, from 0xF0 on followed by two with the handle
#include "fuzz.h"
#include "tests/models/module_model.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/ems.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <numeric>
#include <utility>

#include <dlfcn.h>

// The calls of the dynamic linker, by the names that the library's file is compiled with.
extern "C" void* fuzzDlopen(const char* path, int mode);
extern "C" void* fuzzDlsym(void* object, const char* name);
extern "C" int fuzzDlclose(void* object);
extern "C" char* fuzzDlerror();

namespace
{
using rmfuzz::Input;
using rmfuzz::Text;
using rmtest::ModuleModel;
using Function = ModuleModel::Function;

enum Operation : uint8_t {
    kLoad,
    kRegister,
    kAsk,
    kUnload,
    kUnloadRefused,
    kInit,
    kForget,
    kCount
};

constexpr int kMostOperations = 400;
constexpr uint8_t kTextFollows = 0xE0;
constexpr uint8_t kHandleFollows = 0xF0;
constexpr const char* kExported = "exported";  // what every object has

// Names that meet again: bases of all kinds of object, in several directories.
const std::array<std::string, 32> kNames = {
    "a",       "b",      "c",        "d",     "e",      "f",        "g",          "h",
    "x/a",     "/x/y/b", "./c",      "d/d/d", "liba",   "x/libb",   "LIBc",       "x/Libd",
    "lib",     "x/lib",  "x/",       "",      "linked", "x/linked", "other",      "other/ief",
    "m/inner", "inner",  "libinner", "A",     "x.so",   "a%sb",     "x/\xE4\xF6", "ief"};
const std::array<std::string, 8> kFunctions = {"f0", "f1", "f11",    "ModInit", "iefDescribeFcns",
                                               "F0", "",   kExported};

char addresses[64];
const EmListEntry kEm[] = {{"linked", &addresses[0], &addresses[1], &addresses[2]}};
const IefListEntry kIef[] = {{"ief", &addresses[3]}};

// By its last part, so that paths with the same one have objects of the same kind.
ModuleModel::Object objectOf(const std::string& path)
{
    const std::string base = ModuleModel::baseOf(path);
    const int kind =
        std::accumulate(base.begin(), base.end(), 2,
                        [](int sum, char c) { return sum + static_cast<unsigned char>(c); }) %
        8;
    ModuleModel::Object object;
    object.opens = kind != 0;
    object.hasEntryPoint = kind != 1;
    const int count = kind == 4 ? 1 : kind == 5 ? 12 : 0;
    for (int i = 0; i < count; ++i) {
        object.registers.push_back({path, "f" + std::to_string(i), &addresses[8 + i]});
    }
    if (kind == 6) {
        object.registers.push_back({"some/other", "f0", &addresses[32]});
        object.registers.push_back({path, "f0", &addresses[33]});
    }
    if (kind == 7) {
        object.loads.emplace_back("m/inner");  // of kind 6: it ends there
    }
    return object;
}

// --- The dynamic linker

struct OpenObject {
    std::string name;  // its path without ".so"
    int times = 0;
};

std::vector<OpenObject*> opened;  // since the input began
std::vector<std::string> entered;
bool refusesToClose = false;
bool entryPointIsNext = false;  // of the object that was opened last

OpenObject* openObject(const std::string& name)
{
    const auto known = std::find_if(opened.begin(), opened.end(),
                                    [&](const OpenObject* each) { return each->name == name; });
    if (known != opened.end()) {
        return *known;
    }
    opened.push_back(new OpenObject{name});
    return opened.back();
}

std::string entryPointOf(const std::string& name)
{
    std::string symbol = ModuleModel::shortNameOf(name);
    std::transform(symbol.begin(), symbol.end(), symbol.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return symbol + "_ModEntry";
}

void enter(const char* name)
{
    entered.emplace_back(name);
    const ModuleModel::Object object = objectOf(name);
    for (const Function& function : object.registers) {
        FUZZ_CHECK(rm_emRegFcn(function.module.c_str(), function.name.c_str(), function.address) ==
                   RM_SUCCESS);
    }
    for (const std::string& other : object.loads) {
        int16_t handle = RM_NONE;
        FUZZ_CHECK(rm_emLoad(other.c_str(), &handle) == RM_SUCCESS);
    }
}
}  // namespace

void* fuzzDlopen(const char* path, int mode)
{
    FUZZ_CHECK(mode == RTLD_NOW);
    std::string name = path;
    FUZZ_CHECK(name.ends_with(".so"));
    name.resize(name.size() - 3);
    FUZZ_CHECK(ModuleModel::fits(name));
    if (!objectOf(name).opens) {
        return nullptr;
    }
    OpenObject* object = openObject(name);
    ++object->times;
    entryPointIsNext = true;
    return object;
}

void* fuzzDlsym(void* object, const char* name)
{
    const auto* from = static_cast<OpenObject*>(object);
    FUZZ_CHECK(from->times > 0);
    if (std::exchange(entryPointIsNext, false)) {
        FUZZ_CHECK(name == entryPointOf(from->name));
        return objectOf(from->name).hasEntryPoint ? reinterpret_cast<void*>(&enter) : nullptr;
    }
    return std::string_view(name) == kExported ? object : nullptr;
}

int fuzzDlclose(void* object)
{
    auto* from = static_cast<OpenObject*>(object);
    FUZZ_CHECK(from->times > 0);
    if (refusesToClose) {
        return 1;
    }
    --from->times;
    return 0;
}

char* fuzzDlerror()
{
    static char reason[] = "there is none";
    return reason;
}

void rm_getEmList(uint16_t* emCount, const EmListEntry** emList, uint16_t* iefCount,
                  const IefListEntry** iefList, uint16_t* udfCount, const UdfListEntry** udfList,
                  uint16_t* udpCount, const UdpListEntry** udpList)
{
    *emCount = std::size(kEm);
    *emList = kEm;
    *iefCount = std::size(kIef);
    *iefList = kIef;
    *udfCount = 0;
    *udfList = nullptr;
    *udpCount = 0;
    *udpList = nullptr;
}

namespace
{
const std::vector<ModuleModel::Linked> kLinked = {{"linked",
                                                   {{"ModInit", &addresses[0]},
                                                    {"ModCleanup", &addresses[1]},
                                                    {"ModDescribeFcns", &addresses[2]}}},
                                                  {"ief", {{"iefDescribeFcns", &addresses[3]}}}};

template <std::size_t kSize>
std::string nameFrom(Input& input, const std::array<std::string, kSize>& names)
{
    const uint8_t choice = input.byte();
    return choice >= kTextFollows ? input.text() : names[choice % kSize];
}

int16_t handleFrom(Input& input)
{
    const uint8_t choice = input.byte();
    return choice >= kHandleFollows ? input.int16() : int16_t{choice};
}

uint32_t blocksOfTag0()
{
    uint32_t blocks = 0;
    for (const rmalloc::Segment* s = rmalloc::tagTable[0].segments; s != nullptr; s = s->next) {
        blocks += s->blocks;
    }
    return blocks;
}

// Exactly what the log got since the last call, when no sign of a format stands in the way.
void checkLog(const std::vector<std::string>& lines, bool comparable)
{
    const std::string log = rmfuzz::takeLog();
    FUZZ_CHECK(log.empty() == lines.empty());
    if (!comparable) {
        return;
    }
    constexpr std::size_t kStamp = 22;  // "[dd-Mon-yy hh:mm:ss]  "
    std::size_t at = 0;
    for (const std::string& line : lines) {
        FUZZ_CHECK(log.compare(at + kStamp, line.size(), line) == 0);
        at += kStamp + line.size();
    }
    FUZZ_CHECK(at == log.size());
}

void load(Input& input, ModuleModel& model)
{
    const std::string path = nameFrom(input, kNames);
    const bool mayFail = ModuleModel::fits(path) && !objectOf(path).opens;
    const ModuleModel::Loaded expected = model.load(path);
    const Text text(path);
    int16_t handle = RM_NONE;
    FUZZ_CHECK(rm_emLoad(text.get(), &handle) == expected.status);
    FUZZ_CHECK(handle == (expected.status == RM_SUCCESS ? expected.handle : RM_NONE));
    FUZZ_CHECK(text.unchanged());
    FUZZ_CHECK(entered == model.takeEntered());
    entered.clear();
    if (expected.status != RM_SUCCESS && mayFail) {
        checkLog(
            {"Failed to load module '" + path + ".so'\n\n", "  REASON: errno = 0  there is none\n"},
            path.find('%') == std::string::npos);
    }
}

void registerFunction(Input& input, ModuleModel& model)
{
    Function function;
    function.module = nameFrom(input, kNames);
    function.name = nameFrom(input, kFunctions);
    function.address = &addresses[40 + input.byte() % 16];
    const Text module(function.module);
    const Text name(function.name);
    const int16_t expected = model.registerFunction(function);
    FUZZ_CHECK(rm_emRegFcn(module.get(), name.get(), function.address) == expected);
    FUZZ_CHECK(module.unchanged() && name.unchanged());
    if (expected != RM_SUCCESS) {
        const std::string line = "Can't register function '" + function.name +
                                 "' for unknown extension module '" + function.module + "'";
        constexpr std::size_t kMostOfALine = 259;
        checkLog({line.substr(0, kMostOfALine) + "\n"}, line.find('%') == std::string::npos);
    }
}

void ask(Input& input, const ModuleModel& model)
{
    const int16_t handle = handleFrom(input);
    const std::string name = nameFrom(input, kFunctions);
    const Text text(name);
    const ModuleModel::Answer expected = model.functionOf(handle, name);
    char untouched = 0;
    void* address = &untouched;
    const int16_t status = rm_emGetFcnAddr(handle, text.get(), &address);
    if (!expected.exported) {
        FUZZ_CHECK(status == expected.status);
        FUZZ_CHECK(address == (expected.foundNothing ? &untouched : expected.address));
        return;
    }
    FUZZ_CHECK(status == (name == kExported ? RM_SUCCESS : RM_NOT_FOUND));
    FUZZ_CHECK(address == (name == kExported ? static_cast<void*>(openObject(*model.pathOf(handle)))
                                             : nullptr));
}

void unload(Input& input, ModuleModel& model, bool closes)
{
    const int16_t handle = handleFrom(input);
    const int16_t expected = model.unload(handle, closes);
    refusesToClose = !closes;
    FUZZ_CHECK(rm_emUnload(handle) == expected);
    refusesToClose = false;
}

void runOperation(Input& input, ModuleModel& model)
{
    switch (input.byte() % kCount) {
        case kLoad:
            load(input, model);
            break;
        case kRegister:
            registerFunction(input, model);
            break;
        case kAsk:
            ask(input, model);
            break;
        case kUnload:
            unload(input, model, true);
            break;
        case kUnloadRefused:
            unload(input, model, false);
            break;
        case kInit:
            model.init();
            FUZZ_CHECK(rm_emInit() == RM_SUCCESS);
            break;
        default:
            model.forget();
            rm_freeTagMemory(0, 0);
            break;
    }
    checkLog({}, true);
}

void compare(const ModuleModel& model)
{
    FUZZ_CHECK((ems::EmBag != nullptr) == model.isMade());
    FUZZ_CHECK(blocksOfTag0() == model.blocks());
    if (ems::EmBag != nullptr) {
        FUZZ_CHECK(bags::checkBag(ems::EmBag) == 0);
        FUZZ_CHECK(ems::EmBag->slotCount == model.slotCount());
        FUZZ_CHECK(ems::EmBag->usedCount == model.usedCount());
    }
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    ModuleModel model(kLinked, objectOf);
    for (int i = 0; i < kMostOperations && !input.empty(); ++i) {
        runOperation(input, model);
        compare(model);
    }
    rm_freeTagMemory(0, 0);
    for (const OpenObject* object : opened) {
        delete object;
    }
    opened.clear();
}
