// Managed files while calls of the system fail, and succeed in part. What a call says that it wrote
// is in the file, where it says; what it says that it read was there; what failed changes nothing
// outside the bytes that it was about; and whatever happens, the table is sound.
//
// Input: for each call a byte, one for what fails during it (0 is nothing), one for the error and
// how often, then what the call is made with.
#include "fuzz.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>

#include <fcntl.h>
#include <unistd.h>

// The linker leads the calls of the system to the first of each. Their names are the linker's; some
// are called by another one where an offset has 64 bits.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" int __wrap_open(const char* path, int flags, ...);
extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __wrap_open64(const char* path, int flags, ...);
extern "C" int __real_open64(const char* path, int flags, ...);
extern "C" int __wrap_close(int fd);
extern "C" int __real_close(int fd);
extern "C" ssize_t __wrap_read(int fd, void* buffer, std::size_t size);
extern "C" ssize_t __real_read(int fd, void* buffer, std::size_t size);
extern "C" ssize_t __wrap_write(int fd, const void* bytes, std::size_t size);
extern "C" ssize_t __real_write(int fd, const void* bytes, std::size_t size);
extern "C" off_t __wrap_lseek(int fd, off_t offset, int whence);
extern "C" off_t __real_lseek(int fd, off_t offset, int whence);
extern "C" off_t __wrap_lseek64(int fd, off_t offset, int whence);
extern "C" off_t __real_lseek64(int fd, off_t offset, int whence);
extern "C" int __wrap_fsync(int fd);

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Input;
using rmfuzz::Text;

constexpr int kMostCalls = 80;
constexpr uint32_t kPaths = 3;
constexpr std::size_t kMostHandles = 8;
constexpr uint32_t kMostOffset = 9'000;
constexpr mode_t kOwnerOnly = 0600;  // of every file that is made here

enum Call : uint8_t {
    kOpen,
    kWrite,
    kSeekWrite,
    kSeekWriteToo,
    kRead,
    kSeekRead,
    kSeek,
    kLength,
    kSync,
    kClose,
    kLimit,
    kDiskFull,
    kCalls,
};

enum Victim : uint8_t {
    kNothing,
    kOfOpen,
    kOfClose,
    kOfRead,
    kOfWrite,
    kOfSeek,
    kShortWrite,
    kShortRead,
    kVictims,
};

struct Fault {
    Victim victim;
    int error;
    int skip;   // calls that are left alone first
    int times;  // calls that fail then
};

Fault fault = {kNothing, 0, 0, 0};

bool strikes(Victim victim)
{
    if (fault.victim != victim || fault.times == 0) {
        return false;
    }
    if (fault.skip > 0) {
        --fault.skip;
        return false;
    }
    --fault.times;
    if (victim != kShortWrite && victim != kShortRead) {
        errno = fault.error;
    }
    return true;
}

// What is known of a file: the bytes that nothing has made uncertain.
class KnownFile
{
  public:
    // Of the bytes, the first `done` were written; what has become of the others nobody says.
    void write(std::size_t at, const std::string& bytes, std::size_t done)
    {
        known_.resize(std::max(known_.size(), at + bytes.size()), kUnknown);
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            known_[at + i] =
                i < done ? static_cast<int16_t>(static_cast<unsigned char>(bytes[i])) : kUnknown;
        }
    }

    bool agrees(std::size_t at, std::string_view bytes) const
    {
        for (std::size_t i = 0; i < bytes.size() && at + i < known_.size(); ++i) {
            const int16_t known = known_[at + i];
            if (known != kUnknown && known != static_cast<unsigned char>(bytes[i])) {
                return false;
            }
        }
        return true;
    }

    // Behind the last byte that is known.
    std::size_t end() const
    {
        std::size_t end = known_.size();
        while (end > 0 && known_[end - 1] == kUnknown) {
            --end;
        }
        return end;
    }

  private:
    static constexpr int16_t kUnknown = -1;

    std::vector<int16_t> known_;
};

class Run
{
  public:
    explicit Run(Input& input) : input_(input)
    {
        rmfuzz::beginAnew(true);
        rmfuzz::clearDirectory();
        fileHandleLimit = 2;
        rm_setDiskFull(0);
        fileCommit = 1;
    }

    void step()
    {
        constexpr std::array kErrors = {EIO, ENOSPC, EINTR, EMFILE, EAGAIN};
        const auto call = static_cast<Call>(input_.byte() % kCalls);
        const auto victim = static_cast<Victim>(input_.byte() % kVictims);
        const uint8_t how = input_.byte();
        wanted_ = {victim, kErrors.at(how % kErrors.size()), how / 8 % 4, 1 + how / 32};
        make(call);
        rmfuzz::takeLog();
        FUZZ_CHECK(file::checkFtab() == 0);
        for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
            FUZZ_CHECK(file::ftab[slot]->busyCount == 0);
        }
        dropGone();
    }

    void end()
    {
        for (const auto& handle : handles_) {
            rm_fileClose(handle.first);
        }
        FUZZ_CHECK(file::ftab == nullptr);
        for (const auto& [path, known] : files_) {
            const std::string bytes = rmfuzz::readFile(path);
            FUZZ_CHECK(known.agrees(0, bytes) && known.end() <= bytes.size());
        }
        fileHandleLimit = 32;
        rm_setDiskFull(1);
        fileCommit = 0;
        rmfuzz::clearDirectory();
    }

  private:
    // Runs a call while the system fails. False when it was fatal.
    template <typename Body>
    bool runs(const Body& body)
    {
        const bool returned = rmfuzz::comesBack([&] {
            fault = wanted_;
            body();
        });
        fault = {kNothing, 0, 0, 0};
        return returned;
    }

    // The handle of a file that could not be opened again has gone.
    void dropGone()
    {
        std::erase_if(handles_,
                      [](const auto& handle) { return file::usedEntry(handle.first) == nullptr; });
        FUZZ_CHECK(static_cast<std::size_t>(file::nHandles) == handles_.size());
    }

    int16_t handle()
    {
        auto at = handles_.begin();
        std::advance(at, static_cast<std::ptrdiff_t>(input_.byte() % handles_.size()));
        return at->first;
    }

    KnownFile& fileOf(int16_t handle) { return files_[handles_.at(handle)]; }

    uint32_t offset() { return static_cast<uint16_t>(input_.int16()) % kMostOffset; }

    std::string bytes()
    {
        std::string bytes(1 + input_.byte() * std::size_t{8}, '\0');
        uint32_t state = input_.byte();
        for (char& byte : bytes) {
            state = state * 1664525 + 1013904223;
            byte = static_cast<char>(state >> 24U);
        }
        return bytes;
    }

    void open()
    {
        if (handles_.size() == kMostHandles) {
            return;
        }
        const std::string path =
            rmfuzz::pathOf(std::string(1, static_cast<char>('a' + input_.byte() % kPaths)));
        const auto step = static_cast<uint32_t>(input_.byte() * 16);
        int16_t handle = RM_NONE;
        FUZZ_CHECK(
            runs([&] { handle = rm_fileOpen(path.c_str(), RM_O_RDWR | RM_O_CREAT, 0, 0, step); }));
        if (handle != RM_NONE) {
            handles_[handle] = path;
            files_[path];
        }
    }

    void write(bool positioned)
    {
        const int16_t one = handle();
        KnownFile& file = fileOf(one);
        const Text data(bytes());
        const auto size = static_cast<uint32_t>(data.original().size());
        const uint32_t at = positioned ? offset() : rm_filePosition(one);
        uint32_t written = 0;
        // To extend a file in vain is fatal.
        const bool returned = runs([&] {
            written = positioned ? rm_fileSeekWrite(one, at, data.get(), size)
                                 : rm_fileWrite(one, data.get(), size);
        });
        FUZZ_CHECK(written <= size && data.unchanged());
        FUZZ_CHECK(!returned || written == 0 || rm_filePosition(one) == at + written);
        file.write(at, data.original(), returned ? written : 0);
    }

    void read(bool positioned)
    {
        const int16_t one = handle();
        const KnownFile& file = fileOf(one);
        const auto size = static_cast<uint32_t>(1 + input_.byte() * 8);
        const uint32_t at = positioned ? offset() : rm_filePosition(one);
        Buffer buffer(size);
        uint32_t count = 0;
        FUZZ_CHECK(runs([&] {
            count = positioned ? rm_fileSeekRead(one, at, buffer.data(), size)
                               : rm_fileRead(one, buffer.data(), size);
        }));
        FUZZ_CHECK(count <= size);
        FUZZ_CHECK(count == 0 || rm_filePosition(one) == at + count);
        buffer.check();
        FUZZ_CHECK(file.agrees(at, buffer.contents().substr(0, count)));
    }

    void seek()
    {
        const int16_t one = handle();
        const uint32_t to = offset();
        uint32_t result = 0;
        FUZZ_CHECK(runs([&] { result = rm_fileSeek(one, to); }));
        FUZZ_CHECK(result == to || result == RM_CURRENT_POSITION);
        FUZZ_CHECK(result != to || rm_filePosition(one) == to);
    }

    void make(Call call)
    {
        if (call == kOpen || (handles_.empty() && call != kLimit && call != kDiskFull)) {
            open();
            return;
        }
        switch (call) {
            case kRead:
                read(false);
                break;
            case kSeekRead:
                read(true);
                break;
            case kSeek:
                seek();
                break;
            case kLength: {
                const int16_t one = handle();
                uint32_t length = 0;
                FUZZ_CHECK(runs([&] { length = rm_fileLength(one); }));
                FUZZ_CHECK(length == 0 || length >= fileOf(one).end());
                break;
            }
            case kSync: {
                const int16_t one = handle();
                FUZZ_CHECK(runs([&] { rm_fileSync(one); }));
                break;
            }
            case kClose: {
                const int16_t one = handle();
                FUZZ_CHECK(runs([&] { rm_fileClose(one); }));
                break;
            }
            case kLimit:
                fileHandleLimit = static_cast<int16_t>(1 + input_.byte() % 4);
                break;
            case kDiskFull:
                rm_setDiskFull(static_cast<int16_t>(input_.byte() % 2));
                break;
            default:
                write(call != kWrite);
                break;
        }
    }

    Input& input_;
    std::map<int16_t, std::string> handles_;  // and their paths
    std::map<std::string, KnownFile> files_;
    Fault wanted_ = {kNothing, 0, 0, 0};
};
}  // namespace

int __wrap_open(const char* path, int flags, ...)
{
    return strikes(kOfOpen) ? -1 : __real_open(path, flags, kOwnerOnly);
}

int __wrap_open64(const char* path, int flags, ...)
{
    return strikes(kOfOpen) ? -1 : __real_open64(path, flags, kOwnerOnly);
}

// What the system does: the descriptor has gone all the same.
int __wrap_close(int fd)
{
    const int result = __real_close(fd);
    return strikes(kOfClose) ? -1 : result;
}

ssize_t __wrap_read(int fd, void* buffer, std::size_t size)
{
    if (strikes(kOfRead)) {
        return -1;
    }
    return __real_read(fd, buffer, strikes(kShortRead) ? (size + 1) / 2 : size);
}

ssize_t __wrap_write(int fd, const void* bytes, std::size_t size)
{
    if (strikes(kOfWrite)) {
        return -1;
    }
    return __real_write(fd, bytes, strikes(kShortWrite) ? (size + 1) / 2 : size);
}

off_t __wrap_lseek(int fd, off_t offset, int whence)
{
    return strikes(kOfSeek) ? -1 : __real_lseek(fd, offset, whence);
}

off_t __wrap_lseek64(int fd, off_t offset, int whence)
{
    return strikes(kOfSeek) ? -1 : __real_lseek64(fd, offset, whence);
}

// The disk itself is not the subject.
int __wrap_fsync(int /*fd*/)
{
    return 0;
}

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    Run run(input);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        run.step();
    }
    run.end();
}
