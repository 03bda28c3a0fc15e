// qxcrl show: everything qxcrl_GetDetails reads from a CRL, as text or JSON.
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "errors.h"
#include "session.h"

namespace qxcli {

namespace {

constexpr char usage[] = "qxcrl show CRL [--json] [--trace LEVEL]";

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
            out += c; // UTF-8 goes through as it is
        }
    }
    return out + "\"";
}

std::string hex(const unsigned char* bytes, uint32_t length) {
    std::string out;
    for (uint32_t i = 0; i < length; ++i) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
        out += pair;
    }
    return out;
}

// The CRL number from the DER INTEGER the extension holds: decimal when it
// fits 64 bits and is not negative, else 0x and the hex of its content.
std::string crl_number_text(const unsigned char* der, uint32_t length) {
    const unsigned char* content = der;
    uint32_t contentLength = length;
    if (length >= 2 && der[0] == 0x02) {
        // The length in short form, or in long form of up to four octets.
        uint32_t header = 2;
        uint64_t declared = der[1];
        if ((der[1] & 0x80) != 0) {
            const uint32_t octets = der[1] & 0x7fu;
            declared = UINT64_MAX; // no length this header can state
            if (octets >= 1 && octets <= 4 && length >= 2 + octets) {
                header += octets;
                declared = 0;
                for (uint32_t i = 2; i < header; ++i)
                    declared = declared << 8 | der[i];
            }
        }
        if (declared == length - header) {
            content = der + header;
            contentLength = length - header;
        }
    }
    while (contentLength > 1 && content[0] == 0) {
        ++content;
        --contentLength;
    }
    if (contentLength == 0 || contentLength > 8 || (content[0] & 0x80) != 0)
        return "0x" + hex(content, contentLength);
    uint64_t value = 0;
    for (uint32_t i = 0; i < contentLength; ++i)
        value = value << 8 | content[i];
    return std::to_string(value);
}

struct Entry {
    std::string serial;
    std::string revocationDate;
};

struct Details {
    uint32_t version = 0;
    uint32_t signatureType = 0;
    std::string issuer;
    std::string thisUpdate;
    std::optional<std::string> nextUpdate;
    std::optional<std::string> crlNumber;
    std::vector<Entry> entries;
};

// Reads a byte-string item into bytes, which grows until the value fits: a
// serial or a CRL number is as long as the CRL's author made it.
uint32_t read_bytes(SecurityContext* ctx, CrlObject* crl, CrlDetailItem item, uint32_t index,
                    std::vector<unsigned char>& bytes, uint32_t* length) {
    constexpr size_t largest = size_t{1} << 31; // no value of a CRL is longer
    for (;;) {
        CrlDetailBuffer buffer{bytes.data(), static_cast<uint32_t>(bytes.size())};
        const uint32_t status = qxcrl_GetDetails(ctx, crl, item, index, &buffer);
        if (status != QXERR_NO_OUTPUT_BUFFER || bytes.size() >= largest) {
            *length = buffer.length;
            return status;
        }
        bytes.resize(bytes.size() * 2);
    }
}

int read_details(SecurityContext* ctx, CrlObject* crl, Details& details) {
    uint32_t status = qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_VERSION, 0, &details.version);
    if (status != 0)
        return report("reading the version", status);
    status = qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_SIGNATURE_TYPE, 0, &details.signatureType);
    if (status != 0)
        return report("reading the signature type", status);
    std::vector<char> name(1025);
    status = qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ISSUER_NAME, 0, name.data());
    if (status != 0)
        return report("reading the issuer", status);
    details.issuer = name.data();
    char time[129] = {};
    status = qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_THIS_UPDATE, 0, time);
    if (status != 0)
        return report("reading this update", status);
    details.thisUpdate = time;
    // Next update and CRL number are optional in a CRL: a failed read means absent.
    if (qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_NEXT_UPDATE, 0, time) == 0)
        details.nextUpdate = time;
    std::vector<unsigned char> bytes(64);
    uint32_t length = 0;
    if (read_bytes(ctx, crl, QXCRL_DETAIL_EXTENSION, 0, bytes, &length) == 0 && length > 0)
        details.crlNumber = crl_number_text(bytes.data(), length);
    uint32_t count = 0;
    status = qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_COUNT, 0, &count);
    if (status != 0)
        return report("reading the entry count", status);
    for (uint32_t i = 0; i < count; ++i) {
        status = read_bytes(ctx, crl, QXCRL_DETAIL_ENTRY_SERIAL, i, bytes, &length);
        if (status != 0)
            return report("reading entry " + std::to_string(i), status);
        status = qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_ENTRY_REVOCATION_DATE, i, time);
        if (status != 0)
            return report("reading entry " + std::to_string(i), status);
        details.entries.push_back({hex(bytes.data(), length), time});
    }
    return 0;
}

void print_text(const Details& details) {
    std::printf("version: %u\n", details.version);
    std::printf("signature type: %u (%s)\n", details.signatureType,
                signature_algorithm_name(details.signatureType));
    std::printf("issuer: %s\n", details.issuer.c_str());
    std::printf("this update: %s\n", details.thisUpdate.c_str());
    std::printf("next update: %s\n", details.nextUpdate ? details.nextUpdate->c_str() : "none");
    std::printf("CRL number: %s\n", details.crlNumber ? details.crlNumber->c_str() : "none");
    std::printf("entries: %zu\n", details.entries.size());
    for (const Entry& entry : details.entries)
        std::printf("  serial %s revoked %s\n", entry.serial.c_str(), entry.revocationDate.c_str());
}

void print_json(const Details& details) {
    std::string out =
        "{\"version\":" + std::to_string(details.version) +
        ",\"signatureType\":" + std::to_string(details.signatureType) +
        ",\"signatureAlgorithm\":" + json_string(signature_algorithm_name(details.signatureType)) +
        ",\"issuer\":" + json_string(details.issuer) +
        ",\"thisUpdate\":" + json_string(details.thisUpdate) +
        ",\"nextUpdate\":" + (details.nextUpdate ? json_string(*details.nextUpdate) : "null") +
        ",\"crlNumber\":" + (details.crlNumber ? json_string(*details.crlNumber) : "null") +
        ",\"entries\":[";
    for (size_t i = 0; i < details.entries.size(); ++i) {
        if (i != 0)
            out += ",";
        out += "{\"serial\":" + json_string(details.entries[i].serial) +
               ",\"revocationDate\":" + json_string(details.entries[i].revocationDate) + "}";
    }
    out += "]}\n";
    std::fputs(out.c_str(), stdout);
}

} // namespace

int show_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{}, {"--json"}});
    if (arguments.help()) {
        std::printf("usage: %s\nPrints a CRL's version, signature type, issuer, dates, CRL "
                    "number and entries.\n",
                    usage);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), usage);
    if (arguments.positionals().size() != 1)
        return usage_error("show needs one CRL file", usage);
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
    Crl crl(session.ctx());
    if (const int failed = load_crl(session, arguments.positionals()[0], crl))
        return failed;
    Details details;
    if (const int failed = read_details(session.ctx(), crl.object, details))
        return failed;
    if (arguments.has("--json"))
        print_json(details);
    else
        print_text(details);
    return 0;
}

} // namespace qxcli
