// Shared memory under any names, made and deleted in any order, beside a model of the slots. The
// system behind the calls is the target's own; it refuses when the input says so.
//
// Input: for each call a byte, then what it is made with; texts end with a zero. The high bits of a
// creation's byte make a call of the system fail.
#include "fuzz.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <memory>
#include <optional>

#include <sys/ipc.h>
#include <sys/shm.h>

// The calls of the system, by the names that the library's file is compiled with.
extern "C" int fuzzShmget(key_t key, std::size_t size, int flags) noexcept;
extern "C" void* fuzzShmat(int id, const void* address, int flags) noexcept;
extern "C" int fuzzShmctl(int id, int command, shmid_ds* state) noexcept;

namespace
{
using rmfuzz::Input;
using rmfuzz::Text;

constexpr int kMostCalls = 100;
constexpr std::size_t kSlots = 20;
constexpr std::size_t kLongestPrefix = 31;
constexpr const char* kToken = ".ZNT.RM.MEM";

enum Call : uint8_t {
    kCreate,
    kCreateToo,
    kDelete,
    kTerminate,
    kTokenName,
    kCalls,
};

enum Refusal : uint8_t {
    kNone,
    kGet,
    kAttach,
    kControl,
};

// --- The system: segments by their keys

struct Segment {
    int id;
    std::unique_ptr<char[]> bytes;
    std::size_t size;
};

std::map<key_t, Segment> segments;
int lastId = 0;
Refusal refusal = kNone;

bool refuses(Refusal call)
{
    errno = EACCES;
    return refusal == call;
}

class Run
{
  public:
    explicit Run(Input& input) : input_(input)
    {
        rmfuzz::clearDirectory();
        rm_tokenName("");
        segments.clear();
        names_.fill({});
    }

    void step()
    {
        const uint8_t byte = input_.byte();
        refusal = static_cast<Refusal>(byte >> 6U);
        switch ((byte & 0x3FU) % kCalls) {
            case kDelete:
                destroy();
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
        refusal = kNone;
        rmfuzz::takeLog();
        compare();
    }

    void end()
    {
        terminate();
        compare();
        FUZZ_CHECK(segments.empty());
        rm_tokenName("");
    }

  private:
    std::size_t used() const
    {
        return static_cast<std::size_t>(std::count_if(
            names_.begin(), names_.end(), [](const auto& name) { return name.has_value(); }));
    }

    void create()
    {
        const Text name(input_.text());
        const auto size = static_cast<uint32_t>(1 + input_.byte());
        if (refusal == kControl) {
            refusal = kNone;
        }
        const auto slot = static_cast<std::size_t>(
            std::find(names_.begin(), names_.end(), std::nullopt) - names_.begin());
        const bool isFull = slot == kSlots;
        void* address = nullptr;
        int16_t handle = RM_NONE;
        const bool returned =
            rmfuzz::comesBack([&] { handle = rm_gshmCreate(name.get(), size, &address); });
        FUZZ_CHECK(name.unchanged());
        if (isFull) {
            FUZZ_CHECK(!returned && rmfuzz::printed().starts_with(
                                        "**** rm_gshmCreate() Out of Shared Memory Objects!"));
            return;
        }
        FUZZ_CHECK(returned == (refusal == kNone));
        if (!token_) {
            token_ = prefix_ + kToken;
        }
        if (!returned) {
            FUZZ_CHECK(rmfuzz::printed().starts_with(refusal == kGet
                                                         ? "**** rm_gshmCreate() shmget() failure"
                                                         : "**** rm_gshmCreate() shmat() failure"));
            giveUp(static_cast<int16_t>(slot));
            return;
        }
        FUZZ_CHECK(handle == static_cast<int16_t>(slot));
        names_.at(slot) = name.original();
        const Segment& segment = segments.at(os::rmGshm.at(slot).key);
        FUZZ_CHECK(address == segment.bytes.get() && segment.size == size);
    }

    // The slot of a creation that failed is named; its deletion may be one too many.
    void giveUp(int16_t handle)
    {
        refusal = kNone;
        const bool returned = rmfuzz::comesBack([handle] { rm_gshmDelete(handle); });
        FUZZ_CHECK(returned == (used() > 0));
        os::nGshm = static_cast<int16_t>(used());
        if (used() == 0) {
            token_ = {};
        }
    }

    void destroy()
    {
        const auto handle = static_cast<int16_t>(input_.byte() % 24 - 2);
        const bool isUsed = handle >= 0 && static_cast<std::size_t>(handle) < kSlots &&
                            names_.at(static_cast<std::size_t>(handle)).has_value();
        if (refusal != kControl) {
            refusal = kNone;
        }
        const bool fails = isUsed && refusal == kControl;
        const bool returned = rmfuzz::comesBack([handle] { rm_gshmDelete(handle); });
        FUZZ_CHECK(returned == !fails);
        if (!isUsed) {
            return;
        }
        names_.at(static_cast<std::size_t>(handle)) = {};
        if (fails) {
            // It counts as before; whoever goes on makes the count right.
            FUZZ_CHECK(rmfuzz::printed().starts_with("**** rm_gshmDelete() shmctl() failure"));
            os::nGshm = static_cast<int16_t>(used());
            segments.erase(os::rmGshm.at(static_cast<std::size_t>(handle)).key);
        }
        if (used() == 0) {
            token_ = {};
        }
    }

    void terminate()
    {
        refusal = kNone;
        FUZZ_CHECK(rm_gshmTerminate() == RM_SUCCESS);
        names_.fill({});
        token_ = {};
    }

    void tokenName()
    {
        std::string prefix = input_.text().substr(0, 2 * kLongestPrefix);
        std::replace(prefix.begin(), prefix.end(), '/', '-');
        const Text text(prefix);
        rm_tokenName(text.get());
        prefix_ = prefix.substr(0, kLongestPrefix);
        FUZZ_CHECK(text.unchanged());
    }

    void compare() const
    {
        FUZZ_CHECK(os::checkGshm() == 0);
        FUZZ_CHECK(static_cast<std::size_t>(os::nGshm) == used() && segments.size() == used());
        for (std::size_t i = 0; i < kSlots; ++i) {
            const os::GshmSlot& slot = os::rmGshm.at(i);
            FUZZ_CHECK((slot.name != nullptr) == names_.at(i).has_value());
            FUZZ_CHECK(slot.name == nullptr || *names_.at(i) == slot.name);
        }
        FUZZ_CHECK(rmfuzz::directoryEntries() ==
                   (token_ ? std::vector{*token_} : std::vector<std::string>()));
    }

    Input& input_;
    const rmfuzz::InDirectory inDirectory_;
    std::array<std::optional<std::string>, kSlots> names_;
    std::string prefix_;
    std::optional<std::string> token_;  // the file, while there is one
};
}  // namespace

int fuzzShmget(key_t key, std::size_t size, int flags) noexcept
{
    FUZZ_CHECK(flags == 1023);
    if (refuses(kGet)) {
        return -1;
    }
    FUZZ_CHECK(!segments.contains(key));
    segments[key] = {++lastId, std::make_unique<char[]>(size), size};
    return lastId;
}

void* fuzzShmat(int id, const void* address, int flags) noexcept
{
    FUZZ_CHECK(address == nullptr && flags == 0);
    const auto found = std::find_if(segments.begin(), segments.end(),
                                    [id](const auto& one) { return one.second.id == id; });
    FUZZ_CHECK(found != segments.end());
    return refuses(kAttach) ? reinterpret_cast<void*>(-1) : found->second.bytes.get();
}

int fuzzShmctl(int id, int command, shmid_ds* state) noexcept
{
    FUZZ_CHECK(command == IPC_RMID && state == nullptr);
    if (refuses(kControl)) {
        return -1;
    }
    FUZZ_CHECK(std::erase_if(segments, [id](const auto& one) { return one.second.id == id; }) == 1);
    return 0;
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
