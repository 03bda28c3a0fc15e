// The framing check on what a directory sends: well-framed LDAPMessages pass
// however the stream is sliced, and a stream fails from its first byte that
// cannot frame one.
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hostile_ldap.h"
#include "services/ldap_framing.h"

using namespace qxtest;

namespace {

// The element with a four-octet length, as some directories write every length.
std::string long_tlv(unsigned char tag, const std::string& content) {
    const auto n = static_cast<uint32_t>(content.size());
    return std::string{static_cast<char>(tag),     '\x84',
                       static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                       static_cast<char>(n >> 8),  static_cast<char>(n)} +
           content;
}

// An LDAPResult of success with no matched DN and no message.
const std::string success("\x0a\x01\x00\x04\x00\x04\x00", 7);

std::string message(const std::string& id, const std::string& operation) {
    return HostileLdap::tlv(0x30, HostileLdap::tlv(0x02, id) + operation);
}

// Whether the stream passes when taken in slices of the given sizes (the
// last one repeated to the end).
bool passes(const std::string& stream, const std::vector<size_t>& slices) {
    qxldap::FramingCheck check;
    const auto* bytes = reinterpret_cast<const unsigned char*>(stream.data());
    size_t at = 0;
    for (size_t i = 0; at < stream.size(); ++i) {
        const size_t size = std::min(slices[std::min(i, slices.size() - 1)], stream.size() - at);
        if (!check.take(bytes + at, size))
            return false;
        at += size;
    }
    return true;
}

// Whole, byte by byte, and in random slices: the same verdict every time.
void expect_verdict(const std::string& stream, bool expected) {
    std::mt19937 random(4511);
    std::vector<size_t> randomSlices;
    for (int i = 0; i < 64; ++i)
        randomSlices.push_back(1 + random() % 7);
    for (const std::vector<size_t>& slices :
         {std::vector<size_t>{stream.size()}, std::vector<size_t>{1}, randomSlices})
        EXPECT_EQ(passes(stream, slices), expected) << "first slice " << slices[0];
}

} // namespace

TEST(LdapFraming, WellFramedMessagesPassInAnySlicing) {
    const std::string crl(300, '\x5a');
    const std::string entry = HostileLdap::tlv(
        0x64, HostileLdap::tlv(0x04, "cn=ca") +
                  HostileLdap::tlv(0x30, HostileLdap::attribute("certificateRevocationList",
                                                                {{crl.begin(), crl.end()}})));
    const std::string result = HostileLdap::tlv(0x65, success);
    const std::string controls = HostileLdap::tlv(0xa0, HostileLdap::tlv(0x30, "\x04\x01x"));
    const std::string stream =
        message("\x02", entry) + message("\x02", HostileLdap::tlv(0x73, "\x04\x01u")) +
        long_tlv(0x30, long_tlv(0x02, "\x7f\xff\xff\xff") + long_tlv(0x65, success)) +
        message("\x02", result + controls) + message("\x01", std::string("\x42\x00", 2));
    expect_verdict(stream, true);
    expect_verdict("", true);
}

TEST(LdapFraming, AStreamFailsFromItsFirstUnframedByte) {
    const std::string good = message("\x02", HostileLdap::tlv(0x65, success));
    const struct {
        const char* what;
        std::string bytes;
    } broken[] = {
        {"not a SEQUENCE", "\x31\x03\x02\x01\x02"},
        {"an indefinite length", std::string("\x30\x80\x02\x01\x02\x65\x00\x00\x00", 9)},
        {"a length of nine octets", "\x30\x89\x01\x01\x01\x01\x01\x01\x01\x01\x01"},
        {"an ID that is no INTEGER", "\x30\x05\x04\x01\x02\x42\x00"},
        {"an empty ID", std::string("\x30\x04\x02\x00\x42\x00", 6)},
        {"an ID longer than its message", "\x30\x03\x02\x05\x02"},
        {"an empty message", std::string("\x30\x00", 2)},
        {"no operation", "\x30\x03\x02\x01\x02"},
        {"an operation tag and no length", "\x30\x04\x02\x01\x02\x65"},
        {"half an operation's length", "\x30\x06\x02\x01\x02\x65\x82\x01"},
        {"an operation with a tag of several octets", "\x30\x06\x02\x01\x02\x7f\x01\x00"},
        {"an operation of indefinite length", std::string("\x30\x05\x02\x01\x02\x65\x80", 7)},
        {"an operation longer than its message", "\x30\x06\x02\x01\x02\x65\x05\x0a"},
        {"an operation length past what the message holds", "\x30\x07\x02\x01\x02\x65\x81\xff"},
    };
    for (const auto& stream : broken) {
        SCOPED_TRACE(stream.what);
        expect_verdict(stream.bytes, false);
        expect_verdict(good + stream.bytes, false);
        // Whatever follows, the stream stays failed.
        expect_verdict(stream.bytes + good, false);
    }
    expect_verdict(good + good, true);
}
