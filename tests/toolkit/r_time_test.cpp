// Toolkit times: export and import, comparison, the replaceable clock, and
// the conversion to and from ASN1_TIME that CRL reading and writing share.
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/err.h>

#include "toolkit/r_objects.h"
#include "toolkit/r_toolkit.h"

namespace {

struct Times {
    R_LIB_CTX* lib = nullptr;
    R_TIME_CTX* ctx = nullptr;
    Times() {
        EXPECT_EQ(R_LIB_CTX_new(R_LIB_CTX_SHARED, &lib), R_ERROR_NONE);
        EXPECT_EQ(R_TIME_CTX_new(lib, 0, &ctx), R_ERROR_NONE);
    }
    ~Times() {
        R_TIME_CTX_free(ctx);
        R_LIB_CTX_free(lib);
    }
    R_TIME* make() {
        R_TIME* time = nullptr;
        EXPECT_EQ(R_TIME_new(ctx, &time), R_ERROR_NONE);
        return time;
    }
};

struct TimeFree {
    void operator()(R_TIME* time) const { R_TIME_free(time); }
};
using TimePtr = std::unique_ptr<R_TIME, TimeFree>;

// Seconds into a time object through the only setter there is, format 3, and
// through ASN1 for times before 1970.
void set_seconds(R_TIME* time, int64_t seconds) {
    unsigned char bytes[8];
    auto value = static_cast<uint64_t>(seconds);
    for (int i = 7; i >= 0; --i, value >>= 8)
        bytes[i] = static_cast<unsigned char>(value);
    ASSERT_EQ(R_TIME_import(time, R_TIME_FORMAT_SECONDS_BE, bytes, 8), R_ERROR_NONE);
}

std::string rfc3339(R_TIME* time, int* status = nullptr) {
    unsigned char buffer[128];
    uint32_t length = 0;
    const int result = R_TIME_export(time, R_TIME_FORMAT_RFC3339, buffer, &length, sizeof buffer);
    if (status != nullptr)
        *status = result;
    return result == R_ERROR_NONE ? std::string(buffer, buffer + length) : std::string();
}

} // namespace

TEST(ToolkitTime, ExportsKnownInstants) {
    Times times;
    TimePtr time(times.make());
    EXPECT_EQ(rfc3339(time.get()), "1970-01-01T00:00:00Z");

    const std::vector<std::pair<int64_t, std::string>> known = {
        {1795390793, "2026-11-22T23:39:53Z"}, {951782400, "2000-02-29T00:00:00Z"},
        {2524607999, "2049-12-31T23:59:59Z"}, {2524608000, "2050-01-01T00:00:00Z"},
        {4107542400, "2100-03-01T00:00:00Z"}, {253402300799, "9999-12-31T23:59:59Z"},
        {0x7fffffff, "2038-01-19T03:14:07Z"}, {0x80000000, "2038-01-19T03:14:08Z"},
    };
    for (const auto& [seconds, text] : known) {
        set_seconds(time.get(), seconds);
        EXPECT_EQ(rfc3339(time.get()), text) << seconds;
    }
    // Four digits are all the year has.
    set_seconds(time.get(), 253402300800);
    int status = 0;
    rfc3339(time.get(), &status);
    EXPECT_NE(status, R_ERROR_NONE);

    // The exact length fits; one byte less stores the length it needs.
    set_seconds(time.get(), 1795390793);
    unsigned char buffer[20];
    uint32_t length = 0;
    EXPECT_EQ(R_TIME_export(time.get(), R_TIME_FORMAT_RFC3339, buffer, &length, 19),
              R_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 20u);
    EXPECT_EQ(R_TIME_export(time.get(), R_TIME_FORMAT_RFC3339, buffer, &length, 20), R_ERROR_NONE);
    EXPECT_EQ(std::string(buffer, buffer + length), "2026-11-22T23:39:53Z");
    EXPECT_EQ(R_TIME_export(time.get(), 5, buffer, &length, 20), R_ERROR_FAILED);
    EXPECT_EQ(R_TIME_export(time.get(), R_TIME_FORMAT_RFC3339, nullptr, &length, 20),
              R_ERROR_NULL_ARG);
    EXPECT_EQ(R_TIME_export(nullptr, R_TIME_FORMAT_RFC3339, buffer, &length, 20), R_ERROR_NULL_ARG);
}

TEST(ToolkitTime, SecondsFormatRoundTrips) {
    Times times;
    TimePtr time(times.make());
    set_seconds(time.get(), 0x0102030405060708);
    unsigned char bytes[9] = {};
    uint32_t length = 0;
    ASSERT_EQ(R_TIME_export(time.get(), R_TIME_FORMAT_SECONDS_BE, bytes, &length, 9), R_ERROR_NONE);
    EXPECT_EQ(length, 8u);
    const unsigned char expected[9] = {1, 2, 3, 4, 5, 6, 7, 8, 0};
    EXPECT_EQ(std::memcmp(bytes, expected, 9), 0);
    EXPECT_EQ(R_TIME_export(time.get(), R_TIME_FORMAT_SECONDS_BE, bytes, &length, 7),
              R_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 8u);

    std::mt19937_64 random(1970);
    TimePtr other(times.make());
    for (int round = 0; round < 200; ++round) {
        const auto seconds = static_cast<int64_t>(random() % 253402300800);
        set_seconds(time.get(), seconds);
        ASSERT_EQ(R_TIME_export(time.get(), R_TIME_FORMAT_SECONDS_BE, bytes, &length, 8),
                  R_ERROR_NONE);
        ASSERT_EQ(R_TIME_import(other.get(), R_TIME_FORMAT_SECONDS_BE, bytes, length),
                  R_ERROR_NONE);
        int32_t order = 9;
        EXPECT_EQ(R_TIME_cmp(time.get(), other.get(), &order), R_ERROR_NONE);
        EXPECT_EQ(order, 0);
        EXPECT_EQ(rfc3339(time.get()), rfc3339(other.get()));
    }

    // Wrong lengths, values beyond the signed range and text are refused,
    // and leave the time as it was.
    set_seconds(time.get(), 42);
    const unsigned char top[8] = {0x80, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_NE(R_TIME_import(time.get(), R_TIME_FORMAT_SECONDS_BE, top, 8), R_ERROR_NONE);
    EXPECT_NE(R_TIME_import(time.get(), R_TIME_FORMAT_SECONDS_BE, expected, 7), R_ERROR_NONE);
    EXPECT_NE(R_TIME_import(time.get(), R_TIME_FORMAT_SECONDS_BE, expected, 9), R_ERROR_NONE);
    const char* text = "2026-11-22T23:39:53Z";
    EXPECT_NE(R_TIME_import(time.get(), R_TIME_FORMAT_RFC3339,
                            reinterpret_cast<const unsigned char*>(text), 20),
              R_ERROR_NONE);
    EXPECT_EQ(rfc3339(time.get()), "1970-01-01T00:00:42Z");
    EXPECT_EQ(R_TIME_import(time.get(), R_TIME_FORMAT_SECONDS_BE, nullptr, 8), R_ERROR_NULL_ARG);
}

TEST(ToolkitTime, AsnTimesAgreeWithOpenSsl) {
    Times times;
    TimePtr time(times.make());
    struct Known {
        int64_t seconds;
        int type;
        const char* asn1;
        const char* text;
    };
    const std::vector<Known> known = {
        {-1, V_ASN1_UTCTIME, "691231235959Z", "1969-12-31T23:59:59Z"},
        {-631152000, V_ASN1_UTCTIME, "500101000000Z", "1950-01-01T00:00:00Z"},
        {-631152001, V_ASN1_GENERALIZEDTIME, "19491231235959Z", "1949-12-31T23:59:59Z"},
        {-2208988800, V_ASN1_GENERALIZEDTIME, "19000101000000Z", "1900-01-01T00:00:00Z"},
        {2524607999, V_ASN1_UTCTIME, "491231235959Z", "2049-12-31T23:59:59Z"},
        {2524608000, V_ASN1_GENERALIZEDTIME, "20500101000000Z", "2050-01-01T00:00:00Z"},
        {-62135596800, V_ASN1_GENERALIZEDTIME, "00010101000000Z", "0001-01-01T00:00:00Z"},
    };
    for (const Known& k : known) {
        ASN1_TIME* asn1 = r_time_to_asn1(k.seconds, nullptr);
        ASSERT_NE(asn1, nullptr) << k.seconds;
        EXPECT_EQ(ASN1_STRING_type(asn1), k.type) << k.seconds;
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(asn1)),
                              static_cast<size_t>(ASN1_STRING_length(asn1))),
                  k.asn1);
        int64_t back = 0;
        EXPECT_TRUE(r_time_from_asn1(asn1, &back));
        EXPECT_EQ(back, k.seconds);
        ASN1_TIME_free(asn1);
    }
    // Random seconds from year 1 to 9999: OpenSSL's own calendar (gmtime)
    // makes the ASN1 text, ours reads it back and writes RFC 3339.
    std::mt19937_64 random(2050);
    ASN1_TIME* reused = ASN1_TIME_new();
    for (int round = 0; round < 2000; ++round) {
        const int64_t seconds =
            -62135596800 + static_cast<int64_t>(random() % (253402300800 + 62135596800));
        ASSERT_EQ(r_time_to_asn1(seconds, reused), reused);
        int64_t back = 0;
        ASSERT_TRUE(r_time_from_asn1(reused, &back));
        ASSERT_EQ(back, seconds);
        ASN1_GENERALIZEDTIME* general = ASN1_TIME_to_generalizedtime(reused, nullptr);
        ASSERT_NE(general, nullptr);
        const std::string g(reinterpret_cast<const char*>(ASN1_STRING_get0_data(general)),
                            static_cast<size_t>(ASN1_STRING_length(general)));
        ASN1_GENERALIZEDTIME_free(general);
        const std::string year = g.substr(0, 4);
        const bool utc = year >= "1950" && year <= "2049";
        EXPECT_EQ(ASN1_STRING_type(reused), utc ? V_ASN1_UTCTIME : V_ASN1_GENERALIZEDTIME);
        if (seconds >= 0) {
            set_seconds(time.get(), seconds);
            const std::string expected = year + "-" + g.substr(4, 2) + "-" + g.substr(6, 2) + "T" +
                                         g.substr(8, 2) + ":" + g.substr(10, 2) + ":" +
                                         g.substr(12, 2) + "Z";
            ASSERT_EQ(rfc3339(time.get()), expected) << seconds;
        }
    }
    ASN1_TIME_free(reused);

    // Empty and malformed times are refused.
    ASN1_TIME* bad = ASN1_TIME_new();
    int64_t out = 7;
    EXPECT_FALSE(r_time_from_asn1(bad, &out));
    ASN1_TIME_free(bad);
    bad = ASN1_STRING_type_new(V_ASN1_GENERALIZEDTIME);
    ASSERT_EQ(ASN1_STRING_set(bad, "20261399000000Z", 15), 1);
    EXPECT_FALSE(r_time_from_asn1(bad, &out));
    EXPECT_EQ(out, 7);
    ASN1_TIME_free(bad);
    EXPECT_FALSE(r_time_from_asn1(nullptr, &out));
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(ToolkitTime, CompareAndDuplicate) {
    Times times;
    TimePtr early(times.make());
    TimePtr late(times.make());
    set_seconds(early.get(), 1767225600);
    set_seconds(late.get(), 1767225601);
    int32_t order = 0;
    EXPECT_EQ(R_TIME_cmp(late.get(), early.get(), &order), R_ERROR_NONE);
    EXPECT_EQ(order, 1);
    EXPECT_EQ(R_TIME_cmp(early.get(), late.get(), &order), R_ERROR_NONE);
    EXPECT_EQ(order, -1);

    R_TIME* raw = nullptr;
    ASSERT_EQ(R_TIME_dup(late.get(), &raw), R_ERROR_NONE);
    TimePtr copy(raw);
    EXPECT_EQ(R_TIME_cmp(copy.get(), late.get(), &order), R_ERROR_NONE);
    EXPECT_EQ(order, 0);
    // The copy is its own object.
    set_seconds(late.get(), 5);
    EXPECT_EQ(rfc3339(copy.get()), "2026-01-01T00:00:01Z");

    EXPECT_EQ(R_TIME_cmp(early.get(), nullptr, &order), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_TIME_cmp(early.get(), late.get(), nullptr), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_TIME_dup(nullptr, &raw), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_TIME_new(nullptr, &raw), R_ERROR_NULL_ARG);
    R_TIME_CTX* ctx = nullptr;
    EXPECT_EQ(R_TIME_CTX_new(nullptr, 0, &ctx), R_ERROR_NULL_ARG);
    EXPECT_EQ(R_TIME_CTX_new(times.lib, 2, &ctx), R_ERROR_FAILED);
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(R_TIME_free(nullptr), R_ERROR_NONE);
    EXPECT_EQ(R_TIME_CTX_free(nullptr), R_ERROR_NONE);
}

namespace {

int64_t y2k() {
    return 946684800;
}
int64_t far_future() {
    return 4107542400;
}

} // namespace

TEST(ToolkitTime, ClockCanBeReplaced) {
    Times times;
    TimePtr now(times.make());
    R_TIME_set_clock(y2k);
    ASSERT_EQ(R_TIME_time(now.get()), R_ERROR_NONE);
    EXPECT_EQ(rfc3339(now.get()), "2000-01-01T00:00:00Z");
    R_TIME_set_clock(far_future);
    ASSERT_EQ(R_TIME_time(now.get()), R_ERROR_NONE);
    EXPECT_EQ(rfc3339(now.get()), "2100-03-01T00:00:00Z");

    // NULL puts the system clock back.
    R_TIME_set_clock(nullptr);
    const int64_t before = std::time(nullptr);
    ASSERT_EQ(R_TIME_time(now.get()), R_ERROR_NONE);
    const int64_t after = std::time(nullptr);
    unsigned char bytes[8];
    uint32_t length = 0;
    ASSERT_EQ(R_TIME_export(now.get(), R_TIME_FORMAT_SECONDS_BE, bytes, &length, 8), R_ERROR_NONE);
    int64_t seconds = 0;
    for (unsigned char byte : bytes)
        seconds = seconds << 8 | byte;
    EXPECT_GE(seconds, before);
    EXPECT_LE(seconds, after);
    EXPECT_EQ(R_TIME_time(nullptr), R_ERROR_NULL_ARG);
}
