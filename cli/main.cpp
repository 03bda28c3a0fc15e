// qxcrl: the command-line face of the CRL module.
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "options.h"

namespace {

struct Command {
    const char* name;
    int (*run)(int, char**);
    const char* summary;
};

const Command commands[] = {
    {"demo", qxcli::demo_command, "a CA's round trip with a test CA in a fresh folder"},
    {"show", qxcli::show_command, "print a CRL's fields and entries (--json)"},
    {"verify", qxcli::verify_command, "check a CRL's signature and currency"},
    {"status", qxcli::status_command, "a certificate's status from CRL files"},
    {"convert", qxcli::convert_command, "write a CRL file as DER or PEM"},
    {"hash", qxcli::hash_command, "the issuer-hash file name of a CRL or certificate"},
    {"rehash", qxcli::rehash_command, "link a directory's CRLs under their issuer hash"},
    {"create", qxcli::create_command, "make an empty signed CRL"},
    {"revoke", qxcli::revoke_command, "add certificates to a CRL"},
    {"next-update", qxcli::next_update_command, "move a CRL's next update"},
    {"fetch", qxcli::fetch_command, "fetch a certificate's CRL over HTTP or LDAP"},
    {"store", qxcli::store_command, "store a CRL in the SQLite store"},
    {"stored", qxcli::stored_command, "read a stored CRL and its history"},
};

void print_help(FILE* out) {
    std::fputs("usage: qxcrl COMMAND [ARGS] [--trace LEVEL]\n\ncommands:\n", out);
    for (const Command& command : commands)
        std::fprintf(out, "  %-12s %s\n", command.name, command.summary);
    std::fputs("\n'qxcrl COMMAND --help' describes one, with every option and its default;\n"
               "--trace LEVEL (default 0, off) writes the layer's trace records to stderr.\n"
               "Exit status: 0 success; 1 and 2 answers of verify and status; 10 a failure,\n"
               "printed as 'qxcrl: <what failed>: <code> <name> (<what was wrong>)'; 20 a CRL\n"
               "the library refuses, printed as 'qxcrl: <file>: refused: <why>'; 64 a usage\n"
               "mistake.\n",
               out);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        print_help(stderr);
        return qxcli::usage_exit;
    }
    if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "help") == 0) {
        print_help(stdout);
        return 0;
    }
    for (const Command& command : commands)
        if (std::strcmp(argv[1], command.name) == 0)
            return command.run(argc, argv);
    std::fprintf(stderr, "qxcrl: unknown command %s\n", argv[1]);
    print_help(stderr);
    return qxcli::usage_exit;
}
