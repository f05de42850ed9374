/* The first call of a server: its limits, the locks of its processes, the setting of its profile.
 */
#include <rm.h>
#include <stdio.h>

static int good = 1;

static void expect(int holds, const char* what)
{
    if (!holds) {
        printf("wrong: %s\n", what);
        good = 0;
    }
}

static void write_profile(const char* text)
{
    FILE* profile = fopen("corvane.ini", "w");
    expect(profile != NULL, "the profile can be written");
    if (profile != NULL) {
        fputs(text, profile);
        fclose(profile);
    }
}

int main(void)
{
    expect(fileSem == RM_NONE && growSem == RM_NONE, "there are no locks yet");
    expect(rm_getDiskFull() == 1, "no file grows before the host has allowed it");

    write_profile("[server]\nFileCommit=0\n"); /* quick and unsafe: nothing is synced */
    rm_init(RM_NO_LIMIT, 64, 50e6);            /* before the fork: all workers share the locks */
    const int16_t lock = fileSem;
    expect(lock >= 0 && growSem >= 0, "both locks are made");
    expect(fileCommit == 0, "the profile turns syncs off");

    write_profile("[server]\nFileCommit=1\n");
    rm_init(RM_NO_LIMIT, 128, 20e6);
    expect(fileHandleLimit == 128 && rminfree == 20e6, "the limits are taken each time");
    expect(fileSem == lock && fileCommit == 0, "the locks are made, and the profile read, once");

    const double space = rm_getDiskFreeSpace(".");
    rm_setDiskFull(space < rminfree);
    printf("%.0f bytes free: %s\n", space, rm_getDiskFull() ? "read only" : "files may grow");
    expect(rm_getDiskFull() == (space < rminfree), "the state of the disk is the host's");

    rm_fileRemove("corvane.ini");
    rm_exit(good ? 0 : 1); /* removes the locks, for all processes */
}
