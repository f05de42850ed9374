/* The smallest host: a tag of memory and a file. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

int main(void)
{
    const int16_t tag = rm_allocTag(NULL, RM_NO_LIMIT);
    char* text = rm_Strdup("installed", tag);
    fileSem = RM_NULL_SYNC; /* the only process: no lock */
    const int16_t handle = rm_fileOpen("host.tmp", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    char back[16] = "";
    const int matches = rm_fileSeekWrite(handle, 0, text, 10) == 10 &&
                        rm_fileSeekRead(handle, 0, back, 10) == 10 && strcmp(text, back) == 0;
    rm_fileClose(handle);
    rm_fileRemove("host.tmp");
    if (!matches) {
        return 1;
    }
    puts(back);
    rm_exit(0);
}
