// A file that is there whole or not at all.
//
// Why: the map is written while something is wrong, perhaps because the disk is full. Yesterday's
// map, which today's is compared with, is only replaced by one that is complete.
#include "outfile.h"

#include "console.h"
#include "text.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rmheap
{
namespace
{
bool writeAll(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t put = write(fd, bytes.data(), bytes.size());
        if (put < 0 && errno != EINTR) {
            return false;
        }
        bytes.remove_prefix(put < 0 ? 0 : static_cast<std::size_t>(put));
    }
    return true;
}

bool fail(const std::string& name, int error)
{
    complain("cannot write " + printable(name) + ": " + std::strerror(error));
    return false;
}

// A pipe or a device is written to; there is nothing that could be replaced.
bool writeThrough(const std::string& name, std::string_view bytes)
{
    const int fd = open(name.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    if (fd == -1) {
        return fail(name, errno);
    }
    const bool written = writeAll(fd, bytes);
    const int error = errno;
    if (close(fd) != 0 && written) {
        return fail(name, errno);
    }
    return written || fail(name, error);
}

// The rights that open() would give.
mode_t usualMode()
{
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}
}  // namespace

bool replaceFile(const std::string& name, std::string_view bytes)
{
    // The file that a link leads to is replaced, not the link.
    char resolved[PATH_MAX];
    const std::string path = realpath(name.c_str(), resolved) != nullptr ? resolved : name;
    struct stat old = {};
    const bool exists = stat(path.c_str(), &old) == 0;
    if (exists && S_ISDIR(old.st_mode)) {
        return fail(name, EISDIR);
    }
    if (exists && !S_ISREG(old.st_mode)) {
        return writeThrough(path, bytes);
    }
    if (exists && access(path.c_str(), W_OK) != 0) {
        return fail(name, errno);
    }
    std::string temporary = path + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd == -1) {
        return fail(name, errno);
    }
    int error = 0;
    const mode_t mode = exists ? old.st_mode & 07777 : usualMode();
    if (!writeAll(fd, bytes) || fchmod(fd, mode) != 0 || fsync(fd) != 0) {
        error = errno;
    }
    if (close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(temporary.c_str());
        return fail(name, error);
    }
    return true;
}

}  // namespace rmheap
