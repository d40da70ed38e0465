/* The byte array family driven from C, through the exported symbols only.
 * Compiled as C11 with warnings as errors, so C++ in the public header
 * fails the build.
 *
 * Without arguments it runs every check and exits 0 when all pass. With the
 * argument "borrow-past-end" it makes an out-of-range view, which must stop
 * the process with the library's assertion (the test harness matches the
 * message). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "CApi.h"
#include "CCheck.h"


static void empty_arrays_have_bytes(void) {
    ByteArrayHandle* empty = byte_array_new_empty(0);
    uint8_t* bytes = NULL;
    CHECK(byte_array_get_bytes(empty, &bytes) == 0);
    CHECK(bytes != NULL);
    CHECK(byte_array_get_length(empty) == 0);

    const uint8_t nothing[1] = {0};
    ByteArrayHandle* clone = byte_array_new_clone_from(nothing, 0);
    CHECK(byte_array_get_length(clone) == 0);

    byte_array_free(clone);
    byte_array_free(empty);
}

static void clones_copy_the_callers_bytes(void) {
    uint8_t source[5] = {1, 2, 3, 4, 5};
    ByteArrayHandle* clone = byte_array_new_clone_from(source, 5);
    memset(source, 0, sizeof source);

    uint8_t* bytes = NULL;
    CHECK(byte_array_get_bytes(clone, &bytes) == 5);
    CHECK(bytes != source);
    CHECK(bytes[0] == 1 && bytes[4] == 5);
    byte_array_free(clone);
}

static void views_share_bytes(void) {
    ByteArrayHandle* owner = byte_array_new_empty(6);
    uint8_t* owner_bytes = NULL;
    byte_array_get_bytes(owner, &owner_bytes);
    for (int i = 0; i < 6; ++i) {
        owner_bytes[i] = (uint8_t)(10 + i);
    }

    ByteArrayHandle* whole = byte_array_new_borrow_from(owner, 0, byte_array_get_length(owner));
    ByteArrayHandle* middle = byte_array_new_borrow_from(owner, 2, 3);
    ByteArrayHandle* at_end = byte_array_new_borrow_from(owner, 6, 0);

    uint8_t* whole_bytes = NULL;
    uint8_t* middle_bytes = NULL;
    CHECK(byte_array_get_bytes(whole, &whole_bytes) == 6);
    CHECK(whole_bytes == owner_bytes);
    CHECK(byte_array_get_bytes(middle, &middle_bytes) == 3);
    CHECK(middle_bytes == owner_bytes + 2);
    CHECK(byte_array_get_length(at_end) == 0);

    whole_bytes[3] = 99; /* a write through one view shows through the others */
    CHECK(owner_bytes[3] == 99);
    CHECK(middle_bytes[1] == 99);

    /* Views are released on their own; the owner's bytes stay. */
    byte_array_free(whole);
    byte_array_free(middle);
    byte_array_free(at_end);
    CHECK(owner_bytes[5] == 15);
    byte_array_free(owner);
}

static void user_data_stays_with_the_user(void) {
    uint8_t* data = malloc(4);
    memcpy(data, "abcd", 4);
    ByteArrayHandle* array = byte_array_new_on_user_data(data, 4);
    uint8_t* bytes = NULL;
    CHECK(byte_array_get_bytes(array, &bytes) == 4);
    CHECK(bytes == data); /* no copy */

    ByteArrayHandle* view = byte_array_new_borrow_from(array, 1, 2);
    byte_array_free(view);
    byte_array_free(array);

    /* Still the caller's: reading and freeing it here is valid (a free inside
     * the library would show up as a use after free under ASan). */
    CHECK(memcmp(data, "abcd", 4) == 0);
    free(data);
}

static void free_accepts_null(void) { byte_array_free(NULL); }

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "borrow-past-end") == 0) {
        ByteArrayHandle* owner = byte_array_new_empty(4);
        byte_array_new_borrow_from(owner, 2, 3);
        fprintf(stderr, "borrow past the end returned\n");
        return 0;
    }
    if (argc != 1) {
        fprintf(stderr, "usage: %s [borrow-past-end]\n", argv[0]);
        return 2;
    }

    empty_arrays_have_bytes();
    clones_copy_the_callers_bytes();
    views_share_bytes();
    user_data_stays_with_the_user();
    free_accepts_null();

    return finish("byte array");
}
