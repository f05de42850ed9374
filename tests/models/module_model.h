// A small model of the registry of modules: a vector of slots and a count of blocks.
//
// Why: what a lookup finds depends on all that was loaded, registered and unloaded before it, and
// on how large the registry is. The model says what a sequence of calls has to give, and how many
// blocks of memory they leave; it knows nothing of bags, of tags or of the dynamic linker.
#ifndef RM_TESTS_MODELS_MODULE_MODEL_H
#define RM_TESTS_MODELS_MODULE_MODEL_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rmtest
{

class ModuleModel
{
  public:
    struct Function {
        std::string module;  // a path or a name
        std::string name;
        void* address;
    };

    // What stands behind a path.
    struct Object {
        bool opens = true;
        bool hasEntryPoint = true;
        std::vector<Function> registers = {};  // by the entry point, in order
        std::vector<std::string> loads = {};   // afterwards; these load no others
    };

    // A linked-in module: its names and what it answers to them.
    struct Linked {
        std::string name;
        std::map<std::string, void*> entries;
    };

    struct Loaded {
        int16_t status;
        int16_t handle;
    };

    // `foundNothing`: the status is 0 and the address untouched. `exported`: the object decides.
    struct Answer {
        int16_t status;
        void* address;
        bool foundNothing = false;
        bool exported = false;
    };

    using ObjectOf = std::function<Object(const std::string& path)>;

    ModuleModel(std::vector<Linked> linked, ObjectOf objectOf)
        : linked_(std::move(linked)), objectOf_(std::move(objectOf))
    {
    }

    // The memory has gone.
    void forget()
    {
        slots_.clear();
        blocks_ = 0;
        made_ = false;
    }

    void init()
    {
        if (made_) {
            return;
        }
        made_ = true;
        slots_.resize(kFirstSlots);
        blocks_ = 3;
        for (const Linked& module : linked_) {
            Slot slot;
            slot.name = module.name;
            slot.linked = &module;
            add(std::move(slot));
        }
    }

    Loaded load(const std::string& path)
    {
        Object object;
        if (const auto outcome = open(path, object)) {
            return *outcome;
        }
        for (const std::string& other : object.loads) {
            Object inner;
            if (!open(other, inner)) {
                enter(other);
            }
        }
        return enter(path);
    }

    int16_t registerFunction(const Function& function)
    {
        if (!made_) {
            return 2;
        }
        const std::string name = baseOf(function.module);
        auto at = find(name);
        if (!at) {
            Slot slot;
            slot.name = name;
            at = add(std::move(slot));
            ++blocks_;
        }
        std::vector<Function>& functions = slots_[*at].functions;
        blocks_ += functions.empty() ? 3 : 1;
        functions.push_back(function);
        return 0;
    }

    Answer functionOf(int16_t handle, const std::string& name) const
    {
        const Slot* slot = slotOf(handle);
        if (slot == nullptr) {
            return {-1006, nullptr, true};
        }
        if (!slot->path && slot->linked != nullptr) {
            const auto entry = slot->linked->entries.find(name);
            return entry == slot->linked->entries.end() ? Answer{0, nullptr, true}
                                                        : Answer{0, entry->second};
        }
        for (const Function& function : slot->functions) {
            if (!name.empty() && function.name == name) {
                return {0, function.address};
            }
        }
        return slot->path ? Answer{0, nullptr, false, true} : Answer{2, nullptr};
    }

    // `closes`: the system closes the object.
    int16_t unload(int16_t handle, bool closes)
    {
        Slot* slot = const_cast<Slot*>(slotOf(handle));
        if (slot == nullptr) {
            return -1006;
        }
        if (slot->path && closes) {
            blocks_ -= 2 + slot->functions.size();
            *slot = Slot();
        }
        return 0;
    }

    // Whether a module's object would be closed by unloading it, and by which path it was loaded.
    std::optional<std::string> pathOf(int16_t handle) const
    {
        const Slot* slot = slotOf(handle);
        return slot == nullptr ? std::nullopt : slot->path;
    }

    bool isMade() const { return made_; }

    // Live blocks of tag 0.
    std::size_t blocks() const { return blocks_; }

    std::size_t slotCount() const { return slots_.size(); }

    std::size_t usedCount() const
    {
        return static_cast<std::size_t>(
            std::count_if(slots_.begin(), slots_.end(), [](const Slot& s) { return s.isUsed(); }));
    }

    // The paths that entry points were called with since the last call.
    std::vector<std::string> takeEntered() { return std::exchange(entered_, {}); }

    static std::string baseOf(const std::string& path)
    {
        return path.substr(path.rfind('/') + 1);  // the whole of it without a slash
    }

    // The last part without "lib", in any case.
    static std::string shortNameOf(const std::string& path)
    {
        const std::string base = baseOf(path);
        const auto isPrefix = [](char c, char lower) { return c == lower || c == lower - 32; };
        const bool prefixed = base.size() >= 3 && isPrefix(base[0], 'l') &&
                              isPrefix(base[1], 'i') && isPrefix(base[2], 'b');
        return prefixed ? base.substr(3) : base;
    }

    static bool fits(const std::string& path)
    {
        return path.size() <= 96 && shortNameOf(path).size() <= 94;
    }

  private:
    // A load up to where the entry point has registered its functions. The outcome, when that is
    // known before.
    std::optional<Loaded> open(const std::string& path, Object& object)
    {
        init();
        if (const auto known = find(baseOf(path))) {
            return Loaded{0, handleOf(*known)};
        }
        object = fits(path) ? objectOf_(path) : Object{.opens = false};
        if (!object.opens || !object.hasEntryPoint) {
            blocks_ += object.opens ? 1 : 0;  // the object's record stays behind
            return Loaded{2, 0};
        }
        entered_.push_back(path);
        for (const Function& function : object.registers) {
            registerFunction(function);
        }
        return std::nullopt;
    }

    // The rest of it.
    Loaded enter(const std::string& path)
    {
        blocks_ += 2;  // the name and the object's record
        if (const auto known = find(baseOf(path), kNotLinked)) {
            slots_[*known].path = path;
            return {0, handleOf(*known)};
        }
        Slot slot;
        slot.name = baseOf(path);
        slot.path = path;
        return {0, handleOf(add(std::move(slot)))};
    }

    enum Which : uint8_t { kAny, kNotLinked };

    static constexpr std::size_t kFirstSlots = 16;
    static constexpr std::size_t kSmall = 100;  // slots: below, the registry grows by 16

    struct Slot {
        std::optional<std::string> name;
        std::optional<std::string> path;  // of the object, when there is one
        const Linked* linked = nullptr;
        std::vector<Function> functions;

        bool isUsed() const { return name.has_value(); }
    };

    static int16_t handleOf(std::size_t slot) { return static_cast<int16_t>(slot); }

    const Slot* slotOf(int16_t handle) const
    {
        const auto at = static_cast<uint16_t>(handle);
        return at < slots_.size() && slots_[at].isUsed() ? &slots_[at] : nullptr;
    }

    // Looks at all slots but the last one.
    std::optional<std::size_t> find(const std::string& name, Which which = kAny) const
    {
        for (std::size_t at = 0; at + 1 < slots_.size(); ++at) {
            const bool fitting = which == kAny || slots_[at].linked == nullptr;
            if (!name.empty() && fitting && slots_[at].name == name) {
                return at;
            }
        }
        return std::nullopt;
    }

    std::size_t add(Slot slot)
    {
        const auto hole = std::find_if(slots_.begin(), slots_.end(),
                                       [](const Slot& each) { return !each.isUsed(); });
        const auto at = static_cast<std::size_t>(hole - slots_.begin());
        if (hole == slots_.end()) {
            slots_.resize(at < kSmall ? at + kFirstSlots : 2 * at);
        }
        slots_[at] = std::move(slot);
        return at;
    }

    std::vector<Linked> linked_;
    ObjectOf objectOf_;
    std::vector<Slot> slots_;
    std::vector<std::string> entered_;
    std::size_t blocks_ = 0;
    bool made_ = false;
};

}  // namespace rmtest

#endif
