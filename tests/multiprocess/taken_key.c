/* Preloaded into a program: the first two semaphore keys that it asks about are in use already.
 * Such keys cannot be arranged otherwise, since a key follows from the number of a file that does
 * not exist yet. Who wants a set that is new says so; everything else passes through. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stddef.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

typedef int (*SemgetFunction)(key_t, int, int);

int semget(key_t key, int count, int flags)
{
    static int queriesToMeet = 2;
    static SemgetFunction real = NULL;
    if (real == NULL) {
        /* A data pointer becomes a function pointer by its bytes: C has no cast for it. */
        *(void**)&real = dlsym(RTLD_NEXT, "semget");
    }
    if ((flags & IPC_EXCL) != 0 && queriesToMeet > 0) {
        static const char said[] = "key taken\n";
        --queriesToMeet;
        errno = write(STDERR_FILENO, said, sizeof(said) - 1) < 0 ? EIO : EEXIST;
        return -1;
    }
    return real(key, count, flags);
}
