/* Preloaded into the catalogue: its workers kill themselves, at moments that no signal from outside
 * would meet reliably. A process is a worker from the moment on at which it first waits for the
 * turn.
 *
 * KILL_SEM=n      a worker dies as soon as it has entered the lock with this semaphore
 * KILL_CALLS=n    a worker dies before one of its first n calls of the kinds below, at random
 * KILL_TIMES=n    so many times, counted by the bytes of the file that KILL_FILE names
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

enum { TURN = 18 };

typedef int (*SemopFunction)(int, struct sembuf*, size_t);
typedef int (*SemtimedopFunction)(int, struct sembuf*, size_t, const struct timespec*);
typedef int (*MsgsndFunction)(int, const void*, size_t, int);
typedef ssize_t (*WriteFunction)(int, const void*, size_t);
typedef ssize_t (*ReadFunction)(int, void*, size_t);

static pid_t worker = 0; /* this process, when it is one */
static int callsLeft = 0;

/* A data pointer becomes a function pointer by its bytes: C has no cast for it. */
#define REAL(function) *(void**)&real = dlsym(RTLD_NEXT, function)

static int setting(const char* name)
{
    const char* text = getenv(name);
    return text == NULL ? -1 : atoi(text);
}

/* Dies, unless that has been done often enough. */
static void die(void)
{
    const char* path = getenv("KILL_FILE");
    struct stat status;
    int fd = path == NULL ? -1 : open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        return;
    }
    if (fstat(fd, &status) == 0 && status.st_size < setting("KILL_TIMES")) {
        static WriteFunction real = NULL;
        REAL("write");
        if (real(fd, ".", 1) == 1) {
            kill(getpid(), SIGKILL);
        }
    }
    close(fd);
}

/* Before a call: a process that has forked on since is another one. */
static void step(void)
{
    if (worker == getpid() && callsLeft > 0 && --callsLeft == 0) {
        die();
    }
}

static void entered(const struct sembuf* operation, size_t count, int result)
{
    if (result != 0 || count != 1 || operation->sem_op >= 0 || operation->sem_num == 19) {
        return;
    }
    if (operation->sem_num == TURN && worker != getpid()) {
        worker = getpid();
        if (setting("KILL_CALLS") > 0) {
            srandom((unsigned)getpid());
            callsLeft = 1 + (int)(random() % setting("KILL_CALLS"));
        }
    }
    if (worker == getpid() && operation->sem_num == setting("KILL_SEM")) {
        die();
    }
}

int semop(int set, struct sembuf* operations, size_t count)
{
    static SemopFunction real = NULL;
    REAL("semop");
    step();
    const int result = real(set, operations, count);
    entered(operations, count, result);
    return result;
}

int semtimedop(int set, struct sembuf* operations, size_t count, const struct timespec* timeout)
{
    static SemtimedopFunction real = NULL;
    REAL("semtimedop");
    step();
    const int result = real(set, operations, count, timeout);
    entered(operations, count, result);
    return result;
}

int msgsnd(int queue, const void* message, size_t bytes, int flags)
{
    static MsgsndFunction real = NULL;
    REAL("msgsnd");
    step();
    const int result = real(queue, message, bytes, flags);
    step();
    return result;
}

ssize_t write(int fd, const void* data, size_t bytes)
{
    static WriteFunction real = NULL;
    REAL("write");
    step();
    return real(fd, data, bytes);
}

ssize_t read(int fd, void* data, size_t bytes)
{
    static ReadFunction real = NULL;
    REAL("read");
    step();
    return real(fd, data, bytes);
}
