// qxcrl status: a certificate's status from a cache of CRLs, with which CRL
// answered and, with --issuer, that its issuer signed it.
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "at_time.h"
#include "commands.h"
#include "crl_input.h"
#include "errors.h"
#include "issuer_check.h"
#include "session.h"
#include "text.h"

namespace qxcli {

namespace {

constexpr char usage[] = "qxcrl status --cert CERT --crl FILE [--crl FILE ...] [--issuer CERT] "
                         "[--policy N] [--at TIME] [--json] [--trace LEVEL]";

// Where a cached CRL came from.
struct Source {
    std::string file;
    size_t index; // 1 for the first CRL of its file
};

int cache_crl(CacheOwner& cache, Crl& crl, const std::string& name) {
    if (const uint32_t added = cache.owner->addCrl(crl.object, cache.owner->crlCache))
        return report("caching " + name, added);
    crl.object = nullptr; // the cache owns it now
    return 0;
}

// Adds every CRL of path to the cache, each block of a PEM file on its own
// whatever its label and whatever lies between blocks (NULs included), so
// that no block can hide another; a block that fails fails the command.
int add_file(Session& session, CacheOwner& cache, const std::string& path,
             std::map<const CrlObject*, Source>& sources) {
    // A file of one CRL, DER or PEM, is read straight into the CRL, which a
    // CRL of a million entries makes worth it; anything else, and any
    // failure, takes the way that tells what is wrong.
    Crl direct(session.ctx());
    if (qxfile_read_one_crl(session.ctx(), path.c_str(), &direct.object) == 0) {
        const CrlObject* object = direct.object;
        if (const int failed = cache_crl(cache, direct, path))
            return failed;
        sources[object] = {path, 1};
        return 0;
    }
    std::vector<CrlBytes> crls;
    if (const int failed = read_crl_file(session, path, crls))
        return failed;
    for (size_t i = 0; i < crls.size(); ++i) {
        Crl crl(session.ctx());
        if (const int failed = decode_crl(session, crls[i], crl))
            return failed;
        const CrlObject* object = crl.object;
        if (const int failed = cache_crl(cache, crl, crls[i].name))
            return failed;
        sources[object] = {path, i + 1};
    }
    return 0;
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

// The JSON of the answer: the CRL that gave it and the certificate's entry
// in it, read for display from the CRL's DER.
std::string answer_json(Session& session, CertRevocationStatus answer, bool verified,
                        CrlObject* answering, const Source* source, const Certificate& cert) {
    std::string revocationDate = "null", reason = "null", reasonCode = "null", crl = "null";
    QxCrlView* view = nullptr;
    LayerBytes der(session.ctx());
    if (source != nullptr && qxcrl_GetDER(session.ctx(), answering, &der.bytes, &der.length) == 0 &&
        qxview_crl(session.ctx(), der.bytes, der.length, &view) == 0) {
        crl = "{\"file\":" + json_string(source->file) +
              ",\"index\":" + std::to_string(source->index) +
              ",\"issuer\":" + json_string(view->issuer) +
              ",\"crlNumber\":" + json_or_null(view->crlNumber) +
              ",\"thisUpdate\":" + json_string(view->thisUpdate) +
              ",\"nextUpdate\":" + json_or_null(view->nextUpdate) + "}";
        // A serial as long as its issuer made it: the first call says how long.
        std::vector<unsigned char> serial(32);
        uint32_t length = static_cast<uint32_t>(serial.size());
        uint32_t read = qxview_cert_serial(cert.record, serial.data(), &length);
        if (read == QXL_ERR_BAD_ARGUMENT && length > serial.size()) {
            serial.resize(length);
            read = qxview_cert_serial(cert.record, serial.data(), &length);
        }
        if (answer == QXCRL_CERT_REVOKED && read == 0)
            for (uint32_t i = 0; i < view->entryCount; ++i) {
                const QxViewEntry& entry = view->entries[i];
                if (entry.serialLength != length ||
                    std::memcmp(entry.serial, serial.data(), length) != 0)
                    continue;
                revocationDate = json_string(entry.revocationDate);
                reason = json_or_null(entry.reasonName);
                reasonCode = entry.reason >= 0 ? std::to_string(entry.reason) : "null";
                break;
            }
        qxumfree(session.ctx(), &view);
    }
    return std::string("{\"status\":\"") + status_word(answer) +
           "\",\"verified\":" + (verified ? "true" : "false") +
           ",\"revocationDate\":" + revocationDate + ",\"reason\":" + reason +
           ",\"reasonCode\":" + reasonCode + ",\"crl\":" + crl + "}\n";
}

} // namespace

int status_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2,
                              {{"--cert", "--crl", "--issuer", "--policy", "--at"}, {"--json"}});
    if (arguments.help()) {
        std::printf(
            "usage: %s\n"
            "Answers whether the certificate is revoked, from the CRL of its issuer among the "
            "files (DER, or PEM with any number of CRLs under any CRL label).\n"
            "  --cert CERT    the certificate, DER or PEM (required)\n"
            "  --crl FILE     a CRL file; repeatable (at least one)\n"
            "  --issuer CERT  check that the issuer signed the CRL that answered (default: not "
            "checked, and a note says so)\n"
            "  --policy N     the layer's CRL policy: 3 or 4 let an expired CRL answer (default "
            "0)\n"
            "%s"
            "  --json         {\"status\", \"verified\", \"revocationDate\", \"reason\", "
            "\"reasonCode\", \"crl\": {\"file\", \"index\", \"issuer\", \"crlNumber\", "
            "\"thisUpdate\", \"nextUpdate\"}} (default: the status word)\n"
            "%s"
            "Prints valid (exit 0), revoked (exit 1) or unknown (exit 2). Exit %d for a CRL the "
            "library refuses, %d on a failure, %d on a usage mistake.\n",
            usage, at_help, trace_help, refused_exit, failure_exit, usage_exit);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), usage);
    if (!arguments.positionals().empty() || !arguments.has("--cert") || !arguments.has("--crl"))
        return usage_error("status needs --cert and at least one --crl", usage);
    uint32_t policy = 0;
    if (const auto text = arguments.value("--policy")) {
        const auto number = parse_number(*text);
        if (!number)
            return usage_error("--policy needs a number", usage);
        policy = *number;
    }
    Session session;
    if (const uint32_t status = session.open(arguments, "qxstore.db", policy))
        return report("making the layer", status);
    if (const int failed = apply_at(session, arguments, usage))
        return failed;
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
    std::map<const CrlObject*, Source> sources;
    for (const std::string& path : arguments.values("--crl"))
        if (const int failed = add_file(session, cache, path, sources))
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
    CrlObject* answering = answered ? cache.owner->crlCache->head->crlObject : nullptr;
    bool verified = false;
    if (answered && issuer.record != nullptr) {
        CrlValidity validity = 0;
        const uint32_t checked =
            qxcrl_VerifyCRL(session.ctx(), answering, issuer.record, &validity);
        // Expiry was the policy's to judge, in the lookup.
        if (checked != 0 && checked != QXERR_CRL_EXPIRED) {
            const std::optional<Refusal> found = refusal(session, answering, issuer);
            return report("verifying the CRL that answered against " + *issuerPath, checked,
                          found ? found->reason : "it cannot be checked");
        }
        verified = true;
    } else if (answered) {
        std::fprintf(stderr, "qxcrl: note: the CRL that answered was not verified (--issuer "
                             "checks its signature)\n");
    }
    if (arguments.has("--json")) {
        const auto found = sources.find(answering);
        std::fputs(answer_json(session, answer, verified, answering,
                               found != sources.end() ? &found->second : nullptr, cert)
                       .c_str(),
                   stdout);
    } else {
        std::puts(status_word(answer));
    }
    return answer == QXCRL_CERT_VALID ? 0 : answer == QXCRL_CERT_REVOKED ? 1 : 2;
}

} // namespace qxcli
