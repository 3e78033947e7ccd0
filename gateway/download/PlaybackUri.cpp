#include "download/PlaybackUri.h"

#include <cctype>
#include <cstdlib>

namespace {

bool percentDecode(const std::string& text, std::string& decoded)
{
    decoded.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        if (i + 2 >= text.size() || !isxdigit(static_cast<unsigned char>(text[i + 1])) ||
            !isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            return false;
        }
        decoded += static_cast<char>(strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
        i += 2;
    }
    return true;
}

bool parsePort(const std::string& text, int& port)
{
    if (text.empty() || text.size() > 5) {
        return false;
    }
    port = 0;
    for (char c : text) {
        if (!isdigit(static_cast<unsigned char>(c))) {
            return false;
        }
        port = port * 10 + (c - '0');
    }
    return port >= 1 && port <= 65535;
}

}  // namespace

std::string PlaybackUri::param(const std::string& name) const
{
    auto found = params.find(name);
    return found == params.end() ? std::string() : found->second;
}

bool parsePlaybackUri(const std::string& url, PlaybackUri& uri, std::string& error)
{
    uri = PlaybackUri();
    const std::string scheme = "rtsp://";
    if (url.compare(0, scheme.size(), scheme) != 0) {
        error = "not an rtsp:// URL";
        return false;
    }
    // The rtspPort the plug-in appends to the XML form starts with "&" when the
    // URI already has a query, "?" otherwise.
    size_t queryStart = url.find('?');
    if (queryStart == std::string::npos) {
        queryStart = url.find('&');
    }
    const std::string location = url.substr(0, queryStart);
    const std::string query = queryStart == std::string::npos ? std::string() : url.substr(queryStart + 1);

    size_t authorityEnd = location.find('/', scheme.size());
    std::string authority = location.substr(scheme.size(), authorityEnd - scheme.size());
    uri.host = authority.substr(0, authority.find(':'));
    if (uri.host.empty()) {
        error = "no address in the URL";
        return false;
    }
    size_t pos = 0;
    while (pos < query.size()) {
        size_t end = query.find('&', pos);
        if (end == std::string::npos) {
            end = query.size();
        }
        std::string piece = query.substr(pos, end - pos);
        pos = end + 1;
        if (piece.empty()) {
            continue;
        }
        size_t equals = piece.find('=');
        std::string name, value;
        if (!percentDecode(piece.substr(0, equals), name) ||
            (equals != std::string::npos && !percentDecode(piece.substr(equals + 1), value))) {
            error = "badly encoded parameter \"" + piece + "\"";
            return false;
        }
        if (uri.params.count(name) != 0) {
            error = "parameter \"" + name + "\" appears twice";
            return false;
        }
        uri.params[name] = value;
    }

    if (uri.hasParam("devIndex")) {
        uri.deviceIndex = uri.param("devIndex");
    } else if (authorityEnd != std::string::npos) {
        const std::string segment = "/device/";
        size_t found = location.find(segment, authorityEnd);
        if (found != std::string::npos) {
            size_t idStart = found + segment.size();
            uri.deviceIndex = location.substr(idStart, location.find('/', idStart) - idStart);
        }
    }
    if (uri.param("indexType") == "rtspPort" && !parsePort(uri.param("rtspPort"), uri.rtspPort)) {
        error = "rtspPort \"" + uri.param("rtspPort") + "\" is not a port";
        return false;
    }
    return true;
}
