// Reading items out of CRLs of several signature algorithms, checked against
// what the CRL was made with and against the openssl command's reading.
#include <cstring>
#include <ctime>
#include <set>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

std::string rfc3339(time_t seconds) {
    char text[32];
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

// The content octets of a positive INTEGER with this magnitude.
Bytes content_octets(Bytes magnitude) {
    if (magnitude[0] & 0x80)
        magnitude.insert(magnitude.begin(), 0x00);
    return magnitude;
}

class CrlDetailsTest : public LayerTest {
  protected:
    CrlObject* decode(const Bytes& der) {
        EXPECT_EQ(qxcrl_CreateCtx(ctx_, &crl_, der.data(), static_cast<uint32_t>(der.size())), 0u);
        return crl_;
    }
    void TearDown() override {
        qxcrl_Destroy(ctx_, &crl_);
        LayerTest::TearDown();
    }
    std::string openssl_issuer(const Bytes& der) {
        TempDir dir;
        write_file(dir / "crl.der", der);
        EXPECT_EQ(run_in(dir.path(), "openssl crl -inform DER -in crl.der -noout -issuer "
                                     "-nameopt RFC2253,-esc_msb > issuer.txt"),
                  0);
        const Bytes out = read_file(dir / "issuer.txt");
        std::string text(out.begin(), out.end());
        EXPECT_EQ(text.rfind("issuer=", 0), 0u);
        return text.substr(7, text.size() - 8); // without the prefix and the newline
    }

    CrlObject* crl_ = nullptr;
};

} // namespace

TEST_F(CrlDetailsTest, EveryItemOnEveryAlgorithm) {
    struct Algorithm {
        KeyKind kind;
        uint32_t signatureType;
    };
    const std::vector<Bytes> serials = {{0x01},          {0x7f},
                                        {0x80},          {0xff, 0x00, 0x01},
                                        Bytes(20, 0x5a), {0x9c, 0x01, 0x02, 0x03, 0x04}};
    const time_t thisUpdate = 1767225600, nextUpdate = 2556143999; // 2026, and 2050-12-31
    for (const Algorithm& algorithm : {Algorithm{KeyKind::Rsa2048, 6},
                                       {KeyKind::RsaPss, 14},
                                       {KeyKind::EcP256, 9},
                                       {KeyKind::Ed25519, 12}}) {
        SCOPED_TRACE("signature type " + std::to_string(algorithm.signatureType));
        IssuerOptions issuerOptions;
        issuerOptions.kind = algorithm.kind;
        issuerOptions.commonName =
            "Zoë \"Test\", CA+1 <" + std::to_string(algorithm.signatureType) + ">";
        const Issuer issuer = make_issuer(issuerOptions);
        CrlOptions recipe;
        recipe.thisUpdate = thisUpdate;
        recipe.nextUpdate = nextUpdate;
        recipe.crlNumber = 300;
        for (size_t i = 0; i < serials.size(); ++i) {
            RevokedEntry entry = revoked_serial(serials[i]);
            entry.revocationDate = thisUpdate - 86400 * static_cast<time_t>(i + 1);
            recipe.revoked.push_back(entry);
        }
        const Bytes der = make_crl(issuer, recipe);
        CrlObject* crl = decode(der);

        uint32_t word = 0;
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_VERSION, 0, &word), 0u);
        EXPECT_EQ(word, 1u);
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_SIGNATURE_TYPE, 0, &word), 0u);
        EXPECT_EQ(word, algorithm.signatureType);
        char name[1025];
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_ISSUER_NAME, 0, name), 0u);
        EXPECT_EQ(std::string(name), openssl_issuer(der));
        char time[129];
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_THIS_UPDATE, 0, time), 0u);
        EXPECT_EQ(std::string(time), rfc3339(thisUpdate));
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_NEXT_UPDATE, 0, time), 0u);
        EXPECT_EQ(std::string(time), rfc3339(nextUpdate));
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_ENTRY_COUNT, 0, &word), 0u);
        ASSERT_EQ(word, serials.size());

        // Entries come back in the CRL's order; match them up by serial.
        std::set<std::pair<Bytes, std::string>> expected, found;
        for (const RevokedEntry& entry : recipe.revoked)
            expected.insert({content_octets(entry.serial), rfc3339(entry.revocationDate)});
        for (uint32_t index = 0; index < word; ++index) {
            unsigned char bytes[32];
            CrlDetailBuffer serial{bytes, 0};
            ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_ENTRY_SERIAL, index, &serial), 0u);
            ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_ENTRY_REVOCATION_DATE, index, time),
                      0u);
            found.insert({Bytes(bytes, bytes + serial.length), time});
        }
        EXPECT_EQ(found, expected);

        unsigned char value[16];
        CrlDetailBuffer number{value, 0};
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_EXTENSION, 0, &number), 0u);
        EXPECT_EQ(Bytes(value, value + number.length), (Bytes{0x02, 0x02, 0x01, 0x2c}));
        qxcrl_Destroy(ctx_, &crl_);
    }
}

TEST_F(CrlDetailsTest, ByteItemsNeverWritePastTheCapacity) {
    // A serial and a CRL Number of 1,100 bytes: longer than any buffer a
    // caller would size for "a serial number".
    Bytes serial(1100, 0x5a);
    Bytes number = {0x02, 0x82, 0x04, 0x4c};
    number.resize(number.size() + 1100, 0x21);
    CrlOptions recipe;
    recipe.crlNumber = std::nullopt;
    recipe.extensions = {{"2.5.29.20", false, number}};
    recipe.revoked = {revoked_serial(serial)};
    CrlObject* crl = decode(make_crl(shared_issuer(), recipe));

    for (const auto& [item, value] : {std::pair{QXCRL_DETAIL_ENTRY_SERIAL, serial},
                                      std::pair{QXCRL_DETAIL_EXTENSION, number}}) {
        SCOPED_TRACE(item);
        const auto size = static_cast<uint32_t>(value.size());
        // One byte short: refused, and not a byte of the buffer written.
        Bytes room(size + 16, 0xee);
        CrlDetailBuffer buffer{room.data(), size - 1};
        EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, item, 0, &buffer), QXERR_NO_OUTPUT_BUFFER);
        EXPECT_EQ(buffer.length, size - 1);
        EXPECT_EQ(room, Bytes(size + 16, 0xee));
        // Exactly the room the value needs.
        buffer.length = size;
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, item, 0, &buffer), 0u);
        EXPECT_EQ(buffer.length, size);
        EXPECT_EQ(Bytes(room.begin(), room.begin() + size), value);
        EXPECT_EQ(room[size], 0xee);
        // No capacity given: the caller vouches for the room, as before.
        buffer = CrlDetailBuffer{room.data(), 0};
        ASSERT_EQ(qxcrl_GetDetails(ctx_, crl, item, 0, &buffer), 0u);
        EXPECT_EQ(buffer.length, size);
    }
}

TEST_F(CrlDetailsTest, AbsentItemsAndBadArgumentsLeaveTheOutputAlone) {
    CrlOptions recipe;
    recipe.nextUpdate = std::nullopt;
    recipe.crlNumber = std::nullopt;
    recipe.revoked = {revoked_serial({0x05})};
    CrlObject* crl = decode(make_crl(shared_issuer(), recipe));

    char text[129];
    std::memset(text, 'x', sizeof text);
    const auto untouched = [&] { return text[0] == 'x' && text[128] == 'x'; };
    EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_NEXT_UPDATE, 0, text),
              QXERR_TOOLKIT_FAILURE);
    EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_ENTRY_REVOCATION_DATE, 1, text),
              QXERR_TOOLKIT_FAILURE);
    EXPECT_TRUE(untouched());

    unsigned char bytes[8] = {0xee};
    CrlDetailBuffer buffer{bytes, 1234};
    EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_ENTRY_SERIAL, 1, &buffer),
              QXERR_TOOLKIT_FAILURE);
    EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_ENTRY_SERIAL, 0xFFFFFFFFu, &buffer),
              QXERR_TOOLKIT_FAILURE);
    EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_EXTENSION, 0, &buffer),
              QXERR_TOOLKIT_FAILURE);
    EXPECT_EQ(buffer.length, 1234u);
    EXPECT_EQ(bytes[0], 0xee);

    // No room given: the value exists but cannot be delivered.
    CrlDetailBuffer nowhere{nullptr, 1234};
    EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_ENTRY_SERIAL, 0, &nowhere),
              QXERR_NO_OUTPUT_BUFFER);
    EXPECT_EQ(nowhere.length, 1234u);

    // Items this version does not know deliver nothing.
    for (CrlDetailItem item : {0u, 10u, 0xFFFFFFFFu}) {
        EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, item, 0, text), 0u);
        EXPECT_TRUE(untouched());
    }
    CrlObject empty{nullptr};
    EXPECT_EQ(qxcrl_GetDetails(nullptr, crl, QXCRL_DETAIL_VERSION, 0, text), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_GetDetails(ctx_, &empty, QXCRL_DETAIL_VERSION, 0, text), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_GetDetails(ctx_, crl, QXCRL_DETAIL_VERSION, 0, nullptr), QXERR_BAD_PARAMETER);
    EXPECT_TRUE(untouched());
    EXPECT_EQ(qxcrlDC_DisplayCrl(), 0u);
    EXPECT_TRUE(trace_.entries().empty());
}
