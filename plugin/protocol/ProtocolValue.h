// Text forms of head and attribute values. Numbers are formatted into a zeroed
// 64-byte buffer, so an over-long text (a very large double with six decimals)
// is cut at 63 characters, as the gateway has always seen it (Q16 in
// docs/compatibility.md).
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLVALUE_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLVALUE_H

#include <string>

namespace HttpWrapper {

// Names and values handed in as null are held as the empty string.
inline const char* TextOrEmpty(const char* text)
{
    return text == nullptr ? "" : text;
}

std::string FormatIntValue(int value);                 // "%d"
std::string FormatFloatValue(double value);            // "%f": 1.5 gives "1.500000"
std::string FormatIntRange(int min, int max);          // "%d-%d"
std::string FormatFloatRange(double min, double max);  // "%f-%f"

// Splits a range at its first "-" only. True when that gives exactly two
// pieces; "-5-7" gives "" and "5-7".
bool SplitRange(const std::string& value, std::string& low, std::string& high);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLVALUE_H
