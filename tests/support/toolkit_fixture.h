// What toolkit tests share: owning pointers for toolkit objects, and a
// fixture with a library, certificate and time context and the small steps
// (decode a CRL, a certificate, make a time, read a serial) tests build on.
#ifndef QXCRL_TESTS_SUPPORT_TOOLKIT_FIXTURE_H
#define QXCRL_TESTS_SUPPORT_TOOLKIT_FIXTURE_H

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "test_pki.h"
#include "toolkit/r_toolkit.h"

namespace qxtest {

template <typename T, int (*Free)(T*)> struct Freer {
    void operator()(T* object) const { Free(object); }
};
using CrlPtr = std::unique_ptr<R_CRL, Freer<R_CRL, R_CRL_free>>;
using CertPtr = std::unique_ptr<R_CERT, Freer<R_CERT, R_CERT_free>>;
using EntryPtr = std::unique_ptr<R_CRL_ENTRY, Freer<R_CRL_ENTRY, R_CRL_ENTRY_free>>;
using ExtPtr = std::unique_ptr<R_EXT, Freer<R_EXT, R_EXT_free>>;
using TimePtr = std::unique_ptr<R_TIME, Freer<R_TIME, R_TIME_free>>;
using KeyPtr = std::unique_ptr<R_PKEY, Freer<R_PKEY, R_PKEY_free>>;

inline Bytes item_bytes(const R_ITEM& item) {
    return item.len == 0 ? Bytes{} : Bytes(item.data, item.data + item.len);
}

// Uppercase hex of bytes, as openssl prints serials.
std::string hex(const Bytes& bytes, const char* separator = "");

class ToolkitTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    CrlPtr decode(const Bytes& der);
    CertPtr cert(const X509* x509);
    TimePtr time_at(int64_t seconds);
    // Empty holders that the CRL's getters fill.
    EntryPtr entry();
    ExtPtr ext();
    // The seconds a time object holds, read back through format 3.
    static int64_t seconds(R_TIME* time);
    static Bytes serial_of(R_CRL_ENTRY* entry);

    R_LIB_CTX* lib = nullptr;
    R_CERT_CTX* certCtx = nullptr;
    R_TIME_CTX* timeCtx = nullptr;
};

} // namespace qxtest

#endif
