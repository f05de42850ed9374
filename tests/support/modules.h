// Tests that load modules: the objects, and what they say about themselves.
//
// Why: a module is found by its file name, and its entry point by the same name. So the objects of
// ems/modules/ are copied into the directory of the case under the names that the case wants. Names
// begin with "./", or contain a slash: the dynamic linker looks for others along its own path.
//
// A program with such tests must show its functions to the modules: rm_module_tests() in
// tests/CMakeLists.txt.
#ifndef RM_TESTS_SUPPORT_MODULES_H
#define RM_TESTS_SUPPORT_MODULES_H

#include "support.h"

#include "rm.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace rmtest
{

// Copies the object of ems/modules/<kind>.c to <name>.so, directories included; gives the name.
std::string installModule(std::string_view kind, std::string name);

// Called by the entry point of "plain" modules with the name that they were given, and by their
// destructors. Both are taken away at the end of a case.
void onModuleEntry(std::function<void(const char*)> hook);
void onModuleClose(std::function<void(const char*)> hook);

// The same as lists: "GEO ./libgeo" for GEO_ModEntry("./libgeo").
std::vector<std::string> modulesEntered();
std::vector<std::string> modulesClosed();

// Live blocks of tag 0, and the bytes that they take with their headers.
uint32_t blocksOfTag0();
uint32_t bytesOfTag0();

// Bytes that a block of `size` bytes takes.
constexpr uint32_t blockBytes(uint32_t size)
{
    return (size + 7) / 8 * 8 + 8;
}

inline uint32_t textBytes(std::string_view text)
{
    return blockBytes(static_cast<uint32_t>(text.size()) + 1);
}

// The texts of a captured standard error with "[stamp]  " in the place of each line's stamp: for
// lines that have a line end inside.
std::string withoutStamps(std::string_view text);

// A case without locks, in which every block is counted exactly.
class ModuleTest : public RmTest
{
  protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace rmtest

#endif
