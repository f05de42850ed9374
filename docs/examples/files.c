/* Eight files, four descriptors: the handles never notice. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

enum { FILES = 8 };

static void name_of(int i, char name[32])
{
    snprintf(name, 32, "part%d.dat", i);
}

int main(void)
{
    int16_t handles[FILES];
    int good = 1;
    fileHandleLimit = 4;
    rmDiskFull = 0; /* the disk has room: files may grow ahead of writes */
    for (int i = 0; i < FILES; ++i) {
        char name[32];
        name_of(i, name);
        handles[i] = rm_fileOpen(name, RM_O_RDWR | RM_O_CREAT, 0, 0, 1000);
        good = good && rm_fileSeekWrite(handles[i], 500, name, sizeof name) == sizeof name;
    }
    uint32_t open = 0, parked = 0, parkings = 0, reopens = 0;
    for (int i = 0; i < FILES; ++i) {
        char name[32], record[16];
        name_of(i, name);
        good = good && rm_fileSeekRead(handles[i], 500, record, sizeof record) == sizeof record &&
               strcmp(record, name) == 0 && rm_fileLength(handles[i]) == 1000;
    }
    rm_fileCounts(&open, &parked, &parkings, &reopens);
    printf("%u open, %u parked; parked %u times, reopened %u times\n", (unsigned)open,
           (unsigned)parked, (unsigned)parkings, (unsigned)reopens);
    for (int i = 0; i < FILES; ++i) {
        char name[32];
        name_of(i, name);
        rm_fileClose(handles[i]);
        good = rm_fileRemove(name) == 0 && good;
    }
    rm_exit(good && open == 4 && parked == 4 ? 0 : 1);
}
