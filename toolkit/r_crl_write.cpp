// Writing a CRL: its version and update times, and adding entries. Each
// change writes the CRL's bytes anew around the part it changes; the
// signature is left as it was, so a changed CRL no longer verifies until it
// is signed again.
#include <algorithm>

#include <openssl/asn1.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include "r_crl_parts.h"

namespace {

constexpr unsigned char version_2[] = {r_der_integer, 0x01, 0x01};

int set_update(R_CRL* crl, RCrlPart part, const R_TIME* time) {
    ASN1_TIME* asn1 = nullptr;
    if (const int made = r_crl_time(time->seconds, &asn1); made != R_ERROR_NONE)
        return made;
    unsigned char* encoded = nullptr;
    const int length = i2d_ASN1_TIME(asn1, &encoded);
    ASN1_TIME_free(asn1);
    if (length <= 0) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    RCrlDraft draft;
    r_crl_draft_of(crl, &draft);
    r_crl_draft_set(&draft, part, RDer{encoded, static_cast<size_t>(length)});
    const RCrlKnownEntries same{&crl->index};
    const int status = r_crl_commit(crl, draft, &same);
    OPENSSL_free(encoded);
    return status;
}

int set_version(R_CRL* crl, uint32_t version) {
    // Only v2 can be set: a v1 CRL is one without the field.
    if (version != 1)
        return R_ERROR_FAILED;
    RCrlDraft draft;
    r_crl_draft_of(crl, &draft);
    r_crl_draft_set(&draft, R_PART_VERSION, RDer{version_2, sizeof version_2});
    const RCrlKnownEntries same{&crl->index};
    return r_crl_commit(crl, draft, &same);
}

// Where an entry for serial goes: after every entry that sorts before or
// with it, so a sorted list stays sorted; at the end of an unsorted one.
uint32_t place_for(const R_CRL* crl, const RDer& serial) {
    const uint32_t count = crl->index.entryCount;
    if (!crl->index.entriesSorted)
        return count;
    uint32_t low = 0;
    uint32_t high = count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        if (r_serial_order(r_entry_view(r_crl_entry_element(crl, middle)).serial, serial) <= 0)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

} // namespace

extern "C" int R_CRL_set_info(R_CRL* crl, int id, const void* value) {
    if (crl == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    switch (id) {
    case R_CRL_INFO_THIS_UPDATE:
        return set_update(crl, R_PART_THIS_UPDATE, static_cast<const R_TIME*>(value));
    case R_CRL_INFO_NEXT_UPDATE:
        return set_update(crl, R_PART_NEXT_UPDATE, static_cast<const R_TIME*>(value));
    case R_CRL_INFO_VERSION:
        return set_version(crl, *static_cast<const uint32_t*>(value));
    default:
        return R_ERROR_FAILED;
    }
}

extern "C" int R_CRL_add_entry(R_CRL* crl, R_CRL_ENTRY* entry) {
    if (crl == nullptr || entry == nullptr)
        return R_ERROR_NULL_ARG;
    // An entry needs both of its fields to be written.
    if (entry->serialLength == 0 || entry->dateLength == 0)
        return R_ERROR_NOT_PRESENT;
    RBytes element;
    if (!element.resize_uninitialised(r_der_header_size(entry->body.size()) + entry->body.size()))
        return R_ERROR_ALLOC_FAILURE;
    unsigned char* content = r_der_write_header(element.data(), r_der_sequence, entry->body.size());
    std::copy(entry->body.data(), entry->body.data() + entry->body.size(), content);

    R_ITEM serial{};
    R_CRL_ENTRY_get_info(entry, R_CRL_ENTRY_INFO_SERIAL, &serial);
    const uint32_t place = place_for(crl, RDer{serial.data, serial.len});
    const RDer list = r_crl_view(crl, crl->index.entryList);
    const size_t split =
        place == crl->index.entryCount
            ? list.length
            : r_crl_entry_offset(crl->der, crl->index, place) - crl->index.entryList.offset;
    RCrlDraft draft;
    r_crl_draft_of(crl, &draft);
    RCrlPartBytes& entries = draft.parts[R_PART_ENTRIES];
    entries.present = true;
    entries.count = 3;
    entries.pieces[0] = {list.data, split};
    entries.pieces[1] = {element.data(), element.size()};
    entries.pieces[2] = {list.data + split, list.length - split};
    const RCrlKnownEntries withOneMore{&crl->index, true, place, static_cast<uint32_t>(split)};
    return r_crl_commit(crl, draft, &withOneMore);
}
