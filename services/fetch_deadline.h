// Time limits of the layer's fetches: each step has its own timeout, and
// none runs past the deadline of the walk it belongs to.
#ifndef QXCRL_SERVICES_FETCH_DEADLINE_H
#define QXCRL_SERVICES_FETCH_DEADLINE_H

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <sys/time.h>

namespace qxfetch {

using Clock = std::chrono::steady_clock;

inline timeval to_timeval(std::chrono::microseconds span) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(span.count() / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(span.count() % 1000000);
    return tv;
}

// One step's time: its timeout from now, cut short by the walk's deadline.
class Deadline {
  public:
    Deadline(uint32_t timeoutMs, Clock::time_point walkEnd)
        : end_(std::min(Clock::now() + std::chrono::milliseconds(timeoutMs), walkEnd)) {}

    // False once the time is up; else what is left, in *tv.
    bool remaining(timeval* tv) const {
        const auto left = left_as<std::chrono::microseconds>();
        if (left.count() <= 0)
            return false;
        *tv = to_timeval(left);
        return true;
    }

    // What is left in whole milliseconds, rounded up; 0 once the time is up.
    int milliseconds_left() const {
        const auto left = left_as<std::chrono::microseconds>();
        if (left.count() <= 0)
            return 0;
        return static_cast<int>(std::min<int64_t>((left.count() + 999) / 1000, INT_MAX));
    }

  private:
    template <typename Unit> Unit left_as() const {
        return std::chrono::duration_cast<Unit>(end_ - Clock::now());
    }

    Clock::time_point end_;
};

} // namespace qxfetch

#endif
