// The LDAP fetch against directories that attack it, on 127.0.0.1: a TLS
// handshake that never ends, an entry with a million values, memory that
// adds up over a walk, and the walk's deadline. Each attack must end with a
// clear failure within its bound.
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <ldap.h>

#include "child_run.h"
#include "fetched_crls.h"
#include "hostile_ldap.h"
#include "layer_fixture.h"
#include "own_ldap_table.h"
#include "test_pki.h"
#include "time_bounds.h"
#include "walk_checks.h"

using namespace qxtest;

namespace {

class LdapHostileTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        ldap_ = std::make_unique<OwnLdapTable>(ctx_);
    }
    void TearDown() override {
        qxldap_free_list(ctx_, &list_);
        LayerTest::TearDown();
    }

    StatusCode fetch(const std::string& url) {
        return qxldap_fetch_crldp(ctx_, url.c_str(), &list_);
    }

    void expect_walk_refuses(const std::string& first, const std::string& second) {
        qxtest::expect_walk_refuses(ctx_, qxldap_fetch_crldp, first, second);
    }

    FetchedCrlNode* list_ = nullptr;
    std::unique_ptr<OwnLdapTable> ldap_;
    QxLdapFetchSettings& settings() { return ldap_->settings; }
};

} // namespace

TEST_F(LdapHostileTest, ATlsHandshakeThatNeverEndsIsCutOff) {
    struct Case {
        const char* what;
        std::function<HostileLdap()> server;
        uint32_t networkMs, walkMs;
    };
    const auto stalled = [](size_t helloBytes) {
        return [helloBytes] { return HostileLdap::stalled_handshake(helloBytes); };
    };
    const auto trickling = [] { return HostileLdap::trickling_handshake(milliseconds(100)); };
    for (const Case& c : {Case{"not a byte", stalled(0), 500, 60000},
                          Case{"half a ServerHello", stalled(40), 500, 60000},
                          Case{"a byte every 100 ms", trickling, 500, 60000},
                          Case{"the walk ends first", stalled(40), 60000, 500}}) {
        SCOPED_TRACE(c.what);
        const HostileLdap server = c.server();
        settings().networkTimeoutMs = c.networkMs;
        settings().operationTimeoutMs = 60000;
        settings().walkTimeoutMs = c.walkMs;
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(fetch(server.url("crl", "ldaps")), QXL_ERR_FETCH);
        EXPECT_LT(elapsed_since(start), milliseconds(std::min(c.networkMs, c.walkMs)) + slack);
        EXPECT_EQ(server.accepted(), 1u);
        EXPECT_EQ(list_, nullptr);
    }
}

TEST_F(LdapHostileTest, TheValueCapRefusesAMillionValuesFast) {
    const HostileLdap million = HostileLdap::serving({{0x01}}, 1000000);
    const uint64_t allocations = qxum_allocation_count(layer());
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(fetch(million.url()), QXL_ERR_FETCH);
    EXPECT_LT(elapsed_since(start), slack);
    EXPECT_EQ(list_, nullptr);
    // A node and its DER for each value up to the cap, at most.
    EXPECT_LE(qxum_allocation_count(layer()) - allocations, 2u * 1024);

    // Exactly the cap is allowed.
    const HostileLdap eight = HostileLdap::serving({{0x01}, {0x02}}, 4);
    settings().maxValues = 8;
    ASSERT_EQ(fetch(eight.url()), 0u);
    EXPECT_EQ(length_of(list_), 8u);
    qxldap_free_list(ctx_, &list_);
    settings().maxValues = 7;
    EXPECT_EQ(fetch(eight.url()), QXL_ERR_FETCH);
    EXPECT_EQ(list_, nullptr);
}

TEST_F(LdapHostileTest, AMillionValuesCostLittleMemory) {
    if (!child_memory_is_measurable())
        GTEST_SKIP() << "memory is measured without AddressSanitizer";
    const HostileLdap million = HostileLdap::serving({{0x01}}, 1000000);
    const std::string url = million.url();
    // The message itself is 3 MB; 16 MiB leaves room for the allocator, and
    // none for a node per value.
    constexpr long boundKb = 16 * 1024;
    {
        SCOPED_TRACE("stopped by the value cap");
        const ChildRun run = run_in_child([&] { return fetch(url); });
        EXPECT_EQ(run.status, QXL_ERR_FETCH);
        EXPECT_GE(run.growthKb, 0);
        EXPECT_LT(run.growthKb, boundKb);
    }
    {
        SCOPED_TRACE("stopped by the memory cap");
        settings().maxValues = 2000000;
        settings().maxBytes = 4u << 20;
        const ChildRun run = run_in_child([&] { return fetch(url); });
        EXPECT_EQ(run.status, QXL_ERR_FETCH);
        EXPECT_GE(run.growthKb, 0);
        EXPECT_LT(run.growthKb, boundKb);
    }
}

TEST_F(LdapHostileTest, OneBudgetForTheWholeWalk) {
    const HostileLdap a = HostileLdap::serving({shared_crl_revoking(0x0A)});
    const HostileLdap b = HostileLdap::serving({shared_crl_revoking(0x0B)});
    // Enough for either alone, not for both.
    ldap_->least_max_bytes_for({a.url(), b.url()});
    {
        SCOPED_TRACE("the CRLs of an earlier fetch count against the walk");
        expect_walk_refuses(a.url(), b.url());
    }
    {
        SCOPED_TRACE("a fetch that fails gives back what it had taken");
        const HostileLdap refusing = HostileLdap::serving({shared_crl_revoking(0x0A)}, 1, 32);
        qxldap_begin_walk(ctx_);
        EXPECT_EQ(fetch(refusing.url()), QXL_ERR_FETCH);
        EXPECT_EQ(refusing.accepted(), 1u);
        EXPECT_EQ(fetch(b.url()), 0u);
        qxldap_end_walk(ctx_);
        EXPECT_EQ(length_of(list_), 1u);
        qxldap_free_list(ctx_, &list_);
    }
    {
        SCOPED_TRACE("values add up over the walk");
        settings().maxBytes = 1u << 24;
        settings().maxValues = 3;
        const HostileLdap two = HostileLdap::serving({shared_crl_revoking(0x0C)}, 2);
        expect_walk_refuses(two.url(), two.url());
    }
}

TEST_F(LdapHostileTest, AfterTheWalksDeadlineEveryFetchFailsAtOnce) {
    const HostileLdap silent = HostileLdap::silent();
    const HostileLdap serving = HostileLdap::serving({shared_crl_revoking(0x0A)});
    constexpr uint32_t walkMs = 300;
    settings().networkTimeoutMs = 20000;
    settings().operationTimeoutMs = 20000;
    settings().walkTimeoutMs = walkMs;
    Clock::time_point start = Clock::now();
    qxldap_begin_walk(ctx_);
    EXPECT_EQ(fetch(silent.url()), QXL_ERR_FETCH);
    EXPECT_LT(elapsed_since(start), milliseconds(walkMs) + slack);
    EXPECT_EQ(silent.accepted(), 1u);
    // libldap counts its waits in whole milliseconds, so the fetch may have
    // given up a little before the deadline.
    std::this_thread::sleep_until(start + milliseconds(walkMs + 10));
    // The time is up: no connection is even tried.
    EXPECT_EQ(fetch(serving.url()), QXL_ERR_FETCH);
    EXPECT_EQ(serving.accepted(), 0u);
    EXPECT_EQ(list_, nullptr);
    qxldap_end_walk(ctx_);

    // Outside the walk, each fetch has a deadline of its own.
    ASSERT_EQ(fetch(serving.url()), 0u);
    EXPECT_EQ(serving.accepted(), 1u);
    start = Clock::now();
    EXPECT_EQ(fetch(silent.url()), QXL_ERR_FETCH);
    EXPECT_LT(elapsed_since(start), milliseconds(walkMs) + slack);
    EXPECT_EQ(silent.accepted(), 2u);
}

TEST_F(LdapHostileTest, WalksBelongToOneContextOnOneThread) {
    const HostileLdap two = HostileLdap::serving({shared_crl_revoking(0x0D)}, 2);
    const std::string url = two.url();
    settings().maxValues = 3; // one fetch fits, two do not
    SecurityContext other = *ctx_;
    const auto fetch_as = [&](SecurityContext* ctx) {
        const StatusCode status = qxldap_fetch_crldp(ctx, url.c_str(), &list_);
        qxldap_free_list(ctx_, &list_);
        return status;
    };
    qxldap_begin_walk(ctx_);
    EXPECT_EQ(fetch_as(ctx_), 0u);
    {
        SCOPED_TRACE("another context and another thread are outside the walk");
        EXPECT_EQ(fetch_as(&other), 0u);
        EXPECT_EQ(fetch_as(&other), 0u);
        StatusCode onThread = 1;
        std::thread([&] { onThread = qxldap_fetch_crldp(ctx_, url.c_str(), &list_); }).join();
        EXPECT_EQ(onThread, 0u);
        qxldap_free_list(ctx_, &list_);
    }
    {
        SCOPED_TRACE("a walk begun again goes on under the first one's budget");
        qxldap_begin_walk(ctx_);
        EXPECT_EQ(fetch_as(ctx_), QXL_ERR_FETCH);
        qxldap_end_walk(ctx_);
        EXPECT_EQ(fetch_as(ctx_), QXL_ERR_FETCH);
    }
    qxldap_end_walk(ctx_);
    EXPECT_EQ(fetch_as(ctx_), 0u);
    qxldap_end_walk(ctx_); // no walk: nothing happens
    EXPECT_EQ(fetch_as(ctx_), 0u);
    {
        SCOPED_TRACE("more open walks than a thread keeps: the last ones fetch alone");
        std::vector<SecurityContext> contexts(9, *ctx_);
        for (SecurityContext& ctx : contexts)
            qxldap_begin_walk(&ctx);
        EXPECT_EQ(fetch_as(&contexts[7]), 0u);
        EXPECT_EQ(fetch_as(&contexts[7]), QXL_ERR_FETCH);
        EXPECT_EQ(fetch_as(&contexts[8]), 0u);
        EXPECT_EQ(fetch_as(&contexts[8]), 0u);
        for (SecurityContext& ctx : contexts)
            qxldap_end_walk(&ctx);
        EXPECT_EQ(fetch_as(&contexts[7]), 0u);
        EXPECT_EQ(fetch_as(&contexts[7]), 0u);
    }
}

TEST_F(LdapHostileTest, AllocationFailuresInAWalkFailOnlyTheirFetch) {
    const HostileLdap a =
        HostileLdap::serving({shared_crl_revoking(0x0A), shared_crl_revoking(0x0B)});
    const HostileLdap b = HostileLdap::serving({shared_crl_revoking(0x0C)});
    // a and b once, not b twice: a fetch that failed must give its values
    // back for the second b to fit.
    settings().maxValues = 3;
    std::vector<StatusCode> statuses;
    sweep_allocations(
        [&] {
            qxldap_begin_walk(ctx_);
            statuses = {fetch(a.url()), fetch(b.url()), fetch(b.url())};
            qxldap_end_walk(ctx_);
            return statuses[0] != 0 ? statuses[0] : statuses[1];
        },
        [&](StatusCode, bool injected) {
            using Statuses = std::vector<StatusCode>;
            constexpr StatusCode oom = QXL_ERR_OUT_OF_MEMORY;
            if (!injected) {
                EXPECT_EQ(statuses, (Statuses{0, 0, QXL_ERR_FETCH}));
                EXPECT_EQ(length_of(list_), 3u);
            } else if (statuses[0] != 0) {
                EXPECT_EQ(statuses, (Statuses{oom, 0, 0}));
                EXPECT_EQ(length_of(list_), 2u);
            } else {
                EXPECT_EQ(statuses, (Statuses{0, oom, 0}));
                EXPECT_EQ(length_of(list_), 3u);
            }
            qxldap_free_list(ctx_, &list_);
        });
}

TEST_F(LdapHostileTest, EntriesAreReadAsTheDirectorySendsThem) {
    const Bytes a = shared_crl_revoking(0x1A), b = shared_crl_revoking(0x1B);
    const std::string cn = HostileLdap::attribute("cn", {{'x'}});
    {
        SCOPED_TRACE("other attributes passed over, both forms read, in order");
        const HostileLdap mixed = HostileLdap::serving_attributes(
            cn + HostileLdap::attribute("certificateRevocationList;binary", {a}) +
            HostileLdap::attribute("certificateRevocationList;x-other", {b}) +
            HostileLdap::attribute("CERTIFICATEREVOCATIONLIST", {b, {}}) + cn);
        ASSERT_EQ(fetch(mixed.url()), 0u);
        EXPECT_EQ(ders_of(list_), (std::vector<Bytes>{a, b}));
        qxldap_free_list(ctx_, &list_);
    }
    const std::string type = HostileLdap::tlv(0x04, "certificateRevocationList;binary");
    const struct {
        const char* what;
        std::string attributes;
    } malformed[] = {
        {"a value longer than its set",
         HostileLdap::tlv(0x30, type + "\x31\x03\x04\x05" + "abcde")},
        {"no set of values", cn + HostileLdap::tlv(0x30, type)},
        {"a type longer than its attribute", HostileLdap::tlv(0x30, "\x04\x7f"
                                                                    "cert")},
        {"no attribute sequence", "\x04\x01x"},
    };
    for (const auto& entry : malformed) {
        SCOPED_TRACE(entry.what);
        const HostileLdap server = HostileLdap::serving_attributes(entry.attributes);
        trace_.clear();
        EXPECT_EQ(fetch(server.url()), QXL_ERR_FETCH);
        EXPECT_EQ(list_, nullptr);
        ASSERT_EQ(trace_.messages().size(), 1u);
        EXPECT_EQ(trace_.messages()[0].text, "ldap: entry from " + server.url() + ": " +
                                                 ldap_err2string(LDAP_DECODING_ERROR) + "\n");
    }
}

// libldap gives up on a message whose operation header it cannot read
// without letting go of the request it answers; such a message must end the
// fetch before libldap reads it (the sanitizers' leak check sees the rest).
TEST_F(LdapHostileTest, AnswersThatDoNotFrameEndTheFetch) {
    const Bytes crl = shared_crl_revoking(0x1C);
    const std::string entry = HostileLdap::tlv(
        0x64, HostileLdap::tlv(0x04, "cn=ca") +
                  HostileLdap::tlv(
                      0x30, HostileLdap::attribute("certificateRevocationList;binary", {crl})));
    const std::string id = HostileLdap::tlv(0x02, "\x02");
    const std::string done =
        HostileLdap::tlv(0x30, id + std::string("\x65\x07\x0a\x01\x00\x04\x00\x04\x00", 9));
    {
        const HostileLdap framed =
            HostileLdap::answering_verbatim(HostileLdap::tlv(0x30, id + entry) + done);
        ASSERT_EQ(fetch(framed.url()), 0u);
        EXPECT_EQ(ders_of(list_), std::vector<Bytes>{crl});
        qxldap_free_list(ctx_, &list_);
    }
    for (const std::string& unframed :
         {HostileLdap::tlv(0x30, id), HostileLdap::tlv(0x30, id + "\x64\x85\x01"),
          HostileLdap::tlv(0x30, id + entry.substr(0, 1) + "\x7f" + entry.substr(2))}) {
        SCOPED_TRACE(unframed.size());
        const HostileLdap server =
            HostileLdap::answering_verbatim(HostileLdap::tlv(0x30, id + entry) + unframed + done);
        EXPECT_EQ(fetch(server.url()), QXL_ERR_FETCH);
        EXPECT_EQ(list_, nullptr);
    }
}
