// Random copies and moves among a few paths, some of which lead to one file, with handles that
// come and go and few descriptors, compared step by step with a model of their own.
//
// The same run every time; RM_TEST_SEED makes another one, RM_TEST_OPERATIONS makes it longer or
// shorter.
#include "tests/rmutil/copy_case.h"

#include <map>
#include <random>
#include <set>

using namespace copytest;

namespace
{

constexpr long kOperations = 2000;
constexpr std::size_t kLargest = 20'000;  // bytes of a file

// A path that operations are given, and the file to which it leads; nothing for a path that leads
// nowhere.
struct Path {
    const char* text;
    const char* file;
};

constexpr Path kPaths[] = {
    {"a", "a"},
    {"b", "b"},
    {"c", "c"},
    {"./a", "a"},
    {".//b", "b"},
    {"dir/../c", "c"},
    {"dir/d", "dir/d"},
    {"dir", ""},
    {"missing/e", ""},
    {"a/f", ""},
    {"./dir/./d", "dir/d"},
};

// Files are strings, a handle is the text that it was opened with.
class CopyModel
{
  public:
    bool across = false;  // file systems: no rename works

    std::map<std::string, std::string> files;
    std::map<int, std::string> handles;

    int32_t copy(const Path& source, const Path& destination)
    {
        if (std::string_view(source.text) == destination.text) {
            return RM_SUCCESS;
        }
        remove(destination);
        if (!opens(source)) {
            return RM_COPY_FAILED;
        }
        if (!handles.contains(0)) {
            handles[0] = source.text;
            return RM_COPY_FAILED;
        }
        if (!canBeMade(destination)) {
            return RM_COPY_FAILED;
        }
        files[destination.file] = contents(source);
        return RM_SUCCESS;
    }

    int32_t move(const Path& source, const Path& destination)
    {
        if (std::string_view(source.text) == destination.text) {
            return RM_SUCCESS;
        }
        remove(destination);
        if (rename(source, destination)) {
            return RM_SUCCESS;
        }
        const int32_t result = copy(source, destination);
        // What cannot be read as a file was not copied whole.
        if (result != RM_SUCCESS || isDirectory(source)) {
            return RM_COPY_FAILED;
        }
        remove(source);
        return RM_SUCCESS;
    }

  private:
    static bool isDirectory(const Path& path) { return std::string_view(path.text) == "dir"; }

    static bool leads(const Path& path) { return *path.file != '\0'; }

    bool exists(const Path& path) const { return leads(path) && files.contains(path.file); }

    bool opens(const Path& path) const { return isDirectory(path) || exists(path); }

    std::string contents(const Path& path) const
    {
        return isDirectory(path) ? "" : files.at(path.file);
    }

    bool canBeMade(const Path& path) const { return leads(path) && !files.contains(path.file); }

    bool isOpen(const Path& path) const
    {
        return std::any_of(handles.begin(), handles.end(),
                           [&](const auto& handle) { return handle.second == path.text; });
    }

    // The directory is never empty.
    void remove(const Path& path)
    {
        if (!isOpen(path) && leads(path)) {
            files.erase(path.file);
        }
    }

    bool rename(const Path& source, const Path& destination)
    {
        if (across || !exists(source) || !leads(destination)) {
            return false;
        }
        if (std::string_view(source.file) != destination.file) {
            files[destination.file] = files[source.file];
            files.erase(source.file);
        }
        return true;
    }
};

class CopyRandom : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        random_.seed(rmtest::seedOfThisRun());
        std::filesystem::create_directory("dir");
        writeFile("dir/keeper", "");
        model_.files["dir/keeper"] = "";
    }

    uint32_t below(uint32_t n)
    {
        return std::uniform_int_distribution<uint32_t>(0, n - 1)(random_);
    }

    const Path& anyPath() { return kPaths[below(std::size(kPaths))]; }

    static std::map<std::string, std::string> filesThere()
    {
        std::map<std::string, std::string> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(".")) {
            const std::string path = entry.path().lexically_normal().string();
            if (entry.is_regular_file() && !path.starts_with(".ZNT")) {
                files[path] = readFile(path);
            }
        }
        return files;
    }

    // By their names: their contents are no reading.
    void expectFiles() const
    {
        const auto files = filesThere();
        for (const auto& [path, bytes] : model_.files) {
            EXPECT_TRUE(files.contains(path)) << path << " is missing";
            EXPECT_TRUE(!files.contains(path) || files.at(path) == bytes) << path << " is another";
        }
        for (const auto& [path, bytes] : files) {
            EXPECT_TRUE(model_.files.contains(path)) << path << " is left";
        }
    }

    void makeFile()
    {
        const Path& path = kPaths[below(3)];
        const std::string bytes = pattern(below(kLargest), below(1000));
        // Not the file that a handle may have: a new one.
        std::filesystem::remove(path.file);
        writeFile(path.file, bytes);
        model_.files[path.file] = bytes;
    }

    void openHandle()
    {
        const Path& path = anyPath();
        const int16_t handle = rm_fileOpen(path.text, RM_O_RDONLY, 0, 0, 0);
        if (handle != RM_NONE) {
            model_.handles[handle] = path.text;
        }
    }

    void closeHandle()
    {
        if (!model_.handles.empty()) {
            auto chosen = model_.handles.begin();
            std::advance(chosen, below(static_cast<uint32_t>(model_.handles.size())));
            rm_fileClose(static_cast<int16_t>(chosen->first));
            model_.handles.erase(chosen);
        }
    }

    void transfer(bool moves)
    {
        const Path& source = anyPath();
        const Path& destination = anyPath();
        // A directory that is renamed takes all files in it along; this model has no such thing.
        if (std::string_view(source.text) == "dir") {
            model_.across = true;
        }
        SCOPED_TRACE(std::string(moves ? "move " : "copy ") + source.text + " to " +
                     destination.text + (model_.across ? " across" : ""));
        const int32_t expected =
            moves ? model_.move(source, destination) : model_.copy(source, destination);
        const ScopedFault refused({.call = Call::kRename,
                                   .error = EXDEV,
                                   .times = kForever,
                                   .when = [this](const CallRecord&) { return model_.across; }});
        const int32_t result = moves ? rm_fileMove(source.text, destination.text)
                                     : rm_fileCopy(source.text, destination.text);
        EXPECT_EQ(result, expected);
        ++results_[result];
        expectFiles();
    }

    void step()
    {
        fileHandleLimit = static_cast<int16_t>(1 + below(6));
        model_.across = below(2) == 0;
        const uint32_t choice = below(10);
        if (choice < 2) {
            makeFile();
        } else if (choice == 2 && model_.handles.size() < 6) {
            openHandle();
        } else if (choice == 3) {
            closeHandle();
        } else {
            transfer(choice % 2 == 0);
        }
    }

    void compareHandles()
    {
        EXPECT_EQ(file::nHandles, static_cast<int16_t>(model_.handles.size()));
        for (const auto& [handle, text] : model_.handles) {
            const file::FileEntry* entry = file::usedEntry(static_cast<int16_t>(handle));
            ASSERT_NE(entry, nullptr);
            EXPECT_EQ(entry->name, text);
        }
        expectSound();
    }

    std::mt19937_64 random_;
    CopyModel model_;
    std::map<int32_t, int> results_;
};

TEST_F(CopyRandom, BehavesLikeItsModel)
{
    captureStderr([this] {  // directories are read
        const long operations = rmtest::operationsOfThisRun(kOperations);
        for (long n = 0; n < operations && !HasFailure(); ++n) {
            SCOPED_TRACE("operation " + std::to_string(n));
            step();
            compareHandles();
        }
    });
    EXPECT_GT(results_[RM_SUCCESS], 0);
    EXPECT_GT(results_[RM_COPY_FAILED], 0);
}

}  // namespace
