// The HTTP fetch against servers that attack it, on 127.0.0.1: a body that
// trickles or never ends, bodies over the cap, a Content-Length that lies, a
// connect that never completes, one walk whose deadline and memory bound
// HTTP and LDAP fetches alike, and allocation failures. Each attack must end
// with a clear failure within its bound.
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include "child_run.h"
#include "fetch_table_test.h"
#include "fetched_crls.h"
#include "hostile_ldap.h"
#include "http_server.h"
#include "own_ldap_table.h"
#include "test_pki.h"
#include "time_bounds.h"
#include "walk_checks.h"

using namespace qxtest;

namespace {

// A CRL of the shared issuer with count entries: some kilobytes.
Bytes large_crl(size_t count) {
    CrlOptions recipe;
    for (size_t i = 0; i < count; ++i)
        recipe.revoked.push_back(revoked_serial(
            {0x40, static_cast<unsigned char>(i >> 8), static_cast<unsigned char>(i)}));
    return make_crl(shared_issuer(), recipe);
}

class HttpHostileTest : public FetchTableTest {
  protected:
    // The fetch of path fails with nothing appended and a trace that holds why.
    void expect_fails(const std::string& path, const std::string& why) {
        trace_.clear();
        EXPECT_EQ(fetch(server_.url(path)), QXL_ERR_FETCH);
        EXPECT_EQ(list_, nullptr);
        ASSERT_EQ(trace_.messages().size(), 1u);
        EXPECT_NE(trace_.messages()[0].text.find(why), std::string::npos)
            << trace_.messages()[0].text;
    }

    void expect_walk_refuses(const std::string& first, const std::string& second) {
        qxtest::expect_walk_refuses(ctx_, qxfetch_crldp, first, second);
    }

    // The fetch of url fails, with why traced, within 500 ms and the slack,
    // ended once by timeout (500 ms) and once by the walk's deadline.
    void expect_cut_off(const std::string& url, uint32_t& timeout, const std::string& why) {
        for (const bool byWalk : {false, true}) {
            SCOPED_TRACE(byWalk ? "the walk's deadline" : "the fetch's own timeout");
            timeout = byWalk ? 60000 : 500;
            settings().ldap.walkTimeoutMs = byWalk ? 500 : 60000;
            const Clock::time_point start = Clock::now();
            trace_.clear();
            EXPECT_EQ(fetch(url), QXL_ERR_FETCH);
            EXPECT_LT(elapsed_since(start), milliseconds(500) + slack);
            EXPECT_EQ(list_, nullptr);
            ASSERT_EQ(trace_.messages().size(), 1u);
            EXPECT_NE(trace_.messages()[0].text.find(why), std::string::npos)
                << trace_.messages()[0].text;
        }
    }

    HttpServer server_;
};

} // namespace

TEST_F(HttpHostileTest, ATricklingBodyIsCutOff) {
    HttpResponse trickle = HttpResponse::ok(shared_crl_revoking(0x4A));
    trickle.trickle = milliseconds(1000);
    server_.set("/slow.crl", trickle);
    expect_cut_off(server_.url("/slow.crl"), settings().http.timeoutMs,
                   curl_easy_strerror(CURLE_OPERATION_TIMEDOUT));
}

TEST_F(HttpHostileTest, AnEndlessBodyEndsAtTheFirstCap) {
    HttpResponse endless = HttpResponse::ok(std::string(1000, 'A'));
    endless.endless = true;
    server_.set("/endless", endless);
    const Clock::time_point start = Clock::now();
    expect_fails("/endless", "http: body of " + server_.url("/endless") + " over 33554432 bytes");
    EXPECT_LT(elapsed_since(start), milliseconds(20000) + slack);

    settings().http.maxBodyBytes = 1u << 20;
    expect_fails("/endless", "over 1048576 bytes");
    settings().http.maxBodyBytes = 1u << 30;
    settings().ldap.maxBytes = 2u << 20;
    expect_fails("/endless", "http: more than 2097152 bytes of memory");
}

TEST_F(HttpHostileTest, AnEndlessBodyCostsNoMoreThanTheCap) {
    if (!child_memory_is_measurable())
        GTEST_SKIP() << "memory is measured without AddressSanitizer";
    HttpResponse endless = HttpResponse::ok(std::string(1000, 'A'));
    endless.endless = true;
    server_.set("/endless", endless);
    const std::string url = server_.url("/endless");
    settings().http.maxBodyBytes = 4u << 20;
    // 16 MiB leaves room for the allocator and libcurl, and none for a body
    // read on past the cap.
    constexpr long boundKb = 16 * 1024;
    const ChildRun run = run_in_child([&] { return fetch(url); });
    EXPECT_EQ(run.status, QXL_ERR_FETCH);
    EXPECT_GE(run.growthKb, 0);
    EXPECT_LT(run.growthKb, boundKb);
}

TEST_F(HttpHostileTest, ABodyOverTheCapIsRefused) {
    const Bytes crl = shared_crl_revoking(0x4B);
    HttpResponse announced = HttpResponse::ok(crl);
    HttpResponse unannounced = announced;
    unannounced.noLength = true;
    server_.set("/announced.crl", announced);
    server_.set("/unannounced.crl", unannounced);
    settings().http.maxBodyBytes = static_cast<uint32_t>(crl.size());
    for (const char* path : {"/announced.crl", "/unannounced.crl"}) {
        SCOPED_TRACE(path);
        ASSERT_EQ(fetch(server_.url(path)), 0u);
        EXPECT_EQ(ders_of(list_), std::vector<Bytes>{crl});
        qxldap_free_list(ctx_, &list_);
    }
    settings().http.maxBodyBytes = static_cast<uint32_t>(crl.size() - 1);
    // An announced length over the cap is refused before the body.
    expect_fails("/announced.crl", curl_easy_strerror(CURLE_FILESIZE_EXCEEDED));
    expect_fails("/unannounced.crl", "over " + std::to_string(crl.size() - 1) + " bytes");
}

TEST_F(HttpHostileTest, AContentLengthThatLiesFails) {
    const Bytes crl = shared_crl_revoking(0x4C);
    HttpResponse longer = HttpResponse::ok(crl), shorter = longer, huge = longer;
    longer.claimedLength = crl.size() + 100;
    shorter.claimedLength = crl.size() - 10;
    huge.claimedLength = size_t{1} << 40;
    server_.set("/longer", longer);
    server_.set("/shorter", shorter);
    server_.set("/huge", huge);
    expect_fails("/longer", curl_easy_strerror(CURLE_PARTIAL_FILE));
    expect_fails("/shorter", "is no DER CRL");
    expect_fails("/huge", curl_easy_strerror(CURLE_FILESIZE_EXCEEDED));
}

TEST_F(HttpHostileTest, AnUnansweredConnectGivesUp) {
    const BlackHole listener;
    ASSERT_TRUE(listener.full());
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.port()) + "/ca.crl";
    settings().http.timeoutMs = 60000;
    expect_cut_off(url, settings().http.connectTimeoutMs, "http: get " + url + ": ");
}

TEST_F(HttpHostileTest, OneMemoryBudgetForHttpAndLdap) {
    // An LDAP CRL costs about twice its size while it is read, an HTTP one
    // about once: the HTTP one is made larger, so that neither fits after
    // the other.
    const HostileLdap directory = HostileLdap::serving({shared_crl_revoking(0x4D)});
    server_.set("/large.crl", HttpResponse::ok(large_crl(200)));
    const std::string ldap = directory.url(), http = server_.url("/large.crl");
    table_->least_max_bytes_for({ldap, http});
    {
        SCOPED_TRACE("LDAP first");
        expect_walk_refuses(ldap, http);
    }
    {
        SCOPED_TRACE("HTTP first");
        expect_walk_refuses(http, ldap);
    }
    {
        SCOPED_TRACE("the CRLs of an HTTP body count against the walk's values");
        settings().ldap.maxBytes = 1u << 24;
        settings().ldap.maxValues = 3;
        server_.set("/two.pem", HttpResponse::ok(crl_pem(shared_crl_revoking(0x4E)) +
                                                 crl_pem(shared_crl_revoking(0x4F))));
        expect_walk_refuses(server_.url("/two.pem"), server_.url("/two.pem"));
    }
}

TEST_F(HttpHostileTest, OneDeadlineForHttpAndLdap) {
    HttpResponse trickle = HttpResponse::ok(shared_crl_revoking(0x5A));
    trickle.trickle = milliseconds(1000);
    server_.set("/slow.crl", trickle);
    HttpServer fast;
    fast.set("/ca.crl", HttpResponse::ok(shared_crl_revoking(0x5B)));
    const HostileLdap silent = HostileLdap::silent();
    const HostileLdap serving = HostileLdap::serving({shared_crl_revoking(0x5C)});
    constexpr uint32_t walkMs = 300;
    settings().ldap.networkTimeoutMs = settings().ldap.operationTimeoutMs = 20000;
    settings().http.connectTimeoutMs = settings().http.timeoutMs = 20000;
    settings().ldap.walkTimeoutMs = walkMs;
    const struct {
        const char* what;
        std::string slow, fast;
        std::function<size_t()> fastAccepted;
    } cases[] = {
        {"HTTP, then LDAP", server_.url("/slow.crl"), serving.url(),
         [&] { return serving.accepted(); }},
        {"LDAP, then HTTP", silent.url(), fast.url("/ca.crl"), [&] { return fast.accepted(); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Clock::time_point start = Clock::now();
        {
            const LdapWalk walk(ctx_);
            EXPECT_EQ(fetch(c.slow), QXL_ERR_FETCH);
            EXPECT_LT(elapsed_since(start), milliseconds(walkMs) + slack);
            // Either fetch may count its wait in whole milliseconds, and so
            // give up a little before the deadline.
            std::this_thread::sleep_until(start + milliseconds(walkMs + 10));
            // The time is up: no connection is even tried.
            EXPECT_EQ(fetch(c.fast), QXL_ERR_FETCH);
            EXPECT_EQ(c.fastAccepted(), 0u);
        }
        EXPECT_EQ(list_, nullptr);
        // Outside the walk it has a deadline of its own.
        ASSERT_EQ(fetch(c.fast), 0u);
        EXPECT_EQ(c.fastAccepted(), 1u);
        qxldap_free_list(ctx_, &list_);
    }
}

// qxcrl_FetchFromCRLDP walks the points in the table's walk: a point that
// takes the whole deadline leaves none for the next one.
TEST_F(HttpHostileTest, TheModulesWalkIsOneWalkOfTheTable) {
    // The slow server is a server of its own: this one goes on trickling
    // to the walk that gave up, and would keep the next one waiting.
    HttpServer slow;
    HttpResponse trickle = HttpResponse::ok(shared_crl_revoking(0x6A));
    trickle.trickle = milliseconds(1000);
    slow.set("/slow.crl", trickle);
    const Bytes crl = shared_crl_revoking(0x6B);
    const HostileLdap directory = HostileLdap::serving({crl});
    const auto walk = [&](const std::string& first) {
        LeafOptions leaf;
        leaf.distributionPoints = {{first}, {directory.url()}};
        const Bytes der = cert_der(make_leaf(shared_issuer(), leaf).get());
        CertificateRecord* cert = nullptr;
        EXPECT_EQ(qxcert_from_bytes(ctx_, der.data(), static_cast<uint32_t>(der.size()), &cert),
                  0u);
        CrlObject* fetched = nullptr;
        const StatusCode status = qxcrl_FetchFromCRLDP(ctx_, cert, &fetched);
        Bytes got;
        unsigned char* bytes = nullptr;
        uint32_t length = 0;
        if (status == 0 && qxcrl_GetDER(ctx_, fetched, &bytes, &length) == 0)
            got.assign(bytes, bytes + length);
        qxumfree(ctx_, &bytes);
        qxcrl_Destroy(ctx_, &fetched);
        qxcert_free(ctx_, &cert);
        return std::make_pair(status, got);
    };
    settings().http.timeoutMs = 20000;
    settings().ldap.walkTimeoutMs = 300;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(walk(slow.url("/slow.crl")).first, QXERR_CRL_FETCH);
    EXPECT_LT(elapsed_since(start), milliseconds(300) + slack);
    EXPECT_EQ(directory.accepted(), 0u);
    // A point that fails at once leaves the walk's time to the next.
    EXPECT_EQ(walk(server_.url("/missing.crl")), std::make_pair(StatusCode{0}, crl));
    EXPECT_EQ(directory.accepted(), 1u);
}

TEST_F(HttpHostileTest, AllocationFailuresInAWalkFailOnlyTheirFetch) {
    const Bytes a = shared_crl_revoking(0x7A), b = shared_crl_revoking(0x7B),
                c = shared_crl_revoking(0x7C);
    server_.set("/a.crl", HttpResponse::ok(a));
    HttpResponse unannounced = HttpResponse::ok(crl_pem(b) + crl_pem(c));
    unannounced.noLength = true;
    server_.set("/bc.pem", unannounced);
    server_.set("/moved", HttpResponse::redirect("/a.crl"));
    const std::vector<std::string> urls = {server_.url("/a.crl"), server_.url("/bc.pem"),
                                           server_.url("/moved")};
    const std::vector<size_t> crls = {1, 2, 1};
    std::vector<StatusCode> statuses;
    sweep_allocations(
        [&] {
            statuses.clear();
            const LdapWalk walk(ctx_);
            for (const std::string& url : urls)
                statuses.push_back(fetch(url));
            for (const StatusCode status : statuses) {
                if (status != 0)
                    return status;
            }
            return StatusCode{0};
        },
        [&](StatusCode status, bool injected) {
            size_t expected = 0, failed = 0;
            for (size_t i = 0; i < urls.size(); ++i) {
                if (statuses[i] == 0)
                    expected += crls[i];
                else
                    ++failed;
            }
            EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
            EXPECT_EQ(failed, injected ? 1u : 0u);
            EXPECT_EQ(length_of(list_), expected);
            qxldap_free_list(ctx_, &list_);
        });
}
