// The three locks of the managed files, entered and left so that the fatal path can always end.
//
// Why: a log line may be written while fileSem is held, and the log file is a managed file itself;
// and a fatal error may jump out of any of the locks. So entering is counted: a nested entry by the
// same process does not wait for itself, and what is held is given back when the frames that held
// it are abandoned.
//
//   order       an operation leaves fileSem before it enters a seekSem; growSem is taken inside
//               either of them. A log line written inside a seekSem enters fileSem for itself.
//   time-outs   fileSem and seekSem 14 s, then fatal; growSem waits without limit
//   dead holder a process that was killed inside fileSem leaves it held. Its peers time out and end
//               fatally. On that way fileSem is not waited for a second time: the table is this
//               process's own, nobody else touches it, and the lines that tell what happened still
//               reach the log file.
//
// Owns: the depth of fileSem and of growSem in this process.
#include "rm/file/file.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/unix/unix.h"

namespace
{
int32_t fileSemDepth = 0;   // entries of this process, nested ones included
bool fileSemHeld = false;   // the outermost of them has taken the semaphore
bool fileSemStuck = false;  // the last attempt to take it timed out, or to give it back failed
int32_t growSemDepth = 0;

// A holder that never leaves is waited for once, and neither by the dying nor by a log line; and
// the dying do not make a lock that is gone anew. They go on without: the table is this process's.
bool goesOnWithout()
{
    if (rmsrv::inFatalPath() && !os::exists(fileSem)) {
        return true;
    }
    return fileSemStuck && (rmsrv::inFatalPath() || rmsrv::writingLogFile != 0);
}
}  // namespace

void file::enterFileSem(const char* timeoutMessage)
{
    if (fileSemDepth == 0 && !fileSemHeld && !goesOnWithout()) {
        if (fileSem == RM_NONE) {
            fileSem = rm_syncCreate("fileSem");
        }
        if (rm_syncEnterExcl(fileSem, kLockTimeoutMs) != RM_SUCCESS) {
            fileSemStuck = true;
            fatalRMExit(timeoutMessage);
        }
        fileSemStuck = false;
        fileSemHeld = true;
    }
    ++fileSemDepth;
}

void file::leaveFileSem()
{
    RM_ASSERT(fileSemDepth > 0);
    --fileSemDepth;
    if (fileSemDepth == 0 && fileSemHeld) {
        rm_syncExitExcl(fileSem);
        fileSemHeld = false;  // only now: when leaving is fatal, the way out tries once more
    }
}

void file::enterGrowSem()
{
    if (growSemDepth == 0) {
        // An alarm of an earlier wait, and a signal in this one, count as a time-out; there is
        // none.
        while (rm_syncEnterExcl(growSem, RM_WAIT_FOREVER) != RM_SUCCESS) {
        }
    }
    ++growSemDepth;
}

void file::leaveGrowSem()
{
    if (growSemDepth <= 1) {
        rm_syncExitExcl(growSem);
    }
    if (growSemDepth > 0) {
        --growSemDepth;  // only now, as above
    }
}

void file::enterSeekSem(const FileEntry* entry, const char* timeoutFormat)
{
    if (rm_syncEnterExcl(entry->seekSem, kLockTimeoutMs) != RM_SUCCESS) {
        char message[rmsrv::kLogMessageSize];
        std::snprintf(message, sizeof(message), timeoutFormat, entry->name);
        fatalRMExit(message);
    }
}

void file::leaveSeekSem(const FileEntry* entry)
{
    rm_syncExitExcl(entry->seekSem);
}

void file::abandonOperations()
{
    endOperations();
    // Each lock is forgotten just before it is given back: that may fail, and comes here again for
    // the other one. A fileSem that could not be given back is stuck for this process too.
    fileSemDepth = 0;
    if (fileSemHeld) {
        fileSemHeld = false;
        if (os::exists(fileSem)) {
            fileSemStuck = true;
            rm_syncExitExcl(fileSem);
            fileSemStuck = false;
        }
    }
    if (growSemDepth > 0) {
        growSemDepth = 0;
        if (os::exists(growSem)) {
            rm_syncExitExcl(growSem);
        }
    }
}
