// Signing a CRL: issuer name, Authority Key Identifier and CRL Number from
// the issuer, entries sorted by serial, then the signature over the
// to-be-signed bytes as written.
//
// The signed CRL is written next to the old one and replaces it only once
// signed, so a refusal or a failed signature leaves the caller's CRL
// untouched. Entries are copied as they are, never decoded.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include "r_crl_parts.h"

namespace {

struct Scheme {
    const char* keyType; // what EVP_PKEY_is_a calls the key it needs
    const char* digest;  // NULL for EdDSA, which hashes on its own
    bool pss;
};

bool scheme_of(uint32_t algorithm, Scheme* scheme) {
    switch (algorithm) {
    case R_SIG_ALG_SHA1_WITH_RSA:
        *scheme = {"RSA", "SHA1", false};
        return true;
    case R_SIG_ALG_SHA256_WITH_RSA:
        *scheme = {"RSA", "SHA256", false};
        return true;
    case R_SIG_ALG_SHA384_WITH_RSA:
        *scheme = {"RSA", "SHA384", false};
        return true;
    case R_SIG_ALG_SHA512_WITH_RSA:
        *scheme = {"RSA", "SHA512", false};
        return true;
    case R_SIG_ALG_ECDSA_SHA256:
        *scheme = {"EC", "SHA256", false};
        return true;
    case R_SIG_ALG_ECDSA_SHA384:
        *scheme = {"EC", "SHA384", false};
        return true;
    case R_SIG_ALG_ECDSA_SHA512:
        *scheme = {"EC", "SHA512", false};
        return true;
    case R_SIG_ALG_ED25519:
        *scheme = {"ED25519", nullptr, false};
        return true;
    case R_SIG_ALG_ED448:
        *scheme = {"ED448", nullptr, false};
        return true;
    case R_SIG_ALG_RSA_PSS_SHA256:
        *scheme = {"RSA", "SHA256", true};
        return true;
    case R_SIG_ALG_RSA_PSS_SHA384:
        *scheme = {"RSA", "SHA384", true};
        return true;
    case R_SIG_ALG_RSA_PSS_SHA512:
        *scheme = {"RSA", "SHA512", true};
        return true;
    default:
        // MD5 among them: its collisions make a forged CRL affordable.
        return false;
    }
}

bool key_fits(EVP_PKEY* key, const Scheme& scheme) {
    if (EVP_PKEY_is_a(key, scheme.keyType))
        return true;
    // A key restricted to PSS can make PSS signatures and nothing else.
    return scheme.pss && EVP_PKEY_is_a(key, "RSA-PSS");
}

constexpr unsigned char version_2[] = {r_der_integer, 0x01, 0x01};
constexpr unsigned char authority_key_id_oid[] = {0x55, 0x1d, 0x23};
constexpr unsigned char crl_number_oid[] = {0x55, 0x1d, 0x14};

// An element of tag around content, appended to out.
void append_element(std::vector<unsigned char>* out, unsigned char tag,
                    const unsigned char* content, size_t length) {
    unsigned char header[16];
    const unsigned char* end = r_der_write_header(header, tag, length);
    out->insert(out->end(), static_cast<const unsigned char*>(header), end);
    out->insert(out->end(), content, content + length);
}

// A non-critical extension whose extnValue holds value.
void append_extension(std::vector<unsigned char>* out, const unsigned char* oid, size_t oidLength,
                      const std::vector<unsigned char>& value) {
    std::vector<unsigned char> fields;
    append_element(&fields, r_der_oid, oid, oidLength);
    append_element(&fields, r_der_octet_string, value.data(), value.size());
    append_element(out, r_der_sequence, fields.data(), fields.size());
}

// One more than the CRL's number, which may be of any size; 1 when it has
// none. As content octets of an INTEGER.
int next_crl_number(const R_CRL* crl, std::vector<unsigned char>* octets) {
    RDer list = r_crl_view(crl, crl->index.extensionList);
    RExtView ext;
    RDer current;
    int seen = 0;
    while (r_ext_next(&list, &ext)) {
        if (r_ext_nid(ext.oid) == NID_crl_number) {
            current = ext.value;
            ++seen;
        }
    }
    // Two numbers give no one number to follow.
    if (seen > 1)
        return R_ERROR_DECODE;
    std::unique_ptr<BIGNUM, decltype(&BN_free)> number(nullptr, BN_free);
    if (seen == 0) {
        number.reset(BN_new());
    } else {
        const unsigned char* cursor = current.data;
        ASN1_INTEGER* read = d2i_ASN1_INTEGER(nullptr, &cursor, static_cast<long>(current.length));
        if (read == nullptr)
            return R_ERROR_DECODE;
        number.reset(ASN1_INTEGER_to_BN(read, nullptr));
        ASN1_INTEGER_free(read);
    }
    if (number == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    if (BN_is_negative(number.get()))
        return R_ERROR_DECODE;
    if (BN_add_word(number.get(), 1) != 1)
        return R_ERROR_ALLOC_FAILURE;
    // A leading zero octet keeps a high first bit from reading as a sign.
    const int bytes = BN_num_bytes(number.get());
    const bool pad = BN_num_bits(number.get()) % 8 == 0;
    octets->assign(static_cast<size_t>(bytes) + (pad ? 1 : 0), 0);
    BN_bn2bin(number.get(), octets->data() + (pad ? 1 : 0));
    return R_ERROR_NONE;
}

// The CRL's extensions with the Authority Key Identifier and CRL Number
// replaced (appended, in that order) by those of this signature.
int signed_extensions(const R_CRL* crl, X509* issuer, std::vector<unsigned char>* list) {
    std::vector<unsigned char> number;
    if (const int status = next_crl_number(crl, &number); status != R_ERROR_NONE)
        return status;
    RDer rest = r_crl_view(crl, crl->index.extensionList);
    RExtView ext;
    while (r_ext_next(&rest, &ext)) {
        const int nid = r_ext_nid(ext.oid);
        if (nid != NID_crl_number && nid != NID_authority_key_identifier)
            list->insert(list->end(), ext.whole.data, ext.whole.data + ext.whole.length);
    }
    // An identifier of some other key would point path building astray, so
    // without the issuer's there is none.
    if (const ASN1_OCTET_STRING* keyId = X509_get0_subject_key_id(issuer); keyId != nullptr) {
        std::vector<unsigned char> authority;
        std::vector<unsigned char> keyIdentifier;
        append_element(&keyIdentifier, 0x80, ASN1_STRING_get0_data(keyId),
                       static_cast<size_t>(ASN1_STRING_length(keyId)));
        append_element(&authority, r_der_sequence, keyIdentifier.data(), keyIdentifier.size());
        append_extension(list, authority_key_id_oid, sizeof authority_key_id_oid, authority);
    }
    std::vector<unsigned char> integer;
    append_element(&integer, r_der_integer, number.data(), number.size());
    append_extension(list, crl_number_oid, sizeof crl_number_oid, integer);
    return R_ERROR_NONE;
}

// The entries in serial order, as lookups elsewhere expect them; the list
// as it is when it already is.
void sorted_entries(const R_CRL* crl, std::vector<unsigned char>* sorted, RDer* list) {
    *list = r_crl_view(crl, crl->index.entryList);
    if (crl->index.entriesSorted)
        return;
    std::vector<RDer> elements;
    elements.reserve(crl->index.entryCount);
    RDer rest = *list;
    RDerElement entry;
    while (r_der_next(&rest, &entry))
        elements.push_back(entry.whole);
    std::stable_sort(elements.begin(), elements.end(), [](const RDer& a, const RDer& b) {
        return r_serial_order(r_entry_view(a).serial, r_entry_view(b).serial) < 0;
    });
    sorted->reserve(list->length);
    for (const RDer& element : elements)
        sorted->insert(sorted->end(), element.data, element.data + element.length);
    *list = {sorted->data(), sorted->size()};
}

// A signing context for scheme, and the AlgorithmIdentifier its signatures carry.
int start_signing(EVP_PKEY* key, const Scheme& scheme, OSSL_LIB_CTX* ossl, EVP_MD_CTX** context,
                  std::vector<unsigned char>* algorithm) {
    *context = EVP_MD_CTX_new();
    if (*context == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    EVP_PKEY_CTX* keyContext = nullptr;
    bool ready = EVP_DigestSignInit_ex(*context, &keyContext, scheme.digest, ossl, nullptr, key,
                                       nullptr) == 1;
    if (ready && scheme.pss)
        ready = EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) == 1 &&
                EVP_PKEY_CTX_set_rsa_mgf1_md_name(keyContext, scheme.digest, nullptr) == 1 &&
                EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext, RSA_PSS_SALTLEN_DIGEST) == 1;
    // The provider writes the identifier for the parameters it signs with.
    unsigned char identifier[256];
    OSSL_PARAM params[] = {
        OSSL_PARAM_octet_string(OSSL_SIGNATURE_PARAM_ALGORITHM_ID, identifier, sizeof identifier),
        OSSL_PARAM_END};
    if (ready)
        ready = EVP_PKEY_CTX_get_params(keyContext, params) == 1 &&
                OSSL_PARAM_modified(&params[0]) && params[0].return_size > 0;
    if (!ready)
        return R_ERROR_CRYPTO;
    algorithm->assign(identifier, identifier + params[0].return_size);
    return R_ERROR_NONE;
}

struct Signing {
    EVP_MD_CTX* context = nullptr;
    std::vector<unsigned char> algorithm;
    std::vector<unsigned char> extensions;
    std::vector<unsigned char> sortedEntries;
    std::vector<unsigned char> signature;
    RCrlDraft draft;             // the signed CRL's parts
    RCrlWritten unsignedBytes{}; // the draft written without its signature

    ~Signing() {
        EVP_MD_CTX_free(context);
        OPENSSL_free(unsignedBytes.der);
    }
};

// The signed CRL's parts: crl's, with what the issuer decides.
int prepare(R_CRL* crl, X509* issuer, Signing* signing) {
    const unsigned char* subject = nullptr;
    size_t subjectLength = 0;
    if (X509_NAME_get0_der(X509_get_subject_name(issuer), &subject, &subjectLength) != 1)
        return R_ERROR_ALLOC_FAILURE;
    if (const int status = signed_extensions(crl, issuer, &signing->extensions);
        status != R_ERROR_NONE)
        return status;
    RDer entries;
    sorted_entries(crl, &signing->sortedEntries, &entries);
    RCrlDraft& draft = signing->draft;
    r_crl_draft_of(crl, &draft);
    r_crl_draft_set(&draft, R_PART_VERSION, RDer{version_2, sizeof version_2});
    r_crl_draft_set(&draft, R_PART_TBS_SIGNATURE_ALGORITHM,
                    RDer{signing->algorithm.data(), signing->algorithm.size()});
    r_crl_draft_set(&draft, R_PART_ISSUER, RDer{subject, subjectLength});
    draft.parts[R_PART_ENTRIES].pieces[0] = entries;
    RCrlPartBytes& extensions = draft.parts[R_PART_EXTENSIONS];
    extensions = RCrlPartBytes{};
    extensions.present = true;
    extensions.count = 1;
    extensions.pieces[0] = {signing->extensions.data(), signing->extensions.size()};
    r_crl_draft_set(&draft, R_PART_SIGNATURE_ALGORITHM, RDer{});
    r_crl_draft_set(&draft, R_PART_SIGNATURE, RDer{});
    return r_crl_write(draft, &signing->unsignedBytes);
}

// Signs the to-be-signed bytes as written and makes the draft, signature and
// all, crl's. Entries that were not sorted again keep their index.
int sign_and_install(R_CRL* crl, Signing* signing) {
    const RCrlWritten& written = signing->unsignedBytes;
    size_t length = 0;
    const unsigned char* tbs = written.der + written.tbs.offset;
    if (EVP_DigestSign(signing->context, nullptr, &length, tbs, written.tbs.length) != 1)
        return R_ERROR_CRYPTO;
    // A BIT STRING of whole octets: the count of unused bits, 0, then the signature.
    std::vector<unsigned char> bits(length + 1, 0);
    if (EVP_DigestSign(signing->context, bits.data() + 1, &length, tbs, written.tbs.length) != 1)
        return R_ERROR_CRYPTO;
    append_element(&signing->signature, r_der_bit_string, bits.data(), length + 1);
    r_crl_draft_set(&signing->draft, R_PART_SIGNATURE_ALGORITHM,
                    RDer{signing->algorithm.data(), signing->algorithm.size()});
    r_crl_draft_set(&signing->draft, R_PART_SIGNATURE,
                    RDer{signing->signature.data(), signing->signature.size()});
    const RCrlKnownEntries same{&crl->index};
    return r_crl_commit(crl, signing->draft, signing->sortedEntries.empty() ? &same : nullptr);
}

} // namespace

extern "C" int R_CRL_sign(R_CRL* crl, R_CERT* issuer, R_PKEY* key, uint32_t algorithm) {
    if (crl == nullptr || crl->libCtx == nullptr || issuer == nullptr || issuer->x509 == nullptr ||
        key == nullptr || key->pkey == nullptr)
        return R_ERROR_NULL_ARG;
    Scheme scheme{};
    if (!scheme_of(algorithm, &scheme) || !key_fits(key->pkey, scheme))
        return R_ERROR_FAILED;
    // A signature by any other key would never verify under the issuer.
    if (X509_check_private_key(issuer->x509, key->pkey) != 1) {
        ERR_clear_error();
        return R_ERROR_FAILED;
    }
    if (crl->parts[R_PART_THIS_UPDATE].length == 0)
        return R_ERROR_NOT_PRESENT;
    // The parts written here are built in standard containers; running out of
    // memory for them is a failure like any other, not an exception across the C API.
    try {
        Signing signing;
        int status = start_signing(key->pkey, scheme, crl->libCtx->ossl, &signing.context,
                                   &signing.algorithm);
        if (status == R_ERROR_NONE)
            status = prepare(crl, issuer->x509, &signing);
        if (status == R_ERROR_NONE)
            status = sign_and_install(crl, &signing);
        // Signing can leave notes in the queue even when it succeeds.
        ERR_clear_error();
        return status;
    } catch (const std::bad_alloc&) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
}
