#ifndef QUORVEX_RECORDS_H
#define QUORVEX_RECORDS_H

#include <cstring>
#include <string>

#include "Format.h"
#include "LittleEndian.h"
#include "TypeDefinitions.h"

// The one decoder of each record of the four blobs (docs/FORMAT.md gives
// the layouts). Every record has two forms:
// - decode_from(blob, length, offset, &record): bounds-checked. Reads
//   nothing outside [blob, blob + length), never aborts, and returns false
//   when the record does not lie wholly inside the blob. Offsets are taken
//   as 64-bit, so no sum wraps around.
// - decode(bytes): unchecked, for the search's hot path, where the caller
//   has already shown that the record lies inside its blob.
// A decoded record points into the blob; it copies nothing and lives as
// long as the blob's bytes do. What the records mean beyond their bounds
// (entries that ascend, data pointers that match the value records) is the
// verifier's business, not the decoder's.
namespace Lexarium::Records {

// A cell record of table.bin: a posting list in index.bin.
struct Cell {
    uint32 offset;  // byte offset of the first entry in index.bin
    uint32 count;   // number of 4-byte entries

    static Cell decode(const uint8* bytes) {
        return Cell{LittleEndian::load_u32(bytes), LittleEndian::load_u32(bytes + 4)};
    }

    // The entries as bytes of index.bin (`index_length` bytes), or nullptr
    // when the list does not lie inside it. An empty list gives a non-null
    // pointer at the sentinel when the blob has one.
    const uint8* entries_in(const uint8* index, uint64_t index_length) const {
        uint64_t end = uint64_t{this->offset} + uint64_t{this->count} * Format::POSTING_ENTRY_SIZE;
        return end <= index_length ? index + this->offset : nullptr;
    }
};

// A row record of table.bin: a cells count, then that many cell records.
struct Row {
    const uint8* cells;  // the first cell record
    uint8 cells_count;

    uint64_t size() const { return Format::ROW_HEADER_SIZE + uint64_t{this->cells_count} * Format::CELL_RECORD_SIZE; }

    // Cell `position`, which must be below `cells_count`.
    Cell cell(uint32 position) const {
        return Cell::decode(this->cells + uint64_t{position} * Format::CELL_RECORD_SIZE);
    }

    static Row decode(const uint8* bytes) { return Row{bytes + Format::ROW_HEADER_SIZE, bytes[0]}; }

    static bool decode_from(const uint8* blob, uint64_t length, uint64_t offset, Row& row) {
        if (offset >= length) {
            return false;
        }
        row = decode(blob + offset);
        return row.size() <= length - offset;
    }
};

// A key record of key.bin: a data pointer, a length byte, the key's bytes.
struct Key {
    uint32 data_pointer;  // offset of the value record in data.bin
    uint8 length;         // of the key text, in bytes
    const uint8* text;

    uint64_t size() const { return Format::KEY_RECORD_HEADER_SIZE + uint64_t{this->length}; }

    static Key decode(const uint8* bytes) {
        return Key{LittleEndian::load_u32(bytes), bytes[Format::KEY_DATA_POINTER_SIZE],
                   bytes + Format::KEY_RECORD_HEADER_SIZE};
    }

    static bool decode_from(const uint8* blob, uint64_t length, uint64_t offset, Key& key) {
        if (offset > length || length - offset < Format::KEY_RECORD_HEADER_SIZE) {
            return false;
        }
        key = decode(blob + offset);
        return key.size() <= length - offset;
    }
};

// A value record of data.bin: a 2-byte length, then the value's bytes.
struct Value {
    uint16 length;
    const uint8* bytes;

    uint64_t size() const { return Format::VALUE_RECORD_HEADER_SIZE + uint64_t{this->length}; }

    static Value decode(const uint8* record) {
        return Value{LittleEndian::load_u16(record), record + Format::VALUE_RECORD_HEADER_SIZE};
    }

    static bool decode_from(const uint8* blob, uint64_t length, uint64_t offset, Value& value) {
        if (offset > length || length - offset < Format::VALUE_RECORD_HEADER_SIZE) {
            return false;
        }
        value = decode(blob + offset);
        return value.size() <= length - offset;
    }
};

// A pair of texts inside a value record, the unit of two layouts that live
// in values (docs/FORMAT.md): the original items of a folded index's entry
// (the original key, or none when it equals the entry's key; its value) and
// the fields of an index's description (a name; its text). A length byte
// and that many bytes, then a 2-byte length and that many bytes.
struct Pair {
    uint8 first_length;
    const uint8* first;
    uint16 second_length;
    const uint8* second;

    static constexpr uint32 HEADER_SIZE = 1 + 2;

    uint64_t size() const { return HEADER_SIZE + uint64_t{this->first_length} + this->second_length; }

    static bool decode_from(const uint8* blob, uint64_t length, uint64_t offset, Pair& pair) {
        if (offset > length || length - offset < HEADER_SIZE) {
            return false;
        }
        const uint8* at = blob + offset;
        uint64_t left = length - offset - HEADER_SIZE;
        if (at[0] > left) {
            return false;
        }
        pair.first_length = at[0];
        pair.first = at + 1;
        pair.second_length = LittleEndian::load_u16(at + 1 + at[0]);
        pair.second = at + 1 + at[0] + 2;
        return pair.second_length <= left - pair.first_length;
    }

    // Appends the pair's bytes to `out`, a byte container; the caller keeps
    // `first` below 256 bytes and `second` below 65536.
    template <typename Bytes>
    static void encode_to(Bytes& out, const uint8* first, uint8 first_length, const uint8* second,
                          uint16 second_length) {
        out.push_back(first_length);
        out.insert(out.end(), first, first + first_length);
        out.push_back(static_cast<uint8>(second_length & 0xFF));
        out.push_back(static_cast<uint8>(second_length >> 8));
        out.insert(out.end(), second, second + second_length);
    }
};

// The header of suffix.bin: "QVXS", a version byte, whether a bucket table
// follows (1) or not (0), two zero bytes, the number of entries and the
// length of the key.bin they were made from.
struct SuffixHeader {
    static constexpr char MAGIC[4] = {'Q', 'V', 'X', 'S'};
    uint8 version;
    uint8 buckets;
    uint32 entries;
    uint32 key_blob_length;

    static bool decode_from(const uint8* blob, uint64_t length, SuffixHeader& header) {
        if (length < Format::SUFFIX_HEADER_SIZE || std::memcmp(blob, MAGIC, 4) != 0) {
            return false;
        }
        header = SuffixHeader{blob[4], blob[5], LittleEndian::load_u32(blob + 8), LittleEndian::load_u32(blob + 12)};
        return header.buckets <= 1 && blob[6] == 0 && blob[7] == 0;
    }

    void encode_to(std::string& out) const {
        out.append(MAGIC, 4);
        out.push_back(static_cast<char>(this->version));
        out.push_back(static_cast<char>(this->buckets));
        out.append(2, '\0');
        append_u32(out, this->entries);
        append_u32(out, this->key_blob_length);
    }

    static void append_u32(std::string& out, uint32 value) {
        for (int shift = 0; shift < 32; shift += 8) {
            out.push_back(static_cast<char>((value >> shift) & 0xFF));
        }
    }
};

// An entry of suffix.bin: one character of one stored key, the suffix of the
// key's text that begins there. The key record's offset in key.bin and the
// character's position (the cell it is listed in).
struct Suffix {
    uint32 key;
    uint8 position;

    static Suffix decode(const uint8* entry) { return Suffix{LittleEndian::load_u32(entry), entry[4]}; }

    void encode_to(std::string& out) const {
        SuffixHeader::append_u32(out, this->key);
        out.push_back(static_cast<char>(this->position));
    }
};

// The same checked decoders over a ByteArray.
template <typename Record>
bool decode_from(const ByteArray& blob, uint64_t offset, Record& record) {
    return Record::decode_from(blob.data, blob.length, offset, record);
}

// Walks the 65535 row records of a table blob, calling `visit(code_point,
// row, offset)` for each. Returns the offset just past the last row, or
// nothing (false) when the blob ends before it: `stopped_at` then says where
// the first row that does not fit begins, and `stopped_row` which row it is.
struct TableWalk {
    uint64_t end = 0;
    uint32 stopped_row = 0;
    bool complete = false;
};

template <typename Visit>
TableWalk walk_table(const uint8* blob, uint64_t length, Visit&& visit) {
    TableWalk walk;
    uint64_t offset = 0;
    for (uint32 code_point = 0; code_point < Format::TABLE_ROW_COUNT; ++code_point) {
        // Most rows are empty, a zero byte each: eight of them at a time.
        while (code_point + 8 <= Format::TABLE_ROW_COUNT && offset + 8 <= length &&
               LittleEndian::load_u64(blob + offset) == 0) {
            for (uint32 k = 0; k < 8; ++k) {
                visit(code_point + k, Row{blob + offset + k + Format::ROW_HEADER_SIZE, 0}, offset + k);
            }
            code_point += 8;
            offset += 8;
        }
        if (code_point == Format::TABLE_ROW_COUNT) {
            break;
        }
        Row row;
        if (!Row::decode_from(blob, length, offset, row)) {
            walk.end = offset;
            walk.stopped_row = code_point;
            return walk;
        }
        visit(code_point, row, offset);
        offset += row.size();
    }
    walk.end = offset;
    walk.complete = true;
    return walk;
}

}  // namespace Lexarium::Records

#endif
