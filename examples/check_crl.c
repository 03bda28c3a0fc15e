/*
 * check_crl CERT CRL: says whether a certificate is revoked according to a
 * CRL. Both files may be DER or PEM. Prints "valid", "revoked" or
 * "unknown" and exits 0, 1 or 2; a file that does not load exits 2 with a
 * message on stderr.
 */
#include <stdio.h>

#include <qxcrl.h>

int main(int argc, char** argv) {
    SecurityContext* ctx = NULL;
    CertificateRecord* cert = NULL;
    CrlObject* crl = NULL;
    CertRevocationStatus verdict = QXCRL_CERT_UNKNOWN;
    StatusCode status;
    int exitCode = 2;

    if (argc != 3) {
        fprintf(stderr, "usage: %s CERT CRL\n", argv[0]);
        return 2;
    }
    status = qxlayer_create(NULL, &ctx);
    if (status != 0) {
        fprintf(stderr, "check_crl: no layer instance (status %u)\n", (unsigned)status);
        return 2;
    }
    status = qxcert_from_file(ctx, argv[1], &cert);
    if (status != 0) {
        fprintf(stderr, "check_crl: %s: not a certificate (status %u)\n", argv[1],
                (unsigned)status);
        goto done;
    }
    status = qxcrl_Load(ctx, &crl, argv[2]);
    if (status != 0) {
        fprintf(stderr, "check_crl: %s: not a CRL (status %u)\n", argv[2], (unsigned)status);
        goto done;
    }
    status = qxcrl_CheckCertStatus(ctx, crl, cert, &verdict);
    if (status != 0) {
        fprintf(stderr, "check_crl: status check failed (status %u)\n", (unsigned)status);
        verdict = QXCRL_CERT_UNKNOWN;
    }
    switch (verdict) {
    case QXCRL_CERT_VALID:
        puts("valid");
        exitCode = 0;
        break;
    case QXCRL_CERT_REVOKED:
        puts("revoked");
        exitCode = 1;
        break;
    default:
        puts("unknown");
        exitCode = 2;
        break;
    }

done:
    /* A failed load may still leave a record behind. */
    qxcrl_Destroy(ctx, &crl);
    qxcert_free(ctx, &cert);
    qxlayer_destroy(&ctx);
    return exitCode;
}
