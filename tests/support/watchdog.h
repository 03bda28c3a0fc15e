// A bound on calls that might block forever: the call runs in a child
// process, which is killed when it outlives the bound, so that a call stuck
// in open() or read() fails its test instead of hanging the suite.
#ifndef QXCRL_TESTS_SUPPORT_WATCHDOG_H
#define QXCRL_TESTS_SUPPORT_WATCHDOG_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

namespace qxtest {

// What call returned in a child of this process, or nullopt when the child
// did not return within limit (or died). The child's memory is its own: what
// the call leaves behind is not seen here.
std::optional<uint32_t> result_within(std::chrono::seconds limit,
                                      const std::function<uint32_t()>& call);

} // namespace qxtest

#endif
