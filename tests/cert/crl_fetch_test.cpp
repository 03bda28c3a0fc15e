// CRLs from a certificate's distribution points: the walk over points and
// names against a scripted callback table, then the real thing against a
// real slapd on loopback.
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hostile_ldap.h"
#include "layer_fixture.h"
#include "own_ldap_table.h"
#include "slapd.h"
#include "test_pki.h"
#include "toolkit_bytes.h"

using namespace qxtest;

namespace {

// A scripted directory: what each URL yields, which URLs were asked for,
// and where walks began and ended.
struct Script {
    static inline std::map<std::string, std::pair<StatusCode, std::vector<Bytes>>> answers;
    static inline std::vector<std::string> asked;
    static inline std::vector<std::string> events;

    static int is_url(const char* url) { return std::string(url).rfind("ldap://", 0) == 0; }
    static void begin(SecurityContext*) { events.push_back("begin"); }
    static void end(SecurityContext*) { events.push_back("end"); }
    static StatusCode fetch(SecurityContext* ctx, const char* url, FetchedCrlNode** list) {
        asked.push_back(url);
        events.push_back(url);
        const auto& [status, ders] = answers[url];
        for (const Bytes& der : ders) {
            StatusCode ignored = 0;
            auto* node =
                static_cast<FetchedCrlNode*>(qxumalloc(ctx, sizeof(FetchedCrlNode), &ignored));
            node->der = static_cast<unsigned char*>(
                qxumalloc(ctx, static_cast<uint32_t>(der.size()), &ignored));
            std::copy(der.begin(), der.end(), node->der);
            node->length = static_cast<uint32_t>(der.size());
            node->next = *list;
            *list = node;
        }
        return status;
    }
};

constexpr CrlFetchCallbacks scripted{nullptr, &Script::is_url, &Script::fetch, nullptr, nullptr};
constexpr CrlFetchCallbacks bracketed{nullptr, &Script::is_url, &Script::fetch, &Script::begin,
                                      &Script::end};

// Installs the table without hooks, then fetches.
StatusCode fetch_and_swap_tables(SecurityContext* ctx, const char* url, FetchedCrlNode** list) {
    qxlayer_set_fetch_callbacks(ctx, &scripted);
    return Script::fetch(ctx, url, list);
}
constexpr CrlFetchCallbacks swapping{nullptr, &Script::is_url, &fetch_and_swap_tables,
                                     &Script::begin, &Script::end};

class CrlFetchTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        Script::answers.clear();
        Script::asked.clear();
        Script::events.clear();
    }
    void TearDown() override {
        qxcrl_Destroy(ctx_, &crl_);
        for (CertificateRecord*& record : records_)
            qxcert_free(ctx_, &record);
        LayerTest::TearDown();
    }
    CertificateRecord* leaf_with(const Issuer& issuer,
                                 const std::vector<std::vector<std::string>>& points) {
        LeafOptions options;
        options.distributionPoints = points;
        const Bytes der = cert_der(make_leaf(issuer, options).get());
        CertificateRecord* made = nullptr;
        EXPECT_EQ(qxcert_from_bytes(ctx_, der.data(), static_cast<uint32_t>(der.size()), &made),
                  0u);
        records_.push_back(made);
        return made;
    }
    static Bytes crl_of(const Issuer& issuer, bool withEntries = true) {
        CrlOptions recipe;
        if (withEntries)
            recipe.revoked = {revoked_serial({0x42})};
        return make_crl(issuer, recipe);
    }
    StatusCode fetch(CertificateRecord* cert) {
        qxcrl_Destroy(ctx_, &crl_);
        trace_.clear();
        return qxcrl_FetchFromCRLDP(ctx_, cert, &crl_);
    }
    std::vector<std::string> messages() const {
        std::vector<std::string> found;
        for (const TraceEntry& entry : trace_.messages())
            found.push_back(entry.function + ":" + std::to_string(entry.level) + ":" +
                            (entry.messageId.empty() ? entry.text : entry.messageId));
        return found;
    }

    CrlObject* crl_ = nullptr;
    std::vector<CertificateRecord*> records_;
};

} // namespace

TEST_F(CrlFetchTest, TheWalkOverPointsAndNames) {
    qxlayer_set_fetch_callbacks(ctx_, &scripted);
    const Issuer& issuer = shared_issuer();
    const Bytes good = crl_of(issuer);
    {
        SCOPED_TRACE("no distribution points: no callback");
        EXPECT_EQ(fetch(leaf_with(issuer, {})), QXERR_CRL_FETCH);
        EXPECT_TRUE(Script::asked.empty());
        EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrlFFC_FetchFromCRLDP"), 1u);
    }
    {
        SCOPED_TRACE("other kinds and other name types are never handed on");
        CertificateRecord* cert = leaf_with(issuer, {{"ldap://a/x"}, {"ldap://b/x"}});
        cert->distPoints[0].kind = 1;
        cert->distPoints[1].names[0].type = 36;
        Script::answers["ldap://a/x"] = {0, {good}};
        EXPECT_EQ(fetch(cert), QXERR_CRL_FETCH);
        EXPECT_TRUE(Script::asked.empty());
    }
    {
        SCOPED_TRACE("a non-LDAP name before and after a fetch");
        Script::answers["ldap://c/x"] = {0, {good}};
        EXPECT_EQ(fetch(leaf_with(issuer, {{"http://c/x.crl", "ldap://c/x", "http://d/x.crl"}})),
                  0u);
        EXPECT_EQ(Script::asked, std::vector<std::string>{"ldap://c/x"});
        EXPECT_EQ(messages(), std::vector<std::string>{
                                  "qxcrl_ldap_fetch_crldp:5:INFO: CRL List is NULL and url type "
                                  "is Non-LDAP-Url and is not supported, and url is: "
                                  "http://c/x.crl\n"});
        ASSERT_NE(crl_, nullptr);
        EXPECT_EQ(toolkit_bytes(crl_->crl, R_CRL_to_binary), good);
    }
    {
        SCOPED_TRACE("one point, two URLs: the second only after a failing status");
        Script::asked.clear();
        Script::answers["ldap://e/1"] = {0, {good}};
        Script::answers["ldap://e/2"] = {0, {good}};
        EXPECT_EQ(fetch(leaf_with(issuer, {{"ldap://e/1", "ldap://e/2"}})), 0u);
        EXPECT_EQ(Script::asked, std::vector<std::string>{"ldap://e/1"});
        Script::asked.clear();
        Script::answers["ldap://e/1"] = {QXL_ERR_FETCH, {good}};
        EXPECT_EQ(fetch(leaf_with(issuer, {{"ldap://e/1", "ldap://e/2"}})), 0u);
        EXPECT_EQ(Script::asked, (std::vector<std::string>{"ldap://e/1", "ldap://e/2"}));
    }
    {
        SCOPED_TRACE("two points, both fetched into one list; the right issuer chosen");
        Script::asked.clear();
        IssuerOptions other;
        other.commonName = "Fetch Other CA";
        const Bytes foreign = crl_of(make_issuer(other));
        Script::answers["ldap://f/1"] = {0, {good}};    // ends up second in the list
        Script::answers["ldap://f/2"] = {0, {foreign}}; // pushed in front of it
        EXPECT_EQ(fetch(leaf_with(issuer, {{"ldap://f/1"}, {"ldap://f/2"}})), 0u);
        EXPECT_EQ(Script::asked.size(), 2u);
        EXPECT_EQ(toolkit_bytes(crl_->crl, R_CRL_to_binary), good);
    }
    {
        SCOPED_TRACE("no entries: passed over");
        Script::answers["ldap://g/1"] = {0, {crl_of(issuer, false)}};
        EXPECT_EQ(fetch(leaf_with(issuer, {{"ldap://g/1"}})), QXERR_CRL_FETCH);
        EXPECT_EQ(crl_, nullptr);
    }
    {
        SCOPED_TRACE("an undecodable value ends the fetch");
        Script::answers["ldap://h/1"] = {0, {good}};
        Script::answers["ldap://h/2"] = {0, {Bytes{0x30, 0x03, 0x02, 0x01, 0x01}}};
        EXPECT_EQ(fetch(leaf_with(issuer, {{"ldap://h/1"}, {"ldap://h/2"}})), QXERR_CRL_DECODE);
        EXPECT_EQ(crl_, nullptr);
        EXPECT_EQ(messages(), std::vector<std::string>{"qxcrl_Load:1:qx0249trc"});
    }
    {
        SCOPED_TRACE("no callback table, then a table without its fetch");
        qxlayer_set_fetch_callbacks(ctx_, nullptr);
        EXPECT_EQ(fetch(leaf_with(issuer, {{"ldap://i/1"}})), QXERR_CRL_FETCH);
        EXPECT_EQ(messages(),
                  std::vector<std::string>{"qxcrl_ldap_fetch_crldp:2:CRL CB: (funcptr) is NULL\n"});
        const CrlFetchCallbacks half{nullptr, &Script::is_url, nullptr, nullptr, nullptr};
        qxlayer_set_fetch_callbacks(ctx_, &half);
        EXPECT_EQ(fetch(leaf_with(issuer, {{"ldap://i/1"}})), QXERR_CRL_FETCH);
        EXPECT_EQ(messages(), std::vector<std::string>{
                                  "qxcrl_ldap_fetch_crldp:2:CRL CB: (ldap_fetch_crldp) is NULL\n"});
        qxlayer_set_fetch_callbacks(ctx_, &scripted);
    }
    {
        SCOPED_TRACE("arguments");
        FetchedCrlNode* list = nullptr;
        EXPECT_EQ(qxcrl_ldap_fetch_crldp(ctx_, nullptr, nullptr, &list), QXERR_BAD_PARAMETER);
        EXPECT_EQ(qxcrl_FetchFromCRLDP(ctx_, nullptr, &crl_), QXERR_BAD_PARAMETER);
        EXPECT_EQ(qxcrl_FetchFromCRLDP(nullptr, records_[0], &crl_), QXERR_BAD_PARAMETER);
    }
}

TEST_F(CrlFetchTest, TheTablesHooksBracketTheWalk) {
    const Issuer& issuer = shared_issuer();
    Script::answers["ldap://w/1"] = {QXL_ERR_FETCH, {}};
    Script::answers["ldap://w/2"] = {0, {crl_of(issuer)}};
    const std::vector<std::vector<std::string>> points = {{"ldap://w/1"},
                                                          {"http://w/x.crl", "ldap://w/2"}};
    qxlayer_set_fetch_callbacks(ctx_, &scripted);
    EXPECT_EQ(fetch(leaf_with(issuer, points)), 0u);
    const std::vector<std::string> withoutHooks = messages();

    qxlayer_set_fetch_callbacks(ctx_, &bracketed);
    Script::events.clear();
    EXPECT_EQ(fetch(leaf_with(issuer, points)), 0u);
    EXPECT_EQ(Script::events,
              (std::vector<std::string>{"begin", "ldap://w/1", "ldap://w/2", "end"}));
    EXPECT_EQ(messages(), withoutHooks);
    {
        SCOPED_TRACE("no distribution points, no walk");
        Script::events.clear();
        EXPECT_EQ(fetch(leaf_with(issuer, {})), QXERR_CRL_FETCH);
        EXPECT_TRUE(Script::events.empty());
    }
    {
        SCOPED_TRACE("the one-URL fetch is no walk");
        Script::events.clear();
        FetchedCrlNode* list = nullptr;
        EXPECT_EQ(qxcrl_ldap_fetch_crldp(ctx_, nullptr, "ldap://w/2", &list), 0u);
        EXPECT_EQ(Script::events, std::vector<std::string>{"ldap://w/2"});
        qxldap_free_list(ctx_, &list);
    }
    {
        SCOPED_TRACE("the table that began the walk ends it");
        qxlayer_set_fetch_callbacks(ctx_, &swapping);
        Script::events.clear();
        EXPECT_EQ(fetch(leaf_with(issuer, points)), 0u);
        EXPECT_EQ(Script::events,
                  (std::vector<std::string>{"begin", "ldap://w/1", "ldap://w/2", "end"}));
        EXPECT_EQ(layer()->crlFetchCallbacks, &scripted);
    }
}

class CrlFetchSlapdTest : public CrlFetchTest {
  protected:
    static void SetUpTestSuite() {
        directory_ = new Slapd();
        // Without the CRL syntax check, so that odd values can be served.
        plainDirectory_ = new Slapd(Slapd::CrlTransfer::Plain);
    }
    static void TearDownTestSuite() {
        delete directory_;
        delete plainDirectory_;
        directory_ = plainDirectory_ = nullptr;
    }
    static std::string dn(const std::string& ou) {
        return "ou=" + ou + "," + std::string(Slapd::suffix);
    }

    static inline Slapd* directory_ = nullptr;
    static inline Slapd* plainDirectory_ = nullptr;
};

TEST_F(CrlFetchSlapdTest, FromARealDirectory) {
    const Issuer& issuer = shared_issuer();
    IssuerOptions other;
    other.commonName = "Directory Other CA";
    const Bytes good = crl_of(issuer);
    const Bytes foreign = crl_of(make_issuer(other));
    directory_->add_crl_entry(dn("good"), "pkiCA", {good});
    directory_->add_crl_entry(dn("mixed"), "pkiCA", {foreign, good});
    plainDirectory_->add_crl_entry(dn("empty"), "pkiCA", {crl_of(issuer, false)});
    plainDirectory_->add_crl_entry(dn("broken"), "pkiCA", {Bytes{0x30, 0x00}});
    const std::string attribute = "certificateRevocationList;binary";
    const std::string goodUrl = directory_->url(dn("good"), attribute);
    const std::string emptyUrl = plainDirectory_->url(dn("empty"), "certificateRevocationList");

    EXPECT_EQ(fetch(leaf_with(issuer, {{goodUrl}})), 0u);
    ASSERT_NE(crl_, nullptr);
    EXPECT_EQ(toolkit_bytes(crl_->crl, R_CRL_to_binary), good);

    // Another issuer's CRL first, the right one second.
    EXPECT_EQ(fetch(leaf_with(issuer, {{directory_->url(dn("mixed"), attribute)}})), 0u);
    EXPECT_EQ(toolkit_bytes(crl_->crl, R_CRL_to_binary), good);

    // Two points into one list, the empty CRL passed over.
    EXPECT_EQ(fetch(leaf_with(issuer, {{directory_->url(dn("empty"), attribute)}, {goodUrl}})), 0u);
    EXPECT_EQ(toolkit_bytes(crl_->crl, R_CRL_to_binary), good);
    EXPECT_EQ(fetch(leaf_with(issuer, {{directory_->url(dn("empty"), attribute)}})),
              QXERR_CRL_FETCH);

    const std::string brokenUrl = plainDirectory_->url(dn("broken"), "certificateRevocationList");
    EXPECT_EQ(fetch(leaf_with(issuer, {{brokenUrl}, {goodUrl}})), QXERR_CRL_DECODE);
    EXPECT_EQ(fetch(leaf_with(issuer, {{directory_->url(dn("nowhere"), attribute)}})),
              QXERR_CRL_FETCH);

    // A non-LDAP URL after a fetch: no message, that point has delivered.
    EXPECT_EQ(fetch(leaf_with(issuer, {{goodUrl, "http://example.invalid/x.crl"}})), 0u);
    EXPECT_TRUE(messages().empty());

    // A failure in the callback leaves nothing fetched (29193); one in the
    // module itself is the allocator's status.
    CertificateRecord* cert = leaf_with(issuer, {{goodUrl}});
    qxcrl_Destroy(ctx_, &crl_);
    sweep_allocations(
        [&] { return qxcrl_FetchFromCRLDP(ctx_, cert, &crl_); },
        [&](StatusCode status, bool injected) {
            if (injected) {
                EXPECT_TRUE(status == QXL_ERR_OUT_OF_MEMORY || status == QXERR_CRL_FETCH) << status;
                EXPECT_EQ(crl_, nullptr);
            } else {
                EXPECT_EQ(status, 0u);
            }
            qxcrl_Destroy(ctx_, &crl_);
        });
}

TEST_F(CrlFetchSlapdTest, AStoppedDirectoryWithinItsTimeout) {
    // A directory that accepts connections but never answers, and one gone.
    QxLdapFetchSettings settings;
    qxldap_default_settings(&settings);
    settings.networkTimeoutMs = 500;
    settings.operationTimeoutMs = 500;
    CrlFetchCallbacks quick = *qxldap_fetch_callbacks();
    quick.settings = &settings;
    qxlayer_set_fetch_callbacks(ctx_, &quick);
    Slapd silent;
    silent.add_crl_entry("ou=x," + std::string(Slapd::suffix), "pkiCA", {crl_of(shared_issuer())});
    CertificateRecord* cert = leaf_with(
        shared_issuer(),
        {{silent.url("ou=x," + std::string(Slapd::suffix), "certificateRevocationList;binary")}});
    for (bool suspended : {true, false}) {
        SCOPED_TRACE(suspended ? "suspended" : "stopped");
        if (suspended)
            silent.suspend();
        else {
            silent.resume();
            silent.stop();
        }
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(fetch(cert), QXERR_CRL_FETCH);
        const auto took = std::chrono::steady_clock::now() - started;
        // The timeout is honoured: generous bound, this is no speed test.
        EXPECT_LT(took, std::chrono::milliseconds(3000));
    }
}

namespace {

// Walks through the layer's own callbacks, against hostile servers.
class CrlFetchHostileTest : public CrlFetchTest {
  protected:
    void SetUp() override {
        CrlFetchTest::SetUp();
        ldap_ = std::make_unique<OwnLdapTable>(ctx_);
    }
    size_t module_messages() const {
        size_t count = 0;
        for (const TraceEntry& entry : trace_.messages())
            count += entry.function == "qxcrl_ldap_fetch_crldp" ? 1 : 0;
        return count;
    }

    // Two points: the first serves another issuer's CRL, the second the
    // certificate issuer's.
    struct TwoPoints {
        Bytes good = crl_of(shared_issuer());
        HostileLdap foreign = HostileLdap::serving({crl_of(make_issuer(other_issuer()))});
        HostileLdap right = HostileLdap::serving({good});
    };
    static IssuerOptions other_issuer() {
        IssuerOptions other;
        other.commonName = "Walk Other CA";
        return other;
    }
    CertificateRecord* leaf_of(const TwoPoints& points) {
        return leaf_with(shared_issuer(), {{points.foreign.url()}, {points.right.url()}});
    }

    std::unique_ptr<OwnLdapTable> ldap_;
};

} // namespace

TEST_F(CrlFetchHostileTest, AWalkOverSilentPointsEndsAtItsDeadline) {
    const std::vector<HostileLdap> silent = [] {
        std::vector<HostileLdap> servers;
        for (int i = 0; i < 3; ++i)
            servers.push_back(HostileLdap::silent());
        return servers;
    }();
    const BlackHole holeA, holeB;
    ASSERT_TRUE(holeA.full() && holeB.full());
    const std::vector<std::vector<std::string>> points = {
        {silent[0].url("1")}, {holeA.url("1")},     {silent[1].url("1")}, {holeB.url("1")},
        {silent[2].url("1")}, {silent[0].url("2")}, {holeA.url("2")},     {silent[1].url("2")}};
    // Each point alone may take two seconds; the walk as a whole one.
    ldap_->settings.networkTimeoutMs = 2000;
    ldap_->settings.operationTimeoutMs = 2000;
    ldap_->settings.walkTimeoutMs = 1000;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fetch(leaf_with(shared_issuer(), points)), QXERR_CRL_FETCH);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000 + 5000));
    // Every URL was still handed to the layer, with the module's message.
    EXPECT_EQ(module_messages(), points.size());
    EXPECT_EQ(crl_, nullptr);
}

TEST_F(CrlFetchHostileTest, TheCrlsOfAllPointsShareOneMemoryBudget) {
    const TwoPoints points;
    // Enough for either point's CRL alone, not for both.
    const uint32_t least = ldap_->least_max_bytes_for({points.foreign.url(), points.right.url()});
    CertificateRecord* cert = leaf_of(points);
    EXPECT_EQ(fetch(cert), QXERR_CRL_FETCH);
    EXPECT_EQ(crl_, nullptr);
    ldap_->settings.maxBytes = 2 * least;
    ASSERT_EQ(fetch(cert), 0u);
    EXPECT_EQ(toolkit_bytes(crl_->crl, R_CRL_to_binary), points.good);
}

TEST_F(CrlFetchHostileTest, AllocationFailuresInAWalk) {
    const TwoPoints points;
    CertificateRecord* cert = leaf_of(points);
    // One value a walk: the foreign CRL takes it and the right one is
    // refused, unless the foreign fetch failed and gave it back. A walk
    // that outlived its call would leave the next one nothing.
    ldap_->settings.maxValues = 1;
    size_t givenBack = 0;
    sweep_allocations(
        [&] { return qxcrl_FetchFromCRLDP(ctx_, cert, &crl_); },
        [&](StatusCode status, bool injected) {
            if (!injected) {
                EXPECT_EQ(status, QXERR_CRL_FETCH);
                EXPECT_EQ(crl_, nullptr);
            } else if (status == 0) {
                ++givenBack;
                ASSERT_NE(crl_, nullptr);
                EXPECT_EQ(toolkit_bytes(crl_->crl, R_CRL_to_binary), points.good);
            } else {
                EXPECT_TRUE(status == QXL_ERR_OUT_OF_MEMORY || status == QXERR_CRL_FETCH) << status;
                EXPECT_EQ(crl_, nullptr);
            }
            qxcrl_Destroy(ctx_, &crl_);
        });
    EXPECT_GT(givenBack, 0u);
}
