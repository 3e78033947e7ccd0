// Free string functions used by the request parsers and the message model:
// trimming, containment, delimiter matching, splitting, parameter parsing and
// URI escaping. They work on std::string and never throw on their own.
#ifndef HTTPWRAPPER_UTIL_STRINGUTILS_H
#define HTTPWRAPPER_UTIL_STRINGUTILS_H

#include <map>
#include <string>
#include <vector>

namespace HttpWrapper {

// Trims blanks from both ends, then carriage returns from both ends. The order
// is intended: "\r ab" keeps its leading blank, because the blank step has
// already run when the carriage return goes.
std::string& RemoveSpace(std::string& s);

// Trims every double quote from both ends.
std::string& RemoveQuot(std::string& s);

bool Contain(const std::string& s, const std::string& part);

// Cuts s at the earliest occurrence of any delimiter (on a tie the delimiter
// listed first wins) until maxCuts cuts were made; maxCuts below 1 means 64.
// The rest of the string is always the last piece, empty pieces are kept, so
// k cuts give k + 1 pieces. Returns the number of pieces in out.
int Split(const std::string& s, const std::vector<std::string>& delimiters, std::vector<std::string>& out, int maxCuts);
int Split(const std::string& s, const std::string& delimiter, std::vector<std::string>& out, int maxCuts);
int Split(const std::string& s, const std::string& delimiter1, const std::string& delimiter2,
          std::vector<std::string>& out, int maxCuts);
int Split(const std::string& s, const std::string& delimiter1, const std::string& delimiter2,
          const std::string& delimiter3, std::vector<std::string>& out, int maxCuts);

// Enters every "key<separator>value" item into out (a later key overwrites an
// earlier one). An item without the separator is entered under its own text
// with an empty value. Returns the number of items.
int ParseParam(const std::vector<std::string>& items, const std::string& separator,
               std::map<std::string, std::string>& out);

// The text behind the first occurrence of key up to the next "&" (or the end).
// key is a plain substring: callers include the "=" when they want it.
std::string FetchUrlParamValue(const std::string& url, const std::string& key);

// Replaces every occurrence of from; the search goes on behind the inserted
// text, so a replacement that contains from does not loop.
void ReplaceAll(std::string& s, const std::string& from, const std::string& to);

// Finds the first start and the first end behind it. withStart receives the
// text from start up to (not including) end, inner the text between them.
// Returns false, leaving the outputs untouched, when either is missing.
bool Match(const std::string& s, const std::string& start, const std::string& end, std::string& withStart,
           std::string& inner);
// As above; the end is whichever of end1 and end2 comes first behind start.
bool Match(const std::string& s, const std::string& start, const std::string& end1, const std::string& end2,
           std::string& withStart, std::string& inner);

// Percent-escapes a URI. The RFC 3986 unreserved characters (letters, digits,
// "-", ".", "_", "~") stay as they are; keepSlash leaves "/" unescaped so that
// a path keeps its segments. Every other byte becomes "%XX" (upper-case hex).
std::string UriEscape(const std::string& uri, bool keepSlash);

// The same for any text, with the characters of alsoKept left as they are too.
std::string PercentEscape(const std::string& text, const char* alsoKept);

// The X-Forwarded-For text as it travels in the RTSP request line after
// "&clientIP=": escaped but for the unreserved characters, ":" (IPv6) and ","
// (a proxy's list), so one address reads as before while a list's blank, or
// an "&" or "=" meant to inject parameters, cannot cut or extend the URL.
std::string EscapeClientAddress(const std::string& forwardedFor);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_UTIL_STRINGUTILS_H
