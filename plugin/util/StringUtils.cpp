#include "util/StringUtils.h"

#include <cstring>

namespace HttpWrapper {

namespace {

const int kDefaultMaxCuts = 64;

void TrimChar(std::string& s, char c)
{
    const std::string::size_type first = s.find_first_not_of(c);
    if (first == std::string::npos) {
        s.clear();
        return;
    }
    const std::string::size_type last = s.find_last_not_of(c);
    s = s.substr(first, last - first + 1);
}

}  // namespace

std::string& RemoveSpace(std::string& s)
{
    // Blanks first, carriage returns second: callers rely on this exact order.
    TrimChar(s, ' ');
    TrimChar(s, '\r');
    return s;
}

std::string& RemoveQuot(std::string& s)
{
    TrimChar(s, '"');
    return s;
}

bool Contain(const std::string& s, const std::string& part)
{
    return s.find(part) != std::string::npos;
}

int Split(const std::string& s, const std::vector<std::string>& delimiters, std::vector<std::string>& out, int maxCuts)
{
    out.clear();
    const int limit = maxCuts < 1 ? kDefaultMaxCuts : maxCuts;
    std::string::size_type pos = 0;
    int cuts = 0;
    while (cuts < limit) {
        std::string::size_type best = std::string::npos;
        std::string::size_type bestLength = 0;
        for (const std::string& delimiter : delimiters) {
            // An empty delimiter would cut at every position without moving on;
            // it is ignored.
            if (delimiter.empty()) {
                continue;
            }
            const std::string::size_type found = s.find(delimiter, pos);
            // Strictly earlier only: on a tie the delimiter listed first wins.
            if (found < best) {
                best = found;
                bestLength = delimiter.size();
            }
        }
        if (best == std::string::npos) {
            break;
        }
        out.push_back(s.substr(pos, best - pos));
        pos = best + bestLength;
        ++cuts;
    }
    out.push_back(s.substr(pos));
    return static_cast<int>(out.size());
}

int Split(const std::string& s, const std::string& delimiter, std::vector<std::string>& out, int maxCuts)
{
    return Split(s, std::vector<std::string>{delimiter}, out, maxCuts);
}

int Split(const std::string& s, const std::string& delimiter1, const std::string& delimiter2,
          std::vector<std::string>& out, int maxCuts)
{
    return Split(s, std::vector<std::string>{delimiter1, delimiter2}, out, maxCuts);
}

int Split(const std::string& s, const std::string& delimiter1, const std::string& delimiter2,
          const std::string& delimiter3, std::vector<std::string>& out, int maxCuts)
{
    return Split(s, std::vector<std::string>{delimiter1, delimiter2, delimiter3}, out, maxCuts);
}

int ParseParam(const std::vector<std::string>& items, const std::string& separator,
               std::map<std::string, std::string>& out)
{
    for (const std::string& item : items) {
        const std::string::size_type at = separator.empty() ? std::string::npos : item.find(separator);
        if (at == std::string::npos) {
            // A bare flag such as "debug" is entered as present with no value.
            out[item] = std::string();
        } else {
            out[item.substr(0, at)] = item.substr(at + separator.size());
        }
    }
    return static_cast<int>(items.size());
}

std::string FetchUrlParamValue(const std::string& url, const std::string& key)
{
    const std::string::size_type at = url.find(key);
    if (at == std::string::npos) {
        return std::string();
    }
    const std::string::size_type begin = at + key.size();
    const std::string::size_type end = url.find('&', begin);
    return end == std::string::npos ? url.substr(begin) : url.substr(begin, end - begin);
}

void ReplaceAll(std::string& s, const std::string& from, const std::string& to)
{
    if (from.empty()) {
        return;  // nothing to look for; an empty pattern would match everywhere
    }
    std::string::size_type pos = 0;
    while ((pos = s.find(from, pos)) != std::string::npos) {
        s.replace(pos, from.size(), to);
        pos += to.size();
    }
}

bool Match(const std::string& s, const std::string& start, const std::string& end, std::string& withStart,
           std::string& inner)
{
    const std::string::size_type begin = s.find(start);
    if (begin == std::string::npos) {
        return false;
    }
    const std::string::size_type behind = begin + start.size();
    const std::string::size_type stop = s.find(end, behind);
    if (stop == std::string::npos) {
        return false;
    }
    withStart = s.substr(begin, stop - begin);
    inner = s.substr(behind, stop - behind);
    return true;
}

bool Match(const std::string& s, const std::string& start, const std::string& end1, const std::string& end2,
           std::string& withStart, std::string& inner)
{
    const std::string::size_type begin = s.find(start);
    if (begin == std::string::npos) {
        return false;
    }
    const std::string::size_type behind = begin + start.size();
    const std::string::size_type stop1 = s.find(end1, behind);
    const std::string::size_type stop2 = s.find(end2, behind);
    const std::string::size_type stop = stop1 < stop2 ? stop1 : stop2;  // npos is the largest value
    if (stop == std::string::npos) {
        return false;
    }
    withStart = s.substr(begin, stop - begin);
    inner = s.substr(behind, stop - behind);
    return true;
}

std::string PercentEscape(const std::string& text, const char* alsoKept)
{
    static const char kHex[] = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        const bool unreserved = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                                (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_' ||
                                byte == '~';
        if (unreserved || (byte != 0 && strchr(alsoKept, c) != nullptr)) {
            escaped.push_back(c);
        } else {
            escaped.push_back('%');
            escaped.push_back(kHex[byte >> 4]);
            escaped.push_back(kHex[byte & 0x0F]);
        }
    }
    return escaped;
}

std::string UriEscape(const std::string& uri, bool keepSlash)
{
    return PercentEscape(uri, keepSlash ? "/" : "");
}

std::string EscapeClientAddress(const std::string& forwardedFor)
{
    return PercentEscape(forwardedFor, ":,");
}

}  // namespace HttpWrapper
