// What the toolkit's own CRL reader takes, beside what OpenSSL takes: the
// BER-only forms it refuses, lookups in sorted and unsorted lists, serials
// listed twice, reasons OpenSSL stops reading, and names checked without
// decoding them.
#include <algorithm>
#include <random>
#include <set>

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "test_pki.h"
#include "toolkit_bytes.h"
#include "toolkit_fixture.h"

using namespace qxtest;

namespace {

Bytes tlv(unsigned char tag, const Bytes& content) {
    Bytes out{tag};
    const size_t length = content.size();
    if (length < 0x80) {
        out.push_back(static_cast<unsigned char>(length));
    } else {
        Bytes octets;
        for (size_t rest = length; rest != 0; rest >>= 8)
            octets.insert(octets.begin(), static_cast<unsigned char>(rest));
        out.push_back(static_cast<unsigned char>(0x80 | octets.size()));
        out.insert(out.end(), octets.begin(), octets.end());
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

// The elements inside a DER element's content, whole.
std::vector<Bytes> elements_of(const Bytes& der) {
    const unsigned char* cursor = der.data();
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    EXPECT_EQ(ASN1_get_object(&cursor, &length, &tag, &tagClass, static_cast<long>(der.size())),
              V_ASN1_CONSTRUCTED);
    const unsigned char* end = cursor + length;
    std::vector<Bytes> out;
    while (cursor < end) {
        const unsigned char* start = cursor;
        ASN1_get_object(&cursor, &length, &tag, &tagClass, end - cursor);
        cursor += length;
        out.emplace_back(start, cursor);
    }
    return out;
}

Bytes concat(const std::vector<Bytes>& parts) {
    Bytes out;
    for (const Bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

bool openssl_reads(const Bytes& der) {
    const unsigned char* cursor = der.data();
    X509_CRL* crl = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size()));
    X509_CRL_free(crl);
    return crl != nullptr;
}

RawExtension reason(Bytes value) {
    return {"2.5.29.21", false, std::move(value)};
}

RevokedEntry entry(Bytes serial, std::vector<RawExtension> extensions = {}) {
    RevokedEntry made = revoked_serial(std::move(serial));
    made.extensions = std::move(extensions);
    return made;
}

const Bytes remove_from_crl = {0x0a, 0x01, 0x08};
const Bytes key_compromise = {0x0a, 0x01, 0x01};

class ToolkitCrlDer : public ToolkitTest {
  protected:
    // The toolkit's answer for a certificate of issuer with serial: 0 when
    // revoked, 1 when not, as OpenSSL's answer is for the same CRL.
    int toolkit_answer(R_CRL* crl, const Issuer& issuer, const Bytes& serial) {
        LeafOptions options;
        options.serial = serial;
        const Cert leaf = make_leaf(issuer, options);
        CertPtr record = cert(leaf.get());
        R_CRL_ENTRY* found = nullptr;
        EXPECT_EQ(R_CRL_ENTRY_new(lib, 0, &found), R_ERROR_NONE);
        const int status = R_CRL_find_entry(crl, record.get(), found);
        EXPECT_TRUE(status == R_ERROR_NONE || status == R_ERROR_NOT_FOUND) << status;
        if (status == R_ERROR_NONE) {
            // The entry holds the INTEGER's content: a high first octet is padded.
            Bytes content = serial;
            if ((serial[0] & 0x80) != 0)
                content.insert(content.begin(), 0x00);
            EXPECT_EQ(serial_of(found), content);
        }
        R_CRL_ENTRY_free(found);
        return status == R_ERROR_NONE ? 0 : 1;
    }

    // Signs crl as issuer would, with ECDSA over SHA-256.
    int sign(R_CRL* crl, const Issuer& issuer) {
        R_PKEY* key = nullptr;
        const Bytes keyDer = key_der(issuer.key.get());
        EXPECT_EQ(R_PKEY_from_bytes(lib, static_cast<uint32_t>(keyDer.size()), keyDer.data(),
                                    nullptr, &key),
                  R_ERROR_NONE);
        KeyPtr keyOwner(key);
        CertPtr issuerCert = cert(issuer.cert.get());
        return R_CRL_sign(crl, issuerCert.get(), key, R_SIG_ALG_ECDSA_SHA256);
    }

    static int openssl_answer(const Bytes& der, const Issuer& issuer, const Bytes& serial) {
        LeafOptions options;
        options.serial = serial;
        const Cert leaf = make_leaf(issuer, options);
        Crl crl = openssl_crl(der);
        X509_REVOKED* found = nullptr;
        return X509_CRL_get0_by_serial(crl.get(), &found, X509_get0_serialNumber(leaf.get())) == 1
                   ? 0
                   : 1;
    }
};

} // namespace

// Forms OpenSSL reads only as BER are refused; a long-form length DER would
// not write is read, and kept byte for byte.
TEST_F(ToolkitCrlDer, BerOnlyFormsAreRefusedAndOddLengthsKept) {
    CrlOptions recipe;
    recipe.revoked = {revoked_serial({0x05})};
    const Bytes der = make_crl(shared_issuer(), recipe);
    const std::vector<Bytes> outer = elements_of(der); // to-be-signed, algorithm, signature
    ASSERT_EQ(outer.size(), 3u);
    const Bytes signatureContent(outer[2].begin() + 2, outer[2].end());
    ASSERT_LT(signatureContent.size(), 0x80u);

    Bytes indefinite = {0x30, 0x80};
    const Bytes body = concat(outer);
    indefinite.insert(indefinite.end(), body.begin(), body.end());
    indefinite.insert(indefinite.end(), {0x00, 0x00});

    const Bytes constructedSignature =
        tlv(0x30, concat({outer[0], outer[1], tlv(0x23, tlv(0x03, signatureContent))}));

    Bytes longTag = {0x1f, 0x03, static_cast<unsigned char>(signatureContent.size())};
    longTag.insert(longTag.end(), signatureContent.begin(), signatureContent.end());
    const Bytes longFormTag = tlv(0x30, concat({outer[0], outer[1], longTag}));

    // Inside the issuer's name and the algorithms' parameters, where
    // OpenSSL's decoders of those would take them.
    std::vector<Bytes> fields = elements_of(outer[0]);
    const Bytes berName = {0x30, 0x0f, 0x31, 0x80, 0x30, 0x09, 0x06, 0x03, 0x55,
                           0x04, 0x03, 0x13, 0x02, 0x41, 0x42, 0x00, 0x00};
    std::vector<Bytes> withBerName = fields;
    withBerName[fields[0][0] == 0x02 ? 2 : 1] = berName;
    const Bytes inName = tlv(0x30, concat({tlv(0x30, concat(withBerName)), outer[1], outer[2]}));
    Bytes berAlgorithm = outer[1];
    berAlgorithm.insert(berAlgorithm.end(), {0x30, 0x80, 0x00, 0x00});
    berAlgorithm[1] = static_cast<unsigned char>(berAlgorithm[1] + 4);
    const Bytes inParameters = tlv(0x30, concat({outer[0], berAlgorithm, outer[2]}));

    for (const Bytes& ber : {indefinite, constructedSignature, longFormTag, inName, inParameters}) {
        EXPECT_TRUE(openssl_reads(ber));
        R_CRL* crl = nullptr;
        EXPECT_EQ(
            R_CRL_from_binary(lib, 0, static_cast<uint32_t>(ber.size()), ber.data(), nullptr, &crl),
            R_ERROR_DECODE);
        EXPECT_EQ(crl, nullptr);
    }

    // A value of a type OpenSSL keeps whole is read inside by neither.
    std::vector<Bytes> withRawValue = fields;
    withRawValue[fields[0][0] == 0x02 ? 2 : 1] =
        tlv(0x30, tlv(0x31, tlv(0x30, concat({{0x06, 0x03, 0x55, 0x04, 0x03},
                                              {0x30, 0x03, 0xff, 0xff, 0xff}}))));
    const Bytes rawValue = tlv(0x30, concat({tlv(0x30, concat(withRawValue)), outer[1], outer[2]}));
    EXPECT_TRUE(openssl_reads(rawValue));
    EXPECT_NE(decode(rawValue), nullptr);

    // Four length octets where one would do, and two of them zero.
    Bytes padded = {0x30, 0x84};
    for (int shift = 24; shift >= 0; shift -= 8)
        padded.push_back(static_cast<unsigned char>(body.size() >> shift));
    padded.insert(padded.end(), body.begin(), body.end());
    EXPECT_TRUE(openssl_reads(padded));
    CrlPtr crl = decode(padded);
    ASSERT_NE(crl, nullptr);
    EXPECT_EQ(toolkit_bytes(crl.get(), R_CRL_to_binary), padded);
    CertPtr issuer = cert(shared_issuer().cert.get());
    uint32_t verdict = 7;
    EXPECT_EQ(R_CRL_verify(crl.get(), issuer.get(), &verdict), R_ERROR_NONE);
    EXPECT_EQ(verdict, 0u);
}

// A Certificate Issuer makes what follows another issuer's: critical or
// not, the CRL is not this issuer's list.
TEST_F(ToolkitCrlDer, ACertificateIssuerEntryRefusesTheCrl) {
    const Bytes directoryName = {0x30, 0x0a, 0xa4, 0x08, 0x30, 0x06,
                                 0x31, 0x04, 0x30, 0x02, 0x06, 0x00};
    for (const bool critical : {false, true}) {
        CrlOptions recipe;
        recipe.revoked = {entry({0x05}, {{"2.5.29.29", critical, directoryName}})};
        const Bytes der = make_crl(shared_issuer(), recipe);
        EXPECT_TRUE(openssl_reads(der));
        R_CRL* crl = nullptr;
        EXPECT_EQ(
            R_CRL_from_binary(lib, 0, static_cast<uint32_t>(der.size()), der.data(), nullptr, &crl),
            R_ERROR_UNSUPPORTED)
            << critical;
    }
}

// Lookups answer as OpenSSL's do in lists kept in serial order (searched by
// halving) and in lists that are not (searched by hash), for every listed
// serial and as many unlisted ones.
TEST_F(ToolkitCrlDer, LookupsMatchOpenSslSortedOrNot) {
    const Issuer& issuer = shared_issuer();
    std::mt19937 random(12);
    std::set<Bytes> serials;
    while (serials.size() < 600) {
        Bytes serial(1 + random() % 9);
        for (unsigned char& octet : serial)
            octet = static_cast<unsigned char>(random());
        serial[0] = static_cast<unsigned char>(1 + serial[0] % 0xff);
        serials.insert(serial);
    }
    std::vector<Bytes> listed(serials.begin(), serials.end());
    std::shuffle(listed.begin(), listed.end(), random);
    std::vector<Bytes> unlisted(listed.begin() + 300, listed.end());
    listed.resize(300);
    // Serials that share their first twelve octets, as a CA's prefix and
    // counter make them, tell apart only past what a lookup key holds.
    for (unsigned char counter = 0; counter < 80; ++counter) {
        Bytes serial = {0x51, 0x52, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x5b, 0x5c};
        serial.push_back(counter);
        (counter % 2 == 0 ? listed : unlisted).push_back(serial);
    }
    // Serial order: the shorter first, then octet by octet.
    std::sort(listed.begin(), listed.end(), [](const Bytes& a, const Bytes& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    for (const bool sorted : {true, false}) {
        SCOPED_TRACE(sorted);
        if (!sorted)
            std::shuffle(listed.begin(), listed.end(), random);
        CrlOptions recipe;
        for (const Bytes& serial : listed)
            recipe.revoked.push_back(revoked_serial(serial));
        const Bytes der = make_crl(issuer, recipe);
        CrlPtr crl = decode(der);
        ASSERT_NE(crl, nullptr);
        for (const std::vector<Bytes>* list : {&listed, &unlisted}) {
            for (const Bytes& serial : *list) {
                EXPECT_EQ(toolkit_answer(crl.get(), issuer, serial),
                          openssl_answer(der, issuer, serial))
                    << hex(serial);
            }
        }
    }
}

// A serial listed twice is revoked when any of its entries does not take it
// off the list, whichever comes first, sorted or not; removeFromCRL alone
// takes it off. Past a reason OpenSSL cannot read, it reads no more
// reasons, so a later removeFromCRL does not take its certificate off.
TEST_F(ToolkitCrlDer, DuplicatesAndRemovalsNeverHideARevocation) {
    const Issuer& issuer = shared_issuer();
    struct Case {
        std::vector<RevokedEntry> entries;
        std::vector<std::pair<Bytes, int>> answers; // serial, 0 revoked, 1 not
    };
    const std::vector<Case> cases = {
        {{entry({0x09}), entry({0x05}, {reason(remove_from_crl)}), entry({0x03}),
          entry({0x05}, {reason(key_compromise)}), entry({0x07}, {reason(remove_from_crl)})},
         {{{0x03}, 0}, {{0x04}, 1}, {{0x05}, 0}, {{0x07}, 1}, {{0x09}, 0}}},
        {{entry({0x03}), entry({0x05}, {reason(remove_from_crl)}),
          entry({0x05}, {reason(key_compromise)}), entry({0x07}, {reason(remove_from_crl)}),
          entry({0x07}, {reason(remove_from_crl)})},
         {{{0x03}, 0}, {{0x05}, 0}, {{0x07}, 1}}},
        {{entry({0x01}, {reason({0x0a, 0x02, 0x00, 0x08})}),
          entry({0x02}, {reason(remove_from_crl)})},
         {{{0x01}, 0}, {{0x02}, 0}}},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        CrlOptions recipe;
        recipe.revoked = cases[i].entries;
        const Bytes der = make_crl(issuer, recipe);
        CrlPtr crl = decode(der);
        ASSERT_NE(crl, nullptr);
        for (const auto& [serial, answer] : cases[i].answers) {
            EXPECT_EQ(toolkit_answer(crl.get(), issuer, serial), answer) << hex(serial);
        }
    }
    // Where OpenSSL's answer does not hang on its sort order, it is the same.
    CrlOptions stopped;
    stopped.revoked = cases[2].entries;
    const Bytes der = make_crl(issuer, stopped);
    EXPECT_EQ(openssl_answer(der, issuer, {0x02}), 0);
}

// A name of plain attributes is taken without decoding; anything else is
// OpenSSL's to take or refuse, and matching folds case either way.
TEST_F(ToolkitCrlDer, NamesAreTakenAsOpenSslTakesThem) {
    auto name_der = [](const std::vector<Bytes>& attributes) {
        Bytes rdns;
        for (const Bytes& attribute : attributes) {
            const Bytes atv = tlv(0x30, concat({{0x06, 0x03, 0x55, 0x04, 0x03}, attribute}));
            const Bytes rdn = tlv(0x31, atv);
            rdns.insert(rdns.end(), rdn.begin(), rdn.end());
        }
        return tlv(0x30, rdns);
    };
    const Bytes printable = name_der({tlv(0x13, {'F', 'o', 'o'})});
    const Bytes utf8Lower = name_der({tlv(0x0c, {'f', 'o', 'o'})});
    const Bytes utf8Accent = name_der({tlv(0x0c, {'f', 0xc3, 0xb6, 'o'})});
    const Bytes overlong = name_der({tlv(0x0c, {'f', 0xc0, 0x80})});
    const Bytes bmpOdd = name_der({tlv(0x1e, {0x00, 'f', 0x00})});
    const Bytes emptyRdn = tlv(0x30, tlv(0x31, {}));
    const Bytes visible = name_der({tlv(0x1a, {'A', 'B'})}); // a type OpenSSL does not take
    std::vector<R_CERT_NAME*> names;
    for (const Bytes& der :
         {printable, utf8Lower, utf8Accent, overlong, bmpOdd, emptyRdn, visible}) {
        const unsigned char* cursor = der.data();
        X509_NAME* reference = d2i_X509_NAME(nullptr, &cursor, static_cast<long>(der.size()));
        R_CERT_NAME* name = nullptr;
        uint32_t consumed = 0;
        const int status = R_CERT_NAME_from_binary(certCtx, 0, static_cast<uint32_t>(der.size()),
                                                   der.data(), &consumed, &name);
        EXPECT_EQ(status, reference != nullptr ? R_ERROR_NONE : R_ERROR_DECODE) << hex(der);
        if (status == R_ERROR_NONE) {
            EXPECT_EQ(consumed, der.size());
            names.push_back(name);
        }
        X509_NAME_free(reference);
    }
    ASSERT_GE(names.size(), 3u);
    EXPECT_EQ(R_CERT_NAME_is_equal(names[0], names[1]), 1); // "Foo" and "foo"
    EXPECT_EQ(R_CERT_NAME_is_equal(names[1], names[1]), 1);
    EXPECT_EQ(R_CERT_NAME_is_equal(names[1], names[2]), 0);
    char text[64] = {};
    ASSERT_EQ(R_CERT_NAME_to_string(names[2], sizeof text, text), R_ERROR_NONE);
    EXPECT_STREQ(text, "CN=f\xc3\xb6o");
    for (R_CERT_NAME* name : names)
        R_CERT_NAME_free(name);
}

// Signing puts an unsorted list in serial order; entries added to a sorted
// list go to their place; every answer stays what it was.
TEST_F(ToolkitCrlDer, SigningSortsAndAddingKeepsOrder) {
    const Issuer& issuer = shared_issuer();
    CrlOptions recipe;
    recipe.revoked = {entry({0x30}), entry({0x10}), entry({0x20}, {reason(key_compromise)})};
    CrlPtr crl = decode(make_crl(issuer, recipe));
    ASSERT_NE(crl, nullptr);

    auto serials = [&] {
        std::vector<Bytes> out;
        uint32_t count = 0;
        EXPECT_EQ(R_CRL_get_entry_count(crl.get(), &count), R_ERROR_NONE);
        for (uint32_t i = 0; i < count; ++i) {
            R_CRL_ENTRY* read = nullptr;
            EXPECT_EQ(R_CRL_ENTRY_new(lib, 0, &read), R_ERROR_NONE);
            EXPECT_EQ(R_CRL_get_entry(crl.get(), i, read), R_ERROR_NONE);
            out.push_back(serial_of(read));
            R_CRL_ENTRY_free(read);
        }
        return out;
    };
    ASSERT_EQ(sign(crl.get(), issuer), R_ERROR_NONE);
    EXPECT_EQ(serials(), (std::vector<Bytes>{{0x10}, {0x20}, {0x30}}));

    R_CRL_ENTRY* added = nullptr;
    ASSERT_EQ(R_CRL_ENTRY_new(lib, 0, &added), R_ERROR_NONE);
    EntryPtr addedOwner(added);
    const Bytes serial = {0x25};
    R_ITEM item{static_cast<uint32_t>(serial.size()), const_cast<unsigned char*>(serial.data())};
    TimePtr when = time_at(1700000000);
    ASSERT_EQ(R_CRL_ENTRY_set_info(added, R_CRL_ENTRY_INFO_SERIAL, &item), R_ERROR_NONE);
    ASSERT_EQ(R_CRL_ENTRY_set_info(added, R_CRL_ENTRY_INFO_REVOCATION_DATE, when.get()),
              R_ERROR_NONE);
    ASSERT_EQ(R_CRL_add_entry(crl.get(), added), R_ERROR_NONE);
    ASSERT_EQ(sign(crl.get(), issuer), R_ERROR_NONE);
    EXPECT_EQ(serials(), (std::vector<Bytes>{{0x10}, {0x20}, {0x25}, {0x30}}));
    for (const Bytes& listed : serials())
        EXPECT_EQ(toolkit_answer(crl.get(), issuer, listed), 0) << hex(listed);
    EXPECT_EQ(toolkit_answer(crl.get(), issuer, {0x26}), 1);

    Crl read = openssl_crl(toolkit_bytes(crl.get(), R_CRL_to_binary));
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(X509_CRL_verify(read.get(), X509_get0_pubkey(issuer.cert.get())), 1);
}

// A SEQUENCE OF under the primitive form of its tag is no BER-only form, and
// OpenSSL reads it: so does the toolkit, keeping the bytes as they came.
TEST_F(ToolkitCrlDer, PrimitiveListTagsAreReadAsOpenSslReadsThem) {
    CrlOptions recipe;
    recipe.revoked = {revoked_serial({0x05}), revoked_serial({0x06})};
    const std::vector<Bytes> outer = elements_of(make_crl(shared_issuer(), recipe));
    std::vector<Bytes> fields = elements_of(outer[0]);
    auto entries = std::find_if(fields.begin(), fields.end(), [](const Bytes& field) {
        return field[0] == 0x30 && field.size() > 2 && field[2] == 0x30;
    });
    ASSERT_NE(entries, fields.end());
    (*entries)[0] = 0x10;
    const Bytes der = tlv(0x30, concat({tlv(0x30, concat(fields)), outer[1], outer[2]}));
    ASSERT_TRUE(openssl_reads(der));
    CrlPtr crl = decode(der);
    ASSERT_NE(crl, nullptr);
    uint32_t count = 0;
    EXPECT_EQ(R_CRL_get_entry_count(crl.get(), &count), R_ERROR_NONE);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(toolkit_answer(crl.get(), shared_issuer(), {0x06}), 0);
    uint32_t length = 0;
    ASSERT_EQ(R_CRL_to_binary(crl.get(), 0, nullptr, &length), R_ERROR_NONE);
    EXPECT_EQ(length, der.size());
}

// A CRL signed under one algorithm while its signed part names another has a
// bad signature here, though OpenSSL 3.0 verifies it under the outer one.
TEST_F(ToolkitCrlDer, ACrlNamingAnotherAlgorithmThanItsSignatureIsNotVerified) {
    const Issuer& issuer = shared_issuer(KeyKind::EcP256);
    CrlOptions recipe;
    recipe.revoked = {revoked_serial({0x05})};
    const std::vector<Bytes> outer = elements_of(make_crl(issuer, recipe));
    std::vector<Bytes> fields = elements_of(outer[0]);
    // ecdsa-with-SHA384 in the signed part; the signature stays SHA-256's.
    const Bytes sha384 = tlv(0x30, tlv(0x06, {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x04, 0x03, 0x03}));
    ASSERT_EQ(fields[1][0], 0x30);
    fields[1] = sha384;
    const Bytes tbs = tlv(0x30, concat(fields));
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    size_t length = 0;
    ASSERT_EQ(EVP_DigestSignInit(context, nullptr, EVP_sha256(), nullptr, issuer.key.get()), 1);
    ASSERT_EQ(EVP_DigestSign(context, nullptr, &length, tbs.data(), tbs.size()), 1);
    Bytes signature(length + 1, 0);
    ASSERT_EQ(EVP_DigestSign(context, signature.data() + 1, &length, tbs.data(), tbs.size()), 1);
    EVP_MD_CTX_free(context);
    signature.resize(length + 1);
    const Bytes der = tlv(0x30, concat({tbs, outer[1], tlv(0x03, signature)}));

    Crl read = openssl_crl(der);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(X509_CRL_verify(read.get(), X509_get0_pubkey(issuer.cert.get())), 1);
    CrlPtr crl = decode(der);
    ASSERT_NE(crl, nullptr);
    CertPtr issuerCert = cert(issuer.cert.get());
    uint32_t verdict = 0;
    EXPECT_EQ(R_CRL_verify(crl.get(), issuerCert.get(), &verdict), R_ERROR_NONE);
    EXPECT_EQ(verdict, R_CRL_VERIFY_BAD_SIGNATURE);
}

// Serials of either sign are written in the order OpenSSL sorts them.
TEST_F(ToolkitCrlDer, SigningOrdersSerialsOfEitherSignAsOpenSslDoes) {
    const Issuer& issuer = shared_issuer();
    R_CRL* made = nullptr;
    ASSERT_EQ(R_CRL_new(lib, 0, &made), R_ERROR_NONE);
    CrlPtr crl(made);
    TimePtr now = time_at(1700000000);
    ASSERT_EQ(R_CRL_set_info(crl.get(), R_CRL_INFO_THIS_UPDATE, now.get()), R_ERROR_NONE);
    const std::vector<Bytes> serials = {{0x01},       {0xff},       {0x80},       {0xff, 0x7f},
                                        {0x00, 0x80}, {0x80, 0x00}, {0x7f},       {0xfe},
                                        {0x01, 0x00}, {0xff, 0x00}, {0x80, 0x01}, {0x00, 0xff}};
    for (const Bytes& serial : serials) {
        R_CRL_ENTRY* entry = nullptr;
        ASSERT_EQ(R_CRL_ENTRY_new(lib, 0, &entry), R_ERROR_NONE);
        EntryPtr owner(entry);
        R_ITEM item{static_cast<uint32_t>(serial.size()),
                    const_cast<unsigned char*>(serial.data())};
        ASSERT_EQ(R_CRL_ENTRY_set_info(entry, R_CRL_ENTRY_INFO_SERIAL, &item), R_ERROR_NONE)
            << hex(serial);
        ASSERT_EQ(R_CRL_ENTRY_set_info(entry, R_CRL_ENTRY_INFO_REVOCATION_DATE, now.get()),
                  R_ERROR_NONE);
        ASSERT_EQ(R_CRL_add_entry(crl.get(), entry), R_ERROR_NONE);
    }
    ASSERT_EQ(sign(crl.get(), issuer), R_ERROR_NONE);

    Crl read = openssl_crl(toolkit_bytes(crl.get(), R_CRL_to_binary));
    ASSERT_NE(read, nullptr);
    auto order = [](X509_CRL* from) {
        std::vector<Bytes> out;
        STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(from);
        for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
            const ASN1_INTEGER* serial =
                X509_REVOKED_get0_serialNumber(sk_X509_REVOKED_value(entries, i));
            unsigned char* der = nullptr;
            const int size = i2d_ASN1_INTEGER(serial, &der);
            out.emplace_back(der, der + size);
            OPENSSL_free(der);
        }
        return out;
    };
    const std::vector<Bytes> asWritten = order(read.get());
    ASSERT_EQ(asWritten.size(), serials.size());
    ASSERT_EQ(X509_CRL_sort(read.get()), 1);
    EXPECT_EQ(asWritten, order(read.get()));
}
