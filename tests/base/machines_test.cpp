// What is the same on every machine, and what a pointer's width changes. The first are the figures
// that hosts see and other processes read: a heap is laid out alike and its report is the same
// text, whatever the order of bytes and the size of a word. The second are the records, whose
// fields stand at the places of a 32-bit machine wherever a pointer has 4 bytes.
#include "tests/rmalloc/report_case.h"

#include "rm/bag.h"
#include "rm/darray.h"
#include "rm/ems.h"
#include "rm/ffbag.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <cstddef>
#include <cstring>

namespace rmtest
{

namespace
{

constexpr bool kNarrow = sizeof(void*) == 4;
constexpr std::size_t kPointer = sizeof(void*);

// `bytes` where pointers have 4 bytes; elsewhere anything.
constexpr bool isWhenNarrow(std::size_t value, std::size_t bytes)
{
    return !kNarrow || value == bytes;
}

// --- Everywhere

static_assert(sizeof(rmalloc::BlockHeader) == 8);
static_assert(offsetof(rmalloc::BlockHeader, word1) == 0);
static_assert(offsetof(rmalloc::BlockHeader, units) == 4);
static_assert(sizeof(rmalloc::Segment) == 24);
static_assert(offsetof(rmalloc::Segment, anchor) == 16);

static_assert(offsetof(ffbag::Area, reserved) == 0);
static_assert(offsetof(ffbag::Area, capacity) == 4);
static_assert(offsetof(ffbag::Area, count) == 6);
static_assert(offsetof(ffbag::Area, next) == 8);
static_assert(offsetof(ffbag::Area, elementSize) == 10);
static_assert(offsetof(ffbag::Area, data) == 12);
static_assert(sizeof(ffbag::Area) == 16);

static_assert(offsetof(os::QueueMessage, code) - sizeof(long) == 0);
static_assert(offsetof(os::QueueMessage, length) - sizeof(long) == 2);
static_assert(offsetof(os::QueueMessage, data) - sizeof(long) == 4);
static_assert(os::kMessageBytes == 32776);

static_assert(sizeof(BagCtl) == 20);
static_assert(offsetof(BagCtl, keyOffset) == 12);
static_assert(offsetof(BagCtl, keyLength) == 16);

// --- Where pointers have 4 bytes

static_assert(isWhenNarrow(offsetof(rmalloc::Segment, units), 4));
static_assert(isWhenNarrow(offsetof(rmalloc::Segment, blocks), 8));

static_assert(isWhenNarrow(sizeof(os::GshmSlot), 16));
static_assert(isWhenNarrow(offsetof(os::GshmSlot, name), 8));
static_assert(isWhenNarrow(offsetof(os::GshmSlot, address), 12));
static_assert(isWhenNarrow(sizeof(os::QueueSlot), 16));
static_assert(isWhenNarrow(offsetof(os::QueueSlot, buffer), 8));
static_assert(isWhenNarrow(offsetof(os::QueueSlot, name), 12));
static_assert(isWhenNarrow(offsetof(os::QueueMessage, code), 4));
static_assert(isWhenNarrow(offsetof(os::QueueMessage, length), 6));
static_assert(isWhenNarrow(offsetof(os::QueueMessage, data), 8));

static_assert(isWhenNarrow(sizeof(rmutil::PoolElement), 4));
static_assert(isWhenNarrow(sizeof(RmPool), 24));
static_assert(isWhenNarrow(offsetof(FileStream, buffer), 12));

static_assert(isWhenNarrow(offsetof(file::FileEntry, fd), 4));
static_assert(isWhenNarrow(offsetof(file::FileEntry, stream), 8));
static_assert(isWhenNarrow(offsetof(file::FileEntry, position), 12));
static_assert(isWhenNarrow(offsetof(file::FileEntry, knownSize), 24));
static_assert(isWhenNarrow(offsetof(file::FileEntry, seekSem), 28));
static_assert(isWhenNarrow(offsetof(file::FileEntry, openFlags), 32));
static_assert(isWhenNarrow(offsetof(file::FileEntry, modeFlags), 36));
static_assert(isWhenNarrow(offsetof(file::FileEntry, recentlyUsed), 40));

static_assert(isWhenNarrow(sizeof(Bag), 20));
static_assert(isWhenNarrow(offsetof(Bag, slotCount), 4));
static_assert(isWhenNarrow(offsetof(Bag, nextSlot), 10));
static_assert(isWhenNarrow(offsetof(Bag, data), 12));
static_assert(isWhenNarrow(offsetof(Bag, slotMap), 16));
static_assert(isWhenNarrow(sizeof(ems::EmRec), 12));
static_assert(isWhenNarrow(sizeof(ems::EmFcnRec), 8));
static_assert(isWhenNarrow(sizeof(EmListEntry), 16));
static_assert(isWhenNarrow(sizeof(UdpListEntry), 16));
static_assert(isWhenNarrow(sizeof(darrays::Entry), 8));
static_assert(isWhenNarrow(sizeof(darrays::Block), 12));

class Machines : public HeapTest
{
  protected:
    // The units of a live block, as the word in front of it says.
    static uint32_t unitsOf(void* block) { return rmalloc::headerOf(block)->units; }
};
}  // namespace

TEST_F(Machines, CountAPoolElementWithItsLinkWord)
{
    RmPool* pool = rm_allocPool(0, 1, nullptr, 0);
    void* element = rm_getFromPool(16, pool);
    void* block = static_cast<char*>(element) - kPointer;
    EXPECT_EQ(unitsOf(block), (16 + kPointer + 7) / 8 + 1);
    rm_putInPool(element, pool);
    rm_zFreePool(&pool);
}

TEST_F(Machines, CountAPointerForEachWordOfAText)
{
    char text[] = "one two three";
    char** words = nullptr;
    int count = 0;
    ASSERT_EQ(StrToArgv(text, &count, &words, 1), RM_SUCCESS);
    EXPECT_EQ(unitsOf(words), (3 * kPointer + 7) / 8 + 1);
    rm_freeMemory(words, 1);
}

TEST_F(Machines, TakeTheSizesOfTheRegistrysElementsFromThePointers)
{
    EXPECT_EQ(ems::EmBagCtl.elementSize, 3 * kPointer);
    EXPECT_EQ(ems::EmFcnBagCtl.elementSize, 2 * kPointer);
}

TEST_F(Machines, KeepAMessageInTheOrderOfItsFields)
{
    os::QueueMessage message{};
    message.code = 0x0102;
    message.length = 0x0304;
    message.data[0] = 'x';
    char bytes[5];
    std::memcpy(bytes, reinterpret_cast<const char*>(&message) + sizeof(long), sizeof(bytes));
    uint16_t first = 0;
    uint16_t second = 0;
    std::memcpy(&first, bytes, sizeof(first));
    std::memcpy(&second, bytes + 2, sizeof(second));
    EXPECT_EQ(first, 0x0102);
    EXPECT_EQ(second, 0x0304);
    EXPECT_EQ(bytes[4], 'x');
}

// A server's heap in small: tags of several segment sizes, blocks of many sizes, some given back,
// some resized, a tag released. The text below is what each machine has to write of it.
TEST_F(Machines, WriteTheSameReportOfTheSameHeap)
{
    const int16_t records = rm_allocTag(nullptr, 1'000'000);
    rm_setTagName("records", records);
    const int16_t large = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_setTagName("large", large);
    rm_setTagAlloc(65'536, large);
    const int16_t gone = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_getMemory(5000, gone);

    std::vector<void*> blocks;
    for (uint32_t i = 0; i < 400; ++i) {
        blocks.push_back(rm_getMemory(10 + i * 37 % 211, records));
        blocks.push_back(rm_getMemory(100 + i * 101 % 1999, large));
    }
    for (std::size_t i = 0; i < blocks.size(); i += 6) {
        rm_freeMemory(blocks[i], i % 2 == 0 ? records : large);
        blocks[i] = nullptr;
    }
    for (std::size_t i = 1; i < blocks.size(); i += 10) {
        blocks[i] = rm_extendMemory(blocks[i], 1500 + static_cast<uint32_t>(i) * 2, large);
    }
    rm_getMemory(0, 1);
    rm_cGetMemory(8185, 1);
    rm_freeTagMemory(gone, 1);

    EXPECT_EQ(report(0x0044), Lines({
                                  "--------VIRLO MEMORY REPORT--------",
                                  "",
                                  "       allocated/blocks     freed/blocks  segs",
                                  "TAG  0(          ):        0/    0 :        0/    0 :   0",
                                  "TAG  1(   records):    41720/  269 :    23656/  137 :   8",
                                  "TAG  2(     large):   539096/  401 :   124192/   88 :  11",
                                  "TAG  3(          ):        0/    0 :        0/    0 :   0",
                                  "TOTAL: 580816 allocated bytes in 670 blocks,",
                                  "       147848 free bytes in 225 blocks",
                                  "       System contains 4 active tags",
                                  "TOTAL :   580816/  670 :   147848/  225 :   4",
                                  "MEMORY REPORT DONE",
                              }));
}

}  // namespace rmtest
