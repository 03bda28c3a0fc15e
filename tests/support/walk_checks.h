// Checks on the walk's budget shared by the fetches' tests.
#ifndef QXCRL_TESTS_SUPPORT_WALK_CHECKS_H
#define QXCRL_TESTS_SUPPORT_WALK_CHECKS_H

#include <string>

#include "own_ldap_table.h"

namespace qxtest {

// Checks that with fetch on ctx, in one walk, first succeeds and second is
// refused, appending nothing; and that alone, second succeeds.
void expect_walk_refuses(SecurityContext* ctx, FetchCallback fetch, const std::string& first,
                         const std::string& second);

} // namespace qxtest

#endif
