#include "options.h"

#include <algorithm>
#include <cstdio>

namespace qxcli {

const char trace_help[] =
    "  --trace LEVEL  the layer's trace records at or below LEVEL (1 to 5) to "
    "stderr (default 0, off; QX_TRACE_FILE names a file instead)\n";

namespace {

bool contains(const std::vector<std::string>& list, const std::string& name) {
    return std::find(list.begin(), list.end(), name) != list.end();
}

const std::vector<std::string> none;

} // namespace

Arguments::Arguments(int argc, char** argv, int first, const OptionSet& accepted) {
    for (int i = first; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.size() < 2 || argument.compare(0, 2, "--") != 0) {
            positionals_.push_back(argument);
            continue;
        }
        if (argument == "--help" || contains(accepted.flags, argument)) {
            values_[argument].push_back("");
            continue;
        }
        // --trace is accepted by every command.
        if (argument == "--trace" || contains(accepted.valued, argument)) {
            if (i + 1 >= argc) {
                error_ = argument + " needs a value";
                return;
            }
            values_[argument].push_back(argv[++i]);
            continue;
        }
        error_ = "unknown option " + argument;
        return;
    }
}

std::optional<std::string> Arguments::value(const std::string& name) const {
    const auto found = values_.find(name);
    if (found == values_.end())
        return std::nullopt;
    return found->second.back();
}

const std::vector<std::string>& Arguments::values(const std::string& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? none : found->second;
}

int usage_error(const std::string& message, const char* usage) {
    std::fprintf(stderr, "qxcrl: %s\nusage: %s\n", message.c_str(), usage);
    return usage_exit;
}

} // namespace qxcli
