#include "LastError.h"

namespace netutils {

namespace {
// Kept until the next failure of the same thread: callers read it after a -1, possibly
// after other successful calls in between.
thread_local int t_lastError = 0;
}  // namespace

int lastError()
{
    return t_lastError;
}

int fail(int error)
{
    t_lastError = error;
    return -1;
}

}  // namespace netutils
