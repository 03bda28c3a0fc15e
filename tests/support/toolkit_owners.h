// Owning pointers for toolkit objects, and an item's bytes as a vector: for
// the toolkit's tests and for fuzz targets, so nothing here needs a test
// framework.
#ifndef QXCRL_TESTS_SUPPORT_TOOLKIT_OWNERS_H
#define QXCRL_TESTS_SUPPORT_TOOLKIT_OWNERS_H

#include <memory>
#include <vector>

#include "toolkit/r_toolkit.h"

namespace qxtest {

template <typename T, int (*Free)(T*)> struct Freer {
    void operator()(T* object) const { Free(object); }
};
using LibPtr = std::unique_ptr<R_LIB_CTX, Freer<R_LIB_CTX, R_LIB_CTX_free>>;
using CertCtxPtr = std::unique_ptr<R_CERT_CTX, Freer<R_CERT_CTX, R_CERT_CTX_free>>;
using TimeCtxPtr = std::unique_ptr<R_TIME_CTX, Freer<R_TIME_CTX, R_TIME_CTX_free>>;
using CrlPtr = std::unique_ptr<R_CRL, Freer<R_CRL, R_CRL_free>>;
using CertPtr = std::unique_ptr<R_CERT, Freer<R_CERT, R_CERT_free>>;
using EntryPtr = std::unique_ptr<R_CRL_ENTRY, Freer<R_CRL_ENTRY, R_CRL_ENTRY_free>>;
using ExtPtr = std::unique_ptr<R_EXT, Freer<R_EXT, R_EXT_free>>;
using TimePtr = std::unique_ptr<R_TIME, Freer<R_TIME, R_TIME_free>>;
using KeyPtr = std::unique_ptr<R_PKEY, Freer<R_PKEY, R_PKEY_free>>;

inline std::vector<unsigned char> item_bytes(const R_ITEM& item) {
    return item.len == 0 ? std::vector<unsigned char>{}
                         : std::vector<unsigned char>(item.data, item.data + item.len);
}

} // namespace qxtest

#endif
