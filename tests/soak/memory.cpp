// Tagged memory and its reports.
//
// Why: whatever the order of requests, a block keeps its bytes until it is given back, nobody else
// gets them, and a tag knows what it has. The model is a list of blocks, each filled with bytes
// that follow from its seed, and what a report has to say about their tag is the sum of their
// sizes.
#include "soak.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstdio>
#include <cstring>

namespace soak
{
namespace
{
constexpr uint32_t kMostBlocks = 400;
constexpr uint32_t kMostTags = 6;
constexpr uint32_t kHeader = 8;
constexpr uint32_t kUnit = 8;

struct Block {
    unsigned char* address;
    uint32_t size;
    uint64_t seed;
    uint32_t tag;  // index in `tags`
};

struct OwnTag {
    int16_t number;
    uint32_t limit;
    uint32_t names;      // blocks with its names
    uint32_t nameBytes;  // in them, headers included
};

std::vector<Block> blocks;
std::vector<OwnTag> tags;

uint32_t bytesOf(uint32_t size)
{
    return (size + kUnit - 1) / kUnit * kUnit + kHeader;
}

uint32_t anySize()
{
    switch (plan.below(8)) {
        case 0:
            return plan.below(9);
        case 1:
            return 500 + plan.below(8000);
        case 2:
            return plan.once(8) ? 8192 + plan.below(60'000) : 100;
        default:
            return plan.below(300);
    }
}

void look(const Block& block)
{
    SOAK_CHECK(isFilled(block.address, block.size, block.seed), "a block of %u bytes was changed",
               block.size);
}

void newTag()
{
    OwnTag tag = {};
    tag.limit = plan.once(2) ? RM_NO_LIMIT : 10'000 + plan.below(1'000'000);
    tag.number = rm_allocTag(nullptr, tag.limit);
    SOAK_CHECK(tag.number >= 1, "a tag is %d", tag.number);
    if (plan.once(2)) {
        rm_setTagAlloc(512 + kUnit * plan.below(2000), tag.number);
    }
    tags.push_back(tag);
}

void addBlock(void* address, uint32_t size, uint32_t tag)
{
    SOAK_CHECK(address != nullptr && reinterpret_cast<uintptr_t>(address) % kUnit == 0,
               "%u bytes stand at %p", size, address);
    const Block block = {static_cast<unsigned char*>(address), size, plan.next(), tag};
    fill(block.address, size, block.seed);
    blocks.push_back(block);
}

void allocate()
{
    if (blocks.size() >= kMostBlocks) {
        return;
    }
    const uint32_t tag = plan.below(static_cast<uint32_t>(tags.size()));
    const int16_t number = tags[tag].number;
    const uint32_t size = anySize();
    switch (plan.below(4)) {
        case 0: {
            const auto* const bytes = static_cast<unsigned char*>(rm_cGetMemory(size, number));
            for (uint32_t i = 0; i < size; ++i) {
                SOAK_CHECK(bytes[i] == 0, "byte %u of %u is not cleared", i, size);
            }
            addBlock(const_cast<unsigned char*>(bytes), size, tag);
            break;
        }
        case 1: {
            const std::string text = plan.text(plan.below(90));
            char* const copy = rm_Strdup(text.c_str(), number);
            SOAK_CHECK(text == copy, "a copy of \"%s\" is \"%.100s\"", text.c_str(), copy);
            addBlock(copy, static_cast<uint32_t>(text.size()) + 1, tag);
            break;
        }
        default:
            addBlock(rm_getMemory(size, number), size, tag);
    }
}

void forget(std::size_t index)
{
    blocks[index] = blocks.back();
    blocks.pop_back();
}

void release(std::size_t index)
{
    Block block = blocks[index];
    look(block);
    if (plan.once(2)) {
        rm_freeMemory(block.address, tags[block.tag].number);
    } else {
        rm_zFreeMemory(static_cast<void*>(&block.address), tags[block.tag].number);
        SOAK_CHECK(block.address == nullptr, "a freed pointer is still %p",
                   static_cast<void*>(block.address));
    }
    forget(index);
}

void resize(Block& block)
{
    look(block);
    const uint32_t size = anySize();
    const int16_t tag = tags[block.tag].number;
    if (plan.once(3)) {
        // The contents are lost when it grows, and it never shrinks.
        void* const before = block.address;
        block.address = static_cast<unsigned char*>(rm_growMemory(block.address, size, tag));
        SOAK_CHECK(block.address != nullptr, "a block cannot grow to %u bytes", size);
        if (bytesOf(size) <= bytesOf(block.size)) {
            SOAK_CHECK(block.address == before, "a block of %u bytes moved for %u", block.size,
                       size);
            look(block);
            return;
        }
    } else {
        const uint32_t kept = std::min(size, block.size);
        block.address = static_cast<unsigned char*>(rm_extendMemory(block.address, size, tag));
        SOAK_CHECK(block.address != nullptr, "a block cannot be extended to %u bytes", size);
        SOAK_CHECK(isFilled(block.address, kept, block.seed),
                   "%u bytes of a block are not what they were before it got %u", kept, size);
    }
    block.size = size;
    fill(block.address, size, block.seed);
}

// All blocks of a tag at once.
void releaseTag()
{
    const uint32_t index = plan.below(static_cast<uint32_t>(tags.size()));
    for (std::size_t i = blocks.size(); i-- > 0;) {
        if (blocks[i].tag == index) {
            look(blocks[i]);
            forget(i);
        }
    }
    const bool whole = plan.once(2);
    rm_freeTagMemory(tags[index].number, whole ? 1 : 0);
    tags[index].names = tags[index].nameBytes = 0;
    if (whole) {
        const uint32_t last = static_cast<uint32_t>(tags.size()) - 1;
        for (Block& block : blocks) {
            block.tag = block.tag == last ? index : block.tag;
        }
        tags[index] = tags[last];
        tags.pop_back();
        newTag();
    }
}

void nameTag()
{
    OwnTag& tag = tags[plan.below(static_cast<uint32_t>(tags.size()))];
    if (tag.names > 20) {
        return;
    }
    const std::string name = plan.text(1 + plan.below(10));
    const char* const copy = rm_setTagName(name.c_str(), tag.number);
    SOAK_CHECK(name == copy, "tag %d is named \"%.20s\"", tag.number, copy);
    ++tag.names;
    tag.nameBytes += bytesOf(static_cast<uint32_t>(name.size()) + 1);
}

void rawSegment()
{
    const uint32_t size = 1 + plan.below(100'000);
    void* const segment = rm_getSeg(size);
    SOAK_CHECK(segment != nullptr, "no segment of %u bytes", size);
    fill(segment, size, size);
    SOAK_CHECK(isFilled(segment, size, size), "a segment of %u bytes", size);
    rm_freeSeg(segment);
}

struct Owned {
    uint32_t blocks;
    uint32_t bytes;
};

Owned ownedBy(uint32_t index)
{
    Owned owned = {tags[index].names, tags[index].nameBytes};
    for (const Block& block : blocks) {
        if (block.tag == index) {
            ++owned.blocks;
            owned.bytes += bytesOf(block.size);
        }
    }
    return owned;
}

void startMemory()
{
    blocks.clear();
    tags.clear();
    while (tags.size() < kMostTags) {
        newTag();
    }
}

void stepMemory()
{
    const uint32_t what = plan.below(100);
    if (what < 40 || blocks.empty()) {
        allocate();
    } else if (what < 70) {
        release(plan.below(static_cast<uint32_t>(blocks.size())));
    } else if (what < 90) {
        resize(blocks[plan.below(static_cast<uint32_t>(blocks.size()))]);
    } else if (what < 94) {
        nameTag();
    } else if (what < 97) {
        rawSegment();
    } else if (what == 97) {
        releaseTag();
    } else {
        look(blocks[plan.below(static_cast<uint32_t>(blocks.size()))]);
    }
}

void checkBlocks()
{
    for (const Block& block : blocks) {
        look(block);
    }
    for (uint32_t i = 0; i < tags.size(); ++i) {
        const Owned owned = ownedBy(i);
        if (tags[i].limit != RM_NO_LIMIT) {
            const auto left = static_cast<int64_t>(tags[i].limit) - owned.bytes;
            const int32_t said = rm_memoryAvail(tags[i].number);
            SOAK_CHECK(said == left, "tag %d has %d bytes left and not %lld", tags[i].number, said,
                       static_cast<long long>(left));
        } else {
            SOAK_CHECK(rm_memoryAvail(tags[i].number) == -1, "tag %d has a limit", tags[i].number);
        }
    }
}

void endMemory()
{
    checkBlocks();
    while (!blocks.empty()) {
        release(blocks.size() - 1);
    }
    for (const OwnTag& tag : tags) {
        rm_freeTagMemory(tag.number, 1);
    }
    tags.clear();
}

// --- Reports

// What the summary says of a tag.
bool readLine(const std::string& report, int16_t tag, Owned* said)
{
    char begin[16];
    std::snprintf(begin, sizeof begin, "TAG %2d(", tag);
    const std::size_t at = report.find(begin);
    const std::size_t colon = at == std::string::npos ? at : report.find("): ", at);
    return colon != std::string::npos &&
           std::sscanf(report.c_str() + colon, "): %u/%u", &said->bytes, &said->blocks) == 2;
}

void report()
{
    const uint32_t index = plan.below(static_cast<uint32_t>(tags.size()));
    const int16_t tag = tags[index].number;
    const bool lists = plan.once(8);
    const auto flags = static_cast<int16_t>(
        lists ? RM_REPORT_ALL | RM_REPORT_FREE | RM_REPORT_SUMMARY : RM_REPORT_SUMMARY);
    const bool alone = plan.once(2);
    rm_memReport(static_cast<int16_t>(alone ? flags | RM_REPORT_TAG : flags), tag, "soak %u", me);
    const std::string text = newLog();
    const Owned owned = ownedBy(index);
    Owned said = {};
    SOAK_CHECK(text.find("MEMORY REPORT DONE") != std::string::npos, "a report has no end");
    SOAK_CHECK(text.find("WARNING") == std::string::npos, "a report warns: %.600s",
               text.c_str() + text.find("WARNING"));
    SOAK_CHECK(readLine(text, tag, &said), "a report has no line for tag %d", tag);
    SOAK_CHECK(said.blocks == owned.blocks && said.bytes == owned.bytes,
               "a report gives tag %d %u blocks of %u bytes, and not %u of %u", tag, said.blocks,
               said.bytes, owned.blocks, owned.bytes);
}

// The calls that log where they were made from.
void loggedCalls()
{
    const int16_t tag = tags[0].number;
    const uint32_t size = plan.below(200);
    void* block = rm_LOG_getMemory(size, tag, "soak", 7);
    SOAK_CHECK(newLog() == "WARNING: Calling rm_LOG_getMemory from soak, 7\n", "a logged call");
    block = rm_LOG_extendMemory(block, size + 50, tag, "soak", 8);
    fill(block, size + 50, size);
    SOAK_CHECK(newLog() == "WARNING: Calling rm_LOG_extendMemory from soak, 8\n", "a logged call");
    rm_LOG_zFreeMemory(static_cast<void*>(&block), tag);
    SOAK_CHECK(newLog() == "WARNING: Calling rm_LOG_zFreeMemory\n" && block == nullptr,
               "a logged call");
}

// What is no block is logged, and nothing happens.
void badPointers()
{
    if (blocks.empty()) {
        return;
    }
    const Block& block = blocks[plan.below(static_cast<uint32_t>(blocks.size()))];
    unsigned char local[16] = {};
    rm_freeMemory(local, tags[block.tag].number);
    SOAK_CHECK(newLog().starts_with("WARNING: attempting to free bad pointer"), "a bad pointer");
    rm_freeMemory(block.address, tags[(block.tag + 1) % tags.size()].number);
    SOAK_CHECK(newLog().find("WARNING: pointer not found within tag segments") != std::string::npos,
               "a wrong tag");
    look(block);
}

void startReports() {}

void stepReports()
{
    switch (plan.below(4)) {
        case 0:
            loggedCalls();
            break;
        case 1:
            badPointers();
            break;
        default:
            report();
    }
}
}  // namespace

const Family kMemory = {"memory", 300, startMemory, stepMemory, checkBlocks, endMemory, false};
const Family kReports = {"memory reports", 6, startReports, stepReports, nullptr, nullptr, true};

}  // namespace soak
