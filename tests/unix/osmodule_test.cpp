// Shared objects: names, files and entry points, and what is left when one cannot be loaded.
//
// Names are tried on a dynamic linker of the test's own, which takes every file and has every
// symbol: the names that matter would need files all over the system. The objects of ems/modules/
// are loaded by the real one.
#include "tests/support/modules.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <dlfcn.h>

#include <gmock/gmock.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::installModule;
using rmtest::kForever;
using rmtest::modulesClosed;
using rmtest::modulesEntered;
using rmtest::ScopedFault;
using rmtest::withoutStamps;
using rmtest::writeFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr uint32_t kRecordBytes = 8 + 2 * sizeof(void*);

int64_t wordOf(const void* pointer)
{
    return static_cast<int64_t>(reinterpret_cast<intptr_t>(pointer));
}

// What the test's own linker was asked, whole: the trace of calls cuts texts.
struct Asked {
    std::string path;
    int64_t mode = 0;
    std::string symbol;
    std::vector<const char*> entered;  // the very pointers
};

Asked asked;
char fakeObject;

void fakeEntry(const char* name)
{
    asked.entered.push_back(name);
}

int64_t fakeOpen(const CallRecord& call)
{
    asked.path = call.pointer<const char>(0);
    asked.mode = call.args[1];
    return wordOf(&fakeObject);
}

int64_t fakeSymbol(const CallRecord& call)
{
    EXPECT_EQ(call.pointer<void>(0), &fakeObject);
    asked.symbol = call.pointer<const char>(1);
    return wordOf(reinterpret_cast<void*>(&fakeEntry));
}

// Loads through the test's own linker.
int16_t loadFake(const char* name, void** module)
{
    asked = Asked();
    const ScopedFault open({.call = Call::kDlopen, .times = kForever, .action = fakeOpen});
    const ScopedFault symbol({.call = Call::kDlsym, .times = kForever, .action = fakeSymbol});
    return rm_OSemLoad(name, module);
}

class OsModuleLoad : public rmtest::ModuleTest
{
  protected:
    void TearDown() override
    {
        if (module_ != nullptr) {
            rm_freeMemory(module_, 0);
        }
        ModuleTest::TearDown();
    }

    void* module_ = nullptr;
};

class OsModuleFunctions : public OsModuleLoad
{
};

class OsModuleUnload : public OsModuleLoad
{
};

// --- What follows from a name

struct Named {
    const char* what;
    const char* name;
    const char* path;
    const char* symbol;
};

void PrintTo(const Named& named, std::ostream* out)
{
    *out << named.what;
}

class OsModuleNames : public rmtest::ModuleTest, public ::testing::WithParamInterface<Named>
{
};

TEST_P(OsModuleNames, GiveTheFileAndTheEntryPoint)
{
    const Named& named = GetParam();
    void* module = nullptr;
    EXPECT_EQ(loadFake(named.name, &module), 0);
    EXPECT_EQ(asked.path, named.path);
    EXPECT_EQ(asked.symbol, named.symbol);
    // As it was given: without the ".so", with "lib" and the directories, in its own case.
    EXPECT_THAT(asked.entered, ElementsAre(named.name));
}

INSTANTIATE_TEST_SUITE_P(
    Of, OsModuleNames,
    ::testing::Values(
        Named{"APath", "/usr/lib/db/libgeo", "/usr/lib/db/libgeo.so", "GEO_ModEntry"},
        Named{"NoPrefix", "/m/abc", "/m/abc.so", "ABC_ModEntry"},
        Named{"APrefixWithOneCapital", "/m/LibAbc", "/m/LibAbc.so", "ABC_ModEntry"},
        Named{"APrefixInCapitals", "/m/LIBabc", "/m/LIBabc.so", "ABC_ModEntry"},
        Named{"AMixedPrefix", "/m/liBabc", "/m/liBabc.so", "ABC_ModEntry"},
        Named{"NoDirectory", "abc", "abc.so", "ABC_ModEntry"},
        Named{"NoDirectoryButAPrefix", "libabc", "libabc.so", "ABC_ModEntry"},
        Named{"NothingButThePrefix", "lib", "lib.so", "_ModEntry"},
        Named{"NothingButThePrefixInADirectory", "/m/Lib", "/m/Lib.so", "_ModEntry"},
        Named{"ThePrefixTwice", "/m/libliba", "/m/libliba.so", "LIBA_ModEntry"},
        Named{"ThePrefixCutShort", "/m/li", "/m/li.so", "LI_ModEntry"},
        Named{"ThePrefixFurtherBack", "/m/xlibabc", "/m/xlibabc.so", "XLIBABC_ModEntry"},
        Named{"ADirectoryWithThePrefix", "libx/abc", "libx/abc.so", "ABC_ModEntry"},
        Named{"ADirectoryOfOnlyThePrefix", "/lib/abc", "/lib/abc.so", "ABC_ModEntry"},
        Named{"ASlashAtTheEnd", "/m/", "/m/.so", "_ModEntry"},
        Named{"TheRoot", "/", "/.so", "_ModEntry"}, Named{"Nothing", "", ".so", "_ModEntry"},
        Named{"TwoSlashes", "/m//abc", "/m//abc.so", "ABC_ModEntry"},
        Named{"TheCurrentDirectory", "./abc", "./abc.so", "ABC_ModEntry"},
        Named{"AnExtension", "/m/abc.so", "/m/abc.so.so", "ABC.SO_ModEntry"},
        Named{"Digits", "/m/lib2d_x9", "/m/lib2d_x9.so", "2D_X9_ModEntry"},
        Named{"Capitals", "/M/GEO", "/M/GEO.so", "GEO_ModEntry"},
        Named{"SignsOfTheLog", "/m/a%sb", "/m/a%sb.so", "A%SB_ModEntry"},
        Named{"BytesAboveAscii", "/m/\xE4\xF6z", "/m/\xE4\xF6z.so", "\xE4\xF6Z_ModEntry"}),
    [](const auto& named) { return named.param.what; });

// The buffers hold 100 bytes of path and 104 of the entry point's name, ends included.

TEST_F(OsModuleLoad, TakesANameOf96Bytes)
{
    const std::string name = "/" + std::string(91, 'd') + "/geo";
    ASSERT_EQ(name.size(), 96U);
    EXPECT_EQ(loadFake(name.c_str(), &module_), 0);
    EXPECT_EQ(asked.path, name + ".so");
    EXPECT_EQ(asked.symbol, "GEO_ModEntry");
}

TEST_F(OsModuleLoad, RefusesANameOf97Bytes)
{
    const std::string name = "/" + std::string(92, 'd') + "/geo";
    ASSERT_EQ(name.size(), 97U);
    EXPECT_EQ(loadFake(name.c_str(), &module_), RM_NOT_FOUND);
    EXPECT_EQ(module_, nullptr);
    EXPECT_EQ(callCount(Call::kDlopen), 0);
}

TEST_F(OsModuleLoad, TakesALastPartOf94Bytes)
{
    const std::string base(94, 'b');
    EXPECT_EQ(loadFake(("./" + base).c_str(), &module_), 0);
    EXPECT_EQ(asked.path, "./" + base + ".so");
    EXPECT_EQ(asked.symbol, std::string(94, 'B') + "_ModEntry");
}

TEST_F(OsModuleLoad, RefusesALastPartOf95Bytes)
{
    EXPECT_EQ(loadFake(std::string(95, 'b').c_str(), &module_), RM_NOT_FOUND);
    EXPECT_EQ(loadFake(("/" + std::string(95, 'b')).c_str(), &module_), RM_NOT_FOUND);
    EXPECT_EQ(loadFake(std::string(96, 'b').c_str(), &module_), RM_NOT_FOUND);
    EXPECT_EQ(module_, nullptr);
    EXPECT_EQ(callCount(Call::kDlopen), 0);
}

TEST_F(OsModuleLoad, CountsTheLastPartWithoutItsPrefix)
{
    const std::string name = "lib" + std::string(93, 'b');
    EXPECT_EQ(loadFake(name.c_str(), &module_), 0);
    EXPECT_EQ(asked.path, name + ".so");
    EXPECT_EQ(asked.symbol, std::string(93, 'B') + "_ModEntry");
}

TEST_F(OsModuleLoad, ANameThatIsMuchTooLongLeavesNothing)
{
    const std::string name(100'000, 'x');
    const std::string log =
        captureStderr([&] { EXPECT_EQ(rm_OSemLoad(name.c_str(), &module_), RM_NOT_FOUND); });
    EXPECT_EQ(log, "");
    EXPECT_EQ(module_, nullptr);
    EXPECT_EQ(rmtest::bytesOfTag0(), 0U);
}

// --- Loading

TEST_F(OsModuleLoad, BindsAllSymbolsAtOnce)
{
    EXPECT_EQ(loadFake("./geo", &module_), 0);
    EXPECT_EQ(asked.mode, 2);
    EXPECT_EQ(asked.mode, RTLD_NOW);
}

TEST_F(OsModuleLoad, GivesARecordOfTwoPointersWithObjectAndEntryPoint)
{
    EXPECT_EQ(loadFake("./geo", &module_), 0);
    ASSERT_NE(module_, nullptr);
    const auto* record = static_cast<os::OsModule*>(module_);
    EXPECT_EQ(record->library, &fakeObject);
    EXPECT_EQ(record->entry, &fakeEntry);
    EXPECT_EQ(offsetof(os::OsModule, library), 0U);
    EXPECT_EQ(offsetof(os::OsModule, entry), sizeof(void*));
    EXPECT_EQ(rmtest::blocksOfTag0(), 1U);
    EXPECT_EQ(rmtest::bytesOfTag0(), kRecordBytes);
}

TEST_F(OsModuleLoad, AsksForOneObjectAndOneSymbol)
{
    EXPECT_EQ(loadFake("./geo", &module_), 0);
    EXPECT_EQ(callCount(Call::kDlopen), 1);
    EXPECT_EQ(callCount(Call::kDlsym), 1);
    EXPECT_EQ(callCount(Call::kDlclose), 0);
}

TEST_F(OsModuleLoad, LogsNothingWhenItSucceeds)
{
    const std::string log = captureStderr([&] { EXPECT_EQ(loadFake("./geo", &module_), 0); });
    EXPECT_EQ(log, "");
}

TEST_F(OsModuleLoad, CallsTheEntryPointOnceWithTheNameAsGiven)
{
    installModule("plain", "./libgeo");
    EXPECT_EQ(rm_OSemLoad("./libgeo", &module_), 0);
    EXPECT_THAT(modulesEntered(), ElementsAre("GEO ./libgeo"));
}

TEST_F(OsModuleLoad, DropsThePrefixInAnyCase)
{
    installModule("plain", "./m/LibAbc");
    installModule("plain", "./m/abc");
    void* second = nullptr;
    EXPECT_EQ(rm_OSemLoad("./m/LibAbc", &module_), 0);
    EXPECT_EQ(rm_OSemLoad("./m/abc", &second), 0);
    EXPECT_THAT(modulesEntered(), ElementsAre("ABC ./m/LibAbc", "ABC ./m/abc"));
}

TEST_F(OsModuleLoad, AModuleCalledLibHasAnEntryPointWithoutAName)
{
    installModule("plain", "./lib");
    EXPECT_EQ(rm_OSemLoad("./lib", &module_), 0);
    EXPECT_THAT(modulesEntered(), ElementsAre(" ./lib"));
}

TEST_F(OsModuleLoad, EachLoadMakesARecordAndCallsTheEntryPoint)
{
    installModule("plain", "./geo");
    void* second = nullptr;
    EXPECT_EQ(rm_OSemLoad("./geo", &module_), 0);
    EXPECT_EQ(rm_OSemLoad("./geo", &second), 0);
    EXPECT_NE(module_, second);
    EXPECT_EQ(static_cast<os::OsModule*>(module_)->library,
              static_cast<os::OsModule*>(second)->library);
    EXPECT_THAT(modulesEntered(), ElementsAre("GEO ./geo", "GEO ./geo"));
    EXPECT_EQ(rmtest::bytesOfTag0(), 2 * kRecordBytes);
}

TEST_F(OsModuleLoad, AnEntryPointThatDoesNotComeBackLeavesTheModuleUnstored)
{
    installModule("fatal", "./fatal");
    EXPECT_EQ(rm_emInit(), 0);
    const uint32_t blocks = rmtest::blocksOfTag0();
    EXPECT_EQ(catchFatal([&] { rm_OSemLoad("./fatal", &module_); }), 1);
    EXPECT_EQ(module_, nullptr);
    // The record; the name of what it registered, the list with it, the function's name.
    EXPECT_EQ(rmtest::blocksOfTag0(), blocks + 1 + 4);
    EXPECT_EQ(callCount(Call::kDlclose), 0);
}

// --- Objects that cannot be loaded

TEST_F(OsModuleLoad, AMissingObjectIsLoggedWithItsFileAndTheLinkersReason)
{
    const std::string log =
        captureStderr([&] { EXPECT_EQ(rm_OSemLoad("./libgeo", &module_), RM_NOT_FOUND); });
    EXPECT_EQ(withoutStamps(log),
              "[stamp]  Failed to load module './libgeo.so'\n"
              "\n"
              "[stamp]    REASON: errno = 0  ./libgeo.so: cannot open shared object file: No such "
              "file or directory\n");
}

TEST_F(OsModuleLoad, AMissingObjectLeavesNoRecordAndNoModule)
{
    void* untouched = &fakeObject;
    captureStderr([&] { EXPECT_EQ(rm_OSemLoad("./libgeo", &untouched), RM_NOT_FOUND); });
    EXPECT_EQ(untouched, &fakeObject);
    EXPECT_EQ(rmtest::blocksOfTag0(), 0U);
    EXPECT_EQ(callCount(Call::kDlsym), 0);
    EXPECT_EQ(callCount(Call::kDlclose), 0);
}

TEST_F(OsModuleLoad, LogsTheReasonThatTheLinkerGaveWhateverTheLogItselfDoes)
{
    static std::array<char, 32> reason;
    std::strcpy(reason.data(), "no such thing");
    const ScopedFault open({.call = Call::kDlopen, .error = EMFILE});
    const ScopedFault text({.call = Call::kDlerror,
                            .action = [](const CallRecord&) { return wordOf(reason.data()); }});
    const std::string log =
        captureStderr([&] { EXPECT_EQ(rm_OSemLoad("./geo", &module_), RM_NOT_FOUND); });
    EXPECT_EQ(withoutStamps(log),
              "[stamp]  Failed to load module './geo.so'\n\n"
              "[stamp]    REASON: errno = 0  no such thing\n");
    EXPECT_EQ(callCount(Call::kDlerror), 1);
}

TEST_F(OsModuleLoad, LogsNoReasonWhenTheLinkerGivesNone)
{
    const ScopedFault open({.call = Call::kDlopen});
    const ScopedFault text({.call = Call::kDlerror, .times = kForever});
    const std::string log =
        captureStderr([&] { EXPECT_EQ(rm_OSemLoad("./geo", &module_), RM_NOT_FOUND); });
    EXPECT_EQ(withoutStamps(log),
              "[stamp]  Failed to load module './geo.so'\n\n"
              "[stamp]    REASON: errno = 0  \n");
}

TEST_F(OsModuleLoad, AFileThatIsNoObjectIsRefused)
{
    writeFile("geo.so", "This is a text.\n");
    const std::string log =
        captureStderr([&] { EXPECT_EQ(rm_OSemLoad("./geo", &module_), RM_NOT_FOUND); });
    EXPECT_THAT(withoutStamps(log), StartsWith("[stamp]  Failed to load module './geo.so'\n\n"
                                               "[stamp]    REASON: errno = 0  ./geo.so: "));
    EXPECT_EQ(rmtest::blocksOfTag0(), 0U);
}

TEST_F(OsModuleLoad, AnEmptyFileAndADirectoryAreRefused)
{
    writeFile("geo.so", "");
    std::filesystem::create_directory("abc.so");
    captureStderr([&] {
        EXPECT_EQ(rm_OSemLoad("./geo", &module_), RM_NOT_FOUND);
        EXPECT_EQ(rm_OSemLoad("./abc", &module_), RM_NOT_FOUND);
    });
    EXPECT_EQ(rmtest::blocksOfTag0(), 0U);
}

TEST_F(OsModuleLoad, AnObjectWithAnUnresolvedFunctionIsRefusedBeforeItIsCalled)
{
    installModule("unresolved", "./unresolved");
    const std::string log =
        captureStderr([&] { EXPECT_EQ(rm_OSemLoad("./unresolved", &module_), RM_NOT_FOUND); });
    EXPECT_THAT(withoutStamps(log),
                StartsWith("[stamp]  Failed to load module './unresolved.so'\n\n"
                           "[stamp]    REASON: errno = 0  ./unresolved.so: "));
    EXPECT_THAT(log, HasSubstr("functionOfNobody"));
    EXPECT_EQ(module_, nullptr);
}

// --- Objects without an entry point

TEST_F(OsModuleLoad, AnObjectWithoutItsEntryPointIsClosedAgain)
{
    installModule("noentry", "./noentry");
    void* untouched = &fakeObject;
    EXPECT_EQ(rm_OSemLoad("./noentry", &untouched), RM_NOT_FOUND);
    EXPECT_EQ(untouched, &fakeObject);
    EXPECT_THAT(modulesClosed(), ElementsAre("noentry"));
    const std::vector<CallRecord> calls =
        callTrace({Call::kDlopen, Call::kDlsym, Call::kDlclose, Call::kDlerror});
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[1].text1.data(), std::string("NOENTRY_ModEntry"));
    EXPECT_EQ(calls[2].call, Call::kDlclose);
    EXPECT_EQ(calls[2].args[0], calls[0].result);
}

TEST_F(OsModuleLoad, TheEntryPointOfAnotherNameIsNone)
{
    installModule("plain", "./other");
    EXPECT_EQ(rm_OSemLoad("./other", &module_), RM_NOT_FOUND);
    EXPECT_THAT(modulesEntered(), IsEmpty());
}

TEST_F(OsModuleLoad, AnObjectWithoutItsEntryPointLogsNothing)
{
    installModule("noentry", "./noentry");
    const std::string log =
        captureStderr([&] { EXPECT_EQ(rm_OSemLoad("./noentry", &module_), RM_NOT_FOUND); });
    EXPECT_EQ(log, "");
}

TEST_F(OsModuleLoad, AnObjectWithoutItsEntryPointLeavesItsRecordBehind)
{
    installModule("noentry", "./noentry");
    for (uint32_t times = 1; times <= 3; ++times) {
        EXPECT_EQ(rm_OSemLoad("./noentry", &module_), RM_NOT_FOUND);
        EXPECT_EQ(rmtest::blocksOfTag0(), times);
        EXPECT_EQ(rmtest::bytesOfTag0(), times * kRecordBytes);
    }
}

TEST_F(OsModuleLoad, AnObjectWithoutItsEntryPointThatCannotBeClosedIsNotFoundEither)
{
    installModule("noentry", "./noentry");
    const ScopedFault close({.call = Call::kDlclose});
    EXPECT_EQ(rm_OSemLoad("./noentry", &module_), RM_NOT_FOUND);
    EXPECT_EQ(close.hits(), 1);
    EXPECT_EQ(module_, nullptr);
}

// --- No memory

TEST_F(OsModuleLoad, NoMemoryForTheRecordIsFatalBeforeAnythingIsOpened)
{
    const ScopedFault memory({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    int jumped = 0;
    const std::string log =
        captureStderr([&] { jumped = catchFatal([&] { rm_OSemLoad("./geo", &module_); }); });
    EXPECT_EQ(jumped, 1);
    EXPECT_THAT(log, HasSubstr("Out of memory!"));
    EXPECT_EQ(module_, nullptr);
    EXPECT_EQ(callCount(Call::kDlopen), 0);
}

// --- Functions

TEST_F(OsModuleFunctions, AreFoundByTheirNames)
{
    installModule("plain", "./geo");
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    void* address = nullptr;
    ASSERT_EQ(rm_OSemGetFcnAddr(module_, "exportedSum", &address), 0);
    EXPECT_EQ(reinterpret_cast<int (*)(int, int)>(address)(40, 2), 42);
    ASSERT_EQ(rm_OSemGetFcnAddr(module_, "exportedName", &address), 0);
    EXPECT_STREQ(reinterpret_cast<const char* (*)()>(address)(), "./geo");
}

TEST_F(OsModuleFunctions, VariablesAreFoundToo)
{
    installModule("plain", "./geo");
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    void* address = nullptr;
    ASSERT_EQ(rm_OSemGetFcnAddr(module_, "exportedVariable", &address), 0);
    EXPECT_EQ(*static_cast<int*>(address), 4711);
}

TEST_F(OsModuleFunctions, AreLookedForInTheirOwnObject)
{
    installModule("plain", "./geo");
    installModule("plain", "./abc");
    void* other = nullptr;
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    ASSERT_EQ(rm_OSemLoad("./abc", &other), 0);
    void* address = nullptr;
    ASSERT_EQ(rm_OSemGetFcnAddr(module_, "exportedName", &address), 0);
    EXPECT_STREQ(reinterpret_cast<const char* (*)()>(address)(), "./geo");
    ASSERT_EQ(rm_OSemGetFcnAddr(other, "exportedName", &address), 0);
    EXPECT_STREQ(reinterpret_cast<const char* (*)()>(address)(), "./abc");
}

TEST_F(OsModuleFunctions, AreNotSeenByOtherObjects)
{
    installModule("plain", "./geo");
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "exportedSum"), nullptr);
}

TEST_F(OsModuleFunctions, AnAbsentOneIsNotFoundAndNullIsStored)
{
    installModule("plain", "./geo");
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    for (const char* name : {"absent", "", "ExportedSum", "exportedsum"}) {
        void* address = &fakeObject;
        EXPECT_EQ(rm_OSemGetFcnAddr(module_, name, &address), RM_NOT_FOUND) << name;
        EXPECT_EQ(address, nullptr) << name;
    }
}

TEST_F(OsModuleFunctions, AnAbsentOneLogsNothing)
{
    installModule("plain", "./geo");
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    void* address = nullptr;
    const std::string log = captureStderr([&] { rm_OSemGetFcnAddr(module_, "absent", &address); });
    EXPECT_EQ(log, "");
}

TEST_F(OsModuleFunctions, NoModuleHasNone)
{
    void* address = &fakeObject;
    EXPECT_EQ(rm_OSemGetFcnAddr(nullptr, "exportedSum", &address), RM_NOT_FOUND);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(callCount(Call::kDlsym), 0);
}

// --- Objects that release the tag in which their record lies

TEST_F(OsModuleUnload, AnObjectWhoseConstructorReleasesTagZeroIsNotLoaded)
{
    installModule("opening", "./opening");
    EXPECT_EQ(rm_OSemLoad("./opening", &module_), RM_NOT_FOUND);
    EXPECT_EQ(module_, nullptr);
    EXPECT_EQ(rmtest::blocksOfTag0(), 0U);
}

TEST_F(OsModuleUnload, AnObjectWhoseEntryPointReleasesTagZeroIsNotLoaded)
{
    installModule("plain", "./m05");
    rmtest::onModuleEntry([](const char*) { rm_freeTagMemory(0, 0); });
    EXPECT_EQ(rm_OSemLoad("./m05", &module_), RM_NOT_FOUND);
    rmtest::onModuleEntry(nullptr);
    EXPECT_EQ(module_, nullptr);
    EXPECT_EQ(rmtest::blocksOfTag0(), 0U);
}

// --- Unloading

TEST_F(OsModuleUnload, ClosesTheObjectAndLeavesTheRecord)
{
    installModule("plain", "./geo");
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    const void* library = static_cast<os::OsModule*>(module_)->library;
    EXPECT_EQ(rm_OSemUnload(module_), 0);
    EXPECT_THAT(modulesClosed(), ElementsAre("./geo"));
    EXPECT_EQ(callTrace({Call::kDlclose}).at(0).args[0], wordOf(library));
    EXPECT_EQ(rmtest::blocksOfTag0(), 1U);
    EXPECT_EQ(rmtest::bytesOfTag0(), kRecordBytes);
}

TEST_F(OsModuleUnload, ClosesAnObjectOnce)
{
    installModule("plain", "./geo");
    void* other = nullptr;
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    ASSERT_EQ(rm_OSemLoad("./geo", &other), 0);
    EXPECT_EQ(rm_OSemUnload(module_), 0);
    // A second time it would close the object of the other one.
    EXPECT_EQ(rm_OSemUnload(module_), RM_FULL);
    EXPECT_EQ(callCount(Call::kDlclose), 1);
    EXPECT_THAT(modulesClosed(), IsEmpty());
}

TEST_F(OsModuleUnload, LeavesAModuleWithoutFunctions)
{
    installModule("plain", "./geo");
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    EXPECT_EQ(rm_OSemUnload(module_), 0);
    void* address = &fakeObject;
    EXPECT_EQ(rm_OSemGetFcnAddr(module_, "exportedSum", &address), RM_NOT_FOUND);
    EXPECT_EQ(address, nullptr);
}

TEST_F(OsModuleUnload, IsFullWhenTheSystemRefuses)
{
    installModule("plain", "./geo");
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    for (const int64_t result : {-1, 1}) {
        const ScopedFault close({.call = Call::kDlclose, .result = result});
        const std::string log = captureStderr([&] { EXPECT_EQ(rm_OSemUnload(module_), RM_FULL); });
        EXPECT_EQ(log, "");
    }
    EXPECT_THAT(modulesClosed(), IsEmpty());
    EXPECT_EQ(rmtest::bytesOfTag0(), kRecordBytes);
    void* address = nullptr;
    EXPECT_EQ(rm_OSemGetFcnAddr(module_, "exportedSum", &address), 0);
    EXPECT_EQ(rm_OSemUnload(module_), 0);
    EXPECT_THAT(modulesClosed(), ElementsAre("./geo"));
}

TEST_F(OsModuleUnload, IsFullForNoModule)
{
    EXPECT_EQ(rm_OSemUnload(nullptr), RM_FULL);
    EXPECT_EQ(callCount(Call::kDlclose), 0);
}

TEST_F(OsModuleUnload, AnObjectLoadedTwiceStaysUntilTheSecondOneIsUnloaded)
{
    installModule("plain", "./geo");
    void* second = nullptr;
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    ASSERT_EQ(rm_OSemLoad("./geo", &second), 0);
    EXPECT_EQ(rm_OSemUnload(second), 0);
    EXPECT_THAT(modulesClosed(), IsEmpty());
    EXPECT_EQ(rm_OSemUnload(module_), 0);
    EXPECT_THAT(modulesClosed(), ElementsAre("./geo"));
}

TEST_F(OsModuleUnload, AnObjectThatWantsToStayIsLetGoAndStays)
{
    installModule("nodelete", "./geo");
    ASSERT_EQ(rm_OSemLoad("./geo", &module_), 0);
    void* address = nullptr;
    ASSERT_EQ(rm_OSemGetFcnAddr(module_, "exportedSum", &address), 0);
    EXPECT_EQ(rm_OSemUnload(module_), 0);
    EXPECT_THAT(modulesClosed(), IsEmpty());
    EXPECT_EQ(reinterpret_cast<int (*)(int, int)>(address)(40, 2), 42);
}
}  // namespace
