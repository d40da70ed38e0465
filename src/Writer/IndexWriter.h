#ifndef QUORVEX_WRITER_INDEX_WRITER_H
#define QUORVEX_WRITER_INDEX_WRITER_H

#include <codecvt>
#include <locale>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "IndexTable.h"
#include "TypeDefinitions.h"

namespace Lexarium::Writer {

class _BlobBuffer;

// _IndexData: the result of one build, the four blobs of an index as lists
// of chunks (a blob is its chunks concatenated, in list order). The table,
// index and key blobs come as one chunk each (none for an empty key blob).
// The data blob is two chunks per item: a fresh 2-byte value length and the
// item's own value array, shared with the writer, not copied; so writing
// data.bin never holds a second copy of all values in memory, and the
// chunks stay valid while this collection lives.
//
// While a build runs, the key encoding function below appends key records
// to a pending buffer inside the collection; the build seals it into
// `key_chunks` when every item is encoded.
struct QUORVEX_API _IndexData {
    std::vector<Rc<ByteArray>> table_chunks;
    std::vector<Rc<ByteArray>> index_chunks;
    std::vector<Rc<ByteArray>> key_chunks;
    std::vector<Rc<ByteArray>> data_chunks;
    // The optional suffix.bin (see SuffixArray.h): none until
    // add_suffix_array() makes it from the key blob.
    std::vector<Rc<ByteArray>> suffix_chunks;

    _IndexData();
    ~_IndexData();
    _IndexData(const _IndexData&) = delete;
    _IndexData& operator=(const _IndexData&) = delete;

    // Moves the pending key records into `key_chunks`, as one chunk (none
    // for an empty blob).
    void seal_pending();

    // Builds suffix.bin from the key blob into `suffix_chunks`, as one
    // chunk, with a bucket table from `buckets_from` entries on (see
    // SuffixArray.h). Call after the build.
    void add_suffix_array(uint32 buckets_from = Format::SUFFIX_BUCKETS_FROM_ENTRIES);

    std::unique_ptr<_BlobBuffer> pending_keys;
};

typedef _IndexData IndexDataCollection;

}  // namespace Lexarium::Writer

// One item, as the writer's word map holds it: key bytes and value.
typedef std::pair<const std::string, Rc<ByteArray>> my_item_signature_;

// Appends the value record of `item` to the data chunks of `data`, as a
// fresh 2-byte chunk holding the value's length and the value array itself
// (shared: its bytes are read when the chunks are written or joined), and
// returns its size, 2 + value length. A value of more than 65534 bytes stops the
// process with "item.second->length < 65535".
QUORVEX_API uint32 push_word_value_into_data(Lexarium::Writer::IndexDataCollection* data,
                                             const my_item_signature_& item);

// Appends the key record of `item` (`data_pointer`, stored length, key
// bytes) to the key blob pending in `data` and returns its size, 5 + stored
// length. A key of 255 bytes or more is stored shortened, one whole code
// point at a time from the end, to at most 254 bytes, using `converter`; an
// invalid one throws std::range_error("wstring_convert::from_bytes"). Keys
// of up to 254 bytes are stored as they are.
QUORVEX_API uint32 push_word_key_into_data(const uint32& data_pointer, const my_item_signature_& item,
                                           Lexarium::Writer::IndexDataCollection* data,
                                           std::wstring_convert<std::codecvt_utf8<wchar_t>>& converter);

namespace Lexarium::Writer {

// IndexWriter: collects (key, value) items and builds the four blobs of an
// index from them, in memory (to_bytes) or as files.
//
// Call order: construct, add_word any number of times, then build once with
// to_bytes or one of the write operations. The build adds to the writer's
// cells and never clears them, so a second build returns every posting list
// twice over: one writer serves one build.
//
// Limits, checked during the build (not by add_word): keys must be UTF-8 of
// code points U+0001..U+FFFE and at most 254 code points; values at most
// 65534 bytes. A broken limit stops the process with an assertion; invalid
// UTF-8 throws std::range_error("wstring_convert::from_bytes").
class QUORVEX_API IndexWriter {
public:
    // One WritableIndexRow per code point 0..65534, from construction on.
    Rc<IndexTable> table;
    // The items, in byte order of their keys; one value per key.
    std::map<std::string, Rc<ByteArray>> words;
    // UTF-8 <-> code points, for key shortening and indexing.
    std::wstring_convert<std::codecvt_utf8<wchar_t>> converter;

    IndexWriter();
    ~IndexWriter();
    IndexWriter(const IndexWriter&) = delete;
    IndexWriter& operator=(const IndexWriter&) = delete;

    // Stores `value` under a copy of `key`, replacing an earlier value for
    // the same key. The value is shared, not copied: its bytes are read at
    // build time, so they must stay valid (and a borrowed array's memory
    // alive) until the writer is destroyed.
    void add_word(const std::string& key, Rc<ByteArray> value);

    // Builds the index: value and key records in key order, a posting list
    // per character and position, the index blob and the table blob.
    Rc<_IndexData> to_bytes();

    // Lays the cells' posting lists out as the index blob (after the zero
    // sentinel word), fixes every cell's offset and count, and serialises the
    // table into `data`.
    void push_indexes_into_data(_IndexData* data);

    // Builds, then writes the four blobs to the four paths, in the order
    // table, index, key, data. A failure leaves files already written.
    void write_into_file(const std::string& table_path, const std::string& index_path,
                         const std::string& key_path, const std::string& data_path);

    // Creates `directory` if it does not exist (one level; a missing parent
    // is the file system's error), then writes table.bin, index.bin, key.bin
    // and data.bin into it, overwriting those four and nothing else. The
    // names are appended as "/table.bin" and so on.
    void write_into_directory_with_default_file_name(const std::string& directory);

private:
    // What the items added so far need (at most) in key.bin, kept up to
    // date by add_word so that a build sizes that blob at once.
    uint64_t expected_key_bytes = 0;
};

// Writes `chunks` one after the other into the file at `path`, creating or
// truncating it. Failures throw std::runtime_error with the system's error
// text; a failed close reports strerror of the close's return value.
QUORVEX_API void write_file(const std::string& path, const std::vector<Rc<ByteArray>>& chunks);

}  // namespace Lexarium::Writer

#endif
