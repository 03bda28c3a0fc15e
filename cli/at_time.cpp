#include "at_time.h"

#include <cctype>
#include <ctime>

#include "errors.h"

namespace qxcli {

const char at_help[] =
    "  --at TIME      judge at TIME, an RFC 3339 time such as 2025-02-25T00:00:00Z, "
    "as if it were now: which CRLs are current and which revocations have "
    "happened (default: now)\n";

namespace {

bool leap(int64_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// Reads count digits at text[at]; false when they are not all digits.
bool digits(const std::string& text, size_t at, size_t count, int& value) {
    if (at + count > text.size())
        return false;
    value = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(text[i])))
            return false;
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

} // namespace

std::optional<int64_t> parse_rfc3339(const std::string& text) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!digits(text, 0, 4, year) || text.size() < 20 || text[4] != '-' ||
        !digits(text, 5, 2, month) || text[7] != '-' || !digits(text, 8, 2, day) ||
        (text[10] != 'T' && text[10] != 't' && text[10] != ' ') || !digits(text, 11, 2, hour) ||
        text[13] != ':' || !digits(text, 14, 2, minute) || text[16] != ':' ||
        !digits(text, 17, 2, second))
        return std::nullopt;
    static const int monthDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1 || day > monthDays[month - 1] ||
        (month == 2 && day == 29 && !leap(year)) || hour > 23 || minute > 59 || second > 60)
        return std::nullopt;
    size_t at = 19;
    if (at < text.size() && text[at] == '.') {
        ++at;
        const size_t start = at;
        while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])))
            ++at;
        if (at == start)
            return std::nullopt;
    }
    int64_t offset = 0;
    if (at + 1 == text.size() && (text[at] == 'Z' || text[at] == 'z')) {
        // UTC
    } else if (at + 6 == text.size() && (text[at] == '+' || text[at] == '-') &&
               text[at + 3] == ':') {
        int hours = 0, minutes = 0;
        if (!digits(text, at + 1, 2, hours) || !digits(text, at + 4, 2, minutes) || hours > 23 ||
            minutes > 59)
            return std::nullopt;
        offset = (hours * 60 + minutes) * 60 * (text[at] == '+' ? 1 : -1);
    } else {
        return std::nullopt;
    }
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    // A leap second counts as the last second of its minute.
    parts.tm_sec = second == 60 ? 59 : second;
    return static_cast<int64_t>(timegm(&parts)) - offset;
}

int apply_at(Session& session, const Arguments& arguments, const char* usage) {
    const auto text = arguments.value("--at");
    if (!text)
        return 0;
    const std::optional<int64_t> seconds = parse_rfc3339(*text);
    if (!seconds)
        return usage_error("--at needs an RFC 3339 time such as 2025-02-25T00:00:00Z, not " + *text,
                           usage);
    if (const uint32_t status = qxlayer_set_time(session.ctx(), &*seconds))
        return report("judging at " + *text, status);
    return 0;
}

} // namespace qxcli
