/* The checks of the C test programs: a failed CHECK is reported with its
 * place and counted, and the program goes on; finish() turns the count into
 * the exit status. */
#ifndef QUORVEX_TESTS_C_CHECK_H
#define QUORVEX_TESTS_C_CHECK_H

#include <stdio.h>

static int failures = 0;

#define CHECK(condition)                                                     \
    do {                                                                     \
        if (!(condition)) {                                                  \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, \
                    #condition);                                             \
            ++failures;                                                      \
        }                                                                    \
    } while (0)

static int finish(const char* what) {
    if (failures != 0) {
        fprintf(stderr, "%d check(s) failed\n", failures);
        return 1;
    }
    printf("all %s checks passed\n", what);
    return 0;
}

#endif
