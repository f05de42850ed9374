/* A parent makes a lock and an event, forks a worker, and waits for its word. */
#define _POSIX_C_SOURCE 200809L
#include <rm.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

static jmp_buf fatal_target;

int main(void)
{
    rm_setForegroundThread();
    if (setjmp(fatal_target) != 0) {
        if (rm_foregroundThread() == 0) {
            _exit(1); /* a worker: rm_exit would take the objects from everybody */
        }
        rm_exit(1);
    }
    rm_errorJump(fatal_target);

    const int16_t lock = rm_syncCreate("lock"); /* free */
    const int16_t done = rm_syncCreate("done"); /* reset; both before the fork */

    const pid_t worker = fork();
    if (worker == 0) {
        const int16_t entered = rm_syncEnterExcl(lock, 5000);
        if (entered == RM_SUCCESS) {
            rm_syncExitExcl(lock);
        }
        rm_syncResume(done);
        _exit(entered);
    }

    const int16_t seen = worker == -1 ? RM_NONE : rm_syncWait(done, 5000);
    printf("%s\n", seen == RM_SUCCESS ? "the worker is done" : "no word from the worker");
    int status = 1;
    waitpid(worker, &status, 0);
    rm_exit(seen == RM_SUCCESS && status == 0 ? 0 : 1); /* removes set and token file */
}
