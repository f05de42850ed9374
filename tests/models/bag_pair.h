// A bag and its model, which do the same things. Whoever drives the two, a random run or a fuzzer,
// brings the choices: numbers below a bound.
#ifndef RM_TESTS_MODELS_BAG_PAIR_H
#define RM_TESTS_MODELS_BAG_PAIR_H

#include "tests/models/bag_model.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/rmalloc/rmalloc.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rmtest
{

// A number from 0 to bound - 1.
using Below = std::function<uint32_t(uint32_t bound)>;

// Keys that are easily taken for each other, and elements with such keys.
class BagStock
{
  public:
    static constexpr uint32_t kKeyBytes = 8;
    static constexpr uint32_t kElements = 24;

    BagStock(const BagCtl& ctl, const Below& below) : elementBytes_(bytesOfElement(ctl))
    {
        constexpr std::string_view kTexts[] = {"",     "a",      "A",    "b",    "B",   "ab",
                                               "aB",   "AB",     "\xe4", "\xc4", "key", "KEY",
                                               "keys", "k\xfcy", "Zz",   "zZ"};
        for (const std::string_view text : kTexts) {
            keys_.resize(keys_.size() + kKeyBytes);
            text.copy(reinterpret_cast<char*>(&keys_[keys_.size() - kKeyBytes]), kKeyBytes);
        }
        elements_.resize(std::size_t{kElements} * elementBytes_);
        for (unsigned char& byte : elements_) {
            byte = static_cast<unsigned char>(below(256));
        }
        for (uint32_t i = 0; i < kElements; ++i) {
            setKey(ctl, i, below);
        }
    }

    BagStock(const BagStock&) = delete;
    BagStock& operator=(const BagStock&) = delete;

    const void* key(const Below& below) const { return keyAt(below); }

    const void* element(const Below& below) const
    {
        return elements_.data() + std::size_t{below(kElements)} * elementBytes_;
    }

    // From the address to the end of the key or element that it lies in.
    BagModel::View bytesAt(uintptr_t address) const
    {
        const BagModel::View key = rest(keys_, kKeyBytes, address);
        return key.empty() ? rest(elements_, elementBytes_, address) : key;
    }

  private:
    // An element behind a pointer has room for its key whatever the slot has.
    static uint32_t bytesOfElement(const BagCtl& ctl)
    {
        const bool pointers = (ctl.flags & BAG_POINTERS) != 0;
        return pointers ? ctl.keyOffset + kKeyBytes : ctl.elementSize;
    }

    const unsigned char* keyAt(const Below& below) const
    {
        const auto count = static_cast<uint32_t>(keys_.size() / kKeyBytes);
        return keys_.data() + std::size_t{below(count)} * kKeyBytes;
    }

    // As much of the key, or of the pointer to it, as there is room for.
    void setKey(const BagCtl& ctl, uint32_t element, const Below& below)
    {
        if (ctl.keyOffset >= elementBytes_) {
            return;
        }
        const unsigned char* key = keyAt(below);
        unsigned char* field = &elements_[std::size_t{element} * elementBytes_ + ctl.keyOffset];
        const uint32_t room = elementBytes_ - ctl.keyOffset;
        if ((ctl.flags & BAG_KEY_INDIRECT) != 0) {
            key = below(8) == 0 ? nullptr : key;
            std::memcpy(field, &key, std::min<std::size_t>(room, sizeof(key)));
        } else {
            std::memcpy(field, key, std::min(room, kKeyBytes));
        }
    }

    static BagModel::View rest(const std::vector<unsigned char>& items, uint32_t itemBytes,
                               uintptr_t address)
    {
        const auto begin = reinterpret_cast<uintptr_t>(items.data());
        if (address < begin || address >= begin + items.size()) {
            return {};
        }
        const std::size_t offset = address - begin;
        return {items.data() + offset, itemBytes - offset % itemBytes};
    }

    uint32_t elementBytes_;
    std::vector<unsigned char> keys_;
    std::vector<unsigned char> elements_;
};

// One operation on both.
enum class BagStep : uint8_t {
    kAdd,
    kDelete,
    kFirst,
    kNext,
    kLast,
    kPrev,
    kGetHandle,
    kSetHandle,
    kGetPointer,
    kGetData,
    kFind,
    kLoseMap,
    kCount  // not a step, their number
};

// Mostly one whose keys fit into its slots.
inline BagCtl anyBagCtl(uint16_t discipline, int16_t tag, const Below& below)
{
    constexpr std::array<uint16_t, 8> kKinds = {BAG_KEY_STRING,
                                                BAG_KEY_STRING,
                                                BAG_KEY_ISTRING,
                                                BAG_KEY_ISTRING,
                                                BAG_KEY_BINARY,
                                                BAG_KEY_BINARY,
                                                0,
                                                0x7F};
    constexpr std::array<uint16_t, 8> kIncrements = {0, 1, 1, 2, 3, 4, 16, 33};
    constexpr std::array<uint16_t, 6> kThresholds = {0, 1, 5, 20, 100, 65535};
    BagCtl ctl = {};
    const bool pointers = below(2) == 0;
    const bool indirect = below(2) == 0;
    ctl.flags =
        static_cast<uint16_t>(discipline | kKinds[below(kKinds.size())] |
                              (pointers ? BAG_POINTERS : 0) | (indirect ? BAG_KEY_INDIRECT : 0));
    ctl.initialSlots = static_cast<uint16_t>(below(41));
    ctl.growIncrement = kIncrements[below(kIncrements.size())];
    ctl.growThreshold = kThresholds[below(kThresholds.size())];
    ctl.tag = tag;
    ctl.keyOffset = below(25);
    ctl.keyLength = static_cast<uint16_t>(below(BagStock::kKeyBytes + 1));
    const uint32_t least = pointers ? sizeof(void*) : ctl.keyOffset + BagStock::kKeyBytes;
    const bool fits = below(8) != 0;
    ctl.elementSize = static_cast<uint16_t>(fits ? least + below(65 - least) : 1 + below(64));
    return ctl;
}

class BagPair
{
  public:
    // The lines of the log since the last time, with their stamps.
    using TakeLog = std::function<std::string()>;

    // Elements come from `filler`, all other choices from `below`.
    BagPair(const BagCtl& ctl, const Below& filler, Below below, TakeLog takeLog)
        : ctl_(ctl),
          below_(std::move(below)),
          takeLog_(std::move(takeLog)),
          stock_(ctl, filler),
          model_(ctl)
    {
    }

    BagPair(const BagPair&) = delete;
    BagPair& operator=(const BagPair&) = delete;

    // Each returns false when the two differ; what() says in what.

    bool create()
    {
        Bag* untouched = bag_;
        const int16_t status = bagCreate(&ctl_, &bag_);
        if (model_.holdsPointers() && ctl_.elementSize < sizeof(void*)) {
            return check(status == RM_INVALID && bag_ == untouched, "create") &&
                   check(plain(takeLog_()) == "bagCreate failed\n", "log of create");
        }
        return check(status == RM_SUCCESS && bag_ != nullptr && bag_->ctl == &ctl_, "create") &&
               same();
    }

    bool exists() const { return bag_ != nullptr; }

    bool step(BagStep which)
    {
        switch (which) {
            case BagStep::kAdd:
                return add() && same();
            case BagStep::kGetPointer:
                return getPointer() && same();
            case BagStep::kGetHandle:
                return getHandle() && same();
            case BagStep::kSetHandle:
                return setHandle(anyHandle()) && same();
            case BagStep::kGetData:
                return getData() && same();
            case BagStep::kFind:
                return find() && same();
            case BagStep::kLoseMap:
                rm_zFreeMemory(&bag_->slotMap, ctl_.tag);
                model_.loseMap();
                return same();
            default:
                return move(which) && same();
        }
    }

    bool destroy()
    {
        return check(bagDestroy(bag_) == RM_SUCCESS && takeLog_().empty(), "destroy");
    }

    const BagModel& model() const { return model_; }

    // Lookups that had something to read.
    long finds() const { return finds_; }

    long linesSeen() const { return lines_; }

    std::string what() const { return what_; }

  private:
    bool check(bool holds, std::string_view what)
    {
        if (!holds) {
            what_ = what;
        }
        return holds;
    }

    // The text without stamps; an unstamped line stays as it is.
    static std::string plain(const std::string& text)
    {
        constexpr std::size_t kStampLength = 22;
        std::string lines;
        for (std::size_t begin = 0; begin < text.size();) {
            const std::size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
            const std::string_view line = std::string_view(text).substr(begin, end - begin);
            lines += line.size() > kStampLength && line.front() == '[' ? line.substr(kStampLength)
                                                                       : line;
            begin = end;
        }
        return lines;
    }

    // All that can be compared at any time.
    bool same()
    {
        const std::string expected = model_.takeLog();
        const std::string logged = takeLog_();
        lines_ += std::count(logged.begin(), logged.end(), '\n');
        return check(logged.empty() ? expected.empty() : plain(logged) == expected, "log") &&
               check(model_.matches(*bag_), model_.difference(*bag_)) &&
               check(bags::checkBag(bag_) == 0, "check");
    }

    bool add()
    {
        const bool isSpecial = below_(16) == 0;
        const void* element = stock_.element(below_);
        if (isSpecial && model_.holdsPointers()) {
            element = nullptr;
        } else if (isSpecial && !model_.isRing() && model_.state.usedCount > 0) {
            return addAgain();
        }
        const int16_t expected = model_.add(element);
        const int16_t status = bagAdd(bag_, element);
        model_.takeOverUnknown(*bag_);
        return check(status == expected, "add");
    }

    // What is in a slot of the bag, by the address that the slot has before.
    bool addAgain()
    {
        const std::size_t at = std::size_t{below_(model_.state.slotCount)} * ctl_.elementSize;
        const auto from = model_.state.data.begin() + static_cast<std::ptrdiff_t>(at);
        const BagModel::Bytes copy(from, from + ctl_.elementSize);
        const int16_t expected = model_.add(copy.data());
        const int16_t status = bagAdd(bag_, static_cast<unsigned char*>(bag_->data) + at);
        model_.takeOverUnknown(*bag_);
        return check(status == expected, "add again");
    }

    bool move(BagStep which)
    {
        switch (which) {
            case BagStep::kDelete:
                return check(bagDelete(bag_) == model_.remove(), "delete");
            case BagStep::kFirst:
                return check(bagFirst(bag_) == model_.first(), "first");
            case BagStep::kNext:
                return check(bagNext(bag_) == model_.next(), "next");
            case BagStep::kLast:
                return check(bagLast(bag_) == model_.last(), "last");
            default:
                return check(bagPrev(bag_) == model_.prev(), "prev");
        }
    }

    uint16_t anyHandle()
    {
        switch (below_(16)) {
            case 0:
                return static_cast<uint16_t>(RM_NO_SLOT - below_(3));
            case 1:
                return static_cast<uint16_t>(below_(256) * 257);
            default:
                return static_cast<uint16_t>(below_(model_.state.slotCount + 2U));
        }
    }

    bool setHandle(uint16_t handle)
    {
        return check(bagSetCurHandle(bag_, handle) == model_.setHandle(handle), "set handle");
    }

    bool getHandle()
    {
        constexpr uint16_t kUntouched = 12345;
        uint16_t handle = kUntouched;
        const int16_t expected = model_.getHandle();
        return check(bagGetCurHandle(bag_, &handle) == expected &&
                         handle == (expected == RM_SUCCESS ? model_.state.curSlot : kUntouched),
                     "get handle");
    }

    // What bagGetCurPtr and bagFind give for the current element.
    const void* currentPointer() const
    {
        return model_.holdsPointers() ? reinterpret_cast<const void*>(model_.pointer())
                                      : static_cast<const unsigned char*>(bag_->data) +
                                            std::size_t{model_.state.curSlot} * ctl_.elementSize;
    }

    bool getPointer()
    {
        void* pointer = this;
        const int16_t expected = model_.read();
        return check(bagGetCurPtr(bag_, &pointer) == expected &&
                         pointer == (expected == RM_SUCCESS ? currentPointer() : this),
                     "get pointer");
    }

    bool getData()
    {
        constexpr unsigned char kUntouched = 0xA5;
        const int16_t expected = model_.read();
        std::vector<unsigned char> wanted(ctl_.elementSize, kUntouched);
        if (expected == RM_SUCCESS) {
            const BagModel::View current = model_.current();
            wanted.assign(current.begin(), current.end());
        }
        std::vector<unsigned char> buffer(ctl_.elementSize, kUntouched);
        return check(bagGetCurData(bag_, buffer.data()) == expected && buffer == wanted,
                     "get data");
    }

    bool find()
    {
        constexpr uint16_t kUntouched = 12345;
        const void* key = stock_.key(below_);
        const std::optional<BagModel::Found> expected =
            model_.find(key, [this](uintptr_t address) { return stock_.bytesAt(address); });
        if (!expected) {
            return true;
        }
        ++finds_;
        uint16_t handle = kUntouched;
        void* pointer = this;
        const uint32_t wanted = below_(4);
        const int16_t status = bagFind(bag_, key, (wanted & 1) != 0 ? nullptr : &handle,
                                       (wanted & 2) != 0 ? nullptr : &pointer);
        const bool found = expected->status == RM_SUCCESS;
        return check(status == expected->status, "find") &&
               check(handle == (found && (wanted & 1) == 0 ? expected->handle : kUntouched),
                     "handle of find") &&
               check(pointer == (found && (wanted & 2) == 0 ? currentPointer() : this),
                     "pointer of find");
    }

    BagCtl ctl_;
    Below below_;
    TakeLog takeLog_;
    BagStock stock_;
    BagModel model_;
    Bag* bag_ = nullptr;
    long finds_ = 0;
    long lines_ = 0;
    std::string what_;
};

}  // namespace rmtest

#endif
