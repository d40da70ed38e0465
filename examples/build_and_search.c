/* Build an index of three words in memory, search it, free everything.
 *
 *   cc build_and_search.c $(pkg-config --cflags --libs quorvex) */
#include <stdio.h>
#include <string.h>

#include <quorvex/CApi.h>

static void add(IndexWriterHandle* writer, const char* key, const char* value) {
    ByteArrayHandle* bytes = byte_array_new_clone_from((const uint8_t*)value, (uint32_t)strlen(value));
    index_writer_add_item(writer, key, bytes);
    byte_array_free(bytes); /* the writer keeps its own reference */
}

int main(void) {
    IndexWriterHandle* writer = index_writer_new();
    add(writer, "haus", "house");
    add(writer, "rathaus", "town hall");
    add(writer, "hausschuh", "slipper");
    IndexWriterBytesResult* blobs = index_writer_to_bytes_result(writer);
    index_writer_free(writer);

    /* The reader takes the blobs as table, index, key, data, and keeps its
     * own references: the result record can go at once. */
    IndexReaderHandle* reader = index_reader_new_from_bytes(blobs->table, blobs->index, blobs->key, blobs->data);
    index_writer_bytes_result_free(blobs);

    SearchResultsHandle* results = index_reader_search(reader, "haus", 20);
    int64_t count = search_results_get_count(results);
    for (int64_t i = 0; i < count; ++i) {
        SearchResultItem* item = search_result_item_get(results, (uint16_t)i);
        uint8_t* key = NULL;
        uint8_t* value = NULL;
        uint32_t key_length = byte_array_get_bytes(item->key, &key);
        uint32_t value_length = byte_array_get_bytes(item->value, &value);
        printf("%.*s\t%.*s\n", (int)key_length, (const char*)key, (int)value_length, (const char*)value);
        /* The item's arrays view the reader's blobs: free them, then the record. */
        byte_array_free(item->key);
        byte_array_free(item->value);
        search_result_item_free(item);
    }
    search_results_free(results);
    index_reader_free(reader); /* last: results must not be read after this */
    return count == 3 ? 0 : 1;
}
