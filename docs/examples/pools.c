/* Request buffers come and go by the thousand: a pool hands out again what came back. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

typedef struct Request {
    uint32_t length;
    char text[];
} Request;

static Request* receive(const char* text, RmPool* pool)
{
    const size_t length = strlen(text);
    Request* request = rm_getFromPool((uint32_t)(sizeof *request + length + 1), pool);
    /* Set every field: the bytes may be those of an earlier request. */
    request->length = (uint32_t)length;
    memcpy(request->text, text, length + 1);
    return request; /* without a lock never null */
}

int main(void)
{
    const int16_t tag = rm_allocTag(NULL, RM_NO_LIMIT);
    rm_setTagName("requests", tag);
    RmPool* pool = rm_allocPool(2, tag, NULL, 0); /* 2 is an estimate; no lock, so no time-out */

    Request* open = receive("open birds", pool);
    Request* insert = receive("insert into birds values ('wren')", pool);
    Request* close = receive("close birds", pool);
    rm_putInPool(open, pool);
    rm_putInPool(insert, pool); /* `close` is still being served */

    int good = 1;
    const uint32_t before = rm_memused();
    for (int i = 0; i < 10000; ++i) {
        Request* commit = receive("commit", pool);
        good = good && commit == insert; /* the last one back is the first one out */
        rm_putInPool(commit, pool);
    }
    printf("10000 requests, %u bytes more\n", (unsigned)(rm_memused() - before));
    good = good && rm_memused() == before;

    char longest[4000];
    memset(longest, '-', sizeof longest - 1);
    longest[sizeof longest - 1] = '\0';
    Request* comment = receive(longest, pool); /* too long for `insert`: that one is replaced */
    good = good && strcmp(comment->text, longest) == 0 && comment->length == sizeof longest - 1;
    rm_putInPool(comment, pool); /* never rm_freeMemory() */

    rm_zFreePool(&pool); /* frees what came back, and sets the pointer to null */
    good = good && pool == NULL && strcmp(close->text, "close birds") == 0;
    rm_freeTagMemory(tag, 1); /* `close` goes with its tag */
    rm_freeall();
    return good && rm_memused() == 0 ? 0 : 1;
}
