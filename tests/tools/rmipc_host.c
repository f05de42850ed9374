/* A host that makes IPC objects as its command line says, for the tests of rmipc.
 *
 * usage: rmipc_host PREFIX STEP...
 *   sync:NAME         makes a sync object; the steps behind it are about the last one
 *   enter             enters it as a lock
 *   leave             leaves it
 *   start, resume     makes it an event that waits, and signals it
 *   segment:SIZE      makes a segment of shared memory
 *   bag:CAPACITY:SIZE:COUNT  makes an FF bag with so many elements in it
 *   queue:NAME        makes a message queue
 *   write:SIZE        writes a message of so many bytes to the last queue
 *   read              reads one
 *   fork              makes a child that does the steps behind this up to "join", and then waits
 *                     for a signal to end it; the parent waits until it has done them
 *   waiting:KIND      a child that enters or waits for the last sync object, KIND being one of
 *                     both words, or that reads from the last queue; none of them comes back
 *   say:TEXT          prints a line
 *   pause             waits for a signal to end it
 *   kill              ends as by SIGKILL, with everything left as it is
 *   forget            closes the token files, as a process does that has none of them open
 * Without a last step it ends in order and leaves nothing. */
#define _GNU_SOURCE
#include "rm.h"

#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

static int16_t object = RM_NULL_SYNC;
static int16_t queueOf = RM_NONE;
static char data[32768];

static uint32_t number(char** rest)
{
    const char* text = strsep(rest, ":");
    return text != NULL ? (uint32_t)strtoul(text, NULL, 0) : 0;
}

/* A child ends with its parent, so that a case that fails leaves none. */
static pid_t child(void)
{
    const pid_t parent = getpid();
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(1);
        }
    }
    return pid;
}

static void waitFor(const char* kind)
{
    if (child() != 0) {
        return;
    }
    if (strcmp(kind, "enter") == 0) {
        rm_syncEnterExcl(object, RM_WAIT_FOREVER);
    } else if (strcmp(kind, "wait") == 0) {
        rm_syncWait(object, RM_WAIT_FOREVER);
    } else {
        char* target = data;
        int16_t length = 0;
        rm_queueRead(queueOf, &target, &length, NULL, 1);
    }
    _exit(0);
}

static void fillBag(char** rest)
{
    const uint16_t capacity = (uint16_t)number(rest);
    const uint16_t size = (uint16_t)number(rest);
    void* bag = NULL;
    void* area = NULL;
    ffBagCreate(capacity, size, &bag, &area);
    for (uint32_t count = number(rest); count != 0; --count) {
        ffBagPush(bag, data);
    }
}

static void forget(void)
{
    DIR* folder = opendir("/proc/self/fd");
    const struct dirent* entry = NULL;
    while (folder != NULL && (entry = readdir(folder)) != NULL) {
        char target[4096];
        const ssize_t length = readlinkat(dirfd(folder), entry->d_name, target, sizeof(target) - 1);
        target[length > 0 ? length : 0] = '\0';
        if (strstr(target, ".ZNT.RM.") != NULL) {
            close(atoi(entry->d_name));
        }
    }
    if (folder != NULL) {
        closedir(folder);
    }
}

static void readQueue(void)
{
    char* target = data;
    int16_t length = 0;
    rm_queueRead(queueOf, &target, &length, NULL, 0);
}

static int runOther(const char* what, char** rest)
{
    if (strcmp(what, "write") == 0) {
        rm_queueWrite(queueOf, data, (int16_t)number(rest), 7);
    } else if (strcmp(what, "read") == 0) {
        readQueue();
    } else if (strcmp(what, "waiting") == 0) {
        waitFor(*rest);
    } else if (strcmp(what, "say") == 0) {
        puts(*rest);
        fflush(stdout);
    } else if (strcmp(what, "pause") == 0) {
        pause();
    } else if (strcmp(what, "kill") == 0) {
        raise(SIGKILL);
    } else if (strcmp(what, "forget") == 0) {
        forget();
    } else {
        fprintf(stderr, "rmipc_host: there is no step %s\n", what);
        return 1;
    }
    return 0;
}

static int run(char* step)
{
    char* rest = step;
    const char* what = strsep(&rest, ":");
    if (strcmp(what, "sync") == 0) {
        object = rm_syncCreate(rest);
    } else if (strcmp(what, "enter") == 0) {
        rm_syncEnterExcl(object, RM_WAIT_FOREVER);
    } else if (strcmp(what, "leave") == 0) {
        rm_syncExitExcl(object);
    } else if (strcmp(what, "start") == 0) {
        rm_syncStart(object);
    } else if (strcmp(what, "resume") == 0) {
        rm_syncResume(object);
    } else if (strcmp(what, "segment") == 0) {
        void* address = NULL;
        rm_gshmCreate("segment", number(&rest), &address);
    } else if (strcmp(what, "bag") == 0) {
        fillBag(&rest);
    } else if (strcmp(what, "queue") == 0) {
        queueOf = rm_queueCreate(rest);
    } else {
        return runOther(what, &rest);
    }
    return 0;
}

/* Does the steps of a child, which stay its own; returns where the parent's go on. */
static int runChild(int count, char** steps, int first)
{
    int ends[2];
    char done = 0;
    if (pipe(ends) != 0) {
        return count;
    }
    if (child() == 0) {
        for (int i = first; i < count && strcmp(steps[i], "join") != 0; ++i) {
            run(steps[i]);
        }
        if (write(ends[1], &done, 1) == 1) {
            pause();
        }
        _exit(0);
    }
    while (read(ends[0], &done, 1) < 0 && errno == EINTR) {
    }
    while (first < count && strcmp(steps[first], "join") != 0) {
        ++first;
    }
    return first;
}

int main(int argc, char** argv)
{
    if (argc < 2) {
        return 1;
    }
    int status = 0;
    fileSem = growSem = RM_NULL_SYNC;
    rm_tokenName(argv[1]);
    for (int i = 2; i < argc && status == 0; ++i) {
        if (strcmp(argv[i], "fork") == 0) {
            i = runChild(argc, argv, i + 1);
        } else {
            status = run(argv[i]);
        }
    }
    rm_exit((int16_t)status);
}
