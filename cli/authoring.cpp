// qxcrl create, revoke and next-update: the certificate authority's side.
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

#include "commands.h"
#include "crl_input.h"
#include "errors.h"
#include "passphrase.h"
#include "session.h"
#include "signature_types.h"

namespace qxcli {

namespace {

constexpr char create_usage[] = "qxcrl create --issuer CERT --key KEY [--passin SRC | --pass PASS] "
                                "--next-update DURATION [--sig-type TYPE] --out FILE [--der]";
constexpr char revoke_usage[] =
    "qxcrl revoke CRL --issuer CERT --key KEY [--passin SRC | --pass PASS] "
    "--cert CERT [--cert CERT ...] [--sig-type TYPE] [--out FILE] [--der]";
constexpr char next_update_usage[] =
    "qxcrl next-update CRL --issuer CERT --key KEY [--passin SRC | --pass PASS] "
    "--next-update DURATION [--out FILE] [--der]";

// The issuer's certificate and key every authoring command starts from.
struct Authority {
    explicit Authority(SecurityContext* ctx) : issuer(ctx), key(ctx) {}
    Certificate issuer;
    Key key;
};

int load_authority(Session& session, const Arguments& arguments, const char* usage,
                   Authority& authority) {
    std::optional<std::string> passphrase;
    if (const int failed = read_passphrase(arguments, usage, passphrase))
        return failed;
    if (const int failed = load_cert(session, *arguments.value("--issuer"), authority.issuer))
        return failed;
    return load_key(session, *arguments.value("--key"), passphrase, authority.key);
}

// --sig-type, by name or number, when given (0 and false on a bad one), else fallback.
bool signature_type(const Arguments& arguments, uint32_t fallback, uint32_t* type) {
    const auto text = arguments.value("--sig-type");
    if (!text) {
        *type = fallback;
        return true;
    }
    const auto named = signature_type_named(*text);
    *type = named.value_or(0);
    return named.has_value();
}

// True when --next-update would put the next update after 9999-12-31, the
// last day a CRL can carry: the library refuses such a time too, but only as
// a toolkit failure. A duration the layer cannot read is left to the library.
bool past_last_day(SecurityContext* ctx, const std::string& interval) {
    constexpr uint64_t last = 253402300799; // 9999-12-31T23:59:59Z
    QxString text{const_cast<char*>(interval.c_str()), static_cast<uint32_t>(interval.size())};
    uint64_t seconds = 0;
    if (interval == QX_STR_CURTIME || qxutmtts_tsecs(ctx, &text, &seconds) != 0)
        return false;
    const auto now = static_cast<uint64_t>(std::time(nullptr));
    return seconds > last || now > last - seconds;
}

std::string bad_sig_type() {
    return "--sig-type needs a signature type's number or one of its names: " +
           signature_type_names();
}

// The options every authoring command takes, for its help.
constexpr char authority_help[] =
    "  --issuer CERT  the issuer's certificate, DER or PEM (required)\n"
    "  --key KEY      the issuer's private key, DER or PEM, PKCS#8 or the algorithm's own form "
    "(required)\n";
constexpr char output_help[] =
    "  --der          write DER (default: PEM under the X509 CRL label)\n";

bool print_help(const Arguments& arguments, const char* usage, const char* what,
                const std::string& options) {
    if (!arguments.help())
        return false;
    std::printf("usage: %s\n%s\n%s%s%s%s"
                "Exit 0 when written, %d on a failure, %d on a usage mistake.\n",
                usage, what, authority_help, passphrase_help, options.c_str(), trace_help,
                failure_exit, usage_exit);
    return true;
}

// What was wrong when the library would not make or sign a CRL.
std::string authoring_problem(uint32_t status) {
    switch (status) {
    case QXL_ERR_INTERVAL:
        return "--next-update is not a duration: whole seconds, or groups such as 7d, 1d12h, 90m";
    case QXL_ERR_SIGNATURE_TYPE:
    case QXERR_CRL_SIGN:
        return "the key cannot sign with this signature type; --sig-type names another";
    case QXL_ERR_KEY:
        return "the key cannot be used to sign";
    default:
        return "the library could not make the CRL";
    }
}

constexpr char next_update_help[] =
    "  --next-update DURATION  the next update: now plus DURATION, whole seconds or groups "
    "such as 7d, 1d12h, 90m, or \"now\" (required)\n";

std::string sig_type_help(const char* fallback) {
    return std::string("  --sig-type TYPE  the signature type, by number or name (") +
           signature_type_names() + ") (default: " + fallback + ")\n";
}

} // namespace

int create_command(int argc, char** argv) {
    const Arguments arguments(
        argc, argv, 2,
        {{"--issuer", "--key", "--pass", "--passin", "--next-update", "--sig-type", "--out"},
         {"--der"}});
    if (print_help(arguments, create_usage,
                   "Makes an empty CRL signed by the issuer's key. The signature type defaults "
                   "to the key's: ecdsa-with-SHA256, -SHA384 or -SHA512 for P-256, P-384 or "
                   "P-521, sha256WithRSAEncryption for RSA, rsassaPss-SHA256 for RSA-PSS, "
                   "ED25519, ED448.",
                   next_update_help + sig_type_help("the key's, as above") +
                       "  --out FILE     where to write the CRL (required)\n" + output_help))
        return 0;
    if (!arguments.error().empty())
        return usage_error(arguments.error(), create_usage);
    if (!arguments.positionals().empty() || !arguments.has("--issuer") || !arguments.has("--key") ||
        !arguments.has("--next-update") || !arguments.has("--out"))
        return usage_error("create needs --issuer, --key, --next-update and --out", create_usage);
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
    if (past_last_day(session.ctx(), *arguments.value("--next-update")))
        return usage_error("--next-update is past 9999-12-31", create_usage);
    Authority authority(session.ctx());
    if (const int failed = load_authority(session, arguments, create_usage, authority))
        return failed;
    uint32_t type = 0;
    if (!signature_type(arguments, default_signature_type(authority.key.key), &type))
        return usage_error(bad_sig_type(), create_usage);
    Crl crl(session.ctx());
    const uint32_t status =
        qxcrl_Create(session.ctx(), &crl.object, authority.key.key, authority.issuer.record,
                     arguments.value("--next-update")->c_str(), type);
    if (status != 0)
        return report("creating " + *arguments.value("--out"), status, authoring_problem(status));
    return write_crl(session, crl.object, *arguments.value("--out"), arguments.has("--der"));
}

int revoke_command(int argc, char** argv) {
    const Arguments arguments(
        argc, argv, 2,
        {{"--issuer", "--key", "--pass", "--passin", "--cert", "--sig-type", "--out"}, {"--der"}});
    if (print_help(arguments, revoke_usage,
                   "Adds an entry for each certificate, dated now, and signs again.",
                   "  --cert CERT    a certificate to revoke, DER or PEM; repeatable (at least "
                   "one)\n" +
                       sig_type_help("the CRL's own") +
                       "  --out FILE     where to write the CRL (default: the CRL file, "
                       "replaced atomically)\n" +
                       output_help))
        return 0;
    if (!arguments.error().empty())
        return usage_error(arguments.error(), revoke_usage);
    if (arguments.positionals().size() != 1 || !arguments.has("--issuer") ||
        !arguments.has("--key") || !arguments.has("--cert"))
        return usage_error("revoke needs one CRL file, --issuer, --key and --cert", revoke_usage);
    const std::string& path = arguments.positionals()[0];
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
    Crl crl(session.ctx());
    if (const int failed = load_crl(session, path, crl))
        return failed;
    Authority authority(session.ctx());
    if (const int failed = load_authority(session, arguments, revoke_usage, authority))
        return failed;
    // Without --sig-type the CRL keeps signing as it was signed.
    uint32_t own = 0;
    if (const uint32_t status =
            qxcrl_GetDetails(session.ctx(), crl.object, QXCRL_DETAIL_SIGNATURE_TYPE, 0, &own))
        return report("reading the signature type of " + path, status);
    uint32_t type = 0;
    if (!signature_type(arguments, own, &type))
        return usage_error(bad_sig_type(), revoke_usage);
    for (const std::string& certPath : arguments.values("--cert")) {
        Certificate revoked(session.ctx());
        if (const int failed = load_cert(session, certPath, revoked))
            return failed;
        const uint32_t status = qxcrl_RevokeCert(session.ctx(), crl.object, authority.key.key,
                                                 authority.issuer.record, revoked.record, type);
        if (status != 0)
            return report("revoking " + certPath + " in " + path, status,
                          authoring_problem(status));
    }
    return write_crl(session, crl.object, arguments.value("--out").value_or(path),
                     arguments.has("--der"));
}

int next_update_command(int argc, char** argv) {
    const Arguments arguments(
        argc, argv, 2,
        {{"--issuer", "--key", "--pass", "--passin", "--next-update", "--out"}, {"--der"}});
    if (print_help(arguments, next_update_usage,
                   "Moves the next update to now plus DURATION and signs again with the CRL's own "
                   "signature type.",
                   std::string(next_update_help) +
                       "  --out FILE     where to write the CRL (default: the CRL file, "
                       "replaced atomically)\n" +
                       output_help))
        return 0;
    if (!arguments.error().empty())
        return usage_error(arguments.error(), next_update_usage);
    if (arguments.positionals().size() != 1 || !arguments.has("--issuer") ||
        !arguments.has("--key") || !arguments.has("--next-update"))
        return usage_error("next-update needs one CRL file, --issuer, --key and --next-update",
                           next_update_usage);
    const std::string& path = arguments.positionals()[0];
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
    if (past_last_day(session.ctx(), *arguments.value("--next-update")))
        return usage_error("--next-update is past 9999-12-31", next_update_usage);
    Crl crl(session.ctx());
    if (const int failed = load_crl(session, path, crl))
        return failed;
    Authority authority(session.ctx());
    if (const int failed = load_authority(session, arguments, next_update_usage, authority))
        return failed;
    const uint32_t status =
        qxcrl_SetNextUpdate(session.ctx(), crl.object, authority.key.key, authority.issuer.record,
                            arguments.value("--next-update")->c_str());
    if (status != 0)
        return report("moving the next update of " + path, status, authoring_problem(status));
    return write_crl(session, crl.object, arguments.value("--out").value_or(path),
                     arguments.has("--der"));
}

} // namespace qxcli
