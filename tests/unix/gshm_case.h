// What the tests of shared memory objects share: objects, the state of the table, what a fatal call
// prints, and a fixture that gives back whatever a case has left.
#ifndef RM_TESTS_UNIX_GSHM_CASE_H
#define RM_TESTS_UNIX_GSHM_CASE_H

#include "tests/support/slowness.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace gshmtest
{

constexpr const char* kToken = ".ZNT.RM.MEM";
constexpr const char* kShmctl = "shmctl() failure";
constexpr const char* kTooMany = "Deleted too many global shared memory objects";

const double kAtOnce = rmtest::atOnce(10.0);  // seconds; less than any lock is waited for

using Lines = std::vector<std::string>;

using rmtest::failure;
using rmtest::logOfFirstFailure;

inline std::string deletedTooMany()
{
    return failure("rm_gshmDelete", kTooMany, 0);
}

// What the process knows of its objects.
struct State {
    int named;
    int16_t counted;
    bool stream;

    bool operator==(const State&) const = default;
};

inline void PrintTo(const State& state, std::ostream* out)
{
    *out << state.named << " named, " << state.counted << " counted, "
         << (state.stream ? "a stream" : "no stream");
}

constexpr State kNothing = {0, 0, false};
constexpr State kOne = {1, 1, true};
constexpr State kTwo = {2, 2, true};

inline State stateNow()
{
    int named = 0;
    for (const os::GshmSlot& slot : os::rmGshm) {
        named += slot.name != nullptr ? 1 : 0;
    }
    return {named, os::nGshm, os::gfpRMGshmTokenFile != nullptr};
}

// What `body` did that ended fatally, or did not.
struct Outcome {
    int jumped = 0;  // 1 when it ended fatally
    std::string out;
    Lines log;
};

inline Outcome outcomeOf(const std::function<void()>& body)
{
    Outcome outcome;
    const std::string log = rmtest::captureStderr([&] {
        outcome.out = rmtest::captureStdout([&] { outcome.jumped = rmtest::catchFatal(body); });
    });
    outcome.log = rmtest::logLines(log);
    return outcome;
}

// The body ended fatally at the first failure of this process, which it logged and printed.
inline void expectFirstFailure(const Outcome& outcome, const std::string& line)
{
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(outcome.out, line + '\n');
    EXPECT_EQ(outcome.log, logOfFirstFailure(line));
}

inline int fatalQuietly(const std::function<void()>& body)
{
    return outcomeOf(body).jumped;
}

inline uint32_t violationsNow()
{
    uint32_t violations = 0;
    rmtest::captureStderr([&] { violations = os::checkGshm(); });
    return violations;
}

// An object of this process.
struct Object {
    int16_t handle = RM_NONE;
    char* address = nullptr;
};

inline Object make(const char* name = "object", uint32_t size = 100)
{
    void* address = nullptr;
    const int16_t handle = rm_gshmCreate(name, size, &address);
    return {handle, static_cast<char*>(address)};
}

inline const os::GshmSlot& slotOf(int16_t handle)
{
    return os::rmGshm.at(static_cast<std::size_t>(handle));
}

inline int idOf(int16_t handle)
{
    return slotOf(handle).id;
}

// What the system knows of a segment; false when there is none.
inline bool stateOfSegment(int id, shmid_ds* state)
{
    *state = {};
    return shmctl(id, IPC_STAT, state) == 0;
}

inline bool segmentExists(int id)
{
    shmid_ds state;
    return stateOfSegment(id, &state);
}

inline bool isMarkedForRemoval(int id)
{
    shmid_ds state;
    return stateOfSegment(id, &state) && (state.shm_perm.mode & SHM_DEST) != 0;
}

inline ino_t inodeOf(const char* path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path, &status), 0) << path;
    return status.st_ino;
}

inline bool tokenExists()
{
    return std::filesystem::exists(std::filesystem::symlink_status(kToken));
}

// Fatal cases may leave named slots that no segment belongs to: their deletion is fatal again.
inline void giveBack()
{
    for (int left = os::kGshmSlots + 1; left > 0 && stateNow().named > 0; --left) {
        fatalQuietly([] { rm_gshmTerminate(); });
    }
    fatalQuietly([] { rm_gshmTerminate(); });
}

// What nobody in this process knows any more.
inline void takeAwayWhatIsLeft()
{
    for (const rmtest::IpcObject& object : rmtest::ipcObjects()) {
        rmtest::removeIpcObject(object);
    }
    std::filesystem::remove(kToken);
}

inline void expectNothingLeft()
{
    EXPECT_EQ(rmtest::ipcObjects().size(), 0U);
    EXPECT_FALSE(tokenExists());
}

inline void makeSome(int count)
{
    for (int n = 0; n < count; ++n) {
        make();
    }
}

inline bool isRemoval(const rmtest::CallRecord& record)
{
    return record.args[1] == IPC_RMID;
}

inline void expectEndedAtOnce(const rmtest::ChildResult& result)
{
    EXPECT_TRUE(result.exited) << "signal " << result.signal;
    EXPECT_EQ(result.status, 0);
    EXPECT_LT(result.seconds, kAtOnce);
}

// Keeps the token file's identity, and so its keys, from being given to another test program while
// a segment is left under one of them.
inline void pinToken()
{
    if (!std::filesystem::exists("pinned")) {
        rmtest::writeFile("pinned", "");
    }
    std::filesystem::create_hard_link("pinned", kToken);
}

// Gives its objects back at the end of a case.
class GshmFaultCase : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        giveBack();
        RmTest::TearDown();
    }
};

// Beyond that, the table is sound when the case ends.
class GshmCase : public GshmFaultCase
{
  protected:
    void TearDown() override
    {
        EXPECT_EQ(os::checkGshm(), 0U);
        GshmFaultCase::TearDown();
    }
};

}  // namespace gshmtest

#endif
