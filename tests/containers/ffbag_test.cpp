// FF bags: layout, order, limits, what a push and a pop leave alone, and what the checker finds.
#include "tests/containers/ffbag_case.h"

#include <cerrno>
#include <limits>
#include <ostream>

#include <gmock/gmock.h>

using namespace ffbagtest;

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::captureStdout;
using rmtest::catchFatal;
using rmtest::logLines;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class FfBagLayout : public FfBagCase
{
};

class FfBagCreate : public FfBagCase
{
};

class FfBagOrder : public FfBagCase
{
};

class FfBagPush : public FfBagCase
{
};

class FfBagPop : public FfBagCase
{
};

class FfBagSize : public FfBagCase
{
};

class FfBagCheck : public FfBagCase
{
};

// What is in the processor's byte order at an offset.
template <typename T>
T at(const FfBag& bag, std::size_t offset)
{
    T value;
    std::memcpy(&value, bag.area + offset, sizeof(value));
    return value;
}

// The slots of a bag of letters; "." for a zero byte.
std::string draw(const FfBag& bag)
{
    const auto capacity = at<uint16_t>(bag, 4);
    std::string text(reinterpret_cast<const char*>(bag.area) + 16, capacity);
    std::replace(text.begin(), text.end(), '\0', '.');
    return text;
}

// --- Layout

TEST_F(FfBagLayout, HasTheHandleFourBytesBehindTheStart)
{
    const FfBag bag = makeBag(3, 1);
    EXPECT_EQ(static_cast<unsigned char*>(bag.bag), bag.area + 4);
}

TEST_F(FfBagLayout, HasEachFieldAtItsOffset)
{
    const FfBag bag = makeBag(0x0102, 0x0304);
    EXPECT_EQ(at<uint32_t>(bag, 0), 0U);
    EXPECT_EQ(at<uint16_t>(bag, 4), 0x0102);
    EXPECT_EQ(at<uint16_t>(bag, 6), 0);
    EXPECT_EQ(at<uint16_t>(bag, 8), 0);
    EXPECT_EQ(at<uint16_t>(bag, 10), 0x0304);
}

TEST_F(FfBagLayout, CountsAtOffset6AndNotesTheNextSlotAtOffset8)
{
    const FfBag bag = makeBag(10, 1);
    for (const char letter : std::string_view("abcde")) {
        push(bag, letter);
    }
    pop(bag);
    pop(bag);
    EXPECT_EQ(at<uint16_t>(bag, 6), 3);
    EXPECT_EQ(at<uint16_t>(bag, 8), 5);
}

TEST_F(FfBagLayout, HasTheAddressOfTheFirstSlotAtOffset12)
{
    const FfBag bag = makeBag(3, 4);
    EXPECT_EQ(at<uint32_t>(bag, 12),
              static_cast<uint32_t>(reinterpret_cast<uintptr_t>(bag.area + 16)));
}

TEST_F(FfBagLayout, HasTheSlotsFromOffset16On)
{
    const FfBag bag = makeBag(3, 7);
    const Bytes expected = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'A', 'B', 'C', 'D',
                            'E', 'F', 'G', '1', '2', '3', '4', '5', '6', '7'};
    for (std::size_t slot = 0; slot < 3; ++slot) {
        ASSERT_EQ(ffBagPush(bag.bag, &expected[slot * 7]), 0);
    }
    EXPECT_EQ(Bytes(bag.area + 16, bag.area + 16 + 21), expected);
}

// Other processes may have attached it elsewhere, and it is half an address here.
TEST_F(FfBagLayout, IsNotReadAtOffset12)
{
    const FfBag bag = makeBag(3, 1);
    for (const uint32_t address : {0U, 1U, 0xFFFFFFFFU}) {
        std::memcpy(bag.area + 12, &address, sizeof(address));
        EXPECT_EQ(push(bag, 'a'), "ok");
        EXPECT_EQ(pop(bag), "a");
        EXPECT_EQ(at<uint32_t>(bag, 12), address);
    }
}

TEST_F(FfBagLayout, KeepsTheReservedBytes)
{
    const FfBag bag = makeBag(3, 1);
    const uint32_t theirs = 0xDEADBEEF;
    std::memcpy(bag.area, &theirs, sizeof(theirs));
    push(bag, 'a');
    pop(bag);
    EXPECT_EQ(at<uint32_t>(bag, 0), theirs);
}

// --- Creation

TEST_F(FfBagCreate, MakesASharedMemoryObjectOfItsOwnName)
{
    makeBag(3, 1);
    makeBag(3, 1);
    EXPECT_STREQ(os::rmGshm[0].name, "FFBAG1");
    EXPECT_STREQ(os::rmGshm[1].name, "FFBAG1");
    EXPECT_EQ(os::nGshm, 2);
}

TEST_F(FfBagCreate, GivesTheStartOfTheSegment)
{
    const FfBag bag = makeBag(3, 1);
    EXPECT_EQ(os::rmGshm[0].address, bag.area);
}

TEST_F(FfBagCreate, AsksForAsManyBytesAsHeaderAndSlotsNeed)
{
    for (const auto& [capacity, elementSize] :
         {std::pair<uint16_t, uint16_t>{0, 0}, {0, 7}, {7, 0}, {3, 7}, {255, 257}, {300, 300}}) {
        makeBag(capacity, elementSize);
        shmid_ds segment = {};
        ASSERT_EQ(shmctl(os::rmGshm[0].id, IPC_STAT, &segment), 0);
        EXPECT_EQ(segment.shm_segsz, sizeOf(capacity, elementSize));
        rm_gshmTerminate();
    }
}

TEST_F(FfBagCreate, AsksForTheLargestAreaWithoutCuttingItsSize)
{
    ScopedFault fault({.call = Call::kShmget, .error = ENOMEM});
    resetCalls();
    void* bag = this;
    void* area = this;
    int jumped = 0;
    captureStderr([&] {
        captureStdout(
            [&] { jumped = catchFatal([&] { ffBagCreate(65535, 65535, &bag, &area); }); });
    });
    EXPECT_EQ(jumped, 1);
    const std::vector<CallRecord> calls = callTrace({Call::kShmget});
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].args[1], 65535LL * 65535 + 16);
    EXPECT_EQ(bag, this);
    EXPECT_EQ(area, this);
    os::nGshm = 1;  // so that the slot can be given back
}

// Of an area that is there already, by whoever it was made.
TEST_F(FfBagCreate, ClearsAsManyBytesAsItAskedForAndNoMore)
{
    void* address = nullptr;
    rm_gshmCreate("somebody's", 2 * kPage, &address);
    std::memset(address, 0xEE, 2 * kPage);
    rm_freeall();  // this process forgets the object, which stays
    const FfBag bag = makeBag(30, 7);
    FfBagModel model(30, 7, reinterpret_cast<uintptr_t>(bag.area), Bytes(2 * kPage, 0xEE));
    EXPECT_EQ(bag.bytes(2 * kPage), model.memory());
}

TEST_F(FfBagCreate, EmptiesABagThatIsInUse)
{
    const FfBag first = makeBag(3, 1);
    push(first, 'a');
    push(first, 'b');
    rm_freeall();
    const FfBag second = makeBag(3, 1);
    EXPECT_EQ(draw(second), "...");
    EXPECT_EQ(pop(second), "empty");
    EXPECT_EQ(pop(first), "empty");
}

TEST_F(FfBagCreate, GivesTwentyBagsThatDoNotDisturbEachOther)
{
    std::vector<FfBag> bags;
    bags.reserve(os::kGshmSlots);
    for (int n = 0; n < 20; ++n) {
        bags.push_back(makeBag(2, 1));
    }
    for (std::size_t n = 0; n < bags.size(); ++n) {
        EXPECT_EQ(push(bags[n], static_cast<char>('a' + n)), "ok");
    }
    for (std::size_t n = 0; n < bags.size(); ++n) {
        EXPECT_EQ(pop(bags[n]), std::string(1, static_cast<char>('a' + n)));
        EXPECT_EQ(pop(bags[n]), "empty");
    }
}

TEST_F(FfBagCreate, OfA21stBagIsFatalAndLeavesTheOthersUsable)
{
    std::vector<FfBag> bags;
    bags.reserve(os::kGshmSlots);
    for (int n = 0; n < 20; ++n) {
        bags.push_back(makeBag(2, 1));
    }
    void* bag = this;
    void* area = this;
    std::string out;
    captureStderr([&] {
        out = captureStdout([&] {
            catchFatal([&] {
                errno = 0;
                ffBagCreate(2, 1, &bag, &area);
            });
        });
    });
    EXPECT_EQ(out, "**** rm_gshmCreate() Out of Shared Memory Objects!, errno=0 (Success)\n");
    EXPECT_EQ(bag, this);
    EXPECT_EQ(area, this);
    EXPECT_EQ(push(bags.front(), 'a'), "ok");
    EXPECT_EQ(pop(bags.front()), "a");
}

TEST_F(FfBagCreate, ThatCannotAttachIsFatalAndStoresNothing)
{
    const FfBag other = makeBag(2, 1);
    const ScopedFault fault({.call = Call::kShmat, .error = ENOMEM});
    void* bag = this;
    void* area = this;
    std::string out;
    captureStderr(
        [&] { out = captureStdout([&] { catchFatal([&] { ffBagCreate(2, 1, &bag, &area); }); }); });
    EXPECT_EQ(out, "**** rm_gshmCreate() shmat() failure, errno=12 (Cannot allocate memory)\n");
    EXPECT_EQ(bag, this);
    EXPECT_EQ(area, this);
    EXPECT_EQ(push(other, 'a'), "ok");
    rm_gshmDelete(1);
    os::nGshm = 1;  // the deletion has counted what the creation has not
}

// The memory of a deleted object stays attached.
TEST_F(FfBagCreate, GivesABagThatWorksUntilTheProcessEnds)
{
    const FfBag bag = makeBag(3, 1);
    push(bag, 'a');
    rm_gshmDelete(0);
    EXPECT_EQ(push(bag, 'b'), "ok");
    EXPECT_EQ(pop(bag), "a");
    rm_freeall();
    EXPECT_EQ(pop(bag), "b");
}

TEST_F(FfBagCreate, ReturnsZeroAndLogsNothing)
{
    void* bag = nullptr;
    void* area = nullptr;
    int16_t result = -1;
    EXPECT_EQ(captureStderr([&] { result = ffBagCreate(3, 1, &bag, &area); }), "");
    EXPECT_EQ(result, 0);
}

// --- Order

TEST_F(FfBagOrder, IsFirstInFirstOut)
{
    const FfBag bag = makeBag(3, 1);
    EXPECT_EQ(push(bag, 'A'), "ok");
    EXPECT_EQ(push(bag, 'B'), "ok");
    EXPECT_EQ(push(bag, 'C'), "ok");
    EXPECT_EQ(push(bag, 'D'), "full");
    EXPECT_EQ(pop(bag), "A");
    EXPECT_EQ(pop(bag), "B");
    EXPECT_EQ(pop(bag), "C");
    EXPECT_EQ(pop(bag), "empty");
}

TEST_F(FfBagOrder, GoesRoundAtTheCapacity)
{
    const FfBag bag = makeBag(3, 1);
    push(bag, 'A');
    push(bag, 'B');
    EXPECT_EQ(pop(bag), "A");
    push(bag, 'C');
    EXPECT_EQ(bag.get(FfBagModel::kNext), 0);
    push(bag, 'D');
    EXPECT_EQ(bag.get(FfBagModel::kNext), 1);
    EXPECT_EQ(draw(bag), "DBC");
    EXPECT_EQ(pop(bag), "B");
    EXPECT_EQ(pop(bag), "C");
    EXPECT_EQ(pop(bag), "D");
    EXPECT_EQ(pop(bag), "empty");
}

TEST_F(FfBagOrder, HoldsOverManyRounds)
{
    const FfBag bag = makeBag(7, 4);
    uint32_t pushed = 0;
    uint32_t popped = 0;
    for (uint32_t round = 0; round < 1000; ++round) {
        for (uint32_t n = round % 8U; n > 0 && ffBagPush(bag.bag, &pushed) == 0; --n) {
            ++pushed;
        }
        uint32_t value = 0;
        for (uint32_t n = (round * 5U) % 8U; n > 0 && ffBagPop(bag.bag, &value) == 0; --n) {
            ASSERT_EQ(value, popped++);
        }
        ASSERT_EQ(bag.get(FfBagModel::kCount), pushed - popped);
        ASSERT_EQ(bag.get(FfBagModel::kNext), pushed % 7);
    }
    EXPECT_GT(popped, 1000U);
}

// --- Push

TEST_F(FfBagPush, IntoAFullBagChangesNothing)
{
    const FfBag bag = makeBag(2, 7);
    const EdgeBytes element(7);
    element.fill('x');
    ffBagPush(bag.bag, element.data());
    ffBagPush(bag.bag, element.data());
    const Bytes before = bag.bytes(kPage);
    element.fill('y');
    EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_FULL);
    EXPECT_EQ(bag.bytes(kPage), before);
}

TEST_F(FfBagPush, CopiesTheElement)
{
    const FfBag bag = makeBag(2, 1);
    char letter = 'a';
    ffBagPush(bag.bag, &letter);
    letter = 'b';
    EXPECT_EQ(pop(bag), "a");
}

TEST_F(FfBagPush, ChangesOneSlotNextAndCount)
{
    const FfBag bag = makeBag(30, 7);
    const EdgeBytes element(7);
    for (int n = 0; n < 12; ++n) {
        const Bytes before = bag.bytes(kPage);
        element.fill(static_cast<unsigned char>(n + 1));
        ASSERT_EQ(ffBagPush(bag.bag, element.data()), 0);
        const Bytes after = bag.bytes(kPage);
        for (std::size_t i = 0; i < kPage; ++i) {
            const std::size_t slot = kHeader + static_cast<std::size_t>(n) * 7;
            const bool mayChange = (i >= 6 && i < 10) || (i >= slot && i < slot + 7);
            ASSERT_TRUE(mayChange || before[i] == after[i]) << i;
        }
    }
}

TEST_F(FfBagPush, LeavesTheElementAlone)
{
    const FfBag bag = makeBag(2, 7);
    const EdgeBytes element(7);
    element.fill('x');
    ffBagPush(bag.bag, element.data());
    EXPECT_THAT(element.contents(), Each('x'));
}

TEST_F(FfBagPush, MakesNoSystemCallAndLogsNothing)
{
    const FfBag bag = makeBag(2, 1);
    resetCalls();
    EXPECT_EQ(captureStderr([&] {
                  resetCalls();
                  push(bag, 'a');
                  push(bag, 'a');
                  push(bag, 'a');
                  pop(bag);
                  pop(bag);
                  pop(bag);
                  EXPECT_THAT(callTrace(), IsEmpty());
              }),
              "");
}

// --- Pop

TEST_F(FfBagPop, FromAnEmptyBagChangesNothing)
{
    const FfBag bag = makeBag(2, 7);
    const EdgeBytes buffer(7);
    ffBagPush(bag.bag, buffer.data());
    ffBagPop(bag.bag, buffer.data());
    buffer.fill('u');
    const Bytes before = bag.bytes(kPage);
    EXPECT_EQ(ffBagPop(bag.bag, buffer.data()), RM_NO_ELEMENT);
    EXPECT_EQ(bag.bytes(kPage), before);
    EXPECT_THAT(buffer.contents(), Each('u'));
}

TEST_F(FfBagPop, LeavesTheBytesOfTheSlotAndTheNextSlot)
{
    const FfBag bag = makeBag(3, 1);
    push(bag, 'a');
    push(bag, 'b');
    const Bytes before = bag.bytes(kPage);
    pop(bag);
    pop(bag);
    Bytes after = bag.bytes(kPage);
    EXPECT_EQ(draw(bag), "ab.");
    EXPECT_EQ(bag.get(FfBagModel::kCount), 0);
    std::copy_n(&before[FfBagModel::kCount], sizeof(uint16_t), &after[FfBagModel::kCount]);
    EXPECT_EQ(after, before);
}

TEST_F(FfBagPop, WritesNoMoreThanAnElement)
{
    const FfBag bag = makeBag(2, 7);
    const EdgeBytes element(7);
    element.fill('e');
    ffBagPush(bag.bag, element.data());
    Bytes buffer(21, 'u');
    EXPECT_EQ(ffBagPop(bag.bag, &buffer[7]), 0);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 7), Bytes(7, 'u'));
    EXPECT_EQ(Bytes(buffer.begin() + 7, buffer.begin() + 14), Bytes(7, 'e'));
    EXPECT_EQ(Bytes(buffer.begin() + 14, buffer.end()), Bytes(7, 'u'));
}

// --- Sizes

struct Shape {
    uint16_t capacity;
    uint16_t elementSize;
};

void PrintTo(const Shape& shape, std::ostream* out)
{
    *out << shape.capacity << " of " << shape.elementSize;
}

class FfBagShapes : public FfBagCase, public ::testing::WithParamInterface<Shape>
{
  protected:
    // The bytes of the n-th element ever.
    static void pattern(const EdgeBytes& element, uint32_t n)
    {
        for (std::size_t i = 0; i < element.size(); ++i) {
            element.data()[i] = static_cast<unsigned char>(n * 31 + i * 7 + (n >> 8));
        }
    }
};

// Between memory that nobody may touch, and with the whole area compared in the end.
TEST_P(FfBagShapes, AreFilledToTheLastSlotEmptiedAndFilledAgain)
{
    const GuardedSegments guard;
    const auto [capacity, elementSize] = GetParam();
    const FfBag bag = makeBag(capacity, elementSize);
    const std::size_t size = wholePages(sizeOf(capacity, elementSize));
    FfBagModel model(capacity, elementSize, reinterpret_cast<uintptr_t>(bag.area), Bytes(size));
    const EdgeBytes element(elementSize);
    const EdgeBytes buffer(elementSize);
    uint32_t pushed = 0;
    uint32_t popped = 0;
    for (int round = 0; round < 2; ++round) {
        for (uint32_t n = 0; n < capacity; ++n) {
            pattern(element, pushed++);
            ASSERT_EQ(ffBagPush(bag.bag, element.data()), RM_SUCCESS) << n;
            ASSERT_EQ(model.push(element.data()), RM_SUCCESS);
        }
        ASSERT_EQ(ffBagPush(bag.bag, element.data()), RM_FULL);
        ASSERT_TRUE(std::memcmp(bag.area, model.memory().data(), size) == 0);
        const uint32_t leave = round == 0 ? capacity / 3U : 0;
        for (; popped + leave < pushed; ++popped) {
            pattern(element, popped);
            ASSERT_EQ(ffBagPop(bag.bag, buffer.data()), RM_SUCCESS) << popped;
            ASSERT_EQ(std::memcmp(element.data(), buffer.data(), elementSize), 0) << popped;
        }
        for (uint32_t n = 0; n < leave; ++n, ++popped) {
            ASSERT_EQ(ffBagPop(bag.bag, buffer.data()), RM_SUCCESS);
        }
        ASSERT_EQ(ffBagPop(bag.bag, buffer.data()), RM_NO_ELEMENT);
        ASSERT_EQ(ffbag::checkFfBag(bag.bag), 0U);
        model.set(FfBagModel::kCount, 0);
        ASSERT_TRUE(std::memcmp(bag.area, model.memory().data(), size) == 0);
    }
}

TEST_P(FfBagShapes, GoRoundFromTheMiddle)
{
    const GuardedSegments guard;
    const uint16_t capacity = GetParam().capacity;
    const uint16_t elementSize = GetParam().elementSize;
    const FfBag bag = makeBag(capacity, elementSize);
    const EdgeBytes element(elementSize);
    const EdgeBytes buffer(elementSize);
    uint32_t pushed = 0;
    uint32_t popped = 0;
    const auto pushSome = [&](uint32_t count) {
        for (; count > 0; --count) {
            pattern(element, pushed++);
            ASSERT_EQ(ffBagPush(bag.bag, element.data()), RM_SUCCESS);
        }
    };
    const auto popSome = [&](uint32_t count) {
        for (; count > 0; --count) {
            pattern(element, popped++);
            ASSERT_EQ(ffBagPop(bag.bag, buffer.data()), RM_SUCCESS);
            ASSERT_EQ(std::memcmp(element.data(), buffer.data(), elementSize), 0);
        }
    };
    const uint32_t half = (capacity + 1U) / 2;
    pushSome(half);
    popSome(half);
    pushSome(capacity);
    EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_FULL);
    EXPECT_EQ(bag.get(FfBagModel::kNext), capacity == 0 ? 0 : half % capacity);
    popSome(capacity);
    EXPECT_EQ(ffBagPop(bag.bag, buffer.data()), RM_NO_ELEMENT);
}

INSTANTIATE_TEST_SUITE_P(
    Of, FfBagShapes,
    ::testing::Values(
        Shape{0, 0}, Shape{0, 1}, Shape{0, 7}, Shape{0, 65535}, Shape{1, 0}, Shape{1, 1},
        Shape{1, 7}, Shape{1, 65535}, Shape{3, 0}, Shape{3, 1}, Shape{3, 7}, Shape{3, 65535},
        Shape{65535, 0}, Shape{65535, 1}, Shape{65535, 7},
        // Of whole pages: the last slot ends at memory that nobody may touch.
        Shape{4080, 1}, Shape{1168, 7}, Shape{255, 16}, Shape{1, 4080}, Shape{16, 65535},
        // Around 65,535 and 65,536 bytes.
        Shape{65519, 1}, Shape{65520, 1}, Shape{65521, 1}, Shape{256, 256}, Shape{300, 300}),
    [](const ::testing::TestParamInfo<Shape>& shape) {
        return std::to_string(shape.param.capacity) + "By" +
               std::to_string(shape.param.elementSize);
    });

TEST_F(FfBagSize, OfNoSlotsRefusesEveryPushAndPop)
{
    const FfBag bag = makeBag(0, 1);
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(push(bag, 'a'), "full");
        EXPECT_EQ(pop(bag), "empty");
    }
}

TEST_F(FfBagSize, OfElementsWithoutBytesCounts)
{
    const FfBag bag = makeBag(2, 0);
    EXPECT_EQ(pop(bag), "empty");
    EXPECT_EQ(push(bag, 'a'), "ok");
    EXPECT_EQ(push(bag, 'a'), "ok");
    EXPECT_EQ(push(bag, 'a'), "full");
    char letter = '?';
    EXPECT_EQ(ffBagPop(bag.bag, &letter), 0);
    EXPECT_EQ(letter, '?') << "taken out, and the buffer is as it was";
}

// A bag in memory that is no shared memory of this process, between two others.
TEST_F(FfBagSize, OfABagInPlainMemoryIsThatOfItsHeader)
{
    Bytes memory(64 + kHeader + 12 + 64, 0xCC);
    const FfBag bag = {&memory[64 + 4], &memory[64]};
    const FfBagModel fresh(3, 4, reinterpret_cast<uintptr_t>(bag.area), Bytes(kHeader + 12));
    std::copy(fresh.memory().begin(), fresh.memory().end(), bag.area);
    for (uint32_t n = 0; n < 5; ++n) {
        EXPECT_EQ(ffBagPush(bag.bag, &n), n < 3 ? RM_SUCCESS : RM_FULL);
    }
    for (uint32_t n = 0; n < 5; ++n) {
        uint32_t value = 77;
        EXPECT_EQ(ffBagPop(bag.bag, &value), n < 3 ? RM_SUCCESS : RM_NO_ELEMENT);
        EXPECT_EQ(value, n < 3 ? n : 77);
    }
    EXPECT_EQ(Bytes(memory.begin(), memory.begin() + 64), Bytes(64, 0xCC));
    EXPECT_EQ(Bytes(memory.end() - 64, memory.end()), Bytes(64, 0xCC));
}

// --- The checker

TEST_F(FfBagCheck, FindsNothingInASoundBagAtAnyTime)
{
    const FfBag bag = makeBag(5, 1);
    EXPECT_EQ(ffbag::checkFfBag(bag.bag), 0U);
    for (int n = 0; n < 23; ++n) {
        n % 3 != 2 ? push(bag, 'a') : pop(bag);
        EXPECT_EQ(ffbag::checkFfBag(bag.bag), 0U);
    }
}

TEST_F(FfBagCheck, FindsNothingInABagWithoutSlots)
{
    EXPECT_EQ(ffbag::checkFfBag(makeBag(0, 9).bag), 0U);
}

TEST_F(FfBagCheck, FindsNothingInABagThatAnotherProcessMadeSmaller)
{
    const FfBag bag = makeBag(5, 4);
    bag.set(FfBagModel::kCapacity, 10);
    bag.set(FfBagModel::kElementSize, 2);
    EXPECT_EQ(ffbag::checkFfBag(bag.bag), 0U);
}

struct Damage {
    const char* name;
    FfBagModel::Field field;
    uint32_t value;
    const char* line;
};

void PrintTo(const Damage& damage, std::ostream* out)
{
    *out << damage.name;
}

class FfBagDamage : public FfBagCase, public ::testing::WithParamInterface<Damage>
{
};

TEST_P(FfBagDamage, IsFoundAndLogged)
{
    const FfBag bag = makeBag(5, 4);
    bag.set(GetParam().field, GetParam().value);
    uint32_t violations = 0;
    const Lines log = logLines(captureStderr([&] { violations = ffbag::checkFfBag(bag.bag); }));
    EXPECT_EQ(violations, 1U);
    ASSERT_THAT(log, SizeIs(1));
    EXPECT_THAT(log[0], ::testing::StartsWith(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    Of, FfBagDamage,
    ::testing::Values(Damage{"ACountAboveTheCapacity", FfBagModel::kCount, 6,
                             "WARNING: FF bag: 6 elements, next 0, capacity 5"},
                      Damage{"NextAtTheCapacity", FfBagModel::kNext, 5,
                             "WARNING: FF bag: 0 elements, next 5, capacity 5"},
                      Damage{"NextAboveTheCapacity", FfBagModel::kNext, 65535,
                             "WARNING: FF bag: 0 elements, next 65535, capacity 5"},
                      Damage{"ALargerElement", FfBagModel::kElementSize, 5,
                             "WARNING: FF bag: 5 slots of 5 bytes"},
                      Damage{"ALargerCapacity", FfBagModel::kCapacity, 6,
                             "WARNING: FF bag: 6 slots of 4 bytes"}),
    [](const ::testing::TestParamInfo<Damage>& damage) { return std::string(damage.param.name); });

TEST_F(FfBagCheck, FindsASmallerBagOfLargerElements)
{
    const FfBag bag = makeBag(5, 4);
    bag.set(FfBagModel::kCapacity, 1);
    bag.set(FfBagModel::kElementSize, 8);
    uint32_t violations = 0;
    captureStderr([&] { violations = ffbag::checkFfBag(bag.bag); });
    EXPECT_EQ(violations, 1U);
}
}  // namespace
