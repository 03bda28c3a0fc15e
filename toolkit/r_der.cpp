// DER views: headers, the element checks OpenSSL makes, and writing headers.
#include "r_der.h"

namespace {

constexpr unsigned char long_form_tag = 0x1f;
constexpr unsigned char indefinite = 0x80;

// A length in the long form, as OpenSSL reads it: leading zero octets are
// skipped, at most eight remain, and one octet more than the length octets
// must follow them even when the content is empty.
bool long_length(const unsigned char* octets, size_t available, unsigned count, size_t* length,
                 size_t* used) {
    if (available < size_t{count} + 1)
        return false;
    unsigned skipped = 0;
    while (skipped < count && octets[skipped] == 0)
        ++skipped;
    if (count - skipped > 8)
        return false;
    uint64_t value = 0;
    for (unsigned i = skipped; i < count; ++i)
        value = value << 8 | octets[i];
    if (value > static_cast<uint64_t>(INT64_MAX))
        return false;
    *length = static_cast<size_t>(value);
    *used = count;
    return true;
}

} // namespace

bool r_der_next_long(RDer* in, RDerElement* element) {
    if (in->length < 2)
        return false;
    const unsigned char tag = in->data[0];
    if ((tag & long_form_tag) == long_form_tag)
        return false;
    const unsigned char first = in->data[1];
    if (first == indefinite)
        return false;
    size_t length = first;
    size_t header = 2;
    if ((first & 0x80) != 0) {
        size_t used = 0;
        if (!long_length(in->data + 2, in->length - 2, first & 0x7fu, &length, &used))
            return false;
        header += used;
    }
    if (length > in->length - header)
        return false;
    element->tag = tag;
    element->content = {in->data + header, length};
    element->whole = {in->data, header + length};
    in->data += header + length;
    in->length -= header + length;
    return true;
}

bool r_der_peek(const RDer& in, unsigned char tag) {
    return !in.empty() && (in.data[0] & ~r_der_constructed) == (tag & ~r_der_constructed);
}

bool r_der_oid_ok(const RDer& content) {
    if (content.empty() || (content.data[content.length - 1] & 0x80) != 0)
        return false;
    for (size_t i = 0; i < content.length; ++i) {
        // 0x80 cannot start a subidentifier: it would be a padding octet.
        if (content.data[i] == 0x80 && (i == 0 || (content.data[i - 1] & 0x80) == 0))
            return false;
    }
    return true;
}

bool r_der_string_in_pieces(unsigned char tag) {
    // The universal types that BER may break into constructed pieces.
    const unsigned number = tag & 0x1fu;
    return (tag & 0xe0) == r_der_constructed &&
           (number == 3 || number == 4 || number == 12 || (number >= 18 && number <= 30));
}

bool r_der_strict_name(const RDer& whole) {
    // OpenSSL reads a name down to its attributes' values, and of a value
    // only the header: a value of a type it keeps whole is not read inside.
    RDer in = whole;
    RDerElement name;
    if (!r_der_next(&in, &name))
        return false;
    for (RDer rdns = name.content; !rdns.empty();) {
        RDerElement rdn;
        if (!r_der_next(&rdns, &rdn))
            return false;
        for (RDer attributes = rdn.content; !attributes.empty();) {
            RDerElement attribute;
            if (!r_der_next(&attributes, &attribute))
                return false;
            for (RDer fields = attribute.content; !fields.empty();) {
                RDerElement field;
                if (!r_der_next(&fields, &field) || r_der_string_in_pieces(field.tag))
                    return false;
            }
        }
    }
    return true;
}

size_t r_der_header_size(size_t length) {
    if (length < 0x80)
        return 2;
    size_t size = 2;
    for (size_t rest = length; rest != 0; rest >>= 8)
        ++size;
    return size;
}

unsigned char* r_der_write_header(unsigned char* out, unsigned char tag, size_t length) {
    *out++ = tag;
    if (length < 0x80) {
        *out++ = static_cast<unsigned char>(length);
        return out;
    }
    unsigned octets = 0;
    for (size_t rest = length; rest != 0; rest >>= 8)
        ++octets;
    *out++ = static_cast<unsigned char>(0x80 | octets);
    for (unsigned i = octets; i > 0; --i)
        *out++ = static_cast<unsigned char>(length >> (8 * (i - 1)));
    return out;
}
