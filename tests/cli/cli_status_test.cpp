// qxcrl status --json saying which CRL answered and what it says of the
// certificate, and --at judging verify and status at another time, beside
// `openssl verify -attime` and the corpus's real-world expectations.
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "cli_ca.h"
#include "files.h"

using namespace qxtest;

namespace {

// "261123201809Z", a UTCTime of `openssl ca`'s index, as RFC 3339.
std::string index_time(const std::string& utc) {
    return "20" + utc.substr(0, 2) + "-" + utc.substr(2, 2) + "-" + utc.substr(4, 2) + "T" +
           utc.substr(6, 2) + ":" + utc.substr(8, 2) + ":" + utc.substr(10, 2) + "Z";
}

class CliStatusTest : public CliCaTest {
  protected:
    // l1 revoked for key compromise, l2 for superseded; the CRL in crl.pem,
    // then another CA's CRL and this one in both.pem.
    void revoke_and_publish() {
        shell("openssl ca -config ca.cnf -revoke l1.pem -crl_reason keyCompromise && "
              "openssl ca -config ca.cnf -revoke l2.pem -crl_reason superseded && "
              "openssl ca -config ca.cnf -gencrl -out crl.pem && "
              "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
              "-keyout other.key -out other.pem -days 30 -subj '/CN=qxcrl other CA'");
        ASSERT_EQ(
            run("create --issuer other.pem --key other.key --next-update 1d --out other.crl").exit,
            0);
        write_text(dir_ / "both.pem", slurp(dir_ / "other.crl") + slurp(dir_ / "crl.pem"));
        // A revocation dated this very second does not count yet.
        shell("sleep 1");
    }
};

TEST_F(CliStatusTest, JsonSaysTheAnswerAndWhichCrlGaveIt) {
    revoke_and_publish();
    const std::string index = slurp(dir_ / "index.txt");
    const std::string lastUpdate = after(
        output_of("openssl crl -in crl.pem -noout -lastupdate -dateopt iso_8601"), "lastUpdate=");
    const std::string thisUpdate = lastUpdate.substr(0, 10) + "T" + lastUpdate.substr(11);
    const std::string numberHex =
        after(output_of("openssl crl -in crl.pem -noout -crlnumber"), "crlNumber=0x");
    const std::string number = std::to_string(std::stoul(numberHex, nullptr, 16));
    const std::string crl = ",\"crl\":{\"file\":\"both.pem\",\"index\":2,\"issuer\":\"CN=qxcrl CLI "
                            "CA\",\"crlNumber\":\"" +
                            number + "\",\"thisUpdate\":\"" + thisUpdate + "\",\"nextUpdate\":\"";

    Result result = run("status --cert l1.pem --crl both.pem --issuer ca.pem --json");
    EXPECT_EQ(result.exit, 1) << result.err;
    EXPECT_EQ(
        result.out.rfind("{\"status\":\"revoked\",\"verified\":true,\"revocationDate\":\"", 0), 0u)
        << result.out;
    EXPECT_NE(result.out.find("\"reason\":\"keyCompromise\",\"reasonCode\":1" + crl),
              std::string::npos)
        << result.out << "\nexpected " << crl;
    result = run("status --cert l2.pem --crl other.crl --crl crl.pem --json");
    EXPECT_EQ(result.exit, 1) << result.err;
    EXPECT_NE(result.out.find("\"status\":\"revoked\",\"verified\":false"), std::string::npos);
    EXPECT_NE(result.out.find("\"reason\":\"superseded\",\"reasonCode\":4,\"crl\":{\"file\":"
                              "\"crl.pem\",\"index\":1,"),
              std::string::npos)
        << result.out;
    // The date is the one `openssl ca` recorded when it revoked.
    const size_t l1 = index.find("\t1000\t");
    ASSERT_NE(l1, std::string::npos) << index;
    const size_t line = index.rfind('\n', l1) + 1;
    const std::string l1Revoked = index_time(index.substr(index.find('\t', line + 2) + 1, 13));
    EXPECT_NE(run("status --cert l1.pem --crl crl.pem --json")
                  .out.find("\"revocationDate\":\"" + l1Revoked + "\""),
              std::string::npos);

    result = run("status --cert l3.pem --crl both.pem --issuer ca.pem --json");
    EXPECT_EQ(result.exit, 0) << result.err;
    EXPECT_EQ(result.out.rfind("{\"status\":\"valid\",\"verified\":true,\"revocationDate\":null,"
                               "\"reason\":null,\"reasonCode\":null" +
                                   crl,
                               0),
              0u)
        << result.out;
    result = run("status --cert l3.pem --crl other.crl --json");
    EXPECT_EQ(result.exit, 2);
    EXPECT_EQ(result.out, "{\"status\":\"unknown\",\"verified\":false,\"revocationDate\":null,"
                          "\"reason\":null,\"reasonCode\":null,\"crl\":null}\n");
}

// openssl verify -attime and qxcrl judge the same CRL at the same times.
TEST_F(CliStatusTest, AtJudgesAsOpensslVerifyAttime) {
    revoke_and_publish();
    const std::string verify = "openssl verify -crl_check -CAfile ca.pem -CRLfile crl.pem -attime ";
    // A day from now the CRL is current and l1 revoked; in ten days it has
    // expired; a year ago the CRL did not exist yet, and OpenSSL says so.
    const time_t now = std::time(nullptr);
    const auto rfc3339 = [](time_t at) {
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&at));
        return std::string(text);
    };
    const time_t soon = now + 86400, late = now + 10 * 86400;
    EXPECT_NE(run_in(dir_.path(), verify + std::to_string(soon) + " l1.pem"), 0);
    EXPECT_NE(slurp(dir_ / "log.txt").find("certificate revoked"), std::string::npos);
    Result result = run("status --cert l1.pem --crl crl.pem --issuer ca.pem --at " + rfc3339(soon));
    EXPECT_EQ(result.exit, 1) << result.err;
    EXPECT_EQ(result.out, "revoked\n");
    EXPECT_EQ(run("verify crl.pem --issuer ca.pem --at " + rfc3339(soon)).out, "ok\n");

    EXPECT_NE(run_in(dir_.path(), verify + std::to_string(late) + " l3.pem"), 0);
    EXPECT_NE(slurp(dir_ / "log.txt").find("CRL has expired"), std::string::npos);
    result = run("verify crl.pem --issuer ca.pem --at " + rfc3339(late));
    EXPECT_EQ(result.exit, 1);
    EXPECT_EQ(result.out, "expired\n");
    result = run("status --cert l1.pem --crl crl.pem --at " + rfc3339(late));
    EXPECT_EQ(result.exit, 2);
    EXPECT_NE(result.err.find("expired"), std::string::npos);

    // An offset is a time like any other; a time that is none is a usage mistake.
    const time_t offsetTime = soon + 3600;
    char offset[40];
    std::strftime(offset, sizeof offset, "%Y-%m-%dT%H:%M:%S+01:00", std::gmtime(&offsetTime));
    EXPECT_EQ(run(std::string("status --cert l1.pem --crl crl.pem --at ") + offset).out,
              "revoked\n");
    for (const char* bad : {"2025-02-30T00:00:00Z", "2025-02-25", "yesterday",
                            "2025-02-25T00:00:00", "2025-02-25T24:00:00Z"}) {
        result = run(std::string("verify crl.pem --issuer ca.pem --at ") + bad);
        EXPECT_EQ(result.exit, 64) << bad;
        EXPECT_NE(result.err.find("--at needs an RFC 3339 time"), std::string::npos) << bad;
    }
}

// Every row of the corpus's real-world expectations, at its validation time.
TEST(CliStatusCorpus, AnswersTheRealWorldCrlsAtTheirTime) {
    const std::filesystem::path corpus = corpus_dir();
    if (corpus.empty())
        GTEST_SKIP() << "no test corpus";
    const std::filesystem::path realworld = corpus / "realworld";
    int revoked = 0;
    for (const std::vector<std::string>& row : read_tsv(realworld / "status_expectations.tsv")) {
        ASSERT_GE(row.size(), 7u);
        const std::string& cert = row[0];
        const std::string& issuer = row[2];
        const std::string& crl = row[3];
        const std::string& at = row[5];
        const bool expectRevoked = row[6] == "revoked";
        SCOPED_TRACE(cert + " at " + at);
        const std::string issuerOption = issuer == "-" ? "" : " --issuer " + issuer;
        const std::string common = "--cert " + cert + " --crl " + crl + issuerOption;
        Result result = qxcrl(realworld, "status " + common + " --at " + at + " --json");
        EXPECT_EQ(result.exit, expectRevoked ? 1 : 0) << result.err;
        EXPECT_EQ(result.out.rfind(std::string("{\"status\":\"") +
                                       (expectRevoked ? "revoked" : "valid") +
                                       "\",\"verified\":" + (issuer == "-" ? "false" : "true"),
                                   0),
                  0u)
            << result.out;
        EXPECT_NE(result.out.find("\"crl\":{\"file\":\"" + crl + "\",\"index\":1,"),
                  std::string::npos);
        if (expectRevoked) {
            ++revoked;
            ASSERT_GE(row.size(), 8u);
            // "revocationDate=2024-04-01T21:19:02Z reason=(no reason code)"
            EXPECT_NE(result.out.find("\"revocationDate\":\"" +
                                      after(row[7], "revocationDate=").substr(0, 20) +
                                      "\",\"reason\":null"),
                      std::string::npos)
                << result.out;
        }
        if (issuer != "-") {
            EXPECT_EQ(qxcrl(realworld, "verify " + crl + " --issuer " + issuer + " --at " + at).out,
                      "ok\n");
            // Today the same CRL has long expired.
            EXPECT_EQ(qxcrl(realworld, "verify " + crl + " --issuer " + issuer).out, "expired\n");
        }
    }
    EXPECT_GE(revoked, 4);
}

} // namespace
