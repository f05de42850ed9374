// The log file: the handle that the log writer copies its lines to.
//
// Why: the file is a managed file like any other, so that it may be parked when descriptors are
// short; all that is kept of it is its handle. The log of the previous run is what one looks for
// after a crash, so opening keeps it once, under the extension ".bak".
//
// Owns: `sysfile`.
//
// Locks: fileSem, in opening and closing the managed file.
//
// Fatal: a log file that cannot be opened; no memory, a lock that is not free in time.
#include "rm/rmsrv/rmsrv.h"

#include <cstring>

int16_t sysfile = RM_NONE;

namespace
{
constexpr char kBackupExtension[] = ".bak";

// The log file of the previous run becomes the backup, in place of an older one. Whatever fails
// here costs the backup and nothing else.
void keepPrevious(const char* path)
{
    const auto room = static_cast<uint32_t>(std::strlen(path) + sizeof(kBackupExtension) - 1);
    auto* backup = static_cast<char*>(rm_getMemory(room, 0));
    std::strcpy(backup, path);
    // Deliberate: the last dot of the whole path. With none in the file's own name, that of a
    // directory counts, and the backup stands beside that directory.
    char* dot = std::strrchr(backup, '.');
    if (dot != nullptr) {
        std::strcpy(dot, kBackupExtension);
        if (rm_fileValidate(backup) == RM_SUCCESS) {
            rm_flRemove(backup);
        }
        rm_flRename(path, backup);
    }
    rm_freeMemory(backup, 0);
}
}  // namespace

void rmsrv::forgetLogFile()
{
    if (failedLogFile == sysfile || failedLogFile == kEveryLogFile) {
        trustLogFile();
    }
    sysfile = RM_NONE;
}

void rm_systemLogOpen(const char* path)
{
    if (path == nullptr || syslogon == 0 || sysfile != RM_NONE) {
        return;
    }
    if (rm_fileValidate(path) == RM_SUCCESS) {
        keepPrevious(path);
    }
    sysfile =
        rm_fileOpen(path, RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC, FILE_FATAL | FILE_STREAM, 0, 0);
}

void rm_systemLogClose()
{
    if (sysfile != RM_NONE) {
        rm_fileClose(sysfile);
    }
    rmsrv::forgetLogFile();
    syslogon = 0;
}
