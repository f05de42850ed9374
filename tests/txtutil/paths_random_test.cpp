// Random directories, bases, extensions and values of CATPATH, beside a model that says in plain
// words what a path is made of.
//
// The same run every time; RM_TEST_SEED makes another one, RM_TEST_OPERATIONS makes it longer or
// shorter.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

constexpr long kOperations = 100'000;

using Text = std::optional<std::string>;

const char* pointer(const Text& text)
{
    return text.has_value() ? text->c_str() : nullptr;
}

// --- The model

// The part of CATPATH that stands before its last component: a slash at its very end belongs to
// that component.
std::string parentOf(const std::string& catPath)
{
    if (catPath.size() < 2) {
        return "";
    }
    const std::size_t slash = catPath.rfind('/', catPath.size() - 2);
    return slash == std::string::npos ? "" : catPath.substr(0, slash + 1);
}

Text directoryOf(const Text& directory, const Text& catPath)
{
    if (!directory.has_value() || !directory->starts_with(".")) {
        return directory;
    }
    if (!catPath.has_value()) {
        return std::nullopt;
    }
    const bool up = directory->starts_with("..");
    std::string start = up ? parentOf(*catPath) : *catPath;
    if (start.ends_with('/')) {
        start.pop_back();
    }
    const std::string rest = directory->substr(up ? 2 : 1);
    return start + (rest.starts_with('/') ? "" : "/") + rest;
}

std::string joined(const Text& directory, const Text& base, const Text& extension)
{
    std::string path = directory.value_or("");
    if (!path.empty() && !path.ends_with('/')) {
        path += '/';
    }
    path += base.value_or("");
    return extension.has_value() ? path + "." + *extension : path;
}

// --- The run

class PathsRandom : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        unsetenv("CATPATH");
        RmTest::TearDown();
    }

    uint32_t below(uint32_t bound)
    {
        return std::uniform_int_distribution<uint32_t>(0, bound - 1)(random_);
    }

    std::string text(const char* alphabet, uint32_t longest)
    {
        const std::string letters = alphabet;
        std::string result(below(longest + 1), ' ');
        for (char& c : result) {
            c = letters[below(static_cast<uint32_t>(letters.size()))];
        }
        return result;
    }

    Text maybe(const char* alphabet, uint32_t longest)
    {
        return below(8) == 0 ? Text() : Text(text(alphabet, longest));
    }

    std::mt19937_64 random_{rmtest::seedOfThisRun()};
};

// A path in a buffer of `size` bytes, and the status.
std::pair<std::string, int16_t> inBuffer(uint16_t size, const Text& directory, const Text& base,
                                         const Text& extension)
{
    std::vector<char> buffer(size + std::size_t{1}, '?');
    const int16_t status =
        makePath(buffer.data(), size, pointer(directory), pointer(base), pointer(extension));
    EXPECT_EQ(buffer.back(), '?');
    return {buffer.data(), status};
}

TEST_F(PathsRandom, AreWhatTheModelSays)
{
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    const long operations = rmtest::operationsOfThisRun(kOperations);
    for (long i = 0; i < operations; ++i) {
        const Text catPath = maybe("//abc.", 12);
        const Text directory = maybe("..//ab", 10);
        const Text base = maybe("aaabbbcc./", 6);
        const Text extension = maybe("xyz", 3);
        if (catPath.has_value()) {
            setenv("CATPATH", catPath->c_str(), 1);
        } else {
            unsetenv("CATPATH");
        }
        SCOPED_TRACE("seed " + std::to_string(rmtest::seedOfThisRun()) + ", case " +
                     std::to_string(i) + ": CATPATH " + catPath.value_or("-") + ", directory " +
                     directory.value_or("-") + ", base " + base.value_or("-"));

        const Text resolved = directoryOf(directory, catPath);
        const std::string path = joined(resolved, base, extension);
        const bool whole = base.has_value() && base->find('/') != std::string::npos;
        char* made = makeAllocPath(pointer(directory), pointer(base), pointer(extension), tag);
        ASSERT_EQ(std::string(made), whole ? *base : path);
        ASSERT_EQ(pathBaseExt(made) - made,
                  static_cast<std::ptrdiff_t>(std::string(made).rfind('/') + 1));
        rm_freeMemory(made, tag);

        const auto size = static_cast<uint16_t>(1 + below(30));
        const bool fits = path.size() < size;
        ASSERT_EQ(inBuffer(size, directory, base, extension),
                  (std::pair<std::string, int16_t>(path.substr(0, size - std::size_t{1}),
                                                   fits ? 0 : -1)));

        char* alone = allocWithCatPath(pointer(directory));
        const bool byCatPath =
            directory.has_value() && directory->starts_with(".") && catPath.has_value();
        ASSERT_EQ(alone != nullptr ? Text(alone) : Text(), byCatPath ? resolved : Text());
        rm_freeMemory(alone, 0);
        ASSERT_EQ(rmalloc::tagTable[0].allocated + rmalloc::tagTable[tag].allocated, 0U);
    }
}

}  // namespace
