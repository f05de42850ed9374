// Shared memory objects: which system calls each operation makes, and in which order. Another
// process may look at the token file and at the segments between any two of them.
#include "tests/unix/gshm_case.h"

#include <cstddef>

#include <gmock/gmock.h>

using namespace gshmtest;

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using ::testing::ElementsAreArray;

class GshmCalls : public GshmFaultCase
{
};

std::string inWords(const CallRecord& record)
{
    std::string name = record.name;
    switch (record.call) {
        case Call::kOpen:
        case Call::kUnlink:
            return name + " " + std::string(record.path());
        case Call::kFtok:
            return name + " " + std::string(record.path()) + " " + std::to_string(record.args[1]);
        case Call::kShmget:
        case Call::kShmat:
            return name + " " + std::to_string(record.args[0]);
        case Call::kShmctl:
            return name + " " + std::to_string(record.args[0]) +
                   (record.args[1] == IPC_RMID ? " IPC_RMID" : " other");
        default:
            return name;
    }
}

// What `body` asks the system for, locks included.
Lines callsOf(const std::function<void()>& body)
{
    resetCalls();
    body();
    Lines calls;
    for (const CallRecord& record :
         callTrace({Call::kOpen, Call::kFdopen, Call::kFopen, Call::kFclose, Call::kUnlink,
                    Call::kRemove, Call::kFtok, Call::kShmget, Call::kShmat, Call::kShmctl,
                    Call::kSemget, Call::kSemop, Call::kSemtimedop, Call::kSemctl})) {
        calls.push_back(inWords(record));
    }
    return calls;
}

std::string segment(int id)
{
    return std::to_string(id);
}

std::string removal(int id)
{
    return "shmctl " + segment(id) + " IPC_RMID";
}

TEST_F(GshmCalls, OfTheFirstObjectAreTheTokenFileThenAllKeysThenTheSegment)
{
    const Lines calls = callsOf([] { make(); });
    Lines expected = {std::string("open ") + kToken, "fdopen"};
    for (int project = 1; project <= 20; ++project) {
        expected.push_back(std::string("ftok ") + kToken + " " + std::to_string(project));
    }
    expected.push_back("shmget " + std::to_string(slotOf(0).key));
    expected.push_back("shmat " + segment(idOf(0)));
    EXPECT_THAT(calls, ElementsAreArray(expected));
}

TEST_F(GshmCalls, OfAFurtherObjectAreTheSegmentOnly)
{
    make();
    const Lines calls = callsOf([] { make(); });
    EXPECT_THAT(calls, ElementsAreArray({"shmget " + std::to_string(slotOf(1).key),
                                         "shmat " + segment(idOf(1))}));
}

TEST_F(GshmCalls, OfADeletionBesideOthersAreTheRemovalOnly)
{
    make();
    make();
    const int id = idOf(0);
    EXPECT_THAT(callsOf([] { rm_gshmDelete(0); }), ElementsAreArray({removal(id)}));
}

// Whoever finds no token file any more must not find the segment either.
TEST_F(GshmCalls, OfTheLastDeletionAreTheRemovalThenTheTokenFile)
{
    make();
    const int id = idOf(0);
    EXPECT_THAT(
        callsOf([] { rm_gshmDelete(0); }),
        ElementsAreArray({removal(id), std::string("fclose"), std::string("unlink ") + kToken}));
}

TEST_F(GshmCalls, OfTheTerminationAreAllRemovalsThenTheTokenFile)
{
    makeSome(3);
    rm_gshmDelete(1);
    const int first = idOf(0);
    const int last = idOf(2);
    EXPECT_THAT(callsOf([] { rm_gshmTerminate(); }),
                ElementsAreArray({removal(first), removal(last), std::string("fclose"),
                                  std::string("unlink ") + kToken}));
}

TEST_F(GshmCalls, EndWhereACreationFails)
{
    make();
    const ScopedFault fault({.call = Call::kShmget, .error = ENOSPC});
    const Lines calls = callsOf([] { fatalQuietly([] { make(); }); });
    EXPECT_THAT(calls, ElementsAreArray({"shmget " + std::to_string(slotOf(1).key)}));
}

// The table as it lies in memory: the fields that mean something to the system come first.
TEST(GshmSlotFields, AreIdKeyNameAndAddressInThisOrder)
{
    EXPECT_EQ(offsetof(os::GshmSlot, id), 0U);
    EXPECT_EQ(offsetof(os::GshmSlot, key), 4U);
    EXPECT_EQ(offsetof(os::GshmSlot, name), 8U);
    EXPECT_EQ(offsetof(os::GshmSlot, address), 8U + sizeof(char*));
    EXPECT_EQ(sizeof(os::GshmSlot::id), 4U);
    EXPECT_EQ(sizeof(os::GshmSlot::key), 4U);
    EXPECT_EQ(os::rmGshm.size(), 20U);
    EXPECT_EQ(sizeof(os::nGshm), 2U);
}

TEST_F(GshmCalls, EnterNoLockWhereTheServerHasItsOwn)
{
    fileSem = rm_syncCreate("fileSem");
    growSem = rm_syncCreate("growSem");
    Lines calls = callsOf([] {
        makeSome(2);
        rm_gshmDelete(0);
        rm_gshmDelete(1);
    });
    std::erase_if(calls, [](const std::string& call) { return !call.starts_with("sem"); });
    EXPECT_THAT(calls, ::testing::IsEmpty());
    rm_syncTerminate();
}
}  // namespace
