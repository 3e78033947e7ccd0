#include "download/DownloadRange.h"

#include <algorithm>
#include <cstdio>

namespace {

const std::string kUnit = "bytes=";
const std::string kIfRange = ";if-range=";

}  // namespace

bool parseDownloadRange(const std::string& head, DownloadRange& range)
{
    if (head.compare(0, kUnit.size(), kUnit) != 0) {
        return false;
    }
    const size_t condition = head.find(';');
    const std::string bounds =
        head.substr(kUnit.size(), condition == std::string::npos ? std::string::npos : condition - kUnit.size());
    // The plug-in turned larger numbers into the largest one: a number past 64
    // bits is not one it writes.
    DownloadRange parsed;
    size_t at = 0;
    if (!ext::readByteRangeText(bounds, at, ext::RangeNumberOverflow::kRefuse, parsed) || at != bounds.size()) {
        return false;
    }
    if (condition != std::string::npos) {
        if (head.compare(condition, kIfRange.size(), kIfRange) != 0) {
            return false;
        }
        parsed.hasIfRange = true;
        parsed.ifRange = head.substr(condition + kIfRange.size());
    }
    range = parsed;
    return true;
}

ServedPart resolveRange(const DownloadRange& range, uint64_t bodyLength, const std::string& entityTag)
{
    ServedPart part;
    if (range.hasIfRange && (range.ifRange.empty() || range.ifRange != entityTag)) {
        return part;  // another version: the client starts again from the whole body
    }
    if (bodyLength == 0 || (range.suffix ? range.first == 0 : range.first >= bodyLength)) {
        part.outcome = ServedPart::kUnsatisfiable;
        return part;
    }
    part.outcome = ServedPart::kPart;
    part.first = range.suffix ? bodyLength - std::min(range.first, bodyLength) : range.first;
    part.last = range.hasLast ? std::min(range.last, bodyLength - 1) : bodyLength - 1;
    return part;
}

BodySlices sliceBody(const ServedPart& part, size_t streamHeadLength, uint64_t fileLength)
{
    BodySlices slices;
    switch (part.outcome) {
    case ServedPart::kWhole:
        slices.headLength = streamHeadLength;
        slices.fileLength = fileLength;
        break;
    case ServedPart::kPart:
        if (part.first < streamHeadLength) {
            slices.headOffset = static_cast<size_t>(part.first);
            slices.headLength =
                static_cast<size_t>(std::min<uint64_t>(part.last + 1, streamHeadLength)) - slices.headOffset;
        }
        if (part.last >= streamHeadLength) {
            slices.fileOffset = std::max<uint64_t>(part.first, streamHeadLength) - streamHeadLength;
            slices.fileLength = part.last - streamHeadLength + 1 - slices.fileOffset;
        }
        break;
    case ServedPart::kUnsatisfiable: break;
    }
    return slices;
}

std::string entityTagOf(uint64_t fileSize, int64_t modifiedNs, const unsigned char* streamHead, size_t headLength)
{
    uint32_t hash = 2166136261u;  // FNV-1a
    for (size_t i = 0; i < headLength; ++i) {
        hash = (hash ^ streamHead[i]) * 16777619u;
    }
    char tag[64];
    snprintf(tag, sizeof tag, "\"%llx-%llx-%08x\"", static_cast<unsigned long long>(fileSize),
             static_cast<unsigned long long>(modifiedNs), hash);
    return tag;
}

std::string describeServed(const ServedPart& part, uint64_t bodyLength)
{
    const std::string total = std::to_string(bodyLength);
    switch (part.outcome) {
    case ServedPart::kPart:
        return "bytes " + std::to_string(part.first) + "-" + std::to_string(part.last) + "/" + total;
    case ServedPart::kUnsatisfiable: return "not satisfiable, bytes */" + total;
    default: return "whole body of " + total + " bytes, If-Range names another version";
    }
}
