// The qxcrl command run as a process: on a CA that `openssl ca` keeps, on
// CRLs the command writes itself, and on the PKITS CRLs of the corpus.
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "cli_ca.h"
#include "cli_run.h"
#include "files.h"
#include "http_server.h"
#include "qxcrl.h"
#include "slapd.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

// A CA kept by `openssl ca`, with leaf 1000 revoked and leaf 1001 not, and
// its CRL as crl.pem and crl.der.
class CliTest : public ::testing::Test {
  protected:
    void SetUp() override {
        write_text(dir_ / "ca.cnf",
                   openssl_ca_config("[ crl_ext ]\nauthorityKeyIdentifier = keyid:always\n"));
        const std::string ec = "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes";
        ASSERT_EQ(
            run_in(dir_.path(),
                   "mkdir newcerts && touch index.txt && echo 2a > crlnumber && "
                   "echo 1000 > serial && openssl req -x509 " +
                       ec +
                       " -keyout ca.key -out ca.pem -days 30 "
                       "-subj '/CN=qxcrl \"CLI\" CA\\\\x/O=qxcrl tests' && "
                       "openssl req -new " +
                       ec +
                       " -keyout leaf.key -out leaf.csr -subj /CN=leaf && "
                       "openssl ca -batch -config ca.cnf -in leaf.csr -out revoked.pem -days 7 && "
                       "openssl ca -batch -config ca.cnf -in leaf.csr -out good.pem -days 7 && "
                       "openssl ca -config ca.cnf -revoke revoked.pem && "
                       "openssl ca -config ca.cnf -gencrl -crlexts crl_ext -out crl.pem && "
                       "openssl crl -in crl.pem -outform DER -out crl.der && "
                       "openssl req -x509 " +
                       ec +
                       " -keyout other.key -out other.pem -days 30 -subj '/CN=qxcrl CLI CA' && "
                       "openssl req -x509 " +
                       ec +
                       " -keyout impostor.key -out impostor.pem -days 30 "
                       "-subj '/CN=qxcrl \"CLI\" CA\\\\x/O=qxcrl tests' && "
                       // A revocation dated this very second does not count yet.
                       "sleep 1"),
            0)
            << "see " << (dir_ / "log.txt");
    }
    Result run(const std::string& arguments) { return qxcrl(dir_.path(), arguments); }

    TempDir dir_;
};

TEST_F(CliTest, ShowPrintsEveryFieldAsTextAndJson) {
    for (const char* file : {"crl.pem", "crl.der"}) {
        SCOPED_TRACE(file);
        const Result text = run(std::string("show ") + file);
        ASSERT_EQ(text.exit, 0) << text.err;
        EXPECT_NE(text.out.find("version: 1\n"), std::string::npos) << text.out;
        EXPECT_NE(text.out.find("signature type: 9 (ecdsa-with-SHA256)\n"), std::string::npos);
        EXPECT_NE(text.out.find("CRL number: 42\n"), std::string::npos) << text.out;
        EXPECT_NE(text.out.find("entries: 1\n  serial 1000 revoked "), std::string::npos);

        const Result json = run(std::string("show --json ") + file);
        ASSERT_EQ(json.exit, 0) << json.err;
        // The issuer holds a quote and a backslash: both escaped.
        EXPECT_NE(json.out.find(R"("issuer":"O=qxcrl tests,CN=qxcrl \\\"CLI\\\" CA\\\\x")"),
                  std::string::npos)
            << json.out;
        EXPECT_NE(json.out.find("{\"version\":1,\"signatureType\":9,\"signatureAlgorithm\":"
                                "\"ecdsa-with-SHA256\","),
                  std::string::npos)
            << json.out;
        EXPECT_NE(json.out.find("\"crlNumber\":\"42\",\"entries\":[{\"serial\":\"1000\","
                                "\"revocationDate\":\""),
                  std::string::npos)
            << json.out;
        EXPECT_EQ(json.out.back(), '\n');
        EXPECT_EQ(json.out.find('\n'), json.out.size() - 1);
    }
}

TEST_F(CliTest, FailuresPrintOneErrorLineAndExit10) {
    const Result notCrl = run("show ca.pem");
    EXPECT_EQ(notCrl.exit, 10);
    EXPECT_EQ(notCrl.err, "qxcrl: loading ca.pem: 28788 QXERR_CRL_DECODE (not a CRL in DER, nor "
                          "in PEM under a CRL label)\n");
    const Result missing = run("verify crl.pem --issuer nowhere.pem");
    EXPECT_EQ(missing.exit, 10);
    EXPECT_EQ(missing.err, "qxcrl: loading nowhere.pem: 29390 QXL_ERR_FILE (no such file)\n");
    const Result badUsage = run("show");
    EXPECT_EQ(badUsage.exit, 64);
    EXPECT_NE(badUsage.err.find("usage: qxcrl show"), std::string::npos);
}

TEST_F(CliTest, HelpOnEveryCommand) {
    const Result top = run("--help");
    ASSERT_EQ(top.exit, 0);
    for (const char* command : {"demo", "show", "verify", "status", "convert", "hash", "rehash",
                                "create", "revoke", "next-update", "fetch", "store", "stored"}) {
        SCOPED_TRACE(command);
        EXPECT_NE(top.out.find(std::string("  ") + command + " "), std::string::npos);
        const Result help = run(std::string(command) + " --help");
        EXPECT_EQ(help.exit, 0);
        EXPECT_EQ(help.out.rfind(std::string("usage: qxcrl ") + command, 0), 0u) << help.out;
    }
}

TEST_F(CliTest, VerifySaysOkExpiredOrWhatIsWrong) {
    Result result = run("verify crl.pem --issuer ca.pem");
    EXPECT_EQ(result.exit, 0);
    EXPECT_EQ(result.out, "ok\n");
    result = run("verify crl.der --issuer impostor.pem");
    EXPECT_EQ(result.exit, 2);
    EXPECT_EQ(result.out, "bad-signature\n");
    EXPECT_EQ(result.err, "qxcrl: note: the signature is not made with the issuer's key\n");
    result = run("verify crl.der --issuer other.pem");
    EXPECT_EQ(result.exit, 2);
    EXPECT_EQ(result.out, "other-issuer\n");

    // An issuer that may not sign CRLs, and a CRL its issuer signed without a next update.
    IssuerOptions certSignOnly;
    certSignOnly.keyUsage = "critical,keyCertSign";
    const Issuer notCrlSigner = make_issuer(certSignOnly);
    write_text(dir_ / "cert-signer.pem", cert_pem(notCrlSigner.cert.get()));
    write_file(dir_ / "cert-signer.crl", make_crl(notCrlSigner, {}));
    result = run("verify cert-signer.crl --issuer cert-signer.pem");
    EXPECT_EQ(result.exit, 2);
    EXPECT_EQ(result.out, "not-crl-signer\n");
    const Issuer& shared = shared_issuer();
    write_text(dir_ / "shared.pem", cert_pem(shared.cert.get()));
    CrlOptions undated;
    undated.nextUpdate.reset();
    write_file(dir_ / "undated.crl", make_crl(shared, undated));
    result = run("verify undated.crl --issuer shared.pem");
    EXPECT_EQ(result.exit, 1);
    EXPECT_EQ(result.out, "no-next-update\n");
    EXPECT_NE(result.err.find("has no next update"), std::string::npos) << result.err;

    ASSERT_EQ(run("next-update crl.pem --issuer ca.pem --key ca.key --next-update now "
                  "--out expired.pem")
                  .exit,
              0);
    result = run("verify expired.pem --issuer ca.pem");
    EXPECT_EQ(result.exit, 1);
    EXPECT_EQ(result.out, "expired\n");
}

TEST_F(CliTest, StatusAnswersFromEveryCrlOfEveryFile) {
    // A PEM file with two CRLs (another issuer's first) and a DER file.
    ASSERT_EQ(
        run("create --issuer other.pem --key other.key --next-update 1d --out other.crl").exit, 0);
    write_text(dir_ / "both.pem", slurp(dir_ / "other.crl") + slurp(dir_ / "crl.pem"));
    for (const char* crls : {"--crl both.pem", "--crl other.crl --crl crl.der"}) {
        SCOPED_TRACE(crls);
        Result result = run(std::string("status --cert revoked.pem ") + crls + " --issuer ca.pem");
        EXPECT_EQ(result.exit, 1) << result.err;
        EXPECT_EQ(result.out, "revoked\n");
        result = run(std::string("status --cert good.pem --json ") + crls);
        EXPECT_EQ(result.exit, 0) << result.err;
        EXPECT_EQ(result.out.rfind("{\"status\":\"valid\",\"verified\":false,", 0), 0u)
            << result.out;
    }
    Result result = run("status --cert revoked.pem --crl other.crl");
    EXPECT_EQ(result.exit, 2);
    EXPECT_EQ(result.out, "unknown\n");
    // A CRL of the issuer's name that its key did not sign is an error.
    result = run("status --cert revoked.pem --crl crl.pem --issuer impostor.pem");
    EXPECT_EQ(result.exit, 10);
    EXPECT_NE(result.err.find(": 29176 QXERR_CRL_SIGN (the signature is not made with the issuer's "
                              "key)\n"),
              std::string::npos)
        << result.err;

    // An expired CRL answers only under a tolerant policy.
    ASSERT_EQ(run("next-update crl.pem --issuer ca.pem --key ca.key --next-update now "
                  "--out expired.pem")
                  .exit,
              0);
    result = run("status --cert revoked.pem --crl expired.pem --issuer ca.pem");
    EXPECT_EQ(result.exit, 2);
    EXPECT_EQ(result.out, "unknown\n");
    EXPECT_NE(result.err.find("expired"), std::string::npos);
    result = run("status --cert revoked.pem --crl expired.pem --policy 3");
    EXPECT_EQ(result.exit, 1);
    EXPECT_EQ(result.out, "revoked\n");
}

// PEM text of a CRL with the label of its begin and end lines changed.
std::string relabelled(std::string pem, const std::string& beginLabel,
                       const std::string& endLabel) {
    const std::string primary = "X509 CRL-----";
    pem.replace(pem.find(primary, pem.find("-----BEGIN ")), primary.size(), beginLabel + "-----");
    pem.replace(pem.find(primary, pem.find("-----END ")), primary.size(), endLabel + "-----");
    return pem;
}

// The shards of a partitioned CRL, made by `openssl ca` with critical
// Issuing Distribution Points, in one status command: the shard that covers
// the certificate answers, whatever the order of the files.
TEST_F(CliTest, StatusAnswersFromTheShardThatCoversTheCertificate) {
    const Issuer& issuer = shared_issuer();
    write_text(dir_ / "shard-ca.pem", cert_pem(issuer.cert.get()));
    for (int shard = 1; shard <= 2; ++shard) {
        const std::string uri = "http://crl.qxcrl.test/" + std::to_string(shard) + ".crl";
        TempDir ca;
        OpensslCaOptions recipe;
        recipe.revoked = {{static_cast<unsigned char>(0x10 + shard)}};
        recipe.moreCrlExtensions =
            "issuingDistributionPoint = critical, @idp\n[ idp ]\nfullname = URI:" + uri + "\n";
        write_file(dir_ / ("shard" + std::to_string(shard) + ".crl"),
                   openssl_ca_crl(ca.path(), issuer, recipe));
        // Its revoked certificate, and one it covers but does not list.
        for (const unsigned char serial : {0x10 + shard, 0x20 + shard}) {
            LeafOptions leaf;
            leaf.serial = {serial};
            leaf.distributionPoints = {{uri}};
            write_text(dir_ / ("leaf" + std::to_string(serial) + ".pem"),
                       cert_pem(make_leaf(issuer, leaf).get()));
        }
    }
    LeafOptions unnamed;
    unnamed.serial = {0x11};
    write_text(dir_ / "unnamed.pem", cert_pem(make_leaf(issuer, unnamed).get()));
    sleep(1); // a revocation dated this very second does not count yet

    const struct {
        const char* cert;
        const char* answer;
    } cases[] = {{"leaf17.pem", "revoked"},
                 {"leaf18.pem", "revoked"},
                 {"leaf33.pem", "valid"},
                 {"leaf34.pem", "valid"},
                 {"unnamed.pem", "unknown"}};
    for (const char* crls :
         {"--crl shard1.crl --crl shard2.crl", "--crl shard2.crl --crl shard1.crl"}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.cert) + " " + crls);
            const Result result =
                run(std::string("status --cert ") + c.cert + " " + crls + " --issuer shard-ca.pem");
            EXPECT_EQ(result.out, std::string(c.answer) + "\n") << result.err;
        }
    }
}

TEST_F(CliTest, StatusReadsEveryBlockWhateverItsLabelAndWhatLiesBetween) {
    ASSERT_EQ(
        run("create --issuer other.pem --key other.key --next-update 1d --out other.crl").exit, 0);
    const std::string revoking = slurp(dir_ / "crl.pem"), other = slurp(dir_ / "other.crl");
    const std::string nul(1, '\0');
    const Bytes otherDer = pem_block(dir_ / "other.crl", "X509 CRL");
    // A DER CRL that carries PEM text in an extension is read as that text's
    // blocks, as any file with a CRL begin line is, however it is read.
    CrlOptions carrier;
    carrier.extensions = {{"1.2.3.4", false, Bytes(revoking.begin(), revoking.end())}};
    const Bytes carrierDer = make_crl(shared_issuer(), carrier);
    // Each file holds another issuer's CRL and the one that revokes the leaf.
    const std::vector<std::pair<std::string, std::string>> files = {
        {"another issuer's CRL in DER, the revoking CRL in PEM after it",
         std::string(otherDer.begin(), otherDer.end()) + revoking},
        {"another issuer's DER CRL, the revoking CRL's PEM in its extension",
         std::string(carrierDer.begin(), carrierDer.end())},
        {"a NUL between, the revoking CRL second",
         relabelled(other, "CRL", "CRL") + nul + revoking},
        {"the revoking CRL first under a label the primary one outranks",
         relabelled(revoking, "CRL", "CRL") + other},
        {"every label, NULs between",
         relabelled(other, "CERTIFICATE REVOCATION LIST", "CERTIFICATE REVOCATION LIST") + nul +
             nul + "text\n" + relabelled(revoking, "X509CRL", "X509 CRL")},
    };
    for (const auto& [what, content] : files) {
        SCOPED_TRACE(what);
        write_text(dir_ / "mixed.pem", content);
        Result result = run("status --cert revoked.pem --crl mixed.pem --issuer ca.pem");
        EXPECT_EQ(result.exit, 1) << result.err;
        EXPECT_EQ(result.out, "revoked\n");
        result = run("status --cert good.pem --crl mixed.pem");
        EXPECT_EQ(result.exit, 0) << result.err;
        EXPECT_EQ(result.out, "valid\n");
    }

    // A block that cannot be read fails the command and names its file, even
    // past a NUL.
    std::string corrupt = relabelled(other, "CRL", "CRL");
    corrupt.insert(corrupt.find('\n') + 5, "!");
    for (const std::string& content :
         {revoking + nul + corrupt, corrupt + revoking, revoking + "-----BEGIN CRL-----\nMIIB\n"}) {
        write_text(dir_ / "bad.pem", content);
        const Result result = run("status --cert revoked.pem --crl bad.pem");
        EXPECT_EQ(result.exit, 10) << result.out;
        EXPECT_NE(result.err.find(" bad.pem: "), std::string::npos) << result.err;
    }
}

TEST_F(CliTest, HashNamesTheIssuerOfACrlOrACertificate) {
    const Result fromCrl = run("hash crl.pem");
    ASSERT_EQ(fromCrl.exit, 0) << fromCrl.err;
    const Result fromCert = run("hash --cert good.pem");
    ASSERT_EQ(fromCert.exit, 0) << fromCert.err;
    EXPECT_EQ(fromCrl.out, fromCert.out);
    EXPECT_EQ(fromCrl.out.size(), 12u) << fromCrl.out; // eight hex digits, ".rN", line feed
    EXPECT_NE(run("hash --cert other.pem").out, fromCrl.out);
}

TEST_F(CliTest, AuthoringWritesCrlsOpensslAccepts) {
    Result result = run("create --issuer ca.pem --key ca.key --next-update 7d --out new.der --der");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_TRUE(openssl_crl_verifies(dir_.path(), "new.der", "ca.pem"));
    // Revoke without --out rewrites the file in place and keeps its signature type.
    result = run("revoke new.der --issuer ca.pem --key ca.key --cert good.pem --cert revoked.pem");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(slurp(dir_ / "new.der").rfind("-----BEGIN X509 CRL-----\n", 0), 0u);
    result = run("show new.der");
    EXPECT_NE(result.out.find("signature type: 9 "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("  serial 1001 revoked "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("  serial 1000 revoked "), std::string::npos) << result.out;
    EXPECT_TRUE(openssl_crl_verifies(dir_.path(), "new.der", "ca.pem"));
    ASSERT_EQ(run_in(dir_.path(), "openssl crl -in new.der -noout -text > text.txt && "
                                  "ls -A > files.txt"),
              0);
    EXPECT_NE(slurp(dir_ / "text.txt").find("Serial Number: 1001"), std::string::npos);
    EXPECT_EQ(slurp(dir_ / "files.txt").find(".qxcrl-"), std::string::npos); // no temporary left

    // An explicit signature type, and a next update moved far out.
    result = run("revoke crl.pem --issuer ca.pem --key ca.key --cert good.pem --sig-type 10 "
                 "--out revoked384.pem");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_NE(run("show revoked384.pem").out.find("signature type: 10 (ecdsa-with-SHA384)"),
              std::string::npos);
    result = run("next-update revoked384.pem --issuer ca.pem --key ca.key --next-update 400d");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(run("verify revoked384.pem --issuer ca.pem").out, "ok\n");

    result = run("create --issuer ca.pem --key ca.key --next-update soon --out bad.pem");
    EXPECT_EQ(result.exit, 10);
    EXPECT_EQ(result.err.rfind("qxcrl: creating bad.pem: 29360 QXL_ERR_INTERVAL (", 0), 0u)
        << result.err;
    EXPECT_FALSE(std::filesystem::exists(dir_ / "bad.pem"));
}

TEST_F(CliTest, StoreKeepsEveryVersion) {
    ASSERT_EQ(run("store crl.pem --name ca --db s.db").exit, 0);
    ASSERT_EQ(run("revoke crl.pem --issuer ca.pem --key ca.key --cert good.pem").exit, 0);
    ASSERT_EQ(run("store crl.pem --name ca --db s.db").exit, 0);
    Result result = run("stored ca --db s.db");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(result.out, slurp(dir_ / "crl.pem"));
    result = run("stored ca --db s.db --history");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(result.out.rfind("# version 0\n", 0), 0u);
    EXPECT_NE(result.out.find("# version 1\n"), std::string::npos);
    EXPECT_EQ(result.out.find("# version 2\n"), std::string::npos);
    result = run("stored nobody --db s.db");
    EXPECT_EQ(result.exit, 10);
    EXPECT_EQ(result.err, "qxcrl: reading nobody: 29370 QXL_ERR_STORE\n");
}

// A long history printed in one pass. Read one version at a time, version k
// cost k steps of skipping: 20,000 versions took 16 s of CPU, and twice as
// many take four times that, far past the bound.
TEST(CliStoreTest, StoredHistoryOfFortyThousandVersions) {
    const TempDir dir;
    constexpr uint32_t count = 40000;
    std::vector<std::string> texts;
    for (uint32_t index = 0; index <= count; ++index)
        texts.push_back("text " + std::to_string(index) + "\n");
    {
        std::vector<QxStoreItem> items;
        for (const std::string& text : texts)
            items.push_back({text.data(), static_cast<uint32_t>(text.size())});
        const QxStoreItemList list{static_cast<uint32_t>(items.size()), items.data()};
        const std::string path = (dir / "many.db").string();
        QxLayerConfig config;
        qxlayer_default_config(&config);
        config.storePath = path.c_str();
        SecurityContext* ctx = nullptr;
        ASSERT_EQ(qxlayer_create(&config, &ctx), 0u);
        QxStoreDescriptor descriptor{};
        descriptor.kind = QX_STORE_KIND_NAMED_TEXT;
        descriptor.name = "ca";
        descriptor.nameLength = 2;
        descriptor.format = QX_STORE_FORMAT_PEM;
        QxStoreHandle* handle = nullptr;
        EXPECT_EQ(qxiropen(ctx, &handle, QX_STORE_CLASS_CRL, QX_STORE_FORMAT_PEM,
                           QX_STORE_MODE_WRITE, &descriptor),
                  0u);
        EXPECT_EQ(qxirstore(ctx, handle, &list), 0u); // one transaction for all
        qxirclose(ctx, &handle);
        qxlayer_destroy(&ctx);
    }
    const Result result = qxcrl(dir.path(), "stored ca --db many.db --history", 15);
    ASSERT_EQ(result.exit, 0) << "exit 124 is the bound of 15 s running out; " << result.err;
    std::string expected;
    for (uint32_t version = 0; version <= count; ++version)
        expected += "# version " + std::to_string(version) + "\n" + texts[count - version];
    EXPECT_TRUE(result.out == expected) << result.out.size() << " bytes out";
}

TEST_F(CliTest, FetchWithoutDistributionPointsFails) {
    const Result result = run("fetch --cert good.pem");
    EXPECT_EQ(result.exit, 10);
    EXPECT_EQ(result.err.rfind("qxcrl: fetching the CRL of good.pem: ", 0), 0u) << result.err;
}

// A certificate whose distribution point is a real directory on loopback:
// the fetched CRL comes out as PEM holding the directory's DER exactly.
TEST_F(CliTest, FetchFromADirectory) {
    Slapd directory;
    const Issuer& issuer = shared_issuer();
    CrlOptions recipe;
    recipe.revoked = {revoked_serial({0x42})};
    const Bytes crl = make_crl(issuer, recipe);
    const std::string dn = "ou=cli," + std::string(Slapd::suffix);
    directory.add_crl_entry(dn, "pkiCA", {crl});
    LeafOptions options;
    options.distributionPoints = {{directory.url(dn, "certificateRevocationList;binary")}};
    write_text(dir_ / "fetching.pem", cert_pem(make_leaf(issuer, options).get()));

    const Result result = run("fetch --cert fetching.pem --out fetched.pem");
    ASSERT_EQ(result.exit, 0) << result.err;
    ASSERT_EQ(run_in(dir_.path(), "openssl crl -in fetched.pem -outform DER -out fetched.der"), 0);
    EXPECT_EQ(read_file(dir_ / "fetched.der"), crl);
}

// Most CAs publish their CRLs over HTTP: the command fetches them as well.
TEST_F(CliTest, FetchOverHttp) {
    HttpServer server;
    CrlOptions recipe;
    recipe.revoked = {revoked_serial({0x43})};
    const Bytes crl = make_crl(shared_issuer(), recipe);
    server.set("/ca.crl", HttpResponse::ok(crl));
    LeafOptions options;
    options.distributionPoints = {{server.url("/ca.crl")}};
    write_text(dir_ / "fetching.pem", cert_pem(make_leaf(shared_issuer(), options).get()));

    const Result result = qxcrl(dir_.path(), "fetch --cert fetching.pem", 60);
    ASSERT_EQ(result.exit, 0) << result.err;
    write_text(dir_ / "fetched.pem", result.out);
    ASSERT_EQ(run_in(dir_.path(), "openssl crl -in fetched.pem -outform DER -out fetched.der"), 0);
    EXPECT_EQ(read_file(dir_ / "fetched.der"), crl);
    EXPECT_EQ(server.accepted(), 1u);
}

// A point whose server has no CRL is passed for the next, of either kind.
TEST_F(CliTest, FetchGoesOnFromHttpToLdap) {
    HttpServer server;
    Slapd directory;
    CrlOptions recipe;
    recipe.revoked = {revoked_serial({0x44})};
    const Bytes crl = make_crl(shared_issuer(), recipe);
    const std::string dn = "ou=both," + std::string(Slapd::suffix);
    directory.add_crl_entry(dn, "pkiCA", {crl});
    LeafOptions options;
    options.distributionPoints = {{server.url("/missing.crl")},
                                  {directory.url(dn, "certificateRevocationList;binary")}};
    write_text(dir_ / "fetching.pem", cert_pem(make_leaf(shared_issuer(), options).get()));

    const Result result = qxcrl(dir_.path(), "fetch --cert fetching.pem --out fetched.pem", 60);
    ASSERT_EQ(result.exit, 0) << result.err;
    ASSERT_EQ(run_in(dir_.path(), "openssl crl -in fetched.pem -outform DER -out fetched.der"), 0);
    EXPECT_EQ(read_file(dir_ / "fetched.der"), crl);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0].rfind("GET /missing.crl ", 0), 0u);
}

TEST_F(CliTest, TraceShowsTheLayersRecords) {
    const Result quiet = run("show crl.pem");
    const Result traced = run("show crl.pem --trace 5");
    EXPECT_EQ(traced.out, quiet.out);
    EXPECT_TRUE(quiet.err.empty()) << quiet.err;
    EXPECT_FALSE(traced.err.empty());
}

TEST(CliDemo, RunsEveryStepInItsFolder) {
    TempDir dir;
    const Result result = qxcrl(dir.path(), "demo --dir demo");
    ASSERT_EQ(result.exit, 0) << result.err;
    for (const char* line : {"revoked leaf 1 (serial 1001)\n", "leaf 1: revoked\n",
                             "leaf 2: valid\n", "verified the CRL against the CA: ok\n"})
        EXPECT_NE(result.out.find(line), std::string::npos) << line << result.out;
    EXPECT_TRUE(std::filesystem::exists(dir / "demo" / "qxstore.db"));
    const Result hash = qxcrl(dir.path(), "hash demo/demo.crl.pem");
    EXPECT_NE(result.out.find("issuer-hash file name: " + hash.out), std::string::npos);
}

TEST(CliPkits, AnswersTheCorpusCrls) {
    const std::filesystem::path corpus = corpus_dir();
    if (corpus.empty())
        GTEST_SKIP() << "no test corpus";
    const std::string crls = "'" + (corpus / "pkits" / "crls").string() + "/";
    const std::string certs = "'" + (corpus / "pkits" / "certs").string() + "/";
    TempDir dir;
    Result result = qxcrl(dir.path(), "verify " + crls + "GoodCACRL.crl' --issuer " + certs +
                                          "GoodCACert.crt'");
    EXPECT_EQ(result.exit, 0) << result.err;
    result = qxcrl(dir.path(), "verify " + crls + "BadCRLSignatureCACRL.crl' --issuer " + certs +
                                   "BadCRLSignatureCACert.crt'");
    EXPECT_EQ(result.out, "bad-signature\n");
    EXPECT_EQ(result.exit, 2);
    result = qxcrl(dir.path(), "status --cert " + certs + "InvalidRevokedEETest3EE.crt' --crl " +
                                   crls + "GoodCACRL.crl' --issuer " + certs + "GoodCACert.crt'");
    EXPECT_EQ(result.out, "revoked\n");
    EXPECT_EQ(result.exit, 1);
    result =
        qxcrl(dir.path(), "status --cert " + certs + "ValidCertificatePathTest1EE.crt' --crl " +
                              crls + "GoodCACRL.crl'");
    EXPECT_EQ(result.out, "valid\n");
    EXPECT_EQ(result.exit, 0);
    result = qxcrl(dir.path(), "show --json " + crls + "GoodCACRL.crl'");
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_NE(result.out.find("\"issuer\":\"CN=Good CA,O=Test Certificates 2011,C=US\""),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("\"crlNumber\":\"1\""), std::string::npos) << result.out;
}

} // namespace
