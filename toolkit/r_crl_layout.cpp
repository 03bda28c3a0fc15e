// Where a received CRL's parts lie: the outer structure and the
// to-be-signed fields, checked as OpenSSL's decoder checks them. The
// entries and extensions are left to the index, which reads them anyway.
#include <openssl/x509.h>

#include "r_crl_parts.h"

namespace {

bool is_time_tag(unsigned char tag) {
    return r_der_peek(RDer{&tag, 1}, r_der_utc_time) ||
           r_der_peek(RDer{&tag, 1}, r_der_generalized_time);
}

// A time: OpenSSL takes either type with any content.
bool take_time(RDer* in, RDerElement* element) {
    RDer rest = *in;
    if (!r_der_next(&rest, element) ||
        (element->tag != r_der_utc_time && element->tag != r_der_generalized_time))
        return false;
    *in = rest;
    return true;
}

// An AlgorithmIdentifier: its parameters may be any element, which OpenSSL
// reads by type, so OpenSSL decides (R_ERROR_ALLOC_FAILURE when it ran out
// of memory deciding).
int algorithm_check(const RDer& whole) {
    // OpenSSL reads the identifier and the parameters' header, not what a
    // parameter of definite length holds: those are what must be DER.
    RDer in = whole;
    RDerElement identifier;
    RDerElement field;
    if (!r_der_next(&in, &identifier))
        return R_ERROR_DECODE;
    for (RDer fields = identifier.content; !fields.empty();) {
        if (!r_der_next(&fields, &field) || r_der_string_in_pieces(field.tag))
            return R_ERROR_DECODE;
    }
    const unsigned char* cursor = whole.data;
    X509_ALGOR* algorithm = d2i_X509_ALGOR(nullptr, &cursor, static_cast<long>(whole.length));
    if (algorithm == nullptr)
        return r_decode_failure();
    X509_ALGOR_free(algorithm);
    ERR_clear_error();
    return cursor == whole.data + whole.length ? R_ERROR_NONE : R_ERROR_DECODE;
}

void set(RCrlSpan parts[R_PART_COUNT], RCrlPart part, const unsigned char* base,
         const RDer& whole) {
    parts[part] = {static_cast<uint32_t>(whole.data - base), static_cast<uint32_t>(whole.length)};
}

// The fields of the to-be-signed part, in order; the optional ones are known
// by their tag, whatever their constructed bit, as OpenSSL knows them.
int read_fields(RDer fields, const unsigned char* base, RCrlSpan parts[R_PART_COUNT]) {
    RDerElement element;
    if (r_der_peek(fields, r_der_integer)) {
        if (!r_der_take(&fields, r_der_integer, &element) || !r_der_integer_ok(element.content))
            return R_ERROR_DECODE;
        set(parts, R_PART_VERSION, base, element.whole);
    }
    if (!r_der_take(&fields, r_der_sequence, &element))
        return R_ERROR_DECODE;
    if (const int algorithm = algorithm_check(element.whole); algorithm != R_ERROR_NONE)
        return algorithm;
    set(parts, R_PART_TBS_SIGNATURE_ALGORITHM, base, element.whole);
    // The name is decoded, and so checked, by the index.
    if (!r_der_take_sequence_of(&fields, &element) || !r_der_strict_name(element.whole))
        return R_ERROR_DECODE;
    set(parts, R_PART_ISSUER, base, element.whole);
    if (!take_time(&fields, &element))
        return R_ERROR_DECODE;
    set(parts, R_PART_THIS_UPDATE, base, element.whole);
    if (!fields.empty() && is_time_tag(fields.data[0])) {
        if (!take_time(&fields, &element))
            return R_ERROR_DECODE;
        set(parts, R_PART_NEXT_UPDATE, base, element.whole);
    }
    if (r_der_peek(fields, r_der_sequence)) {
        if (!r_der_take_sequence_of(&fields, &element))
            return R_ERROR_DECODE;
        set(parts, R_PART_ENTRIES, base, element.whole);
    }
    if (r_der_peek(fields, r_der_explicit_0)) {
        RDerElement list;
        if (!r_der_take(&fields, r_der_explicit_0, &element))
            return R_ERROR_DECODE;
        RDer inside = element.content;
        if (!r_der_take_sequence_of(&inside, &list) || !inside.empty())
            return R_ERROR_DECODE;
        set(parts, R_PART_EXTENSIONS, base, element.whole);
    }
    return fields.empty() ? R_ERROR_NONE : R_ERROR_DECODE;
}

} // namespace

int r_crl_layout(const unsigned char* der, size_t length, RCrlSpan parts[R_PART_COUNT],
                 RCrlSpan* tbsSpan, size_t* consumed) {
    if (length > UINT32_MAX)
        return R_ERROR_DECODE;
    for (int part = 0; part < R_PART_COUNT; ++part)
        parts[part] = RCrlSpan{};
    RDer in{der, length};
    RDerElement crl;
    RDerElement tbs;
    RDerElement algorithm;
    RDerElement signature;
    if (!r_der_take(&in, r_der_sequence, &crl))
        return R_ERROR_DECODE;
    RDer body = crl.content;
    if (!r_der_take(&body, r_der_sequence, &tbs) ||
        !r_der_take(&body, r_der_sequence, &algorithm) ||
        !r_der_take(&body, r_der_bit_string, &signature) || !body.empty())
        return R_ERROR_DECODE;
    // A BIT STRING starts with its count of unused bits, at most 7.
    if (signature.content.empty() || signature.content.data[0] > 7)
        return R_ERROR_DECODE;
    if (const int status = algorithm_check(algorithm.whole); status != R_ERROR_NONE)
        return status;
    if (const int status = read_fields(tbs.content, der, parts); status != R_ERROR_NONE)
        return status;
    set(parts, R_PART_SIGNATURE_ALGORITHM, der, algorithm.whole);
    set(parts, R_PART_SIGNATURE, der, signature.whole);
    *tbsSpan = {static_cast<uint32_t>(tbs.whole.data - der),
                static_cast<uint32_t>(tbs.whole.length)};
    *consumed = crl.whole.length;
    return R_ERROR_NONE;
}
