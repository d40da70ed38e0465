/* A first Quorvex program: make byte arrays, view part of one, free them.
 *
 * Build against an installed Quorvex with either
 *   cc byte_arrays.c $(pkg-config --cflags --libs quorvex)
 * or the CMake project in this directory (find_package(Quorvex)). */
#include <stdio.h>

#include <quorvex/CApi.h>

int main(void) {
    const uint8_t word[] = {'q', 'u', 'o', 'r', 'v', 'e', 'x'};

    /* A copy of our bytes, owned by the library. */
    ByteArrayHandle* copy = byte_array_new_clone_from(word, sizeof word);

    /* A view of its middle: no copy; valid while `copy` lives. */
    ByteArrayHandle* middle = byte_array_new_borrow_from(copy, 2, 3);

    uint8_t* bytes = NULL;
    uint32_t length = byte_array_get_bytes(middle, &bytes);
    printf("view of %u bytes: %.*s\n", (unsigned)length, (int)length, (const char*)bytes);

    /* Every handle is released once; the view first, then its source. */
    byte_array_free(middle);
    byte_array_free(copy);
    return length == 3 ? 0 : 1;
}
