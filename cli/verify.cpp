// qxcrl verify: a CRL's signature and currency against its issuer.
#include <cstdio>
#include <optional>
#include <string>

#include "at_time.h"
#include "commands.h"
#include "crl_input.h"
#include "errors.h"
#include "issuer_check.h"
#include "session.h"

namespace qxcli {

namespace {

constexpr char usage[] = "qxcrl verify CRL --issuer CERT [--at TIME] [--trace LEVEL]";

} // namespace

int verify_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{"--issuer", "--at"}, {}});
    if (arguments.help()) {
        std::printf(
            "usage: %s\n"
            "Checks the CRL (DER, or PEM under any CRL label; the first of the file) against "
            "the certificate of its issuer: signature, issuer name, keyUsage and currency.\n"
            "  --issuer CERT  the issuer's certificate, DER or PEM (required)\n"
            "%s"
            "%s"
            "Prints ok (exit 0); expired or no-next-update (exit 1); or, for a CRL the issuer did "
            "not issue, bad-signature, other-issuer or not-crl-signer (exit 2), with the reason "
            "on stderr. Exit %d for a CRL the library refuses, %d on a failure, %d on a usage "
            "mistake.\n",
            usage, at_help, trace_help, refused_exit, failure_exit, usage_exit);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), usage);
    if (arguments.positionals().size() != 1 || !arguments.has("--issuer"))
        return usage_error("verify needs one CRL file and --issuer", usage);
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
    if (const int failed = apply_at(session, arguments, usage))
        return failed;
    Crl crl(session.ctx());
    Certificate issuer(session.ctx());
    if (const int failed = load_crl(session, arguments.positionals()[0], crl))
        return failed;
    if (const int failed = load_cert(session, *arguments.value("--issuer"), issuer))
        return failed;
    CrlValidity validity = 0;
    const uint32_t status = qxcrl_VerifyCRL(session.ctx(), crl.object, issuer.record, &validity);
    switch (status) {
    case 0:
        std::puts("ok");
        return 0;
    case QXERR_CRL_EXPIRED:
        std::puts("expired");
        return 1;
    case QXERR_CRL_SIGN:
        if (const std::optional<Refusal> found = refusal(session, crl.object, issuer)) {
            std::fprintf(stderr, "qxcrl: note: %s\n", found->reason);
            std::puts(found->word);
            return found->exitStatus;
        }
        [[fallthrough]];
    default:
        return report("verifying " + arguments.positionals()[0], status);
    }
}

} // namespace qxcli
