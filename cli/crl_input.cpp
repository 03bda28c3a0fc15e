#include "crl_input.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "crl_blocks.h"
#include "errors.h"
#include "files.h"

namespace qxcli {

const char not_a_crl[] = "not a CRL in DER, nor in PEM under a CRL label";
const char refused_unnamed[] = "the library does not take it as its issuer's CRL";

namespace {

// The DER of one PEM block: the Base64 between the end of its begin line
// and the first end line after it, whatever the end line's label.
int decode_block(Session& session, std::string_view block, const std::string& name,
                 std::vector<unsigned char>& der) {
    const size_t lineEnd = block.find('\n');
    const size_t end = block.find("-----END ");
    if (lineEnd == std::string_view::npos || end == std::string_view::npos || end < lineEnd)
        return report("reading " + name, QXL_ERR_BASE64, "a PEM block without its end line");
    const std::string_view body = block.substr(lineEnd + 1, end - lineEnd - 1);
    LayerBytes decoded(session.ctx());
    if (const uint32_t status =
            qxbc_b64_to_der(session.ctx(), body.data(), static_cast<uint32_t>(body.size()),
                            &decoded.bytes, &decoded.length))
        return report("reading " + name, status, "its Base64 does not decode");
    der.assign(decoded.bytes, decoded.bytes + decoded.length);
    return 0;
}

} // namespace

int read_crl_file(Session& session, const std::string& path, std::vector<CrlBytes>& crls) {
    LayerBytes file(session.ctx());
    if (const uint32_t status =
            qxfile_read_whole(session.ctx(), path.c_str(), &file.bytes, &file.length))
        return status == QXL_ERR_FILE ? report("reading " + path, status, file_problem(path))
                                      : report("reading " + path, status);
    const std::vector<std::string_view> blocks =
        crl_pem_blocks({reinterpret_cast<const char*>(file.bytes), file.length});
    if (blocks.empty()) {
        crls.push_back({path, std::vector<unsigned char>(file.bytes, file.bytes + file.length)});
        return 0;
    }
    for (size_t i = 0; i < blocks.size(); ++i) {
        CrlBytes crl;
        crl.name = blocks.size() == 1 ? path : "CRL " + std::to_string(i + 1) + " of " + path;
        if (const int failed = decode_block(session, blocks[i], crl.name, crl.der))
            return failed;
        crls.push_back(std::move(crl));
    }
    return 0;
}

int decode_crl(Session& session, const CrlBytes& bytes, Crl& crl) {
    const uint32_t status = qxcrl_CreateCtx(session.ctx(), &crl.object, bytes.der.data(),
                                            static_cast<uint32_t>(bytes.der.size()));
    if (status != QXERR_CRL_DECODE)
        return status == 0 ? 0 : report("loading " + bytes.name, status);
    // The module said no: whether the bytes are a CRL at all, and what in it
    // the module does not take, is the display reader's to tell.
    QxCrlView* view = nullptr;
    const uint32_t viewed =
        qxview_crl(session.ctx(), bytes.der.data(), static_cast<uint32_t>(bytes.der.size()), &view);
    if (viewed != 0)
        return report("loading " + bytes.name, status, not_a_crl);
    const std::string reason = view->refusal != nullptr ? view->refusal : refused_unnamed;
    qxumfree(session.ctx(), &view);
    return refused(bytes.name, reason);
}

int load_crl(Session& session, const std::string& path, Crl& crl) {
    // A file of one CRL, DER or PEM, is read straight into the CRL; anything
    // else, and any failure, takes the way that tells what is wrong.
    if (qxfile_read_one_crl(session.ctx(), path.c_str(), &crl.object) == 0)
        return 0;
    std::vector<CrlBytes> crls;
    if (const int failed = read_crl_file(session, path, crls))
        return failed;
    return decode_crl(session, crls.front(), crl);
}

} // namespace qxcli
