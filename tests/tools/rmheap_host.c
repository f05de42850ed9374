/* A host that makes a heap as its command line says and reports on it, for the tests of rmheap.
 *
 * usage: rmheap_host <step...>
 *   tag:NAME[:LIMIT]       makes a tag; the steps behind it are about this one
 *   get:SIZE[:COUNT]       gets blocks
 *   mixed:COUNT            gets blocks of many sizes
 *   drop:STEP              frees every STEPth block that it got, from all tags
 *   break:INDEX:WORD:VALUE overwrites a word, 0 or 1, of the header of a block
 *   segment:SIZE           sets the segment size of the tag
 *   report:FLAGS[:TITLE]   reports on all tags, or with flag 2 on this one */
#define _DEFAULT_SOURCE
#include "rm.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kMost = 200000 };

static struct {
    void* block;
    int16_t tag;
} got[kMost];

static size_t count;
static int16_t tag;

static void get(uint32_t size)
{
    if (count == kMost) {
        abort();
    }
    got[count].block = rm_getMemory(size, tag);
    got[count].tag = tag;
    ++count;
}

static uint32_t number(char** rest, uint32_t otherwise)
{
    const char* text = strsep(rest, ":");
    return text != NULL ? (uint32_t)strtoul(text, NULL, 0) : otherwise;
}

static void mix(uint32_t blocks)
{
    uint32_t state = 12345;
    for (uint32_t i = 0; i < blocks; ++i) {
        state = state * 1664525 + 1013904223;
        const uint32_t kind = state >> 29;
        const uint32_t most = kind == 0 ? 5000 : kind < 3 ? 600 : 90;
        get((state >> 8) % most + 1);
    }
}

static void drop(uint32_t step)
{
    for (size_t i = 0; i < count; i += step) {
        rm_zFreeMemory(&got[i].block, got[i].tag);
    }
}

static void breakHeader(char** rest)
{
    const uint32_t index = number(rest, 0);
    const uint32_t word = number(rest, 0);
    const uint32_t value = number(rest, 0);
    char* header = (char*)got[index].block - 8;
    memcpy(header + 4 * word, &value, sizeof(value));
}

static int run(char* step)
{
    char* rest = step;
    const char* what = strsep(&rest, ":");
    if (strcmp(what, "tag") == 0) {
        const char* name = strsep(&rest, ":");
        tag = rm_allocTag(NULL, number(&rest, RM_NO_LIMIT));
        rm_setTagName(name, tag);
    } else if (strcmp(what, "get") == 0) {
        const uint32_t size = number(&rest, 0);
        for (uint32_t i = number(&rest, 1); i != 0; --i) {
            get(size);
        }
    } else if (strcmp(what, "mixed") == 0) {
        mix(number(&rest, 1));
    } else if (strcmp(what, "drop") == 0) {
        drop(number(&rest, 1));
    } else if (strcmp(what, "break") == 0) {
        breakHeader(&rest);
    } else if (strcmp(what, "segment") == 0) {
        rm_setTagAlloc(number(&rest, 0), tag);
    } else if (strcmp(what, "report") == 0) {
        const int16_t flags = (int16_t)number(&rest, 0);
        if (rest == NULL) {
            rm_memReport(flags, tag, NULL);
        } else {
            rm_memReport(flags, tag, "%s", rest);
        }
    } else {
        fprintf(stderr, "rmheap_host: there is no step %s\n", what);
        return 1;
    }
    return 0;
}

int main(int argc, char** argv)
{
    int status = 0;
    fileSem = growSem = RM_NULL_SYNC;
    for (int i = 1; i < argc && status == 0; ++i) {
        status = run(argv[i]);
    }
    return status;
}
