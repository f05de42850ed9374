// Files copied, moved, renamed and removed among a few paths, some of which lead to one file, with
// handles that come and go and few descriptors, beside a model of the files.
//
// Input: for each call a byte, then what it is made with. 0x40 of a call takes another file system
// for its destination: no rename works.
#include "fuzz.h"

#include "rm.h"
#include "rm/file/file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <optional>

// The linker leads all renames to the first. Their names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" int __wrap_rename(const char* from, const char* to);
extern "C" int __real_rename(const char* from, const char* to);

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace
{
using rmfuzz::Input;
using rmfuzz::Text;

constexpr int kMostCalls = 60;
constexpr std::size_t kMostHandles = 5;

enum Call : uint8_t {
    kCopy,
    kMove,
    kWrite,
    kOpen,
    kClose,
    kRemove,
    kRename,
    kLimit,
    kTempName,
    kCalls,
};

// A path and the file to which it leads; none for one that leads nowhere.
struct Path {
    const char* text;
    const char* file;
};

constexpr std::array<Path, 12> kPaths = {{
    {"a", "a"},
    {"b", "b"},
    {"c", "c"},
    {"./a", "a"},
    {".//b", "b"},
    {"././c", "c"},
    {"missing/d", ""},
    {"a/e", ""},
    {"", ""},
    {"A", "A"},
    {"a ", "a "},
    {"\xff", "\xff"},
}};

bool acrossFileSystems = false;

class FilesModel
{
  public:
    std::map<std::string, std::string> files;
    std::map<int16_t, std::string> handles;  // by the texts that they were opened with

    int32_t copy(const Path& source, const Path& destination)
    {
        if (same(source, destination)) {
            return RM_SUCCESS;
        }
        remove(destination);
        if (!exists(source) || !leads(destination) || exists(destination)) {
            return RM_COPY_FAILED;
        }
        files[destination.file] = files[source.file];
        return RM_SUCCESS;
    }

    int32_t move(const Path& source, const Path& destination)
    {
        if (same(source, destination)) {
            return RM_SUCCESS;
        }
        remove(destination);
        if (rename(source, destination)) {
            return RM_SUCCESS;
        }
        const int32_t result = copy(source, destination);
        if (result == RM_SUCCESS) {
            remove(source);
        }
        return result;
    }

    // A path that is open, byte for byte, is not removed.
    bool remove(const Path& path)
    {
        const bool isOpen = std::any_of(handles.begin(), handles.end(), [&](const auto& handle) {
            return handle.second == path.text;
        });
        return !isOpen && leads(path) && files.erase(path.file) == 1;
    }

    bool rename(const Path& source, const Path& destination)
    {
        if (acrossFileSystems || !exists(source) || !leads(destination)) {
            return false;
        }
        if (std::string_view(source.file) != destination.file) {
            files[destination.file] = files[source.file];
            files.erase(source.file);
        }
        return true;
    }

    bool exists(const Path& path) const { return leads(path) && files.contains(path.file); }

  private:
    static bool same(const Path& source, const Path& destination)
    {
        return std::string_view(source.text) == destination.text;
    }

    static bool leads(const Path& path) { return *path.file != '\0'; }
};

class Run
{
  public:
    explicit Run(Input& input) : input_(input) { rmfuzz::clearDirectory(); }

    void step()
    {
        const uint8_t call = input_.byte();
        acrossFileSystems = (call & 0x40U) != 0;
        make(static_cast<Call>((call & 0x3FU) % kCalls));
        acrossFileSystems = false;
        compare();
    }

    void end()
    {
        while (!model_.handles.empty()) {
            close(0);
        }
        fileHandleLimit = 32;
        rmfuzz::clearDirectory();
    }

  private:
    const Path& path() { return kPaths.at(input_.byte() % kPaths.size()); }

    // Of sizes around those of the steps of a copy.
    std::string bytes()
    {
        constexpr std::array<std::size_t, 8> kSizes = {0, 1, 100, 4095, 4096, 4097, 8192, 12'289};
        std::string bytes(kSizes.at(input_.byte() % kSizes.size()), '\0');
        uint32_t state = input_.byte();
        for (char& byte : bytes) {
            state = state * 1664525 + 1013904223;
            byte = static_cast<char>(state >> 24U);
        }
        return bytes;
    }

    void close(std::size_t which)
    {
        const auto at = std::next(model_.handles.begin(), static_cast<std::ptrdiff_t>(which));
        rm_fileClose(at->first);
        model_.handles.erase(at);
    }

    void open(const Path& path)
    {
        if (model_.handles.size() == kMostHandles) {
            return;
        }
        const int16_t handle = rm_fileOpen(path.text, RM_O_RDONLY, 0, 0, 0);
        FUZZ_CHECK((handle != RM_NONE) == model_.exists(path));
        if (handle != RM_NONE) {
            model_.handles[handle] = path.text;
        }
    }

    // A new file in the place of an old one, which handles may still have.
    void write(const Path& path)
    {
        if (*path.file != '\0') {
            std::remove(path.file);
            model_.files[path.file] = bytes();
            rmfuzz::writeFile(path.file, model_.files[path.file]);
        }
    }

    static void checkTempName(const char* path)
    {
        char* name = rm_fileTempName(path);
        FUZZ_CHECK(name != nullptr && *name == '/' && rm_fileValidate(name) != 0);
        char* other = rm_flTempName();
        FUZZ_CHECK(other != nullptr && std::string_view(name) != other);
        rm_freeMemory(name, 0);
        rm_freeMemory(other, 0);
    }

    void transfer(Call call, const Path& source, const Path& destination)
    {
        const Text from(source.text);
        const Text to(destination.text);
        if (call == kMove) {
            FUZZ_CHECK(rm_fileMove(from.get(), to.get()) == model_.move(source, destination));
        } else if (call == kRename) {
            FUZZ_CHECK((rm_fileRename(from.get(), to.get()) == 0) ==
                       model_.rename(source, destination));
        } else {
            FUZZ_CHECK(rm_fileCopy(from.get(), to.get()) == model_.copy(source, destination));
        }
        FUZZ_CHECK(from.unchanged() && to.unchanged());
    }

    void make(Call call)
    {
        const Path& one = path();
        switch (call) {
            case kWrite:
                write(one);
                break;
            case kOpen:
                open(one);
                break;
            case kClose:
                if (!model_.handles.empty()) {
                    close(input_.byte() % model_.handles.size());
                }
                break;
            case kRemove: {
                const bool removed = model_.remove(one);
                FUZZ_CHECK((rm_fileRemove(one.text) == 0) == removed);
                break;
            }
            case kLimit:
                fileHandleLimit = static_cast<int16_t>(1 + input_.byte() % 6);
                break;
            case kTempName:
                checkTempName(one.text);
                break;
            default:
                transfer(call, one, path());
                break;
        }
    }

    void compare() const
    {
        std::vector<std::string> names;
        for (const auto& [name, bytes] : model_.files) {
            names.push_back(name);
            FUZZ_CHECK(rmfuzz::readFile(name) == bytes);
        }
        FUZZ_CHECK(rmfuzz::directoryEntries() == names);
        for (const auto& [handle, text] : model_.handles) {
            const file::FileEntry* entry = file::usedEntry(handle);
            FUZZ_CHECK(entry != nullptr && text == entry->name);
        }
        FUZZ_CHECK(static_cast<std::size_t>(file::nHandles) == model_.handles.size() + 1);
    }

    Input& input_;
    const rmfuzz::InDirectory inDirectory_;
    FilesModel model_;
};
}  // namespace

int __wrap_rename(const char* from, const char* to)
{
    if (acrossFileSystems) {
        errno = EXDEV;
        return -1;
    }
    return __real_rename(from, to);
}

void rmfuzz::fuzzInput(Input& input)
{
    Run run(input);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        run.step();
    }
    run.end();
}
