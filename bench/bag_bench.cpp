// Bags against a vector of the same records that is scanned: adding, finding by name, visiting.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

namespace
{
constexpr std::size_t kNameSize = 32;
constexpr std::size_t kDraws = 1024;  // keys that are drawn beforehand

// What a server keeps of a session.
struct Record {
    char name[kNameSize];
    uint64_t counters[4];
};

// Doubled, they lead to 1008 and to 64512; 128 would end at 32768.
constexpr uint16_t kFirstSlots = 126;
constexpr BagCtl kCompact = {
    BAG_KEY_STRING, kFirstSlots, 0, 0, sizeof(Record), 0, offsetof(Record, name), 0};
constexpr BagCtl kSlotMap = {
    BAG_KEY_STRING | BAG_SLOT_MAP, kFirstSlots, 0, 0, sizeof(Record), 0, offsetof(Record, name), 0};

Record makeRecord(std::size_t number)
{
    Record record = {};
    std::snprintf(record.name, sizeof(record.name), "session-%06zu", number);
    record.counters[0] = number;
    return record;
}

std::vector<Record> makeRecords(long count)
{
    std::vector<Record> records;
    for (long i = 0; i < count; ++i) {
        records.push_back(makeRecord(static_cast<std::size_t>(i)));
    }
    return records;
}

std::vector<std::size_t> drawNumbers(long count)
{
    std::mt19937 generator(1);
    std::uniform_int_distribution<std::size_t> numbers(0, static_cast<std::size_t>(count) - 1);
    std::vector<std::size_t> drawn(kDraws);
    for (std::size_t& number : drawn) {
        number = numbers(generator);
    }
    return drawn;
}

// It has more slots than elements, so that iteration reaches all of them.
Bag* makeBag(const BagCtl& ctl, const std::vector<Record>& records)
{
    Bag* bag = nullptr;
    bagCreate(&ctl, &bag);
    for (const Record& record : records) {
        rmbench::must(bagAdd(bag, &record) == RM_SUCCESS, "bagAdd");
    }
    return bag;
}

// What a server does with each session that it visits: a sum over the whole record.
uint64_t checksum(const Record& record)
{
    constexpr uint64_t kStart = 0xcbf29ce484222325;
    constexpr uint64_t kPrime = 0x100000001b3;
    unsigned char bytes[sizeof(Record)];
    std::memcpy(bytes, &record, sizeof(bytes));
    uint64_t sum = kStart;
    for (const unsigned char byte : bytes) {
        sum = (sum ^ byte) * kPrime;
    }
    return sum;
}

// So many sets are filled at a time that making them, which is not measured, disturbs little.
std::size_t setsOf(long count)
{
    constexpr long kElements = 300;
    return static_cast<std::size_t>(std::max(kElements / count, 1L));
}

template <const BagCtl& kCtl>
void addOurs(benchmark::State& state)
{
    const std::vector<Record> records = makeRecords(state.range(0));
    std::vector<Bag*> bags(setsOf(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        for (Bag*& bag : bags) {
            bagCreate(&kCtl, &bag);
        }
        state.ResumeTiming();
        for (Bag* bag : bags) {
            for (const Record& record : records) {
                bagAdd(bag, &record);
            }
        }
        state.PauseTiming();
        for (Bag* bag : bags) {
            rmbench::must(bag->usedCount == records.size(), "bagAdd");
            bagDestroy(bag);
        }
        state.ResumeTiming();
    }
}

// A vector is kept in a module of the host as well, behind a call.
[[gnu::noinline]] void addTo(std::vector<Record>& set, const Record& record)
{
    set.push_back(record);
}

void addBare(benchmark::State& state)
{
    const std::vector<Record> records = makeRecords(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<std::vector<Record>> sets(setsOf(state.range(0)));
        state.ResumeTiming();
        for (std::vector<Record>& set : sets) {
            for (const Record& record : records) {
                addTo(set, record);
            }
            benchmark::DoNotOptimize(set.data());
        }
        state.PauseTiming();
        sets.clear();
        state.ResumeTiming();
    }
}

// One iteration deletes an element anywhere and adds one, which goes into the lowest hole.
void replaceOurs(benchmark::State& state)
{
    const std::vector<Record> records = makeRecords(state.range(0));
    Bag* bag = makeBag(kSlotMap, records);
    const std::vector<std::size_t> drawn = drawNumbers(state.range(0));
    std::size_t next = 0;
    for (auto _ : state) {
        bagSetCurHandle(bag, static_cast<uint16_t>(drawn[next]));
        bagDelete(bag);
        bagAdd(bag, &records[drawn[next]]);
        next = (next + 1) % kDraws;
    }
    bagDestroy(bag);
}

void replaceBare(benchmark::State& state)
{
    std::vector<Record> records = makeRecords(state.range(0));
    const std::vector<Record> originals = records;
    const std::vector<std::size_t> drawn = drawNumbers(state.range(0));
    std::size_t next = 0;
    for (auto _ : state) {
        records[drawn[next]] = {};
        for (Record& record : records) {
            if (record.name[0] == '\0') {
                record = originals[drawn[next]];
                break;
            }
        }
        next = (next + 1) % kDraws;
    }
    benchmark::DoNotOptimize(records.data());
}

std::vector<Record> drawKeys(long count)
{
    std::vector<Record> keys;
    for (const std::size_t number : drawNumbers(count)) {
        keys.push_back(makeRecord(number));
    }
    return keys;
}

template <const BagCtl& kCtl>
void findOurs(benchmark::State& state)
{
    Bag* bag = makeBag(kCtl, makeRecords(state.range(0)));
    const std::vector<Record> keys = drawKeys(state.range(0));
    std::size_t next = 0;
    for (auto _ : state) {
        void* found = nullptr;
        bagFind(bag, keys[next].name, nullptr, &found);
        benchmark::DoNotOptimize(found);
        next = (next + 1) % kDraws;
    }
    bagDestroy(bag);
}

void findBare(benchmark::State& state)
{
    const std::vector<Record> records = makeRecords(state.range(0));
    const std::vector<Record> keys = drawKeys(state.range(0));
    std::size_t next = 0;
    for (auto _ : state) {
        const Record* found = nullptr;
        for (const Record& record : records) {
            if (std::strcmp(record.name, keys[next].name) == 0) {
                found = &record;
                break;
            }
        }
        benchmark::DoNotOptimize(found);
        next = (next + 1) % kDraws;
    }
}

template <const BagCtl& kCtl, uint64_t (*kVisit)(const Record&)>
void iterateOurs(benchmark::State& state)
{
    Bag* bag = makeBag(kCtl, makeRecords(state.range(0)));
    for (auto _ : state) {
        uint64_t sum = 0;
        for (int16_t status = bagFirst(bag); status == RM_SUCCESS; status = bagNext(bag)) {
            void* record = nullptr;
            bagGetCurPtr(bag, &record);
            sum += kVisit(*static_cast<Record*>(record));
        }
        benchmark::DoNotOptimize(sum);
    }
    bagDestroy(bag);
}

template <uint64_t (*kVisit)(const Record&)>
void iterateBare(benchmark::State& state)
{
    const std::vector<Record> records = makeRecords(state.range(0));
    for (auto _ : state) {
        uint64_t sum = 0;
        for (const Record& record : records) {
            sum += kVisit(record);
        }
        benchmark::DoNotOptimize(sum);
    }
}

uint64_t firstCounter(const Record& record)
{
    return record.counters[0];
}
}  // namespace

void rmbench::addBagPairs()
{
    constexpr double kLimit = 1.5;
    for (const long count : {10L, 1000L, 60000L}) {
        const std::string size = std::to_string(count);
        addPair("bag: add " + size, "vector, push_back", kLimit, addOurs<kCompact>, addBare, count);
        addPair("bag: add " + size + ", slot map", "vector, push_back", kForTheRecord,
                addOurs<kSlotMap>, addBare, count);
        addPair("bag: replace in " + size + ", slot map", "vector, first free",
                count > 10 ? kLimit : kForTheRecord, replaceOurs, replaceBare, count);
        addPair("bag: find in " + size, "vector, strcmp", kLimit, findOurs<kCompact>, findBare,
                count);
        addPair("bag: find in " + size + ", slot map", "vector, strcmp", kLimit, findOurs<kSlotMap>,
                findBare, count);
        addPair("bag: visit " + size, "vector, checksums", kLimit, iterateOurs<kCompact, checksum>,
                iterateBare<checksum>, count);
        addPair("bag: visit " + size + ", slot map", "vector, checksums", kLimit,
                iterateOurs<kSlotMap, checksum>, iterateBare<checksum>, count);
        addPair("bag: step over " + size, "vector, one load each", kForTheRecord,
                iterateOurs<kCompact, firstCounter>, iterateBare<firstCounter>, count);
    }
}
