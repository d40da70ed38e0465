#ifndef QUORVEX_FORMAT_H
#define QUORVEX_FORMAT_H

#include "TypeDefinitions.h"

// The constants of the index file set, shared by the writer and the reader.
// docs/FORMAT.md describes the four blobs byte by byte.
namespace Lexarium::Format {

// The table holds one row record per code point 0..65534.
constexpr uint32 TABLE_ROW_COUNT = 65535;

// A row record is a one-byte cells count followed by that many cell records.
constexpr uint32 ROW_HEADER_SIZE = 1;
// A row holds at most 254 cells, so 255 never appears as a cells count.
constexpr uint32 MAX_CELLS_PER_ROW = 254;

// A cell record: uint32 offset into index.bin, uint32 entry count.
constexpr uint8 CELL_RECORD_SIZE = 8;

// index.bin opens with one zero uint32 that empty cells point at.
constexpr uint32 INDEX_SENTINEL_SIZE = 4;
// Every posting-list entry is a uint32 offset into key.bin.
constexpr uint32 POSTING_ENTRY_SIZE = 4;

// A key record: uint32 data pointer, uint8 key length, then the key bytes.
constexpr uint32 KEY_DATA_POINTER_SIZE = 4;
constexpr uint32 KEY_RECORD_HEADER_SIZE = 4 + 1;
// Stored keys are cut, by whole code points, to at most this many bytes.
constexpr uint32 MAX_STORED_KEY_BYTES = 254;

// A value record: uint16 value length, then the value bytes.
constexpr uint32 VALUE_RECORD_HEADER_SIZE = 2;
constexpr uint32 MAX_VALUE_BYTES = 65534;

// Code points that can be indexed: 1..65534.
constexpr uint32 MIN_INDEXED_CODE_POINT = 1;
constexpr uint32 MAX_INDEXED_CODE_POINT = 65534;

// File names, appended to a directory path as they stand.
constexpr const char* TABLE_FILE_NAME = "/table.bin";
constexpr const char* INDEX_FILE_NAME = "/index.bin";
constexpr const char* KEY_FILE_NAME = "/key.bin";
constexpr const char* DATA_FILE_NAME = "/data.bin";
// The optional fifth file: a suffix array over the keys of key.bin.
constexpr const char* SUFFIX_FILE_NAME = "/suffix.bin";

// suffix.bin: a 16-byte header, then one 5-byte entry per character of the
// stored keys.
constexpr uint32 SUFFIX_HEADER_SIZE = 16;
constexpr uint32 SUFFIX_ENTRY_SIZE = 4 + 1;
// The bucket table of a large suffix.bin: where the entries of each first
// two bytes begin, 65536 of them and the end, 4 bytes each.
constexpr uint32 SUFFIX_BUCKETS = 65536;
constexpr uint32 SUFFIX_BUCKET_TABLE_SIZE = (SUFFIX_BUCKETS + 1) * 4;
constexpr uint32 SUFFIX_BUCKETS_FROM_ENTRIES = 1u << 18;
constexpr uint8 SUFFIX_VERSION = 1;

}  // namespace Lexarium::Format

#endif
