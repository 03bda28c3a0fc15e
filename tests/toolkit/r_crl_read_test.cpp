// Reading CRLs through the toolkit: info identifiers, entries, lookup by
// certificate and the issuer name, on CRLs made at test time by every kind
// of issuer.
#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>

#include "test_pki.h"
#include "toolkit/r_toolkit.h"
#include "toolkit_fixture.h"

using namespace qxtest;

namespace {

// What DER puts inside an INTEGER for a non-negative magnitude: no leading
// zero bytes, except one when the high bit would otherwise read as a sign.
Bytes content_octets(const Bytes& magnitude) {
    auto first =
        std::find_if(magnitude.begin(), magnitude.end(), [](unsigned char b) { return b != 0; });
    Bytes content(first, magnitude.end());
    if (content.empty() || (content[0] & 0x80) != 0)
        content.insert(content.begin(), 0x00);
    return content;
}

Bytes name_der(const X509_NAME* name) {
    const unsigned char* der = nullptr;
    size_t length = 0;
    EXPECT_EQ(X509_NAME_get0_der(name, &der, &length), 1);
    return Bytes(der, der + length);
}

class ToolkitCrlRead : public ToolkitTest {
  protected:
    TimePtr time() {
        R_TIME* made = nullptr;
        EXPECT_EQ(R_TIME_new(timeCtx, &made), R_ERROR_NONE);
        return TimePtr(made);
    }
    // The time as RFC 3339 text, which also shows times before 1970.
    static std::string text(R_TIME* time) {
        unsigned char buffer[64] = {};
        uint32_t length = 0;
        EXPECT_EQ(R_TIME_export(time, R_TIME_FORMAT_RFC3339, buffer, &length, sizeof buffer),
                  R_ERROR_NONE);
        return std::string(buffer, buffer + std::min<uint32_t>(length, sizeof buffer));
    }
};

} // namespace

TEST_F(ToolkitCrlRead, EveryInfoIdOnEveryIssuerKind) {
    struct Case {
        KeyKind kind;
        std::string digest;
        uint32_t algorithm;
    };
    const std::vector<Case> cases = {
        {KeyKind::Rsa2048, "", R_SIG_ALG_SHA256_WITH_RSA},
        {KeyKind::Rsa2048, "SHA384", R_SIG_ALG_SHA384_WITH_RSA},
        {KeyKind::Rsa2048, "SHA512", R_SIG_ALG_SHA512_WITH_RSA},
        {KeyKind::RsaPss, "", R_SIG_ALG_RSA_PSS_SHA256},
        {KeyKind::RsaPss, "SHA384", R_SIG_ALG_RSA_PSS_SHA384},
        {KeyKind::RsaPss, "SHA512", R_SIG_ALG_RSA_PSS_SHA512},
        // SHA-1 is PSS's default hash, so the parameters leave it out.
        {KeyKind::RsaPss, "SHA1", R_SIG_ALG_RSA_PSS_BASE + NID_sha1},
        {KeyKind::EcP256, "", R_SIG_ALG_ECDSA_SHA256},
        {KeyKind::EcP256, "SHA384", R_SIG_ALG_ECDSA_SHA384},
        {KeyKind::EcP256, "SHA512", R_SIG_ALG_ECDSA_SHA512},
        {KeyKind::Ed25519, "", R_SIG_ALG_ED25519},
    };
    const time_t thisUpdate = 1767225600; // 2026-01-01T00:00:00Z
    const time_t nextUpdate = 1795390793; // 2026-11-22T23:39:53Z
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(static_cast<int>(c.kind)) + " " + c.digest);
        const Issuer& issuer = shared_issuer(c.kind);
        CrlOptions recipe;
        recipe.thisUpdate = thisUpdate;
        recipe.nextUpdate = nextUpdate;
        recipe.crlNumber = 0x1092;
        recipe.digest = c.digest;
        recipe.revoked = {revoked_serial({0x33})};
        CrlPtr crl = decode(make_crl(issuer, recipe));
        ASSERT_NE(crl, nullptr);

        uint32_t value = 0xdead;
        EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_VERSION, &value), R_ERROR_NONE);
        EXPECT_EQ(value, 1u);
        EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_SIGNATURE_ALGORITHM, &value), R_ERROR_NONE);
        EXPECT_EQ(value, c.algorithm);

        TimePtr time = this->time();
        EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_THIS_UPDATE, time.get()), R_ERROR_NONE);
        EXPECT_EQ(seconds(time.get()), thisUpdate);
        EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_NEXT_UPDATE, time.get()), R_ERROR_NONE);
        EXPECT_EQ(seconds(time.get()), nextUpdate);

        const Bytes issuerDer = name_der(X509_get_subject_name(issuer.cert.get()));
        R_ITEM item{};
        EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_ISSUER_NAME, &item), R_ERROR_NONE);
        EXPECT_EQ(item_bytes(item), issuerDer);

        ExtPtr number = new_ext();
        EXPECT_EQ(R_EXT_get_info(number.get(), R_EXT_INFO_VALUE, &item), R_ERROR_NOT_PRESENT);
        EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_CRL_NUMBER, number.get()), R_ERROR_NONE);
        EXPECT_EQ(R_EXT_get_info(number.get(), R_EXT_INFO_VALUE, &item), R_ERROR_NONE);
        EXPECT_EQ(item_bytes(item), (Bytes{0x02, 0x02, 0x10, 0x92}));
        // Filling again replaces the copy it held.
        EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_CRL_NUMBER, number.get()), R_ERROR_NONE);
        EXPECT_EQ(R_EXT_get_info(number.get(), R_EXT_INFO_VALUE, &item), R_ERROR_NONE);
        EXPECT_EQ(item_bytes(item), (Bytes{0x02, 0x02, 0x10, 0x92}));
        EXPECT_EQ(R_EXT_get_info(number.get(), R_EXT_INFO_OID, &item), R_ERROR_NONE);
        EXPECT_EQ(item_bytes(item), (Bytes{0x55, 0x1d, 0x14}));
        EXPECT_EQ(R_EXT_get_info(number.get(), 99, &item), R_ERROR_FAILED);

        CertPtr issuerCert = cert(issuer.cert.get());
        uint32_t result = 0xdead;
        EXPECT_EQ(R_CRL_verify(crl.get(), issuerCert.get(), &result), R_ERROR_NONE);
        EXPECT_EQ(result, 0u);

        EXPECT_EQ(R_CRL_get_info(crl.get(), 0x4024, &value), R_ERROR_FAILED);
        EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_VERSION, nullptr), R_ERROR_NULL_ARG);
        EXPECT_EQ(R_CRL_get_info(nullptr, R_CRL_INFO_VERSION, &value), R_ERROR_NULL_ARG);
    }
}

TEST_F(ToolkitCrlRead, IssuerNameAsReceived) {
    const Issuer& issuer = shared_issuer(KeyKind::EcP256);
    CrlPtr crl = decode(make_crl(issuer, CrlOptions{}));
    const Bytes expected = name_der(X509_get_subject_name(issuer.cert.get()));

    uint32_t length = 0;
    EXPECT_EQ(R_CRL_issuer_name_to_binary(crl.get(), 0, nullptr, &length), R_ERROR_NONE);
    EXPECT_EQ(length, expected.size());
    Bytes small(expected.size() - 1, 0xee);
    length = 0;
    EXPECT_EQ(R_CRL_issuer_name_to_binary(crl.get(), static_cast<uint32_t>(small.size()),
                                          small.data(), &length),
              R_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, expected.size());
    Bytes out(expected.size() + 3, 0xee);
    EXPECT_EQ(R_CRL_issuer_name_to_binary(crl.get(), static_cast<uint32_t>(out.size()), out.data(),
                                          &length),
              R_ERROR_NONE);
    EXPECT_EQ(length, expected.size());
    EXPECT_EQ(Bytes(out.begin(), out.begin() + length), expected);
    EXPECT_EQ(out.back(), 0xee);
    EXPECT_EQ(R_CRL_issuer_name_to_binary(crl.get(), 4, nullptr, &length), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CRL_issuer_name_to_binary(crl.get(), 0, nullptr, nullptr), R_ERROR_NULL_ARG);
}

TEST_F(ToolkitCrlRead, MissingFieldsAndFarDates) {
    CrlOptions recipe;
    recipe.thisUpdate = -315619200; // 1960-01-01, a UTCTime before 1970
    recipe.nextUpdate.reset();
    recipe.crlNumber.reset();
    recipe.revoked = {revoked_serial({0x01}), revoked_serial({0x02})};
    recipe.revoked[0].revocationDate = 2561519167; // 2051-03-04T05:06:07Z, a GeneralizedTime
    recipe.revoked[1].revocationDate = -631152001; // 1949-12-31T23:59:59Z, a GeneralizedTime
    CrlPtr crl = decode(make_crl(shared_issuer(), recipe));
    ASSERT_NE(crl, nullptr);

    TimePtr time = this->time();
    EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_THIS_UPDATE, time.get()), R_ERROR_NONE);
    EXPECT_EQ(text(time.get()), "1960-01-01T00:00:00Z");
    // Unsigned seconds cannot say 1960.
    unsigned char bytes[8];
    uint32_t length = 0;
    EXPECT_NE(R_TIME_export(time.get(), R_TIME_FORMAT_SECONDS_BE, bytes, &length, 8), R_ERROR_NONE);
    EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_NEXT_UPDATE, time.get()), R_ERROR_NOT_PRESENT);
    EXPECT_EQ(text(time.get()), "1960-01-01T00:00:00Z");
    ExtPtr number = new_ext();
    EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_CRL_NUMBER, number.get()), R_ERROR_NOT_PRESENT);
    R_ITEM item{};
    EXPECT_EQ(R_EXT_get_info(number.get(), R_EXT_INFO_VALUE, &item), R_ERROR_NOT_PRESENT);

    std::set<std::string> dates;
    EntryPtr entry = new_entry();
    for (uint32_t index = 0; index < 2; ++index) {
        ASSERT_EQ(R_CRL_get_entry(crl.get(), index, entry.get()), R_ERROR_NONE);
        EXPECT_EQ(R_CRL_ENTRY_get_info(entry.get(), R_CRL_ENTRY_INFO_REVOCATION_DATE, time.get()),
                  R_ERROR_NONE);
        dates.insert(text(time.get()));
    }
    EXPECT_EQ(dates, (std::set<std::string>{"2051-03-04T05:06:07Z", "1949-12-31T23:59:59Z"}));

    // A CRL with a nextUpdate past 2049 carries it as a GeneralizedTime.
    recipe.nextUpdate = 2855822400; // 2060-06-30T12:00:00Z
    crl = decode(make_crl(shared_issuer(), recipe));
    EXPECT_EQ(R_CRL_get_info(crl.get(), R_CRL_INFO_NEXT_UPDATE, time.get()), R_ERROR_NONE);
    EXPECT_EQ(seconds(time.get()), 2855822400);

    // A CRL made empty has no entries and no times yet.
    R_CRL* empty = nullptr;
    ASSERT_EQ(R_CRL_new(lib, 0, &empty), R_ERROR_NONE);
    CrlPtr emptyCrl(empty);
    uint32_t count = 99;
    EXPECT_EQ(R_CRL_get_entry_count(empty, &count), R_ERROR_NONE);
    EXPECT_EQ(count, 0u);
    EXPECT_NE(R_CRL_get_entry(empty, 0, entry.get()), R_ERROR_NONE);
    EXPECT_EQ(R_CRL_get_info(empty, R_CRL_INFO_THIS_UPDATE, time.get()), R_ERROR_NOT_PRESENT);
    EXPECT_EQ(R_CRL_get_info(empty, R_CRL_INFO_NEXT_UPDATE, time.get()), R_ERROR_NOT_PRESENT);
}

TEST_F(ToolkitCrlRead, EntrySerialsAreTheEncodedOctets) {
    // Serials of 1 to 20 bytes, each with and without the high bit set, and zero.
    std::vector<Bytes> magnitudes = {{0x00}, {0x80}, {0x7f}};
    for (size_t length = 1; length <= 20; ++length) {
        Bytes low(length), high(length);
        for (size_t i = 0; i < length; ++i) {
            low[i] = static_cast<unsigned char>(0x11 * (i + 1));
            high[i] = static_cast<unsigned char>(0xff - i);
        }
        low[0] = 0x5a;
        high[0] |= 0x80;
        magnitudes.push_back(low);
        magnitudes.push_back(high);
    }
    CrlOptions recipe;
    std::map<Bytes, int64_t> expected; // content octets -> revocation date
    for (size_t i = 0; i < magnitudes.size(); ++i) {
        RevokedEntry revoked = revoked_serial(magnitudes[i]);
        revoked.revocationDate = 1767225600 + static_cast<time_t>(i) * 61;
        recipe.revoked.push_back(revoked);
        expected[content_octets(magnitudes[i])] = revoked.revocationDate;
    }
    ASSERT_EQ(expected.size(), magnitudes.size());
    EXPECT_EQ(content_octets({0x80}), (Bytes{0x00, 0x80}));
    CrlPtr crl = decode(make_crl(shared_issuer(), recipe));
    ASSERT_NE(crl, nullptr);

    uint32_t count = 0;
    ASSERT_EQ(R_CRL_get_entry_count(crl.get(), &count), R_ERROR_NONE);
    ASSERT_EQ(count, magnitudes.size());
    EntryPtr entry = new_entry();
    R_ITEM item{};
    EXPECT_EQ(R_CRL_ENTRY_get_info(entry.get(), R_CRL_ENTRY_INFO_SERIAL, &item),
              R_ERROR_NOT_PRESENT);
    TimePtr time = this->time();
    std::map<Bytes, int64_t> seen;
    for (uint32_t index = 0; index < count; ++index) {
        ASSERT_EQ(R_CRL_get_entry(crl.get(), index, entry.get()), R_ERROR_NONE);
        const Bytes serial = serial_of(entry.get());
        EXPECT_EQ(R_CRL_ENTRY_get_info(entry.get(), R_CRL_ENTRY_INFO_REVOCATION_DATE, time.get()),
                  R_ERROR_NONE);
        seen[serial] = seconds(time.get());
    }
    EXPECT_EQ(seen, expected);

    // Out of range leaves the entry as it was.
    const Bytes last = serial_of(entry.get());
    EXPECT_NE(R_CRL_get_entry(crl.get(), count, entry.get()), R_ERROR_NONE);
    EXPECT_NE(R_CRL_get_entry(crl.get(), 0xffffffffu, entry.get()), R_ERROR_NONE);
    EXPECT_EQ(serial_of(entry.get()), last);

    // The entry holds a copy: it outlives the CRL, and its item stays put.
    ASSERT_EQ(R_CRL_get_entry(crl.get(), 3, entry.get()), R_ERROR_NONE);
    R_ITEM first{};
    ASSERT_EQ(R_CRL_ENTRY_get_info(entry.get(), R_CRL_ENTRY_INFO_SERIAL, &first), R_ERROR_NONE);
    const Bytes kept = item_bytes(first);
    crl.reset();
    EXPECT_EQ(R_CRL_ENTRY_get_info(entry.get(), R_CRL_ENTRY_INFO_SERIAL, &item), R_ERROR_NONE);
    EXPECT_EQ(item.data, first.data);
    EXPECT_EQ(item_bytes(item), kept);

    EXPECT_EQ(R_CRL_ENTRY_get_info(entry.get(), 0x8008, &item), R_ERROR_FAILED);
    EXPECT_EQ(R_CRL_ENTRY_get_info(entry.get(), R_CRL_ENTRY_INFO_SERIAL, nullptr),
              R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CRL_get_entry_count(nullptr, &count), R_ERROR_NULL_ARG);
    R_CRL_ENTRY* made = nullptr;
    EXPECT_EQ(R_CRL_ENTRY_new(nullptr, 0, &made), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CRL_ENTRY_new(lib, 1, &made), R_ERROR_FAILED);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(R_CRL_ENTRY_free(nullptr), R_ERROR_NONE);
    EXPECT_EQ(R_EXT_free(nullptr), R_ERROR_NONE);
}

TEST_F(ToolkitCrlRead, FindEntryAmongThousands) {
    const Issuer& issuer = shared_issuer();
    std::mt19937 random(5280);
    std::set<Bytes> listed; // magnitudes, leading byte non-zero
    auto random_magnitude = [&random] {
        Bytes magnitude(1 + random() % 20);
        for (unsigned char& byte : magnitude)
            byte = static_cast<unsigned char>(random());
        magnitude[0] = static_cast<unsigned char>(1 + random() % 255);
        return magnitude;
    };
    while (listed.size() < 3000)
        listed.insert(random_magnitude());
    CrlOptions recipe;
    std::map<Bytes, time_t> dates;
    for (const Bytes& magnitude : listed) {
        RevokedEntry revoked = revoked_serial(magnitude);
        revoked.revocationDate = 1700000000 + static_cast<time_t>(random() % 10000000);
        dates[magnitude] = revoked.revocationDate;
        recipe.revoked.push_back(revoked);
    }
    // Entries whose reason is keyCompromise (1) and removeFromCRL (8).
    const Bytes compromised = {0x7e, 0x01};
    const Bytes removed = {0x7e, 0x08};
    recipe.revoked.push_back({compromised, 1700000000, {{"2.5.29.21", false, {0x0a, 0x01, 0x01}}}});
    recipe.revoked.push_back({removed, 1700000000, {{"2.5.29.21", false, {0x0a, 0x01, 0x08}}}});
    CrlPtr crl = decode(make_crl(issuer, recipe));
    ASSERT_NE(crl, nullptr);

    EntryPtr entry = new_entry();
    TimePtr time = this->time();
    auto find = [&](const Bytes& magnitude) {
        LeafOptions leaf;
        leaf.serial = magnitude;
        CertPtr cert = this->cert(make_leaf(issuer, leaf).get());
        return R_CRL_find_entry(crl.get(), cert.get(), entry.get());
    };
    std::vector<Bytes> all(listed.begin(), listed.end());
    for (int round = 0; round < 12; ++round) {
        const Bytes& magnitude = all[random() % all.size()];
        ASSERT_EQ(find(magnitude), R_ERROR_NONE);
        EXPECT_EQ(serial_of(entry.get()), content_octets(magnitude));
        EXPECT_EQ(R_CRL_ENTRY_get_info(entry.get(), R_CRL_ENTRY_INFO_REVOCATION_DATE, time.get()),
                  R_ERROR_NONE);
        EXPECT_EQ(seconds(time.get()), dates[magnitude]);
    }
    const Bytes before = serial_of(entry.get());
    for (int round = 0; round < 12; ++round) {
        Bytes magnitude = random_magnitude();
        if (listed.count(magnitude) != 0)
            continue;
        EXPECT_EQ(find(magnitude), R_ERROR_NOT_FOUND);
    }
    // Neighbours of a listed serial differ by one in the last byte.
    Bytes neighbour = all[17];
    neighbour.back() ^= 0x01;
    if (listed.count(neighbour) == 0) {
        EXPECT_EQ(find(neighbour), R_ERROR_NOT_FOUND);
    }
    EXPECT_EQ(serial_of(entry.get()), before);

    EXPECT_EQ(find(compromised), R_ERROR_NONE);
    EXPECT_EQ(serial_of(entry.get()), compromised);
    EXPECT_EQ(find(removed), R_ERROR_NOT_FOUND);

    // Lookups sort the list; the set of entries is unchanged.
    uint32_t count = 0;
    ASSERT_EQ(R_CRL_get_entry_count(crl.get(), &count), R_ERROR_NONE);
    ASSERT_EQ(count, listed.size() + 2);
    std::set<Bytes> seen;
    for (uint32_t index = 0; index < count; ++index) {
        ASSERT_EQ(R_CRL_get_entry(crl.get(), index, entry.get()), R_ERROR_NONE);
        seen.insert(serial_of(entry.get()));
    }
    std::set<Bytes> expected = {compromised, removed};
    for (const Bytes& magnitude : listed)
        expected.insert(content_octets(magnitude));
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(ERR_peek_error(), 0u);

    CertPtr cert = this->cert(issuer.cert.get());
    EXPECT_EQ(R_CRL_find_entry(nullptr, cert.get(), entry.get()), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CRL_find_entry(crl.get(), nullptr, entry.get()), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CRL_find_entry(crl.get(), cert.get(), nullptr), R_ERROR_NULL_ARG);
}
