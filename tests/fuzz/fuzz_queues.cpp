// Message queues under any names, made, opened, written, read and deleted in any order, beside a
// model of the slots. The system behind the calls is the target's own; it refuses when the input
// says so. What a single queue makes of foreign messages is another target's, with the real system.
//
// Input: for each call a byte, then what it is made with; texts end with a zero. The high bits of
// the byte make a call of the system fail.
#include "fuzz.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <optional>

#include <sys/ipc.h>
#include <sys/msg.h>

// The calls of the system, by the names that the library's file is compiled with.
extern "C" int fuzzMsgget(key_t key, int flags) noexcept;
extern "C" int fuzzMsgctl(int id, int command, msqid_ds* state) noexcept;
extern "C" int fuzzMsgsnd(int id, const void* message, std::size_t size, int flags);
extern "C" ssize_t fuzzMsgrcv(int id, void* message, std::size_t size, long type, int flags);

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Input;
using rmfuzz::Text;

constexpr int kMostCalls = 120;
constexpr std::size_t kSlots = 5;
constexpr std::size_t kLongestPrefix = 31;
constexpr std::size_t kHead = 4;    // bytes of code and length
constexpr std::size_t kBeyond = 5;  // bytes that travel behind the data
constexpr const char* kToken = ".ZNT.RM.QUEUE";

enum Call : uint8_t {
    kCreate,
    kCreateToo,
    kOpen,
    kWrite,
    kWriteToo,
    kRead,
    kReadToo,
    kDelete,
    kTerminate,
    kTokenName,
    kCalls,
};

enum Refusal : uint8_t {
    kNone,
    kGet,
    kSend,
    kReceive,
};

// --- The system: queues by their keys, with what stands behind the type of each message

struct Queue {
    int id;
    std::deque<std::string> texts;
};

std::map<key_t, Queue> queues;
int lastId = 0;
Refusal refusal = kNone;

Queue* queueOf(int id)
{
    for (auto& [key, queue] : queues) {
        if (queue.id == id) {
            return &queue;
        }
    }
    return nullptr;
}

// --- The model

struct Message {
    uint16_t code;
    std::string data;
};

struct Slot {
    const char* name;
    std::deque<Message> messages;
};

class Run
{
  public:
    explicit Run(Input& input) : input_(input)
    {
        rmfuzz::clearDirectory();
        rm_tokenName("");
        queues.clear();
    }

    void step()
    {
        const uint8_t byte = input_.byte();
        refusal = static_cast<Refusal>(byte >> 6U);
        make(static_cast<Call>((byte & 0x3FU) % kCalls));
        refusal = kNone;
        rmfuzz::takeLog();
        compare();
    }

    void end()
    {
        terminate();
        compare();
        rm_tokenName("");
    }

  private:
    std::size_t used() const
    {
        return static_cast<std::size_t>(std::count_if(
            slots_.begin(), slots_.end(), [](const auto& slot) { return slot.has_value(); }));
    }

    std::optional<Slot>* slotOf(int16_t handle)
    {
        const bool inRange = handle >= 0 && static_cast<std::size_t>(handle) < kSlots;
        return inRange && slots_.at(static_cast<std::size_t>(handle))
                   ? &slots_.at(static_cast<std::size_t>(handle))
                   : nullptr;
    }

    int16_t handle() { return static_cast<int16_t>(input_.byte() % 8 - 1); }

    static void expectFatal(const char* function, const char* message)
    {
        FUZZ_CHECK(rmfuzz::printed().starts_with("**** " + std::string(function) + "() " + message +
                                                 ", errno="));
    }

    void create()
    {
        const bool isNull = input_.byte() == UINT8_MAX;
        names_.push_back(std::make_unique<Text>(input_.text()));
        const char* name = names_.back()->get();
        const auto slot = static_cast<std::size_t>(
            std::find(slots_.begin(), slots_.end(), std::nullopt) - slots_.begin());
        const bool isFull = slot == kSlots;
        int16_t handle = RM_NONE;
        const bool returned =
            rmfuzz::comesBack([&] { handle = rm_queueCreate(isNull ? nullptr : name); });
        FUZZ_CHECK(returned == (!isFull && refusal != kGet));
        if (isFull) {
            expectFatal("rm_queueCreate", "Out of Message Queues!");
            return;
        }
        if (!token_) {
            token_ = prefix_ + kToken;
        }
        slots_.at(slot) = Slot{isNull ? "" : name, {}};
        if (!returned) {
            // The slot is taken all the same, without a queue. It is given up.
            expectFatal("rm_queueCreate", "msgget() failure");
            destroy(static_cast<int16_t>(slot));
        } else {
            FUZZ_CHECK(handle == static_cast<int16_t>(slot));
        }
    }

    void open()
    {
        const Text name(input_.text());
        int16_t expected = RM_NONE;
        for (std::size_t i = kSlots; i-- > 0;) {
            if (slots_.at(i) && std::strcmp(slots_.at(i)->name, name.get()) == 0) {
                expected = static_cast<int16_t>(i);
            }
        }
        FUZZ_CHECK(rm_queueOpen(name.get()) == expected && rm_queueOpen(nullptr) == RM_NONE);
        FUZZ_CHECK(name.unchanged());
    }

    void write()
    {
        const int16_t one = handle();
        const auto code = static_cast<uint16_t>(input_.int16());
        const std::size_t size = input_.byte();
        const std::size_t times = input_.byte();
        const Text data(std::string(size * times % 32'768, static_cast<char>(input_.byte())));
        const int length = input_.byte() % 32 == 31 ? -1 - input_.byte()
                                                    : static_cast<int>(data.original().size());
        const bool returned = rmfuzz::comesBack(
            [&] { rm_queueWrite(one, data.get(), static_cast<int16_t>(length), code); });
        FUZZ_CHECK(data.unchanged());
        std::optional<Slot>* slot = slotOf(one);
        if (slot == nullptr) {
            FUZZ_CHECK(!returned);
            expectFatal("rm_queueWrite", "Invalid Message Queue Handle");
            return;
        }
        FUZZ_CHECK(returned == (length >= 0 && refusal != kSend));
        if (returned) {
            (*slot)->messages.push_back({code, data.original()});
        } else {
            expectFatal("rm_queueWrite", "msgsnd() failure");
        }
    }

    // One that would wait is only asked for where there is a message.
    void read()
    {
        const int16_t one = handle();
        const uint8_t flags = input_.byte();
        std::optional<Slot>* slot = slotOf(one);
        const bool isEmpty = slot != nullptr && (*slot)->messages.empty();
        Buffer buffer(INT16_MAX);
        char* pointer = buffer.data();
        int16_t length = -7;
        uint16_t code = 0xBEEF;
        const auto asked = static_cast<uint16_t>(isEmpty ? flags & ~1U : flags);
        int16_t status = -1;
        const bool wantsCode = flags < 128;
        const bool returned = rmfuzz::comesBack([&] {
            status = rm_queueRead(one, &pointer, &length, wantsCode ? &code : nullptr, asked);
        });
        buffer.check();
        FUZZ_CHECK(returned == (slot != nullptr && refusal != kReceive));
        if (!returned) {
            expectFatal("rm_queueRead",
                        slot == nullptr ? "Invalid Message Queue Handle" : "msgrcv() failure");
            FUZZ_CHECK(length == -7 && code == 0xBEEF && buffer.untouched());
            return;
        }
        if (isEmpty) {
            FUZZ_CHECK(status == RM_NOT_FOUND && length == -7 && code == 0xBEEF);
            return;
        }
        const Message& message = (*slot)->messages.front();
        FUZZ_CHECK(status == RM_SUCCESS && (!wantsCode || code == message.code));
        FUZZ_CHECK(length == static_cast<int>(message.data.size()));
        FUZZ_CHECK(buffer.contents().substr(0, message.data.size()) == message.data);
        FUZZ_CHECK(buffer.untouched(message.data.size()));
        (*slot)->messages.pop_front();
    }

    // Of a free slot too; without any that is used it is one too many.
    void destroy(int16_t one)
    {
        FUZZ_CHECK(rmfuzz::comesBack([&] { FUZZ_CHECK(rm_queueDelete(one) == RM_SUCCESS); }));
        if (std::optional<Slot>* slot = slotOf(one)) {
            slot->reset();
        }
        if (used() == 0) {
            token_ = {};
        }
    }

    void terminate()
    {
        FUZZ_CHECK(rm_queueTerminate() == RM_SUCCESS);
        slots_.fill({});
        token_ = {};
    }

    void tokenName()
    {
        std::string prefix = input_.text().substr(0, 2 * kLongestPrefix);
        std::replace(prefix.begin(), prefix.end(), '/', '-');
        rm_tokenName(prefix.c_str());
        prefix_ = prefix.substr(0, kLongestPrefix);
    }

    void make(Call call)
    {
        switch (call) {
            case kOpen:
                open();
                break;
            case kWrite:
            case kWriteToo:
                write();
                break;
            case kRead:
            case kReadToo:
                read();
                break;
            case kDelete:
                destroy(handle());
                break;
            case kTerminate:
                terminate();
                break;
            case kTokenName:
                tokenName();
                break;
            default:
                create();
                break;
        }
    }

    void compare() const
    {
        FUZZ_CHECK(os::checkQueues() == 0);
        FUZZ_CHECK(static_cast<std::size_t>(os::nQueues) == used() && queues.size() == used());
        for (std::size_t i = 0; i < kSlots; ++i) {
            const os::QueueSlot& slot = os::rmQueue.at(i);
            FUZZ_CHECK((slot.name != nullptr) == slots_.at(i).has_value());
            FUZZ_CHECK(slot.name == nullptr || std::strcmp(slot.name, slots_.at(i)->name) == 0);
            FUZZ_CHECK(slot.name == nullptr ||
                       queues.at(slot.key).texts.size() == slots_.at(i)->messages.size());
        }
        FUZZ_CHECK(rmfuzz::directoryEntries() ==
                   (token_ ? std::vector{*token_} : std::vector<std::string>()));
    }

    Input& input_;
    const rmfuzz::InDirectory inDirectory_;
    std::array<std::optional<Slot>, kSlots> slots_;
    std::vector<std::unique_ptr<Text>> names_;  // they stay where they are
    std::string prefix_;
    std::optional<std::string> token_;  // the file, while there is one
};

int fail(int error)
{
    errno = error;
    return -1;
}
}  // namespace

int fuzzMsgget(key_t key, int flags) noexcept
{
    FUZZ_CHECK(flags == 1023 && !queues.contains(key));
    if (refusal == kGet) {
        return fail(ENOSPC);
    }
    queues[key] = {++lastId, {}};
    return lastId;
}

int fuzzMsgctl(int id, int command, msqid_ds* state) noexcept
{
    FUZZ_CHECK(command == IPC_RMID && state == nullptr && queueOf(id) != nullptr);
    std::erase_if(queues, [id](const auto& one) { return one.second.id == id; });
    return fail(EIDRM);  // nobody looks
}

int fuzzMsgsnd(int id, const void* message, std::size_t size, int flags)
{
    Queue* queue = queueOf(id);
    FUZZ_CHECK(queue != nullptr && flags == IPC_NOWAIT && size >= kHead + kBeyond);
    if (refusal == kSend) {
        return fail(EAGAIN);
    }
    const auto* sent = static_cast<const char*>(message);
    long type = 0;
    std::memcpy(&type, sent, sizeof type);
    const std::string text(sent + sizeof type, size);
    FUZZ_CHECK(type == 1 && text.substr(size - kBeyond) == std::string(kBeyond, '\0'));
    queue->texts.push_back(text);
    return 0;
}

ssize_t fuzzMsgrcv(int id, void* message, std::size_t size, long type, int flags)
{
    Queue* queue = queueOf(id);
    FUZZ_CHECK(queue != nullptr && size == os::kMessageBytes && type == 0);
    if (refusal == kReceive) {
        return fail(EIDRM);
    }
    if (queue->texts.empty()) {
        FUZZ_CHECK(flags == IPC_NOWAIT);
        return fail(ENOMSG);
    }
    const std::string text = queue->texts.front();
    queue->texts.pop_front();
    FUZZ_CHECK(text.size() <= size);
    std::memcpy(static_cast<char*>(message) + sizeof(long), text.data(), text.size());
    return static_cast<ssize_t>(text.size());
}

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    Run run(input);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        run.step();
    }
    run.end();
}
