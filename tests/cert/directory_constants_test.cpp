// The exported directory constants: exact texts, and lengths that count the
// terminator, since callers size buffers with sizeof.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "qxcrl.h"

TEST(DirectoryConstants, TextsAndLengths) {
    struct Constant {
        const char* text;
        size_t size;
        std::string expected;
    };
    const Constant constants[] = {
        {QXCRL_STR_OID_VALMEC_CRL, sizeof QXCRL_STR_OID_VALMEC_CRL, "CRL"},
        {QXCRL_STR_OID_CRLVAL_ATTRS, sizeof QXCRL_STR_OID_CRLVAL_ATTRS,
         "certificateRevocationList"},
        {QXCRL_STR_OID_CRLVAL_FILTER, sizeof QXCRL_STR_OID_CRLVAL_FILTER, "x509issuer="},
        {QXCRL_STR_OID_CRLVAL_BASE, sizeof QXCRL_STR_OID_CRLVAL_BASE,
         "cn=CRLValidation, cn=Validation, cn=PKI, cn=Products, cn=TavrixContext"},
        {QXCRL_STR_OID_VALMEC_ATTRS, sizeof QXCRL_STR_OID_VALMEC_ATTRS, "tvrxPKIValMecAttr"},
        {QXCRL_STR_OID_VALMEC_FILTER, sizeof QXCRL_STR_OID_VALMEC_FILTER, "cn=ValidationMechanism"},
        {QXCRL_STR_OID_VALMEC_BASE, sizeof QXCRL_STR_OID_VALMEC_BASE,
         "cn=ValidationMechanism, cn=Validation, cn=PKI, cn=Products, cn=TavrixContext"},
    };
    for (const Constant& constant : constants) {
        EXPECT_EQ(constant.text, constant.expected);
        EXPECT_EQ(constant.size, constant.expected.size() + 1) << constant.expected;
        EXPECT_EQ(std::strlen(constant.text) + 1, constant.size);
    }
}
