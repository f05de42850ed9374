// FF bags whose header somebody has written over, as every process that may attach the area can at
// any moment. No push and no pop leaves the bag's memory or the caller's buffer, and what comes of
// it is compared with the model.
//
// The memory of each bag stands between pages that nobody may touch, and so does the end of each
// buffer: an access outside ends the process.
#include "tests/containers/ffbag_case.h"

#include <ostream>
#include <string>
#include <utility>

#include <sys/shm.h>

#include <gmock/gmock.h>

using namespace ffbagtest;

namespace
{
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::resetCalls;
using ::testing::Each;
using ::testing::IsEmpty;

using Field = FfBagModel::Field;

struct Shape {
    uint16_t capacity;
    uint16_t elementSize;
};

void PrintTo(const Shape& shape, std::ostream* out)
{
    *out << shape.capacity << " of " << shape.elementSize;
}

// Around every limit that a field of such a bag can have.
std::vector<uint16_t> interesting(const Shape& shape)
{
    std::vector<uint16_t> values = {0, 1, 2, 255, 256, 32767, 32768, 65534, 65535};
    for (const int around : {shape.capacity / 2, int{shape.capacity}, int{shape.elementSize}}) {
        for (const int value : {around - 1, around, around + 1}) {
            values.push_back(static_cast<uint16_t>(value));
        }
    }
    std::sort(values.begin(), values.end());
    values.erase(std::unique(values.begin(), values.end()), values.end());
    return values;
}

// The fields that somebody else may write over.
struct Header {
    uint16_t capacity;
    uint16_t count;
    uint16_t next;
    uint16_t elementSize;
};

std::ostream& operator<<(std::ostream& out, const Header& header)
{
    return out << "capacity " << header.capacity << ", count " << header.count << ", next "
               << header.next << ", element size " << header.elementSize;
}

// A bag and its model, whose headers are changed together.
class Hostile
{
  public:
    explicit Hostile(const Shape& shape)
        : bag_(makeBag(shape.capacity, shape.elementSize)),
          bytes_(wholePages(sizeOf(shape.capacity, shape.elementSize))),
          model_(shape.capacity, shape.elementSize, reinterpret_cast<uintptr_t>(bag_.area),
                 Bytes(bytes_)),
          element_(shape.elementSize),
          buffer_(shape.elementSize),
          expected_(shape.elementSize)
    {
    }

    void set(Field field, uint32_t value)
    {
        bag_.set(field, value);
        model_.set(field, value);
    }

    void set(const Header& header)
    {
        set(Field::kCapacity, header.capacity);
        set(Field::kCount, header.count);
        set(Field::kNext, header.next);
        set(Field::kElementSize, header.elementSize);
    }

    Header header() const
    {
        return {bag_.get(Field::kCapacity), bag_.get(Field::kCount), bag_.get(Field::kNext),
                bag_.get(Field::kElementSize)};
    }

    bool pushesWith(const Header& header)
    {
        set(header);
        return pushes();
    }

    bool popsWith(const Header& header)
    {
        set(header);
        return pops();
    }

    // True when both have the same result and the same bytes afterwards.
    bool pushes()
    {
        element_.fill(++fill_);
        result_ = ffBagPush(bag_.bag, element_.data());
        return result_ == model_.push(element_.data()) && sameBytes();
    }

    bool pops()
    {
        buffer_.fill(0xA5);
        std::fill(expected_.begin(), expected_.end(), static_cast<unsigned char>(0xA5));
        result_ = ffBagPop(bag_.bag, buffer_.data());
        return result_ == model_.pop(expected_.data()) &&
               std::equal(expected_.begin(), expected_.end(), buffer_.data()) && sameBytes();
    }

    bool sameBytes() const { return std::memcmp(bag_.area, model_.memory().data(), bytes_) == 0; }

    int16_t result() const { return result_; }

  private:
    FfBag bag_;
    std::size_t bytes_;  // up to the page that nobody may touch
    FfBagModel model_;
    EdgeBytes element_;
    EdgeBytes buffer_;
    Bytes expected_;
    unsigned char fill_ = 0;
    int16_t result_ = 0;
};

std::size_t kindOf(int16_t result)
{
    if (result == RM_INVALID) {
        return 2;
    }
    return result == RM_SUCCESS ? 0 : 1;
}

class FfBagHostile : public FfBagCase
{
  protected:
    GuardedSegments guard_;
};

class FfBagHostileShapes : public FfBagHostile, public ::testing::WithParamInterface<Shape>
{
};

// --- Every field at every limit

TEST_P(FfBagHostileShapes, NeverLeaveTheirMemoryWhateverTheirFieldsSay)
{
    Hostile hostile(GetParam());
    const std::vector<uint16_t> values = interesting(GetParam());
    std::array<long, 3> seen = {};  // successes, refusals, damages
    for (const uint16_t capacity : values) {
        for (const uint16_t count : values) {
            for (const uint16_t next : values) {
                for (const uint16_t elementSize : values) {
                    const Header header = {capacity, count, next, elementSize};
                    ASSERT_TRUE(hostile.pushesWith(header)) << "push with " << header;
                    ++seen.at(kindOf(hostile.result()));
                    ASSERT_TRUE(hostile.popsWith(header)) << "pop with " << header;
                    ++seen.at(kindOf(hostile.result()));
                }
            }
        }
    }
    EXPECT_THAT(seen, Each(::testing::Gt(100)));
}

// One field at a time, of a bag that is in use and can be used again when the field is as before.
TEST_P(FfBagHostileShapes, WorkAgainWhenAFieldIsAsBefore)
{
    Hostile hostile(GetParam());
    for (int n = 0; n < 3; ++n) {
        ASSERT_TRUE(hostile.pushes());
    }
    ASSERT_TRUE(hostile.pops());
    for (const Field field : {Field::kCapacity, Field::kCount, Field::kNext, Field::kElementSize}) {
        for (const uint16_t value : interesting(GetParam())) {
            const Header before = hostile.header();
            hostile.set(field, value);
            ASSERT_TRUE(hostile.pushes()) << field << " = " << value;
            ASSERT_TRUE(hostile.pops()) << field << " = " << value;
            hostile.set(before);
            ASSERT_TRUE(hostile.pops());
            ASSERT_TRUE(hostile.pushes());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Of, FfBagHostileShapes,
                         ::testing::Values(
                             // Of whole pages.
                             Shape{4080, 1}, Shape{255, 16}, Shape{1168, 7}, Shape{1, 4080},
                             Shape{2, 2040},
                             // With bytes behind the last slot, which are compared.
                             Shape{3, 7}, Shape{64, 1}, Shape{10, 0}, Shape{65535, 0}),
                         [](const ::testing::TestParamInfo<Shape>& shape) {
                             return std::to_string(shape.param.capacity) + "By" +
                                    std::to_string(shape.param.elementSize);
                         });

// --- Each kind of damage by its name: 255 slots of 16 bytes, two of them taken

class FfBagDamaged : public FfBagHostile
{
  protected:
    void SetUp() override
    {
        FfBagHostile::SetUp();
        bag_ = makeBag(255, 16);
        for (const char* text : {"first..........", "second........."}) {
            ASSERT_EQ(ffBagPush(bag_.bag, text), 0);
        }
    }

    // Both results, and nothing changed where a damage is told.
    std::pair<int16_t, int16_t> resultsWith(Field field, uint32_t value)
    {
        bag_.set(field, value);
        const Bytes before = bag_.bytes(kPage);
        element_.fill('e');
        const int16_t pushed = ffBagPush(bag_.bag, element_.data());
        if (pushed != RM_SUCCESS) {
            EXPECT_EQ(bag_.bytes(kPage), before);
        }
        std::copy(before.begin(), before.end(), bag_.area);
        buffer_.fill('b');
        const int16_t popped = ffBagPop(bag_.bag, buffer_.data());
        if (popped != RM_SUCCESS) {
            EXPECT_EQ(bag_.bytes(kPage), before);
            EXPECT_THAT(buffer_.contents(), Each('b'));
        }
        std::copy(before.begin(), before.end(), bag_.area);
        return {pushed, popped};
    }

    using Results = std::pair<int16_t, int16_t>;

    FfBag bag_;
    EdgeBytes element_{16};
    EdgeBytes buffer_{16};
};

TEST_F(FfBagDamaged, ByACountOfTheCapacityIsFull)
{
    EXPECT_EQ(resultsWith(Field::kCount, 255), Results(RM_FULL, RM_SUCCESS));
}

TEST_F(FfBagDamaged, ByACountAboveTheCapacityIsFullAndCannotBePopped)
{
    for (const uint32_t count : {256U, 257U, 32768U, 65535U}) {
        EXPECT_EQ(resultsWith(Field::kCount, count), Results(RM_FULL, RM_INVALID)) << count;
    }
}

TEST_F(FfBagDamaged, ByANextSlotOutsideIsRefused)
{
    for (const uint32_t next : {255U, 256U, 257U, 4096U, 32768U, 65535U}) {
        EXPECT_EQ(resultsWith(Field::kNext, next), Results(RM_INVALID, RM_INVALID)) << next;
    }
}

TEST_F(FfBagDamaged, ByANextSlotElsewhereIsUsedThere)
{
    EXPECT_EQ(resultsWith(Field::kNext, 254), Results(RM_SUCCESS, RM_SUCCESS));
    EXPECT_EQ(resultsWith(Field::kNext, 0), Results(RM_SUCCESS, RM_SUCCESS));
}

// The caller's buffers have room for an element of the size that it made the bag with.
TEST_F(FfBagDamaged, ByALargerElementIsRefused)
{
    for (const uint32_t size : {17U, 32U, 4080U, 32768U, 65535U}) {
        EXPECT_EQ(resultsWith(Field::kElementSize, size), Results(RM_INVALID, RM_INVALID)) << size;
    }
}

TEST_F(FfBagDamaged, ByASmallerElementMovesSmallerOnes)
{
    bag_.set(Field::kElementSize, 5);
    element_.fill('e');
    EXPECT_EQ(ffBagPush(bag_.bag, element_.data()), 0);
    EXPECT_EQ(Bytes(bag_.area + 16 + 2 * 5, bag_.area + 16 + 3 * 5), Bytes(5, 'e'));
    buffer_.fill('b');
    EXPECT_EQ(ffBagPop(bag_.bag, buffer_.data()), 0);
    EXPECT_EQ(std::memcmp(buffer_.data(), "first", 5), 0);
    EXPECT_EQ(buffer_.data()[5], 'b');
}

TEST_F(FfBagDamaged, ByALargerCapacityIsUsedAsFarAsItsMemoryReaches)
{
    EXPECT_EQ(resultsWith(Field::kCapacity, 65535), Results(RM_SUCCESS, RM_SUCCESS));
    bag_.set(Field::kNext, 254);
    EXPECT_EQ(ffBagPush(bag_.bag, element_.data()), RM_SUCCESS);
    EXPECT_EQ(bag_.get(Field::kNext), 255);
    EXPECT_EQ(ffBagPush(bag_.bag, element_.data()), RM_INVALID);
    bag_.set(Field::kCount, 3);
    bag_.set(Field::kNext, 0);
    EXPECT_EQ(ffBagPop(bag_.bag, buffer_.data()), RM_INVALID) << "of slot 65532";
}

TEST_F(FfBagDamaged, ByACapacityOfNoneIsFullAndCannotBePopped)
{
    EXPECT_EQ(resultsWith(Field::kCapacity, 0), Results(RM_FULL, RM_INVALID));
}

TEST_F(FfBagDamaged, ByASmallerCapacityThanItsCountIsFullAndCannotBePopped)
{
    EXPECT_EQ(resultsWith(Field::kCapacity, 1), Results(RM_FULL, RM_INVALID));
}

TEST_F(FfBagDamaged, WithoutElementsIsEmptyWhateverElseItSays)
{
    bag_.set(Field::kCapacity, 3);
    bag_.set(Field::kNext, 999);
    bag_.set(Field::kElementSize, 65535);
    EXPECT_EQ(resultsWith(Field::kCount, 0), Results(RM_INVALID, RM_NO_ELEMENT));
}

TEST_F(FfBagDamaged, InAllItsBytesIsRefusedOrStaysWithinItsMemory)
{
    for (int byte = 0; byte < 256; ++byte) {
        std::memset(bag_.area, byte, kHeader);
        const int16_t pushed = ffBagPush(bag_.bag, element_.data());
        const int16_t popped = ffBagPop(bag_.bag, buffer_.data());
        EXPECT_EQ(pushed, RM_FULL) << byte;  // as many elements as slots
        EXPECT_EQ(popped, byte == 0 ? RM_NO_ELEMENT : RM_INVALID) << byte;
    }
}

TEST_F(FfBagDamaged, IsNotLogged)
{
    EXPECT_EQ(captureStderr([&] {
                  bag_.set(Field::kNext, 65535);
                  resetCalls();
                  EXPECT_EQ(ffBagPush(bag_.bag, element_.data()), RM_INVALID);
                  EXPECT_EQ(ffBagPop(bag_.bag, buffer_.data()), RM_INVALID);
                  EXPECT_THAT(callTrace(), IsEmpty());
              }),
              "");
}

// --- Several bags of one process

// What a bag may touch is its own, whichever was used last.
TEST_F(FfBagHostile, IsKeptToItsOwnMemoryAmongOthers)
{
    const FfBag small = makeBag(1, 16);
    const FfBag large = makeBag(255, 16);
    const EdgeBytes element(16);
    for (int round = 0; round < 3; ++round) {
        large.set(Field::kNext, 200);
        EXPECT_EQ(ffBagPush(large.bag, element.data()), RM_SUCCESS);
        small.set(Field::kCapacity, 255);
        small.set(Field::kNext, 200);
        EXPECT_EQ(ffBagPush(small.bag, element.data()), RM_INVALID);
    }
}

// As many as a process can have at a time, the first of them not forgotten over the last.
TEST_F(FfBagHostile, IsKeptToItsOwnMemoryAmongTwenty)
{
    std::vector<FfBag> bags;
    bags.reserve(os::kGshmSlots);
    for (int16_t n = 0; n < os::kGshmSlots; ++n) {
        bags.push_back(makeBag(255, 16));
    }
    const EdgeBytes element(16);
    for (const FfBag& bag : bags) {
        EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_SUCCESS);
        bag.set(Field::kElementSize, 17);
        EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_INVALID);
        bag.set(Field::kElementSize, 16);
        bag.set(Field::kCapacity, 256);
        bag.set(Field::kNext, 255);
        EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_INVALID);
    }
}

// A slot of the table that held a large bag holds a small one later.
TEST_F(FfBagHostile, IsKeptToTheMemoryOfTheLastCreationInItsSlot)
{
    makeBag(255, 16);
    rm_gshmTerminate();
    const FfBag small = makeBag(3, 16);
    small.set(Field::kCapacity, 255);
    small.set(Field::kNext, 3);
    const EdgeBytes element(16);
    EXPECT_EQ(ffBagPush(small.bag, element.data()), RM_INVALID);
    small.set(Field::kCapacity, 3);
    small.set(Field::kNext, 0);
    small.set(Field::kElementSize, 17);
    EXPECT_EQ(ffBagPush(small.bag, element.data()), RM_INVALID);
}

// The memory of an earlier bag stays attached, at its own address, with its own bag.
TEST_F(FfBagHostile, DoesNotMistakeANewBagForTheOneBefore)
{
    const FfBag old = makeBag(255, 16);
    const EdgeBytes element(16);
    EXPECT_EQ(ffBagPush(old.bag, element.data()), RM_SUCCESS);
    rm_gshmTerminate();
    const FfBag young = makeBag(3, 1);
    young.set(Field::kElementSize, 2);
    EXPECT_EQ(ffBagPush(young.bag, element.data()), RM_INVALID);
    EXPECT_EQ(ffBagPop(old.bag, element.data()), RM_SUCCESS);
}

// An old handle stays good, and what is known of it stays known.
TEST_F(FfBagHostile, IsKeptToItsOwnMemoryWhenItsSlotHasAnotherBag)
{
    const FfBag old = makeBag(255, 16);
    rm_gshmTerminate();
    makeBag(3, 1);
    const EdgeBytes element(16);
    old.set(Field::kCapacity, 65535);
    old.set(Field::kNext, 60000);
    EXPECT_EQ(ffBagPush(old.bag, element.data()), RM_INVALID);
    old.set(Field::kNext, 0);
    old.set(Field::kElementSize, 17);
    EXPECT_EQ(ffBagPush(old.bag, element.data()), RM_INVALID);
}

// What lies behind the memory of a bag of three: refused as long as that is known of it.
int16_t pushBehindThree(const FfBag& bag)
{
    const EdgeBytes element(16);
    bag.set(Field::kCapacity, 65535);
    bag.set(Field::kNext, 3);
    return ffBagPush(bag.bag, element.data());
}

// However many others have come and gone meanwhile.
TEST_F(FfBagHostile, IsKeptToItsOwnMemoryAsLongAsItHasItsObject)
{
    const FfBag first = makeBag(3, 16);
    const FfBag second = makeBag(3, 16);
    for (int n = 0; n < 3 * os::kGshmSlots; ++n) {
        makeBag(1, 1);
        rm_gshmDelete(2);
    }
    EXPECT_EQ(pushBehindThree(first), RM_INVALID);
    EXPECT_EQ(pushBehindThree(second), RM_INVALID);
    const EdgeBytes element(16);
    first.set(Field::kNext, 60000);
    EXPECT_EQ(ffBagPush(first.bag, element.data()), RM_INVALID);
    first.set(Field::kNext, 0);
    first.set(Field::kElementSize, 17);
    EXPECT_EQ(ffBagPush(first.bag, element.data()), RM_INVALID);
}

// Of those without an object the ones that were made last are known, as many as there is room for
// beside the others.
TEST_F(FfBagHostile, IsForgottenInTheOrderOfCreationWhenItsObjectHasGone)
{
    const FfBag living = makeBag(3, 16);
    const FfBag old = makeBag(3, 16);
    rm_gshmDelete(1);
    const FfBag younger = makeBag(3, 16);
    rm_gshmDelete(1);
    for (int16_t n = 3; n < os::kGshmSlots; ++n) {
        makeBag(1, 1);
    }
    EXPECT_EQ(pushBehindThree(old), RM_INVALID);
    const FfBag youngest = makeBag(3, 16);
    EXPECT_EQ(pushBehindThree(old), RM_SUCCESS) << "in the rest of its page";
    EXPECT_EQ(pushBehindThree(younger), RM_INVALID);
    rm_gshmDelete(os::kGshmSlots - 2);
    makeBag(1, 1);
    EXPECT_EQ(pushBehindThree(younger), RM_SUCCESS);
    EXPECT_EQ(pushBehindThree(youngest), RM_INVALID);
    makeBag(1, 1);
    EXPECT_EQ(pushBehindThree(youngest), RM_SUCCESS);
    EXPECT_EQ(pushBehindThree(living), RM_INVALID);
}

TEST_F(FfBagHostile, IsKeptToItsOwnMemoryAfterAReleaseOfTagZero)
{
    const FfBag bag = makeBag(255, 16);
    rm_freeTagMemory(0, 0);
    const FfBag smaller = makeBag(200, 16);  // in the same segment, at another address
    const EdgeBytes element(16);
    smaller.set(Field::kCapacity, 65535);
    smaller.set(Field::kNext, 200);
    EXPECT_EQ(ffBagPush(smaller.bag, element.data()), RM_INVALID);
    EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_SUCCESS);
    smaller.set(Field::kNext, 255);
    EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_INVALID);
}

// A host may detach an area by itself, and the next one may come to stand there.
class FfBagAtAnOldAddress : public rmtest::RmTest
{
};

TEST_F(FfBagAtAnOldAddress, IsKnownByItsOwnShape)
{
    void* large = nullptr;
    void* small = nullptr;
    void* other = nullptr;
    void* area = nullptr;
    ffBagCreate(255, 16, &large, &area);
    rm_gshmDelete(0);
    ASSERT_EQ(shmdt(area), 0);
    {
        rmtest::ScopedFault sameAddress(
            {.call = rmtest::Call::kShmat, .action = [area](const rmtest::CallRecord& call) {
                 return reinterpret_cast<int64_t>(shmat(static_cast<int>(call.args[0]), area, 0));
             }});
        ffBagCreate(3, 16, &small, &area);
    }
    ASSERT_EQ(small, large);
    ffBagCreate(1, 16, &other, &area);       // the last one used is another
    static_cast<uint16_t*>(small)[0] = 255;  // the capacity
    static_cast<uint16_t*>(small)[2] = 200;  // the next slot
    const std::string element(16, 'e');
    EXPECT_EQ(ffBagPush(small, element.data()), RM_INVALID);
    rm_gshmTerminate();
}

}  // namespace
