/* Logs to standard error, and from level 2 on to a file, whose predecessor is kept. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

/* Tells whether the first line of a file ends in `text`, behind its stamp. */
static int begins_with(const char* path, const char* text)
{
    char line[320] = "";
    FILE* file = fopen(path, "r");
    if (file != NULL) {
        FgetsTrim(line, sizeof line, file);
        fclose(file);
    }
    const size_t stamp = strlen("[07-Mar-96 14:05:09]  ");
    const int good = strlen(line) > stamp && strcmp(line + stamp, text) == 0;
    printf("%s: \"%s\"%s\n", path, line, good ? "" : "   WRONG");
    return good;
}

static uint32_t run(const char* first_line)
{
    rm_systemLogOpen("server.log"); /* level 0: does nothing */
    rm_systemLog(2);
    rm_systemLogOpen("server.log"); /* one that is there already becomes "server.bak" */
    rm_systemLogWrite("%s", first_line);
    rm_systemLogOptWrite("cache is %d%%%% full", 80); /* expanded twice: "cache is 80% full" */

    rm_systemLog(1);
    rm_systemLogWrite("level %d: standard error only", syslogon);
    rm_systemLog(0);
    rm_systemLogOptWrite("level 0: this chatty line is dropped");

    const uint32_t logged = rm_fileLength(sysfile);
    rm_systemLogClose(); /* the level is 0, and sysfile -1 */
    return logged;
}

int main(void)
{
    rm_systemLogWrite("standard error gets this at level %d, before there is a file", syslogon);
    const uint32_t first = run("the first run");
    const uint32_t second = run("the second run");
    printf("%u and %u bytes in the log files\n", (unsigned)first, (unsigned)second);

    int good = begins_with("server.log", "the second run");
    good = begins_with("server.bak", "the first run") && good;
    good = good && first > 0 && second == first + 1 && syslogon == 0 && sysfile == -1;
    rm_fileRemove("server.log");
    rm_fileRemove("server.bak");
    rm_exit(good ? 0 : 1); /* removes the sync objects that the file layer made */
}
