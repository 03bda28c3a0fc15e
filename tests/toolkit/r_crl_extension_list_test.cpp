// The extension lists of a CRL and of its entries: every extension's OID,
// critical flag and value, in order, as OpenSSL reads the same DER.
#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "test_pki.h"
#include "toolkit/r_toolkit.h"
#include "toolkit_fixture.h"

using namespace qxtest;

namespace {

struct Extension {
    Bytes oid;
    uint32_t critical = 0;
    Bytes value;
    bool operator==(const Extension&) const = default;
};

Extension read(R_EXT* ext) {
    Extension read;
    R_ITEM item{};
    EXPECT_EQ(R_EXT_get_info(ext, R_EXT_INFO_OID, &item), R_ERROR_NONE);
    read.oid = item_bytes(item);
    EXPECT_EQ(R_EXT_get_info(ext, R_EXT_INFO_CRITICAL, &read.critical), R_ERROR_NONE);
    EXPECT_EQ(R_EXT_get_info(ext, R_EXT_INFO_VALUE, &item), R_ERROR_NONE);
    read.value = item_bytes(item);
    return read;
}

std::vector<Extension> openssl_extensions(const STACK_OF(X509_EXTENSION) * extensions) {
    std::vector<Extension> read;
    for (int i = 0; i < sk_X509_EXTENSION_num(extensions); ++i) {
        X509_EXTENSION* extension = sk_X509_EXTENSION_value(extensions, i);
        const ASN1_OBJECT* oid = X509_EXTENSION_get_object(extension);
        const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(extension);
        read.push_back({Bytes(OBJ_get0_data(oid), OBJ_get0_data(oid) + OBJ_length(oid)),
                        X509_EXTENSION_get_critical(extension) ? 1u : 0u,
                        Bytes(ASN1_STRING_get0_data(value),
                              ASN1_STRING_get0_data(value) + ASN1_STRING_length(value))});
    }
    return read;
}

class ToolkitCrlExtensionList : public ToolkitTest {};

const Bytes reasonKeyCompromise{0x0a, 0x01, 0x01};
const Bytes invalidity{0x18, 0x0f, '2', '0', '2', '6', '0', '1', '0',
                       '1',  '0',  '0', '0', '0', '0', '0', 'Z'};
const Bytes privateValue{0x04, 0x02, 0xab, 0xcd};
const Bytes onlyUserCerts{0x30, 0x03, 0x81, 0x01, 0xff};

} // namespace

TEST_F(ToolkitCrlExtensionList, EveryExtensionAsOpensslReadsIt) {
    CrlOptions recipe;
    recipe.crlNumber = 7;
    recipe.extensions = {{"2.5.29.28", true, onlyUserCerts},
                         {"1.3.6.1.4.1.99999.1", false, privateValue}};
    recipe.revoked = {{{0x05},
                       std::time(nullptr) - 60,
                       {{"2.5.29.21", true, reasonKeyCompromise},
                        {"2.5.29.24", false, invalidity},
                        {"1.3.6.1.4.1.99999.2", false, privateValue}}},
                      revoked_serial({0x09})};
    const Bytes der = make_crl(shared_issuer(), recipe);
    const Crl reference = openssl_crl(der);
    ASSERT_NE(reference, nullptr);
    CrlPtr crl = decode(der);
    ASSERT_NE(crl, nullptr);

    // The CRL Number that make_crl adds first, then the recipe's, in order.
    const std::vector<Extension> expected = {
        {{0x55, 0x1d, 0x14}, 0, {0x02, 0x01, 0x07}},
        {{0x55, 0x1d, 0x1c}, 1, onlyUserCerts},
        {{0x2b, 0x06, 0x01, 0x04, 0x01, 0x86, 0x8d, 0x1f, 0x01}, 0, privateValue}};
    ASSERT_EQ(openssl_extensions(X509_CRL_get0_extensions(reference.get())), expected);
    uint32_t count = 0;
    ASSERT_EQ(R_CRL_get_extension_count(crl.get(), &count), R_ERROR_NONE);
    ASSERT_EQ(count, expected.size());
    for (uint32_t i = 0; i < count; ++i) {
        ExtPtr extension = new_ext();
        ASSERT_EQ(R_CRL_get_extension(crl.get(), i, extension.get()), R_ERROR_NONE);
        EXPECT_EQ(read(extension.get()), expected[i]) << "CRL extension " << i;
    }
    ExtPtr past = new_ext();
    EXPECT_EQ(R_CRL_get_extension(crl.get(), count, past.get()), R_ERROR_NOT_PRESENT);

    STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(reference.get());
    ASSERT_EQ(sk_X509_REVOKED_num(revoked), 2);
    size_t withExtensions = 0;
    for (uint32_t index = 0; index < 2; ++index) {
        const std::vector<Extension> entryExpected = openssl_extensions(
            X509_REVOKED_get0_extensions(sk_X509_REVOKED_value(revoked, static_cast<int>(index))));
        withExtensions += entryExpected.empty() ? 0 : 1;
        EntryPtr read_entry = new_entry();
        ASSERT_EQ(R_CRL_get_entry(crl.get(), index, read_entry.get()), R_ERROR_NONE);
        ASSERT_EQ(R_CRL_ENTRY_get_extension_count(read_entry.get(), &count), R_ERROR_NONE);
        ASSERT_EQ(count, entryExpected.size()) << "entry " << index;
        for (uint32_t i = 0; i < count; ++i) {
            ExtPtr extension = new_ext();
            ASSERT_EQ(R_CRL_ENTRY_get_extension(read_entry.get(), i, extension.get()),
                      R_ERROR_NONE);
            EXPECT_EQ(read(extension.get()), entryExpected[i]) << "entry " << index << " ext " << i;
        }
        EXPECT_EQ(R_CRL_ENTRY_get_extension(read_entry.get(), count, past.get()),
                  R_ERROR_NOT_PRESENT);
    }
    EXPECT_EQ(withExtensions, 1u);
}

// An extension is a copy: it outlives the CRL and the entry it came from.
TEST_F(ToolkitCrlExtensionList, ExtensionsOutliveTheirCrl) {
    CrlOptions recipe;
    recipe.crlNumber = 300;
    recipe.revoked = {
        {{0x05}, std::time(nullptr) - 60, {{"2.5.29.21", true, reasonKeyCompromise}}}};
    CrlPtr crl = decode(make_crl(shared_issuer(), recipe));
    ASSERT_NE(crl, nullptr);
    ExtPtr number = new_ext();
    ExtPtr reason = new_ext();
    ASSERT_EQ(R_CRL_get_extension(crl.get(), 0, number.get()), R_ERROR_NONE);
    EntryPtr first = new_entry();
    ASSERT_EQ(R_CRL_get_entry(crl.get(), 0, first.get()), R_ERROR_NONE);
    ASSERT_EQ(R_CRL_ENTRY_get_extension(first.get(), 0, reason.get()), R_ERROR_NONE);
    first.reset();
    crl.reset();
    EXPECT_EQ(read(number.get()), (Extension{{0x55, 0x1d, 0x14}, 0, {0x02, 0x02, 0x01, 0x2c}}));
    EXPECT_EQ(read(reason.get()), (Extension{{0x55, 0x1d, 0x15}, 1, reasonKeyCompromise}));
}

TEST_F(ToolkitCrlExtensionList, EmptyHoldersAndBadArguments) {
    ExtPtr empty = new_ext();
    R_ITEM item{};
    uint32_t critical = 7;
    EXPECT_EQ(R_EXT_get_info(empty.get(), R_EXT_INFO_OID, &item), R_ERROR_NOT_PRESENT);
    EXPECT_EQ(R_EXT_get_info(empty.get(), R_EXT_INFO_CRITICAL, &critical), R_ERROR_NOT_PRESENT);
    EXPECT_EQ(critical, 7u);
    EXPECT_EQ(R_EXT_get_info(empty.get(), 99, &item), R_ERROR_FAILED);

    EntryPtr unfilled = new_entry();
    uint32_t count = 7;
    EXPECT_EQ(R_CRL_ENTRY_get_extension_count(unfilled.get(), &count), R_ERROR_NONE);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(R_CRL_ENTRY_get_extension(unfilled.get(), 0, empty.get()), R_ERROR_NOT_PRESENT);

    CrlOptions recipe;
    recipe.crlNumber.reset();
    CrlPtr crl = decode(make_crl(shared_issuer(), recipe));
    ASSERT_NE(crl, nullptr);
    EXPECT_EQ(R_CRL_get_extension_count(crl.get(), &count), R_ERROR_NONE);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(R_CRL_get_extension(crl.get(), 0, empty.get()), R_ERROR_NOT_PRESENT);
    EXPECT_EQ(R_CRL_get_extension_count(nullptr, &count), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CRL_get_extension_count(crl.get(), nullptr), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CRL_get_extension(crl.get(), 0, nullptr), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CRL_ENTRY_get_extension_count(nullptr, &count), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_CRL_ENTRY_get_extension(unfilled.get(), 0, nullptr), R_ERROR_NULL_ARG);
}
