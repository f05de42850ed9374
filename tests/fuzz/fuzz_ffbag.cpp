// Operations on FF bags beside the model of the tests, while their headers are written over: on one
// that ffBagCreate made, whose fields may say anything, and on one in plain memory, of which the
// library knows no more than its header says.
//
// Input: a byte for the number of slots, one for the bytes of an element, then one for each
// operation with what it needs behind it. An operation is a byte: the lowest bit says on which bag,
// the next three say which, the high ones how often.
//
// Both bags end where memory begins that nobody may touch. The created one gets it from here: this
// target has shared memory of its own, so that no input leaves any on the machine.
#include "fuzz.h"
#include "tests/models/ffbag_model.h"

#include "rm.h"
#include "rm/ffbag.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <sys/mman.h>
#include <sys/shm.h>

// The calls of the system, by the names that the library's file is compiled with.
extern "C" int fuzzShmget(key_t key, std::size_t size, int flags) noexcept;
extern "C" void* fuzzShmat(int id, const void* address, int flags) noexcept;
extern "C" int fuzzShmctl(int id, int command, shmid_ds* state) noexcept;

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Input;
using rmtest::FfBagModel;
using Bytes = FfBagModel::Bytes;
using Field = FfBagModel::Field;

constexpr int kMostSteps = 400;
constexpr std::size_t kPage = 4096;
constexpr std::size_t kRoom = 17 * kPage;  // more than the largest bag of an input
constexpr std::size_t kBefore = 64;        // bytes before a bag that are compared
constexpr unsigned char kUntouched = 0xEE;

// Elements of sizes around those of words, and some large ones.
constexpr std::array<uint16_t, 16> kElementSizes = {0, 1,  2,  3,  4,  5,  7,   8,
                                                    9, 15, 16, 17, 33, 64, 127, 255};

constexpr std::array<Field, 4> kFields = {Field::kCapacity, Field::kCount, Field::kNext,
                                          Field::kElementSize};

enum Operation : uint8_t {
    kPush,
    kPop,
    kPushAgain,  // these two are wanted most
    kPopAgain,
    kSetField,      // to two bytes of the input
    kSetNearby,     // to what it could be, give or take one
    kRepair,        // all of them
    kWriteElement,  // what is in the slots is nobody's business
};

// Pages for one bag at a time, with one behind them that nobody may touch.
class Arena
{
  public:
    Arena()
    {
        void* pages = mmap(nullptr, kRoom + kPage, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        FUZZ_CHECK(pages != MAP_FAILED);
        end_ = static_cast<unsigned char*>(pages) + kRoom;
        FUZZ_CHECK(mprotect(end_, kPage, PROT_NONE) == 0);
    }

    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    // Where an area of so many bytes begins. It ends at the border, but for what its fields' own
    // alignment asks for.
    unsigned char* place(std::size_t size)
    {
        FUZZ_CHECK(rounded(size) + kBefore <= kRoom);
        unsigned char* area = end_ - rounded(size);
        std::fill(area - kBefore, end_, kUntouched);
        return area;
    }

    static std::size_t rounded(std::size_t size) { return (size + 3) / 4 * 4; }

  private:
    unsigned char* end_;
};

// They outlive the inputs: what the library knows by an address stays true or is replaced.
Arena& plainArena()
{
    static Arena arena;
    return arena;
}

Arena& sharedArena()
{
    static Arena arena;
    return arena;
}

std::size_t bytesAskedFor = 0;

// A bag and its model, which do the same things.
class Pair
{
  public:
    Pair(uint16_t capacity, uint16_t elementSize, bool created)
        : capacity_(capacity),
          elementSize_(elementSize),
          isCreated_(created),
          area_(created ? create() : layOut()),
          model_(capacity, elementSize, reinterpret_cast<uintptr_t>(area_),
                 Bytes(Arena::rounded(size()), kUntouched))
    {
        if (!created) {
            std::copy(model_.memory().begin(), model_.memory().end(), area_);
        }
        FUZZ_CHECK(isSame());
    }

    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    void step(Operation operation, Input& input)
    {
        switch (operation) {
            case kPush:
            case kPushAgain:
                push();
                break;
            case kPop:
            case kPopAgain:
                pop();
                break;
            case kSetField: {
                const Field field = kFields.at(input.byte() % kFields.size());
                set(field, static_cast<uint16_t>(input.int16()));
                break;
            }
            case kSetNearby:
                setNearby(input.byte());
                break;
            case kRepair:
                set(Field::kCapacity, capacity_);
                set(Field::kElementSize, elementSize_);
                set(Field::kNext, capacity_ == 0 ? 0 : input.byte() % capacity_);
                set(Field::kCount, input.byte() % (capacity_ + 1U));
                break;
            case kWriteElement:
                if (size() > Field::kSlots) {
                    const std::size_t at = input.byte() % (size() - Field::kSlots);
                    write(Field::kSlots + at, input.byte());
                }
                break;
        }
        FUZZ_CHECK(isSame());
        FUZZ_CHECK((ffbag::checkFfBag(area_ + Field::kCapacity) == 0) == model_.isSound());
    }

  private:
    std::size_t size() const { return Field::kSlots + std::size_t{capacity_} * elementSize_; }

    unsigned char* layOut() const { return plainArena().place(size()); }

    unsigned char* create() const
    {
        void* bag = nullptr;
        void* area = nullptr;
        FUZZ_CHECK(ffBagCreate(capacity_, elementSize_, &bag, &area) == RM_SUCCESS);
        FUZZ_CHECK(bag == static_cast<char*>(area) + Field::kCapacity);
        FUZZ_CHECK(bytesAskedFor == size());
        return static_cast<unsigned char*>(area);
    }

    void write(std::size_t offset, uint8_t value)
    {
        area_[offset] = value;
        model_.write(offset, value);
    }

    // Nobody else knows how much of plain memory there is: it never says more.
    void set(Field field, uint32_t value)
    {
        if (!isCreated_ && field == Field::kCapacity) {
            value = std::min<uint32_t>(value, capacity_);
        }
        if (!isCreated_ && field == Field::kElementSize) {
            value = std::min<uint32_t>(value, elementSize_);
        }
        model_.set(field, value);
        std::memcpy(area_ + field, &model_.memory()[field], sizeof(uint16_t));
    }

    void setNearby(uint8_t choice)
    {
        const std::array<uint32_t, 4> likely = {capacity_, model_.get(Field::kCount),
                                                model_.get(Field::kNext), elementSize_};
        set(kFields.at(choice % 4U), likely.at(choice / 4U % 4U) + choice / 16U % 3U - 1);
    }

    void push()
    {
        Buffer element(elementSize_);
        std::fill_n(element.data(), elementSize_, static_cast<char>(++fill_));
        const Bytes before(element.data(), element.data() + elementSize_);
        const int16_t result = ffBagPush(area_ + Field::kCapacity, element.data());
        FUZZ_CHECK(result == model_.push(before.data()));
        FUZZ_CHECK(std::equal(before.begin(), before.end(),
                              reinterpret_cast<unsigned char*>(element.data())));
        element.check();
    }

    void pop()
    {
        Buffer buffer(elementSize_);
        Bytes expected(elementSize_, static_cast<unsigned char>(Buffer::kUntouched));
        const int16_t result = ffBagPop(area_ + Field::kCapacity, buffer.data());
        FUZZ_CHECK(result == model_.pop(expected.data()));
        FUZZ_CHECK(std::equal(expected.begin(), expected.end(),
                              reinterpret_cast<unsigned char*>(buffer.data())));
        buffer.check();
    }

    bool isSame() const
    {
        return std::equal(model_.memory().begin(), model_.memory().end(), area_) &&
               std::all_of(area_ - kBefore, area_,
                           [](unsigned char byte) { return byte == kUntouched; });
    }

    uint16_t capacity_;
    uint16_t elementSize_;
    bool isCreated_;
    unsigned char* area_;
    FfBagModel model_;
    unsigned char fill_ = 0;
};
}  // namespace

int fuzzShmget(key_t /*key*/, std::size_t size, int /*flags*/) noexcept
{
    bytesAskedFor = size;
    return 1;
}

void* fuzzShmat(int id, const void* address, int flags) noexcept
{
    FUZZ_CHECK(id == 1 && address == nullptr && flags == 0);
    return sharedArena().place(bytesAskedFor);
}

int fuzzShmctl(int id, int command, shmid_ds* /*state*/) noexcept
{
    FUZZ_CHECK(id == 1 && command == IPC_RMID);
    return 0;
}

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();  // of the checker
    const uint16_t capacity = input.byte();
    const uint16_t elementSize = kElementSizes.at(input.byte() % kElementSizes.size());
    const InDirectory inDirectory;
    Pair plain(capacity, elementSize, false);
    Pair created(capacity, elementSize, true);
    for (int left = kMostSteps; left > 0 && !input.empty();) {
        const unsigned byte = input.byte();
        Pair& bag = (byte & 1U) == 0 ? created : plain;
        for (unsigned times = 1 + (byte >> 4U); times > 0; --times, --left) {
            bag.step(static_cast<Operation>(byte >> 1U & 7U), input);
        }
    }
    FUZZ_CHECK(os::checkGshm() == 0);
    FUZZ_CHECK(rm_gshmTerminate() == 0);
}
