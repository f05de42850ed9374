// Bags of every kind, beside the model of a bag that the suite has.
//
// Why: one position, three disciplines and a map: what a call gives depends on all that was called
// before. The whole bag is compared with its model after each call, and so are the log lines.
#include "soak.h"
#include "tests/models/bag_model.h"

#include "rm.h"
#include "rm/bag.h"

#include <array>
#include <memory>

namespace soak
{
namespace
{
using rmtest::BagModel;

constexpr uint32_t kKinds = 5;
constexpr uint32_t kStock = 64;
constexpr uint16_t kMostSlots = 400;

struct Element {
    char key[8];
    uint32_t value;
    uint32_t spare;
};

struct OwnBag {
    BagCtl ctl = {};
    Bag* bag = nullptr;
    std::unique_ptr<BagModel> model;
};

std::array<OwnBag, kKinds> ownBags;
std::array<Element, kStock> stock;  // what a bag of pointers points to
int16_t tag = RM_NONE;

// Short ones, so that they are the same as others now and then.
Element anyElement()
{
    Element element = {};
    const std::string key = plan.text(1 + plan.below(2));
    key.copy(element.key, sizeof element.key - 1);
    element.value = plan.below(UINT32_MAX);
    return element;
}

void create(uint32_t index)
{
    constexpr uint16_t kFlags[kKinds] = {BAG_KEY_STRING, BAG_KEY_BINARY | BAG_SLOT_MAP,
                                         BAG_KEY_ISTRING | BAG_RING, BAG_KEY_STRING | BAG_POINTERS,
                                         BAG_KEY_ISTRING | BAG_SLOT_MAP | BAG_POINTERS};
    OwnBag& own = ownBags[index];
    const bool ring = (kFlags[index] & BAG_RING) != 0;
    own.ctl = {};
    own.ctl.flags = kFlags[index];
    own.ctl.initialSlots = static_cast<uint16_t>(4 + plan.below(40));
    own.ctl.growIncrement = static_cast<uint16_t>(ring && plan.once(2) ? 0 : 1 + plan.below(30));
    own.ctl.growThreshold = static_cast<uint16_t>(ring ? UINT16_MAX : 50 + plan.below(200));
    own.ctl.elementSize = (own.ctl.flags & BAG_POINTERS) != 0 ? sizeof(void*) : sizeof(Element);
    own.ctl.tag = tag;
    own.ctl.keyLength = 2;
    own.model = std::make_unique<BagModel>(own.ctl);
    SOAK_CHECK(bagCreate(&own.ctl, &own.bag) == RM_SUCCESS, "a bag is not created");
}

void add(OwnBag& own)
{
    Element element = anyElement();
    const bool pointers = (own.ctl.flags & BAG_POINTERS) != 0;
    const void* const what = pointers ? &stock[plan.below(kStock)] : &element;
    const int16_t expected = own.model->add(what);
    const int16_t status = bagAdd(own.bag, what);
    own.model->takeOverUnknown(*own.bag);
    SOAK_CHECK(status == expected, "bagAdd gives %d and not %d", status, expected);
}

BagModel::View stockAt(uintptr_t address)
{
    const auto begin = reinterpret_cast<uintptr_t>(stock.data());
    if (address < begin || address >= begin + sizeof stock) {
        return {};
    }
    const std::size_t offset = address - begin;
    return {reinterpret_cast<const unsigned char*>(stock.data()) + offset,
            sizeof(Element) - offset % sizeof(Element)};
}

void find(OwnBag& own)
{
    const Element key = plan.once(2) ? anyElement() : stock[plan.below(kStock)];
    const auto expected = own.model->find(key.key, stockAt);
    if (!expected) {
        return;  // it would read what nobody has written
    }
    uint16_t handle = RM_NO_SLOT;
    const int16_t status = bagFind(own.bag, key.key, &handle, nullptr);
    SOAK_CHECK(status == expected->status && handle == expected->handle,
               "bagFind of \"%.7s\" gives %d, %u and not %d, %u", key.key, status, handle,
               expected->status, expected->handle);
}

void readCurrent(OwnBag& own)
{
    const int16_t expected = own.model->read();
    std::array<unsigned char, sizeof(Element)> bytes = {};
    const int16_t status = bagGetCurData(own.bag, bytes.data());
    SOAK_CHECK(status == expected, "bagGetCurData gives %d and not %d", status, expected);
    if (status == RM_SUCCESS) {
        const BagModel::View current = own.model->current();
        SOAK_CHECK(std::equal(current.begin(), current.end(), bytes.begin()),
                   "the current element is another one");
    }
}

void move(OwnBag& own, uint32_t how)
{
    using Call = int16_t (*)(Bag*);
    constexpr Call kCalls[] = {bagFirst, bagNext, bagLast, bagPrev};
    const int16_t expected = how == 0   ? own.model->first()
                             : how == 1 ? own.model->next()
                             : how == 2 ? own.model->last()
                                        : own.model->prev();
    const int16_t status = kCalls[how](own.bag);
    SOAK_CHECK(status == expected, "move %u of a bag gives %d and not %d", how, status, expected);
}

void go(OwnBag& own)
{
    const auto handle = static_cast<uint16_t>(plan.below(own.bag->slotCount + 3U));
    const int16_t expected = own.model->setHandle(handle);
    const int16_t status = bagSetCurHandle(own.bag, handle);
    SOAK_CHECK(status == expected, "handle %u gives %d and not %d", handle, status, expected);
    uint16_t current = RM_NO_SLOT;
    SOAK_CHECK(bagGetCurHandle(own.bag, &current) == own.model->getHandle() &&
                   current == own.model->state.curSlot,
               "the position is %u and not %u", current, own.model->state.curSlot);
}

void remove(OwnBag& own)
{
    const int16_t expected = own.model->remove();
    const int16_t status = bagDelete(own.bag);
    SOAK_CHECK(status == expected, "bagDelete gives %d and not %d", status, expected);
}

void start()
{
    for (Element& element : stock) {
        element = anyElement();
    }
    tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    for (uint32_t i = 0; i < kKinds; ++i) {
        create(i);
    }
}

void step()
{
    const uint32_t index = plan.below(kKinds);
    OwnBag& own = ownBags[index];
    if (own.bag->slotCount > kMostSlots || plan.once(2000)) {
        bagDestroy(own.bag);
        create(index);
        return;
    }
    const uint32_t what = plan.below(20);
    if (what < 6) {
        add(own);
    } else if (what < 10) {
        move(own, what - 6);
    } else if (what < 12) {
        find(own);
    } else if (what < 14) {
        readCurrent(own);
    } else if (what < 16) {
        go(own);
    } else {
        remove(own);
    }
    SOAK_CHECK(own.model->matches(*own.bag), "%s of bag %u is not as in the model",
               std::string(own.model->difference(*own.bag)).c_str(), index);
    const std::string log = newLog();
    const std::string expected = own.model->takeLog();
    SOAK_CHECK(log == expected, "bag %u logs \"%.200s\" and not \"%.200s\"", index, log.c_str(),
               expected.c_str());
}

void check()
{
    for (const OwnBag& own : ownBags) {
        SOAK_CHECK(bags::checkBag(own.bag) == 0, "a bag: %.300s", newLog().c_str());
    }
}

void end()
{
    for (OwnBag& own : ownBags) {
        bagDestroy(own.bag);
        own = OwnBag();
    }
    rm_freeTagMemory(tag, 1);
}
}  // namespace

const Family kBags = {"bags", 150, start, step, check, end, false};

}  // namespace soak
