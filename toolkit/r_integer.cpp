// INTEGER content octets as DER has them. ASN1_INTEGER keeps only a sign and
// a magnitude, so serials are re-encoded once and the octets kept, letting
// callers see a leading 0x00 (or a negative serial) exactly as it was sent.
#include <openssl/asn1.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include "r_objects.h"

int r_integer_octets_keep(const ASN1_INTEGER* integer, R_INTEGER_OCTETS* octets) {
    unsigned char* der = nullptr;
    const int size = i2d_ASN1_INTEGER(integer, &der);
    if (size <= 0) {
        ERR_clear_error();
        return R_ERROR_DECODE;
    }
    const unsigned char* content = der;
    long contentLength = 0;
    int tag = 0;
    int tagClass = 0;
    if ((ASN1_get_object(&content, &contentLength, &tag, &tagClass, size) & 0x80) != 0 ||
        tag != V_ASN1_INTEGER || contentLength <= 0) {
        ERR_clear_error();
        OPENSSL_free(der);
        return R_ERROR_DECODE;
    }
    r_integer_octets_free(octets);
    octets->der = der;
    octets->offset = static_cast<uint32_t>(content - der);
    octets->length = static_cast<uint32_t>(contentLength);
    return R_ERROR_NONE;
}

void r_integer_octets_free(R_INTEGER_OCTETS* octets) {
    OPENSSL_free(octets->der);
    *octets = R_INTEGER_OCTETS{};
}

void r_integer_octets_item(const R_INTEGER_OCTETS& octets, R_ITEM* item) {
    item->len = octets.length;
    item->data = octets.der + octets.offset;
}
