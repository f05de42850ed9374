// What a report says, put together: the figures of each tag, the pieces of each segment, and where
// the report contradicts itself.
#ifndef RMHEAP_FIGURES_H
#define RMHEAP_FIGURES_H

#include "report.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rmheap
{

using Figure = std::optional<uint64_t>;  // nothing: the report does not say

struct Figures {
    Figure bytes;   // in used blocks, their headers included
    Figure blocks;  // used
    Figure segments;
    Figure free;  // bytes
    Figure freeBlocks;
    Figure largest;  // bytes of the largest free block
};

// Share of the free space that is not in the largest free block, 0 to 1.
std::optional<double> fragmentation(const Figures& figures);

// A share as it is printed: "0%" and "100%" only when it is none, and all; "-" when it is not
// known.
std::string percent(const std::optional<double>& share);

enum class PieceKind {
    kUsed,
    kFree,  // listed as such, or where free blocks are not listed, between used ones
    kLost,  // where the report has no sense
};

struct Piece {
    uint64_t offset;  // from the beginning of the data area
    uint64_t size;
    PieceKind kind;
};

struct SegmentPieces {
    uint64_t start = 0;         // address of the data area
    uint64_t size = 0;          // bytes of it
    std::vector<Piece> pieces;  // in order; they fill it
    Count used = {};            // as listed
    Count free = {};
    uint64_t largestFree = 0;
    bool listed = false;  // the blocks were; without, there are no pieces
    std::string trouble;  // what is wrong with the list; empty when nothing is
};

SegmentPieces piecesOf(const Report& report, const Segment& segment);

// "tag 3 (sessions)".
std::string nameOf(const Tag& tag);
std::string nameOf(const Report& report, int tag);

// Several texts of a kind, at most so many of them.
struct Findings {
    std::vector<std::string> texts;
    uint64_t more = 0;

    void add(std::string text);

    bool empty() const { return texts.empty(); }

    uint64_t count() const { return texts.size() + more; }
};

struct Analysis {
    std::vector<Figures> tags;  // as Report::tags
    Figures total;              // of the report: as it says, or added up
    std::optional<uint64_t> tagCount;
    Findings damage;                 // what the library found wrong with the heap
    Findings doubts;                 // what does not hold in the report
    std::vector<std::string> notes;  // what the report did not contain
    int status = 0;
};

Analysis analyse(const Report& report);

}  // namespace rmheap

#endif
