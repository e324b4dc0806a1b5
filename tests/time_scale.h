// Upper time limits of timing-based tests. Emulated and sanitized runs are slower, so every
// "at most" limit is multiplied by PMX_TEST_TIME_SCALE (a factor of 1 or more, default 1); the
// "at least" limits, which the code under test guarantees, are never scaled.
#pragma once

#include <chrono>
#include <cstdlib>

namespace pmx_test {

inline double time_scale()
{
    static const double factor = [] {
        const char *text = std::getenv("PMX_TEST_TIME_SCALE");
        const double f = text != nullptr ? std::strtod(text, nullptr) : 1.0;
        return f >= 1.0 ? f : 1.0;
    }();
    return factor;
}

inline double at_most_seconds(double seconds) { return seconds * time_scale(); }

template <class Rep, class Period>
std::chrono::milliseconds at_most(std::chrono::duration<Rep, Period> limit)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(limit * time_scale());
}

} // namespace pmx_test
