// SQLite's allocations counted and failable, for sweeps over the persistent
// store, whose memory comes from SQLite rather than the layer. SQLite takes
// another allocator only while no connection is open, so the sweep installs
// it between operations and puts SQLite's own back when it ends.
#ifndef QXCRL_TESTS_SUPPORT_SQLITE_ALLOCATOR_H
#define QXCRL_TESTS_SUPPORT_SQLITE_ALLOCATOR_H

#include <cstdint>
#include <functional>

namespace qxtest {

// Runs op once per SQLite allocation it makes, failing that one; then once
// with none failing. check(status, failureInjected) asserts; afterwards the
// SQLite blocks live must be what they were before op. Returns how many runs
// had a failure injected, so a caller can tell the sweep reached SQLite.
uint64_t sweep_sqlite_allocations(const std::function<uint32_t()>& op,
                                  const std::function<void(uint32_t, bool)>& check);

} // namespace qxtest

#endif
