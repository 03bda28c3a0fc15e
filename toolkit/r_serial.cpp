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
// read octet by octet without a copy: for a negative value it is the two's
// complement, less an octet that was only sign.
class Magnitude {
  public:
    explicit Magnitude(const RDer& content) : content_(content) {
        negative_ = (content.data[0] & 0x80) != 0;
        if (!negative_) {
            skip_ = content.length > 1 && content.data[0] == 0 ? 1 : 0;
            return;
        }
        // Inverting and adding one carries up to the last non-zero octet.
        lastNonZero_ = content.length;
        for (size_t i = content.length; i > 0; --i) {
            if (content.data[i - 1] != 0) {
                lastNonZero_ = i - 1;
                break;
            }
        }
        bool padded = false;
        if (content.length > 1 && content.data[0] == 0xff) {
            for (size_t i = 1; i < content.length && !padded; ++i)
                padded = content.data[i] != 0;
        }
        skip_ = padded ? 1 : 0;
    }

    bool negative() const { return negative_; }
    size_t length() const { return content_.length - skip_; }

    unsigned char at(size_t index) const {
        const size_t i = index + skip_;
        if (!negative_)
            return content_.data[i];
        const auto inverted = static_cast<unsigned char>(~content_.data[i]);
        if (i > lastNonZero_)
            return 0; // 0xff plus the carry
        return i == lastNonZero_ ? static_cast<unsigned char>(inverted + 1) : inverted;
    }

  private:
    RDer content_;
    bool negative_ = false;
    size_t skip_ = 0;
    size_t lastNonZero_ = 0;
};

} // namespace

int r_serial_order_signed(const RDer& a, const RDer& b) {
    const Magnitude aMagnitude(a);
    const Magnitude bMagnitude(b);
    // OpenSSL compares the magnitudes' lengths, then their octets, then the sign.
    if (aMagnitude.length() != bMagnitude.length())
        return aMagnitude.length() < bMagnitude.length() ? -1 : 1;
    for (size_t i = 0; i < aMagnitude.length(); ++i) {
        if (aMagnitude.at(i) != bMagnitude.at(i))
            return aMagnitude.at(i) < bMagnitude.at(i) ? -1 : 1;
    }
    return static_cast<int>(aMagnitude.negative()) - static_cast<int>(bMagnitude.negative());
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
