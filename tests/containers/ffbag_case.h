// What the tests of FF bags share: bags that stand between memory which nobody may touch, buffers
// that end where such memory begins, and a fixture that gives the segments back.
#ifndef RM_TESTS_CONTAINERS_FFBAG_CASE_H
#define RM_TESTS_CONTAINERS_FFBAG_CASE_H

#include "tests/models/ffbag_model.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/ffbag.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>

#include <gtest/gtest.h>

namespace ffbagtest
{

using rmtest::FfBagModel;

using Bytes = FfBagModel::Bytes;
using Lines = std::vector<std::string>;

constexpr std::size_t kPage = 4096;
constexpr std::size_t kHeader = 16;  // bytes before slot 0

inline std::size_t wholePages(std::size_t bytes)
{
    return (bytes + kPage - 1) / kPage * kPage;
}

// Pages that nobody may touch, with room for `bytes` between two of them.
inline unsigned char* reserve(std::size_t bytes)
{
    void* memory = mmap(nullptr, wholePages(bytes) + 2 * kPage, PROT_NONE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    EXPECT_NE(memory, MAP_FAILED);
    return static_cast<unsigned char*>(memory);
}

// Bytes of a caller. The one behind the last cannot be touched.
class EdgeBytes
{
  public:
    explicit EdgeBytes(std::size_t size) : size_(size), reserved_(reserve(size))
    {
        mprotect(reserved_ + kPage, wholePages(size), PROT_READ | PROT_WRITE);
    }

    ~EdgeBytes() { munmap(reserved_, wholePages(size_) + 2 * kPage); }

    EdgeBytes(const EdgeBytes&) = delete;
    EdgeBytes& operator=(const EdgeBytes&) = delete;

    unsigned char* data() const { return reserved_ + kPage + wholePages(size_) - size_; }

    std::size_t size() const { return size_; }

    void fill(unsigned char value) const { std::memset(data(), value, size_); }

    Bytes contents() const { return {data(), data() + size_}; }

  private:
    std::size_t size_;
    unsigned char* reserved_;
};

// While it lives, every segment is attached between pages that nobody may touch: a bag whose size
// is one of whole pages ends at such a page.
class GuardedSegments
{
  private:
    static int64_t attachGuarded(const rmtest::CallRecord& record)
    {
        shmid_ds segment = {};
        shmctl(static_cast<int>(record.args[0]), IPC_STAT, &segment);
        rmtest::CallRecord guarded = record;
        guarded.args[1] = reinterpret_cast<intptr_t>(reserve(segment.shm_segsz) + kPage);
        guarded.args[2] |= SHM_REMAP;
        return rmtest::passThrough(guarded);
    }

    rmtest::ScopedFault fault_{
        {.call = rmtest::Call::kShmat, .times = rmtest::kForever, .action = attachGuarded}};
};

// A bag of this process.
struct FfBag {
    void* bag = nullptr;
    unsigned char* area = nullptr;

    uint16_t get(FfBagModel::Field field) const
    {
        uint16_t value = 0;
        std::memcpy(&value, area + field, sizeof(value));
        return value;
    }

    void set(FfBagModel::Field field, uint32_t value) const
    {
        const auto narrow = static_cast<uint16_t>(value);
        std::memcpy(area + field, &narrow, sizeof(narrow));
    }

    Bytes bytes(std::size_t size) const { return {area, area + size}; }
};

inline FfBag makeBag(uint16_t capacity, uint16_t elementSize)
{
    FfBag made;
    void* area = nullptr;
    EXPECT_EQ(ffBagCreate(capacity, elementSize, &made.bag, &area), 0);
    made.area = static_cast<unsigned char*>(area);
    return made;
}

inline std::size_t sizeOf(uint16_t capacity, uint16_t elementSize)
{
    return std::size_t{capacity} * elementSize + kHeader;
}

// Puts in one of the letters of elements of one byte, or takes one out; "full", "empty" and
// "damaged" when that is refused.
inline std::string push(const FfBag& bag, char letter)
{
    switch (ffBagPush(bag.bag, &letter)) {
        case RM_SUCCESS:
            return "ok";
        case RM_FULL:
            return "full";
        case RM_INVALID:
            return "damaged";
        default:
            return "?";
    }
}

inline std::string pop(const FfBag& bag)
{
    char letter = '?';
    switch (ffBagPop(bag.bag, &letter)) {
        case RM_SUCCESS:
            return {letter};
        case RM_NO_ELEMENT:
            return "empty";
        case RM_INVALID:
            return "damaged";
        default:
            return "?";
    }
}

class FfBagCase : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        rm_gshmTerminate();
        RmTest::TearDown();
    }
};

}  // namespace ffbagtest

#endif
