// The layer's table for HTTP and LDAP distribution points under settings a
// test chooses, installed on a context. The settings may change at any
// time; the table must outlive the context's use of it.
#ifndef QXCRL_TESTS_SUPPORT_OWN_FETCH_TABLE_H
#define QXCRL_TESTS_SUPPORT_OWN_FETCH_TABLE_H

#include <string>
#include <vector>

#include "qxlayer.h"

namespace qxtest {

class OwnFetchTable {
  public:
    // The default settings, installed on ctx.
    explicit OwnFetchTable(SecurityContext* ctx);
    OwnFetchTable(const OwnFetchTable&) = delete;
    OwnFetchTable& operator=(const OwnFetchTable&) = delete;

    // The least walk memory (settings.ldap.maxBytes) with which a fetch of
    // each of urls alone succeeds; settings.ldap.maxBytes is left at it.
    uint32_t least_max_bytes_for(const std::vector<std::string>& urls);

    QxCrlFetchSettings settings{};

  private:
    SecurityContext* ctx_;
    CrlFetchCallbacks table_{};
};

} // namespace qxtest

#endif
