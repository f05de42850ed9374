/* Checks what rmheap writes for programs, without a library that would be lenient.
 *
 * usage: rmheap_check xml <FILE    well-formed, in UTF-8, and of characters that XML allows
 *        rmheap_check json <FILE   the same for JSON; prints each value as PATH=VALUE
 *
 * Exit status: 0 it is; 1 it is not, and the byte where it ends to be one is printed. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kMostDepth = 64, kLongestName = 64 };

static char* text; /* what is read, with a zero byte behind it */
static char* at;
static char path[4096];

static void fail(const char* what)
{
    fprintf(stderr, "byte %ld: %s\n", (long)(at - text), what);
    exit(1);
}

/* Whether `what` stands here. This and skip() look no further than they have to, as strncmp() and
 * strspn() would: under the address sanitizer, with its strict checks, each of those reads on to
 * the end of the text, which is minutes for a text of megabytes. */
static int stands(const char* what)
{
    for (size_t i = 0; what[i] != '\0'; ++i) {
        if (at[i] != what[i]) {
            return 0;
        }
    }
    return 1;
}

static void expect(const char* what)
{
    if (!stands(what)) {
        fail(what);
    }
    at += strlen(what);
}

/* Passes the characters of `set`. */
static void skip(const char* set)
{
    while (*at != '\0' && strchr(set, *at) != NULL) {
        ++at;
    }
}

static void skipBlanks(void)
{
    skip(" \t\r\n");
}

/* One character of UTF-8 that is allowed in text. */
static void character(void)
{
    const unsigned char* byte = (const unsigned char*)at;
    const size_t length = byte[0] < 0x80 ? 1 : byte[0] < 0xE0 ? 2 : byte[0] < 0xF0 ? 3 : 4;
    uint32_t code = length == 1 ? byte[0] : byte[0] & (0x7FU >> length);
    if ((byte[0] >= 0x80 && byte[0] < 0xC2) || byte[0] > 0xF4) {
        fail("no UTF-8");
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byte[i] & 0xC0) != 0x80) {
            fail("no UTF-8");
        }
        code = code << 6 | (byte[i] & 0x3FU);
    }
    const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < least[length] || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF ||
        code == 0xFFFE || code == 0xFFFF || (code < ' ' && code != '\n' && code != '\t')) {
        fail("a character that is not allowed");
    }
    at += length;
}

/* ---- XML */

static void name(char* to)
{
    size_t length = 0;
    while (strchr("<>/=\"' \n", *at) == NULL && length + 1 < kLongestName) {
        to[length++] = *at++;
    }
    to[length] = '\0';
    if (length == 0) {
        fail("a name");
    }
}

static void xmlText(char end)
{
    while (*at != end && *at != '\0') {
        if (*at == '<') {
            fail("a bare <");
        }
        if (*at == '&') {
            const char* const known[] = {"&amp;", "&lt;", "&gt;", "&quot;"};
            size_t i = 0;
            while (i < 4 && !stands(known[i])) {
                ++i;
            }
            if (i == 4) {
                fail("a bare &");
            }
        }
        character();
    }
}

/* Behind "<". True when something stands in the element. */
static int startTag(char* element)
{
    char attribute[kLongestName];
    name(element);
    for (skipBlanks(); *at != '>' && *at != '/'; skipBlanks()) {
        name(attribute);
        expect("=\"");
        xmlText('"');
        expect("\"");
    }
    if (*at == '/') {
        expect("/>");
        return 0;
    }
    expect(">");
    return 1;
}

static void xml(void)
{
    static char open[kMostDepth][kLongestName];
    char closed[kLongestName];
    int depth = 0;
    expect("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
    do {
        expect("<");
        if (*at == '/') {
            ++at;
            name(closed);
            expect(">");
            if (depth == 0) {
                fail("an element");
            }
            if (strcmp(closed, open[--depth]) != 0) {
                fail(open[depth]);
            }
        } else {
            if (depth == kMostDepth) {
                fail("less depth");
            }
            depth += startTag(open[depth]);
        }
        xmlText('<');
    } while (depth > 0);
    if (*at != '\0') {
        fail("the end");
    }
}

/* ---- JSON */

static void string(void)
{
    expect("\"");
    while (*at != '"') {
        if (*at == '\\' && strchr("\"\\/bfnrt", at[1]) != NULL && at[1] != '\0') {
            ++at;
        } else if (*at == '\\' || *at == '\0' || *at == '\n' || *at == '\t') {
            fail("a character of a string");
        }
        character();
    }
    expect("\"");
}

static void number(void)
{
    const char* begin = at;
    at += *at == '-' ? 1 : 0;
    if (*at == '0' && at[1] >= '0' && at[1] <= '9') {
        fail("a number");
    }
    skip("0123456789");
    if (*at == '.') {
        ++at;
        skip("0123456789");
    }
    if (at == begin || at[-1] < '0' || at[-1] > '9') {
        fail("a value");
    }
}

static void value(int depth);

/* What stands between brackets or braces, separated by commas. */
static void members(int object, int depth)
{
    const size_t length = strlen(path);
    const char end = object ? '}' : ']';
    int index = 0;
    ++at;
    for (skipBlanks(); *at != end; skipBlanks()) {
        if (index != 0) {
            expect(",");
            skipBlanks();
        }
        if (object) {
            const char* key = at + 1;
            string();
            snprintf(path + length, sizeof(path) - length, ".%.*s", (int)(at - key - 1), key);
            expect(":");
            skipBlanks();
        } else {
            snprintf(path + length, sizeof(path) - length, "[%d]", index);
        }
        value(depth + 1);
        path[length] = '\0';
        ++index;
    }
    ++at;
    printf("%s#=%d\n", path, index);
}

static void value(int depth)
{
    const char* begin = at;
    if (depth == kMostDepth) {
        fail("less depth");
    }
    if (*at == '{' || *at == '[') {
        members(*at == '{', depth);
        return;
    }
    if (*at == '"') {
        string();
    } else if (*at == 't') {
        expect("true");
    } else if (*at == 'f') {
        expect("false");
    } else if (*at == 'n') {
        expect("null");
    } else {
        number();
    }
    printf("%s=%.*s\n", path, (int)(at - begin), begin);
}

int main(int argc, char** argv)
{
    size_t size = 0;
    size_t got = 0;
    do {
        size += got;
        text = realloc(text, size + 65536 + 1);
        if (text == NULL) {
            return 1;
        }
        got = fread(text + size, 1, 65536, stdin);
    } while (got != 0);
    text[size] = '\0';
    at = text;
    if (argc == 2 && strcmp(argv[1], "xml") == 0) {
        xml();
    } else if (argc == 2 && strcmp(argv[1], "json") == 0) {
        value(0);
        skipBlanks();
    } else {
        return 2;
    }
    if (at != text + size) {
        fail("the end");
    }
    free(text);
    return 0;
}
