// Stops the process with the C library's assertion message, in every build.
// Used where the gateway's contract says a broken invariant ends the process;
// <assert.h> declares __assert_fail only while NDEBUG is undefined.
#ifndef HTTPWRAPPER_FRAME_FATALASSERT_H
#define HTTPWRAPPER_FRAME_FATALASSERT_H

extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned int line,
                                           const char* function) noexcept;

#define HPW_FATAL_ASSERT(assertion, file, line, function) __assert_fail((assertion), (file), (line), (function))

#endif  // HTTPWRAPPER_FRAME_FATALASSERT_H
