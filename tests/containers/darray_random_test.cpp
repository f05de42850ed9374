// Random calls on several dynamic arrays at once, of many shapes, each beside a model of its own.
//
// After every call the array is checked, and what the call gave is compared: index, address, name.
// All of an array - each name, each address, each byte - is compared now and then, and in the end.
//
//     RM_TEST_SEED=123             repeats a run; a failure prints its seed
//     RM_TEST_OPERATIONS=10000000  makes a longer one: the number of calls in each case
#include "tests/containers/darray_case.h"
#include "tests/models/darray_model.h"

#include <cstdlib>
#include <memory>
#include <random>
#include <string_view>

using namespace arraytest;

namespace
{
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::DArrayModel;

#ifdef __SANITIZE_ADDRESS__
constexpr long kOperations = 100'000;  // each costs several times as much
#else
constexpr long kOperations = 400'000;
#endif
constexpr std::size_t kArrays = 5;       // at a time
constexpr uint32_t kWholeEvery = 500;    // calls, on average, between two looks at a whole array
constexpr uint32_t kDestroyEvery = 900;  // calls, on average, in the life of an array

// Few, so that some entries have the same one; each is compared as a pointer too.
constexpr std::array<const char*, 12> kNames = {"",     "a",   "A",     "aa",    "name",  "names",
                                                "Name", "nam", "other", "entry", "entry", "\xE4"};

// One array and its model.
struct Pair {
    Pair(int16_t maxEntries, int16_t entriesPerBlock, int16_t size)
        : array(darrayCreate(maxEntries, entriesPerBlock, size)),
          model(maxEntries, entriesPerBlock, size),
          perBlock(entriesPerBlock),
          dataSize(size)
    {
    }

    std::size_t bytes() const { return static_cast<std::size_t>(dataSize); }

    DArray* array;
    DArrayModel model;
    int16_t perBlock;
    int16_t dataSize;
    std::vector<const char*> records;  // the address that each entry has had from the start
};

class DArrayRandom : public rmtest::RmTest
{
  protected:
    uint32_t below(uint32_t bound)
    {
        return std::uniform_int_distribution<uint32_t>(0, bound - 1)(random_);
    }

    bool oneIn(uint32_t n) { return below(n) == 0; }

    int16_t number(uint32_t bound) { return static_cast<int16_t>(below(bound)); }

    std::unique_ptr<Pair> newPair()
    {
        const std::array<int16_t, 10> sizes = {0, 1, 2, 3, 7, 8, 12, 24, 64, 200};
        const auto perBlock = static_cast<int16_t>(1 + below(oneIn(4) ? 40 : 8));
        auto pair = std::make_unique<Pair>(number(oneIn(4) ? 150 : 30), perBlock,
                                           sizes.at(below(sizes.size())));
        EXPECT_EQ(pair->array->maxBlocks, pair->model.mostBlocks());
        return pair;
    }

    // Mostly an index that exists, sometimes one beside those, sometimes any number.
    int16_t index(const Pair& pair)
    {
        const auto size = static_cast<uint32_t>(pair.model.size());
        if (size == 0 || oneIn(20)) {
            return static_cast<int16_t>(below(0x10000));
        }
        if (oneIn(10)) {
            const auto edge = static_cast<int16_t>(oneIn(2) ? 0 : size);
            return static_cast<int16_t>(edge + number(4) - 2);
        }
        return number(size);
    }

    // Mostly a piece of a record, sometimes with a byte changed, sometimes too long.
    std::string keyFor(Pair* pair, int offset)
    {
        std::string key;
        if (pair->model.size() > 0 && offset >= 0 && offset <= pair->dataSize) {
            const std::string& record =
                pair->model.record(number(static_cast<uint32_t>(pair->model.size())));
            key = record.substr(static_cast<std::size_t>(offset), below(12));
        }
        if (oneIn(4)) {
            key += static_cast<char>(below(3) == 0 ? 0 : 'a' + below(2));
        }
        if (oneIn(4) && !key.empty()) {
            key[below(static_cast<uint32_t>(key.size()))] ^= 1;
        }
        return key;
    }

    // Bytes of a record: few different ones, so that pieces are found again, and zeros.
    void fillRecord(Pair* pair, int16_t at)
    {
        std::string& record = pair->model.record(at);
        for (char& byte : record) {
            byte = oneIn(6) ? '\0' : static_cast<char>('a' + below(2));
        }
        std::memcpy(darrayGetEntryPtr(pair->array, at), record.data(), record.size());
    }

    // One call. False when it gave anything but what the model gave.
    bool sameCall(Pair* pair)
    {
        switch (below(12)) {
            case 0:
            case 1:
            case 2:
                return sameDelete(pair);
            case 3:
                return sameFind(pair);
            case 4:
            case 5:
                return sameFromData(pair);
            case 6:
                return darrayGetFirstUsedEntry(pair->array) == pair->model.first();
            case 7:
                return sameEntry(*pair, index(*pair));
            case 8:
                return sameWriting(pair);
            default:
                return sameCreate(pair);
        }
    }

    // A record is full of what its model says from the time on when its block is made.
    void noteNewBlocks(Pair* pair)
    {
        while (pair->records.size() < static_cast<std::size_t>(pair->model.size())) {
            const auto at = static_cast<int16_t>(pair->records.size());
            auto* record = static_cast<char*>(darrayGetEntryPtr(pair->array, at));
            ASSERT_NE(record, nullptr);
            pair->records.push_back(record);
            fillRecord(pair, at);
        }
    }

    static bool sameEntry(const Pair& pair, int16_t at)
    {
        const char* record =
            pair.model.has(at) ? pair.records.at(static_cast<std::size_t>(at)) : nullptr;
        return darrayGetEntryName(pair.array, at) == pair.model.name(at) &&
               darrayGetEntryPtr(pair.array, at) == record;
    }

    static bool sameWhole(Pair* pair)
    {
        for (int index = 0; index < pair->model.size(); ++index) {
            const auto at = static_cast<int16_t>(index);
            const std::string& record = pair->model.record(index);
            if (!sameEntry(*pair, at) || std::memcmp(darrayGetEntryPtr(pair->array, at),
                                                     record.data(), record.size()) != 0) {
                return false;
            }
        }
        return pair->array->blockCount == pair->model.blocks();
    }

  private:
    bool sameCreate(Pair* pair)
    {
        const char* name = kNames.at(below(kNames.size()));
        void* data = kUntouched;
        const bool wanted = !oneIn(8);
        const int expected = pair->model.create(name);
        const int16_t made = darrayCreateEntry(pair->array, name, wanted ? &data : nullptr);
        noteNewBlocks(pair);
        const bool stored = wanted && expected != DArrayModel::kNone;
        return made == expected && sameEntry(*pair, made) &&
               data == (stored ? darrayGetEntryPtr(pair->array, made) : kUntouched);
    }

    // Only entries in use: deleting the others damages the array.
    bool sameDelete(Pair* pair)
    {
        const int16_t at = index(*pair);
        if (pair->model.has(at) && pair->model.name(at) == nullptr) {
            return true;
        }
        pair->model.remove(at);
        darrayDeleteEntry(pair->array, at);
        return sameEntry(*pair, at);
    }

    static bool sameFound(const Pair& pair, int16_t found, const void* data, int expected)
    {
        return found == expected &&
               data == (expected == DArrayModel::kNone
                            ? nullptr
                            : pair.records.at(static_cast<std::size_t>(expected)));
    }

    bool sameFind(Pair* pair)
    {
        const std::string name = kNames.at(below(kNames.size()));
        void* data = kUntouched;
        const int16_t found = darrayFindEntry(pair->array, name.c_str(), &data);
        return sameFound(*pair, found, data, pair->model.byName(name));
    }

    bool sameFromData(Pair* pair)
    {
        const auto offset = static_cast<int16_t>(
            below(oneIn(10) ? 0x10000 : static_cast<uint32_t>(pair->dataSize) + 3));
        const std::string text = keyFor(pair, offset);
        const std::unique_ptr<char[]> key(new char[text.size()]);  // of just its size
        text.copy(key.get(), text.size());
        const auto mode = static_cast<uint16_t>(below(4));
        void* data = kUntouched;
        const int16_t found = darrayGetEntryFromData(
            pair->array, key.get(), offset, static_cast<uint16_t>(text.size()), mode, &data);
        return sameFound(*pair, found, data, pair->model.byData({text, offset, (mode & 1U) != 0}));
    }

    // Callers write into records, in use or not.
    bool sameWriting(Pair* pair)
    {
        const int16_t at = index(*pair);
        if (pair->model.has(at)) {
            fillRecord(pair, at);
        }
        return sameEntry(*pair, at);
    }

    std::mt19937_64 random_{rmtest::seedOfThisRun()};
};

TEST_F(DArrayRandom, ArraysGiveWhatTheirModelsGive)
{
    std::array<std::unique_ptr<Pair>, kArrays> pairs;
    for (auto& pair : pairs) {
        pair = newPair();
    }
    const long operations = rmtest::operationsOfThisRun(kOperations);
    for (long done = 0; done < operations; ++done) {
        auto& pair = pairs.at(below(kArrays));
        ASSERT_TRUE(sameCall(pair.get()))
            << "seed " << rmtest::seedOfThisRun() << ", call " << done;
        ASSERT_EQ(darrays::checkDArray(pair->array), 0U)
            << "seed " << rmtest::seedOfThisRun() << ", call " << done;
        const bool last = oneIn(kDestroyEvery);
        if (last || oneIn(kWholeEvery)) {
            ASSERT_TRUE(sameWhole(pair.get()))
                << "seed " << rmtest::seedOfThisRun() << ", call " << done;
        }
        if (last) {
            darrayDestroy(pair->array);
            pair = newPair();
        }
    }
    for (auto& pair : pairs) {
        EXPECT_TRUE(sameWhole(pair.get()));
        darrayDestroy(pair->array);
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

// Deletions of any index, free ones too: a creation is fatal when the model says so, and only then;
// after that the array goes.
TEST_F(DArrayRandom, DeletingTwiceIsFatalWhenTheModelSaysSo)
{
    const long operations = rmtest::operationsOfThisRun(kOperations) / 20;
    std::unique_ptr<Pair> pair = newPair();
    int fatal = 0;
    for (long done = 0; done < operations; ++done) {
        if (oneIn(3)) {
            const int16_t at = index(*pair);
            darrayDeleteEntry(pair->array, at);
            pair->model.remove(at);
        } else {
            const int expected = pair->model.create("entry");
            int16_t made = DArrayModel::kCorrupt;
            const auto creation = [&] { made = darrayCreateEntry(pair->array, "entry", nullptr); };
            if (expected == DArrayModel::kCorrupt) {
                std::string log = captureStderr([&] { ASSERT_EQ(catchFatal(creation), 1); });
                ASSERT_NE(log.find("Corruption in dynamic arrays\n"), std::string::npos);
                ++fatal;
            } else {
                creation();
            }
            ASSERT_EQ(made, expected) << "seed " << rmtest::seedOfThisRun() << ", call " << done;
        }
        // An array goes after a while, a damaged one soon, whether the damage was met or not.
        uint32_t lastsFor = kDestroyEvery;
        if (!pair->model.isSound()) {
            std::string log = captureStderr([&] {
                ASSERT_GT(darrays::checkDArray(pair->array), 0U)
                    << "seed " << rmtest::seedOfThisRun() << ", call " << done;
            });
            ASSERT_NE(log.find("WARNING: dynamic array check: "), std::string::npos);
            lastsFor = 20;
        } else {
            ASSERT_EQ(darrays::checkDArray(pair->array), 0U);
        }
        if (oneIn(lastsFor)) {
            darrayDestroy(pair->array);
            pair = newPair();
        }
    }
    darrayDestroy(pair->array);
    EXPECT_GT(fatal, 0);
}

}  // namespace
