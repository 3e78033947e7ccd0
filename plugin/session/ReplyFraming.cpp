#include "session/ReplyFraming.h"

namespace HttpWrapper {

namespace {
const char kCrLf[] = "\r\n";
const char kChunkTerminator[] = "0\r\n\r\n";
}  // namespace

CReplyFraming::Headers CReplyFraming::head(unsigned long long bodyLength) const
{
    // The content types differ on purpose: clients of the device API tell the
    // two reply forms apart by them (Q15).
    if (m_bChunked) {
        return {{"Content-Type", "application/octet-stream"}, {"Transfer-Encoding", "chunked"}};
    }
    return {{"Content-Type", "application/binary"}, {"Content-Length", std::to_string(bodyLength)}};
}

int CReplyFraming::rangedStatus(const CServedRange& served)
{
    switch (served.outcome) {
    case CServedRange::PART: return 206;
    case CServedRange::UNSATISFIABLE: return 416;
    default: return 200;
    }
}

CReplyFraming::Headers CReplyFraming::rangedHead(const CServedRange& served, unsigned long long bodyLength)
{
    const std::string total = std::to_string(bodyLength);
    Headers headers;
    switch (served.outcome) {
    case CServedRange::PART:
        headers = {{"Content-Type", "application/binary"},
                   {"Content-Length", std::to_string(served.last - served.first + 1)},
                   {"Content-Range",
                    "bytes " + std::to_string(served.first) + "-" + std::to_string(served.last) + "/" + total}};
        break;
    case CServedRange::UNSATISFIABLE: headers = {{"Content-Range", "bytes */" + total}, {"Content-Length", "0"}}; break;
    default: headers = {{"Content-Type", "application/binary"}, {"Content-Length", total}}; break;
    }
    headers.push_back({"Accept-Ranges", "bytes"});
    if (!served.entityTag.empty()) {
        headers.push_back({"ETag", served.entityTag});
    }
    return headers;
}

std::string CReplyFraming::blockPrefix(int length) const
{
    return m_bChunked ? decToHex(length) + kCrLf : std::string();
}

std::string CReplyFraming::blockSuffix() const
{
    return m_bChunked ? kCrLf : std::string();
}

std::string CReplyFraming::end() const
{
    return m_bChunked ? kChunkTerminator : std::string();
}

std::string CReplyFraming::decToHex(int value)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string hex;
    for (unsigned int rest = value > 0 ? static_cast<unsigned int>(value) : 0; rest != 0; rest >>= 4) {
        hex.insert(hex.begin(), kDigits[rest & 0xF]);
    }
    return hex;
}

}  // namespace HttpWrapper
