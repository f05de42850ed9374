// Paths of any pieces.
//
// Input: flags, size of the buffer, CATPATH, 0, directory, 0, base, 0, extension.
#include "fuzz.h"

#include "rm.h"

#include <array>
#include <cstdlib>
#include <optional>

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Text;
using MaybeText = std::optional<std::string>;

enum Flag : uint8_t {
    kNoCatPath = 1,
    kNoDirectory = 2,  // for makePathInt alone: the others want one
    kNoBase = 4,
    kNoExtension = 8,
};

// For the environment, which keeps the address: no copy of each value stays behind.
char catPathEntry[8192];

void setCatPath(const MaybeText& catPath)
{
    const std::string entry = "CATPATH=" + catPath.value_or("");
    FUZZ_CHECK(entry.size() < sizeof(catPathEntry));
    catPathEntry[entry.copy(catPathEntry, entry.size())] = '\0';
    FUZZ_CHECK(catPath ? putenv(catPathEntry) == 0 : unsetenv("CATPATH") == 0);
}

// --- The rules

std::vector<std::string> piecesOf(const MaybeText& directory, const MaybeText& base,
                                  const MaybeText& extension)
{
    std::vector<std::string> pieces;
    if (directory) {
        pieces.push_back(*directory);
        if (!directory->empty() && !directory->ends_with('/')) {
            pieces.emplace_back("/");
        }
    }
    if (base) {
        pieces.push_back(*base);
    }
    if (extension) {
        pieces.emplace_back(".");
        pieces.push_back(*extension);
    }
    return pieces;
}

std::string joined(const std::vector<std::string>& pieces)
{
    std::string whole;
    for (const std::string& piece : pieces) {
        whole += piece;
    }
    return whole;
}

std::string behindCatPath(std::string catPath, std::string_view directory)
{
    const bool parent = directory.starts_with("..");
    directory.remove_prefix(parent ? 2 : 1);
    if (parent) {
        const std::string_view searched =
            std::string_view(catPath).substr(0, catPath.empty() ? 0 : catPath.size() - 1);
        const std::size_t slash = searched.rfind('/');
        catPath.resize(slash == std::string_view::npos ? 0 : slash);
    } else if (catPath.ends_with('/')) {
        catPath.pop_back();
    }
    return catPath + (directory.starts_with('/') ? "" : "/") + std::string(directory);
}

MaybeText resolved(const MaybeText& catPath, const std::string& directory)
{
    if (!directory.starts_with('.')) {
        return directory;
    }
    return catPath ? MaybeText(behindCatPath(*catPath, directory)) : MaybeText();
}

// --- The calls

struct Pieces {
    MaybeText catPath;
    MaybeText directory;
    MaybeText base;
    MaybeText extension;
};

// The same as texts for the calls.
class Arguments
{
  public:
    explicit Arguments(const Pieces& pieces)
        : directory_(pieces.directory.value_or("")),
          base_(pieces.base.value_or("")),
          extension_(pieces.extension.value_or("")),
          pieces_(pieces)
    {
    }

    const char* directory() const { return pieces_.directory ? directory_.get() : nullptr; }

    const char* base() const { return pieces_.base ? base_.get() : nullptr; }

    const char* extension() const { return pieces_.extension ? extension_.get() : nullptr; }

    void check() const
    {
        FUZZ_CHECK(directory_.unchanged() && base_.unchanged() && extension_.unchanged());
    }

  private:
    Text directory_;
    Text base_;
    Text extension_;
    const Pieces& pieces_;
};

void checkPieces(const Pieces& pieces, const Arguments& arguments)
{
    std::array<const char*, 5> parts{};
    const uint16_t count =
        makePathInt(parts.data(), arguments.directory(), arguments.base(), arguments.extension());
    const std::vector<std::string> expected =
        piecesOf(pieces.directory, pieces.base, pieces.extension);
    FUZZ_CHECK(count == expected.size());
    for (std::size_t i = 0; i < parts.size(); ++i) {
        FUZZ_CHECK(i < count ? parts.at(i) == expected[i] : parts.at(i) == nullptr);
    }
}

void checkCatPath(const Pieces& pieces, const Arguments& arguments)
{
    char* path = allocWithCatPath(arguments.directory());
    const bool made = pieces.catPath && pieces.directory->starts_with('.');
    FUZZ_CHECK((path != nullptr) == made);
    FUZZ_CHECK(!made || path == behindCatPath(*pieces.catPath, *pieces.directory));
    rm_freeMemory(path, 0);
}

void checkAllocPath(const Pieces& pieces, const Arguments& arguments, const std::string& whole)
{
    const bool baseIsPath = pieces.base && pieces.base->find('/') != std::string::npos;
    char* path = makeAllocPath(arguments.directory(), arguments.base(), arguments.extension(), 0);
    FUZZ_CHECK(path != nullptr && path == (baseIsPath ? *pieces.base : whole));
    rm_freeMemory(path, 0);
}

void checkPath(const Arguments& arguments, const std::string& whole, std::size_t pieces,
               uint16_t size)
{
    Buffer buffer(size);
    // One byte is written for no pieces at all even into a buffer of none.
    Buffer one(1);
    char* to = size > 0 ? buffer.data() : one.data();
    const int16_t status =
        makePath(to, size, arguments.directory(), arguments.base(), arguments.extension());
    buffer.check();
    one.check();
    if (size == 0) {
        FUZZ_CHECK(status == (pieces == 0 ? 0 : -1));
        FUZZ_CHECK(pieces == 0 ? one.text().empty() : one.untouched());
        return;
    }
    FUZZ_CHECK(status == (whole.size() < size ? 0 : -1));
    FUZZ_CHECK(buffer.text() == whole.substr(0, size - std::size_t{1}));
}

void checkBaseExt(const std::string& path)
{
    const Text text(path);
    const std::size_t slash = path.rfind('/');
    FUZZ_CHECK(pathBaseExt(text.get()) ==
               text.get() + (slash == std::string::npos ? 0 : slash + 1));
}
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    const uint8_t flags = input.byte();
    const uint8_t size = input.byte();
    const auto next = [&input, flags](Flag absent) {
        const std::string text = input.text();
        return (flags & absent) != 0 ? MaybeText() : MaybeText(text);
    };
    Pieces pieces;
    pieces.catPath = next(kNoCatPath);
    pieces.directory = next(kNoDirectory);
    pieces.base = next(kNoBase);
    pieces.extension = next(kNoExtension);
    setCatPath(pieces.catPath);
    const Arguments arguments(pieces);
    checkPieces(pieces, arguments);
    if (pieces.directory) {
        const std::vector<std::string> parts =
            piecesOf(resolved(pieces.catPath, *pieces.directory), pieces.base, pieces.extension);
        const std::string whole = joined(parts);
        checkCatPath(pieces, arguments);
        checkAllocPath(pieces, arguments, whole);
        checkPath(arguments, whole, parts.size(), size);
        checkPath(arguments, whole, parts.size(), UINT16_MAX);
        checkBaseExt(whole);
    }
    arguments.check();
}
