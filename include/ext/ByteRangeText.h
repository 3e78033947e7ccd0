/*
 * One byte range as both ends of a download write it after "bytes=":
 *   <first>-<last> | <first>- | -<suffix length>
 * The client's Range header carries it to the plug-in, and the plug-in's
 * Download-Range head carries it on to the gateway. Header-only, so that the
 * gateway, which sees the plug-in only through include/, reads the bounds
 * with the same code as the plug-in.
 *
 * What surrounds the bounds (the unit, blanks, a second range, an If-Range
 * condition) is each reader's own to judge, and so is a number past 64 bits:
 * the plug-in takes it as the largest one, the gateway (whose heads the
 * plug-in wrote from such numbers) refuses it.
 */
#ifndef EXT_BYTE_RANGE_TEXT_H
#define EXT_BYTE_RANGE_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace ext {

struct ByteRangeText {
    bool suffix = false;  // "-K": the last K bytes (K in first)
    uint64_t first = 0;   // first byte, or K
    bool hasLast = false;
    uint64_t last = 0;
};

enum class RangeNumberOverflow {
    kSaturate,  // a number past 64 bits counts as the largest one
    kRefuse,    // a number past 64 bits makes the range malformed
};

// Decimal digits from `at` on, which stops after them. False without any
// digit, or on a number past 64 bits that is to be refused.
inline bool readRangeNumber(const std::string& text, size_t& at, RangeNumberOverflow overflow, uint64_t& value)
{
    const size_t start = at;
    value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        const unsigned digit = static_cast<unsigned>(text[at] - '0');
        if (value > (UINT64_MAX - digit) / 10) {
            if (overflow == RangeNumberOverflow::kRefuse) {
                return false;
            }
            value = UINT64_MAX;
        } else {
            value = value * 10 + digit;
        }
    }
    return at > start;
}

// The bounds from `at` on; `at` stops after them, and whatever follows is the
// caller's to judge. False when they are malformed or the last byte stands
// before the first.
inline bool readByteRangeText(const std::string& text, size_t& at, RangeNumberOverflow overflow, ByteRangeText& range)
{
    ByteRangeText parsed;
    if (at < text.size() && text[at] == '-') {
        ++at;
        parsed.suffix = true;
        if (!readRangeNumber(text, at, overflow, parsed.first)) {
            return false;
        }
    } else {
        if (!readRangeNumber(text, at, overflow, parsed.first) || at >= text.size() || text[at] != '-') {
            return false;
        }
        ++at;
        if (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            parsed.hasLast = true;
            if (!readRangeNumber(text, at, overflow, parsed.last) || parsed.last < parsed.first) {
                return false;
            }
        }
    }
    range = parsed;
    return true;
}

}  // namespace ext

#endif  // EXT_BYTE_RANGE_TEXT_H
