// The one pass over a CRL's entries and extensions: every element checked as
// OpenSSL's decoder checks it, the extension policy applied, and an index
// built so that a lookup by serial costs a hash and a compare.
#include <cstring>
#include <new>

#include <openssl/asn1.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "r_crl_parts.h"

namespace {

constexpr uint32_t duplicate_mark = 0x80000000u;
constexpr uint32_t remove_from_crl = 8;

// A growing list of entry offsets, from OpenSSL's allocator.
struct Offsets {
    uint32_t* data = nullptr;
    uint32_t count = 0;
    uint32_t capacity = 0;

    bool push(uint32_t offset) {
        if (count == capacity) {
            const uint32_t grown = capacity == 0 ? 64 : capacity * 2;
            auto* moved =
                static_cast<uint32_t*>(OPENSSL_realloc(data, sizeof(uint32_t) * size_t{grown}));
            if (moved == nullptr)
                return false;
            data = moved;
            capacity = grown;
        }
        data[count++] = offset;
        return true;
    }
};

// Whether an entry's reason extension reads, as OpenSSL's decoder of the
// extension reads it (it ignores what follows the ENUMERATED), and what it says.
bool read_reason(const RDer& value, long* reason) {
    // The form every CA writes, without a trip through OpenSSL.
    if (value.length == 3 && value.data[0] == r_der_enumerated && value.data[1] == 1) {
        *reason = value.data[2] < 0x80 ? value.data[2] : -1;
        return true;
    }
    const unsigned char* cursor = value.data;
    ASN1_ENUMERATED* read = d2i_ASN1_ENUMERATED(nullptr, &cursor, static_cast<long>(value.length));
    if (read == nullptr) {
        ERR_clear_error();
        return false;
    }
    *reason = ASN1_ENUMERATED_get(read);
    ASN1_ENUMERATED_free(read);
    ERR_clear_error();
    return true;
}

struct Walk {
    bool acceptable = true; // every extension passes the policy
    bool readingReasons = true;
    uint32_t idpCount = 0;
    RDer idpValue;
};

// An entry's extensions: each one well formed, the policy, and whether
// OpenSSL would read its reason (one reason extension that decodes).
bool walk_entry_extensions(RDer list, Walk* walk, bool* reasonReadable) {
    uint32_t reasons = 0;
    bool readable = true;
    while (!list.empty()) {
        RExtView ext;
        if (!r_ext_next(&list, &ext))
            return false;
        if (!r_ext_acceptable(ext, 1))
            walk->acceptable = false;
        if (walk->readingReasons && r_ext_nid(ext.oid) == NID_crl_reason) {
            long reason = 0;
            ++reasons;
            if (!read_reason(ext.value, &reason))
                readable = false;
        }
    }
    *reasonReadable = readable && reasons <= 1;
    return true;
}

// One entry: SEQUENCE { serial INTEGER, date Time, extensions OPTIONAL }.
bool walk_entry(RDer* list, Walk* walk, RDerElement* entry, RDer* serial, bool* reasonReadable) {
    if (!r_der_take(list, r_der_sequence, entry))
        return false;
    RDer fields = entry->content;
    RDerElement element;
    if (!r_der_take(&fields, r_der_integer, &element) || !r_der_integer_ok(element.content))
        return false;
    *serial = element.content;
    if (!r_der_next(&fields, &element) ||
        (element.tag != r_der_utc_time && element.tag != r_der_generalized_time))
        return false;
    *reasonReadable = true;
    if (r_der_peek(fields, r_der_sequence)) {
        if (!r_der_take_sequence_of(&fields, &element) ||
            !walk_entry_extensions(element.content, walk, reasonReadable))
            return false;
    }
    return fields.empty();
}

// The serial of the entry at offset, in a list that ends at end.
RDer serial_at(const unsigned char* der, uint32_t end, uint32_t offset) {
    const unsigned char* at = der + offset;
    // Checked when indexed, so only the headers are read again; most entries
    // and serials are short enough for one length octet each.
    if (at[1] < 0x80 && at[3] < 0x80)
        return {at + 4, at[3]};
    RDer rest{at, end - offset};
    RDerElement entry;
    RDerElement serial;
    r_der_next(&rest, &entry);
    RDer fields = entry.content;
    r_der_next(&fields, &serial);
    return serial.content;
}

// Where the entry after the one at offset starts.
uint32_t next_offset(const unsigned char* der, uint32_t end, uint32_t offset) {
    const unsigned char* at = der + offset;
    if (at[1] < 0x80)
        return offset + 2 + at[1];
    RDer rest{at, end - offset};
    RDerElement entry;
    r_der_next(&rest, &entry);
    return offset + static_cast<uint32_t>(entry.whole.length);
}

uint32_t list_end(const RCrlIndex& index) {
    return index.entryList.offset + index.entryList.length;
}

bool same(const RDer& a, const RDer& b) {
    return a.length == b.length && std::memcmp(a.data, b.data, a.length) == 0;
}

// The slots are filled through a wider table that holds each serial's hash
// beside its entry, so a collision is told apart without reading the entry,
// and the slot of an entry a few ahead is fetched from memory while this one
// goes in: a million entries land in random places of a table too large for
// the caches.
bool build_slots(const unsigned char* der, RCrlIndex* index) {
    const uint32_t count = index->entryCount;
    // Sorted entries are searched where they lie.
    if (count == 0 || index->entriesSorted)
        return true;
    uint32_t size = 2;
    while (size < count * uint64_t{2})
        size *= 2;
    const uint32_t mask = size - 1;
    auto* wide = static_cast<uint64_t*>(OPENSSL_zalloc(sizeof(uint64_t) * size_t{size}));
    index->slots = static_cast<uint32_t*>(OPENSSL_malloc(sizeof(uint32_t) * size_t{size}));
    if (wide == nullptr || index->slots == nullptr) {
        OPENSSL_free(wide);
        return false;
    }
    index->slotMask = mask;
    const uint32_t end = list_end(*index);
    // Two cursors walk the list: one hashing ahead, one inserting.
    uint32_t aheadOffset = index->entryList.offset;
    uint32_t offset = index->entryList.offset;
    constexpr uint32_t ahead = 16;
    uint32_t hashes[ahead];
    auto look_ahead = [&](uint32_t number) {
        hashes[number % ahead] = r_serial_hash(serial_at(der, end, aheadOffset));
        aheadOffset = next_offset(der, end, aheadOffset);
        __builtin_prefetch(&wide[hashes[number % ahead] & mask], 1);
    };
    for (uint32_t number = 0; number < ahead && number < count; ++number)
        look_ahead(number);
    for (uint32_t number = 0; number < count; ++number) {
        const uint32_t hash = hashes[number % ahead];
        if (number + ahead < count)
            look_ahead(number + ahead);
        const RDer serial = serial_at(der, end, offset);
        for (uint32_t slot = hash & mask;; slot = (slot + 1) & mask) {
            const uint64_t held = wide[slot];
            if (held == 0) {
                wide[slot] = uint64_t{hash} << 32 | (number + 1);
                break;
            }
            const auto heldEntry = static_cast<uint32_t>(held);
            if (static_cast<uint32_t>(held >> 32) == hash &&
                same(serial_at(der, end,
                               r_crl_entry_offset(der, *index, (heldEntry & ~duplicate_mark) - 1)),
                     serial)) {
                wide[slot] = held | duplicate_mark;
                break;
            }
        }
        offset = next_offset(der, end, offset);
    }
    for (uint32_t slot = 0; slot < size; ++slot)
        index->slots[slot] = static_cast<uint32_t>(wide[slot]);
    OPENSSL_free(wide);
    return true;
}

// The keys of a sorted list's marks; an unsorted list is found by its slots.
bool build_mark_keys(const unsigned char* der, RCrlIndex* index) {
    if (index->entryCount == 0 || !index->entriesSorted)
        return true;
    const uint32_t markCount = (index->entryCount + r_entry_stride - 1) / r_entry_stride;
    index->markKeys = static_cast<uint32_t*>(OPENSSL_malloc(sizeof(uint32_t) * size_t{markCount}));
    if (index->markKeys == nullptr)
        return false;
    const uint32_t end = list_end(*index);
    for (uint32_t mark = 0; mark < markCount; ++mark)
        index->markKeys[mark] = r_serial_key(serial_at(der, end, index->marks[mark]));
    return true;
}

bool read_idp(const RDer& value, const X509_NAME* issuer, ISSUING_DIST_POINT** out) {
    const unsigned char* cursor = value.data;
    ISSUING_DIST_POINT* idp =
        d2i_ISSUING_DIST_POINT(nullptr, &cursor, static_cast<long>(value.length));
    if (idp == nullptr) {
        ERR_clear_error();
        return false;
    }
    const int onlyFlags = (idp->onlyuser ? 1 : 0) + (idp->onlyCA ? 1 : 0) + (idp->onlyattr ? 1 : 0);
    const bool emptyScope = idp->distpoint == nullptr && onlyFlags == 0 &&
                            idp->onlysomereasons == nullptr && !idp->indirectCRL;
    // An empty IDP, or one with two "only" flags, describes no scope.
    if (emptyScope || onlyFlags > 1 ||
        (idp->distpoint != nullptr && DIST_POINT_set_dpname(idp->distpoint, issuer) != 1)) {
        ERR_clear_error();
        ISSUING_DIST_POINT_free(idp);
        return false;
    }
    *out = idp;
    return true;
}

// Decodes span with d2i into *decoded: R_ERROR_DECODE, or
// R_ERROR_ALLOC_FAILURE when OpenSSL ran out of memory, on failure.
template <typename T>
int decode_whole(const unsigned char* der, const RCrlSpan& span,
                 T* (*d2i)(T**, const unsigned char**, long), T** decoded) {
    const unsigned char* cursor = der + span.offset;
    *decoded = d2i(nullptr, &cursor, static_cast<long>(span.length));
    if (*decoded == nullptr)
        return r_decode_failure();
    ERR_clear_error();
    return R_ERROR_NONE;
}

// The content of the list a part holds (already checked), under the
// part's explicit tag when it has one.
RCrlSpan list_of(const unsigned char* der, const RCrlSpan& part, bool tagged) {
    RDer in{der + part.offset, part.length};
    RDerElement element;
    r_der_next(&in, &element);
    if (tagged) {
        in = element.content;
        r_der_next(&in, &element);
    }
    return {static_cast<uint32_t>(element.content.data - der),
            static_cast<uint32_t>(element.content.length)};
}

int walk_extensions(const unsigned char* der, const RCrlSpan parts[R_PART_COUNT], RCrlIndex* index,
                    Walk* walk) {
    const RCrlSpan& part = parts[R_PART_EXTENSIONS];
    if (part.length == 0)
        return R_ERROR_NONE;
    index->extensionList = list_of(der, part, true);
    RDer rest{der + index->extensionList.offset, index->extensionList.length};
    while (!rest.empty()) {
        RExtView ext;
        if (!r_ext_next(&rest, &ext))
            return R_ERROR_DECODE;
        if (!r_ext_acceptable(ext, 0))
            walk->acceptable = false;
        if (r_ext_nid(ext.oid) == NID_issuing_distribution_point) {
            ++walk->idpCount;
            walk->idpValue = ext.value;
        }
    }
    return R_ERROR_NONE;
}

int walk_entries(const unsigned char* der, const RCrlSpan parts[R_PART_COUNT], RCrlIndex* index,
                 Walk* walk) {
    const RCrlSpan& part = parts[R_PART_ENTRIES];
    if (part.length == 0)
        return R_ERROR_NONE;
    index->entryList = list_of(der, part, false);
    Offsets marks;
    RDer list{der + index->entryList.offset, index->entryList.length};
    RDer previous;
    uint32_t count = 0;
    while (!list.empty()) {
        RDerElement entry;
        RDer serial;
        bool reasonReadable = true;
        if (!walk_entry(&list, walk, &entry, &serial, &reasonReadable) ||
            count == duplicate_mark - 1) {
            OPENSSL_free(marks.data);
            return R_ERROR_DECODE;
        }
        if (count % r_entry_stride == 0 &&
            !marks.push(static_cast<uint32_t>(entry.whole.data - der))) {
            OPENSSL_free(marks.data);
            return R_ERROR_ALLOC_FAILURE;
        }
        if (walk->readingReasons && !reasonReadable) {
            walk->readingReasons = false;
            index->reasonsReadUpTo = count;
        }
        if (!previous.empty() && r_serial_order(previous, serial) > 0)
            index->entriesSorted = false;
        previous = serial;
        ++count;
    }
    index->marks = marks.data;
    index->entryCount = count;
    if (walk->readingReasons)
        index->reasonsReadUpTo = count;
    return R_ERROR_NONE;
}

// The entries' index carried over from one that knows them: their offsets
// moved with the list, and an inserted entry read alone.
int carry_entries(const unsigned char* der, const RCrlSpan parts[R_PART_COUNT],
                  const RCrlKnownEntries& known, RCrlIndex* index, Walk* walk) {
    const RCrlIndex& from = *known.from;
    const RCrlSpan& part = parts[R_PART_ENTRIES];
    if (part.length == 0)
        return R_ERROR_NONE;
    const RCrlSpan list = list_of(der, part, false);
    const uint32_t count = from.entryCount + (known.inserted ? 1 : 0);
    if (count == duplicate_mark)
        return R_ERROR_DECODE;
    index->entryList = list;
    index->entriesSorted = from.entriesSorted;
    index->reasonsReadUpTo = from.reasonsReadUpTo;
    if (count == 0)
        return R_ERROR_NONE;
    const uint32_t markCount = (count + r_entry_stride - 1) / r_entry_stride;
    index->marks = static_cast<uint32_t*>(OPENSSL_malloc(sizeof(uint32_t) * size_t{markCount}));
    if (index->marks == nullptr)
        return R_ERROR_ALLOC_FAILURE;
    index->entryCount = count;
    if (!known.inserted) {
        // The same entries, moved with their list.
        for (uint32_t mark = 0; mark < markCount; ++mark)
            index->marks[mark] = from.marks[mark] - from.entryList.offset + list.offset;
        return R_ERROR_NONE;
    }
    const uint32_t end = list.offset + list.length;
    uint32_t offset = list.offset;
    for (uint32_t number = 0; number < count; ++number) {
        if (number % r_entry_stride == 0)
            index->marks[number / r_entry_stride] = offset;
        offset = next_offset(der, end, offset);
    }
    const uint32_t place = known.place;
    const uint32_t added = list.length - from.entryList.length;
    const uint32_t relative = known.insertedAt;
    RDer element{der + list.offset + relative, added};
    RDerElement entry;
    RDer serial;
    bool reasonReadable = true;
    if (!walk_entry(&element, walk, &entry, &serial, &reasonReadable) || !element.empty())
        return R_ERROR_DECODE;
    // OpenSSL stops reading reasons at the first it cannot read.
    const bool allRead = from.reasonsReadUpTo == from.entryCount;
    if (allRead || place <= from.reasonsReadUpTo)
        index->reasonsReadUpTo = reasonReadable ? index->reasonsReadUpTo + 1 : place;
    return R_ERROR_NONE;
}

} // namespace

void r_crl_index_free(RCrlIndex* index) {
    OPENSSL_free(index->marks);
    OPENSSL_free(index->markKeys);
    OPENSSL_free(index->slots);
    X509_NAME_free(index->issuer);
    X509_ALGOR_free(index->signatureAlgorithm);
    ISSUING_DIST_POINT_free(index->idp);
    *index = RCrlIndex{};
}

int r_crl_index_build(const unsigned char* der, const RCrlSpan parts[R_PART_COUNT],
                      const RCrlKnownEntries* known, RCrlIndex* out) {
    RCrlIndex index;
    Walk walk;
    // What OpenSSL's decoder checks comes first, so that a CRL it refuses is
    // refused as undecodable even when the policy would refuse it too.
    int status = R_ERROR_NONE;
    const RCrlSpan& issuer = parts[R_PART_ISSUER];
    const RCrlSpan& algorithm = parts[R_PART_SIGNATURE_ALGORITHM];
    if (issuer.length != 0)
        status = decode_whole<X509_NAME>(der, issuer, d2i_X509_NAME, &index.issuer);
    if (status == R_ERROR_NONE && algorithm.length != 0)
        status =
            decode_whole<X509_ALGOR>(der, algorithm, d2i_X509_ALGOR, &index.signatureAlgorithm);
    if (status == R_ERROR_NONE)
        status = walk_extensions(der, parts, &index, &walk);
    if (status == R_ERROR_NONE)
        status = known != nullptr ? carry_entries(der, parts, *known, &index, &walk)
                                  : walk_entries(der, parts, &index, &walk);
    if (status == R_ERROR_NONE &&
        (!walk.acceptable || walk.idpCount > 1 ||
         (walk.idpCount == 1 && !read_idp(walk.idpValue, index.issuer, &index.idp))))
        status = R_ERROR_UNSUPPORTED;
    if (status == R_ERROR_NONE && (!build_slots(der, &index) || !build_mark_keys(der, &index)))
        status = R_ERROR_ALLOC_FAILURE;
    if (status != R_ERROR_NONE) {
        r_crl_index_free(&index);
        return status;
    }
    *out = index;
    return R_ERROR_NONE;
}

uint32_t r_crl_entry_offset(const unsigned char* der, const RCrlIndex& index, uint32_t number) {
    const uint32_t end = list_end(index);
    uint32_t offset = index.marks[number / r_entry_stride];
    for (uint32_t step = number % r_entry_stride; step > 0; --step)
        offset = next_offset(der, end, offset);
    return offset;
}

RDer r_crl_entry_element(const R_CRL* crl, uint32_t number) {
    const uint32_t offset = r_crl_entry_offset(crl->der, crl->index, number);
    RDer rest{crl->der + offset, crl->length - offset};
    RDerElement entry;
    r_der_next(&rest, &entry);
    return entry.whole;
}

REntryView r_entry_view(RDer element) {
    REntryView view;
    RDerElement entry;
    RDerElement field;
    r_der_next(&element, &entry);
    RDer fields = entry.content;
    r_der_next(&fields, &field);
    view.serial = field.content;
    r_der_next(&fields, &field);
    view.date = field.whole;
    if (!fields.empty() && r_der_next(&fields, &field))
        view.extensions = field.content;
    return view;
}

bool r_crl_entry_removed(const R_CRL* crl, uint32_t number, const RDer& element) {
    // Past the first reason OpenSSL could not read, it reads none.
    if (number >= crl->index.reasonsReadUpTo)
        return false;
    RDer list = r_entry_view(element).extensions;
    RExtView ext;
    while (r_ext_next(&list, &ext)) {
        long reason = 0;
        if (r_ext_nid(ext.oid) == NID_crl_reason)
            return read_reason(ext.value, &reason) && reason == remove_from_crl;
    }
    return false;
}

namespace {

// An entry: its number and where its element starts.
struct Place {
    uint32_t number;
    uint32_t offset;
};

// The first of the entries listing serial, found by halving the marks of
// a sorted list and walking the entries after the last mark before it;
// number count when none does.
Place first_in_sorted(const R_CRL* crl, const RDer& serial, uint32_t end) {
    const RCrlIndex& index = crl->index;
    const uint32_t markCount = (index.entryCount + r_entry_stride - 1) / r_entry_stride;
    const uint32_t key = r_serial_key(serial);
    uint32_t low = 0;
    uint32_t high = markCount;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        const uint32_t markKey = index.markKeys[middle];
        const bool keysDecide =
            markKey != key && markKey != r_serial_undecided && key != r_serial_undecided;
        if (keysDecide ? markKey < key
                       : r_serial_order(serial_at(crl->der, end, index.marks[middle]), serial) < 0)
            low = middle + 1;
        else
            high = middle;
    }
    // Marks before low list smaller serials; the entry sought is after the last of them.
    Place at{low == 0 ? 0 : (low - 1) * r_entry_stride, index.marks[low == 0 ? 0 : low - 1]};
    for (; at.number < index.entryCount; ++at.number) {
        const int order = r_serial_order(serial_at(crl->der, end, at.offset), serial);
        if (order == 0)
            return at;
        if (order > 0)
            break;
        at.offset = next_offset(crl->der, end, at.offset);
    }
    return {index.entryCount, 0};
}

// The first entry listing serial, by its hash; number count when none does.
Place first_by_hash(const R_CRL* crl, const RDer& serial, uint32_t end, bool* listedAgain) {
    const RCrlIndex& index = crl->index;
    for (uint32_t slot = r_serial_hash(serial) & index.slotMask;;
         slot = (slot + 1) & index.slotMask) {
        const uint32_t held = index.slots[slot];
        if (held == 0)
            return {index.entryCount, 0};
        const uint32_t found = (held & ~duplicate_mark) - 1;
        const uint32_t offset = r_crl_entry_offset(crl->der, index, found);
        if (same(serial_at(crl->der, end, offset), serial)) {
            *listedAgain = (held & duplicate_mark) != 0;
            return {found, offset};
        }
    }
}

RDer element_at(const R_CRL* crl, uint32_t end, uint32_t offset) {
    return {crl->der + offset, next_offset(crl->der, end, offset) - offset};
}

} // namespace

int r_crl_index_find(const R_CRL* crl, const RDer& serial, RDer* element) {
    const RCrlIndex& index = crl->index;
    if (index.entryCount == 0)
        return R_ERROR_NOT_FOUND;
    const uint32_t end = list_end(index);
    // In a sorted list the entries of one serial stand together; in a hashed
    // one the first is found and marked when others follow.
    bool listedAgain = index.entriesSorted;
    Place at = index.entriesSorted ? first_in_sorted(crl, serial, end)
                                   : first_by_hash(crl, serial, end, &listedAgain);
    if (at.number == index.entryCount)
        return R_ERROR_NOT_FOUND;
    if (!listedAgain) {
        *element = element_at(crl, end, at.offset);
        // removeFromCRL takes a certificate off the list again.
        return r_crl_entry_removed(crl, at.number, *element) ? R_ERROR_NOT_FOUND : R_ERROR_NONE;
    }
    // Listed more than once: any entry that does not take it off revokes it.
    for (; at.number < index.entryCount;
         ++at.number, at.offset = next_offset(crl->der, end, at.offset)) {
        const bool match = same(serial_at(crl->der, end, at.offset), serial);
        if (!match && index.entriesSorted)
            break;
        *element = element_at(crl, end, at.offset);
        if (match && !r_crl_entry_removed(crl, at.number, *element))
            return R_ERROR_NONE;
    }
    return R_ERROR_NOT_FOUND;
}
