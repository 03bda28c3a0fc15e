// CRL entry objects: an empty holder that R_CRL_get_entry and
// R_CRL_find_entry fill with a copy of one entry's bytes, or that a caller
// fills field by field before adding it to a CRL.
#include <cstring>

#include <openssl/asn1.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include "r_crl_parts.h"

namespace {

RDer part_of(const R_CRL_ENTRY* entry, size_t offset, size_t length) {
    return {entry->body.data() + offset, length};
}

RDer rest_of(const R_CRL_ENTRY* entry) {
    const size_t fields = size_t{entry->serialLength} + entry->dateLength;
    return part_of(entry, fields, entry->body.size() - fields);
}

// Writes serial, date and what follows them as the entry's new body.
int rebuild(R_CRL_ENTRY* entry, const RDer& serial, const RDer& date) {
    const RDer rest = rest_of(entry);
    RBytes body;
    if (!body.resize_uninitialised(serial.length + date.length + rest.length))
        return R_ERROR_ALLOC_FAILURE;
    unsigned char* out = body.data();
    for (const RDer& piece : {serial, date, rest}) {
        if (piece.length > 0)
            std::memcpy(out, piece.data, piece.length);
        out += piece.length;
    }
    entry->body.swap(body);
    entry->serialLength = static_cast<uint32_t>(serial.length);
    entry->dateLength = static_cast<uint32_t>(date.length);
    return R_ERROR_NONE;
}

int set_serial(R_CRL_ENTRY* entry, const R_ITEM* item) {
    if (item->len == 0 || item->data == nullptr)
        return R_ERROR_FAILED;
    // Content octets that DER would not write are not a serial.
    if (!r_der_integer_ok(RDer{item->data, item->len}))
        return R_ERROR_DECODE;
    RBytes serial;
    if (!serial.resize_uninitialised(r_der_header_size(item->len) + item->len))
        return R_ERROR_ALLOC_FAILURE;
    std::memcpy(r_der_write_header(serial.data(), r_der_integer, item->len), item->data, item->len);
    return rebuild(entry, RDer{serial.data(), serial.size()},
                   part_of(entry, entry->serialLength, entry->dateLength));
}

int set_date(R_CRL_ENTRY* entry, const R_TIME* time) {
    ASN1_TIME* date = nullptr;
    if (const int made = r_crl_time(time->seconds, &date); made != R_ERROR_NONE)
        return made;
    unsigned char* encoded = nullptr;
    const int length = i2d_ASN1_TIME(date, &encoded);
    ASN1_TIME_free(date);
    if (length <= 0) {
        ERR_clear_error();
        return R_ERROR_ALLOC_FAILURE;
    }
    const int status = rebuild(entry, part_of(entry, 0, entry->serialLength),
                               RDer{encoded, static_cast<size_t>(length)});
    OPENSSL_free(encoded);
    return status;
}

} // namespace

int r_crl_entry_fill(R_CRL_ENTRY* entry, RDer element) {
    const REntryView view = r_entry_view(element);
    RDer in = element;
    RDerElement whole;
    r_der_next(&in, &whole);
    if (!entry->body.assign(whole.content.data, whole.content.length))
        return R_ERROR_ALLOC_FAILURE;
    entry->serialLength = static_cast<uint32_t>(view.date.data - whole.content.data);
    entry->dateLength = static_cast<uint32_t>(view.date.length);
    return R_ERROR_NONE;
}

extern "C" int R_CRL_ENTRY_new(R_LIB_CTX* libCtx, uint32_t flags, R_CRL_ENTRY** entry) {
    return r_new_holder(libCtx, flags, entry);
}

extern "C" int R_CRL_ENTRY_get_info(R_CRL_ENTRY* entry, int id, void* value) {
    if (entry == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    if (id == R_CRL_ENTRY_INFO_SERIAL) {
        // An entry being built may have its date but no serial yet.
        if (entry->serialLength == 0)
            return R_ERROR_NOT_PRESENT;
        RDer in = part_of(entry, 0, entry->serialLength);
        RDerElement serial;
        r_der_next(&in, &serial);
        auto* item = static_cast<R_ITEM*>(value);
        item->len = static_cast<uint32_t>(serial.content.length);
        // R_ITEM is not const; the bytes stay the entry's and are only read.
        item->data = const_cast<unsigned char*>(serial.content.data);
        return R_ERROR_NONE;
    }
    if (id != R_CRL_ENTRY_INFO_REVOCATION_DATE)
        return R_ERROR_FAILED;
    if (entry->dateLength == 0)
        return R_ERROR_NOT_PRESENT;
    return r_time_of_element(part_of(entry, entry->serialLength, entry->dateLength),
                             &static_cast<R_TIME*>(value)->seconds);
}

extern "C" int R_CRL_ENTRY_set_info(R_CRL_ENTRY* entry, int id, const void* value) {
    if (entry == nullptr || value == nullptr)
        return R_ERROR_NULL_ARG;
    if (id == R_CRL_ENTRY_INFO_SERIAL)
        return set_serial(entry, static_cast<const R_ITEM*>(value));
    if (id == R_CRL_ENTRY_INFO_REVOCATION_DATE)
        return set_date(entry, static_cast<const R_TIME*>(value));
    return R_ERROR_FAILED;
}

extern "C" int R_CRL_ENTRY_free(R_CRL_ENTRY* entry) {
    r_delete(entry);
    return R_ERROR_NONE;
}

RDer r_crl_entry_extensions(const R_CRL_ENTRY* entry) {
    RDer rest = rest_of(entry);
    RDerElement list;
    if (rest.empty() || !r_der_next(&rest, &list))
        return RDer{};
    return list.content;
}
