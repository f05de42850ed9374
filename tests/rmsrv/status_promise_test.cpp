// Every status value as the calls of all services return it, number by number.
#include "frame.h"

#include <array>
#include <functional>

namespace
{
using rmtest::Call;
using rmtest::captureStderr;
using rmtest::catchExit;
using rmtest::ScopedFault;

constexpr BagCtl kCompact = {.flags = BAG_KEY_STRING,
                             .initialSlots = 2,
                             .growIncrement = 2,
                             .growThreshold = 10,
                             .elementSize = 8,
                             .tag = 0,
                             .keyOffset = 0,
                             .keyLength = 0};

// A call and the number that it must give.
struct Answer {
    const char* call;
    std::function<int()> make;
    int expected;
};

class StatusOf : public rmtest::FrameTest
{
  protected:
    // Makes the calls and lets the exit take away what they have made.
    static void expectAnswers(const std::vector<Answer>& answers)
    {
        EXPECT_EQ(catchExit([&] {
                      captureStderr([&] {
                          for (const Answer& answer : answers) {
                              EXPECT_EQ(answer.make(), answer.expected) << answer.call;
                          }
                      });
                      rm_exit(5);
                  }),
                  5);
    }

    static Bag* makeBag(const BagCtl* ctl = &kCompact)
    {
        Bag* bag = nullptr;
        EXPECT_EQ(bagCreate(ctl, &bag), 0);
        return bag;
    }

    static void* makeFfBag()
    {
        void* bag = nullptr;
        void* area = nullptr;
        EXPECT_EQ(ffBagCreate(1, 4, &bag, &area), 0);
        return bag;
    }

    static int16_t set(const char* path)
    {
        return rm_iniSetPrivate("section", "key", "value", path);
    }
};

TEST_F(StatusOf, ATimeOutOrTheEndOfAnIterationIs1)
{
    char buffer[8] = "";
    expectAnswers({
        {"rm_syncEnterExcl",
         [] {
             const int16_t lock = rm_syncCreate("lock");
             rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
             const ScopedFault late({.call = Call::kSemtimedop, .error = EAGAIN});
             return rm_syncEnterExcl(lock, 1000);
         },
         1},
        {"rm_syncWait",
         [] {
             const int16_t event = rm_syncCreate("event");
             const ScopedFault late({.call = Call::kSemtimedop, .error = EAGAIN});
             return rm_syncWait(event, 1000);
         },
         1},
        {"bagFirst", [] { return bagFirst(makeBag()); }, 1},
        {"bagLast", [] { return bagLast(makeBag()); }, 1},
        {"bagNext",
         [] {
             Bag* bag = makeBag();
             bagAdd(bag, "element");
             bagFirst(bag);
             return bagNext(bag);
         },
         1},
        {"bagPrev",
         [] {
             Bag* bag = makeBag();
             bagAdd(bag, "element");
             bagFirst(bag);
             return bagPrev(bag);
         },
         1},
        {"bagDelete", [] { return bagDelete(makeBag()); }, 1},
        {"ffBagPop", [&] { return ffBagPop(makeFfBag(), buffer); }, 1},
    });
}

TEST_F(StatusOf, WhatIsNotFoundIs2)
{
    char buffer[8] = "";
    expectAnswers({
        {"rm_iniGetPrivate",
         [&] { return rm_iniGetPrivate("section", "key", buffer, 8, 1, "nowhere.ini"); }, 2},
        {"rm_iniGet", [&] { return rm_iniGet("section", "key", buffer, 8, 1); }, 2},
        {"bagFind", [] { return bagFind(makeBag(), "absent", nullptr, nullptr); }, 2},
        {"rm_queueRead",
         [] {
             void* data = nullptr;
             int16_t length = 0;
             uint16_t code = 0;
             return rm_queueRead(rm_queueCreate("queue"), static_cast<void*>(&data), &length, &code,
                                 0);
         },
         2},
        {"rm_OSemLoad",
         [] {
             void* module = nullptr;
             return rm_OSemLoad("./nowhere", &module);
         },
         2},
        {"rm_emLoad",
         [] {
             int16_t handle = 0;
             return rm_emLoad("./nowhere", &handle);
         },
         2},
    });
}

TEST_F(StatusOf, WhatIsFullOrDoesNotUnloadIs5)
{
    expectAnswers({
        {"ffBagPush",
         [] {
             void* bag = makeFfBag();
             EXPECT_EQ(ffBagPush(bag, "abc"), 0);
             return ffBagPush(bag, "abc");
         },
         5},
        {"rm_OSemUnload", [] { return rm_OSemUnload(nullptr); }, 5},
    });
}

TEST_F(StatusOf, NoEntryAndNoHandleAreMinus1)
{
    expectAnswers({
        {"rm_fileOpen", [] { return rm_fileOpen("nowhere/file", RM_O_RDONLY, 0, 0, 0); }, -1},
        {"rm_fileRemove",
         [] {
             rm_fileOpen("open", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
             return rm_fileRemove("open");
         },
         -1},
        {"rm_syncOpen", [] { return rm_syncOpen("absent"); }, -1},
        {"rm_queueOpen", [] { return rm_queueOpen("absent"); }, -1},
        {"darrayFindEntry",
         [] {
             void* data = nullptr;
             return darrayFindEntry(darrayCreate(4, 2, 8), "absent", &data);
         },
         -1},
        {"darrayGetFirstUsedEntry", [] { return darrayGetFirstUsedEntry(darrayCreate(4, 2, 8)); },
         -1},
    });
}

TEST_F(StatusOf, AProfileThatIsNotThereIsMinus46AndAMissingArgumentMinus52)
{
    expectAnswers({
        {"rm_iniSetPrivate", [] { return set("nowhere.ini"); }, -46},
        {"rm_iniSet", [] { return rm_iniSet("section", "key", "value"); }, -46},
        {"rm_iniSet without a section", [] { return rm_iniSet(nullptr, "key", "value"); }, -52},
        {"rm_iniGet without a buffer", [] { return rm_iniGet("section", "key", nullptr, 8, 1); },
         -52},
    });
}

TEST_F(StatusOf, AnInvalidTagOrADamagedContainerIsMinus56)
{
    static constexpr BagCtl kNoKind = {.flags = 0,
                                       .initialSlots = 2,
                                       .growIncrement = 2,
                                       .growThreshold = 10,
                                       .elementSize = 8,
                                       .tag = 0,
                                       .keyOffset = 0,
                                       .keyLength = 0};
    expectAnswers({
        {"checkTag", [] { return rmalloc::checkTag(99, "f"); }, -56},
        {"bagFind",
         [] {
             Bag* bag = makeBag(&kNoKind);
             bagAdd(bag, "element");
             return bagFind(bag, "element", nullptr, nullptr);
         },
         -56},
    });
}

TEST_F(StatusOf, AnUnknownModuleIsMinus1006)
{
    expectAnswers({
        {"rm_emGetFcnAddr",
         [] {
             void* address = nullptr;
             return rm_emGetFcnAddr(7, "f", &address);
         },
         -1006},
        {"rm_emUnload", [] { return rm_emUnload(7); }, -1006},
    });
}

TEST_F(StatusOf, ACopyThatFailedIsMinus1018)
{
    expectAnswers({
        {"rm_fileCopy", [] { return rm_fileCopy("nowhere", "copy"); }, -1018},
        {"rm_fileMove", [] { return rm_fileMove("nowhere", "copy"); }, -1018},
    });
}

TEST_F(StatusOf, AProfileThatCannotBeReplacedIsMinus1019)
{
    rmtest::writeFile("own.ini", "[section]\nkey=old\n");
    expectAnswers({{"rm_iniSetPrivate",
                    [] {
                        const ScopedFault fault(
                            {.call = Call::kRename, .error = EACCES, .times = rmtest::kForever});
                        return set("own.ini");
                    },
                    -1019}});
}

TEST_F(StatusOf, MemoryThatIsMissingIsMinus2011)
{
    expectAnswers({
        {"StrToArgv",
         [] {
             std::array<char, 8> text = {"a b"};
             int count = 0;
             char** words = nullptr;
             const ScopedFault fault({.call = Call::kGetMemory});
             return StrToArgv(text.data(), &count, &words, 0);
         },
         -2011},
        {"bagAdd",
         [] {
             // More slots than a handle can name.
             static constexpr BagCtl kLargest = {.flags = 0,
                                                 .initialSlots = 65535,
                                                 .growIncrement = 1,
                                                 .growThreshold = 65535,
                                                 .elementSize = 1,
                                                 .tag = 0,
                                                 .keyOffset = 0,
                                                 .keyLength = 0};
             Bag* bag = makeBag(&kLargest);
             for (int i = 0; i < 65535; ++i) {
                 EXPECT_EQ(bagAdd(bag, "x"), 0);
             }
             return bagAdd(bag, "x");
         },
         -2011},
    });
}
}  // namespace
