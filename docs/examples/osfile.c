/* A scratch file through bare descriptors. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

int main(void)
{
    char* path = rm_flTempName();
    int32_t fd = -1;
    const int16_t error = rm_flOpen(path, RM_O_RDWR | RM_O_CREAT | RM_O_EXCL, 0, 0600, &fd);
    if (error != 0) {
        printf("cannot create %s: %s\n", path, strerror(error));
        return 1;
    }

    char text[8] = "";
    int32_t count = 0;
    uint32_t size = 0;
    int good = rm_flSetSize(fd, 1300) == 0; /* zeros; the descriptor stands at 0 */
    good = good && rm_flWrite(fd, "record", 6) == 6 && rm_flSync(fd) == 0;
    good = good && rm_flSeek(fd, 0, 0, NULL) == 0;
    good = good && rm_flRead(fd, text, 6, &count) == 0 && count == 6;
    good = good && rm_flSize(fd, &size) == 0 && size == 1300;
    printf("%s: %u bytes, begins with \"%s\"; the disk has %.0f bytes free\n", path, (unsigned)size,
           text, rm_flGetDiskFreeSpace(path));

    good = rm_flClose(fd) == 0 && good;
    good = rm_flRemove(path) == 0 && rm_fileValidate(path) == -1 && good;
    rm_freeMemory(path, 0);
    rm_freeall();
    return good ? 0 : 1;
}
