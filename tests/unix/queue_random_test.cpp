// Random calls on message queues, good and bad, with foreign messages and removals and memory that
// runs out in between, each beside a model. After every call the table is checked, and what the
// call gave is compared: value or fatal error, data, code, and the number of messages that wait.
//
//     RM_TEST_SEED=123             repeats a run; a failure prints its seed
//     RM_TEST_OPERATIONS=10000000  makes a longer one
#include "queue_case.h"
#include "tests/models/queue_model.h"

#include <random>

using namespace queuetest;

namespace
{
using rmtest::QueueModel;

#ifdef __SANITIZE_ADDRESS__
constexpr long kOperations = 10'000;  // each costs several times as much
#else
constexpr long kOperations = 40'000;
#endif
constexpr rmtest::Milliseconds kTime{600'000};

// Few, so that some queues have the same one.
constexpr std::array<const char*, 6> kNames = {nullptr, "", "a", "b", "A", "a long name"};

class QueueRandom : public QueueTest
{
  protected:
    void run(long operations)
    {
        model_ = QueueModel(limit("msgmax"), limit("msgmnb"));
        for (long done = 0; done < operations; ++done) {
            SCOPED_TRACE("seed " + std::to_string(rmtest::seedOfThisRun()) + ", call " +
                         std::to_string(done));
            step();
            compare();
            if (HasFailure()) {
                break;
            }
        }
        rm_freeall();
        removeAllOfTheMachine();
    }

  private:
    uint32_t below(uint32_t bound)
    {
        return std::uniform_int_distribution<uint32_t>(0, bound - 1)(random_);
    }

    bool oneIn(uint32_t n) { return below(n) == 0; }

    // Mostly one that exists or could, sometimes any number.
    int16_t handle()
    {
        if (oneIn(30)) {
            return static_cast<int16_t>(below(0x10000));
        }
        return static_cast<int16_t>(oneIn(15) ? static_cast<int>(below(9)) - 2
                                              : static_cast<int>(below(QueueModel::kSlots)));
    }

    std::string bytes(std::size_t size)
    {
        std::string result(size, '\0');
        const uint32_t start = below(256);
        for (std::size_t i = 0; i < size; ++i) {
            result[i] = static_cast<char>(start + i * 7);
        }
        return result;
    }

    // Many short ones, some of hundreds of bytes, a few of any length.
    std::size_t size()
    {
        switch (below(8)) {
            case 0:
                return 0;
            case 1:
                return below(600);
            case 2:
                return oneIn(10) ? below(kLongest + 1) : below(9000);
            default:
                return below(40);
        }
    }

    // The call's outcome beside the model's.
    void same(const char* function, const QueueModel::Outcome& expected,
              const std::function<int()>& call)
    {
        int value = 0;
        if (expected.fatal == nullptr) {
            EXPECT_EQ(call(), expected.value) << function;
            return;
        }
        EXPECT_EQ(failureOf([&] { value = call(); }),
                  failure(function, expected.fatal, expected.error));
    }

    void step()
    {
        switch (below(16)) {
            case 0:
            case 1:
                return create();
            case 2:
                return oneIn(3) ? remove() : open();
            case 3:
                return rare();
            case 4:
            case 5:
                return foreign();
            case 6:
            case 7:
            case 8:
            case 9:
                return write();
            default:
                return read();
        }
    }

    void create()
    {
        const char* name = kNames.at(below(kNames.size()));
        const bool scarce = oneIn(12);
        if (model_.beginsAnew()) {
            path_ = prefix_ + kToken;
        }
        int16_t made = -1;
        std::string out;
        int jumped = 0;
        {
            ScopedFault fault(
                {.call = Call::kMalloc, .error = ENOMEM, .times = scarce ? kForever : 0});
            captureStderr([&] {
                out = captureStdout(
                    [&] { jumped = catchFatal([&] { made = rm_queueCreate(name); }); });
            });
        }
        // Where memory is scarce, that of a queue which has gone may be there to be used again.
        const auto expected = model_.create(name, jumped == 0, [this](int slot) {
            return static_cast<int64_t>(ftok(path_.c_str(), slot + 1));
        });
        ASSERT_EQ(expected.fatal != nullptr, jumped == 1);
        if (jumped == 0) {
            EXPECT_EQ(made, expected.value);
            keys_.push_back(os::rmQueue.at(static_cast<std::size_t>(made)).key);
        } else if (std::string_view(expected.fatal) == QueueModel::kNoMemory) {
            EXPECT_TRUE(scarce);
            EXPECT_EQ(out, "");
        } else {
            EXPECT_EQ(out, failure("rm_queueCreate", expected.fatal, 0));
        }
    }

    void open()
    {
        const char* name = kNames.at(below(kNames.size()));
        EXPECT_EQ(rm_queueOpen(name), model_.open(name));
    }

    void remove()
    {
        const int16_t at = handle();
        same("rm_queueDelete", model_.remove(at), [at] { return rm_queueDelete(at); });
    }

    void write()
    {
        const int16_t at = handle();
        const std::string data = bytes(size());
        const auto length = static_cast<int16_t>(oneIn(25) ? -1 - static_cast<int>(below(32768))
                                                           : static_cast<int>(data.size()));
        const auto code = static_cast<uint16_t>(below(0x10000));
        same("rm_queueWrite", model_.write(at, data, length, code),
             [&] { return rm_queueWrite(at, data.data(), length, code); });
    }

    void read()
    {
        const int16_t at = handle();
        const int error = static_cast<int>(below(40));
        const auto flags = static_cast<uint16_t>(below(0x8000) * 2);  // not to wait
        const auto expected = model_.read(at, error);
        Guarded buffer;
        char* pointer = buffer.data();
        int16_t length = -1;
        uint16_t code = 0;
        same("rm_queueRead", expected, [&] {
            errno = error;
            return rm_queueRead(at, &pointer, &length, &code, flags);
        });
        EXPECT_EQ(pointer, buffer.data());
        if (expected.fatal == nullptr && expected.value == RM_SUCCESS) {
            ASSERT_EQ(length, static_cast<int>(expected.data.size()));
            EXPECT_EQ(std::string_view(buffer.data(), expected.data.size()), expected.data);
            EXPECT_EQ(code, expected.code);
        }
        EXPECT_TRUE(buffer.isWhole(expected.data.size()));
    }

    void foreign()
    {
        const int16_t at = handle();
        if (!model_.isAlive(at)) {
            return;
        }
        const int id = idOf(at);
        if (oneIn(60)) {
            EXPECT_EQ(msgctl(id, IPC_RMID, nullptr), 0);
            model_.foreignRemove(at);
            return;
        }
        std::string text = bytes(oneIn(3) ? below(6) : size());
        if (text.size() >= kHead && !oneIn(4)) {
            const std::string forged =
                headOf(static_cast<uint16_t>(below(100)), static_cast<uint16_t>(below(80)));
            text.replace(0, kHead, forged);
        }
        const long type = 1 + static_cast<long>(below(5));
        EXPECT_EQ(sendBare(id, text, type), model_.foreignSend(at, text));
    }

    // Without a tag, as when there was no memory for their table, there is nothing to forget.
    void forget(const std::function<void()>& release)
    {
        const bool anyTag = rmalloc::nTags > 0;
        release();
        if (anyTag) {
            model_.forget();
        }
    }

    void rare()
    {
        switch (below(12)) {
            case 0:
                return same("rm_queueDelete", model_.removeAll(),
                            [] { return rm_queueTerminate(); });
            case 1:
                return forget([] { rm_freeTagMemory(0, 0); });
            case 2:
                if (oneIn(3)) {
                    forget(rm_freeall);
                }
                return;
            case 3:
                prefix_ = oneIn(2) ? "" : "b";
                return rm_tokenName(prefix_.c_str());
            default:
                return;
        }
    }

    void compare() const
    {
        EXPECT_EQ(os::nQueues, model_.counted());
        EXPECT_EQ(namedSlots(), model_.named());
        EXPECT_EQ(os::gfpRMQueueTokenFile != nullptr, model_.tokenOpen());
        if (model_.isSound()) {
            EXPECT_EQ(os::checkQueues(), 0U);
        } else {
            EXPECT_GT(violationsNow(), 0U);
        }
        for (int16_t at = 0; at < QueueModel::kSlots; ++at) {
            if (model_.isAlive(at)) {
                EXPECT_EQ(messagesIn(idOf(at)), model_.messages(at));
            }
        }
    }

    void removeAllOfTheMachine() const
    {
        for (const key_t key : keys_) {
            const int id = msgget(key, 0);
            if (id != -1) {
                msgctl(id, IPC_RMID, nullptr);
            }
        }
        std::filesystem::remove(kToken);
        std::filesystem::remove(std::string("b") + kToken);
    }

    std::mt19937_64 random_{rmtest::seedOfThisRun()};
    QueueModel model_{0, 0};
    std::string prefix_;
    std::string path_ = kToken;
    std::vector<key_t> keys_;
};

TEST_F(QueueRandom, CallsGiveWhatTheModelGives)
{
    inChild(
        [this] {
            enterOwnLimits(33'000, 70'000);
            run(rmtest::operationsOfThisRun(kOperations));
        },
        kTime);
}

}  // namespace
