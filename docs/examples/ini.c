/* Settings: read with a default, listed, changed, and how a change that was lost shows. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

static int good = 1;

static void expect(int holds, const char* what)
{
    printf("%s: %s\n", holds ? "ok" : "WRONG", what);
    good = good && holds;
}

static void write_file(const char* text)
{
    FileStream* out = rm_fileStreamOpen("corvane.ini", "w");
    rm_fileStreamPuts(out, text);
    rm_fileStreamClose(out);
}

/* The value, or a default when there is none: the buffer is left alone then. */
static const char* setting(const char* section, const char* key, const char* value)
{
    static char buffer[64];
    StrncpyZ(buffer, value, sizeof buffer);
    rm_iniGet(section, key, buffer, sizeof buffer, 0);
    return buffer;
}

/* 0 from rm_iniSet() may also mean that a new entry found no place. Reading it back tells. */
static int change(const char* section, const char* key, const char* value)
{
    return rm_iniSet(section, key, value) == RM_SUCCESS &&
           strcmp(setting(section, key, ""), value) == 0;
}

/* The names of all sections, or the entries of one. */
static int is_list(const char* section, const char* expected)
{
    char list[128]; /* texts one behind the other, the last one is empty */
    char joined[128] = "";
    rm_iniGet(section, NULL, list, sizeof list, 1);
    for (const char* text = list; *text != '\0'; text += strlen(text) + 1) {
        strcat(strcat(joined, text), " ");
    }
    return strcmp(joined, expected) == 0;
}

int main(void)
{
    write_file(
        "[cache]\npages=100\n[server]\nPort=7000\n; the ports below 1024 are not for us\n"
        "Host=localhost\n\n[ENVIRONMENT]");

    expect(strcmp(setting("Server", "port", "1"), "7000") == 0, "names in any case are found");
    expect(strcmp(setting("server", "backlog", "5"), "5") == 0, "a missing key has its default");
    expect(is_list(NULL, "cache server ENVIRONMENT "), "all sections");
    expect(is_list("server", "Port=7000 Host=localhost "), "all entries of a section");

    expect(change("server", "Port", "7001"), "an entry is replaced");
    expect(change("log", "level", "2"), "a new section comes at the end");
    expect(rm_iniSet("cache", "age", "60") == 0 && !change("cache", "age", "60"),
           "a new entry that finds no place is lost, with status 0");

    rm_iniSet("server", "Host", NULL);
    rm_iniSet("cache", NULL, NULL);
    expect(strcmp(setting("server", "Host", "-"), "-") == 0, "an entry is deleted");
    expect(is_list(NULL, "server ENVIRONMENT log "), "a section is deleted");

    rm_iniSet("ENVIRONMENT", "RmExampleHome", "/srv");
    expect(strcmp(rm_getenv("RMEXAMPLEHOME"), "/SRV") == 0, "and takes effect, in upper case");

    rm_fileRemove("corvane.ini");
    rm_exit(good ? 0 : 1);
}
