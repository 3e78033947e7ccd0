// The parameters of an HTTP Digest "Authorization" value (RFC 7616):
// `Digest name=value, name="quoted, \"value\"", ...`. The library reads the
// credential fields of every request with it, and a gateway that verifies
// credentials reads them the same way.
#ifndef NETUTILS_DIGESTPARAMS_H
#define NETUTILS_DIGESTPARAMS_H

#include <map>
#include <string>

namespace netutils {

// False when the value is not of the Digest scheme. Otherwise true, with every
// parameter that could be read: names in lower case, values without quotes or
// escapes, the first of a repeated name kept. `error` names the first fault
// met (a parameter without "=", an unterminated quoted value, a repeated name,
// a missing comma) and is empty when there was none; reading goes on past a
// fault, so a lenient caller takes what it can and a strict one refuses.
bool parseDigestParams(const std::string& value, std::map<std::string, std::string>& params, std::string& error);

}  // namespace netutils

#endif
