/* Foreground, environment, raw memory and sleep. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

int main(void)
{
    rm_threadDefaultPriority(1);
    const int16_t begun = rm_threadBegin(); /* starts nothing: main is the foreground now */
    printf("foreground: %d, state: %d\n", rm_foregroundThread(), rm_getOSTerm());

    const char* home = rm_OSgetenv("HOME");
    printf("HOME is %s\n", home == NULL ? "not set" : home);

    rm_enterCritSec(0);
    char* raw = rm_getSeg(4096); /* outside all tags; may be null */
    if (raw != NULL) {
        memset(raw, 0, 4096);
    }
    rm_freeSeg(raw);
    rm_exitCritSec(0);

    const uint32_t left = rm_sleep(1); /* one millisecond becomes one second */
    return begun == 1 && rm_foregroundThread() == 1 && left == 0 ? 0 : 1;
}
