#include "base/IsoTime.h"

#include <cctype>
#include <ctime>

namespace {

bool readNumber(const std::string& text, size_t& at, size_t digits, int& value)
{
    if (at + digits > text.size()) {
        return false;
    }
    value = 0;
    for (size_t i = 0; i < digits; ++i) {
        char c = text[at + i];
        if (!isdigit(static_cast<unsigned char>(c))) {
            return false;
        }
        value = value * 10 + (c - '0');
    }
    at += digits;
    return true;
}

bool skip(const std::string& text, size_t& at, char expected, bool wanted)
{
    if (!wanted) {
        return true;
    }
    if (at < text.size() && text[at] == expected) {
        ++at;
        return true;
    }
    return false;
}

}  // namespace

bool parseIsoTime(const std::string& text, int64_t& seconds)
{
    bool extended = text.size() > 4 && text[4] == '-';
    size_t at = 0;
    int year, month, day, hour, minute, second;
    if (!readNumber(text, at, 4, year) || !skip(text, at, '-', extended) || !readNumber(text, at, 2, month) ||
        !skip(text, at, '-', extended) || !readNumber(text, at, 2, day) || !skip(text, at, 'T', true) ||
        !readNumber(text, at, 2, hour) || !skip(text, at, ':', extended) || !readNumber(text, at, 2, minute) ||
        !skip(text, at, ':', extended) || !readNumber(text, at, 2, second)) {
        return false;
    }
    if (at < text.size() && text[at] == 'Z') {
        ++at;
    }
    if (at != text.size() || year < 1970) {
        return false;
    }
    struct tm parts = {};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    time_t value = timegm(&parts);
    // timegm normalises 2026-02-30 into March; a changed field means the date did not exist.
    if (value == static_cast<time_t>(-1) || parts.tm_mon != month - 1 || parts.tm_mday != day ||
        parts.tm_hour != hour || parts.tm_min != minute || parts.tm_sec != second) {
        return false;
    }
    seconds = value;
    return true;
}

std::string formatIsoTime(int64_t seconds)
{
    time_t value = static_cast<time_t>(seconds);
    struct tm parts;
    gmtime_r(&value, &parts);
    char text[32];
    strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", &parts);
    return text;
}
