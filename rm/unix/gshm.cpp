// Global shared memory: segments that several processes of a server attach.
//
// Why: processes that were not forked from one another share nothing by themselves. A System V
// segment is found by a key, and every slot of this table has a fixed one, made from the token file
// and the slot's number. So it is the order of creation that decides who meets: processes which
// create their objects in the same order, under one prefix, find the same segments. The names only
// mark slots as used.
//
//   slot 0    key of (token file, 1)     the first object of every process
//   slot 1    key of (token file, 2)     the second one
//
// Owns: the table and its token file.
//
// Invariant: a named slot was created; `nGshm` counts those whose segment is attached, so while
// none has failed both are the same, and the token file is open. checkGshm() tests it.
//
// Lifecycle: the keys are made with the first object, the token file goes with the last one. A
// deleted segment is removed by the system when the last process has let go of it, and a process
// lets go of it when it ends: nothing is detached here, so an address stays good.
//
// Fatal: every system call that fails, a 21st object, a count below 0.
#include "rm/unix/unix.h"

#include <algorithm>
#include <cerrno>

#include <sys/ipc.h>
#include <sys/shm.h>

namespace os
{
std::array<GshmSlot, kGshmSlots> rmGshm = {};
int16_t nGshm = 0;
FILE* gfpRMGshmTokenFile = nullptr;
char gshmTokenPath[kTokenPathSize] = "";
}  // namespace os

using namespace os;

namespace
{
constexpr const char* kTokenFile = ".ZNT.RM.MEM";
constexpr int kCreateForEverybody = 1023;  // create when absent, mode 0777

bool isUsed(int16_t handle)
{
    return handle >= 0 && handle < kGshmSlots &&
           rmGshm[static_cast<std::size_t>(handle)].name != nullptr;
}

bool anySlotUsed()
{
    return std::any_of(rmGshm.begin(), rmGshm.end(),
                       [](const GshmSlot& slot) { return slot.name != nullptr; });
}

// Makes the token file and from it the keys.
void makeKeys()
{
    if (!renewToken(&gfpRMGshmTokenFile, gshmTokenPath, kTokenFile)) {
        internalErrorExit("rm_gshmCreate", "fopen() failure", errno);
    }
    int project = 0;
    for (GshmSlot& slot : rmGshm) {
        slot.key = ftok(gshmTokenPath, ++project);
        if (slot.key == -1) {
            internalErrorExit("rm_gshmCreate", "ftok() failure", errno);
        }
    }
}

// Begins again when nothing counts: slots of creations that failed are given up, and with the first
// object come the keys. What is attached stays, also when failures have brought the count to 0.
void beginTable()
{
    nGshm = 0;
    for (GshmSlot& slot : rmGshm) {
        if (slot.name != nullptr && slot.address != nullptr) {
            ++nGshm;
        } else if (slot.name != nullptr) {
            rm_zFreeMemory(&slot.name, 0);
        }
    }
    if (nGshm == 0) {
        makeKeys();
    }
}

// Takes the object out of its slot and marks its segment for removal. 0, or the errno with which
// that failed: then the object counts as before.
int removeObject(GshmSlot* slot)
{
    rm_zFreeMemory(&slot->name, 0);
    const int32_t id = slot->id;  // -1 after a creation that failed: the system is not asked
    slot->id = RM_NONE;
    slot->address = nullptr;
    if (id != RM_NONE && shmctl(id, IPC_RMID, nullptr) == -1) {
        return errno;
    }
    --nGshm;
    return 0;
}

// What follows the removal of objects. The token file goes with the last one that is named, and not
// before: a count that failures have brought to 0 says nothing about it.
void endRemoval(int error)
{
    if (!anySlotUsed()) {
        dropToken(&gfpRMGshmTokenFile, gshmTokenPath);
    }
    if (error != 0) {
        internalErrorExit("rm_gshmDelete", "shmctl() failure", error);
    }
    if (nGshm < 0) {
        internalErrorExit("rm_gshmDelete", "Deleted too many global shared memory objects", 0);
    }
}
}  // namespace

int16_t rm_gshmCreate(const char* name, uint32_t size, void** address)
{
    if (nGshm <= 0 || !anySlotUsed()) {
        beginTable();
    }
    int16_t handle = 0;
    while (isUsed(handle)) {
        ++handle;
    }
    if (handle == kGshmSlots) {
        internalErrorExit("rm_gshmCreate", "Out of Shared Memory Objects!", errno);
    }
    GshmSlot* slot = &rmGshm[static_cast<std::size_t>(handle)];
    slot->id = RM_NONE;
    slot->address = nullptr;
    slot->name = rm_Strdup(name != nullptr ? name : "", 0);
    slot->id = shmget(slot->key, size, kCreateForEverybody);
    if (slot->id == -1) {
        internalErrorExit("rm_gshmCreate", "shmget() failure", errno);
    }
    void* attached = shmat(slot->id, nullptr, 0);
    if (attached == reinterpret_cast<void*>(-1)) {
        internalErrorExit("rm_gshmCreate", "shmat() failure", errno);
    }
    slot->address = attached;
    *address = attached;
    ++nGshm;
    return handle;
}

int16_t rm_gshmDelete(int16_t handle)
{
    int error = 0;
    if (isUsed(handle)) {
        error = removeObject(&rmGshm[static_cast<std::size_t>(handle)]);
    }
    endRemoval(error);
    return RM_SUCCESS;
}

int16_t rm_gshmTerminate()
{
    if (!anySlotUsed()) {
        dropToken(&gfpRMGshmTokenFile, gshmTokenPath);  // of a first creation without a slot
        return RM_SUCCESS;
    }
    // All of them before the first failure is told: that does not come back, nor does the exit.
    int firstError = 0;
    for (GshmSlot& slot : rmGshm) {
        if (slot.name != nullptr) {
            const int error = removeObject(&slot);
            firstError = firstError == 0 ? error : firstError;
        }
    }
    endRemoval(firstError);
    return RM_SUCCESS;
}

void os::forgetGshm()
{
    for (GshmSlot& slot : rmGshm) {
        slot.name = nullptr;
        slot.address = nullptr;
    }
    nGshm = 0;
    closeToken(&gfpRMGshmTokenFile);
}

uint32_t os::checkGshm()
{
    uint32_t violations = 0;
    int16_t attached = 0;
    for (const GshmSlot& slot : rmGshm) {
        const bool used = slot.name != nullptr;
        if (used && (slot.id == RM_NONE || slot.address == nullptr)) {
            ++violations;
            rm_systemLogWrite("WARNING: shared memory: %s has segment %d at %p", slot.name, slot.id,
                              slot.address);
        }
        attached = static_cast<int16_t>(attached + (used ? 1 : 0));
    }
    if (attached != nGshm || (attached > 0) != (gfpRMGshmTokenFile != nullptr)) {
        ++violations;
        rm_systemLogWrite("WARNING: shared memory: %d named, %d counted, token stream %p", attached,
                          nGshm, static_cast<void*>(gfpRMGshmTokenFile));
    }
    return violations;
}
