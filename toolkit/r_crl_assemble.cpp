// Writing a CRL's bytes from its parts. A change to a CRL writes it anew
// from a draft whose unchanged parts are the old bytes, copied, never
// decoded and encoded again.
#include <cstring>

#include <openssl/crypto.h>

#include "r_crl_parts.h"

namespace {

size_t piece_bytes(const RCrlPartBytes& part) {
    size_t total = 0;
    for (int i = 0; i < part.count; ++i)
        total += part.pieces[i].length;
    return total;
}

// The size a part takes when written, with what is written around a list.
size_t written_size(const RCrlPartBytes& part, int which) {
    if (!part.present)
        return 0;
    const size_t content = piece_bytes(part);
    if (which == R_PART_ENTRIES)
        return r_der_header_size(content) + content;
    if (which == R_PART_EXTENSIONS) {
        const size_t list = r_der_header_size(content) + content;
        return r_der_header_size(list) + list;
    }
    return content;
}

unsigned char* write_part(unsigned char* out, const RCrlPartBytes& part, int which) {
    const size_t content = piece_bytes(part);
    if (which == R_PART_ENTRIES) {
        out = r_der_write_header(out, r_der_sequence, content);
    } else if (which == R_PART_EXTENSIONS) {
        out = r_der_write_header(out, r_der_explicit_0, r_der_header_size(content) + content);
        out = r_der_write_header(out, r_der_sequence, content);
    }
    for (int i = 0; i < part.count; ++i) {
        if (part.pieces[i].length > 0)
            std::memcpy(out, part.pieces[i].data, part.pieces[i].length);
        out += part.pieces[i].length;
    }
    return out;
}

} // namespace

void r_crl_draft_of(const R_CRL* crl, RCrlDraft* draft) {
    for (int part = 0; part < R_PART_COUNT; ++part) {
        RCrlPartBytes& bytes = draft->parts[part];
        bytes = RCrlPartBytes{};
        if (crl->parts[part].length == 0)
            continue;
        bytes.present = true;
        bytes.count = 1;
        if (part == R_PART_ENTRIES)
            bytes.pieces[0] = r_crl_view(crl, crl->index.entryList);
        else if (part == R_PART_EXTENSIONS)
            bytes.pieces[0] = r_crl_view(crl, crl->index.extensionList);
        else
            bytes.pieces[0] = r_crl_view(crl, crl->parts[part]);
    }
}

void r_crl_draft_set(RCrlDraft* draft, RCrlPart part, RDer bytes) {
    RCrlPartBytes& set = draft->parts[part];
    set = RCrlPartBytes{};
    if (bytes.empty())
        return;
    set.present = true;
    set.count = 1;
    set.pieces[0] = bytes;
}

int r_crl_write(const RCrlDraft& draft, RCrlWritten* written) {
    size_t tbsContent = 0;
    for (int part = R_PART_VERSION; part <= R_PART_EXTENSIONS; ++part)
        tbsContent += written_size(draft.parts[part], part);
    const size_t tbs = r_der_header_size(tbsContent) + tbsContent;
    const size_t outerContent = tbs + written_size(draft.parts[R_PART_SIGNATURE_ALGORITHM], 0) +
                                written_size(draft.parts[R_PART_SIGNATURE], 0);
    const size_t total = r_der_header_size(outerContent) + outerContent;
    if (total > UINT32_MAX)
        return R_ERROR_FAILED;
    auto* der = static_cast<unsigned char*>(OPENSSL_malloc(total));
    if (der == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    unsigned char* out = r_der_write_header(der, r_der_sequence, outerContent);
    written->tbs = {static_cast<uint32_t>(out - der), static_cast<uint32_t>(tbs)};
    out = r_der_write_header(out, r_der_sequence, tbsContent);
    for (int part = 0; part < R_PART_COUNT; ++part) {
        const size_t size = written_size(draft.parts[part], part);
        written->parts[part] = {size == 0 ? 0 : static_cast<uint32_t>(out - der),
                                static_cast<uint32_t>(size)};
        if (size > 0)
            out = write_part(out, draft.parts[part], part);
    }
    written->der = der;
    written->length = static_cast<uint32_t>(total);
    return R_ERROR_NONE;
}

int r_crl_commit(R_CRL* crl, const RCrlDraft& draft, const RCrlKnownEntries* known) {
    RCrlWritten written;
    if (const int status = r_crl_write(draft, &written); status != R_ERROR_NONE)
        return status;
    RCrlIndex index;
    if (const int status = r_crl_index_build(written.der, written.parts, known, &index);
        status != R_ERROR_NONE) {
        OPENSSL_free(written.der);
        return status;
    }
    r_crl_index_free(&crl->index);
    OPENSSL_free(crl->der);
    crl->der = written.der;
    crl->length = written.length;
    crl->tbs = written.tbs;
    std::memcpy(crl->parts, written.parts, sizeof written.parts);
    crl->index = index;
    return R_ERROR_NONE;
}

bool r_crl_complete(const R_CRL* crl) {
    for (const RCrlPart part : {R_PART_TBS_SIGNATURE_ALGORITHM, R_PART_ISSUER, R_PART_THIS_UPDATE,
                                R_PART_SIGNATURE_ALGORITHM, R_PART_SIGNATURE}) {
        if (crl->parts[part].length == 0)
            return false;
    }
    return true;
}
