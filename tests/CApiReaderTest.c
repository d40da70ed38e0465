/* The reader family driven from C, through the exported symbols only:
 * build an index, load it from the bytes and search it, free everything. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "CApi.h"
#include "CCheck.h"


static int equals_text(ByteArrayHandle* array, const char* text) {
    uint8_t* bytes = NULL;
    uint32_t length = byte_array_get_bytes(array, &bytes);
    return length == strlen(text) && memcmp(bytes, text, length) == 0;
}

static IndexReaderHandle* build_reader(void) {
    static const char* const items[][2] = {{"ab", "1"}, {"cab", "2"}, {"abab", "3"}};
    IndexWriterHandle* writer = index_writer_new();
    for (size_t i = 0; i < sizeof items / sizeof items[0]; ++i) {
        ByteArrayHandle* value = byte_array_new_clone_from((const uint8_t*)items[i][1], (uint32_t)strlen(items[i][1]));
        index_writer_add_item(writer, items[i][0], value);
        byte_array_free(value);
    }
    IndexWriterBytesResult* blobs = index_writer_to_bytes_result(writer);
    index_writer_free(writer);
    /* The reader takes table, index, key, data. */
    IndexReaderHandle* reader = index_reader_new_from_bytes(blobs->table, blobs->index, blobs->key, blobs->data);
    /* It holds its own references: the blobs may go at once. */
    index_writer_bytes_result_free(blobs);
    return reader;
}

static void searches_in_position_order(void) {
    IndexReaderHandle* reader = build_reader();
    SearchResultsHandle* results = index_reader_search(reader, "ab", 20);
    static const char* const keys[] = {"ab", "abab", "cab", "abab"};
    static const char* const values[] = {"1", "3", "2", "3"};
    CHECK(search_results_get_count(results) == 4);
    for (uint16_t i = 0; i < 4 && i < search_results_get_count(results); ++i) {
        SearchResultItem* item = search_result_item_get(results, i);
        CHECK(equals_text(item->key, keys[i]));
        CHECK(equals_text(item->value, values[i]));
        byte_array_free(item->key);
        byte_array_free(item->value);
        search_result_item_free(item);
    }
    search_results_free(results);

    SearchResultsHandle* limited = index_reader_search(reader, "ab", 0);
    CHECK(search_results_get_count(limited) == 1);
    search_results_free(limited);

    SearchResultsHandle* none = index_reader_search(reader, "zz", 20);
    CHECK(search_results_get_count(none) == 0);
    search_results_free(none);
    index_reader_free(reader);
}

static void items_outlive_their_list(void) {
    IndexReaderHandle* reader = build_reader();
    SearchResultsHandle* results = index_reader_search(reader, "cab", 20);
    SearchResultItem* item = search_result_item_get(results, 0);
    search_results_free(results);
    ByteArrayHandle* key = item->key;
    ByteArrayHandle* value = item->value;
    search_result_item_free(item); /* the record only: both arrays stay */
    CHECK(equals_text(key, "cab"));
    CHECK(equals_text(value, "2"));
    byte_array_free(key);
    byte_array_free(value);
    index_reader_free(reader); /* last: the arrays viewed its blobs */
}

static void verifies_without_stopping(void) {
    IndexWriterHandle* writer = index_writer_new();
    ByteArrayHandle* value = byte_array_new_clone_from((const uint8_t*)"v", 1);
    index_writer_add_item(writer, "key", value);
    byte_array_free(value);
    IndexWriterBytesResult* blobs = index_writer_to_bytes_result(writer);
    index_writer_free(writer);

    char* message = NULL;
    CHECK(index_verifier_check_bytes(blobs->table, blobs->index, blobs->key, blobs->data, 1, &message) == 0);
    CHECK(message != NULL && strcmp(message, "sound") == 0);
    index_verifier_message_free(message);

    /* The blobs in the writer's order: index.bin where table.bin belongs is
     * reported, not a reason to stop. */
    message = NULL;
    CHECK(index_verifier_check_bytes(blobs->index, blobs->table, blobs->key, blobs->data, 0, &message) == 1);
    CHECK(message != NULL && strstr(message, "table.bin: offset") == message);
    index_verifier_message_free(message);
    index_writer_bytes_result_free(blobs);

    CHECK(index_verifier_check_directory(QUORVEX_TEST_DATA_DIR "/good", 1, NULL) == 0);
    message = NULL;
    CHECK(index_verifier_check_directory(QUORVEX_TEST_DATA_DIR "/table-one-byte-short", 0, &message) == 1);
    CHECK(message != NULL && strstr(message, "ends before row 65534") != NULL);
    index_verifier_message_free(message);
    CHECK(index_verifier_check_directory(NULL, 0, NULL) == 1);
    index_verifier_message_free(NULL);
}

/* Whether two search results hold the same keys and values in order. */
static int same_results(SearchResultsHandle* a, SearchResultsHandle* b) {
    int64_t count = search_results_get_count(a);
    int same = count == search_results_get_count(b);
    for (uint16_t i = 0; same && i < count; ++i) {
        SearchResultItem* x = search_result_item_get(a, i);
        SearchResultItem* y = search_result_item_get(b, i);
        uint8_t *x_key, *y_key, *x_value, *y_value;
        uint32_t key_length = byte_array_get_bytes(x->key, &x_key);
        uint32_t value_length = byte_array_get_bytes(x->value, &x_value);
        same = key_length == byte_array_get_bytes(y->key, &y_key) && memcmp(x_key, y_key, key_length) == 0 &&
               value_length == byte_array_get_bytes(y->value, &y_value) && memcmp(x_value, y_value, value_length) == 0;
        byte_array_free(x->key);
        byte_array_free(x->value);
        byte_array_free(y->key);
        byte_array_free(y->value);
        search_result_item_free(x);
        search_result_item_free(y);
    }
    return same;
}

/* A mapped reader searches as the one that reads the files; one that cannot
 * open gives NULL and a message naming the file; a damaged set opens and
 * its search passes over the damage. */
static void mapped_reader(void) {
    const char* good = QUORVEX_TEST_DATA_DIR "/good";
    char* error = NULL;
    IndexReaderHandle* mapped = index_reader_new_mapped(good, &error);
    IndexReaderHandle* read = index_reader_new_from_directory(good);
    CHECK(mapped != NULL && error == NULL);
    static const char* const keywords[] = {"a", "b", "ab", "x"};
    for (size_t i = 0; mapped != NULL && i < sizeof keywords / sizeof keywords[0]; ++i) {
        for (uint16_t limit = 0; limit <= 20; limit += 20) {
            SearchResultsHandle* expected = index_reader_search(read, keywords[i], limit);
            SearchResultsHandle* results = index_reader_search(mapped, keywords[i], limit);
            CHECK(same_results(results, expected));
            search_results_free(expected);
            search_results_free(results);
        }
    }
    index_reader_free(mapped);
    index_reader_free(read);

    CHECK(index_reader_new_mapped(QUORVEX_TEST_DATA_DIR "/no-such-index", &error) == NULL);
    CHECK(error != NULL && strstr(error, "no-such-index/table.bin") != NULL);
    index_reader_error_free(error);
    CHECK(index_reader_new_mapped(QUORVEX_TEST_DATA_DIR "/table-one-byte-short", NULL) == NULL);
    error = NULL;
    CHECK(index_reader_new_mapped(NULL, &error) == NULL);
    CHECK(error != NULL);
    index_reader_error_free(error);
    index_reader_error_free(NULL);

    /* The good set finds "b" and "ab"; each damaged set breaks the way to one. */
    static const char* const damaged[] = {"posting-list-past-index", "key-record-past-key-blob",
                                          "key-length-past-key-blob", "value-past-data-blob",
                                          "value-length-past-data-blob"};
    for (size_t i = 0; i < sizeof damaged / sizeof damaged[0]; ++i) {
        char path[4096];
        snprintf(path, sizeof path, "%s/%s", QUORVEX_TEST_DATA_DIR, damaged[i]);
        IndexReaderHandle* reader = index_reader_new_mapped(path, NULL);
        CHECK(reader != NULL);
        SearchResultsHandle* results = reader != NULL ? index_reader_search(reader, "b", 20) : NULL;
        CHECK(results != NULL && search_results_get_count(results) == 1);
        search_results_free(results);
        index_reader_free(reader);
    }
}

/* Whether hit `i` of `hits` has the key `key`. */
static int hit_key_is(const SearchHitsHandle* hits, uint32_t i, const char* key) {
    uint32_t length = 0;
    const char* bytes = search_hits_get_key(hits, i, &length);
    return bytes != NULL && length == strlen(key) && memcmp(bytes, key, length) == 0;
}

/* The folded set was built by the tool from folded.tsv: "Straße", "STRASSE",
 * "über", "Haus", "Krankenhaus". A folded search gives the keys as they were
 * put in, each item once; bad keywords come back as messages. */
static void folded_search(void) {
    IndexReaderHandle* reader = index_reader_new_mapped(QUORVEX_TEST_DATA_DIR "/folded", NULL);
    CHECK(reader != NULL && index_reader_get_folding(reader) == quorvex_folding_version());
    const char* name = NULL;
    int named = 0;
    for (uint32_t i = 0; reader != NULL && index_reader_get_description(reader, i, &name) != NULL; ++i) {
        named |= strcmp(name, "items") == 0 && strcmp(index_reader_get_description(reader, i, &name), "5") == 0;
    }
    CHECK(named && index_reader_get_description(reader, 99, &name) == NULL && name == NULL);

    SearchOptionsHandle* options = search_options_new();
    char* error = NULL;
    SearchHitsHandle* hits = index_reader_find(reader, "STRASSE", options, &error);
    CHECK(hits != NULL && error == NULL && search_hits_get_count(hits) == 2);
    CHECK(hit_key_is(hits, 0, "STRASSE") && hit_key_is(hits, 1, "Stra\xC3\x9F" "e"));
    uint32_t length = 0;
    const uint8_t* value = search_hits_get_value(hits, 1, &length);
    CHECK(value != NULL && length == 6 && memcmp(value, "street", 6) == 0);
    CHECK(search_hits_get_key(hits, 2, &length) == NULL && search_hits_get_value(hits, 2, &length) == NULL);
    search_hits_free(hits);

    search_options_set_limit(options, 1);
    hits = index_reader_find(reader, "haus", options, NULL);
    CHECK(hits != NULL && search_hits_get_count(hits) == 1 && hit_key_is(hits, 0, "Haus"));
    search_hits_free(hits);
    hits = index_reader_find(reader, "HAUS", NULL, NULL);
    CHECK(hits != NULL && search_hits_get_count(hits) == 2 && hit_key_is(hits, 1, "Krankenhaus"));
    CHECK(search_hits_get_position(hits, 1) == 7);
    search_hits_free(hits);
    search_options_free(options);

    /* A pattern, and typos: "strase" is one edit from "strasse". */
    options = search_options_new();
    search_options_set_mode(options, QUORVEX_MATCH_PATTERN);
    hits = index_reader_find(reader, "^STRA?SE$", options, NULL);
    CHECK(hits != NULL && search_hits_get_count(hits) == 2 && hit_key_is(hits, 0, "Stra\xC3\x9F" "e"));
    search_hits_free(hits);
    search_options_set_mode(options, QUORVEX_MATCH_PLAIN);
    search_options_set_typos(options, 1);
    hits = index_reader_find(reader, "strase", options, NULL);
    CHECK(hits != NULL && search_hits_get_count(hits) == 2 && search_hits_get_edits(hits, 1) == 1);
    search_hits_free(hits);

    /* Keywords, patterns and options that cannot be searched. */
    static const struct {
        const char* keyword;
        int mode;
        uint8_t typos;
    } bad[] = {{"\xFF", QUORVEX_MATCH_PLAIN, 0},   {"\xF0\x9F\x98\x80", QUORVEX_MATCH_PLAIN, 0},
               {NULL, QUORVEX_MATCH_PLAIN, 0},       {"ab\\", QUORVEX_MATCH_PATTERN, 0},
               {"??", QUORVEX_MATCH_PATTERN, 0},      {"a^b", QUORVEX_MATCH_PATTERN, 0},
               {"haus", QUORVEX_MATCH_PATTERN, 1},    {"haus", QUORVEX_MATCH_PLAIN, 3},
               {"haus", 7, 0}};
    for (size_t i = 0; i < sizeof bad / sizeof bad[0]; ++i) {
        search_options_set_mode(options, bad[i].mode);
        search_options_set_typos(options, bad[i].typos);
        error = NULL;
        CHECK(index_reader_find(reader, bad[i].keyword, options, &error) == NULL && error != NULL);
        quorvex_free(error);
    }
    search_options_free(options);
    index_reader_free(reader);

    char* folded = quorvex_fold("  \xEF\xBC\xB3\xEF\xBC\xB4raSSe  \xC3\x9C" "ber ", &error);
    CHECK(folded != NULL && strcmp(folded, "strasse uber") == 0);
    quorvex_free(folded);
    error = NULL;
    CHECK(quorvex_fold("\xC3", &error) == NULL && error != NULL);
    quorvex_free(error);
}

static void free_functions_accept_null(void) {
    index_reader_free(NULL);
    search_results_free(NULL);
    search_result_item_free(NULL);
    search_options_free(NULL);
    search_hits_free(NULL);
    quorvex_free(NULL);
}

int main(void) {
    searches_in_position_order();
    items_outlive_their_list();
    verifies_without_stopping();
    mapped_reader();
    folded_search();
    free_functions_accept_null();
    return finish("reader");
}
