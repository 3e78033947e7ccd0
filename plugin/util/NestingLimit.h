// Bounds on how deeply a request body nests, checked before a recursive
// parser sees it. The JSON and XML libraries parse recursively, one stack frame
// chain per level; a small body of thousands of levels would overflow the
// 256 KiB stack of a request worker and end the whole gateway process. No
// document of the device API nests more than a few levels.
#ifndef HTTPWRAPPER_UTIL_NESTINGLIMIT_H
#define HTTPWRAPPER_UTIL_NESTINGLIMIT_H

#include <cstddef>

namespace HttpWrapper {

// Deepest nesting a request body may have: far below what a worker's stack
// holds even in instrumented builds, far above any document of the API.
const int kMaxRequestNesting = 32;

// True when no object or array of the JSON text lies deeper than limit.
// Strings and the comments the JSON reader accepts ("//" and "/* */") are
// skipped, so brackets inside them do not count; the text need not be valid.
bool JsonNestingWithin(const char* text, size_t length, int limit);

// True when no element of the XML text lies deeper than limit. Comments,
// CDATA sections, declarations, processing instructions and quoted attribute
// values are skipped as the XML library skips them; empty-element tags do not
// nest. The text need not be well-formed.
bool XmlNestingWithin(const char* text, size_t length, int limit);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_UTIL_NESTINGLIMIT_H
