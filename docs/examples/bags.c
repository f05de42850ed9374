/* Three kinds of bags: sessions with lasting handles, a list of tables, the latest errors. */
#include <rm.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

enum { SESSIONS = 64 };

typedef struct Session {
    int32_t client;
    char user[16];
} Session;

/* Handles stay: the holes that ended sessions leave are filled again. Lookups do not reach the last
   slot, so one more is made than logIn() fills. */
static const BagCtl sessionCtl = {
    .flags = BAG_SLOT_MAP | BAG_KEY_ISTRING,
    .initialSlots = SESSIONS + 1,
    .elementSize = sizeof(Session),
    .keyOffset = offsetof(Session, user),
};
/* The elements are texts that live elsewhere, and a text is its own key. */
static const BagCtl tableCtl = {
    .flags = BAG_POINTERS | BAG_KEY_STRING,
    .growIncrement = 8,
    .growThreshold = 64,
    .elementSize = sizeof(char*),
};
/* The latest four, whatever they are: a ring is not searched. */
static const BagCtl errorCtl = {
    .flags = BAG_RING,
    .initialSlots = 4,
    .elementSize = sizeof(int32_t),
};

static uint16_t logIn(Bag* sessions, int32_t client, const char* user)
{
    Session session = {.client = client};
    uint16_t handle = RM_NO_SLOT;
    StrncpyZ(session.user, user, sizeof session.user);
    if (sessions->usedCount < SESSIONS && bagAdd(sessions, &session) == RM_SUCCESS) {
        bagGetCurHandle(sessions, &handle); /* copied, and the current one now */
    }
    return handle;
}

static int sessions(void)
{
    Bag* bag = NULL;
    bagCreate(&sessionCtl, &bag);
    const uint16_t ada = logIn(bag, 7, "Ada");
    const uint16_t bob = logIn(bag, 8, "Bob");
    int good = bagSetCurHandle(bag, ada) == RM_SUCCESS && bagDelete(bag) == RM_SUCCESS;
    good = good && logIn(bag, 9, "Eve") == ada; /* the lowest hole; Bob keeps his handle */

    uint16_t handle = 0;
    void* found = NULL;
    good = good && bagFind(bag, "BOB", &handle, &found) == RM_SUCCESS && handle == bob;
    good = good && ((Session*)found)->client == 8; /* good until the next bagAdd() */
    bagDestroy(bag);
    return good;
}

static int tables(void)
{
    static const char* const names[] = {"birds", "nests", "sites"};
    Bag* bag = NULL;
    bagCreate(&tableCtl, &bag);
    for (int i = 0; i < 3; ++i) {
        bagAdd(bag, names[i]);
    }
    bagFind(bag, "birds", NULL, NULL);
    bagDelete(bag); /* the last one takes its place, and there is no position any more */
    void* first = NULL;
    const int good = bagFirst(bag) == RM_SUCCESS && bagGetCurPtr(bag, &first) == RM_SUCCESS &&
                     first == names[2] && bag->usedCount == 2;
    bagDestroy(bag);
    return good;
}

static int errors(void)
{
    Bag* bag = NULL;
    bagCreate(&errorCtl, &bag);
    for (int32_t error = 1; error <= 10; ++error) {
        if (bag->usedCount == bag->slotCount) { /* full: the oldest makes room */
            bagFirst(bag);
            bagDelete(bag);
        }
        bagAdd(bag, &error);
    }
    int32_t latest = 0;
    const int good = bagLast(bag) == RM_SUCCESS && bagGetCurData(bag, &latest) == RM_SUCCESS;
    printf("%u errors kept, the latest is %d\n", bag->usedCount, latest);
    bagDestroy(bag);
    return good && latest == 10;
}

int main(void)
{
    const int good = sessions() && tables() && errors();
    rm_freeall();
    return good ? 0 : 1;
}
