// Serial numbers as the index sees them: an order that matches OpenSSL's
// sorting of entries, and a hash keyed once per process, so that a CRL
// crafted to collide in the index cannot make its building quadratic.
#include <sys/random.h>

#include <chrono>
#include <cstring>

#include "r_crl_parts.h"

namespace {

struct Key {
    uint64_t first;
    uint64_t second;
};

const Key& key() {
    static const Key made = [] {
        Key key{};
        if (getrandom(&key, sizeof key, 0) != static_cast<ssize_t>(sizeof key)) {
            // No entropy to be had: the clock still keeps the key from being known in advance.
            const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
            key = {static_cast<uint64_t>(now) * 0x9e3779b97f4a7c15u,
                   reinterpret_cast<uintptr_t>(&key) ^ 0xc2b2ae3d27d4eb4fu};
        }
        return key;
    }();
    return made;
}

__extension__ typedef unsigned __int128 Wide;

uint64_t mix(uint64_t a, uint64_t b) {
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

// The magnitude OpenSSL keeps of INTEGER content octets (already checked),
// and whether the value is negative.
RDer magnitude(const RDer& content, RBytes* negative, bool* isNegative) {
    *isNegative = (content.data[0] & 0x80) != 0;
    if (!*isNegative)
        return content.length > 1 && content.data[0] == 0
                   ? RDer{content.data + 1, content.length - 1}
                   : content;
    // Two's complement: invert and add one, then drop an octet that was only
    // sign. Serials that long are absurd; without memory for one, it sorts as empty.
    if (!negative->assign(content.data, content.length))
        return RDer{};
    unsigned char* octets = negative->data();
    for (size_t i = 0; i < negative->size(); ++i)
        octets[i] = static_cast<unsigned char>(~octets[i]);
    for (size_t i = negative->size(); i > 0; --i) {
        if (++octets[i - 1] != 0)
            break;
    }
    bool padded = false;
    if (content.length > 1 && content.data[0] == 0xff) {
        for (size_t i = 1; i < content.length && !padded; ++i)
            padded = content.data[i] != 0;
    }
    return padded ? RDer{negative->data() + 1, negative->size() - 1}
                  : RDer{negative->data(), negative->size()};
}

} // namespace

int r_serial_order_signed(const RDer& a, const RDer& b) {
    RBytes aNegative;
    RBytes bNegative;
    bool aIsNegative = false;
    bool bIsNegative = false;
    const RDer aMagnitude = magnitude(a, &aNegative, &aIsNegative);
    const RDer bMagnitude = magnitude(b, &bNegative, &bIsNegative);
    // OpenSSL compares the magnitudes' lengths, then their octets, then the sign.
    if (aMagnitude.length != bMagnitude.length)
        return aMagnitude.length < bMagnitude.length ? -1 : 1;
    const int octets = aMagnitude.length == 0
                           ? 0
                           : std::memcmp(aMagnitude.data, bMagnitude.data, aMagnitude.length);
    if (octets != 0)
        return octets;
    return static_cast<int>(aIsNegative) - static_cast<int>(bIsNegative);
}

uint32_t r_serial_hash(const RDer& serial) {
    const Key& k = key();
    uint64_t hash = k.first ^ serial.length;
    const unsigned char* at = serial.data;
    size_t left = serial.length;
    while (left >= 8) {
        uint64_t word = 0;
        std::memcpy(&word, at, 8);
        hash = mix(hash ^ word, k.second);
        at += 8;
        left -= 8;
    }
    uint64_t tail = 0;
    std::memcpy(&tail, at, left);
    hash = mix(hash ^ tail ^ (uint64_t{left} << 56), k.second ^ k.first);
    return static_cast<uint32_t>(hash ^ (hash >> 32));
}
