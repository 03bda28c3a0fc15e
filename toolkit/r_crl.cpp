// CRL objects: make, decode, encode, free. A CRL keeps its own bytes, one
// copy of what it was given, and an index of them (r_crl_index.cpp).
#include <cstring>
#include <new>

#include <openssl/crypto.h>

#include "r_crl_parts.h"

namespace {

// A name with no attributes: what a CRL names as its issuer until signed.
constexpr unsigned char empty_name[] = {r_der_sequence, 0x00};

} // namespace

extern "C" int R_CRL_new(R_LIB_CTX* libCtx, uint32_t flags, R_CRL** crl) {
    if (const int status = r_new_holder(libCtx, flags, crl); status != R_ERROR_NONE)
        return status;
    RCrlDraft draft;
    r_crl_draft_set(&draft, R_PART_ISSUER, RDer{empty_name, sizeof empty_name});
    if (const int status = r_crl_commit(*crl, draft, nullptr); status != R_ERROR_NONE) {
        R_CRL_free(*crl);
        *crl = nullptr;
        return status;
    }
    return R_ERROR_NONE;
}

namespace {

// A CRL over the bytes at der, which hold one at their start and which it
// keeps: owned when the caller gives them up, copied otherwise.
int decode(R_LIB_CTX* libCtx, uint32_t flags, uint32_t length, const unsigned char* der,
           unsigned char* owned, uint32_t* consumed, R_CRL** crl) {
    if (libCtx == nullptr || crl == nullptr || (der == nullptr && length != 0))
        return R_ERROR_NULL_ARG;
    *crl = nullptr;
    if (flags != 0)
        return R_ERROR_FAILED;
    RCrlSpan parts[R_PART_COUNT];
    RCrlSpan tbs;
    size_t taken = 0;
    if (const int status = r_crl_layout(der, length, parts, &tbs, &taken); status != R_ERROR_NONE)
        return status;
    R_CRL* made = nullptr;
    if (const int status = r_new_holder(libCtx, 0, &made); status != R_ERROR_NONE)
        return status;
    if (owned != nullptr) {
        made->der = owned;
    } else {
        made->der = static_cast<unsigned char*>(OPENSSL_malloc(taken));
        if (made->der == nullptr) {
            R_CRL_free(made);
            return R_ERROR_ALLOC_FAILURE;
        }
        std::memcpy(made->der, der, taken);
    }
    made->length = static_cast<uint32_t>(taken);
    made->tbs = tbs;
    std::memcpy(made->parts, parts, sizeof parts);
    if (const int status = r_crl_index_build(made->der, made->parts, nullptr, &made->index);
        status != R_ERROR_NONE) {
        if (owned != nullptr)
            made->der = nullptr; // still the caller's
        R_CRL_free(made);
        return status;
    }
    // Bytes after the CRL, and a buffer larger than length (a PEM file's,
    // decoded in place), are not kept; giving them back cannot fail the CRL.
    if (owned != nullptr) {
        if (auto* cut = static_cast<unsigned char*>(OPENSSL_realloc(owned, taken)); cut != nullptr)
            made->der = cut;
    }
    *crl = made;
    if (consumed != nullptr)
        *consumed = made->length;
    return R_ERROR_NONE;
}

} // namespace

extern "C" unsigned char* R_BUFFER_new(uint32_t size) {
    return static_cast<unsigned char*>(OPENSSL_malloc(size == 0 ? 1 : size));
}

extern "C" void R_BUFFER_free(unsigned char* buffer) {
    OPENSSL_free(buffer);
}

extern "C" int R_CRL_from_binary(R_LIB_CTX* libCtx, uint32_t flags, uint32_t length,
                                 const unsigned char* der, uint32_t* consumed, R_CRL** crl) {
    return decode(libCtx, flags, length, der, nullptr, consumed, crl);
}

extern "C" int R_CRL_from_binary_owned(R_LIB_CTX* libCtx, uint32_t flags, uint32_t length,
                                       unsigned char* der, uint32_t* consumed, R_CRL** crl) {
    if (der == nullptr)
        return R_ERROR_NULL_ARG;
    return decode(libCtx, flags, length, der, der, consumed, crl);
}

extern "C" int R_CRL_to_binary(R_CRL* crl, uint32_t bufferSize, unsigned char* buffer,
                               uint32_t* length) {
    if (crl == nullptr || length == nullptr || (buffer == nullptr && bufferSize != 0))
        return R_ERROR_NULL_ARG;
    // A CRL not yet signed has no encoding anyone could read.
    if (!r_crl_complete(crl))
        return R_ERROR_FAILED;
    *length = crl->length;
    if (buffer == nullptr)
        return R_ERROR_NONE;
    if (bufferSize < crl->length)
        return R_ERROR_BUFFER_TOO_SMALL;
    std::memcpy(buffer, crl->der, crl->length);
    return R_ERROR_NONE;
}

extern "C" int R_CRL_free(R_CRL* crl) {
    if (crl != nullptr) {
        r_crl_index_free(&crl->index);
        OPENSSL_free(crl->der);
        r_delete(crl);
    }
    return R_ERROR_NONE;
}

extern "C" R_LIB_CTX* R_CRL_get0_lib_ctx(const R_CRL* crl) {
    return crl == nullptr ? nullptr : crl->libCtx;
}
