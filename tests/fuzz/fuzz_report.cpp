// Memory reports of heaps that the input makes, with any flags, tag and title, beside the models of
// the tests: one says what lies where, the other which lines that makes.
//
// Input: a byte that says how segments are got, then one for each call with what it needs behind
// it.
#include "fuzz.h"
#include "tests/models/allocator_model.h"
#include "tests/models/report_model.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <array>
#include <cerrno>

namespace
{
using rmfuzz::Input;
using rmtest::AllocatorModel;
using rmtest::ReportModel;

constexpr int kMostCalls = 120;
constexpr std::size_t kMostBlocks = 60;
constexpr std::size_t kMostTags = 12;

enum Call : uint8_t {
    kTake,
    kTakeToo,
    kGive,
    kExtend,
    kMakeTag,
    kFreeTag,
    kName,
    kReport,
    kReportToo,
    kCalls,
};

// In a text of the log, what would be another line.
std::string oneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

class Heap
{
  public:
    explicit Heap(Input& input) : input_(input), model_(sizeof(rmalloc::TagRecord))
    {
        const bool exact = input.byte() % 2 == 1;
        rmfuzz::beginAnew(exact);
        model_.setExactSegments(exact);
        rmfuzz::takeLog();
    }

    void step()
    {
        const auto call = static_cast<Call>(input_.byte() % kCalls);
        switch (call) {
            case kGive:
                give();
                break;
            case kExtend:
                extend();
                break;
            case kMakeTag:
                makeTag();
                break;
            case kFreeTag:
                freeTag();
                break;
            case kName:
                name();
                break;
            case kReport:
            case kReportToo:
                report();
                break;
            default:
                take();
                break;
        }
        facts_.resize(model_.tags().size());
    }

  private:
    struct Block {
        void* pointer;
        AllocatorModel::Block name;
        int16_t tag;
    };

    struct Facts {
        std::string name;
        uint32_t limit = RM_NO_LIMIT;
    };

    uint32_t size()
    {
        const uint8_t first = input_.byte();
        return first < 220 ? first : static_cast<uint16_t>(input_.int16());
    }

    // One in use.
    int16_t tag()
    {
        const auto count = std::max<std::size_t>(1, model_.tags().size());
        const std::size_t tag = input_.byte() % count;
        return tag < model_.tags().size() && model_.tags()[tag].inUse ? static_cast<int16_t>(tag)
                                                                      : int16_t{0};
    }

    void take()
    {
        const int16_t owner = tag();
        const uint32_t bytes = size();
        if (blocks_.size() < kMostBlocks) {
            blocks_.push_back({rm_getMemory(bytes, owner), ++lastName_, owner});
            FUZZ_CHECK(model_.take(owner, bytes, lastName_));
        }
    }

    void give()
    {
        if (!blocks_.empty()) {
            const auto at =
                blocks_.begin() + static_cast<std::ptrdiff_t>(input_.byte() % blocks_.size());
            rm_freeMemory(at->pointer, at->tag);
            model_.give(at->tag, at->name);
            blocks_.erase(at);
        }
    }

    void extend()
    {
        if (!blocks_.empty()) {
            Block& block = blocks_[input_.byte() % blocks_.size()];
            const uint32_t bytes = size();
            block.pointer = rm_extendMemory(block.pointer, bytes, block.tag);
            model_.extend(block.tag, block.name, bytes);
        }
    }

    void makeTag()
    {
        if (model_.tags().size() >= kMostTags) {
            return;
        }
        const uint32_t limit = static_cast<uint32_t>(input_.int16()) * 65'537U;
        const auto segments = static_cast<uint32_t>(104 + 8 * input_.byte());
        const int16_t made = rm_allocTag(nullptr, limit);
        FUZZ_CHECK(model_.allocTag() == made);
        rm_setTagAlloc(segments, made);
        model_.setSegmentSize(made, segments);
        facts_.resize(model_.tags().size());
        facts_[static_cast<std::size_t>(made)] = {"", limit};
    }

    void freeTag()
    {
        const int16_t owner = tag();
        if (model_.tags().empty()) {
            return;
        }
        const bool release = owner != 0 && input_.byte() % 2 == 1;
        rm_freeTagMemory(owner, release ? 1 : 0);
        model_.freeTag(owner, release);
        std::erase_if(blocks_, [owner](const Block& block) { return block.tag == owner; });
        facts_[static_cast<std::size_t>(owner)].name.clear();
    }

    void name()
    {
        const int16_t owner = tag();
        const std::string text = oneLine(input_.text());
        if (owner != 0) {
            rm_setTagName(text.c_str(), owner);
            FUZZ_CHECK(model_.take(owner, static_cast<uint32_t>(text.size()) + 1, ++lastName_));
            facts_[static_cast<std::size_t>(owner)].name = text;
        }
    }

    // The heap as the allocator's model has it; only the addresses of segments are the library's.
    ReportModel described() const
    {
        std::vector<ReportModel::Tag> tags;
        for (std::size_t i = 0; i < model_.tags().size(); ++i) {
            const AllocatorModel::Tag& from = model_.tags()[i];
            ReportModel::Tag tag{from.inUse, facts_[i].name, facts_[i].limit, from.allocated, {}};
            const rmalloc::Segment* segment = rmalloc::tagTable[i].segments;
            for (const AllocatorModel::Segment& one : from.segments) {
                FUZZ_CHECK(segment != nullptr);
                tag.segments.push_back(
                    {reinterpret_cast<uintptr_t>(segment) + ReportModel::kAnchorInSegment,
                     one.units,
                     one.live,
                     {{0, false}}});
                for (const AllocatorModel::Piece& piece : one.pieces) {
                    tag.segments.back().pieces.push_back(
                        {piece.units, piece.block != AllocatorModel::kFree});
                }
                segment = segment->next;
            }
            tags.push_back(tag);
        }
        return ReportModel(tags);
    }

    void report()
    {
        const int16_t flags = input_.int16();
        const auto about = static_cast<int16_t>(input_.byte() % 16 == 15 ? input_.int16()
                                                                         : input_.byte() % 16 - 1);
        const rmfuzz::Text title(oneLine(input_.text()));
        const bool hasTitle = !title.original().empty();
        errno = ENOENT;  // a title may ask for it
        rm_memReport(flags, about, hasTitle ? "%s" : nullptr, title.get());
        FUZZ_CHECK(title.unchanged());
        // Deliberate: expanded a second time, over zeros. What that makes is another target's.
        std::array<char, rmsrv::kLogMessageSize> expanded{};
        const std::string cut = title.original().substr(0, expanded.size() - 1);
        errno = ENOENT;
        rmsrv::expandOverZeros(expanded.data(), expanded.size(), cut.c_str());
        FUZZ_CHECK(rmfuzz::takeLines() == described().lines(flags, about, expanded.data()));
    }

    Input& input_;
    AllocatorModel model_;
    std::vector<Block> blocks_;
    std::vector<Facts> facts_;
    AllocatorModel::Block lastName_ = 0;
};
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    Heap heap(input);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        heap.step();
    }
}
