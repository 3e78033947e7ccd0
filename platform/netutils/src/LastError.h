// Per-thread record of the last failure, read back through NET_UTILS_GetLastError.
#ifndef NETUTILS_LASTERROR_H
#define NETUTILS_LASTERROR_H

namespace netutils {

int lastError();

// Records `error` for the calling thread and returns -1, the failure result of every API call.
int fail(int error);

}  // namespace netutils

#endif
