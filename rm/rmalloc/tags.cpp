// Tags: small numbers that own memory together.
//
// Why: a server releases what a request, a session or a module has allocated in one step, without
// knowing the blocks. A tag names such a group; tag 0 is the library's own and the host's default.
//
// Owns: the tag table and the counters of the whole process.
//
// Invariant: `nTags` is the highest index that was ever in use + 1; a record in state 0 owns no
// segment; `memused` counts the table and every segment, headers included. checkMemory() tests it.
//
// Lifecycle: the table is made by the first allocation and again by the first one after
// rm_freeall. SEG_ALLOC is read each time, before there is a table to allocate from: the local
// environment, through which it is read, allocates itself.
//
// Fatal: no memory for the table; a free record where one in use is needed.
#include "rm/ems.h"
#include "rm/file/file.h"
#include "rm/rmalloc/pieces.h"
#include "rm/rmalloc/segments.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>

int16_t seg_alloc = 0;             // not 0: every segment is as large as one request
uint32_t rmemavail = RM_NO_LIMIT;  // bytes; the limit of the tag that the first allocation makes

namespace rmalloc
{
TagRecord* tagTable = nullptr;
int16_t nTags = 0;
int16_t tagTabSize = 0;
uint32_t memused = 0;
uint32_t tagZeroReleases = 0;
}  // namespace rmalloc

using namespace rmalloc;

namespace
{
constexpr uint32_t kWordBits = 64;
constexpr uint32_t kTagWords = (std::numeric_limits<int16_t>::max() + 1U) / kWordBits;

// Bit t: record t, from 1 up to nTags, is free. And bit w: word w of these is not 0. So the lowest
// free record is found in a few words, however many tags there are.
uint64_t freeTags[kTagWords];
uint64_t freeTagWords[kTagWords / kWordBits];

// The epoch that was given out last, to whichever tag, in whichever table.
uint16_t lastEpoch = 0;

constexpr uint32_t tableBytes(int16_t records)
{
    return static_cast<uint32_t>(static_cast<std::size_t>(records) * sizeof(TagRecord));
}

[[noreturn]] void invalidTag()
{
    rm_systemLogWrite("invalid tag");
    rm_errorExit();
}

void noteFreeTag(Tag tag)
{
    const auto bit = static_cast<uint32_t>(tag);
    const uint32_t word = bit / kWordBits;
    freeTags[word] |= uint64_t{1} << bit % kWordBits;
    freeTagWords[word / kWordBits] |= uint64_t{1} << word % kWordBits;
}

void noteUsedTag(Tag tag)
{
    const auto bit = static_cast<uint32_t>(tag);
    const uint32_t word = bit / kWordBits;
    freeTags[word] &= ~(uint64_t{1} << bit % kWordBits);
    if (freeTags[word] == 0) {
        freeTagWords[word / kWordBits] &= ~(uint64_t{1} << word % kWordBits);
    }
}

// The lowest free record from index 1 up, or nTags when there is none.
Tag lowestFree()
{
    for (uint32_t i = 0; i < std::size(freeTagWords); ++i) {
        if (freeTagWords[i] != 0) {
            const uint32_t word =
                i * kWordBits + static_cast<uint32_t>(__builtin_ctzll(freeTagWords[i]));
            return static_cast<Tag>(word * kWordBits +
                                    static_cast<uint32_t>(__builtin_ctzll(freeTags[word])));
        }
    }
    return nTags;
}

// Makes a larger table, and a larger row of chains beside it. Both are complete before they are
// published.
void enlargeTables(int16_t size)
{
    auto* table = static_cast<TagRecord*>(rm_getSeg(tableBytes(size)));
    Chain* row = table == nullptr ? nullptr : newChains(size);
    if (row == nullptr) {
        rm_freeSeg(table);
        rmsrv::outOfMemory();
    }
    std::memset(&table[tagTabSize], 0, tableBytes(size) - tableBytes(tagTabSize));
    if (tagTable != nullptr) {
        std::memcpy(table, tagTable, tableBytes(tagTabSize));
        std::memcpy(row, chains, static_cast<std::size_t>(tagTabSize) * sizeof(Chain));
    }
    rm_freeSeg(tagTable);
    freeChains(chains);
    memused += tableBytes(size) - tableBytes(tagTabSize);
    tagTable = table;
    chains = row;
    tagTabSize = size;
}

// Makes room for another step of records.
void growTagTable()
{
    const auto size = static_cast<int16_t>(
        std::min<int32_t>(tagTabSize + int32_t{kTableStep}, std::numeric_limits<int16_t>::max()));
    if (size == tagTabSize) {
        rmsrv::outOfMemory();  // a tag is a signed 16-bit number
    }
    enlargeTables(size);
}

// The lowest free record, or the one after the last; tag 0 is never handed out.
// Deliberate: a full table grows although a record in it may be free. Only a table that can grow no
// further is searched first.
Tag takeRecord()
{
    const bool atItsLargest = tagTabSize == std::numeric_limits<int16_t>::max();
    const Tag tag = lowestFree();
    if (nTags >= tagTabSize && !(atItsLargest && tag < nTags)) {
        growTagTable();
    }
    if (tag == nTags) {
        ++nTags;
    } else {
        noteUsedTag(tag);
    }
    return tag;
}

void setJump(TagRecord* record, jmp_buf env)
{
    if (env == nullptr) {
        record->state = kTagInUse;
        return;
    }
    std::memcpy(record->env, env, sizeof(jmp_buf));
    record->state = kTagInUseWithJump;
}

// Costs by the segment, however many blocks there are in it.
void freeSegments(Tag tag)
{
    TagRecord* record = &tagTable[tag];
    Chain* chain = &chains[tag];
    // By the slots: maps need not lead to one another. A row of one slot goes with its map.
    for (uint32_t slot = 0; slot < chain->used; ++slot) {
        if (chain->slots[slot] != nullptr) {
            returnSegment(chain->slots[slot]);
        }
    }
    emptyChain(chain);
    record->segments = nullptr;
    record->allocated = 0;
    record->name = nullptr;
    record->epoch = ++lastEpoch;
}

// The library keeps tables in tagged memory. Before a tag's memory goes, the table that lives in it
// is forgotten, so that a host that went on after a fatal error can call on.
void forgetTablesOf(Tag tag)
{
    if (tag == 0) {
        ++tagZeroReleases;
        ems::forgetModules();
        rmutil::forgetLocalEnv();
        rmutil::forgetOwnStreams();
        rmsrv::forgetStatistics();
        os::forgetGshm();
        os::forgetQueues();
    }
    if (file::fileTag != 0 && tag == file::fileTag) {
        rmutil::forgetOwnHandles();
        file::forgetTable();
    }
}
}  // namespace

void rmalloc::sayInvalidTag(Tag tag, const char* function)
{
    rm_systemLogWrite("Invalid tag %d supplied to %s", tag, function);
}

void rmalloc::newTagTable()
{
    const char* segAlloc = rm_getenv("SEG_ALLOC");
    if (segAlloc != nullptr) {
        seg_alloc = static_cast<int16_t>(std::atoi(segAlloc));
    }
    enlargeTables(kTableStep);
    tagTable[0].state = kTagInUse;
    tagTable[0].limit = RM_NO_LIMIT;
    tagTable[0].segmentSize = kTagZeroSegmentSize;
    tagTable[0].epoch = ++lastEpoch;
    nTags = 1;
}

int16_t rm_allocTag(jmp_buf env, uint32_t limit)
{
    if (nTags == 0) {
        newTagTable();
    }
    rm_enterCritSec(0);
    const Tag tag = takeRecord();
    TagRecord* record = &tagTable[tag];
    record->segments = nullptr;
    setJump(record, env);
    record->allocated = 0;
    record->segmentSize = kDefaultSegmentSize;
    record->name = nullptr;
    record->limit = limit;
    record->epoch = ++lastEpoch;
    rm_exitCritSec(0);
    return tag;
}

char* rm_setTagName(const char* name, int16_t tag)
{
    if (tag == 0 || !isInUse(tag)) {
        invalidTag();
    }
    char* copy = rm_Strdup(name, tag);
    tagTable[tag].name = copy;
    return copy;
}

void rm_setTagAlloc(uint32_t size, int16_t tag)
{
    if (tag <= 0 || tag >= nTags) {
        return;  // Deliberate: without a word, unlike a free record.
    }
    if (tagTable[tag].state == kTagFree) {
        invalidTag();
    }
    tagTable[tag].segmentSize = size;
}

void rm_resetTag(jmp_buf env, int16_t tag)
{
    if (!isInUse(tag)) {
        invalidTag();
    }
    setJump(&tagTable[tag], env);
}

void rm_freeTagMemory(int16_t tag, int16_t release)
{
    if (tag == RM_NONE) {
        return;
    }
    rm_enterCritSec(0);
    if (checkTag(tag, "rm_freeTagMemory") == RM_SUCCESS) {
        forgetTablesOf(tag);
        freeSegments(tag);
        if (release != 0) {
            tagTable[tag].state = kTagFree;
            if (tag != 0) {
                noteFreeTag(tag);
            }
        }
    }
    rm_exitCritSec(0);
}

void rm_freeall()
{
    rm_enterCritSec(0);
    for (Tag tag = 0; tag < nTags; ++tag) {
        forgetTablesOf(tag);
    }
    for (Tag tag = 0; tag < nTags; ++tag) {
        freeSegments(tag);
        tagTable[tag].state = kTagFree;
    }
    rmsrv::forgetLogFile();  // whoever set it: there is no file table any more
    nTags = 0;
    std::memset(freeTags, 0, sizeof freeTags);
    std::memset(freeTagWords, 0, sizeof freeTagWords);
    memused -= tableBytes(tagTabSize);
    rm_freeSeg(tagTable);
    freeChains(chains);
    trimPageTable();
    trimPieces();
    tagTabSize = 0;
    tagTable = nullptr;
    chains = nullptr;
    rm_exitCritSec(0);
}

int32_t rm_memoryAvail(int16_t tag)
{
    if (checkTag(tag, "rm_memoryAvail") != RM_SUCCESS) {
        return 0;
    }
    const TagRecord* record = &tagTable[tag];
    if (record->limit == RM_NO_LIMIT) {
        return -1;
    }
    return static_cast<int32_t>(record->limit - record->allocated);
}

void rm_setMemoryLimit(uint32_t bytes)
{
    rmemavail = bytes;
}

uint32_t rm_memused()
{
    return memused;
}
