// The pure part of a download request: reading the playback URI a client sent
// and checking the download URI made of it. No session state is involved, so
// the sessions, the unit tests and the fuzzer call the same code.
#ifndef HTTPWRAPPER_SESSION_DOWNLOADURI_H
#define HTTPWRAPPER_SESSION_DOWNLOADURI_H

#include <string>

namespace HttpWrapper {

// The first "playback" becomes "download": the gateway serves downloads under
// the same URI with that word changed.
void RewritePlaybackToDownload(std::string& uri);

// Reads {"downloadRequest":{"playbackURI":"..."}} from the length bytes of
// body (no terminator needed) and returns the URI already rewritten to the
// download URI. False, with uri untouched, when the body is not JSON of that
// shape or holds more than kMaxRequestOpenings brackets.
bool ReadJsonDownloadUri(const char* body, int length, std::string& uri);

// True when the download URI names a download, a start and an end time and
// the device devIndex, all as plain substrings.
bool IsCompleteDownloadUri(const std::string& uri, const char* devIndex);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_SESSION_DOWNLOADURI_H
