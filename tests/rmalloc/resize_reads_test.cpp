// A block that is resized in place brings its own bytes along and no others: behind it the memory
// may end.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstdint>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
using rmtest::segmentsOf;

class ResizeAtTheEnd : public rmtest::HeapTest
{
};

constexpr uint32_t kLarge = 4U << 20;  // bytes; the platform maps such memory by itself

#ifndef __SANITIZE_ADDRESS__
// A page behind the memory that nobody may read. Null when something else stands there.
void* forbidBehind(uintptr_t end)
{
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    auto* wanted = reinterpret_cast<void*>((end + page - 1) / page * page);
    void* got = mmap(wanted, page, PROT_NONE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    return got == MAP_FAILED ? nullptr : got;
}
#endif

TEST_F(ResizeAtTheEnd, ReadsNothingBehindTheBlock)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_setTagAlloc(kLarge, tag);
    // What the platform maps next stands below what it has mapped, which goes: nothing is there.
    void* above = rm_getMemory(kLarge, 0);
    auto* block = static_cast<char*>(rm_getMemory(16, tag));
    std::memset(block, 'x', 16);
    rm_freeMemory(above, 0);
#ifndef __SANITIZE_ADDRESS__  // which sees it by itself, and keeps what was given back
    const rmalloc::Segment* segment = segmentsOf(tag)[0];
    void* forbidden =
        forbidBehind(reinterpret_cast<uintptr_t>(segment + 1) + uintptr_t{segment->units} * 8);
    ASSERT_NE(forbidden, nullptr);
#endif

    auto* longer = static_cast<char*>(rm_extendMemory(block, kLarge / 2, tag));
    EXPECT_LT(longer, block);
    EXPECT_EQ(std::memcmp(longer, "xxxxxxxxxxxxxxxx", 16), 0);
    rm_freeMemory(longer, tag);
#ifndef __SANITIZE_ADDRESS__
    munmap(forbidden, 1);
#endif
}
}  // namespace
