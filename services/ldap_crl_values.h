// The CRL values of a search entry, read in place from the entry's BER: a
// directory's entry may carry any number of values, and none is copied or
// listed before the reader's sink has taken it.
#ifndef QXCRL_SERVICES_LDAP_CRL_VALUES_H
#define QXCRL_SERVICES_LDAP_CRL_VALUES_H

#include <ldap.h>

#include "qxlayer.h"

namespace qxldap {

inline constexpr char crl_binary[] = "certificateRevocationList;binary";
inline constexpr char crl_plain[] = "certificateRevocationList";

// Where the values go; a status other than 0 stops the reading.
class CrlValueSink {
  public:
    virtual StatusCode take(const berval& value) = 0;

  protected:
    ~CrlValueSink() = default;
};

// Hands every value of certificateRevocationList, with or without ;binary,
// in entry to sink, in the entry's order; each value points into the entry.
// 0 when all went, the sink's status when it stopped, QXL_ERR_FETCH (traced
// under url) when the entry does not decode.
StatusCode read_crl_values(const SecurityContext* ctx, const char* url, LDAP* ld,
                           LDAPMessage* entry, CrlValueSink& sink);

} // namespace qxldap

#endif
