// The memory report: what each tag holds, written into the system log.
//
// Why: a server whose memory grows has to say who holds it, in production, without a debugger. The
// report walks every block. While it walks it counts again what the allocator has counted, and says
// where the two differ: it is the check of a heap for hosts, as checkMemory() is for tests.
//
// Invariant: a walk reads only inside the data area of a segment, whatever stands in the headers.
// Which segments there are and how far they reach is known from what is kept beside them; what they
// say themselves is compared with that, and never followed. Writing a line may itself give memory
// back (a log file that cannot be reopened loses the table of the files): a segment is trusted over
// a line only as long as its tag still has it.
//
// Locks: critical section 0, for ports with threads. Fatal: only what the log writer ends.
#include "rm/rmalloc/segments.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

using namespace rmalloc;

namespace
{
// Of blocks and units, modulo 2^32 like everything that the report prints.
struct Counts {
    uint32_t freeBlocks;
    uint32_t allocatedBlocks;
    uint32_t freeUnits;
    uint32_t allocatedUnits;
};

struct Report {
    bool detail;         // lines for tags and segments
    bool blocks;         // lines for blocks
    bool freeBlocks;     // for free ones too
    bool summary;        // the table of one line per tag
    bool totals;         // the totals of everything
    bool headerWritten;  // the heading stands before the first line, if there is one
    char title[rmsrv::kLogMessageSize];
    Counts total;
    uint32_t tags;  // reported
};

// Where the walk is.
struct Position {
    Tag tag;
    uint32_t slot;  // in the chain of the tag
    const SegmentMap* map;
    Extent at;
};

bool isSet(int16_t flags, int16_t flag)
{
    return (flags & flag) != 0;
}

unsigned long bytesOf(uint32_t units)
{
    return uint32_t{units * kUnit};
}

// What follows the name of a thing of which there are `count`.
const char* plural(uint32_t count)
{
    return count == 1 ? "" : "s";
}

// The source file that allocated a block. Nothing records it here; ports that do print it.
void getFileName(const BlockHeader* /*block*/, char* buffer)
{
    *buffer = '\0';
}

void reportWrite(Report* report, const char* format, ...) RM_PRINTF(2, 3);

// The line is put together before the heading leaves: what its arguments lead to may be gone when
// that has been written.
void reportWrite(Report* report, const char* format, ...)
{
    char line[rmsrv::kLogMessageSize];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    if (!report->headerWritten) {
        report->headerWritten = true;
        // Deliberate: the title is expanded a second time, as an optional log message is.
        char title[rmsrv::kLogMessageSize];
        rmsrv::expandOverZeros(title, sizeof(title), report->title);
        rm_systemLogWrite("--------VIRLO MEMORY REPORT--------");
        rm_systemLogWrite("%s", title);
    }
    rm_systemLogWrite("%s", line);
}

// Null for a number that is none of the table's.
const TagRecord* recordOf(Tag tag)
{
    return tag >= 0 && tag < nTags ? &tagTable[tag] : nullptr;
}

const char* nameOf(Tag tag)
{
    const TagRecord* record = recordOf(tag);
    return record == nullptr || record->name == nullptr ? "" : record->name;
}

uint32_t allocatedOf(Tag tag)
{
    const TagRecord* record = recordOf(tag);
    return record == nullptr ? 0 : record->allocated;
}

// Slots of the tag, empty ones included.
uint32_t slotsOf(Tag tag)
{
    return recordOf(tag) == nullptr ? 0 : chains[tag].used;
}

// Makes the segment in a slot the place of the walk. False when there is none.
bool enterSlot(Position* place, uint32_t slot)
{
    place->map = mapInSlot(&chains[place->tag], slot);
    place->slot = slot;
    if (place->map != nullptr) {
        place->at = extentOf(place->map);
    }
    return place->map != nullptr;
}

// Goes on to the next segment of the tag, from the slot on. False when there is none.
bool enterFrom(Position* place, uint32_t slot)
{
    while (slot < slotsOf(place->tag) && !enterSlot(place, slot)) {
        ++slot;
    }
    return slot < slotsOf(place->tag);
}

// False once the segment has gone. Asked after every line. Slots move when segments come and go.
bool isThere(Position* place)
{
    const SegmentMap* map = place->map;
    const Chain* chain = &chains[place->tag];
    const uint32_t slots = slotsOf(place->tag);
    uint32_t slot = place->slot;
    if (slot >= slots || mapInSlot(chain, slot) != map) {
        slot = 0;
        while (slot < slots && mapInSlot(chain, slot) != map) {
            ++slot;
        }
    }
    if (slot == slots) {
        return false;
    }
    enterSlot(place, slot);
    return true;
}

void add(Counts* sum, const Counts& counts)
{
    sum->freeBlocks += counts.freeBlocks;
    sum->allocatedBlocks += counts.allocatedBlocks;
    sum->freeUnits += counts.freeUnits;
    sum->allocatedUnits += counts.allocatedUnits;
}

void count(Counts* counts, bool live, uint32_t units)
{
    if (live) {
        ++counts->allocatedBlocks;
        counts->allocatedUnits += units;
    } else {
        counts->freeBlocks += units != 0 ? 1 : 0;
        counts->freeUnits += units;
    }
}

// Every block from the anchor to the end of the data area, the last unit of which can be a header
// of its own. The anchor looks like a free block of 0 units: listed with the free ones, it is
// stepped over without being counted. False when the segment went meanwhile.
bool walkBlocks(Report* report, Position* place, Counts* counts)
{
    for (uint64_t offset = 0; offset <= place->at.units;) {
        const BlockHeader* block = blockAt(place->at.segment, static_cast<uint32_t>(offset));
        const BlockHeader seen = *block;
        const bool live = seen.word1 == kLiveMagic;
        if (report->blocks && (live || report->freeBlocks)) {
            char file[rmsrv::kLogMessageSize];
            getFileName(block, file);
            reportWrite(report, "    %p    %6u (%u)%s%s", static_cast<const void*>(block),
                        static_cast<unsigned>(bytesOf(seen.units)),
                        static_cast<unsigned>(place->tag), file, live ? "" : " free");
            if (!isThere(place)) {
                return false;
            }
        }
        count(counts, live, seen.units);
        offset += std::max(seen.units, 1U);
    }
    return true;
}

// The count that stands in the header, which may have been written over; where the walk has found
// the same, the one that is kept beside the segment.
uint32_t storedCount(uint32_t inHeader, uint32_t beside, uint32_t counted)
{
    return inHeader != counted ? inHeader : beside;
}

// True when the header leads to the segment that comes next.
bool isChained(const Position& place)
{
    Position next = place;
    const bool more = enterFrom(&next, place.slot + 1);
    return place.at.segment->next == (more ? next.at.segment : nullptr);
}

// What the allocator has counted against what the walk has found. False when the segment went.
bool compareCounts(Report* report, Position* place, const Counts& counts)
{
    const uint32_t stored =
        storedCount(place->at.segment->blocks, place->map->blocks, counts.allocatedBlocks);
    if (stored != counts.allocatedBlocks) {
        reportWrite(report, "WARNING: Segment block count, %u mismatch with counted blocks, %lu",
                    stored, static_cast<unsigned long>(counts.allocatedBlocks));
        if (!isThere(place)) {
            return false;
        }
    }
    const uint32_t counted = counts.freeUnits + counts.allocatedUnits;
    const uint32_t units = storedCount(place->at.segment->units, place->at.units, counted);
    if (counted != units) {
        // Deliberate: the counted sum first, though the words say otherwise. Logs are read by
        // programs that know it so.
        reportWrite(report, "WARNING: Segment unit count, %lu mismatch with counted units, %lu",
                    static_cast<unsigned long>(counted), static_cast<unsigned long>(units));
        if (!isThere(place)) {
            return false;
        }
    }
    if (!isChained(*place)) {
        reportWrite(report,
                    "WARNING: memory check: tag %d, segment %p: the chain of segments is not as it "
                    "is kept",
                    place->tag, static_cast<const void*>(place->at.segment));
    }
    return isThere(place);
}

bool reportSegment(Report* report, Position* place, Counts* ofTag)
{
    if (report->detail) {
        reportWrite(report, "SEGMENT @ %p   size=%lu", static_cast<const void*>(place->at.segment),
                    bytesOf(place->at.units));
        if (!isThere(place)) {
            return false;
        }
    }
    Counts counts = {};
    const bool whole = walkBlocks(report, place, &counts);
    add(ofTag, counts);
    if (whole && report->detail) {
        reportWrite(
            report, "SEGMENT: %lu allocated bytes in %lu block%s", bytesOf(counts.allocatedUnits),
            static_cast<unsigned long>(counts.allocatedBlocks), plural(counts.allocatedBlocks));
        reportWrite(report, "         %lu free bytes in %lu block%s", bytesOf(counts.freeUnits),
                    static_cast<unsigned long>(counts.freeBlocks), plural(counts.freeBlocks));
    }
    return whole && isThere(place) && compareCounts(report, place, counts);
}

// All segments of the tag, in the order in which they were got.
void reportSegments(Report* report, Tag tag, Counts* counts, uint32_t* segments)
{
    Position place = {tag, 0, nullptr, {}};
    for (bool more = enterFrom(&place, 0); more; more = enterFrom(&place, place.slot + 1)) {
        ++*segments;
        if (!reportSegment(report, &place, counts)) {
            return;
        }
    }
}

// False for a free record of which nothing is said.
bool reportTagHead(Report* report, Tag tag)
{
    const TagRecord* record = recordOf(tag);
    if (record == nullptr || record->state == kTagFree) {
        return false;
    }
    reportWrite(report, "TAG %u(%10s): limit=%ld, allocated=%ld", static_cast<unsigned>(tag),
                nameOf(tag), static_cast<long>(static_cast<int32_t>(record->limit)),
                static_cast<long>(static_cast<int32_t>(record->allocated)));
    return true;
}

void reportTag(Report* report, Tag tag)
{
    Counts counts = {};
    uint32_t segments = 0;
    reportSegments(report, tag, &counts, &segments);
    add(&report->total, counts);
    if (allocatedOf(tag) != bytesOf(counts.allocatedUnits)) {
        reportWrite(report, "WARNING: Tag byte count, %lu mismatch with counted blocks, %lu",
                    static_cast<unsigned long>(allocatedOf(tag)), bytesOf(counts.allocatedUnits));
    }
    if (report->detail) {
        reportWrite(
            report, "TAG: %lu allocated bytes in %lu block%s,", bytesOf(counts.allocatedUnits),
            static_cast<unsigned long>(counts.allocatedBlocks), plural(counts.allocatedBlocks));
        reportWrite(report, "     %lu free bytes in %lu block%s", bytesOf(counts.freeUnits),
                    static_cast<unsigned long>(counts.freeBlocks), plural(counts.freeBlocks));
        reportWrite(report, "     and contains %lu segment%s", static_cast<unsigned long>(segments),
                    plural(segments));
    }
    if (report->summary) {
        reportWrite(report, "TAG %2d(%10s): %8lu/%5lu : %8lu/%5lu : %3lu", tag, nameOf(tag),
                    bytesOf(counts.allocatedUnits),
                    static_cast<unsigned long>(counts.allocatedBlocks), bytesOf(counts.freeUnits),
                    static_cast<unsigned long>(counts.freeBlocks),
                    static_cast<unsigned long>(segments));
    }
    ++report->tags;
}

void reportTotals(Report* report)
{
    const Counts& total = report->total;
    if (report->totals) {
        reportWrite(
            report, "TOTAL: %lu allocated bytes in %lu block%s,", bytesOf(total.allocatedUnits),
            static_cast<unsigned long>(total.allocatedBlocks), plural(total.allocatedBlocks));
        reportWrite(report, "       %lu free bytes in %lu block%s", bytesOf(total.freeUnits),
                    static_cast<unsigned long>(total.freeBlocks), plural(total.freeBlocks));
        reportWrite(report, "       System contains %lu active tag%s",
                    static_cast<unsigned long>(report->tags), plural(report->tags));
    }
    if (report->summary) {
        reportWrite(report, "TOTAL : %8lu/%5lu : %8lu/%5lu : %3lu", bytesOf(total.allocatedUnits),
                    static_cast<unsigned long>(total.allocatedBlocks), bytesOf(total.freeUnits),
                    static_cast<unsigned long>(total.freeBlocks),
                    static_cast<unsigned long>(report->tags));
    }
}
}  // namespace

void rm_memReport(int16_t flags, int16_t tag, const char* titleFormat, ...)
{
    const bool everything = flags < 0;
    Report report = {};
    report.detail = everything || isSet(flags, RM_REPORT_DETAIL);
    report.blocks = everything && !isSet(flags, RM_REPORT_TOTALS);
    report.freeBlocks = isSet(flags, RM_REPORT_FREE);
    report.summary = isSet(flags, RM_REPORT_SUMMARY);
    report.totals = everything || isSet(flags, RM_REPORT_TOTALS);
    if (titleFormat != nullptr) {
        va_list arguments;
        va_start(arguments, titleFormat);
        std::vsnprintf(report.title, sizeof(report.title), titleFormat, arguments);
        va_end(arguments);
    }

    rm_enterCritSec(0);
    if (report.summary) {
        reportWrite(&report, "       allocated/blocks     freed/blocks  segs");
    }
    const bool single = isSet(flags, RM_REPORT_TAG);
    for (int32_t index = 0; index < nTags; ++index) {
        const Tag current = single ? tag : static_cast<Tag>(index);
        // Deliberate: of a free record nothing is said. A report of a single tag then looks at the
        // same record again, as often as there are records.
        if (report.detail && !reportTagHead(&report, current)) {
            continue;
        }
        reportTag(&report, current);
        if (single) {
            break;
        }
    }
    reportTotals(&report);
    rm_exitCritSec(0);
    rm_systemLogWrite("MEMORY REPORT DONE");
}
