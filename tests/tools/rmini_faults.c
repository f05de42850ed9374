/* Preloaded into rmini: what a full disk, a foreign file system or a kill would do at the moment
 * that a file is replaced. RMINI_FAULT says which. Semaphores are refused whatever it says: rmini
 * must not ask for any. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sem.h>
#include <time.h>
#include <unistd.h>

typedef int (*AccessFunction)(const char*, int);
typedef int (*PathFunction)(const char*);
typedef int (*PathsFunction)(const char*, const char*);
typedef int (*ClockFunction)(clockid_t, struct timespec*);
typedef int (*SleepFunction)(const struct timespec*, struct timespec*);

static int asked(const char* fault)
{
    const char* setting = getenv("RMINI_FAULT");
    return setting != NULL && strcmp(setting, fault) == 0;
}

static int failing(int error)
{
    errno = error;
    return -1;
}

int semget(key_t key, int count, int flags)
{
    (void)key;
    (void)count;
    (void)flags;
    return failing(ENOSYS);
}

int access(const char* path, int mode)
{
    AccessFunction real = NULL;
    /* A data pointer becomes a function pointer by its bytes: C has no cast for it. */
    *(void**)&real = dlsym(RTLD_NEXT, "access");
    return asked("read-only") && mode == W_OK ? failing(EACCES) : real(path, mode);
}

int remove(const char* path)
{
    PathFunction real = NULL;
    *(void**)&real = dlsym(RTLD_NEXT, "remove");
    return asked("remove") && strstr(path, "_temp_.ini") == NULL ? failing(EBUSY) : real(path);
}

/* Another process is quicker than the one that has just replaced the file. */
static void interfere(const char* path)
{
    const char* content = asked("forget") ? "" : asked("overwrite") ? "[a]\nk=other\n" : NULL;
    FILE* file = content != NULL ? fopen(path, "w") : NULL;
    if (file != NULL) {
        fputs(content, file);
        fclose(file);
    }
}

int rename(const char* from, const char* to)
{
    PathsFunction real = NULL;
    *(void**)&real = dlsym(RTLD_NEXT, "rename");
    if (asked("die at rename")) {
        kill(getpid(), SIGKILL);
    }
    if (asked("rename")) {
        return failing(EIO);
    }
    const int result = real(from, to);
    interfere(to);
    return result;
}

/* Time flies: nobody sleeps, and each look at the clock is a second later. */
int nanosleep(const struct timespec* time, struct timespec* left)
{
    SleepFunction real = NULL;
    *(void**)&real = dlsym(RTLD_NEXT, "nanosleep");
    return asked("hurry") ? 0 : real(time, left);
}

int clock_gettime(clockid_t clock, struct timespec* now)
{
    static time_t passed = 0;
    ClockFunction real = NULL;
    *(void**)&real = dlsym(RTLD_NEXT, "clock_gettime");
    const int result = real(clock, now);
    now->tv_sec += asked("hurry") ? ++passed : 0;
    return result;
}
