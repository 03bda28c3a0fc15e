// Runs the built qxcrl command as a process in a scratch directory and
// collects its exit status and output.
#ifndef QXCRL_TESTS_CLI_CLI_RUN_H
#define QXCRL_TESTS_CLI_CLI_RUN_H

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/wait.h>

#include "files.h"

namespace qxtest {

struct Result {
    int exit = -1;
    std::string out;
    std::string err;
};

inline std::string slurp(const std::filesystem::path& path) {
    const std::vector<unsigned char> bytes = read_file(path);
    return std::string(bytes.begin(), bytes.end());
}

// Runs `qxcrl ARGS` in dir (a shell fragment, already quoted); with a bound,
// the command is killed after that many seconds and exits 124.
inline Result qxcrl(const std::filesystem::path& dir, const std::string& arguments,
                    unsigned boundSeconds = 0) {
    const std::string bound =
        boundSeconds != 0 ? "timeout " + std::to_string(boundSeconds) + " " : "";
    const std::string command = "cd '" + dir.string() + "' && " + bound + "'" QXCRL_CLI "' " +
                                arguments + " > cli.out 2> cli.err";
    const int status = std::system(command.c_str());
    Result result;
    result.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = slurp(dir / "cli.out");
    result.err = slurp(dir / "cli.err");
    return result;
}

// The commands `qxcrl --help` lists, from its output.
inline std::vector<std::string> help_commands(const std::string& help) {
    std::vector<std::string> names;
    const size_t start = help.find("commands:\n");
    if (start == std::string::npos)
        return names;
    for (size_t at = help.find('\n', start) + 1; help.compare(at, 2, "  ") == 0;
         at = help.find('\n', at) + 1)
        names.push_back(help.substr(at + 2, help.find(' ', at + 2) - at - 2));
    return names;
}

} // namespace qxtest

#endif
