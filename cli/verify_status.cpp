// qxcrl verify: a CRL's signature and currency against its issuer.
// qxcrl status: a certificate's status from a cache of CRLs.
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "crl_input.h"
#include "errors.h"
#include "session.h"

namespace qxcli {

namespace {

constexpr char verify_usage[] = "qxcrl verify CRL --issuer CERT [--trace LEVEL]";
constexpr char status_usage[] = "qxcrl status --cert CERT --crl FILE [--crl FILE ...] "
                                "[--issuer CERT] [--policy N] [--json] [--trace LEVEL]";

// Adds every CRL of path to the cache, each block of a PEM file on its own
// whatever its label and whatever lies between blocks (NULs included), so
// that no block can hide another; a block that fails fails the command.
int add_file(Session& session, CacheOwner& cache, const std::string& path) {
    std::vector<CrlBytes> crls;
    if (const int failed = read_crl_file(session, path, crls))
        return failed;
    for (const CrlBytes& bytes : crls) {
        Crl crl(session.ctx());
        if (const int failed = decode_crl(session, bytes, crl))
            return failed;
        if (const uint32_t added = cache.owner->addCrl(crl.object, cache.owner->crlCache))
            return report("caching " + bytes.name, added);
        crl.object = nullptr; // the cache owns it now
    }
    return 0;
}

// What qxcrl_VerifyCRL's one refusal status stood for: a CRL its issuer
// did not issue, in one of three ways, or one it issued without a next
// update, which is never current.
struct Refusal {
    const char* word;   // what verify prints
    const char* reason; // what the note says
    int exitStatus;
};

std::optional<Refusal> refusal(Session& session, CrlObject* crl, const Certificate& issuer) {
    uint32_t verdict = 0;
    // A signature that does not even parse as one of the key's kind is as bad.
    if (qxcert_crl_issuer_verdict(session.ctx(), crl, issuer.record, &verdict) != 0)
        verdict = QX_CRL_BAD_SIGNATURE;
    switch (verdict) {
    case QX_CRL_BAD_SIGNATURE:
        return Refusal{"bad-signature", "the signature is not made with the issuer's key", 2};
    case QX_CRL_OTHER_ISSUER:
        return Refusal{"other-issuer",
                       "the CRL names another issuer than the certificate's subject", 2};
    case QX_CRL_NOT_CRL_SIGNER:
        return Refusal{"not-crl-signer", "the issuer's keyUsage does not allow signing CRLs", 2};
    default:
        break;
    }
    char nextUpdate[129] = {};
    if (qxcrl_GetDetails(session.ctx(), crl, QXCRL_DETAIL_NEXT_UPDATE, 0, nextUpdate) != 0)
        return Refusal{
            "no-next-update",
            "the issuer signed the CRL, but it has no next update, so it is never current", 1};
    return std::nullopt;
}

const char* status_word(uint32_t status) {
    switch (status) {
    case QXCRL_CERT_VALID:
        return "valid";
    case QXCRL_CERT_REVOKED:
        return "revoked";
    default:
        return "unknown";
    }
}

} // namespace

int verify_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{"--issuer"}, {}});
    if (arguments.help()) {
        std::printf("usage: %s\nPrints ok (exit 0); expired or no-next-update (exit 1); or, for a "
                    "CRL the issuer did not issue, bad-signature, other-issuer or not-crl-signer "
                    "(exit 2), with the reason on stderr.\n",
                    verify_usage);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), verify_usage);
    if (arguments.positionals().size() != 1 || !arguments.has("--issuer"))
        return usage_error("verify needs one CRL file and --issuer", verify_usage);
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
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

int status_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2,
                              {{"--cert", "--crl", "--issuer", "--policy"}, {"--json"}});
    if (arguments.help()) {
        std::printf("usage: %s\nPrints valid (exit 0), revoked (exit 1) or unknown (exit 2).\n",
                    status_usage);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), status_usage);
    if (!arguments.positionals().empty() || !arguments.has("--cert") || !arguments.has("--crl"))
        return usage_error("status needs --cert and at least one --crl", status_usage);
    uint32_t policy = 0;
    if (const auto text = arguments.value("--policy")) {
        const auto number = parse_number(*text);
        if (!number)
            return usage_error("--policy needs a number", status_usage);
        policy = *number;
    }
    Session session;
    if (const uint32_t status = session.open(arguments, "qxstore.db", policy))
        return report("making the layer", status);
    Certificate cert(session.ctx());
    if (const int failed = load_cert(session, *arguments.value("--cert"), cert))
        return failed;
    // The issuer first: a path that does not load fails before any CRL is read.
    const auto issuerPath = arguments.value("--issuer");
    Certificate issuer(session.ctx());
    if (issuerPath)
        if (const int failed = load_cert(session, *issuerPath, issuer))
            return failed;
    CacheOwner cache;
    if (const uint32_t status = qxcrl_CreateCacheOwner(session.ctx(), cache_capacity, &cache.owner))
        return report("making the cache", status);
    for (const std::string& path : arguments.values("--crl"))
        if (const int failed = add_file(session, cache, path))
            return failed;

    // Shards of a partitioned CRL share their issuer: the one that covers
    // the certificate answers.
    CertRevocationStatus answer = QXCRL_CERT_UNKNOWN;
    const uint32_t looked =
        qxcrl_GetCertStatusFromCacheInScope(cert.record, cache.owner->crlCache, &answer);
    if (looked == QXERR_CRL_EXPIRED) {
        std::fprintf(stderr, "qxcrl: note: the issuer's CRL has expired (--policy 3 or 4 lets it "
                             "answer)\n");
        answer = QXCRL_CERT_UNKNOWN;
    } else if (looked != 0) {
        return report("looking up the certificate", looked);
    }
    // The lookup picks a CRL by its issuer's DER alone, and anyone can make a
    // CRL with those bytes: the one that answered is checked, never one chosen
    // by another rule. A definite answer moves it to the head of the cache.
    const bool answered = answer == QXCRL_CERT_VALID || answer == QXCRL_CERT_REVOKED;
    bool verified = false;
    if (answered && issuer.record != nullptr) {
        CrlObject* answering = cache.owner->crlCache->head->crlObject;
        CrlValidity validity = 0;
        const uint32_t checked =
            qxcrl_VerifyCRL(session.ctx(), answering, issuer.record, &validity);
        // Expiry was the policy's to judge, in the lookup.
        if (checked != 0 && checked != QXERR_CRL_EXPIRED) {
            const std::optional<Refusal> found = refusal(session, answering, issuer);
            return report("verifying the CRL that answered against " + *issuerPath +
                              (found ? std::string(" (") + found->reason + ")" : ""),
                          checked);
        }
        verified = true;
    } else if (answered) {
        std::fprintf(stderr, "qxcrl: note: the CRL that answered was not verified (--issuer "
                             "checks its signature)\n");
    }
    if (arguments.has("--json"))
        std::printf("{\"status\":\"%s\",\"verified\":%s}\n", status_word(answer),
                    verified ? "true" : "false");
    else
        std::puts(status_word(answer));
    return answer == QXCRL_CERT_VALID ? 0 : answer == QXCRL_CERT_REVOKED ? 1 : 2;
}

} // namespace qxcli
