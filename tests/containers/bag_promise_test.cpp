// What a bag takes from the system and in which order, where its lines go, and in which order a
// lookup asks its questions.
#include "tests/containers/bag_case.h"

#include <cstdio>

using namespace bagtest;

namespace
{

using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::readFile;

constexpr uint16_t kEveryKind[] = {kCompact, kMapped, kRing};

// The platform's memory comes as if it had been used before, for as long as this lives.
class DirtyMemory
{
  private:
    ScopedFault fault_{
        {.call = Call::kMalloc, .times = rmtest::kForever, .action = [](const CallRecord& record) {
             const int64_t result = rmtest::passThrough(record);
             auto* memory = reinterpret_cast<void*>(static_cast<intptr_t>(result));
             if (memory != nullptr) {
                 std::memset(memory, 0xA5, static_cast<std::size_t>(record.args[0]));
             }
             return result;
         }}};
};

class BagMemory : public BagTest
{
  protected:
    using Bytes = std::vector<int64_t>;

    // What making a bag asks the memory manager for, in order.
    static Bytes requestsOf(const Shape& shape)
    {
        const BagCtl ctl = control(shape);
        Bag* bag = nullptr;
        rmtest::resetCalls();
        EXPECT_EQ(bagCreate(&ctl, &bag), RM_SUCCESS);
        Bytes sizes;
        for (const CallRecord& call : callTrace({Call::kAllocBlock})) {
            sizes.push_back(call.args[0]);
        }
        EXPECT_EQ(bagDestroy(bag), RM_SUCCESS);
        return sizes;
    }

    static std::string warningAbout(void* block)
    {
        std::array<char, 100> line{};
        std::snprintf(line.data(), line.size(), "WARNING: attempting to free bad pointer, %p",
                      block);
        return line.data();
    }
};

class BagLog : public BagTest
{
  protected:
    void SetUp() override
    {
        BagTest::SetUp();
        rm_systemLog(2);
        rm_systemLogOpen("server.log");
    }

    void TearDown() override
    {
        rm_systemLogClose();
        rm_syncTerminate();
        BagTest::TearDown();
    }

    // What `body` adds to the log file.
    static Lines fileLinesOf(const std::function<void()>& body)
    {
        const std::size_t before = readFile("server.log").size();
        captureStderr(body);
        return logLines(readFile("server.log").substr(before));
    }
};

class BagFindOrder : public BagTest
{
};

class BagKinds : public BagTest
{
};

// --- Memory

TEST_F(BagMemory, IsAskedForTheRecordThenTheAreaThenTheMap)
{
    const int64_t record = sizeof(Bag);
    EXPECT_EQ(requestsOf({.flags = kMapped, .initialSlots = 40, .elementSize = 12}),
              (Bytes{record, 480, 6}));
    EXPECT_EQ(requestsOf({.flags = kMapped, .initialSlots = 0, .elementSize = 12}),
              (Bytes{record, 4}));
    for (const uint16_t flags : {kCompact, kRing}) {
        EXPECT_EQ(requestsOf({.flags = flags, .initialSlots = 40, .elementSize = 12}),
                  (Bytes{record, 480}));
        EXPECT_EQ(requestsOf({.flags = flags, .initialSlots = 0, .elementSize = 12}),
                  Bytes{record});
    }
}

TEST_F(BagMemory, OfTheRecordIsClearedThoughItWasUsedBefore)
{
    const DirtyMemory dirty;
    for (const uint16_t flags : kEveryKind) {
        const Bag* bag = make({.flags = flags, .initialSlots = 0});
        EXPECT_EQ(bag->usedCount, 0);
        EXPECT_EQ(bag->nextSlot, 0);
        EXPECT_EQ(bag->data, nullptr);
        EXPECT_EQ(bag->slotMap == nullptr, flags != kMapped);
    }
}

TEST_F(BagMemory, OfAreaAndMapIsClearedThoughItWasUsedBefore)
{
    const DirtyMemory dirty;
    EXPECT_EQ(draw(make({.flags = kCompact})), ".... @-");
    EXPECT_EQ(draw(make({.flags = kRing})), ".... @- >0");
    EXPECT_EQ(draw(make({.flags = kMapped})), ".... .... @-");
    const Bag* bag = make({.flags = kMapped, .initialSlots = 300});
    const Numbers map(bag->slotMap, bag->slotMap + bags::usedSlotMapBytes(300) / 2);
    EXPECT_EQ(map, Numbers(19, 0));
}

// Each of them is warned about when its header is damaged.
TEST_F(BagMemory, GoesBackMapFirstThenAreaThenRecord)
{
    for (const uint16_t flags : kEveryKind) {
        const BagCtl ctl = control({.flags = flags});
        Bag* bag = nullptr;
        ASSERT_EQ(bagCreate(&ctl, &bag), RM_SUCCESS);
        std::vector<void*> blocks = {bag->data, bag};
        if (flags == kMapped) {
            blocks.insert(blocks.begin(), bag->slotMap);
        }
        Lines expected;
        const uint32_t live = rmalloc::headerOf(bag)->word1;
        for (void* block : blocks) {
            expected.push_back(warningAbout(block));
            rmalloc::headerOf(block)->word1 = 0;
        }
        EXPECT_EQ(linesOf([&] { bagDestroy(bag); }), expected);
        for (void* block : blocks) {
            rmalloc::headerOf(block)->word1 = live;
            rm_freeMemory(block, 0);
        }
    }
}

TEST_F(BagMemory, OfAGrowingBagIsOfTheTagOfTheControlRecord)
{
    for (const uint16_t flags : kEveryKind) {
        const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
        Bag* bag = make({.flags = flags, .initialSlots = 0, .elementSize = 40, .tag = tag});
        const uint32_t before = rmalloc::tagTable[tag].allocated;
        fill(bag, 90);
        EXPECT_GE(rmalloc::tagTable[tag].allocated - before, 90U * 40U);
        EXPECT_EQ(rmalloc::tagTable[0].allocated, 0U);
        EXPECT_NE(rmalloc::segmentOfLiveBlock(bag->data, tag), nullptr);
        EXPECT_TRUE(flags != kMapped || rmalloc::segmentOfLiveBlock(bag->slotMap, tag) != nullptr);
    }
}

TEST_F(BagMemory, IsNotAskedForWhileThereIsRoomNorIsAnythingElseOfTheSystem)
{
    for (const uint16_t kind : kEveryKind) {
        Bag* bag = make({.flags = static_cast<uint16_t>(kind | BAG_POINTERS | BAG_KEY_STRING),
                         .elementSize = sizeof(void*)});
        char text[] = "key";
        void* pointer = nullptr;
        uint16_t handle = 0;
        rmtest::resetCalls();
        for (int i = 0; i < 4; ++i) {
            bagAdd(bag, text);
        }
        bagFind(bag, "key", &handle, &pointer);
        bagFind(bag, "other", nullptr, nullptr);
        bagFirst(bag);
        bagNext(bag);
        bagLast(bag);
        bagPrev(bag);
        bagGetCurHandle(bag, &handle);
        bagGetCurPtr(bag, &pointer);
        bagGetCurData(bag, &pointer);
        bagSetCurHandle(bag, 1);
        bagDelete(bag);
        EXPECT_EQ(callTrace().size(), 0U) << kind;
        EXPECT_EQ(bag->usedCount, 3);
    }
}

// --- The log

TEST_F(BagLog, FileHasTheLineOfADeletionThatMovesAnElement)
{
    Bag* bag = make({}, "abc");
    EXPECT_EQ(fileLinesOf([&] { deleteAt(bag, 0); }), Lines{kNoMark});
}

TEST_F(BagLog, FileHasTheLinesOfAMissingMap)
{
    Bag* bag = make({.flags = kMapped}, "abc");
    loseMap(bag);
    EXPECT_EQ(fileLinesOf([&] { bagSetCurHandle(bag, 0); }), Lines{kNoMark});
    EXPECT_EQ(fileLinesOf([&] { bagAdd(bag, "d"); }), Lines{kNoSlotFound});
}

TEST_F(BagLog, FileHasTheLineOfALookupWithoutAKindOfKey)
{
    Bag* bag = make({}, "abc");
    EXPECT_EQ(fileLinesOf([&] { bagFind(bag, "a", nullptr, nullptr); }), Lines{kNoKind});
}

// --- The order of a lookup's questions

TEST_F(BagFindOrder, AnUnknownKindIsRefusedEvenForTheEmptyText)
{
    Bag* bag = make({.flags = 4}, "abc");
    int16_t status = 0;
    EXPECT_EQ(linesOf([&] { status = bagFind(bag, "", nullptr, nullptr); }), Lines{kNoKind});
    EXPECT_EQ(status, RM_INVALID);
}

// The only element is in the slot that iteration does not reach.
TEST_F(BagFindOrder, WithoutAFirstElementNothingIsFoundWhateverTheKind)
{
    for (const uint16_t kind : Numbers{0, BAG_KEY_STRING, BAG_KEY_BINARY, 0x7F}) {
        Bag* bag = make({.flags = static_cast<uint16_t>(kMapped | kind), .keyLength = 1}, "abcd");
        for (const uint16_t slot : Numbers{0, 1, 2}) {
            deleteAt(bag, slot);
        }
        int16_t status = 0;
        EXPECT_EQ(linesOf([&] { status = bagFind(bag, "d", nullptr, nullptr); }), Lines{});
        EXPECT_EQ(status, RM_NOT_FOUND) << kind;
        EXPECT_EQ(bag->curSlot, 3);
    }
}

TEST_F(BagFindOrder, TextsAreComparedWholeWhateverTheLengthOfBytes)
{
    for (const int kind : {BAG_KEY_STRING, BAG_KEY_ISTRING}) {
        for (const uint16_t length : Numbers{0, 1, 3}) {
            Bag* bag =
                make({.flags = static_cast<uint16_t>(kind), .elementSize = 8, .keyLength = length});
            bagAdd(bag, "abcx\0\0\0");
            bagAdd(bag, "abcy\0\0\0");
            EXPECT_EQ(bagFind(bag, "abcy", nullptr, nullptr), RM_SUCCESS);
            EXPECT_EQ(bag->curSlot, 1);
            EXPECT_EQ(bagFind(bag, "abc", nullptr, nullptr), RM_NOT_FOUND);
        }
    }
}

// --- What a control record says

TEST_F(BagKinds, ControlRecordsHaveFieldsOfTheirWidths)
{
    EXPECT_EQ(offsetof(BagCtl, flags), 0U);
    EXPECT_EQ(offsetof(BagCtl, initialSlots), 2U);
    EXPECT_EQ(offsetof(BagCtl, growIncrement), 4U);
    EXPECT_EQ(offsetof(BagCtl, growThreshold), 6U);
    EXPECT_EQ(offsetof(BagCtl, elementSize), 8U);
    EXPECT_EQ(offsetof(BagCtl, tag), 10U);
    EXPECT_EQ(offsetof(BagCtl, keyOffset), 12U);
    EXPECT_EQ(offsetof(BagCtl, keyLength), 16U);
    EXPECT_EQ(sizeof(BagCtl::keyLength), 2U);
}

TEST_F(BagKinds, BagsOfOneControlRecordHaveNothingElseInCommon)
{
    for (const uint16_t flags : kEveryKind) {
        const BagCtl ctl = control({.flags = flags});
        Bag* one = nullptr;
        Bag* other = nullptr;
        ASSERT_EQ(bagCreate(&ctl, &one), RM_SUCCESS);
        ASSERT_EQ(bagCreate(&ctl, &other), RM_SUCCESS);
        addAll(other, "xy");
        const std::string before = snapshot(other);
        addAll(one, "abcdefgh");
        bagFirst(one);
        captureStderr([&] { bagDelete(one); });
        EXPECT_EQ(bagDestroy(one), RM_SUCCESS);
        EXPECT_EQ(snapshot(other), before) << flags;
        EXPECT_EQ(bagDestroy(other), RM_SUCCESS);
    }
}

TEST_F(BagKinds, WithoutAMapEveryHandleIsTakenForUsedInASlotMap)
{
    Bag* bag = make({.flags = kMapped}, "ab");
    loseMap(bag);
    for (const uint16_t handle : Numbers{1, 3, 4, 65534}) {
        int16_t status = -1;
        EXPECT_EQ(linesOf([&] { status = bagSetCurHandle(bag, handle); }), Lines{kNoMark});
        EXPECT_EQ(status, RM_SUCCESS) << handle;
        EXPECT_EQ(bag->curSlot, handle);
    }
}

}  // namespace
