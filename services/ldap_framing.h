// The LDAPMessage framing of what a directory sends, checked as it arrives.
//
// libldap looks up the request a message answers before it reads the
// message's operation header; when that header is malformed it gives up
// without letting go of the request, which then outlives the connection.
// So whatever does not frame as SEQUENCE { INTEGER id, operation ... },
// with definite lengths that nest, ends the connection before libldap
// reads it.
#ifndef QXCRL_SERVICES_LDAP_FRAMING_H
#define QXCRL_SERVICES_LDAP_FRAMING_H

#include <cstddef>
#include <cstdint>

namespace qxldap {

class FramingCheck {
  public:
    // Takes the next count bytes of the stream, in any slicing; false from
    // the first byte that cannot belong to a well-framed message on.
    bool take(const unsigned char* bytes, size_t count);

  private:
    enum class Step { MessageTag, MessageLength, IdTag, IdLength, IdValue, OpTag, OpLength, Rest };

    bool take_header_byte(unsigned char byte);
    bool take_length_byte(unsigned char byte);
    bool length_done(uint64_t length);

    Step step_ = Step::MessageTag;
    bool broken_ = false;
    uint64_t messageLeft_ = 0;  // content bytes of the message not yet taken
    uint64_t skip_ = 0;         // bytes of IdValue or Rest not yet taken
    uint64_t length_ = 0;       // the length being read
    unsigned lengthOctets_ = 0; // long-form octets of it still to come
    bool lengthStarted_ = false;
};

} // namespace qxldap

#endif
