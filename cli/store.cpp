// qxcrl hash, fetch, store and stored: issuer file names, distribution
// points and the layer's persistent store.
#include <cstdio>
#include <string>

#include "commands.h"
#include "crl_input.h"
#include "errors.h"
#include "files.h"
#include "session.h"

namespace qxcli {

namespace {

constexpr char hash_usage[] = "qxcrl hash (CRL | --cert CERT) [--trace LEVEL]";
constexpr char fetch_usage[] = "qxcrl fetch --cert CERT [--out FILE] [--trace LEVEL]";
constexpr char store_usage[] = "qxcrl store CRL --name NAME [--db FILE] [--trace LEVEL]";
constexpr char stored_usage[] = "qxcrl stored NAME [--db FILE] [--history] [--trace LEVEL]";

StatusCode print_version(void*, uint32_t version, const char* text, uint32_t length) {
    std::printf("# version %u\n", version);
    std::fwrite(text, 1, length, stdout);
    return 0;
}

} // namespace

int hash_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{"--cert"}, {}});
    if (arguments.help()) {
        std::printf("usage: %s\nPrints the hashed-directory file name of the CRL's issuer, or "
                    "of the certificate's issuer, in the library's naming: eight hex digits and "
                    ".rN, N for the caller to number (qxcrl rehash does).\n"
                    "  CRL            a CRL file, DER or PEM under any CRL label\n"
                    "  --cert CERT    a certificate instead, DER or PEM (default: none)\n%s"
                    "Exit 0, %d on a failure, %d on a usage mistake.\n",
                    hash_usage, trace_help, failure_exit, usage_exit);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), hash_usage);
    if (arguments.positionals().size() + (arguments.has("--cert") ? 1 : 0) != 1)
        return usage_error("hash needs one CRL file or --cert", hash_usage);
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
    Name issuer;
    if (const auto certPath = arguments.value("--cert")) {
        Certificate cert(session.ctx());
        if (const int failed = load_cert(session, *certPath, cert))
            return failed;
        if (const uint32_t status =
                qxcrl_GetCertIssuerName(session.ctx(), cert.record, &issuer.name))
            return report("reading the issuer of " + *certPath, status);
    } else {
        Crl crl(session.ctx());
        if (const int failed = load_crl(session, arguments.positionals()[0], crl))
            return failed;
        if (const uint32_t status = qxcrl_GetIssuerName(session.ctx(), crl.object, &issuer.name))
            return report("reading the issuer of " + arguments.positionals()[0], status);
    }
    char fileName[12] = {};
    if (const uint32_t status = qxcrl_FileForIssuer(session.ctx(), issuer.name, nullptr, fileName))
        return report("naming the issuer's file", status);
    std::puts(fileName);
    return 0;
}

int fetch_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{"--cert", "--out"}, {}});
    if (arguments.help()) {
        std::printf("usage: %s\nFetches the CRL from the certificate's HTTP and LDAP distribution "
                    "points and writes it as PEM.\n"
                    "  --cert CERT    the certificate whose distribution points are read, DER or "
                    "PEM (required)\n"
                    "  --out FILE     where to write the CRL (default: standard output)\n%s"
                    "Exit 0, %d on a failure, %d on a usage mistake.\n",
                    fetch_usage, trace_help, failure_exit, usage_exit);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), fetch_usage);
    if (!arguments.positionals().empty() || !arguments.has("--cert"))
        return usage_error("fetch needs --cert", fetch_usage);
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
    qxlayer_set_fetch_callbacks(session.ctx(), qxfetch_callbacks());
    Certificate cert(session.ctx());
    if (const int failed = load_cert(session, *arguments.value("--cert"), cert))
        return failed;
    Crl crl(session.ctx());
    if (const uint32_t status = qxcrl_FetchFromCRLDP(session.ctx(), cert.record, &crl.object))
        return report("fetching the CRL of " + *arguments.value("--cert"), status);
    if (const auto out = arguments.value("--out"))
        return write_crl(session, crl.object, *out, false);
    char* text = nullptr;
    uint32_t length = 0;
    if (const uint32_t status = qxcrl_GetBase64(session.ctx(), crl.object, &text, &length))
        return report("encoding the CRL", status);
    std::fwrite(text, 1, length, stdout);
    qxumfree(session.ctx(), &text);
    return 0;
}

int store_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{"--name", "--db"}, {}});
    if (arguments.help()) {
        std::printf("usage: %s\nStores the CRL as PEM under NAME in the SQLite store; the text "
                    "it replaces goes to the history.\n"
                    "  CRL            a CRL file, DER or PEM under any CRL label\n"
                    "  --name NAME    the name to store it under (required)\n"
                    "  --db FILE      the store's SQLite file (default: qxstore.db)\n%s"
                    "Exit 0, %d for a CRL the library refuses, %d on a failure, %d on a usage "
                    "mistake.\n",
                    store_usage, trace_help, refused_exit, failure_exit, usage_exit);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), store_usage);
    if (arguments.positionals().size() != 1 || !arguments.has("--name"))
        return usage_error("store needs one CRL file and --name", store_usage);
    Session session;
    if (const uint32_t status =
            session.open(arguments, arguments.value("--db").value_or("qxstore.db")))
        return report("making the layer", status);
    Crl crl(session.ctx());
    if (const int failed = load_crl(session, arguments.positionals()[0], crl))
        return failed;
    const std::string name = *arguments.value("--name");
    if (const uint32_t status = qxcrl_Store(session.ctx(), crl.object, name.c_str()))
        return report("storing " + name, status);
    std::printf("stored %s\n", name.c_str());
    return 0;
}

int stored_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{"--db"}, {"--history"}});
    if (arguments.help()) {
        std::printf("usage: %s\nPrints the CRL stored under NAME.\n"
                    "  --db FILE      the store's SQLite file (default: qxstore.db)\n"
                    "  --history      every earlier version too, newest first, each after a line "
                    "\"# version N\" (default: the current one only)\n%s"
                    "Exit 0, %d on a failure, %d on a usage mistake.\n",
                    stored_usage, trace_help, failure_exit, usage_exit);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), stored_usage);
    if (arguments.positionals().size() != 1)
        return usage_error("stored needs one NAME", stored_usage);
    Session session;
    if (const uint32_t status =
            session.open(arguments, arguments.value("--db").value_or("qxstore.db")))
        return report("making the layer", status);
    const std::string& name = arguments.positionals()[0];
    if (arguments.has("--history")) {
        if (const uint32_t status =
                qxir_read_history(session.ctx(), name.c_str(), print_version, nullptr))
            return report("reading " + name, status);
        return 0;
    }
    char* text = nullptr;
    uint32_t length = 0;
    if (const uint32_t status = qxir_read(session.ctx(), name.c_str(), 0, &text, &length))
        return report("reading " + name, status);
    std::fwrite(text, 1, length, stdout);
    qxumfree(session.ctx(), &text);
    return 0;
}

} // namespace qxcli
