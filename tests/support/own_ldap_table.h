// The layer's own LDAP callbacks under settings a test chooses: a table
// that points to them, installed on a context. The settings may change at
// any time; the table must outlive the context's use of it.
#ifndef QXCRL_TESTS_SUPPORT_OWN_LDAP_TABLE_H
#define QXCRL_TESTS_SUPPORT_OWN_LDAP_TABLE_H

#include <string>
#include <vector>

#include "qxlayer.h"

namespace qxtest {

using FetchCallback = StatusCode (*)(SecurityContext* ctx, const char* url, FetchedCrlNode** list);

// The least maxBytes with which fetch of each of urls alone succeeds on
// ctx, found by halving; maxBytes, which the table installed on ctx reads,
// is left at it.
uint32_t least_max_bytes(SecurityContext* ctx, FetchCallback fetch, uint32_t& maxBytes,
                         const std::vector<std::string>& urls);

class OwnLdapTable {
  public:
    // The default settings, installed on ctx.
    explicit OwnLdapTable(SecurityContext* ctx);
    OwnLdapTable(const OwnLdapTable&) = delete;
    OwnLdapTable& operator=(const OwnLdapTable&) = delete;

    // The least maxBytes with which a fetch of each of urls alone succeeds,
    // found by halving; settings.maxBytes is left at it.
    uint32_t least_max_bytes_for(const std::vector<std::string>& urls);

    QxLdapFetchSettings settings{};

  private:
    SecurityContext* ctx_;
    CrlFetchCallbacks table_{};
};

// A walk of the layer's LDAP fetch on ctx, for the object's life, so that a
// failed assertion cannot leave it open.
class LdapWalk {
  public:
    explicit LdapWalk(SecurityContext* ctx) : ctx_(ctx) { qxldap_begin_walk(ctx_); }
    ~LdapWalk() { qxldap_end_walk(ctx_); }
    LdapWalk(const LdapWalk&) = delete;
    LdapWalk& operator=(const LdapWalk&) = delete;

  private:
    SecurityContext* ctx_;
};

} // namespace qxtest

#endif
