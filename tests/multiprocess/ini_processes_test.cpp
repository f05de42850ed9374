// INI files in several processes: changes at the same time, readers meanwhile, and holders of the
// lock that are stopped or killed.
#include "tests/rmutil/ini_case.h"

#include "rm/unix/unix.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/mman.h>

using namespace initest;

namespace
{

using rmtest::CallRecord;
using rmtest::ChildResult;
using rmtest::Peer;

using Clock = std::chrono::steady_clock;

constexpr const char* kText = "[a]\nk=1\nl=1\n[b]\n";

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class IniProcesses : public IniTest
{
  protected:
    void SetUp() override
    {
        IniTest::SetUp();
        writeFile(kFile, kText);
    }

    // Sets k to 2, and says "inside" before its first call of the kind; goes on when told to.
    static void setSlowly(Peer::Channel& ch, Call call)
    {
        bool told = false;
        const ScopedFault spy({.call = call, .when = [&](const CallRecord&) {
                                   if (!std::exchange(told, true)) {
                                       ch.say("inside");
                                       ch.hear();
                                   }
                                   return false;
                               }});
        EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    }

    // Says when it waits for a lock for the first time.
    static ScopedFault tellOfWaiting(Peer::Channel& ch)
    {
        return ScopedFault({.call = Call::kNanosleep, .action = [&ch](const CallRecord& call) {
                                ch.say("waits");
                                return rmtest::passThrough(call);
                            }});
    }
};

// --- One after the other

TEST_F(IniProcesses, AChangeWaitsForTheChangeOfAnotherProcess)
{
    Peer first([](Peer::Channel& ch) { setSlowly(ch, Call::kWrite); });
    ASSERT_EQ(first.hear(), "inside");
    Peer second([](Peer::Channel& ch) {
        const ScopedFault time = tellOfWaiting(ch);
        EXPECT_EQ(set("a", "l", "2"), RM_SUCCESS);
    });
    ASSERT_EQ(second.hear(), "waits");
    EXPECT_EQ(readFile(kFile), kText);
    first.say("go on");
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(second.wait().status, 0);
    EXPECT_EQ(readFile(kFile), "[a]\nk=2\nl=2\n[b]\n");
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

TEST_F(IniProcesses, AChangeWaitsForThatOfAnotherFileOfTheDirectory)
{
    writeFile("y.ini", kText);
    Peer first([](Peer::Channel& ch) { setSlowly(ch, Call::kWrite); });
    ASSERT_EQ(first.hear(), "inside");
    Peer second([](Peer::Channel& ch) {
        const ScopedFault time = tellOfWaiting(ch);
        EXPECT_EQ(set("a", "l", "2", "./y.ini"), RM_SUCCESS);
    });
    ASSERT_EQ(second.hear(), "waits");
    first.say("go on");
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(second.wait().status, 0);
    EXPECT_EQ(readFile(kFile), "[a]\nk=2\nl=1\n[b]\n");
    EXPECT_EQ(readFile("y.ini"), "[a]\nk=1\nl=2\n[b]\n");
}

TEST_F(IniProcesses, AChangeWaitsWhileThereIsNoFile)
{
    Peer first([](Peer::Channel& ch) { setSlowly(ch, Call::kRename); });
    ASSERT_EQ(first.hear(), "inside");
    EXPECT_FALSE(std::filesystem::exists(kFile));
    Peer second([](Peer::Channel& ch) {
        const ScopedFault time = tellOfWaiting(ch);
        EXPECT_EQ(set("a", "l", "2"), RM_SUCCESS);
    });
    ASSERT_EQ(second.hear(), "waits");
    first.say("go on");
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(second.wait().status, 0);
    EXPECT_EQ(readFile(kFile), "[a]\nk=2\nl=2\n[b]\n");
}

TEST_F(IniProcesses, AReaderIsNotHeldUpByAChange)
{
    Peer writer([](Peer::Channel& ch) { setSlowly(ch, Call::kRemove); });
    ASSERT_EQ(writer.hear(), "inside");
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_THAT(entries("a"), ElementsAre("k=1", "l=1"));
    EXPECT_EQ(rmtest::callCount(Call::kNanosleep), 0);
    writer.say("go on");
    EXPECT_EQ(writer.wait().status, 0);
    EXPECT_EQ(value("a", "k"), "2");
}

TEST_F(IniProcesses, AReaderWaitsWhileThereIsNoFile)
{
    Peer writer([](Peer::Channel& ch) { setSlowly(ch, Call::kRename); });
    ASSERT_EQ(writer.hear(), "inside");
    Peer reader([](Peer::Channel& ch) {
        const ScopedFault time = tellOfWaiting(ch);
        EXPECT_EQ(value("a", "k"), "2");
    });
    ASSERT_EQ(reader.hear(), "waits");
    writer.say("go on");
    EXPECT_EQ(writer.wait().status, 0);
    EXPECT_EQ(reader.wait().status, 0);
}

TEST_F(IniProcesses, AReaderThatHasBegunReadsTheOldFileToItsEnd)
{
    const std::string lines(5000, 'x');
    writeFile(kFile, "[b]\n" + lines + "\n[a]\nk=1\n");
    Peer reader([](Peer::Channel& ch) {
        int reads = 0;
        const ScopedFault spy({.call = Call::kRead, .when = [&](const CallRecord&) {
                                   if (++reads == 3) {
                                       ch.say("inside");
                                       ch.hear();
                                   }
                                   return false;
                               }});
        EXPECT_EQ(value("a", "k"), "1");
    });
    ASSERT_EQ(reader.hear(), "inside");
    EXPECT_EQ(set("b", nullptr, nullptr), RM_SUCCESS);
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    reader.say("go on");
    EXPECT_EQ(reader.wait().status, 0);
    EXPECT_EQ(readFile(kFile), "[a]\nk=2\n");
}

// --- Holders that are killed or stopped

TEST_F(IniProcesses, AHolderThatIsKilledLetsTheOthersGoOn)
{
    for (const Call call : {Call::kWrite, Call::kRemove}) {
        writeFile(kFile, kText);
        Peer holder([&](Peer::Channel& ch) { setSlowly(ch, call); });
        ASSERT_EQ(holder.hear(), "inside");
        Peer other([](Peer::Channel& ch) {
            const ScopedFault time = tellOfWaiting(ch);
            EXPECT_EQ(set("a", "l", "2"), RM_SUCCESS);
        });
        ASSERT_EQ(other.hear(), "waits");
        holder.kill(SIGKILL);
        EXPECT_EQ(holder.wait().signal, SIGKILL);
        const ChildResult result = other.wait();
        EXPECT_EQ(result.status, 0);
        EXPECT_LT(result.seconds, 10.0) << "it was not the time-out";
        EXPECT_EQ(readFile(kFile), "[a]\nk=1\nl=2\n[b]\n");
        EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
    }
}

TEST_F(IniProcesses, AHolderThatIsKilledBetweenTheTwoStepsLeavesItsCopyToAll)
{
    Peer holder([](Peer::Channel& ch) { setSlowly(ch, Call::kRename); });
    ASSERT_EQ(holder.hear(), "inside");
    Peer writer([](Peer::Channel& ch) {
        const ScopedFault time = tellOfWaiting(ch);
        EXPECT_EQ(set("a", "l", "2"), RM_CANNOT_OPEN);
    });
    Peer reader([](Peer::Channel& ch) {
        const ScopedFault time = tellOfWaiting(ch);
        EXPECT_EQ(ask("a", "l"), notFound());
    });
    ASSERT_EQ(writer.hear(), "waits");
    ASSERT_EQ(reader.hear(), "waits");
    holder.kill(SIGKILL);
    EXPECT_EQ(holder.wait().signal, SIGKILL);
    EXPECT_EQ(writer.wait().status, 0);
    EXPECT_EQ(reader.wait().status, 0);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kTemporary}));
    EXPECT_EQ(rm_fileRename(kTemporary, kFile), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), "[a]\nk=2\nl=1\n[b]\n");
}

TEST_F(IniProcesses, AHolderThatIsStoppedIsWaitedForFourteenSeconds)
{
    Peer holder([](Peer::Channel& ch) { setSlowly(ch, Call::kWrite); });
    ASSERT_EQ(holder.hear(), "inside");
    holder.kill(SIGSTOP);
    const auto start = Clock::now();
    Peer other([](Peer::Channel&) { EXPECT_EQ(set("a", "l", "2"), RM_CANNOT_OPEN); });
    EXPECT_EQ(value("a", "k"), "1") << "readers are not concerned";
    EXPECT_LT(secondsSince(start), 10.0);
    const ChildResult result = other.wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_GE(result.seconds, 13.9);
    EXPECT_LT(result.seconds, 20.0);
    EXPECT_EQ(readFile(kFile), kText);
    holder.kill(SIGCONT);
    holder.say("go on");
    EXPECT_EQ(holder.wait().status, 0);
    EXPECT_EQ(readFile(kFile), "[a]\nk=2\nl=1\n[b]\n");
    EXPECT_EQ(set("a", "l", "2"), RM_SUCCESS);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

// --- All at once

constexpr int kWriters = 4;
constexpr int kKeys = 12;    // of each writer in each file
constexpr int kRounds = 10;  // settings of each of them
constexpr int kReaders = 2;
constexpr int16_t kWholeFile = 20'000;  // bytes, a buffer for all entries

std::string keyOf(int writer, int key)
{
    return "writer " + std::to_string(writer) + " key " + std::to_string(key);
}

// The value tells the round and has a length of its own.
std::string valueOf(int writer, int key, int round)
{
    std::string text = std::to_string(round) + ' ';
    text.append(static_cast<std::size_t>((writer * 7 + key * 13 + round * 5) % 90), 'v');
    return text + '.';
}

std::string textOf(int round)
{
    std::string text = "; head\n[main]\nalways=here\n";
    for (int writer = 0; writer < kWriters; ++writer) {
        for (int key = 0; key < kKeys; ++key) {
            text += keyOf(writer, key) + '=' + valueOf(writer, key, round) + '\n';
        }
    }
    return text + "last=here\n\n[end]\nfinal=there\n";
}

// True for a value that one of the rounds has written, whole.
bool isWhole(std::string_view entry)
{
    const std::size_t equals = entry.find('=');
    return entry == "always=here" || entry == "last=here" ||
           (entry.starts_with("writer ") && equals != std::string_view::npos &&
            entry.ends_with('.') && entry.find(' ', equals) != std::string_view::npos);
}

class IniTogether : public IniTest
{
  protected:
    static constexpr const char* kFiles[] = {"x.ini", "y.ini"};

    void SetUp() override
    {
        IniTest::SetUp();
        for (const char* file : kFiles) {
            writeFile(file, textOf(0));
        }
        void* page = mmap(nullptr, sizeof(std::atomic<bool>), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(page, MAP_FAILED);
        done_ = new (page) std::atomic<bool>(false);
    }

    void TearDown() override
    {
        munmap(done_, sizeof(std::atomic<bool>));
        IniTest::TearDown();
    }

    static void write(int writer)
    {
        for (int round = 1; round <= kRounds; ++round) {
            for (int key = 0; key < kKeys; ++key) {
                for (const char* file : kFiles) {
                    const std::string text = valueOf(writer, key, round);
                    ASSERT_EQ(set("main", keyOf(writer, key).c_str(), text.c_str(), file), 0);
                    ASSERT_EQ(value("main", keyOf(writer, key).c_str(), file), text);
                }
            }
        }
    }

    void read() const
    {
        while (!done_->load()) {
            for (const char* file : kFiles) {
                ASSERT_EQ(value("main", "always", file), "here");
                ASSERT_EQ(value("end", "final", file), "there");
                ASSERT_THAT(sections(file), ElementsAre("main", "end"));
                const Texts all = listOf(ask("main", nullptr, kWholeFile, 1, file));
                ASSERT_EQ(all.size(), kWriters * kKeys + 2U);
                for (const std::string& entry : all) {
                    ASSERT_TRUE(isWhole(entry)) << entry;
                }
            }
        }
    }

    static void expectGoodEnd(const ChildResult& result)
    {
        EXPECT_EQ(result.status, 0) << "signal " << result.signal << '\n' << result.err;
    }

    void run()
    {
        std::vector<std::unique_ptr<Peer>> writers;
        std::vector<std::unique_ptr<Peer>> readers;
        writers.reserve(kWriters);
        readers.reserve(kReaders);
        for (int writer = 0; writer < kWriters; ++writer) {
            writers.push_back(std::make_unique<Peer>([writer](Peer::Channel&) { write(writer); }));
        }
        for (int reader = 0; reader < kReaders; ++reader) {
            readers.push_back(std::make_unique<Peer>([this](Peer::Channel&) { read(); }));
        }
        for (const auto& writer : writers) {
            expectGoodEnd(writer->wait(Milliseconds(90'000)));
        }
        done_->store(true);
        for (const auto& reader : readers) {
            expectGoodEnd(reader->wait());
        }
        for (const char* file : kFiles) {
            EXPECT_EQ(readFile(file), textOf(kRounds));
        }
        EXPECT_EQ(namesIn("."), (std::set<std::string>{"x.ini", "y.ini"}));
    }

  private:
    using Milliseconds = rmtest::Milliseconds;

    std::atomic<bool>* done_ = nullptr;  // shared with the readers
};

TEST_F(IniTogether, WhatProcessesSetInFilesOfOneDirectoryIsThere)
{
    run();
}

TEST_F(IniTogether, WhatWorkersOfOneServerSetInFilesOfOneDirectoryIsThere)
{
    fileSem = rm_syncCreate("fileSem");
    run();
    EXPECT_EQ(rmtest::semValue(os::iSem, fileSem), 1);
    rm_syncTerminate();
}

}  // namespace
