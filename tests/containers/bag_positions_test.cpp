// Where the current position stands after every call, in every discipline: a table to read, and
// then every small bag there is, compared with the model.
#include "tests/containers/bag_case.h"
#include "tests/models/bag_model.h"

using namespace bagtest;

namespace
{

using rmtest::BagModel;

constexpr int kNowhere = RM_NO_SLOT;

enum class Do : uint8_t { kAdd, kDelete, kFirst, kNext, kLast, kPrev, kSet, kRead, kFind };

int16_t make(Bag* bag, Do what, uint16_t handle)
{
    char buffer[8];
    uint16_t number = 0;
    void* pointer = nullptr;
    switch (what) {
        case Do::kAdd:
            return bagAdd(bag, "z");
        case Do::kDelete:
            return bagDelete(bag);
        case Do::kFirst:
            return bagFirst(bag);
        case Do::kNext:
            return bagNext(bag);
        case Do::kLast:
            return bagLast(bag);
        case Do::kPrev:
            return bagPrev(bag);
        case Do::kSet:
            return bagSetCurHandle(bag, handle);
        case Do::kFind:
            return bagFind(bag, "c", nullptr, nullptr);
        default:
            bagGetCurHandle(bag, &number);
            bagGetCurPtr(bag, &pointer);
            return bagGetCurData(bag, buffer);
    }
}

struct Row {
    Do what;
    int from;
    int16_t status;
    int to;
    uint16_t handle = 0;  // of kSet
};

class BagPositions : public BagTest
{
  protected:
    // Makes the bag anew for each row.
    void check(const std::function<Bag*()>& anew, const std::vector<Row>& rows)
    {
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const Row& row = rows[i];
            Bag* bag = anew();
            bag->curSlot = static_cast<uint16_t>(row.from);
            int16_t status = 0;
            captureStderr([&] { status = ::make(bag, row.what, row.handle); });
            EXPECT_EQ(status, row.status) << "row " << i;
            EXPECT_EQ(bag->curSlot, row.to) << "row " << i;
        }
    }
};

// Elements in the slots 0, 1 and 2 of 4.
TEST_F(BagPositions, OfACompactBag)
{
    check([this] { return BagTest::make({.flags = BAG_KEY_BINARY, .keyLength = 1}, "abc"); },
          {
              {Do::kAdd, kNowhere, 0, kNowhere},
              {Do::kAdd, 1, 0, 1},
              {Do::kAdd, 3, 0, 3},
              {Do::kDelete, 0, 0, kNowhere},
              {Do::kDelete, 1, 0, kNowhere},
              {Do::kDelete, 2, 0, kNowhere},
              {Do::kDelete, 3, 1, 3},
              {Do::kDelete, kNowhere, 1, kNowhere},
              {Do::kFirst, kNowhere, 0, 0},
              {Do::kFirst, 2, 0, 0},
              {Do::kNext, kNowhere, 0, 0},
              {Do::kNext, 0, 0, 1},
              {Do::kNext, 2, 1, 3},
              {Do::kNext, 3, 1, 4},
              {Do::kNext, 65534, 1, kNowhere},
              {Do::kLast, kNowhere, 0, 2},
              {Do::kLast, 0, 0, 2},
              {Do::kPrev, kNowhere, 0, 2},
              {Do::kPrev, 3, 0, 2},
              {Do::kPrev, 1, 0, 0},
              {Do::kPrev, 0, 1, 0},
              {Do::kSet, 1, 0, 2, 2},
              {Do::kSet, 1, 2, kNowhere, 3},
              {Do::kSet, 1, 2, kNowhere, 65535},
              {Do::kRead, 1, 0, 1},
              {Do::kRead, 3, 1, 3},
              {Do::kRead, kNowhere, 1, kNowhere},
              {Do::kFind, 3, 0, 2},
              {Do::kFind, kNowhere, 0, 2},
          });
}

// Elements in the slots 1, 2 and 5 of 6.
TEST_F(BagPositions, OfASlotMap)
{
    check(
        [this] {
            Bag* bag = BagTest::make(
                {.flags = kMapped | BAG_KEY_BINARY, .initialSlots = 6, .keyLength = 1}, "abcdef");
            for (const uint16_t slot : Numbers{0, 3, 4}) {
                deleteAt(bag, slot);
            }
            return bag;
        },
        {
            {Do::kAdd, kNowhere, 0, 0},
            {Do::kAdd, 5, 0, 0},
            {Do::kDelete, 1, 0, 2},
            {Do::kDelete, 2, 1, 5},
            {Do::kDelete, 5, 1, 6},
            {Do::kDelete, 0, 1, 0},
            {Do::kDelete, 3, 1, 3},
            {Do::kDelete, 6, 1, 6},
            {Do::kDelete, kNowhere, 1, kNowhere},
            {Do::kFirst, kNowhere, 0, 1},
            {Do::kFirst, 5, 0, 1},
            {Do::kNext, kNowhere, 0, 1},
            {Do::kNext, 0, 0, 1},
            {Do::kNext, 1, 0, 2},
            {Do::kNext, 2, 1, 5},
            {Do::kNext, 4, 1, 5},
            {Do::kNext, 5, 1, 6},
            {Do::kNext, 6, 1, 7},
            {Do::kNext, 65534, 1, kNowhere},
            {Do::kLast, kNowhere, 0, 5},
            {Do::kLast, 1, 0, 5},
            {Do::kPrev, kNowhere, 0, 5},
            {Do::kPrev, 6, 0, 5},
            {Do::kPrev, 5, 0, 2},
            {Do::kPrev, 4, 0, 2},
            {Do::kPrev, 1, 1, 0},
            {Do::kPrev, 0, 1, 0},
            {Do::kSet, 1, 0, 5, 5},
            {Do::kSet, 1, 2, kNowhere, 0},
            {Do::kSet, 1, 2, kNowhere, 6},
            {Do::kRead, 1, 0, 1},
            {Do::kRead, 3, 0, 3},
            {Do::kRead, 6, 1, 6},
            {Do::kRead, kNowhere, 1, kNowhere},
            {Do::kFind, kNowhere, 0, 2},
            {Do::kFind, 5, 0, 2},
        });
}

// Elements in the slots 1, 2, 3 and 0 of 4, the oldest first, all of them used.
TEST_F(BagPositions, OfAFullRing)
{
    check(
        [this] {
            Bag* bag = BagTest::make({.flags = kRing | BAG_KEY_BINARY, .keyLength = 1}, "abcd");
            deleteAt(bag, 0);
            addAll(bag, "e");
            return bag;
        },
        {
            {Do::kAdd, kNowhere, 0, 1},   {Do::kAdd, 3, 0, 1},
            {Do::kDelete, 0, 0, 1},       {Do::kDelete, 1, 0, 2},
            {Do::kDelete, 2, 1, 3},       {Do::kDelete, 3, 1, 4},
            {Do::kDelete, 4, 1, 4},       {Do::kDelete, kNowhere, 1, kNowhere},
            {Do::kFirst, kNowhere, 0, 1}, {Do::kFirst, 3, 0, 1},
            {Do::kNext, kNowhere, 0, 0},  {Do::kNext, 2, 0, 3},
            {Do::kNext, 3, 1, 4},         {Do::kNext, 65534, 1, kNowhere},
            {Do::kLast, kNowhere, 0, 0},  {Do::kPrev, kNowhere, 0, 3},
            {Do::kPrev, 4, 0, 3},         {Do::kPrev, 0, 1, 0},
            {Do::kSet, 1, 0, 3, 3},       {Do::kSet, 1, 2, kNowhere, 4},
            {Do::kRead, 3, 0, 3},         {Do::kRead, 4, 1, 4},
            {Do::kFind, 0, 0, 2},
        });
}

// Elements in the slots 1 and 2 of 4, the next one goes to 3.
TEST_F(BagPositions, OfARingWithRoom)
{
    check(
        [this] {
            Bag* bag = BagTest::make({.flags = kRing | BAG_KEY_BINARY, .keyLength = 1}, "abc");
            deleteAt(bag, 0);
            return bag;
        },
        {
            {Do::kAdd, kNowhere, 0, 3},
            {Do::kAdd, 0, 0, 3},
            {Do::kDelete, 0, 1, 1},
            {Do::kDelete, 1, 1, 2},
            {Do::kDelete, 3, 1, 4},
            {Do::kFirst, kNowhere, 0, 1},
            {Do::kNext, kNowhere, 0, 0},
            {Do::kNext, 0, 0, 1},
            {Do::kNext, 1, 1, 2},
            {Do::kLast, kNowhere, 0, 2},
            {Do::kPrev, kNowhere, 0, 1},
            {Do::kPrev, 1, 0, 0},
            {Do::kSet, 0, 0, 1, 1},
            {Do::kSet, 0, 2, kNowhere, 2},
            {Do::kRead, 2, 0, 2},
            {Do::kFind, 0, 2, 2},
        });
}

// --- Every small bag

constexpr std::array kEverything = {Do::kAdd,  Do::kDelete, Do::kFirst, Do::kNext, Do::kLast,
                                    Do::kPrev, Do::kSet,    Do::kRead,  Do::kFind};

int16_t make(BagModel* model, Do what, uint16_t handle)
{
    const BagModel::Memory none = [](uintptr_t) { return BagModel::View(); };
    switch (what) {
        case Do::kAdd:
            return model->add("z");
        case Do::kDelete:
            return model->remove();
        case Do::kFirst:
            return model->first();
        case Do::kNext:
            return model->next();
        case Do::kLast:
            return model->last();
        case Do::kPrev:
            return model->prev();
        case Do::kSet:
            return model->setHandle(handle);
        case Do::kFind:
            return model->find("c", none)->status;
        default:
            return model->read();
    }
}

class EverySmallBag : public BagTest
{
  protected:
    // Every call with the state, from every position that makes a difference.
    void tryAll(const BagCtl& ctl, const BagModel::State& state)
    {
        for (const Do what : kEverything) {
            for (int from = 0; from <= ctl.initialSlots + 3; ++from) {
                // The last two positions are the last two handles.
                const int position =
                    from <= ctl.initialSlots + 1 ? from : 65535 - (ctl.initialSlots + 3 - from);
                const int handles = what == Do::kSet ? ctl.initialSlots + 2 : 1;
                for (int handle = 0; handle < handles; ++handle) {
                    tryOne(ctl, state, static_cast<uint16_t>(position), what,
                           static_cast<uint16_t>(handle));
                }
            }
        }
    }

    int tried = 0;

  private:
    void tryOne(const BagCtl& ctl, BagModel::State state, uint16_t position, Do what,
                uint16_t handle)
    {
        state.curSlot = position;
        BagModel model(ctl);
        model.state = state;
        Bag* bag = nullptr;
        ASSERT_EQ(bagCreate(&ctl, &bag), RM_SUCCESS);
        bag->usedCount = state.usedCount;
        bag->curSlot = state.curSlot;
        bag->nextSlot = state.nextSlot;
        std::copy(state.data.begin(), state.data.end(), static_cast<unsigned char*>(bag->data));
        std::copy(state.map.begin(), state.map.end(), bag->slotMap);
        ASSERT_TRUE(model.matches(*bag));
        EXPECT_EQ(::make(bag, what, handle), ::make(&model, what, handle));
        model.takeOverUnknown(*bag);
        EXPECT_TRUE(model.matches(*bag))
            << "call " << static_cast<int>(what) << " at " << position << ": " << draw(bag);
        EXPECT_EQ(bags::checkBag(bag), 0U);
        bagDestroy(bag);
        ++tried;
    }
};

constexpr uint16_t kMostSlots = 4;

std::vector<BagCtl> smallControls(uint16_t discipline)
{
    std::vector<BagCtl> controls;
    for (uint16_t slots = 0; slots <= kMostSlots; ++slots) {
        for (const uint16_t increment : Numbers{1, 2, 5}) {
            controls.push_back(control({.flags = static_cast<uint16_t>(discipline | BAG_KEY_BINARY),
                                        .initialSlots = slots,
                                        .growIncrement = increment,
                                        .keyLength = 1}));
        }
    }
    return controls;
}

// Letters where elements are; in a ring everywhere, since it does not look.
BagModel::State stateOf(const BagCtl& ctl, uint32_t used, bool everywhere)
{
    BagModel::State state = BagModel(ctl).state;
    for (uint16_t slot = 0; slot < ctl.initialSlots; ++slot) {
        const bool isUsed = (used >> slot & 1U) != 0;
        state.usedCount = static_cast<uint16_t>(state.usedCount + (isUsed ? 1 : 0));
        state.data[slot] = static_cast<unsigned char>(isUsed || everywhere ? 'a' + slot : 0);
        if (isUsed && !state.map.empty()) {
            state.map[0] = static_cast<uint16_t>(state.map[0] | 0x8000U >> slot);
        }
    }
    return state;
}

TEST_F(EverySmallBag, ThatIsCompactDoesWhatTheModelDoes)
{
    captureStderr([&] {
        for (const BagCtl& ctl : smallControls(kCompact)) {
            for (uint32_t count = 0; count <= ctl.initialSlots; ++count) {
                tryAll(ctl, stateOf(ctl, (1U << count) - 1, false));
            }
        }
    });
    EXPECT_GT(tried, 3000);
}

TEST_F(EverySmallBag, ThatIsASlotMapDoesWhatTheModelDoes)
{
    captureStderr([&] {
        for (const BagCtl& ctl : smallControls(kMapped)) {
            for (uint32_t used = 0; used < 1U << ctl.initialSlots; ++used) {
                tryAll(ctl, stateOf(ctl, used, false));
            }
        }
    });
    EXPECT_GT(tried, 6000);
}

TEST_F(EverySmallBag, ThatIsARingDoesWhatTheModelDoes)
{
    for (const uint16_t discipline : Numbers{kRing, static_cast<uint16_t>(kRing | kMapped)}) {
        for (const BagCtl& ctl : smallControls(discipline)) {
            for (uint32_t used = 0; used < 1U << ctl.initialSlots; ++used) {
                for (uint16_t next = 0; next < std::max<uint16_t>(ctl.initialSlots, 1); ++next) {
                    BagModel::State state = stateOf(ctl, used, true);
                    state.nextSlot = next;
                    tryAll(ctl, state);
                }
            }
        }
    }
    EXPECT_GT(tried, 20000);
}

}  // namespace
