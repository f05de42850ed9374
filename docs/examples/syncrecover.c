/* A worker is killed while it holds a lock. Its parent frees the lock, and the next worker gets it.
 */
#define _POSIX_C_SOURCE 200809L
#include <rm.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

static jmp_buf fatal_target;

static pid_t start_worker(int16_t lock, int is_killed)
{
    const pid_t worker = fork();
    if (worker == 0) {
        const int16_t entered = rm_syncEnterExcl(lock, 10000);
        if (is_killed) {
            raise(SIGKILL);
        }
        if (entered == RM_SUCCESS) {
            rm_syncExitExcl(lock);
        }
        _exit(entered);
    }
    return worker;
}

int main(void)
{
    rm_setForegroundThread();
    if (setjmp(fatal_target) != 0) {
        if (rm_foregroundThread() == 0) {
            _exit(1);
        }
        rm_exit(1);
    }
    rm_errorJump(fatal_target);
    const int16_t lock = rm_syncCreate("lock");

    int status = 0;
    const pid_t killed = start_worker(lock, 1);
    int good =
        waitpid(killed, &status, 0) == killed && WIFSIGNALED(status); /* before that it exists */
    good = good && rm_syncRecover(lock) == 1;
    good = good && rm_syncRecover(lock) == 0; /* free: there is nothing to do */

    const pid_t next = start_worker(lock, 0);
    good = waitpid(next, &status, 0) == next && status == 0 && good;
    printf("the next worker %s the lock\n", good ? "got" : "did not get");
    rm_exit(good ? 0 : 1);
}
