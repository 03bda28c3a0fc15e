// Base64 (RFC 4648 alphabet, with padding) between DER and PEM bodies. Both
// directions are one pass over table lookups with a single output block, so
// a CRL of tens of megabytes costs no more than a copy or two.
//
// The decoder is strict where it matters for telling text from noise: any
// byte outside the alphabet other than line feed, carriage return, space and
// tab, '=' anywhere but the last one or two places of the final group, text
// after that group, a count of characters that is not a multiple of 4, and
// pad bits that are not zero (RFC 4648 section 3.5: every DER then has exactly
// one text) are all QXL_ERR_BASE64. An empty or all-whitespace body is zero
// groups and decodes to zero bytes; the encoder writes such a body for zero
// bytes, and a DER decoder refuses the empty block anyway.
#include <cstdint>
#include <initializer_list>

#include "base64.h"
#include "qxlayer.h"

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr uint32_t line_chars = 64;
constexpr uint32_t line_bytes = line_chars / 4 * 3;

// Decoder classes beyond the 64 digit values.
constexpr uint8_t skip = 64;
constexpr uint8_t pad = 65;
constexpr uint8_t bad = 0xFF;

struct DecodeTable {
    uint8_t value[256];
    constexpr DecodeTable() : value{} {
        for (uint8_t& v : value)
            v = bad;
        for (uint8_t digit = 0; digit < 64; ++digit)
            value[static_cast<unsigned char>(alphabet[digit])] = digit;
        for (const unsigned char space : {'\n', '\r', ' ', '\t'})
            value[space] = skip;
        value[static_cast<unsigned char>('=')] = pad;
    }
};

constexpr DecodeTable decode_table;

// The text length of derLength bytes without the NUL, as 64 bits so that the
// caller can see when it would not fit a block.
uint64_t encoded_length(uint64_t derLength) {
    const uint64_t chars = (derLength + 2) / 3 * 4;
    return 1 + chars + (chars + line_chars - 1) / line_chars;
}

char* encode_group(char* out, const unsigned char* in) {
    const uint32_t bits = static_cast<uint32_t>(in[0]) << 16 | static_cast<uint32_t>(in[1]) << 8 |
                          static_cast<uint32_t>(in[2]);
    out[0] = alphabet[bits >> 18];
    out[1] = alphabet[(bits >> 12) & 63];
    out[2] = alphabet[(bits >> 6) & 63];
    out[3] = alphabet[bits & 63];
    return out + 4;
}

// One or two bytes left over: the group is padded with '='.
char* encode_tail(char* out, const unsigned char* in, uint32_t count) {
    const uint32_t bits =
        static_cast<uint32_t>(in[0]) << 16 | (count == 2 ? static_cast<uint32_t>(in[1]) << 8 : 0);
    out[0] = alphabet[bits >> 18];
    out[1] = alphabet[(bits >> 12) & 63];
    out[2] = count == 2 ? alphabet[(bits >> 6) & 63] : '=';
    out[3] = '=';
    return out + 4;
}

// Whole groups of four digits from text while end - text >= 4; returns where
// the first group that is not four plain digits starts. Digit values are
// below 64 and every other class has bit 6 set, so one OR tells them apart.
const unsigned char* decode_plain_groups(const unsigned char* text, const unsigned char* end,
                                         unsigned char** out) {
    const uint8_t* value = decode_table.value;
    unsigned char* to = *out;
    for (; end - text >= 4; text += 4, to += 3) {
        const uint32_t a = value[text[0]], b = value[text[1]], c = value[text[2]],
                       d = value[text[3]];
        if ((a | b | c | d) >= 64)
            break;
        const uint32_t bits = a << 18 | b << 12 | c << 6 | d;
        to[0] = static_cast<unsigned char>(bits >> 16);
        to[1] = static_cast<unsigned char>(bits >> 8);
        to[2] = static_cast<unsigned char>(bits);
    }
    *out = to;
    return text;
}

} // namespace

// Runs of plain groups (a PEM line) take the fast path; line ends, padding
// and groups split by whitespace go one character at a time. Each group is
// written after its fourth character is read, three bytes for four or more
// characters, which is what lets out trail text in the same buffer.
bool qxl_base64_decode(const unsigned char* text, uint32_t textLength, unsigned char* out,
                       uint32_t* outLength) {
    unsigned char* const start = out;
    const unsigned char* const end = text + textLength;
    uint32_t bits = 0;
    uint32_t digits = 0;   // digits of the current group
    uint32_t pads = 0;     // '=' of the current group
    bool finished = false; // a padded group has ended the text
    while (text != end) {
        if (digits == 0 && !finished) {
            text = decode_plain_groups(text, end, &out);
            if (text == end)
                break;
        }
        const uint8_t value = decode_table.value[*text++];
        if (value < 64) {
            if (pads != 0 || finished)
                return false;
            bits = bits << 6 | value;
            if (++digits == 4) {
                out[0] = static_cast<unsigned char>(bits >> 16);
                out[1] = static_cast<unsigned char>(bits >> 8);
                out[2] = static_cast<unsigned char>(bits);
                out += 3;
                bits = 0;
                digits = 0;
            }
        } else if (value == pad) {
            if (finished || digits < 2)
                return false;
            if (digits + ++pads < 4)
                continue;
            // xx== holds 12 bits of which 8 are data, xxx= 18 of which 16.
            const uint32_t padBits = digits == 2 ? 4 : 2;
            if ((bits & ((1u << padBits) - 1)) != 0)
                return false;
            bits >>= padBits;
            if (digits == 3)
                *out++ = static_cast<unsigned char>(bits >> 8);
            *out++ = static_cast<unsigned char>(bits);
            digits = 0;
            pads = 0;
            finished = true;
        } else if (value != skip) {
            return false;
        }
    }
    if (digits != 0 || pads != 0)
        return false;
    *outLength = static_cast<uint32_t>(out - start);
    return true;
}

extern "C" StatusCode qxbc_der_to_b64(SecurityContext* ctx, const unsigned char* der,
                                      uint32_t derLength, char** text, uint32_t* textLength) {
    if (ctx == nullptr || (der == nullptr && derLength != 0) || text == nullptr ||
        textLength == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    const uint64_t length = encoded_length(derLength);
    // The block holds the NUL too, and block sizes are 32-bit.
    if (length >= UINT32_MAX)
        return QXL_ERR_OUT_OF_MEMORY;
    StatusCode status = 0;
    auto* block = static_cast<char*>(qxumalloc(ctx, static_cast<uint32_t>(length) + 1, &status));
    if (block == nullptr)
        return status;
    char* out = block;
    *out++ = '\n';
    const unsigned char* in = der;
    uint32_t left = derLength;
    for (; left >= line_bytes; left -= line_bytes) {
        for (const unsigned char* lineEnd = in + line_bytes; in != lineEnd; in += 3)
            out = encode_group(out, in);
        *out++ = '\n';
    }
    if (left != 0) {
        for (; left >= 3; left -= 3, in += 3)
            out = encode_group(out, in);
        if (left != 0)
            out = encode_tail(out, in, left);
        *out++ = '\n';
    }
    *out = '\0';
    *text = block;
    *textLength = static_cast<uint32_t>(out - block);
    return 0;
}

extern "C" StatusCode qxbc_b64_to_der(SecurityContext* ctx, const char* text, uint32_t textLength,
                                      unsigned char** der, uint32_t* derLength) {
    if (ctx == nullptr || (text == nullptr && textLength != 0) || der == nullptr ||
        derLength == nullptr)
        return QXL_ERR_BAD_ARGUMENT;
    // Every four characters give at most three bytes, so the bound needs no
    // counting pass; PEM's line ends make it a little generous.
    StatusCode status = 0;
    auto* block = static_cast<unsigned char*>(qxumalloc(ctx, textLength / 4 * 3, &status));
    if (block == nullptr)
        return status;
    uint32_t length = 0;
    if (!qxl_base64_decode(reinterpret_cast<const unsigned char*>(text), textLength, block,
                           &length)) {
        qxumfree(ctx, &block);
        return QXL_ERR_BASE64;
    }
    *der = block;
    *derLength = length;
    return 0;
}
