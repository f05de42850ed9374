/* Two workers answer their parent. A message goes to whoever reads first, so each reader has a
   queue of its own. */
#define _POSIX_C_SOURCE 200809L
#include <rm.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

enum { WORKERS = 2, SUM = 7, WAITS = 1 };

static jmp_buf fatal_target;

/* The queues are open to every user of the machine: there is room for what they may write. */
static char received[32767];

static int16_t next_message(int16_t queue, int16_t* length, uint16_t* code, uint16_t flags)
{
    char* buffer = received;
    return rm_queueRead(queue, &buffer, length, code, flags);
}

/* Adds up the numbers of one job. */
static int work(int16_t jobs, int16_t answers, uint16_t me)
{
    int16_t length = 0;
    uint16_t code = 0;
    int32_t sum = 0;
    next_message(jobs, &length, &code, WAITS);
    for (size_t at = 0; at + sizeof sum <= (size_t)length; at += sizeof sum) {
        int32_t number = 0;
        memcpy(&number, &received[at], sizeof number);
        sum += number;
    }
    rm_queueWrite(answers, &sum, sizeof sum, me);
    return code == SUM ? 0 : 1;
}

int main(void)
{
    rm_setForegroundThread();
    if (setjmp(fatal_target) != 0) {
        if (rm_foregroundThread() == 0) {
            _exit(1); /* a worker: rm_exit would take the queues from everybody */
        }
        rm_exit(1);
    }
    rm_errorJump(fatal_target);

    const int16_t answers = rm_queueCreate("answers"); /* all before the fork */
    const int16_t jobs[WORKERS] = {rm_queueCreate("first worker"), rm_queueCreate("second worker")};
    const int32_t numbers[WORKERS][3] = {{1, 2, 3}, {10, 20, 30}};

    pid_t workers[WORKERS];
    for (uint16_t i = 0; i < WORKERS; ++i) {
        rm_queueWrite(jobs[i], numbers[i], sizeof numbers[i], SUM); /* it waits there */
        workers[i] = fork();
        if (workers[i] == 0) {
            _exit(work(jobs[i], answers, i));
        }
    }
    int good = 1;
    for (int i = 0; i < WORKERS; ++i) {
        int status = 1;
        good = waitpid(workers[i], &status, 0) == workers[i] && status == 0 && good;
    }

    int16_t length = 0;
    uint16_t from = 0;
    int answered = 0;
    while (next_message(answers, &length, &from, 0) == RM_SUCCESS) {
        int32_t sum = 0;
        good = good && length == sizeof sum && from < WORKERS;
        if (good) {
            memcpy(&sum, received, sizeof sum);
            printf("worker %u: %d\n", from, (int)sum);
            good = sum == (from == 0 ? 6 : 60);
            ++answered;
        }
    }
    rm_exit(good && answered == WORKERS ? 0 : 1); /* removes the queues */
}
