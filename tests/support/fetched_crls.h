// What a fetch appended to a list of fetched CRLs, as bytes.
#ifndef QXCRL_TESTS_SUPPORT_FETCHED_CRLS_H
#define QXCRL_TESTS_SUPPORT_FETCHED_CRLS_H

#include <vector>

#include "qxlayer.h"

namespace qxtest {

// The DER of every node, in list order.
inline std::vector<std::vector<unsigned char>> ders_of(const FetchedCrlNode* list) {
    std::vector<std::vector<unsigned char>> found;
    for (const FetchedCrlNode* node = list; node != nullptr; node = node->next)
        found.emplace_back(node->der, node->der + node->length);
    return found;
}

// How many nodes list has.
inline size_t length_of(const FetchedCrlNode* list) {
    return ders_of(list).size();
}

} // namespace qxtest

#endif
