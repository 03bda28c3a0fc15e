#include "ldap_crl_values.h"

#include <cstring>
#include <initializer_list>
#include <strings.h>

#include "ldap_trace.h"

namespace {

// The BerElement that ldap_get_dn_ber makes; the buffer is the entry's.
struct EntryBer {
    EntryBer() = default;
    EntryBer(const EntryBer&) = delete;
    EntryBer& operator=(const EntryBer&) = delete;
    ~EntryBer() {
        if (ber != nullptr)
            ber_free(ber, 0);
    }
    BerElement* ber = nullptr;
};

bool names_crl_attribute(const berval& type) {
    for (const char* name : {qxldap::crl_binary, qxldap::crl_plain}) {
        if (type.bv_len == std::strlen(name) && strncasecmp(type.bv_val, name, type.bv_len) == 0)
            return true;
    }
    return false;
}

ber_len_t remaining(BerElement* ber) {
    ber_len_t left = 0;
    return ber_get_option(ber, LBER_OPT_REMAINING_BYTES, &left) == LBER_OPT_SUCCESS ? left : 0;
}

enum class SetRead { Complete, Stopped, Malformed };

// The values of the SET at ber's position, to sink.
SetRead read_set(BerElement* ber, qxldap::CrlValueSink& sink, StatusCode* status) {
    ber_len_t length = 0;
    char* last = nullptr;
    for (ber_tag_t tag = ber_first_element(ber, &length, &last); tag != LBER_DEFAULT;
         tag = ber_next_element(ber, &length, last)) {
        berval value{};
        if (ber_scanf(ber, "m", &value) == LBER_ERROR || value.bv_val + value.bv_len > last)
            return SetRead::Malformed;
        if ((*status = sink.take(value)) != 0)
            return SetRead::Stopped;
    }
    // ber_first_element leaves last unset when there is no SET to enter.
    return last == nullptr ? SetRead::Malformed : SetRead::Complete;
}

} // namespace

namespace qxldap {

StatusCode read_crl_values(const SecurityContext* ctx, const char* url, LDAP* ld,
                           LDAPMessage* entry, CrlValueSink& sink) {
    EntryBer entryBer;
    berval dn{};
    // Leaves ber at the first attribute, ending with the attribute list.
    const int rc = ldap_get_dn_ber(ld, entry, &entryBer.ber, &dn);
    if (rc != LDAP_SUCCESS)
        return failed(ctx, "entry from", url, rc);
    BerElement* ber = entryBer.ber;
    while (remaining(ber) > 0) {
        berval type{};
        if (ber_scanf(ber, "{m", &type) == LBER_ERROR)
            return failed(ctx, "entry from", url, LDAP_DECODING_ERROR);
        if (!names_crl_attribute(type)) {
            if (ber_scanf(ber, "x}") == LBER_ERROR)
                return failed(ctx, "entry from", url, LDAP_DECODING_ERROR);
            continue;
        }
        StatusCode status = 0;
        switch (read_set(ber, sink, &status)) {
        case SetRead::Stopped:
            return status;
        case SetRead::Malformed:
            return failed(ctx, "entry from", url, LDAP_DECODING_ERROR);
        case SetRead::Complete:
            break;
        }
    }
    return 0;
}

} // namespace qxldap
