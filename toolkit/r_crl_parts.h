/*
 * The CRL's machinery inside the toolkit: where its parts lie in its bytes,
 * the one pass that indexes them, and how a changed CRL is written again.
 */
#ifndef QXCRL_TOOLKIT_R_CRL_PARTS_H
#define QXCRL_TOOLKIT_R_CRL_PARTS_H

#include "r_der.h"
#include "r_objects.h"

/* A span of crl's bytes as a view. */
inline RDer r_crl_view(const R_CRL* crl, RCrlSpan span) {
    return {crl->der + span.offset, span.length};
}

/* ------------------------------------------------------------- extensions */

/* One extension as read from a list. */
struct RExtView {
    RDer whole;
    RDer oid;   /* content octets */
    RDer value; /* content octets of extnValue */
    bool critical = false;
};

/* Takes the next extension off list, checked as OpenSSL checks it. */
bool r_ext_next(RDer* list, RExtView* ext);

/* The NID of an extension whose handling the toolkit decides, NID_undef for the rest. */
int r_ext_nid(const RDer& oid);

/* Whether a CRL (inEntry 0) or entry (1) may carry ext and still be taken. */
bool r_ext_acceptable(const RExtView& ext, int inEntry);

/* Fills ext with a copy of view. */
int r_ext_fill(R_EXT* ext, const RExtView& view);

/* ---------------------------------------------------------------- decoding */

/*
 * Where the parts of the CRL at the start of der lie, and how many bytes it
 * takes. R_ERROR_DECODE for bytes OpenSSL would not read as a CRL, and for
 * the BER-only forms it would.
 */
int r_crl_layout(const unsigned char* der, size_t length, RCrlSpan parts[R_PART_COUNT],
                 RCrlSpan* tbs, size_t* consumed);

/*
 * Entries of a CRL being written that an index already knows: the same
 * entries in the same order, with one more perhaps inserted as number place.
 */
struct RCrlKnownEntries {
    const RCrlIndex* from = nullptr;
    bool inserted = false;
    uint32_t place = 0;
    uint32_t insertedAt = 0; /* where in the new list the inserted element starts */
};

/*
 * The one pass over the entries and extensions of the CRL in der whose parts
 * are given: checks them, applies the extension policy (R_ERROR_UNSUPPORTED)
 * and fills index. With known, the entries it describes are not read again,
 * only an inserted one. On failure index is left empty.
 */
int r_crl_index_build(const unsigned char* der, const RCrlSpan parts[R_PART_COUNT],
                      const RCrlKnownEntries* known, RCrlIndex* index);
void r_crl_index_free(RCrlIndex* index);

/* ----------------------------------------------------------------- entries */

/* Where entry number's element starts in der, whose index is index (number below the count). */
uint32_t r_crl_entry_offset(const unsigned char* der, const RCrlIndex& index, uint32_t number);

/* Entry number's element (number below the count). */
RDer r_crl_entry_element(const R_CRL* crl, uint32_t number);

/* The parts of an entry element already checked: serial content, date element, extensions. */
struct REntryView {
    RDer serial;
    RDer date;
    RDer extensions; /* the content of the extensions' SEQUENCE; empty when none */
};
REntryView r_entry_view(RDer element);

/* Whether entry number, whose element is given, is removeFromCRL, as OpenSSL reads reasons. */
bool r_crl_entry_removed(const R_CRL* crl, uint32_t number, const RDer& element);

/*
 * The element of the entry that revokes serial (content octets): NOT_FOUND
 * when none does; among several entries for one serial, one that does not
 * remove it.
 */
int r_crl_index_find(const R_CRL* crl, const RDer& serial, RDer* element);

/* Seconds of a time element: R_ERROR_NOT_PRESENT when empty, R_ERROR_DECODE when unreadable. */
int r_time_of_element(const RDer& element, int64_t* seconds);

/* Fills entry with a copy of an entry element. */
int r_crl_entry_fill(R_CRL_ENTRY* entry, RDer element);

/* The content of an entry's extensions' SEQUENCE; empty when it has none. */
RDer r_crl_entry_extensions(const R_CRL_ENTRY* entry);

/* r_serial_order for serials of which one or both are negative. */
int r_serial_order_signed(const RDer& a, const RDer& b);

/* Orders serials as OpenSSL's signing sorts entries; below 0 when a sorts first. */
inline int r_serial_order(const RDer& a, const RDer& b) {
    // Positive serials, nearly all there are, compare as their octets
    // without a padding zero: the shorter first, then octet by octet.
    if ((a.data[0] & 0x80) != 0 || (b.data[0] & 0x80) != 0)
        return r_serial_order_signed(a, b);
    const size_t aPad = a.length > 1 && a.data[0] == 0 ? 1 : 0;
    const size_t bPad = b.length > 1 && b.data[0] == 0 ? 1 : 0;
    if (a.length - aPad != b.length - bPad)
        return a.length - aPad < b.length - bPad ? -1 : 1;
    // A loop, not memcmp: serials are short, and the call would cost more.
    for (size_t i = 0; i < a.length - aPad; ++i) {
        if (a.data[aPad + i] != b.data[bPad + i])
            return a.data[aPad + i] < b.data[bPad + i] ? -1 : 1;
    }
    return 0;
}

/*
 * A serial's place in the order of r_serial_order as far as 32 bits tell: a
 * positive serial's magnitude length in the top octet, then its first three
 * octets. Two keys that differ, neither of them r_serial_undecided, order
 * their serials; otherwise the serials decide.
 */
constexpr uint32_t r_serial_undecided = UINT32_MAX; /* negative, or 255 octets and more */
inline uint32_t r_serial_key(const RDer& serial) {
    if (serial.length == 0 || (serial.data[0] & 0x80) != 0)
        return r_serial_undecided;
    const size_t pad = serial.length > 1 && serial.data[0] == 0 ? 1 : 0;
    const size_t length = serial.length - pad;
    if (length >= 0xFF)
        return r_serial_undecided;
    uint32_t key = static_cast<uint32_t>(length) << 24;
    for (size_t i = 0; i < 3 && i < length; ++i)
        key |= static_cast<uint32_t>(serial.data[pad + i]) << (16 - 8 * i);
    return key;
}

/* A serial's (content octets) place in the index, keyed per process against crafted collisions. */
uint32_t r_serial_hash(const RDer& serial);

/* ----------------------------------------------------------------- writing */

/*
 * What the parts of a CRL become: up to three pieces each, written one after
 * the other. For the entries and extensions, the pieces are the list's
 * content and the part is written around them; for the others, each is a
 * whole element.
 */
struct RCrlPartBytes {
    RDer pieces[3];
    int count = 0;
    bool present = false;
};
struct RCrlDraft {
    RCrlPartBytes parts[R_PART_COUNT];
};

/* A draft of crl as it is. */
void r_crl_draft_of(const R_CRL* crl, RCrlDraft* draft);

/* Sets a part to one piece; an empty piece makes the part absent. */
void r_crl_draft_set(RCrlDraft* draft, RCrlPart part, RDer bytes);

/* A draft written out: its bytes (OpenSSL's allocator), where its parts lie. */
struct RCrlWritten {
    unsigned char* der = nullptr;
    uint32_t length = 0;
    RCrlSpan tbs;
    RCrlSpan parts[R_PART_COUNT];
};
int r_crl_write(const RCrlDraft& draft, RCrlWritten* written);

/*
 * Writes draft as crl's new bytes and indexes them (known as for
 * r_crl_index_build, or NULL). The pieces may point into crl's bytes. On
 * failure crl is unchanged.
 */
int r_crl_commit(R_CRL* crl, const RCrlDraft& draft, const RCrlKnownEntries* known);

/* Whether crl has every part a CRL must have to be written. */
bool r_crl_complete(const R_CRL* crl);

#endif
