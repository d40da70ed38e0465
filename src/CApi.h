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
 *  4. There are no error codes. A broken precondition (an out-of-range
 *     borrow, ...) stops the process through a standard assertion failure
 *     that names the condition. Failures of the system (out of memory, ...)
 *     leave the function as C++ exceptions, which a C caller cannot catch:
 *     avoid the conditions that raise them.
 *  5. Nothing is thread-safe: reference counts are plain integers, so a
 *     handle and everything that shares its object are used by one thread at
 *     a time.
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

#ifdef __cplusplus
}
#endif

#endif
