// The certificates a CRL speaks for (RFC 5280 5.2.5, 6.3.3 (b)): a CRL with
// an Issuing Distribution Point covers only part of its issuer's
// certificates, and for the rest it has no answer at all.
#include <openssl/x509v3.h>

#include "r_objects.h"

namespace {

// A distribution point name and a list of general names share a directory
// name: a name relative to the CRL issuer, made whole, against full names.
bool directory_name_in(const X509_NAME* name, const GENERAL_NAMES* names) {
    for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME* general = sk_GENERAL_NAME_value(names, i);
        if (general->type == GEN_DIRNAME && X509_NAME_cmp(name, general->d.directoryName) == 0)
            return true;
    }
    return false;
}

// Whether two distribution point names name one point: any full name in
// common, or the same whole name for names relative to the issuer.
bool same_point(const DIST_POINT_NAME* a, const DIST_POINT_NAME* b) {
    constexpr int relative = 1;
    if (a->type == relative && b->type == relative)
        return a->dpname != nullptr && b->dpname != nullptr &&
               X509_NAME_cmp(a->dpname, b->dpname) == 0;
    if (a->type == relative)
        return a->dpname != nullptr && directory_name_in(a->dpname, b->name.fullname);
    if (b->type == relative)
        return b->dpname != nullptr && directory_name_in(b->dpname, a->name.fullname);
    for (int i = 0; i < sk_GENERAL_NAME_num(a->name.fullname); ++i) {
        for (int j = 0; j < sk_GENERAL_NAME_num(b->name.fullname); ++j) {
            if (GENERAL_NAME_cmp(sk_GENERAL_NAME_value(a->name.fullname, i),
                                 sk_GENERAL_NAME_value(b->name.fullname, j)) == 0)
                return true;
        }
    }
    return false;
}

// A point that names a CRL issuer is served by an indirect CRL, which no
// CRL here is; the others are served by the certificate's own issuer.
bool served_directly(const DIST_POINT* point) {
    return point->CRLissuer == nullptr;
}

// Whether one of the certificate's directly served points is the IDP's.
bool names_the_point(const R_CERT* cert, const DIST_POINT_NAME* idpPoint) {
    if (cert->distPoints == nullptr)
        return false;
    for (int i = 0; i < sk_DIST_POINT_num(cert->distPoints); ++i) {
        const DIST_POINT* point = sk_DIST_POINT_value(cert->distPoints, i);
        if (served_directly(point) && point->distpoint != nullptr &&
            same_point(point->distpoint, idpPoint))
            return true;
    }
    return false;
}

// A certificate whose every distribution point names a CRL issuer gets its
// revocations from other issuers' CRLs only.
bool served_only_indirectly(const R_CERT* cert) {
    if (cert->distPoints == nullptr || sk_DIST_POINT_num(cert->distPoints) == 0)
        return false;
    for (int i = 0; i < sk_DIST_POINT_num(cert->distPoints); ++i) {
        if (served_directly(sk_DIST_POINT_value(cert->distPoints, i)))
            return false;
    }
    return true;
}

enum class Kind { Ca, User, Unknown };

// What basicConstraints says the certificate is. Before version 3 a
// certificate may be a CA without saying so, and one whose extensions do
// not parse says nothing reliable.
Kind kind_of(X509* cert) {
    const uint32_t flags = X509_get_extension_flags(cert);
    if (X509_get_version(cert) != X509_VERSION_3 || (flags & EXFLAG_INVALID) != 0)
        return Kind::Unknown;
    return (flags & EXFLAG_CA) != 0 ? Kind::Ca : Kind::User;
}

} // namespace

extern "C" int R_CRL_check_scope(R_CRL* crl, R_CERT* cert) {
    if (crl == nullptr || cert == nullptr || cert->x509 == nullptr)
        return R_ERROR_NULL_ARG;
    if (served_only_indirectly(cert))
        return R_ERROR_OUT_OF_SCOPE;
    const ISSUING_DIST_POINT* idp = crl->index.idp;
    if (idp == nullptr)
        return R_ERROR_NONE;
    // Reason partitions and indirect CRLs need more than one CRL, or other
    // issuers' names, to answer: this CRL alone answers for nobody.
    if (idp->onlyattr || idp->onlysomereasons != nullptr || idp->indirectCRL)
        return R_ERROR_OUT_OF_SCOPE;
    const Kind kind = kind_of(cert->x509);
    if ((idp->onlyuser && kind != Kind::User) || (idp->onlyCA && kind != Kind::Ca))
        return R_ERROR_OUT_OF_SCOPE;
    if (idp->distpoint != nullptr && !names_the_point(cert, idp->distpoint))
        return R_ERROR_OUT_OF_SCOPE;
    return R_ERROR_NONE;
}
