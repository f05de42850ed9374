/* What the C hosts share: one case a process, in an empty directory of its own. */
#ifndef TESTS_ABI_HOST_CASE_H
#define TESTS_ABI_HOST_CASE_H

typedef struct HostCase {
    const char* name;
    void (*body)(void);
} HostCase;

/* Counts and reports a condition that does not hold. */
#define CHECK(condition) checkThat((condition) != 0, #condition, __FILE__, __LINE__)
void checkThat(int holds, const char* condition, const char* file, int line);

/* Runs the case called `name` in a fresh directory, calls `end` there and removes what the case has
   left under the names "a" to "z". Whatever else is left counts as a failure. Returns the exit
   status for main. */
int runCase(const HostCase* cases, const char* name, void (*end)(void));

#endif
