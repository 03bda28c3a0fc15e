#include "walk_checks.h"

#include <gtest/gtest.h>

#include "fetched_crls.h"

namespace qxtest {

void expect_walk_refuses(SecurityContext* ctx, FetchCallback fetch, const std::string& first,
                         const std::string& second) {
    FetchedCrlNode* list = nullptr;
    {
        const LdapWalk walk(ctx);
        EXPECT_EQ(fetch(ctx, first.c_str(), &list), 0u);
        const size_t firstCrls = length_of(list);
        EXPECT_GT(firstCrls, 0u);
        EXPECT_EQ(fetch(ctx, second.c_str(), &list), QXL_ERR_FETCH);
        EXPECT_EQ(length_of(list), firstCrls);
    }
    qxldap_free_list(ctx, &list);
    EXPECT_EQ(fetch(ctx, second.c_str(), &list), 0u);
    EXPECT_GT(length_of(list), 0u);
    qxldap_free_list(ctx, &list);
}

} // namespace qxtest
