// Durations as people write them in configuration: plain seconds or
// number-unit groups. The grammar is strict so that a typo ("1d5", "5x")
// is refused instead of silently meaning something else:
//
//   interval = digits | group { group }
//   group    = digits unit
//   unit     = "s" | "m" | "h" | "d" | "w"
//
// Groups may come in any order and repeat; their values add up. Units are
// lower case only. Nothing else is allowed: no sign, no spaces, no NUL.
#include <cstdint>

#include "qxlayer.h"

namespace {

constexpr uint64_t max_seconds = INT64_MAX;

// Seconds per unit, or 0 for a byte that is no unit.
uint64_t unit_seconds(char unit) {
    switch (unit) {
    case 's':
        return 1;
    case 'm':
        return 60;
    case 'h':
        return 3600;
    case 'd':
        return 86400;
    case 'w':
        return 7 * 86400;
    default:
        return 0;
    }
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Reads the digits at text[*at...] into *value; false when there are none or
// the number passes max_seconds.
bool read_number(const char* text, uint32_t length, uint32_t* at, uint64_t* value) {
    const uint32_t start = *at;
    uint64_t number = 0;
    for (; *at < length && is_digit(text[*at]); ++*at) {
        const auto digit = static_cast<uint64_t>(text[*at] - '0');
        if (number > (max_seconds - digit) / 10)
            return false;
        number = number * 10 + digit;
    }
    *value = number;
    return *at > start;
}

bool parse(const char* text, uint32_t length, uint64_t* seconds) {
    uint32_t at = 0;
    uint64_t total = 0;
    bool grouped = false;
    while (at < length) {
        uint64_t number = 0;
        if (!read_number(text, length, &at, &number))
            return false;
        if (at == length) {
            // A bare number is seconds only when it is the whole text.
            if (grouped)
                return false;
            total = number;
            break;
        }
        const uint64_t unit = unit_seconds(text[at++]);
        if (unit == 0 || number > max_seconds / unit || total > max_seconds - number * unit)
            return false;
        total += number * unit;
        grouped = true;
    }
    if (length == 0)
        return false;
    *seconds = total;
    return true;
}

} // namespace

extern "C" StatusCode qxutmtts_tsecs(SecurityContext*, const QxString* text, uint64_t* seconds) {
    if (text == nullptr || seconds == nullptr || (text->data == nullptr && text->length != 0))
        return QXL_ERR_BAD_ARGUMENT;
    return parse(text->data, text->length, seconds) ? 0 : QXL_ERR_INTERVAL;
}
