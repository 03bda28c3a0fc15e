// Certificate records built from DER, PEM and files: every member against the
// certificate and the openssl command, refusals that leave nothing behind,
// and allocation failures at every step.
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"

using namespace qxtest;

namespace {

uint32_t size_of(const Bytes& bytes) {
    return static_cast<uint32_t>(bytes.size());
}

Bytes bytes_of(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

std::string with_crlf(const std::string& text) {
    std::string converted;
    for (char c : text)
        converted += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return converted;
}

std::string text_of(const QxString* text) {
    EXPECT_NE(text, nullptr);
    if (text == nullptr)
        return {};
    EXPECT_EQ(text->data[text->length], '\0');
    return std::string(text->data, text->length);
}

class CertificateRecordTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        plan_.commonName = "Record Leaf, Ünïcode";
        plan_.serial = {0x80, 0x42};
        plan_.notBefore = 1700000000;
        plan_.notAfter = 2600000000;
        plan_.distributionPoints = {
            {"ldap://ldap.example.com/cn=CA,o=Example?certificateRevocationList;binary",
             "http://crl.example.com/ca.crl"},
            {"ldap://second.example.com/cn=CA"},
        };
        leaf_ = make_leaf(shared_issuer(), plan_);
        der_ = cert_der(leaf_.get());
        pem_ = cert_pem(leaf_.get());
        write_text(dir_ / "leaf.pem", pem_);
    }

    // Asserts every member of record against the leaf made in SetUp.
    void expect_leaf(const CertificateRecord* record) {
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(text_of(record->issuerText), openssl_name_text(dir_ / "leaf.pem", "issuer"));
        EXPECT_EQ(text_of(record->subjectText), openssl_name_text(dir_ / "leaf.pem", "subject"));
        EXPECT_EQ(record->notBefore, 1700000000);
        EXPECT_EQ(record->notAfter, 2600000000);
        ASSERT_EQ(record->derLength, der_.size());
        EXPECT_EQ(Bytes(record->der, record->der + record->derLength), der_);
        ASSERT_NE(record->cert, nullptr);
        R_ITEM serial{};
        ASSERT_EQ(R_CERT_get_info(record->cert, R_CERT_INFO_SERIAL, &serial), R_ERROR_NONE);
        EXPECT_EQ(Bytes(serial.data, serial.data + serial.len), (Bytes{0x00, 0x80, 0x42}));
        ASSERT_EQ(record->distPointCount, plan_.distributionPoints.size());
        for (uint32_t index = 0; index < record->distPointCount; ++index) {
            const CrlDistPoint& point = record->distPoints[index];
            EXPECT_EQ(point.kind, QX_DIST_POINT_FULL_NAME);
            EXPECT_EQ(point.reasons, 0u);
            ASSERT_EQ(point.nameCount, plan_.distributionPoints[index].size());
            for (uint32_t n = 0; n < point.nameCount; ++n) {
                EXPECT_EQ(point.names[n].type, QX_NAME_TYPE_URI);
                EXPECT_STREQ(point.names[n].value, plan_.distributionPoints[index][n].c_str());
            }
        }
    }

    LeafOptions plan_;
    Cert leaf_;
    Bytes der_;
    std::string pem_;
    TempDir dir_;
};

} // namespace

TEST_F(CertificateRecordTest, BuildsFromDerPemAndFiles) {
    write_file(dir_ / "leaf.der", der_);
    write_text(dir_ / "leaf-crlf.pem", with_crlf(pem_));
    Bytes trailing = der_;
    trailing.insert(trailing.end(), {0x00, 0x00});
    const std::vector<std::pair<std::string, Bytes>> inputs = {
        {"DER", der_},
        {"DER with trailing bytes", trailing},
        {"PEM", bytes_of(pem_)},
        {"PEM with CRLF", bytes_of(with_crlf(pem_))},
        {"PEM after other text", bytes_of("subject=whatever\n" + pem_)},
    };
    for (const auto& [what, bytes] : inputs) {
        SCOPED_TRACE(what);
        CertificateRecord* record = nullptr;
        ASSERT_EQ(qxcert_from_bytes(ctx_, bytes.data(), size_of(bytes), &record), 0u);
        expect_leaf(record);
        EXPECT_GT(qxum_live_blocks(layer()), 0u); // the record is the layer's memory
        qxcert_free(ctx_, &record);
        EXPECT_EQ(record, nullptr);
        EXPECT_EQ(qxum_live_blocks(layer()), 0u);
    }
    for (const char* file : {"leaf.der", "leaf.pem", "leaf-crlf.pem"}) {
        SCOPED_TRACE(file);
        CertificateRecord* record = nullptr;
        ASSERT_EQ(qxcert_from_file(ctx_, (dir_ / file).c_str(), &record), 0u);
        expect_leaf(record);
        qxcert_free(ctx_, &record);
    }
    qxcert_free(ctx_, nullptr);
    CertificateRecord* none = nullptr;
    qxcert_free(ctx_, &none);
}

// A CA certificate the openssl command made, with a long subject and an LDAP
// distribution point given on the command line.
TEST_F(CertificateRecordTest, ReadsWhatTheOpensslCommandWrites) {
    std::string subject = "/C=FR/O=Société Générale de Test";
    for (int unit = 0; unit < 6; ++unit)
        subject += "/OU=organisational unit number " + std::to_string(unit) + " (long)";
    subject += "/CN=Autorité de test+serialNumber=42";
    ASSERT_EQ(
        run_in(dir_.path(), "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                            "-keyout ca.key -days 30 -utf8 -multivalue-rdn -subj '" +
                                subject +
                                "' -addext 'crlDistributionPoints=URI:ldap://ldap.example.com/"
                                "cn=Test%20CA?certificateRevocationList;binary' -out ca.pem && "
                                "openssl x509 -in ca.pem -outform DER -out ca.der && "
                                "openssl x509 -in ca.pem -noout -startdate > dates.txt"),
        0)
        << "see " << (dir_ / "log.txt");
    CertificateRecord* record = nullptr;
    ASSERT_EQ(qxcert_from_file(ctx_, (dir_ / "ca.pem").c_str(), &record), 0u);
    ASSERT_NE(record, nullptr);
    const std::string expected = openssl_name_text(dir_ / "ca.pem", "subject");
    EXPECT_GT(expected.size(), 256u); // longer than the first text buffer
    EXPECT_EQ(text_of(record->issuerText), expected);
    EXPECT_EQ(text_of(record->subjectText), expected);
    EXPECT_EQ(Bytes(record->der, record->der + record->derLength), read_file(dir_ / "ca.der"));
    EXPECT_EQ(record->notAfter - record->notBefore, 30 * 86400);
    // openssl prints "notBefore=Jan  2 03:04:05 2026 GMT".
    const Bytes dates = read_file(dir_ / "dates.txt");
    std::tm parts{};
    ASSERT_NE(strptime(std::string(dates.begin(), dates.end()).c_str(),
                       "notBefore=%b %e %H:%M:%S %Y GMT", &parts),
              nullptr);
    EXPECT_EQ(record->notBefore, static_cast<int64_t>(timegm(&parts)));
    ASSERT_EQ(record->distPointCount, 1u);
    EXPECT_EQ(record->distPoints[0].kind, QX_DIST_POINT_FULL_NAME);
    ASSERT_EQ(record->distPoints[0].nameCount, 1u);
    EXPECT_EQ(record->distPoints[0].names[0].type, QX_NAME_TYPE_URI);
    EXPECT_STREQ(record->distPoints[0].names[0].value,
                 "ldap://ldap.example.com/cn=Test%20CA?certificateRevocationList;binary");
    qxcert_free(ctx_, &record);

    ASSERT_EQ(qxcert_from_file(ctx_, (dir_ / "ca.der").c_str(), &record), 0u);
    EXPECT_EQ(text_of(record->subjectText), expected);
    EXPECT_EQ(record->distPointCount, 1u);
    qxcert_free(ctx_, &record);

    // A certificate without distribution points has none, and no array.
    const Bytes plain = cert_der(shared_issuer().cert.get());
    ASSERT_EQ(qxcert_from_bytes(ctx_, plain.data(), size_of(plain), &record), 0u);
    EXPECT_EQ(record->distPointCount, 0u);
    EXPECT_EQ(record->distPoints, nullptr);
    qxcert_free(ctx_, &record);
}

TEST_F(CertificateRecordTest, RefusesWhatIsNotACertificate) {
    std::vector<std::pair<std::string, Bytes>> inputs = {
        {"empty", {}},
        {"a CRL", make_crl(shared_issuer(), CrlOptions{})},
        {"a SEQUENCE of nothing", {0x30, 0x00}},
        {"text without a certificate", bytes_of("hello\n")},
        {"PEM cut short", bytes_of(pem_.substr(0, pem_.size() / 2))},
    };
    for (size_t length = 1; length < der_.size(); length += 37)
        inputs.push_back({"DER cut to " + std::to_string(length),
                          Bytes(der_.begin(), der_.begin() + static_cast<long>(length))});
    for (const auto& [what, bytes] : inputs) {
        SCOPED_TRACE(what);
        CertificateRecord* record = nullptr;
        EXPECT_EQ(qxcert_from_bytes(ctx_, bytes.data(), size_of(bytes), &record),
                  QXL_ERR_CERT_DECODE);
        EXPECT_EQ(record, nullptr);
        EXPECT_EQ(qxum_live_blocks(layer()), 0u);
    }

    write_file(dir_ / "empty.der", {});
    write_file(dir_ / "crl.der", make_crl(shared_issuer(), CrlOptions{}));
    CertificateRecord* record = nullptr;
    EXPECT_EQ(qxcert_from_file(ctx_, (dir_ / "empty.der").c_str(), &record), QXL_ERR_CERT_DECODE);
    EXPECT_EQ(qxcert_from_file(ctx_, (dir_ / "crl.der").c_str(), &record), QXL_ERR_CERT_DECODE);
    EXPECT_EQ(qxcert_from_file(ctx_, (dir_ / "missing.pem").c_str(), &record), QXL_ERR_FILE);
    EXPECT_EQ(qxcert_from_file(ctx_, dir_.path().c_str(), &record), QXL_ERR_FILE);
    EXPECT_EQ(record, nullptr);

    SecurityContext bare{};
    EXPECT_EQ(qxcert_from_bytes(nullptr, der_.data(), size_of(der_), &record),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxcert_from_bytes(&bare, der_.data(), size_of(der_), &record), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxcert_from_bytes(ctx_, nullptr, 4, &record), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxcert_from_bytes(ctx_, der_.data(), size_of(der_), nullptr), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxcert_from_file(nullptr, (dir_ / "leaf.pem").c_str(), &record),
              QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxcert_from_file(ctx_, nullptr, &record), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxcert_from_file(ctx_, (dir_ / "leaf.pem").c_str(), nullptr), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(record, nullptr);
}

TEST_F(CertificateRecordTest, AllocationFailureSweeps) {
    // A long subject makes the text buffer grow; several points and names
    // give every allocation of the record a turn.
    LeafOptions wide = plan_;
    wide.distributionPoints.push_back({"http://a/1", "http://a/2", "http://a/3"});
    const Cert leaf = make_leaf(shared_issuer(), wide);
    X509_NAME* subject = X509_NAME_new();
    for (int unit = 0; unit < 12; ++unit) {
        const std::string value = "unit " + std::to_string(unit) + " " + std::string(50, 'u');
        X509_NAME_add_entry_by_txt(subject, "OU", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1,
                                   0);
    }
    X509_set_subject_name(leaf.get(), subject);
    X509_NAME_free(subject);
    ASSERT_GT(X509_sign(leaf.get(), shared_issuer().key.get(), EVP_sha256()), 0);
    const Bytes der = cert_der(leaf.get());
    const Bytes pem = bytes_of(cert_pem(leaf.get()));
    write_text(dir_ / "wide.pem", cert_pem(leaf.get()));

    CertificateRecord* record = nullptr;
    const auto check = [&](StatusCode status, bool injected) {
        if (injected) {
            EXPECT_EQ(status, QXL_ERR_OUT_OF_MEMORY);
            EXPECT_EQ(record, nullptr);
        } else {
            EXPECT_EQ(status, 0u);
            ASSERT_NE(record, nullptr);
            EXPECT_EQ(record->distPointCount, 3u);
            EXPECT_EQ(record->distPoints[2].nameCount, 3u);
            EXPECT_GT(record->subjectText->length, 600u);
        }
        qxcert_free(ctx_, &record);
    };
    sweep_allocations([&] { return qxcert_from_bytes(ctx_, der.data(), size_of(der), &record); },
                      check);
    sweep_allocations([&] { return qxcert_from_bytes(ctx_, pem.data(), size_of(pem), &record); },
                      check);
    sweep_allocations([&] { return qxcert_from_file(ctx_, (dir_ / "wide.pem").c_str(), &record); },
                      check);
}
