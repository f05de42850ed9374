// A model of a dynamic array: which index each call gives, and what is in which record.
//
// Why: the array skips blocks that it knows to be full and compares records with the platform's
// functions; which entry a creation takes and which one a search finds is promised all the same.
// This model looks at every block from the first one on, and compares byte by byte. It knows
// nothing of memory: that an address never changes is for its user to compare.
//
// What it says about deleting an entry twice: the slot is on the list twice then, and the creation
// that meets it while it has a name is corrupt.
#ifndef RM_TESTS_MODELS_DARRAY_MODEL_H
#define RM_TESTS_MODELS_DARRAY_MODEL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace rmtest
{

class DArrayModel
{
  public:
    static constexpr int kNone = -1;
    static constexpr int kCorrupt = -2;  // in the place of an index

    // A key for byData(): its bytes, and how they are compared.
    struct Key {
        std::string_view bytes;
        int offset;
        bool asText;
    };

    DArrayModel(int maxEntries, int entriesPerBlock, int dataSize)
        : mostBlocks_((maxEntries - 1) / entriesPerBlock + 1),
          perBlock_(entriesPerBlock),
          dataSize_(dataSize)
    {
    }

    int mostBlocks() const { return mostBlocks_; }

    int blocks() const { return static_cast<int>(heads_.size()); }

    // Indexes that have an entry, in use or not: those of all blocks.
    int size() const { return static_cast<int>(entries_.size()); }

    // Takes an entry. A new block has been made when blocks() has grown; its records are zeros.
    int create(const char* name)
    {
        for (std::size_t block = 0;; ++block) {
            if (block == heads_.size() && !addBlock()) {
                return kNone;
            }
            if (heads_[block] == kNone) {
                continue;
            }
            const int index = static_cast<int>(block) * perBlock_ + heads_[block];
            Entry& entry = at(index);
            heads_[block] = entry.nextFree;
            if (entry.name != nullptr) {
                return kCorrupt;
            }
            entry.name = name;
            return index;
        }
    }

    // A bad index does nothing.
    void remove(int index)
    {
        if (!has(index)) {
            return;
        }
        int& head = heads_[static_cast<std::size_t>(index / perBlock_)];
        at(index).name = nullptr;
        at(index).nextFree = head;
        head = index % perBlock_;
    }

    bool has(int index) const { return index >= 0 && index < size(); }

    // Null for an entry that is free, and for a bad index.
    const char* name(int index) const { return has(index) ? entry(index).name : nullptr; }

    // The bytes of the record, which its user may change as the caller of an array does.
    std::string& record(int index) { return at(index).record; }

    int first() const
    {
        return firstWhere([](const Entry& /*entry*/) { return true; });
    }

    int byName(std::string_view name) const
    {
        return firstWhere([name](const Entry& entry) { return name == entry.name; });
    }

    int byData(const Key& key) const
    {
        return firstWhere([&key](const Entry& entry) { return holds(entry.record, key); });
    }

    // True when each free entry is on the list of its block, and once.
    bool isSound() const
    {
        for (std::size_t block = 0; block < heads_.size(); ++block) {
            const int from = static_cast<int>(block) * perBlock_;
            std::vector<bool> listed(static_cast<std::size_t>(perBlock_));
            for (int slot = heads_[block]; slot != kNone; slot = entry(from + slot).nextFree) {
                if (listed[static_cast<std::size_t>(slot)] || entry(from + slot).name != nullptr) {
                    return false;
                }
                listed[static_cast<std::size_t>(slot)] = true;
            }
            for (int slot = 0; slot < perBlock_ && has(from + slot); ++slot) {
                if (entry(from + slot).name == nullptr && !listed[static_cast<std::size_t>(slot)]) {
                    return false;
                }
            }
        }
        return true;
    }

  private:
    static constexpr int kIndexes = 32768;  // from 0 up

    struct Entry {
        const char* name;
        int nextFree;  // slot
        std::string record;
    };

    const Entry& entry(int index) const { return entries_[static_cast<std::size_t>(index)]; }

    Entry& at(int index) { return entries_[static_cast<std::size_t>(index)]; }

    bool addBlock()
    {
        if (blocks() >= mostBlocks_) {
            return false;
        }
        heads_.push_back(0);
        for (int slot = 0; slot < perBlock_ && size() < kIndexes; ++slot) {
            const bool last = slot == perBlock_ - 1 || size() == kIndexes - 1;
            entries_.push_back({nullptr, last ? kNone : slot + 1,
                                std::string(static_cast<std::size_t>(dataSize_), '\0')});
        }
        return true;
    }

    template <typename Condition>
    int firstWhere(Condition condition) const
    {
        for (int index = 0; index < size(); ++index) {
            if (entry(index).name != nullptr && condition(entry(index))) {
                return index;
            }
        }
        return kNone;
    }

    // Nothing lies outside of a record; a text in it ends where it ends.
    static bool holds(const std::string& record, const Key& key)
    {
        const auto size = static_cast<int>(record.size());
        if (key.offset < 0 || key.offset > size) {
            return false;
        }
        for (std::size_t i = 0; i < key.bytes.size(); ++i) {
            const std::size_t place = static_cast<std::size_t>(key.offset) + i;
            const bool inside = place < record.size();
            if (!inside && !key.asText) {
                return false;
            }
            const char byte = inside ? record[place] : '\0';
            if (byte != key.bytes[i]) {
                return false;
            }
            if (key.asText && byte == '\0') {
                return true;
            }
        }
        return true;
    }

    int mostBlocks_;
    int perBlock_;
    int dataSize_;
    std::vector<int> heads_;  // the first free slot of each block
    std::vector<Entry> entries_;
};

}  // namespace rmtest

#endif
