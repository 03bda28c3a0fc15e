// Private keys from bytes, without a passphrase and with one, the layer's
// own form of each converted back into a toolkit key, and a CRL created and
// signed with it for a certificate of the same key.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "../toolkit/r_toolkit.h"
#include "fuzz_layer.h"
#include "key_issuer.h"

namespace {

using qxfuzz::require;

// The passphrase fuzz/seed_pki.sh encrypts its seed keys with.
constexpr char passphrase[] = "qxfuzz passphrase";

bool same_key(const QxPrivateKey* a, const QxPrivateKey* b) {
    return a->length == b->length && std::memcmp(a->pkcs8, b->pkcs8, a->length) == 0;
}

// A key read from bytes, or null; a failed read hands out nothing.
QxPrivateKey* read_key(SecurityContext* ctx, const unsigned char* bytes, uint32_t length,
                       const char* secret) {
    QxPrivateKey* key = nullptr;
    if (qxdk_key_from_bytes(ctx, bytes, length, secret, &key) != 0) {
        require(key == nullptr, "failed key read handed out a key");
        return nullptr;
    }
    require(key != nullptr && key->pkcs8 != nullptr && key->length != 0,
            "key read succeeded without a key");
    return key;
}

// The layer's form is unencrypted PKCS#8: it reads back as itself and
// always makes a toolkit key.
void check_layer_form(SecurityContext* ctx, const QxPrivateKey* key) {
    QxPrivateKey* again = read_key(ctx, key->pkcs8, key->length, nullptr);
    require(again != nullptr && same_key(again, key), "the layer's key form does not read back");
    qxdk_key_free(ctx, &again);
    R_PKEY* object = nullptr;
    require(qxdk_pvtkey_to_obj(ctx, key, &object) == 0 && object != nullptr,
            "the layer's key form does not convert");
    R_PKEY_free(object);
}

// An index below count that every byte of the input has a say in.
uint32_t pick(const uint8_t* data, size_t size, size_t count) {
    uint32_t hash = 2166136261u;
    for (size_t i = 0; i < size; ++i)
        hash = (hash ^ data[i]) * 16777619u;
    return static_cast<uint32_t>(hash % count);
}

// A CRL made with a sound key verifies against the certificate of the key.
void sign_with(SecurityContext* ctx, const QxPrivateKey* key, const uint8_t* data, size_t size) {
    qxfuzz::KeyIssuer issuer = qxfuzz::make_key_issuer(ctx, key);
    if (issuer.record == nullptr)
        return;
    // An algorithm the layer does not sign with must be refused cleanly.
    const uint32_t type =
        issuer.signatureTypes.empty()
            ? QX_SIG_RSA_SHA256
            : issuer.signatureTypes[pick(data, size, issuer.signatureTypes.size())];
    CrlObject* crl = nullptr;
    if (qxcrl_Create(ctx, &crl, key, issuer.record, "1d", type) == 0) {
        require(!issuer.signatureTypes.empty(), "signed with a key of no signing algorithm");
        CrlValidity validity = 0;
        const StatusCode verified = qxcrl_VerifyCRL(ctx, crl, issuer.record, &validity);
        require(!issuer.consistent || (verified == 0 && validity == QXCRL_CRL_CURRENT),
                "a CRL just made does not verify");
        uint32_t signedType = 0;
        uint32_t entries = 0;
        require(qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_SIGNATURE_TYPE, 0, &signedType) == 0 &&
                    signedType == type,
                "a CRL just made has another signature type");
        require(qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_COUNT, 0, &entries) == 0 &&
                    entries == 1,
                "a CRL just made has other than its one entry");
    }
    qxcrl_Destroy(ctx, &crl);
    qxcert_free(ctx, &issuer.record);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > UINT32_MAX)
        return 0;
    SecurityContext* ctx = qxfuzz::layer();
    qxfuzz::BlockCheck check(ctx);
    const auto length = static_cast<uint32_t>(size);
    QxPrivateKey* plain = read_key(ctx, data, length, nullptr);
    QxPrivateKey* unlocked = read_key(ctx, data, length, passphrase);
    // A passphrase is only ever used to decrypt.
    require(plain == nullptr || (unlocked != nullptr && same_key(plain, unlocked)),
            "a passphrase changed an unencrypted key");
    if (const QxPrivateKey* key = plain != nullptr ? plain : unlocked) {
        check_layer_form(ctx, key);
        sign_with(ctx, key, data, size);
    }
    qxdk_key_free(ctx, &unlocked);
    qxdk_key_free(ctx, &plain);
    return 0;
}
