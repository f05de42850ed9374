// Message queues: short messages between the processes of a server.
//
// Why: an answer has to find its way to a process that is not a child and shares no pipe. A System
// V queue is found by a key, and as with shared memory every slot has a fixed one: processes that
// create their queues in the same order, under one prefix, meet on the same ones. Any process that
// reads a queue takes whatever message is its oldest; a message has no addressee.
//
// On the wire a message is as old releases of the library send it, so the sizes are part of the
// interface between processes:
//
//   type    long, 1         not counted in the size given to the system
//   code    16 bits
//   length  16 bits         of the data
//   data    `length` bytes
//           5 bytes         Deliberate: they always travel; 0 bytes of data are a message of 9
//
// What arrives may come from anybody, since the queues are open to everybody: a length is believed
// as far as bytes were received.
//
// Owns: the table, each slot's buffer, and the token file.
//
// Invariant: a named slot has a buffer and is counted; the token file is open while there is one.
// checkQueues() tests it.
//
// Lifecycle: the keys are made with the first queue; a queue is removed by the first process that
// deletes it, messages and all; the token file goes with the process's last one.
//
// Fatal: every system call that fails, a full queue included; a 6th queue; a handle of a free slot.
#include "rm/unix/unix.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include <sys/ipc.h>
#include <sys/msg.h>

namespace os
{
std::array<QueueSlot, kQueueSlots> rmQueue = {};
int16_t nQueues = 0;
FILE* gfpRMQueueTokenFile = nullptr;
char queueTokenPath[kTokenPathSize] = "";
}  // namespace os

using namespace os;

namespace
{
constexpr const char* kTokenFile = ".ZNT.RM.QUEUE";
constexpr int kCreateForEverybody = 1023;  // create when absent, mode 0777
constexpr long kMessageType = 1;
constexpr long kAnyType = 0;
constexpr uint16_t kWaitFlag = 1;  // of rm_queueRead's flags
constexpr std::size_t kHeadBytes = offsetof(QueueMessage, data) - offsetof(QueueMessage, code);

static_assert(sizeof(QueueMessage) >= sizeof(long) + kMessageBytes + kBeyondData);
static_assert(kHeadBytes == 4, "the head of a message is part of the interface");

bool isNamed(int16_t handle)
{
    return handle >= 0 && handle < kQueueSlots &&
           rmQueue[static_cast<std::size_t>(handle)].name != nullptr;
}

bool anySlotUsed()
{
    return std::any_of(rmQueue.begin(), rmQueue.end(),
                       [](const QueueSlot& slot) { return slot.name != nullptr; });
}

// Makes the token file and from it the keys.
void makeKeys()
{
    if (!renewToken(&gfpRMQueueTokenFile, queueTokenPath, kTokenFile)) {
        internalErrorExit("rm_queueCreate", "fopen() failure", errno);
    }
    int project = 0;
    for (QueueSlot& slot : rmQueue) {
        slot.key = ftok(queueTokenPath, ++project);
        if (slot.key == -1) {
            internalErrorExit("rm_queueCreate", "ftok() failure", errno);
        }
    }
}

// Begins again when nothing counts: slots of creations that found no memory are given up, and with
// the first queue come the keys. A queue with a buffer stays, whatever the count says.
void beginTable()
{
    nQueues = 0;
    for (QueueSlot& slot : rmQueue) {
        if (slot.buffer != nullptr) {
            ++nQueues;
        } else {
            slot.name = nullptr;
        }
    }
    if (nQueues == 0) {
        makeKeys();
    }
}

// Takes the queue out of its slot and removes it.
void removeQueue(QueueSlot* slot)
{
    slot->name = nullptr;
    if (slot->id != RM_NONE) {
        // Deliberate: the result is not looked at. Another process may have removed it.
        msgctl(slot->id, IPC_RMID, nullptr);
        slot->id = RM_NONE;
    }
    if (slot->buffer != nullptr) {
        rm_zFreeMemory(&slot->buffer, 0);
    }
    --nQueues;
}

// What follows the removal of queues. The token file goes with the last one that is named, and not
// before: a count that failures have brought to 0 says nothing about it.
void endRemoval()
{
    if (!anySlotUsed()) {
        dropToken(&gfpRMQueueTokenFile, queueTokenPath);
    }
    if (nQueues < 0) {
        internalErrorExit("rm_queueDelete", "Deleted too many Message Queues!", 0);
    }
}

// The slot of a handle through which messages go. `error` goes into the fatal message. A slot
// without a buffer is that of a creation for which there was no memory.
QueueSlot* slotOf(int16_t handle, const char* function, int error)
{
    if (!isNamed(handle) || rmQueue[static_cast<std::size_t>(handle)].buffer == nullptr) {
        internalErrorExit(function, "Invalid Message Queue Handle", error);
    }
    return &rmQueue[static_cast<std::size_t>(handle)];
}

// Bytes of data in a message of which `received` bytes came, head and all.
int16_t believedLength(const QueueMessage* message, std::size_t received)
{
    if (received < kHeadBytes) {
        return 0;
    }
    const std::size_t most =
        std::min<std::size_t>(received - kHeadBytes, std::numeric_limits<int16_t>::max());
    return static_cast<int16_t>(std::min<std::size_t>(message->length, most));
}
}  // namespace

int16_t rm_queueCreate(const char* name)
{
    if (nQueues <= 0) {
        beginTable();
    }
    int16_t handle = 0;
    while (isNamed(handle)) {
        ++handle;
    }
    if (handle == kQueueSlots) {
        internalErrorExit("rm_queueCreate", "Out of Message Queues!", 0);
    }
    QueueSlot* slot = &rmQueue[static_cast<std::size_t>(handle)];
    slot->id = RM_NONE;
    slot->buffer = nullptr;
    slot->name = name != nullptr ? name : "";
    slot->buffer = static_cast<QueueMessage*>(rm_cGetMemory(sizeof(QueueMessage), 0));
    ++nQueues;
    slot->id = msgget(slot->key, kCreateForEverybody);
    if (slot->id == -1) {
        internalErrorExit("rm_queueCreate", "msgget() failure", errno);
    }
    return handle;
}

int16_t rm_queueOpen(const char* name)
{
    for (int16_t handle = 0; name != nullptr && handle < kQueueSlots; ++handle) {
        if (isNamed(handle) &&
            std::strcmp(rmQueue[static_cast<std::size_t>(handle)].name, name) == 0) {
            return handle;
        }
    }
    return RM_NONE;
}

int16_t rm_queueWrite(int16_t handle, const void* data, int16_t length, uint16_t code)
{
    const QueueSlot* slot = slotOf(handle, "rm_queueWrite", 0);
    if (length < 0) {
        internalErrorExit("rm_queueWrite", "msgsnd() failure", EINVAL);
    }
    QueueMessage* message = slot->buffer;
    const auto bytes = static_cast<std::size_t>(length);
    if (bytes > 0) {
        std::memcpy(message->data, data, bytes);
    }
    // Behind the data would else travel what an earlier message has left in the buffer.
    std::memset(&message->data[bytes], 0, kBeyondData);
    message->type = kMessageType;
    message->code = code;
    message->length = static_cast<uint16_t>(length);
    if (msgsnd(slot->id, message, kHeadBytes + bytes + kBeyondData, IPC_NOWAIT) == -1) {
        internalErrorExit("rm_queueWrite", "msgsnd() failure", errno);
    }
    return RM_SUCCESS;
}

int16_t rm_queueRead(int16_t handle, void* dataPointer, int16_t* length, uint16_t* code,
                     uint16_t flags)
{
    const QueueSlot* slot = slotOf(handle, "rm_queueRead", errno);
    QueueMessage* message = slot->buffer;
    message->code = 0;  // a foreign message may be shorter than a head
    message->length = 0;
    const ssize_t received = msgrcv(slot->id, message, kMessageBytes, kAnyType,
                                    (flags & kWaitFlag) != 0 ? 0 : IPC_NOWAIT);
    if (received == -1) {
        if (errno == ENOMSG) {
            return RM_NOT_FOUND;
        }
        internalErrorExit("rm_queueRead", "msgrcv() failure", errno);
    }
    *length = believedLength(message, static_cast<std::size_t>(received));
    if (*length > 0) {
        char* buffer = nullptr;  // the caller's pointer, of whatever type it is
        std::memcpy(&buffer, dataPointer, sizeof(buffer));
        std::memcpy(buffer, message->data, static_cast<std::size_t>(*length));
    }
    if (code != nullptr) {
        *code = message->code;
    }
    return RM_SUCCESS;
}

int16_t rm_queueDelete(int16_t handle)
{
    if (isNamed(handle)) {
        removeQueue(&rmQueue[static_cast<std::size_t>(handle)]);
    }
    endRemoval();
    return RM_SUCCESS;
}

int16_t rm_queueTerminate()
{
    if (!anySlotUsed()) {
        dropToken(&gfpRMQueueTokenFile, queueTokenPath);  // of a first creation without a slot
        return RM_SUCCESS;
    }
    // All of them before the count is looked at: a fatal error does not come back, nor does the
    // exit.
    for (QueueSlot& slot : rmQueue) {
        if (slot.name != nullptr) {
            removeQueue(&slot);
        }
    }
    endRemoval();
    return RM_SUCCESS;
}

void os::forgetQueues()
{
    for (QueueSlot& slot : rmQueue) {
        slot.buffer = nullptr;
        slot.name = nullptr;
    }
    nQueues = 0;
    closeToken(&gfpRMQueueTokenFile);
}

uint32_t os::checkQueues()
{
    uint32_t violations = 0;
    int16_t used = 0;
    for (const QueueSlot& slot : rmQueue) {
        const bool named = slot.name != nullptr;
        if (named != (slot.buffer != nullptr) || (named && slot.id == RM_NONE)) {
            ++violations;
            rm_systemLogWrite("WARNING: message queues: %s has queue %d, buffer %p",
                              named ? slot.name : "-", slot.id, static_cast<void*>(slot.buffer));
        }
        used = static_cast<int16_t>(used + (named ? 1 : 0));
    }
    if (used != nQueues || (used > 0) != (gfpRMQueueTokenFile != nullptr)) {
        ++violations;
        rm_systemLogWrite("WARNING: message queues: %d named, %d counted, token stream %p", used,
                          nQueues, static_cast<void*>(gfpRMQueueTokenFile));
    }
    return violations;
}
