// The frame around a target: what is set before the first input and checked after each.
#include "fuzz.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace
{
constexpr mode_t kOwnerOnly = 0600;

std::string scratch;         // the directory for files
std::string logged;          // since it was last taken
bool logIsExpected = false;  // else a line goes to descriptor 2 as well, and fails the input
FileHandle heldHandle = RM_NONE;
FILE* logStream = nullptr;       // in the place of stderr while an input runs
jmp_buf* fatalTarget = nullptr;  // of the input as a whole
bool startedAnew = false;        // all memory was given back since the input began
std::string usualSegments;       // SEG_ALLOC as it was at first
std::string printedText;         // by the last call that might not come back
FILE* printStream = nullptr;     // in the place of stdout meanwhile

ssize_t writeLog(void* /*cookie*/, const char* bytes, std::size_t size)
{
    logged.append(bytes, size);
    if (!logIsExpected && write(STDERR_FILENO, bytes, size) < 0) {
        return 0;
    }
    return static_cast<ssize_t>(size);
}

ssize_t writePrinted(void* /*cookie*/, const char* bytes, std::size_t size)
{
    printedText.append(bytes, size);
    return static_cast<ssize_t>(size);
}

FILE* streamInto(cookie_write_function_t* write)
{
    cookie_io_functions_t functions = {};
    functions.write = write;
    FILE* stream = fopencookie(nullptr, "w", functions);
    FUZZ_CHECK(stream != nullptr && setvbuf(stream, nullptr, _IONBF, 0) == 0);
    return stream;
}

void removeScratch()
{
    rmfuzz::clearDirectory();
    rmdir(scratch.c_str());
}

// TMPDIR when it is set; else where files cost no disk.
void makeScratch()
{
    const char* parent = std::getenv("TMPDIR");
    if (parent == nullptr) {
        parent = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    }
    scratch = std::string(parent) + "/rm-fuzz-XXXXXX";  // mkdtemp replaces the last six
    FUZZ_CHECK(mkdtemp(scratch.data()) != nullptr);
    FUZZ_CHECK(std::atexit(removeScratch) == 0);
}

// Never closed: the handle table would be made and freed by every call that opens a file.
void holdHandle()
{
    heldHandle = rm_fileOpen("/dev/null", RM_O_RDONLY, 0, 0, 0);
    FUZZ_CHECK(heldHandle != RM_NONE);
}

// The banner of the fatal path comes once in a process: no input shall be the one that sees it.
void useUpBanner()
{
    FILE* const standardError = stderr;
    stderr = logStream;
    logIsExpected = true;
    FUZZ_CHECK(!rmfuzz::comesBack([] { fatalRMExit("none"); }));
    stderr = standardError;
}

// A client that is alone needs no semaphores.
bool setUp()
{
    fileSem = RM_NULL_SYNC;
    growSem = RM_NULL_SYNC;
    fileCommit = 0;
    unsetenv("CATPATH");
    makeScratch();
    logStream = streamInto(writeLog);
    printStream = streamInto(writePrinted);
    const char* segments = std::getenv("SEG_ALLOC");
    usualSegments = segments == nullptr ? "0" : segments;
    useUpBanner();
    holdHandle();
    return true;
}

int lowestFreeDescriptor()
{
    const int fd = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    FUZZ_CHECK(fd != -1);
    close(fd);
    return fd;
}

// What an input may not change.
struct State {
    uint32_t memory;
    int16_t tags;
    int descriptor;
};

// The held handle has its descriptor, also when others have taken it meanwhile.
State stateNow()
{
    FUZZ_CHECK(rm_fileSeek(heldHandle, 0) == 0);
    return {rm_memused(), rmalloc::nTags, lowestFreeDescriptor()};
}

void runWithoutJump(const uint8_t* data, std::size_t size)
{
    jmp_buf frame;
    if (setjmp(frame) != 0) {
        rmfuzz::fail("the library did not take its fatal path", __FILE__, __LINE__);
    }
    rm_errorJump(frame);
    rm_exitJump(frame);
    fatalTarget = &frame;
    rmfuzz::Input input(data, size);
    rmfuzz::fuzzInput(input);
    fatalTarget = nullptr;
}

// Back to what an input begins with. A segment size that is no multiple of 8 is counted whole when
// the segment is got, and in units when it is given back, so bytes may be left over.
void endAnew()
{
    startedAnew = false;
    setenv("SEG_ALLOC", usualSegments.c_str(), 1);
    rm_freeall();
    FUZZ_CHECK(file::ftab == nullptr && rmalloc::tagTable == nullptr);
    rmalloc::memused = 0;
    holdHandle();
}
}  // namespace

const char* const rmfuzz::kFatalEnd = "Exiting to shutdown processing";

void rmfuzz::fail(const char* condition, const char* file, int line)
{
    // Unexpected lines are there already.
    dprintf(STDERR_FILENO, "%s:%d: does not hold: %s\n%s", file, line, condition,
            logIsExpected ? logged.c_str() : "");
    removeScratch();
    std::abort();
}

uint8_t rmfuzz::Input::byte()
{
    if (left_.empty()) {
        return 0;
    }
    const auto first = static_cast<uint8_t>(left_.front());
    left_.remove_prefix(1);
    return first;
}

int16_t rmfuzz::Input::int16()
{
    const unsigned low = byte();
    const unsigned high = byte();
    return static_cast<int16_t>(low | high << 8U);
}

std::string rmfuzz::Input::text()
{
    const std::size_t length = std::min(left_.find('\0'), left_.size());
    std::string result(left_.substr(0, length));
    left_.remove_prefix(std::min(length + 1, left_.size()));
    return result;
}

std::string rmfuzz::Input::rest()
{
    std::string result(left_);
    left_ = {};
    return result;
}

rmfuzz::Buffer::Buffer(int64_t size)
    : bytes_(static_cast<std::size_t>(std::max<int64_t>(size, 0)) + 2 * kGuard, kUntouched)
{
}

std::string rmfuzz::Buffer::text() const
{
    const std::size_t length = contents().find('\0');
    FUZZ_CHECK(length != std::string_view::npos);
    return std::string(contents().substr(0, length));
}

bool rmfuzz::Buffer::untouched(std::size_t from) const
{
    return contents().find_first_not_of(kUntouched, from) == std::string_view::npos;
}

void rmfuzz::Buffer::check() const
{
    const auto isUntouched = [](char c) { return c == kUntouched; };
    FUZZ_CHECK(std::all_of(bytes_.begin(), bytes_.begin() + kGuard, isUntouched));
    FUZZ_CHECK(std::all_of(bytes_.end() - kGuard, bytes_.end(), isUntouched));
}

const std::string& rmfuzz::directory()
{
    return scratch;
}

std::string rmfuzz::pathOf(std::string_view name)
{
    return scratch + "/" + std::string(name);
}

void rmfuzz::writeFile(const std::string& path, std::string_view bytes)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kOwnerOnly);
    FUZZ_CHECK(fd != -1);
    FUZZ_CHECK(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    close(fd);
}

std::string rmfuzz::readFile(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    FUZZ_CHECK(fd != -1);
    struct stat status = {};
    FUZZ_CHECK(fstat(fd, &status) == 0);
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    FUZZ_CHECK(read(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    close(fd);
    return bytes;
}

std::vector<std::string> rmfuzz::directoryEntries()
{
    std::vector<std::string> names;
    DIR* stream = opendir(scratch.c_str());
    if (stream != nullptr) {
        for (const dirent* entry = readdir(stream); entry != nullptr; entry = readdir(stream)) {
            const std::string_view name = entry->d_name;
            if (name != "." && name != "..") {
                names.emplace_back(name);
            }
        }
        closedir(stream);
    }
    std::sort(names.begin(), names.end());
    return names;
}

rmfuzz::InDirectory::InDirectory() : before_(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    FUZZ_CHECK(before_ != -1 && chdir(scratch.c_str()) == 0);
}

rmfuzz::InDirectory::~InDirectory()
{
    FUZZ_CHECK(fchdir(before_) == 0);
    close(before_);
}

void rmfuzz::clearDirectory()
{
    for (const std::string& name : directoryEntries()) {
        unlink(pathOf(name).c_str());
    }
}

void rmfuzz::expectLog()
{
    logIsExpected = true;
}

std::string rmfuzz::takeLog()
{
    return std::exchange(logged, {});
}

std::vector<std::string> rmfuzz::takeLines()
{
    constexpr std::size_t kStamp = 22;  // bytes: "[07-Mar-96 14:05:09]  "
    const std::string text = takeLog();
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        FUZZ_CHECK(end != std::string::npos && end >= at + kStamp);
        lines.push_back(text.substr(at + kStamp, end - at - kStamp));
        at = end + 1;
    }
    return lines;
}

bool rmfuzz::comesBack(const std::function<void()>& body)
{
    jmp_buf frame;
    volatile bool returned = false;
    FILE* const standardOutput = stdout;
    stdout = printStream;
    printedText.clear();
    if (setjmp(frame) == 0) {
        rm_errorJump(frame);
        body();
        returned = true;
    }
    stdout = standardOutput;
    if (fatalTarget != nullptr) {
        rm_errorJump(*fatalTarget);
    }
    return returned;
}

const std::string& rmfuzz::printed()
{
    return printedText;
}

void rmfuzz::beginAnew(bool exactSegments)
{
    setenv("SEG_ALLOC", exactSegments ? "1" : "0", 1);
    rm_freeall();
    startedAnew = true;
}

int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/)
{
    // Every block its own allocation, so that the sanitizer sees its borders.
    return setenv("SEG_ALLOC", "1", 0);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static const bool ready = setUp();
    const State before = stateNow();
    logged.clear();
    logIsExpected = false;

    FILE* const standardError = stderr;
    stderr = logStream;
    runWithoutJump(data, size);
    stderr = standardError;

    FUZZ_CHECK(logIsExpected || logged.empty());
    const bool anew = startedAnew;
    if (anew) {
        FUZZ_CHECK(rmalloc::checkMemory() == 0);
        endAnew();
    }
    FUZZ_CHECK(file::nHandles == 1 && file::usedEntry(heldHandle) != nullptr);
    FUZZ_CHECK(file::checkFtab() == 0);
    FUZZ_CHECK(rmalloc::checkMemory() == 0);
    const State after = stateNow();
    FUZZ_CHECK(anew || after.memory == before.memory);
    FUZZ_CHECK(anew || after.tags == before.tags);
    FUZZ_CHECK(after.descriptor == before.descriptor);
    return ready ? 0 : 1;
}
