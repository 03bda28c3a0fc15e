// How far resident memory grows while one decoded CRL is held:
//   held_rss qxcrl|openssl CRL.der CERT.der
// prints the growth in bytes. It runs as a process of its own so that no
// memory another benchmark freed is reused and hides part of the growth. The
// file is read before the first measure, so the caller's copy of the DER does
// not count; whatever the decoder keeps (a copy of it included) does. The
// certificate is looked up once before the second measure, so that what a
// decoder builds on first use (a sorted index) counts too.
#include <openssl/x509.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include "bench_support.h"
#include "files.h"
#include "qxcrl.h"
#include "test_pki.h"

using namespace qxtest;

namespace {

long long resident_bytes() {
    std::ifstream statm("/proc/self/statm");
    long long size = 0, resident = -1;
    statm >> size >> resident;
    return resident < 0 ? -1 : resident * sysconf(_SC_PAGESIZE);
}

// Decodes der and looks cert up in it, leaving the decoded CRL held (the
// process ends soon after); false when either fails.
bool hold_qxcrl(SecurityContext* ctx, const Bytes& der, CertificateRecord* cert) {
    CrlObject* crl = nullptr;
    CertRevocationStatus status = 0;
    return qxcrl_CreateCtx(ctx, &crl, der.data(), static_cast<uint32_t>(der.size())) == 0 &&
           qxcrl_CheckCertStatus(ctx, crl, cert, &status) == 0;
}

bool hold_openssl(const Bytes& der, X509* cert) {
    const unsigned char* cursor = der.data();
    X509_CRL* crl = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size()));
    X509_REVOKED* found = nullptr;
    return crl != nullptr && X509_CRL_get0_by_cert(crl, &found, cert) >= 0;
}

} // namespace

int main(int argc, char** argv) {
    const bool qx = argc == 4 && std::strcmp(argv[1], "qxcrl") == 0;
    if (argc != 4 || (!qx && std::strcmp(argv[1], "openssl") != 0)) {
        std::fprintf(stderr, "usage: held_rss qxcrl|openssl CRL.der CERT.der\n");
        return 2;
    }
    const Bytes der = read_file(argv[2]);
    const Bytes certDer = read_file(argv[3]);
    // A small CRL first, so that one-time set-up (providers, tables, code
    // pages) is not counted as the CRL's.
    const Bytes small = qxbench::sequential_crl(shared_issuer(KeyKind::EcP256), 1);
    qxbench::Layer layer;
    CertificateRecord* record = nullptr;
    const unsigned char* cursor = certDer.data();
    X509* cert = d2i_X509(nullptr, &cursor, static_cast<long>(certDer.size()));
    if (cert == nullptr || qxcert_from_bytes(layer.ctx, certDer.data(),
                                             static_cast<uint32_t>(certDer.size()), &record) != 0)
        return 1;
    bool held = qx ? hold_qxcrl(layer.ctx, small, record) : hold_openssl(small, cert);
    const long long before = resident_bytes();
    held = held && (qx ? hold_qxcrl(layer.ctx, der, record) : hold_openssl(der, cert));
    const long long after = resident_bytes();
    if (!held || before < 0 || after < 0)
        return 1;
    std::printf("%lld\n", after - before);
    return 0;
}
