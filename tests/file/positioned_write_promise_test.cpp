// One positioned write with everything that it can meet on its way - a parked file, the limit of
// descriptors, a growth, a disk that runs full, a write that fails - step by step in its order.
#include "file_case.h"

using namespace filetest;

namespace
{
using Steps = std::vector<std::string>;

constexpr uint32_t kStep = 1000;  // by which "target" grows

// What the system is asked for, as words. Steps that repeat themselves count once.
class StepWatch
{
  public:
    explicit StepWatch(int16_t seekSem) : seekSem_(seekSem) {}

    const Steps& steps() const { return steps_; }

  private:
    std::function<bool(const CallRecord&)> note(
        const std::function<std::string(const CallRecord&)>& name)
    {
        return [this, name](const CallRecord& call) {
            const std::string step = name(call);
            if (!step.empty() && (steps_.empty() || steps_.back() != step)) {
                steps_.push_back(step);
            }
            return false;
        };
    }

    std::string lock(const CallRecord& call) const
    {
        const LockStep step = lockStep(call);
        std::string name = "growSem";
        if (step.number == fileSem) {
            name = "fileSem";
        } else if (step.number == seekSem_) {
            name = "seekSem";
        }
        return name + (step.op < 0 ? " entered" : " left");
    }

    // The managed file whose descriptor the call is on.
    static std::string fileOf(const CallRecord& call)
    {
        for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
            if (entryOf(slot)->state != file::kSlotFree && entryOf(slot)->fd == call.args[0]) {
                return entryOf(slot)->name;
            }
        }
        return "";
    }

    static std::string written(const CallRecord& call)
    {
        const std::string name = fileOf(call);
        if (name.empty()) {
            return "";
        }
        const bool zeros = *call.pointer<const char>(1) == '\0';
        return name + (zeros ? " extended" : " written");
    }

    static std::string placed(const CallRecord& call)
    {
        const std::string name = fileOf(call);
        return name.empty() || call.args[2] != SEEK_SET || call.args[1] == 0
                   ? ""
                   : name + " at " + std::to_string(call.args[1]);
    }

    int16_t seekSem_;
    Steps steps_;
    std::function<bool(const CallRecord&)> lock_ =
        note([this](const CallRecord& call) { return lock(call); });
    ScopedFault enter_{{.call = Call::kSemtimedop, .when = lock_}};
    ScopedFault leave_{{.call = Call::kSemop, .when = lock_}};
    ScopedFault open_{{.call = Call::kOpen, .when = note([](const CallRecord& call) {
                                                return std::string(call.path()) + " opened";
                                            })}};
    ScopedFault close_{{.call = Call::kClose, .when = note([](const CallRecord& call) {
                                                  const std::string name = fileOf(call);
                                                  return name.empty() ? "" : name + " closed";
                                              })}};
    ScopedFault seek_{{.call = Call::kLseek, .when = note(placed)}};
    ScopedFault write_{{.call = Call::kWrite, .when = note(written)}};
    ScopedFault space_{{.call = Call::kStatvfs, .when = note([](const CallRecord& call) {
                                                    return "space of " + std::string(call.path());
                                                })}};
    ScopedFault line_{{.call = Call::kFwrite, .when = note([](const CallRecord& call) {
                                                  return call.pointer<FILE>(3) == stderr
                                                             ? std::string("line")
                                                             : std::string();
                                              })}};
};

// "target", parked at position 4, and "other", the one open file that the limit allows.
class PositionedWrite : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        fileSem = rm_syncCreate("fileSem");
        growSem = rm_syncCreate("growSem");
        seekSem_ = rm_syncCreate("seek");
        fileHandleLimit = 1;
        target_ = openNew("target", 0, 0, kStep);
        entryOf(target_)->seekSem = seekSem_;
        write(target_, "head");
        other_ = openNew("other");
        ASSERT_EQ(entryOf(target_)->state, file::kSlotParked);
        ASSERT_EQ(rm_filePosition(target_), 4U);
        entryOf(other_)->recentlyUsed = 0;
        rmDiskFull = 0;
    }

    Steps stepsOf(const std::function<void()>& body) const
    {
        const StepWatch watch(seekSem_);
        body();
        return watch.steps();
    }

    int16_t target_ = -1;
    int16_t other_ = -1;
    int16_t seekSem_ = -1;
};

TEST_F(PositionedWrite, ParksReopensGrowsAndWritesInThisOrder)
{
    Steps steps;
    captureStderr(
        [&] { steps = stepsOf([this] { EXPECT_EQ(seekWrite(target_, 1500, "tail"), 4U); }); });
    EXPECT_THAT(steps,
                ElementsAre("fileSem entered", "other closed", "target opened", "target at 4",
                            "fileSem left", "seekSem entered", "growSem entered", "target extended",
                            "space of target", "growSem left", "target at 1500", "target written",
                            "seekSem left"));
    EXPECT_EQ(rm_fileLength(target_), 2 * kStep);
    EXPECT_EQ(rmDiskFull, 0);
    EXPECT_EQ(readFile("target"),
              "head" + std::string(1496, '\0') + "tail" + std::string(2 * kStep - 1504, '\0'));
}

TEST_F(PositionedWrite, OnADiskThatRunsFullSaysSoAndIsMadeAllTheSame)
{
    rminfree = 1e18;
    Steps steps;
    const std::string err = captureStderr(
        [&] { steps = stepsOf([this] { EXPECT_EQ(seekWrite(target_, 1500, "tail"), 4U); }); });
    EXPECT_THAT(logLines(err),
                ElementsAre("extending file target exceeded min threshold by 2147483647 bytes",
                            "READ ACCESS ONLY!"));
    EXPECT_THAT(steps,
                ElementsAre("fileSem entered", "other closed", "target opened", "target at 4",
                            "fileSem left", "seekSem entered", "growSem entered", "target extended",
                            "space of target", "growSem left", "line", "target at 1500",
                            "target written", "seekSem left"));
    EXPECT_EQ(rm_getDiskFull(), 1);
}

TEST_F(PositionedWrite, OnAFullDiskGrowsNothing)
{
    rmDiskFull = 1;
    const Steps steps = stepsOf([this] { EXPECT_EQ(seekWrite(target_, 1500, "tail"), 4U); });
    EXPECT_THAT(steps, ElementsAre("fileSem entered", "other closed", "target opened",
                                   "target at 4", "fileSem left", "seekSem entered",
                                   "target at 1500", "target written", "seekSem left"));
    EXPECT_EQ(rm_fileLength(target_), 1504U);
}

TEST_F(PositionedWrite, OfAnOpenFileThatIsLargeEnoughTakesItsTwoLocksAndNoOther)
{
    const Steps steps = stepsOf([this] {
        writeFile("other", std::string(10, 'o'));
        entryOf(other_)->seekSem = seekSem_;
        entryOf(other_)->knownSize = 10;
        EXPECT_EQ(seekWrite(other_, 2, "x"), 1U);
        entryOf(other_)->seekSem = RM_NULL_SYNC;
    });
    EXPECT_THAT(steps, ElementsAre("fileSem entered", "fileSem left", "seekSem entered",
                                   "other at 2", "other written", "seekSem left"));
}

TEST_F(PositionedWrite, ThatFailsSaysSoInsideTheLockOfTheFile)
{
    Steps steps;
    const std::string err = captureStderr([&] {
        ScopedFault fault({.call = Call::kWrite, .error = EIO, .when = [](const CallRecord& call) {
                               return *call.pointer<const char>(1) == 't';
                           }});
        steps = stepsOf([this] { EXPECT_EQ(seekWrite(target_, 1500, "tail"), 0U); });
    });
    EXPECT_THAT(logLines(err), ElementsAre("rm_fileSeekWrite: unable to write target",
                                           "    seek address=1500, bytes=4, errno=5"));
    EXPECT_THAT(steps, ElementsAre("fileSem entered", "other closed", "target opened",
                                   "target at 4", "fileSem left", "seekSem entered",
                                   "growSem entered", "target extended", "space of target",
                                   "growSem left", "target at 1500", "line", "seekSem left"));
    EXPECT_EQ(rm_filePosition(target_), 1500U);
}

TEST_F(PositionedWrite, ToABadHandleAsksTheSystemForNothing)
{
    std::string err;
    const Steps steps =
        stepsOf([&] { err = captureStderr([] { EXPECT_EQ(seekWrite(31, 1500, "tail"), 0U); }); });
    EXPECT_THAT(steps, ElementsAre("line"));
    EXPECT_THAT(logLines(err), ElementsAre("rm_fileSeekWrite: invalid handle 31"));
}
}  // namespace
