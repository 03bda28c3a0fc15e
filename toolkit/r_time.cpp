// Times: whole UTC seconds since 1970, the replaceable clock, export and
// import, and conversion to and from ASN1_TIME.
#include <atomic>
#include <cstdio>
#include <ctime>
#include <limits>
#include <new>

#include <openssl/asn1.h>
#include <openssl/err.h>

#include "r_objects.h"

namespace {

int64_t system_clock() {
    return static_cast<int64_t>(std::time(nullptr));
}

std::atomic<R_TIME_CLOCK> currentClock{system_clock};

constexpr int64_t secondsPerDay = 86400;

// Days since 1970-01-01 of a proleptic Gregorian date; no time zone involved,
// unlike mktime.
constexpr int64_t days_from_civil(int64_t year, unsigned month, unsigned day) {
    year -= month <= 2 ? 1 : 0;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const auto yearOfEra = static_cast<unsigned>(year - era * 400);
    const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + static_cast<int64_t>(dayOfEra) - 719468;
}

struct Civil {
    int64_t year;
    unsigned month;
    unsigned day;
};

constexpr Civil civil_from_days(int64_t days) {
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const auto dayOfEra = static_cast<unsigned>(days - era * 146097);
    const unsigned yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned shiftedMonth = (5 * dayOfYear + 2) / 153;
    const unsigned day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
    const unsigned month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
    const int64_t year = static_cast<int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);
    return {year, month, day};
}

static_assert(days_from_civil(1970, 1, 1) == 0);
static_assert(days_from_civil(2000, 3, 1) == 11017);
static_assert(civil_from_days(-1).year == 1969 && civil_from_days(-1).day == 31);

// Floor division, so times before 1970 land on the right day.
constexpr int64_t floor_div(int64_t value, int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

int export_rfc3339(int64_t seconds, unsigned char* buffer, uint32_t* length, uint32_t max) {
    const int64_t days = floor_div(seconds, secondsPerDay);
    const int64_t ofDay = seconds - days * secondsPerDay;
    const Civil date = civil_from_days(days);
    // The text form has a four-digit year.
    if (date.year < 0 || date.year > 9999)
        return R_ERROR_FAILED;
    char text[32];
    const int written = std::snprintf(
        text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year),
        date.month, date.day, static_cast<int>(ofDay / 3600), static_cast<int>(ofDay / 60 % 60),
        static_cast<int>(ofDay % 60));
    if (written <= 0 || static_cast<size_t>(written) >= sizeof text)
        return R_ERROR_FAILED;
    *length = static_cast<uint32_t>(written);
    if (*length > max)
        return R_ERROR_BUFFER_TOO_SMALL;
    for (int i = 0; i < written; ++i)
        buffer[i] = static_cast<unsigned char>(text[i]);
    return R_ERROR_NONE;
}

int export_seconds(int64_t seconds, unsigned char* buffer, uint32_t* length, uint32_t max) {
    // The format is unsigned.
    if (seconds < 0)
        return R_ERROR_FAILED;
    *length = 8;
    if (max < 8)
        return R_ERROR_BUFFER_TOO_SMALL;
    auto value = static_cast<uint64_t>(seconds);
    for (int i = 7; i >= 0; --i) {
        buffer[i] = static_cast<unsigned char>(value & 0xff);
        value >>= 8;
    }
    return R_ERROR_NONE;
}

} // namespace

bool r_time_from_asn1(const ASN1_TIME* asn1, int64_t* seconds) {
    if (asn1 == nullptr || seconds == nullptr || ASN1_STRING_length(asn1) == 0)
        return false;
    std::tm parts{};
    if (ASN1_TIME_to_tm(asn1, &parts) != 1) {
        ERR_clear_error();
        return false;
    }
    const int64_t days = days_from_civil(static_cast<int64_t>(parts.tm_year) + 1900,
                                         static_cast<unsigned>(parts.tm_mon + 1),
                                         static_cast<unsigned>(parts.tm_mday));
    *seconds = days * secondsPerDay + parts.tm_hour * 3600 + parts.tm_min * 60 + parts.tm_sec;
    return true;
}

ASN1_TIME* r_time_to_asn1(int64_t seconds, ASN1_TIME* reuse) {
    if (seconds < std::numeric_limits<time_t>::min() ||
        seconds > std::numeric_limits<time_t>::max())
        return nullptr;
    // ASN1_TIME_set picks UTCTime for 1950 to 2049 and GeneralizedTime
    // otherwise, as RFC 5280 requires.
    ASN1_TIME* made = ASN1_TIME_set(reuse, static_cast<time_t>(seconds));
    if (made == nullptr)
        ERR_clear_error();
    return made;
}

int r_crl_time(int64_t seconds, ASN1_TIME** asn1) {
    // UTCTime cannot hold a year before 1950, and a GeneralizedTime past
    // 9999 has a year of five digits that no reader takes.
    constexpr int64_t first = -631152000;  // 1950-01-01T00:00:00Z
    constexpr int64_t last = 253402300799; // 9999-12-31T23:59:59Z
    if (seconds < first || seconds > last)
        return R_ERROR_TIME_RANGE;
    *asn1 = r_time_to_asn1(seconds, nullptr);
    return *asn1 == nullptr ? R_ERROR_ALLOC_FAILURE : R_ERROR_NONE;
}

extern "C" void R_TIME_set_clock(R_TIME_CLOCK clock) {
    currentClock.store(clock != nullptr ? clock : system_clock);
}

extern "C" int R_TIME_CTX_new(R_LIB_CTX* libCtx, uint32_t flags, R_TIME_CTX** timeCtx) {
    return r_new_holder(libCtx, flags, timeCtx);
}

extern "C" int R_TIME_CTX_free(R_TIME_CTX* timeCtx) {
    r_delete(timeCtx);
    return R_ERROR_NONE;
}

extern "C" int R_TIME_new(R_TIME_CTX* timeCtx, R_TIME** time) {
    if (timeCtx == nullptr || time == nullptr)
        return R_ERROR_NULL_ARG;
    *time = r_new<R_TIME>(0, timeCtx->libCtx);
    return *time == nullptr ? R_ERROR_ALLOC_FAILURE : R_ERROR_NONE;
}

extern "C" int R_TIME_time(R_TIME* time) {
    if (time == nullptr)
        return R_ERROR_NULL_ARG;
    const R_LIB_CTX* libCtx = time->libCtx;
    time->seconds = libCtx != nullptr && libCtx->timeFixed.load() ? libCtx->fixedSeconds.load()
                                                                  : currentClock.load()();
    return R_ERROR_NONE;
}

extern "C" int R_TIME_dup(R_TIME* time, R_TIME** copy) {
    if (time == nullptr || copy == nullptr)
        return R_ERROR_NULL_ARG;
    *copy = r_new<R_TIME>(time->seconds, time->libCtx);
    return *copy == nullptr ? R_ERROR_ALLOC_FAILURE : R_ERROR_NONE;
}

extern "C" int R_TIME_export(R_TIME* time, int format, unsigned char* buffer, uint32_t* length,
                             uint32_t max) {
    if (time == nullptr || buffer == nullptr || length == nullptr)
        return R_ERROR_NULL_ARG;
    switch (format) {
    case R_TIME_FORMAT_RFC3339:
        return export_rfc3339(time->seconds, buffer, length, max);
    case R_TIME_FORMAT_SECONDS_BE:
        return export_seconds(time->seconds, buffer, length, max);
    default:
        return R_ERROR_FAILED;
    }
}

extern "C" int R_TIME_import(R_TIME* time, int format, const unsigned char* buffer,
                             uint32_t length) {
    if (time == nullptr || buffer == nullptr)
        return R_ERROR_NULL_ARG;
    if (format != R_TIME_FORMAT_SECONDS_BE)
        return R_ERROR_FAILED;
    if (length != 8)
        return R_ERROR_DECODE;
    uint64_t value = 0;
    for (uint32_t i = 0; i < 8; ++i)
        value = value << 8 | buffer[i];
    if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return R_ERROR_DECODE;
    time->seconds = static_cast<int64_t>(value);
    return R_ERROR_NONE;
}

extern "C" int R_TIME_cmp(R_TIME* first, R_TIME* second, int32_t* result) {
    if (first == nullptr || second == nullptr || result == nullptr)
        return R_ERROR_NULL_ARG;
    *result = first->seconds > second->seconds ? 1 : (first->seconds < second->seconds ? -1 : 0);
    return R_ERROR_NONE;
}

extern "C" int R_TIME_free(R_TIME* time) {
    r_delete(time);
    return R_ERROR_NONE;
}
