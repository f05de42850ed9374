/* Logs to standard error, and from level 2 on to a file as well. */
#include <rm.h>
#include <stdio.h>

int main(void)
{
    rm_systemLogWrite("level %d: standard error only", syslogon);
    rm_systemLogOptWrite("level 0: this chatty line is dropped");

    /* Pinned, so that forked workers can go on writing through their copies. */
    sysfile = rm_fileOpen("server.log", RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC,
                          FILE_STREAM | FILE_PINNED, 0, 0);
    const int16_t previous = rm_systemLog(2);
    rm_systemLogWrite("server started");
    rm_systemLogOptWrite("cache is %d%%%% full", 80); /* expanded twice: "cache is 80% full" */

    const uint32_t logged = rm_fileLength(sysfile);
    printf("%u bytes in the log file\n", (unsigned)logged);
    rm_systemLogClose(); /* the level is 0 again, sysfile is -1 */

    const int good = previous == 0 && logged > 0 && sysfile == -1;
    rm_fileRemove("server.log");
    rm_exit(good ? 0 : 1); /* removes the sync objects that the file layer made */
}
