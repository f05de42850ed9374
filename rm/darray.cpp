// Dynamic arrays: named entries with a record of fixed size each, at indexes.
//
// Why: what a server opens - tables, cursors, connections - is found by name once and by number
// from then on, and pointers to it are kept everywhere. So an entry's record never moves: the array
// grows by blocks, and a block stays where it is until the array goes.
//
// Owns: nothing of its own. An array has a tag, in which all of it lies and with which it goes.
//
// Invariant: the free entries of a block are those on its list, each once, and they have no name;
// every block below firstWithRoom is full, all of them when that is blockCount, and all but block n
// when it is ~n. checkDArray() tests it.
//
// Locks: critical section 1 around the heads of the free lists, for ports with threads.
//
// Fatal: no memory; a used entry on a free list, which is what deleting an entry twice leads to.
#include "rm/darray.h"

#include <algorithm>
#include <cstring>

using namespace darrays;

namespace
{
constexpr const char* kTagName = "dynamic array tag";
constexpr int16_t kSection = 1;           // critical section
constexpr uint16_t kCompareAsText = 0x1;  // mode

char* recordOf(const DArray* array, const Block* block, int32_t slot)
{
    const auto size = static_cast<std::size_t>(array->dataSize);
    return &block->data[static_cast<std::size_t>(slot) * size];
}

int16_t indexOf(const DArray* array, int32_t block, int32_t slot)
{
    return static_cast<int16_t>(array->entriesPerBlock * block + slot);
}

// Entries of a block that have an index: the last block may reach beyond the largest one.
int32_t entriesIn(const DArray* array, int32_t block)
{
    return std::min<int32_t>(array->entriesPerBlock, kMostEntries - array->entriesPerBlock * block);
}

struct Where {
    Block* block;    // null when there is no such entry
    int16_t number;  // of the block
    int16_t slot;    // kNoSlot when there is no such entry
};

Where locate(const DArray* array, int16_t index)
{
    // Unsigned, since that divides quicker; what it makes of a negative index is not used.
    const auto place = static_cast<uint16_t>(index);
    const auto perBlock = static_cast<uint16_t>(array->entriesPerBlock);
    const auto number = static_cast<uint16_t>(place / perBlock);
    if (index < 0 || number >= array->blockCount) {
        return {nullptr, kNoSlot, kNoSlot};
    }
    return {array->blocks[number], static_cast<int16_t>(number),
            static_cast<int16_t>(place - number * perBlock)};
}

void store(void** where, void* value)
{
    if (where != nullptr) {
        *where = value;
    }
}

// The lowest block with a free entry; the number of blocks when there is none.
int32_t blockWithRoom(const DArray* array)
{
    if (array->firstWithRoom < 0) {
        return ~array->firstWithRoom;
    }
    int32_t number = array->firstWithRoom;
    while (number < array->blockCount && array->blocks[number]->freeHead == kNoSlot) {
        ++number;
    }
    return number;
}

// An entry of the block has become free.
void noteRoom(DArray* array, int16_t number)
{
    const int16_t first = array->firstWithRoom;
    if (first == array->blockCount) {
        array->firstWithRoom = static_cast<int16_t>(~number);
    } else if (first != ~number) {
        array->firstWithRoom = std::min(first < 0 ? static_cast<int16_t>(~first) : first, number);
    }
}

// No block has room: the next search may know. Looked for again: somebody may have deleted
// meanwhile.
void noteFull(DArray* array)
{
    if (array->firstWithRoom == array->blockCount) {
        return;
    }
    rm_enterCritSec(kSection);
    if (blockWithRoom(array) == array->blockCount) {
        array->firstWithRoom = array->blockCount;
    }
    rm_exitCritSec(kSection);
}

// Takes the first free entry of a block out of its list. kNoSlot when somebody else was quicker.
int16_t takeFree(DArray* array, int32_t number)
{
    Block* block = array->blocks[number];
    rm_enterCritSec(kSection);
    const int16_t slot = block->freeHead;
    if (slot != kNoSlot) {
        // Looked for again: somebody may have deleted below it meanwhile.
        const int32_t lowest = blockWithRoom(array);
        block->freeHead = block->entries[slot].nextFree;
        if (array->firstWithRoom != ~number) {
            array->firstWithRoom = static_cast<int16_t>(lowest);
        } else if (block->freeHead == kNoSlot) {
            array->firstWithRoom = array->blockCount;
        }
    }
    rm_exitCritSec(kSection);
    return slot;
}

// The first used entry, in the order of the indexes, of which `isWanted(name, record)` is true.
template <typename IsWanted>
int16_t findUsed(const DArray* array, void** data, IsWanted isWanted)
{
    for (int32_t number = 0; number < array->blockCount; ++number) {
        const Block* block = array->blocks[number];
        for (int32_t slot = 0; slot < array->entriesPerBlock; ++slot) {
            const char* name = block->entries[slot].name;
            if (name != nullptr && isWanted(name, recordOf(array, block, slot))) {
                store(data, recordOf(array, block, slot));
                return indexOf(array, number, slot);
            }
        }
    }
    store(data, nullptr);
    return RM_NONE;
}
}  // namespace

Entry* darrays::darrayGetEntryPtrEx(const DArray* array, int16_t index, Block** block,
                                    int16_t* slot)
{
    const Where where = locate(array, index);
    if (block != nullptr) {
        *block = where.block;
    }
    if (slot != nullptr) {
        *slot = where.slot;
    }
    return where.block == nullptr ? nullptr : &where.block->entries[where.slot];
}

void darrays::darrayMakeNewBlock(DArray* array)
{
    if (array->blocks == nullptr) {
        const auto bytes = static_cast<std::size_t>(array->maxBlocks) * sizeof(void*);
        array->blocks =
            static_cast<Block**>(rm_getMemory(static_cast<uint32_t>(bytes), array->tag));
    }
    const auto count = static_cast<std::size_t>(array->entriesPerBlock);
    auto* block = static_cast<Block*>(rm_getMemory(sizeof(Block), array->tag));
    block->entries = static_cast<Entry*>(
        rm_cGetMemory(static_cast<uint32_t>(count * sizeof(Entry)), array->tag));
    block->data = static_cast<char*>(rm_getMemory(
        static_cast<uint32_t>(count * static_cast<std::size_t>(array->dataSize)), array->tag));
    const int32_t last = entriesIn(array, array->blockCount) - 1;
    for (int32_t slot = 0; slot < array->entriesPerBlock; ++slot) {
        block->entries[slot].nextFree = static_cast<int16_t>(slot < last ? slot + 1 : kNoSlot);
    }
    block->freeHead = 0;
    // Only now: the allocations may not come back.
    array->blocks[array->blockCount] = block;
    ++array->blockCount;
}

uint32_t darrays::checkDArray(const DArray* array)
{
    uint32_t violations = 0;
    const auto expect = [&violations](bool holds, const char* what) {
        if (!holds) {
            ++violations;
            rm_systemLogWrite("WARNING: dynamic array check: %s", what);
        }
    };
    expect(array->blockCount <= array->maxBlocks, "more blocks than allowed");
    for (int32_t number = 0; number < array->blockCount; ++number) {
        const Block* block = array->blocks[number];
        int32_t listed = 0;
        int32_t slot = block->freeHead;
        while (slot != kNoSlot && listed <= array->entriesPerBlock) {
            if (slot < 0 || slot >= entriesIn(array, number)) {
                break;
            }
            expect(block->entries[slot].name == nullptr, "a used entry on a free list");
            ++listed;
            slot = block->entries[slot].nextFree;
        }
        expect(slot == kNoSlot, "a free list does not end");
        const int32_t unnamed = static_cast<int32_t>(
            std::count_if(block->entries, block->entries + entriesIn(array, number),
                          [](const Entry& entry) { return entry.name == nullptr; }));
        expect(listed == unnamed, "a free entry is on no list, or on it twice");
        const int32_t first = array->firstWithRoom;
        const bool mayHaveRoom = first < 0 ? number == ~first : number >= first;
        expect(mayHaveRoom || block->freeHead == kNoSlot, "a block with room is passed over");
    }
    return violations;
}

DArray* darrayCreate(int16_t maxEntries, int16_t entriesPerBlock, int16_t dataSize)
{
    if (entriesPerBlock <= 0 || maxEntries < 0 || dataSize < 0) {
        return nullptr;
    }
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_setTagName(kTagName, tag);
    rm_setTagAlloc(kSegmentSize, tag);
    auto* array = static_cast<DArray*>(rm_cGetMemory(sizeof(DArray), tag));
    array->tag = tag;
    array->dataSize = dataSize;
    array->entriesPerBlock = entriesPerBlock;
    array->maxBlocks = static_cast<int16_t>((maxEntries - 1) / entriesPerBlock + 1);
    return array;
}

void darrayDestroy(DArray* array)
{
    if (array != nullptr) {
        rm_freeTagMemory(array->tag, 1);
    }
}

int16_t darrayCreateEntry(DArray* array, const char* name, void** data)
{
    for (;;) {
        const int32_t number = blockWithRoom(array);
        if (number == array->blockCount) {
            if (array->maxBlocks <= number) {
                noteFull(array);
                return RM_NONE;
            }
            rm_enterCritSec(kSection);
            if (number == array->blockCount) {  // else somebody else has made one
                const int32_t lowest = blockWithRoom(array);
                darrayMakeNewBlock(array);
                array->firstWithRoom = static_cast<int16_t>(lowest == number ? ~number : lowest);
            }
            rm_exitCritSec(kSection);
            continue;
        }
        const int16_t slot = takeFree(array, number);
        if (slot == kNoSlot) {
            continue;
        }
        Block* block = array->blocks[number];
        if (block->entries[slot].name != nullptr) {
            rm_systemLogWrite("Corruption in dynamic arrays");
            rm_errorExit();
        }
        block->entries[slot].name = name;
        store(data, recordOf(array, block, slot));
        return indexOf(array, number, slot);
    }
}

int16_t darrayFindEntry(DArray* array, const char* name, void** data)
{
    return findUsed(array, data, [name](const char* candidate, const char* /*record*/) {
        return std::strcmp(candidate, name) == 0;
    });
}

int16_t darrayGetEntryFromData(DArray* array, const void* key, int16_t keyOffset,
                               uint16_t keyLength, uint16_t mode, void** data)
{
    // What a record has from the offset on. A key that would have to lie outside is in no record.
    const int32_t rest = keyOffset < 0 ? -1 : array->dataSize - keyOffset;
    const bool asText = (mode & kCompareAsText) != 0;
    if (rest < 0 || (!asText && keyLength > rest)) {
        store(data, nullptr);
        return RM_NONE;
    }
    const auto length = static_cast<std::size_t>(std::min<int32_t>(keyLength, rest));
    const auto* text = static_cast<const char*>(key);
    return findUsed(array, data, [=](const char* /*name*/, const char* record) {
        const char* candidate = record + keyOffset;
        if (!asText) {
            return std::memcmp(candidate, key, length) == 0;
        }
        // A text that fills its record to the end is the key's only when the key ends there too.
        return std::strncmp(candidate, text, length) == 0 &&
               (length == keyLength || strnlen(candidate, length) < length || text[length] == '\0');
    });
}

int16_t darrayGetFirstUsedEntry(DArray* array)
{
    return findUsed(array, nullptr,
                    [](const char* /*name*/, const char* /*record*/) { return true; });
}

void darrayDeleteEntry(DArray* array, int16_t index)
{
    const Where where = locate(array, index);
    if (where.block == nullptr) {
        return;
    }
    Entry* entry = &where.block->entries[where.slot];
    entry->name = nullptr;
    rm_enterCritSec(kSection);
    entry->nextFree = where.block->freeHead;
    where.block->freeHead = where.slot;
    noteRoom(array, where.number);
    rm_exitCritSec(kSection);
}

void* darrayGetEntryPtr(DArray* array, int16_t index)
{
    const Where where = locate(array, index);
    return where.block == nullptr ? nullptr : recordOf(array, where.block, where.slot);
}

const char* darrayGetEntryName(DArray* array, int16_t index)
{
    const Where where = locate(array, index);
    return where.block == nullptr ? nullptr : where.block->entries[where.slot].name;
}
