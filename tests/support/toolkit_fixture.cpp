#include "toolkit_fixture.h"

namespace qxtest {

std::string hex(const Bytes& bytes, const char* separator) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0)
            text += separator;
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xf];
    }
    return text;
}

void ToolkitTest::SetUp() {
    ASSERT_EQ(R_LIB_CTX_new(R_LIB_CTX_SHARED, &lib), R_ERROR_NONE);
    ASSERT_EQ(R_CERT_CTX_new(lib, &certCtx), R_ERROR_NONE);
    ASSERT_EQ(R_TIME_CTX_new(lib, 0, &timeCtx), R_ERROR_NONE);
}

void ToolkitTest::TearDown() {
    R_TIME_CTX_free(timeCtx);
    R_CERT_CTX_free(certCtx);
    R_LIB_CTX_free(lib);
}

CrlPtr ToolkitTest::decode(const Bytes& der) {
    R_CRL* crl = nullptr;
    EXPECT_EQ(
        R_CRL_from_binary(lib, 0, static_cast<uint32_t>(der.size()), der.data(), nullptr, &crl),
        R_ERROR_NONE);
    return CrlPtr(crl);
}

CertPtr ToolkitTest::cert(const X509* x509) {
    const Bytes der = cert_der(x509);
    R_CERT* made = nullptr;
    EXPECT_EQ(R_CERT_from_binary(certCtx, 0, static_cast<uint32_t>(der.size()), der.data(), nullptr,
                                 &made),
              R_ERROR_NONE);
    return CertPtr(made);
}

EntryPtr ToolkitTest::new_entry() {
    R_CRL_ENTRY* made = nullptr;
    EXPECT_EQ(R_CRL_ENTRY_new(lib, 0, &made), R_ERROR_NONE);
    return EntryPtr(made);
}

ExtPtr ToolkitTest::new_ext() {
    R_EXT* made = nullptr;
    EXPECT_EQ(R_EXT_new(lib, 0, &made), R_ERROR_NONE);
    return ExtPtr(made);
}

TimePtr ToolkitTest::time_at(int64_t at) {
    R_TIME* made = nullptr;
    EXPECT_EQ(R_TIME_new(timeCtx, &made), R_ERROR_NONE);
    unsigned char bytes[8];
    for (int i = 7; i >= 0; --i, at >>= 8)
        bytes[i] = static_cast<unsigned char>(at & 0xff);
    EXPECT_EQ(R_TIME_import(made, R_TIME_FORMAT_SECONDS_BE, bytes, 8), R_ERROR_NONE);
    return TimePtr(made);
}

int64_t ToolkitTest::seconds(R_TIME* time) {
    unsigned char bytes[8] = {};
    uint32_t length = 0;
    EXPECT_EQ(R_TIME_export(time, R_TIME_FORMAT_SECONDS_BE, bytes, &length, 8), R_ERROR_NONE);
    uint64_t value = 0;
    for (unsigned char byte : bytes)
        value = value << 8 | byte;
    return static_cast<int64_t>(value);
}

Bytes ToolkitTest::serial_of(R_CRL_ENTRY* entry) {
    R_ITEM item{};
    EXPECT_EQ(R_CRL_ENTRY_get_info(entry, R_CRL_ENTRY_INFO_SERIAL, &item), R_ERROR_NONE);
    return item_bytes(item);
}

} // namespace qxtest
