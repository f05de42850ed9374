// What the tests of the memory report share: making one, and describing heaps to the model of it.
#ifndef RM_TESTS_RMALLOC_REPORT_CASE_H
#define RM_TESTS_RMALLOC_REPORT_CASE_H

#include "tests/models/report_model.h"
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/segments.h"

#include <cstdint>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace rmtest
{

constexpr int kEverything = 0x8000;  // the sign, as the low 16 bits of an int
constexpr const char* kReportHeading = "--------VIRLO MEMORY REPORT--------";
constexpr const char* kTableHeading = "       allocated/blocks     freed/blocks  segs";
constexpr const char* kReportDone = "MEMORY REPORT DONE";

// --- Making a report

inline void makeReport(int flags, int tag = 0)
{
    rm_memReport(static_cast<int16_t>(flags), static_cast<int16_t>(tag), nullptr);
}

// All its lines.
inline Lines report(int flags, int tag = 0)
{
    return linesOf([=] { makeReport(flags, tag); });
}

// What stands between the heading with an empty title and the closing line, both of which must be
// there.
inline Lines body(Lines lines)
{
    if (lines.size() < 4 || lines[0] != kReportHeading || !lines[1].empty() ||
        lines.back() != kReportDone) {
        lines.emplace_back("(not in a frame)");
        return lines;
    }
    return {lines.begin() + 2, lines.end() - 1};
}

inline Lines reportBody(int flags, int tag = 0)
{
    return body(report(flags, tag));
}

// Those of the lines that begin with `start`.
inline Lines linesThatBegin(const Lines& lines, std::string_view start)
{
    Lines chosen;
    for (const std::string& line : lines) {
        if (line.starts_with(start)) {
            chosen.push_back(line);
        }
    }
    return chosen;
}

inline Lines joined(const std::vector<Lines>& parts)
{
    Lines all;
    for (const Lines& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// --- Describing a heap to the model

inline uint64_t anchorOf(const rmalloc::Segment* segment)
{
    return reinterpret_cast<uintptr_t>(segment) + ReportModel::kAnchorInSegment;
}

// A tag as it was drawn, see heap.h. Only the addresses of its segments come from the heap.
inline ReportModel::Tag drawnTag(std::string_view text, Tag tag, const std::string& name = "",
                                 uint32_t limit = RM_NO_LIMIT)
{
    ReportModel::Tag described{.inUse = true, .name = name, .limit = limit, .segments = {}};
    std::istringstream words{std::string(text)};
    std::vector<ReportModel::Piece> pieces = {{0, false}};
    const auto endSegment = [&] {
        const rmalloc::Segment* segment = segmentsOf(tag).at(described.segments.size());
        uint32_t units = 0;
        uint32_t blocks = 0;
        for (const ReportModel::Piece& piece : pieces) {
            units += piece.units;
            blocks += piece.live ? 1 : 0;
            described.allocated += piece.live ? piece.units * kUnitBytes : 0;
        }
        described.segments.push_back({anchorOf(segment), units, blocks, pieces});
        pieces.assign(1, {0, false});
    };
    for (std::string word; words >> word;) {
        if (word == "|") {
            endSegment();
            continue;
        }
        const bool live = word.front() == '[';
        pieces.push_back({static_cast<uint32_t>(std::stoul(live ? word.substr(1) : word)), live});
    }
    if (!text.empty()) {
        endSegment();
    }
    return described;
}

// The maps of a tag's segments: what stands in the segments does not lead to them.
inline std::vector<const rmalloc::SegmentMap*> mapsOf(Tag tag)
{
    std::vector<const rmalloc::SegmentMap*> maps;
    for (const rmalloc::SegmentMap* map = rmalloc::chains[tag].first; map != nullptr;
         map = map->next) {
        maps.push_back(map);
    }
    return maps;
}

// What a walk meets in a segment, whatever stands in its headers: the words are copied out and read
// by their index.
inline ReportModel::Segment foundSegment(const rmalloc::SegmentMap* map)
{
    const rmalloc::Segment* segment = map->segment;
    const rmalloc::Segment* next = map->next == nullptr ? nullptr : map->next->segment;
    ReportModel::Segment found{
        anchorOf(segment),
        map->units,
        map->blocks,
        {},
        ReportModel::Header{segment->units, segment->blocks, segment->next == next}};
    std::vector<uint32_t> words((std::size_t{map->units} + 1) * 2);
    std::memcpy(words.data(), &segment->anchor, words.size() * sizeof(uint32_t));
    for (uint64_t at = 0; at < words.size();) {
        const auto index = static_cast<std::size_t>(at);
        const uint32_t units = words[index + 1];
        found.pieces.push_back({units, words[index] == 0xFFEEDDCC});
        at += uint64_t{2} * std::max(units, 1U);
    }
    return found;
}

// The whole heap as it stands.
inline ReportModel foundHeap()
{
    std::vector<ReportModel::Tag> tags;
    for (Tag tag = 0; tag < rmalloc::nTags; ++tag) {
        const rmalloc::TagRecord& record = rmalloc::tagTable[tag];
        ReportModel::Tag found{.inUse = record.state != 0,
                               .name = record.name == nullptr ? "" : record.name,
                               .limit = record.limit,
                               .allocated = record.allocated,
                               .segments = {}};
        for (const rmalloc::SegmentMap* map : mapsOf(tag)) {
            found.segments.push_back(foundSegment(map));
        }
        tags.push_back(found);
    }
    return ReportModel(tags);
}

// --- Memory that ends the process when it is misused

// While one lives, every segment and table that the library gets ends at the end of a page, behind
// which nothing can be read, and what it gives back can never be read again. All of it must have
// been given back at the end.
class GuardedMemory
{
  public:
    GuardedMemory()
        : malloc_({.call = Call::kMalloc,
                   .times = kForever,
                   .action = [this](const CallRecord& call) { return take(call.args[0]); }}),
          free_({.call = Call::kFree,
                 .times = kForever,
                 .when = [this](const CallRecord& call) { return held_.contains(call.args[0]); },
                 .action = [this](const CallRecord& call) { return give(call.args[0]); }})
    {
    }

    ~GuardedMemory()
    {
        EXPECT_TRUE(held_.empty()) << "rm_freeall comes before the end of the guard";
        for (const Area& area : given_) {
            munmap(area.start, area.bytes);
        }
    }

    GuardedMemory(const GuardedMemory&) = delete;
    GuardedMemory& operator=(const GuardedMemory&) = delete;

  private:
    struct Area {
        void* start;
        std::size_t bytes;
    };

    // A page that cannot be touched, the memory at the end of its pages, and another such page.
    int64_t take(int64_t wanted)
    {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const auto bytes = static_cast<std::size_t>(wanted);
        const std::size_t inner = (bytes + page - 1) / page * page;
        const Area area = {
            mmap(nullptr, inner + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0),
            inner + 2 * page};
        char* const memory = static_cast<char*>(area.start) + page;
        mprotect(memory, inner, PROT_READ | PROT_WRITE);
        const auto result =
            static_cast<int64_t>(reinterpret_cast<intptr_t>(memory + inner - bytes));
        held_[result] = area;
        return result;
    }

    int64_t give(int64_t memory)
    {
        const Area area = held_[memory];
        mprotect(area.start, area.bytes, PROT_NONE);
        given_.push_back(area);
        held_.erase(memory);
        return 0;
    }

    std::map<int64_t, Area> held_;
    std::vector<Area> given_;
    ScopedFault malloc_;
    ScopedFault free_;
};

}  // namespace rmtest

#endif
