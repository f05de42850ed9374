// Shared objects that release tag 0 while they are loaded or unloaded: the record of the object
// goes with the tag, and its memory is somebody else's at once. Nothing may be written there.
//
// An object that is not given out stays loaded: each case has one of its own name.
#include "tests/support/modules.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/unix/unix.h"

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::installModule;
using rmtest::kForever;
using rmtest::modulesClosed;
using rmtest::ScopedFault;

// Blocks of the platform, given back to it in the end.
struct Blocks {
    ~Blocks()
    {
        for (void* block : all) {
            std::free(block);
        }
    }

    std::vector<void*> all;
};

// Holds back what is given back to the platform, and keeps how the segments of tag 0 looked when
// they were.
class GivenBack
{
  public:
    // Before they go.
    void noteSegments()
    {
        for (const rmalloc::Segment* s = rmalloc::tagTable[0].segments; s != nullptr; s = s->next) {
            segments_.emplace_back(reinterpret_cast<const char*>(s),
                                   rmalloc::kSegmentHeader + s->units * rmalloc::kUnit);
        }
    }

    // Empty when nothing has gone.
    const std::string& bytesThen() const { return bytes_; }

    std::string bytesNow() const
    {
        std::string bytes;
        for (const std::string_view segment : segments_) {
            bytes += segment;
        }
        return bytes;
    }

  private:
    Blocks blocks_;  // outlives the fault
    std::vector<std::string_view> segments_;
    std::string bytes_;
    ScopedFault fault_{
        {.call = Call::kFree, .times = kForever, .action = [this](const CallRecord& call) {
             blocks_.all.push_back(call.pointer<void>(0));
             bytes_ = bytesNow();
             return int64_t{0};
         }}};
};

class OsModuleReleased : public rmtest::ModuleTest
{
  protected:
    static void* loaded(const char* name)
    {
        installModule("plain", name);
        void* module = nullptr;
        EXPECT_EQ(rm_OSemLoad(name, &module), 0);
        return module;
    }

    rmtest::WrittenMemory written_;  // the segments are compared as a whole
};

TEST_F(OsModuleReleased, ByItsConstructorIsNotWrittenTo)
{
    installModule("opening", "./opening");
    GivenBack memory;
    const ScopedFault look({.call = Call::kDlopen, .when = [&](const CallRecord& /*call*/) {
                                memory.noteSegments();
                                return false;
                            }});
    void* module = nullptr;
    EXPECT_EQ(rm_OSemLoad("./opening", &module), RM_NOT_FOUND);
    EXPECT_EQ(module, nullptr);
    ASSERT_NE(memory.bytesThen(), "");
    EXPECT_EQ(memory.bytesNow(), memory.bytesThen());
}

TEST_F(OsModuleReleased, ByItsConstructorHasNoEntryPointToCall)
{
    installModule("opening", "./again/opening");
    void* module = nullptr;
    EXPECT_EQ(rm_OSemLoad("./again/opening", &module), RM_NOT_FOUND);
    EXPECT_EQ(callCount(Call::kDlsym), 0);
}

TEST_F(OsModuleReleased, ByItsEntryPointIsNotWrittenTo)
{
    installModule("plain", "./m05");
    GivenBack memory;
    rmtest::onModuleEntry([&](const char* /*name*/) {
        memory.noteSegments();
        rm_freeTagMemory(0, 0);
    });
    void* module = nullptr;
    EXPECT_EQ(rm_OSemLoad("./m05", &module), RM_NOT_FOUND);
    rmtest::onModuleEntry(nullptr);
    EXPECT_EQ(module, nullptr);
    ASSERT_NE(memory.bytesThen(), "");
    EXPECT_EQ(memory.bytesNow(), memory.bytesThen());
}

TEST_F(OsModuleReleased, ByItsDestructorIsNotWrittenTo)
{
    void* module = loaded("./m06");
    GivenBack memory;
    memory.noteSegments();
    rmtest::onModuleClose([](const char* /*name*/) { rm_freeTagMemory(0, 0); });
    EXPECT_EQ(rm_OSemUnload(module), 0);
    rmtest::onModuleClose(nullptr);
    EXPECT_THAT(modulesClosed(), ::testing::ElementsAre("./m06"));
    ASSERT_NE(memory.bytesThen(), "");
    EXPECT_EQ(memory.bytesNow(), memory.bytesThen());
}

TEST_F(OsModuleReleased, WhileItsUnloadingFailsIsNotWrittenTo)
{
    void* module = loaded("./m07");
    GivenBack memory;
    memory.noteSegments();
    {
        const ScopedFault close({.call = Call::kDlclose, .action = [](const CallRecord& /*call*/) {
                                     rmtest::meetFaults([] { rm_freeTagMemory(0, 0); });
                                     return int64_t{-1};
                                 }});
        EXPECT_EQ(rm_OSemUnload(module), RM_FULL);
        EXPECT_EQ(close.hits(), 1);
    }
    ASSERT_NE(memory.bytesThen(), "");
    EXPECT_EQ(memory.bytesNow(), memory.bytesThen());
}
}  // namespace
