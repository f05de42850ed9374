// Calls on dynamic arrays, beside a model.
//
// Input: for each of two arrays how many entries, how many in a block and how large a record; then
// a byte for each call with what it needs behind it. Which array a call is for is its highest bit.
#include "fuzz.h"
#include "tests/models/darray_model.h"

#include "rm.h"
#include "rm/darray.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace
{
using rmfuzz::Input;
using rmtest::DArrayModel;

constexpr int kMostEntries = 400;
constexpr int kMostPerBlock = 40;
constexpr int kMostSize = 64;  // bytes of a record

enum Operation : uint8_t {
    kCreate,
    kCreateMany,   // number
    kDelete,       // index
    kDeleteTwice,  // index; whether it is in use or not
    kFind,
    kFromData,  // offset, mode, key
    kFirst,
    kLook,   // index
    kWrite,  // index, bytes
    kOperations,
};

constexpr std::array<const char*, 4> kNames = {"", "a", "name", "names"};

// The frame compares how many tags there have been: those of an input's arrays are made here, while
// segments are already of one block each, and left free.
[[maybe_unused]] const bool ready = [] {
    setenv("SEG_ALLOC", "1", 0);
    const std::array<int16_t, 4> tags = {
        rm_allocTag(nullptr, RM_NO_LIMIT), rm_allocTag(nullptr, RM_NO_LIMIT),
        rm_allocTag(nullptr, RM_NO_LIMIT), rm_allocTag(nullptr, RM_NO_LIMIT)};
    for (const int16_t tag : tags) {
        rm_freeTagMemory(tag, 1);
    }
    return true;
}();

struct Pair {
    DArray* array;
    DArrayModel model;
    std::vector<const char*> records;  // the address that each entry has had from the start
};

const char* nameBy(Input& input)
{
    return kNames.at(input.byte() % kNames.size());
}

// Mostly an index that exists: a byte. Any number behind the byte 255.
int16_t indexBy(Input& input)
{
    const uint8_t first = input.byte();
    return first == UINT8_MAX ? input.int16() : static_cast<int16_t>(first);
}

void checkEntry(const Pair& pair, int16_t index)
{
    const bool exists = pair.model.has(index);
    FUZZ_CHECK(darrayGetEntryName(pair.array, index) == pair.model.name(index));
    FUZZ_CHECK(darrayGetEntryPtr(pair.array, index) ==
               (exists ? pair.records.at(static_cast<std::size_t>(index)) : nullptr));
}

void write(Pair* pair, int16_t index, uint8_t seed)
{
    std::string& record = pair->model.record(index);
    for (std::size_t i = 0; i < record.size(); ++i) {
        record[i] = static_cast<char>((seed >> i % 6) & 1U);
    }
    std::memcpy(darrayGetEntryPtr(pair->array, index), record.data(), record.size());
}

// From here on the records of a new block are known.
void noteNewBlocks(Pair* pair)
{
    while (pair->records.size() < static_cast<std::size_t>(pair->model.size())) {
        const auto index = static_cast<int16_t>(pair->records.size());
        auto* record = static_cast<char*>(darrayGetEntryPtr(pair->array, index));
        FUZZ_CHECK(record != nullptr);
        pair->records.push_back(record);
        write(pair, index, static_cast<uint8_t>(index));
    }
}

struct Made {
    int16_t index;
    void* data;
};

// A creation that must meet a damaged list, and jumps back here. The array is given up then.
void checkFatalCreate(DArray* array, const char* name)
{
    jmp_buf frame;
    if (setjmp(frame) != 0) {
        FUZZ_CHECK(rmfuzz::takeLog().find("Corruption in dynamic arrays\n") != std::string::npos);
        return;
    }
    rm_errorJump(frame);
    darrayCreateEntry(array, name, nullptr);
    rmfuzz::fail("a damaged list is fatal", __FILE__, __LINE__);
}

// False when that was fatal, as it had to be.
bool checkCreate(Pair* pair, const char* name)
{
    const int expected = pair->model.create(name);
    if (expected == DArrayModel::kCorrupt) {
        checkFatalCreate(pair->array, name);
        return false;
    }
    Made made = {0, &made};
    made.index = darrayCreateEntry(pair->array, name, &made.data);
    noteNewBlocks(pair);
    FUZZ_CHECK(made.index == expected);
    FUZZ_CHECK(made.data == (expected == DArrayModel::kNone
                                 ? static_cast<const void*>(&made)
                                 : pair->records.at(static_cast<std::size_t>(expected))));
    checkEntry(*pair, made.index);
    return true;
}

void checkFound(const Pair& pair, const Made& found, int expected)
{
    FUZZ_CHECK(found.index == expected);
    FUZZ_CHECK(found.data == (expected == DArrayModel::kNone
                                  ? nullptr
                                  : pair.records.at(static_cast<std::size_t>(expected))));
}

void checkFromData(const Pair& pair, Input& input)
{
    const auto offset = static_cast<int16_t>(input.byte() - (UINT8_MAX - INT8_MAX));
    const uint16_t mode = input.byte();
    // Its own allocation of just its size, so that a sanitizer sees a read beyond it.
    const std::size_t length = input.byte() % (kMostSize + 2U);
    const std::unique_ptr<char[]> key(new char[length]);
    for (std::size_t i = 0; i < length; ++i) {
        key[i] = static_cast<char>(input.byte());
    }
    Made found = {0, &found};
    found.index = darrayGetEntryFromData(pair.array, key.get(), offset,
                                         static_cast<uint16_t>(length), mode, &found.data);
    const DArrayModel::Key asGiven = {{key.get(), length}, offset, (mode & 1U) != 0};
    checkFound(pair, found, pair.model.byData(asGiven));
}

void checkDelete(Pair* pair, int16_t index)
{
    darrayDeleteEntry(pair->array, index);
    pair->model.remove(index);
    checkEntry(*pair, index);
}

// False when the array cannot be used any more.
bool checkCall(Pair* pair, Operation operation, Input& input)
{
    switch (operation) {
        case kCreateMany:
            for (int count = input.byte(); count > 0; --count) {
                if (!checkCreate(pair, kNames[2])) {
                    return false;
                }
            }
            break;
        case kDelete: {
            const int16_t index = indexBy(input);
            if (!pair->model.has(index) || pair->model.name(index) != nullptr) {
                checkDelete(pair, index);
            }
            break;
        }
        case kDeleteTwice:
            checkDelete(pair, indexBy(input));
            break;
        case kFind: {
            Made found = {0, &found};
            const std::string name = nameBy(input);
            found.index = darrayFindEntry(pair->array, name.c_str(), &found.data);
            checkFound(*pair, found, pair->model.byName(name));
            break;
        }
        case kFromData:
            checkFromData(*pair, input);
            break;
        case kFirst:
            FUZZ_CHECK(darrayGetFirstUsedEntry(pair->array) == pair->model.first());
            break;
        case kLook:
            checkEntry(*pair, indexBy(input));
            break;
        case kWrite: {
            const int16_t index = indexBy(input);
            if (pair->model.has(index)) {
                write(pair, index, input.byte());
            }
            break;
        }
        default:
            return checkCreate(pair, nameBy(input));
    }
    return true;
}

void checkWhole(Pair* pair)
{
    for (int index = 0; index < pair->model.size(); ++index) {
        const auto place = static_cast<int16_t>(index);
        checkEntry(*pair, place);
        const std::string& record = pair->model.record(index);
        FUZZ_CHECK(
            std::memcmp(darrayGetEntryPtr(pair->array, place), record.data(), record.size()) == 0);
    }
    FUZZ_CHECK(pair->array->blockCount == pair->model.blocks());
    FUZZ_CHECK((darrays::checkDArray(pair->array) == 0) == pair->model.isSound());
}

Pair pairBy(Input& input)
{
    const auto maxEntries =
        static_cast<int16_t>(static_cast<uint16_t>(input.int16()) % kMostEntries);
    const auto perBlock = static_cast<int16_t>(1 + input.byte() % kMostPerBlock);
    const auto size = static_cast<int16_t>(input.byte() % kMostSize);
    Pair pair = {darrayCreate(maxEntries, perBlock, size), {maxEntries, perBlock, size}, {}};
    FUZZ_CHECK(pair.array != nullptr && pair.array->maxBlocks == pair.model.mostBlocks());
    return pair;
}

void fuzzArguments(Input& input)
{
    const int16_t maxEntries = input.int16();
    const int16_t perBlock = input.int16();
    const int16_t size = input.int16();
    DArray* array = darrayCreate(maxEntries, perBlock, size);
    FUZZ_CHECK((array == nullptr) == (perBlock <= 0 || maxEntries < 0 || size < 0));
    darrayDestroy(array);
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    constexpr uint8_t kArgumentsOnly = UINT8_MAX;
    constexpr uint8_t kOther = 0x80;  // bit of a call
    if (input.byte() == kArgumentsOnly) {
        fuzzArguments(input);
        return;
    }
    rmfuzz::expectLog();
    Pair one = pairBy(input);
    Pair other = pairBy(input);
    bool usable = true;
    while (usable && !input.empty()) {
        const uint8_t call = input.byte();
        Pair* pair = (call & kOther) != 0 ? &other : &one;
        const auto operation = static_cast<Operation>((call & ~kOther) % kOperations);
        usable = checkCall(pair, operation, input);
        FUZZ_CHECK((darrays::checkDArray(pair->array) == 0) == pair->model.isSound());
    }
    checkWhole(&one);
    checkWhole(&other);
    darrayDestroy(one.array);
    darrayDestroy(other.array);
}
