// What the random runs of the allocator share: chance, and the first difference that was found.
#ifndef RM_TESTS_RMALLOC_RANDOM_RUN_H
#define RM_TESTS_RMALLOC_RANDOM_RUN_H

#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace rmtest
{

enum class SegAlloc { kOff, kOn, kChanging };

class Chance
{
  public:
    explicit Chance(uint32_t seed) : random_(seed) {}

    uint32_t below(uint32_t bound)
    {
        return bound == 0 ? 0 : static_cast<uint32_t>(random_() % bound);
    }

    bool oneIn(uint32_t n) { return below(n) == 0; }

    template <typename T>
    const T& oneOf(const std::vector<T>& all)
    {
        return all[below(static_cast<uint32_t>(all.size()))];
    }

  private:
    std::mt19937 random_;
};

// The first one counts: what comes after it follows from it.
class Difference
{
  public:
    bool found() const { return !text_.empty(); }

    const std::string& text() const { return text_; }

    __attribute__((format(printf, 2, 0))) void note(const char* format, va_list args)
    {
        if (!found()) {
            std::array<char, 256> text{};
            std::vsnprintf(text.data(), text.size(), format, args);
            text_ = text.data();
        }
    }

  private:
    std::string text_;
};

}  // namespace rmtest

#endif
