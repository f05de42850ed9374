// Sync objects and token files beside a model of the semaphores: this target has a system of its
// own behind the library's calls, so no input leaves anything on the machine, and waits end at
// once. What would block is let go by another process, or runs out of time, as the input says.
//
// Input: for each call a byte, then what it is made with; texts end with a zero.
#include "fuzz.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

// The calls of the system, by the names that the library's file is compiled with.
extern "C" int fuzzSemget(key_t key, int count, int flags) noexcept;
extern "C" int fuzzSemop(int id, sembuf* operations, std::size_t count) noexcept;
extern "C" int fuzzSemtimedop(int id, sembuf* operations, std::size_t count,
                              const timespec* time) noexcept;
extern "C" int fuzzSemctl(int id, int number, int command, ...) noexcept;
extern "C" unsigned fuzzAlarm(unsigned seconds) noexcept;
extern "C" sighandler_t fuzzSignal(int number, sighandler_t handler) noexcept;

namespace
{
using rmfuzz::Input;
using rmfuzz::Text;

constexpr int kMostCalls = 150;
constexpr int16_t kSlots = 20;
constexpr int kSet = 4711;  // its id
constexpr std::size_t kLongestPrefix = 31;
constexpr const char* kToken = ".ZNT.RM.SEM";
constexpr const char* kSettings = "corvane.ini";
constexpr int kNobody = INT_MAX;  // no process has this number

enum Call : uint8_t {
    kCreate,
    kCreateToo,
    kOpen,
    kDelete,
    kEnter,
    kEnterToo,
    kExit,
    kWait,
    kStart,
    kResume,
    kRecover,
    kTokenName,
    kTerminate,
    kInit,
    kCalls,
};

// --- The system

struct System {
    bool exists = false;
    std::array<int, kSlots> values{};
    std::array<int, kSlots> operators{};  // the process that was last
    bool timesOut = false;                // what would block, if it has a limit
    bool rings = false;                   // and that by the alarm
    unsigned alarm = 0;                   // seconds
    sighandler_t handler = SIG_DFL;
};

System machine;

// What would block for ever is let go by somebody else.
bool blocks(const sembuf& operation)
{
    const int value = machine.values.at(operation.sem_num);
    return operation.sem_op == 0 ? value != 0 : value + operation.sem_op < 0;
}

int operate(const sembuf& operation)
{
    machine.values.at(operation.sem_num) += operation.sem_op;
    machine.operators.at(operation.sem_num) = getpid();
    return 0;
}

int fail(int error)
{
    errno = error;
    return -1;
}

// --- The model

class SyncModel
{
  public:
    std::string prefix;
    std::array<const char*, kSlots> names{};  // the callers' own
    std::array<int, kSlots> values{};
    std::array<int, kSlots> operators{};
    int used = 0;
    std::optional<std::string> token;  // the set's file, while there is one

    std::string tokenPath() const { return prefix + kToken; }

    bool isUsed(int handle) const
    {
        return handle >= 0 && handle < kSlots &&
               names.at(static_cast<std::size_t>(handle)) != nullptr;
    }

    int& value(int handle) { return values.at(static_cast<std::size_t>(handle)); }

    int& lastOperator(int handle) { return operators.at(static_cast<std::size_t>(handle)); }

    void add(int handle, int amount)
    {
        value(handle) += amount;
        lastOperator(handle) = getpid();
    }

    void removeSet()
    {
        token = {};
        values.fill(0);
        operators.fill(0);
    }
};

std::string prefixBy(Input& input)
{
    std::string prefix = input.text().substr(0, 2 * kLongestPrefix);
    std::replace(prefix.begin(), prefix.end(), '/', '-');
    // A directory that there is none of cannot have the file.
    return (prefix.starts_with("?") ? "none/" : "") + prefix;
}

class Run
{
  public:
    explicit Run(Input& input) : input_(input)
    {
        rmfuzz::clearDirectory();
        unsetenv("CATPATH");
        setenv("CATPATH", rmfuzz::directory().c_str(), 1);
        machine = {};
        os::rmSem.fill(nullptr);
        rm_tokenName("");
    }

    void step()
    {
        const uint8_t call = input_.byte();
        machine.timesOut = (call & 0x80U) != 0;
        machine.rings = (call & 0x40U) != 0;
        make(static_cast<Call>((call & 0x1FU) % kCalls));
        rmfuzz::takeLog();
        compare();
    }

    void end()
    {
        terminate();
        compare();
        fileSem = RM_NULL_SYNC;
        growSem = RM_NULL_SYNC;
        fileCommit = 0;
        fileHandleLimit = 32;
        rm_tokenName("");
        rmfuzz::clearDirectory();
    }

  private:
    bool isPrefixGood() const { return !model_.prefix.starts_with("none/"); }

    // Mostly an object that there is.
    int16_t handle()
    {
        const uint8_t choice = input_.byte();
        if (choice >= 240) {
            return static_cast<int16_t>(choice % 4 == 0 ? int{RM_NULL_SYNC} : choice - 245);
        }
        std::vector<int16_t> used;
        for (int16_t i = 0; i < kSlots; ++i) {
            if (model_.isUsed(i)) {
                used.push_back(i);
            }
        }
        if (used.empty()) {
            return RM_NULL_SYNC;
        }
        return used[choice % used.size()];
    }

    uint32_t timeout()
    {
        const uint8_t choice = input_.byte();
        return choice == UINT8_MAX ? RM_WAIT_FOREVER : choice * 50U;
    }

    // Runs an operation on a handle. False, checked, when that had to be fatal or do nothing.
    template <typename Operation>
    bool proceeds(int16_t handle, const char* function, const Operation& operation)
    {
        int16_t status = -1;
        const bool returned = rmfuzz::comesBack([&] { status = operation(handle); });
        if (handle == RM_NULL_SYNC) {
            FUZZ_CHECK(returned && status == RM_SUCCESS);
            return false;
        }
        FUZZ_CHECK(returned == model_.isUsed(handle));
        FUZZ_CHECK(returned ||
                   rmfuzz::printed().starts_with("**** " + std::string(function) +
                                                 "() Invalid Semaphore Handle, errno="));
        status_ = status;
        return returned;
    }

    // Names are kept by their addresses: they stay as long as the input.
    const char* keep(const std::string& text)
    {
        names_.push_back(std::make_unique<Text>(text));
        return names_.back()->get();
    }

    void create(const char* name)
    {
        int16_t handle = -1;
        const bool returned = rmfuzz::comesBack([&] { handle = rm_syncCreate(name); });
        noteCreated(name, returned, handle);
    }

    void noteCreated(const char* name, bool returned, int16_t handle)
    {
        if (name == nullptr || *name == '\0') {
            FUZZ_CHECK(returned && handle == RM_NULL_SYNC);
            return;
        }
        if (model_.used == 0) {
            model_.names.fill(nullptr);
        }
        const auto slot = static_cast<int16_t>(
            std::find(model_.names.begin(), model_.names.end(), nullptr) - model_.names.begin());
        if (slot == kSlots) {
            FUZZ_CHECK(!returned && rmfuzz::printed().starts_with(
                                        "**** rm_syncCreate() Out of Semaphores!, errno="));
            return;
        }
        model_.names.at(static_cast<std::size_t>(slot)) = name;
        if (!model_.token && !isPrefixGood()) {
            FUZZ_CHECK(!returned && rmfuzz::printed().starts_with(
                                        "**** rm_syncCreate() fopen() failure, errno="));
            // Its slot is named and counts for nothing.
            os::rmSem.fill(nullptr);
            model_.names.fill(nullptr);
            return;
        }
        FUZZ_CHECK(returned && handle == slot);
        if (!model_.token) {
            model_.token = model_.tokenPath();
        }
        model_.add(slot, 1);
        ++model_.used;
    }

    void create() { create(input_.byte() == UINT8_MAX ? nullptr : keep(input_.text())); }

    void open()
    {
        const Text name(input_.text());
        int16_t expected = RM_NONE;
        for (int16_t i = kSlots - 1; i >= 0; --i) {
            if (model_.isUsed(i) &&
                std::strcmp(model_.names.at(static_cast<std::size_t>(i)), name.get()) == 0) {
                expected = i;
            }
        }
        FUZZ_CHECK(rm_syncOpen(name.get()) == expected && rm_syncOpen(nullptr) == RM_NONE);
        FUZZ_CHECK(name.unchanged());
    }

    void destroy()
    {
        const int16_t one = handle();
        const bool returned = rmfuzz::comesBack([&] { rm_syncDelete(one); });
        if (one == RM_NULL_SYNC) {
            FUZZ_CHECK(returned);
            return;
        }
        // A slot that is free is asked for all the same, and without a set that fails.
        const bool inRange = one >= 0 && one < kSlots;
        FUZZ_CHECK(returned == (inRange && model_.token.has_value()));
        if (!returned) {
            return;
        }
        if (model_.isUsed(one)) {
            model_.names.at(static_cast<std::size_t>(one)) = nullptr;
            --model_.used;
        }
        if (model_.value(one) != 0) {
            model_.add(one, -model_.value(one));
        }
        if (model_.used == 0) {
            model_.removeSet();
        }
    }

    void enter()
    {
        const int16_t one = handle();
        const uint32_t time = timeout();
        if (!proceeds(one, "rm_syncEnterExcl",
                      [time](int16_t h) { return rm_syncEnterExcl(h, time); })) {
            return;
        }
        const bool hasLimit = time != RM_WAIT_FOREVER && time > 0;
        const bool isHeld = model_.value(one) <= 0;
        if (isHeld && hasLimit && machine.timesOut) {
            FUZZ_CHECK(status_ == RM_TIMEOUT);
            return;
        }
        FUZZ_CHECK(status_ == RM_SUCCESS);
        model_.add(one, isHeld ? -model_.value(one) : -1);
    }

    void wait()
    {
        const int16_t one = handle();
        const uint32_t time = timeout();
        if (!proceeds(one, "rm_syncWait", [time](int16_t h) { return rm_syncWait(h, time); })) {
            return;
        }
        const bool hasLimit = time != RM_WAIT_FOREVER && time > 0;
        if (model_.value(one) != 0 && hasLimit && machine.timesOut) {
            FUZZ_CHECK(status_ == RM_TIMEOUT);
            return;
        }
        FUZZ_CHECK(status_ == RM_SUCCESS);
        model_.value(one) = 0;
        model_.add(one, 1);
    }

    void exit()
    {
        const int16_t one = handle();
        if (proceeds(one, "rm_syncExitExcl", rm_syncExitExcl) && model_.value(one) < SHRT_MAX) {
            model_.add(one, 1);
        }
    }

    void start()
    {
        const int16_t one = handle();
        if (proceeds(one, "rm_syncStart", rm_syncStart) && model_.value(one) == 0) {
            model_.add(one, 1);
        }
    }

    void resume()
    {
        const int16_t one = handle();
        if (proceeds(one, "rm_syncResume", rm_syncResume) && model_.value(one) == 1) {
            model_.add(one, -1);
        }
    }

    // Only what a process held that has gone is freed.
    void recover()
    {
        const int16_t one = handle();
        if (model_.isUsed(one) && input_.byte() % 2 == 0) {
            model_.lastOperator(one) = kNobody;
            machine.operators.at(static_cast<std::size_t>(one)) = kNobody;
        }
        const bool isLeft =
            model_.isUsed(one) && model_.lastOperator(one) == kNobody && model_.value(one) == 0;
        if (proceeds(one, "rm_syncRecover", rm_syncRecover)) {
            FUZZ_CHECK(status_ == (isLeft ? 1 : 0));
            if (isLeft) {
                model_.add(one, 1);
            }
        }
    }

    void tokenName()
    {
        const Text prefix(prefixBy(input_));
        rm_tokenName(prefix.get());
        model_.prefix = prefix.original().substr(0, kLongestPrefix);
        FUZZ_CHECK(model_.prefix == os::tokName);
        FUZZ_CHECK(prefix.unchanged());
    }

    void terminate()
    {
        FUZZ_CHECK(rm_syncTerminate() == RM_SUCCESS);
        FUZZ_CHECK(fileSem == RM_NONE && growSem == RM_NONE);
        fileSem = RM_NULL_SYNC;
        growSem = RM_NULL_SYNC;
        model_.names.fill(nullptr);
        model_.used = 0;
        model_.removeSet();
    }

    // The start of a process: two objects, and one setting from the default file.
    void init()
    {
        const Text setting(input_.text());
        const bool hasFile = input_.byte() % 4 != 0;
        if (!isPrefixGood() || model_.used > kSlots - 2) {
            return;
        }
        unlink(rmfuzz::pathOf(kSettings).c_str());
        if (hasFile) {
            rmfuzz::writeFile(rmfuzz::pathOf(kSettings),
                              "[server]\nFileCommit=" + setting.original() + "\n\n");
        }
        fileCommit = -1;
        fileSem = RM_NULL_SYNC;  // the file of settings is read under it: that of before
        growSem = RM_NONE;
        const int16_t limit = static_cast<int16_t>(4 + input_.byte() % 30);
        const uint32_t memory = RM_NO_LIMIT - input_.byte();
        rm_init(memory, limit, 1.5);
        FUZZ_CHECK(rmemavail == memory && fileHandleLimit == limit && rminfree == 1.5);
        const char* name = os::rmSem.at(static_cast<std::size_t>(growSem));
        FUZZ_CHECK(name != nullptr && std::strcmp(name, "growSem") == 0);
        noteCreated(name, true, growSem);
        FUZZ_CHECK(fileSem == RM_NULL_SYNC && fileCommit == commitBy(setting, hasFile));
        rm_init(RM_NO_LIMIT, limit, 0.0);  // makes nothing a second time
        growSem = RM_NULL_SYNC;
        fileCommit = 0;
        unlink(rmfuzz::pathOf(kSettings).c_str());
    }

    // The number that the text begins with, of which a few bytes are read. Without one it is off.
    static int16_t commitBy(const Text& setting, bool hasFile)
    {
        constexpr std::size_t kRead = 8;
        if (!hasFile) {
            return 1;
        }
        const std::string line =
            setting.original().substr(0, setting.original().find_first_of("\r\n"));
        const long number = std::strtol(line.substr(0, kRead).c_str(), nullptr, 10);
        return static_cast<int16_t>(std::clamp<long>(number, SHRT_MIN, SHRT_MAX));
    }

    void make(Call call)
    {
        switch (call) {
            case kOpen:
                open();
                break;
            case kDelete:
                destroy();
                break;
            case kEnter:
            case kEnterToo:
                enter();
                break;
            case kExit:
                exit();
                break;
            case kWait:
                wait();
                break;
            case kStart:
                start();
                break;
            case kResume:
                resume();
                break;
            case kRecover:
                recover();
                break;
            case kTokenName:
                tokenName();
                break;
            case kTerminate:
                terminate();
                break;
            case kInit:
                init();
                break;
            default:
                create();
                break;
        }
    }

    void compare() const
    {
        FUZZ_CHECK(os::checkSync() == 0);
        FUZZ_CHECK(os::nSems == model_.used && os::rmSem == model_.names);
        FUZZ_CHECK(machine.exists == model_.token.has_value());
        FUZZ_CHECK(!machine.exists ||
                   (machine.values == model_.values && machine.operators == model_.operators));
        const std::vector<std::string> files = rmfuzz::directoryEntries();
        FUZZ_CHECK(files ==
                   (model_.token ? std::vector{*model_.token} : std::vector<std::string>()));
        FUZZ_CHECK(machine.alarm == 0);  // nothing is left that will ring
    }

    Input& input_;
    const rmfuzz::InDirectory inDirectory_;
    SyncModel model_;
    std::vector<std::unique_ptr<Text>> names_;
    int16_t status_ = 0;
};
}  // namespace

int fuzzSemget(key_t /*key*/, int count, int flags) noexcept
{
    FUZZ_CHECK(count == kSlots && flags == 1023 && !machine.exists);
    machine.exists = true;
    machine.values.fill(0);
    machine.operators.fill(0);
    return kSet;
}

int fuzzSemop(int id, sembuf* operations, std::size_t count) noexcept
{
    FUZZ_CHECK(id == kSet && machine.exists && operations->sem_num < kSlots);
    if (count == 2) {  // up from zero, or not at all
        FUZZ_CHECK(operations[0].sem_op == 0 && operations[1].sem_op == 1);
        return blocks(operations[0]) ? fail(EAGAIN) : operate(operations[1]);
    }
    FUZZ_CHECK(count == 1);
    if (blocks(*operations)) {
        if ((operations->sem_flg & IPC_NOWAIT) != 0) {
            return fail(EAGAIN);
        }
        machine.values.at(operations->sem_num) = operations->sem_op == 0 ? 0 : -operations->sem_op;
    }
    return operate(*operations);
}

int fuzzSemtimedop(int id, sembuf* operations, std::size_t count, const timespec* time) noexcept
{
    FUZZ_CHECK(count == 1 && time != nullptr && (time->tv_sec > 0 || time->tv_nsec > 0));
    if (blocks(*operations) && machine.timesOut) {
        if (!machine.rings) {
            return fail(EAGAIN);
        }
        FUZZ_CHECK(machine.alarm > 0 && machine.handler == catchAlarm);
        machine.alarm = 0;
        machine.handler = SIG_DFL;  // as on the machines of old: the handler comes back by itself
        catchAlarm(SIGALRM);
        FUZZ_CHECK(machine.handler == catchAlarm);
        return fail(EINTR);
    }
    return fuzzSemop(id, operations, count);
}

unsigned fuzzAlarm(unsigned seconds) noexcept
{
    return std::exchange(machine.alarm, seconds);
}

sighandler_t fuzzSignal(int number, sighandler_t handler) noexcept
{
    FUZZ_CHECK(number == SIGALRM);
    return std::exchange(machine.handler, handler);
}

int fuzzSemctl(int id, int number, int command, ...) noexcept
{
    if (id != kSet || !machine.exists) {
        return fail(EINVAL);
    }
    const auto at = static_cast<std::size_t>(number);
    switch (command) {
        case GETVAL:
            return machine.values.at(at);
        case GETPID:
            return machine.operators.at(at);
        default:
            FUZZ_CHECK(command == IPC_RMID);
            machine.exists = false;
            return 0;
    }
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
