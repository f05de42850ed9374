/* Lines through a managed file: written, and read whole however long they are. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

enum { LONGEST = 1500 };

static const char* const name = "lines.txt";

static int write_lines(void)
{
    FileStream* out = rm_fileStreamOpen(name, "w");
    if (out == NULL) {
        return 0;
    }
    for (int length = 0; length <= LONGEST; length += 50) {
        char line[LONGEST + 1];
        memset(line, '.', (size_t)length);
        line[length] = '\0';
        rm_fileStreamPuts(out, line); /* adds the newline */
    }
    rm_fileStreamClose(out); /* the last block is written here */
    return 1;
}

static int read_lines(void)
{
    FileStream* in = rm_fileStreamOpen(name, "r");
    if (in == NULL) {
        return -1;
    }
    int lines = 0;
    char* line = NULL; /* the first call makes the buffer, the others use it again */
    uint32_t size = 0;
    while (rm_fileStreamGetLine(in, &line, &size) != NULL) {
        const size_t length = (size_t)lines * 50;
        if (strlen(line) != length + 1 || line[length] != '\n') {
            printf("wrong: line %d is \"%s\"\n", lines, line);
            break;
        }
        ++lines;
    }
    printf("%d lines, in a buffer of %u bytes\n", lines, (unsigned)size);
    rm_freeMemory(line, 0); /* ours, under tag 0 */
    rm_fileStreamClose(in);
    return lines;
}

int main(void)
{
    const int good = write_lines() && read_lines() == LONGEST / 50 + 1;
    rm_fileRemove(name);
    rm_exit(good ? 0 : 1);
}
