// The LDAP fetch callbacks against a real slapd on 127.0.0.1: CRLs read back
// byte for byte with and without ;binary, scopes and filters from the URL,
// the refusals, a directory that is gone, stalled or never answers within
// the timeouts, the byte cap, appending to a caller's list, allocation
// failures, and the layer's callback table.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fetched_crls.h"
#include "hostile_ldap.h"
#include "layer_fixture.h"
#include "slapd.h"
#include "test_pki.h"
#include "time_bounds.h"

using namespace qxtest;

namespace {

std::vector<Bytes> sorted(std::vector<Bytes> values) {
    std::sort(values.begin(), values.end());
    return values;
}

StatusCode fetch_through_other_table(SecurityContext* ctx, const char* url, FetchedCrlNode** list) {
    return qxldap_fetch_crldp(ctx, url, list);
}

class LdapFetchTest : public LayerTest {
  protected:
    static void SetUpTestSuite() {
        crlA_ = shared_crl_revoking(0x0A);
        crlB_ = shared_crl_revoking(0x0B);
        crlC_ = shared_crl_revoking(0x0C);
        slapd_ = std::make_unique<Slapd>();
        const std::string suffix = Slapd::suffix;
        slapd_->add_crl_entry("cn=one," + suffix, "cRLDistributionPoint", {crlA_});
        slapd_->add_crl_entry("cn=two," + suffix, "cRLDistributionPoint", {crlA_, crlB_});
        slapd_->add_crl_entry("cn=empty," + suffix, "cRLDistributionPoint", {});
        slapd_->add_crl_entry("ou=cas," + suffix, "organizationalUnit", {});
        slapd_->add_crl_entry("cn=sub-a,ou=cas," + suffix, "pkiCA", {crlA_});
        slapd_->add_crl_entry("cn=sub-b,ou=cas," + suffix, "cRLDistributionPoint", {crlB_});
        slapd_->add_crl_entry("cn=other,ou=cas," + suffix, "cRLDistributionPoint", {crlC_});
    }

    static void TearDownTestSuite() { slapd_.reset(); }

    void TearDown() override {
        qxldap_free_list(ctx_, &list_);
        LayerTest::TearDown();
    }

    static std::string url_of(const std::string& rdn, const std::string& attribute = {}) {
        return slapd_->url(rdn + "," + Slapd::suffix, attribute);
    }

    StatusCode fetch(const std::string& url) {
        return qxldap_fetch_crldp(ctx_, url.c_str(), &list_);
    }

    // Installs a table of the layer's own callbacks with these settings and
    // the defaults for the others.
    void use_settings(uint32_t networkMs, uint32_t operationMs, uint32_t maxBytes) {
        qxldap_default_settings(&settings_);
        settings_.networkTimeoutMs = networkMs;
        settings_.operationTimeoutMs = operationMs;
        settings_.maxBytes = maxBytes;
        table_ = *qxldap_fetch_callbacks();
        table_.settings = &settings_;
        qxlayer_set_fetch_callbacks(ctx_, &table_);
    }

    static std::unique_ptr<Slapd> slapd_;
    static Bytes crlA_, crlB_, crlC_;
    FetchedCrlNode* list_ = nullptr;
    QxLdapFetchSettings settings_{};
    CrlFetchCallbacks table_{};
};

std::unique_ptr<Slapd> LdapFetchTest::slapd_;
Bytes LdapFetchTest::crlA_;
Bytes LdapFetchTest::crlB_;
Bytes LdapFetchTest::crlC_;

} // namespace

TEST(LdapIsUrl, AcceptsTheThreeLdapSchemesInAnyCase) {
    for (const char* url : {"ldap://host/cn=x", "LDAP://host/", "Ldap://", "ldaps://host:636/",
                            "LDAPS://h", "ldapi://%2Fvar%2Frun%2Fslapd%2Fldapi/", "LDAPI:///"})
        EXPECT_NE(qxldap_is_url(url), 0) << url;
    for (const char* url :
         {"http://host/ca.crl", "https://host/", "file:///ca.crl", "", "ldap:", "ldap:/host",
          "ldap", " ldap://host/", "xldap://host/", "ldapx://host/"})
        EXPECT_EQ(qxldap_is_url(url), 0) << url;
    EXPECT_EQ(qxldap_is_url(nullptr), 0);
}

TEST(LdapSettings, DefaultsAndTheLayersTable) {
    QxLdapFetchSettings settings;
    std::memset(&settings, 0xA5, sizeof settings);
    qxldap_default_settings(&settings);
    EXPECT_EQ(settings.networkTimeoutMs, 5000u);
    EXPECT_EQ(settings.operationTimeoutMs, 10000u);
    EXPECT_EQ(settings.maxBytes, 64u * 1024 * 1024);
    EXPECT_EQ(settings.maxValues, 1024u);
    EXPECT_EQ(settings.walkTimeoutMs, 30000u);
    qxldap_default_settings(nullptr); // ignored

    const CrlFetchCallbacks* table = qxldap_fetch_callbacks();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table, qxldap_fetch_callbacks());
    EXPECT_EQ(table->ldap_is_url, &qxldap_is_url);
    EXPECT_EQ(table->ldap_fetch_crldp, &qxldap_fetch_crldp);
    EXPECT_EQ(table->begin_walk, &qxldap_begin_walk);
    EXPECT_EQ(table->end_walk, &qxldap_end_walk);
    ASSERT_NE(table->settings, nullptr);
    EXPECT_EQ(std::memcmp(table->settings, &settings, sizeof settings), 0);
}

TEST_F(LdapFetchTest, OneBinaryValueIsOneNodeWithTheExactDer) {
    ASSERT_EQ(fetch(url_of("cn=one")), 0u);
    ASSERT_NE(list_, nullptr);
    EXPECT_EQ(list_->length, crlA_.size());
    EXPECT_EQ(ders_of(list_), std::vector<Bytes>{crlA_});
}

TEST_F(LdapFetchTest, TheUrlMayNameTheAttributeWithOrWithoutBinary) {
    for (const char* attribute :
         {"certificateRevocationList;binary", "certificateRevocationList",
          "CERTIFICATEREVOCATIONLIST;BINARY", "cn,certificateRevocationList"}) {
        SCOPED_TRACE(attribute);
        ASSERT_EQ(fetch(url_of("cn=two", attribute)), 0u);
        EXPECT_EQ(sorted(ders_of(list_)), sorted({crlA_, crlB_}));
        qxldap_free_list(ctx_, &list_);
        EXPECT_EQ(list_, nullptr);
    }
}

TEST_F(LdapFetchTest, TwoValuesAreTwoNodes) {
    ASSERT_EQ(fetch(url_of("cn=two")), 0u);
    EXPECT_EQ(sorted(ders_of(list_)), sorted({crlA_, crlB_}));
}

TEST_F(LdapFetchTest, ScopeAndFilterComeFromTheUrl) {
    const std::string base = std::string("ou=cas,") + Slapd::suffix;
    ASSERT_EQ(fetch(slapd_->url(base, "", "sub", "(cn=sub-*)")), 0u);
    EXPECT_EQ(sorted(ders_of(list_)), sorted({crlA_, crlB_}));
    qxldap_free_list(ctx_, &list_);

    // The whole subtree without a filter; the base itself holds none.
    ASSERT_EQ(fetch(slapd_->url(base, "", "sub")), 0u);
    EXPECT_EQ(sorted(ders_of(list_)), sorted({crlA_, crlB_, crlC_}));
    qxldap_free_list(ctx_, &list_);

    // One level under the suffix reaches cn=one and cn=two, not ou=cas's children.
    ASSERT_EQ(fetch(slapd_->url(Slapd::suffix, "", "one", "(objectClass=cRLDistributionPoint)")),
              0u);
    EXPECT_EQ(sorted(ders_of(list_)), sorted({crlA_, crlA_, crlB_}));
    qxldap_free_list(ctx_, &list_);

    // The default scope is the base alone.
    ASSERT_EQ(fetch(slapd_->url(base)), 0u);
    EXPECT_EQ(list_, nullptr);
}

TEST_F(LdapFetchTest, AnEntryWithoutCrlsAddsNothing) {
    ASSERT_EQ(fetch(url_of("cn=empty")), 0u);
    EXPECT_EQ(list_, nullptr);
}

TEST_F(LdapFetchTest, AMissingEntryFailsWithNothingAppended) {
    ASSERT_EQ(fetch(url_of("cn=one")), 0u);
    FetchedCrlNode* const first = list_;
    ASSERT_NE(first, nullptr);
    trace_.clear();
    EXPECT_EQ(fetch(url_of("cn=absent")), QXL_ERR_FETCH);
    EXPECT_EQ(list_, first);
    EXPECT_EQ(list_->next, nullptr);
    EXPECT_EQ(trace_.messages().size(), 1u);
    EXPECT_EQ(trace_.count(QX_TRACE_MESSAGE, "qxldap_fetch_crldp"), 1u);
}

TEST_F(LdapFetchTest, AppendsToTheCallersList) {
    ASSERT_EQ(fetch(url_of("cn=one")), 0u);
    FetchedCrlNode* const first = list_;
    ASSERT_EQ(fetch(url_of("cn=two")), 0u);
    ASSERT_EQ(list_, first);
    EXPECT_EQ(list_->der, first->der);
    const std::vector<Bytes> all = ders_of(list_);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0], crlA_);
    EXPECT_EQ(sorted({all[1], all[2]}), sorted({crlA_, crlB_}));
}

TEST_F(LdapFetchTest, MalformedUrlsFail) {
    const std::string server = "ldap://127.0.0.1:" + std::to_string(slapd_->port());
    const std::string one = std::string("cn=one,") + Slapd::suffix;
    for (const std::string& url :
         {server + "/" + one + "??bogus",                             // no such scope
          server + "/" + one + "?certificateRevocationList?base?(((", // no filter
          "ldap://127.0.0.1:99999/" + one,                            // no such port
          "ldap:///" + one,                                           // no host
          "http://127.0.0.1:" + std::to_string(slapd_->port()) + "/" + one, std::string("ldap"),
          std::string("")}) {
        SCOPED_TRACE(url);
        EXPECT_EQ(fetch(url), QXL_ERR_FETCH);
        EXPECT_EQ(list_, nullptr);
    }
}

TEST_F(LdapFetchTest, RefusesMissingArguments) {
    const std::string url = url_of("cn=one");
    EXPECT_EQ(qxldap_fetch_crldp(nullptr, url.c_str(), &list_), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxldap_fetch_crldp(ctx_, nullptr, &list_), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(qxldap_fetch_crldp(ctx_, url.c_str(), nullptr), QXL_ERR_BAD_ARGUMENT);
    SecurityContext noLayer{};
    EXPECT_EQ(qxldap_fetch_crldp(&noLayer, url.c_str(), &list_), QXL_ERR_BAD_ARGUMENT);
    EXPECT_EQ(list_, nullptr);
    qxldap_free_list(ctx_, nullptr); // ignored
}

TEST_F(LdapFetchTest, MoreMemoryThanMaxBytesFailsWithNothingAppended) {
    const auto both = static_cast<uint32_t>(crlA_.size() + crlB_.size());
    // The values alone fit, but not the message they come in and their copies.
    for (const uint32_t maxBytes : {0u, both - 1, both, 2 * both}) {
        SCOPED_TRACE(maxBytes);
        use_settings(2000, 5000, maxBytes);
        EXPECT_EQ(fetch(url_of("cn=two")), QXL_ERR_FETCH);
        EXPECT_EQ(list_, nullptr);
    }
    use_settings(2000, 5000, 4 * both + 8192);
    ASSERT_EQ(fetch(url_of("cn=two")), 0u);
    EXPECT_EQ(sorted(ders_of(list_)), sorted({crlA_, crlB_}));
}

TEST_F(LdapFetchTest, AStoppedDirectoryFailsWithinTheNetworkTimeout) {
    Slapd gone;
    gone.add_crl_entry(std::string("cn=one,") + Slapd::suffix, "cRLDistributionPoint", {crlA_});
    const std::string url = gone.url(std::string("cn=one,") + Slapd::suffix);
    ASSERT_EQ(fetch(url), 0u);
    qxldap_free_list(ctx_, &list_);
    gone.stop();

    constexpr uint32_t timeoutMs = 1000;
    use_settings(timeoutMs, timeoutMs, 1u << 20);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(fetch(url), QXL_ERR_FETCH);
    EXPECT_LT(elapsed_since(start), milliseconds(3 * timeoutMs));
    EXPECT_EQ(list_, nullptr);
}

TEST_F(LdapFetchTest, AnUnansweredConnectGivesUpAtTheNetworkTimeout) {
    const BlackHole listener;
    ASSERT_TRUE(listener.full());
    constexpr uint32_t networkMs = 300;
    // Far longer, so that only the network timeout can end the wait in time.
    constexpr uint32_t operationMs = 20000;
    use_settings(networkMs, operationMs, 1u << 20);
    const std::string url = "ldap://127.0.0.1:" + std::to_string(listener.port()) + "/" +
                            std::string("cn=one,") + Slapd::suffix;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(fetch(url), QXL_ERR_FETCH);
    const milliseconds took = elapsed_since(start);
    EXPECT_GE(took, milliseconds(networkMs - 50));
    EXPECT_LT(took, milliseconds(3 * networkMs));
    EXPECT_EQ(list_, nullptr);
}

TEST_F(LdapFetchTest, AStalledDirectoryGivesUpAtTheOperationTimeout) {
    constexpr uint32_t operationMs = 500;
    use_settings(2000, operationMs, 1u << 20);
    slapd_->suspend();
    const Clock::time_point start = Clock::now();
    const StatusCode status = fetch(url_of("cn=one"));
    const milliseconds took = elapsed_since(start);
    slapd_->resume();
    EXPECT_EQ(status, QXL_ERR_FETCH);
    EXPECT_GE(took, milliseconds(operationMs - 50));
    EXPECT_LT(took, milliseconds(3 * operationMs));
    EXPECT_EQ(list_, nullptr);
    // Once it runs again, it answers again.
    ASSERT_EQ(fetch(url_of("cn=one")), 0u);
    EXPECT_EQ(ders_of(list_), std::vector<Bytes>{crlA_});
}

TEST_F(LdapFetchTest, AllocationFailuresLeaveTheCallersListAsItWas) {
    ASSERT_EQ(fetch(url_of("cn=one")), 0u);
    FetchedCrlNode* const first = list_;
    const std::string url = url_of("cn=two");
    sweep_allocations([&] { return fetch(url); },
                      [&](StatusCode status, bool injected) {
                          ASSERT_EQ(list_, first);
                          if (injected) {
                              EXPECT_EQ(status, QXL_ERR_OUT_OF_MEMORY);
                              EXPECT_EQ(first->next, nullptr);
                          } else {
                              ASSERT_EQ(status, 0u);
                              EXPECT_EQ(sorted(ders_of(first->next)), sorted({crlA_, crlB_}));
                          }
                          qxldap_free_list(ctx_, &first->next);
                      });
}

TEST_F(LdapFetchTest, SetFetchCallbacksInstallsAndRemovesATable) {
    EXPECT_EQ(layer()->crlFetchCallbacks, qxldap_fetch_callbacks());
    const CrlFetchCallbacks own{nullptr, qxldap_is_url, qxldap_fetch_crldp, nullptr, nullptr};
    qxlayer_set_fetch_callbacks(ctx_, &own);
    EXPECT_EQ(layer()->crlFetchCallbacks, &own);
    qxlayer_set_fetch_callbacks(ctx_, nullptr);
    EXPECT_EQ(layer()->crlFetchCallbacks, nullptr);
    // Without a table, the defaults serve.
    ASSERT_EQ(fetch(url_of("cn=one")), 0u);
    qxldap_free_list(ctx_, &list_);
    qxlayer_set_fetch_callbacks(ctx_, qxldap_fetch_callbacks());
    EXPECT_EQ(layer()->crlFetchCallbacks, qxldap_fetch_callbacks());
    qxlayer_set_fetch_callbacks(nullptr, &own); // ignored
}

TEST_F(LdapFetchTest, SettingsComeOnlyFromATableOfTheLayersOwnFetch) {
    const QxLdapFetchSettings tiny{2000, 5000, 1, 1024, 30000};
    // Another fetch's table: its settings mean nothing here.
    const CrlFetchCallbacks other{&tiny, qxldap_is_url, fetch_through_other_table, nullptr,
                                  nullptr};
    qxlayer_set_fetch_callbacks(ctx_, &other);
    ASSERT_EQ(fetch(url_of("cn=one")), 0u);
    EXPECT_EQ(ders_of(list_), std::vector<Bytes>{crlA_});
    qxldap_free_list(ctx_, &list_);

    const CrlFetchCallbacks own{&tiny, qxldap_is_url, qxldap_fetch_crldp, nullptr, nullptr};
    qxlayer_set_fetch_callbacks(ctx_, &own);
    EXPECT_EQ(fetch(url_of("cn=one")), QXL_ERR_FETCH);
    EXPECT_EQ(list_, nullptr);
}

namespace {

// A directory that sends the attribute under its bare name.
class LdapFetchPlainTest : public LayerTest {
  protected:
    static void SetUpTestSuite() {
        crl_ = shared_crl_revoking(0x0D);
        slapd_ = std::make_unique<Slapd>(Slapd::CrlTransfer::Plain);
        slapd_->add_crl_entry(std::string("cn=plain,") + Slapd::suffix, "cRLDistributionPoint",
                              {crl_});
    }
    static void TearDownTestSuite() { slapd_.reset(); }
    void TearDown() override {
        qxldap_free_list(ctx_, &list_);
        LayerTest::TearDown();
    }

    static std::unique_ptr<Slapd> slapd_;
    static Bytes crl_;
    FetchedCrlNode* list_ = nullptr;
};

std::unique_ptr<Slapd> LdapFetchPlainTest::slapd_;
Bytes LdapFetchPlainTest::crl_;

} // namespace

TEST_F(LdapFetchPlainTest, TheAttributeWithoutBinaryIsRead) {
    const std::string dn = std::string("cn=plain,") + Slapd::suffix;
    for (const std::string& attribute : {std::string(), std::string("certificateRevocationList"),
                                         std::string("certificateRevocationList;binary")}) {
        SCOPED_TRACE(attribute);
        const StatusCode status =
            qxldap_fetch_crldp(ctx_, slapd_->url(dn, attribute).c_str(), &list_);
        ASSERT_EQ(status, 0u);
        if (attribute.find(";binary") != std::string::npos) {
            // Only what the URL names is asked for, and this directory has
            // nothing under that name.
            EXPECT_EQ(list_, nullptr);
            continue;
        }
        EXPECT_EQ(ders_of(list_), std::vector<Bytes>{crl_});
        qxldap_free_list(ctx_, &list_);
    }
}
