// A model of a process's message queues, and of the machine that holds them.
//
// Why: queues outlive the table that knows them, are found again by their keys, and can be written,
// filled and removed by anybody. The model knows the texts of the messages in each queue of the
// machine, and which slot of the table leads to which queue; nothing of buffers and identifiers.
#ifndef RM_TESTS_MODELS_QUEUE_MODEL_H
#define RM_TESTS_MODELS_QUEUE_MODEL_H

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace rmtest
{

class QueueModel
{
  public:
    static constexpr int kSlots = 5;
    static constexpr int kNone = -1;
    static constexpr int kNoMessage = 2;
    static constexpr const char* kNoMemory = "Out of memory!";

    // What a call gives: a value, or a fatal error with a message and an errno. A read gives more.
    struct Outcome {
        int value = 0;
        const char* fatal = nullptr;
        int error = 0;
        std::string data = {};
        uint16_t code = 0;
    };

    // The machine's limits: bytes of a message, and of all messages of a queue, types not counted.
    QueueModel(std::size_t mostOfAMessage, std::size_t mostOfAQueue)
        : mostOfAMessage_(mostOfAMessage), mostOfAQueue_(mostOfAQueue)
    {
    }

    // `keyOf` tells the key of a slot once the token file is there.
    Outcome create(const char* name, bool memory, const std::function<int64_t(int)>& keyOf)
    {
        if (counted_ <= 0) {
            beginAgain();
        }
        auto* const free = std::find_if(slots_.begin(), slots_.end(),
                                        [](const Slot& slot) { return slot.name == nullptr; });
        if (free == slots_.end()) {
            return {0, "Out of Message Queues!", 0};
        }
        *free = {name != nullptr ? name : "", 0, memory};
        if (!memory) {
            return {0, kNoMemory, 0};
        }
        ++counted_;
        const auto handle = static_cast<int>(free - slots_.begin());
        free->queue = join(keyOf(handle));
        return {handle};
    }

    int open(const char* name) const
    {
        for (int i = 0; i < kSlots && name != nullptr; ++i) {
            const char* used = slots_.at(static_cast<std::size_t>(i)).name;
            if (used != nullptr && std::string_view(used) == name) {
                return i;
            }
        }
        return kNone;
    }

    Outcome write(int handle, std::string_view data, int length, uint16_t code)
    {
        constexpr std::size_t kBeyond = 5;
        if (!leads(handle)) {
            return {0, "Invalid Message Queue Handle", 0};
        }
        if (length < 0) {
            return {0, "msgsnd() failure", EINVAL};
        }
        std::string text = head(code, static_cast<uint16_t>(length));
        text += data.substr(0, static_cast<std::size_t>(length));
        text += std::string(kBeyond, '\0');
        const int error = send(queueOf(handle), text);
        return error == 0 ? Outcome{} : Outcome{0, "msgsnd() failure", error};
    }

    // Without waiting. `error` is the present errno.
    Outcome read(int handle, int error)
    {
        if (!leads(handle)) {
            return {0, "Invalid Message Queue Handle", error};
        }
        const auto queue = queues_.find(queueOf(handle));
        if (queue == queues_.end()) {
            return {0, "msgrcv() failure", EINVAL};
        }
        if (queue->second.texts.empty()) {
            return {kNoMessage};
        }
        const std::string text = queue->second.texts.front();
        queue->second.texts.pop_front();
        return read(text);
    }

    Outcome remove(int handle)
    {
        if (isNamed(handle)) {
            removeSlot(&slots_.at(static_cast<std::size_t>(handle)));
        }
        return afterRemoval();
    }

    Outcome removeAll()
    {
        if (named() == 0) {
            tokenOpen_ = false;
            return {};
        }
        for (Slot& slot : slots_) {
            if (slot.name != nullptr) {
                removeSlot(&slot);
            }
        }
        return afterRemoval();
    }

    // The memory below goes: the table is empty, the machine keeps its queues.
    void forget()
    {
        slots_ = {};
        counted_ = 0;
        tokenOpen_ = false;
    }

    // --- What others do

    // True when the machine takes the text.
    bool foreignSend(int handle, const std::string& text)
    {
        return send(queueOf(handle), text) == 0;
    }

    void foreignRemove(int handle) { queues_.erase(queueOf(handle)); }

    // --- Looks

    // The slot is in use and leads to a queue that the machine has.
    bool isAlive(int handle) const { return leads(handle) && queues_.count(queueOf(handle)) == 1; }

    std::size_t messages(int handle) const { return queues_.at(queueOf(handle)).texts.size(); }

    bool isSound() const
    {
        return std::all_of(slots_.begin(), slots_.end(),
                           [](const Slot& slot) { return slot.name == nullptr || slot.memory; }) &&
               counted_ == named();
    }

    // The next creation makes the token file and the keys.
    bool beginsAnew() const
    {
        return counted_ <= 0 && std::none_of(slots_.begin(), slots_.end(),
                                             [](const Slot& slot) { return slot.memory; });
    }

    int counted() const { return counted_; }

    int named() const
    {
        return static_cast<int>(std::count_if(
            slots_.begin(), slots_.end(), [](const Slot& slot) { return slot.name != nullptr; }));
    }

    // The table has the token file open.
    bool tokenOpen() const { return tokenOpen_; }

  private:
    struct Slot {
        const char* name = nullptr;
        int64_t queue = 0;  // number of a queue of the machine
        bool memory = false;
    };

    struct Queue {
        int64_t key;
        std::deque<std::string> texts;
    };

    static std::string head(uint16_t code, uint16_t length)
    {
        std::string bytes(sizeof code + sizeof length, '\0');
        std::memcpy(bytes.data(), &code, sizeof code);
        std::memcpy(bytes.data() + sizeof code, &length, sizeof length);
        return bytes;
    }

    // A length counts as far as there are bytes behind the head.
    static Outcome read(std::string_view text)
    {
        constexpr std::size_t kHead = 4;
        constexpr std::size_t kMost = 32767;
        Outcome outcome;
        uint16_t claimed = 0;
        std::memcpy(&outcome.code, text.data(), std::min(text.size(), sizeof outcome.code));
        if (text.size() > kHead) {
            std::memcpy(&claimed, text.data() + sizeof outcome.code, sizeof claimed);
            outcome.data = text.substr(kHead, std::min<std::size_t>(claimed, kMost));
        }
        return outcome;
    }

    bool isNamed(int handle) const
    {
        return handle >= 0 && handle < kSlots &&
               slots_.at(static_cast<std::size_t>(handle)).name != nullptr;
    }

    bool leads(int handle) const
    {
        return isNamed(handle) && slots_.at(static_cast<std::size_t>(handle)).memory;
    }

    int64_t queueOf(int handle) const { return slots_.at(static_cast<std::size_t>(handle)).queue; }

    // Slots without memory are given up; the others count.
    void beginAgain()
    {
        counted_ = 0;
        for (Slot& slot : slots_) {
            if (slot.memory) {
                ++counted_;
            } else {
                slot = {};
            }
        }
        tokenOpen_ = true;
    }

    int64_t join(int64_t key)
    {
        for (const auto& [number, queue] : queues_) {
            if (queue.key == key) {
                return number;
            }
        }
        queues_[++lastQueue_] = {key, {}};
        return lastQueue_;
    }

    // 0 or the errno.
    int send(int64_t number, const std::string& text)
    {
        const auto queue = queues_.find(number);
        if (queue == queues_.end() || text.size() > mostOfAMessage_) {
            return EINVAL;
        }
        std::size_t bytes = text.size();
        for (const std::string& waiting : queue->second.texts) {
            bytes += waiting.size();
        }
        if (bytes > mostOfAQueue_) {
            return EAGAIN;
        }
        queue->second.texts.push_back(text);
        return 0;
    }

    void removeSlot(Slot* slot)
    {
        queues_.erase(slot->queue);
        *slot = {};
        --counted_;
    }

    Outcome afterRemoval()
    {
        if (named() == 0) {
            tokenOpen_ = false;
        }
        return counted_ < 0 ? Outcome{0, "Deleted too many Message Queues!", 0} : Outcome{};
    }

    std::size_t mostOfAMessage_;
    std::size_t mostOfAQueue_;
    std::array<Slot, kSlots> slots_ = {};
    int counted_ = 0;
    bool tokenOpen_ = false;
    std::map<int64_t, Queue> queues_;
    int64_t lastQueue_ = 0;
};

}  // namespace rmtest

#endif
