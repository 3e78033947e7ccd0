// The targets' own findings: a property of the code under test that does not hold.
// It prints the condition and aborts, which libFuzzer reports as a crash and keeps
// the input of.
#ifndef HPW_FUZZ_FUZZCHECK_H
#define HPW_FUZZ_FUZZCHECK_H

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                  \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (0)

#endif  // HPW_FUZZ_FUZZCHECK_H
