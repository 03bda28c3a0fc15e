// OpenSSL's allocations counted and failable, for sweeps over operations
// whose memory comes from the toolkit rather than the layer. Installed once,
// before OpenSSL allocates anything (see main).
#ifndef QXCRL_TESTS_OOM_OPENSSL_ALLOCATOR_H
#define QXCRL_TESTS_OOM_OPENSSL_ALLOCATOR_H

#include <cstdint>
#include <functional>

namespace qxtest {

// Routes OpenSSL's allocator through the counters; false if OpenSSL already allocated.
bool install_openssl_allocator();

// OpenSSL blocks now live.
uint64_t openssl_live_blocks();

// Runs op once per OpenSSL allocation it makes, failing that one; then once
// with none failing. check(status, failureInjected) asserts; afterwards the
// OpenSSL blocks live must be what they were before op. Returns how many
// runs had a failure injected, so a caller can tell the sweep reached OpenSSL.
uint64_t sweep_openssl_allocations(const std::function<uint32_t()>& op,
                                   const std::function<void(uint32_t, bool)>& check);

} // namespace qxtest

#endif
