#include "text.h"

#include <cstdio>

namespace qxcli {

std::string json_string(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string json_or_null(const char* text) {
    return text != nullptr ? json_string(text) : "null";
}

std::string json_or_null(const std::optional<std::string>& text) {
    return text ? json_string(*text) : "null";
}

std::string hex(const unsigned char* bytes, uint32_t length) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (uint32_t i = 0; i < length; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0x0f];
    }
    return out;
}

std::string colon_hex(const unsigned char* bytes, uint32_t length) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (uint32_t i = 0; i < length; ++i) {
        if (i != 0)
            out += ':';
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0x0f];
    }
    return out;
}

} // namespace qxcli
