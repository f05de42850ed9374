// Dynamic arrays, beside the model of one that the suite has.
//
// Why: a record never moves, a free entry is given out by rule, and a search gives the lowest
// index.
#include "soak.h"
#include "tests/models/darray_model.h"

#include "rm.h"
#include "rm/darray.h"

#include <memory>

namespace soak
{
namespace
{
using rmtest::DArrayModel;

constexpr const char* kNames[] = {"wren", "kite", "lark", "rook", "swift", "heron", "tern", "gull"};
constexpr uint32_t kNameCount = 8;

DArray* array = nullptr;
std::unique_ptr<DArrayModel> model;
std::vector<void*> addresses;  // of the records, by index
int dataSize = 0;

void create()
{
    const auto most = static_cast<int16_t>(1 + plan.below(300));
    const auto perBlock = static_cast<int16_t>(1 + plan.below(40));
    dataSize = static_cast<int>(8 + 8 * plan.below(6));
    array = darrayCreate(most, perBlock, static_cast<int16_t>(dataSize));
    SOAK_CHECK(array != nullptr, "no array of %d by %d", most, perBlock);
    model = std::make_unique<DArrayModel>(most, perBlock, dataSize);
    addresses.clear();
}

void add()
{
    const char* const name = kNames[plan.below(kNameCount)];
    void* data = nullptr;
    const int expected = model->create(name);
    const int16_t index = darrayCreateEntry(array, name, &data);
    SOAK_CHECK(index == expected, "a new entry is %d and not %d", index, expected);
    if (index == RM_NONE) {
        return;
    }
    const auto at = static_cast<std::size_t>(index);
    addresses.resize(std::max(addresses.size(), at + 1), nullptr);
    SOAK_CHECK(addresses[at] == nullptr || addresses[at] == data, "record %d has moved", index);
    addresses[at] = data;
    std::string& record = model->record(index);
    fill(record.data(), record.size(), plan.below(50));  // some are the same
    record.copy(static_cast<char*>(data), record.size());
}

int anyIndex()
{
    return static_cast<int>(plan.below(static_cast<uint32_t>(model->size()) + 2));
}

// Twice would be a mistake of ours.
void remove()
{
    const int index = anyIndex();
    if (model->name(index) != nullptr || !model->has(index)) {
        model->remove(index);
        darrayDeleteEntry(array, static_cast<int16_t>(index));
    }
}

void find()
{
    const char* const name = kNames[plan.below(kNameCount)];
    void* data = nullptr;
    const int expected = model->byName(name);
    const int16_t index = darrayFindEntry(array, name, &data);
    SOAK_CHECK(index == expected, "\"%s\" is %d and not %d", name, index, expected);
    SOAK_CHECK((data == nullptr) == (index == RM_NONE) &&
                   (data == nullptr || data == addresses[static_cast<std::size_t>(index)]),
               "the record of \"%s\" is elsewhere", name);
    std::string key(static_cast<std::size_t>(dataSize), ' ');
    fill(key.data(), key.size(), plan.below(50));
    const DArrayModel::Key wanted = {key, 0, false};
    const int16_t byData =
        darrayGetEntryFromData(array, key.data(), 0, static_cast<uint16_t>(key.size()), 0, &data);
    SOAK_CHECK(byData == model->byData(wanted), "a record is %d and not %d", byData,
               model->byData(wanted));
}

void look()
{
    const int index = anyIndex();
    const char* const name = darrayGetEntryName(array, static_cast<int16_t>(index));
    SOAK_CHECK(name == model->name(index), "entry %d has another name", index);
    const void* const data = darrayGetEntryPtr(array, static_cast<int16_t>(index));
    SOAK_CHECK((data != nullptr) == model->has(index), "entry %d stands at %p", index, data);
    if (name != nullptr) {
        const std::string& record = model->record(index);
        SOAK_CHECK(
            record.compare(0, record.size(), static_cast<const char*>(data), record.size()) == 0,
            "record %d was changed", index);
    }
    const int16_t first = darrayGetFirstUsedEntry(array);
    SOAK_CHECK(first == model->first(), "the first entry is %d and not %d", first, model->first());
}

void step()
{
    const uint32_t what = plan.below(1000);
    if (what == 0) {
        darrayDestroy(array);
        create();
    } else if (what < 400) {
        add();
    } else if (what < 700) {
        remove();
    } else if (what < 850) {
        find();
    } else {
        look();
    }
}

void check()
{
    SOAK_CHECK(darrays::checkDArray(array) == 0, "a dynamic array: %.300s", newLog().c_str());
    for (int index = 0; index < model->size(); ++index) {
        if (model->name(index) != nullptr) {
            const std::string& record = model->record(index);
            SOAK_CHECK(record.compare(0, record.size(),
                                      static_cast<const char*>(
                                          darrayGetEntryPtr(array, static_cast<int16_t>(index))),
                                      record.size()) == 0,
                       "record %d was changed", index);
        }
    }
}

void end()
{
    darrayDestroy(array);
    array = nullptr;
}
}  // namespace

const Family kArrays = {"dynamic arrays", 100, create, step, check, end, false};

}  // namespace soak
