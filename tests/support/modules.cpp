// Why: see the header. Modules that are still loaded when the program ends call moduleClosed then,
// after the destructors of this program's own objects: what it uses is never destroyed.
#include "modules.h"

#include "rm/bag.h"
#include "rm/ems.h"
#include "rm/rmalloc/rmalloc.h"

#include <filesystem>
#include <regex>
#include <utility>

namespace
{
struct Events {
    std::function<void(const char*)> onEntry;
    std::function<void(const char*)> onClose;
    std::vector<std::string> entered;
    std::vector<std::string> closed;
};

Events& events()
{
    static auto* const kept = new Events;
    return *kept;
}
}  // namespace

// What the modules call.
extern "C" __attribute__((visibility("default"))) void moduleEntered(const char* symbol,
                                                                     const char* name);
extern "C" __attribute__((visibility("default"))) void moduleClosed(const char* name);

void moduleEntered(const char* symbol, const char* name)
{
    events().entered.push_back(std::string(symbol) + " " + name);
    if (events().onEntry) {
        events().onEntry(name);
    }
}

void moduleClosed(const char* name)
{
    events().closed.emplace_back(name);
    if (events().onClose) {
        events().onClose(name);
    }
}

std::string rmtest::installModule(std::string_view kind, std::string name)
{
    const std::filesystem::path from =
        std::filesystem::path(RM_TEST_MODULES) / (std::string(kind) + ".so");
    const std::filesystem::path to = name + ".so";
    if (to.has_parent_path()) {
        std::filesystem::create_directories(to.parent_path());
    }
    std::filesystem::copy_file(from, to);
    return name;
}

void rmtest::onModuleEntry(std::function<void(const char*)> hook)
{
    events().onEntry = std::move(hook);
}

void rmtest::onModuleClose(std::function<void(const char*)> hook)
{
    events().onClose = std::move(hook);
}

std::vector<std::string> rmtest::modulesEntered()
{
    return events().entered;
}

std::vector<std::string> rmtest::modulesClosed()
{
    return events().closed;
}

uint32_t rmtest::blocksOfTag0()
{
    if (rmalloc::nTags == 0) {
        return 0;
    }
    uint32_t blocks = 0;
    for (const rmalloc::Segment* s = rmalloc::tagTable[0].segments; s != nullptr; s = s->next) {
        blocks += s->blocks;
    }
    return blocks;
}

uint32_t rmtest::bytesOfTag0()
{
    return rmalloc::nTags == 0 ? 0 : rmalloc::tagTable[0].allocated;
}

std::string rmtest::withoutStamps(std::string_view text)
{
    static const std::regex stamp(
        R"(\[[0-9]{2}-[A-Z][a-z]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\]  )");
    return std::regex_replace(std::string(text), stamp, "[stamp]  ");
}

void rmtest::ModuleTest::SetUp()
{
    RmTest::SetUp();
    fileSem = RM_NULL_SYNC;
    growSem = RM_NULL_SYNC;
    events().entered.clear();
    events().closed.clear();
}

void rmtest::ModuleTest::TearDown()
{
    onModuleEntry(nullptr);
    onModuleClose(nullptr);
    if (ems::EmBag != nullptr) {
        EXPECT_EQ(bags::checkBag(ems::EmBag), 0U);
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    RmTest::TearDown();
}
