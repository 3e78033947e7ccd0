// Bounds on how deeply a document may nest, checked before a recursive parser
// sees it. The JSON and XML libraries parse recursively, one chain of stack
// frames per level; a small body of thousands of levels would overflow the
// 256 KiB stack of a request worker and end the whole gateway process.
//
// The bound counts, it does not parse: every '[' and '{' anywhere (inside
// strings and comments too), every '<' not followed by '/', over every byte.
// Nesting can never be deeper than that count, whatever a parser makes of
// comments, odd bytes or broken markup, so an over-count is the only possible
// error, and it is a safe one. A scanner that imitated the parsers would have
// to agree with them on every byte, and each disagreement is a way through.
#ifndef HTTPWRAPPER_UTIL_NESTINGLIMIT_H
#define HTTPWRAPPER_UTIL_NESTINGLIMIT_H

#include <cstddef>

namespace HttpWrapper {

// Most openings a request body may hold. A download request has three or four;
// a worker's stack holds the parsers at many times this depth, also in
// instrumented builds.
const size_t kMaxRequestOpenings = 64;

// The '[' and '{' bytes of text.
size_t CountJsonOpenings(const char* text, size_t length);

// The '<' bytes of text that are not followed by '/' (a '<' at the very end
// counts).
size_t CountXmlOpenings(const char* text, size_t length);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_UTIL_NESTINGLIMIT_H
