// Every command's help names each of its options with its default, and
// every failure names the file and what was wrong with it.
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "cli_ca.h"
#include "files.h"

using namespace qxtest;

namespace {

// The options of a usage line: every "--name" in it.
std::set<std::string> options(const std::string& usage) {
    std::set<std::string> found;
    for (size_t at = usage.find("--"); at != std::string::npos; at = usage.find("--", at + 2)) {
        const size_t end = usage.find_first_of(" ]|)", at);
        found.insert(usage.substr(at, end - at));
    }
    return found;
}

using CliHelpTest = CliCaTest;

TEST_F(CliHelpTest, EveryOptionOfEveryCommandWithItsDefault) {
    const Result top = run("--help");
    ASSERT_EQ(top.exit, 0);
    EXPECT_NE(top.out.find("20 a CRL\nthe library refuses"), std::string::npos) << top.out;
    const std::vector<std::string> names = help_commands(top.out);
    ASSERT_GE(names.size(), 13u) << top.out;
    for (const std::string& command : names) {
        SCOPED_TRACE(command);
        const Result help = run(command + " --help");
        ASSERT_EQ(help.exit, 0);
        const std::string usage = after(help.out, "usage: ");
        const std::set<std::string> accepted = options(usage);
        EXPECT_FALSE(accepted.empty()) << usage;
        for (const std::string& option : accepted) {
            const std::string line = after(help.out, "\n  " + option + " ");
            EXPECT_TRUE(line.find("default") != std::string::npos ||
                        line.find("required") != std::string::npos ||
                        line.find("at least one") != std::string::npos)
                << option << ": " << line;
        }
        EXPECT_NE(help.out.find("Exit "), std::string::npos) << help.out;
    }
}

TEST_F(CliHelpTest, FailuresNameTheFileAndWhatWasWrong) {
    ASSERT_EQ(run("create --issuer ca.pem --key ca.key --next-update 1d --out ok.pem").exit, 0);
    const struct {
        const char* arguments;
        const char* message;
    } cases[] = {
        {"create --issuer ca.pem --key ca.key --next-update soon --out new.pem",
         "creating new.pem: 29360 QXL_ERR_INTERVAL (--next-update is not a duration: whole "
         "seconds, or groups such as 7d, 1d12h, 90m)"},
        {"create --issuer ca.pem --key ca.key --next-update 1d --out nowhere/new.pem",
         "writing nowhere/new.pem: 29390 QXL_ERR_FILE (No such file or directory)"},
        {"create --issuer ca.pem --key ca.pem --next-update 1d --out new.pem",
         "loading ca.pem: 29340 QXL_ERR_KEY (not a private key, or not under this passphrase)"},
        {"create --issuer ca.key --key ca.key --next-update 1d --out new.pem",
         "loading ca.key: 29341 QXL_ERR_CERT_DECODE (not a certificate in DER or PEM)"},
        {"show newcerts", "reading newcerts: 29390 QXL_ERR_FILE (a directory, not a file)"},
        {"revoke ok.pem --issuer ca.pem --key ca.key --cert missing.pem",
         "loading missing.pem: 29390 QXL_ERR_FILE (no such file)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        const Result result = run(c.arguments);
        EXPECT_EQ(result.exit, 10);
        EXPECT_EQ(result.err, std::string("qxcrl: ") + c.message + "\n");
    }
}

} // namespace
