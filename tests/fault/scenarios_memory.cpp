// Tagged memory, pools, the memory report, the logged calls.
#include "scenario.h"

#include "rm/rmalloc/rmalloc.h"

#include <csetjmp>
#include <cstring>

namespace fault
{

namespace
{

jmp_buf unusedTarget;

bool isFilled(const void* block, int value, uint32_t bytes)
{
    const auto* at = static_cast<const unsigned char*>(block);
    for (uint32_t i = 0; i < bytes; ++i) {
        if (at[i] != value) {
            return false;
        }
    }
    return true;
}

void useTags()
{
    constexpr uint32_t kLimit = 100000;
    constexpr uint32_t kSmall = 100;
    const int16_t tag = RM_HANDLE(rm_allocTag, (unusedTarget, kLimit));
    RM(rm_setTagAlloc)(512, tag);
    const char* name = RM_POINTER(rm_setTagName, ("session", tag));
    expect(std::strcmp(name, "session") == 0, "effect", "the tag's name is lost");
    void* blocks[20];
    for (void*& block : blocks) {
        block = RM_POINTER(rm_getMemory, (kSmall, tag));
        std::memset(block, 1, kSmall);
    }
    void* cleared = RM_POINTER(rm_cGetMemory, (5000, tag));
    expect(isFilled(cleared, 0, 5000), "effect", "the memory is not cleared");
    char* copy = RM_POINTER(rm_Strdup, ("a text", tag));
    expect(std::strcmp(copy, "a text") == 0, "effect", "the copy differs");
    void* longer = RM_POINTER(rm_extendMemory, (blocks[0], 20000, tag));
    expect(isFilled(longer, 1, kSmall), "effect", "what was extended has lost its bytes");
    void* grown = RM_POINTER(rm_growMemory, (blocks[1], 70000, tag));
    std::memset(grown, 2, 70000);
    expect(isFilled(longer, 1, kSmall) && isFilled(blocks[2], 1, kSmall), "unharmed",
           "other blocks were written over");
    RM(rm_freeMemory)(copy, tag);
    RM(rm_zFreeMemory)(&cleared, tag);
    expect(cleared == nullptr, "effect", "the pointer is not cleared");
    expect(RM(rm_memoryAvail)(tag) > 0, "status", "nothing is available");
    RM(rm_resetTag)(nullptr, tag);
    const uint32_t before = RM(rm_memused)();
    RM(rm_freeTagMemory)(tag, 1);
    expect(rm_memused() < before, "effect", "the tag's memory was not released");
}

// More tags than the table has room for, more blocks than a segment.
void useManyTags()
{
    for (int i = 0; i < 45; ++i) {
        const int16_t tag = RM_HANDLE(rm_allocTag, (nullptr, RM_NO_LIMIT));
        void* block = RM_POINTER(rm_getMemory, (i % 3 == 0 ? 40 : 9000, tag));
        std::memset(block, i, 40);
    }
    pauseFaults();
    expect(rmalloc::checkMemory() == 0, "tables", "memory is damaged before it is released");
    resumeFaults();
    RM(rm_freeall)();
    expect(rm_memused() == 0, "effect", "memory is left after rm_freeall");
    void* block = RM_POINTER(rm_getMemory, (100, 0));
    std::memset(block, 1, 100);
}

void usePools()
{
    RmPool* pool = RM_POINTER(rm_allocPool, (0, 0, "pool", 1000));
    void* elements[3] = {};
    for (void*& element : elements) {
        element = RM_POINTER_OR_NULL(rm_getFromPool, (200, pool));
        if (element != nullptr) {
            std::memset(element, 3, 200);
        }
    }
    for (void* element : elements) {
        static_cast<void>(RM_STATUS(rm_putInPool, (element, pool), 0, RM_TIMEOUT));
    }
    void* again = RM_POINTER_OR_NULL(rm_getFromPool, (20000, pool));
    if (again != nullptr) {
        std::memset(again, 4, 20000);
    }
    static_cast<void>(RM_STATUS(rm_putInPool, (again, pool), 0, RM_TIMEOUT));
    if (RM_STATUS(rm_zFreePool, (&pool), 0, RM_TIMEOUT) == 0) {
        expect(pool == nullptr, "effect", "the pool's pointer is not cleared");
    }
}

void reportMemory()
{
    static_cast<void>(RM_POINTER(rm_getMemory, (100, 0)));
    const int16_t tag = RM_HANDLE(rm_allocTag, (nullptr, RM_NO_LIMIT));
    RM(rm_setTagName)("reported", tag);
    void* gone = RM_POINTER(rm_getMemory, (50, tag));
    static_cast<void>(RM_POINTER(rm_getMemory, (50, tag)));
    RM(rm_freeMemory)(gone, tag);
    RM(rm_memReport)(RM_REPORT_TAG | RM_REPORT_ALL | RM_REPORT_FREE, tag, "report of %s", "one");
    RM(rm_memReport)(RM_REPORT_SUMMARY, 0, nullptr);
}

void useLoggedCalls()
{
    void* block = RM_POINTER(rm_LOG_getMemory, (100, 0, "file.c", 1));
    std::memset(block, 5, 100);
    block = RM_POINTER(rm_LOG_extendMemory, (block, 60000, 0, "file.c", 2));
    expect(isFilled(block, 5, 100), "effect", "what was extended has lost its bytes");
    block = RM_POINTER(rm_LOG_growMemory, (block, 90000, 0, "file.c", 3));
    void* cleared = RM_POINTER(rm_LOG_cGetMemory, (100, 0, "file.c", 4));
    expect(isFilled(cleared, 0, 100), "effect", "the memory is not cleared");
    char* copy = RM_POINTER(rm_LOG_Strdup, ("text", 0, "file.c", 5));
    RM(rm_LOG_freeMemory)(block, 0);
    RM(rm_LOG_zFreeMemory)(&cleared, 0);
    RM(rm_LOG_freeMemory)(copy, 0);
    expect(cleared == nullptr, "effect", "the pointer is not cleared");
}

constexpr Scenario kScenarios[] = {
    {"tags", useTags, nullptr, Hosts::kAll, false},
    {"many-tags", useManyTags, nullptr, Hosts::kFew, false},
    {"pools", usePools, nullptr, Hosts::kSome, false},
    {"report", reportMemory, nullptr, Hosts::kFew, false},
    {"logged-calls", useLoggedCalls, nullptr, Hosts::kFew, false},
};

}  // namespace

std::span<const Scenario> memoryScenarios()
{
    return kScenarios;
}

}  // namespace fault
