#ifndef RM_H
#define RM_H

/**
 * @file rm.h
 * @brief The resource manager: one portable layer between a multi-process database server and the
 *        operating system.
 *
 * The processes of a server call this interface instead of the operating system. It owns their
 * tagged memory, their table of managed files, what they share and say to each other, their system
 * log and the way out when a resource fails beyond repair. Everything is plain functions over
 * tables that belong to the process; the tables are made on first use, so nothing needs to be
 * initialised.
 *
 * The rules of this page hold for every call and are not repeated there.
 *
 * @section rm_widths Widths and characters
 *
 * - Widths are those of `<stdint.h>`: handles, tags and statuses are signed 16-bit, sizes, offsets
 *   and time-outs unsigned 32-bit. An unsigned 32-bit -1 is 0xFFFFFFFF.
 * - Sizes and offsets count bytes. A managed file works up to 4 GiB - 2.
 * - Texts are bytes that end with a zero; a size of a text buffer includes that zero. Letters,
 *   digits and white space are those of ASCII, whatever locale the host has set, and the bytes 0x80
 *   to 0xFF belong to no class.
 * - Pointers must not be null unless the comment says that they may be.
 * - A handle or tag outside the range of its table is treated as one that is not in use.
 *
 * @section rm_ownership Ownership
 *
 * - What a caller passes stays the caller's. It is read during the call and never modified, so a
 *   literal is always safe. The calls that keep a pointer, or write through one, say so.
 * - Memory that a call returns belongs to the caller, under the tag that the **Memory** line names.
 *   rm_freeMemory() with the same tag gives it back, and so does every release of the whole tag.
 * - Handles belong to the process that made them. A process keeps its own tables of tags, files,
 *   sync objects, shared memory and queues; a child starts with a copy of its parent's.
 *
 * @section rm_timeouts Time-outs
 *
 * A time-out is given in milliseconds and takes effect in whole seconds, rounded up: 1 to 1000 are
 * one second, 1500 are two. **A time-out of 0 does not mean a single attempt: it waits without
 * limit.** So do ::RM_WAIT_FOREVER and every other value from 0x7FFFFC19 up, since adding 999 to
 * it overflows a signed 32-bit number.
 *
 * A timed wait uses the alarm clock and the SIGALRM handler of the process and restores neither;
 * when a signal ends rm_syncWait(), the alarm is still to come, and would end a waiting
 * rm_queueRead() fatally. **Every lock that is entered, timed or not, ends with alarm(0)**, those
 * of the managed files included and those on ::RM_NULL_SYNC apart: an alarm of the host does not
 * survive them.
 *
 * @section rm_fatal Fatal errors
 *
 * A resource that fails beyond repair is not reported by a status: the call does not come back.
 * The library logs what happened, logs a banner of seven lines (once per process), and then
 *
 * - logs "Exiting to shutdown processing" and jumps to the target that the host registered with
 *   rm_errorJump(), where **setjmp returns 1**; or,
 * - without a target, logs "Exiting to operating system" and calls rm_exit(0). The process ends
 *   with **exit status 0**, or goes on at the exit target, where setjmp returns 1: register a fatal
 *   target if its parent has to notice.
 *
 * For the frames of the host between the target and the failing call this means:
 *
 * - They are abandoned. **No destructors run**, and no clean-up code does. In C++, no object with a
 *   destructor that matters may be alive in a frame that calls a function which may be fatal.
 * - Memory that only they knew stays in its tag until the tag is released: one tag per task makes
 *   that a single rm_freeTagMemory() at the target.
 * - The locks of the library that they held are given back, and their file operations count as
 *   ended. Sync objects that the host itself had entered stay entered.
 * - The function that called setjmp must still be active, and those of its local variables that
 *   changed since are lost unless they are volatile: the language's own rules for longjmp.
 *
 * The library stays usable after the jump. Each function says in its **Fatal** line which of these
 * can end it:
 *
 * | Word    | The call does not come back when                                                    |
 * |---------|-------------------------------------------------------------------------------------|
 * | never   | it always comes back                                                                |
 * | memory  | no memory is left, or the tag that it allocates from is not in use                  |
 * | lock    | a lock of the file layer was not free within 14 seconds                             |
 * | syscall | a call on an IPC object failed or its handle is bad, or a file could not be grown   |
 * | mode    | the file was opened with ::FILE_FATAL, and opening, reading or writing it failed; a |
 * |         | transfer that falls short is no failure, and neither is a failed rm_filePrintf()    |
 * | always  | the call is the fatal path itself                                                   |
 *
 * The words leave out one way: a call that writes a log line while a log file is open can end as
 * rm_systemLogWrite() does.
 *
 * @section rm_loglines Log lines
 *
 * The **Log** line quotes what a failure writes into the system log, as printf formats. Two kinds
 * of fatal errors share a frame, and there only the text within the frame is quoted:
 *
 * - syscall: "**** %s() %s, errno=%d (%s)" with the failing function, the quoted text, and the
 *   error. Only the first such failure of a process is logged. Each is printed to standard output,
 *   but for the one whose line the log file could not take: that goes to standard error only.
 * - lock: "***Fatal resource manager error***", then "    Specific problem: %s" with the quoted
 *   text.
 *
 * @section rm_fork Fork rules
 *
 * Server processes are single-threaded and are made with fork. Five rules make sharing work:
 *
 * 1. **Create sync objects before the fork**, and shared memory and queues too. The children
 *    inherit the handles and share the objects. Creating adds 1 to a semaphore, so a process that
 *    creates a sync object which others already use raises it to 2, and the lock lets two in.
 * 2. **That includes the two locks of the file layer.** A parent whose children use managed files
 *    calls rm_init() first. Otherwise each child raises them by 1, and they let all in.
 * 3. **Workers end with `_exit`.** rm_exit() in any process removes sync objects, shared memory and
 *    queues for all of them, and the next use of a lock or a queue in the others is fatal. So is a
 *    fatal error in a worker without a target of its own: it ends in rm_exit(0).
 * 4. **Workers open their files after the fork.** An inherited descriptor shares its offset with
 *    the parent's: a seek in one process moves the other. Whoever does use an inherited handle
 *    holds a lock of the host around every operation on it, in every process.
 * 5. **An inherited log stream may be written by all as long as nobody's copy of it is parked**,
 *    since they share its offset; rm_systemLogOpen() does not keep it from being parked. A host
 *    whose workers share the log sets #sysfile to a file that it opened with ::RM_O_APPEND, or with
 *    ::FILE_PINNED.
 *
 * @section rm_locks Lock order
 *
 * - OK: locks of the host, then the lock on the copy of an INI file (@ref rm_ini), then #fileSem.
 * - OK: locks of the host, then #fileSem, then #growSem.
 * - OK: locks of the host, then a file's own lock, then #growSem.
 * - The library leaves #fileSem before it enters a file's own lock. Only a line for the log file
 *   that is written inside one enters #fileSem for itself.
 * - ERROR: a call on a managed file while the host has entered #fileSem or #growSem itself. Hosts
 *   create those two and never enter them.
 *
 * The **Locks** line names what a call enters; it is missing where a call enters nothing. No call
 * comes back with a lock of the library entered.
 */

#include <setjmp.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
/** Marks the calls that never come back. */
#define RM_NORETURN [[noreturn]]
/** Opens the declarations: C linkage, in C++ too. */
#define RM_BEGIN_DECLS extern "C" {
/** Closes what #RM_BEGIN_DECLS opened. */
#define RM_END_DECLS }
#else
/** Marks the calls that never come back. */
#define RM_NORETURN _Noreturn
/** Opens the declarations: C linkage, in C++ too. */
#define RM_BEGIN_DECLS
/** Closes what #RM_BEGIN_DECLS opened. */
#define RM_END_DECLS
#endif

#if defined(__GNUC__)
/** Marks what the shared library exports. */
#define RM_API __attribute__((visibility("default")))
/** Lets the compiler check the arguments from the `first` one on against the format `text`. */
#define RM_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))
#else
/** Marks what the shared library exports. */
#define RM_API
/** Lets the compiler check the arguments from the `first` one on against the format `text`. */
#define RM_PRINTF(text, first)
#endif

/**
 * @defgroup rm_status Status values
 * Success is 0 in every call that has a status. The other codes, with the calls that return them:
 * @{
 */
#define RM_SUCCESS 0              /**< success: every call with a status */
#define RM_TIMEOUT 1              /**< timed out: rm_syncEnterExcl(), rm_syncWait(), pools */
#define RM_NO_ELEMENT 1           /**< no element, end of an iteration: bags, ffBagPop() */
#define RM_NOT_FOUND 2            /**< not found: rm_iniGet(), bagFind(), rm_queueRead() */
#define RM_FULL 5                 /**< full: ffBagPush(); not closed: rm_OSemUnload() */
#define RM_NONE (-1)              /**< no entry; no handle: rm_fileOpen(), rm_syncOpen() */
#define RM_CANNOT_OPEN (-46)      /**< a file cannot be opened: rm_iniSet() */
#define RM_MISSING_ARGUMENT (-52) /**< an argument is missing: rm_iniGet(), rm_iniSet() */
#define RM_INVALID (-56)          /**< invalid tag; damaged container: bags, FF bags */
#define RM_UNKNOWN_MODULE (-1006) /**< unknown module: rm_emGetFcnAddr(), rm_emUnload() */
#define RM_COPY_FAILED (-1018)    /**< copy failed: rm_fileCopy(), rm_fileMove() */
#define RM_RENAME_FAILED (-1019)  /**< a file could not be replaced: rm_iniSet() */
#define RM_OUT_OF_MEMORY (-2011)  /**< out of memory: StrToArgv(), rm_iniGet(), bagAdd() */
/** @} */

RM_BEGIN_DECLS

/**
 * @defgroup rm_frame Error and exit frame
 *
 * Where control goes when a resource fails beyond repair, and how a process ends in order. A host
 * registers two targets, usually at the top of main: one for fatal errors, from which it shuts
 * itself down, and one at which rm_exit() arrives. Both are plain setjmp buffers, and the function
 * that called setjmp must stay active for as long as the target may be used. See @ref rm_fatal.
 *
 * @par Example
 * @include errorframe.c
 * @{
 */

/**
 * Registers the target for fatal errors, where setjmp then returns 1.
 * The registration is permanent; a later call replaces the target, and nothing removes it.
 *
 * @param env buffer that the caller filled with setjmp; copied whole
 * @fatal never
 */
RM_API void rm_errorJump(jmp_buf env);

/**
 * Registers the target at which rm_exit() arrives, where setjmp then returns the exit code.
 * The registration is permanent; a later call replaces the target, and nothing removes it.
 *
 * @param env buffer that the caller filled with setjmp; copied whole
 * @fatal never
 */
RM_API void rm_exitJump(jmp_buf env);

/**
 * Takes the fatal path because a system call failed.
 * The line below is logged for the first failure of the process only, and printed to standard
 * output each time.
 *
 * @param function name of the caller, without parentheses
 * @param message what failed, for instance "semop() failure"
 * @param error errno value; 0 when no system call was involved
 * @fatal always
 * @log "**** %s() %s, errno=%d (%s)", the last from strerror; then as rm_errorExit()
 */
RM_NORETURN RM_API void internalErrorExit(const char* function, const char* message, int32_t error);

/**
 * Takes the fatal path because of a condition that the caller found itself.
 *
 * @param message what went wrong
 * @fatal always
 * @log "***Fatal resource manager error***" and "    Specific problem: %s"; then as rm_errorExit()
 */
RM_NORETURN RM_API void fatalRMExit(const char* message);

/**
 * Takes the fatal path without a line of its own: the common end of all fatal errors.
 * A process with a target that is not the foreground process sets #rmanTerm to 2 first, so that
 * the code at the target can tell a worker's unwinding from the foreground's.
 *
 * @fatal always
 * @log seven banner lines of 35 characters, once per process; then "Exiting to shutdown processing"
 *      when a target is registered, else "Exiting to operating system"
 */
RM_NORETURN RM_API void rm_errorExit(void);

/**
 * Ends the process in order: closes the log file, sets #rmanTerm to 3, and removes the global
 * shared memory (rm_gshmTerminate()), the message queues (rm_queueTerminate()), the sync objects
 * (rm_syncTerminate()) and all tagged memory (rm_freeall()), each step at most once per process.
 * Then it jumps to the exit target, or calls exit(code) when there is none.
 *
 * The IPC objects are removed **for every process that shares them**: workers end with `_exit`.
 * When control arrives at the exit target every tagged pointer and every file handle of the process
 * has become invalid. A step that fails is fatal like any other call: control arrives at the target
 * for fatal errors, if there is one, and from there the next call goes on with the steps that are
 * left.
 *
 * @param code what setjmp returns at the exit target, or the exit status (of which the platform
 *             keeps the low 8 bits). **A jump with code 0 arrives as 1**: setjmp cannot return 0
 *             from a jump.
 * @fatal always, in that it never comes back
 * @locks #fileSem, to close the log file
 * @log as rm_fileClose(), with a log file open; as rm_gshmTerminate(), rm_queueTerminate() and
 *      rm_syncTerminate(), when the teardown fails
 */
RM_NORETURN RM_API void rm_exit(int16_t code);

/**
 * Saves the name and session of the current user, for rm_userGet().
 *
 * @param name user name; at most 14 bytes are kept, the rest is cut
 * @param session session number, any value
 * @fatal never
 */
RM_API void rm_userSave(const char* name, uint16_t session);

/**
 * Gives back what rm_userSave() saved last; an empty name and session 0 before the first save.
 *
 * @param[out] name buffer of at least 15 bytes, or null when the name is not wanted
 * @param[out] session where the session goes, or null when it is not wanted
 * @fatal never
 */
RM_API void rm_userGet(char* name, uint16_t* session);

/** @} */

/**
 * @defgroup rm_log System log
 *
 * One writer for every diagnostic of the library and its host. A line is the local time as
 * `[07-Mar-96 14:05:09]`, two blanks, and the message. It goes to standard error at every level,
 * with standard output flushed before and after, so that both interleave in order on a terminal;
 * and at level 2 or more also to the log file, when one is set. The month is the locale's, three
 * letters in most (LC_TIME; "C" unless the host calls setlocale()).
 *
 * @par Example
 * @include systemlog.c
 * @{
 */

/** Log level: 0 off, 1 on, 2 or more on and copied to the log file. Initially 0; set by
 * rm_systemLog(), and to 0 by rm_systemLogClose(). */
extern RM_API int16_t syslogon;

/**
 * Managed file that receives a copy of each line at level 2 or more; -1, initially, for none.
 * Set by rm_systemLogOpen(). A host may set it to a file of its own, opened with ::FILE_STREAM, and
 * hands that file over with it. It is closed, and this reset to -1, by rm_systemLogClose(), the
 * first rm_exit(), rm_freeall() and a failed growth; also when its handle is given up in another
 * way. After a fatal error out of writing a line into it that file is left alone until it is
 * closed; another one that the host sets gets the lines, unless it fails, too.
 */
extern RM_API int16_t sysfile;

/**
 * Sets the log level.
 *
 * @param level 0 off, 1 on, 2 or more on and copied to the log file
 * @return the previous level
 * @fatal never
 */
RM_API int16_t rm_systemLog(int16_t level);

/**
 * Writes one line to the log: to standard error even at level 0, and to the log file from level 2
 * on. A line that the log file's own failure causes goes to standard error only.
 *
 * @param format printf format of the message, without a newline at its end; of the expanded
 *               message 259 bytes are written, the rest is cut
 * @param ... the arguments of the format
 * @fatal never without a log file; with one, lock, syscall and mode, as rm_filePrintf()
 * @locks #fileSem, when the line goes to the log file
 * @log as rm_filePrintf(), when the line goes to the log file
 */
RM_API void rm_systemLogWrite(const char* format, ...) RM_PRINTF(1, 2);

/**
 * Writes one line to the log unless the level is 0: for chatty messages.
 * **The expanded text is expanded a second time**, as a format without arguments: a `%` that
 * survives the first expansion is a conversion again and prints the zero of its type, and `%n` does
 * nothing. Write `%%%%` for one percent sign.
 *
 * @param format printf format of the message, as for rm_systemLogWrite()
 * @param ... the arguments of the format
 * @fatal as rm_systemLogWrite(); never at level 0
 * @locks as rm_systemLogWrite()
 * @log as rm_systemLogWrite()
 */
RM_API void rm_systemLogOptWrite(const char* format, ...) RM_PRINTF(1, 2);

/**
 * Opens the log file, empty. Does nothing while logging is off (level 0) or a log file is open.
 *
 * A file that exists already is kept as the backup, and replaces an older one: its name with
 * ".bak" in place of everything from the last dot. **The last dot of the whole path counts**, so
 * "logs.d/server" is kept as "logs.bak". Without any dot there is no backup, and the old log is
 * lost; so it is when the path itself ends in ".bak". A backup that cannot be made is passed over
 * without a word.
 *
 * Lines reach the file from level 2 on. **The file may be parked, and then processes that inherited
 * it write over each other's lines**: a worker opens one of its own (after rm_systemLogClose() and
 * rm_systemLog()), or the host shares another one, see @ref rm_fork.
 *
 * @param path path of the file; null does nothing
 * @fatal memory, lock, syscall; mode, when the file cannot be opened
 * @locks #fileSem
 * @log as rm_fileOpen(), with ::FILE_FATAL
 */
RM_API void rm_systemLogOpen(const char* path);

/**
 * Closes the log file, if one is set, and turns logging off.
 *
 * @fatal lock, syscall, when a log file is set; else never
 * @locks #fileSem, when a log file is set
 * @log as rm_fileClose()
 */
RM_API void rm_systemLogClose(void);

/** @} */

/**
 * @defgroup rm_stat Statistics
 *
 * Counters of events, indexed by numbers that the host assigns. The counters are the process's own
 * and wrap at 2^32 without notice. An index outside them is ignored.
 *
 * @par Example
 * @include statistics.c
 * @{
 */

/**
 * Makes the counters, all 0. Those there were are discarded.
 *
 * @param count how many; 0 makes none
 * @fatal memory; there are no counters then
 * @log as rm_getMemory()
 */
RM_API void rm_statInit(uint16_t count);

/**
 * Adds to a counter. Makes 54 counters first when rm_statInit() has not been called.
 *
 * @param index 0 to the number of counters - 1; ignored outside
 * @param amount what to add
 * @fatal memory, when the counters are made
 * @log as rm_getMemory()
 */
RM_API void rm_statInc(int16_t index, uint16_t amount);

/**
 * Sets a counter to 0.
 *
 * @param index 0 to the number of counters - 1; ignored outside
 * @fatal never
 */
RM_API void rm_statClear(int16_t index);

/**
 * Sets every counter to 0.
 *
 * @fatal never
 */
RM_API void rm_statClearAll(void);

/**
 * Gives the counters themselves, to be read in place.
 *
 * @param[out] count how many there are, 0 before the first use; may be null
 * @return the first of them; null before the first use
 * @fatal never
 * @memory the library's, under tag 0: valid until rm_statInit() or the end of tag 0
 *         (rm_freeTagMemory(), rm_freeall()); do not free it
 */
RM_API uint32_t* rm_statRep(uint16_t* count);

/** @} */

/**
 * @defgroup rm_startup Start-up
 *
 * One call at the top of main, before the server forks: it stores the limits, makes the two locks
 * that all processes of the server share, and reads the one setting of the library from the
 * server's profile. Everything works without it too, with the initial values of the variables.
 *
 * | Key          | Section  | Meaning                                                        |
 * |--------------|----------|----------------------------------------------------------------|
 * | `FileCommit` | `server` | #fileCommit: 0, or a text that is no number, turns syncs off   |
 *
 * The profile is the default INI file, see @ref rm_ini.
 *
 * @par Example
 * @include startup.c
 * @{
 */

/** Kept for the host; the library does not use it. Initially 0. */
extern RM_API uint32_t hNormSh;

/** Kept for the host; the library does not use it. Initially 0. */
extern RM_API uint32_t hPriSh;

/**
 * Gives the library its settings.
 * The limits are taken with every call. The locks #fileSem and #growSem are created, and
 * `FileCommit` is read, only when that has not happened yet: a second call changes nothing there.
 *
 * @param memoryLimit bytes, stored in #rmemavail; or ::RM_NO_LIMIT
 * @param handleLimit stored in #fileHandleLimit as it is, unlike rm_fileHandleLimit(); -1 for no
 *                    limit
 * @param freeSpace bytes, stored in #rminfree
 * @fatal memory, lock, syscall
 * @locks as rm_iniGet(), to read the profile
 * @log as rm_syncCreate() and rm_iniGet()
 */
RM_API void rm_init(uint32_t memoryLimit, int16_t handleLimit, double freeSpace);

/**
 * Tells how much space a disk has free; the same as rm_flGetDiskFreeSpace().
 *
 * @param path any path on the disk
 * @return bytes; -1.0 when the platform cannot tell
 * @fatal never
 */
RM_API double rm_getDiskFreeSpace(const char* path);

/**
 * Says whether the disk counts as full; sets #rmDiskFull.
 *
 * @param flag not 0: no file is extended ahead of writes; 0: growth is allowed
 * @fatal never
 */
RM_API void rm_setDiskFull(int16_t flag);

/**
 * Tells whether the disk counts as full.
 *
 * @return #rmDiskFull: 1 before anybody set it
 * @fatal never
 */
RM_API int16_t rm_getDiskFull(void);

/** @} */

/**
 * @defgroup rm_memory Tagged memory
 *
 * All memory has an owner, a tag: a small number that names a group of blocks which can be released
 * together. A task takes a tag, allocates under it, and gives the tag back; what it forgot, or what
 * a fatal error left behind, goes with it.
 *
 * - Tag 0 exists from the first allocation on. The library keeps texts of its own in it, such as
 *   the local environment.
 * - An allocation before any tag was made also makes tag 1, with the limit #rmemavail.
 * - Blocks are aligned to 8 bytes. Each costs a header of 8 bytes, and sizes round up to 8.
 * - Blocks are carved from segments, and a segment goes back to the platform as soon as its last
 *   block is freed. With the environment variable `SEG_ALLOC` set to a number other than 0, every
 * new segment is exactly as large as the block that it is made for, which shows overruns to a
 * memory checker. Free space that is there already, such as the rest of a block that has shrunk, is
 * used first.
 * - Memory is never short in a way that a caller could see: a request that cannot be met is fatal.
 *
 * Bad pointers and tags are logged and ignored, except that rm_getMemory() and what is
 * built on it, rm_setTagName(), rm_setTagAlloc() and rm_resetTag() end fatally for a tag that is
 * not in use. rm_setTagAlloc() says nothing of 0 and of numbers that are no tag's, released or not.
 *
 * @par Example
 * @include memory.c
 * @{
 */

#define RM_NO_LIMIT 0xFFFFFFFFU /**< a tag without a limit */

/** Nonzero: every new segment is as large as the one block that it is made for. Initially 0; read
 * from the variable `SEG_ALLOC`, local environment first, whenever the table of tags is made. */
extern RM_API int16_t seg_alloc;

/** Limit in bytes that tag 1 gets when the first allocation makes it. Initially ::RM_NO_LIMIT; set
 * by rm_init() and rm_setMemoryLimit(). */
extern RM_API uint32_t rmemavail;

/**
 * Makes a tag, empty and with segments of 8192 bytes.
 * Released numbers are given out again, the lowest first, before new ones.
 *
 * @param env buffer that the host filled with setjmp, copied and kept with the tag; or null.
 *            Nothing jumps there today: exhausted memory leaves by the target of rm_errorJump().
 * @param limit bytes, reported by rm_memoryAvail() and never enforced; or ::RM_NO_LIMIT
 * @return the tag, 1 to 32766
 * @fatal memory, also when all 32767 tags are in use
 * @memory the tag belongs to the caller; release it with rm_freeTagMemory()
 * @log "Out of memory!"
 */
RM_API int16_t rm_allocTag(jmp_buf env, uint32_t limit);

/**
 * Names a tag.
 *
 * @param name any text; copied
 * @param tag a tag in use, 1 or above
 * @return the copy of the name. An earlier name stays allocated in the tag.
 * @fatal memory, also for a tag that is 0 or not in use
 * @memory the copy lies in the tag itself and goes with it; do not free it alone
 * @log "invalid tag"; "Out of memory!"
 */
RM_API char* rm_setTagName(const char* name, int16_t tag);

/**
 * Sets the smallest segment that a tag asks the platform for, from its next segment on.
 *
 * @param size bytes, the segment's header of 24 included. Larger requests get what they need.
 * @param tag a tag in use, 1 or above; 0 and numbers never given out are ignored without a word
 * @fatal memory, for a tag that was released
 * @log "invalid tag"
 */
RM_API void rm_setTagAlloc(uint32_t size, int16_t tag);

/**
 * Replaces the jump buffer that is kept with a tag; see rm_allocTag().
 *
 * @param env buffer that the host filled with setjmp, copied; or null to keep none
 * @param tag a tag in use
 * @fatal memory, for a tag that is not in use
 * @log "invalid tag"
 */
RM_API void rm_resetTag(jmp_buf env, int16_t tag);

/**
 * Frees all blocks of a tag at once, and its name.
 *
 * @param tag a tag in use; -1 is ignored. With 0 the local environment, the statistics, the
 *            registry of the extension modules, the tables of shared memory and queues, and text
 *            streams that are open go too.
 * @param release 0 keeps the tag, empty; any other value gives its number back too. Keep tag 0: the
 *                library allocates from it.
 * @fatal never
 * @log "Invalid tag %d supplied to rm_freeTagMemory"
 */
RM_API void rm_freeTagMemory(int16_t tag, int16_t release);

/**
 * Frees all blocks of all tags, the tags and their table.
 * What the library itself kept in tags is reset: all file handles are closed, the local environment
 * is empty, #sysfile is -1, and shared memory and queues are forgotten, though not removed. The
 * next allocation starts afresh.
 *
 * @fatal never
 */
RM_API void rm_freeall(void);

/**
 * Allocates a block. Its bytes are not cleared.
 *
 * @param size bytes; 0 gives a valid pointer of its own, to no bytes
 * @param tag a tag in use
 * @return the block, aligned to 8 bytes; never null
 * @fatal memory
 * @memory the caller's, under `tag`
 * @log "Out of memory!"; "Invalid tag %d supplied to rm_getMemory"
 */
RM_API void* rm_getMemory(uint32_t size, int16_t tag);

/**
 * Allocates a block of zeros.
 *
 * @param size bytes; 0 gives a valid pointer of its own, to no bytes
 * @param tag a tag in use
 * @return the block, aligned to 8 bytes; never null
 * @fatal memory
 * @memory the caller's, under `tag`
 * @log as rm_getMemory()
 */
RM_API void* rm_cGetMemory(uint32_t size, int16_t tag);

/**
 * Copies a text into a new block.
 *
 * @param text the text
 * @param tag a tag in use
 * @return the copy; never null
 * @fatal memory
 * @memory the caller's, under `tag`
 * @log as rm_getMemory()
 */
RM_API char* rm_Strdup(const char* text, int16_t tag);

/**
 * Frees a block. A pointer that is no live block of the tag is logged and nothing happens.
 *
 * @param pointer the block, or null, which does nothing
 * @param tag the tag under which it was allocated
 * @fatal never
 * @log freed before, or no block at all: "WARNING: attempting to free bad pointer, %p";
 *      a block of another tag: "tag = %d, freeHDR = %08lX" and
 *      "WARNING: pointer not found within tag segments, %p";
 *      overwritten neighbours: "WARNING: corrupted free chain searching for %p";
 *      "Invalid tag %d supplied to rm_freeMemory"
 */
RM_API void rm_freeMemory(void* pointer, int16_t tag);

/**
 * Frees the block that a pointer variable points to, and sets the variable to null.
 *
 * @param[in,out] pointerAddress address of a pointer variable of any type; null does nothing, and
 *                               so does a variable that is null
 * @param tag the tag under which the block was allocated
 * @fatal never
 * @log as rm_freeMemory()
 */
RM_API void rm_zFreeMemory(void* pointerAddress, int16_t tag);

/**
 * Changes the size of a block and keeps its contents, as far as they fit.
 * Free space on both sides of the block is used before a new place is looked for, so the address
 * may change even when the block shrinks.
 *
 * @param pointer the block; or null, which makes this rm_getMemory()
 * @param newSize bytes
 * @param tag the tag under which the block was allocated
 * @return the block, possibly moved; or null, with nothing changed and the old block still the
 *         caller's, when the pointer is no live block of the tag, the tag is not in use, or the
 *         free blocks beside it were written over
 * @fatal memory
 * @memory the caller's, under `tag`; the old address is no longer valid
 * @log as rm_freeMemory(), with "Invalid tag %d supplied to rm_extendMemory"; "Out of memory!"
 */
RM_API void* rm_extendMemory(void* pointer, uint32_t newSize, int16_t tag);

/**
 * Makes sure that a block has a certain size; for buffers whose contents no longer matter.
 * A block that is large enough stays as it is, it never shrinks. **Otherwise the block is freed and
 * a new one is taken: the contents are lost.**
 *
 * @param pointer the block; or null, which makes this rm_getMemory(), once the tag has been
 *                looked at
 * @param size bytes
 * @param tag the tag under which the block was allocated. A block of another tag that
 *            is large enough is returned; a smaller one stays, with two lines, and a
 *            new one is taken. So does, with one line, a smaller block whose neighbours were
 *            written over.
 * @return the block or a new one; null when the tag is not in use, as all are before the first
 *         allocation, or the pointer is no live block
 * @fatal memory
 * @memory the caller's, under `tag`
 * @log "Invalid tag %d supplied to rm_growMemory"; as rm_freeMemory(); "Out of memory!"
 */
RM_API void* rm_growMemory(void* pointer, uint32_t size, int16_t tag);

/**
 * Tells how many bytes a tag has left under its limit, its block headers counted.
 * The limit is not enforced: the figure is below 0 once the tag has passed it. The result is
 * meaningful for limits below 2 GiB.
 *
 * @param tag a tag
 * @return bytes; -1 for a tag without a limit; 0 for a tag that is not in use
 * @fatal never
 * @log "Invalid tag %d supplied to rm_memoryAvail"
 */
RM_API int32_t rm_memoryAvail(int16_t tag);

/**
 * Sets #rmemavail. Tags that exist keep their limits.
 *
 * @param bytes the limit; or ::RM_NO_LIMIT
 * @fatal never
 */
RM_API void rm_setMemoryLimit(uint32_t bytes);

/**
 * Tells how many bytes the process has got from the platform for tagged memory: all segments and
 * the table of tags.
 *
 * @return bytes; 0 before the first allocation, and after rm_freeall() unless a tag had a segment
 *         size that is no multiple of 8: such a segment counts whole when it is got, and without
 *         its last bytes when it is given back
 * @fatal never
 */
RM_API uint32_t rm_memused(void);

/** @} */

/**
 * @defgroup rm_pool Pools
 *
 * A pool keeps elements of one tag that are given back, and hands them out again, the last one
 * first. Elements need not have one size: each request names its own. Several users share a pool
 * through its sync object, which guards the list of free elements and nothing else.
 *
 * A recycled element still holds **the bytes of its last user**; a new one is cleared. There may be
 * as many elements as memory allows.
 *
 * A pool lies in the memory of its process. **A child starts with a copy of it**; the lock, which
 * they share, makes no common pool of the copies.
 *
 * @par Example
 * @include pools.c
 * @{
 */

/** A pool. What it consists of is the library's business. */
typedef struct RmPool RmPool;

/**
 * Makes an empty pool.
 *
 * @param maximum number of elements that the caller expects. **It limits nothing**: a pool with the
 *                maximum 1 hands out any number.
 * @param tag the tag of the pool and of all its elements; in use
 * @param name name of the sync object that is created for the pool, **kept as a pointer** as
 *             rm_syncCreate() says; null for a pool without one; empty for one whose lock is
 *             ::RM_NULL_SYNC
 * @param timeout milliseconds to wait for the lock in each call, in whole seconds, rounded up;
 *                **0 waits without limit**, and so does ::RM_WAIT_FOREVER
 * @return the pool, never null
 * @fatal memory; with a name, syscall
 * @memory the caller's, under `tag`; rm_zFreePool() gives it back
 * @log as rm_getMemory() and rm_syncCreate()
 */
RM_API RmPool* rm_allocPool(uint32_t maximum, int16_t tag, const char* name, uint32_t timeout);

/**
 * Takes an element out of the pool: the one that was given back last, or a new one when none is
 * free. **A free element that is too small is freed, and a new block takes its place**, whose bytes
 * are not cleared.
 *
 * @param size bytes that the element must have at least; 0 is allowed
 * @param pool the pool
 * @return the element, aligned to the size of a pointer; null when the lock was not free in time
 * @fatal memory; with a lock, syscall
 * @locks the pool's, around the list only: memory is taken outside of it
 * @memory the caller's, under the pool's tag; give it back with rm_putInPool(), **not with
 *         rm_freeMemory()**: the element does not begin where its block does
 * @log as rm_getMemory(); "WARNING: attempting to free bad pointer, %p" when somebody has written
 *      in front of a free element: the free elements from there on are given up
 */
RM_API void* rm_getFromPool(uint32_t size, RmPool* pool);

/**
 * Gives an element back.
 *
 * @param element from rm_getFromPool() of this pool, or of another one of its tag. Null does
 *                nothing; what is no element in use, one that was given back already for instance,
 *                is logged and ignored.
 * @param pool the pool
 * @return 0, also for a pointer that was ignored; ::RM_TIMEOUT when the lock was not free in time:
 *         the element is still the caller's
 * @fatal never without a lock; with one, syscall
 * @locks the pool's
 * @log "WARNING: attempting to free bad pointer, %p" for a pointer that is no element in use, or in
 *      front of which somebody has written
 */
RM_API int rm_putInPool(void* element, RmPool* pool);

/**
 * Frees a pool with its free elements and deletes its sync object, **for every process** that
 * shares it. Elements that callers still hold stay theirs and go with the tag.
 *
 * @param[in,out] pool address of the pointer to the pool, which becomes null; null, or the address
 *                     of a null pointer, does nothing
 * @return 0; ::RM_TIMEOUT when the lock was not free in time: nothing was done; or, in a damaged
 *         heap, not again after a line: call it again, the pool has the elements that are left
 * @fatal with a lock, syscall; as rm_systemLogWrite() for the lines about a damaged heap
 * @locks the pool's
 * @log "WARNING: attempting to free bad pointer, %p" and "WARNING: corrupted free chain searching
 *      for %p" for what was written over: it stays in the tag; as rm_syncDelete()
 */
RM_API int rm_zFreePool(RmPool** pool);

/** @} */

/**
 * @defgroup rm_report Memory report
 *
 * What each tag holds, written into the system log: a table of one line per tag, or tags, segments
 * and blocks in detail. The report counts every block again and warns where the allocator's own
 * counts differ, so it is also the check of a heap. The tool `rmheap` draws it.
 *
 * Sizes of blocks include their headers of 8 bytes.
 *
 * @par Example
 * @include memreport.c
 * @{
 */

#define RM_REPORT_FREE 0x0001    /**< list free blocks too, where blocks are listed */
#define RM_REPORT_TAG 0x0002     /**< only the tag that is given */
#define RM_REPORT_TOTALS 0x0004  /**< the totals; no list of blocks, whatever else is asked for */
#define RM_REPORT_DETAIL 0x0010  /**< lines for tags and segments */
#define RM_REPORT_SUMMARY 0x0040 /**< the table: a heading, a line per tag, a line of totals */
#define RM_REPORT_ALL INT16_MIN  /**< the sign: detail, the list of blocks, the totals */

/**
 * Writes the memory report into the log.
 *
 * The lines, in order, with the flags that ask for them; each is cut after 259 bytes:
 *
 * @verbatim
 *             --------VIRLO MEMORY REPORT--------
 *             the title
 *   SUMMARY          allocated/blocks     freed/blocks  segs
 *   DETAIL    TAG %u(%10s): limit=%ld, allocated=%ld
 *   DETAIL    SEGMENT @ %p   size=%lu
 *   ALL           %p    %6u (%u)
 *   ALL+FREE      %p    %6u (%u) free
 *   DETAIL    SEGMENT: %lu allocated bytes in %lu block%s
 *   DETAIL             %lu free bytes in %lu block%s
 *   DETAIL    TAG: %lu allocated bytes in %lu block%s,
 *   DETAIL         %lu free bytes in %lu block%s
 *   DETAIL         and contains %lu segment%s
 *   SUMMARY   TAG %2d(%10s): %8lu/%5lu : %8lu/%5lu : %3lu
 *   TOTALS    TOTAL: %lu allocated bytes in %lu block%s,
 *   TOTALS           %lu free bytes in %lu block%s
 *   TOTALS           System contains %lu active tag%s
 *   SUMMARY   TOTAL : %8lu/%5lu : %8lu/%5lu : %3lu
 *             MEMORY REPORT DONE
 * @endverbatim
 *
 * - The heading and the title stand before the first other line, the last one left out: a report
 *   that has no other has only that.
 * - ALL also asks for what DETAIL and TOTALS ask for. TOTALS suppresses the lines for blocks.
 * - The lines from TAG to TAG come for each tag, those from SEGMENT to SEGMENT for each of its
 *   segments, in the order in which it got them.
 * - The first line gives the number, name, limit (-1 for none) and bytes of a tag; a number that is
 *   not in use is left out. **Without DETAIL a tag that was released counts as an empty one**, and
 * with ::RM_REPORT_TAG so does any number, once there is a tag: before the first allocation and
 * after rm_freeall() there is no line for any.
 * - The size of a segment is that without its header of 24 bytes, whatever stands in that header; 0
 *   when what is kept of it was written over, too.
 * - A block has the address of its header, its bytes and its tag. The first of the free ones is the
 *   anchor that their list begins with, of 0 bytes; it is not counted.
 * - The last figure of the last SUMMARY line is the number of tags, like that of active tags.
 * - "%s" after a noun is "s" unless there is exactly 1.
 *
 * Where counts differ, also without any flag:
 *
 * - "WARNING: Segment block count, %u mismatch with counted blocks, %lu"
 * - "WARNING: Segment unit count, %lu mismatch with counted units, %lu": units of 8 bytes, **the
 *   counted ones first**
 * - "WARNING: memory check: tag %d, segment %p: the chain of segments is not as it is kept", when
 *   the header of a segment leads elsewhere
 * - "WARNING: Tag byte count, %lu mismatch with counted blocks, %lu"
 *
 * A header that was written over is never followed out of its segment.
 *
 * @param flags which lines; 0 for the warnings alone
 * @param tag any number: the tag, with ::RM_REPORT_TAG; else without meaning
 * @param titleFormat printf format of the title, or null for an empty one. **What percent signs it
 *                    leaves are expanded a second time**, as in rm_systemLogOptWrite(). At most 259
 *                    bytes are kept.
 * @param ... the arguments of the format
 * @fatal as rm_systemLogWrite()
 * @locks as rm_systemLogWrite()
 * @log the report
 */
RM_API void rm_memReport(int16_t flags, int16_t tag, const char* titleFormat, ...) RM_PRINTF(3, 4);

/** @} */

/**
 * @defgroup rm_calllog Logged allocation calls
 *
 * The allocation calls of @ref rm_memory under names that log each call before it is made, at every
 * level of the log. To find out who allocates, compile a module with its calls renamed, behind the
 * line that includes this header:
 * `#define rm_getMemory(size, tag) rm_LOG_getMemory(size, tag, __FILE__, __LINE__)`.
 * `file` and `line` are logged and mean nothing else.
 *
 * @par Example
 * @include calllog.c
 * @{
 */

/**
 * rm_getMemory(), logged.
 *
 * @param size bytes
 * @param tag the tag
 * @param file name of the caller's source file
 * @param line line in it
 * @return as rm_getMemory()
 * @fatal memory; as rm_systemLogWrite()
 * @locks as rm_systemLogWrite()
 * @memory as rm_getMemory()
 * @log "WARNING: Calling rm_LOG_getMemory from %s, %u"; as rm_getMemory()
 */
RM_API void* rm_LOG_getMemory(uint32_t size, int16_t tag, const char* file, unsigned line);

/**
 * rm_cGetMemory(), logged.
 *
 * @param size bytes
 * @param tag the tag
 * @param file name of the caller's source file
 * @param line line in it
 * @return as rm_cGetMemory()
 * @fatal memory; as rm_systemLogWrite()
 * @locks as rm_systemLogWrite()
 * @memory as rm_cGetMemory()
 * @log "WARNING: Calling rm_LOG_cGetMemory from %s, %u"; as rm_getMemory()
 */
RM_API void* rm_LOG_cGetMemory(uint32_t size, int16_t tag, const char* file, unsigned line);

/**
 * rm_extendMemory(), logged.
 *
 * @param pointer the block, or null
 * @param newSize bytes
 * @param tag the tag
 * @param file name of the caller's source file
 * @param line line in it
 * @return as rm_extendMemory()
 * @fatal memory; as rm_systemLogWrite()
 * @locks as rm_systemLogWrite()
 * @memory as rm_extendMemory()
 * @log "WARNING: Calling rm_LOG_extendMemory from %s, %u"; as rm_extendMemory()
 */
RM_API void* rm_LOG_extendMemory(void* pointer, uint32_t newSize, int16_t tag, const char* file,
                                 unsigned line);

/**
 * rm_growMemory(), logged.
 *
 * @param pointer the block, or null
 * @param size bytes
 * @param tag the tag
 * @param file name of the caller's source file
 * @param line line in it
 * @return as rm_growMemory()
 * @fatal memory; as rm_systemLogWrite()
 * @locks as rm_systemLogWrite()
 * @memory as rm_growMemory()
 * @log "WARNING: Calling rm_LOG_growMemory from %s, %u"; as rm_growMemory()
 */
RM_API void* rm_LOG_growMemory(void* pointer, uint32_t size, int16_t tag, const char* file,
                               unsigned line);

/**
 * rm_Strdup(), logged.
 *
 * @param text the text; **null is read as the empty one**, unlike in rm_Strdup()
 * @param tag the tag
 * @param file name of the caller's source file
 * @param line line in it
 * @return as rm_Strdup()
 * @fatal memory; as rm_systemLogWrite()
 * @locks as rm_systemLogWrite()
 * @memory as rm_Strdup()
 * @log "WARNING: Calling rm_LOG_Strdup from %s, %u"; as rm_getMemory()
 */
RM_API char* rm_LOG_Strdup(const char* text, int16_t tag, const char* file, unsigned line);

/**
 * rm_freeMemory(), logged. The line names no position.
 *
 * @param pointer the block, or null
 * @param tag the tag
 * @fatal as rm_systemLogWrite()
 * @locks as rm_systemLogWrite()
 * @log "WARNING: Calling rm_LOG_freeMemory"; as rm_freeMemory()
 */
RM_API void rm_LOG_freeMemory(void* pointer, int16_t tag);

/**
 * rm_zFreeMemory(), logged. The line names no position.
 *
 * @param pointerAddress address of the pointer, or null
 * @param tag the tag
 * @fatal as rm_systemLogWrite()
 * @locks as rm_systemLogWrite()
 * @log "WARNING: Calling rm_LOG_zFreeMemory"; as rm_freeMemory()
 */
RM_API void rm_LOG_zFreeMemory(void* pointerAddress, int16_t tag);

/** @} */

/**
 * @defgroup rm_sync Sync objects
 *
 * Exclusion and events between processes. A sync object is one semaphore, used in one of two ways:
 *
 * | Semaphore | As a lock | As an event                        |
 * |-----------|-----------|------------------------------------|
 * | 1         | free      | reset: whoever waits for it blocks |
 * | 0         | held      | signalled: waiters pass            |
 *
 * A lock is entered and left: rm_syncEnterExcl(), rm_syncExitExcl(). An event is reset, signalled
 * and waited for: rm_syncStart(), rm_syncResume(), rm_syncWait(). A new object is 1.
 *
 * A process has up to 20 objects, all in one semaphore set. Processes share the set because they
 * were forked after it was made, or because they name the same token file: ".ZNT.RM.SEM", with the
 * prefix of rm_tokenName() before it. Create before the fork; see @ref rm_fork.
 *
 * Every operation accepts ::RM_NULL_SYNC, succeeds and does nothing. Any other handle that names no
 * object is fatal, except as rm_syncDelete() says. Nothing is undone when a process dies: a lock
 * stays held when its holder is killed, and others find out by their time-outs, unless a parent
 * frees it with rm_syncRecover().
 *
 * @par Example
 * @include sync.c
 * @{
 */

#define RM_NULL_SYNC (-2)           /**< the object that every operation accepts and ignores */
#define RM_WAIT_FOREVER 0xFFFFFFFFU /**< time-out: wait without limit */

/**
 * Sets what is put before the name of each token file. Empty at first: the current directory.
 * Objects that exist keep the token file that they were made with. It is found by its path when it
 * is removed: a process that has given no whole path stays in its directory.
 *
 * @param prefix at most 31 bytes, longer ones are cut; a directory ends with "/"
 * @fatal never
 */
RM_API void rm_tokenName(const char* prefix);

/**
 * Creates a sync object. The first one of a process also makes the token file and the set.
 * An existing object of the same name is not looked for: rm_syncOpen() does that.
 *
 * When another process has removed the set, this is fatal as long as the process has objects of it:
 * rm_syncTerminate() forgets them. One process of a server makes the locks anew, since creating
 * adds 1.
 *
 * @param name **kept as a pointer, not copied**: it must stay as it is for as long as the object
 *             exists, so give a literal. Null or empty creates nothing.
 * @return the handle, 0 to 19, lowest free number first; ::RM_NULL_SYNC for a null or empty name.
 *         After "fopen() failure", "semget() failure" and "semop() failure" the slot keeps its name
 *         until it is deleted or, without another object, until the next creation. **Delete it**:
 *         rm_syncOpen() finds it, and whoever enters it may wait for ever.
 * @fatal syscall
 * @log "Out of Semaphores!" for the 21st object; "fopen() failure" when the token file cannot be
 *      made or is a symbolic link; "semget() failure"; "semop() failure"
 */
RM_API int16_t rm_syncCreate(const char* name);

/**
 * Finds an object of this process by its name.
 *
 * @param name the name, compared byte by byte; null finds nothing
 * @return the handle of the first object with that name; -1 when there is none
 * @fatal never
 */
RM_API int16_t rm_syncOpen(const char* name);

/**
 * Deletes an object: its semaphore goes to 0, for every process. When it was the last one of this
 * process, the set and its token file are removed, also for every process. When another process has
 * removed the set before, every deletion is fatal; the last one forgets the set.
 *
 * @param handle sync handle, 0 to 19, or ::RM_NULL_SYNC; a number in the range that names no object
 *               is accepted as long as there is a set: **its semaphore goes to 0 all the same**,
 *               and another process may use it; without a set it is fatal
 * @return 0
 * @fatal syscall
 * @log "semctl() failure"; "semop() failure"
 */
RM_API int16_t rm_syncDelete(int16_t handle);

/**
 * Enters a lock. Not recursive: whoever holds it waits for itself.
 *
 * @param handle sync handle
 * @param timeout milliseconds, effective in whole seconds; **0 waits without limit**, as does
 *                ::RM_WAIT_FOREVER; see @ref rm_timeouts. Signals other than the alarm do not end
 *                a timed wait.
 * @return 0 when the lock is held; ::RM_TIMEOUT when it was not free in time. Look at it even
 *         without a limit: once a timed wait of the process has timed out, a signal ends a wait
 *         without limit in the same way.
 * @fatal syscall, also when the set is removed meanwhile; an object that is deleted beside others
 *        stays held
 * @log "Invalid Semaphore Handle"; "semop() failure"
 */
RM_API int16_t rm_syncEnterExcl(int16_t handle, uint32_t timeout);

/**
 * Leaves a lock.
 * Whether the caller holds it is not checked: one exit too many raises the semaphore to 2, and the
 * lock lets two in.
 *
 * @param handle sync handle
 * @return 0
 * @fatal syscall
 * @log "Invalid Semaphore Handle"; "semop() failure"
 */
RM_API int16_t rm_syncExitExcl(int16_t handle);

/**
 * Waits until an event is signalled, and resets it.
 * Each waiter that wakes adds 1: two waiters leave the semaphore at 2, and rm_syncResume() then
 * does nothing until somebody brings it back to 1. Use an event for one waiter.
 *
 * @param handle sync handle
 * @param timeout milliseconds, as for rm_syncEnterExcl()
 * @return 0 when the event was signalled; ::RM_TIMEOUT when it was not in time, or when any signal
 *         interrupted the wait
 * @fatal syscall
 * @log "Invalid Semaphore Handle"; "semop() failure"
 */
RM_API int16_t rm_syncWait(int16_t handle, uint32_t timeout);

/**
 * Resets an event that is signalled; any other state is left as it is. Looking and resetting are
 * two steps: when a waiter passes in between, or another process resets the event too, it stands at
 * 2, and neither rm_syncResume() nor this does anything until an rm_syncEnterExcl() brings it back
 * to 1. Reset an event while nobody waits for it, and with a lock around it when several do.
 *
 * @param handle sync handle
 * @return 0
 * @fatal syscall
 * @log "Invalid Semaphore Handle"; "semctl() failure"; "semop() failure"
 */
RM_API int16_t rm_syncStart(int16_t handle);

/**
 * Signals an event that is reset, and so lets its waiters pass; any other state is left as it is.
 * Looking and signalling are two steps: when two processes signal one event at the same moment, the
 * one that comes second fails with EAGAIN, which is fatal. Several signallers need a lock around
 * it.
 *
 * @param handle sync handle
 * @return 0
 * @fatal syscall
 * @log "Invalid Semaphore Handle"; "semctl() failure"; "semop() failure"
 */
RM_API int16_t rm_syncResume(int16_t handle);

/**
 * Deletes all objects of this process, and removes the set and its token file, for every process.
 * #fileSem and #growSem become -1. When another process has removed the set before, that is fatal
 * once: the objects and the set are forgotten by then, and new ones can be made.
 *
 * @return 0
 * @fatal syscall
 * @log "semctl() failure"; "semop() failure"
 */
RM_API int16_t rm_syncTerminate(void);

/**
 * Frees a lock whose holder has died: one that is held, and on which a process operated last that
 * no longer exists. Nothing else is changed, and nothing is known of what the lock guarded: whoever
 * frees it sees to that before.
 *
 * For locks, not for events: a signalled event looks like a held lock, and would be reset. **For
 * one process of a server**, as two that free the same lock at once could free that of a living
 * holder; it calls this after having waited for a dead child: **until then the child still
 * exists**. A process that reuses the number of the dead one keeps the lock held; and when somebody
 * other than its holder operated on the lock last, that process is the one looked for. One that
 * nobody can be named for, such as a process of another container, counts as alive.
 *
 * #fileSem and #growSem are locks like others here, once they exist. The line below enters #fileSem
 * when it goes into a log file, and a dead process may hold that: whoever frees locks keeps the
 * level below 2 meanwhile, see rm_systemLog().
 *
 * @param handle sync handle
 * @return 1 when the lock was freed; 0 when it is free, or its holder still exists, and for
 *         ::RM_NULL_SYNC
 * @fatal syscall
 * @log "WARNING: lock %d freed, its holder %ld is gone" when it was; "Invalid Semaphore Handle";
 *      "semctl() failure"; "semop() failure"
 */
RM_API int16_t rm_syncRecover(int16_t handle);

/**
 * The handler that a timed wait installs for SIGALRM: notes that the time is up and installs itself
 * again. Hosts have no need to call it.
 *
 * @param signalNumber the signal; not looked at
 * @fatal never
 */
RM_API void catchAlarm(int signalNumber);

/** @} */

/**
 * @defgroup rm_gshm Global shared memory
 *
 * Memory that several processes attach, whether or not they were forked from one another. A process
 * has up to 20 objects, each in a slot with a key of its own: that of the token file ".ZNT.RM.MEM",
 * with the prefix of rm_tokenName() before it, and the number of the slot.
 *
 * **The order of creation decides who meets**: the first object of a process is the first one of
 * every other process with the same prefix, whatever their names are. A name only marks its slot as
 * used. Nothing guards the contents: processes that write hold a sync object around it.
 *
 * The segments are open to every user of the machine. What is read from them may have been written
 * by anybody, at any moment.
 *
 * @par Example
 * @include gshm.c
 * @{
 */

/**
 * Creates a shared memory object, or joins the one that another process has created in the same
 * slot, and attaches it. New memory is zero; what another process has written stays.
 *
 * @param name name of the object; copied; null counts as an empty one
 * @param size bytes. 0 is only good for joining; what another process has created must have at
 *             least as many. The machine's own limit is kernel.shmmax.
 * @param[out] address where the object is attached in this process; aligned to a page, and good
 *             until the process ends, even when the object is deleted
 * @return the handle, 0 to 19, lowest free slot first. After "shmget() failure" and "shmat()
 *         failure" the slot is kept until it is deleted or, without another object, until the next
 *         creation; a segment that it had got then stays in the system, as it may be another
 *         process's. After any other failure there is nothing to delete.
 * @fatal syscall, memory
 * @memory the name's copy is the library's, under tag 0. rm_freeall(), or a release of tag 0,
 *         forgets the objects without removing them: delete them first.
 * @log "Out of Shared Memory Objects!" for the 21st object, with the present errno;
 *      "fopen() failure" when the token file cannot be made or is a symbolic link;
 *      "ftok() failure"; "shmat() failure";
 *      "shmget() failure", also for a size that the machine or the existing object does not allow
 */
RM_API int16_t rm_gshmCreate(const char* name, uint32_t size, void** address);

/**
 * Deletes an object: the system removes it when the last process that has attached it has ended.
 * **It is not detached here**, and its address stays good in this process. Who creates an object in
 * the slot from now on gets a new one. With the last object of the process the token file goes,
 * **for every process**: those that begin afterwards make a new one, with keys of its own.
 *
 * @param handle handle of the object; one that names none is accepted and does nothing, except
 *               after a deletion that was one too many: then every one is, until there is an object
 * @return 0
 * @fatal syscall
 * @log "shmctl() failure", as for an object that another user has created; "Deleted too
 *      many global shared memory objects" after a creation that failed, with error 0
 */
RM_API int16_t rm_gshmDelete(int16_t handle);

/**
 * Deletes all objects of this process, lowest handle first. rm_exit() does so.
 *
 * @return 0
 * @fatal syscall
 * @log as rm_gshmDelete()
 */
RM_API int16_t rm_gshmTerminate(void);

/** @} */

/**
 * @defgroup rm_queue Message queues
 *
 * Messages of up to 32,767 bytes between processes, first in, first out. A process has up to 5
 * queues, each in a slot with a key of its own: that of the token file ".ZNT.RM.QUEUE", with the
 * prefix of rm_tokenName() before it, and the number of the slot. As with shared memory, **the
 * order of creation decides who meets**; a name is for rm_queueOpen() alone.
 *
 * **A message has no addressee**: whoever reads a queue gets its oldest message. Give each reader a
 * queue of its own. Nothing waits for room: **writing to a full queue is fatal**, so let no more
 * messages be under way than the machine's limits allow: kernel.msgmax for one message, with 9
 * bytes beside its data, and kernel.msgmnb for all of a queue.
 *
 * @par Example
 * @include queue.c
 * @{
 */

/**
 * Creates a queue, or joins the one that another process has created in the same slot, with the
 * messages that it holds.
 *
 * @param name **kept as a pointer, not copied**: it must stay as it is for as long as the queue
 *             exists, so give a literal. Null counts as an empty one.
 * @return the handle, 0 to 4, lowest free slot first. After "msgget() failure" the slot is kept
 *         until it is deleted; without memory until then or, when no other queue exists, until the
 * next creation. After any other failure there is nothing to delete.
 * @fatal syscall, memory
 * @memory the buffer of 32 KiB is the library's, under tag 0. rm_freeall(), or a release of tag 0,
 *         forgets the queues without removing them: delete them first.
 * @log "Out of Message Queues!" for the 6th queue, with error 0; "fopen() failure" when the token
 *      file cannot be made or is a symbolic link; "ftok() failure"; "msgget() failure"
 */
RM_API int16_t rm_queueCreate(const char* name);

/**
 * Finds a queue of this process by its name.
 *
 * @param name the name, compared byte by byte; null finds nothing
 * @return the handle of the first queue with that name; -1 when there is none
 * @fatal never
 */
RM_API int16_t rm_queueOpen(const char* name);

/**
 * Sends a message. It is in the queue when the call comes back.
 *
 * @param handle handle of the queue
 * @param data the bytes; may be null when there are none
 * @param length number of bytes, 0 to 32,767; a negative one is refused
 * @param code a number that goes with the message, any value
 * @return 0
 * @fatal syscall, **also when the queue is full**
 * @log "Invalid Message Queue Handle" with error 0; "msgsnd() failure": with EAGAIN when the queue
 *      is full, with EINVAL for a negative length, for a message beyond kernel.msgmax, and when
 *      another process has deleted the queue
 */
RM_API int16_t rm_queueWrite(int16_t handle, const void* data, int16_t length, uint16_t code);

/**
 * Takes the oldest message out of a queue.
 *
 * The buffer's size is not asked for. A queue is open to every user of the machine, so its buffer
 * needs room for 32,767 bytes, unless all of its writers are known. A message that the library has
 * not sent has as many bytes as it says, but no more than were received behind its head.
 *
 * @param handle handle of the queue
 * @param[in] dataPointer address of a pointer to the buffer for the bytes; the pointer stays as it
 *            is. The compiler takes the buffer itself too: its first bytes are then an address.
 * @param[out] length number of bytes that were stored, 0 to 32,767
 * @param[out] code the number that went with the message; may be null
 * @param flags 1 to wait for a message, 0 not to; only that bit is looked at
 * @return 0; ::RM_NOT_FOUND when there is no message and the call does not wait: then nothing is
 *         stored
 * @fatal syscall. **A wait that a signal interrupts is fatal** with EINTR when the signal has a
 *        handler: a host that waits blocks its signals, or reads without waiting.
 * @log "Invalid Message Queue Handle" with the present errno; "msgrcv() failure", also when another
 *      process has deleted the queue, and for a foreign message of more than 32,776 bytes
 */
RM_API int16_t rm_queueRead(int16_t handle, void* dataPointer, int16_t* length, uint16_t* code,
                            uint16_t flags);

/**
 * Deletes a queue and the messages in it, for every process; who waits for one is woken, and ends
 * fatally. With the last queue of the process the token file goes, as with rm_gshmDelete().
 *
 * @param handle handle of the queue; one that names none is accepted and does nothing, except after
 *               a deletion that was one too many: then every one is, until there is a queue
 * @return 0
 * @fatal syscall
 * @log "Deleted too many Message Queues!" with error 0, after a creation that found no memory
 */
RM_API int16_t rm_queueDelete(int16_t handle);

/**
 * Deletes all queues of this process, lowest handle first. rm_exit() does so.
 *
 * @return 0
 * @fatal syscall
 * @log as rm_queueDelete()
 */
RM_API int16_t rm_queueTerminate(void);

/** @} */

/**
 * @defgroup rm_process Processes
 *
 * Processes, environment and raw memory. The interface also serves platforms with threads; here a
 * "thread" is a process, the library starts none, and the calls about threads and critical sections
 * do little or nothing. The foreground process is the one that first asked, or that said so last;
 * its forked children are not the foreground.
 *
 * @par Example
 * @include process.c
 * @{
 */

/** Termination state: 0 running, initially; 2 while a fatal error unwinds in a process that is not
 * the foreground; 3 once rm_exit() runs; or what rm_setOSTerm() was given. */
extern RM_API int16_t rmanTerm;

/**
 * Stores the default priority of threads, which nothing here uses.
 *
 * @param priority any value
 * @return 0
 * @fatal never
 */
RM_API int16_t rm_threadDefaultPriority(int16_t priority);

/**
 * Starts no thread: makes the caller the foreground process if there is none yet.
 * Up to four arguments of a word each are accepted and ignored; C before C23 has no prototype for
 * that, so none is declared.
 *
 * @return 1
 * @fatal never
 */
#ifdef __cplusplus
RM_API int16_t rm_threadBegin(...);
#else
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstrict-prototypes"
RM_API int16_t rm_threadBegin();
#pragma GCC diagnostic pop
#endif

/**
 * Does nothing, and comes back.
 *
 * @fatal never
 */
RM_API void rm_threadEnd(void);

/**
 * Tells whether the caller is the foreground process; the first to ask becomes it.
 *
 * @return 1 when it is, else 0; in a forked child 0, until it calls rm_setForegroundThread()
 * @fatal never
 */
RM_API int16_t rm_foregroundThread(void);

/**
 * Makes the caller the foreground process.
 *
 * @return the low 16 bits of its process id
 * @fatal never
 */
RM_API int16_t rm_setForegroundThread(void);

/**
 * Does nothing: processes are single-threaded. Call it in pairs with rm_exitCritSec() all the same,
 * for platforms with threads.
 *
 * @param section 0 or 1; not looked at
 * @fatal never
 */
RM_API void rm_enterCritSec(int16_t section);

/**
 * Does nothing; see rm_enterCritSec().
 *
 * @param section 0 or 1; not looked at
 * @fatal never
 */
RM_API void rm_exitCritSec(int16_t section);

/**
 * Sleeps for whole seconds, rounded up.
 *
 * @param milliseconds 1 to 1000 sleep one second, 1001 two. 0 does not sleep, and neither does a
 *                     value from 0xFFFFFC19 up, to which 999 cannot be added.
 * @return 0; or the seconds that were left when a signal ended the sleep
 * @fatal never
 */
RM_API uint32_t rm_sleep(uint32_t milliseconds);

/**
 * Looks a variable up in the environment of the process; rm_getenv() also knows the local one.
 *
 * @param name name of the variable, its case as it is
 * @return the value, or null when there is none
 * @fatal never
 * @memory the platform's: read it, do not free it
 */
RM_API char* rm_OSgetenv(const char* name);

/**
 * Does nothing: the platform needs no telling how many descriptors are wanted.
 *
 * @fatal never
 */
RM_API void rm_setOSHandleLimit(void);

/**
 * Sets #rmanTerm.
 *
 * @param state any value
 * @fatal never
 */
RM_API void rm_setOSTerm(int16_t state);

/**
 * Tells #rmanTerm.
 *
 * @return the state; 0 before any fatal error or exit
 * @fatal never
 */
RM_API int16_t rm_getOSTerm(void);

/**
 * Takes memory straight from the platform, outside all tags; tagged memory is built on it.
 *
 * @param size bytes
 * @return the memory, not cleared and aligned for any type; null when there is none
 * @fatal never
 * @memory the caller's, under no tag; give it back with rm_freeSeg()
 */
RM_API void* rm_getSeg(uint32_t size);

/**
 * Gives memory of rm_getSeg() back.
 *
 * @param segment the memory; or null, which does nothing
 * @fatal never
 */
RM_API void rm_freeSeg(void* segment);

/** @} */

/**
 * @defgroup rm_osfile File primitives
 *
 * The thin layer over descriptors on which managed files stand. Nothing here logs, locks or ends
 * the process (a temporary name, which is allocated, apart): the status says what happened, and the
 * caller decides. Descriptors are the platform's; hosts that keep many files open use
 * @ref rm_files instead.
 *
 * @par Example
 * @include osfile.c
 * @{
 */

/**
 * @name Open flags
 * The values are those of the interface; rm_flOpen() translates them to the platform's.
 * @{
 */
#define RM_O_RDONLY 0x000U /**< read only */
#define RM_O_WRONLY 0x001U /**< write only */
#define RM_O_RDWR 0x002U   /**< read and write */
#define RM_O_APPEND 0x008U /**< every write goes to the end of the file, whatever the offset */
#define RM_O_CREAT 0x100U  /**< create the file when it does not exist */
#define RM_O_TRUNC 0x200U  /**< cut an existing file to 0 bytes */
#define RM_O_EXCL 0x400U   /**< with RM_O_CREAT: fail when the file exists */
/** @} */

/** 0: rm_flSync() does not sync. Any other value, and -1 at first: it does. Set by rm_init() from
 * the server's profile, or by the host. */
extern RM_API int16_t fileCommit;

/**
 * Opens a file.
 *
 * @param path the path
 * @param openFlags RM_O_ values, combined with "|". Of the other bits 0x004 and 0x080 (do not
 *                  block), 0x010 (synchronous) and 0x800 (no controlling terminal) have the meaning
 *                  that they have in the interface's own numbering; the rest is dropped.
 * @param modeFlags ignored on this platform
 * @param permissions of a file that is created, for instance 0600; the umask applies
 * @param[out] fd the descriptor; -1 when the call failed
 * @return 0, or the errno value of the failure
 * @fatal never
 */
RM_API int16_t rm_flOpen(const char* path, uint32_t openFlags, uint16_t modeFlags,
                         uint32_t permissions, int32_t* fd);

/**
 * Closes a descriptor.
 *
 * @param fd the descriptor
 * @return 0, or -1 with errno set
 * @fatal never
 */
RM_API int16_t rm_flClose(int32_t fd);

/**
 * Reads from where the descriptor stands. A read that a signal interrupts is made again, up to six
 * times in all.
 *
 * @param fd the descriptor
 * @param[out] buffer `length` bytes
 * @param length bytes; a negative length fails with EINVAL
 * @param[out] count bytes read, fewer than `length` at the end of the file, 0 behind it; -1 when
 *                   the read failed
 * @return 0, or the errno value of the failure
 * @fatal never
 */
RM_API int16_t rm_flRead(int32_t fd, void* buffer, int32_t length, int32_t* count);

/**
 * Writes where the descriptor stands, once.
 *
 * @param fd the descriptor
 * @param buffer `length` bytes
 * @param length bytes; a negative length fails with EINVAL
 * @return bytes written, which may be fewer than `length`; 0 on failure, with errno set
 * @fatal never
 */
RM_API int32_t rm_flWrite(int32_t fd, const void* buffer, int32_t length);

/**
 * Moves a descriptor.
 *
 * @param fd the descriptor
 * @param offset bytes, may be negative
 * @param whence what the offset counts from: 0 the start, 1 where it stands, 2 the end
 * @param[out] position the new offset from the start, 0xFFFFFFFF when the seek failed; may be null
 * @return 0, or -1 with errno set
 * @fatal never
 */
RM_API int16_t rm_flSeek(int32_t fd, int32_t offset, int16_t whence, uint32_t* position);

/**
 * Measures an open file. The descriptor stays where it stands, or at the end where the system does
 * not lead it back.
 *
 * @param fd the descriptor
 * @param[out] size bytes; 4 GiB - 1 for any larger file, and on failure
 * @return 0, or -1 with errno set
 * @fatal never
 */
RM_API int16_t rm_flSize(int32_t fd, uint32_t* size);

/**
 * Extends a file with zeros. A file that is large enough is left as it is: nothing shrinks.
 * **The descriptor then stands at 0**, not at the end; where that seek fails nobody is told.
 *
 * @param fd the descriptor, open for writing
 * @param size bytes
 * @return 0; -1 when a write fell short, which leaves what was written, or when the descriptor has
 *         no offsets
 * @fatal never
 */
RM_API int16_t rm_flSetSize(int32_t fd, uint32_t size);

/**
 * Waits until what was written is on the disk, unless #fileCommit is 0.
 *
 * @param fd the descriptor
 * @return 0, whether the sync succeeded or not
 * @fatal never
 */
RM_API int16_t rm_flSync(int32_t fd);

/**
 * Does nothing: this platform offers no write-through for a descriptor that is open.
 *
 * @param fd the descriptor
 * @return 0
 * @fatal never
 */
RM_API int16_t rm_flSetWriteThrough(int32_t fd);

/**
 * Removes a file, or an empty directory.
 *
 * @param path the path
 * @return 0, or -1 with errno set
 * @fatal never
 */
RM_API int16_t rm_flRemove(const char* path);

/**
 * Renames a file. A file that has the new name already is replaced.
 *
 * @param oldPath the path of the file
 * @param newPath its new path, in the same file system
 * @return 0, or -1 with errno set
 * @fatal never
 */
RM_API int16_t rm_flRename(const char* oldPath, const char* newPath);

/**
 * Makes up a path for a temporary file, in the platform's directory for those. No file has it yet,
 * and none is created.
 *
 * @return the path
 * @fatal memory
 * @memory the caller's, under tag 0
 * @log as rm_getMemory()
 */
RM_API char* rm_flTempName(void);

/**
 * Tells how much space a disk has free: its free blocks times 512, **whatever the size of a block
 * of its file system is**. On a disk with larger blocks the figure is too low by that factor;
 * #rminfree is compared with the same figure.
 *
 * @param path any path on the disk
 * @return bytes; -1.0 when the platform cannot tell
 * @fatal never
 */
RM_API double rm_flGetDiskFreeSpace(const char* path);

/**
 * Tells whether a file exists.
 *
 * @param path the path
 * @return 0 when it does; -1 when it does not or cannot be looked at
 * @fatal never
 */
RM_API int16_t rm_fileValidate(const char* path);

/** @} */

/**
 * @defgroup rm_osmodule Shared objects
 *
 * The operating system's half of extension modules (@ref rm_module): opens a shared object, runs
 * its entry point once and finds functions in it. File and entry point follow from the name:
 *
 * | Name                  | File                     | Entry point  |
 * |-----------------------|--------------------------|--------------|
 * | `/usr/lib/db/libgeo`  | `/usr/lib/db/libgeo.so`  | GEO_ModEntry |
 * | `/opt/db/LibAbc`      | `/opt/db/LibAbc.so`      | ABC_ModEntry |
 * | `abc`                 | `abc.so`, searched for as the dynamic linker does | ABC_ModEntry |
 *
 * The entry point is `void NAME_ModEntry(const char* name)` with C linkage; it gets the name as it
 * was given. A file of the current directory is `./abc`.
 *
 * @par Example
 * @include osmodule.c
 * @{
 */

/**
 * Loads a shared object, with all its symbols resolved, and calls its entry point: with every load,
 * also of an object that is loaded already. Other objects do not see what it exports.
 *
 * @param name the path of the object without its ".so", at most 96 bytes; its last part at most 94
 *             bytes, without "lib"
 * @param[out] module the module, when it was loaded; else untouched
 * @return 0; ::RM_NOT_FOUND when the object cannot be loaded, has no entry point, the name is too
 *         long, or its own code has released tag 0
 * @fatal memory; whatever the object's constructors or the entry point end: the object stays
 *        loaded then
 * @memory the caller's, under tag 0; rm_freeMemory() after rm_OSemUnload(). An object without an
 *         entry point leaves a block behind, of 24 bytes where pointers have 8, of 16 where they
 *         have 4.
 * @log when the object cannot be loaded: "Failed to load module '%s'\n" with its path, then
 *      "  REASON: errno = %d  %s" with 0 and the dynamic linker's text
 */
RM_API int16_t rm_OSemLoad(const char* name, void** module);

/**
 * Finds a function, or a variable, in a loaded object and the objects that it needs.
 *
 * @param module from rm_OSemLoad(); null finds nothing
 * @param function its name
 * @param[out] address where it is; null when there is none
 * @return 0; ::RM_NOT_FOUND
 * @fatal never
 */
RM_API int16_t rm_OSemGetFcnAddr(void* module, const char* function, void** address);

/**
 * Closes a loaded object, once for each load. Its functions must not be called any more, nor its
 * texts read.
 *
 * @param module from rm_OSemLoad(); its memory stays the caller's
 * @return 0; ::RM_FULL when the system refuses, for a module that was closed, and for null
 * @fatal whatever the object's own destructors end
 */
RM_API int16_t rm_OSemUnload(void* module);

/** @} */

/**
 * @defgroup rm_files Managed files
 *
 * More open files than the platform has descriptors for. A handle is valid from rm_fileOpen() to
 * rm_fileClose(), while the descriptor behind it comes and goes: when the table holds as many as
 * #fileHandleLimit allows, the least recently used file is parked, that is closed with its position
 * kept, and the next operation on it opens it again. Callers never notice, as long as the path
 * still leads to the file: give an absolute path when the process changes its directory, and do not
 * rename a file under an open handle. One transfer moves up to 2 GiB - 1; a longer one fails.
 *
 * **Growth.** A positioned write (rm_fileSeekWrite()) beyond the known end of a file first extends
 * it with zeros to a whole step of its growth increment, so that a disk runs full before data is
 * half written. Opening for writing extends a file to its initial size in the same way. While
 * #rmDiskFull is not 0 nothing is extended, and it is 1 at first: **a host that wants growth sets
 * it to 0**. Growth that leaves less than #rminfree free on the disk sets it to 1 and logs
 * "extending file %s exceeded min threshold by %ld bytes" and "READ ACCESS ONLY!". Growth that the
 * disk refuses is fatal whatever the file's mode, with "Error expanding file %s" and
 * "Fatal Exit: System Shutting down!".
 *
 * **A file that cannot be opened again** is fatal with ::FILE_FATAL. Without it, the operation logs
 * "WARNING: failed file reopen in %s(%d)" with its own name, fails with EBADF, and the handle is
 * gone: from then on it is invalid, and its number is given to another file.
 *
 * **Locks.** #fileSem guards the table; a file's own lock holds a seek and its transfer together.
 * That lock is a null object: it costs nothing and excludes nobody, since a handle belongs to one
 * process with one thread. Processes that write the same file agree through a lock of the host.
 *
 * @par Example
 * @include files.c
 * @{
 */

#define RM_CURRENT_POSITION 0xFFFFFFFFU /**< offset: where the handle stands */

/**
 * @name Mode flags
 * How a handle behaves. Other bits are kept and ignored.
 * @{
 */
#define FILE_FATAL 0x01U          /**< failed opens, reads and writes are fatal, short ones not */
#define FILE_NOPRESIZE 0x04U      /**< opening does not extend the file to its initial size */
#define FILE_STREAM 0x08U         /**< for rm_filePrintf(); resumes at its end after parking */
#define FILE_PINNED 0x40U         /**< never parked */
#define FILE_NOWRITETHROUGH 0x80U /**< opening does not ask for write-through */
/** @} */

/** Descriptors that the table holds open at most; -1 for no limit, and other values below 1 act as
 * 1. Initially 32; set by rm_init(), raised by rm_fileHandleLimit(), or set by the host. Exceeded
 * while every open file is busy or pinned. */
extern RM_API int16_t fileHandleLimit;

/** Sync handle of the lock of the file table; -1 at first and after rm_syncTerminate(). Made by
 * rm_init(), else by the next call that enters it: rm_fileOpen(), and any on a handle that is in
 * use. A host of one process that wants no semaphores sets this and #growSem to ::RM_NULL_SYNC
 * before its first call. */
extern RM_API int16_t fileSem;

/** Sync handle of the lock of file growth; -1 at first and after rm_syncTerminate(). Made by
 * rm_init(), else by the first growth. */
extern RM_API int16_t growSem;

/** Bytes that growth must leave free on a disk, as rm_flGetDiskFreeSpace() counts them. Initially
 * 0.0; set by rm_init(). */
extern RM_API double rminfree;

/** Not 0: no file is extended ahead of writes. Initially 1; cleared by the host (rm_setDiskFull()),
 * set to 1 by a growth that leaves less than #rminfree free. Each process has its own: a child
 * begins with its parent's. */
extern RM_API int16_t rmDiskFull;

/**
 * Opens a file and gives it a handle.
 * After a fatal end the slot that the file was to get stays in use, parked: nobody has its number,
 * and rm_fileRemove() refuses its path.
 *
 * @param name path of the file, copied; used again whenever the file is reopened; null gives -1
 * @param openFlags RM_O_ values, combined with "|". A file that is created gets the permissions
 *                  0600. ::RM_O_TRUNC and ::RM_O_EXCL act now and not when the file is reopened.
 * @param modeFlags FILE_ values, combined with "|". ::FILE_STREAM needs a file open for writing.
 * @param initialSize bytes to which a smaller file is extended whenever it is opened or reopened
 *                    for writing, unless ::FILE_NOPRESIZE is given; 0 for none
 * @param growIncrement bytes of a growth step; 0 grows to what a write needs
 * @return the handle, 0 to 32766, lowest free number first; -1 when the file cannot be opened, or
 *         all handles are in use
 * @fatal memory, lock, syscall, mode
 * @locks #fileSem; #growSem when the file is extended
 * @log "fileSem timeout in rm_fileOpen"; with ::FILE_FATAL:
 *      "reopenFile: errno=%d: failed to %s file '%s'" (open or create)
 */
RM_API int16_t rm_fileOpen(const char* name, uint32_t openFlags, uint16_t modeFlags,
                           uint32_t initialSize, uint32_t growIncrement);

/**
 * Closes a file and gives its handle back. With the last one the table goes too, and handles start
 * again from 0.
 *
 * @param handle file handle; any other value is logged and nothing happens
 * @fatal lock, syscall
 * @locks #fileSem
 * @log "rm_fileClose: invalid handle %d"; "fileSem timeout in rm_fileClose"
 */
RM_API void rm_fileClose(int16_t handle);

/**
 * Raises #fileHandleLimit.
 *
 * @param limit descriptors, 4 to 9999; any other value, and one that is not above the present
 *              limit, changes nothing
 * @fatal never
 */
RM_API void rm_fileHandleLimit(int16_t limit);

/**
 * Does nothing: write-through is chosen for each handle, by ::FILE_NOWRITETHROUGH.
 *
 * @return 0
 * @fatal never
 */
RM_API int16_t rm_fileSetWriteThrough(void);

/**
 * Moves a handle.
 *
 * @param handle file handle
 * @param offset bytes from the start of the file; may lie behind its end
 * @return the new position; 0xFFFFFFFF for an invalid handle or when the seek failed
 * @fatal lock, syscall, mode
 * @locks #fileSem; #growSem when a reopened file is extended
 * @log "rm_fileSeek: invalid handle %d";
 *      "WARNING: failed file reopen in rm_fileSeek(%d)";
 *      "fileSem timeout in rm_fileSeek"
 */
RM_API uint32_t rm_fileSeek(int16_t handle, uint32_t offset);

/**
 * Writes formatted text to a file that was opened with ::FILE_STREAM. The text leaves the process
 * at once; the file is extended by the write, never ahead of it.
 *
 * @param handle file handle
 * @param format printf format
 * @param ... the arguments of the format
 * @return bytes written, the low 16 bits of the number; 0 for an invalid handle and when the write
 *         failed, which is neither logged nor fatal, whatever the mode; what the system took before
 *         it refused the rest stays in the file
 * @fatal lock, syscall, mode; also for a file without a stream, and while no file at all is open
 * @locks #fileSem; #growSem when a reopened file is extended
 * @log "rm_filePrintf: invalid handle %d";
 *      "Bad status in rm_filePrintf: %d, %p" before the fatal path;
 *      "WARNING: failed file reopen in rm_filePrintf(%d)";
 *      "fileSem timeout in rm_filePrintf"
 */
RM_API uint16_t rm_filePrintf(int16_t handle, const char* format, ...) RM_PRINTF(2, 3);

/**
 * Writes where the handle stands, and moves it on. The file is extended by the write, never ahead
 * of it. A write that would end beyond 4 GiB - 1, where no position leads, fails with EFBIG and
 * writes nothing. On a device without offsets, and in a file opened with ::RM_O_APPEND, it is made,
 * and the position goes round.
 *
 * @param handle file handle
 * @param buffer `length` bytes
 * @param length bytes; 0 returns at once, before the handle is looked at
 * @return bytes written; 0 on failure and for an invalid handle
 * @fatal lock, syscall, mode
 * @locks #fileSem; #growSem when a reopened file is extended
 * @log "rm_fileWrite: invalid handle %d";
 *      "WARNING: failed file reopen in rm_fileWrite(%d)";
 *      "rm_fileWrite: errno=%d: unable to write, file=%s";
 *      "fileSem timeout in rm_fileWrite"
 */
RM_API uint32_t rm_fileWrite(int16_t handle, const void* buffer, uint32_t length);

/**
 * Writes at an offset, grows the file first when the write passes its known end, and moves the
 * handle behind what was written. The known end is where the file ended when it was opened or
 * reopened, or what this call has grown it to since; other writes do not move it.
 *
 * The new size is the end of the write, rounded up to the growth increment; **an end exactly on a
 * multiple of it gets one more increment**. With steps of 1000, a write that ends at 1500 makes
 * 2000 bytes, one that ends at 2000 makes 3000. Without an increment the file grows to the end of
 * the write. While #rmDiskFull is not 0 the file is not extended but counts as if it had been:
 * what was skipped is not made up for later.
 *
 * @param handle file handle
 * @param offset bytes from the start of the file; or ::RM_CURRENT_POSITION, which makes no seek:
 *               the bytes then go where the descriptor stands. That is the handle's position, but
 *               **0 right after the call has grown the file**, even if it was large enough already.
 *               Give the offset whenever the file may grow.
 * @param buffer `length` bytes
 * @param length bytes; 0 returns at once, before the handle is looked at. `offset` + `length` must
 *               fit 32 bits.
 * @return bytes written; 0 on failure and for an invalid handle
 * @fatal lock, syscall, mode
 * @locks #fileSem, left before the next; the file's own; within it #growSem for growth
 * @log "rm_fileSeekWrite: invalid handle %d";
 *      "WARNING: failed file reopen in rm_fileSeekWrite(%d)";
 *      "rm_fileSeekWrite: unable to write %s" with
 *      "    seek address=%lu, bytes=%u, errno=%d";
 *      "fileSem timeout in rm_fileSeekWrite";
 *      "seekSem timeout in rm_fileSeekWrite, file %s"
 */
RM_API uint32_t rm_fileSeekWrite(int16_t handle, uint32_t offset, const void* buffer,
                                 uint32_t length);

/**
 * Reads where the handle stands, and moves it on. A read that has bytes beyond 4 GiB - 1, where no
 * position leads, fails with EFBIG, and the handle stays where it is. From a device without offsets
 * all is read, and the position goes round.
 *
 * @param handle file handle
 * @param[out] buffer `length` bytes
 * @param length bytes; 0 returns at once, before the handle is looked at
 * @return bytes read, fewer than `length` at the end of the file; 0 on failure and for an invalid
 *         handle
 * @fatal lock, syscall, mode
 * @locks #fileSem; #growSem when a reopened file is extended
 * @log "rm_fileRead: invalid handle %d";
 *      "WARNING: failed file reopen in rm_fileRead(%d)";
 *      "rm_fileRead: errno=%d: unable to read, file=%s";
 *      "fileSem timeout in rm_fileRead"
 */
RM_API uint32_t rm_fileRead(int16_t handle, void* buffer, uint32_t length);

/**
 * Reads at an offset, and moves the handle behind what was read. Reads never extend a file.
 *
 * @param handle file handle
 * @param offset bytes from the start of the file; or ::RM_CURRENT_POSITION, to read where the
 *               handle stands
 * @param[out] buffer `length` bytes
 * @param length bytes; 0 returns at once, before the handle is looked at
 * @return bytes read, fewer than `length` at the end of the file; 0 on failure and for an invalid
 *         handle
 * @fatal lock, syscall, mode
 * @locks #fileSem, left before the next; the file's own; #growSem when a reopened file is extended
 * @log "rm_fileSeekRead: invalid handle %d";
 *      "WARNING: failed file reopen in rm_fileSeekRead(%d)";
 *      "rm_fileSeekRead: unable to read %s" with
 *      "    seek address=%lu, bytes=%lu, errno=%d";
 *      "fileSem timeout in rm_fileSeekRead"; "seekSem timeout in rm_fileSeekRead"
 */
RM_API uint32_t rm_fileSeekRead(int16_t handle, uint32_t offset, void* buffer, uint32_t length);

/**
 * Measures a file.
 *
 * @param handle file handle
 * @return its true size in bytes; 4 GiB - 1 for any larger file; 0 when it cannot be measured and
 *         for an invalid handle
 * @fatal lock, syscall, mode
 * @locks #fileSem; #growSem when a reopened file is extended
 * @log "rm_fileLength: invalid handle %d";
 *      "WARNING: failed file reopen in rm_fileLength(%d)";
 *      "fileSem timeout in rm_fileLength"
 */
RM_API uint32_t rm_fileLength(int16_t handle);

/**
 * Tells where a handle stands. A parked file is not reopened.
 *
 * @param handle file handle
 * @return bytes from the start of the file; 0 for an invalid handle
 * @fatal never
 * @log "rm_filePosition: invalid handle %d"
 */
RM_API uint32_t rm_filePosition(int16_t handle);

/**
 * Waits until what was written to a file is on the disk, unless #fileCommit is 0.
 * A parked file is not reopened.
 *
 * @param handle file handle
 * @return 0, whether the sync succeeded or not, and for an invalid handle
 * @fatal lock, syscall
 * @locks #fileSem
 * @log "rm_fileSync: invalid handle %d"; "fileSem timeout in rm_fileSync"
 */
RM_API int16_t rm_fileSync(int16_t handle);

/**
 * Removes a file or an empty directory, unless a handle of this process has it open or parked.
 *
 * @param path the path; compared byte by byte with those given to rm_fileOpen()
 * @return 0; -1 when a handle has it open; not 0 when the platform refuses, with errno set
 * @fatal never
 */
RM_API int16_t rm_fileRemove(const char* path);

/**
 * Renames a file. **Whether a handle has it open is not checked**; such a handle cannot be reopened
 * once it is parked, and with ::RM_O_CREAT is reopened on a new, empty file.
 *
 * @param oldPath the path of the file
 * @param newPath its new path, in the same file system; a file of that name is replaced
 * @return 0, or -1 with errno set
 * @fatal never
 */
RM_API int16_t rm_fileRename(const char* oldPath, const char* newPath);

/**
 * Makes up a path for a temporary file, as rm_flTempName() does.
 *
 * @param path **without influence on the result**; may be null
 * @return the path
 * @fatal memory
 * @memory the caller's, under tag 0
 * @log as rm_getMemory()
 */
RM_API char* rm_fileTempName(const char* path);

/**
 * Tells how busy the file table of this process is. A child begins with its parent's counts.
 *
 * @param[out] open handles with a descriptor now; may be null
 * @param[out] parked handles without one now; may be null
 * @param[out] parkings files parked since the process began; may be null
 * @param[out] reopens parked files opened again since the process began; may be null
 * @fatal never
 */
RM_API void rm_fileCounts(uint32_t* open, uint32_t* parked, uint32_t* parkings, uint32_t* reopens);

/** @} */

/**
 * @defgroup rm_copy File copy and move
 *
 * Whole files, through managed handles. **Both calls remove the destination first**, and what is
 * lost by that is lost even when they fail. Two spellings of one path are two paths: `"a"` copied
 * to `"./a"` is removed, and then cannot be opened.
 *
 * Copying uses two handles. **Handle 0 counts as a failure**: while no managed file has it a copy
 * fails, and the source stays open as handle 0. What a process opens first and keeps open, such as
 * its log file, prevents it.
 *
 * A fatal error in the middle leaves both files open until the next copy or move, which closes
 * them. While a move copies, the destination keeps its descriptor: one more than #fileHandleLimit
 * when nothing else can be parked.
 *
 * @par Example
 * @include filecopy.c
 * @{
 */

/**
 * Copies a file in steps of 4,096 bytes. The copy is a new file, open to its owner alone.
 * A source of 4 GiB or more is copied as far as a position reaches, which counts as a failed read.
 *
 * **Success does not mean that all bytes arrived**: failed reads and writes are in the log and
 * nowhere else. A read that fails ends the copy; after a write that fails it goes on, as far as the
 * source reached then (a pipe or a device has no length: the copy ends), and lacks those bytes.
 * Who has to know compares lengths, or uses rm_fileMove(), which does know.
 *
 * @param source path of the file; a directory is copied as an empty file
 * @param destination path of the copy; a file or an empty directory there is removed, unless a
 *                    handle of this process has it open by the same path
 * @return 0, also when both paths are the same text: then nothing is done; ::RM_COPY_FAILED when
 *         either file cannot be opened
 * @fatal lock, memory, syscall
 * @locks #fileSem, for each step
 * @log as rm_fileOpen(), rm_fileRead(), rm_fileWrite() and rm_fileClose()
 */
RM_API int32_t rm_fileCopy(const char* source, const char* destination);

/**
 * Moves a file: renames it, or, where that is not possible, as from one file system to another,
 * copies it and removes the source. The source is kept unless all its bytes have arrived and have
 * reached the disk, and the destination's path leads to them then.
 *
 * Close both files before: a handle on either may lose its file. Where the call has to copy, a
 * source that this process has open by the same path, or may not remove, stays, and the call
 * returns 0. A copied file belongs to this process's user and is open to no other; #fileCommit 0
 * leaves to the system when its bytes reach the disk.
 *
 * @param source path of the file
 * @param destination its new path; a file there is removed first, or replaced by the renaming
 * @return 0, also when both paths are the same text: then nothing is done; ::RM_COPY_FAILED when it
 *         could be neither renamed nor copied whole, or when the copy was removed or replaced
 *         meanwhile. Then the source is still there, and at the destination may be a part of it.
 *         **Two spellings of one path lose the file**: as the destination it is removed first.
 * @fatal lock, memory, syscall
 * @locks #fileSem, when it copies
 * @log as rm_fileCopy() and rm_fileSync()
 */
RM_API int16_t rm_fileMove(const char* source, const char* destination);

/** @} */

/**
 * @defgroup rm_stream Text streams
 *
 * Lines of managed files, through a block of 512 bytes. A stream reads or writes; what happens when
 * one does both is not defined. The lines end with "\n"; there is no other translation.
 *
 * **A last line that does not end with a newline** is returned only by the call that reads its
 * last block; when an earlier call has read that block, or the line ends with it (a file of a
 * multiple of 512 bytes), the line is lost, and the call returns null. A zero byte ends the file
 * too.
 *
 * A write that fails is logged by the managed file and not reported here. Who must know compares
 * the file with what it should be.
 *
 * @par Example
 * @include textstream.c
 * @{
 */

/** A text stream; made by rm_fileStreamOpen(). */
typedef struct FileStream FileStream;

/**
 * Opens a text file as a stream.
 *
 * @param path path of the file; null opens nothing
 * @param mode "r" to read; "w" to write, which creates the file or empties it; with "+" behind it
 *             the file is opened for both. At most three characters are looked at, and others are
 *             ignored: there is no mode to append, **and "a" opens for reading**. Null reads.
 * @return the stream; null when the file cannot be opened
 * @fatal memory, lock, syscall
 * @locks #fileSem
 * @memory the caller's, under tag 0, until rm_fileStreamClose()
 * @log as rm_fileOpen() without ::FILE_FATAL
 */
RM_API FileStream* rm_fileStreamOpen(const char* path, const char* mode);

/**
 * Writes what is still in the block, and closes the file.
 *
 * @param stream the stream; null does nothing
 * @fatal lock, syscall
 * @locks #fileSem
 * @log as rm_fileWrite() and rm_fileClose()
 */
RM_API void rm_fileStreamClose(FileStream* stream);

/**
 * Reads a line, or as much of it as fits. The newline stays in the text.
 *
 * @param stream the stream; null gives null
 * @param[out] buffer `size` bytes; null gives null
 * @param size bytes of the buffer; at most `size` - 1 of them are filled from the line. With 1 the
 *             text is empty, and one byte of the line is passed over; with 0 or less nothing is
 *             read or written, and null comes back.
 * @return `buffer`; null at the end of the file, at a zero byte, and when the file cannot be read.
 *         The buffer may hold the beginning of a line that is lost then.
 * @fatal lock, syscall
 * @locks #fileSem
 * @log as rm_fileRead()
 */
RM_API char* rm_fileStreamGets(FileStream* stream, char* buffer, int32_t size);

/**
 * Writes a line: the text and a newline. A block reaches the file when the next byte comes, or with
 * rm_fileStreamClose(). When a put ends fatally, the next one drops what of that line is still in
 * the block; lines before it are kept.
 *
 * @param stream the stream; null writes nothing
 * @param text the line without its newline; null writes nothing
 * @return the length of the text, without the newline; 0 for a null stream or text
 * @fatal lock, syscall
 * @locks #fileSem
 * @log as rm_fileWrite()
 */
RM_API uint32_t rm_fileStreamPuts(FileStream* stream, const char* text);

/**
 * Reads a whole line of any length into a buffer that grows. The newline stays in the text.
 *
 * @param stream the stream; null gives null
 * @param[in,out] lineBuffer address of the buffer, a block of tag 0, or of null: then one of 100
 *                bytes is made. The buffer may move. A null address gives null.
 * @param[in,out] lineSize address of the buffer's size in bytes; 0 stands for 100, and with a null
 *                buffer it counts as 100. It grows by 100 as often as a line asks for it. A null
 *                address gives null.
 * @return the buffer; null at the end of the file and the like, as rm_fileStreamGets(), and when
 *         the buffer is no block of tag 0 and cannot grow
 * @fatal memory, lock, syscall
 * @locks #fileSem
 * @memory the buffer is the caller's, under tag 0, also when null comes back
 * @log as rm_fileRead() and rm_extendMemory()
 */
RM_API char* rm_fileStreamGetLine(FileStream* stream, char** lineBuffer, uint32_t* lineSize);

/** @} */

/**
 * @defgroup rm_ini INI files
 *
 * Settings that people can read: sections opened by `[name]`, entries `key=value`, comments that
 * begin with `;`. A file is read anew by every call.
 *
 * The default file, of rm_iniGet() and rm_iniSet(), is "corvane.ini" in the current directory; with
 * the variable `CATPATH` set, in the directory that it names (see @ref rm_path).
 *
 * **Rules that surprise.** Names are compared without regard to case, and nothing is trimmed:
 * `key = value` has a key that ends in a blank and a value that begins with one.
 *
 * - *Reading a value*: an empty line ends the search, another section's header does not. Without an
 *   empty line between them, a key of the following section is found too.
 * - *Setting a new key*: it is written before the first line of the section that begins with white
 *   space (in files with CR LF that includes empty lines), or at the end of the file when the
 *   section is the last one, or is new. **Otherwise it is not written at all, and the result is
 *   still 0.** The tool rmini, and a rm_iniGetPrivate() afterwards, tell. A key that stands behind
 *   a line that begins with white space counts as new: it is there twice then, and the first is
 *   read.
 * - *Deleting a key* deletes all lines of the section with it.
 * - *A last line without a newline* is not read, unless it begins a block or runs on into its last
 *   one (see @ref rm_stream); a rewrite keeps it and gives it a newline.
 * - *Files with CR LF* keep their line ends, but what a change adds ends with LF alone.
 * - *Names and values that are read back differently*: a newline or a carriage return anywhere; a
 *   key with "=", or that begins with ";", "[" or white space; a section with "]". They are written
 *   as they are.
 *
 * **Rewriting.** A change copies the file into "_temp_.ini" in the same directory, brings that to
 * the disk (unless #fileCommit is 0), removes the file, and renames the copy. The new file has the
 * permissions of the old one, and its owner and group where the process may give it away; a
 * permission that would be somebody else's is left out. A symbolic link is replaced by the file.
 * After a fatal error the process keeps both files open until its next call of this group.
 *
 * Processes that change files of one directory take turns, by a lock on the copy (flock), for which
 * they wait up to 14 s; and a reader waits as long for a file that is missing while the copy is
 * locked. On a file system without locks nobody waits, and the host must see to the turns.
 *
 * When a change returns ::RM_RENAME_FAILED, or its process died in it, look at the path:
 *
 * | The path is | "_temp_.ini" is | Then                                                  |
 * |-------------|-----------------|-------------------------------------------------------|
 * | there       | absent          | nothing was changed; or all, when the process died    |
 * | there       | there           | nothing was changed: remove "_temp_.ini"              |
 * | absent      | there           | it is the changed file, whole: rename it to the path  |
 *
 * The last row holds for the file whose change was cut off. Of two files in one directory that both
 * are absent, or when another one was changed since, the copy may be the other's.
 *
 * **Do that before the next change of any file in the directory**, since that writes "_temp_.ini"
 * anew, **and only while you hold the lock on "_temp_.ini"**, since all three rows are also what a
 * change in progress looks like. A host does best to look when it starts; @ref md_HOSTS has the
 * lines for it.
 *
 * @par Example
 * @include ini.c
 * @{
 */

/**
 * Reads a value, the entries of a section, or the names of all sections.
 *
 * - `section` null: the names of all sections.
 * - `key` null: the entries of the section, up to an empty line or the next header.
 * - both given: the value of the key, in the first section of that name.
 *
 * A list is a row of texts, each with its zero, and one more zero behind the last. What does not
 * fit is cut; the result does not tell.
 *
 * @param section name of the section, or null
 * @param key name of the key, or null
 * @param[out] buffer `size` bytes. Left as it is when a value is not found, or the file cannot be
 *                    opened. Behind a value, zeros fill all but its last byte.
 * @param size bytes of the buffer. A value of `size` - 2 bytes fits. With 1 the text is empty, with
 *             0 or less nothing is written.
 * @param withValues for the entries of a section: 0 lists keys only, else whole lines
 * @param path path of the file
 * @return 0; ::RM_NOT_FOUND when there is no such thing, or the file cannot be opened;
 *         ::RM_MISSING_ARGUMENT for a null buffer or path. A list that has no room for a single
 *         byte is ::RM_NOT_FOUND, and so is whatever could not be read whole.
 * @fatal memory, lock, syscall
 * @locks #fileSem; when the file is missing also that of a rewrite, up to 14 s
 * @log as rm_fileRead()
 */
RM_API int16_t rm_iniGetPrivate(const char* section, const char* key, char* buffer, int16_t size,
                                uint16_t withValues, const char* path);

/**
 * As rm_iniGetPrivate(), on the default file.
 *
 * @param section name of the section, or null
 * @param key name of the key, or null
 * @param[out] buffer `size` bytes
 * @param size bytes of the buffer
 * @param withValues 0 lists keys only, else whole lines
 * @return as rm_iniGetPrivate(); ::RM_OUT_OF_MEMORY when the path cannot be built: kept for
 *         callers, since exhausted memory is fatal first
 * @fatal memory, lock, syscall
 * @locks as rm_iniGetPrivate()
 * @log as rm_iniGetPrivate()
 */
RM_API int16_t rm_iniGet(const char* section, const char* key, char* buffer, int16_t size,
                         uint16_t withValues);

/**
 * Sets an entry, deletes an entry, or deletes a section, in a file that exists.
 *
 * - `key` and `value` given: the entry is replaced, or added, see above when.
 * - `value` null: all entries of the section with that key are deleted.
 * - `key` null: the first section of that name is deleted, up to the next header.
 *
 * @param section name of the section
 * @param key name of the key, or null; see above which are read back differently
 * @param value the value, or null; likewise
 * @param path path of the file; "_temp_.ini" itself cannot be changed
 * @return 0, also when there was nothing to delete, **and when a new entry found no place**;
 *         ::RM_MISSING_ARGUMENT for a null section or path; ::RM_CANNOT_OPEN when the file or its
 *         copy cannot be opened or is no plain file, or another process kept the copy locked;
 *         ::RM_RENAME_FAILED when the copy could not be written, or could not take the file's
 *         place: see above what stands where then
 * @fatal memory, lock, syscall; the copy may stay behind, and the file is untouched
 * @locks that on the copy, up to 14 s, and as long for a file that is missing; #fileSem
 * @log as rm_fileRead(), rm_fileWrite() and rm_fileSync()
 */
RM_API int16_t rm_iniSetPrivate(const char* section, const char* key, const char* value,
                                const char* path);

/**
 * As rm_iniSetPrivate(), on the default file. An entry that was set in section "ENVIRONMENT" is
 * also put into the local environment (rm_putLocalEnv()), in upper case, even when it found no
 * place in the file, and has its effect in this process at once: a `CATPATH` moves the default
 * file itself.
 *
 * @param section name of the section
 * @param key name of the key, or null
 * @param value the value, or null
 * @return as rm_iniSetPrivate(); ::RM_OUT_OF_MEMORY when the path cannot be built: kept for
 *         callers, since exhausted memory is fatal first
 * @fatal as rm_iniSetPrivate(); memory also when the file is changed and the local environment has
 *        no room for the entry
 * @locks as rm_iniSetPrivate()
 * @log as rm_iniSetPrivate()
 */
RM_API int16_t rm_iniSet(const char* section, const char* key, const char* value);

/** @} */

/**
 * @defgroup rm_localenv Local environment
 *
 * Settings of this process that come before its environment. The library reads its own variables,
 * for instance `SEG_ALLOC`, through rm_getenv(), so a host can set them at run time.
 *
 * Entries are texts `NAME=value` and are kept in upper case, **the value too**. Lookups ignore the
 * case of the name.
 *
 * @par Example
 * @include localenv.c
 * @{
 */

/**
 * Sets, replaces or removes an entry.
 * The first entry that merely **begins** with the new name is replaced: `PATH=x` also replaces
 * `PATHLIST=y` when that comes first, and an empty name replaces the first entry of all.
 *
 * @param text `NAME=value`, copied; or `NAME` alone, which removes the entry; null does nothing
 * @fatal memory
 * @log as rm_getMemory()
 */
RM_API void rm_putLocalEnv(const char* text);

/**
 * Looks a name up in the local environment.
 *
 * @param name the name, in any case; of a name longer than 127 bytes nothing is found; null finds
 *             nothing
 * @return the value, in upper case; null when there is none
 * @fatal never
 * @memory the library's, under tag 0: valid until the entry is replaced; do not free it
 */
RM_API char* rm_getLocalEnv(const char* name);

/**
 * Looks a name up in the local environment, then in that of the process.
 *
 * @param name the name; for the environment of the process its case counts; null finds nothing
 * @return the value; null when neither has one
 * @fatal never
 * @memory as rm_getLocalEnv() or rm_OSgetenv(): do not free it
 */
RM_API char* rm_getenv(const char* name);

/** @} */

/**
 * @defgroup rm_module Extension modules
 *
 * One registry of the modules of a process: those that were linked into the server, and shared
 * objects that it loads. A module is known by the last part of its path, so `/x/y/mod` and `mod`
 * are one module, and addressed by a handle. Its functions are found by name: those that it has
 * registered with rm_emRegFcn(), usually from its entry point, then those that it exports.
 *
 * - Files and entry points: @ref rm_osmodule.
 * - A module is loaded once. There are no counts: **one rm_emUnload() unloads it**, however often
 *   it was loaded.
 * - **A lookup does not reach the last slot of the registry**, which has 16 slots at first, then
 *   32, 48, 64, 80, 96, 112, and twice as many each time from there. Of the module that gets it,
 *   the 16th for instance, not all that its entry point registers is found, and loading it again
 *   loads it a second time under a new handle. What it exports is found.
 * - Handles are good until their module is unloaded, and are given out again then, lowest first.
 * - A module that is linked in is never loaded, and unloading it does nothing. It answers the names
 *   of its list's record, and **to every other name 0 with the address untouched**: functions that
 *   are registered for it are not found.
 * - The registry lies in tag 0: rm_freeTagMemory() of that tag and rm_freeall() make it forgotten.
 *   What was loaded stays loaded.
 *
 * A host that links modules in defines rm_getEmList().
 *
 * @par Examples
 * @include modules.c
 * The module that it loads:
 * @include libunits.c
 * A host with linked-in modules:
 * @include linkedmodules.c
 * @{
 */

/** A linked-in module that is initialised and cleaned up by its host. */
typedef struct EmListEntry {
    const char* name; /**< of the module; kept as a pointer for as long as the process runs */
    void* init;       /**< found as "ModInit" */
    void* cleanup;    /**< found as "ModCleanup" */
    void* describe;   /**< found as "ModDescribeFcns" */
} EmListEntry;

/** A linked-in module of the second kind. */
typedef struct IefListEntry {
    const char* name; /**< of the module; kept as a pointer */
    void* describe;   /**< found as "iefDescribeFcns" */
} IefListEntry;

/** A linked-in module of the third kind. */
typedef struct UdfListEntry {
    const char* name; /**< of the module; kept as a pointer */
    void* describe;   /**< found as "udfDescribeFcns" */
} UdfListEntry;

/** A linked-in module of the fourth kind. */
typedef struct UdpListEntry {
    const char* name; /**< of the module; kept as a pointer */
    void* reserved1;  /**< the host's own; never read */
    void* reserved2;  /**< the host's own; never read */
    void* describe;   /**< found as "udpDescribeFcns" */
} UdpListEntry;

/**
 * Makes the registry with the linked-in modules in it, in the order of their lists; they have the
 * handles from 0 up. rm_emLoad() does it when it is needed. Does nothing when there is a registry.
 *
 * @return 0; ::RM_OUT_OF_MEMORY when the lists are longer than a registry can be (57344 modules):
 *         those that found room are in it
 * @fatal memory
 * @log as rm_getMemory()
 */
RM_API int16_t rm_emInit(void);

/**
 * Tells which modules are linked in. **A host may define this function itself**; the library then
 * calls the host's. The one in the library stores 0 and null everywhere.
 *
 * Called each time that the registry is made. The lists must stay for as long as the process runs.
 * A host's own must not call functions of this group.
 *
 * @param[out] emCount number of records of the first list
 * @param[out] emList the first of them; null for no list
 * @param[out] iefCount of the second list
 * @param[out] iefList the first of them
 * @param[out] udfCount of the third list
 * @param[out] udfList the first of them
 * @param[out] udpCount of the fourth list
 * @param[out] udpList the first of them
 * @fatal never
 */
RM_API void rm_getEmList(uint16_t* emCount, const EmListEntry** emList, uint16_t* iefCount,
                         const IefListEntry** iefList, uint16_t* udfCount,
                         const UdfListEntry** udfList, uint16_t* udpCount,
                         const UdpListEntry** udpList);

/**
 * Loads a module, unless one of that name is in the registry: then only its handle is given.
 *
 * @param path the module's path without the ".so" of its object
 * @param[out] handle the module, 0 up; **what is above 32767 is negative**. Touched only on
 *                    success.
 * @return 0; ::RM_NOT_FOUND when it cannot be loaded, see rm_OSemLoad(), and when its own code has
 *         released tag 0, the registry with it; ::RM_OUT_OF_MEMORY when the registry is full: the
 *         object stays loaded then. The first load gives it also when the linked-in modules do
 *         not fit, with nothing loaded: the next one goes on without the rest of them.
 *         ::RM_INVALID when the registry's memory was written over and takes no further module:
 *         the object stays loaded then
 * @fatal memory; whatever the module's entry point ends. **If that had registered a function, the
 *        module is in the registry then**: loading it again gives its handle, and finds only what
 *        it had registered.
 * @memory the registry's, under tag 0. A module that registers functions leaves some of it behind
 *         with every unload: 96 bytes for up to 3 functions, and a copy of its name.
 * @log as rm_OSemLoad(); as bagAdd(), when the registry takes no further module
 */
RM_API int16_t rm_emLoad(const char* path, int16_t* handle);

/**
 * Finds a function of a module.
 *
 * @param handle any number
 * @param function name of the function; its case counts
 * @param[out] address the function's address; null when it is not found. Untouched for an unknown
 *                     handle, and where a linked-in module does not know the name.
 * @return 0; ::RM_UNKNOWN_MODULE; ::RM_NOT_FOUND when the module has no such function
 * @fatal never
 */
RM_API int16_t rm_emGetFcnAddr(int16_t handle, const char* function, void** address);

/**
 * Unloads a module and forgets it and its functions. A module that is linked in, or known only by
 * registered functions, stays.
 *
 * @param handle any number
 * @return 0, **also when the system refuses to close the object**, which then stays loaded and
 *         registered; ::RM_UNKNOWN_MODULE
 * @fatal whatever the module's own destructors end
 */
RM_API int16_t rm_emUnload(int16_t handle);

/**
 * Registers a function of a module. Names are not compared: the one that was registered first is
 * found. A module that is not in the registry is entered, without an object.
 *
 * @param module name of the module, or a path that ends with it: a module's entry point passes on
 *               what it was given
 * @param function name of the function, copied
 * @param address what rm_emGetFcnAddr() is to give
 * @return 0; ::RM_NOT_FOUND when there is no registry yet; ::RM_OUT_OF_MEMORY when the registry, or
 *         the list of the module's functions, is full; ::RM_INVALID when the registry's memory was
 *         written over and takes no further module
 * @fatal memory
 * @log "Can't register function '%s' for unknown extension module '%s'" without a registry; as
 *      bagAdd()
 */
RM_API int16_t rm_emRegFcn(const char* module, const char* function, void* address);

/** @} */

/**
 * @defgroup rm_bag Bags
 *
 * Growable arrays of slots of one size, addressed by small handles, with one current position that
 * lookups and iterations move. A constant control record says which of three kinds a bag is:
 *
 * - **compact** (no flag): the elements are the slots 0 to usedCount - 1. A deletion moves the last
 *   element into the hole, which changes its handle.
 * - **slot map** (::BAG_SLOT_MAP): deletions leave holes, which are filled again lowest first.
 *   Handles are good until their own element is deleted. **Forward iteration, and so bagFind(),
 *   ends before the last slot**; bagLast() and handles reach it.
 * - **ring** (::BAG_RING): slots are handed out one after the other, round and round. Delete the
 *   oldest element only: bagFirst() counts it back from where the next one goes. **Iteration does
 *   not go round**, and knows the slots below usedCount only, as bagSetCurHandle() does; whoever
 *   wants all elements reads the slots themselves.
 *
 * A bag has no lock. It grows by growIncrement slots, and from growThreshold slots on to twice its
 * size; it never shrinks. Growing may move the elements: pointers to them are good until the next
 * bagAdd(). Unused slots of a slot map hold zero bytes.
 *
 * The current position is nowhere after creation, after a deletion in a compact bag and after
 * bagSetCurHandle() of an unused slot. It may stand past the end or on a hole: what a call does
 * then stands with it.
 *
 * @par Example
 * @include bags.c
 * @{
 */

#define BAG_KEY_STRING 1  /**< keys are texts */
#define BAG_KEY_ISTRING 2 /**< keys are texts, compared as stricmp() does */
#define BAG_KEY_BINARY 3  /**< keys are keyLength bytes */
#define BAG_KEY_INDIRECT \
    0x80                   /**< what stands at keyOffset is a pointer to the key; null has none */
#define BAG_SLOT_MAP 0x100 /**< slot map */
#define BAG_POINTERS 0x200 /**< slots hold pointers to elements, which are not copied */
#define BAG_RING 0x400     /**< ring */
#define RM_NO_SLOT 65535   /**< no current position */

/** What a bag is: constant data of the host that outlives all bags made from it. */
typedef struct BagCtl {
    uint16_t flags;         /**< a kind of key; ::BAG_SLOT_MAP, ::BAG_RING or neither; the others */
    uint16_t initialSlots;  /**< slots at first; 0 is allowed, with a growThreshold above 0 */
    uint16_t growIncrement; /**< slots added while there are fewer than growThreshold; 0 for none */
    uint16_t growThreshold; /**< from this many on, a bag doubles */
    uint16_t elementSize;   /**< bytes of a slot; with ::BAG_POINTERS at least those of a pointer */
    int16_t tag;            /**< owner of all memory of the bag */
    uint32_t keyOffset;     /**< where the key stands in an element, bytes */
    uint16_t keyLength;     /**< bytes of a key of the kind ::BAG_KEY_BINARY */
} BagCtl;

/** A bag. Hosts read it; they change it through the calls below. */
typedef struct Bag {
    const BagCtl* ctl;  /**< what it is */
    uint16_t slotCount; /**< slots that it has */
    uint16_t usedCount; /**< elements in it */
    uint16_t curSlot;   /**< current position, or ::RM_NO_SLOT */
    uint16_t nextSlot;  /**< ring: where the next element goes */
    void* data;         /**< the slots; null while there is none */
    uint16_t* slotMap;  /**< slot map: a bit per slot, the first slot of each word its highest */
} Bag;

/**
 * Makes an empty bag.
 *
 * @param ctl what it is; kept as a pointer
 * @param[out] bag the bag; touched only on success
 * @return 0; ::RM_INVALID for a bag of pointers whose elementSize is smaller than a pointer
 * @fatal memory
 * @memory the caller's, under the control record's tag; bagDestroy() gives it back
 * @log "bagCreate failed" with ::RM_INVALID; as rm_getMemory()
 */
RM_API int16_t bagCreate(const BagCtl* ctl, Bag** bag);

/**
 * Frees a bag. What the pointers of a bag with ::BAG_POINTERS lead to stays the caller's.
 *
 * @param bag the bag, or null
 * @return 0
 * @fatal never
 * @log as rm_freeMemory()
 */
RM_API int16_t bagDestroy(Bag* bag);

/**
 * Adds an element. A compact bag puts it behind the others and keeps its position; a slot map takes
 * the lowest hole and makes it current; a ring takes the next slot and makes it current, except
 * that an addition for which it grows goes behind all others and leaves the position where the next
 * element would else have gone.
 *
 * **Growing damages the elements of a ring**: it moves them, by a rule that is the one of every
 * release, without regard to where they begin, also those of an element that is being added from
 * the bag itself. With a growIncrement of 0, and a growThreshold above
 * initialSlots, a ring does not grow.
 *
 * @param bag the bag
 * @param element elementSize bytes to copy, which may be those of an element of the bag; with
 *                ::BAG_POINTERS, what the slot is to point to
 * @return 0; ::RM_OUT_OF_MEMORY, with nothing changed, when it would need more than 65535 slots or
 *         may not grow; ::RM_INVALID for a slot map that has no free slot where its counts say so:
 *         its map is damaged or, in a bag that need not grow, missing
 * @fatal memory; the bag is as it was
 * @log "findEmptySlot failed", "markSlotUsed failed" when the map is missing; as rm_extendMemory()
 */
RM_API int16_t bagAdd(Bag* bag, const void* element);

/**
 * Deletes the element at the current position. In a compact bag there is no position afterwards; in
 * the other two it moves to the next element, as bagNext() does it. Its slot becomes zero bytes,
 * except for the last element of a compact bag.
 *
 * @param bag the bag
 * @return 0; ::RM_NO_ELEMENT when there is no element at the position, with nothing changed. **In a
 *         slot map and a ring also when the element was deleted and bagNext() finds no other.** A
 *         ring takes every slot for an element as long as it has any.
 * @fatal never
 * @log "markSlotUsed failed" in a compact bag without ::BAG_POINTERS when another element has taken
 *      the place of the deleted one: no fault; else, when the map is missing
 */
RM_API int16_t bagDelete(Bag* bag);

/**
 * Goes to the first element: the oldest of a ring, else the one in the lowest slot.
 *
 * @param bag the bag
 * @return 0; ::RM_NO_ELEMENT when the bag is empty, with the position unchanged, or forward
 *         iteration reaches no element. Slot 0 is reached even as the last one of a slot map.
 * @fatal never
 * @log "markSlotUsed failed" when the map is missing
 */
RM_API int16_t bagFirst(Bag* bag);

/**
 * Goes to the next element; from nowhere, to slot 0 or the first element after it.
 *
 * @param bag the bag
 * @return 0; ::RM_NO_ELEMENT at the end, where the position is past the last element that iteration
 *         reaches: **in a slot map on the last slot**, which may hold an element. Each further call
 *         goes one slot on.
 * @fatal never
 * @log "markSlotUsed failed" when the map is missing
 */
RM_API int16_t bagNext(Bag* bag);

/**
 * Goes to the last element: the newest of a ring, else the one in the highest slot.
 *
 * @param bag the bag
 * @return 0; ::RM_NO_ELEMENT when the bag is empty, with the position unchanged
 * @fatal never
 * @log "markSlotUsed failed" when the map is missing
 */
RM_API int16_t bagLast(Bag* bag);

/**
 * Goes to the used slot before the position; from nowhere, to the highest one. A ring is not gone
 * round.
 *
 * @param bag the bag
 * @return 0; ::RM_NO_ELEMENT when there is none, with the position at slot 0
 * @fatal never
 * @log "markSlotUsed failed" when the map is missing
 */
RM_API int16_t bagPrev(Bag* bag);

/**
 * Gives the current position, wherever it stands.
 *
 * @param bag the bag
 * @param[out] handle the slot, 0 to 65534; untouched when there is none
 * @return 0; ::RM_NO_ELEMENT when the position is nowhere
 * @fatal never
 */
RM_API int16_t bagGetCurHandle(Bag* bag, uint16_t* handle);

/**
 * Goes to a slot.
 *
 * @param bag the bag
 * @param handle any number
 * @return 0; ::RM_NOT_FOUND when the slot is not used: the position is nowhere then
 * @fatal never
 * @log "markSlotUsed failed" when the map is missing
 */
RM_API int16_t bagSetCurHandle(Bag* bag, uint16_t handle);

/**
 * Gives the address of the current element.
 *
 * @param bag the bag
 * @param[out] pointer the slot's address, good until the next bagAdd(); with ::BAG_POINTERS, the
 *                     pointer in it. Untouched when there is none.
 * @return 0; ::RM_NO_ELEMENT when the position is nowhere or past the end. On a hole it is 0.
 * @fatal never
 */
RM_API int16_t bagGetCurPtr(Bag* bag, void** pointer);

/**
 * Copies the current slot.
 *
 * @param bag the bag
 * @param[out] buffer elementSize bytes; with ::BAG_POINTERS they begin with the pointer. Untouched
 *                    when there is no element.
 * @return as bagGetCurPtr()
 * @fatal never
 */
RM_API int16_t bagGetCurData(Bag* bag, void* buffer);

/**
 * Goes to the first element that has a key, in the order of bagFirst() and bagNext(). Every element
 * before it is compared.
 *
 * @param bag the bag
 * @param key a text, or keyLength bytes, as the control record says; the empty text is never found
 * @param[out] handle the slot, or null when it is not wanted; untouched when nothing is found
 * @param[out] pointer as from bagGetCurPtr(), or null when it is not wanted; likewise
 * @return 0; ::RM_NOT_FOUND, with the position where the iteration ended, or for the empty text at
 *         the first element; ::RM_INVALID when the control record names no kind of key and the
 *         iteration meets an element
 * @fatal never
 * @log "can't bagFind" with ::RM_INVALID; "markSlotUsed failed" when the map is missing
 */
RM_API int16_t bagFind(Bag* bag, const void* key, uint16_t* handle, void** pointer);

/** @} */

/**
 * @defgroup rm_ffbag FF bag
 *
 * A queue of fixed-size elements in global shared memory, first in, first out. It never grows, and
 * a push or a pop costs no system call. **It takes no lock**: the processes that share it hold a
 * sync object of theirs around every call.
 *
 * The area is an object of rm_gshmCreate() with the name "FFBAG1", so the order in which a process
 * creates its shared memory objects decides which bag it gets. Elements are bytes: they hold no
 * pointers. All processes have to see the same layout, so they agree on the types in them.
 *
 * Whoever may attach the area may change it. What a process reads and writes stays within the
 * memory that it asked for when it created the bag, and within the element size of then; a bag that
 * leads out of that is refused. That goes for every bag whose shared memory object the process has,
 * and for the latest of the others, twenty together; any other is taken at its word.
 *
 * @par Example
 * @include ffbag.c
 * @{
 */

/**
 * Creates a bag, or joins one, and **empties it for everybody**: each creation clears the area. A
 * bag that others already use is therefore inherited over a fork, or created before they begin.
 * There is no call that destroys it; rm_gshmTerminate() and rm_exit() do, and rm_gshmDelete() with
 * the lowest number that was free before.
 *
 * @param capacity number of elements that the bag can hold, 0 to 65,535
 * @param elementSize bytes of an element, 0 to 65,535
 * @param[out] bag the handle for push and pop
 * @param[out] area start of the shared memory, 4 bytes before the handle; it has
 *             capacity * elementSize + 16 bytes
 * @return 0
 * @fatal syscall, memory, as rm_gshmCreate()
 * @memory as rm_gshmCreate()
 * @log as rm_gshmCreate()
 */
RM_API int16_t ffBagCreate(uint16_t capacity, uint16_t elementSize, void** bag, void** area);

/**
 * Puts an element into the bag.
 *
 * @param bag handle of the bag
 * @param element its bytes, as many as the bag's element size; copied
 * @return 0; ::RM_FULL when the bag is full: nothing changes; ::RM_INVALID when the bag is damaged:
 *         nothing changes
 * @fatal never
 */
RM_API int16_t ffBagPush(void* bag, const void* element);

/**
 * Takes the oldest element out of the bag.
 *
 * @param bag handle of the bag
 * @param[out] buffer where the element goes, as many bytes as the bag's element size
 * @return 0; ::RM_NO_ELEMENT when the bag is empty: the buffer stays as it is; ::RM_INVALID when
 *         the bag is damaged: nothing changes
 * @fatal never
 */
RM_API int16_t ffBagPop(void* bag, void* buffer);

/** @} */

/**
 * @defgroup rm_darray Dynamic arrays
 *
 * Entries with a name and a record of fixed size, found by name or by what is in the record, and
 * addressed by an index. The array grows by blocks up to its maximum and **a record never moves**:
 * pointers to it are good for as long as the array exists.
 *
 * Each array has a tag of its own, named "dynamic array tag", with segments of 2048 bytes after the
 * one of 8192 that holds the name; the array and everything in it goes with it. The tag's number
 * stands in the memory report only.
 *
 * @par Example
 * @include darrays.c
 * @{
 */

/** A dynamic array. What it consists of is the library's business. */
typedef struct DArray DArray;

/**
 * Makes an array without entries.
 *
 * @param maxEntries entries that it may have, 0 up; rounded up to whole blocks, and at least one
 *                   block when entriesPerBlock is above 1
 * @param entriesPerBlock entries that are made at a time, 1 up
 * @param dataSize bytes of each record, 0 up
 * @return the array; null when an argument is out of range
 * @fatal memory
 * @memory the caller's, under a tag of its own; darrayDestroy() gives it back
 * @log as rm_allocTag() and rm_getMemory()
 */
RM_API DArray* darrayCreate(int16_t maxEntries, int16_t entriesPerBlock, int16_t dataSize);

/**
 * Frees an array with all its entries, and its tag.
 *
 * @param array the array, or null
 * @fatal never
 * @log as rm_freeTagMemory(), for an array whose tag was released before
 */
RM_API void darrayDestroy(DArray* array);

/**
 * Takes a free entry: in the lowest block that has one, the one that was deleted last, else the
 * lowest. The bytes of its record are those of its last use, or of nothing.
 *
 * @param array the array
 * @param name **kept as a pointer, not copied**, for as long as the entry exists; not null. It need
 *             not be unique.
 * @param[out] data the record's address, aligned to 8 bytes where dataSize is a multiple of 8; null
 *                  when it is not wanted. Untouched when there is no entry.
 * @return the index, 0 up; -1 when the array is full, or has entries up to index 32767
 * @fatal memory; also when a free entry turns out to be in use: an entry was deleted twice
 * @log "Corruption in dynamic arrays"; as rm_getMemory()
 */
RM_API int16_t darrayCreateEntry(DArray* array, const char* name, void** data);

/**
 * Finds the entry with a name; of several, the one with the lowest index.
 *
 * @param array the array
 * @param name the name; its case counts
 * @param[out] data the record's address, null when there is none; or null when it is not wanted
 * @return the index; -1 when there is none
 * @fatal never
 */
RM_API int16_t darrayFindEntry(DArray* array, const char* name, void** data);

/**
 * Finds the entry whose record holds certain bytes at a certain place; of several, the one with the
 * lowest index. No record holds what would have to lie outside of it.
 *
 * @param array the array
 * @param key the bytes, or the text
 * @param keyOffset where they stand in the record, bytes
 * @param keyLength number of bytes; of a text, how many are compared at most
 * @param mode bit 0 set: compare as strncmp does; clear: all bytes. Other bits mean nothing.
 * @param[out] data the record's address, null when there is none; or null when it is not wanted
 * @return the index; -1 when there is none
 * @fatal never
 */
RM_API int16_t darrayGetEntryFromData(DArray* array, const void* key, int16_t keyOffset,
                                      uint16_t keyLength, uint16_t mode, void** data);

/**
 * Gives the lowest index that is in use.
 *
 * @param array the array
 * @return the index; -1 when there is none
 * @fatal never
 */
RM_API int16_t darrayGetFirstUsedEntry(DArray* array);

/**
 * Deletes an entry. Its record stays as it is.
 * **Deleting a free entry is not noticed here**: it stands on the list of free ones twice then, is
 * given out once, and from then on every darrayCreateEntry() that comes to it is fatal.
 *
 * @param array the array
 * @param index the entry; a number whose block was not made does nothing
 * @fatal never
 */
RM_API void darrayDeleteEntry(DArray* array, int16_t index);

/**
 * Gives the address of an entry's record, whether the entry is in use or not.
 *
 * @param array the array
 * @param index any number
 * @return the address; null when its block was not made
 * @fatal never
 */
RM_API void* darrayGetEntryPtr(DArray* array, int16_t index);

/**
 * Gives the name of an entry.
 *
 * @param array the array
 * @param index any number
 * @return the pointer that darrayCreateEntry() was given; null when the entry is not in use
 * @fatal never
 */
RM_API const char* darrayGetEntryName(DArray* array, int16_t index);

/** @} */

/**
 * @defgroup rm_text Text
 *
 * Texts, the same on every machine that shares the server's files: case and classes are those of
 * ASCII. No state, no locks, and nothing is logged but by the allocation of a result.
 *
 * @par Example
 * @include text.c
 * @{
 */

/**
 * Tells whether a text consists of decimal digits only.
 *
 * @param text the text; may be null
 * @return 1 when it does, and for a null or empty text; else 0
 * @fatal never
 */
RM_API int AllDigits(const char* text);

/**
 * Turns a text to upper case, in place.
 *
 * @param[in,out] text the text; may be null
 * @return `text`
 * @fatal never
 */
RM_API char* StrUpper(char* text);

/**
 * Turns a text to lower case, in place.
 *
 * @param[in,out] text the text; may be null
 * @return `text`
 * @fatal never
 */
RM_API char* StrLower(char* text);

/**
 * Compares two texts without regard to case, in the order that they have in upper case.
 *
 * @param a a text; null counts as empty
 * @param b a text; null counts as empty
 * @return -1 when `a` comes first, 0 when they are equal, 1 when `b` comes first
 * @fatal never
 */
RM_API int stricmp(const char* a, const char* b);

/**
 * Compares the beginnings of two texts as stricmp() does.
 *
 * @param a a text; null counts as empty
 * @param b a text; null counts as empty
 * @param n bytes to compare at most; 0 gives 0 and reads nothing
 * @return -1 when `a` comes first, 0 when they are equal, 1 when `b` comes first
 * @fatal never
 */
RM_API int strnicmp(const char* a, const char* b, uint32_t n);

/**
 * Splits a text into words at white space. There is no quoting: every other byte is part of a word.
 *
 * @param[in,out] text the text; zeros are written over the white space around its words, which
 *                     stay where they are: it must outlive the array
 * @param[out] count number of words
 * @param[out] argv array of `count` pointers to the words, without a null behind them; null when
 *                  there is no word
 * @param tag a tag in use
 * @return 0; ::RM_OUT_OF_MEMORY when there is no room for the array, with only `count` stored: kept
 *         for callers, since exhausted memory is fatal first
 * @fatal memory
 * @memory the array is the caller's, under `tag`
 * @log as rm_getMemory()
 */
RM_API int16_t StrToArgv(char* text, int* count, char*** argv, int16_t tag);

/**
 * Joins texts, without separators, into a new one.
 *
 * @param strings array of `count` texts; null entries are passed over
 * @param count number of entries
 * @param tag a tag in use
 * @return the joined text. **Without any entry that is not null it is one byte that nobody
 *         cleared**: give at least one text.
 * @fatal memory
 * @memory the caller's, under `tag`
 * @log as rm_getMemory()
 */
RM_API char* StrArrayCat(const char* const* strings, int16_t count, int16_t tag);

/**
 * Joins texts, without separators, in a buffer.
 *
 * @param strings array of `count` texts; null entries are passed over
 * @param count number of entries
 * @param[out] buffer `size` bytes, **and at least one even when `size` is 0**: without any text to
 *                    copy its first byte becomes zero
 * @param size bytes of the buffer; a result of `size` - 1 bytes fits
 * @return 0 when everything fitted; -1 when the result was cut. It ends with a zero either way,
 *         unless `size` is 0.
 * @fatal never
 */
RM_API int16_t StrArrayCatBuf(const char* const* strings, uint16_t count, char* buffer,
                              uint16_t size);

/**
 * Copies a text into a buffer and ends it with a zero. The rest of the buffer is filled with zeros.
 *
 * @param[out] destination `n` bytes
 * @param source the text; null counts as empty; cut after `n` - 1 bytes
 * @param n bytes of the buffer; 0 or less writes nothing
 * @return `destination`
 * @fatal never
 */
RM_API char* StrncpyZ(char* destination, const char* source, int n);

/**
 * Reads a line without its newline. Of a line that does not fit, the rest is read and dropped.
 * Standard output is flushed first, so that a prompt is seen.
 *
 * @param[out] buffer `size` bytes; behind the terminator of a line it stays as it is
 * @param size bytes of the buffer; a line of `size` - 1 bytes fits. With 1 the text is empty and
 *             the line is dropped; with 0 or less nothing is written at all.
 * @param stream an open stream
 * @return `buffer`; null, with an empty text in the buffer, at the end of the file and on an error
 * @fatal never
 */
RM_API char* FgetsTrim(char* buffer, int16_t size, FILE* stream);

/** @} */

/**
 * @defgroup rm_path Paths
 *
 * A path is made of a directory, a base name and an extension, joined by "/" and ".". **A directory
 * that begins with "." does not count from the current directory** but from the one that the
 * variable `CATPATH` names (rm_getenv(), so the local environment comes first, with its values in
 * upper case). With `CATPATH`
 * "/a/b/c":
 *
 * | Directory | stands for |
 * |-----------|------------|
 * | "./x"     | "/a/b/c/x" |
 * | ".x"      | "/a/b/c/x" |
 * | "."       | "/a/b/c/"  |
 * | "../x"    | "/a/b/x"   |
 * | ".."      | "/a/b/"    |
 *
 * Without `CATPATH` such a directory is dropped: the path is the base and the extension alone. One
 * slash at the end of `CATPATH` makes no difference. When it is empty, or ".." meets one without a
 * slash before its last component, nothing of it is kept, and "./x" or "../x" stands for "/x".
 *
 * @par Example
 * @include paths.c
 * @{
 */

/**
 * Gives the last component of a path.
 *
 * @param path the path; may be null
 * @return the text behind its last "/", inside `path`; `path` itself when it has none
 * @fatal never
 */
RM_API char* pathBaseExt(const char* path);

/**
 * Lists the pieces of which a path is joined. `CATPATH` plays no part here.
 *
 * @param[out] parts array of 5 pointers; they point to the arguments and to literals
 * @param directory the directory, or null; "/" follows it unless it is empty or ends with one
 * @param base the base name, or null
 * @param extension the extension without its dot, or null
 * @return number of pieces, 0 to 5
 * @fatal never
 */
RM_API uint16_t makePathInt(const char** parts, const char* directory, const char* base,
                            const char* extension);

/**
 * Resolves a directory that begins with "." by `CATPATH`.
 *
 * @param directory the directory
 * @return the directory that it stands for; null when `CATPATH` is not set, or the directory is
 *         null or does not begin with "."
 * @fatal memory
 * @memory the caller's, under tag 0
 * @log as rm_getMemory()
 */
RM_API char* allocWithCatPath(const char* directory);

/**
 * Makes a path. A base that holds a "/" is taken as the whole path, whatever the other two are.
 *
 * @param directory the directory; by `CATPATH` when it begins with "."; null counts as none
 * @param base the base name, or null
 * @param extension the extension without its dot, or null
 * @param tag a tag in use
 * @return the path; an empty text when it has no pieces
 * @fatal memory
 * @memory the caller's, under `tag`
 * @log as rm_getMemory()
 */
RM_API char* makeAllocPath(const char* directory, const char* base, const char* extension,
                           int16_t tag);

/**
 * Makes a path in a buffer. **A base that holds a "/" is joined like any other**, unlike in
 * makeAllocPath().
 *
 * @param[out] buffer `size` bytes, and at least one even when `size` is 0
 * @param size bytes of the buffer
 * @param directory the directory; by `CATPATH` when it begins with "."; null counts as none
 * @param base the base name, or null
 * @param extension the extension without its dot, or null
 * @return 0; -1 when the path was cut. It ends with a zero either way, unless `size` is 0.
 * @fatal memory, when the directory begins with "."
 * @log as rm_getMemory()
 */
RM_API int16_t makePath(char* buffer, uint16_t size, const char* directory, const char* base,
                        const char* extension);

/** @} */

RM_END_DECLS

#endif
