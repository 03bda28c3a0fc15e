// Private keys: decoded from PEM or DER, encoded as PKCS#8 DER.
#include <cstring>
#include <new>

#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "r_objects.h"

namespace {

// Stands in when the caller has no passphrase, so that OpenSSL never asks
// for one on a terminal.
int no_passphrase(char*, size_t, size_t*, const OSSL_PARAM*, void*) {
    return 0;
}

EVP_PKEY* decode(OSSL_LIB_CTX* ossl, const unsigned char* bytes, size_t length,
                 const char* passphrase) {
    EVP_PKEY* key = nullptr;
    // No input type, structure or key type: the decoders try PEM and DER,
    // PKCS#8 and each algorithm's own form.
    OSSL_DECODER_CTX* decoder = OSSL_DECODER_CTX_new_for_pkey(&key, nullptr, nullptr, nullptr,
                                                              EVP_PKEY_KEYPAIR, ossl, nullptr);
    if (decoder == nullptr)
        return nullptr;
    const bool ready =
        passphrase != nullptr
            ? OSSL_DECODER_CTX_set_passphrase(decoder,
                                              reinterpret_cast<const unsigned char*>(passphrase),
                                              std::strlen(passphrase)) == 1
            : OSSL_DECODER_CTX_set_passphrase_cb(decoder, no_passphrase, nullptr) == 1;
    if (!ready || OSSL_DECODER_CTX_get_num_decoders(decoder) == 0 ||
        OSSL_DECODER_from_data(decoder, &bytes, &length) != 1) {
        EVP_PKEY_free(key);
        key = nullptr;
    }
    OSSL_DECODER_CTX_free(decoder);
    return key;
}

} // namespace

extern "C" int R_PKEY_from_bytes(R_LIB_CTX* libCtx, uint32_t length, const unsigned char* bytes,
                                 const char* passphrase, R_PKEY** key) {
    if (libCtx == nullptr || key == nullptr || (bytes == nullptr && length != 0))
        return R_ERROR_NULL_ARG;
    *key = nullptr;
    if (length == 0)
        return R_ERROR_DECODE;
    EVP_PKEY* decoded = decode(libCtx->ossl, bytes, length, passphrase);
    ERR_clear_error();
    if (decoded == nullptr)
        return R_ERROR_DECODE;
    *key = r_new<R_PKEY>(decoded, libCtx);
    if (*key == nullptr) {
        EVP_PKEY_free(decoded);
        return R_ERROR_ALLOC_FAILURE;
    }
    return R_ERROR_NONE;
}

extern "C" int R_PKEY_to_binary(R_PKEY* key, uint32_t bufferSize, unsigned char* buffer,
                                uint32_t* length) {
    if (key == nullptr || key->pkey == nullptr || length == nullptr ||
        (buffer == nullptr && bufferSize != 0))
        return R_ERROR_NULL_ARG;
    PKCS8_PRIV_KEY_INFO* info = EVP_PKEY2PKCS8(key->pkey);
    if (info == nullptr) {
        ERR_clear_error();
        return R_ERROR_FAILED;
    }
    const int status =
        r_i2d_out<PKCS8_PRIV_KEY_INFO>(info, i2d_PKCS8_PRIV_KEY_INFO, bufferSize, buffer, length);
    // Freeing the info wipes the key octets it held.
    PKCS8_PRIV_KEY_INFO_free(info);
    return status;
}

extern "C" int R_PKEY_free(R_PKEY* key) {
    if (key != nullptr) {
        EVP_PKEY_free(key->pkey);
        r_delete(key);
    }
    return R_ERROR_NONE;
}
