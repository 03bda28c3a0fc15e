// Base64 between DER and PEM bodies: round trips, the body layout, OpenSSL
// reading what the encoder writes and the decoder reading what OpenSSL
// writes, bad text, and allocation failures.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "files.h"
#include "layer_fixture.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

Bytes random_bytes(size_t count, uint32_t seed) {
    std::mt19937 generator(seed);
    Bytes bytes(count);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(generator());
    return bytes;
}

// OpenSSL's Base64 of bytes on one line, to compare the encoder against.
std::string openssl_base64(const Bytes& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

std::string without_line_feeds(std::string text) {
    std::erase(text, '\n');
    return text;
}

// A CRL with enough entries that its PEM body runs to many lines.
Bytes sample_crl() {
    CrlOptions options;
    for (unsigned char serial = 1; serial <= 120; ++serial)
        options.revoked.push_back(revoked_serial({0x10, serial}));
    return make_crl(shared_issuer(), options);
}

class Base64Test : public LayerTest {
  protected:
    std::string encode(const Bytes& der) {
        char* text = nullptr;
        uint32_t length = 0;
        EXPECT_EQ(
            qxbc_der_to_b64(ctx_, der.data(), static_cast<uint32_t>(der.size()), &text, &length),
            0u);
        if (text == nullptr)
            return {};
        EXPECT_EQ(text[length], '\0');
        EXPECT_EQ(std::strlen(text), length);
        std::string copy(text, length);
        qxumfree(ctx_, &text);
        return copy;
    }

    // The decoded bytes, or a test failure with an empty result.
    Bytes decode(const std::string& text) {
        unsigned char* der = nullptr;
        uint32_t length = 0;
        EXPECT_EQ(
            qxbc_b64_to_der(ctx_, text.data(), static_cast<uint32_t>(text.size()), &der, &length),
            0u)
            << text;
        if (der == nullptr)
            return {};
        Bytes copy(der, der + length);
        qxumfree(ctx_, &der);
        return copy;
    }

    // The body between the first begin marker and the end marker of PEM text.
    static std::string pem_body(const std::string& pem) {
        const size_t begin = pem.find(QX_STR_CRL_HEADER);
        const size_t end = pem.find(QX_STR_CRL_FOOTER);
        if (begin == std::string::npos || end == std::string::npos || end < begin) {
            ADD_FAILURE() << "no CRL markers in " << pem;
            return {};
        }
        const size_t start = begin + std::strlen(QX_STR_CRL_HEADER);
        return pem.substr(start, end - start);
    }
};

TEST(PemMarkers, Texts) {
    EXPECT_STREQ(QX_STR_CRL_HEADER, "-----BEGIN X509 CRL-----");
    EXPECT_STREQ(QX_STR_CRL_HEADER1, "-----BEGIN CRL-----");
    EXPECT_STREQ(QX_STR_CRL_HEADER2, "-----BEGIN CERTIFICATE REVOCATION LIST-----");
    EXPECT_STREQ(QX_STR_CRL_HEADER3, "-----BEGIN X509CRL-----");
    EXPECT_STREQ(QX_STR_CRL_FOOTER, "-----END X509 CRL-----");
    EXPECT_STREQ(QX_STR_CRL_FOOTER1, "-----END CRL-----");
    EXPECT_STREQ(QX_STR_CRL_FOOTER2, "-----END CERTIFICATE REVOCATION LIST-----");
    EXPECT_STREQ(QX_STR_CRL_FOOTER3, "-----END X509 CRL-----\n");
}

TEST_F(Base64Test, LayoutOfKnownInputs) {
    // RFC 4648 section 10, each laid out as a PEM body.
    EXPECT_EQ(encode({}), "\n");
    EXPECT_EQ(encode({'f'}), "\nZg==\n");
    EXPECT_EQ(encode({'f', 'o'}), "\nZm8=\n");
    EXPECT_EQ(encode({'f', 'o', 'o'}), "\nZm9v\n");
    EXPECT_EQ(encode({'f', 'o', 'o', 'b', 'a', 'r'}), "\nZm9vYmFy\n");

    // 48 bytes fill a line of 64 characters exactly; the 49th starts another.
    std::string full;
    for (int group = 0; group < 16; ++group)
        full += "YWFh"; // "aaa"
    EXPECT_EQ(encode(Bytes(48, 'a')), "\n" + full + "\n");
    EXPECT_EQ(encode(Bytes(49, 'a')), "\n" + full + "\nYQ==\n");
    EXPECT_EQ(encode(Bytes(96, 'a')), "\n" + full + "\n" + full + "\n");
    EXPECT_EQ(encode({0xFB, 0xFF, 0xBF}), "\n+/+/\n");
}

TEST_F(Base64Test, RoundTripsEveryShortLength) {
    for (uint32_t length = 0; length <= 200; ++length) {
        SCOPED_TRACE("length " + std::to_string(length));
        const Bytes bytes = random_bytes(length, length);
        const std::string text = encode(bytes);
        ASSERT_GE(text.size(), 1u);
        EXPECT_EQ(text.front(), '\n');
        EXPECT_EQ(text.back(), '\n');
        // Every line but the last is 64 characters; the last is 1 to 64.
        size_t lineStart = 1;
        for (size_t at = 1; at < text.size(); ++at) {
            if (text[at] != '\n')
                continue;
            const size_t lineLength = at - lineStart;
            EXPECT_TRUE(lineLength == 64 || (at + 1 == text.size() && lineLength > 0))
                << "line of " << lineLength << " at " << lineStart;
            lineStart = at + 1;
        }
        EXPECT_EQ(without_line_feeds(text), openssl_base64(bytes));
        EXPECT_EQ(decode(text), bytes);
    }
}

TEST_F(Base64Test, RoundTripsMegabytes) {
    for (const size_t length : {size_t{1} << 20, (size_t{3} << 20) + 1, (size_t{5} << 20) + 2}) {
        SCOPED_TRACE("length " + std::to_string(length));
        const Bytes bytes = random_bytes(length, static_cast<uint32_t>(length));
        const std::string text = encode(bytes);
        EXPECT_EQ(without_line_feeds(text), openssl_base64(bytes));
        EXPECT_EQ(decode(text), bytes);
    }
    EXPECT_EQ(qxum_live_blocks(layer()), 0u);
}

TEST_F(Base64Test, OpensslReadsTheEncodedBody) {
    TempDir dir;
    const Bytes raw = random_bytes(1000, 7);
    write_text(dir / "body.txt", encode(raw));
    ASSERT_EQ(run_in(dir.path(), "openssl base64 -d -in body.txt -out raw.bin"), 0);
    EXPECT_EQ(read_file(dir / "raw.bin"), raw);

    const Bytes crl = sample_crl();
    write_text(dir / "crl.pem",
               std::string(QX_STR_CRL_HEADER) + encode(crl) + std::string(QX_STR_CRL_FOOTER3));
    ASSERT_EQ(run_in(dir.path(), "openssl crl -in crl.pem -outform DER -out crl.der"), 0)
        << (dir / "log.txt");
    EXPECT_EQ(read_file(dir / "crl.der"), crl);
}

TEST_F(Base64Test, DecodesWhatOpensslWrites) {
    TempDir dir;
    const Bytes crl = sample_crl();
    write_file(dir / "crl.der", crl);
    ASSERT_EQ(run_in(dir.path(), "openssl crl -inform DER -in crl.der -outform PEM -out crl.pem"),
              0);
    const Bytes pemBytes = read_file(dir / "crl.pem");
    const std::string pem(pemBytes.begin(), pemBytes.end());
    ASSERT_GT(std::count(pem.begin(), pem.end(), '\n'), 10);
    EXPECT_EQ(decode(pem_body(pem)), crl);

    std::string crlf;
    for (const char c : pem)
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    EXPECT_EQ(decode(pem_body(crlf)), crl);
}

TEST_F(Base64Test, SkipsWhitespaceAndDecodesEmptyBodies) {
    const Bytes foobar = {'f', 'o', 'o', 'b', 'a', 'r'};
    EXPECT_EQ(decode("Zm9v\r\n Ym Fy\t"), foobar);
    EXPECT_EQ(decode("\r\n\r\nZm9vYmFy\r\n\r\n"), foobar);
    // A group split by whitespace, then whole groups again.
    EXPECT_EQ(decode("Zm9 vYmFyZm9v"), (Bytes{'f', 'o', 'o', 'b', 'a', 'r', 'f', 'o', 'o'}));
    // Whitespace may even fall inside the padding.
    EXPECT_EQ(decode("Zg=\n=\n"), Bytes{'f'});
    EXPECT_EQ(decode("Zm8= \n"), (Bytes{'f', 'o'}));

    // No groups at all is zero bytes, in a block of its own.
    for (const std::string empty : {"", "\n", " \r\n\t "}) {
        unsigned char* der = nullptr;
        uint32_t length = 7;
        EXPECT_EQ(
            qxbc_b64_to_der(ctx_, empty.data(), static_cast<uint32_t>(empty.size()), &der, &length),
            0u);
        EXPECT_NE(der, nullptr);
        EXPECT_EQ(length, 0u);
        qxumfree(ctx_, &der);
    }
    unsigned char* der = nullptr;
    uint32_t length = 7;
    EXPECT_EQ(qxbc_b64_to_der(ctx_, nullptr, 0, &der, &length), 0u);
    EXPECT_EQ(length, 0u);
    qxumfree(ctx_, &der);
}

TEST_F(Base64Test, RefusesTextThatIsNotBase64) {
    const std::vector<std::string> bad = {
        // Bytes outside the alphabet.
        "Zm9v!",
        std::string("Zm9v\0Ym9v", 8),
        "Zm9v-_",
        "Zm9v\xC3\xA9YmFy",
        "Zm9v\vYmFy",
        "Zm9vYm!yZm9v",
        "YWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFh\nYW*h\n",
        // Not a whole number of groups.
        "Z",
        "Zm9",
        "Zm9vY",
        "Zm9vYmF\n",
        // Misplaced or extra padding.
        "=Zm9",
        "Z===",
        "====",
        "Zm=v",
        "Zg=",
        "Zg==Zg==",
        "Zm8=Zm9v",
        "Zg===",
        "Zm9v=",
        "Zm9v====",
        "Zg== =",
        // Non-zero pad bits: each has a canonical neighbour ("Zg==", "Zm8=").
        "Zh==",
        "Zm9=",
    };
    for (const std::string& text : bad) {
        SCOPED_TRACE(text);
        unsigned char sentinel = 0;
        unsigned char* der = &sentinel;
        uint32_t length = 1234;
        EXPECT_EQ(
            qxbc_b64_to_der(ctx_, text.data(), static_cast<uint32_t>(text.size()), &der, &length),
            QXL_ERR_BASE64);
        EXPECT_EQ(der, &sentinel);
        EXPECT_EQ(length, 1234u);
        EXPECT_EQ(qxum_live_blocks(layer()), 0u);
    }
}

TEST_F(Base64Test, BadArgumentsAndOversizedInput) {
    unsigned char* der = nullptr;
    uint32_t length = 0;
    char* text = nullptr;
    const unsigned char byte = 0;
    EXPECT_EQ(qxbc_b64_to_der(nullptr, "Zg==", 4, &der, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxbc_b64_to_der(ctx_, nullptr, 4, &der, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxbc_b64_to_der(ctx_, "Zg==", 4, nullptr, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxbc_b64_to_der(ctx_, "Zg==", 4, &der, nullptr), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxbc_der_to_b64(nullptr, &byte, 1, &text, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxbc_der_to_b64(ctx_, nullptr, 1, &text, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxbc_der_to_b64(ctx_, &byte, 1, nullptr, &length), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxbc_der_to_b64(ctx_, &byte, 1, &text, nullptr), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(der, nullptr);
    EXPECT_EQ(text, nullptr);

    // Text for this many bytes would need more than a 32-bit block: refused
    // before the input is read or anything is allocated.
    const uint64_t attempts = qxum_allocation_count(layer());
    for (const uint32_t huge : {UINT32_MAX, 3300000000u}) {
        EXPECT_EQ(qxbc_der_to_b64(ctx_, &byte, huge, &text, &length), QXL_ERR_OUT_OF_MEMORY);
        EXPECT_EQ(text, nullptr);
    }
    EXPECT_EQ(qxum_allocation_count(layer()), attempts);
}

TEST_F(Base64Test, AllocationFailures) {
    const Bytes bytes = random_bytes(100, 100);
    const std::string encoded = encode(bytes);
    char* text = nullptr;
    uint32_t textLength = 0;
    sweep_allocations(
        [&] {
            return qxbc_der_to_b64(ctx_, bytes.data(), static_cast<uint32_t>(bytes.size()), &text,
                                   &textLength);
        },
        [&](StatusCode status, bool injected) {
            if (injected) {
                EXPECT_EQ(status, QXL_ERR_OUT_OF_MEMORY);
                EXPECT_EQ(text, nullptr);
                return;
            }
            ASSERT_EQ(status, 0u);
            EXPECT_EQ(std::string(text, textLength), encoded);
            qxumfree(ctx_, &text);
        });

    unsigned char* der = nullptr;
    uint32_t derLength = 0;
    sweep_allocations(
        [&] {
            return qxbc_b64_to_der(ctx_, encoded.data(), static_cast<uint32_t>(encoded.size()),
                                   &der, &derLength);
        },
        [&](StatusCode status, bool injected) {
            if (injected) {
                EXPECT_EQ(status, QXL_ERR_OUT_OF_MEMORY);
                EXPECT_EQ(der, nullptr);
                return;
            }
            ASSERT_EQ(status, 0u);
            EXPECT_EQ(Bytes(der, der + derLength), bytes);
            qxumfree(ctx_, &der);
        });

    // Bad text releases what it took, and running out of memory first still
    // reads as running out of memory.
    const std::string bad = encoded + "!";
    sweep_allocations(
        [&] {
            return qxbc_b64_to_der(ctx_, bad.data(), static_cast<uint32_t>(bad.size()), &der,
                                   &derLength);
        },
        [&](StatusCode status, bool injected) {
            EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : QXL_ERR_BASE64);
            EXPECT_EQ(der, nullptr);
        });
}

} // namespace
