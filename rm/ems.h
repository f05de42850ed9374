// Extension modules, front page.
//
//   ems.cpp     the registry of the modules, and of the functions that they have registered
//   emlist.cpp  the modules that are linked into this build
#ifndef RM_EMS_H
#define RM_EMS_H

#include "rm/base.h"

#include <cstdint>

namespace ems
{

// A module. Its slot in the registry is its handle.
struct EmRec {
    const char* name;  // the key: the last part of its path; a linked-in module's own text
    void* osModule;    // from rm_OSemLoad; null for a module that was not loaded here
    Bag* fcnBag;       // of EmFcnRec; null until the module registers a function
};

// A function that a module has registered.
struct EmFcnRec {
    char* name;  // the key, a copy under tag 0
    void* addr;
};

extern Bag* EmBag;  // the registry; null until it is needed
extern const BagCtl EmBagCtl;
extern const BagCtl EmFcnBagCtl;

// The linked-in modules, which stand first in the registry, and the handle after the last one of
// each kind.
extern const EmListEntry* pEmList;
extern const IefListEntry* pIefList;
extern const UdfListEntry* pUdfList;
extern const UdpListEntry* pUdpList;
extern uint16_t endEmList;
extern uint16_t endIefList;
extern uint16_t endUdfList;
extern uint16_t endUdpList;

// The handle of the module of that name; RM_NOT_FOUND.
int16_t exmFind(const char* name, uint16_t* handle);

// A function that a linked-in module has by being one. RM_NOT_FOUND for other modules.
int16_t exmGetFcnAddr(uint16_t handle, const char* function, void** address);

// Forgets the registry without freeing it: its memory is about to go. What was loaded stays
// loaded.
void forgetModules();

}  // namespace ems

#endif
