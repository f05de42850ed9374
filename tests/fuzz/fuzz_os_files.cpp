// The calls on descriptors, under any open flags, beside a file that is a string: what each
// returns, where the descriptor stands, what becomes of the file, and how often an interrupted read
// is repeated.
//
// Input: the file at first, with a zero behind it, then a byte for each call with what it needs.
#include "fuzz.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// The linker leads the calls of the system to these. Their names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" ssize_t __wrap_read(int fd, void* buffer, std::size_t size);
extern "C" ssize_t __real_read(int fd, void* buffer, std::size_t size);
extern "C" int __wrap_fsync(int fd);

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace
{
using rmfuzz::Buffer;
using rmfuzz::Input;
using rmfuzz::Text;

constexpr int kMostCalls = 100;
constexpr uint32_t kMostOffset = 20'000;
constexpr int kAttempts = 6;  // of a read that signals interrupt
constexpr uint32_t kAccess = 3;

enum Call : uint8_t {
    kOpen,
    kRead,
    kReadToo,
    kWrite,
    kSeek,
    kSize,
    kSetSize,
    kSync,
    kClose,
    kRename,
    kRemove,
    kCalls,
};

int interruptions = 0;  // of the next reads
int syncs = 0;

const std::string& filePath()
{
    static const std::string path = rmfuzz::pathOf("file");
    return path;
}

class Run
{
  public:
    explicit Run(Input& input) : input_(input), file_(input.text())
    {
        rmfuzz::clearDirectory();
        rmfuzz::writeFile(filePath(), *file_);
    }

    void step()
    {
        make(static_cast<Call>(input_.byte() % kCalls));
        interruptions = 0;
        compare();
    }

    void end()
    {
        close();
        fileCommit = 0;
        rmfuzz::clearDirectory();
    }

  private:
    bool mayRead() const { return (flags_ & kAccess) != RM_O_WRONLY; }

    bool mayWrite() const { return (flags_ & kAccess) != RM_O_RDONLY; }

    std::string bytes()
    {
        std::string bytes(input_.byte() * std::size_t{4}, '\0');
        uint32_t state = input_.byte();
        for (char& byte : bytes) {
            state = state * 1664525 + 1013904223;
            byte = static_cast<char>(state >> 24U);
        }
        return bytes;
    }

    // Bits that no machine but this one knows are left out: they say where the file may lie.
    void open()
    {
        close();
        const uint32_t flags = static_cast<uint16_t>(input_.int16()) & 0xFF6BU;
        int32_t fd = -2;
        const int16_t status = rm_flOpen(filePath().c_str(), flags, 0, 0600, &fd);
        const bool creates = (flags & RM_O_CREAT) != 0;
        const int expected = file_ && creates && (flags & RM_O_EXCL) != 0 ? EEXIST
                             : file_ || creates                           ? 0
                                                                          : ENOENT;
        FUZZ_CHECK(status == expected && (fd >= 0) == (expected == 0));
        if (status != 0) {
            FUZZ_CHECK(fd == -1);
            return;
        }
        fd_ = fd;
        flags_ = flags;
        at_ = 0;
        if (!file_ || (flags & RM_O_TRUNC) != 0) {
            file_ = "";
        }
    }

    void close()
    {
        FUZZ_CHECK(rm_flClose(fd_) == (fd_ == -1 ? -1 : 0));
        fd_ = -1;
        if (isGone_) {
            isGone_ = false;
            file_ = {};
        }
    }

    void read()
    {
        const auto length = static_cast<int32_t>(input_.int16() % 2000);
        interruptions = input_.byte() % 16 == 0 ? input_.byte() % 8 : 0;
        const bool gaveUp = interruptions >= kAttempts;
        Buffer buffer(length);
        int32_t count = -2;
        const int16_t status = rm_flRead(fd_, buffer.data(), length, &count);
        buffer.check();
        if (length < 0) {
            FUZZ_CHECK(status == EINVAL && count == -1);
            return;
        }
        if (gaveUp || fd_ == -1 || !mayRead()) {
            FUZZ_CHECK(status == (gaveUp ? EINTR : EBADF) && count == -1 && buffer.untouched());
            return;
        }
        const std::string expected =
            at_ < file_->size() ? file_->substr(at_, static_cast<std::size_t>(length)) : "";
        FUZZ_CHECK(status == 0 && count == static_cast<int32_t>(expected.size()));
        FUZZ_CHECK(buffer.contents().substr(0, expected.size()) == expected);
        FUZZ_CHECK(buffer.untouched(expected.size()));
        at_ += expected.size();
    }

    void write()
    {
        const Text data(bytes());
        const std::string& text = data.original();
        FUZZ_CHECK(rm_flWrite(fd_, data.get(), -1 - input_.byte()) == 0);
        const int32_t count = rm_flWrite(fd_, data.get(), static_cast<int32_t>(text.size()));
        if (fd_ == -1 || !mayWrite()) {
            FUZZ_CHECK(count == 0);
            return;
        }
        FUZZ_CHECK(count == static_cast<int32_t>(text.size()));
        if ((flags_ & RM_O_APPEND) != 0 && !text.empty()) {
            at_ = file_->size();
        }
        put(text);
    }

    void put(const std::string& text)
    {
        if (text.empty()) {
            return;
        }
        file_->resize(std::max(file_->size(), at_ + text.size()), '\0');
        file_->replace(at_, text.size(), text);
        at_ += text.size();
    }

    void seek()
    {
        const int32_t offset = input_.int16() % static_cast<int32_t>(kMostOffset);
        const auto whence = static_cast<int16_t>(input_.byte() % 3);
        const bool asks = input_.byte() % 2 == 0;
        uint32_t position = 1;
        const int16_t status = rm_flSeek(fd_, offset, whence, asks ? &position : nullptr);
        if (fd_ == -1) {
            FUZZ_CHECK(status == -1);
            return;
        }
        const int64_t from =
            whence == 0 ? 0 : static_cast<int64_t>(whence == 1 ? at_ : file_->size());
        FUZZ_CHECK(status == (from + offset < 0 ? -1 : 0));
        if (status == 0) {
            at_ = static_cast<std::size_t>(from + offset);
            FUZZ_CHECK(!asks || position == at_);
        }
    }

    void size()
    {
        uint32_t size = 1;
        const int16_t status = rm_flSize(fd_, &size);
        FUZZ_CHECK(status == (fd_ == -1 ? -1 : 0));
        FUZZ_CHECK(fd_ == -1 || size == file_->size());
    }

    // Only ever longer, with zeros; the descriptor stands at the start then.
    void setSize()
    {
        const uint32_t size = static_cast<uint16_t>(input_.int16()) % kMostOffset;
        const int16_t status = rm_flSetSize(fd_, size);
        if (fd_ == -1) {
            FUZZ_CHECK(status == -1);
            return;
        }
        const bool isLonger = size > file_->size();
        FUZZ_CHECK(status == (isLonger && !mayWrite() ? -1 : 0));
        if (status != 0) {
            at_ = file_->size();
            return;
        }
        file_->resize(std::max<std::size_t>(size, file_->size()), '\0');
        at_ = 0;
    }

    void sync()
    {
        fileCommit = static_cast<int16_t>(input_.byte() % 3 - 1);
        const int before = syncs;
        FUZZ_CHECK(rm_flSync(fd_) == RM_SUCCESS);
        FUZZ_CHECK(syncs == before + (fileCommit == 0 ? 0 : 1));
        FUZZ_CHECK(rm_flSetWriteThrough(fd_) == RM_SUCCESS);
    }

    // Away and back again.
    void rename()
    {
        const std::string other = filePath() + "2";
        const bool isThere = file_ && !isGone_;
        FUZZ_CHECK(rm_flRename(filePath().c_str(), other.c_str()) == (isThere ? 0 : -1));
        FUZZ_CHECK(rm_fileValidate(other.c_str()) == (isThere ? 0 : -1));
        FUZZ_CHECK(rm_flRename(other.c_str(), filePath().c_str()) == (isThere ? 0 : -1));
    }

    void remove()
    {
        const bool isThere = file_ && !isGone_;
        FUZZ_CHECK(rm_flRemove(filePath().c_str()) == (isThere ? 0 : -1));
        // What is open lives on without its name.
        if (isThere && fd_ != -1) {
            isGone_ = true;
        } else if (isThere) {
            file_ = {};
        }
    }

    void make(Call call)
    {
        switch (call) {
            case kOpen:
                open();
                break;
            case kWrite:
                write();
                break;
            case kSeek:
                seek();
                break;
            case kSize:
                size();
                break;
            case kSetSize:
                setSize();
                break;
            case kSync:
                sync();
                break;
            case kClose:
                close();
                break;
            case kRename:
                rename();
                break;
            case kRemove:
                remove();
                break;
            default:
                read();
                break;
        }
    }

    void compare() const
    {
        const bool isThere = file_ && !isGone_;
        FUZZ_CHECK(rm_fileValidate(filePath().c_str()) == (isThere ? 0 : -1));
        FUZZ_CHECK(!isThere || rmfuzz::readFile(filePath()) == *file_);
        FUZZ_CHECK(fd_ == -1 || lseek(fd_, 0, SEEK_CUR) == static_cast<off_t>(at_));
    }

    Input& input_;
    std::optional<std::string> file_;
    bool isGone_ = false;  // open, without a name
    int32_t fd_ = -1;
    uint32_t flags_ = 0;
    std::size_t at_ = 0;
};
}  // namespace

ssize_t __wrap_read(int fd, void* buffer, std::size_t size)
{
    if (interruptions > 0) {
        --interruptions;
        errno = EINTR;
        return -1;
    }
    return __real_read(fd, buffer, size);
}

int __wrap_fsync(int /*fd*/)
{
    ++syncs;
    errno = EIO;
    return -1;
}

void rmfuzz::fuzzInput(Input& input)
{
    Run run(input);
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) {
        run.step();
    }
    run.end();
}
