/* Two modules count their events without knowing each other; the host reports them. */
#include <rm.h>
#include <stdio.h>

/* The host hands the numbers out. */
enum { CACHE_HITS, CACHE_MISSES, SENT_ANSWERS, SENT_BYTES, COUNTERS };

static const char* const names[COUNTERS] = {"cache hits", "cache misses", "answers", "bytes sent"};

/* The cache, which remembers one page. */
static int is_cached(int page)
{
    static int kept = -1;
    const int hit = page == kept;
    kept = page;
    rm_statInc(hit ? CACHE_HITS : CACHE_MISSES, 1);
    return hit;
}

/* The sender, which compresses what it has to read first. */
static void answer(int page)
{
    rm_statInc(SENT_BYTES, is_cached(page) ? 4096 : 1000);
    rm_statInc(SENT_ANSWERS, 1);
}

static int report(const uint32_t expected[COUNTERS])
{
    uint16_t count = 0;
    const uint32_t* counters = rm_statRep(&count); /* the counters themselves: read, never freed */
    int good = count == COUNTERS;
    for (int i = 0; good && i < COUNTERS; ++i) {
        printf("%-12s %u\n", names[i], (unsigned)counters[i]);
        if (counters[i] != expected[i]) {
            printf("  wrong: %u was expected\n", (unsigned)expected[i]);
            good = 0;
        }
    }
    return good;
}

int main(void)
{
    rm_statInit(COUNTERS);
    answer(7);
    answer(7);
    answer(8);
    rm_statInc(COUNTERS, 1); /* there is no such counter: ignored */
    int good = report((const uint32_t[]){1, 2, 3, 6096});

    rm_statClear(SENT_BYTES); /* one of them, for instance every hour */
    good = report((const uint32_t[]){1, 2, 3, 0}) && good;
    rm_statClearAll();
    good = report((const uint32_t[]){0, 0, 0, 0}) && good;

    rm_freeall();
    return good ? 0 : 1;
}
