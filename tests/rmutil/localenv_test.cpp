// The local environment: what it keeps, what it finds, and what it does without memory.
#include "tests/support/support.h"

#include "rm/rmalloc/rmalloc.h"
#include "rm/rmutil/rmutil.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::catchFatal;
using rmtest::kForever;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmutil::LocalEnv;
using rmutil::NumLocalEnv;

constexpr const char* kUnset = "RM_TEST_VARIABLE";  // a name that no environment has

// The whole array, an empty slot as nullopt.
std::vector<std::optional<std::string>> slots()
{
    std::vector<std::optional<std::string>> all;
    for (uint16_t slot = 0; slot < NumLocalEnv; ++slot) {
        all.push_back(LocalEnv[slot] == nullptr ? std::nullopt
                                                : std::optional<std::string>(LocalEnv[slot]));
    }
    return all;
}

using Slots = std::vector<std::optional<std::string>>;

class LocalEnvTest : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        unsetenv(kUnset);
    }

    void TearDown() override
    {
        EXPECT_EQ(rmutil::checkLocalEnv(), 0U);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        unsetenv(kUnset);
        RmTest::TearDown();
    }
};

class PutLocalEnv : public LocalEnvTest
{
};

class GetLocalEnv : public LocalEnvTest
{
};

class RmGetenv : public LocalEnvTest
{
};

class LocalEnvMemory : public LocalEnvTest
{
};

// Frees an entry and leaves its slot empty, as no call of the interface does yet.
void emptySlot(uint16_t slot)
{
    rm_freeMemory(LocalEnv[slot], 0);
    LocalEnv[slot] = nullptr;
}

// --- Putting

TEST_F(PutLocalEnv, StartsWithoutAnArray)
{
    EXPECT_EQ(LocalEnv, nullptr);
    EXPECT_EQ(NumLocalEnv, 0);
}

TEST_F(PutLocalEnv, KeepsTheWholeTextUpperCasedTheValueIncluded)
{
    rm_putLocalEnv("Path=/usr/Bin");
    EXPECT_EQ(slots(), (Slots{"PATH=/USR/BIN"}));
}

TEST_F(PutLocalEnv, LeavesBytesAboveAsciiAsTheyAre)
{
    rm_putLocalEnv("a=\xE4\xC4");
    EXPECT_EQ(slots(), (Slots{"A=\xE4\xC4"}));
}

TEST_F(PutLocalEnv, KeepsACopyOfItsOwn)
{
    char text[] = "A=1";
    rm_putLocalEnv(text);
    EXPECT_STREQ(text, "A=1");
    text[2] = '9';
    EXPECT_EQ(slots(), (Slots{"A=1"}));
}

TEST_F(PutLocalEnv, NeverWritesALiteral)
{
    rm_putLocalEnv("literal=value");
    EXPECT_STREQ(rm_getLocalEnv("literal"), "VALUE");
}

TEST_F(PutLocalEnv, IgnoresNull)
{
    resetCalls();
    rm_putLocalEnv(nullptr);
    EXPECT_EQ(NumLocalEnv, 0);
    EXPECT_EQ(callCount(Call::kAllocBlock), 0);
}

TEST_F(PutLocalEnv, AppendsANewNameInASlotOfItsOwn)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("B=2");
    rm_putLocalEnv("C=3");
    EXPECT_EQ(slots(), (Slots{"A=1", "B=2", "C=3"}));
}

TEST_F(PutLocalEnv, ReplacesTheEntryOfTheSameName)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("A=2");
    EXPECT_EQ(slots(), (Slots{"A=2"}));
}

TEST_F(PutLocalEnv, ReplacesWhateverTheCaseOfTheName)
{
    rm_putLocalEnv("path=1");
    rm_putLocalEnv("PATH=2");
    EXPECT_EQ(slots(), (Slots{"PATH=2"}));
}

TEST_F(PutLocalEnv, ReplacesInPlace)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("B=2");
    rm_putLocalEnv("A=3");
    EXPECT_EQ(slots(), (Slots{"A=3", "B=2"}));
}

TEST_F(PutLocalEnv, FreesWhatItReplaces)
{
    rm_putLocalEnv("A=1");
    const uint32_t before = rmalloc::tagTable[0].allocated;
    rm_putLocalEnv("A=2");
    EXPECT_EQ(rmalloc::tagTable[0].allocated, before);
}

TEST_F(PutLocalEnv, AShortNameReplacesAnEntryThatOnlyBeginsWithIt)
{
    rm_putLocalEnv("PATHLIST=y");
    rm_putLocalEnv("PATH=x");
    EXPECT_EQ(slots(), (Slots{"PATH=X"}));
}

TEST_F(PutLocalEnv, AnEntryThatOnlyBeginsWithTheNameWinsWhenItComesFirst)
{
    rm_putLocalEnv("LIST=1");
    rm_putLocalEnv("PATHLIST=y");
    rm_putLocalEnv("LIST=2");
    rm_putLocalEnv("PATHLIST=z");
    EXPECT_EQ(slots(), (Slots{"LIST=2", "PATHLIST=Z"}));
    rm_putLocalEnv("L=3");
    EXPECT_EQ(slots(), (Slots{"L=3", "PATHLIST=Z"}));
}

TEST_F(PutLocalEnv, AnExactEntryThatComesFirstIsTheOneReplaced)
{
    rm_putLocalEnv("PATH=x");
    rm_putLocalEnv("PATHLIST=y");
    rm_putLocalEnv("PATH=z");
    EXPECT_EQ(slots(), (Slots{"PATH=Z", "PATHLIST=Y"}));
}

TEST_F(PutLocalEnv, ALongerNameDoesNotReplaceAShorterOne)
{
    rm_putLocalEnv("PATH=x");
    rm_putLocalEnv("PATHLIST=y");
    EXPECT_EQ(slots(), (Slots{"PATH=X", "PATHLIST=Y"}));
}

TEST_F(PutLocalEnv, ABareNameReplacesTheEntryByItself)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("a");
    EXPECT_EQ(slots(), (Slots{"A"}));
}

TEST_F(PutLocalEnv, ABareNameThatIsNewIsAppended)
{
    rm_putLocalEnv("name");
    EXPECT_EQ(slots(), (Slots{"NAME"}));
}

TEST_F(PutLocalEnv, ARemovedNameCanBePutAgain)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("A");
    rm_putLocalEnv("A=2");
    EXPECT_EQ(slots(), (Slots{"A=2"}));
}

TEST_F(PutLocalEnv, TheNameEndsAtTheFirstEqualsSign)
{
    rm_putLocalEnv("A=1=2");
    rm_putLocalEnv("A=3=4");
    EXPECT_EQ(slots(), (Slots{"A=3=4"}));
}

TEST_F(PutLocalEnv, AnEmptyNameMatchesTheFirstEntry)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("B=2");
    rm_putLocalEnv("=x");
    EXPECT_EQ(slots(), (Slots{"=X", "B=2"}));
}

TEST_F(PutLocalEnv, AnEmptyTextMatchesTheFirstEntry)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("");
    EXPECT_EQ(slots(), (Slots{""}));
}

TEST_F(PutLocalEnv, FillsTheFirstEmptySlot)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("B=2");
    rm_putLocalEnv("C=3");
    emptySlot(0);
    emptySlot(1);
    rm_putLocalEnv("D=4");
    EXPECT_EQ(slots(), (Slots{"D=4", std::nullopt, "C=3"}));
}

TEST_F(PutLocalEnv, AMatchBehindAnEmptySlotIsReplacedWhereItIs)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("B=2");
    emptySlot(0);
    rm_putLocalEnv("B=3");
    EXPECT_EQ(slots(), (Slots{std::nullopt, "B=3"}));
}

TEST_F(PutLocalEnv, TakesATextThatLiesInTheEntryItReplaces)
{
    rm_putLocalEnv("A=A=inner");
    rm_putLocalEnv(rm_getLocalEnv("A"));
    EXPECT_EQ(slots(), (Slots{"A=INNER"}));
}

TEST_F(PutLocalEnv, TakesLongTexts)
{
    const std::string value(100000, 'x');
    rm_putLocalEnv(("A=" + value).c_str());
    EXPECT_EQ(rm_getLocalEnv("A"), std::string(100000, 'X'));
}

TEST_F(PutLocalEnv, LeavesTheEnvironmentOfTheProcessAlone)
{
    rm_putLocalEnv("RM_TEST_VARIABLE=local");
    EXPECT_EQ(std::getenv(kUnset), nullptr);
}

TEST_F(PutLocalEnv, GrowsByOneSlotAtATime)
{
    for (uint16_t i = 0; i < 200; ++i) {
        rm_putLocalEnv(("N" + std::to_string(1000 + i) + "=v").c_str());
        ASSERT_EQ(NumLocalEnv, i + 1);
    }
    EXPECT_STREQ(LocalEnv[199], "N1199=V");
}

// --- Looking up

TEST_F(GetLocalEnv, NullGivesNull)
{
    rm_putLocalEnv("A=1");
    EXPECT_EQ(rm_getLocalEnv(nullptr), nullptr);
}

TEST_F(GetLocalEnv, FindsNothingBeforeAnythingWasPut)
{
    EXPECT_EQ(rm_getLocalEnv("A"), nullptr);
}

TEST_F(GetLocalEnv, GivesTheValueInsideTheEntry)
{
    rm_putLocalEnv("NAME=value");
    EXPECT_EQ(rm_getLocalEnv("NAME"), LocalEnv[0] + 5);
    EXPECT_STREQ(rm_getLocalEnv("NAME"), "VALUE");
}

TEST_F(GetLocalEnv, TakesTheNameInAnyCase)
{
    rm_putLocalEnv("Name=v");
    EXPECT_STREQ(rm_getLocalEnv("nAmE"), "V");
    EXPECT_STREQ(rm_getLocalEnv("NAME"), "V");
}

TEST_F(GetLocalEnv, NeverWritesTheName)
{
    EXPECT_EQ(rm_getLocalEnv("literal"), nullptr);
    char name[] = "name";
    EXPECT_EQ(rm_getLocalEnv(name), nullptr);
    EXPECT_STREQ(name, "name");
}

TEST_F(GetLocalEnv, NeedsTheWholeName)
{
    rm_putLocalEnv("PATHLIST=y");
    EXPECT_EQ(rm_getLocalEnv("PATH"), nullptr);
    EXPECT_EQ(rm_getLocalEnv("PATHLISTS"), nullptr);
}

TEST_F(GetLocalEnv, PassesOverAnEntryThatOnlyBeginsWithTheName)
{
    rm_putLocalEnv("PATH=x");
    rm_putLocalEnv("PATHLIST=y");
    std::swap(LocalEnv[0], LocalEnv[1]);
    EXPECT_STREQ(rm_getLocalEnv("PATH"), "X");
}

TEST_F(GetLocalEnv, TheFirstOfTwoEntriesWins)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("B=2");
    LocalEnv[1][0] = 'A';
    EXPECT_STREQ(rm_getLocalEnv("A"), "1");
}

TEST_F(GetLocalEnv, CannotFindARemovedName)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("A");
    EXPECT_EQ(rm_getLocalEnv("A"), nullptr);
}

TEST_F(GetLocalEnv, GivesAnEmptyValue)
{
    rm_putLocalEnv("A=");
    ASSERT_NE(rm_getLocalEnv("A"), nullptr);
    EXPECT_STREQ(rm_getLocalEnv("A"), "");
}

TEST_F(GetLocalEnv, GivesEverythingBehindTheFirstEqualsSign)
{
    rm_putLocalEnv("A=1=2");
    EXPECT_STREQ(rm_getLocalEnv("A"), "1=2");
}

TEST_F(GetLocalEnv, AnEqualsSignInTheAskedNameIsAByteLikeAnyOther)
{
    rm_putLocalEnv("A=1=2");
    EXPECT_STREQ(rm_getLocalEnv("A=1"), "2");
}

TEST_F(GetLocalEnv, TheEmptyNameFindsAnEntryThatBeginsWithTheEqualsSign)
{
    rm_putLocalEnv("A=1");
    EXPECT_EQ(rm_getLocalEnv(""), nullptr);
    rm_putLocalEnv("=x");
    EXPECT_STREQ(rm_getLocalEnv(""), "X");
}

TEST_F(GetLocalEnv, PassesOverEmptySlots)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("B=2");
    emptySlot(0);
    EXPECT_STREQ(rm_getLocalEnv("B"), "2");
    EXPECT_EQ(rm_getLocalEnv("A"), nullptr);
}

TEST_F(GetLocalEnv, FindsANameOf127Characters)
{
    const std::string name(127, 'n');
    rm_putLocalEnv((name + "=v").c_str());
    EXPECT_STREQ(rm_getLocalEnv(name.c_str()), "V");
}

TEST_F(GetLocalEnv, CannotFindANameOf128Characters)
{
    const std::string name(128, 'n');
    rm_putLocalEnv((name + "=v").c_str());
    EXPECT_EQ(rm_getLocalEnv(name.c_str()), nullptr);
}

TEST_F(GetLocalEnv, ALongNameDoesNotFindTheEntryOfItsFirst127Characters)
{
    const std::string name(127, 'n');
    rm_putLocalEnv((name + "=v").c_str());
    EXPECT_EQ(rm_getLocalEnv((name + "=").c_str()), nullptr);
    EXPECT_EQ(rm_getLocalEnv((name + "n").c_str()), nullptr);
}

TEST_F(GetLocalEnv, ALongNameDoesNotReadBeyondABareEntryOf127Characters)
{
    const std::string name(127, 'n');
    rm_putLocalEnv(name.c_str());
    for (std::size_t more = 1; more < 40; ++more) {
        EXPECT_EQ(rm_getLocalEnv((name + std::string(more, 'n')).c_str()), nullptr) << more;
    }
}

TEST_F(GetLocalEnv, ANameOfAnyLengthIsSafe)
{
    rm_putLocalEnv("A=1");
    EXPECT_EQ(rm_getLocalEnv(std::string(1000000, 'A').c_str()), nullptr);
}

TEST_F(GetLocalEnv, TheValueStaysWhereItIsUntilItsEntryIsReplaced)
{
    rm_putLocalEnv("KEPT=value");
    const char* value = rm_getLocalEnv("KEPT");
    for (int i = 0; i < 300; ++i) {
        rm_putLocalEnv(("N" + std::to_string(1000 + i) + "=v").c_str());
    }
    EXPECT_EQ(rm_getLocalEnv("KEPT"), value);
    EXPECT_STREQ(value, "VALUE");
}

// --- With the environment of the process behind it

TEST_F(RmGetenv, GivesTheLocalValueFirst)
{
    setenv(kUnset, "process", 1);
    rm_putLocalEnv("RM_TEST_VARIABLE=local");
    EXPECT_STREQ(rm_getenv(kUnset), "LOCAL");
}

TEST_F(RmGetenv, FindsPathAfterMixedCasePath)
{
    rm_putLocalEnv("Path=/usr/bin");
    EXPECT_STREQ(rm_getenv("PATH"), "/USR/BIN");
}

TEST_F(RmGetenv, AnEmptyLocalValueHidesTheOneOfTheProcess)
{
    setenv(kUnset, "process", 1);
    rm_putLocalEnv("RM_TEST_VARIABLE=");
    EXPECT_STREQ(rm_getenv(kUnset), "");
}

TEST_F(RmGetenv, AfterRemovalFallsThroughToTheProcess)
{
    setenv(kUnset, "process", 1);
    rm_putLocalEnv("RM_TEST_VARIABLE=local");
    rm_putLocalEnv("RM_TEST_VARIABLE");
    EXPECT_STREQ(rm_getenv(kUnset), "process");
}

TEST_F(RmGetenv, GivesTheProcessValueWithItsCase)
{
    setenv(kUnset, "Mixed Case", 1);
    EXPECT_STREQ(rm_getenv(kUnset), "Mixed Case");
}

TEST_F(RmGetenv, AsksTheProcessForTheNameWithItsCase)
{
    setenv(kUnset, "upper", 1);
    EXPECT_EQ(rm_getenv("rm_test_variable"), nullptr);
    setenv("rm_test_variable", "lower", 1);
    EXPECT_STREQ(rm_getenv("rm_test_variable"), "lower");
    unsetenv("rm_test_variable");
}

TEST_F(RmGetenv, NullGivesNull)
{
    EXPECT_EQ(rm_getenv(nullptr), nullptr);
}

TEST_F(RmGetenv, AnUnknownNameGivesNull)
{
    EXPECT_EQ(rm_getenv(kUnset), nullptr);
}

// --- Memory

TEST_F(LocalEnvMemory, ArrayAndEntriesBelongToTagZero)
{
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    const uint32_t before = rmalloc::tagTable[0].allocated;
    rm_putLocalEnv("A=23456");  // 8 bytes and a header, and so is an array of one pointer
    EXPECT_EQ(rmalloc::tagTable[0].allocated - before, 16U + 16U);
}

TEST_F(LocalEnvMemory, FreeallForgetsAllEntries)
{
    rm_putLocalEnv("A=1");
    rm_freeall();
    EXPECT_EQ(LocalEnv, nullptr);
    EXPECT_EQ(NumLocalEnv, 0);
    EXPECT_EQ(rm_getLocalEnv("A"), nullptr);
}

TEST_F(LocalEnvMemory, CanBeUsedAgainAfterFreeall)
{
    rm_putLocalEnv("A=1");
    rm_freeall();
    rm_putLocalEnv("B=2");
    EXPECT_EQ(slots(), (Slots{"B=2"}));
}

// Every segment is one request, so each allocation asks the platform and can be refused.
class LocalEnvWithoutMemory : public LocalEnvTest
{
  protected:
    void SetUp() override
    {
        rm_freeall();
        setenv("SEG_ALLOC", "1", 1);
        LocalEnvTest::SetUp();
    }

    void TearDown() override
    {
        LocalEnvTest::TearDown();
        unsetenv("SEG_ALLOC");
    }
};

// Puts `text` while the allocation number `failing` (from 0) is refused: true when the fatal path
// was taken, false when there was no such allocation.
bool putIsFatal(const char* text, int failing)
{
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .skip = failing});
    int fatal = 0;
    const std::string log =
        rmtest::captureStderr([&] { fatal = catchFatal([&] { rm_putLocalEnv(text); }); });
    EXPECT_EQ(fatal, fault.hits());
    if (fatal == 1) {
        EXPECT_EQ(rmtest::logLines(log).at(0), "Out of memory!");
    }
    return fatal == 1;
}

TEST_F(LocalEnvWithoutMemory, EveryRefusedAllocationOfAFirstPutIsFatalAndLeavesNoEntry)
{
    int failing = 0;
    while (putIsFatal("A=1", failing)) {
        EXPECT_TRUE(slots().empty()) << failing;
        EXPECT_EQ(LocalEnv, nullptr) << failing;
        EXPECT_EQ(rmutil::checkLocalEnv(), 0U);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        rm_freeall();
        ++failing;
    }
    EXPECT_EQ(failing, 3) << "the tag table, the copy, the array";
    EXPECT_EQ(slots(), (Slots{"A=1"}));
}

TEST_F(LocalEnvWithoutMemory, EveryRefusedAllocationOfANewNameLeavesTheOldEntries)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("B=2");
    int failing = 0;
    while (putIsFatal("C=3", failing)) {
        EXPECT_EQ(slots(), (Slots{"A=1", "B=2"})) << failing;
        EXPECT_EQ(rmutil::checkLocalEnv(), 0U);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        ++failing;
    }
    EXPECT_EQ(failing, 2) << "the copy, the longer array";
    EXPECT_EQ(slots(), (Slots{"A=1", "B=2", "C=3"}));
}

TEST_F(LocalEnvWithoutMemory, ARefusedAllocationOfAReplacementLeavesTheOldValue)
{
    rm_putLocalEnv("A=1");
    int failing = 0;
    while (putIsFatal("A=2", failing)) {
        EXPECT_EQ(slots(), (Slots{"A=1"})) << failing;
        ++failing;
    }
    EXPECT_EQ(failing, 1) << "the copy";
    EXPECT_EQ(slots(), (Slots{"A=2"}));
}

TEST_F(LocalEnvWithoutMemory, ARefusedAllocationForAnEmptySlotLeavesItEmpty)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("B=2");
    emptySlot(0);
    EXPECT_TRUE(putIsFatal("C=3", 0));
    EXPECT_EQ(slots(), (Slots{std::nullopt, "B=2"}));
    EXPECT_FALSE(putIsFatal("C=3", 1)) << "no other allocation is made";
    EXPECT_EQ(slots(), (Slots{"C=3", "B=2"}));
}

TEST_F(LocalEnvWithoutMemory, LookupsNeedNone)
{
    rm_putLocalEnv("A=1");
    const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_STREQ(rm_getLocalEnv("a"), "1");
    EXPECT_STREQ(rm_getenv("a"), "1");
    EXPECT_EQ(fault.hits(), 0);
}

TEST_F(LocalEnvWithoutMemory, WithoutATargetTheProcessEndsWithStatusZero)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
        rm_putLocalEnv("A=1");
        FAIL() << "came back";
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
    const std::vector<std::string> lines = rmtest::logLines(child.err);
    ASSERT_GE(lines.size(), 2U) << child.err;
    EXPECT_EQ(lines.front(), "Out of memory!");
    EXPECT_EQ(lines.back(), "Exiting to operating system");
}

TEST_F(LocalEnvMemory, AnArrayWhoseHeaderIsDamagedKeepsItsEntries)
{
    rm_putLocalEnv("A=1");
    rmalloc::BlockHeader* header = rmalloc::headerOf(LocalEnv);
    header->word1 = 0;
    const std::string log = rmtest::captureStderr([] { rm_putLocalEnv("B=2"); });
    header->word1 = rmalloc::kLiveMagic;
    EXPECT_NE(log.find("WARNING: attempting to free bad pointer"), std::string::npos) << log;
    EXPECT_EQ(slots(), (Slots{"A=1"}));
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    rm_putLocalEnv("B=2");
    EXPECT_EQ(slots(), (Slots{"A=1", "B=2"}));
}

TEST_F(LocalEnvMemory, SlotNumber65536IsOutOfMemory)
{
    // An array with every slot in use, all by one text: the count of slots has 16 bits.
    rm_putLocalEnv("LAST=1");
    char* entry = LocalEnv[0];
    LocalEnv = static_cast<char**>(rm_extendMemory(LocalEnv, UINT16_MAX * sizeof(char*), 0));
    std::fill(LocalEnv, LocalEnv + UINT16_MAX, entry);
    NumLocalEnv = UINT16_MAX;
    const std::string log =
        rmtest::captureStderr([] { EXPECT_EQ(catchFatal([] { rm_putLocalEnv("ONE=more"); }), 1); });
    EXPECT_EQ(rmtest::logLines(log).at(0), "Out of memory!");
    EXPECT_EQ(NumLocalEnv, UINT16_MAX);
    EXPECT_STREQ(rm_getLocalEnv("LAST"), "1");
    EXPECT_EQ(rm_getLocalEnv("ONE"), nullptr);
}

// --- The checker

TEST_F(LocalEnvMemory, TheCheckerReportsAnEntryThatIsNotUpperCase)
{
    rm_putLocalEnv("A=1");
    rm_putLocalEnv("B=x");
    LocalEnv[1][2] = 'x';
    uint32_t violations = 0;
    const std::string log =
        rmtest::captureStderr([&violations] { violations = rmutil::checkLocalEnv(); });
    EXPECT_EQ(violations, 1U);
    EXPECT_EQ(rmtest::logLines(log),
              (std::vector<std::string>{"WARNING: local environment: slot 1 is not upper case"}));
    LocalEnv[1][2] = 'X';
}

TEST_F(LocalEnvMemory, TheCheckerReportsSlotsWithoutAnArray)
{
    NumLocalEnv = 3;
    uint32_t violations = 0;
    rmtest::captureStderr([&violations] { violations = rmutil::checkLocalEnv(); });
    EXPECT_EQ(violations, 1U);
    NumLocalEnv = 0;
}

// --- Against a model

std::string upper(std::string text)
{
    for (char& c : text) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    return text;
}

// The same rules over strings that own themselves.
class Model
{
  public:
    void put(const std::string& text)
    {
        const std::string entry = upper(text);
        const std::string name = entry.substr(0, entry.find('='));
        std::optional<std::size_t> empty;
        for (std::size_t i = 0; i < slots_.size(); ++i) {
            if (!slots_[i]) {
                empty = empty ? empty : i;
            } else if (slots_[i]->starts_with(name)) {
                slots_[i] = entry;
                return;
            }
        }
        if (empty) {
            slots_[*empty] = entry;
        } else {
            slots_.emplace_back(entry);
        }
    }

    std::optional<std::string> get(const std::string& name) const
    {
        const std::string begin = upper(name) + "=";
        for (const std::optional<std::string>& slot : slots_) {
            if (slot && slot->starts_with(begin)) {
                return slot->substr(begin.size());
            }
        }
        return std::nullopt;
    }

    void clear(std::size_t slot) { slots_[slot].reset(); }

    const Slots& slots() const { return slots_; }

  private:
    Slots slots_;
};

std::string randomText(std::mt19937& random, std::string_view alphabet, std::size_t longest)
{
    std::string text(std::uniform_int_distribution<std::size_t>(0, longest)(random), ' ');
    for (char& c : text) {
        c = alphabet[std::uniform_int_distribution<std::size_t>(0, alphabet.size() - 1)(random)];
    }
    return text;
}

TEST_F(LocalEnvTest, AgreesWithTheModelOnRandomSequences)
{
    std::mt19937 random(7);
    Model model;
    for (int step = 0; step < 4000; ++step) {
        const int choice = std::uniform_int_distribution<>(0, 99)(random);
        if (choice == 0) {
            rm_freeall();
            model = Model();
        } else if (choice < 5 && NumLocalEnv > 0) {
            const auto slot =
                static_cast<uint16_t>(std::uniform_int_distribution<>(0, NumLocalEnv - 1)(random));
            emptySlot(slot);
            model.clear(slot);
        } else if (choice < 60) {
            const std::string text = randomText(random, "abABcC1_", 4) +
                                     (choice < 50 ? "=" + randomText(random, "xyXY=", 12) : "");
            rm_putLocalEnv(text.c_str());
            model.put(text);
        } else {
            const std::string name = randomText(random, "abABcC1_=", 4);
            const char* found = rm_getLocalEnv(name.c_str());
            const std::optional<std::string> expected = model.get(name);
            ASSERT_EQ(found == nullptr, !expected.has_value()) << name;
            if (found != nullptr) {
                ASSERT_EQ(found, *expected) << name;
            }
        }
        ASSERT_EQ(slots(), model.slots()) << "step " << step;
        ASSERT_EQ(rmutil::checkLocalEnv(), 0U);
        ASSERT_EQ(rmalloc::checkMemory(), 0U);
    }
}

TEST_F(LocalEnvMemory, SlotsUpTo65535AreSlotsLikeAnyOther)
{
    constexpr uint16_t kSlots = UINT16_MAX - 1;
    rm_putLocalEnv("FIRST=1");
    rm_putLocalEnv("LAST=1");
    char* first = LocalEnv[0];
    char* last = LocalEnv[1];
    LocalEnv = static_cast<char**>(rm_extendMemory(LocalEnv, kSlots * sizeof(char*), 0));
    std::fill(LocalEnv, LocalEnv + kSlots, first);
    LocalEnv[kSlots - 1] = last;
    NumLocalEnv = kSlots;
    EXPECT_EQ(rm_getLocalEnv("LAST"), last + 5);
    rm_putLocalEnv("LAST=2");
    EXPECT_STREQ(LocalEnv[kSlots - 1], "LAST=2");
    rm_putLocalEnv("NEW=3");
    EXPECT_EQ(NumLocalEnv, UINT16_MAX);
    EXPECT_STREQ(rm_getLocalEnv("NEW"), "3");
}

TEST_F(RmGetenv, ANameThatIsTooLongForALocalValueIsAskedForInTheProcess)
{
    const std::string name(128, 'N');
    rm_putLocalEnv((name + "=local").c_str());
    setenv(name.substr(1).c_str(), "shorter", 1);
    EXPECT_EQ(rm_getenv(name.c_str()), nullptr);
    setenv(name.c_str(), "process", 1);
    EXPECT_STREQ(rm_getenv(name.c_str()), "process");
    unsetenv(name.c_str());
    unsetenv(name.substr(1).c_str());
}
}  // namespace
