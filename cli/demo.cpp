// qxcrl demo: a certificate authority's round trip in a fresh folder. The
// test CA and its leaves come from the openssl command: the library has no
// business making certificates, and the demo needs only a few.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "commands.h"
#include "errors.h"
#include "session.h"
#include "signature_types.h"

namespace qxcli {

namespace {

constexpr char usage[] = "qxcrl demo [--dir DIR] [--trace LEVEL]";

// Runs a program with its output discarded; true when it exits 0.
bool run(const std::vector<std::string>& command) {
    const pid_t child = fork();
    if (child < 0)
        return false;
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        std::vector<char*> argv;
        for (const std::string& argument : command)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool make_key(const std::string& path) {
    return run({"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256",
                "-out", path});
}

bool make_pki(const std::string& dir) {
    const std::string ca = dir + "/ca";
    if (!make_key(ca + ".key") ||
        !run({"openssl", "req", "-x509", "-new", "-key", ca + ".key", "-subj",
              "/O=qxcrl demo/CN=qxcrl Demo CA", "-days", "30", "-addext",
              "basicConstraints=critical,CA:TRUE", "-addext",
              "keyUsage=critical,keyCertSign,cRLSign", "-out", ca + ".pem"}) ||
        !make_key(dir + "/leaf.key"))
        return false;
    const char* serials[] = {"0x1001", "0x1002"};
    for (int i = 0; i < 2; ++i) {
        const std::string leaf = dir + "/leaf" + std::to_string(i + 1);
        if (!run({"openssl", "req", "-new", "-key", dir + "/leaf.key", "-subj",
                  "/O=qxcrl demo/CN=leaf " + std::to_string(i + 1), "-out", leaf + ".csr"}) ||
            !run({"openssl", "x509", "-req", "-in", leaf + ".csr", "-CA", ca + ".pem", "-CAkey",
                  ca + ".key", "-set_serial", serials[i], "-days", "30", "-out", leaf + ".pem"}))
            return false;
    }
    return true;
}

std::string next_update(SecurityContext* ctx, CrlObject* crl) {
    char text[129] = {};
    if (qxcrl_GetDetails(ctx, crl, QXCRL_DETAIL_NEXT_UPDATE, 0, text) != 0)
        return "none";
    return text;
}

const char* status_word(uint32_t status) {
    return status == QXCRL_CERT_VALID     ? "valid"
           : status == QXCRL_CERT_REVOKED ? "revoked"
                                          : "unknown";
}

} // namespace

int demo_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{"--dir"}, {}});
    if (arguments.help()) {
        std::printf("usage: %s\nMakes a test CA and two leaves (with the openssl command), then "
                    "creates, revokes into, re-dates, stores, writes, caches, queries and verifies "
                    "a CRL, one line per step.\n"
                    "  --dir DIR      the folder to work in, made if missing (default: a new "
                    "temporary folder)\n%s"
                    "Exit 0, %d on a failure, %d on a usage mistake.\n",
                    usage, trace_help, failure_exit, usage_exit);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), usage);
    if (!arguments.positionals().empty())
        return usage_error("demo takes no file", usage);

    std::string dir;
    if (const auto given = arguments.value("--dir")) {
        dir = *given;
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
            return report("making " + dir + " (" + std::strerror(errno) + ")", QXL_ERR_FILE);
    } else {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/qxcrl-demo-XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        if (mkdtemp(name.data()) == nullptr)
            return report("making a temporary folder", QXL_ERR_FILE);
        dir = name.data();
    }
    std::printf("folder: %s (kept)\n", dir.c_str());
    if (!make_pki(dir))
        return report("making the test CA and leaves with openssl", QXL_ERR_TOOLKIT);
    std::printf("test CA: %s/ca.pem, leaves: %s/leaf1.pem (serial 1001), %s/leaf2.pem (serial "
                "1002)\n",
                dir.c_str(), dir.c_str(), dir.c_str());

    Session session;
    const std::string storePath = dir + "/qxstore.db";
    if (const uint32_t status = session.open(arguments, storePath))
        return report("making the layer", status);
    SecurityContext* ctx = session.ctx();
    Certificate ca(ctx), leaf1(ctx), leaf2(ctx);
    Key key(ctx);
    if (const int failed = load_cert(session, dir + "/ca.pem", ca))
        return failed;
    if (const int failed = load_cert(session, dir + "/leaf1.pem", leaf1))
        return failed;
    if (const int failed = load_cert(session, dir + "/leaf2.pem", leaf2))
        return failed;
    if (const int failed = load_key(session, dir + "/ca.key", std::nullopt, key))
        return failed;

    Crl crl(ctx);
    const uint32_t type = default_signature_type(key.key);
    if (const uint32_t status = qxcrl_Create(ctx, &crl.object, key.key, ca.record, "1d", type))
        return report("creating the CRL", status);
    std::printf("created a CRL signed with %s, next update %s\n", signature_algorithm_name(type),
                next_update(ctx, crl.object).c_str());
    if (const uint32_t status =
            qxcrl_RevokeCert(ctx, crl.object, key.key, ca.record, leaf1.record, type))
        return report("revoking leaf 1", status);
    std::puts("revoked leaf 1 (serial 1001)");
    // A revocation dated this very second does not count yet; let it pass.
    sleep(1);
    if (const uint32_t status = qxcrl_SetNextUpdate(ctx, crl.object, key.key, ca.record, "7d"))
        return report("moving the next update", status);
    std::printf("moved the next update to %s\n", next_update(ctx, crl.object).c_str());
    if (const uint32_t status = qxcrl_Store(ctx, crl.object, "qxcrl Demo CA"))
        return report("storing the CRL", status);
    std::printf("stored it as \"qxcrl Demo CA\" in %s\n", storePath.c_str());
    const std::string pemPath = dir + "/demo.crl.pem";
    if (const int failed = write_crl(session, crl.object, pemPath, false))
        return failed;
    std::printf("wrote %s\n", pemPath.c_str());

    CacheOwner cache;
    if (const uint32_t status = qxcrl_CreateCacheOwner(ctx, cache_capacity, &cache.owner))
        return report("making the cache", status);
    if (const uint32_t status = qxcrl_LoadConcatCRL(cache.owner, pemPath.c_str()))
        return report("loading " + pemPath + " into the cache", status);
    std::puts("loaded it into a cache");
    Certificate* leaves[] = {&leaf1, &leaf2};
    for (int i = 0; i < 2; ++i) {
        CertRevocationStatus answer = QXCRL_CERT_UNKNOWN;
        if (const uint32_t status =
                qxcrl_GetCertStatusFromCache(leaves[i]->record, cache.owner->crlCache, &answer))
            return report("looking up leaf " + std::to_string(i + 1), status);
        std::printf("leaf %d: %s\n", i + 1, status_word(answer));
    }
    CrlValidity validity = 0;
    if (const uint32_t status = qxcrl_VerifyCRL(ctx, crl.object, ca.record, &validity))
        return report("verifying the CRL", status);
    std::puts("verified the CRL against the CA: ok");
    R_CERT_NAME* issuer = nullptr;
    char fileName[12] = {};
    uint32_t status = qxcrl_GetIssuerName(ctx, crl.object, &issuer);
    if (status == 0)
        status = qxcrl_FileForIssuer(ctx, issuer, nullptr, fileName);
    qxcrl_FreeName(&issuer);
    if (status != 0)
        return report("naming the issuer's file", status);
    std::printf("issuer-hash file name: %s\n", fileName);
    return 0;
}

} // namespace qxcli
