// An operation run in a forked child of the test, so that the memory it
// takes at its peak can be told apart from the test's own.
#ifndef QXCRL_TESTS_SUPPORT_CHILD_RUN_H
#define QXCRL_TESTS_SUPPORT_CHILD_RUN_H

#include <functional>

#include "qxlayer.h"

namespace qxtest {

// What the operation returned in the child, and how far the child's peak
// resident memory grew while it ran; growthKb is -1 when the child did not
// report.
struct ChildRun {
    StatusCode status = 0;
    long growthKb = -1;
};

// Runs op in a forked child. Only the calling thread exists in the child;
// servers on other threads keep running in the parent.
ChildRun run_in_child(const std::function<StatusCode()>& op);

// False under AddressSanitizer: its quarantine inflates a child's peak
// memory past any fair bound, and its allocator does not take all of its
// locks around fork(), so a child can wait for good on one that a server's
// thread held at that moment.
constexpr bool child_memory_is_measurable() {
#if defined(__SANITIZE_ADDRESS__)
    return false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    return false;
#else
    return true;
#endif
#else
    return true;
#endif
}

} // namespace qxtest

#endif
