// Stops the process with the C library's assertion message, in every build.
// Used where a broken invariant must end the process rather than let the
// gateway carry on with a session in a state it cannot be in;
// <assert.h> declares __assert_fail only while NDEBUG is undefined.
#ifndef HTTPWRAPPER_FRAME_FATALASSERT_H
#define HTTPWRAPPER_FRAME_FATALASSERT_H

extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned int line,
                                           const char* function) noexcept;

#define HPW_FATAL_ASSERT(assertion, file, line, function) __assert_fail((assertion), (file), (line), (function))

#endif  // HTTPWRAPPER_FRAME_FATALASSERT_H
