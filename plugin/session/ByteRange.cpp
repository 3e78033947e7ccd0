#include "session/ByteRange.h"

#include <string.h>
#include <strings.h>

#include <ext/StreamBlockLayout.h>

namespace HttpWrapper {

namespace {
const char kUnit[] = "bytes=";
const size_t kUnitLength = sizeof kUnit - 1;

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// Only a tag the gateway could have issued is worth its comparison: strong,
// and of the characters the gateway writes tags in.
bool isIssuableTag(const std::string& tag)
{
    if (tag.size() < 3 || tag.size() >= StreamBlock::kRangeTagSize || tag.front() != '"' || tag.back() != '"') {
        return false;
    }
    for (size_t i = 1; i + 1 < tag.size(); ++i) {
        char c = tag[i];
        bool plain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
                     c == '.' || c == '_';
        if (!plain) {
            return false;
        }
    }
    return true;
}

std::string trimBlanks(const std::string& text)
{
    size_t start = 0;
    size_t end = text.size();
    while (start < end && isBlank(text[start])) {
        ++start;
    }
    while (end > start && isBlank(text[end - 1])) {
        --end;
    }
    return text.substr(start, end - start);
}

}  // namespace

bool ParseRangeHeader(const std::string& value, CByteRangeRequest& range)
{
    std::string text = trimBlanks(value);
    if (text.size() < kUnitLength || strncasecmp(text.c_str(), kUnit, kUnitLength) != 0) {
        return false;
    }
    size_t at = kUnitLength;
    while (at < text.size() && isBlank(text[at])) {
        ++at;
    }
    // A number past 64 bits is a start beyond every body, or an end or a
    // suffix that covers all of it.
    CByteRangeRequest parsed;
    if (!ext::readByteRangeText(text, at, ext::RangeNumberOverflow::kSaturate, parsed)) {
        return false;
    }
    // Whatever follows, a second range included, makes the header one to ignore.
    if (at != text.size()) {
        return false;
    }
    range = parsed;
    return true;
}

std::string DownloadRangeHead(const CByteRangeRequest& range, bool hasIfRange, const std::string& ifRange)
{
    std::string head = kUnit;
    if (range.suffix) {
        head += "-" + std::to_string(range.first);
    } else {
        head += std::to_string(range.first) + "-";
        if (range.hasLast) {
            head += std::to_string(range.last);
        }
    }
    if (hasIfRange) {
        std::string tag = trimBlanks(ifRange);
        head += ";if-range=" + (isIssuableTag(tag) ? tag : std::string());
    }
    return head;
}

ServedRangeRecord ReadServedRange(const char* info, size_t length, unsigned long long bodyLength, CServedRange& served)
{
    using namespace StreamBlock;
    if (info == nullptr || length < kRangeEnd || memcmp(info + kRangeOffset, kRangeMagic, kRangeMagicSize) != 0) {
        return RANGE_RECORD_ABSENT;
    }
    CServedRange record;
    record.outcome = static_cast<unsigned char>(info[kRangeOutcomeOffset]);
    const char* tag = info + kRangeTagOffset;
    const char* tagEnd = static_cast<const char*>(memchr(tag, '\0', kRangeTagSize));
    if (static_cast<unsigned char>(info[kRangeVersionOffset]) != kRangeVersion ||
        record.outcome > CServedRange::UNSATISFIABLE || tagEnd == nullptr) {
        return RANGE_RECORD_INVALID;
    }
    for (const char* c = tag; c < tagEnd; ++c) {
        if (*c <= ' ' || *c > '~') {
            return RANGE_RECORD_INVALID;  // it goes into the reply's head
        }
    }
    record.entityTag.assign(tag, tagEnd);
    if (record.outcome == CServedRange::PART) {
        record.first = readLittleEndian(info + kRangeFirstOffset, 8);
        record.last = readLittleEndian(info + kRangeLastOffset, 8);
        if (record.first > record.last || record.last >= bodyLength) {
            return RANGE_RECORD_INVALID;
        }
    }
    served = record;
    return RANGE_RECORD_VALID;
}

}  // namespace HttpWrapper
