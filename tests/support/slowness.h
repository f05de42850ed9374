// How slow a program may be.
#ifndef RM_TESTS_SUPPORT_SLOWNESS_H
#define RM_TESTS_SUPPORT_SLOWNESS_H

#include <cstdlib>

namespace rmtest
{

// Times as long as by itself. valgrind, for which cases run apart, translates every instruction.
inline double slowness()
{
    return std::getenv("RM_CASES_APART") != nullptr ? 8.0 : 1.0;
}

// Seconds within which something has happened that waits for nobody, by the seconds that are enough
// for a program by itself. The locks that a test holds against it are waited for fourteen.
inline double atOnce(double seconds)
{
    constexpr double kLongest = 12.0;
    const double scaled = seconds * slowness();
    return scaled < kLongest || seconds > kLongest ? scaled : kLongest;
}

}  // namespace rmtest

#endif
