/* The writer family driven from C, through the exported symbols only:
 * build the two-item example and check the four blobs byte for byte, in the
 * result record's order (index, table, key, data). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "CApi.h"
#include "CCheck.h"


static int equals(ByteArrayHandle* array, const uint8_t* expected, uint32_t length) {
    uint8_t* bytes = NULL;
    return byte_array_get_bytes(array, &bytes) == length && (length == 0 || memcmp(bytes, expected, length) == 0);
}

static void add(IndexWriterHandle* writer, const char* key, const char* value, uint32_t length) {
    ByteArrayHandle* array = byte_array_new_clone_from((const uint8_t*)value, length);
    index_writer_add_item(writer, key, array);
    byte_array_free(array); /* the writer keeps its own reference */
}

static void builds_the_two_item_example(void) {
    IndexWriterHandle* writer = index_writer_new();
    add(writer, "b", "\x59\x5A", 2);
    add(writer, "ab", "\x58", 1);
    IndexWriterBytesResult* result = index_writer_to_bytes_result(writer);
    index_writer_free(writer); /* the result does not depend on the writer */

    static const uint8_t index[] = {0, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0};
    static const uint8_t key[] = {0, 0, 0, 0, 2, 0x61, 0x62, 3, 0, 0, 0, 1, 0x62};
    static const uint8_t data[] = {1, 0, 0x58, 2, 0, 0x59, 0x5A};
    CHECK(equals(result->index, index, sizeof index));
    CHECK(equals(result->key, key, sizeof key));
    CHECK(equals(result->data, data, sizeof data));

    uint8_t* table = NULL;
    CHECK(byte_array_get_bytes(result->table, &table) == 65559);
    static const uint8_t row_a[] = {1, 4, 0, 0, 0, 1, 0, 0, 0};
    static const uint8_t row_b[] = {2, 8, 0, 0, 0, 1, 0, 0, 0, 12, 0, 0, 0, 1, 0, 0, 0};
    CHECK(table[96] == 0);
    CHECK(memcmp(table + 97, row_a, sizeof row_a) == 0);
    CHECK(memcmp(table + 106, row_b, sizeof row_b) == 0);
    CHECK(table[123] == 0 && table[65558] == 0);

    index_writer_bytes_result_free(result);
}

static void empty_writer_gives_valid_empty_blobs(void) {
    IndexWriterHandle* writer = index_writer_new();
    IndexWriterBytesResult* result = index_writer_to_bytes_result(writer);
    static const uint8_t sentinel[] = {0, 0, 0, 0};
    CHECK(equals(result->index, sentinel, 4));
    CHECK(byte_array_get_length(result->table) == 65535);
    CHECK(byte_array_get_length(result->key) == 0);
    CHECK(byte_array_get_length(result->data) == 0);
    index_writer_bytes_result_free(result);
    index_writer_free(writer);
}

static void borrowed_values_are_read_at_build_time(void) {
    uint8_t* value = malloc(3);
    memcpy(value, "old", 3);
    IndexWriterHandle* writer = index_writer_new();
    ByteArrayHandle* array = byte_array_new_on_user_data(value, 3);
    index_writer_add_item(writer, "k", array);
    byte_array_free(array);
    memcpy(value, "new", 3); /* still shared with the writer */

    IndexWriterBytesResult* result = index_writer_to_bytes_result(writer);
    static const uint8_t data[] = {3, 0, 'n', 'e', 'w'};
    CHECK(equals(result->data, data, sizeof data));
    index_writer_bytes_result_free(result);
    index_writer_free(writer);
    free(value); /* the caller's memory, freed once the writer is gone */
}

static void free_functions_accept_null(void) {
    index_writer_free(NULL);
    index_writer_bytes_result_free(NULL);
}

int main(void) {
    builds_the_two_item_example();
    empty_writer_gives_valid_empty_blobs();
    borrowed_values_are_read_at_build_time();
    free_functions_accept_null();
    return finish("writer");
}
