// What toolkit tests share: owning pointers for toolkit objects
// (toolkit_owners.h), and a fixture with a library, certificate and time context and the small
// steps (decode a CRL, a certificate, make a time, read a serial) tests build on.
#ifndef QXCRL_TESTS_SUPPORT_TOOLKIT_FIXTURE_H
#define QXCRL_TESTS_SUPPORT_TOOLKIT_FIXTURE_H

#include <string>

#include <gtest/gtest.h>

#include "test_pki.h"
#include "toolkit/r_toolkit.h"
#include "toolkit_owners.h"

namespace qxtest {

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
    EntryPtr new_entry();
    ExtPtr new_ext();
    // The seconds a time object holds, read back through format 3.
    static int64_t seconds(R_TIME* time);
    static Bytes serial_of(R_CRL_ENTRY* entry);

    R_LIB_CTX* lib = nullptr;
    R_CERT_CTX* certCtx = nullptr;
    R_TIME_CTX* timeCtx = nullptr;
};

} // namespace qxtest

#endif
