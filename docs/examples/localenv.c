/* Settings of this process that come before its environment. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

static int is(const char* name, const char* expected)
{
    const char* value = rm_getenv(name);
    printf("%s=%s\n", name, value == NULL ? "(none)" : value);
    return value == NULL ? expected == NULL : expected != NULL && strcmp(value, expected) == 0;
}

int main(void)
{
    rm_putLocalEnv("RmExampleDir=/srv/data"); /* kept in upper case, the value too */
    int good = is("rmexampledir", "/SRV/DATA");

    rm_putLocalEnv("RMEXAMPLEDIR=/tmp");
    good = is("RMEXAMPLEDIR", "/TMP") && good;

    rm_putLocalEnv("RMEXAMPLEDIR"); /* without "=": removed */
    good = is("RMEXAMPLEDIR", rm_OSgetenv("RMEXAMPLEDIR")) && good;

    rm_freeall();
    return good ? 0 : 1;
}
