#include "ldap_framing.h"

#include <algorithm>

namespace qxldap {

namespace {

constexpr unsigned char sequence_tag = 0x30;
constexpr unsigned char integer_tag = 0x02;
constexpr unsigned char long_tag_form = 0x1f;
constexpr unsigned char long_length_form = 0x80;
// What libldap reads of a long-form length at most.
constexpr unsigned max_length_octets = 8;

} // namespace

bool FramingCheck::take(const unsigned char* bytes, size_t count) {
    size_t at = 0;
    while (!broken_ && at < count) {
        if (step_ == Step::IdValue || step_ == Step::Rest) {
            const uint64_t taken = std::min<uint64_t>(skip_, count - at);
            skip_ -= taken;
            at += static_cast<size_t>(taken);
            if (step_ == Step::IdValue)
                messageLeft_ -= taken;
            if (skip_ == 0)
                step_ = step_ == Step::IdValue ? Step::OpTag : Step::MessageTag;
        } else {
            broken_ = !take_header_byte(bytes[at++]);
        }
        // A message that ends inside its ID or operation header is broken as
        // soon as it ends, before libldap, which reads whole messages, sees it.
        if (messageLeft_ == 0 && (step_ == Step::IdTag || step_ == Step::IdLength ||
                                  step_ == Step::OpTag || step_ == Step::OpLength))
            broken_ = true;
    }
    return !broken_;
}

bool FramingCheck::take_header_byte(unsigned char byte) {
    // Inside a message, every byte is the message's own.
    if (step_ != Step::MessageTag && step_ != Step::MessageLength) {
        if (messageLeft_ == 0)
            return false;
        --messageLeft_;
    }
    switch (step_) {
    case Step::MessageTag:
        step_ = Step::MessageLength;
        return byte == sequence_tag;
    case Step::IdTag:
        step_ = Step::IdLength;
        return byte == integer_tag;
    case Step::OpTag:
        step_ = Step::OpLength;
        return (byte & long_tag_form) != long_tag_form;
    default:
        return take_length_byte(byte);
    }
}

bool FramingCheck::take_length_byte(unsigned char byte) {
    if (!lengthStarted_) {
        lengthStarted_ = true;
        if ((byte & long_length_form) == 0)
            return length_done(byte);
        lengthOctets_ = byte & ~long_length_form;
        length_ = 0;
        // Indefinite lengths and lengths past 64 bits are not LDAP's.
        return lengthOctets_ != 0 && lengthOctets_ <= max_length_octets;
    }
    if (length_ > (UINT64_MAX >> 8))
        return false;
    length_ = (length_ << 8) | byte;
    return --lengthOctets_ != 0 || length_done(length_);
}

bool FramingCheck::length_done(uint64_t length) {
    lengthStarted_ = false;
    switch (step_) {
    case Step::MessageLength:
        messageLeft_ = length;
        step_ = Step::IdTag;
        return true;
    case Step::IdLength:
        // An empty ID, or one longer than the message, frames nothing.
        if (length == 0 || length > messageLeft_)
            return false;
        skip_ = length;
        step_ = Step::IdValue;
        return true;
    default: // OpLength
        if (length > messageLeft_)
            return false;
        // The operation and any controls after it.
        skip_ = messageLeft_;
        messageLeft_ = 0;
        step_ = skip_ == 0 ? Step::MessageTag : Step::Rest;
        return true;
    }
}

} // namespace qxldap
