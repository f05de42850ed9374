// What every fuzz target shares: an input to take values from, buffers that show what was written
// around them, files, and the checks that end the process.
//
// Why: a target is one function, fuzzInput(), that makes calls as the bytes of an input say and
// compares what they did with a model. Around it, the same is checked for all of them: memory,
// descriptors and handles are as before, nothing was logged that the target did not ask for, and
// the fatal path was not taken.
//
// A program links one target. Under libFuzzer it looks for new inputs (`./run fuzz`); in every
// other build replay.cpp feeds it those that are kept in corpus/<target>.
#ifndef RM_TESTS_FUZZ_FUZZ_H
#define RM_TESTS_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

// What libFuzzer calls, by names that are its own.
// NOLINTBEGIN(readability-identifier-naming)
extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

// NOLINTEND(readability-identifier-naming)

namespace rmfuzz
{

// Reports the condition and aborts.
[[noreturn]] void fail(const char* condition, const char* file, int line);

// The bytes of an input, taken from the front. Where none are left, zeros come.
class Input
{
  public:
    Input(const uint8_t* data, std::size_t size) : left_(reinterpret_cast<const char*>(data), size)
    {
    }

    bool empty() const { return left_.empty(); }

    uint8_t byte();
    int16_t int16();
    // Up to the next zero, which is dropped.
    std::string text();
    std::string rest();

  private:
    std::string_view left_;
};

// A caller's buffer of `size` bytes, none when that is negative, between two others.
class Buffer
{
  public:
    explicit Buffer(int64_t size);

    char* data() { return bytes_.data() + kGuard; }

    std::size_t size() const { return bytes_.size() - 2 * kGuard; }

    // What it holds; what was never written reads as kUntouched.
    std::string_view contents() const { return {bytes_.data() + kGuard, size()}; }

    // The text in it; fails when it has no end.
    std::string text() const;
    // True when all bytes from `from` on are as they were at first.
    bool untouched(std::size_t from = 0) const;
    // Fails when something was written outside.
    void check() const;

    static constexpr char kUntouched = '\xA5';

  private:
    static constexpr std::size_t kGuard = 32;  // bytes on either side

    std::vector<char> bytes_;
};

// A text as the library gets it: terminated, and its own allocation, so that a sanitizer sees a
// read beyond it.
class Text
{
  public:
    explicit Text(std::string_view text) : bytes_(text.size() + 1), original_(text)
    {
        original_.copy(bytes_.data(), original_.size());
    }

    const char* get() const { return bytes_.data(); }

    char* writable() { return bytes_.data(); }

    const std::string& original() const { return original_; }

    bool unchanged() const { return bytes() == std::string_view(original_.c_str(), bytes_.size()); }

    // All bytes, terminator included.
    std::string_view bytes() const { return {bytes_.data(), bytes_.size()}; }

  private:
    std::vector<char> bytes_;
    std::string original_;
};

// --- Files, in a directory of this process that goes with it

// Where they are, without a slash at the end.
const std::string& directory();
std::string pathOf(std::string_view name);
void writeFile(const std::string& path, std::string_view bytes);
// Fails when there is none.
std::string readFile(const std::string& path);
std::vector<std::string> directoryEntries();

// As long as it lives, the directory is the current one: some names have no room for a path.
class InDirectory
{
  public:
    InDirectory();
    ~InDirectory();

    InDirectory(const InDirectory&) = delete;
    InDirectory& operator=(const InDirectory&) = delete;

  private:
    int before_;
};

// Removes all files in it.
void clearDirectory();

// --- The log

// From here to the end of the input, lines may be logged.
void expectLog();
// What has been logged since the last call, or since the input began.
std::string takeLog();
// The same as messages, without their stamps.
std::vector<std::string> takeLines();

// --- The library as a whole

// Runs `body`. False when it took the fatal path; what it had in progress is then abandoned.
// Nothing of it reaches standard output.
bool comesBack(const std::function<void()>& body);
// What the last one has printed to standard output.
const std::string& printed();
// The last line of the fatal path, which is always the same here: its banner has been used up.
extern const char* const kFatalEnd;

// Gives all memory back, as a host does that starts over, and says how segments are got from here
// on: each as large as one request, or as their tags ask. Whatever the input leaves is given back.
void beginAnew(bool exactSegments);

// --- The target's own

// Runs one input.
void fuzzInput(Input& input);

}  // namespace rmfuzz

#define FUZZ_CHECK(condition) \
    ((condition) ? static_cast<void>(0) : rmfuzz::fail(#condition, __FILE__, __LINE__))

#endif
