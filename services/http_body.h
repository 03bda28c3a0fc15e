// The body of an HTTP answer as it arrives, in one block of the layer's
// allocator that grows with it. It never grows past the body cap, and what
// it holds is charged to the walk's memory as it grows, so a server that
// sends too much is stopped at the first bytes past either bound.
#ifndef QXCRL_SERVICES_HTTP_BODY_H
#define QXCRL_SERVICES_HTTP_BODY_H

#include <algorithm>
#include <cstddef>

#include "fetch_chain.h"

namespace qxhttp {

class Body {
  public:
    Body(SecurityContext* ctx, qxfetch::Chain& chain, uint32_t cap)
        : ctx_(ctx), chain_(chain), cap_(cap) {}
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;
    ~Body() { qxumfree(ctx_, &data_); }

    // Appends length bytes of the answer to url; expected is the whole
    // body's announced length, or negative when there is none. False, with
    // status() set and traced, when the body would pass the cap or the
    // walk's memory, or memory runs out.
    bool append(const char* url, const char* bytes, size_t length, int64_t expected);

    // Empties the body for another answer.
    void clear();

    // The longest body that fits the cap and what is left of the walk's memory.
    uint64_t limit() const { return std::min<uint64_t>(cap_, chain_.room(0)); }

    StatusCode status() const { return status_; }
    const unsigned char* data() const { return data_; }
    uint32_t size() const { return size_; }

    // Hands the block, cut to the body's size, to *block (NULL for an
    // empty body) and empties the body; the chain holds nothing for it.
    StatusCode release(unsigned char** block);

  private:
    StatusCode grow(uint64_t needed, int64_t expected);

    SecurityContext* ctx_;
    qxfetch::Chain& chain_;
    uint32_t cap_;
    unsigned char* data_ = nullptr;
    uint32_t size_ = 0;
    uint32_t capacity_ = 0;
    StatusCode status_ = 0;
};

} // namespace qxhttp

#endif
