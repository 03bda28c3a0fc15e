// A fixed clock for the toolkit's time, restored when the guard ends.
#ifndef QXCRL_TESTS_SUPPORT_FIXED_CLOCK_H
#define QXCRL_TESTS_SUPPORT_FIXED_CLOCK_H

#include <cstdint>

#include "toolkit/r_toolkit.h"

namespace qxtest {

class FixedClock {
  public:
    explicit FixedClock(int64_t now) {
        now_ = now;
        R_TIME_set_clock(&FixedClock::read);
    }
    ~FixedClock() { R_TIME_set_clock(nullptr); }
    FixedClock(const FixedClock&) = delete;
    FixedClock& operator=(const FixedClock&) = delete;

  private:
    static int64_t read() { return now_; }
    static inline int64_t now_ = 0;
};

} // namespace qxtest

#endif
