// What the tests of faults under the managed files share: the errors that the manual pages name,
// and the way to run an operation while one call fails.
//
// A fault is armed around the operation alone, within the capturing of its output, which makes
// calls of its own, and outside of the target that a fatal end jumps to.
#ifndef RM_TESTS_FILE_FAULT_CASE_H
#define RM_TESTS_FILE_FAULT_CASE_H

#include "tests/file/file_case.h"

#include <span>

namespace filetest
{

inline constexpr auto kOpenErrors = std::to_array<int>(
    {EACCES, EBUSY,  EDQUOT,  EEXIST, EFAULT, EFBIG,        EINTR,      EINVAL,   EISDIR,
     ELOOP,  EMFILE, ENFILE,  ENODEV, ENOENT, ENOMEM,       ENOSPC,     ENOTDIR,  ENXIO,
     EPERM,  EROFS,  ETXTBSY, EAGAIN, EIO,    ENAMETOOLONG, EOPNOTSUPP, EOVERFLOW});
inline constexpr auto kFdopenErrors = std::to_array<int>({EINVAL, ENOMEM, EBADF, EMFILE});
inline constexpr auto kCloseErrors = std::to_array<int>({EINTR, EIO, ENOSPC, EDQUOT});
inline constexpr auto kReadErrors =
    std::to_array<int>({EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR});
inline constexpr auto kWriteErrors = std::to_array<int>(
    {EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM, EPIPE});
inline constexpr auto kLseekErrors = std::to_array<int>({EBADF, EINVAL, ENXIO, EOVERFLOW});
inline constexpr auto kFsyncErrors =
    std::to_array<int>({EBADF, EINTR, EIO, ENOSPC, EROFS, EINVAL, EDQUOT});
inline constexpr auto kStatvfsErrors =
    std::to_array<int>({EACCES, EBADF, EFAULT, EINTR, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM,
                        ENOSYS, ENOTDIR, EOVERFLOW});
inline constexpr auto kPrintErrors = std::to_array<int>(
    {EAGAIN, EBADF, EFBIG, EILSEQ, EINTR, EINVAL, EIO, ENOMEM, ENOSPC, EOVERFLOW, EPIPE});
inline constexpr auto kRemoveErrors =
    std::to_array<int>({EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM,
                        ENOTDIR, ENOTEMPTY, EPERM, EROFS});
inline constexpr auto kRenameErrors =
    std::to_array<int>({EACCES, EBUSY, EDQUOT, EFAULT, EINVAL, EISDIR, ELOOP, EMLINK, ENAMETOOLONG,
                        ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENOTEMPTY, EEXIST, EPERM, EROFS, EXDEV});
inline constexpr auto kSemopErrors =
    std::to_array<int>({E2BIG, EACCES, EFAULT, EFBIG, EIDRM, EINVAL, ENOMEM, ERANGE});
inline constexpr auto kSemctlErrors =
    std::to_array<int>({EACCES, EFAULT, EIDRM, EINVAL, EPERM, ERANGE});

// A call and one of its errors, for a trace of what a failed expectation was about.
inline std::string named(const char* call, int error, int times)
{
    return std::string(call) + " fails with " + strerrorname_np(error) +
           (times == kForever ? " for ever" : " once");
}

// Runs `body` for every error, once and for ever.
inline void forEach(const char* call, std::span<const int> errors,
                    const std::function<void(int error, int times)>& body)
{
    for (const int error : errors) {
        for (const int times : {1, kForever}) {
            SCOPED_TRACE(named(call, error, times));
            body(error, times);
        }
    }
}

inline std::string errnoText(int error)
{
    return "errno=" + std::to_string(error);
}

// What came of an operation while a fault was armed.
struct Outcome {
    bool jumped = false;
    Lines lines;  // without the frame of a fatal end
    std::string out;
    double seconds = 0;
    int hits = 0;
};

inline Outcome under(const rmtest::Fault& fault, const std::function<void()>& body)
{
    Outcome outcome;
    std::string err;
    const auto started = std::chrono::steady_clock::now();
    outcome.out = captureStdout([&] {
        err = captureStderr([&] {
            const ScopedFault armed(fault);
            outcome.jumped = catchFatal(body) != 0;
            outcome.hits = armed.hits();
        });
    });
    outcome.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    outcome.lines = outcome.jumped ? withoutFrame(logLines(err)) : logLines(err);
    return outcome;
}

class FileFault : public FileTest
{
  protected:
    // The state that every case begins with for each error: no handle, no file.
    void fresh()
    {
        for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
            if (entryOf(slot)->state != file::kSlotFree) {
                rm_fileClose(slot);
            }
        }
        for (const auto& entry : std::filesystem::directory_iterator(directory())) {
            if (entry.path().filename().string()[0] != '.') {
                std::filesystem::remove_all(entry);
            }
        }
        rmDiskFull = 1;
        file::fileOps = 0;
        file::parkings = 0;
        file::reopens = 0;
    }
};

}  // namespace filetest

#endif
