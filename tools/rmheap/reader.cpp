// Puts the reports of a log together.
//
// Why: between the lines of a report stand those of other processes, and the report that one wants
// to see most is that of a server that ended in the middle of it. So nothing is taken for granted
// but the order in which a report is written: a line that has no place in it is counted and left
// out.
//
// Owns: the report that is being read. What was read before has been given away.
#include "reader.h"

#include "text.h"

#include <algorithm>
#include <utility>

namespace rmheap
{
namespace
{
// What is kept of one report. A log that is damaged can go on for ever.
constexpr std::size_t kMostBlocks = std::size_t{1} << 25;
constexpr std::size_t kMostSegments = std::size_t{1} << 20;
constexpr std::size_t kMostTags = std::size_t{1} << 16;
constexpr std::size_t kMostWarnings = 10000;
constexpr std::size_t kMostHeld = 600;  // bytes: two lines of a log
constexpr std::size_t kCutLine = 250;   // bytes; a line of a log ends with its 259th
constexpr std::size_t kNowhere = SIZE_MAX;

// Kinds that begin a report whose heading is missing.
bool opensReport(Kind kind)
{
    switch (kind) {
        case Kind::kOther:
        case Kind::kFree:
        case Kind::kTagSegments:
        case Kind::kTagCount:
        case Kind::kTagBroken:
        case Kind::kHeading:
        case Kind::kDone:
            return false;
        default:
            return true;
    }
}
}  // namespace

void Reader::beginFile(const std::string& name)
{
    file_ = name;
    line_ = 0;
}

void Reader::open()
{
    report_ = {};
    report_.number = ++reports_;
    report_.file = file_;
    report_.line = line_;
    report_.time = printable(time_);
    isOpen_ = true;
    expected_ = Expected::kNothing;
    tag_ = kNowhere;
    inSegment_ = false;
    leftOut_ = false;
    segments_ = 0;
    unowned_ = 0;
    places_.clear();
}

void Reader::close()
{
    if (isOpen_) {
        isOpen_ = false;
        take_(std::move(report_));
        report_ = {};
    }
}

void Reader::end()
{
    dropHeld();
    close();
}

// The line of a tag that has no end: it was longer than a line of a log can be, or is damaged.
void Reader::dropHeld()
{
    if (held_.empty()) {
        return;
    }
    const Line line = classify(held_);
    if (isOpen_) {
        if (held_.size() < kCutLine) {
            ++report_.unreadable;
        } else {
            report_.anything = true;
            enter(tagOf(line.tag, line.name, true));
        }
    }
    held_.clear();
}

void Reader::line(std::string_view bytes)
{
    ++line_;
    const Message message = messageOf(bytes);
    const Line line = classify(message.text);
    const bool stamped = !message.time.empty();
    time_ = message.time;
    // A log that was stamped has the title, were it empty; elsewhere empty lines may have gone.
    if (isOpen_ && expected_ == Expected::kTitle && line.kind != Kind::kHeading &&
        (stamped || line.kind == Kind::kOther)) {
        takeTitle(message);
        return;
    }
    if (!held_.empty() && !stamped && line.kind == Kind::kOther && held_.size() < kMostHeld) {
        // A name with a newline in it.
        held_ += '\n';
        held_ += message.text.substr(0, kMostHeld);
        const std::string whole = held_;
        const Line joined = classify(whole);
        if (joined.kind != Kind::kTagBroken) {
            held_.clear();
            apply(joined);
        }
        return;
    }
    dropHeld();
    if (line.kind == Kind::kTagBroken) {
        if (isOpen_) {
            held_ = message.text;
        }
        return;
    }
    if (line.kind != Kind::kOther) {
        apply(line);
    }
}

void Reader::takeTitle(const Message& message)
{
    report_.title = printable(message.text);
    expected_ = Expected::kNothing;
}

void Reader::apply(const Line& line)
{
    if (line.kind == Kind::kHeading) {
        close();
        open();
        report_.headed = true;
        expected_ = Expected::kTitle;
        return;
    }
    if (!isOpen_ && (line.kind == Kind::kDone || opensReport(line.kind))) {
        open();
    }
    if (!isOpen_) {
        return;
    }
    if (line.kind == Kind::kDone) {
        report_.ended = true;
        close();
        return;
    }
    report_.anything = true;
    if (expected_ == Expected::kTitle) {
        expected_ = Expected::kNothing;
    }
    applyToTag(line);
}

void Reader::applyToTag(const Line& line)
{
    switch (line.kind) {
        case Kind::kTableHeading:
            report_.table = true;
            break;
        case Kind::kTagHead:
            takeHead(line);
            break;
        case Kind::kTagRow:
            takeRow(line);
            break;
        case Kind::kTagUsed:
            inSegment_ = false;
            expected_ = Expected::kTagFree;
            leftOut_ = leftOut_ && current() == nullptr;
            if (leftOut_) {
                ++report_.notKept;
            } else if (current() == nullptr || current()->used) {
                ++report_.misplaced;
            } else {
                current()->used = Count{line.first, line.second};
            }
            break;
        case Kind::kTagSegments:
            if (leftOut_) {
                ++report_.notKept;
            } else if (expected_ != Expected::kTagSegments || current() == nullptr) {
                ++report_.misplaced;
            } else {
                current()->segmentCount = line.first;
                expected_ = Expected::kNothing;
            }
            break;
        default:
            applyToSegment(line);
            break;
    }
}

void Reader::applyToSegment(const Line& line)
{
    Segment* segment = currentSegment();
    switch (line.kind) {
        case Kind::kSegment:
            takeSegment(line);
            break;
        case Kind::kBlock:
            takeBlock(line);
            break;
        case Kind::kSegmentUsed:
            expected_ = Expected::kSegmentFree;
            if (leftOut_) {
                ++report_.notKept;
            } else if (segment == nullptr || segment->used) {
                ++report_.misplaced;
            } else {
                segment->used = Count{line.first, line.second};
            }
            break;
        case Kind::kFree:
            takeFree(line);
            break;
        case Kind::kBlockMismatch:
        case Kind::kUnitMismatch:
        case Kind::kByteMismatch:
            takeMismatch(line);
            break;
        case Kind::kChainBroken:
            takeWarning({Mismatch::kChain, line.tag, line.address, 0, 0});
            break;
        default:
            applyTotals(line);
            break;
    }
}

void Reader::applyTotals(const Line& line)
{
    bool twice = false;
    switch (line.kind) {
        case Kind::kTotalUsed:
            twice = report_.used.has_value();
            report_.used = Count{line.first, line.second};
            expected_ = Expected::kTotalFree;
            enter(kNowhere);
            break;
        case Kind::kTagCount:
            twice = report_.tagCount.has_value();
            report_.tagCount = line.first;
            break;
        case Kind::kTotalRow:
            twice = report_.row.has_value();
            report_.row = Row{{line.first, line.second}, {line.third, line.fourth}, line.fifth};
            enter(kNowhere);
            break;
        default:
            break;
    }
    report_.misplaced += twice ? 1 : 0;
}

// What comes now is of this tag, and of no segment yet.
void Reader::enter(std::size_t tag)
{
    tag_ = tag;
    inSegment_ = false;
    leftOut_ = false;
}

// The same; nullptr: of a tag that is not kept.
void Reader::enter(const Tag* tag)
{
    enter(tag != nullptr ? static_cast<std::size_t>(tag - report_.tags.data()) : kNowhere);
    leftOut_ = tag == nullptr;
}

Tag* Reader::current()
{
    return tag_ < report_.tags.size() ? &report_.tags[tag_] : nullptr;
}

Segment* Reader::currentSegment()
{
    Tag* tag = current();
    return inSegment_ && tag != nullptr && !tag->segments.empty() ? &tag->segments.back() : nullptr;
}

// A new tag; nullptr: there are too many, the line is left out.
Tag* Reader::addTag()
{
    if (report_.tags.size() >= kMostTags) {
        ++report_.notKept;
        return nullptr;
    }
    return &report_.tags.emplace_back();
}

// Says whether the segment is kept, and what comes now is of it; otherwise the line is left out.
bool Reader::addSegment(Tag& tag, const Segment& segment)
{
    inSegment_ = segments_ < kMostSegments;
    leftOut_ = !inSegment_;
    if (leftOut_) {
        ++report_.notKept;
        return false;
    }
    ++segments_;
    tag.segments.push_back(segment);
    return true;
}

// The tag of that number, made when it is not there; nullptr: it is not kept.
Tag* Reader::tagOf(int number, std::string_view name, bool broken)
{
    Tag* tag = current();
    const auto found = places_.find(number);
    if (found != places_.end()) {
        tag = &report_.tags[found->second];
    } else {
        if (tag == nullptr || tag->number != kNoTag) {  // otherwise its beginning is missing
            tag = addTag();
        }
        if (tag == nullptr) {
            return nullptr;
        }
        tag->number = number;
        places_[number] = static_cast<std::size_t>(tag - report_.tags.data());
    }
    tag->cut |= broken;
    if (tag->name.empty()) {
        tag->name = printable(name) + (broken ? "..." : "");
    }
    return tag;
}

void Reader::takeHead(const Line& line)
{
    Tag* before = current();
    if (before != nullptr && before->number == kNoTag) {
        enter(kNowhere);  // that one has ended
    }
    Tag* tag = tagOf(line.tag, line.name, false);
    enter(tag);
    if (tag == nullptr) {
        return;
    }
    if (tag->headed || tag->used || tag->row) {
        ++report_.misplaced;
        return;
    }
    tag->headed = true;
    tag->limit = line.limit;
    tag->kept = line.first;
}

void Reader::takeRow(const Line& line)
{
    Tag* tag = tagOf(line.tag, line.name, false);
    enter(tag);
    report_.table = true;
    for (; unowned_ < report_.warnings.size(); ++unowned_) {
        if (report_.warnings[unowned_].tag == kNoTag) {
            report_.warnings[unowned_].tag = line.tag;
        }
    }
    if (tag == nullptr) {
        return;
    }
    if (tag->row) {
        ++report_.misplaced;
        return;
    }
    tag->row = Row{{line.first, line.second}, {line.third, line.fourth}, line.fifth};
}

void Reader::takeSegment(const Line& line)
{
    if (current() == nullptr && leftOut_) {
        ++report_.notKept;
        return;
    }
    if (current() == nullptr) {
        enter(addTag());
    }
    Tag* tag = current();
    if (tag == nullptr) {
        return;
    }
    if (tag->used || tag->row) {
        ++report_.misplaced;
    }
    Segment segment;
    segment.address = line.address;
    segment.size = line.first;
    segment.headed = true;
    segment.firstBlock = segment.lastBlock = report_.blocks.size();
    addSegment(*tag, segment);
}

void Reader::takeBlock(const Line& line)
{
    report_.blocksListed = true;
    if (leftOut_ || report_.blocks.size() >= kMostBlocks) {
        ++report_.notKept;
        return;
    }
    if (current() == nullptr) {
        enter(addTag());
    }
    Tag* tag = current();
    if (tag == nullptr) {
        return;
    }
    if (tag->number == kNoTag && !places_.contains(line.tag)) {
        tag->number = line.tag;
        places_[line.tag] = tag_;
    }
    if (tag->number != line.tag || (!inSegment_ && !tag->segments.empty())) {
        ++report_.misplaced;
        return;
    }
    if (!inSegment_) {
        Segment segment;
        segment.address = line.address;
        segment.firstBlock = report_.blocks.size();
        if (!addSegment(*tag, segment)) {
            return;
        }
    }
    report_.blocks.push_back({line.address, static_cast<uint32_t>(line.first), line.used});
    report_.freeListed |= !line.used;
    tag->segments.back().lastBlock = report_.blocks.size();
}

void Reader::takeFree(const Line& line)
{
    const Count count = {line.first, line.second};
    const Expected expected = std::exchange(expected_, Expected::kNothing);
    Segment* segment = currentSegment();
    Tag* tag = current();
    if (leftOut_ && (expected == Expected::kSegmentFree || expected == Expected::kTagFree)) {
        ++report_.notKept;
    } else if (expected == Expected::kSegmentFree && segment != nullptr && !segment->free) {
        segment->free = count;
    } else if (expected == Expected::kTagFree && tag != nullptr && !tag->free) {
        tag->free = count;
        expected_ = Expected::kTagSegments;
    } else if (expected == Expected::kTotalFree && !report_.free) {
        report_.free = count;
    } else {
        ++report_.misplaced;
    }
}

void Reader::takeWarning(const Warning& warning)
{
    if (report_.warnings.size() >= kMostWarnings) {
        ++report_.moreWarnings;
    } else {
        report_.warnings.push_back(warning);
    }
}

void Reader::takeMismatch(const Line& line)
{
    Warning warning = {};
    warning.kind = line.kind == Kind::kBlockMismatch  ? Mismatch::kSegmentBlocks
                   : line.kind == Kind::kUnitMismatch ? Mismatch::kSegmentBytes
                                                      : Mismatch::kTagBytes;
    const uint64_t scale = line.kind == Kind::kUnitMismatch ? kUnit : 1;
    warning.stored = line.first * scale;
    warning.found = line.second * scale;
    warning.tag = kNoTag;
    // In a report of the table alone the line of the tag comes behind its warnings.
    const Tag* tag = current();
    if (tag != nullptr && !tag->row) {
        warning.tag = tag->number;
        const Segment* segment = currentSegment();
        warning.segment = segment != nullptr && warning.kind != Mismatch::kTagBytes
                              ? segment->address
                              : uint64_t{0};
    }
    takeWarning(warning);
}

}  // namespace rmheap
