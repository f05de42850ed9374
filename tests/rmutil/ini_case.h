// What the tests of the INI files share: a fixture, questions to a file with watched buffers, and
// changes of one.
#ifndef RM_TESTS_RMUTIL_INI_CASE_H
#define RM_TESTS_RMUTIL_INI_CASE_H

#include "tests/support/faults.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmutil/rmutil.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <stdlib.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace initest
{

using rmtest::Call;
using rmtest::catchFatal;
using rmtest::kForever;
using rmtest::readFile;
using rmtest::ScopedFault;
using rmtest::writeFile;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kFile = "x.ini";
constexpr const char* kTemporary = "_temp_.ini";
constexpr char kUntouched = '\xA5';  // what a buffer is full of before it is given away
constexpr int16_t kRoomy = 2000;     // bytes; more than the answers of these tests have

// A buffer whose neighbours are watched.
class WatchedBuffer
{
  public:
    explicit WatchedBuffer(int size)
        : size_(static_cast<std::size_t>(std::max(size, 0))), bytes_(size_ + 2 * kGuard, kUntouched)
    {
    }

    char* data() { return bytes_.data() + kGuard; }

    // What stands in it now, all bytes.
    std::string contents() const { return bytes_.substr(kGuard, size_); }

    bool guardsStand() const
    {
        const std::string guard(kGuard, kUntouched);
        return bytes_.starts_with(guard) && bytes_.ends_with(guard);
    }

  private:
    static constexpr std::size_t kGuard = 64;

    std::size_t size_;
    std::string bytes_;
};

// What a question gave: the result, and every byte of the buffer.
struct Answer {
    int result;
    std::string bytes;

    bool operator==(const Answer&) const = default;
};

inline void PrintTo(const Answer& answer, std::ostream* out)
{
    *out << answer.result << ", " << ::testing::PrintToString(answer.bytes);
}

inline std::string untouched(std::size_t size)
{
    return std::string(size, kUntouched);
}

inline Answer ask(const char* section, const char* key, int16_t size = kRoomy,
                  uint16_t withValues = 1, const char* path = kFile)
{
    WatchedBuffer buffer(size);
    const int16_t result = rm_iniGetPrivate(section, key, buffer.data(), size, withValues, path);
    EXPECT_TRUE(buffer.guardsStand()) << "written outside of the buffer";
    return {result, buffer.contents()};
}

// What asking for something gives that is not there.
inline Answer notFound(std::size_t size = kRoomy)
{
    return {RM_NOT_FOUND, untouched(size)};
}

// A value, or a text that is none when it is not found.
inline std::string value(const char* section, const char* key, const char* path = kFile)
{
    const Answer answer = ask(section, key, kRoomy, 0, path);
    if (answer.result != RM_SUCCESS) {
        EXPECT_EQ(answer, notFound());
        return "(not found)";
    }
    std::string text = answer.bytes.substr(0, answer.bytes.find('\0'));
    std::string expected = text;
    expected.resize(kRoomy - 1, '\0');
    EXPECT_EQ(answer.bytes, expected + kUntouched) << "the rest is filled with zeros";
    return text;
}

using Texts = std::vector<std::string>;

// The texts of a list that has room; the layout is checked to its last byte. For a file that is not
// found, one text that is none.
inline Texts listOf(const Answer& answer)
{
    if (answer == notFound(answer.bytes.size())) {
        return {"(not found)"};
    }
    Texts texts;
    std::size_t at = 0;
    while (at < answer.bytes.size() && answer.bytes[at] != '\0') {
        texts.emplace_back(answer.bytes.c_str() + at);
        at += texts.back().size() + 1;
    }
    EXPECT_EQ(answer.result, texts.empty() ? RM_NOT_FOUND : RM_SUCCESS);
    EXPECT_EQ(answer.bytes.substr(at), '\0' + untouched(answer.bytes.size() - at - 1));
    return texts;
}

inline Texts sections(const char* path = kFile)
{
    return listOf(ask(nullptr, nullptr, kRoomy, 1, path));
}

inline Texts entries(const char* section)
{
    return listOf(ask(section, nullptr, kRoomy, 1));
}

inline Texts keys(const char* section)
{
    return listOf(ask(section, nullptr, kRoomy, 0));
}

// Texts with their zeros, as they stand in a list: bytes({"a", "b"}) is "a", 0, "b", 0.
inline std::string bytes(std::initializer_list<std::string_view> texts)
{
    std::string all;
    for (const std::string_view text : texts) {
        all += text;
        all += '\0';
    }
    return all;
}

inline int set(const char* section, const char* key, const char* value, const char* path = kFile)
{
    return rm_iniSetPrivate(section, key, value, path);
}

// Runs before each call of the kind is made.
inline ScopedFault look(Call call, const std::function<void(const rmtest::CallRecord&)>& body)
{
    return ScopedFault({.call = call, .when = [body](const rmtest::CallRecord& record) {
                            body(record);
                            return false;
                        }});
}

// Time that passes by waiting only, and fast: each wait is over at once and counts a hundred times.
class FastTime
{
  public:
    explicit FastTime(const std::function<void()>& atEachWait = [] {}) : atEachWait_(atEachWait) {}

    int waits() const { return waits_; }

    // Of all waits, as they were asked for.
    double seconds() const { return static_cast<double>(waitedNs_) / kNsPerSecond; }

  private:
    static constexpr int64_t kNsPerSecond = 1'000'000'000;
    static constexpr int64_t kFaster = 100;

    std::function<void()> atEachWait_;
    int waits_ = 0;
    int64_t waitedNs_ = 0;
    ScopedFault wait_{{.call = Call::kNanosleep,
                       .times = kForever,
                       .action = [this](const rmtest::CallRecord& call) {
                           const auto* wanted = call.pointer<const timespec>(0);
                           ++waits_;
                           waitedNs_ += wanted->tv_sec * kNsPerSecond + wanted->tv_nsec;
                           atEachWait_();
                           return int64_t{0};
                       }}};
    ScopedFault clock_{{.call = Call::kClockGettime,
                        .times = kForever,
                        .action = [this](const rmtest::CallRecord& call) {
                            const int64_t result = rmtest::passThrough(call);
                            auto* now = call.pointer<timespec>(1);
                            const int64_t ns = now->tv_nsec + waitedNs_ * kFaster;
                            now->tv_sec += static_cast<time_t>(ns / kNsPerSecond);
                            now->tv_nsec = static_cast<long>(ns % kNsPerSecond);
                            return result;
                        }}};
};

// Names in a directory, without token files.
inline std::set<std::string> namesIn(const std::filesystem::path& directory)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (!entry.path().filename().string().starts_with(".")) {
            names.insert(entry.path().filename());
        }
    }
    return names;
}

// Beyond what RmTest checks: no handle is left open by a call, and no block. There are no locks
// between processes but that of the directory, and CATPATH is not set.
class IniTest : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        unsetenv("CATPATH");
        fileSem = RM_NULL_SYNC;
        growSem = RM_NULL_SYNC;
        fileCommit = 0;
        rm_freeMemory(rm_getMemory(1, 0), 0);  // makes the table of tags
        keepMemory();
    }

    void TearDown() override
    {
        leaveFastDirectory();
        expectNothingLeft();
        RmTest::TearDown();
    }

    void expectNothingLeft() const
    {
        EXPECT_EQ(file::ftab, nullptr) << "a handle is left open";
        EXPECT_EQ(blocks(), used_) << "memory is left";
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
    }

    // What is allocated now stays.
    void keepMemory() { used_ = blocks(); }

    // Makes a directory in memory the current one, where the system has a place for such. For runs
    // in which the disk is not the subject.
    void enterFastDirectory()
    {
        std::string path = std::string(kFastPlace) + "/rmini-XXXXXX";
        if (mkdtemp(path.data()) != nullptr) {
            fast_ = path;
            std::filesystem::current_path(fast_);
        }
    }

    void leaveFastDirectory()
    {
        std::filesystem::current_path(directory());
        if (!fast_.empty()) {
            std::filesystem::remove_all(fast_);
            fast_.clear();
        }
    }

  private:
    static uint32_t blocks() { return rmalloc::tagTable[0].allocated; }

    static constexpr const char* kFastPlace = "/dev/shm";

    uint32_t used_ = 0;
    std::filesystem::path fast_;
};

// A file with these bytes, changed, gives those; nothing else is in the directory.
inline void expectChange(std::string_view before, const char* section, const char* key,
                         const char* value, std::string_view after)
{
    writeFile(kFile, before);
    EXPECT_EQ(set(section, key, value), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), after);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

}  // namespace initest

#endif
