/* A parent and a worker count in memory that both have, one at a time. */
#define _POSIX_C_SOURCE 200809L
#include <rm.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

enum { ROUNDS = 1000 };

typedef struct Counters {
    uint32_t served;
    uint32_t by_workers;
} Counters;

static jmp_buf fatal_target;

static int count(int16_t lock, Counters* counters, uint32_t by_workers)
{
    for (int i = 0; i < ROUNDS; ++i) {
        if (rm_syncEnterExcl(lock, 5000) != RM_SUCCESS) {
            return 1;
        }
        ++counters->served;
        counters->by_workers += by_workers;
        rm_syncExitExcl(lock);
    }
    return 0;
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

    const int16_t lock = rm_syncCreate("counters"); /* the memory has none of its own */
    void* address = NULL;
    rm_gshmCreate("counters", sizeof(Counters), &address);
    Counters* counters = address;
    memset(counters, 0, sizeof *counters); /* a run that was killed leaves what it had counted */

    const pid_t worker = fork(); /* it inherits the handle, and the memory where it is */
    if (worker == 0) {
        _exit(count(lock, counters, 1));
    }
    int status = 1;
    const int failed = worker == -1 || count(lock, counters, 0) != 0;
    waitpid(worker, &status, 0);
    printf("%u served, %u of them by the worker\n", (unsigned)counters->served,
           (unsigned)counters->by_workers);
    const int good = counters->served == 2 * ROUNDS && counters->by_workers == ROUNDS;
    rm_exit(good && !failed && status == 0 ? 0 : 1); /* removes lock, memory and token files */
}
