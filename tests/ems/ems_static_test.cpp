// Modules that are linked in: this program brings lists of its own, as a server does.
#include "tests/support/modules.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/ems.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace
{
// What rm_getEmList gives. It starts with two modules of the first kind, three of the second, one
// of the third and two of the fourth.
struct Lists {
    uint16_t emCount = 0;
    const EmListEntry* em = nullptr;
    uint16_t iefCount = 0;
    const IefListEntry* ief = nullptr;
    uint16_t udfCount = 0;
    const UdfListEntry* udf = nullptr;
    uint16_t udpCount = 0;
    const UdpListEntry* udp = nullptr;
};

// Each field has an address of its own.
char a[32];

const EmListEntry kEm[] = {{"first", &a[0], &a[1], &a[2]}, {"second", &a[3], &a[4], &a[5]}};
const IefListEntry kIef[] = {{"ief0", &a[6]}, {"ief1", &a[7]}, {"ief2", &a[8]}};
const UdfListEntry kUdf[] = {{"udf0", &a[9]}};
const UdpListEntry kUdp[] = {{"udp0", &a[10], &a[11], &a[12]}, {"udp1", &a[13], &a[14], &a[15]}};

Lists lists = {std::size(kEm),  kEm,  std::size(kIef), kIef,
               std::size(kUdf), kUdf, std::size(kUdp), kUdp};
int timesAsked = 0;
}  // namespace

// The library's own one gives empty lists.
void rm_getEmList(uint16_t* emCount, const EmListEntry** emList, uint16_t* iefCount,
                  const IefListEntry** iefList, uint16_t* udfCount, const UdfListEntry** udfList,
                  uint16_t* udpCount, const UdpListEntry** udpList)
{
    ++timesAsked;
    *emCount = lists.emCount;
    *emList = lists.em;
    *iefCount = lists.iefCount;
    *iefList = lists.ief;
    *udfCount = lists.udfCount;
    *udfList = lists.udf;
    *udpCount = lists.udpCount;
    *udpList = lists.udp;
}

namespace
{
using ems::EmBag;
using ems::EmRec;
using rmtest::blocksOfTag0;
using rmtest::bytesOfTag0;
using rmtest::Call;
using rmtest::callCount;
using rmtest::installModule;
using ::testing::ElementsAre;

constexpr int16_t kModules = 8;
constexpr std::array<const char*, 6> kEntryNames = {"ModInit",         "ModCleanup",
                                                    "ModDescribeFcns", "iefDescribeFcns",
                                                    "udfDescribeFcns", "udpDescribeFcns"};
constexpr uint32_t kMostModules = 57344;  // slots of the largest registry

char untouched;  // its address is in no list

// What a linked-in module answers: its status is 0 whatever it is asked.
void* answer(int16_t handle, const char* function)
{
    void* address = &untouched;
    EXPECT_EQ(rm_emGetFcnAddr(handle, function, &address), 0) << function;
    return address;
}

// The answers of one module to all entry names, null for an untouched address.
std::vector<void*> answers(int16_t handle)
{
    std::vector<void*> all;
    for (const char* name : kEntryNames) {
        void* address = answer(handle, name);
        all.push_back(address == &untouched ? nullptr : address);
    }
    return all;
}

int16_t load(const std::string& path)
{
    int16_t handle = -77;
    EXPECT_EQ(rm_emLoad(path.c_str(), &handle), 0) << path;
    return handle;
}

class EmStatic : public rmtest::ModuleTest
{
};

// --- The lists

TEST_F(EmStatic, AreAskedForOnce)
{
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(rm_emInit(), 0);
    load("first");
    EXPECT_EQ(timesAsked, 1);
}

TEST_F(EmStatic, AreEnteredByTheFirstLoad)
{
    EXPECT_EQ(load("udp1"), 7);
    EXPECT_EQ(timesAsked, 1);
    EXPECT_EQ(EmBag->usedCount, kModules);
}

TEST_F(EmStatic, HaveTheFirstHandlesInTheOrderOfTheLists)
{
    constexpr std::array<const char*, kModules> kNames = {"first", "second", "ief0", "ief1",
                                                          "ief2",  "udf0",   "udp0", "udp1"};
    EXPECT_EQ(rm_emInit(), 0);
    for (int16_t handle = 0; handle < kModules; ++handle) {
        EXPECT_EQ(load(kNames.at(static_cast<std::size_t>(handle))), handle);
    }
    EXPECT_EQ(ems::endEmList, 2);
    EXPECT_EQ(ems::endIefList, 5);
    EXPECT_EQ(ems::endUdfList, 6);
    EXPECT_EQ(ems::endUdpList, 8);
}

TEST_F(EmStatic, KeepTheirListsAndTheirNamesThemselves)
{
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(ems::pEmList, kEm);
    EXPECT_EQ(ems::pIefList, kIef);
    EXPECT_EQ(ems::pUdfList, kUdf);
    EXPECT_EQ(ems::pUdpList, kUdp);
    void* record = nullptr;
    ASSERT_EQ(bagFind(EmBag, "udf0", nullptr, &record), 0);
    EXPECT_EQ(static_cast<EmRec*>(record)->name, kUdf[0].name);
    EXPECT_EQ(static_cast<EmRec*>(record)->osModule, nullptr);
    EXPECT_EQ(static_cast<EmRec*>(record)->fcnBag, nullptr);
    EXPECT_EQ(blocksOfTag0(), 3U);  // the registry's record, slots and map
}

TEST_F(EmStatic, ListsMayBeEmpty)
{
    lists = Lists();
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(EmBag->usedCount, 0);
    EXPECT_EQ(ems::endUdpList, 0);
    EXPECT_EQ(load(installModule("plain", "./m00")), 0);
}

TEST_F(EmStatic, OneListIsEnough)
{
    lists = {.udfCount = 1, .udf = kUdf};
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(ems::endEmList, 0);
    EXPECT_EQ(ems::endIefList, 0);
    EXPECT_EQ(ems::endUdfList, 1);
    EXPECT_EQ(ems::endUdpList, 1);
    EXPECT_EQ(answer(0, "udfDescribeFcns"), &a[9]);
}

TEST_F(EmStatic, ANullListHasNoModulesWhateverItsCountSays)
{
    lists = {.emCount = 5, .iefCount = 1, .ief = kIef, .udfCount = 5, .udpCount = 5};
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(EmBag->usedCount, 1);
    EXPECT_EQ(answers(0), (std::vector<void*>{nullptr, nullptr, nullptr, &a[6], nullptr, nullptr}));
}

// --- What they answer

TEST_F(EmStatic, OfTheFirstKindAnswerThreeNames)
{
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(answers(0), (std::vector<void*>{&a[0], &a[1], &a[2], nullptr, nullptr, nullptr}));
    EXPECT_EQ(answers(1), (std::vector<void*>{&a[3], &a[4], &a[5], nullptr, nullptr, nullptr}));
}

TEST_F(EmStatic, OfTheSecondKindAnswerOneName)
{
    EXPECT_EQ(rm_emInit(), 0);
    for (int16_t i = 0; i < 3; ++i) {
        EXPECT_EQ(answers(static_cast<int16_t>(2 + i)),
                  (std::vector<void*>{nullptr, nullptr, nullptr,
                                      &a[static_cast<std::size_t>(6 + i)], nullptr, nullptr}));
    }
}

TEST_F(EmStatic, OfTheThirdKindAnswerOneName)
{
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(answers(5), (std::vector<void*>{nullptr, nullptr, nullptr, nullptr, &a[9], nullptr}));
}

TEST_F(EmStatic, OfTheFourthKindAnswerOneNameFromTheirFourthField)
{
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(answers(6),
              (std::vector<void*>{nullptr, nullptr, nullptr, nullptr, nullptr, &a[12]}));
    EXPECT_EQ(answers(7),
              (std::vector<void*>{nullptr, nullptr, nullptr, nullptr, nullptr, &a[15]}));
}

TEST_F(EmStatic, AnswerEveryOtherNameWithSuccessAndAnUntouchedAddress)
{
    EXPECT_EQ(rm_emInit(), 0);
    for (int16_t handle = 0; handle < kModules; ++handle) {
        for (const char* name : {"", "modinit", "ModInit ", "ModIni", "MODCLEANUP",
                                 "IefDescribeFcns", "first", "exportedSum"}) {
            EXPECT_EQ(answer(handle, name), &untouched) << handle << ' ' << name;
        }
    }
    EXPECT_EQ(callCount(Call::kDlsym), 0);
}

TEST_F(EmStatic, GiveFieldsThatAreNullAsTheyAre)
{
    static const EmListEntry withoutCleanup[] = {{"bare", &a[0], nullptr, nullptr}};
    lists = {.emCount = 1, .em = withoutCleanup};
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(answer(0, "ModInit"), &a[0]);
    EXPECT_EQ(answer(0, "ModCleanup"), nullptr);
    EXPECT_EQ(answer(0, "ModDescribeFcns"), nullptr);
}

TEST_F(EmStatic, AreResolvedByTheirHandlesAlone)
{
    EXPECT_EQ(rm_emInit(), 0);
    void* address = &untouched;
    EXPECT_EQ(ems::exmGetFcnAddr(1, "ModCleanup", &address), 0);
    EXPECT_EQ(address, &a[4]);
    address = &untouched;
    for (const int handle : {8, 9, 15, 16, 32768, 65535}) {
        EXPECT_EQ(ems::exmGetFcnAddr(static_cast<uint16_t>(handle), "udpDescribeFcns", &address),
                  RM_NOT_FOUND)
            << handle;
    }
    EXPECT_EQ(address, &untouched);
}

// --- Beside loaded and registered ones

TEST_F(EmStatic, AreNotLoaded)
{
    installModule("plain", "./first");
    EXPECT_EQ(load("./first"), 0);
    EXPECT_EQ(load("/x/y/ief2"), 4);
    EXPECT_EQ(callCount(Call::kDlopen), 0);
    EXPECT_EQ(EmBag->usedCount, kModules);
}

TEST_F(EmStatic, AreFollowedByLoadedAndRegisteredOnes)
{
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(load(installModule("plain", "./m00")), 8);
    EXPECT_EQ(rm_emRegFcn("geo", "f", &a[20]), 0);
    EXPECT_EQ(answer(9, "f"), &a[20]);
    EXPECT_EQ(load(installModule("plain", "./m01")), 10);
}

TEST_F(EmStatic, StayWhenTheyAreUnloaded)
{
    EXPECT_EQ(rm_emInit(), 0);
    const uint32_t bytes = bytesOfTag0();
    for (int16_t handle = 0; handle < kModules; ++handle) {
        EXPECT_EQ(rm_emUnload(handle), 0);
    }
    EXPECT_EQ(EmBag->usedCount, kModules);
    EXPECT_EQ(bytesOfTag0(), bytes);
    EXPECT_EQ(answer(0, "ModCleanup"), &a[1]);
    EXPECT_EQ(load("udp1"), 7);
    EXPECT_EQ(callCount(Call::kDlclose), 0);
}

TEST_F(EmStatic, TakeRegistrationsAndAnswerAsBefore)
{
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(rm_emRegFcn("first", "f", &a[20]), 0);
    EXPECT_EQ(rm_emRegFcn("first", "ModInit", &a[21]), 0);
    EXPECT_EQ(EmBag->usedCount, kModules);
    EXPECT_EQ(answer(0, "f"), &untouched);
    EXPECT_EQ(answer(0, "ModInit"), &a[0]);
}

// Sixteen of the second kind fill the registry, and a lookup does not reach the last of them.
class EmStaticSixteen : public rmtest::ModuleTest
{
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        for (std::size_t i = 0; i < entries_.size(); ++i) {
            names_.at(i) = "m" + std::to_string(10 + i);
            entries_.at(i) = {names_.at(i).c_str(), &a[i]};
        }
        lists = {.iefCount = 16, .ief = entries_.data()};
        installModule("plain", "./m25");
    }

  private:
    std::array<std::string, 16> names_;
    std::array<IefListEntry, 16> entries_ = {};
};

TEST_F(EmStaticSixteen, TheLastOneIsLoadedBesideItself)
{
    EXPECT_EQ(load("./m25"), 16);
    EXPECT_EQ(load("./m25"), 15);
    EXPECT_EQ(answer(15, "iefDescribeFcns"), &a[15]);
    EXPECT_NE(answer(16, "exportedSum"), &untouched);
}

TEST_F(EmStaticSixteen, TheLastOneStaysLinkedInWhenTheRegistryGrowsDuringItsLoad)
{
    rmtest::onModuleEntry([](const char*) { EXPECT_EQ(rm_emRegFcn("other", "f", &a[20]), 0); });
    EXPECT_EQ(load("./m25"), 17);
    EXPECT_EQ(load("./m25"), 15);
    EXPECT_EQ(answer(15, "iefDescribeFcns"), &a[15]);
    EXPECT_EQ(rm_emUnload(15), 0);
    EXPECT_EQ(callCount(Call::kDlclose), 0);
    EXPECT_EQ(rm_emUnload(17), 0);
    EXPECT_EQ(callCount(Call::kDlclose), 1);
}

TEST_F(EmStaticSixteen, TheLastOneThatRegistersDuringItsLoadHasARecordForThat)
{
    // It registers two functions: the first one makes a record and the registry grow, the second
    // one goes to the linked-in module, which is found from then on.
    rmtest::onModuleEntry([](const char* name) {
        EXPECT_EQ(rm_emRegFcn(name, "f", &a[20]), 0);
        EXPECT_EQ(rm_emRegFcn(name, "g", &a[21]), 0);
    });
    EXPECT_EQ(load("./m25"), 16);
    EXPECT_EQ(answer(16, "f"), &a[20]);
    EXPECT_NE(answer(16, "exportedSum"), &untouched);
    EXPECT_EQ(answer(15, "iefDescribeFcns"), &a[15]);
    EXPECT_EQ(EmBag->usedCount, 17);
}

TEST_F(EmStatic, ThatFoundNoMemoryAreEnteredFromTheBeginningNextTime)
{
    setenv("SEG_ALLOC", "1", 1);  // each block is an allocation of its own
    const std::vector<IefListEntry> many(20, IefListEntry{"many", &a[6]});
    lists = {.emCount = 2, .em = kEm, .iefCount = 20, .ief = many.data()};
    rmtest::captureStderr([] {
        // The tag table, the registry's record, its slots and its map; then it grows.
        const rmtest::ScopedFault memory({.call = Call::kMalloc, .error = ENOMEM, .skip = 4});
        EXPECT_EQ(rmtest::catchFatal([] { rm_emInit(); }), 1);
    });
    EXPECT_EQ(EmBag, nullptr);
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(EmBag->usedCount, 22);
    EXPECT_EQ(ems::endEmList, 2);
    EXPECT_EQ(ems::endIefList, 22);
    EXPECT_EQ(answer(2, "iefDescribeFcns"), &a[6]);
}

TEST_F(EmStatic, AreEnteredAgainWhenTheRegistryHasGone)
{
    EXPECT_EQ(rm_emInit(), 0);
    load(installModule("plain", "./m00"));
    rm_freeall();
    EXPECT_EQ(rm_emUnload(0), RM_UNKNOWN_MODULE);
    void* address = &untouched;
    EXPECT_EQ(ems::exmGetFcnAddr(0, "ModInit", &address), RM_NOT_FOUND);
    lists = {.udpCount = 2, .udp = kUdp};
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(timesAsked, 2);
    EXPECT_EQ(ems::endEmList, 0);
    EXPECT_EQ(ems::endUdpList, 2);
    EXPECT_EQ(answer(1, "udpDescribeFcns"), &a[15]);
    EXPECT_EQ(load("./m00"), 2);
}

// --- Many

// `count` modules that share a name.
std::vector<UdfListEntry> manyModules(uint32_t count)
{
    return {count, UdfListEntry{"many", &a[1]}};
}

TEST_F(EmStatic, HandlesAbove32767AreNegative)
{
    const std::vector<UdfListEntry> many = manyModules(40'000);
    lists = {.udfCount = 40'000, .udf = many.data(), .udpCount = 2, .udp = kUdp};
    EXPECT_EQ(rm_emInit(), 0);
    EXPECT_EQ(answer(static_cast<int16_t>(39'999), "udfDescribeFcns"), &a[1]);
    EXPECT_EQ(answer(static_cast<int16_t>(40'001), "udpDescribeFcns"), &a[15]);
    EXPECT_EQ(load("udp0"), static_cast<int16_t>(40'000));
    EXPECT_EQ(load(installModule("plain", "./m00")), static_cast<int16_t>(40'002));
    EXPECT_EQ(rm_emUnload(static_cast<int16_t>(40'002)), 0);
    EXPECT_EQ(rm_emUnload(static_cast<int16_t>(40'002)), RM_UNKNOWN_MODULE);
}

TEST_F(EmStatic, MoreThanTheRegistryHoldsAreOutOfMemoryAndWhatFoundRoomStays)
{
    const std::vector<UdfListEntry> many = manyModules(kMostModules - 2);
    lists = {.emCount = 2,
             .em = kEm,
             .udfCount = kMostModules - 2,
             .udf = many.data(),
             .udpCount = 2,
             .udp = kUdp};
    EXPECT_EQ(rm_emInit(), RM_OUT_OF_MEMORY);
    EXPECT_EQ(EmBag->usedCount, kMostModules);
    EXPECT_EQ(answer(1, "ModInit"), &a[3]);
    EXPECT_EQ(answer(2, "udfDescribeFcns"), &a[1]);
    EXPECT_EQ(answer(static_cast<int16_t>(kMostModules - 1), "udfDescribeFcns"), &a[1]);
    EXPECT_EQ(load("first"), 0);
}

TEST_F(EmStatic, MoreThanTheRegistryHoldsEndTheFirstLoad)
{
    const std::vector<EmListEntry> many(kMostModules + 1, EmListEntry{"many", &a[0], &a[1], &a[2]});
    lists = {.emCount = kMostModules + 1, .em = many.data()};
    installModule("plain", "./m00");
    int16_t handle = -77;
    EXPECT_EQ(rm_emLoad("./m00", &handle), RM_OUT_OF_MEMORY);
    EXPECT_EQ(handle, -77);
    EXPECT_EQ(callCount(Call::kDlopen), 0);
    // The next one meets the registry as it is.
    EXPECT_EQ(load("many"), 0);
}

TEST_F(EmStatic, AFullRegistryTakesNeitherModulesNorRegistrations)
{
    const std::vector<UdfListEntry> many = manyModules(kMostModules);
    lists = {.udfCount = kMostModules, .udf = many.data()};
    EXPECT_EQ(rm_emInit(), 0);
    const uint32_t bytes = bytesOfTag0();
    EXPECT_EQ(rm_emRegFcn("geo", "f", &a[0]), RM_OUT_OF_MEMORY);
    EXPECT_EQ(bytesOfTag0(), bytes);
    installModule("plain", "./m00");
    int16_t handle = -77;
    EXPECT_EQ(rm_emLoad("./m00", &handle), RM_OUT_OF_MEMORY);
    EXPECT_EQ(handle, -77);
    // The object stays loaded: nobody may have a function of it yet, but its entry point ran.
    EXPECT_THAT(rmtest::modulesEntered(), ElementsAre("M00 ./m00"));
    EXPECT_EQ(callCount(Call::kDlclose), 0);
    EXPECT_EQ(EmBag->usedCount, kMostModules);
}

TEST_F(EmStatic, AnUnfinishedListAnswersNothing)
{
    const std::vector<UdfListEntry> many = manyModules(kMostModules + 1);
    lists = {.emCount = 1, .em = kEm, .udfCount = kMostModules + 1, .udf = many.data()};
    EXPECT_EQ(rm_emInit(), RM_OUT_OF_MEMORY);
    EXPECT_EQ(answer(0, "ModInit"), &a[0]);
    void* address = &untouched;
    EXPECT_EQ(rm_emGetFcnAddr(1, "udfDescribeFcns", &address), RM_NOT_FOUND);
    EXPECT_EQ(address, nullptr);
}
}  // namespace
