#define _POSIX_C_SOURCE 200809L /* mkdtemp */

#include "host_case.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int failures = 0;
static int finished = 0;

void checkThat(int holds, const char* condition, const char* file, int line)
{
    if (!holds) {
        fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
        failures++;
    }
}

/* A fatal error in a host without a target ends the process with status 0: no case may end so. */
static void failUnlessFinished(void)
{
    if (!finished) {
        _exit(3);
    }
}

static void leaveDirectory(const char* directory)
{
    for (char name[2] = "a"; name[0] <= 'z'; name[0]++) {
        remove(name);
    }
    CHECK(chdir("/") == 0);
    CHECK(rmdir(directory) == 0);
}

int runCase(const HostCase* cases, const char* name, void (*end)(void))
{
    const HostCase* wanted = cases;
    while (wanted->name != NULL && strcmp(wanted->name, name) != 0) {
        wanted++;
    }
    char directory[] = "/tmp/abi-host-XXXXXX";
    if (wanted->name == NULL || mkdtemp(directory) == NULL || chdir(directory) != 0) {
        fprintf(stderr, "no case %s, or no directory\n", name);
        return 2;
    }
    atexit(failUnlessFinished);
    wanted->body();
    end();
    leaveDirectory(directory);
    finished = 1;
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
