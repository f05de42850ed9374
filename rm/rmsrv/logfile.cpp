// The log file: the handle that the log writer copies its lines to.
//
// Why: the file is a managed file like any other, so that it may be parked when descriptors are
// short; all that is kept of it is its handle.
//
// Owns: `sysfile`.
//
// Fatal: what closing a managed file ends (a lock that is not free in time).
#include "rm/rmsrv/rmsrv.h"

int16_t sysfile = RM_NONE;

void rmsrv::forgetLogFile()
{
    sysfile = RM_NONE;
    trustLogFile();
}

void rm_systemLogClose()
{
    if (sysfile != RM_NONE) {
        rm_fileClose(sysfile);
    }
    rmsrv::forgetLogFile();
    syslogon = 0;
}
