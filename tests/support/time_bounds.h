// "Ends within its bound" for tests of calls that must not hang: the time
// a call took, and the generous slack allowed beyond a bound.
#ifndef QXCRL_TESTS_SUPPORT_TIME_BOUNDS_H
#define QXCRL_TESTS_SUPPORT_TIME_BOUNDS_H

#include <chrono>

namespace qxtest {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Generous: these bounds prove that nothing hangs, they measure no speed.
inline constexpr milliseconds slack(5000);

inline milliseconds elapsed_since(Clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

} // namespace qxtest

#endif
