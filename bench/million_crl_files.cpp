// Writes what scripts/bench.sh times the qxcrl and openssl commands on:
//   million_crl_files DIR
// makes DIR/crl.der and DIR/crl.pem (one CRL of the shared EC issuer with
// entries for serials 1..1,000,000), DIR/issuer.pem (its issuer) and
// DIR/cert.pem (a leaf of serial 500,000, which the CRL lists).
#include <cstdio>
#include <filesystem>

#include "bench_support.h"
#include "files.h"
#include "test_pki.h"

using namespace qxtest;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: million_crl_files DIR\n");
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::filesystem::create_directories(dir);
    const Issuer& issuer = shared_issuer(KeyKind::EcP256);
    const Bytes der = qxbench::sequential_crl(issuer, 1000000);
    LeafOptions options;
    options.serial = qxbench::serial_of(500000);
    write_file(dir / "crl.der", der);
    write_text(dir / "crl.pem", crl_pem(der));
    write_text(dir / "issuer.pem", cert_pem(issuer.cert.get()));
    write_text(dir / "cert.pem", cert_pem(make_leaf(issuer, options).get()));
    return 0;
}
