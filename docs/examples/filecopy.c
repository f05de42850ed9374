/* A backup of a file, and its place among the older ones. */
#include <rm.h>
#include <stdio.h>

static jmp_buf fatal_target;

/* A copy does not tell whether all bytes arrived; the lengths do. */
static int same_length(const char* left, const char* right)
{
    const int16_t one = rm_fileOpen(left, RM_O_RDONLY, 0, 0, 0);
    const int16_t other = rm_fileOpen(right, RM_O_RDONLY, 0, 0, 0);
    const int same =
        one != RM_NONE && other != RM_NONE && rm_fileLength(one) == rm_fileLength(other);
    rm_fileClose(one);
    rm_fileClose(other);
    return same;
}

int main(void)
{
    if (setjmp(fatal_target) != 0) {
        rm_exit(1);
    }
    rm_errorJump(fatal_target);

    /* The file in use has handle 0, with which a copy would fail. */
    const int16_t orders =
        rm_fileOpen("orders.dat", RM_O_RDWR | RM_O_CREAT | RM_O_TRUNC, 0, 0, 1000);
    for (int i = 0; i < 1000; ++i) {
        char record[12];
        snprintf(record, sizeof record, "order %05d", i);
        rm_fileWrite(orders, record, sizeof record);
    }

    int good = rm_fileCopy("orders.dat", "orders.new") == RM_SUCCESS;
    good = good && same_length("orders.dat", "orders.new");
    /* Only a whole copy takes the place of the backup before. */
    good = good && rm_fileMove("orders.new", "orders.bak") == RM_SUCCESS;
    good = good && same_length("orders.dat", "orders.bak");
    good = good && rm_fileValidate("orders.new") == -1; /* moved: it is not there any more */
    printf("%u bytes in use, and in the backup\n", (unsigned)rm_fileLength(orders));

    rm_fileClose(orders);
    good = rm_fileRemove("orders.dat") == RM_SUCCESS && good;
    good = rm_fileRemove("orders.bak") == RM_SUCCESS && good;
    rm_exit(good ? 0 : 1);
}
