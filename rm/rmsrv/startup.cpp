// The settings of start-up: what a host decides once and the other services read.
//
// Why: they belong to start-up and not to their readers, since one call sets them together. Each
// has a value with which the library works before anybody set it.
#include "rm/rmsrv/rmsrv.h"

double rminfree = 0.0;         // bytes that growth leaves free on the disk
int16_t fileHandleLimit = 32;  // descriptors that the file table holds at most, -1 for no limit
int16_t fileSem = RM_NONE;     // guards the file table; made on first use
int16_t growSem = RM_NONE;     // serialises the growth of files; made on first use
int16_t fileCommit = -1;       // 0: files are not synced; -1: nobody has said yet, they are

// Deliberate: 1 until the host clears it, so that no file grows ahead of its writes before the host
// has said that there is room.
int16_t rmDiskFull = 1;
