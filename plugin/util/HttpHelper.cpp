#include "util/HttpHelper.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <netutils/VQNetUtils.h>
#include <zrt/zrt.h>

#include "auth/Md5.h"
#include "util/Base64.h"

namespace HttpWrapper {

namespace {

const char kDevIndexWord[] = "devIndex";
const int kDevIndexValueOffset = 9;  // the word and its "="
const int kDevIndexLength = 36;
const int kMaxUrlVariables = 4;
const int kPrintedUrlSize = 512;
const int kHostHeaderSize = 32;
const size_t kHeaderReadSize = 8192 + 1;  // the server's whole header block, and a terminator
const int kDefaultHttpPort = 80;
const int kNonceTextSize = 64;
const unsigned int kNonceRandomMask = 0xFFFF;
const long long kMicrosecondsPerSecond = 1000000;
const int kDigestHaLength = 32;

struct tagHttpStatusText {
    unsigned int code;
    const char* text;
};

// The plug-in keeps its own status texts: it runs against the gateway's network
// library, whose tables are not the plug-in's to read. Ours writes the same words,
// each text starting with its code (Q1 in docs/compatibility.md).
const tagHttpStatusText kHttpStatusTexts[] = {
    {100, "100 Continue"},
    {101, "101 Switching Protocols"},
    {200, "200 OK"},
    {201, "201 Created"},
    {202, "202 Accepted"},
    {203, "203 Non-Authoritative Information"},
    {204, "204 No Content"},
    {205, "205 Reset Content"},
    {206, "206 Partial Content"},
    {300, "300 Multiple Choices"},
    {301, "301 Moved Permanently"},
    {302, "302 Found"},
    {303, "303 See Other"},
    {304, "304 Not Modified"},
    {305, "305 Use Proxy"},
    {307, "307 Temporary Redirect"},
    {400, "400 Bad Request"},
    {401, "401 Unauthorized"},
    {402, "402 Payment Required"},
    {403, "403 Forbidden"},
    {404, "404 Not Found"},
    {405, "405 Method Not Allowed"},
    {406, "406 Not Acceptable"},
    {407, "407 Proxy Authentication Required"},
    {408, "408 Request Timeout"},
    {409, "409 Conflict"},
    {410, "410 Gone"},
    {411, "411 Length Required"},
    {412, "412 Precondition Failed"},
    {413, "413 Request Entity Too Large"},
    {414, "414 Request-URI Too Long"},
    {415, "415 Unsupported Media Type"},
    {416, "416 Requested Range Not Satisfiable"},
    {417, "417 Expectation Failed"},
    {500, "500 Internal Server Error"},
    {501, "501 Not Implemented"},
    {502, "502 Bad Gateway"},
    {503, "503 Service Unavailable"},
    {504, "504 Gateway Timeout"},
    {505, "505 HTTP Version Not Supported"},
    {509, "509 Bandwidth Limit Exceeded"},
};

// Scans up to four integers; the ones the pattern does not reach stay 0.
bool ScanUrlVariables(const char* url, const char* pattern, int count, int (&values)[kMaxUrlVariables])
{
    if (url == nullptr || pattern == nullptr || count < 1 || count > kMaxUrlVariables) {
        return false;
    }
    std::sscanf(url, pattern, &values[0], &values[1], &values[2], &values[3]);
    return true;
}

std::string Md5Hex(const std::string& text)
{
    char hex[MD5_HEX_SIZE];
    MD5_hex(text.data(), text.size(), hex);
    return hex;
}

}  // namespace

bool CHttpHelper::IsJsonURL(const char* url) const
{
    return url != nullptr && std::strstr(url, "format=json") != nullptr;
}

bool CHttpHelper::GetDevIndexFromURL(const char* url, char* out) const
{
    if (url == nullptr || out == nullptr) {
        return false;
    }
    const char* word = std::strstr(url, kDevIndexWord);
    if (word == nullptr || std::strlen(word) < static_cast<std::size_t>(kDevIndexValueOffset)) {
        return false;
    }
    const char* value = word + kDevIndexValueOffset;
    const char* end = std::strchr(word + sizeof(kDevIndexWord) - 1, '&');
    if (end == nullptr) {
        end = std::strchr(word + sizeof(kDevIndexWord) - 1, '?');
    }
    if (end == nullptr) {
        end = word + std::strlen(word);
    }
    if (end - value != kDevIndexLength) {
        return false;
    }
    std::memcpy(out, value, kDevIndexLength);
    out[kDevIndexLength] = '\0';
    return true;
}

bool CHttpHelper::CheckUrlWithVariable(const char* url, const char* pattern, int count) const
{
    int values[kMaxUrlVariables] = {0, 0, 0, 0};
    if (!ScanUrlVariables(url, pattern, count, values)) {
        return false;
    }
    char printed[kPrintedUrlSize] = {0};
    std::snprintf(printed, sizeof(printed), pattern, values[0], values[1], values[2], values[3]);
    return CompareUrl(url, printed) == 0;
}

bool CHttpHelper::GetIdNumFromURL(const char* url, const char* pattern, int count, int& id) const
{
    int values[kMaxUrlVariables] = {0, 0, 0, 0};
    if (!ScanUrlVariables(url, pattern, count, values)) {
        return false;
    }
    id = values[count - 1];
    return true;
}

int CHttpHelper::CompareUrl(std::string url, const char* reference) const
{
    const std::string::size_type query = url.find('?');
    if (query != std::string::npos) {
        url.erase(query);
    }
    return std::strcmp(url.c_str(), reference == nullptr ? "" : reference);
}

int CHttpHelper::getRecvAddress(int httpHandle, std::string& address, int& port) const
{
    char host[kHostHeaderSize] = {0};
    if (NET_HTTPSERVER_GetParamV2(httpHandle, NET_HTTPSERVER_GET_REQUEST, NET_HTTPSERVER_SUB_HEADER, "HOST", 4, host,
                                  kHostHeaderSize) < 0) {
        return -1;
    }
    const char* colon = std::strchr(host, ':');
    if (colon == nullptr) {
        address = host;
        port = kDefaultHttpPort;
    } else {
        address.assign(host, static_cast<std::size_t>(colon - host));
        port = std::atoi(colon + 1);
    }
    return 0;
}

CHttpHelper::HeaderRead CHttpHelper::getRequestHeader(int httpHandle, const char* name, size_t maxLength,
                                                      std::string& value) const
{
    // Room for any header the server accepts, so that a value too long for
    // the caller is seen as such and not taken for a missing one.
    std::string buffer(kHeaderReadSize, '\0');
    if (NET_HTTPSERVER_GetParamV2(httpHandle, NET_HTTPSERVER_GET_REQUEST, NET_HTTPSERVER_SUB_HEADER, name,
                                  static_cast<int>(std::strlen(name)), &buffer[0],
                                  static_cast<int>(buffer.size())) != 0) {
        return HEADER_ABSENT;
    }
    const size_t length = std::strlen(buffer.c_str());
    if (length > maxLength) {
        return HEADER_TOO_LONG;
    }
    value.assign(buffer.c_str(), length);
    return HEADER_READ;
}

std::string CHttpHelper::getHTTPStatsStringByCode(unsigned int code) const
{
    for (const tagHttpStatusText& entry : kHttpStatusTexts) {
        if (entry.code == code) {
            return entry.text;
        }
    }
    return std::string();
}

int CHttpHelper::response(int httpHandle, const void* data, int length) const
{
    if (NET_HTTPSERVER_SetParam(httpHandle, NET_HTTPSERVER_PARAM_BODY, nullptr, 0, data, length) < 0) {
        return -1;
    }
    return NET_HTTPSERVER_Reply(httpHandle, 0) == length ? length : -1;
}

bool CHttpHelper::CreateNonce(char* out, int outSize) const
{
    if (out == nullptr) {
        return false;
    }
    // The random generator yields up to 31 bits; masking to 16 makes each
    // number exactly four hex digits, so the colon always stands at offset 8.
    char text[kNonceTextSize] = {0};
    const unsigned int first = static_cast<unsigned int>(ZRT_Rand()) & kNonceRandomMask;
    const unsigned int second = static_cast<unsigned int>(ZRT_Rand()) & kNonceRandomMask;
    const unsigned long long seconds = static_cast<unsigned long long>(ZRT_TimeNow() / kMicrosecondsPerSecond);
    std::snprintf(text, sizeof(text), "%04x%04x:%llx", first, second, seconds);

    char* encoded = nullptr;
    const int encodedLength =
        base64_encode(reinterpret_cast<const unsigned char*>(text), static_cast<int>(std::strlen(text)), &encoded);
    if (encodedLength < 0) {
        return false;
    }
    // Two digits per Base64 character plus the terminator that the last digit
    // pair brings: an output of exactly twice the length would be overrun by one.
    if (outSize < 2 * encodedLength + 1) {
        FreeEncoder(encoded);
        return false;
    }
    for (int i = 0; i < encodedLength; ++i) {
        std::snprintf(out + 2 * i, 3, "%02x", static_cast<unsigned char>(encoded[i]));
    }
    FreeEncoder(encoded);
    return true;
}

std::string CHttpHelper::GetDigestAuthVal(const std::string& uri, const std::string& method, const std::string& unused,
                                          const std::string& nonce, const std::string& ha1) const
{
    const std::string ha2 = Md5Hex(method + ":" + uri);
    return Md5Hex(ha1.substr(0, kDigestHaLength) + ":" + nonce + ":" + ha2);
}

}  // namespace HttpWrapper
