// The stateless helper each HTTP session holds: URL tests, HTTP status-line
// phrases, the one-shot raw reply, and the Digest nonce and response values.
#ifndef HTTPWRAPPER_UTIL_HTTPHELPER_H
#define HTTPWRAPPER_UTIL_HTTPHELPER_H

#include <stddef.h>

#include <string>

namespace HttpWrapper {

class CHttpHelper {
public:
    // True when "format=json" occurs anywhere in the URL.
    bool IsJsonURL(const char* url) const;

    // Copies the value of "devIndex" (from 9 characters after the word up to
    // the next "&", else the next "?", else the end) into out and terminates
    // it. Only a value of exactly 36 characters is accepted; out must hold 37
    // bytes and is untouched on failure.
    bool GetDevIndexFromURL(const char* url, char* out) const;

    // Reads count (1..4) integers from url with pattern as a scanf format,
    // prints the pattern with them and compares the result with the URL cut
    // at its query. So ".../channels/%d/open" matches channel 1, also with a
    // query, but not the same URL written with "01".
    bool CheckUrlWithVariable(const char* url, const char* pattern, int count) const;

    // Reads count (1..4) integers as above and stores the count-th in id;
    // true even when nothing matched (id is then 0).
    bool GetIdNumFromURL(const char* url, const char* pattern, int count, int& id) const;

    // url cut at its first "?", compared with reference as by strcmp.
    int CompareUrl(std::string url, const char* reference) const;

    // Host and port from the request's "HOST" header; port 80 when it names
    // none. -1 when the header cannot be read.
    int getRecvAddress(int httpHandle, std::string& address, int& port) const;

    // The value of the request's header `name`, when it is there and at most
    // maxLength bytes long; a longer one is told apart from a missing one.
    enum HeaderRead { HEADER_ABSENT, HEADER_TOO_LONG, HEADER_READ };
    HeaderRead getRequestHeader(int httpHandle, const char* name, size_t maxLength, std::string& value) const;

    // "200 OK" and the like; empty for codes without a phrase.
    std::string getHTTPStatsStringByCode(unsigned int code) const;

    // Stages data as the reply body and replies. Returns length when exactly
    // length bytes went out, else -1.
    int response(int httpHandle, const void* data, int length) const;

    // A fresh Digest nonce: the Base64 form of "rrrrRRRR:time" written as hex
    // digits, terminated. False when out is null, the encoding failed, or
    // outSize cannot hold the digits and their terminator.
    bool CreateNonce(char* out, int outSize) const;

    // The RFC 2617 Digest response without "qop":
    // MD5(HA1[0..32) ":" nonce ":" MD5(method ":" uri)), all lower-case hex.
    // The third argument is accepted for the interface and not used.
    std::string GetDigestAuthVal(const std::string& uri, const std::string& method, const std::string& unused,
                                 const std::string& nonce, const std::string& ha1) const;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_UTIL_HTTPHELPER_H
