// The diary of a worker: what it was told is written is there after its death.
//
// Why: the files of the other families are nobody's after a death. This one is continued by the
// replacement, which has to find every record whose write had come back.
//
// Owns: "diary" in the worker's directory, a file of slots that is written round and round. The
// number of the last acknowledged record stands on the board.
#include "soak.h"

#include "rm.h"

#include <algorithm>

namespace soak
{
namespace
{
constexpr uint32_t kSlots = 600;

struct Entry {
    uint32_t number;
    uint32_t worker;
    unsigned char filling[72];
    uint64_t sum;
};

int16_t handle = RM_NONE;

Entry entryOf(uint32_t worker, uint32_t number)
{
    Entry entry = {number, worker, {}, 0};
    fill(entry.filling, sizeof entry.filling, uint64_t{worker} << 32U | number);
    entry.sum = sumOf(&entry, offsetof(Entry, sum));
    return entry;
}

bool isEntry(const Entry& entry, uint32_t worker, uint32_t number)
{
    const Entry expected = entryOf(worker, number);
    return sumOf(&entry, sizeof entry) == sumOf(&expected, sizeof expected);
}

uint32_t offsetOf(uint32_t number)
{
    return number % kSlots * static_cast<uint32_t>(sizeof(Entry));
}

// The one before the oldest may be half overwritten by the one that was not acknowledged.
uint32_t oldest(uint32_t acked)
{
    return acked > kSlots - 2 ? acked - (kSlots - 2) : 1;
}

void start()
{
    handle = rm_fileOpen(own("diary").c_str(), RM_O_RDWR | RM_O_CREAT, 0, 0, 2000);
    SOAK_CHECK(handle > 0, "the diary cannot be opened");
    const uint32_t acked = mine().diaryAcked;
    for (uint32_t number = oldest(acked); number <= acked; ++number) {
        Entry entry = {};
        const uint32_t count = rm_fileSeekRead(handle, offsetOf(number), &entry, sizeof entry);
        SOAK_CHECK(count == sizeof entry && isEntry(entry, me, number),
                   "record %u of %u of the diary was lost, %u bytes of it are left", number, acked,
                   count);
    }
}

void step()
{
    const uint32_t number = mine().diaryAcked + 1;
    const Entry entry = entryOf(me, number);
    const uint32_t count = rm_fileSeekWrite(handle, offsetOf(number), &entry, sizeof entry);
    SOAK_CHECK(count == sizeof entry, "%u bytes were written into the diary", count);
    if (plan.once(20)) {
        rm_fileSync(handle);
    }
    mine().diaryAcked = number;
    Entry other = {};
    const uint32_t from = oldest(number);
    const uint32_t some = from + plan.below(number - from + 1);
    SOAK_CHECK(rm_fileSeekRead(handle, offsetOf(some), &other, sizeof other) == sizeof other &&
                   isEntry(other, me, some),
               "record %u of %u of the diary is not what it was", some, number);
}

void end()
{
    rm_fileClose(handle);
    handle = RM_NONE;
}
}  // namespace

bool diaryIsWhole(uint32_t worker)
{
    const std::string diary = slurp("w" + std::to_string(worker) + "/diary");
    const uint32_t acked = board->worker[worker].diaryAcked;
    for (uint32_t number = oldest(acked); number <= acked; ++number) {
        Entry entry = {};
        if (diary.size() < offsetOf(number) + sizeof entry) {
            return false;
        }
        std::copy_n(diary.data() + offsetOf(number), sizeof entry, reinterpret_cast<char*>(&entry));
        if (!isEntry(entry, worker, number)) {
            return false;
        }
    }
    return true;
}

const Family kDiary = {"diary", 60, start, step, nullptr, end, false};

}  // namespace soak
