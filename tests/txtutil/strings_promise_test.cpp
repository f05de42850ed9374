// Strings at the edge of memory, and line reading step by step: what is read and no more, what is
// asked of the system, and what happens when the input fails in the middle.
#include "tests/support/support.h"

#include "rm.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
using namespace std::string_view_literals;

using rmtest::Call;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStdout;
using rmtest::resetCalls;

class TextEdge : public rmtest::RmTest
{
};

class TextCalls : public rmtest::RmTest
{
};

class LineInput : public rmtest::RmTest
{
};

// Bytes, without a terminator of their own, whose last one is the last of the memory that may be
// touched.
class BytesAtTheEdge
{
  public:
    explicit BytesAtTheEdge(std::string_view bytes)
        : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          memory_(static_cast<char*>(mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE,
                                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))),
          at_(memory_ + page_ - bytes.size())
    {
        EXPECT_EQ(mprotect(memory_ + page_, page_, PROT_NONE), 0);
        std::copy(bytes.begin(), bytes.end(), at_);
    }

    ~BytesAtTheEdge() { munmap(memory_, 2 * page_); }

    BytesAtTheEdge(const BytesAtTheEdge&) = delete;
    BytesAtTheEdge& operator=(const BytesAtTheEdge&) = delete;

    char* at() const { return at_; }

  private:
    std::size_t page_;
    char* memory_;
    char* at_;
};

// A stream whose bytes come from a function. When that gives none, reading has failed.
class Source
{
  public:
    using Next = std::function<bool(std::string* bytes)>;

    explicit Source(Next next, int error = EIO) : next_(std::move(next)), error_(error)
    {
        cookie_io_functions_t functions = {};
        functions.read = [](void* source, char* buffer, std::size_t size) {
            return static_cast<Source*>(source)->give(buffer, size);
        };
        stream_ = fopencookie(this, "r", functions);
    }

    ~Source() { std::fclose(stream_); }

    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    std::FILE* stream() const { return stream_; }

  private:
    ssize_t give(char* buffer, std::size_t size)
    {
        if (left_.empty() && !next_(&left_)) {
            errno = error_;
            return -1;
        }
        const std::size_t given = left_.copy(buffer, size);
        left_.erase(0, given);
        return static_cast<ssize_t>(given);
    }

    Next next_;
    int error_;         // of a read that fails
    std::string left_;  // of what the function gave
    std::FILE* stream_;
};

// Gives these pieces one after the other, then fails for ever.
Source::Next piecesThenAnError(std::vector<std::string> pieces)
{
    return [pieces = std::move(pieces), next = std::size_t{0}](std::string* bytes) mutable {
        if (next == pieces.size()) {
            return false;
        }
        *bytes = pieces[next++];
        return true;
    };
}

// --- The edge of memory

TEST_F(TextEdge, OfDigitsEndsWithTheFirstOtherByte)
{
    EXPECT_EQ(AllDigits(BytesAtTheEdge("12a").at()), 0);
    EXPECT_EQ(AllDigits(BytesAtTheEdge("-").at()), 0);
}

TEST_F(TextEdge, OfAComparisonEndsWithTheFirstDifference)
{
    const BytesAtTheEdge a("sameX");
    const BytesAtTheEdge b("SAMEy");
    EXPECT_EQ(stricmp(a.at(), b.at()), -1);
    EXPECT_EQ(stricmp(b.at(), a.at()), 1);
    EXPECT_EQ(strnicmp(a.at(), b.at(), 100), -1);
    EXPECT_EQ(strnicmp(b.at(), a.at(), 100), 1);
}

TEST_F(TextEdge, OfAComparisonEndsWithTheCount)
{
    const BytesAtTheEdge a("aBc");
    const BytesAtTheEdge b("AbC");
    for (uint32_t n = 0; n <= 3; ++n) {
        EXPECT_EQ(strnicmp(a.at(), b.at(), n), 0) << n;
    }
    EXPECT_EQ(strnicmp(BytesAtTheEdge("").at(), BytesAtTheEdge("").at(), 0), 0);
}

TEST_F(TextEdge, OfAComparisonEndsWithTheTerminator)
{
    const BytesAtTheEdge a("ab\0"sv);
    const BytesAtTheEdge b("AB\0"sv);
    EXPECT_EQ(stricmp(a.at(), b.at()), 0);
    EXPECT_EQ(strnicmp(a.at(), b.at(), 100), 0);
    EXPECT_EQ(stricmp(nullptr, BytesAtTheEdge("\0"sv).at()), 0);
}

TEST_F(TextEdge, OfABoundedCopyIsTheSize)
{
    const BytesAtTheEdge source("abc");
    const BytesAtTheEdge target("###");
    EXPECT_EQ(StrncpyZ(target.at(), source.at(), 3), target.at());
    EXPECT_STREQ(target.at(), "ab");
    const BytesAtTheEdge nothing("");
    EXPECT_EQ(StrncpyZ(nothing.at(), nothing.at(), 0), nothing.at());
}

TEST_F(TextEdge, OfAChangeOfCaseIsTheTerminator)
{
    const BytesAtTheEdge text("aB\0"sv);
    EXPECT_STREQ(StrUpper(text.at()), "AB");
    EXPECT_STREQ(StrLower(text.at()), "ab");
}

TEST_F(TextEdge, OfASplitTextIsTheTerminator)
{
    for (const std::string_view line : {"a b\0"sv, "a  b \t\0"sv, " \0"sv, "\0"sv}) {
        const BytesAtTheEdge text(line);
        int count = -1;
        char** argv = nullptr;
        EXPECT_EQ(StrToArgv(text.at(), &count, &argv, 0), 0);
        EXPECT_EQ(count, line.size() > 2 ? 2 : 0);
    }
}

TEST_F(TextEdge, OfJoinedTextsIsTheBuffer)
{
    const char* const entries[] = {"abc", "de"};
    const BytesAtTheEdge fitting("######");
    EXPECT_EQ(StrArrayCatBuf(entries, 2, fitting.at(), 6), 0);
    EXPECT_STREQ(fitting.at(), "abcde");
    const BytesAtTheEdge cut("#####");
    EXPECT_EQ(StrArrayCatBuf(entries, 2, cut.at(), 5), -1);
    EXPECT_STREQ(cut.at(), "abcd");
}

TEST_F(TextEdge, OfALineIsTheBuffer)
{
    rmtest::writeFile("input", "abc\nabcdef\nab\n");
    std::FILE* input = std::fopen("input", "r");
    const BytesAtTheEdge buffer("####");
    for (const char* expected : {"abc", "abc", "ab"}) {
        EXPECT_STREQ(FgetsTrim(buffer.at(), 4, input), expected);
    }
    EXPECT_EQ(FgetsTrim(buffer.at(), 4, input), nullptr);
    std::fclose(input);
}

// --- Calls of the system

TEST_F(TextCalls, AreMadeByNothingThatNeitherAllocatesNorReads)
{
    char text[] = "Text";
    char buffer[8];
    const char* const entries[] = {"abc", nullptr, "defgh"};
    resetCalls();
    AllDigits("12a");
    StrUpper(text);
    StrLower(text);
    stricmp("a", "b");
    strnicmp("a", "b", 1);
    StrncpyZ(buffer, "a longer text", 8);
    StrArrayCatBuf(entries, 3, buffer, 8);
    StrArrayCatBuf(entries, 0, buffer, 8);
    EXPECT_TRUE(callTrace().empty());
}

TEST_F(TextCalls, AreMadeByALineForTheFlushAlone)
{
    rmtest::writeFile("input", "a line that is too long\n");
    std::FILE* input = std::fopen("input", "r");
    char buffer[8];
    resetCalls();
    EXPECT_EQ(FgetsTrim(buffer, 8, input), buffer);
    const std::vector<CallRecord> trace = callTrace();
    ASSERT_EQ(trace.size(), 1U);
    EXPECT_EQ(trace[0].call, Call::kFflush);
    EXPECT_EQ(trace[0].pointer<std::FILE>(0), stdout);
    std::fclose(input);
}

// --- Line reading

TEST_F(LineInput, IsAskedForAfterThePromptIsOut)
{
    for (const int16_t size : {int16_t{10}, int16_t{2}, int16_t{1}, int16_t{0}, int16_t{-1}}) {
        off_t shown = -1;
        const std::string out = captureStdout([&] {
            const Source input([&shown](std::string* bytes) {
                struct stat output = {};
                fstat(STDOUT_FILENO, &output);
                shown = shown == -1 ? output.st_size : shown;
                *bytes = "answer\n";
                return true;
            });
            char buffer[10];
            std::printf("prompt> ");
            FgetsTrim(buffer, size, input.stream());
        });
        EXPECT_EQ(shown, 8) << "of the prompt, with a size of " << size;
        EXPECT_EQ(out, "prompt> ");
    }
}

TEST_F(LineInput, LeavesOtherStreamsUnflushed)
{
    rmtest::writeFile("input", "answer\n");
    std::FILE* input = std::fopen("input", "r");
    std::FILE* other = std::fopen("other", "w");
    std::fputs("pending", other);
    char buffer[10];
    EXPECT_EQ(FgetsTrim(buffer, 10, input), buffer);
    EXPECT_EQ(rmtest::readFile("other"), "");
    std::fclose(other);
    std::fclose(input);
}

TEST_F(LineInput, ThatFailsInTheMiddleOfALineGivesNullAndAnEmptyText)
{
    const Source input(piecesThenAnError({"one\n", "tw"}));
    char buffer[10];
    EXPECT_STREQ(FgetsTrim(buffer, 10, input.stream()), "one");
    EXPECT_EQ(FgetsTrim(buffer, 10, input.stream()), nullptr);
    EXPECT_STREQ(buffer, "");
}

TEST_F(LineInput, ThatFailsBehindWhatFitsGivesTheCutLine)
{
    const Source input(piecesThenAnError({"abcd", "efgh"}));
    char buffer[5];
    EXPECT_STREQ(FgetsTrim(buffer, 5, input.stream()), "abcd");
    EXPECT_EQ(FgetsTrim(buffer, 5, input.stream()), nullptr);
    EXPECT_STREQ(buffer, "");
}

// Of a terminal that is not waited for.
TEST_F(LineInput, ThatHasNoMoreForNowGivesWhatThereIs)
{
    const Source input(piecesThenAnError({"one\n", "tw"}), EAGAIN);
    char buffer[10];
    EXPECT_STREQ(FgetsTrim(buffer, 10, input.stream()), "one");
    EXPECT_STREQ(FgetsTrim(buffer, 10, input.stream()), "tw");
    EXPECT_EQ(FgetsTrim(buffer, 10, input.stream()), nullptr);
    EXPECT_STREQ(buffer, "");
}

TEST_F(LineInput, ThatHasFailedBeforeIsReadToItsEnd)
{
    int reads = 0;
    const Source input([&reads](std::string* bytes) {
        *bytes = reads == 1 ? "last" : "";  // no bytes are the end
        return reads++ > 0;
    });
    char buffer[10];
    EXPECT_EQ(FgetsTrim(buffer, 10, input.stream()), nullptr);
    EXPECT_STREQ(FgetsTrim(buffer, 10, input.stream()), "last");
    EXPECT_NE(std::ferror(input.stream()), 0) << "of the first read";
    EXPECT_EQ(FgetsTrim(buffer, 10, input.stream()), nullptr);
}

TEST_F(LineInput, IsNobodyElsesUntilTheLineIsRead)
{
    std::FILE* stream = nullptr;
    int refusals = 0;
    const auto tryFromAnotherThread = [&] {
        if (ftrylockfile(stream) != 0) {
            ++refusals;
        } else {
            funlockfile(stream);
        }
    };
    const Source input([&](std::string* bytes) {
        std::thread(tryFromAnotherThread).join();
        *bytes = "line\n";
        return true;
    });
    stream = input.stream();
    char buffer[10];
    EXPECT_STREQ(FgetsTrim(buffer, 10, stream), "line");
    EXPECT_EQ(refusals, 1);
    std::thread(tryFromAnotherThread).join();
    EXPECT_EQ(refusals, 1) << "it is free again";
}

// Whoever waits for the stream gets it behind the line, and not between two of its parts.
TEST_F(LineInput, IsNobodyElsesBetweenItsParts)
{
    constexpr int16_t kParts = 32;
    std::FILE* stream = nullptr;
    std::thread other;
    std::atomic<bool> others = false;
    int given = 0;
    int early = 0;
    const Source input([&](std::string* bytes) {
        if (given == 0) {
            other = std::thread([&] {
                flockfile(stream);
                others = true;
                funlockfile(stream);
            });
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // the other one waits by now
        early += others ? 1 : 0;
        *bytes = std::string(1000, 'x') + (++given == kParts ? "\n" : "");
        return true;
    });
    stream = input.stream();
    std::vector<char> buffer(kParts * 1000 + 2);
    EXPECT_EQ(FgetsTrim(buffer.data(), kParts * 1000 + 2, stream), buffer.data());
    other.join();
    EXPECT_EQ(std::strlen(buffer.data()), kParts * 1000U);
    EXPECT_EQ(early, 0) << "of " << kParts << " parts";
    EXPECT_TRUE(others);
}

TEST_F(LineInput, OfTwoStreamsIsKeptApart)
{
    const Source first(piecesThenAnError({"a long line, ", "cut\nnext a\n"}));
    const Source second(piecesThenAnError({"b\n", "next b\n"}));
    char buffer[7];
    EXPECT_STREQ(FgetsTrim(buffer, 7, first.stream()), "a long");
    EXPECT_STREQ(FgetsTrim(buffer, 7, second.stream()), "b");
    EXPECT_STREQ(FgetsTrim(buffer, 7, first.stream()), "next a");
    EXPECT_STREQ(FgetsTrim(buffer, 7, second.stream()), "next b");
}

TEST_F(LineInput, IsNotReadBeyondTheNewline)
{
    // Whoever asks for one line at a terminal does not wait for the next one.
    const Source input(piecesThenAnError({"abcdefgh\n", "xy\n"}));
    std::setvbuf(input.stream(), nullptr, _IONBF, 0);
    char buffer[5];
    EXPECT_STREQ(FgetsTrim(buffer, 5, input.stream()), "abcd");
    EXPECT_EQ(std::ferror(input.stream()), 0);
    EXPECT_STREQ(FgetsTrim(buffer, 5, input.stream()), "xy");
    EXPECT_EQ(std::ferror(input.stream()), 0);
}
}  // namespace
