// Framing of one HTTP/1.1 request, fed with raw bytes as they arrive.
//
// The parser needs no socket: the I/O thread feeds it what recv(2) returned, and
// the unit tests and the fuzzer feed it directly. It enforces the server's
// limits, keeps the URL, the method, the headers and the body of the first
// complete request, and fills the request parameter block the owner reads.
//
// The framing is llhttp's in its strict mode, and stricter still where a proxy
// in front could read the same bytes differently: whitespace before a colon,
// chunk data not followed by CR LF, a folded header line, a request line without
// a version (HTTP/0.9) and any version but HTTP/1.0 and HTTP/1.1 are refused.
#ifndef NETUTILS_REQUESTPARSER_H
#define NETUTILS_REQUESTPARSER_H

#include "netutils/VQNetUtils.h"

#include <llhttp.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace netutils {

// A request beyond these limits is refused with 413 before it reaches the owner.
constexpr size_t kMaxRequestLine = 8 * 1024;  // method, target and version, without CR LF
constexpr size_t kMaxHeaderBlock = 8 * 1024;  // every header line with its CR LF, and the empty line
constexpr size_t kMaxBody = 1024 * 1024;

class RequestParser {
public:
    enum class Result {
        Incomplete,           // more bytes are needed
        Complete,             // a whole request was read; later bytes are ignored
        BadRequest,           // malformed: answer 400
        TooLarge,             // over a limit: answer 413
        MethodNotAllowed,     // not GET, PUT, POST or DELETE: answer 405 as soon as the request line is read
        VersionNotSupported,  // HTTP/<digit>.<digit> other than 1.0 and 1.1: answer 505
    };

    RequestParser();
    RequestParser(const RequestParser&) = delete;
    RequestParser& operator=(const RequestParser&) = delete;

    // Consumes the next bytes of the connection. Once the result is not
    // Incomplete it stays what it is and further bytes are ignored.
    Result feed(const char* data, size_t length);
    Result result() const { return m_result; }
    // True once the head (request line and headers) has been read whole.
    bool headComplete() const { return m_headersDone; }

    // True once, when the headers asked for "100-continue" and the body is still to come.
    bool takeContinueRequest();

    // Valid once the result is Complete.
    const std::string& url() const { return m_url; }
    int methodCode() const { return m_methodCode; }
    const std::string& body() const { return m_body; }
    // First header of that name, compared without regard to case; null when absent.
    const std::string* findHeader(const char* name, size_t nameLength) const;
    // Zeroes the block and fills URL, method and the Digest fields of "Authorization".
    void fillRequestParam(NET_HTTPSERVER_REQUEST_PARAM& block) const;

private:
    static int onUrl(llhttp_t* parser, const char* at, size_t length);
    static int onVersion(llhttp_t* parser, const char* at, size_t length);
    static int onVersionComplete(llhttp_t* parser);
    static int onHeaderField(llhttp_t* parser, const char* at, size_t length);
    static int onHeaderFieldComplete(llhttp_t* parser);
    static int onHeaderValue(llhttp_t* parser, const char* at, size_t length);
    static int onHeaderValueComplete(llhttp_t* parser);
    static int onHeadersComplete(llhttp_t* parser);
    static int onBody(llhttp_t* parser, const char* at, size_t length);
    static int onMessageComplete(llhttp_t* parser);
    static const llhttp_settings_t& settings();

    // Offset in the whole stream of `at`, a pointer into the chunk being fed.
    size_t streamOffset(const char* at) const { return m_fedBefore + static_cast<size_t>(at - m_chunk); }
    // Whether a line break was fed between the last name's colon and `at` (a pointer into the chunk
    // being fed): llhttp skips a folded line's break in front of a value, so only the bytes show it.
    bool lineBreakSinceColon(const char* at) const;
    Result errorResult() const;
    int scanRequestLine(const char* data, size_t length);
    int endRequestLine(size_t offset);
    int stop(Result result);

    llhttp_t m_parser;
    Result m_result = Result::Incomplete;
    size_t m_fedBefore = 0;             // bytes consumed by earlier feeds
    const char* m_chunk = nullptr;      // start of the bytes being fed
    size_t m_chunkLength = 0;           // their number
    bool m_requestLineStarted = false;  // a byte other than CR and LF was seen
    bool m_requestLineDone = false;     // its LF was seen
    size_t m_headerStart = 0;           // stream offset behind the request line's LF
    bool m_headersDone = false;
    std::string m_version;           // as written after "HTTP/", while the request line is read
    bool m_versionComplete = false;  // llhttp accepted the version's form
    bool m_inHeaderField = false;    // llhttp may split a name or a value over several calls
    bool m_inHeaderValue = false;
    size_t m_fieldEnd = 0;           // stream offset just behind the last name bytes seen: the colon
    size_t m_valueEnd = 0;           // stream offset just behind the last value bytes seen
    bool m_awaitingValue = false;    // the name's colon was read, no byte of its value yet
    bool m_breakAfterColon = false;  // meanwhile a line break was fed: the value is on a folded line
    bool m_continuePending = false;

    std::string m_url;
    int m_methodCode = NET_HTTP_METHOD_OTHER;
    std::vector<std::pair<std::string, std::string>> m_headers;
    std::string m_body;
};

}  // namespace netutils

#endif
