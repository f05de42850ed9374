/* A parent hands jobs to a worker through a bag of four. The bag takes no lock, so the two have one
   of theirs; and neither asks again and again, since each is woken by the other's event. */
#define _POSIX_C_SOURCE 200809L
#include <rm.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

enum { CAPACITY = 4, JOBS = 100 };

typedef struct Job {
    int32_t number;
} Job;

static jmp_buf fatal_target;
static int16_t lock, work, room; /* room: an event of the worker's */
static void* bag;

static int16_t push(const Job* job)
{
    rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
    const int16_t result = ffBagPush(bag, job);
    rm_syncExitExcl(lock);
    return result;
}

static int16_t pop(Job* job)
{
    rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
    const int16_t result = ffBagPop(bag, job);
    rm_syncExitExcl(lock);
    return result;
}

/* Each job once, and in order. */
static int worker_main(void)
{
    for (int32_t expected = 1; expected <= JOBS;) {
        Job job = {0};
        const int16_t result = pop(&job);
        if (result == RM_SUCCESS) {
            if (job.number != expected) {
                return 1;
            }
            ++expected;
            rm_syncResume(room);
        } else if (result != RM_NO_ELEMENT || rm_syncWait(work, 5000) != RM_SUCCESS) {
            return 1;
        }
    }
    return 0;
}

static int parent_main(void)
{
    for (Job job = {1}; job.number <= JOBS;) {
        const int16_t result = push(&job);
        if (result == RM_SUCCESS) {
            ++job.number;
            rm_syncResume(work);
        } else if (result != RM_FULL || rm_syncWait(room, 5000) != RM_SUCCESS) {
            return 1;
        }
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

    lock = rm_syncCreate("bag");
    work = rm_syncCreate("work");
    room = rm_syncCreate("room");
    void* area = NULL;
    ffBagCreate(CAPACITY, sizeof(Job), &bag, &area); /* before the fork: it empties the bag */

    const pid_t worker = fork();
    if (worker == 0) {
        _exit(worker_main());
    }
    const int failed = worker == -1 || parent_main() != 0;
    int status = 1;
    waitpid(worker, &status, 0);
    printf("%d jobs %s\n", JOBS, failed || status != 0 ? "did not all arrive" : "arrived in order");
    rm_exit(failed || status != 0 ? 1 : 0);
}
