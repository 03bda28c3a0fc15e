// Reading, verifying and judging a CRL while OpenSSL fails one allocation
// after another: each failure must end in the operation's failure status
// with its output untouched, never in a wrong answer, and must leak nothing.
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "openssl_allocator.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

class InspectionOomTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        CrlOptions recipe;
        recipe.revoked = {revoked_serial({0x10}), revoked_serial({0x80, 0x01})};
        recipe.crlNumber = 7;
        const Bytes crlDer = make_crl(shared_issuer(), recipe);
        ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl_, crlDer.data(), size_of(crlDer)), 0u);
        issuer_ = record(cert_der(shared_issuer().cert.get()));
        for (unsigned char serial : {0x10, 0x20}) {
            LeafOptions leaf;
            leaf.serial = {serial};
            leaves_.push_back(record(cert_der(make_leaf(shared_issuer(), leaf).get())));
        }
    }
    void TearDown() override {
        for (CertificateRecord*& leaf : leaves_)
            qxcert_free(ctx_, &leaf);
        qxcert_free(ctx_, &issuer_);
        qxcrl_Destroy(ctx_, &crl_);
        LayerTest::TearDown();
    }

    static uint32_t size_of(const Bytes& bytes) { return static_cast<uint32_t>(bytes.size()); }

    CertificateRecord* record(const Bytes& der) {
        CertificateRecord* made = nullptr;
        EXPECT_EQ(qxcert_from_bytes(ctx_, der.data(), size_of(der), &made), 0u);
        return made;
    }

    CrlObject* crl_ = nullptr;
    CertificateRecord* issuer_ = nullptr;
    std::vector<CertificateRecord*> leaves_;
};

} // namespace

TEST_F(InspectionOomTest, DetailsFailCleanly) {
    uint64_t failuresInjected = 0;
    for (CrlDetailItem item = QXCRL_DETAIL_VERSION; item <= QXCRL_DETAIL_EXTENSION; ++item) {
        SCOPED_TRACE("item " + std::to_string(item));
        // Room for every form of output; byte-string items get a buffer into data.
        struct Output {
            unsigned char raw[1025];
            unsigned char data[64];
        };
        const auto prepare = [item](Output& out) {
            std::memset(&out, 0xa5, sizeof out);
            if (item == QXCRL_DETAIL_ENTRY_SERIAL || item == QXCRL_DETAIL_EXTENSION) {
                CrlDetailBuffer buffer{out.data, 0xa5a5a5a5u};
                std::memcpy(out.raw, &buffer, sizeof buffer);
            }
        };
        // Snapshots of the one output object, so that the buffer's pointer compares equal.
        Output out;
        prepare(out);
        Output untouched;
        std::memcpy(&untouched, &out, sizeof out);
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, item, 1, out.raw), 0u); // also warms caches
        Output expected;
        std::memcpy(&expected, &out, sizeof out);
        failuresInjected += sweep_openssl_allocations(
            [&] {
                prepare(out);
                return qxcrl_GetDetails(ctx_, crl_, item, 1, out.raw);
            },
            [&](uint32_t status, bool injected) {
                if (status == 0) {
                    EXPECT_EQ(std::memcmp(&out, &expected, sizeof out), 0);
                } else {
                    EXPECT_TRUE(injected);
                    EXPECT_EQ(status, QXERR_TOOLKIT_FAILURE);
                    EXPECT_EQ(std::memcmp(&out, &untouched, sizeof out), 0);
                }
            });
    }
    EXPECT_GT(failuresInjected, 0u);
}

TEST_F(InspectionOomTest, VerificationNeverPassesOnFailure) {
    CrlValidity validity = 0;
    ASSERT_EQ(qxcrl_VerifyCRL(ctx_, crl_, issuer_, &validity), 0u);
    const uint64_t failuresInjected = sweep_openssl_allocations(
        [&] {
            validity = 77;
            return qxcrl_VerifyCRL(ctx_, crl_, issuer_, &validity);
        },
        [&](uint32_t status, bool injected) {
            if (status == 0) {
                EXPECT_EQ(validity, QXCRL_CRL_CURRENT);
            } else {
                EXPECT_TRUE(injected);
                EXPECT_EQ(status, QXERR_CRL_SIGN);
                EXPECT_EQ(validity, 77u);
            }
        });
    EXPECT_GT(failuresInjected, 0u);
}

TEST_F(InspectionOomTest, StatusNeverAnswersWrongly) {
    const CertRevocationStatus answers[] = {QXCRL_CERT_REVOKED, QXCRL_CERT_VALID};
    for (size_t i = 0; i < leaves_.size(); ++i) {
        SCOPED_TRACE("leaf " + std::to_string(i));
        CertRevocationStatus status = 0;
        ASSERT_EQ(qxcrl_CheckCertStatus(ctx_, crl_, leaves_[i], &status), 0u);
        ASSERT_EQ(status, answers[i]);
        const uint64_t failuresInjected = sweep_openssl_allocations(
            [&] {
                status = 77;
                return qxcrl_CheckCertStatus(ctx_, crl_, leaves_[i], &status);
            },
            [&](uint32_t result, bool injected) {
                if (result == 0) {
                    EXPECT_EQ(status, answers[i]);
                } else {
                    EXPECT_TRUE(injected);
                    EXPECT_EQ(result, QXERR_TOOLKIT_FAILURE);
                    EXPECT_TRUE(status == 77u || status == QXCRL_CERT_UNKNOWN) << status;
                }
            });
        EXPECT_GT(failuresInjected, 0u);
    }
}

// A file of one CRL, DER or PEM, read into the CRL's own bytes: an OpenSSL
// allocation that fails either fails the read as out of memory or is got
// by, and nothing is left behind.
TEST_F(InspectionOomTest, ReadingAOneCrlFileFailsCleanly) {
    CrlOptions recipe;
    recipe.revoked = {revoked_serial({0x10}), revoked_serial({0x11})};
    const Bytes der = make_crl(shared_issuer(), recipe);
    TempDir dir;
    write_file(dir / "crl.der", der);
    write_text(dir / "crl.pem", crl_pem(der));
    for (const char* name : {"crl.der", "crl.pem"}) {
        SCOPED_TRACE(name);
        const std::string path = (dir / name).string();
        const uint64_t failuresInjected = sweep_openssl_allocations(
            [&] {
                CrlObject* crl = nullptr;
                const StatusCode status = qxfile_read_one_crl(ctx_, path.c_str(), &crl);
                EXPECT_EQ(crl == nullptr, status != 0);
                qxcrl_Destroy(ctx_, &crl);
                return status;
            },
            [&](uint32_t status, bool injected) {
                // OpenSSL gets by without some of its own allocations.
                if (status != 0) {
                    EXPECT_TRUE(injected);
                    EXPECT_EQ(status, QXL_ERR_OUT_OF_MEMORY);
                }
            });
        EXPECT_GT(failuresInjected, 0u);
    }
}
