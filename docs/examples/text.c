/* Splits a command, joins texts, compares them without regard to case, reads lines. */
#include <rm.h>
#include <stdio.h>
#include <string.h>

int main(void)
{
    char command[] = "  LOAD  items.txt 250 ";
    int words = 0;
    char** argv = NULL;
    StrToArgv(command, &words, &argv, 0); /* the words stay inside command */
    int good = words == 3 && stricmp(argv[0], "load") == 0 && AllDigits(argv[2]) == 1;

    const char* const pieces[] = {"/srv/", NULL, argv[1]};
    char* path = StrArrayCat(pieces, 3, 0);
    char name[8];
    const int16_t cut = StrArrayCatBuf(pieces, 3, name, sizeof name);
    printf("%s; cut to a buffer of 8 (%d): %s\n", StrUpper(path), cut, name);
    good = good && strcmp(path, "/SRV/ITEMS.TXT") == 0 && cut == -1 && strlen(name) == 7;
    rm_freeMemory(path, 0);
    rm_freeMemory(argv, 0);

    FILE* lines = tmpfile();
    if (lines != NULL) {
        fputs("a line that is too long\nshort\n", lines);
        rewind(lines);
        good = good && strcmp(FgetsTrim(name, sizeof name, lines), "a line ") == 0 &&
               strcmp(FgetsTrim(name, sizeof name, lines), "short") == 0 &&
               FgetsTrim(name, sizeof name, lines) == NULL;
        fclose(lines);
    }
    rm_freeall();
    return good && lines != NULL ? 0 : 1;
}
