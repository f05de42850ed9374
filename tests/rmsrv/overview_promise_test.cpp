// What holds for the library as a whole: the status values, the calls with which a host begins,
// the first use of each service, and the one thread.
#include "frame.h"

#include <array>
#include <cstring>
#include <set>

namespace
{
using rmtest::captureStderr;
using rmtest::catchExit;
using rmtest::ChildResult;
using rmtest::fileLines;
using rmtest::kLogPath;
using rmtest::logLines;
using rmtest::runChild;

// --- Status values

TEST(StatusValues, AreThoseOfTheInterface)
{
    EXPECT_EQ(RM_SUCCESS, 0);
    EXPECT_EQ(RM_TIMEOUT, 1);
    EXPECT_EQ(RM_NO_ELEMENT, 1);
    EXPECT_EQ(RM_NOT_FOUND, 2);
    EXPECT_EQ(RM_FULL, 5);
    EXPECT_EQ(RM_NONE, -1);
    EXPECT_EQ(RM_CANNOT_OPEN, -46);
    EXPECT_EQ(RM_MISSING_ARGUMENT, -52);
    EXPECT_EQ(RM_INVALID, -56);
    EXPECT_EQ(RM_UNKNOWN_MODULE, -1006);
    EXPECT_EQ(RM_COPY_FAILED, -1018);
    EXPECT_EQ(RM_RENAME_FAILED, -1019);
    EXPECT_EQ(RM_OUT_OF_MEMORY, -2011);
    EXPECT_EQ(RM_NULL_SYNC, -2);
    EXPECT_EQ(RM_WAIT_FOREVER, 0xFFFFFFFFU);
    EXPECT_EQ(RM_NO_LIMIT, 0xFFFFFFFFU);
    EXPECT_EQ(RM_CURRENT_POSITION, 0xFFFFFFFFU);
    EXPECT_EQ(RM_NO_SLOT, 65535);
}

// --- The first use of a service, by a host that has called nothing before

struct Service {
    const char* name;
    void (*use)();
};

void PrintTo(const Service& service, std::ostream* out)
{
    *out << service.name;
}

const BagCtl kCompact = {.flags = 0,
                         .initialSlots = 2,
                         .growIncrement = 2,
                         .growThreshold = 10,
                         .elementSize = 4,
                         .tag = 0,
                         .keyOffset = 0,
                         .keyLength = 0};

const std::vector<Service> kServices = {
    {"Memory", [] { std::memset(rm_getMemory(100, 0), 'x', 100); }},
    {"Tags", [] { EXPECT_GE(rm_allocTag(nullptr, RM_NO_LIMIT), 0); }},
    {"Pools",
     [] {
         RmPool* pool = rm_allocPool(2, 0, "", RM_WAIT_FOREVER);
         void* element = rm_getFromPool(10, pool);
         EXPECT_NE(element, nullptr);
         EXPECT_EQ(rm_putInPool(element, pool), 0);
         EXPECT_EQ(rm_zFreePool(&pool), 0);
     }},
    {"MemoryReport", [] { captureStderr([] { rm_memReport(RM_REPORT_ALL, -1, "all"); }); }},
    {"Statistics", [] { rm_statInc(1, 1); }},
    {"Log", [] { captureStderr([] { rm_systemLogWrite("a line"); }); }},
    {"LogFile",
     [] {
         rm_systemLog(2);
         rm_systemLogOpen(kLogPath);
         captureStderr([] { rm_systemLogWrite("a line"); });
         EXPECT_EQ(fileLines(), std::vector<std::string>{"a line"});
     }},
    {"SharedMemory",
     [] {
         void* address = nullptr;
         EXPECT_EQ(rm_gshmCreate("segment", 100, &address), 0);
     }},
    {"SyncObjects",
     [] {
         EXPECT_EQ(rm_syncCreate("lock"), 0);
         EXPECT_EQ(rm_syncEnterExcl(0, 1000), RM_SUCCESS);
         EXPECT_EQ(rm_syncExitExcl(0), RM_SUCCESS);
     }},
    {"Queues",
     [] {
         EXPECT_EQ(rm_queueCreate("queue"), 0);
         EXPECT_EQ(rm_queueWrite(0, "text", 4, 1), RM_SUCCESS);
     }},
    {"Threads", [] { EXPECT_EQ(rm_foregroundThread(), 1); }},
    {"Files",
     [] {
         const int16_t handle = rm_fileOpen("data", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
         EXPECT_EQ(handle, 0);
         EXPECT_EQ(rm_fileWrite(handle, "text", 4), 4U);
         rm_fileClose(handle);
     }},
    {"TextStreams",
     [] {
         FileStream* stream = rm_fileStreamOpen("text", "w");
         EXPECT_EQ(rm_fileStreamPuts(stream, "a line"), 6U);
         rm_fileStreamClose(stream);
     }},
    {"Profiles",
     [] {
         rmtest::writeFile("corvane.ini", "[section]\n");
         EXPECT_EQ(rm_iniSet("section", "key", "value"), RM_SUCCESS);
         std::array<char, 10> value = {};
         EXPECT_EQ(rm_iniGet("section", "key", value.data(), 10, 1), RM_SUCCESS);
         EXPECT_STREQ(value.data(), "value");
     }},
    {"LocalEnvironment",
     [] {
         rm_putLocalEnv("COLOUR=blue");
         EXPECT_STREQ(rm_getenv("colour"), "BLUE");
     }},
    {"Copies",
     [] {
         rmtest::writeFile("from", "text");
         EXPECT_EQ(rm_fileOpen("other", RM_O_RDWR | RM_O_CREAT, 0, 0, 0), 0);  // no copy has it
         EXPECT_EQ(rm_fileCopy("from", "to"), 0);
     }},
    {"Modules",
     [] {
         int16_t handle = -1;
         captureStderr([&] { EXPECT_EQ(rm_emLoad("./nowhere", &handle), RM_NOT_FOUND); });
     }},
    {"Bags",
     [] {
         Bag* bag = nullptr;
         EXPECT_EQ(bagCreate(&kCompact, &bag), RM_SUCCESS);
         EXPECT_EQ(bagAdd(bag, "abc"), RM_SUCCESS);
         EXPECT_EQ(bagDestroy(bag), RM_SUCCESS);
     }},
    {"FfBags",
     [] {
         void* bag = nullptr;
         void* area = nullptr;
         EXPECT_EQ(ffBagCreate(2, 4, &bag, &area), RM_SUCCESS);
         EXPECT_EQ(ffBagPush(bag, "abc"), RM_SUCCESS);
     }},
    {"DynamicArrays",
     [] {
         DArray* array = darrayCreate(10, 5, 8);
         EXPECT_EQ(darrayCreateEntry(array, "name", nullptr), 0);
         darrayDestroy(array);
     }},
    {"Texts",
     [] {
         std::array<char, 8> text = {"a b"};
         int count = 0;
         char** words = nullptr;
         EXPECT_EQ(StrToArgv(text.data(), &count, &words, 0), RM_SUCCESS);
         EXPECT_EQ(count, 2);
     }},
    {"Paths", [] { EXPECT_STREQ(makeAllocPath("d", "b", "e", 0), "d/b.e"); }},
};

class FirstUse : public rmtest::FrameTest, public ::testing::WithParamInterface<Service>
{
};

TEST_P(FirstUse, NeedsNoStartBefore)
{
    EXPECT_EQ(catchExit([] {
                  GetParam().use();
                  EXPECT_EQ(rmtest::violations(), 0U);
                  rm_exit(5);
              }),
              5);
}

TEST_P(FirstUse, StartsNoThread)
{
    const auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    const auto before = threads();
    EXPECT_EQ(catchExit([&] {
                  GetParam().use();
                  EXPECT_EQ(threads(), before);
                  rm_exit(5);
              }),
              5);
    EXPECT_EQ(threads(), before);
}

TEST_P(FirstUse, AsksTheProcessForNoOtherSettingThanTheTwoThatAreKnown)
{
    // Beside them the time zone, for the stamp of a line.
    const std::set<std::string> known = {"SEG_ALLOC", "CATPATH", "TZ"};
    EXPECT_EQ(catchExit([] {
                  GetParam().use();
                  rm_exit(5);
              }),
              5);
    for (const rmtest::CallRecord& call : rmtest::callTrace({rmtest::Call::kGetenv})) {
        EXPECT_TRUE(known.contains(std::string(call.path()))) << call.path();
    }
}

INSTANTIATE_TEST_SUITE_P(Of, FirstUse, ::testing::ValuesIn(kServices),
                         [](const auto& test) { return std::string(test.param.name); });

// --- The calls with which a host begins

constexpr int kLanded = 60;  // exit status of a host that has come to its exit target

enum class Beginning : uint8_t { kInit, kErrorJump, kExitJump, kLevel, kLogFile };

using Order = std::array<Beginning, 5>;

// A host that begins in the order given, works, meets a fatal error and shuts itself down.
void runHostThatBegins(const Order& order)
{
    static jmp_buf fatalTarget;
    static jmp_buf exitTarget;
    const int code = setjmp(exitTarget);
    if (code != 0) {
        _exit(code == 3 ? kLanded : code);
    }
    if (setjmp(fatalTarget) != 0) {
        rm_systemLogWrite("shutting down");
        rm_exit(3);
    }
    for (const Beginning beginning : order) {
        switch (beginning) {
            case Beginning::kInit:
                rm_init(1'000'000, 20, 0.0);
                break;
            case Beginning::kErrorJump:
                rm_errorJump(fatalTarget);
                break;
            case Beginning::kExitJump:
                rm_exitJump(exitTarget);
                break;
            case Beginning::kLevel:
                rm_systemLog(2);
                break;
            case Beginning::kLogFile:
                rm_systemLogOpen(kLogPath);
                break;
        }
    }
    rm_systemLogWrite("%u %d %d %d %d", rmemavail, fileHandleLimit, fileSem, growSem, fileCommit);
    fatalRMExit("a problem");
}

class HostBegins : public rmtest::FrameTest
{
};

TEST_F(HostBegins, InWhateverOrderItLikes)
{
    // A log file needs a level before it; all else is free.
    Order order = {Beginning::kInit, Beginning::kErrorJump, Beginning::kExitJump, Beginning::kLevel,
                   Beginning::kLogFile};
    int orders = 0;
    do {
        if (std::find(order.begin(), order.end(), Beginning::kLevel) >
            std::find(order.begin(), order.end(), Beginning::kLogFile)) {
            continue;
        }
        ++orders;
        const ChildResult child = runChild([&] { runHostThatBegins(order); });
        rmtest::expectEnd(child, kLanded);
        ASSERT_FALSE(fileLines().empty());
        EXPECT_EQ(fileLines().front(), "1000000 20 0 1 1");
        EXPECT_EQ(fileLines().back(), "shutting down");
        EXPECT_EQ(fileLines(), logLines(child.err));
        EXPECT_TRUE(rmtest::ipcObjects().empty());
    } while (!HasFailure() && std::next_permutation(order.begin(), order.end()));
    EXPECT_EQ(orders, 60);
}

TEST_P(FirstUse, CountsNothingForTheHost)
{
    std::vector<uint32_t> expected(54);
    expected[1] = std::string_view(GetParam().name) == "Statistics" ? 1 : 0;  // its own event
    EXPECT_EQ(catchExit([&] {
                  rm_statInit(54);
                  GetParam().use();
                  uint16_t count = 0;
                  const uint32_t* first = rm_statRep(&count);
                  EXPECT_EQ(std::vector<uint32_t>(first, first + count), expected);
                  rm_exit(5);
              }),
              5);
}
}  // namespace
