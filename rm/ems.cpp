// Extension modules: one registry of what was linked into the server and what it has loaded.
//
// Why: the server asks modules for functions by name and does not care how a module got into the
// process. Modules are known by the last part of their path and addressed by small handles.
//
// Owns: the registry, a bag with a slot map: a handle is good until its module is unloaded. The
// linked-in modules come first, in the order of their lists, so that a handle tells their kind.
// Names of modules and functions are copies under tag 0, except those of the lists.
//
// Lifecycle: made by the first load, or by rm_emInit, and there until the process ends or tag 0
// goes. A load enters the module when its entry point has run, unless the entry point registers
// functions: then it is there already, and gets the handle of the object afterwards. There are no
// counts: a module is loaded once, and one unload unloads it.
//
// Fatal: no memory; whatever an entry point ends. A load whose entry point does not come back
// leaves the registry sound, with the functions that were registered until then.
#include "rm/ems.h"

#include "rm/bag.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstring>

using namespace ems;

namespace ems
{
Bag* EmBag = nullptr;
const BagCtl EmBagCtl = {
    BAG_SLOT_MAP | BAG_KEY_INDIRECT | BAG_KEY_STRING, 16, 16, 100, sizeof(EmRec), 0, 0, 0};
const BagCtl EmFcnBagCtl = {BAG_KEY_INDIRECT | BAG_KEY_STRING, 0, 3, 20, sizeof(EmFcnRec), 0, 0, 0};
const EmListEntry* pEmList = nullptr;
const IefListEntry* pIefList = nullptr;
const UdfListEntry* pUdfList = nullptr;
const UdpListEntry* pUdpList = nullptr;
uint16_t endEmList = 0;
uint16_t endIefList = 0;
uint16_t endUdfList = 0;
uint16_t endUdpList = 0;
}  // namespace ems

namespace
{
// Enters the modules of one list. `*end` moves on when the whole list is in; else the records added
// so far stay and belong to no list.
template <typename ListEntry>
int16_t addList(Bag* bag, const ListEntry* list, uint16_t count, uint16_t* end)
{
    if (list == nullptr) {
        return RM_SUCCESS;
    }
    for (uint16_t i = 0; i < count; ++i) {
        const EmRec record = {list[i].name, nullptr, nullptr};
        const int16_t status = bagAdd(bag, &record);
        if (status != RM_SUCCESS) {
            return status;
        }
    }
    *end = static_cast<uint16_t>(*end + count);
    return RM_SUCCESS;
}

struct Lists {
    uint16_t emCount;
    uint16_t iefCount;
    uint16_t udfCount;
    uint16_t udpCount;
};

// Each end is where its own list ends, or, when the bag was full, where an earlier one did.
int16_t addLists(Bag* bag, const Lists& counts)
{
    int16_t status = addList(bag, pEmList, counts.emCount, &endEmList);
    endIefList = endEmList;
    if (status == RM_SUCCESS) {
        status = addList(bag, pIefList, counts.iefCount, &endIefList);
    }
    endUdfList = endIefList;
    if (status == RM_SUCCESS) {
        status = addList(bag, pUdfList, counts.udfCount, &endUdfList);
    }
    endUdpList = endUdfList;
    if (status == RM_SUCCESS) {
        status = addList(bag, pUdpList, counts.udpCount, &endUdpList);
    }
    return status;
}

// Makes the module at `handle` the current one of the registry and gives its record. Null when
// there is none.
EmRec* recordAt(int16_t handle)
{
    return EmBag == nullptr ? nullptr
                            : static_cast<EmRec*>(bags::goTo(EmBag, static_cast<uint16_t>(handle)));
}

// A name as the registry knows it: a copy of the last part of the path.
char* nameFrom(const char* path)
{
    return rm_Strdup(pathBaseExt(path), 0);
}

bool isNamed(const char* function, const char* name)
{
    return std::strcmp(function, name) == 0;
}

// The module of that name that can have an object: not one that is linked in, which a lookup may
// have missed before the module was loaded. RM_NOT_FOUND. A registry that has lost its map gives
// slots without a module too.
int16_t findLoadable(const char* name, uint16_t* handle, EmRec** module)
{
    EmBag->curSlot = static_cast<uint16_t>(endUdpList - 1);  // with no linked-in ones: nowhere
    while (*name != '\0' && bagNext(EmBag) == RM_SUCCESS) {
        void* found = nullptr;
        bagGetCurPtr(EmBag, &found);
        *module = static_cast<EmRec*>(found);
        if ((*module)->name != nullptr && isNamed((*module)->name, name)) {
            return bagGetCurHandle(EmBag, handle);
        }
    }
    return RM_NOT_FOUND;
}

// Enters a module that was just loaded, or gives the object to the one that entered itself.
int16_t enterLoaded(const char* name, void* osModule, int16_t* handle)
{
    uint16_t slot = 0;
    EmRec* known = nullptr;
    if (findLoadable(name, &slot, &known) == RM_SUCCESS) {
        // Deliberate: the copy of the name stays behind. The figures of tag 0 are compared between
        // releases.
        known->osModule = osModule;
        *handle = static_cast<int16_t>(slot);
        return RM_SUCCESS;
    }
    const EmRec record = {name, osModule, nullptr};
    const int16_t status = bagAdd(EmBag, &record);
    if (status == RM_SUCCESS) {
        bagGetCurHandle(EmBag, &slot);
        *handle = static_cast<int16_t>(slot);
    }
    return status;
}

// Deliberate: the bag itself stays behind, as the names of loaded modules may.
void freeFunctionNames(Bag* functions)
{
    if (functions == nullptr) {
        return;
    }
    for (int16_t status = bagFirst(functions); status == RM_SUCCESS; status = bagNext(functions)) {
        void* function = nullptr;
        bagGetCurPtr(functions, &function);
        rm_freeMemory(static_cast<EmFcnRec*>(function)->name, 0);
    }
}

int16_t addFunction(EmRec* module, const char* function, void* address)
{
    if (module->fcnBag == nullptr) {
        const int16_t status = bagCreate(&EmFcnBagCtl, &module->fcnBag);
        if (status != RM_SUCCESS) {
            return status;
        }
    }
    const EmFcnRec record = {rm_Strdup(function, EmBagCtl.tag), address};
    const int16_t status = bagAdd(module->fcnBag, &record);
    if (status != RM_SUCCESS) {
        rm_freeMemory(record.name, EmBagCtl.tag);
    }
    return status;
}
}  // namespace

int16_t ems::exmFind(const char* name, uint16_t* handle)
{
    return bagFind(EmBag, name, handle, nullptr);
}

int16_t ems::exmGetFcnAddr(uint16_t handle, const char* function, void** address)
{
    // Deliberate: a linked-in module has the names below and answers every other one with success
    // and an untouched address. Its callers ask for nothing else.
    if (handle < endEmList) {
        const EmListEntry& entry = pEmList[handle];
        if (isNamed(function, "ModInit")) {
            *address = entry.init;
        } else if (isNamed(function, "ModCleanup")) {
            *address = entry.cleanup;
        } else if (isNamed(function, "ModDescribeFcns")) {
            *address = entry.describe;
        }
        return RM_SUCCESS;
    }
    if (handle < endIefList) {
        if (isNamed(function, "iefDescribeFcns")) {
            *address = pIefList[handle - endEmList].describe;
        }
        return RM_SUCCESS;
    }
    if (handle < endUdfList) {
        if (isNamed(function, "udfDescribeFcns")) {
            *address = pUdfList[handle - endIefList].describe;
        }
        return RM_SUCCESS;
    }
    if (handle < endUdpList) {
        if (isNamed(function, "udpDescribeFcns")) {
            *address = pUdpList[handle - endUdfList].describe;
        }
        return RM_SUCCESS;
    }
    return RM_NOT_FOUND;
}

void ems::forgetModules()
{
    EmBag = nullptr;
    endEmList = 0;
    endIefList = 0;
    endUdfList = 0;
    endUdpList = 0;
}

namespace
{
// What needs no dynamic linker: a linked-in module's own names, and registered functions.
[[gnu::noinline]] bool findKnown(const EmRec& module, uint16_t handle, const char* function,
                                 void** address)
{
    if (module.osModule == nullptr && exmGetFcnAddr(handle, function, address) == RM_SUCCESS) {
        return true;
    }
    void* registered = nullptr;
    if (module.fcnBag == nullptr ||
        bagFind(module.fcnBag, function, nullptr, &registered) != RM_SUCCESS) {
        return false;
    }
    *address = static_cast<EmFcnRec*>(registered)->addr;
    return true;
}
}  // namespace

int16_t rm_emInit()
{
    if (EmBag != nullptr) {
        return RM_SUCCESS;  // what is registered and loaded stays
    }
    Bag* bag = nullptr;
    int16_t status = bagCreate(&EmBagCtl, &bag);
    if (status != RM_SUCCESS) {
        return status;
    }
    Lists counts = {};
    rm_getEmList(&counts.emCount, &pEmList, &counts.iefCount, &pIefList, &counts.udfCount,
                 &pUdfList, &counts.udpCount, &pUdpList);
    endEmList = 0;
    status = addLists(bag, counts);
    EmBag = bag;
    return status;
}

int16_t rm_emLoad(const char* path, int16_t* handle)
{
    if (EmBag == nullptr) {
        const int16_t status = rm_emInit();
        if (status != RM_SUCCESS) {
            return status;
        }
    }
    char* name = nameFrom(path);
    uint16_t slot = 0;
    // Deliberate: asked twice. The second lookup changes nothing.
    if (exmFind(name, &slot) == RM_SUCCESS || bagFind(EmBag, name, &slot, nullptr) == RM_SUCCESS) {
        rm_freeMemory(name, 0);
        *handle = static_cast<int16_t>(slot);
        return RM_SUCCESS;
    }
    void* osModule = nullptr;
    const uint32_t before = rmalloc::tagZeroReleases;
    const int16_t status = rm_OSemLoad(path, &osModule);
    if (before != rmalloc::tagZeroReleases) {
        return RM_NOT_FOUND;  // the module has released tag 0, and all of this with it
    }
    if (status != RM_SUCCESS) {
        rm_freeMemory(name, 0);
        rm_zFreeMemory(&osModule, 0);
        return status;
    }
    return enterLoaded(name, osModule, handle);
}

int16_t rm_emGetFcnAddr(int16_t handle, const char* function, void** address)
{
    const EmRec* module = recordAt(handle);
    if (module == nullptr) {
        return RM_UNKNOWN_MODULE;
    }
    const bool onlyExports = module->osModule != nullptr && module->fcnBag == nullptr;
    if (!onlyExports && findKnown(*module, static_cast<uint16_t>(handle), function, address)) {
        return RM_SUCCESS;
    }
    return rm_OSemGetFcnAddr(module->osModule, function, address) == RM_SUCCESS ? RM_SUCCESS
                                                                                : RM_NOT_FOUND;
}

int16_t rm_emUnload(int16_t handle)
{
    const EmRec* module = recordAt(handle);
    if (module == nullptr) {
        return RM_UNKNOWN_MODULE;
    }
    if (module->osModule == nullptr) {
        return RM_SUCCESS;  // linked in, or known by its functions only
    }
    const uint32_t before = rmalloc::tagZeroReleases;
    const int16_t status = rm_OSemUnload(module->osModule);
    if (status != RM_SUCCESS) {
        return status == RM_FULL ? int16_t{RM_SUCCESS} : status;
    }
    // Looked up again: what the module did when it was closed may have moved the registry.
    module = before == rmalloc::tagZeroReleases ? recordAt(handle) : nullptr;
    if (module != nullptr) {
        const EmRec gone = *module;
        bagDelete(EmBag);
        freeFunctionNames(gone.fcnBag);
        rm_freeMemory(const_cast<char*>(gone.name), 0);
        rm_freeMemory(gone.osModule, 0);
    }
    return RM_SUCCESS;
}

int16_t rm_emRegFcn(const char* module, const char* function, void* address)
{
    char* name = nameFrom(module);
    void* found = nullptr;
    int16_t status = EmBag == nullptr ? int16_t{RM_INVALID} : bagFind(EmBag, name, nullptr, &found);
    if (status == RM_NOT_FOUND) {
        const EmRec record = {name, nullptr, nullptr};
        status = bagAdd(EmBag, &record);
        if (status != RM_SUCCESS) {
            rm_freeMemory(name, 0);
            return status;
        }
        bagGetCurPtr(EmBag, &found);
    } else {
        rm_freeMemory(name, 0);
    }
    if (status != RM_SUCCESS) {
        rm_systemLogWrite("Can't register function '%s' for unknown extension module '%s'",
                          function, module);
        return RM_NOT_FOUND;
    }
    return addFunction(static_cast<EmRec*>(found), function, address);
}
