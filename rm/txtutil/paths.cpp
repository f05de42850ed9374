// Paths: a directory, a base name and an extension make one.
//
// Why: the configuration names directories relative to where the server's data lives, not to where
// a process happens to run. So a directory that begins with a dot counts from the directory that
// the variable CATPATH names.
//
// Owns: nothing. Fatal: no memory.
#include "rm/txtutil/txtutil.h"

#include <algorithm>
#include <cstring>

using namespace txtutil;

namespace
{
constexpr uint16_t kMostPieces = 5;  // directory, separator, base, dot, extension
constexpr char kSeparator = '/';

// Bytes of `catPath` that stay in front of what is relative to it. A parent reference drops the
// last component. One slash at the end is dropped, and only one: the rest is as the host gave it.
std::size_t keptLength(const char* catPath, bool parent)
{
    std::size_t length = std::strlen(catPath);
    if (parent) {
        // Not the last byte: a slash there belongs to the last component. Without any other slash
        // nothing is kept.
        length = length > 0 ? length - 1 : 0;
        while (length > 0 && catPath[length - 1] != kSeparator) {
            --length;
        }
    }
    return length > 0 && catPath[length - 1] == kSeparator ? length - 1 : length;
}

// The directory to build a path with. `*fromCatPath` is null, or what has to be freed afterwards.
const char* resolve(const char* directory, char** fromCatPath)
{
    *fromCatPath = nullptr;
    if (directory == nullptr || directory[0] != '.') {
        return directory;
    }
    // Deliberate: without CATPATH the directory is dropped, and the path counts from where the
    // process runs.
    *fromCatPath = allocWithCatPath(directory);
    return *fromCatPath;
}
}  // namespace

char* pathBaseExt(const char* path)
{
    if (path == nullptr) {
        return nullptr;
    }
    const char* slash = std::strrchr(path, kSeparator);
    return const_cast<char*>(slash != nullptr ? slash + 1 : path);
}

uint16_t makePathInt(const char** parts, const char* directory, const char* base,
                     const char* extension)
{
    uint16_t count = 0;
    if (directory != nullptr) {
        parts[count++] = directory;
        const std::size_t length = std::strlen(directory);
        if (length > 0 && directory[length - 1] != kSeparator) {
            parts[count++] = "/";
        }
    }
    if (base != nullptr) {
        parts[count++] = base;
    }
    if (extension != nullptr) {
        parts[count++] = ".";
        parts[count++] = extension;
    }
    return count;
}

char* allocWithCatPath(const char* directory)
{
    const char* catPath = rm_getenv("CATPATH");
    if (catPath == nullptr || directory == nullptr || directory[0] != '.') {
        return nullptr;
    }
    const bool parent = directory[1] == '.';
    const char* rest = directory + (parent ? 2 : 1);
    const std::size_t kept = keptLength(catPath, parent);
    const std::size_t size = std::strlen(catPath) + std::strlen(directory) + 1;
    auto* path = static_cast<char*>(rm_cGetMemory(static_cast<uint32_t>(size), 0));
    std::memcpy(path, catPath, kept);
    char* end = path + kept;
    if (*rest != kSeparator) {
        *end++ = kSeparator;
    }
    std::strcpy(end, rest);
    return path;
}

char* makeAllocPath(const char* directory, const char* base, const char* extension, int16_t tag)
{
    if (base != nullptr && std::strchr(base, kSeparator) != nullptr) {
        return rm_Strdup(base, tag);
    }
    char* fromCatPath = nullptr;
    const char* parts[kMostPieces] = {""};  // of nothing at all an empty path is made
    const uint16_t count = makePathInt(parts, resolve(directory, &fromCatPath), base, extension);
    char* path = StrArrayCat(parts, static_cast<int16_t>(std::max<uint16_t>(count, 1)), tag);
    rm_freeMemory(fromCatPath, 0);
    return path;
}

int16_t makePath(char* buffer, uint16_t size, const char* directory, const char* base,
                 const char* extension)
{
    // Deliberate: a base with a slash is joined like any other, unlike in makeAllocPath.
    char* fromCatPath = nullptr;
    const char* parts[kMostPieces];
    const uint16_t count = makePathInt(parts, resolve(directory, &fromCatPath), base, extension);
    const int16_t status = StrArrayCatBuf(parts, count, buffer, size);
    rm_freeMemory(fromCatPath, 0);
    return status;
}
