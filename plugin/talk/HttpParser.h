// Framing and dissection of HTTP requests that arrive as raw bytes on the audio
// channel's own port, where no HTTP server library stands in between; the
// standard sessions use it to take the Digest user name. It is a parser of its
// own, beside the HTTP server library's, because the channel's clients are
// read by its rules (exact-case "Content-Length: ", the 2048-byte limit; Q17
// in docs/compatibility.md).
#ifndef HTTPWRAPPER_TALK_HTTPPARSER_H
#define HTTPWRAPPER_TALK_HTTPPARSER_H

#include <map>
#include <string>

namespace HttpWrapper {

class CHttpParser {
public:
    // Largest request the audio channel accepts, head and body.
    static const int kMaxRequestSize = 2048;

    // 0 complete with a valid request line; 1 more data needed (or a malformed
    // header line); -1 request line invalid or request larger than kMaxRequestSize.
    int Parse(const char* data, unsigned int length);
    // 0 when a whole request is present, 1 otherwise; fills only the lengths.
    int SimpleParse(const char* data, unsigned int length);
    // 0 complete, 1 body incomplete, -1 head incomplete or malformed.
    int IsEnd(const char* data, int length, bool simple);
    bool GetBaseInfo(const char* data);

    int GetHeadLen() const { return m_iHeadLen; }
    int GetTotalLen() const { return m_iTotalLen; }
    std::string getMethod() const { return m_strMethod; }
    std::string getURL() const { return m_strUrl; }
    const std::string& getHeader() const { return m_strHeader; }
    const std::string& getBody() const { return m_strBody; }
    std::string getHttpHeadValue(const std::string& name) const;
    // The user name of a Digest Authorization value, cut by one character as the
    // gateway expects it (Q2, Q3).
    bool getAuthName(std::string& name, const std::string& authorization);
    void Clear();

private:
    int m_iHeadLen = 0;
    int m_iTotalLen = 0;
    std::string m_strUrl;
    std::string m_strMethod;
    std::string m_strVersion;  // not filled by the parser; only emptied by Clear
    std::string m_strHeader;
    std::string m_strBody;
    std::map<std::string, std::string> m_headers;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TALK_HTTPPARSER_H
