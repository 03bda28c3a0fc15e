// Directory search bases, filters and attribute names of the CRL validation
// and validation-mechanism entries, for the layer's other components.
#include "qxcrl.h"

extern "C" {
const char QXCRL_STR_OID_VALMEC_CRL[4] = "CRL";
const char QXCRL_STR_OID_CRLVAL_ATTRS[26] = "certificateRevocationList";
const char QXCRL_STR_OID_CRLVAL_FILTER[12] = "x509issuer=";
const char QXCRL_STR_OID_CRLVAL_BASE[71] =
    "cn=CRLValidation, cn=Validation, cn=PKI, cn=Products, cn=TavrixContext";
const char QXCRL_STR_OID_VALMEC_ATTRS[18] = "tvrxPKIValMecAttr";
const char QXCRL_STR_OID_VALMEC_FILTER[23] = "cn=ValidationMechanism";
const char QXCRL_STR_OID_VALMEC_BASE[77] =
    "cn=ValidationMechanism, cn=Validation, cn=PKI, cn=Products, cn=TavrixContext";
}
