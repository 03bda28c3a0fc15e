// Which extensions a CRL may carry and still be taken as its issuer's list
// of revocations, complete or for the scope its Issuing Distribution Point
// gives; and reading extensions out of a list.
#include <openssl/obj_mac.h>

#include "r_crl_parts.h"

extern "C" int R_CRL_extension_handling(int nid, int inEntry) {
    if (inEntry != 0) {
        // A Certificate Issuer makes the entries after it another issuer's
        // (an indirect CRL): taken as this issuer's, they would revoke the
        // wrong certificates, and dropped, they would hide revocations.
        if (nid == NID_certificate_issuer)
            return R_CRL_EXT_REFUSED;
        return nid == NID_crl_reason || nid == NID_invalidity_date ? R_CRL_EXT_PROCESSED
                                                                   : R_CRL_EXT_IGNORED;
    }
    // A delta CRL lists only changes since its base: taken alone, it would
    // call valid what the base revoked, critical flag or not.
    if (nid == NID_delta_crl)
        return R_CRL_EXT_REFUSED;
    return nid == NID_crl_number || nid == NID_authority_key_identifier ||
                   nid == NID_issuing_distribution_point
               ? R_CRL_EXT_PROCESSED
               : R_CRL_EXT_IGNORED;
}

int r_ext_nid(const RDer& oid) {
    // Every extension the table above decides on is under id-ce (2.5.29).
    if (oid.length != 3 || oid.data[0] != 0x55 || oid.data[1] != 0x1d)
        return NID_undef;
    switch (oid.data[2]) {
    case 20:
        return NID_crl_number;
    case 21:
        return NID_crl_reason;
    case 24:
        return NID_invalidity_date;
    case 27:
        return NID_delta_crl;
    case 28:
        return NID_issuing_distribution_point;
    case 29:
        return NID_certificate_issuer;
    case 35:
        return NID_authority_key_identifier;
    default:
        return NID_undef;
    }
}

bool r_ext_acceptable(const RExtView& ext, int inEntry) {
    const int handling = R_CRL_extension_handling(r_ext_nid(ext.oid), inEntry);
    return handling == R_CRL_EXT_PROCESSED || (handling == R_CRL_EXT_IGNORED && !ext.critical);
}

bool r_ext_next(RDer* list, RExtView* ext) {
    RDerElement whole;
    RDerElement oid;
    RDerElement value;
    RDer rest = *list;
    if (!r_der_take(&rest, r_der_sequence, &whole))
        return false;
    RDer fields = whole.content;
    if (!r_der_take(&fields, r_der_oid, &oid) || !r_der_oid_ok(oid.content))
        return false;
    ext->critical = false;
    if (r_der_peek(fields, r_der_boolean)) {
        RDerElement critical;
        if (!r_der_take(&fields, r_der_boolean, &critical) || critical.content.length != 1)
            return false;
        // OpenSSL takes any non-zero octet as true.
        ext->critical = critical.content.data[0] != 0;
    }
    if (!r_der_take(&fields, r_der_octet_string, &value) || !fields.empty())
        return false;
    ext->whole = whole.whole;
    ext->oid = oid.content;
    ext->value = value.content;
    *list = rest;
    return true;
}
