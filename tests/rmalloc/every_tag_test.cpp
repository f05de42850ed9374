// Every call that takes a tag, with every tag there is: -32768 to 32767.
//
// Tags come from hosts that keep them in larger types, in files and in messages, so a call must
// give each of them its answer and read no record that is not there. The table of these cases is as
// small as a table gets, which lets the address sanitizer see a read outside of it.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <csetjmp>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace
{
using rmalloc::tagTable;
using rmtest::badPointer;
using rmtest::fatalLines;
using rmtest::invalidTag;
using rmtest::kShutdown;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::notFound;
using rmtest::wholeHeap;

constexpr Tag kOwner = 1;     // owns the block of the cases
constexpr Tag kReleased = 2;  // was in use, and is not
constexpr Tag kEmpty = 3;     // in use, owns nothing
constexpr uint32_t kBlockSize = 40;

bool inUse(int tag)
{
    return tag == 0 || tag == kOwner || tag == kEmpty;
}

bool outOfTable(int tag)
{
    return tag < 0 || tag > kEmpty;
}

class EveryTag : public rmtest::HeapTest
{
  protected:
    void SetUp() override
    {
        HeapTest::SetUp();
        while (rm_allocTag(nullptr, 100'000) < kEmpty) {
        }
        block_ = rm_getMemory(kBlockSize, kOwner);
        rmtest::fill(block_, kBlockSize, 7);
        rm_freeTagMemory(kReleased, 1);
        fatalLines([] { rm_errorExit(); });  // the banner, once
    }

    void TearDown() override
    {
        EXPECT_TRUE(block_ == nullptr || rmtest::holdsPattern(block_, kBlockSize, 7));
        HeapTest::TearDown();
    }

    // Calls for each tag that `which` accepts and compares all that is logged with what `expected`
    // gives for each. Nothing may change.
    static void expectEach(const std::function<bool(int)>& which,
                           const std::function<void(Tag)>& call,
                           const std::function<Lines(int)>& expected)
    {
        Lines all;
        for (int tag = INT16_MIN; tag <= INT16_MAX; ++tag) {
            if (which(tag)) {
                for (std::string& line : expected(tag)) {
                    all.push_back(std::move(line));
                }
            }
        }
        const std::string before = wholeHeap();
        const Lines lines = linesOf([&] {
            for (int tag = INT16_MIN; tag <= INT16_MAX; ++tag) {
                if (which(tag)) {
                    call(static_cast<Tag>(tag));
                }
            }
        });
        EXPECT_EQ(wholeHeap(), before);
        ASSERT_EQ(lines.size(), all.size());
        for (std::size_t i = 0; i < all.size(); ++i) {
            ASSERT_EQ(lines[i], all[i]);
        }
    }

    // The same for calls that end fatally, each of which must.
    static void expectEachFatal(const std::function<bool(int)>& which,
                                const std::function<void(Tag)>& call,
                                const std::function<std::string(int)>& expected)
    {
        int returned = 0;
        int current = 0;
        const std::function<void()> body = [&] { call(static_cast<Tag>(current)); };
        expectEach(
            which,
            [&](Tag tag) {
                current = tag;
                returned += rmtest::catchFatal(body) == 1 ? 0 : 1;
            },
            [&](int tag) {
                return Lines{expected(tag), kShutdown};
            });
        EXPECT_EQ(returned, 0);
    }

    void* block() const { return block_; }

    // Takes the table away; the result is what the block's address was.
    void* freeAll()
    {
        rm_freeall();
        return std::exchange(block_, nullptr);
    }

  private:
    void* block_ = nullptr;
};

bool notInUse(int tag)
{
    return !inUse(tag);
}

bool any(int /*tag*/)
{
    return true;
}

Lines nothing(int /*tag*/)
{
    return {};
}

TEST_F(EveryTag, InCheckTag)
{
    expectEach(
        any, [](Tag tag) { ASSERT_EQ(rmalloc::checkTag(tag, "f"), inUse(tag) ? 0 : -56); },
        [](int tag) { return inUse(tag) ? Lines{} : Lines{invalidTag(tag, "f")}; });
}

TEST_F(EveryTag, InRmSetTagName)
{
    expectEachFatal([](int tag) { return tag == 0 || notInUse(tag); },
                    [](Tag tag) { rm_setTagName("name", tag); }, [](int) { return "invalid tag"; });
}

TEST_F(EveryTag, InRmSetTagAllocOutsideOfTheTable)
{
    expectEach([](int tag) { return tag == 0 || outOfTable(tag); },
               [](Tag tag) { rm_setTagAlloc(512, tag); }, nothing);
}

TEST_F(EveryTag, InRmSetTagAllocWhenReleased)
{
    expectEachFatal([](int tag) { return tag == kReleased; },
                    [](Tag tag) { rm_setTagAlloc(512, tag); }, [](int) { return "invalid tag"; });
}

TEST_F(EveryTag, InRmResetTag)
{
    jmp_buf env;
    std::memset(&env, 0, sizeof env);
    expectEachFatal(
        notInUse, [&](Tag tag) { rm_resetTag(tag % 2 == 0 ? env : nullptr, tag); },
        [](int) { return "invalid tag"; });
}

TEST_F(EveryTag, InRmFreeTagMemory)
{
    expectEach(
        notInUse, [](Tag tag) { rm_freeTagMemory(tag, static_cast<int16_t>(tag % 2)); },
        [](int tag) { return tag == -1 ? Lines{} : Lines{invalidTag(tag, "rm_freeTagMemory")}; });
}

TEST_F(EveryTag, InRmGetMemory)
{
    expectEachFatal(
        notInUse, [](Tag tag) { rm_getMemory(8, tag); },
        [](int tag) { return invalidTag(tag, "rm_getMemory"); });
}

TEST_F(EveryTag, InRmCGetMemory)
{
    expectEachFatal(
        notInUse, [](Tag tag) { rm_cGetMemory(8, tag); },
        [](int tag) { return invalidTag(tag, "rm_getMemory"); });
}

TEST_F(EveryTag, InRmStrdup)
{
    expectEachFatal(
        notInUse, [](Tag tag) { rm_Strdup("text", tag); },
        [](int tag) { return invalidTag(tag, "rm_getMemory"); });
}

TEST_F(EveryTag, InRmFreeMemory)
{
    expectEach([](int tag) { return tag != kOwner; }, [&](Tag tag) { rm_freeMemory(block(), tag); },
               [&](int tag) {
                   return inUse(tag) ? notFound(static_cast<Tag>(tag), block())
                                     : Lines{invalidTag(tag, "rm_freeMemory")};
               });
}

TEST_F(EveryTag, InRmFreeMemoryOfABadPointer)
{
    char* inside = static_cast<char*>(block()) + 8;
    expectEach(
        any, [&](Tag tag) { rm_freeMemory(inside, tag); },
        [&](int) { return Lines{badPointer(inside)}; });
}

TEST_F(EveryTag, InRmFreeMemoryOfNull)
{
    expectEach(
        any, [](Tag tag) { rm_freeMemory(nullptr, tag); }, nothing);
}

TEST_F(EveryTag, InRmZFreeMemory)
{
    expectEach(
        notInUse,
        [&](Tag tag) {
            void* pointer = block();
            rm_zFreeMemory(&pointer, tag);
            ASSERT_EQ(pointer, nullptr);
        },
        [](int tag) { return Lines{invalidTag(tag, "rm_freeMemory")}; });
}

TEST_F(EveryTag, InRmExtendMemory)
{
    expectEach([](int tag) { return tag != kOwner; },
               [&](Tag tag) { ASSERT_EQ(rm_extendMemory(block(), 80, tag), nullptr); },
               [&](int tag) {
                   return inUse(tag) ? notFound(static_cast<Tag>(tag), block())
                                     : Lines{invalidTag(tag, "rm_extendMemory")};
               });
}

TEST_F(EveryTag, InRmExtendMemoryOfNull)
{
    expectEachFatal(
        notInUse, [](Tag tag) { rm_extendMemory(nullptr, 80, tag); },
        [](int tag) { return invalidTag(tag, "rm_getMemory"); });
}

TEST_F(EveryTag, InRmGrowMemory)
{
    expectEach(
        notInUse,
        [&](Tag tag) {
            ASSERT_EQ(rm_growMemory(tag % 2 == 0 ? block() : nullptr, 8, tag), nullptr);
        },
        [](int tag) { return Lines{invalidTag(tag, "rm_growMemory")}; });
}

TEST_F(EveryTag, InRmMemoryAvail)
{
    const int32_t avail[] = {-1, 100'000 - 48, 0, 100'000};
    expectEach(
        any, [&](Tag tag) { ASSERT_EQ(rm_memoryAvail(tag), outOfTable(tag) ? 0 : avail[tag]); },
        [](int tag) { return inUse(tag) ? Lines{} : Lines{invalidTag(tag, "rm_memoryAvail")}; });
}

TEST_F(EveryTag, WithoutATable)
{
    void* stale = freeAll();
    expectEach(
        any,
        [&](Tag tag) {
            rm_freeTagMemory(tag, 1);
            rm_setTagAlloc(512, tag);
            rm_freeMemory(nullptr, tag);
            ASSERT_EQ(rm_growMemory(stale, 8, tag), nullptr);
            ASSERT_EQ(rm_memoryAvail(tag), 0);
        },
        [](int tag) {
            Lines lines;
            if (tag != -1) {
                lines.push_back(invalidTag(tag, "rm_freeTagMemory"));
            }
            lines.push_back(invalidTag(tag, "rm_growMemory"));
            lines.push_back(invalidTag(tag, "rm_memoryAvail"));
            return lines;
        });
    EXPECT_EQ(tagTable, nullptr);
}
}  // namespace
