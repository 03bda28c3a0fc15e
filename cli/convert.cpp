// qxcrl convert: a CRL file from DER to PEM or back, whatever CRL label its
// PEM blocks carry; the CRL's bytes are kept as they are.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "crl_input.h"
#include "errors.h"
#include "files.h"
#include "session.h"

namespace qxcli {

namespace {

constexpr char usage[] = "qxcrl convert CRL --out FILE [--der | --pem] [--trace LEVEL]";

// The PEM of one DER CRL under the primary label, as `openssl crl` writes it.
int append_pem(Session& session, const CrlBytes& crl, std::string& out) {
    char* body = nullptr;
    uint32_t length = 0;
    if (const uint32_t status = qxbc_der_to_b64(
            session.ctx(), crl.der.data(), static_cast<uint32_t>(crl.der.size()), &body, &length))
        return report("encoding " + crl.name, status);
    out += QX_STR_CRL_HEADER;
    out.append(body, length);
    out += QX_STR_CRL_FOOTER3;
    qxumfree(session.ctx(), &body);
    return 0;
}

} // namespace

int convert_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{"--out"}, {"--der", "--pem"}});
    if (arguments.help()) {
        std::printf(
            "usage: %s\n"
            "Writes the CRLs of a file (DER, or PEM under any CRL label: X509 CRL, CRL, "
            "CERTIFICATE REVOCATION LIST, X509CRL) as DER or as PEM under the X509 CRL label. "
            "The bytes of each CRL are kept as they are, whether or not the library takes it.\n"
            "  --out FILE     where to write, replaced atomically (required)\n"
            "  --pem          PEM, every CRL of the file in turn (the default)\n"
            "  --der          DER; the file must hold one CRL (default: PEM)\n"
            "%s"
            "Exit 0 when written, %d on a failure, %d on a usage mistake.\n",
            usage, trace_help, failure_exit, usage_exit);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), usage);
    if (arguments.positionals().size() != 1 || !arguments.has("--out"))
        return usage_error("convert needs one CRL file and --out", usage);
    if (arguments.has("--der") && arguments.has("--pem"))
        return usage_error("--der and --pem exclude each other", usage);
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
    const std::string& path = arguments.positionals()[0];
    std::vector<CrlBytes> crls;
    if (const int failed = read_crl_file(session, path, crls))
        return failed;
    // Only CRLs go out: bytes the display reader cannot read as one are refused.
    for (const CrlBytes& crl : crls) {
        QxCrlView* view = nullptr;
        const uint32_t status =
            qxview_crl(session.ctx(), crl.der.data(), static_cast<uint32_t>(crl.der.size()), &view);
        qxumfree(session.ctx(), &view);
        if (status != 0)
            return report("reading " + crl.name, status,
                          status == QXL_ERR_NOT_A_CRL ? not_a_crl : "cannot be read");
    }
    const std::string out = *arguments.value("--out");
    std::string bytes;
    if (arguments.has("--der")) {
        if (crls.size() != 1)
            return report("converting " + path, QXL_ERR_BAD_ARGUMENT,
                          "it holds " + std::to_string(crls.size()) +
                              " CRLs and a DER file holds one; write PEM instead");
        bytes.assign(crls[0].der.begin(), crls[0].der.end());
    } else {
        for (const CrlBytes& crl : crls)
            if (const int failed = append_pem(session, crl, bytes))
                return failed;
    }
    if (!write_atomically(out, bytes.data(), bytes.size()))
        return report("writing " + out, QXL_ERR_FILE, std::strerror(errno));
    return 0;
}

} // namespace qxcli
