// Text forms the commands print: JSON strings and hex.
#ifndef QXCRL_CLI_TEXT_H
#define QXCRL_CLI_TEXT_H

#include <cstdint>
#include <optional>
#include <string>

namespace qxcli {

// text as a JSON string, quotes included; UTF-8 goes through as it is.
std::string json_string(const std::string& text);

// A JSON string, or null when text is NULL or absent.
std::string json_or_null(const char* text);
std::string json_or_null(const std::optional<std::string>& text);

// Lower-case hex of bytes, two digits a byte.
std::string hex(const unsigned char* bytes, uint32_t length);

// Upper-case hex with a colon between bytes, as fingerprints are written.
std::string colon_hex(const unsigned char* bytes, uint32_t length);

} // namespace qxcli

#endif
