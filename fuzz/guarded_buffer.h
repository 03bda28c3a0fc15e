// An output buffer of an exact capacity followed by guard bytes, all filled
// with one pattern, so that a write past the capacity, or any write by a call
// that refused, is seen even where AddressSanitizer would not see it.
#ifndef QXCRL_FUZZ_GUARDED_BUFFER_H
#define QXCRL_FUZZ_GUARDED_BUFFER_H

#include <algorithm>
#include <cstddef>
#include <vector>

namespace qxfuzz {

class GuardedBuffer {
  public:
    static constexpr size_t guard_size = 32;
    static constexpr unsigned char pattern = 0xA5;

    explicit GuardedBuffer(size_t capacity)
        : capacity_(capacity), bytes_(capacity + guard_size, pattern) {}

    unsigned char* data() { return bytes_.data(); }
    char* text() { return reinterpret_cast<char*>(bytes_.data()); }
    size_t capacity() const { return capacity_; }

    // True when no byte from offset on (guards included) was written.
    bool untouched_from(size_t offset) const {
        return std::all_of(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), bytes_.end(),
                           [](unsigned char byte) { return byte == pattern; });
    }
    bool guards_intact() const { return untouched_from(capacity_); }

  private:
    size_t capacity_;
    std::vector<unsigned char> bytes_;
};

} // namespace qxfuzz

#endif
