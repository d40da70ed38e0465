/* Quorvex: a compact, read-only substring index for dictionaries.
 *
 * This is the library's C interface. Conventions that hold for every
 * function below:
 *
 *  1. Objects are reached through opaque handles (ByteArrayHandle, ...).
 *     Every function that returns a handle returns a fresh one, and the
 *     caller releases it exactly once with the matching _free function
 *     (byte_array_free for a ByteArrayHandle). Several handles may share one
 *     object; it lives until the last of them is released.
 *  2. Every _free function accepts NULL and then does nothing. No other
 *     function checks its handles for NULL.
 *  3. Functions that keep an object take their own reference to it, so a
 *     caller may release its handle right after passing it on. A borrowed
 *     array (byte_array_new_on_user_data, byte_array_new_borrow_from) does
 *     not keep the memory it views alive: that memory must outlive every
 *     array, writer and reader that shares the view.
 *  4. Errors come back in two ways. Functions that take what the caller
 *     may not control (index_reader_new_mapped: a path and the files under
 *     it; index_verifier_check_...) never stop the process: they return
 *     NULL or non-zero and, when the caller passes a non-NULL `char**`,
 *     store a message there that the caller frees with the family's own
 *     free function (index_reader_error_free, index_verifier_message_free).
 *     The older functions have no error codes: a broken precondition (an
 *     out-of-range borrow, a damaged index given to from_bytes, ...) stops
 *     the process through a standard assertion failure that names the
 *     condition, and failures of the system (out of memory, ...) leave the
 *     function as C++ exceptions, which a C caller cannot catch: avoid the
 *     conditions that raise them, or open indexes with
 *     index_reader_new_mapped.
 *  5. Reference counts are plain integers: a handle and everything that
 *     shares its object are used by one thread at a time. The one exception
 *     is index_reader_search: several threads may search one reader at once,
 *     each with the result lists it gets, while nobody frees the reader.
 *     A search takes about 24 KiB of the calling thread's stack.
 *
 * Lengths, offsets and counts are unsigned 32-bit.
 */
#ifndef QUORVEX_CAPI_H
#define QUORVEX_CAPI_H

#include <stdint.h>

#include "Export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A byte array: bytes it owns, or a view of bytes owned elsewhere. */
typedef struct ByteArrayHandle ByteArrayHandle;

/* A new array of `length` bytes whose contents are not initialised. A
 * length of 0 gives a valid empty array. The caller releases the result with
 * byte_array_free, which frees the bytes. */
QUORVEX_API ByteArrayHandle* byte_array_new_empty(uint32_t length);

/* A new array viewing the caller's `length` bytes at `data`, without
 * copying. The caller releases the result with byte_array_free, which never
 * frees `data`: the caller keeps `data` valid while any array, writer or
 * reader shares this array, and frees it itself afterwards. */
QUORVEX_API ByteArrayHandle* byte_array_new_on_user_data(uint8_t* data, uint32_t length);

/* A new array holding a copy of the `length` bytes at `data`; `data` may be
 * freed as soon as this returns. The caller releases the result with
 * byte_array_free. */
QUORVEX_API ByteArrayHandle* byte_array_new_clone_from(const uint8_t* data, uint32_t length);

/* A new array viewing `count` bytes of `source` from `offset`, sharing its
 * bytes: a write through one is seen through the other. The view does not
 * keep `source` alive: read it only while `source` (and whatever owns its
 * bytes) lives. `offset` + `count`, summed modulo 2^32, must not exceed the
 * source's length, or the process stops with the assertion
 * "offset + count <= this->length". The caller releases the result with
 * byte_array_free. */
QUORVEX_API ByteArrayHandle* byte_array_new_borrow_from(ByteArrayHandle* source, uint32_t offset, uint32_t count);

/* The number of bytes in `array`. */
QUORVEX_API uint32_t byte_array_get_length(ByteArrayHandle* array);

/* Stores the address of the bytes of `array` into `*bytes` and returns their
 * number. The address stays valid while the array lives; nothing is copied.
 * An empty array still gives a non-null address. */
QUORVEX_API uint32_t byte_array_get_bytes(ByteArrayHandle* array, uint8_t** bytes);

/* Releases the handle `array`; the bytes go with the last reference, and
 * only if the array owns them. NULL is ignored. */
QUORVEX_API void byte_array_free(ByteArrayHandle* array);

/* ---- Writer ------------------------------------------------------------ */

/* A writer: collects (key, value) items and builds an index from them. */
typedef struct IndexWriterHandle IndexWriterHandle;

/* The four blobs of a built index. Note the order: the index blob comes
 * first here, while index_reader_new_from_bytes takes table, index, key,
 * data. Each field is a fresh array whose handle holds the only reference;
 * index_writer_bytes_result_free releases the record and all four. */
typedef struct IndexWriterBytesResult {
    ByteArrayHandle* index; /* index.bin */
    ByteArrayHandle* table; /* table.bin */
    ByteArrayHandle* key;   /* key.bin */
    ByteArrayHandle* data;  /* data.bin */
} IndexWriterBytesResult;

/* A new, empty writer. The caller releases it with index_writer_free. */
QUORVEX_API IndexWriterHandle* index_writer_new(void);

/* Adds the item (`key`, `value`) to `writer`, replacing an earlier value for
 * the same key. `key` is NUL-terminated UTF-8 and is copied; `value` is
 * shared, not copied, so the caller may free its handle at once, but a
 * borrowed value's memory must stay valid until the writer is freed. Keys
 * and values are checked when the index is built: keys must be valid UTF-8
 * of code points U+0001..U+FFFE, at most 254 of them; values at most 65534
 * bytes. A NULL `key` throws std::logic_error. */
QUORVEX_API void index_writer_add_item(IndexWriterHandle* writer, const char* key, ByteArrayHandle* value);

/* Builds the index from the items added so far and returns its four blobs.
 * Build a writer once: a second call returns every posting list doubled.
 * A key or value past the limits above stops the process with an assertion;
 * invalid UTF-8 in a key throws std::range_error. The caller releases the
 * result with index_writer_bytes_result_free; it does not depend on the
 * writer, which may be freed first. */
QUORVEX_API IndexWriterBytesResult* index_writer_to_bytes_result(IndexWriterHandle* writer);

/* Releases the four arrays of `result` (index, table, key, data) and the
 * record. NULL is ignored. */
QUORVEX_API void index_writer_bytes_result_free(IndexWriterBytesResult* result);

/* Releases the handle `writer`; the writer goes with the last reference.
 * NULL is ignored. */
QUORVEX_API void index_writer_free(IndexWriterHandle* writer);

/* ---- Reader and search ------------------------------------------------- */

/* A reader: the four blobs of an index, loaded and ready to search. */
typedef struct IndexReaderHandle IndexReaderHandle;

/* The list of results of one search. */
typedef struct SearchResultsHandle SearchResultsHandle;

/* One result: two arrays that view the reader's key and data blobs (no
 * copy). Their bytes stay valid while the reader lives (for a reader made
 * from byte arrays: while anybody holds its key and data arrays).
 * search_result_item_free releases only the record; the caller releases
 * `key` and `value` with byte_array_free, before or after. */
typedef struct SearchResultItem {
    ByteArrayHandle* key;   /* the key's UTF-8 bytes */
    ByteArrayHandle* value; /* the value's bytes, as they were added */
} SearchResultItem;

/* A new reader over the files table.bin, index.bin, key.bin and data.bin of
 * `directory` (the names are appended as "/table.bin" and so on). A missing
 * file stops the process with the assertion
 * "std::filesystem::exists(file_path)", table.bin checked first: check that
 * the files exist before calling. Read failures throw std::runtime_error; a
 * NULL `directory` throws std::logic_error. The caller releases the result
 * with index_reader_free. */
QUORVEX_API IndexReaderHandle* index_reader_new_from_directory(const char* directory);

/* As index_reader_new_from_directory, with the four files named one by one,
 * in the order table, index, key, data. */
QUORVEX_API IndexReaderHandle* index_reader_new_from_files(const char* table_path, const char* index_path,
                                                           const char* key_path, const char* data_path);

/* A new reader over four arrays, in the order table, index, key, data (not
 * the order of IndexWriterBytesResult). Nothing is copied: the reader takes
 * its own references, so the caller may free its four handles at once, but a
 * borrowed array's memory must stay valid while the reader lives. A table
 * blob that ends before its 65535th row stops the process with
 * "offset + count <= this->length". The caller releases the result with
 * index_reader_free. */
QUORVEX_API IndexReaderHandle* index_reader_new_from_bytes(ByteArrayHandle* table, ByteArrayHandle* index,
                                                           ByteArrayHandle* key, ByteArrayHandle* data);

/* A new reader over the files table.bin, index.bin, key.bin and data.bin of
 * `directory`, mapped read-only instead of read: opening costs one walk over
 * table.bin (a few milliseconds), and the other files' pages come from the
 * page cache as searches touch them, shared by every reader of the same
 * files in the process. This is the way to open a file set that the caller
 * did not build: it never stops the process and throws nothing.
 *
 * On failure it returns NULL and, when `error` is not NULL, stores in
 * *error a message naming the file and the problem (a NULL or empty path, a
 * missing or unreadable file, a directory or FIFO in a file's place, a file
 * of 4 GiB or more, a table.bin that is not 65535 rows, ...), which the
 * caller releases with index_reader_error_free; *error may be NULL when not
 * even the message could be allocated. On success *error is left as it was.
 *
 * Searches on such a reader check each record as they reach it and pass
 * over one that lies outside its file: whatever the files hold, they never
 * stop the process nor read outside the files, and on a sound index they
 * return exactly what the other readers return. Index files must not be
 * changed in place while mapped: a file truncated in place makes a later
 * search receive SIGBUS. Replace an index by renaming a new directory into
 * place, as the quorvex tool does; open readers keep the old files. The
 * caller releases the result with index_reader_free; results stay valid
 * while the reader lives. */
QUORVEX_API IndexReaderHandle* index_reader_new_mapped(const char* directory, char** error);

/* Frees a message from index_reader_new_mapped; NULL is ignored. */
QUORVEX_API void index_reader_error_free(char* error);

/* Releases the handle `reader`; the reader goes with the last reference.
 * Results taken from it must not be read afterwards. NULL is ignored. */
QUORVEX_API void index_reader_free(IndexReaderHandle* reader);

/* The keys of `reader` that contain `keyword` (NUL-terminated UTF-8, fewer
 * than 255 bytes), at most `max_results` of them: keys that begin with the
 * keyword first, then keys holding it from their second character on, and
 * so on; within one position, in key order. A key that holds the keyword at
 * two positions is listed twice. `max_results` 0 still gives the first key
 * that begins with the keyword, if any. A keyword of 255 bytes or more stops
 * the process with "keyword.length() < 255"; invalid UTF-8 throws
 * std::range_error, a NULL keyword std::logic_error. The caller releases the
 * result with search_results_free. */
QUORVEX_API SearchResultsHandle* index_reader_search(IndexReaderHandle* reader, const char* keyword,
                                                     uint16_t max_results);

/* The number of results in `results`. */
QUORVEX_API int64_t search_results_get_count(SearchResultsHandle* results);

/* Result number `index` of `results`, which must be below the count. The
 * caller releases the item's `key` and `value` with byte_array_free and the
 * record with search_result_item_free. The item stays valid after
 * search_results_free, as long as the reader lives. */
QUORVEX_API SearchResultItem* search_result_item_get(SearchResultsHandle* results, uint16_t index);

/* Releases the handle `results`; items already taken stay valid. NULL is
 * ignored. */
QUORVEX_API void search_results_free(SearchResultsHandle* results);

/* Frees the record `item` only, not its two arrays. NULL is ignored. */
QUORVEX_API void search_result_item_free(SearchResultItem* item);

/* ---- Folding, descriptions and the options search ---------------------- */

/* Frees a string the functions below return (a folded text, an error
 * message); the messages of index_reader_new_mapped may be freed with it
 * too. NULL is ignored. */
QUORVEX_API void quorvex_free(char* text);

/* The version of the library's folding: an index records the version its
 * keys were folded with, and a search folds keywords the same way. */
QUORVEX_API uint32_t quorvex_folding_version(void);

/* `text` (NUL-terminated UTF-8) folded as a folded index folds its keys and
 * keywords: compatibility forms to plain letters, case folded ("Straße" and
 * "STRASSE" to "strasse"), diacritics of Latin, Greek and Cyrillic letters
 * and Arabic and Hebrew points removed, katakana to hiragana, white space
 * runs to one space, trimmed; composed (NFC). A new string, released with
 * quorvex_free. On text that is not UTF-8 (or a NULL `text`) it returns
 * NULL and, when `error` is not NULL, stores a message in *error, released
 * with quorvex_free. Never stops the process. */
QUORVEX_API char* quorvex_fold(const char* text, char** error);

/* The folding version of the keys of `reader`'s index, 0 for exact keys. */
QUORVEX_API uint32_t index_reader_get_folding(IndexReaderHandle* reader);

/* What the index of `reader` says about itself, as named texts ("name",
 * "description", "source", "tool", "items", "folding", ...): field number
 * `index` (from 0), its name stored in *name and its text returned, both
 * NUL-terminated and valid while the reader lives. NULL (and *name NULL)
 * when there is no such field; an index built without a description has
 * none. */
QUORVEX_API const char* index_reader_get_description(IndexReaderHandle* reader, uint32_t index, const char** name);

/* Options of index_reader_find, made with search_options_new (limit 20),
 * changed by the setters and released with search_options_free. One record
 * may serve any number of searches, from any number of threads while no
 * setter runs. */
typedef struct SearchOptionsHandle SearchOptionsHandle;

QUORVEX_API SearchOptionsHandle* search_options_new(void);

/* At most `limit` hits; 0 gives none. */
QUORVEX_API void search_options_set_limit(SearchOptionsHandle* options, uint16_t limit);

/* How the keyword is read: QUORVEX_MATCH_PLAIN (the default) as text to
 * find; QUORVEX_MATCH_PATTERN as a pattern, where "?" stands for any one
 * character, "^" first anchors the match at the start of the key, "$" last
 * at its end, and "\" makes the next character literal. Another value
 * makes index_reader_find fail with a message. */
#define QUORVEX_MATCH_PLAIN 0
#define QUORVEX_MATCH_PATTERN 1
QUORVEX_API void search_options_set_mode(SearchOptionsHandle* options, int mode);

/* Typos forgiven (plain mode only): 0, 1 or 2 edits, each a character
 * substituted, inserted or deleted or two adjacent ones swapped, counted on
 * folded text in a folded index. Capped by the keyword's length in
 * characters: none under 4, at most 1 from 4 to 7, 2 from 8 on. Hits then
 * come by their edits first. More than 2, or typos with a pattern, make
 * index_reader_find fail with a message. */
QUORVEX_API void search_options_set_typos(SearchOptionsHandle* options, uint8_t typos);

/* NULL is ignored. */
QUORVEX_API void search_options_free(SearchOptionsHandle* options);

/* The hits of one index_reader_find. */
typedef struct SearchHitsHandle SearchHitsHandle;

/* The items of `reader` whose keys contain `keyword` (NUL-terminated
 * UTF-8; or match it as a pattern, or with typos: see the options), each
 * item once: in a folded index the keyword is folded as the keys were, and
 * each hit gives an item's key as it was put in; in an exact index it only
 * loses white space at both ends. Keys that begin with the keyword come
 * first, then those holding it from their second character on, and so on;
 * within one position in key order, and within one folded entry the items
 * whose key holds the keyword as typed first, then the others in input
 * order. With typos, hits with fewer edits come before all others. Each
 * item comes at its best match. `options` NULL means the defaults.
 *
 * Never stops the process: on a NULL or invalid keyword (not UTF-8, a
 * character outside U+0001..U+FFFE, 255 bytes or more once folded), a
 * malformed pattern (no literal character, a "\" with nothing after it,
 * "^" or "$" elsewhere than first or last), options that do not go
 * together, or no memory, it returns NULL and, when `error` is not NULL,
 * stores a message in *error, released with quorvex_free. A keyword of
 * white space only gives no hits. Several threads may search one reader at
 * once. The caller releases the result with search_hits_free; the keys and
 * values it views stay valid while the reader lives. */
QUORVEX_API SearchHitsHandle* index_reader_find(IndexReaderHandle* reader, const char* keyword,
                                                const SearchOptionsHandle* options, char** error);

/* The number of hits in `hits`. */
QUORVEX_API uint32_t search_hits_get_count(const SearchHitsHandle* hits);

/* Hit number `index`'s key (UTF-8, not NUL-terminated) with its length in
 * *length; NULL when `index` is not below the count. A view into the index:
 * nothing to free. */
QUORVEX_API const char* search_hits_get_key(const SearchHitsHandle* hits, uint32_t index, uint32_t* length);

/* Hit number `index`'s value with its length in *length; NULL when `index`
 * is not below the count. A view into the index: nothing to free. */
QUORVEX_API const uint8_t* search_hits_get_value(const SearchHitsHandle* hits, uint32_t index, uint32_t* length);

/* The character of the stored key at which hit number `index` holds the
 * keyword (0: the key begins with it); 0 when `index` is not below the
 * count. */
QUORVEX_API uint32_t search_hits_get_position(const SearchHitsHandle* hits, uint32_t index);

/* The edits hit number `index` took (0 but with typos); 0 when `index` is
 * not below the count. */
QUORVEX_API uint32_t search_hits_get_edits(const SearchHitsHandle* hits, uint32_t index);

/* NULL is ignored. */
QUORVEX_API void search_hits_free(SearchHitsHandle* hits);

/* ---- Verifying ----------------------------------------------------------- */

/* Checks that the files table.bin, index.bin, key.bin and data.bin of
 * `directory` form a sound index: one that index_reader_new_from_... can
 * load and index_reader_search can search with any keyword under 255 bytes
 * without stopping the process. With `deep` non-zero it also checks that
 * every key is listed in exactly the cells its characters call for.
 * Returns 0 when the index is sound, 1 when it is not (or cannot be read, or
 * `directory` is NULL). Never stops the process, whatever the files hold.
 * When `message` is not NULL, *message receives a description ("sound", or
 * one problem per line: file, offset, what was expected), which the caller
 * frees with index_verifier_message_free. */
QUORVEX_API int index_verifier_check_directory(const char* directory, int deep, char** message);

/* As index_verifier_check_directory, for four arrays in the order table,
 * index, key, data. */
QUORVEX_API int index_verifier_check_bytes(ByteArrayHandle* table, ByteArrayHandle* index, ByteArrayHandle* key,
                                           ByteArrayHandle* data, int deep, char** message);

/* Frees a message from index_verifier_check_...; NULL is ignored. */
QUORVEX_API void index_verifier_message_free(char* message);

#ifdef __cplusplus
}
#endif

#endif
