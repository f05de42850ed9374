// The file that all workers write, under a lock.
//
// Why: an update is a read, a decision and a write that must not be divided, neither by another
// worker nor by death. The worker writes down the whole record first; the parent writes it again
// when the worker has died before it was done.
//
// Invariant: under the lock, with no note open, the record in each used slot is the one of the
// version that the board has for it.
//
// Locks: kRecordsLock around every operation; the library's own inside of it.
#include "soak.h"

#include "rm.h"

#include <cstring>

namespace soak
{
namespace
{
constexpr uint32_t kIncrement = 4096;

int16_t handle = RM_NONE;

uint32_t offsetOf(uint32_t slot)
{
    return slot * static_cast<uint32_t>(sizeof(Record));
}

void open()
{
    handle = rm_fileOpen(kRecordFile, RM_O_RDWR | RM_O_CREAT, 0, 0, kIncrement);
    SOAK_CHECK(handle > 0, "%s cannot be opened", kRecordFile);
}

void lookAt(uint32_t slot)
{
    Record record = {};
    const uint32_t count = rm_fileSeekRead(handle, offsetOf(slot), &record, sizeof record);
    const uint32_t version = board->records.version[slot];
    SOAK_CHECK(count == sizeof record && isWhole(record),
               "the record in slot %u of %u is damaged: %u bytes, version %u, expected %u", slot,
               board->records.used, count, record.version, version);
    SOAK_CHECK(record.slot == slot && record.version == version,
               "slot %u has version %u of record %u and not %u", slot, record.version, record.slot,
               version);
    SOAK_CHECK(version >= board->records.acked[slot].load(),
               "slot %u has version %u, and version %u was acknowledged", slot, version,
               board->records.acked[slot].load());
}

// Whole, or in two pieces, with time to die in between.
void write(const Record& record)
{
    const auto* const bytes = reinterpret_cast<const char*>(&record);
    const uint32_t first = plan.once(2) ? sizeof record : 1 + plan.below(sizeof record - 1);
    uint32_t count = rm_fileSeekWrite(handle, offsetOf(record.slot), bytes, first);
    if (first < sizeof record) {
        dawdle();
        count += rm_fileSeekWrite(handle, offsetOf(record.slot) + first, bytes + first,
                                  static_cast<uint32_t>(sizeof record) - first);
    }
    SOAK_CHECK(count == sizeof record, "%u bytes of a record were written", count);
}

void acknowledge(uint32_t slot, uint32_t version)
{
    std::atomic<uint32_t>& acked = board->records.acked[slot];
    uint32_t before = acked.load();
    while (before < version && !acked.compare_exchange_weak(before, version)) {
    }
    ++mine().recordsAcked;
}

void update()
{
    RecordBoard& records = board->records;
    if (!enter(kRecordsLock)) {
        return;
    }
    const bool adds = records.used == 0 || (records.used < kRecordSlots && plan.once(24));
    const uint32_t slot = adds ? records.used : plan.below(records.used);
    if (!adds) {
        lookAt(slot);
    }
    const uint32_t version = records.version[slot] + 1;
    makeRecord(&records.image, slot, version, me, mine().life);
    records.writtenAfter = records.written[me] + 1;
    records.open.store(me + 1);  // from here on it is made, by us or for us
    dawdle();
    write(records.image);
    records.version[slot] = version;
    records.used = adds ? slot + 1 : records.used;
    records.written[me] = records.writtenAfter;
    records.open.store(0);
    leave(kRecordsLock);
    acknowledge(slot, version);
}

void readSome()
{
    if (!enter(kRecordsLock)) {
        return;
    }
    for (uint32_t i = 0; i < 4 && board->records.used != 0; ++i) {
        lookAt(plan.below(board->records.used));
    }
    leave(kRecordsLock);
}

void start()
{
    open();
}

void step()
{
    if (plan.once(100)) {
        rm_fileClose(handle);
        open();
    }
    if (plan.once(3)) {
        readSome();
    } else {
        update();
    }
}

void end()
{
    rm_fileClose(handle);
    handle = RM_NONE;
}
}  // namespace

void makeRecord(Record* record, uint32_t slot, uint32_t version, uint32_t writer, uint32_t life)
{
    record->slot = slot;
    record->version = version;
    record->writer = writer;
    record->life = life;
    fill(record->filling, sizeof record->filling, sumOf(record, offsetof(Record, filling)));
    record->sum = sumOf(record, offsetof(Record, sum));
}

bool isWhole(const Record& record)
{
    return record.version != 0 && record.sum == sumOf(&record, offsetof(Record, sum)) &&
           isFilled(record.filling, sizeof record.filling,
                    sumOf(&record, offsetof(Record, filling)));
}

const Family kRecords = {"shared records", 120, start, step, nullptr, end, false};

}  // namespace soak
