/* What the guide's settleIni() and changeSetting() make of each state in which a change may have
   been interrupted, by files that are put there, and by changes that fail or die on their way. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <rm.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

int settleIni(const char* path);
int settleBoth(const char* path, const char* otherPath);
int changeSetting(const char* section, const char* key, const char* value, const char* path);

/* The program's own rename() and remove() come before the platform's, for the library too: the next
   call of one of them fails or is the last of its process. */
enum { WORKS, FAILS, DIES };

static int next_rename = WORKS;
static int next_remove = WORKS;

static int is_interrupted(int* next_call)
{
    const int what = *next_call;
    *next_call = WORKS;
    if (what == DIES) {
        raise(SIGKILL);
    }
    errno = EIO;
    return what == FAILS;
}

int rename(const char* from, const char* to)
{
    return is_interrupted(&next_rename) ? -1 : renameat(AT_FDCWD, from, AT_FDCWD, to);
}

int remove(const char* path)
{
    return is_interrupted(&next_remove) ? -1 : unlinkat(AT_FDCWD, path, 0);
}

static int good = 1;

static void expect(int holds, const char* what)
{
    printf("%s: %s\n", holds ? "ok" : "WRONG", what);
    good = good && holds;
}

static void write_file(const char* path, const char* text)
{
    FILE* file = fopen(path, "w");
    if (file != NULL) {
        fputs(text, file);
        fclose(file);
    }
}

/* Tells whether a file has exactly this text, or with null that there is none; and removes it. */
static int had(const char* path, const char* text)
{
    char content[256] = "";
    FILE* file = fopen(path, "r");
    if (file == NULL) {
        return text == NULL;
    }
    content[fread(content, 1, sizeof content - 1, file)] = '\0';
    fclose(file);
    unlink(path);
    return text != NULL && strcmp(content, text) == 0;
}

static void settle_one(const char* path, const char* copy)
{
    write_file(path, "[a]\nk=old\n");
    expect(settleIni(path) == 0, "nothing was interrupted");
    expect(had(path, "[a]\nk=old\n") && had(copy, NULL), "  the file is as it was");

    write_file(path, "[a]\nk=old\n");
    write_file(copy, "[a]\nk=");
    expect(settleIni(path) == 0, "interrupted while the copy was written");
    expect(had(path, "[a]\nk=old\n") && had(copy, NULL),
           "  the file is as it was, without the copy");

    write_file(copy, "[a]\nk=new\n");
    expect(settleIni(path) == 0, "interrupted between removing and renaming");
    expect(had(path, "[a]\nk=new\n") && had(copy, NULL), "  the copy has become the file");

    expect(settleIni(path) != 0, "there is neither");
    expect(had(path, NULL) && had(copy, NULL), "  and none is made");
}

static void settle_two(const char* first, const char* second, const char* missing)
{
    write_file(strcmp(missing, first) == 0 ? second : first, "[a]\nk=other\n");
    write_file("_temp_.ini", "[a]\nk=new\n");
    expect(settleBoth(first, second) == 0, "two files, and one of them is missing");
    expect(had(missing, "[a]\nk=new\n"), "  it has got the copy");
    expect(had(strcmp(missing, first) == 0 ? second : first, "[a]\nk=other\n"),
           "  the other stays");
}

static void change_and_die(void)
{
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        rm_iniSetPrivate("a", "k", "new", "one.ini");
        _exit(0); /* still alive */
    }
    int status = 0;
    expect(waitpid(child, &status, 0) == child && WIFSIGNALED(status), "killed in a change");
    next_rename = next_remove = WORKS;
}

static void interrupted_changes(void)
{
    write_file("one.ini", "[a]\nk=old\n");
    next_remove = DIES;
    change_and_die();
    expect(settleIni("one.ini") == 0, "  before the file was removed");
    expect(had("one.ini", "[a]\nk=old\n") && had("_temp_.ini", NULL), "  the file is as it was");

    write_file("one.ini", "[a]\nk=old\n");
    next_rename = DIES;
    change_and_die();
    expect(settleIni("one.ini") == 0, "  after it was");
    expect(had("one.ini", "[a]\nk=new\n") && had("_temp_.ini", NULL), "  the change is made");
}

static void failed_changes(void)
{
    write_file("one.ini", "[a]\nk=old\n");
    next_remove = FAILS;
    expect(changeSetting("a", "k", "new", "one.ini") == 0, "the file could not be removed");
    expect(had("one.ini", "[a]\nk=old\n") && had("_temp_.ini", NULL), "  the file is as it was");

    write_file("one.ini", "[a]\nk=old\n");
    next_rename = FAILS;
    expect(changeSetting("a", "k", "new", "one.ini") == 1, "the copy could not be renamed");
    expect(had("one.ini", "[a]\nk=new\n") && had("_temp_.ini", NULL), "  and is, the second time");
}

static void change(void)
{
    write_file("one.ini", "[a]\nk=old\n[b]\nk=old\n");
    expect(changeSetting("a", "k", "new", "one.ini") == 1, "a change that is made");
    expect(changeSetting("a", "n", "new", "one.ini") == 0, "a change that finds no place");
    expect(changeSetting("a", "k", "new", "two.ini") == 0, "a change of a file that is missing");
    expect(had("one.ini", "[a]\nk=new\n[b]\nk=old\n") && had("_temp_.ini", NULL), "  what is left");
}

int main(void)
{
    fileSem = growSem = RM_NULL_SYNC;
    mkdir("settings", 0700);
    settle_one("one.ini", "_temp_.ini");
    settle_one("settings/one.ini", "settings/_temp_.ini");
    settle_two("one.ini", "two.ini", "one.ini");
    settle_two("one.ini", "two.ini", "two.ini");
    change();
    interrupted_changes();
    failed_changes();
    expect(settleIni("nowhere/one.ini") == -1, "there is no such directory");
    rmdir("settings");
    rm_exit(good ? 0 : 1);
}
