#include "console/DownloadRelay.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "base/IsoTime.h"

namespace {

constexpr int kReadMs = 30000;  // the plug-in ends a download that stalls long before this
constexpr size_t kPieceBytes = 64 * 1024;

bool readNumber(const std::string& text, size_t& position, uint64_t& value)
{
    const size_t start = position;
    value = 0;
    while (position < text.size() && text[position] >= '0' && text[position] <= '9' && position - start < 19) {
        value = value * 10 + static_cast<uint64_t>(text[position++] - '0');
    }
    return position > start;
}

// "bytes first-last/total" of the plug-in's 206.
bool parseContentRange(const std::string& text, uint64_t& first, uint64_t& last, uint64_t& total)
{
    size_t position = 6;
    return text.compare(0, 6, "bytes ") == 0 && readNumber(text, position, first) && position < text.size() &&
           text[position++] == '-' && readNumber(text, position, last) && position < text.size() &&
           text[position++] == '/' && readNumber(text, position, total) && position == text.size() && first <= last &&
           last < total && first >= kStreamHeadBytes;
}

std::string replyHead(int status, const char* reason, const std::string& fields)
{
    return "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n" + fields +
           "Cache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\nConnection: close\r\n\r\n";
}

std::string failure(int status, const char* reason, const std::string& text, const BrowserWrite& write)
{
    const std::string body = text + "\n";
    const std::string reply =
        replyHead(
            status, reason,
            "Content-Type: text/plain; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) + "\r\n") +
        body;
    write(reply.data(), reply.size());
    return text;
}

}  // namespace

std::string deviceRange(const std::string& browserRange, uint64_t size, bool& asked)
{
    asked = false;
    uint64_t first = 0, last = 0;
    size_t position = 6;
    if (browserRange.compare(0, 6, "bytes=") == 0 && browserRange.find(',') == std::string::npos) {
        if (position < browserRange.size() && browserRange[position] == '-') {
            ++position;
            uint64_t suffix = 0;
            if (readNumber(browserRange, position, suffix) && position == browserRange.size() && suffix > 0) {
                asked = true;
                first = suffix >= size ? 0 : size - suffix;
                return "bytes=" + std::to_string(first + kStreamHeadBytes) + "-";
            }
        } else if (readNumber(browserRange, position, first) && position < browserRange.size() &&
                   browserRange[position++] == '-') {
            if (position == browserRange.size()) {
                asked = true;
                return "bytes=" + std::to_string(first + kStreamHeadBytes) + "-";
            }
            if (readNumber(browserRange, position, last) && position == browserRange.size() && first <= last) {
                asked = true;
                return "bytes=" + std::to_string(first + kStreamHeadBytes) + "-" +
                       std::to_string(last + kStreamHeadBytes);
            }
        }
    }
    return "bytes=" + std::to_string(kStreamHeadBytes) + "-";
}

std::string dispositionName(const std::string& name)
{
    std::string safe;
    for (char c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                           c == '-' || c == '_';
        safe += plain ? c : '_';
    }
    return safe.empty() || safe[0] == '.' ? "recording" + safe : safe;
}

std::string relayDownload(const RelayRequest& request, const std::atomic<bool>* stop, const BrowserWrite& write)
{
    const Recording& recording = request.recording;
    const DeviceConfig& device = request.device;
    bool asked = false;
    const std::string range = deviceRange(request.range, recording.size, asked);
    const std::string uri = "rtsp://" + device.address + ":" + std::to_string(device.rtspPort) +
                            "/Streaming/tracks/101/playback?starttime=" + formatIsoTime(recording.start) +
                            "&endtime=" + formatIsoTime(recording.end) + "&name=" + recording.name +
                            "&size=" + std::to_string(recording.size) + "&devIndex=" + device.devIndex;
    const std::string body = "{\"downloadRequest\":{\"playbackURI\":\"" + uri + "\"}}";
    std::string heads = "Content-Type: application/json\r\nRange: " + range + "\r\n";
    if (!request.ifRange.empty() && request.ifRange.find_first_of("\r\n") == std::string::npos) {
        heads += "If-Range: " + request.ifRange + "\r\n";
    }
    PluginConnection connection(stop);
    ReplyHead head;
    std::string error;
    if (!pluginRequest(request.httpPort, request.httpPort, "POST",
                       "/QUMEX/ContentMgmt/download?format=json&devIndex=" + device.devIndex, heads, body,
                       request.credentials, connection, head, error)) {
        return failure(502, "Bad Gateway", "the download could not be asked for: " + error, write);
    }
    const uint64_t total = recording.size + kStreamHeadBytes;
    uint64_t skip = 0, length = 0;
    std::string fields = "Content-Type: application/octet-stream\r\nContent-Disposition: attachment; filename=\"" +
                         dispositionName(recording.name) + "\"\r\nAccept-Ranges: bytes\r\n";
    if (!head.field("etag").empty()) {
        fields += "ETag: " + head.field("etag") + "\r\n";
    }
    int status = 200;
    const char* reason = "OK";
    if (head.status == 206) {
        uint64_t first = 0, last = 0, whole = 0;
        if (!parseContentRange(head.field("content-range"), first, last, whole) || whole != total) {
            return failure(502, "Bad Gateway", "the plug-in's range is not the one asked for", write);
        }
        length = last - first + 1;
        if (asked) {
            status = 206;
            reason = "Partial Content";
            fields += "Content-Range: bytes " + std::to_string(first - kStreamHeadBytes) + "-" +
                      std::to_string(last - kStreamHeadBytes) + "/" + std::to_string(recording.size) + "\r\n";
        }
    } else if (head.status == 200) {
        // The whole body (the recording changed, so If-Range did not hold): the head is skipped here.
        const uint64_t announced = strtoull(head.field("content-length").c_str(), nullptr, 10);
        if (announced < kStreamHeadBytes) {
            return failure(502, "Bad Gateway", "the plug-in's reply has no length", write);
        }
        skip = kStreamHeadBytes;
        length = announced - kStreamHeadBytes;
    } else if (head.status == 416) {
        const std::string reply =
            replyHead(416, "Range Not Satisfiable",
                      "Content-Range: bytes */" + std::to_string(recording.size) + "\r\nContent-Length: 0\r\n");
        write(reply.data(), reply.size());
        return "range past the end";
    } else {
        return failure(502, "Bad Gateway", "the plug-in refused the download: HTTP " + std::to_string(head.status),
                       write);
    }
    const std::string reply = replyHead(status, reason, fields + "Content-Length: " + std::to_string(length) + "\r\n");
    if (!write(reply.data(), reply.size())) {
        return "the browser went away";
    }
    std::string piece(kPieceBytes, '\0');
    uint64_t sent = 0;
    while (sent < length) {
        const long got = connection.read(&piece[0], piece.size(), kReadMs);
        if (got <= 0) {
            return "the plug-in's reply ended after " + std::to_string(sent) + " of " + std::to_string(length) +
                   " bytes";
        }
        size_t offset = 0, size = static_cast<size_t>(got);
        if (skip > 0) {
            offset = static_cast<size_t>(std::min<uint64_t>(skip, size));
            skip -= offset;
        }
        size = static_cast<size_t>(std::min<uint64_t>(size - offset, length - sent));
        if (size > 0 && !write(piece.data() + offset, size)) {
            return "the browser went away after " + std::to_string(sent) + " bytes";
        }
        sent += size;
    }
    return "complete: " + std::to_string(sent) + " bytes (HTTP " + std::to_string(status) + ")";
}
