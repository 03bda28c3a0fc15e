#include "test_pki.h"

#include <ctime>
#include <map>
#include <stdexcept>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include "files.h"

namespace qxtest {

namespace {

void require(bool ok, const char* what) {
    if (!ok)
        throw std::runtime_error(std::string("test PKI: ") + what);
}

// What bio holds, as text; bio is freed.
std::string text_of(BIO* bio) {
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio, &text);
    std::string pem(text, static_cast<size_t>(length));
    BIO_free(bio);
    return pem;
}

const EVP_MD* digest_for(KeyKind kind) {
    return kind == KeyKind::Ed25519 || kind == KeyKind::Ed448 ? nullptr : EVP_sha256();
}

X509_EXTENSION* raw_extension(const RawExtension& raw) {
    ASN1_OBJECT* oid = OBJ_txt2obj(raw.oid.c_str(), 1);
    require(oid != nullptr, "extension OID");
    ASN1_OCTET_STRING* value = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(value, raw.value.data(), static_cast<int>(raw.value.size()));
    X509_EXTENSION* extension =
        X509_EXTENSION_create_by_OBJ(nullptr, oid, raw.critical ? 1 : 0, value);
    ASN1_OBJECT_free(oid);
    ASN1_OCTET_STRING_free(value);
    require(extension != nullptr, "extension");
    return extension;
}

ASN1_INTEGER* integer_from_magnitude(const Bytes& magnitude) {
    BIGNUM* number = BN_bin2bn(magnitude.data(), static_cast<int>(magnitude.size()), nullptr);
    ASN1_INTEGER* integer = BN_to_ASN1_INTEGER(number, nullptr);
    BN_free(number);
    require(integer != nullptr, "serial");
    return integer;
}

void sign_crl(X509_CRL* crl, const Issuer& issuer, const std::string& digestName) {
    const EVP_MD* digest = digest_for(issuer.kind);
    if (digest != nullptr && !digestName.empty()) {
        digest = EVP_get_digestbyname(digestName.c_str());
        require(digest != nullptr, "CRL digest");
    }
    if (issuer.kind == KeyKind::RsaPss) {
        EVP_MD_CTX* md = EVP_MD_CTX_new();
        EVP_PKEY_CTX* pctx = nullptr;
        require(EVP_DigestSignInit(md, &pctx, digest, nullptr, issuer.key.get()) == 1, "PSS init");
        EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING);
        EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, RSA_PSS_SALTLEN_DIGEST);
        require(X509_CRL_sign_ctx(crl, md) > 0, "PSS CRL signature");
        EVP_MD_CTX_free(md);
        return;
    }
    require(X509_CRL_sign(crl, issuer.key.get(), digest) > 0, "CRL signature");
}

} // namespace

Pkey make_key(KeyKind kind) {
    EVP_PKEY* key = nullptr;
    switch (kind) {
    case KeyKind::Rsa2048:
    case KeyKind::RsaPss:
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048));
        break;
    case KeyKind::EcP256:
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
        break;
    case KeyKind::Ed25519:
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
        break;
    case KeyKind::Ed448:
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448");
        break;
    }
    require(key != nullptr, "key generation");
    return Pkey(key);
}

std::string key_pem(const EVP_PKEY* key) {
    BIO* bio = BIO_new(BIO_s_mem());
    require(bio != nullptr &&
                PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
            "key PEM");
    return text_of(bio);
}

Bytes key_der(const EVP_PKEY* key) {
    PKCS8_PRIV_KEY_INFO* info = EVP_PKEY2PKCS8(key);
    require(info != nullptr, "key PKCS#8");
    unsigned char* der = nullptr;
    const int length = i2d_PKCS8_PRIV_KEY_INFO(info, &der);
    PKCS8_PRIV_KEY_INFO_free(info);
    require(length > 0, "key DER");
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

Issuer make_issuer(const IssuerOptions& recipe) {
    Issuer issuer{recipe.commonName, recipe.kind, make_key(recipe.kind), Cert(X509_new())};
    X509* cert = issuer.cert.get();
    X509_set_version(cert, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1000);
    const NameRecipe subject = !recipe.subject.empty()
                                   ? recipe.subject
                                   : NameRecipe{{{"C", "US", MBSTRING_ASC}},
                                                {{"O", "qxcrl tests", MBSTRING_ASC}},
                                                {{"CN", recipe.commonName, MBSTRING_UTF8}}};
    X509_NAME* name = X509_get_subject_name(cert);
    for (const auto& rdn : subject) {
        for (size_t i = 0; i < rdn.size(); ++i) {
            // set -1 joins the attribute to the RDN before it.
            require(X509_NAME_add_entry_by_txt(
                        name, rdn[i].type.c_str(), rdn[i].encoding,
                        reinterpret_cast<const unsigned char*>(rdn[i].value.data()),
                        static_cast<int>(rdn[i].value.size()), -1, i == 0 ? 0 : -1) == 1,
                    "name attribute");
        }
    }
    X509_set_issuer_name(cert, name);
    ASN1_TIME_set(X509_getm_notBefore(cert), recipe.notBefore);
    ASN1_TIME_set(X509_getm_notAfter(cert), recipe.notAfter);
    X509_set_pubkey(cert, issuer.key.get());

    X509V3_CTX v3;
    X509V3_set_ctx(&v3, cert, cert, nullptr, nullptr, 0);
    for (auto [nid, value] : {std::pair{NID_basic_constraints, "critical,CA:TRUE"},
                              std::pair{NID_key_usage, recipe.keyUsage.c_str()},
                              std::pair{NID_subject_key_identifier, "hash"}}) {
        if ((nid == NID_subject_key_identifier && !recipe.subjectKeyIdentifier) ||
            (nid == NID_key_usage && recipe.keyUsage.empty()))
            continue;
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &v3, nid, value);
        require(extension != nullptr, "issuer extension");
        X509_add_ext(cert, extension, -1);
        X509_EXTENSION_free(extension);
    }
    require(X509_sign(cert, issuer.key.get(), digest_for(recipe.kind)) > 0, "issuer signature");
    return issuer;
}

Cert make_leaf(const Issuer& issuer, const LeafOptions& recipe) {
    Cert cert(X509_new());
    Pkey key = make_key(KeyKind::EcP256);
    X509* leaf = cert.get();
    X509_set_version(leaf, X509_VERSION_3);
    ASN1_INTEGER* serial = integer_from_magnitude(recipe.serial);
    X509_set_serialNumber(leaf, serial);
    ASN1_INTEGER_free(serial);
    X509_set_issuer_name(leaf, X509_get_subject_name(issuer.cert.get()));
    X509_NAME* name = X509_get_subject_name(leaf);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(recipe.commonName.c_str()),
                               -1, -1, 0);
    ASN1_TIME_set(X509_getm_notBefore(leaf), recipe.notBefore);
    ASN1_TIME_set(X509_getm_notAfter(leaf), recipe.notAfter);
    X509_set_pubkey(leaf, key.get());
    if (!recipe.distributionPoints.empty()) {
        CRL_DIST_POINTS* points = sk_DIST_POINT_new_null();
        for (const auto& uris : recipe.distributionPoints) {
            DIST_POINT* point = DIST_POINT_new();
            point->distpoint = DIST_POINT_NAME_new();
            point->distpoint->type = 0;
            point->distpoint->name.fullname = sk_GENERAL_NAME_new_null();
            for (const std::string& uri : uris) {
                GENERAL_NAME* general = GENERAL_NAME_new();
                ASN1_IA5STRING* text = ASN1_IA5STRING_new();
                ASN1_STRING_set(text, uri.data(), static_cast<int>(uri.size()));
                GENERAL_NAME_set0_value(general, GEN_URI, text);
                sk_GENERAL_NAME_push(point->distpoint->name.fullname, general);
            }
            sk_DIST_POINT_push(points, point);
        }
        X509_add1_ext_i2d(leaf, NID_crl_distribution_points, points, 0, 0);
        sk_DIST_POINT_pop_free(points, DIST_POINT_free);
    }
    require(X509_sign(leaf, issuer.key.get(), digest_for(issuer.kind)) > 0, "leaf signature");
    return cert;
}

const Issuer& shared_issuer(KeyKind kind) {
    static std::map<KeyKind, Issuer> issuers;
    auto found = issuers.find(kind);
    if (found == issuers.end()) {
        IssuerOptions recipe;
        recipe.kind = kind;
        recipe.commonName = "qxcrl Shared CA " + std::to_string(static_cast<int>(kind));
        found = issuers.emplace(kind, make_issuer(recipe)).first;
    }
    return found->second;
}

Bytes make_crl(const Issuer& issuer, const CrlOptions& recipe) {
    X509_CRL* crl = X509_CRL_new();
    require(crl != nullptr, "CRL");
    X509_CRL_set_version(crl, X509_CRL_VERSION_2);
    X509_CRL_set_issuer_name(crl, X509_get_subject_name(issuer.cert.get()));
    ASN1_TIME* time = ASN1_TIME_set(nullptr, recipe.thisUpdate);
    X509_CRL_set1_lastUpdate(crl, time);
    if (recipe.nextUpdate) {
        ASN1_TIME_set(time, *recipe.nextUpdate);
        X509_CRL_set1_nextUpdate(crl, time);
    }
    for (const RevokedEntry& entry : recipe.revoked) {
        X509_REVOKED* revoked = X509_REVOKED_new();
        ASN1_INTEGER* serial = integer_from_magnitude(entry.serial);
        X509_REVOKED_set_serialNumber(revoked, serial);
        ASN1_INTEGER_free(serial);
        ASN1_TIME_set(time, entry.revocationDate);
        X509_REVOKED_set_revocationDate(revoked, time);
        for (const RawExtension& raw : entry.extensions) {
            X509_EXTENSION* extension = raw_extension(raw);
            X509_REVOKED_add_ext(revoked, extension, -1);
            X509_EXTENSION_free(extension);
        }
        X509_CRL_add0_revoked(crl, revoked);
    }
    ASN1_TIME_free(time);
    if (recipe.crlNumber) {
        ASN1_INTEGER* number = ASN1_INTEGER_new();
        ASN1_INTEGER_set(number, *recipe.crlNumber);
        X509_CRL_add1_ext_i2d(crl, NID_crl_number, number, 0, 0);
        ASN1_INTEGER_free(number);
    }
    for (const RawExtension& raw : recipe.extensions) {
        X509_EXTENSION* extension = raw_extension(raw);
        X509_CRL_add_ext(crl, extension, -1);
        X509_EXTENSION_free(extension);
    }
    X509_CRL_sort(crl);
    sign_crl(crl, issuer, recipe.digest);
    unsigned char* der = nullptr;
    const int length = i2d_X509_CRL(crl, &der);
    X509_CRL_free(crl);
    require(length > 0, "CRL encoding");
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

Bytes shared_crl_revoking(unsigned char serial) {
    CrlOptions options;
    options.revoked.push_back(revoked_serial({serial}));
    options.crlNumber = serial;
    return make_crl(shared_issuer(), options);
}

Bytes openssl_ca_crl(const std::filesystem::path& dir, const Issuer& issuer,
                     const OpensslCaOptions& recipe) {
    write_text(dir / "ca.key", key_pem(issuer.key.get()));
    write_text(dir / "ca.pem", cert_pem(issuer.cert.get()));
    // A crlnumber file has openssl number its CRLs, which makes them v2.
    write_text(
        dir / "ca.cnf",
        std::string("[ ca ]\ndefault_ca = test_ca\n"
                    "[ test_ca ]\ndatabase = ./index.txt\ncertificate = ./ca.pem\n"
                    "private_key = ./ca.key\ndefault_crl_days = 7\n"
                    "default_md = ") +
            recipe.digest + "\n" + (recipe.crlExtensions ? "crlnumber = ./crlnumber\n" : "") +
            "[ crl_ext ]\nauthorityKeyIdentifier = keyid:always\n" + recipe.moreCrlExtensions);
    std::string commands = "touch index.txt && echo 01 > crlnumber";
    for (size_t i = 0; i < recipe.revoked.size(); ++i) {
        LeafOptions leaf;
        leaf.serial = recipe.revoked[i];
        const std::string name = "leaf" + std::to_string(i) + ".pem";
        write_text(dir / name, cert_pem(make_leaf(issuer, leaf).get()));
        // A certificate the CA has no record of is recorded, then revoked.
        commands += " && openssl ca -config ca.cnf -revoke " + name;
        if (!recipe.reason.empty())
            commands += " -crl_reason " + recipe.reason;
    }
    commands += " && openssl ca -config ca.cnf -gencrl";
    if (recipe.crlExtensions)
        commands += " -crlexts crl_ext";
    commands += " -out crl.pem && openssl crl -in crl.pem -outform DER -out crl.der";
    if (run_in(dir, commands) != 0) {
        ADD_FAILURE() << "openssl ca failed; see " << (dir / "log.txt");
        return {};
    }
    return read_file(dir / "crl.der");
}

Crl openssl_crl(const Bytes& der) {
    const unsigned char* cursor = der.data();
    Crl crl(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size())));
    EXPECT_NE(crl, nullptr);
    return crl;
}

std::string rfc3339(const ASN1_TIME* time) {
    struct tm fields {};
    EXPECT_EQ(ASN1_TIME_to_tm(time, &fields), 1);
    char text[32] = {};
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &fields);
    return text;
}

Bytes cert_der(const X509* cert) {
    unsigned char* der = nullptr;
    const int length = i2d_X509(cert, &der);
    require(length > 0, "certificate encoding");
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

std::string cert_pem(const X509* cert) {
    BIO* bio = BIO_new(BIO_s_mem());
    require(bio != nullptr && PEM_write_bio_X509(bio, cert) == 1, "certificate PEM");
    return text_of(bio);
}

std::string crl_pem(const Bytes& der) {
    const Crl crl = openssl_crl(der);
    BIO* bio = BIO_new(BIO_s_mem());
    require(crl != nullptr && bio != nullptr && PEM_write_bio_X509_CRL(bio, crl.get()) == 1,
            "CRL PEM");
    return text_of(bio);
}

std::string pem_block_of(const Bytes& bytes, const char* label) {
    BIO* bio = BIO_new(BIO_s_mem());
    require(bio != nullptr &&
                PEM_write_bio(bio, label, "", bytes.data(), static_cast<long>(bytes.size())) > 0,
            "PEM block");
    return text_of(bio);
}

} // namespace qxtest
