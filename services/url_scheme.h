// Which fetch a distribution point's URL is for, by its scheme.
#ifndef QXCRL_SERVICES_URL_SCHEME_H
#define QXCRL_SERVICES_URL_SCHEME_H

#include <cstring>
#include <initializer_list>
#include <strings.h>

namespace qxfetch {

// 1 when url begins with one of prefixes ("ldap://"), in any case; else 0.
inline int has_scheme(const char* url, std::initializer_list<const char*> prefixes) {
    if (url == nullptr)
        return 0;
    for (const char* prefix : prefixes) {
        if (strncasecmp(url, prefix, std::strlen(prefix)) == 0)
            return 1;
    }
    return 0;
}

} // namespace qxfetch

#endif
