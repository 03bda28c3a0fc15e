// The manual pages: one for qxcrl and one for each command, naming every
// option its usage line has, installed where man finds them.
#include <filesystem>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "cli_run.h"
#include "files.h"

using namespace qxtest;

namespace {

const std::filesystem::path man_dir = std::filesystem::path(QXCRL_SOURCE_DIR) / "man";

// "--next-update" as roff writes it: "\-\-next\-update".
std::string roff(const std::string& text) {
    std::string out;
    for (const char c : text)
        out += c == '-' ? std::string("\\-") : std::string(1, c);
    return out;
}

TEST(CliMan, APageForEveryCommandNamingEveryOption) {
    const TempDir dir;
    const std::vector<std::string> names = help_commands(qxcrl(dir.path(), "--help").out);
    ASSERT_GE(names.size(), 13u);
    const std::string overview = slurp(man_dir / "qxcrl.1");
    for (const std::string& command : names) {
        SCOPED_TRACE(command);
        EXPECT_NE(overview.find("\\fBqxcrl\\-" + roff(command) + "\\fR(1)"), std::string::npos);
        const std::filesystem::path page = man_dir / ("qxcrl-" + command + ".1");
        ASSERT_TRUE(std::filesystem::exists(page)) << page;
        const std::string text = slurp(page);
        EXPECT_EQ(text.rfind(".TH QXCRL\\-", 0), 0u);
        const std::string usage = qxcrl(dir.path(), command + " --help").out;
        const std::string line = usage.substr(0, usage.find('\n'));
        for (size_t at = line.find("--"); at != std::string::npos; at = line.find("--", at + 2)) {
            const std::string option = line.substr(at, line.find_first_of(" ]|)", at) - at);
            EXPECT_NE(text.find(".TP\n\\fB" + roff(option) + "\\fR"), std::string::npos) << option;
        }
    }
}

TEST(CliMan, InstalledWhereManFindsThem) {
    const TempDir dir;
    ASSERT_EQ(run_in(dir.path(), "cmake --install '" QXCRL_BINARY_DIR "' --prefix prefix"), 0)
        << slurp(dir / "log.txt");
    ASSERT_EQ(run_in(dir.path(), "command -v man"), 0) << "no man command: install man-db";
    for (const std::string page : {"qxcrl", "qxcrl-show", "qxcrl-status", "qxcrl-rehash"}) {
        SCOPED_TRACE(page);
        ASSERT_EQ(run_in(dir.path(), "MANPAGER=cat MANWIDTH=200 man -M prefix/share/man " + page +
                                         " > page.txt"),
                  0)
            << slurp(dir / "log.txt");
        const std::string text = slurp(dir / "page.txt");
        EXPECT_NE(text.find("NAME\n       " + page + " - "), std::string::npos) << text;
        EXPECT_NE(text.find("EXIT STATUS"), std::string::npos);
    }
}

} // namespace
