// Modules and containers.
#include "scenario.h"

#include "rm/bag.h"
#include "rm/darray.h"
#include "rm/ffbag.h"

#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace fault
{

namespace
{

// The object stands in the directory of the build; its name there is not the module's.
void install(const char* kind, const char* name)
{
    char path[512];
    std::snprintf(path, sizeof(path), "%s/%s.so", RM_FAULT_MODULES, kind);
    expect(symlink(path, name) == 0, "without-fault", "%s cannot be installed", name);
}

void loadObject()
{
    install("plain", "libgeo.so");
    void* module = nullptr;
    expect(RM(rm_OSemLoad)("./missing", &module) == RM_NOT_FOUND && module == nullptr, "effect",
           "what is not there was loaded");
    if (RM_STATUS(rm_OSemLoad, ("./libgeo", &module), 0, RM_NOT_FOUND) != 0) {
        expect(module == nullptr, "effect", "a module that was not loaded");
        return;
    }
    void* address = nullptr;
    if (RM_STATUS(rm_OSemGetFcnAddr, (module, "exportedSum", &address), 0, RM_NOT_FOUND) == 0) {
        const auto sum = reinterpret_cast<int (*)(int, int)>(address);
        expect(sum(2, 3) == 5, "effect", "another function was found");
    }
    static_cast<void>(RM_STATUS(rm_OSemUnload, (module), 0, RM_FULL));
    RM(rm_freeMemory)(module, 0);
}

int own = 0;

void useRegistry()
{
    install("plain", "abc.so");
    install("registers", "reg3.so");
    static_cast<void>(RM_STATUS(rm_emInit, (), 0, RM_OUT_OF_MEMORY));
    uint16_t counts[4] = {1, 1, 1, 1};
    const EmListEntry* modules = nullptr;
    const IefListEntry* iefs = nullptr;
    const UdfListEntry* udfs = nullptr;
    const UdpListEntry* udps = nullptr;
    RM(rm_getEmList)(&counts[0], &modules, &counts[1], &iefs, &counts[2], &udfs, &counts[3], &udps);
    expect(counts[0] == 0 && counts[3] == 0, "effect", "modules that nobody linked in");
    int16_t plain = -1;
    if (RM_STATUS(rm_emLoad, ("./abc", &plain), 0, RM_NOT_FOUND) == 0) {
        int16_t again = -1;
        expect(RM(rm_emLoad)("./abc", &again) == 0 && again == plain, "effect", "loaded twice");
    }
    int16_t registering = -1;
    if (RM_STATUS(rm_emLoad, ("./reg3", &registering), 0, RM_NOT_FOUND) == 0) {
        void* address = nullptr;
        static_cast<void>(RM_STATUS(rm_emGetFcnAddr, (registering, "f2", &address), 0));
        expect(address != nullptr, "effect", "a registered function is nowhere");
    }
    void* address = nullptr;
    if (plain >= 0) {
        static_cast<void>(
            RM_STATUS(rm_emGetFcnAddr, (plain, "exportedSum", &address), 0, RM_NOT_FOUND));
    }
    static_cast<void>(RM_STATUS(rm_emRegFcn, ("mine", "function", &own), 0));
    if (plain >= 0) {
        static_cast<void>(RM_STATUS(rm_emUnload, (plain), 0));
    }
    if (registering >= 0) {
        static_cast<void>(RM_STATUS(rm_emUnload, (registering), 0));
    }
}

// --- Containers

struct Element {
    char key[12];
    int32_t value;
};

void checkBag(const Bag* bag)
{
    pauseFaults();
    expect(bags::checkBag(bag) == 0, "tables", "the bag is not sound");
    resumeFaults();
}

void useBag()
{
    static const BagCtl control = {
        BAG_SLOT_MAP | BAG_KEY_STRING, 4, 4, 0, sizeof(Element), 0, 0, 0};
    Bag* bag = nullptr;
    static_cast<void>(RM_STATUS(bagCreate, (&control, &bag), 0));
    for (int32_t i = 0; i < 1500; ++i) {
        Element element = {"", i};
        std::snprintf(element.key, sizeof(element.key), "key%d", i);
        static_cast<void>(RM_STATUS(bagAdd, (bag, &element), 0, RM_OUT_OF_MEMORY));
    }
    checkBag(bag);
    uint16_t handle = 0;
    void* found = nullptr;
    static_cast<void>(RM_STATUS(bagFind, (bag, "key700", &handle, &found), 0));
    expect(static_cast<Element*>(found)->value == 700, "effect", "another element was found");
    static_cast<void>(RM_STATUS(bagSetCurHandle, (bag, handle), 0));
    static_cast<void>(RM_STATUS(bagGetCurHandle, (bag, &handle), 0));
    Element copy = {};
    static_cast<void>(RM_STATUS(bagGetCurData, (bag, &copy), 0));
    static_cast<void>(RM_STATUS(bagGetCurPtr, (bag, &found), 0));
    expect(copy.value == 700, "effect", "another element is the current one");
    static_cast<void>(RM_STATUS(bagDelete, (bag), 0));
    static_cast<void>(RM_STATUS(bagFirst, (bag), 0));
    static_cast<void>(RM_STATUS(bagNext, (bag), 0));
    static_cast<void>(RM_STATUS(bagLast, (bag), 0));
    static_cast<void>(RM_STATUS(bagPrev, (bag), 0));
    checkBag(bag);
    static_cast<void>(RM_STATUS(bagDestroy, (bag), 0));
}

void useFfBag()
{
    void* bag = nullptr;
    void* area = nullptr;
    static_cast<void>(RM_STATUS(ffBagCreate, (3, sizeof(int32_t), &bag, &area), 0));
    for (int32_t i = 1; i <= 3; ++i) {
        static_cast<void>(RM_STATUS(ffBagPush, (bag, &i), 0));
    }
    const int32_t more = 4;
    expect(RM(ffBagPush)(bag, &more) == RM_FULL, "effect", "a full bag takes another");
    int32_t first = 0;
    static_cast<void>(RM_STATUS(ffBagPop, (bag, &first), 0));
    expect(first == 1, "effect", "the first is %d", first);
    pauseFaults();
    expect(ffbag::checkFfBag(bag) == 0, "tables", "the FF bag is not sound");
    resumeFaults();
}

void useArray()
{
    DArray* array = RM_POINTER(darrayCreate, (100, 20, 600));
    for (int i = 0; i < 60; ++i) {
        void* data = nullptr;
        expect(RM_HANDLE(darrayCreateEntry, (array, "entry", &data)) == i, "effect",
               "another index than %d", i);
        std::memset(data, i + 1, 600);
    }
    pauseFaults();
    expect(darrays::checkDArray(array) == 0, "tables", "the array is not sound");
    resumeFaults();
    void* data = nullptr;
    expect(RM_HANDLE(darrayFindEntry, (array, "entry", &data)) == 0, "effect", "not the first");
    const char key[] = {5, 5};
    expect(RM_HANDLE(darrayGetEntryFromData, (array, key, 10, 2, 0, &data)) == 4, "effect",
           "another entry was found");
    RM(darrayDeleteEntry)(array, 0);
    expect(RM_HANDLE(darrayGetFirstUsedEntry, (array)) == 1, "effect", "not the second");
    expect(*static_cast<char*>(RM_POINTER(darrayGetEntryPtr, (array, 1))) == 2, "unharmed",
           "the entry's bytes have changed");
    expect(std::strcmp(RM_POINTER(darrayGetEntryName, (array, 1)), "entry") == 0, "effect",
           "the entry's name is another");
    RM(darrayDestroy)(array);
}

constexpr Scenario kModules[] = {
    {"object", loadObject, nullptr, Hosts::kSome, false},
    {"registry", useRegistry, nullptr, Hosts::kFew, false},
};

constexpr Scenario kContainers[] = {
    {"bag", useBag, nullptr, Hosts::kFew, false},
    {"ff-bag", useFfBag, nullptr, Hosts::kSome, false},
    {"array", useArray, nullptr, Hosts::kSome, false},
};

}  // namespace

std::span<const Scenario> moduleScenarios()
{
    return kModules;
}

std::span<const Scenario> containerScenarios()
{
    return kContainers;
}

}  // namespace fault
