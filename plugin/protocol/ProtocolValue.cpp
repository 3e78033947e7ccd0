#include "protocol/ProtocolValue.h"

#include <cstdio>
#include <vector>

#include "util/StringUtils.h"

namespace HttpWrapper {

namespace {

const int kValueBufferSize = 64;

}  // namespace

std::string FormatIntValue(int value)
{
    char buffer[kValueBufferSize] = {0};
    std::snprintf(buffer, sizeof(buffer), "%d", value);
    return buffer;
}

std::string FormatFloatValue(double value)
{
    char buffer[kValueBufferSize] = {0};
    std::snprintf(buffer, sizeof(buffer), "%f", value);
    return buffer;
}

std::string FormatIntRange(int min, int max)
{
    char buffer[kValueBufferSize] = {0};
    std::snprintf(buffer, sizeof(buffer), "%d-%d", min, max);
    return buffer;
}

std::string FormatFloatRange(double min, double max)
{
    char buffer[kValueBufferSize] = {0};
    std::snprintf(buffer, sizeof(buffer), "%f-%f", min, max);
    return buffer;
}

bool SplitRange(const std::string& value, std::string& low, std::string& high)
{
    std::vector<std::string> pieces;
    if (Split(value, "-", pieces, 1) != 2) {
        return false;
    }
    low = pieces[0];
    high = pieces[1];
    return true;
}

}  // namespace HttpWrapper
