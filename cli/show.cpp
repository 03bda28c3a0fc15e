// qxcrl show: everything in a CRL, as text or JSON, and whether the library
// takes it. The fields come from the layer's display reader (qxview_crl),
// which also reads CRLs the module refuses; the verdict is the module's.
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "crl_input.h"
#include "errors.h"
#include "session.h"
#include "signature_types.h"
#include "text.h"

namespace qxcli {

namespace {

constexpr char usage[] = "qxcrl show CRL [--json] [--trace LEVEL]";

// One CRL as the display reader saw it, and the module's verdict on it.
struct Shown {
    std::string name;
    QxCrlView* view = nullptr;
    std::optional<uint32_t> signatureType; // the layer's, when it has one
    std::optional<std::string> refusal;    // set when the module refuses the CRL
};

bool placeholder(const QxViewEntry& entry) {
    constexpr size_t length = sizeof QXCRL_PLACEHOLDER_SERIAL - 1;
    return entry.serialLength == length &&
           std::memcmp(entry.serial, QXCRL_PLACEHOLDER_SERIAL, length) == 0;
}

std::string signature_type_text(const Shown& shown) {
    return shown.signatureType ? std::to_string(*shown.signatureType) : "none";
}

// "  " + name, the OID, critical or not; then the value's lines, indented.
void print_extensions(const QxViewExtension* extensions, uint32_t count, const char* indent) {
    for (uint32_t i = 0; i < count; ++i) {
        const QxViewExtension& extension = extensions[i];
        std::printf("%s%s (%s)%s:\n", indent, extension.name, extension.oid,
                    extension.critical ? ", critical" : "");
        std::string value = extension.value;
        for (size_t start = 0; start <= value.size();) {
            size_t end = value.find('\n', start);
            if (end == std::string::npos)
                end = value.size();
            std::printf("%s    %s\n", indent, value.substr(start, end - start).c_str());
            start = end + 1;
        }
    }
}

void print_text(const Shown& shown) {
    const QxCrlView& view = *shown.view;
    std::printf("version: %u\n", view.version);
    std::printf("signature type: %s (%s)\n", signature_type_text(shown).c_str(),
                view.signatureAlgorithm);
    std::printf("signature algorithm: %s (%s)\n", view.signatureAlgorithm, view.signatureOid);
    std::printf("issuer: %s\n", view.issuer);
    std::printf("this update: %s\n", view.thisUpdate);
    std::printf("next update: %s\n", view.nextUpdate != nullptr ? view.nextUpdate : "none");
    std::printf("CRL number: %s\n", view.crlNumber != nullptr ? view.crlNumber : "none");
    if (view.deltaCrlIndicator != nullptr)
        std::printf("delta CRL of base CRL number: %s\n", view.deltaCrlIndicator);
    std::printf("SHA-256 fingerprint: %s\n", colon_hex(view.sha256, sizeof view.sha256).c_str());
    std::printf("extensions: %u\n", view.extensionCount);
    print_extensions(view.extensions, view.extensionCount, "  ");
    std::printf("entries: %u\n", view.entryCount);
    for (uint32_t i = 0; i < view.entryCount; ++i) {
        const QxViewEntry& entry = view.entries[i];
        std::printf("  serial %s revoked %s", hex(entry.serial, entry.serialLength).c_str(),
                    entry.revocationDate);
        if (entry.reasonName != nullptr)
            std::printf(" reason %s (%d)", entry.reasonName, entry.reason);
        if (entry.invalidityDate != nullptr)
            std::printf(" invalid since %s", entry.invalidityDate);
        if (placeholder(entry))
            std::fputs(" (placeholder: the entry every CRL this library creates starts with; "
                       "no certificate)",
                       stdout);
        std::fputs("\n", stdout);
        print_extensions(entry.extensions, entry.extensionCount, "    ");
    }
    if (shown.refusal)
        std::printf("library: refuses it: %s\n", shown.refusal->c_str());
    else
        std::puts("library: takes it");
}

std::string json_extensions(const QxViewExtension* extensions, uint32_t count) {
    std::string out = "[";
    for (uint32_t i = 0; i < count; ++i) {
        out += std::string(i != 0 ? "," : "") + "{\"oid\":" + json_string(extensions[i].oid) +
               ",\"name\":" + json_string(extensions[i].name) +
               ",\"critical\":" + (extensions[i].critical ? "true" : "false") +
               ",\"value\":" + json_string(extensions[i].value) + "}";
    }
    return out + "]";
}

void print_json(const Shown& shown) {
    const QxCrlView& view = *shown.view;
    std::string out = "{\"version\":" + std::to_string(view.version) + ",\"signatureType\":" +
                      (shown.signatureType ? signature_type_text(shown) : "null") +
                      ",\"signatureAlgorithm\":" + json_string(view.signatureAlgorithm) +
                      ",\"issuer\":" + json_string(view.issuer) +
                      ",\"thisUpdate\":" + json_string(view.thisUpdate) +
                      ",\"nextUpdate\":" + json_or_null(view.nextUpdate) +
                      ",\"crlNumber\":" + json_or_null(view.crlNumber) + ",\"entries\":[";
    for (uint32_t i = 0; i < view.entryCount; ++i) {
        const QxViewEntry& entry = view.entries[i];
        out += std::string(i != 0 ? "," : "") +
               "{\"serial\":" + json_string(hex(entry.serial, entry.serialLength)) +
               ",\"revocationDate\":" + json_string(entry.revocationDate) +
               ",\"reason\":" + (entry.reason >= 0 ? std::to_string(entry.reason) : "null") +
               ",\"reasonName\":" + json_or_null(entry.reasonName) +
               ",\"invalidityDate\":" + json_or_null(entry.invalidityDate) +
               ",\"placeholder\":" + (placeholder(entry) ? "true" : "false") +
               ",\"extensions\":" + json_extensions(entry.extensions, entry.extensionCount) + "}";
    }
    out += "],\"signatureOid\":" + json_string(view.signatureOid) +
           ",\"deltaCrlIndicator\":" + json_or_null(view.deltaCrlIndicator) +
           ",\"sha256Fingerprint\":" + json_string(colon_hex(view.sha256, sizeof view.sha256)) +
           ",\"extensions\":" + json_extensions(view.extensions, view.extensionCount) +
           ",\"accepted\":" + (shown.refusal ? "false" : "true") +
           ",\"refusal\":" + json_or_null(shown.refusal) + "}\n";
    std::fputs(out.c_str(), stdout);
}

// Describes one CRL and asks the module whether it takes it; 0 or the
// exit status of a failure already reported.
int examine(Session& session, const CrlBytes& bytes, Shown& shown) {
    SecurityContext* ctx = session.ctx();
    shown.name = bytes.name;
    Crl crl(ctx);
    const uint32_t status = qxcrl_CreateCtx(ctx, &crl.object, bytes.der.data(),
                                            static_cast<uint32_t>(bytes.der.size()));
    if (status != 0 && status != QXERR_CRL_DECODE)
        return report("loading " + bytes.name, status);
    const uint32_t viewed =
        qxview_crl(ctx, bytes.der.data(), static_cast<uint32_t>(bytes.der.size()), &shown.view);
    if (viewed == QXL_ERR_NOT_A_CRL && status != 0)
        return report("loading " + bytes.name, status, not_a_crl);
    if (viewed != 0)
        return report("describing " + bytes.name, viewed);
    if (status == QXERR_CRL_DECODE) {
        shown.refusal = shown.view->refusal != nullptr ? shown.view->refusal : refused_unnamed;
    } else {
        uint32_t type = 0;
        if (qxcrl_GetDetails(ctx, crl.object, QXCRL_DETAIL_SIGNATURE_TYPE, 0, &type) == 0)
            shown.signatureType = type;
    }
    // A CRL the module does not read still has a type the layer knows by name.
    if (!shown.signatureType)
        shown.signatureType = signature_type_named(shown.view->signatureAlgorithm);
    return 0;
}

} // namespace

int show_command(int argc, char** argv) {
    const Arguments arguments(argc, argv, 2, {{}, {"--json"}});
    if (arguments.help()) {
        std::printf(
            "usage: %s\n"
            "Prints every CRL of the file (DER, or PEM under any CRL label): version, signature "
            "type and algorithm, issuer, dates, CRL number, SHA-256 fingerprint of the DER, every "
            "extension with its value, and every entry with its reason and invalidity date. The "
            "placeholder entry of CRLs this library creates is marked.\n"
            "  --json         one JSON object per CRL, one line each (default: text)\n"
            "%s"
            "Exit 0 when the library takes every CRL; %d when it refuses one (still shown, the "
            "reason on stderr); %d on a failure; %d on a usage mistake.\n",
            usage, trace_help, refused_exit, failure_exit, usage_exit);
        return 0;
    }
    if (!arguments.error().empty())
        return usage_error(arguments.error(), usage);
    if (arguments.positionals().size() != 1)
        return usage_error("show needs one CRL file", usage);
    Session session;
    if (const uint32_t status = session.open(arguments))
        return report("making the layer", status);
    std::vector<CrlBytes> crls;
    if (const int failed = read_crl_file(session, arguments.positionals()[0], crls))
        return failed;
    int exitStatus = 0;
    for (size_t i = 0; i < crls.size(); ++i) {
        Shown shown;
        const int failed = examine(session, crls[i], shown);
        if (failed == 0) {
            if (arguments.has("--json")) {
                print_json(shown);
            } else {
                if (crls.size() > 1)
                    std::printf("%s# %s\n", i != 0 ? "\n" : "", shown.name.c_str());
                print_text(shown);
            }
            if (shown.refusal && exitStatus == 0)
                exitStatus = refused(shown.name, *shown.refusal);
        }
        qxumfree(session.ctx(), &shown.view);
        if (failed != 0)
            return failed;
    }
    return exitStatus;
}

} // namespace qxcli
