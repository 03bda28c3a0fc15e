// The certificate-authority side: creating, revoking into, re-dating and
// signing CRLs under every signature type, checked by the openssl command,
// and the failures of each step with their closing traces.
#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "files.h"
#include "fixed_clock.h"
#include "layer_fixture.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"
#include "toolkit_bytes.h"
#include "toolkit_fixture.h"

using namespace qxtest;

namespace {

// The placeholder entry's serial as openssl prints it.
constexpr char placeholder_hex[] = "44554D4D59434552544946494341544";

Bytes key_der(const EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int length = i2d_PrivateKey(key, &der);
    EXPECT_GT(length, 0);
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

class CrlAuthoringTest : public LayerTest {
  protected:
    void TearDown() override {
        qxcrl_Destroy(ctx_, &crl_);
        for (CertificateRecord*& record : records_)
            qxcert_free(ctx_, &record);
        for (QxPrivateKey*& key : keys_)
            qxdk_key_free(ctx_, &key);
        LayerTest::TearDown();
    }

    CertificateRecord* record(const X509* cert) {
        const Bytes der = cert_der(cert);
        CertificateRecord* made = nullptr;
        EXPECT_EQ(qxcert_from_bytes(ctx_, der.data(), static_cast<uint32_t>(der.size()), &made),
                  0u);
        records_.push_back(made);
        return made;
    }
    QxPrivateKey* key(const EVP_PKEY* pkey) {
        const Bytes der = key_der(pkey);
        QxPrivateKey* made = nullptr;
        EXPECT_EQ(qxdk_key_from_bytes(ctx_, der.data(), static_cast<uint32_t>(der.size()), nullptr,
                                      &made),
                  0u);
        keys_.push_back(made);
        return made;
    }
    // A record of an issuer whose certificate ran out a minute ago.
    CertificateRecord* expired_record() {
        IssuerOptions lapsed;
        lapsed.notAfter = std::time(nullptr) - 60;
        return record(make_issuer(lapsed).cert.get());
    }
    CertificateRecord* leaf(const Issuer& issuer, const Bytes& serial) {
        LeafOptions options;
        options.serial = serial;
        return record(make_leaf(issuer, options).get());
    }
    // `openssl crl -text` of the CRL after verifying it against issuer; empty when it does not
    // verify.
    std::string openssl_text(const Issuer& issuer) {
        TempDir dir;
        write_file(dir / "crl.der", toolkit_bytes(crl_->crl, R_CRL_to_binary));
        write_text(dir / "issuer.pem", cert_pem(issuer.cert.get()));
        if (!openssl_crl_verifies(dir.path(), "crl.der", "issuer.pem") ||
            run_in(dir.path(), "openssl crl -inform DER -in crl.der -noout -text > text.txt") != 0)
            return "";
        const Bytes text = read_file(dir / "text.txt");
        return std::string(text.begin(), text.end());
    }
    // What qxcrl_GetBase64 writes for crl_: the DER the openssl command reads
    // in it, and whether that command verifies it under issuer.
    struct Written {
        Bytes der;
        bool verified = false;
    };
    Written written(const Issuer& issuer) {
        Written out;
        char* text = nullptr;
        uint32_t length = 0;
        EXPECT_EQ(qxcrl_GetBase64(ctx_, crl_, &text, &length), 0u);
        if (text == nullptr)
            return out;
        TempDir dir;
        write_text(dir / "crl.pem", std::string(text, length));
        qxumfree(ctx_, &text);
        write_text(dir / "issuer.pem", cert_pem(issuer.cert.get()));
        EXPECT_EQ(run_in(dir.path(), "openssl crl -in crl.pem -outform DER -out crl.der"), 0);
        out.der = read_file(dir / "crl.der");
        out.verified = openssl_crl_verifies(dir.path(), "crl.pem", "issuer.pem");
        return out;
    }
    // Replaces crl_ with a CRL that `openssl ca` makes as issuer.
    void load_openssl_ca_crl(const Issuer& issuer, const OpensslCaOptions& recipe) {
        qxcrl_Destroy(ctx_, &crl_);
        TempDir dir;
        const Bytes der = openssl_ca_crl(dir.path(), issuer, recipe);
        ASSERT_FALSE(der.empty());
        ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl_, der.data(), static_cast<uint32_t>(der.size())), 0u);
    }
    std::string next_update(CrlObject* crl) {
        char text[129] = {};
        EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_NEXT_UPDATE, 0, text), 0u);
        return text;
    }
    StatusCode verify(CrlObject* crl, CertificateRecord* issuer) {
        CrlValidity validity = 0;
        return qxcrl_Verify(ctx_, crl, issuer->cert, &validity);
    }
    std::vector<std::string> closing_traces() const {
        std::vector<std::string> found;
        for (const TraceEntry& entry : trace_.messages())
            found.push_back(entry.function + ":" + std::to_string(entry.level) + ":" + entry.text);
        return found;
    }

    CrlObject* crl_ = nullptr;
    std::vector<CertificateRecord*> records_;
    std::vector<QxPrivateKey*> keys_;
};

} // namespace

TEST_F(CrlAuthoringTest, EverySignatureTypeThroughTheWholeLife) {
    struct Type {
        uint32_t type;
        KeyKind kind;
    };
    const Type types[] = {{1, KeyKind::Rsa2048},  {6, KeyKind::Rsa2048},  {7, KeyKind::Rsa2048},
                          {8, KeyKind::Rsa2048},  {9, KeyKind::EcP256},   {10, KeyKind::EcP256},
                          {11, KeyKind::EcP256},  {12, KeyKind::Ed25519}, {13, KeyKind::Ed448},
                          {14, KeyKind::Rsa2048}, {15, KeyKind::Rsa2048}, {16, KeyKind::Rsa2048}};
    for (const Type& t : types) {
        SCOPED_TRACE("signature type " + std::to_string(t.type));
        const Issuer& issuer = shared_issuer(t.kind);
        CertificateRecord* issuerRecord = record(issuer.cert.get());
        QxPrivateKey* issuerKey = key(issuer.key.get());
        qxcrl_Destroy(ctx_, &crl_);
        ASSERT_EQ(qxcrl_Create(ctx_, &crl_, issuerKey, issuerRecord, "7d", t.type), 0u);
        std::string text = openssl_text(issuer);
        ASSERT_FALSE(text.empty()) << "openssl does not verify the new CRL";
        EXPECT_NE(text.find("Version 2 (0x1)"), std::string::npos);
        EXPECT_NE(text.find(std::string("Serial Number: ") + placeholder_hex), std::string::npos);
        EXPECT_NE(text.find("X509v3 Authority Key Identifier"), std::string::npos);
        EXPECT_NE(text.find("X509v3 CRL Number: \n                1\n"), std::string::npos) << text;

        std::vector<Bytes> serials = {{0x01, 0x23}, {0x80, 0x00, 0x01}, Bytes(20, 0x7e)};
        for (size_t i = 0; i < serials.size(); ++i) {
            ASSERT_EQ(qxcrl_RevokeCert(ctx_, crl_, issuerKey, issuerRecord,
                                       leaf(issuer, serials[i]), t.type),
                      0u);
            text = openssl_text(issuer);
            ASSERT_FALSE(text.empty()) << "not verified after revocation " << i;
            EXPECT_NE(
                text.find("X509v3 CRL Number: \n                " + std::to_string(i + 2) + "\n"),
                std::string::npos);
        }
        // openssl prints the serial's magnitude, whatever the sign octet.
        for (const Bytes& serial : serials)
            EXPECT_NE(text.find("Serial Number: " + hex(serial)), std::string::npos) << hex(serial);

        ASSERT_EQ(qxcrl_SetNextUpdate(ctx_, crl_, issuerKey, issuerRecord, "30d"), 0u);
        text = openssl_text(issuer);
        ASSERT_FALSE(text.empty()) << "not verified after the next update moved";
        EXPECT_NE(text.find("X509v3 CRL Number: \n                5\n"), std::string::npos);
        uint32_t type = 0;
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_SIGNATURE_TYPE, 0, &type), 0u);
        EXPECT_EQ(type, t.type); // re-signed the way it was signed
        uint32_t count = 0;
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_ENTRY_COUNT, 0, &count), 0u);
        EXPECT_EQ(count, 4u);
    }
}

TEST_F(CrlAuthoringTest, TimesEntriesAndSerialsOfANewCrl) {
    const int64_t now = 1767225600; // 2026-01-01T00:00:00Z
    FixedClock clock(now);
    IssuerOptions options;
    options.kind = KeyKind::Rsa2048; // the fixed-type entry points sign RSA with SHA-256
    options.notBefore = now - 86400;
    options.notAfter = now + 86400;
    const Issuer issuer = make_issuer(options);
    CertificateRecord* issuerRecord = record(issuer.cert.get());
    QxPrivateKey* issuerKey = key(issuer.key.get());

    struct Interval {
        const char* text;
        const char* nextUpdate;
    };
    for (const Interval& interval :
         {Interval{"now", "2026-01-01T00:00:00Z"}, Interval{"3600", "2026-01-01T01:00:00Z"},
          Interval{"1d12h", "2026-01-02T12:00:00Z"}, Interval{"1w", "2026-01-08T00:00:00Z"}}) {
        SCOPED_TRACE(interval.text);
        ASSERT_EQ(qxcrlCC_CreateCRL(ctx_, &crl_, issuerKey, issuerRecord, interval.text), 0u);
        char text[129];
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_THIS_UPDATE, 0, text), 0u);
        EXPECT_STREQ(text, "2026-01-01T00:00:00Z");
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_NEXT_UPDATE, 0, text), 0u);
        EXPECT_STREQ(text, interval.nextUpdate);
        uint32_t word = 0;
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_VERSION, 0, &word), 0u);
        EXPECT_EQ(word, 1u);
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_SIGNATURE_TYPE, 0, &word), 0u);
        EXPECT_EQ(word, 6u);
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_ENTRY_COUNT, 0, &word), 0u);
        EXPECT_EQ(word, 1u);
        unsigned char serial[32];
        CrlDetailBuffer buffer{serial, 0};
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_ENTRY_SERIAL, 0, &buffer), 0u);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(serial), buffer.length), "DUMMYCERTIFICATE");
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_ENTRY_REVOCATION_DATE, 0, text), 0u);
        EXPECT_STREQ(text, "2026-01-01T00:00:00Z");
        qxcrl_Destroy(ctx_, &crl_);
    }

    // Serials of 1 to 20 bytes, high bit set or not, land as the certificate has them.
    ASSERT_EQ(qxcrlCC_CreateCRL(ctx_, &crl_, issuerKey, issuerRecord, "1d"), 0u);
    std::vector<Bytes> expected;
    for (size_t length = 1; length <= 20; ++length) {
        for (unsigned char first : {0x11, 0x9f}) {
            Bytes magnitude(length, 0x5c);
            magnitude[0] = first;
            CertificateRecord* revoked = leaf(issuer, magnitude);
            R_ITEM item{};
            ASSERT_EQ(R_CERT_get_info(revoked->cert, R_CERT_INFO_SERIAL, &item), R_ERROR_NONE);
            expected.emplace_back(item.data, item.data + item.len);
            ASSERT_EQ(qxcrlRC_RevokeCert(ctx_, crl_, issuerKey, issuerRecord, revoked), 0u);
        }
    }
    uint32_t count = 0;
    ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_ENTRY_COUNT, 0, &count), 0u);
    ASSERT_EQ(count, expected.size() + 1);
    std::vector<Bytes> found;
    for (uint32_t index = 0; index < count; ++index) {
        unsigned char bytes[32];
        CrlDetailBuffer buffer{bytes, 0};
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_ENTRY_SERIAL, index, &buffer), 0u);
        if (std::string(reinterpret_cast<char*>(bytes), buffer.length) != "DUMMYCERTIFICATE")
            found.emplace_back(bytes, bytes + buffer.length);
    }
    std::sort(found.begin(), found.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(found, expected);
}

TEST_F(CrlAuthoringTest, FailuresAndTheirClosingTraces) {
    const Issuer& issuer = shared_issuer(KeyKind::EcP256);
    CertificateRecord* issuerRecord = record(issuer.cert.get());
    QxPrivateKey* issuerKey = key(issuer.key.get());
    const auto summary = [](const char* function, StatusCode result) {
        return std::string(function) + ":5:returning error " + std::to_string(result) +
               ", rsastatus 0\n";
    };
    {
        SCOPED_TRACE("creation: missing arguments");
        CrlObject stale{nullptr};
        CrlObject* held = &stale; // dropped, not released
        trace_.clear();
        EXPECT_EQ(qxcrl_Create(ctx_, &held, nullptr, issuerRecord, "1d", 9), QXERR_BAD_PARAMETER);
        EXPECT_EQ(held, nullptr);
        EXPECT_EQ(qxcrl_Create(ctx_, nullptr, issuerKey, issuerRecord, "1d", 9),
                  QXERR_BAD_PARAMETER);
        EXPECT_EQ(qxcrl_Create(nullptr, &held, issuerKey, issuerRecord, "1d", 9),
                  QXERR_BAD_PARAMETER);
        EXPECT_EQ(closing_traces(),
                  std::vector<std::string>(3, summary("qxcrl_CreateOrExtend", 28771)));
        // With no context the summary still goes out, to the process-wide destination.
        EXPECT_EQ(trace_.entries().back().context, nullptr);
    }
    {
        SCOPED_TRACE("creation: unknown signature type");
        trace_.clear();
        EXPECT_EQ(qxcrl_Create(ctx_, &crl_, issuerKey, issuerRecord, "1d", 99), QXERR_CRL_SIGN);
        EXPECT_EQ(closing_traces(),
                  (std::vector<std::string>{"qxcrl_Sign:2:Invalid signature type - 99",
                                            summary("qxcrl_CreateOrExtend", 29176)}));
        ASSERT_NE(crl_, nullptr);
        ASSERT_NE(crl_->crl, nullptr); // built, dated, with its entry, unsigned
        uint32_t count = 0;
        EXPECT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_ENTRY_COUNT, 0, &count), 0u);
        EXPECT_EQ(count, 1u);
        qxcrl_Destroy(ctx_, &crl_);
    }
    {
        SCOPED_TRACE("creation: issuer record without certificate");
        CertificateRecord noCert = *issuerRecord;
        noCert.cert = nullptr;
        EXPECT_EQ(qxcrl_Create(ctx_, &crl_, issuerKey, &noCert, "1d", 9), QXERR_BAD_PARAMETER);
        ASSERT_NE(crl_, nullptr);
        EXPECT_NE(crl_->crl, nullptr);
        qxcrl_Destroy(ctx_, &crl_);
    }
    {
        SCOPED_TRACE("creation: bad interval texts");
        for (const char* bad : {"", "-1d", "5x", "99999999999999999999999"}) {
            trace_.clear();
            EXPECT_EQ(qxcrl_Create(ctx_, &crl_, issuerKey, issuerRecord, bad, 9), QXL_ERR_INTERVAL)
                << bad;
            EXPECT_EQ(closing_traces(),
                      std::vector<std::string>{summary("qxcrl_CreateOrExtend", QXL_ERR_INTERVAL)});
            ASSERT_NE(crl_, nullptr);
            EXPECT_EQ(crl_->crl, nullptr);
            qxcrl_Destroy(ctx_, &crl_);
        }
    }
    {
        SCOPED_TRACE("a next update past 9999-12-31, which no reader could take");
        trace_.clear();
        EXPECT_EQ(qxcrl_Create(ctx_, &crl_, issuerKey, issuerRecord, "3000000d", 9),
                  QXERR_TOOLKIT_FAILURE);
        EXPECT_EQ(closing_traces(),
                  std::vector<std::string>{"qxcrl_CreateOrExtend:5:returning error 28750, "
                                           "rsastatus 10010\n"});
        ASSERT_NE(crl_, nullptr);
        EXPECT_EQ(crl_->crl, nullptr);
        qxcrl_Destroy(ctx_, &crl_);
        // Re-dating an existing CRL there is refused too, and changes nothing.
        ASSERT_EQ(qxcrl_Create(ctx_, &crl_, issuerKey, issuerRecord, "1d", 9), 0u);
        char before[129] = {};
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_NEXT_UPDATE, 0, before), 0u);
        EXPECT_EQ(qxcrl_SetNextUpdate(ctx_, crl_, issuerKey, issuerRecord, "3000000d"),
                  QXERR_TOOLKIT_FAILURE);
        char after[129] = {};
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_NEXT_UPDATE, 0, after), 0u);
        EXPECT_STREQ(after, before);
        qxcrl_Destroy(ctx_, &crl_);
    }
    {
        SCOPED_TRACE("signing: the validity check comes before the key");
        IssuerOptions options;
        options.notAfter = std::time(nullptr) - 60;
        const Issuer expired = make_issuer(options);
        CertificateRecord* expiredRecord = record(expired.cert.get());
        QxPrivateKey junk{reinterpret_cast<unsigned char*>(const_cast<char*>("junk")), 4};
        ASSERT_EQ(qxcrl_Create(ctx_, &crl_, issuerKey, issuerRecord, "1d", 9), 0u);
        EXPECT_EQ(qxcrl_Sign(ctx_, crl_, expiredRecord, &junk, 9), QXL_ERR_CERT_EXPIRED);
        // The key is converted before the type is looked at.
        trace_.clear();
        EXPECT_EQ(qxcrl_Sign(ctx_, crl_, issuerRecord, &junk, 99), QXL_ERR_KEY);
        EXPECT_TRUE(trace_.messages().empty());
        trace_.clear();
        EXPECT_EQ(qxcrl_Sign(ctx_, crl_, issuerRecord, issuerKey, 99), QXERR_CRL_SIGN);
        EXPECT_EQ(closing_traces(),
                  std::vector<std::string>{"qxcrl_Sign:2:Invalid signature type - 99"});
        // A key that does not fit the algorithm: the toolkit refuses to sign.
        EXPECT_EQ(qxcrl_Sign(ctx_, crl_, issuerRecord, issuerKey, 6), QXERR_CRL_SIGN);
        CrlObject empty{nullptr};
        EXPECT_EQ(qxcrl_Sign(ctx_, &empty, issuerRecord, issuerKey, 9), QXERR_BAD_PARAMETER);
    }
    {
        SCOPED_TRACE("revocation");
        CertificateRecord* revoked = leaf(issuer, {0x42});
        trace_.clear();
        EXPECT_EQ(qxcrl_RevokeCert(ctx_, crl_, issuerKey, nullptr, revoked, 9),
                  QXERR_BAD_PARAMETER);
        uint32_t count = 0;
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_ENTRY_COUNT, 0, &count), 0u);
        EXPECT_EQ(count, 2u); // added before the issuer record was looked at
        EXPECT_EQ(closing_traces(), (std::vector<std::string>{
                                        "qxcrlRC_RevokeCert:5:Attempting to revert certificate\n",
                                        summary("qxcrlRC_RevokeCert", 28771)}));
        trace_.clear();
        EXPECT_EQ(qxcrl_RevokeCert(ctx_, crl_, issuerKey, issuerRecord, revoked, 77),
                  QXERR_CRL_SIGN);
        EXPECT_EQ(closing_traces(), (std::vector<std::string>{
                                        "qxcrlRC_RevokeCert:5:Attempting to revert certificate\n",
                                        "qxcrl_Sign:2:Invalid signature type - 77",
                                        summary("qxcrlRC_RevokeCert", 29176)}));
        trace_.clear();
        CertificateRecord noCert = *revoked;
        noCert.cert = nullptr;
        EXPECT_EQ(qxcrlRC_RevokeCert(ctx_, crl_, issuerKey, issuerRecord, &noCert),
                  QXERR_BAD_PARAMETER);
        EXPECT_EQ(closing_traces(), std::vector<std::string>{summary("qxcrlRC_RevokeCert", 28771)});
        CrlObject empty{nullptr};
        EXPECT_EQ(qxcrlRC_RevokeCert(ctx_, &empty, issuerKey, issuerRecord, revoked),
                  QXERR_TOOLKIT_FAILURE);
    }
    {
        SCOPED_TRACE("next update");
        trace_.clear();
        EXPECT_EQ(qxcrl_SetNextUpdate(ctx_, crl_, issuerKey, nullptr, "1d"), QXERR_BAD_PARAMETER);
        EXPECT_EQ(closing_traces(),
                  std::vector<std::string>{
                      "qxcrl_SetNextUpdate:5:Attempting to set NextUpdate field in new CRL\n"});
        CrlObject empty{nullptr};
        EXPECT_EQ(qxcrl_SetNextUpdate(ctx_, &empty, issuerKey, issuerRecord, "1d"),
                  QXERR_BAD_PARAMETER);
        EXPECT_EQ(qxcrl_SetNextUpdate(ctx_, crl_, issuerKey, issuerRecord, "soon"),
                  QXL_ERR_INTERVAL);
    }
}

TEST_F(CrlAuthoringTest, AllocationFailureSweeps) {
    const Issuer& issuer = shared_issuer(KeyKind::EcP256);
    CertificateRecord* issuerRecord = record(issuer.cert.get());
    QxPrivateKey* issuerKey = key(issuer.key.get());
    CertificateRecord* revoked = leaf(issuer, {0x31});
    sweep_allocations([&] { return qxcrl_Create(ctx_, &crl_, issuerKey, issuerRecord, "2d", 9); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          qxcrl_Destroy(ctx_, &crl_);
                      });
    ASSERT_EQ(qxcrl_Create(ctx_, &crl_, issuerKey, issuerRecord, "2d", 9), 0u);
    sweep_allocations(
        [&] { return qxcrl_RevokeCert(ctx_, crl_, issuerKey, issuerRecord, revoked, 9); },
        [&](StatusCode status, bool injected) {
            EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
        });
    sweep_allocations(
        [&] { return qxcrl_SetNextUpdate(ctx_, crl_, issuerKey, issuerRecord, "3d"); },
        [&](StatusCode status, bool injected) {
            EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
        });
}

TEST_F(CrlAuthoringTest, AFailedReDateIsWrittenAsItIsRead) {
    // Whatever made the CRL, the new next update stays in it unsigned: what
    // it says, what it writes and what verifies all agree.
    const Issuer& ec = shared_issuer(KeyKind::EcP256);
    const Issuer& rsa = shared_issuer(KeyKind::Rsa2048);
    CertificateRecord* ecRecord = record(ec.cert.get());
    CertificateRecord* rsaRecord = record(rsa.cert.get());
    QxPrivateKey* ecKey = key(ec.key.get());
    QxPrivateKey* rsaKey = key(rsa.key.get());
    CertificateRecord* expiredRecord = expired_record();
    CertificateRecord noCert = *ecRecord;
    noCert.cert = nullptr;

    enum class Source { OpensslCa, Here, HereReadBack };
    struct Case {
        const char* what;
        Source source;
        const Issuer* issuer;
        CertificateRecord* issuerRecord;
        QxPrivateKey* issuerKey;
        std::string digest; // of an openssl CRL
        CertificateRecord* signer;
        StatusCode status;
    };
    const std::vector<Case> cases = {
        {"openssl ca, expired issuer", Source::OpensslCa, &ec, ecRecord, ecKey, "sha256",
         expiredRecord, QXL_ERR_CERT_EXPIRED},
        {"openssl ca, issuer record without its certificate", Source::OpensslCa, &ec, ecRecord,
         ecKey, "sha256", &noCert, QXERR_BAD_PARAMETER},
        {"openssl ca, MD5, which is never signed with", Source::OpensslCa, &rsa, rsaRecord, rsaKey,
         "md5", rsaRecord, QXERR_CRL_SIGN},
        {"made here, expired issuer", Source::Here, &ec, ecRecord, ecKey, "", expiredRecord,
         QXL_ERR_CERT_EXPIRED},
        {"made here, written and read back, expired issuer", Source::HereReadBack, &ec, ecRecord,
         ecKey, "", expiredRecord, QXL_ERR_CERT_EXPIRED},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.source == Source::OpensslCa) {
            OpensslCaOptions recipe;
            recipe.digest = c.digest;
            ASSERT_NO_FATAL_FAILURE(load_openssl_ca_crl(*c.issuer, recipe));
        } else {
            qxcrl_Destroy(ctx_, &crl_);
            ASSERT_EQ(qxcrl_Create(ctx_, &crl_, c.issuerKey, c.issuerRecord, "7d", 9), 0u);
            if (c.source == Source::HereReadBack) {
                const Bytes der = written(*c.issuer).der;
                qxcrl_Destroy(ctx_, &crl_);
                ASSERT_EQ(
                    qxcrl_CreateCtx(ctx_, &crl_, der.data(), static_cast<uint32_t>(der.size())),
                    0u);
            }
        }
        ASSERT_NE(crl_, nullptr);
        const std::string before = next_update(crl_);
        ASSERT_TRUE(written(*c.issuer).verified);
        ASSERT_EQ(verify(crl_, c.issuerRecord), 0u);

        EXPECT_EQ(qxcrl_SetNextUpdate(ctx_, crl_, c.issuerKey, c.signer, "30d"), c.status);
        const std::string after = next_update(crl_);
        EXPECT_NE(after, before);
        const Written changed = written(*c.issuer);
        auto read = openssl_crl(changed.der);
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(rfc3339(X509_CRL_get0_nextUpdate(read.get())), after);
        // The old signature does not cover the new time.
        EXPECT_FALSE(changed.verified);
        EXPECT_EQ(verify(crl_, c.issuerRecord), QXERR_CRL_SIGN);
        CrlObject* back = nullptr;
        EXPECT_EQ(qxcrl_CreateCtx(ctx_, &back, changed.der.data(),
                                  static_cast<uint32_t>(changed.der.size())),
                  0u);
        if (back != nullptr && back->crl != nullptr) {
            EXPECT_EQ(next_update(back), after);
            EXPECT_EQ(verify(back, c.issuerRecord), QXERR_CRL_SIGN);
        }
        qxcrl_Destroy(ctx_, &back);

        // Signed as it should have been, it verifies again, the new time kept.
        if (c.signer != c.issuerRecord) {
            ASSERT_EQ(qxcrl_SetNextUpdate(ctx_, crl_, c.issuerKey, c.issuerRecord, "30d"), 0u);
            EXPECT_TRUE(written(*c.issuer).verified);
            EXPECT_EQ(verify(crl_, c.issuerRecord), 0u);
        }
    }
}

TEST_F(CrlAuthoringTest, AFailedRevocationIsWrittenAsItIsRead) {
    const Issuer& issuer = shared_issuer(KeyKind::EcP256);
    CertificateRecord* issuerRecord = record(issuer.cert.get());
    QxPrivateKey* issuerKey = key(issuer.key.get());
    CertificateRecord* expiredRecord = expired_record();
    CertificateRecord noCert = *issuerRecord;
    noCert.cert = nullptr;
    LeafOptions leafRecipe;
    leafRecipe.serial = {0x42, 0x42};
    const Cert leafCert = make_leaf(issuer, leafRecipe);
    CertificateRecord* revoked = record(leafCert.get());

    struct Case {
        const char* what;
        CertificateRecord* signer;
        StatusCode status;
    };
    for (const Case& c :
         {Case{"expired issuer", expiredRecord, QXL_ERR_CERT_EXPIRED},
          Case{"issuer record without its certificate", &noCert, QXERR_BAD_PARAMETER}}) {
        SCOPED_TRACE(c.what);
        ASSERT_NO_FATAL_FAILURE(load_openssl_ca_crl(issuer, {}));
        ASSERT_TRUE(written(issuer).verified);

        EXPECT_EQ(qxcrl_RevokeCert(ctx_, crl_, issuerKey, c.signer, revoked, 9), c.status);
        uint32_t count = 0;
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl_, QXCRL_DETAIL_ENTRY_COUNT, 0, &count), 0u);
        EXPECT_EQ(count, 2u);
        const Written changed = written(issuer);
        auto read = openssl_crl(changed.der);
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(sk_X509_REVOKED_num(X509_CRL_get_REVOKED(read.get())), 2);
        X509_REVOKED* entry = nullptr;
        EXPECT_EQ(
            X509_CRL_get0_by_serial(read.get(), &entry, X509_get0_serialNumber(leafCert.get())), 1);
        EXPECT_FALSE(changed.verified);
        EXPECT_EQ(verify(crl_, issuerRecord), QXERR_CRL_SIGN);
    }
}
