/* Directories that begin with a dot count from CATPATH, wherever the process runs. */
#define _POSIX_C_SOURCE 200809L
#include <rm.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int is(const char* directory, const char* base, const char* expected)
{
    char* path = makeAllocPath(directory, base, "dat", 0);
    const int good = strcmp(path, expected) == 0;
    printf("%-8s %-10s %s%s\n", directory, base, path, good ? "" : "   WRONG");
    rm_freeMemory(path, 0);
    return good;
}

int main(void)
{
    setenv("CATPATH", "/srv/catalogue/data", 1); /* rm_putLocalEnv() would make it upper case */
    int good = is("./parts", "p1", "/srv/catalogue/data/parts/p1.dat");
    good = is(".parts", "p1", "/srv/catalogue/data/parts/p1.dat") && good;
    good = is(".", "p1", "/srv/catalogue/data/p1.dat") && good;
    good = is("../log", "p1", "/srv/catalogue/log/p1.dat") && good;
    good = is("..", "p1", "/srv/catalogue/p1.dat") && good;
    good = is("/tmp/", "p1", "/tmp/p1.dat") && good;       /* any other is taken as it is */
    good = is("/tmp", "/etc/fstab", "/etc/fstab") && good; /* a base with a slash is the path */

    unsetenv("CATPATH");
    good = is("./parts", "p1", "p1.dat") && good; /* the directory is dropped */

    char name[8];
    const int16_t cut = makePath(name, sizeof name, "/tmp", "db", "ini");
    printf("cut to a buffer of 8 (%d): %s\n", cut, name);
    good = good && cut == -1 && strcmp(name, "/tmp/db") == 0;
    good = good && strcmp(pathBaseExt("/tmp/db.ini"), "db.ini") == 0;

    rm_freeall();
    return good ? 0 : 1;
}
