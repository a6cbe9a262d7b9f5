#ifndef KIV_FUZZ_FUZZ_CHECK_H
#define KIV_FUZZ_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

// An oracle failure is a crash, so that libFuzzer keeps the input that caused it. Not assert():
// the fuzz build is optimised and defines NDEBUG.
#define FUZZ_CHECK(condition, ...)                                                        \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s: ", __FILE__, __LINE__, #condition); \
            fprintf(stderr, __VA_ARGS__);                                                 \
            fputc('\n', stderr);                                                          \
            abort();                                                                      \
        }                                                                                 \
    } while (0)

#endif
