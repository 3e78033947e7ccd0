// The one check of a client's text before it becomes part of the RTSP request
// the gateway reads: that message is lines of text, so a CR or LF in a field
// would end the field's line and start heads of the client's making, a NUL
// would end the message early, and a space in the request URI would split the
// request line. A field that may hold spaces (the Authorization value) is
// still refused every control byte.
#ifndef HTTPWRAPPER_UTIL_REQUESTTEXT_H
#define HTTPWRAPPER_UTIL_REQUESTTEXT_H

#include <string>

namespace HttpWrapper {

enum RequestTextSpaces { SPACES_REFUSED, SPACES_ALLOWED };

// True when text holds no byte below 0x20 nor 0x7F, and no space unless allowed.
bool IsSafeRequestText(const std::string& text, RequestTextSpaces spaces);

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_UTIL_REQUESTTEXT_H
