/* A task allocates under a tag of its own and gives everything back at once. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

static char* join(const char* head, const char* tail, int16_t tag)
{
    char* text = rm_Strdup(head, tag);
    text = rm_extendMemory(text, (uint32_t)(strlen(head) + strlen(tail) + 1), tag);
    return strcat(text, tail);
}

int main(void)
{
    const int16_t task = rm_allocTag(NULL, 100000);
    rm_setTagName("request", task);
    const uint32_t before = rm_memused();

    char* greeting = join("hello, ", "world", task);
    uint32_t* counters = rm_cGetMemory(16 * sizeof *counters, task);
    printf("%s, %u; %d bytes left\n", greeting, (unsigned)counters[15], rm_memoryAvail(task));

    rm_zFreeMemory(&counters, task); /* counters is null now */
    void* scratch = rm_growMemory(NULL, 9000, task);
    scratch = rm_growMemory(scratch, 20000, task); /* its contents are lost */

    const int grown = counters == NULL && scratch != NULL && rm_memused() > before;
    rm_freeTagMemory(task, 1); /* the greeting, the scratch buffer, the name, the tag */
    const int16_t next = rm_allocTag(NULL, RM_NO_LIMIT);
    rm_freeall();
    return grown && next == task && rm_memused() == 0 ? 0 : 1;
}
