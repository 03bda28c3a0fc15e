// A layer whose fetch callbacks are the layer's table for HTTP and LDAP
// under settings the test chooses, and the list its fetches append to.
#ifndef QXCRL_TESTS_SUPPORT_FETCH_TABLE_TEST_H
#define QXCRL_TESTS_SUPPORT_FETCH_TABLE_TEST_H

#include <memory>
#include <string>

#include "layer_fixture.h"
#include "own_fetch_table.h"

namespace qxtest {

class FetchTableTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        table_ = std::make_unique<OwnFetchTable>(ctx_);
    }
    void TearDown() override {
        qxldap_free_list(ctx_, &list_);
        LayerTest::TearDown();
    }

    // The table's fetch, as a walk of the module calls it.
    StatusCode fetch(const std::string& url) { return qxfetch_crldp(ctx_, url.c_str(), &list_); }

    QxCrlFetchSettings& settings() { return table_->settings; }

    FetchedCrlNode* list_ = nullptr;
    std::unique_ptr<OwnFetchTable> table_;
};

} // namespace qxtest

#endif
