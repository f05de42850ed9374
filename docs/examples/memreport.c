/* Memory grows: who holds it? A server puts the answer into its log, without stopping. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

static const char* const logName = "server.log";

/* What a server does when its memory passes a mark. A limit is not enforced: look at it. */
static void watch(int16_t tag)
{
    if (rm_memoryAvail(tag) < 0) {
        rm_memReport(RM_REPORT_SUMMARY, 0, "tag %d is over its limit", tag); /* all tags */
        rm_memReport(RM_REPORT_DETAIL | RM_REPORT_TAG, tag, NULL);           /* that one */
    }
}

static int isLogged(const char* text)
{
    char line[512];
    int found = 0;
    FILE* log = fopen(logName, "r");
    while (log != NULL && !found && fgets(line, sizeof line, log) != NULL) {
        found = strstr(line, text) != NULL;
    }
    if (log != NULL) {
        fclose(log);
    }
    printf("%s: %s\n", found ? "logged" : "missing", text);
    return found;
}

int main(void)
{
    fileSem = growSem = RM_NULL_SYNC; /* one process: no semaphores are made */
    rm_systemLog(2);
    rm_systemLogOpen(logName);

    const int16_t cursors = rm_allocTag(NULL, 4000);
    rm_setTagName("cursors", cursors); /* by this name the table shows it */
    for (int i = 0; i < 100; ++i) {
        rm_getMemory(36, cursors); /* with its header 44, rounded up to 48 */
    }
    watch(cursors);

    char row[64];
    snprintf(row, sizeof row, "TAG %2d(%10s):     4816/  101 :", cursors, "cursors");
    const int good = isLogged("--------VIRLO MEMORY REPORT--------") &&
                     isLogged("over its limit") && isLogged(row) && /* the name is a block too */
                     isLogged("4816 allocated bytes in 101 blocks") && !isLogged("WARNING");
    rm_systemLogClose();
    rm_fileRemove(logName);
    rm_exit(good ? 0 : 1);
}
