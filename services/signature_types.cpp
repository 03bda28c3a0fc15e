// The layer's signature types and the toolkit algorithms they stand for. One
// table serves both directions, so a type can never sign with one algorithm
// and read back as another.
#include "../toolkit/r_toolkit.h"
#include "qxlayer.h"

namespace {

struct SignatureType {
    uint32_t type;
    uint32_t algorithm;
    bool signs; // MD5 signatures are still read but never made
};

constexpr SignatureType signature_types[] = {
    {QX_SIG_RSA_MD5, R_SIG_ALG_MD5_WITH_RSA, false},
    {QX_SIG_RSA_SHA1, R_SIG_ALG_SHA1_WITH_RSA, true},
    {QX_SIG_RSA_SHA256, R_SIG_ALG_SHA256_WITH_RSA, true},
    {QX_SIG_RSA_SHA384, R_SIG_ALG_SHA384_WITH_RSA, true},
    {QX_SIG_RSA_SHA512, R_SIG_ALG_SHA512_WITH_RSA, true},
    {QX_SIG_ECDSA_SHA256, R_SIG_ALG_ECDSA_SHA256, true},
    {QX_SIG_ECDSA_SHA384, R_SIG_ALG_ECDSA_SHA384, true},
    {QX_SIG_ECDSA_SHA512, R_SIG_ALG_ECDSA_SHA512, true},
    {QX_SIG_ED25519, R_SIG_ALG_ED25519, true},
    {QX_SIG_ED448, R_SIG_ALG_ED448, true},
    {QX_SIG_RSA_PSS_SHA256, R_SIG_ALG_RSA_PSS_SHA256, true},
    {QX_SIG_RSA_PSS_SHA384, R_SIG_ALG_RSA_PSS_SHA384, true},
    {QX_SIG_RSA_PSS_SHA512, R_SIG_ALG_RSA_PSS_SHA512, true},
};

} // namespace

extern "C" StatusCode qxbc_map_sign(uint32_t signatureType, uint32_t* algorithm) {
    if (algorithm == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    for (const SignatureType& entry : signature_types) {
        if (entry.type == signatureType) {
            if (!entry.signs)
                return QXL_ERR_SIGNATURE_TYPE;
            *algorithm = entry.algorithm;
            return 0;
        }
    }
    return QXL_ERR_SIGNATURE_TYPE;
}

extern "C" StatusCode qxbc_map_sign2(uint32_t algorithm, uint32_t* signatureType) {
    if (signatureType == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    for (const SignatureType& entry : signature_types) {
        if (entry.algorithm == algorithm) {
            *signatureType = entry.type;
            return 0;
        }
    }
    return QXL_ERR_SIGNATURE_TYPE;
}
