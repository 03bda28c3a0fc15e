/*
 * Reading and writing DER in place: views over bytes someone else owns, in
 * the manner of a byte-string cursor. Nothing here allocates.
 *
 * The reader takes what OpenSSL's template decoder takes for the encodings
 * a CRL uses, except the forms only BER allows (indefinite lengths,
 * constructed strings, tag numbers in the long form): RFC 5280 signs a CRL's
 * DER, and a second way to read the same bytes is a second way to fool a reader.
 */
#ifndef QXCRL_TOOLKIT_R_DER_H
#define QXCRL_TOOLKIT_R_DER_H

#include <cstddef>
#include <cstdint>

/* Identifier octets the toolkit reads and writes. */
constexpr unsigned char r_der_boolean = 0x01;
constexpr unsigned char r_der_integer = 0x02;
constexpr unsigned char r_der_bit_string = 0x03;
constexpr unsigned char r_der_octet_string = 0x04;
constexpr unsigned char r_der_oid = 0x06;
constexpr unsigned char r_der_enumerated = 0x0a;
constexpr unsigned char r_der_utc_time = 0x17;
constexpr unsigned char r_der_generalized_time = 0x18;
constexpr unsigned char r_der_sequence = 0x30;
constexpr unsigned char r_der_explicit_0 = 0xa0;
constexpr unsigned char r_der_constructed = 0x20;

/* A run of bytes owned elsewhere. */
struct RDer {
    const unsigned char* data = nullptr;
    size_t length = 0;

    bool empty() const { return length == 0; }
};

/* One element: its identifier octet, its content, and the whole TLV. */
struct RDerElement {
    unsigned char tag = 0;
    RDer content;
    RDer whole;
};

/* r_der_next for a length in the long form. */
bool r_der_next_long(RDer* in, RDerElement* element);

/*
 * Takes the next element off the front of *in. False, with *in unchanged,
 * when the header is malformed, the content runs past the end, or the
 * element uses a BER-only form.
 */
inline bool r_der_next(RDer* in, RDerElement* element) {
    // Inline for the short form, which nearly every element of a CRL has.
    if (in->length < 2 || (in->data[1] & 0x80) != 0)
        return r_der_next_long(in, element);
    const unsigned char tag = in->data[0];
    const size_t length = in->data[1];
    if ((tag & 0x1f) == 0x1f || length > in->length - 2)
        return false;
    element->tag = tag;
    element->content = {in->data + 2, length};
    element->whole = {in->data, 2 + length};
    in->data += 2 + length;
    in->length -= 2 + length;
    return true;
}

/* Whether the next element has tag's class and number, constructed or not. */
bool r_der_peek(const RDer& in, unsigned char tag);

/* Takes the next element, which must carry exactly tag; false otherwise. */
inline bool r_der_take(RDer* in, unsigned char tag, RDerElement* element) {
    RDer rest = *in;
    if (!r_der_next(&rest, element) || element->tag != tag)
        return false;
    *in = rest;
    return true;
}

/*
 * Takes a SEQUENCE OF: OpenSSL reads one under the primitive form of the tag
 * as well, which DER never writes but which is no BER-only form either.
 */
inline bool r_der_take_sequence_of(RDer* in, RDerElement* element) {
    RDer rest = *in;
    if (!r_der_next(&rest, element) ||
        (element->tag != r_der_sequence && element->tag != (r_der_sequence & ~r_der_constructed)))
        return false;
    *in = rest;
    return true;
}

/* Whether tag is a universal string type in the constructed form BER allows. */
bool r_der_string_in_pieces(unsigned char tag);

/*
 * Whether a name reads as DER as far as OpenSSL's decoder of names reads
 * it (which would take BER there): its RDNs, attributes, and their fields'
 * headers.
 */
bool r_der_strict_name(const RDer& whole);

/* INTEGER content octets as OpenSSL takes them: not empty, no padding octet. */
inline bool r_der_integer_ok(const RDer& content) {
    if (content.empty())
        return false;
    if (content.length == 1)
        return true;
    const unsigned char first = content.data[0];
    const bool secondHigh = (content.data[1] & 0x80) != 0;
    // A padding octet is one the value did not need.
    return !((first == 0x00 && !secondHigh) || (first == 0xff && secondHigh));
}

/* OBJECT IDENTIFIER content octets as OpenSSL takes them. */
bool r_der_oid_ok(const RDer& content);

/* The size of a header for content of length bytes. */
size_t r_der_header_size(size_t length);

/* Writes a header at out (r_der_header_size(length) bytes); returns the end. */
unsigned char* r_der_write_header(unsigned char* out, unsigned char tag, size_t length);

#endif
