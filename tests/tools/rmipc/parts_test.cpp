// The parts of rmipc that read what may be anything, and the rules by which it judges.
#include "judge.h"
#include "machine.h"
#include "options.h"
#include "place.h"
#include "procfs.h"
#include "survey.h"
#include "words.h"

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using namespace rmipc;
using testing::ElementsAre;
using testing::HasSubstr;

// A number that no process has: it is above the greatest.
constexpr pid_t kNobodys = 0x7FFFFFF0;

class InADirectory : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::string name = std::filesystem::temp_directory_path() / "rmipc.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
        std::filesystem::current_path(folder_);
    }

    void TearDown() override
    {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(folder_);
    }

    static void make(const std::string& name) { std::ofstream(name).close(); }

    std::filesystem::path folder_;
};

using RmipcPlace = InADirectory;

TEST_F(RmipcPlace, KeysAreThoseOfTheSystem)
{
    make("x.ZNT.RM.MEM");
    const Token token = lookAt("x.ZNT.RM.MEM");
    ASSERT_TRUE(token.base.has_value());
    for (int slot = 0; slot < kSegmentSlots; ++slot) {
        EXPECT_EQ(keyOf(*token.base, slot), ftok("x.ZNT.RM.MEM", slot + 1));
    }
}

TEST_F(RmipcPlace, APrefixIsTakenAsItIs)
{
    make("db.ZNT.RM.SEM");
    const Place place = understand("db");
    EXPECT_EQ(place.prefix, "db");
    EXPECT_EQ(place.note, "");
    EXPECT_EQ(place.tokens[kSemaphores].state, TokenState::kPresent);
    EXPECT_EQ(place.tokens[kSegments].state, TokenState::kAbsent);
}

TEST_F(RmipcPlace, ADirectoryIsUnderstoodWithoutItsSlash)
{
    std::filesystem::create_directory("db");
    make("db/.ZNT.RM.QUEUE");
    const Place place = understand("db");
    EXPECT_EQ(place.prefix, "db/");
    EXPECT_THAT(place.note, HasSubstr("a directory"));
    EXPECT_EQ(understand("db/").note, "");
}

TEST_F(RmipcPlace, WhatIsMeantExactlyGoesBeforeADirectoryAndTheOtherIsNamed)
{
    std::filesystem::create_directory("db");
    make("db/.ZNT.RM.SEM");
    make("db.ZNT.RM.SEM");
    const Place place = understand("db");
    EXPECT_EQ(place.prefix, "db");
    EXPECT_EQ(place.note, "taken as it is; there are token files of db/ too");
}

TEST_F(RmipcPlace, OfALongPrefixTheFirst31BytesCount)
{
    const std::string longName(40, 'p');
    make(longName.substr(0, 31) + ".ZNT.RM.SEM");
    const Place place = understand(longName);
    EXPECT_EQ(place.prefix, longName.substr(0, 31));
    EXPECT_THAT(place.note, HasSubstr("31 bytes"));
    make(longName + ".ZNT.RM.SEM");
    EXPECT_EQ(understand(longName).prefix, longName);
}

TEST_F(RmipcPlace, ALinkAndADirectoryAreNoTokenFiles)
{
    make("target");
    std::filesystem::create_symlink("target", "a.ZNT.RM.SEM");
    std::filesystem::create_directory("a.ZNT.RM.MEM");
    const Place place = understand("a");
    EXPECT_EQ(place.tokens[kSemaphores].state, TokenState::kUnusable);
    EXPECT_EQ(place.tokens[kSegments].state, TokenState::kUnusable);
    EXPECT_FALSE(place.tokens[kSemaphores].base.has_value());
    EXPECT_FALSE(place.anyToken());
}

TEST_F(RmipcPlace, AFileWhereADirectoryShouldBeIsTrouble)
{
    make("file");
    const Place place = understand("file/");
    EXPECT_EQ(place.tokens[kQueues].state, TokenState::kUnknown);
    EXPECT_TRUE(place.anyTrouble());
}

// ---- /proc

TEST(RmipcStat, ReadsTheFields)
{
    const auto stat =
        parseStat("12 (cat) R 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 3 18 12345 20 21 22\n");
    ASSERT_TRUE(stat.has_value());
    EXPECT_EQ(stat->name, "cat");
    EXPECT_EQ(stat->state, 'R');
    EXPECT_EQ(stat->threads, 3U);
    EXPECT_EQ(stat->start, 12345U);
}

TEST(RmipcStat, ANameMayHoldAnything)
{
    const auto stat =
        parseStat("12 (a) Z (b\n) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 1 18 7 20\n");
    ASSERT_TRUE(stat.has_value());
    EXPECT_EQ(stat->name, "a) Z (b\n");
    EXPECT_EQ(stat->state, 'S');
}

TEST(RmipcStat, WhatIsCutOrNoNumberIsNotThere)
{
    for (const char* text :
         {"", "12", "12 (cat", ")(", "12 (cat) R 1 2", "12 (cat)",
          "12 (cat) RS 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 1 18 7",
          "12 (cat) R 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 x 18 7",
          "12 (cat) R 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 1 18 99999999999999999999"}) {
        EXPECT_FALSE(parseStat(text).has_value()) << text;
    }
}

TEST(RmipcMapping, ReadsKeyAndNumberOfASegment)
{
    const auto mapping = parseMapping(
        "7fe9ab124000-7fe9ab127000 rw-s 00000000 00:01 262174   /SYSVf234abcd (deleted)");
    ASSERT_TRUE(mapping.has_value());
    EXPECT_EQ(static_cast<uint32_t>(mapping->key), 0xF234ABCDU);
    EXPECT_EQ(mapping->id, 262174);
}

TEST(RmipcMapping, OtherLinesAreNone)
{
    for (const char* line : {"", "a b c d e", "a b c d 12 /usr/bin/cat", "a b c d 12 /SYSV1234",
                             "a b c d x /SYSV12345678", "a b c d 12 /SYSV1234567g",
                             "a b c d -2 /SYSV12345678", "a b c d 99999999999 /SYSV12345678",
                             "a b c d 12 /tmp/SYSV12345678", "a b c d 12 /SYSV123456789"}) {
        EXPECT_FALSE(parseMapping(line).has_value()) << line;
    }
}

TEST(RmipcTable, ColumnsAreFoundByTheirNames)
{
    const Table table("  new key  nsems\n 1 -5 20\n\n 2 77 3 4\n");
    ASSERT_TRUE(table.isSound());
    ASSERT_EQ(table.rows(), 2U);
    EXPECT_EQ(table.at<int>(0, "key"), -5);
    EXPECT_EQ(table.at<uint64_t>(1, "nsems"), 3U);
    EXPECT_EQ(table.at<int>(1, "key", 8), 077);
}

TEST(RmipcTable, WhatIsNotThereOrDoesNotFitIsNothing)
{
    const Table table("key perms size\n1 0777\n1 9 99999999999999999999999");
    EXPECT_FALSE(table.at<uint64_t>(0, "size").has_value());
    EXPECT_FALSE(table.at<uint64_t>(1, "size").has_value());
    EXPECT_FALSE(table.at<unsigned>(1, "perms", 8).has_value());
    EXPECT_FALSE(table.at<int>(0, "cpid").has_value());
    EXPECT_FALSE(table.at<int>(7, "key").has_value());
    EXPECT_FALSE(Table("key nsems\n1 2 3 4\n").at<int>(0, "shmid").has_value());
    EXPECT_FALSE(Table("").isSound());
    EXPECT_FALSE(Table("nonsense\n1 2 3\n").isSound());
}

TEST(RmipcTable, AFileThatIsNotThereIsNotRead)
{
    EXPECT_FALSE(readWhole("/nowhere/at/all").has_value());
    EXPECT_FALSE(readWhole("/").has_value());
}

// ---- judging

SemaphoreSet unusedSet()
{
    SemaphoreSet set;
    set.size = kSetSize;
    set.semaphores.resize(kSetSize);
    return set;
}

TEST(RmipcJudge, ASetIsUsedWhileALastOperatorLives)
{
    People people;
    SemaphoreSet set = unusedSet();
    set.semaphores[3].last = kNobodys;
    set.semaphores[7].last = getpid();
    set.used = nowInSeconds();
    judge(set, people);
    EXPECT_EQ(set.verdict, Verdict::kUsed);
    EXPECT_THAT(set.reason, HasSubstr(std::to_string(getpid())));
    set.semaphores[7].last = kNobodys;
    judge(set, people);
    EXPECT_EQ(set.verdict, Verdict::kLeft);
}

TEST(RmipcJudge, AWaitingProcessLivesWhoeverItIs)
{
    People people;
    SemaphoreSet set = unusedSet();
    set.semaphores[0].last = kNobodys;
    set.semaphores[19].toPass = 1;
    judge(set, people);
    EXPECT_EQ(set.verdict, Verdict::kUsed);
    EXPECT_EQ(set.reason, "a process waits in it");
}

TEST(RmipcJudge, ANumberThatWasGivenAgainIsSaidAndCounts)
{
    People people;
    SemaphoreSet set = unusedSet();
    set.semaphores[0].last = getpid();
    set.used = 1000;
    judge(set, people);
    EXPECT_EQ(set.verdict, Verdict::kUsed);
    EXPECT_THAT(set.reason, HasSubstr("given again"));
}

TEST(RmipcJudge, ProcessesOfAnotherNameSpaceLeaveDoubt)
{
    People people;
    SemaphoreSet set = unusedSet();
    set.used = nowInSeconds();
    judge(set, people);
    EXPECT_EQ(set.verdict, Verdict::kDoubt);
    Queue queue;
    queue.sent = nowInSeconds();
    judge(queue, people);
    EXPECT_EQ(queue.verdict, Verdict::kDoubt);
}

TEST(RmipcJudge, ASetOfAnotherSizeIsForeign)
{
    People people;
    SemaphoreSet set;
    set.size = 3;
    set.sight = Sight::kForeign;
    judge(set, people);
    EXPECT_EQ(set.verdict, Verdict::kForeign);
}

TEST(RmipcJudge, WhatMayNotBeReadIsInDoubt)
{
    People people;
    SemaphoreSet set;
    set.sight = Sight::kPartly;
    judge(set, people);
    EXPECT_EQ(set.verdict, Verdict::kDoubt);
}

TEST(RmipcJudge, AnAttachedSegmentIsUsedWhoeverMadeIt)
{
    People people;
    Segment segment;
    segment.maker = segment.last = kNobodys;
    segment.attached = 1;
    judge(segment, people);
    EXPECT_EQ(segment.verdict, Verdict::kUsed);
    segment.attached = 0;
    segment.attachedAt = 1000;
    judge(segment, people);
    EXPECT_EQ(segment.verdict, Verdict::kLeft);
}

TEST(RmipcJudge, ASegmentThatItsCreatorIsAboutToAttachIsInDoubt)
{
    People people;
    Segment segment;
    segment.maker = getpid();
    judge(segment, people);
    EXPECT_EQ(segment.verdict, Verdict::kDoubt);
    segment.attachedAt = 1000;  // it was, and has been let go
    judge(segment, people);
    EXPECT_EQ(segment.verdict, Verdict::kLeft);
}

TEST(RmipcJudge, OthersOfThePlaceMakeASetAndAQueueDoubtfulButNoSegment)
{
    People people;
    Survey survey;
    survey.set = unusedSet();
    survey.queues.resize(1);
    survey.segments.resize(2);
    survey.segments[0].attached = 1;
    survey.segments[1].attachedAt = 1000;
    judge(survey, people);
    EXPECT_EQ(survey.set->verdict, Verdict::kDoubt);
    EXPECT_EQ(survey.queues[0].verdict, Verdict::kDoubt);
    EXPECT_EQ(survey.segments[0].verdict, Verdict::kUsed);
    EXPECT_EQ(survey.segments[1].verdict, Verdict::kLeft);
    EXPECT_TRUE(hasLeftovers(survey));
}

TEST(RmipcJudge, AnOpenTokenFileSpeaksForItsSetAndQueues)
{
    People people;
    Survey survey;
    survey.set = unusedSet();
    survey.queues.resize(1);
    survey.holders[kQueues] = {getpid()};
    judge(survey, people);
    EXPECT_EQ(survey.queues[0].verdict, Verdict::kUsed);
    EXPECT_EQ(survey.set->verdict, Verdict::kDoubt);
}

TEST(RmipcJudge, ATokenFileIsLeftWithItsLastObject)
{
    People people;
    Survey survey;
    survey.place.tokens[kQueues].state = TokenState::kPresent;
    judge(survey, people);
    EXPECT_EQ(survey.tokens[kQueues], Verdict::kLeft);
    EXPECT_EQ(survey.tokens[kSegments], Verdict::kForeign);  // there is none
    survey.queues.resize(1);
    survey.queues[0].family = kQueues;
    survey.queues[0].sender = getpid();
    judge(survey, people);
    EXPECT_EQ(survey.tokens[kQueues], Verdict::kUsed);
    survey.queues.clear();
    survey.segments.resize(1);
    survey.segments[0].family = kSegments;
    survey.segments[0].attached = 1;
    survey.unseen = 1;
    judge(survey, people);
    EXPECT_EQ(survey.tokens[kQueues], Verdict::kDoubt);
}

TEST(RmipcGuess, SaysAsMuchAsTheValueTells)
{
    People people;
    const auto stateOf = [&people](int value, int toEnter, int toPass, pid_t last) {
        return std::string(guessOf({value, toEnter, toPass, last}, people).state);
    };
    EXPECT_EQ(stateOf(0, 0, 0, 0), "unused");
    EXPECT_EQ(stateOf(1, 0, 0, 0), "free");
    EXPECT_EQ(stateOf(1, 0, 2, kNobodys), "event");
    EXPECT_EQ(stateOf(2, 0, 0, kNobodys), "raised");
    EXPECT_EQ(stateOf(0, 0, 0, kNobodys), "heldOrSignalled");
    EXPECT_EQ(stateOf(0, 1, 0, kNobodys), "held");
    EXPECT_THAT(guessOf({0, 2, 0, kNobodys}, people).words,
                "held by " + std::to_string(kNobodys) + " (gone); 2 wait to enter");
    EXPECT_THAT(guessOf({0, 1, 0, 0}, people).words, HasSubstr("not seen from here"));
}

// ---- bags

std::array<unsigned char, 16> areaOf(uint16_t capacity, uint16_t count, uint16_t next,
                                     uint16_t elementSize, uint32_t slots)
{
    std::array<unsigned char, 16> area = {};
    const std::array<uint16_t, 4> fields = {capacity, count, next, elementSize};
    std::memcpy(&area[4], fields.data(), 8);
    std::memcpy(&area[12], &slots, 4);
    return area;
}

TEST(RmipcBag, IsRecognisedByItsLayout)
{
    const auto bag = bagIn(areaOf(10, 3, 3, 24, 0x1234010).data(), 256);
    ASSERT_TRUE(bag.has_value());
    EXPECT_EQ(bagWords(*bag), "looks like an FF bag: 3 of 10 elements of 24 bytes");
}

TEST(RmipcBag, AnythingElseIsNone)
{
    EXPECT_FALSE(bagIn(areaOf(10, 3, 3, 24, 0x1234010).data(), 257).has_value());
    EXPECT_FALSE(bagIn(areaOf(10, 11, 3, 24, 0x1234010).data(), 256).has_value());
    EXPECT_FALSE(bagIn(areaOf(10, 3, 10, 24, 0x1234010).data(), 256).has_value());
    EXPECT_FALSE(bagIn(areaOf(10, 3, 3, 24, 0x1234011).data(), 256).has_value());
    EXPECT_FALSE(bagIn(std::array<unsigned char, 16>{}.data(), 16).has_value());
    EXPECT_FALSE(bagIn(areaOf(0, 0, 0, 0, 0x10).data(), 15).has_value());
}

// ---- limits

Limits usualLimits()
{
    Limits limits;
    limits.semmsl = 32000;
    limits.semmns = 1024000000;
    limits.semopm = 500;
    limits.semmni = 32000;
    limits.semvmx = 32767;
    limits.shmmax = limits.shmall = 18446744073692774399U;
    limits.shmmni = 4096;
    limits.msgmax = 8192;
    limits.msgmnb = 16384;
    limits.msgmni = 32000;
    limits.sets = limits.semaphores = limits.pages = limits.segments = limits.queues = 0;
    return limits;
}

std::vector<std::string> tooLow(const Limits& limits, const Options& options)
{
    std::vector<std::string> names;
    for (const Check& one : check(limits, options)) {
        if (!one.isEnough()) {
            names.push_back(one.name);
        }
    }
    return names;
}

TEST(RmipcLimits, MessagesCountWithTheirHead)
{
    Options options;
    EXPECT_THAT(tooLow(usualLimits(), options), ElementsAre("msgmax", "msgmnb"));
    options.message = 8183;
    EXPECT_THAT(tooLow(usualLimits(), options), ElementsAre());
    options.message = 8184;
    EXPECT_THAT(tooLow(usualLimits(), options), ElementsAre("msgmax"));
    options.message = 16376;
    EXPECT_THAT(tooLow(usualLimits(), options), ElementsAre("msgmax", "msgmnb"));
}

TEST(RmipcLimits, WhatIsInUseIsNeededToo)
{
    Options options;
    options.message = 1;
    Limits limits = usualLimits();
    limits.semmni = 7;
    limits.sets = 6;
    limits.semmns = 120;
    limits.semaphores = 100;
    limits.shmmni = limits.msgmni = 30;
    limits.segments = 10;
    limits.queues = 25;
    EXPECT_THAT(tooLow(limits, options), ElementsAre());
    limits.sets = 7;
    limits.semaphores = 101;
    limits.segments = 11;
    limits.queues = 26;
    EXPECT_THAT(tooLow(limits, options), ElementsAre("SEMMNS", "SEMMNI", "shmmni", "msgmni"));
    EXPECT_THAT(
        settingsFor(limits, check(limits, options)),
        ElementsAre("kernel.sem=\"32000 121 500 8\"", "kernel.shmmni=31", "kernel.msgmni=31"));
}

TEST(RmipcLimits, SetsHave20SemaphoresAndTwoStepsAreDoneAtOnce)
{
    Options options;
    options.message = 1;
    Limits limits = usualLimits();
    limits.semmsl = 19;
    limits.semopm = 1;
    EXPECT_THAT(tooLow(limits, options), ElementsAre("SEMMSL", "SEMOPM"));
    EXPECT_THAT(settingsFor(limits, check(limits, options)),
                ElementsAre("kernel.sem=\"20 1024000000 2 32000\""));
    limits.semmsl = 20;
    limits.semopm = 2;
    EXPECT_THAT(tooLow(limits, options), ElementsAre());
}

TEST(RmipcLimits, SegmentsCountInPages)
{
    Options options;
    options.message = 1;
    options.segment = 4097;
    Limits limits = usualLimits();
    limits.shmmax = 4097;
    limits.shmall = 45;
    limits.pages = 5;
    EXPECT_THAT(tooLow(limits, options), ElementsAre());
    limits.shmmax = 4096;
    limits.shmall = 44;
    EXPECT_THAT(tooLow(limits, options), ElementsAre("shmmax", "shmall"));
    limits.shmall = UINT64_MAX;
    limits.pages = UINT64_MAX;
    EXPECT_THAT(tooLow(limits, options), ElementsAre("shmmax"));
}

TEST(RmipcLimits, WhatIsNotKnownIsNotEnoughAndChangesNothing)
{
    Options options;
    options.message = 1;
    Limits limits = usualLimits();
    limits.msgmni.reset();
    limits.sets.reset();
    EXPECT_THAT(tooLow(limits, options), ElementsAre("msgmni"));
    EXPECT_THAT(settingsFor(limits, check(limits, options)), ElementsAre());
}

// ---- words

TEST(RmipcWords, AgesAreRounded)
{
    EXPECT_EQ(ageOf(100, 100), "just now");
    EXPECT_EQ(ageOf(99, 100), "1 second ago");
    EXPECT_EQ(ageOf(0, 119), "119 seconds ago");
    EXPECT_EQ(ageOf(0, 120), "2 minutes ago");
    EXPECT_EQ(ageOf(0, 7199), "119 minutes ago");
    EXPECT_EQ(ageOf(0, 7200), "2 hours ago");
    EXPECT_EQ(ageOf(0, 172800), "2 days ago");
    EXPECT_EQ(ageOf(101, 100), "in the future");
}

TEST(RmipcWords, ColumnsAreAsWideAsTheirCells)
{
    Grid grid;
    grid.add({">N", "NAME", ">X"});
    grid.add({"1000", "a", "7"});
    grid.add({"1", "long", "10"});
    EXPECT_THAT(grid.lines(1),
                ElementsAre("    N  NAME   X", " 1000  a      7", "    1  long  10"));
}

TEST(RmipcWords, BytesThatAreNoTextAreReplacedInJson)
{
    EXPECT_EQ(text("a\"b\\c\n\xFF"), "\"a\\\"b\\\\c\uFFFD\uFFFD\"");
}

// ---- the command line

TEST(RmipcOptions, WithoutACommandItLists)
{
    std::string name = "rmipc";
    std::string first = "db";
    std::string second = "remove";
    std::array<char*, 3> words = {name.data(), first.data(), second.data()};
    Options options;
    ASSERT_EQ(parseOptions(3, words.data(), options), tools::CommandLine::kRun);
    EXPECT_EQ(options.command, Command::kList);
    EXPECT_THAT(options.prefixes, ElementsAre("db", "remove"));
}
}  // namespace
