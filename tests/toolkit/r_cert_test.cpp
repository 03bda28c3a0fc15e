// The toolkit's certificates and names over OpenSSL: decoding DER and PEM,
// serials as encoded, validity, distribution points, and names as text,
// as received DER and under RFC 5280 matching, checked against the openssl
// command where it has an opinion.
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/x509v3.h>

#include "files.h"
#include "test_pki.h"
#include "toolkit/r_toolkit.h"
#include "toolkit_bytes.h"

using namespace qxtest;

namespace {

class CertToolkitTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(R_LIB_CTX_new(R_LIB_CTX_ISOLATED, &lib_), R_ERROR_NONE);
        ASSERT_EQ(R_CERT_CTX_new(lib_, &certCtx_), R_ERROR_NONE);
    }
    void TearDown() override {
        for (R_CERT* cert : certs_)
            R_CERT_free(cert);
        for (R_CERT_NAME* name : names_)
            R_CERT_NAME_free(name);
        R_CERT_CTX_free(certCtx_);
        R_LIB_CTX_free(lib_);
    }

    R_CERT* decode(const Bytes& der) {
        R_CERT* cert = nullptr;
        uint32_t consumed = 0;
        EXPECT_EQ(R_CERT_from_binary(certCtx_, 0, static_cast<uint32_t>(der.size()), der.data(),
                                     &consumed, &cert),
                  R_ERROR_NONE);
        EXPECT_EQ(consumed, der.size());
        certs_.push_back(cert);
        return cert;
    }

    R_CERT_NAME* name_from(const Bytes& der) {
        R_CERT_NAME* name = nullptr;
        EXPECT_EQ(R_CERT_NAME_from_binary(certCtx_, 0, static_cast<uint32_t>(der.size()),
                                          der.data(), nullptr, &name),
                  R_ERROR_NONE);
        names_.push_back(name);
        return name;
    }

    R_CERT_NAME* info_name(R_CERT* cert, int id) {
        R_CERT_NAME* name = nullptr;
        EXPECT_EQ(R_CERT_get_info(cert, id, &name), R_ERROR_NONE);
        names_.push_back(name);
        return name;
    }

    R_LIB_CTX* lib_ = nullptr;
    R_CERT_CTX* certCtx_ = nullptr;
    std::vector<R_CERT*> certs_;
    std::vector<R_CERT_NAME*> names_;
};

std::string text_of(R_CERT_NAME* name) {
    std::vector<char> buffer(8192);
    EXPECT_EQ(R_CERT_NAME_to_string(name, static_cast<uint32_t>(buffer.size()), buffer.data()),
              R_ERROR_NONE);
    return buffer.data();
}

Bytes der_of(R_CERT_NAME* name) {
    return toolkit_bytes(name, R_CERT_NAME_to_binary);
}

// A name's DER, built with OpenSSL from (type, UTF-8 value, joins previous RDN) triples.
Bytes name_der(const std::vector<std::tuple<std::string, std::string, bool>>& entries) {
    X509_NAME* name = X509_NAME_new();
    for (const auto& [type, value, joins] : entries) {
        EXPECT_EQ(X509_NAME_add_entry_by_txt(name, type.c_str(), MBSTRING_UTF8,
                                             reinterpret_cast<const unsigned char*>(value.c_str()),
                                             -1, -1, joins ? -1 : 0),
                  1);
    }
    unsigned char* der = nullptr;
    const int length = i2d_X509_NAME(name, &der);
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    X509_NAME_free(name);
    return bytes;
}

Cert resign(Cert cert) {
    EXPECT_GT(X509_sign(cert.get(), shared_issuer().key.get(), EVP_sha256()), 0);
    return cert;
}

std::string point_name(R_CERT* cert, uint32_t index, uint32_t nameIndex, uint16_t* type) {
    uint32_t length = 0;
    EXPECT_EQ(R_CERT_get_dist_point_name(cert, index, nameIndex, type, 0, nullptr, &length),
              R_ERROR_NONE);
    std::string text(length + 1, 'x');
    EXPECT_EQ(
        R_CERT_get_dist_point_name(cert, index, nameIndex, type, length + 1, text.data(), &length),
        R_ERROR_NONE);
    EXPECT_EQ(text[length], '\0');
    text.resize(length);
    return text;
}

} // namespace

// Names the openssl command made, printed by it and by the toolkit.
TEST_F(CertToolkitTest, NameTextIsWhatOpensslPrints) {
    const std::string longName = [] {
        std::string subject = "/O=" + std::string(60, 'o');
        for (int unit = 0; unit < 10; ++unit)
            subject += "/OU=unit " + std::to_string(unit) + " " + std::string(50, 'u');
        return subject + "/CN=" + std::string(64, 'c');
    }();
    const std::vector<std::string> subjects = {
        "/C=DE/O=Müller & Söhne GmbH/CN=Jürgen Groß",
        "/CN=Тест 测试 日本語 ✓/O=Ελληνικά",
        "/CN=alpha+OU=beta+O=gamma/C=US",
        "/CN=Smith, John/O=Quote \"here\"/OU=back\\\\slash",
        "/CN=less<than>greater;semi/O=a=b/OU=plus \\+ sign",
        "/CN=#hash leading/OU= leading space/O=trailing space ",
        "/DC=com/DC=example/UID=jdoe+emailAddress=jdoe@example.com/serialNumber=12345",
        "/CN=x",
        longName,
    };
    TempDir dir;
    ASSERT_EQ(run_in(dir.path(), "openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 "
                                 "-out key.pem"),
              0);
    for (size_t index = 0; index < subjects.size(); ++index) {
        SCOPED_TRACE(subjects[index]);
        const std::string file = "c" + std::to_string(index) + ".pem";
        ASSERT_EQ(run_in(dir.path(), "openssl req -x509 -key key.pem -days 1 -utf8 "
                                     "-multivalue-rdn -subj '" +
                                         subjects[index] + "' -out " + file),
                  0)
            << "see " << (dir / "log.txt");
        const Bytes bytes = read_file(dir / file);
        const std::string pem(bytes.begin(), bytes.end());
        R_CERT* cert = nullptr;
        ASSERT_EQ(R_CERT_from_text(certCtx_, static_cast<uint32_t>(pem.size()), pem.c_str(), &cert),
                  R_ERROR_NONE);
        certs_.push_back(cert);
        const std::string expected = openssl_name_text(dir / file, "issuer");
        ASSERT_FALSE(expected.empty());
        EXPECT_EQ(text_of(info_name(cert, R_CERT_INFO_ISSUER_NAME)), expected);
        EXPECT_EQ(text_of(info_name(cert, R_CERT_INFO_SUBJECT_NAME)),
                  openssl_name_text(dir / file, "subject"));

        // The name travels as DER and comes back to the same text.
        R_CERT_NAME* issuer = nullptr;
        ASSERT_EQ(R_CERT_issuer_name_to_R_CERT_NAME(cert, 0, &issuer), R_ERROR_NONE);
        names_.push_back(issuer);
        R_CERT_NAME* again = name_from(der_of(issuer));
        EXPECT_EQ(text_of(again), expected);
        EXPECT_EQ(R_CERT_NAME_is_equal(again, issuer), 1);

        // The buffer must hold the text and its terminator.
        std::vector<char> exact(expected.size() + 1, 'x');
        EXPECT_EQ(R_CERT_NAME_to_string(again, static_cast<uint32_t>(exact.size()), exact.data()),
                  R_ERROR_NONE);
        EXPECT_EQ(std::string(exact.data()), expected);
        EXPECT_EQ(
            R_CERT_NAME_to_string(again, static_cast<uint32_t>(expected.size()), exact.data()),
            R_ERROR_BUFFER_TOO_SMALL);
    }
    // The shared issuer's certificate, made through the OpenSSL API.
    write_text(dir / "shared.pem", cert_pem(shared_issuer().cert.get()));
    R_CERT* shared = decode(cert_der(shared_issuer().cert.get()));
    EXPECT_EQ(text_of(info_name(shared, R_CERT_INFO_SUBJECT_NAME)),
              openssl_name_text(dir / "shared.pem", "subject"));
}

TEST_F(CertToolkitTest, NameDerIsKeptAsReceived) {
    // One RDN whose SET holds its two attributes in non-DER order (the longer
    // encoding first): re-encoding would sort them and change the bytes.
    const Bytes received = {0x30, 0x22, 0x31, 0x20, 0x30, 0x11, 0x06, 0x03, 0x55, 0x04, 0x0a, 0x0c,
                            0x0a, 'l',  'o',  'n',  'g',  'e',  'r',  ' ',  'o',  'r',  'g',  0x30,
                            0x0b, 0x06, 0x03, 0x55, 0x04, 0x03, 0x0c, 0x04, 'n',  'a',  'm',  'e'};
    Bytes withTrailing = received;
    withTrailing.push_back(0x00);
    withTrailing.push_back(0xff);
    // The module passes one variable for the length and the bytes consumed.
    uint32_t length = static_cast<uint32_t>(withTrailing.size());
    R_CERT_NAME* name = nullptr;
    ASSERT_EQ(R_CERT_NAME_from_binary(certCtx_, 1, length, withTrailing.data(), &length, &name),
              R_ERROR_NONE);
    names_.push_back(name);
    EXPECT_EQ(length, received.size());
    EXPECT_EQ(der_of(name), received);

    // Carried as a certificate's subject, the same bytes come back and the
    // text is what openssl prints.
    Cert carrier = make_leaf(shared_issuer(), LeafOptions{});
    const unsigned char* cursor = received.data();
    X509_NAME* subject = d2i_X509_NAME(nullptr, &cursor, static_cast<long>(received.size()));
    ASSERT_NE(subject, nullptr);
    X509_set_subject_name(carrier.get(), subject);
    X509_NAME_free(subject);
    carrier = resign(std::move(carrier));
    R_CERT* cert = decode(cert_der(carrier.get()));
    R_CERT_NAME* carried = info_name(cert, R_CERT_INFO_SUBJECT_NAME);
    EXPECT_EQ(der_of(carried), received);
    TempDir dir;
    write_text(dir / "carrier.pem", cert_pem(carrier.get()));
    EXPECT_EQ(text_of(carried), openssl_name_text(dir / "carrier.pem", "subject"));
    EXPECT_EQ(text_of(name), text_of(carried));

    uint32_t needed = 0;
    EXPECT_EQ(R_CERT_NAME_to_binary(name, 0, nullptr, &needed), R_ERROR_NONE);
    EXPECT_EQ(needed, received.size());
    Bytes small(received.size() - 1);
    needed = 0;
    EXPECT_EQ(
        R_CERT_NAME_to_binary(name, static_cast<uint32_t>(small.size()), small.data(), &needed),
        R_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(needed, received.size());
    EXPECT_EQ(R_CERT_NAME_to_binary(name, 4, nullptr, &needed), R_ERROR_NULL_ARG);

    // The issuer name of a certificate is its issuer field's bytes.
    const Cert leaf = make_leaf(shared_issuer(), LeafOptions{});
    cert = decode(cert_der(leaf.get()));
    const unsigned char* issuerDer = nullptr;
    size_t issuerLength = 0;
    ASSERT_EQ(X509_NAME_get0_der(X509_get_issuer_name(leaf.get()), &issuerDer, &issuerLength), 1);
    EXPECT_EQ(der_of(info_name(cert, R_CERT_INFO_ISSUER_NAME)),
              Bytes(issuerDer, issuerDer + issuerLength));

    // Not names.
    for (const Bytes& bad : {Bytes{}, Bytes{0x30}, Bytes(received.begin(), received.end() - 1),
                             Bytes{0x04, 0x01, 0x00}}) {
        R_CERT_NAME* none = nullptr;
        EXPECT_EQ(R_CERT_NAME_from_binary(certCtx_, 0, static_cast<uint32_t>(bad.size()),
                                          bad.data(), nullptr, &none),
                  R_ERROR_DECODE);
        EXPECT_EQ(none, nullptr);
    }
    EXPECT_EQ(R_CERT_NAME_from_binary(nullptr, 0, length, received.data(), nullptr, &name),
              R_ERROR_NULL_ARG);
    char text[64];
    EXPECT_EQ(R_CERT_NAME_to_string(nullptr, sizeof text, text), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CERT_NAME_to_string(name, sizeof text, nullptr), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CERT_NAME_free(nullptr), R_ERROR_NONE);
}

TEST_F(CertToolkitTest, NameMatchingFollowsRfc5280) {
    using Entries = std::vector<std::tuple<std::string, std::string, bool>>;
    const Entries base = {
        {"C", "US", false}, {"O", "Example Org", false}, {"CN", "Foo Bar", false}};
    R_CERT_NAME* reference = name_from(name_der(base));
    const std::vector<std::pair<Entries, int>> cases = {
        {base, 1},
        {{{"C", "us", false}, {"O", "EXAMPLE   org", false}, {"CN", "  foo bar ", false}}, 1},
        {{{"C", "US", false}, {"O", "Example Org", false}, {"CN", "Foo Baz", false}}, 0},
        {{{"C", "US", false}, {"O", "Example Org", false}}, 0},
        {{{"CN", "Foo Bar", false}, {"O", "Example Org", false}, {"C", "US", false}}, 0},
        {{{"C", "US", false}, {"O", "Example Org", false}, {"OU", "Foo Bar", false}}, 0},
        {{{"C", "US", false}, {"O", "Example Org", false}, {"CN", "Foo Bar", true}}, 0},
        {{{"C", "US", false}, {"O", "Example Org", false}, {"CN", "FooBar", false}}, 0},
    };
    for (const auto& [entries, expected] : cases) {
        R_CERT_NAME* other = name_from(name_der(entries));
        SCOPED_TRACE(text_of(other));
        EXPECT_EQ(R_CERT_NAME_is_equal(reference, other), expected);
        EXPECT_EQ(R_CERT_NAME_is_equal(other, reference), expected);
    }
    // A leaf's issuer matches the issuer's subject; the leaf's own subject does not.
    const Cert leaf = make_leaf(shared_issuer(), LeafOptions{});
    R_CERT* cert = decode(cert_der(leaf.get()));
    R_CERT* issuer = decode(cert_der(shared_issuer().cert.get()));
    EXPECT_EQ(R_CERT_NAME_is_equal(info_name(cert, R_CERT_INFO_ISSUER_NAME),
                                   info_name(issuer, R_CERT_INFO_SUBJECT_NAME)),
              1);
    EXPECT_EQ(R_CERT_NAME_is_equal(info_name(cert, R_CERT_INFO_SUBJECT_NAME),
                                   info_name(issuer, R_CERT_INFO_SUBJECT_NAME)),
              0);
    EXPECT_EQ(R_CERT_NAME_is_equal(nullptr, reference), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CERT_NAME_is_equal(reference, nullptr), R_ERROR_NULL_ARG);
}

TEST_F(CertToolkitTest, SerialIsTheEncodedContentOctets) {
    const std::vector<std::pair<Bytes, Bytes>> magnitudes = {
        {{0x01}, {0x01}},
        {{0x00}, {0x00}},
        {{0x7f, 0xff}, {0x7f, 0xff}},
        {{0x80}, {0x00, 0x80}},
        {{0x80, 0x01}, {0x00, 0x80, 0x01}},
        {{0xff, 0xee, 0xdd, 0xcc, 0xbb, 0xaa, 0x99, 0x88, 0x77, 0x66,
          0x55, 0x44, 0x33, 0x22, 0x11, 0x00, 0x01, 0x02, 0x03, 0x04},
         {0x00, 0xff, 0xee, 0xdd, 0xcc, 0xbb, 0xaa, 0x99, 0x88, 0x77, 0x66,
          0x55, 0x44, 0x33, 0x22, 0x11, 0x00, 0x01, 0x02, 0x03, 0x04}},
    };
    for (const auto& [magnitude, content] : magnitudes) {
        LeafOptions plan;
        plan.serial = magnitude;
        R_CERT* cert = decode(cert_der(make_leaf(shared_issuer(), plan).get()));
        R_ITEM item{};
        ASSERT_EQ(R_CERT_get_info(cert, R_CERT_INFO_SERIAL, &item), R_ERROR_NONE);
        EXPECT_EQ(Bytes(item.data, item.data + item.len), content);
        // The bytes belong to the certificate and stay put.
        R_ITEM second{};
        ASSERT_EQ(R_CERT_get_info(cert, R_CERT_INFO_SERIAL, &second), R_ERROR_NONE);
        EXPECT_EQ(second.data, item.data);
    }
    // Negative serials (seen in the wild) are two's complement as encoded.
    for (const auto& [value, content] :
         std::vector<std::pair<long, Bytes>>{{-5, {0xfb}}, {-128, {0x80}}, {-129, {0xff, 0x7f}}}) {
        Cert leaf = make_leaf(shared_issuer(), LeafOptions{});
        ASN1_INTEGER_set(X509_get_serialNumber(leaf.get()), value);
        R_CERT* cert = decode(cert_der(resign(std::move(leaf)).get()));
        R_ITEM item{};
        ASSERT_EQ(R_CERT_get_info(cert, R_CERT_INFO_SERIAL, &item), R_ERROR_NONE);
        EXPECT_EQ(Bytes(item.data, item.data + item.len), content) << value;
    }
}

TEST_F(CertToolkitTest, DecodeDerAndPem) {
    LeafOptions plan;
    plan.notBefore = 1700000000;
    plan.notAfter = 2700000000; // after 2049: GeneralizedTime
    const Cert leaf = make_leaf(shared_issuer(), plan);
    const Bytes der = cert_der(leaf.get());
    const std::string pem = cert_pem(leaf.get());
    std::string crlf;
    for (char c : pem)
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);

    const auto check = [&](R_CERT* cert) {
        ASSERT_NE(cert, nullptr);
        int64_t seconds = 0;
        EXPECT_EQ(R_CERT_get_info(cert, R_CERT_INFO_NOT_BEFORE, &seconds), R_ERROR_NONE);
        EXPECT_EQ(seconds, 1700000000);
        EXPECT_EQ(R_CERT_get_info(cert, R_CERT_INFO_NOT_AFTER, &seconds), R_ERROR_NONE);
        EXPECT_EQ(seconds, 2700000000);
        uint32_t length = 0;
        ASSERT_EQ(R_CERT_to_binary(cert, 0, nullptr, &length), R_ERROR_NONE);
        Bytes encoded(length);
        EXPECT_EQ(R_CERT_to_binary(cert, length - 1, encoded.data(), &length),
                  R_ERROR_BUFFER_TOO_SMALL);
        EXPECT_EQ(R_CERT_to_binary(cert, length, encoded.data(), &length), R_ERROR_NONE);
        EXPECT_EQ(encoded, der);
    };

    Bytes trailing = der;
    trailing.insert(trailing.end(), {0x30, 0x00, 0xde, 0xad});
    {
        R_CERT* cert = nullptr;
        uint32_t consumed = 0;
        ASSERT_EQ(R_CERT_from_binary(certCtx_, 0, static_cast<uint32_t>(trailing.size()),
                                     trailing.data(), &consumed, &cert),
                  R_ERROR_NONE);
        certs_.push_back(cert);
        EXPECT_EQ(consumed, der.size()); // trailing bytes are left alone
        check(cert);
    }

    const std::string otherBlock = "-----BEGIN X509 CRL-----\nMAA=\n-----END X509 CRL-----\n";
    for (const std::string& text : {pem, crlf, "junk before\n" + otherBlock + pem + otherBlock}) {
        R_CERT* cert = nullptr;
        ASSERT_EQ(
            R_CERT_from_text(certCtx_, static_cast<uint32_t>(text.size()), text.data(), &cert),
            R_ERROR_NONE);
        certs_.push_back(cert);
        check(cert);
    }

    // What is not a certificate.
    std::vector<Bytes> bad = {Bytes{}, Bytes{0x30, 0x00}};
    for (size_t length = 1; length < der.size(); length += 7)
        bad.emplace_back(der.begin(), der.begin() + static_cast<long>(length));
    bad.push_back(make_crl(shared_issuer(), CrlOptions{}));
    for (const Bytes& bytes : bad) {
        R_CERT* cert = nullptr;
        EXPECT_EQ(R_CERT_from_binary(certCtx_, 0, static_cast<uint32_t>(bytes.size()), bytes.data(),
                                     nullptr, &cert),
                  R_ERROR_DECODE)
            << bytes.size();
        EXPECT_EQ(cert, nullptr);
    }
    std::string damaged = pem;
    damaged[pem.size() / 2] = '*';
    for (const std::string& text : {std::string(), otherBlock, pem.substr(0, pem.size() / 2),
                                    damaged, std::string("not PEM at all")}) {
        R_CERT* cert = nullptr;
        EXPECT_EQ(
            R_CERT_from_text(certCtx_, static_cast<uint32_t>(text.size()), text.data(), &cert),
            R_ERROR_DECODE);
        EXPECT_EQ(cert, nullptr);
    }

    R_CERT* cert = nullptr;
    const auto size = static_cast<uint32_t>(der.size());
    EXPECT_EQ(R_CERT_from_binary(certCtx_, 1, size, der.data(), nullptr, &cert), R_ERROR_FAILED);
    EXPECT_EQ(R_CERT_from_binary(nullptr, 0, size, der.data(), nullptr, &cert), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CERT_from_binary(certCtx_, 0, size, nullptr, nullptr, &cert), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CERT_from_text(certCtx_, 4, nullptr, &cert), R_ERROR_NULL_ARG);
    EXPECT_EQ(cert, nullptr);
    R_CERT* good = certs_.front();
    uint32_t unused = 0;
    EXPECT_EQ(R_CERT_get_info(good, 0x7777, &unused), R_ERROR_FAILED);
    EXPECT_EQ(R_CERT_get_info(good, R_CERT_INFO_SERIAL, nullptr), R_ERROR_NULL_ARG);
    R_CERT_NAME* name = nullptr;
    EXPECT_EQ(R_CERT_issuer_name_to_R_CERT_NAME(good, 1, &name), R_ERROR_FAILED);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(R_CERT_free(nullptr), R_ERROR_NONE);
}

TEST_F(CertToolkitTest, DistributionPointsFromTheTestPki) {
    LeafOptions plan;
    plan.distributionPoints = {
        {"ldap://ldap.example.com/cn=CA,o=Example?certificateRevocationList;binary",
         "http://crl.example.com/ca.crl"},
        {"ldap://second.example.com/cn=CA"},
        {"http://a/1", "http://a/2", "ldap://a/3"},
    };
    R_CERT* cert = decode(cert_der(make_leaf(shared_issuer(), plan).get()));
    uint32_t count = 0;
    ASSERT_EQ(R_CERT_get_info(cert, R_CERT_INFO_DIST_POINT_COUNT, &count), R_ERROR_NONE);
    ASSERT_EQ(count, plan.distributionPoints.size());
    for (uint32_t index = 0; index < count; ++index) {
        uint32_t kind = 9, reasons = 9, names = 0;
        ASSERT_EQ(R_CERT_get_dist_point(cert, index, &kind, &reasons, &names), R_ERROR_NONE);
        EXPECT_EQ(kind, R_DIST_POINT_FULL_NAME);
        EXPECT_EQ(reasons, 0u);
        ASSERT_EQ(names, plan.distributionPoints[index].size());
        for (uint32_t n = 0; n < names; ++n) {
            uint16_t type = 0;
            EXPECT_EQ(point_name(cert, index, n, &type), plan.distributionPoints[index][n]);
            EXPECT_EQ(type, R_GENERAL_NAME_URI);
        }
        uint16_t type = 0;
        uint32_t length = 0;
        EXPECT_EQ(R_CERT_get_dist_point_name(cert, index, names, &type, 0, nullptr, &length),
                  R_ERROR_NOT_PRESENT);
    }
    uint32_t kind = 0, reasons = 0, names = 0;
    EXPECT_EQ(R_CERT_get_dist_point(cert, count, &kind, &reasons, &names), R_ERROR_NOT_PRESENT);

    // The text must fit with its terminator; the length is reported either way.
    const std::string& first = plan.distributionPoints[0][0];
    std::vector<char> buffer(first.size());
    uint16_t type = 0;
    uint32_t length = 0;
    EXPECT_EQ(R_CERT_get_dist_point_name(cert, 0, 0, &type, static_cast<uint32_t>(buffer.size()),
                                         buffer.data(), &length),
              R_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, first.size());
    EXPECT_EQ(R_CERT_get_dist_point_name(cert, 0, 0, &type, 5, nullptr, &length), R_ERROR_NULL_ARG);

    // No extension: no points.
    R_CERT* plain = decode(cert_der(make_leaf(shared_issuer(), LeafOptions{}).get()));
    ASSERT_EQ(R_CERT_get_info(plain, R_CERT_INFO_DIST_POINT_COUNT, &count), R_ERROR_NONE);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(R_CERT_get_dist_point(plain, 0, &kind, &reasons, &names), R_ERROR_NOT_PRESENT);

    // An extension that does not parse is reported where the points are asked for.
    Cert broken = make_leaf(shared_issuer(), LeafOptions{});
    ASN1_OCTET_STRING* value = ASN1_OCTET_STRING_new();
    const unsigned char notPoints[] = {0x05, 0x00};
    ASN1_OCTET_STRING_set(value, notPoints, sizeof notPoints);
    X509_EXTENSION* extension =
        X509_EXTENSION_create_by_NID(nullptr, NID_crl_distribution_points, 0, value);
    X509_add_ext(broken.get(), extension, -1);
    X509_EXTENSION_free(extension);
    ASN1_OCTET_STRING_free(value);
    R_CERT* odd = decode(cert_der(resign(std::move(broken)).get()));
    ASSERT_NE(odd, nullptr);
    EXPECT_EQ(R_CERT_get_info(odd, R_CERT_INFO_DIST_POINT_COUNT, &count), R_ERROR_DECODE);
    EXPECT_EQ(R_CERT_get_dist_point(odd, 0, &kind, &reasons, &names), R_ERROR_DECODE);
}

// Distribution points written by the openssl command: every kind of point
// name and general name, and reasons.
TEST_F(CertToolkitTest, DistributionPointsFromTheOpensslCommand) {
    TempDir dir;
    write_text(dir / "ext.cnf",
               "[ req ]\ndistinguished_name = dn\n[ dn ]\n"
               "[ ext ]\ncrlDistributionPoints = full, relative, issuerOnly, "
               "URI:ldap://ldap.example.com/cn=Test%20CA?certificateRevocationList;binary\n"
               "[ full ]\nfullname = URI:http://crl.example.com/a.crl, DNS:crl.example.com, "
               "email:ca@example.com, dirName:dir, IP:127.0.0.1\n"
               "reasons = keyCompromise, CACompromise, AACompromise\n"
               "[ relative ]\nrelativename = rdn\n"
               "[ issuerOnly ]\nCRLissuer = dirName:dir\n"
               "[ dir ]\nC = UK\nO = Organisation\nCN = Some Name\n"
               "[ rdn ]\nCN = Relative\n");
    ASSERT_EQ(run_in(dir.path(), "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 "
                                 "-nodes -keyout k.pem -days 1 -subj /CN=points -config ext.cnf "
                                 "-extensions ext -outform DER -out c.der && "
                                 "openssl req -x509 -key k.pem -days 1 -subj /CN=addext "
                                 "-addext 'crlDistributionPoints=URI:ldap://ldap.example.com/"
                                 "cn=CA?certificateRevocationList;binary,URI:http://x/y.crl' "
                                 "-outform DER -out addext.der"),
              0)
        << "see " << (dir / "log.txt");
    R_CERT* cert = decode(read_file(dir / "c.der"));
    uint32_t count = 0;
    ASSERT_EQ(R_CERT_get_info(cert, R_CERT_INFO_DIST_POINT_COUNT, &count), R_ERROR_NONE);
    ASSERT_EQ(count, 4u);

    struct Expected {
        uint32_t kind;
        uint32_t reasons;
        std::vector<std::pair<uint16_t, std::string>> names;
    };
    const std::vector<Expected> expected = {
        {R_DIST_POINT_FULL_NAME,
         (1u << 1) | (1u << 2) | (1u << 8),
         {{R_GENERAL_NAME_URI, "http://crl.example.com/a.crl"},
          {R_GENERAL_NAME_DNS, "crl.example.com"},
          {R_GENERAL_NAME_EMAIL, "ca@example.com"},
          {R_GENERAL_NAME_DIRECTORY, "CN=Some Name,O=Organisation,C=UK"},
          {R_GENERAL_NAME_OTHER, ""}}},
        {R_DIST_POINT_RELATIVE, 0, {}},
        {R_DIST_POINT_NONE, 0, {}},
        {R_DIST_POINT_FULL_NAME,
         0,
         {{R_GENERAL_NAME_URI,
           "ldap://ldap.example.com/cn=Test%20CA?certificateRevocationList;binary"}}},
    };
    for (uint32_t index = 0; index < count; ++index) {
        SCOPED_TRACE("point " + std::to_string(index));
        uint32_t kind = 99, reasons = 99, names = 99;
        ASSERT_EQ(R_CERT_get_dist_point(cert, index, &kind, &reasons, &names), R_ERROR_NONE);
        EXPECT_EQ(kind, expected[index].kind);
        EXPECT_EQ(reasons, expected[index].reasons);
        ASSERT_EQ(names, expected[index].names.size());
        for (uint32_t n = 0; n < names; ++n) {
            uint16_t type = 0;
            EXPECT_EQ(point_name(cert, index, n, &type), expected[index].names[n].second);
            EXPECT_EQ(type, expected[index].names[n].first);
        }
    }

    // In the one-line form each URI is a point of its own.
    R_CERT* added = decode(read_file(dir / "addext.der"));
    ASSERT_EQ(R_CERT_get_info(added, R_CERT_INFO_DIST_POINT_COUNT, &count), R_ERROR_NONE);
    ASSERT_EQ(count, 2u);
    const char* uris[] = {"ldap://ldap.example.com/cn=CA?certificateRevocationList;binary",
                          "http://x/y.crl"};
    for (uint32_t index = 0; index < count; ++index) {
        uint32_t kind = 0, reasons = 0, names = 0;
        ASSERT_EQ(R_CERT_get_dist_point(added, index, &kind, &reasons, &names), R_ERROR_NONE);
        EXPECT_EQ(kind, R_DIST_POINT_FULL_NAME);
        ASSERT_EQ(names, 1u);
        uint16_t type = 0;
        EXPECT_EQ(point_name(added, index, 0, &type), uris[index]);
        EXPECT_EQ(type, R_GENERAL_NAME_URI);
    }
}
