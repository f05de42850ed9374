/* The open tables of a server: found by name once, by number and by pointer from then on. */
#include <rm.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

typedef struct Table {
    uint32_t rows;
    int32_t fileId;
} Table;

/* The array keeps the pointer to a name, so the name is copied. -1 when the array is full. */
static int16_t openTable(DArray* tables, const char* name, int32_t fileId, int16_t tag)
{
    void* record = NULL;
    const int16_t index = darrayCreateEntry(tables, rm_Strdup(name, tag), &record);
    if (index != RM_NONE) {
        const Table fresh = {.rows = 0, .fileId = fileId};
        memcpy(record, &fresh, sizeof fresh); /* its bytes are of the last use, or of nothing */
    }
    return index;
}

static void closeTable(DArray* tables, int16_t index, int16_t tag)
{
    const char* name = darrayGetEntryName(tables, index);
    if (name != NULL) { /* deleted twice it would be handed out twice, which is fatal */
        darrayDeleteEntry(tables, index);
        rm_freeMemory((void*)name, tag);
    }
}

int main(void)
{
    const int16_t names = rm_allocTag(NULL, RM_NO_LIMIT);
    DArray* tables = darrayCreate(1000, 50, sizeof(Table)); /* 50 are made at a time */

    const int16_t birds = openTable(tables, "birds", 40, names);
    Table* record = darrayGetEntryPtr(tables, birds);
    for (int32_t i = 0; i < 200; ++i) {
        char name[16];
        snprintf(name, sizeof name, "t%d", i);
        openTable(tables, name, 100 + i, names);
    }
    record->rows = 12; /* four blocks more, and it has not moved */
    int good = darrayGetEntryPtr(tables, birds) == record;

    void* found = NULL;
    good = good && darrayFindEntry(tables, "birds", &found) == birds && found == record;
    const int32_t fileId = 299;
    const int16_t last =
        darrayGetEntryFromData(tables, &fileId, offsetof(Table, fileId), sizeof fileId, 0, NULL);
    good = good && last != RM_NONE && strcmp(darrayGetEntryName(tables, last), "t199") == 0;

    closeTable(tables, birds, names);
    closeTable(tables, birds, names); /* does nothing */
    good = good && darrayGetFirstUsedEntry(tables) == birds + 1;
    good = good && openTable(tables, "nests", 41, names) == birds; /* the free entry comes first */
    printf("birds was table %d, the last one is %d\n", birds, last);

    darrayDestroy(tables);
    rm_freeTagMemory(names, 1);
    rm_freeall();
    return good && rm_memused() == 0 ? 0 : 1;
}
