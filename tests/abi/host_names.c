#include "host_names.h"

#include <stddef.h>

int ownCalls = 0;

int checkTag(int tag, const char* function)
{
    ownCalls++;
    return function == NULL ? tag : 0;
}

char* GetLine(void* stream)
{
    ownCalls++;
    return stream;
}

char* StrUpper(char* text)
{
    ownCalls++;
    return text;
}

int stricmp(const char* a, const char* b)
{
    ownCalls++;
    return a == b;
}

int strnicmp(const char* a, const char* b, unsigned n)
{
    ownCalls++;
    return a == b && n == 0;
}
