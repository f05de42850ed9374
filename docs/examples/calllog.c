/* Somebody forgets a block in this module. Its calls are renamed, and the log tells where. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

/* Behind rm.h, which declares the names, and above the code in question. */
#define rm_Strdup(text, tag) rm_LOG_Strdup(text, tag, __FILE__, __LINE__)
#define rm_getMemory(size, tag) rm_LOG_getMemory(size, tag, __FILE__, __LINE__)
#define rm_freeMemory(pointer, tag) rm_LOG_freeMemory(pointer, tag)

static const char* const logName = "calls.log";

static uint32_t lengthOfPath(const char* directory, const char* file, int16_t tag)
{
    char* name = rm_Strdup(file, tag); /* never freed */
    char* path = rm_getMemory((uint32_t)(strlen(directory) + strlen(name) + 2), tag);
    const int length = sprintf(path, "%s/%s", directory, name);
    rm_freeMemory(path, tag);
    return (uint32_t)length;
}

static int countInLog(const char* text)
{
    char line[512];
    int count = 0;
    FILE* log = fopen(logName, "r");
    while (log != NULL && fgets(line, sizeof line, log) != NULL) {
        count += strstr(line, text) != NULL;
    }
    if (log != NULL) {
        fclose(log);
    }
    return count;
}

int main(void)
{
    fileSem = growSem = RM_NULL_SYNC; /* one process: no semaphores are made */
    rm_systemLog(2);
    rm_systemLogOpen(logName);

    const int16_t task = rm_allocTag(NULL, RM_NO_LIMIT);
    const uint32_t length = lengthOfPath("/var/lib/db", "birds.dat", task);
    rm_freeTagMemory(task, 1); /* what it forgot, too */

    const int texts = countInLog("WARNING: Calling rm_LOG_Strdup from ");
    const int blocks = countInLog("WARNING: Calling rm_LOG_getMemory from ");
    const int frees = countInLog("WARNING: Calling rm_LOG_freeMemory"); /* names no position */
    printf("%d taken, %d given back\n", texts + blocks, frees);
    const int good =
        length == 21 && texts == 1 && blocks == 1 && frees == 1 && countInLog("calllog.c, ") == 2;
    rm_systemLogClose();
    rm_fileRemove(logName);
    rm_exit(good ? 0 : 1);
}
