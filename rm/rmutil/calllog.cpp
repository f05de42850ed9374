// Allocation calls that say where they were made from.
//
// Why: when memory goes missing, a module is compiled with its allocation calls renamed to these,
// and the log tells who allocates. Each writes its line first, so that the line is there also when
// the call itself does not come back.
//
// Fatal: what the plain call may end.
#include "rm/rmutil/rmutil.h"

#include <cstring>

void* rm_LOG_getMemory(uint32_t size, int16_t tag, const char* file, unsigned line)
{
    rm_systemLogWrite("WARNING: Calling rm_LOG_getMemory from %s, %u", file, line);
    return rm_getMemory(size, tag);
}

void* rm_LOG_cGetMemory(uint32_t size, int16_t tag, const char* file, unsigned line)
{
    rm_systemLogWrite("WARNING: Calling rm_LOG_cGetMemory from %s, %u", file, line);
    void* block = rm_getMemory(size, tag);
    if (block != nullptr) {
        std::memset(block, 0, size);
    }
    return block;
}

void* rm_LOG_extendMemory(void* pointer, uint32_t newSize, int16_t tag, const char* file,
                          unsigned line)
{
    rm_systemLogWrite("WARNING: Calling rm_LOG_extendMemory from %s, %u", file, line);
    return rm_extendMemory(pointer, newSize, tag);
}

void* rm_LOG_growMemory(void* pointer, uint32_t size, int16_t tag, const char* file, unsigned line)
{
    rm_systemLogWrite("WARNING: Calling rm_LOG_growMemory from %s, %u", file, line);
    return rm_growMemory(pointer, size, tag);
}

char* rm_LOG_Strdup(const char* text, int16_t tag, const char* file, unsigned line)
{
    rm_systemLogWrite("WARNING: Calling rm_LOG_Strdup from %s, %u", file, line);
    return rm_Strdup(text == nullptr ? "" : text, tag);
}

void rm_LOG_freeMemory(void* pointer, int16_t tag)
{
    rm_systemLogWrite("WARNING: Calling rm_LOG_freeMemory");
    rm_freeMemory(pointer, tag);
}

void rm_LOG_zFreeMemory(void* pointerAddress, int16_t tag)
{
    rm_systemLogWrite("WARNING: Calling rm_LOG_zFreeMemory");
    rm_zFreeMemory(pointerAddress, tag);
}
