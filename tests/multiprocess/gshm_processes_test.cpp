// Shared memory objects between processes: who meets whom, what one process's deletion does to the
// others, and what a process leaves when it ends in its several ways.
//
// A stranger is a process that was not forked from one with objects: it makes its own. Most of them
// are started before the case makes any; one is this program, executed once more.
#include "tests/unix/gshm_case.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <string_view>

#include <signal.h>
#include <unistd.h>

#include <gmock/gmock.h>

using namespace gshmtest;

namespace
{
using rmtest::ChildResult;
using rmtest::Peer;
using rmtest::runChild;
using ::testing::StartsWith;

using Channel = Peer::Channel;

constexpr const char* kOrders = "RM_TEST_STRANGERS_ORDERS";
constexpr const char* kSecondToken = "other.ZNT.RM.MEM";

// --- Strangers

// Does what an order says, and answers:
//     create NAME SIZE    the handle and the segment's id
//     read HANDLE         the text at the start of the object
//     write HANDLE WORD   "written"
//     delete HANDLE       the result
//     prefix TEXT         "set"
std::string answerTo(const std::string& order)
{
    std::istringstream words(order);
    std::string verb;
    std::string word;
    int16_t handle = 0;
    words >> verb;
    if (verb == "create") {
        uint32_t size = 0;
        words >> word >> size;
        handle = make(word.c_str(), size).handle;
        return std::to_string(handle) + ' ' + std::to_string(idOf(handle));
    }
    if (verb == "prefix") {
        words >> word;
        rm_tokenName(word.c_str());
        return "set";
    }
    words >> handle >> word;
    if (verb == "delete") {
        return std::to_string(rm_gshmDelete(handle));
    }
    char* bytes = static_cast<char*>(slotOf(handle).address);
    if (verb == "write") {
        std::strcpy(bytes, word.c_str());
        return "written";
    }
    return bytes;
}

// In a program that was executed with orders, those are all it does.
[[maybe_unused]] const bool hasNoOrders = [] {
    const char* orders = std::getenv(kOrders);
    if (orders != nullptr) {
        std::istringstream lines(orders);
        for (std::string order; std::getline(lines, order, ';');) {
            std::cout << answerTo(order) << '\n' << std::flush;
        }
        _exit(0);
    }
    return true;
}();

// Its output is the answers, a line each.
ChildResult execute(const std::string& orders)
{
    return runChild([&] {
        setenv(kOrders, orders.c_str(), 1);
        execl("/proc/self/exe", "stranger", nullptr);
        ADD_FAILURE() << "cannot execute";
    });
}

std::unique_ptr<Peer> makeStranger()
{
    return std::make_unique<Peer>([](Channel& channel) {
        for (std::string order = channel.hear(); order != "end"; order = channel.hear()) {
            channel.say(answerTo(order));
        }
        rmtest::dumpCoverage();
    });
}

std::string tell(const std::unique_ptr<Peer>& stranger, const std::string& order)
{
    stranger->say(order);
    return stranger->hear();
}

void end(const std::unique_ptr<Peer>& stranger)
{
    stranger->say("end");
    EXPECT_EQ(stranger->wait().status, 0);
}

// The answer to the creation of the object that this process has under the handle.
std::string sameAs(int16_t handle)
{
    return std::to_string(handle) + ' ' + std::to_string(idOf(handle));
}

int idIn(const std::string& answer)
{
    return std::stoi(answer.substr(answer.find(' ')));
}

void say(const Object& object, std::string_view text)
{
    text.copy(object.address, text.size());
    object.address[text.size()] = '\0';
}

unsigned long attachedBy(int id)
{
    shmid_ds segment;
    return stateOfSegment(id, &segment) ? segment.shm_nattch : 0;
}

class GshmStranger : public GshmCase
{
  protected:
    void SetUp() override
    {
        GshmCase::SetUp();
        stranger_ = makeStranger();
    }

    void TearDown() override
    {
        stranger_.reset();
        GshmCase::TearDown();
    }

    std::string tell(const std::string& order) { return ::tell(stranger_, order); }

    std::unique_ptr<Peer> stranger_;
};

class GshmProgram : public GshmCase
{
};

class GshmFork : public GshmCase
{
};

class GshmEnd : public GshmCase
{
};

// --- Who meets whom

TEST_F(GshmStranger, MeetsOnTheSameSegmentsInTheSameOrder)
{
    say(make("one"), "first");
    say(make("two"), "second");
    EXPECT_EQ(tell("create one 100"), sameAs(0));
    EXPECT_EQ(tell("create two 100"), sameAs(1));
    EXPECT_EQ(tell("read 0"), "first");
    EXPECT_EQ(tell("read 1"), "second");
}

TEST_F(GshmStranger, MeetsByTheOrderWhateverTheNames)
{
    say(make("one"), "first");
    say(make("two"), "second");
    EXPECT_EQ(tell("create two 100"), sameAs(0));
    EXPECT_EQ(tell("create something 100"), sameAs(1));
    EXPECT_EQ(tell("read 0"), "first");
}

TEST_F(GshmStranger, MeetsOnAllTwenty)
{
    for (int16_t slot = 0; slot < os::kGshmSlots; ++slot) {
        make();
        EXPECT_EQ(tell("create x 100"), sameAs(slot));
    }
}

TEST_F(GshmStranger, MeetsInASlotThatBothUseAgain)
{
    make();
    make();
    tell("create a 100");
    tell("create b 100");
    rm_gshmDelete(0);
    EXPECT_EQ(tell("delete 0"), "0");
    const Object again = make();
    EXPECT_EQ(tell("create c 100"), sameAs(0));
    tell("write 0 again");
    EXPECT_STREQ(again.address, "again");
}

TEST_F(GshmStranger, ThatComesFirstIsJoined)
{
    const std::string answer = tell("create one 100");
    tell("write 0 earlier");
    const Object object = make();
    EXPECT_EQ(sameAs(0), answer);
    EXPECT_STREQ(object.address, "earlier");
}

TEST_F(GshmStranger, SeesWhatIsWrittenAndIsSeen)
{
    const Object object = make();
    tell("create x 100");
    say(object, "question");
    EXPECT_EQ(tell("read 0"), "question");
    tell("write 0 answer");
    EXPECT_STREQ(object.address, "answer");
}

// Each process that creates makes the token file anew: a file with another identity would part it
// from those that are there.
TEST_F(GshmStranger, KeepsTheIdentityOfTheTokenFile)
{
    pinToken();  // so that a file made anew cannot have the same identity
    make();
    const ino_t before = inodeOf(kToken);
    tell("create x 100");
    EXPECT_EQ(inodeOf(kToken), before);
    EXPECT_EQ(slotOf(7).key, ftok(kToken, 8));
}

TEST_F(GshmStranger, WithAnotherPrefixHasSegmentsOfItsOwn)
{
    say(make(), "mine");
    tell("prefix other");
    EXPECT_NE(tell("create x 100"), sameAs(0));
    EXPECT_EQ(tell("read 0"), "");
    EXPECT_TRUE(std::filesystem::exists(kSecondToken));
    EXPECT_EQ(tell("delete 0"), "0");
    EXPECT_FALSE(std::filesystem::exists(kSecondToken));
    EXPECT_TRUE(tokenExists());
}

TEST_F(GshmStranger, UnderTheSamePrefixMeetsThere)
{
    rm_tokenName("other");
    make();
    tell("prefix other");
    EXPECT_EQ(tell("create x 100"), sameAs(0));
}

TEST_F(GshmStranger, JoinsWithTheSameOrAFewerBytes)
{
    for (int16_t slot = 0; slot < 4; ++slot) {
        make("object", 5000);
    }
    EXPECT_EQ(tell("create same 5000"), sameAs(0));
    EXPECT_EQ(tell("create less 4999"), sameAs(1));
    EXPECT_EQ(tell("create one 1"), sameAs(2));
    EXPECT_EQ(tell("create none 0"), sameAs(3));
}

TEST_F(GshmStranger, CannotJoinWithMoreBytes)
{
    make("object", 5000);
    stranger_->say("create more 5001");
    const ChildResult result = stranger_->wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, StartsWith(failure("rm_gshmCreate", "shmget() failure", EINVAL)));
    EXPECT_FALSE(isMarkedForRemoval(idOf(0)));
}

// --- Deletion with others attached

TEST_F(GshmStranger, LeavesTheMemoryToTheOthersWhenItDeletes)
{
    const Object object = make();
    tell("create x 100");
    tell("write 0 still");
    EXPECT_EQ(tell("delete 0"), "0");
    EXPECT_STREQ(object.address, "still");
    EXPECT_TRUE(isMarkedForRemoval(idOf(0)));
    EXPECT_EQ(attachedBy(idOf(0)), 2U);
}

TEST_F(GshmStranger, KeepsTheMemoryThatAnotherProcessDeletes)
{
    const Object object = make();
    tell("create x 100");
    rm_gshmDelete(0);
    say(object, "shared");
    EXPECT_EQ(tell("read 0"), "shared");
}

TEST_F(GshmStranger, MayDeleteWhatAnotherHasDeleted)
{
    make();
    tell("create x 100");
    EXPECT_EQ(tell("delete 0"), "0");
    EXPECT_EQ(rm_gshmDelete(0), 0);
    EXPECT_EQ(stateNow(), kNothing);
}

TEST_F(GshmStranger, GetsANewSegmentInASlotThatItDeleted)
{
    const Object object = make();
    make();
    tell("create x 100");
    tell("create y 100");
    say(object, "old");
    tell("delete 0");
    EXPECT_NE(tell("create z 100"), sameAs(0));
    EXPECT_EQ(tell("read 0"), "");
    tell("write 0 new");
    EXPECT_STREQ(object.address, "old");
    tell("delete 0");
}

TEST_F(GshmStranger, RemovesTheTokenFileWithItsLastObjectWhoeverUsesOthers)
{
    make();
    make();
    tell("create x 100");
    tell("delete 0");
    EXPECT_FALSE(tokenExists());
    EXPECT_EQ(os::checkGshm(), 0U);
}

TEST_F(GshmStranger, WhoDeletesLaterDoesNotMindTheMissingTokenFile)
{
    make();
    tell("create x 100");
    tell("delete 0");
    EXPECT_EQ(rm_gshmDelete(0), 0);
    expectNothingLeft();
}

// Somebody else has removed it, and this process has let go of it.
TEST_F(GshmEnd, OfTheSegmentItselfMakesTheDeletionFatal)
{
    make();
    const int id = idOf(0);
    const Object object = make();
    const int gone = idOf(1);
    ASSERT_EQ(shmdt(object.address), 0);
    ASSERT_EQ(shmctl(gone, IPC_RMID, nullptr), 0);
    expectFirstFailure(outcomeOf([] { rm_gshmDelete(1); }),
                       failure("rm_gshmDelete", kShmctl, EINVAL));
    EXPECT_FALSE(isMarkedForRemoval(id));
    rm_gshmDelete(0);
    os::nGshm = 0;
}

// --- Programs

TEST_F(GshmProgram, ThatWasStartedByItselfMeetsInTheSameOrder)
{
    say(make("one"), "first");
    const Object second = make("two");
    const ChildResult result = execute("create two 100;create one 100;read 0;write 1 executed");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, sameAs(0) + '\n' + sameAs(1) + "\nfirst\nwritten\n");
    EXPECT_STREQ(second.address, "executed");
}

TEST_F(GshmProgram, LeavesWhatTheNextOneFinds)
{
    EXPECT_EQ(execute("create x 100;write 0 kept").status, 0);
    EXPECT_TRUE(tokenExists());
    const ChildResult second = execute("create y 100;read 0;delete 0");
    EXPECT_THAT(second.out, ::testing::EndsWith("\nkept\n0\n"));
    expectNothingLeft();
}

TEST_F(GshmProgram, FindsZerosAfterTheLastOneHasDeleted)
{
    EXPECT_EQ(execute("create x 100;write 0 gone;delete 0").status, 0);
    const ChildResult second = execute("create x 100;read 0;delete 0");
    EXPECT_THAT(second.out, ::testing::EndsWith("\n\n0\n"));
    expectNothingLeft();
}

TEST_F(GshmProgram, DoesNotDisturbTheObjectsOfTheProcessThatExecutesIt)
{
    say(make(), "mine");
    const int id = idOf(0);
    EXPECT_EQ(execute("prefix other;create x 100;write 0 its;delete 0").status, 0);
    EXPECT_STREQ(static_cast<char*>(slotOf(0).address), "mine");
    EXPECT_FALSE(isMarkedForRemoval(id));
}

// --- Forked processes

TEST_F(GshmFork, InheritsTheObjectsAtTheSameAddress)
{
    const Object object = make();
    say(object, "before");
    EXPECT_EQ(runChild([=] {
                  EXPECT_EQ(os::checkGshm(), 0U);
                  EXPECT_STREQ(object.address, "before");
                  say(object, "after");
              }).status,
              0);
    EXPECT_STREQ(object.address, "after");
    EXPECT_EQ(attachedBy(idOf(0)), 1U);
}

TEST_F(GshmFork, GoesOnWithTheNextSlotWhereOthersMeetIt)
{
    make();
    EXPECT_EQ(runChild([] {
                  const Object object = make();
                  EXPECT_EQ(object.handle, 1);
                  say(object, "from the child");
              }).status,
              0);
    EXPECT_STREQ(make().address, "from the child");
}

TEST_F(GshmFork, DeletesForItsParentToo)
{
    const Object object = make();
    say(object, "still");
    EXPECT_EQ(runChild([] {
                  EXPECT_EQ(rm_gshmDelete(0), 0);
                  EXPECT_EQ(stateNow(), kNothing);
              }).status,
              0);
    EXPECT_FALSE(tokenExists());
    EXPECT_TRUE(isMarkedForRemoval(idOf(0)));
    EXPECT_STREQ(object.address, "still");
    EXPECT_EQ(stateNow(), kOne);
    EXPECT_EQ(rm_gshmDelete(0), 0);
}

TEST_F(GshmFork, ThatExitsInOrderRemovesTheObjectsForAll)
{
    make();
    make();
    EXPECT_EQ(runChild([] { rm_exit(0); }).status, 0);
    EXPECT_TRUE(isMarkedForRemoval(idOf(0)));
    EXPECT_TRUE(isMarkedForRemoval(idOf(1)));
    EXPECT_FALSE(tokenExists());
}

TEST_F(GshmFork, ThatJustEndsLeavesEverything)
{
    say(make(), "kept");
    EXPECT_EQ(runChild([] { _exit(0); }).status, 0);
    EXPECT_TRUE(tokenExists());
    EXPECT_FALSE(isMarkedForRemoval(idOf(0)));
    EXPECT_STREQ(static_cast<char*>(slotOf(0).address), "kept");
}

// --- Ends

// Its memory goes with the last process that has it, not with the one that deleted it.
TEST_F(GshmEnd, OfTheLastAttachedProcessRemovesADeletedSegment)
{
    const std::unique_ptr<Peer> first = makeStranger();
    const std::unique_ptr<Peer> second = makeStranger();
    const int id = idIn(tell(first, "create x 100"));
    EXPECT_EQ(idIn(tell(second, "create x 100")), id);
    tell(first, "write 0 alive");
    EXPECT_EQ(tell(first, "delete 0"), "0");
    end(first);
    EXPECT_TRUE(isMarkedForRemoval(id));
    EXPECT_EQ(tell(second, "read 0"), "alive");
    end(second);
    EXPECT_FALSE(segmentExists(id));
    EXPECT_FALSE(tokenExists());
}

TEST_F(GshmEnd, BySignalLeavesTheSegmentAndTheTokenFileToWhoComesNext)
{
    const std::unique_ptr<Peer> first = makeStranger();
    const int id = idIn(tell(first, "create x 100"));
    tell(first, "write 0 left");
    first->kill(SIGKILL);
    EXPECT_EQ(first->wait().signal, SIGKILL);
    EXPECT_EQ(attachedBy(id), 0U);
    EXPECT_TRUE(tokenExists());
    const Object object = make();
    EXPECT_EQ(idOf(0), id);
    EXPECT_STREQ(object.address, "left");
}

TEST_F(GshmEnd, ByAFatalErrorRemovesTheSegmentsAndTheTokenFile)
{
    const std::unique_ptr<Peer> peer = makeStranger();
    const int id = idIn(tell(peer, "create x 100"));
    peer->say("create none 0");
    const ChildResult result = peer->wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, StartsWith(failure("rm_gshmCreate", "shmget() failure", EINVAL)));
    EXPECT_FALSE(segmentExists(id));
    expectNothingLeft();
}
}  // namespace
