// Command-line arguments of one command: positionals, --name VALUE options
// (repeatable) and --flags, checked against what the command accepts.
#ifndef QXCRL_CLI_OPTIONS_H
#define QXCRL_CLI_OPTIONS_H

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qxcli {

struct OptionSet {
    std::vector<std::string> valued; // take a value: "--issuer"
    std::vector<std::string> flags;  // take none: "--json"
};

class Arguments {
  public:
    // Parses argv[first..]; on a mistake, error() says what was wrong.
    Arguments(int argc, char** argv, int first, const OptionSet& accepted);

    const std::string& error() const { return error_; }
    bool help() const { return has("--help"); }
    bool has(const std::string& name) const { return values_.count(name) != 0; }
    std::optional<std::string> value(const std::string& name) const;
    const std::vector<std::string>& values(const std::string& name) const;
    const std::vector<std::string>& positionals() const { return positionals_; }

  private:
    std::map<std::string, std::vector<std::string>> values_;
    std::vector<std::string> positionals_;
    std::string error_;
};

// Exit status of a usage mistake.
constexpr int usage_exit = 64;

// The help line of --trace, which every command takes.
extern const char trace_help[];

// Prints "qxcrl: <message>" and the usage line to stderr; returns usage_exit.
int usage_error(const std::string& message, const char* usage);

} // namespace qxcli

#endif
