// Which critical extensions a CRL may carry and still be taken as its
// issuer's list of revocations, complete or for the scope its Issuing
// Distribution Point gives.
#include <openssl/x509v3.h>

#include "r_objects.h"

namespace {

bool crl_extension_processed(int nid) {
    return R_CRL_extension_handling(nid, 0) == R_CRL_EXT_PROCESSED;
}

bool entry_extension_processed(int nid) {
    return R_CRL_extension_handling(nid, 1) == R_CRL_EXT_PROCESSED;
}

template <typename Processed>
bool critical_extensions_processed(const STACK_OF(X509_EXTENSION) * extensions,
                                   Processed processed) {
    for (int i = 0; i < sk_X509_EXTENSION_num(extensions); ++i) {
        X509_EXTENSION* extension = sk_X509_EXTENSION_value(extensions, i);
        if (X509_EXTENSION_get_critical(extension) &&
            !processed(OBJ_obj2nid(X509_EXTENSION_get_object(extension))))
            return false;
    }
    return true;
}

} // namespace

extern "C" int R_CRL_extension_handling(int nid, int inEntry) {
    if (inEntry != 0)
        return nid == NID_crl_reason || nid == NID_invalidity_date ? R_CRL_EXT_PROCESSED
                                                                   : R_CRL_EXT_IGNORED;
    // A delta CRL lists only changes since its base: taken alone, it would
    // call valid what the base revoked, critical flag or not.
    if (nid == NID_delta_crl)
        return R_CRL_EXT_REFUSED;
    return nid == NID_crl_number || nid == NID_authority_key_identifier ||
                   nid == NID_issuing_distribution_point
               ? R_CRL_EXT_PROCESSED
               : R_CRL_EXT_IGNORED;
}

bool r_crl_extensions_processable(const X509_CRL* crl) {
    if (!critical_extensions_processed(X509_CRL_get0_extensions(crl), crl_extension_processed))
        return false;
    if (X509_CRL_get_ext_by_NID(crl, NID_delta_crl, -1) >= 0)
        return false;
    STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(const_cast<X509_CRL*>(crl));
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        if (!critical_extensions_processed(
                X509_REVOKED_get0_extensions(sk_X509_REVOKED_value(entries, i)),
                entry_extension_processed))
            return false;
    }
    return true;
}
