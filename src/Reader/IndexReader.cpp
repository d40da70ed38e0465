#include "Assertions.h"
#include "Reader/IndexReader.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "Format.h"
#include "LittleEndian.h"
#include "Utf8.h"

// Abort messages name functions as declared here ("const string&").
typedef std::string string;
namespace Lexarium::Reader {

namespace {

// Reads the whole file or throws; the caller closes `file`.
void read_into(FILE* file, ByteArray& bytes);

}  // namespace

Rc<ByteArray> read_file(const string& file_path) {
    assert(std::filesystem::exists(file_path));
    uintmax_t size = std::filesystem::file_size(file_path);
    Rc<ByteArray> bytes(new ByteArray(static_cast<uint32>(size)));
    FILE* file = std::fopen(file_path.c_str(), "rb");
    if (file == nullptr) {
        throw std::runtime_error(std::strerror(errno));
    }
    try {
        read_into(file, *bytes);
    } catch (...) {
        std::fclose(file);
        throw;
    }
    int closed = std::fclose(file);
    if (closed != 0) {
        // The text for the close's own return value, as this call has
        // always reported it.
        throw std::runtime_error(std::strerror(closed));
    }
    return bytes;
}

// The keyword as every position of a search uses it.
struct IndexReader::Keyword {
    const string& text;
    uint32 row;                  // the row of its first character
    bool has_row;                // false for a first character whose low 16 bits are 0xFFFF
    std::vector<uint32> characters;  // as decoded (an incomplete last one dropped)
};

// A search walks positions 0, 1, ... of the row of the keyword's first
// character until it has `limit` results or has tried position 254. Each
// position is asked for what is still missing (modulo 2^16) and checks its
// limit after appending, so `limit` 0 yields the first prefix hit, if any.
Rc<std::vector<Rc<SearchResult>>> IndexReader::search(const string& keyword, uint16 limit) {
    assert(keyword.length() < 255);
    Rc<std::vector<Rc<SearchResult>>> results(new std::vector<Rc<SearchResult>>());
    Keyword prepared = this->prepare(keyword);
    uint32 total = 0;
    uint32 visited_count = 0;
    bool intersect = prepared.characters.size() >= 2;  // one character: nothing to intersect
    for (uint32 char_position = 0; char_position <= Format::MAX_CELLS_PER_ROW; ++char_position) {
        uint16 remaining = static_cast<uint16>(limit - total);
        uint8 position = static_cast<uint8>(char_position);
        total += intersect ? this->search_intersecting(prepared, remaining, results.get(), position)
                           : this->search_at(prepared, remaining, results.get(), visited_count, position);
        if (total >= limit) {
            break;
        }
    }
    return results;
}

namespace {

void read_into(FILE* file, ByteArray& bytes) {
    uint32 done = 0;
    while (done < bytes.length) {
        errno = 0;
        size_t count = std::fread(bytes.data + done, 1, bytes.length - done, file);
        if (count == 0) {
            // End of file before the size we were told, or an error: errno
            // says which (0, "Success", for a file that shrank).
            throw std::runtime_error(std::strerror(errno));
        }
        done += static_cast<uint32>(count);
    }
}

// A view of `count` bytes of `blob` from `offset`. A range that does not lie
// inside the blob, judged without 32-bit wrap-around, stops the process
// through the blob's own range check, so a damaged index can never make a
// search read outside its blobs.
ByteArray view_inside(ByteArray& blob, uint64_t offset, uint64_t count) {
    if (offset + count > blob.length) {
        if (blob.length == UINT32_MAX) {
            std::abort();  // no range past such a blob can even be expressed
        }
        blob.create_readonly_view(blob.length, 1);  // fails the range check
    }
    return blob.create_readonly_view(static_cast<uint32>(offset), static_cast<uint32>(count));
}

}  // namespace

IndexReader::IndexReader() = default;

IndexReader::~IndexReader() = default;

Rc<IndexReader> IndexReader::from_bytes(Rc<ByteArray> table, Rc<ByteArray> index, Rc<ByteArray> key,
                                        Rc<ByteArray> data) {
    Rc<IndexReader> reader(new IndexReader());
    reader->table_bytes = table;
    reader->index_bytes = index;
    reader->key_bytes = key;
    reader->data_bytes = data;
    assert(!reader->index_bytes.is_null() && !reader->key_bytes.is_null() && !reader->data_bytes.is_null());
    reader->initialize();
    return reader;
}

Rc<IndexReader> IndexReader::from_files(const string& table_path, const string& index_path, const string& key_path,
                                        const string& data_path) {
    Rc<ByteArray> table = read_file(table_path);
    Rc<ByteArray> index = read_file(index_path);
    Rc<ByteArray> key = read_file(key_path);
    Rc<ByteArray> data = read_file(data_path);
    return from_bytes(table, index, key, data);
}

Rc<IndexReader> IndexReader::from_directory(string directory) {
    string data_path = directory + Format::DATA_FILE_NAME;
    string key_path = directory + Format::KEY_FILE_NAME;
    string index_path = directory + Format::INDEX_FILE_NAME;
    string table_path = directory + Format::TABLE_FILE_NAME;
    return from_files(table_path, index_path, key_path, data_path);
}

void IndexReader::initialize() {
    assert(!this->table_bytes.is_null());
    Rc<ByteArray> table = this->table_bytes;
    this->index_table = Rc<IndexTable>(new IndexTable(table));
}

IndexReader::Keyword IndexReader::prepare(const string& keyword) const {
    Keyword prepared{keyword, 0, false, {}};
    Utf8::decode(keyword, prepared.characters);
    uint32 first = prepared.characters.empty() ? 0 : prepared.characters[0];
    // Only the low 16 bits choose the row: U+1F600 looks in row 0xF600. The
    // table has no row 0xFFFF, so such a keyword finds nothing.
    prepared.row = first & 0xFFFF;
    prepared.has_row = prepared.row < Format::TABLE_ROW_COUNT;
    return prepared;
}

// A posting list inside index.bin: `count` little-endian uint32 entries.
struct IndexReader::PostingList {
    const uint8* entries = nullptr;
    uint32 count = 0;

    uint32 at(uint32 i) const { return LittleEndian::load_u32(this->entries + 4 * size_t{i}); }

    // Moves `cursor` forward to the first entry not below `wanted`,
    // galloping ahead then halving back; false when the list runs out.
    bool seek(uint32& cursor, uint32 wanted) const {
        if (cursor >= this->count) {
            return false;
        }
        if (this->at(cursor) >= wanted) {
            return true;
        }
        // at(low) < wanted; double the step until at(high) >= wanted.
        uint64_t low = cursor;
        uint64_t step = 1;
        uint64_t high = low + step;
        while (high < this->count && this->at(static_cast<uint32>(high)) < wanted) {
            low = high;
            step *= 2;
            high = low + step;
        }
        if (high > this->count) {
            high = this->count;
        }
        // The first entry in (low, high] not below `wanted`.
        uint64_t first = low + 1;
        while (first < high) {
            uint64_t middle = first + (high - first) / 2;
            if (this->at(static_cast<uint32>(middle)) < wanted) {
                first = middle + 1;
            } else {
                high = middle;
            }
        }
        cursor = static_cast<uint32>(first);
        return cursor < this->count;
    }
};

bool IndexReader::find_list(uint32 code_point, uint32 char_position, PostingList& list) const {
    if (code_point >= Format::TABLE_ROW_COUNT || char_position > Format::MAX_CELLS_PER_ROW) {
        return false;
    }
    // The row is reached without copying its handle: searches share no
    // counts, so several threads may search one reader.
    const IndexRow* row = this->index_table->rows[code_point].get();
    if (row->get_cells_count() <= char_position) {
        return false;
    }
    const uint8* cell = row->underlying_data->data + Format::ROW_HEADER_SIZE +
                        char_position * uint32{Format::CELL_RECORD_SIZE};
    uint32 offset = LittleEndian::load_u32(cell);
    list.count = LittleEndian::load_u32(cell + 4);
    ByteArray entries = view_inside(*this->index_bytes, offset, uint64_t{list.count} * Format::POSTING_ENTRY_SIZE);
    list.entries = entries.data;
    return true;
}

uint16 IndexReader::search(const string& keyword, uint16 limit, std::vector<Rc<SearchResult>>* results,
                           uint32& visited_count, uint8 char_position) {
    return this->search_at(this->prepare(keyword), limit, results, visited_count, char_position);
}

// Walks the posting list of cell `char_position` in the keyword's row. Each
// entry is a key that has the keyword's first character at that position;
// it matches when the keyword's bytes stand at that character's byte offset
// inside the key's own stored text.
uint16 IndexReader::search_at(const Keyword& keyword, uint16 limit, std::vector<Rc<SearchResult>>* results,
                              uint32& visited_count, uint8 char_position) const {
    if (!keyword.has_row) {
        return 0;
    }
    const IndexRow* row = this->index_table->rows[keyword.row].get();
    if (row->get_cells_count() <= char_position) {
        return 0;
    }
    const uint8* cell = row->underlying_data->data + Format::ROW_HEADER_SIZE +
                        char_position * uint32{Format::CELL_RECORD_SIZE};
    uint32 list_offset = LittleEndian::load_u32(cell);
    uint32 list_count = LittleEndian::load_u32(cell + 4);
    uint16 found = 0;
    for (uint32 i = 0; i < list_count; ++i) {
        ++visited_count;
        ByteArray entry_bytes = view_inside(*this->index_bytes, uint64_t{list_offset} + uint64_t{4} * i, 4);
        uint32 entry = LittleEndian::load_u32(entry_bytes.data);
        if (this->try_entry(keyword, entry, char_position, results)) {
            ++found;
            if (found >= limit) {
                break;
            }
        }
    }
    return found;
}

// The fast way to the same answer: a key that holds the keyword from
// character `char_position` on is listed in cell `char_position` of the
// first character's row, in cell `char_position` + 1 of the second's, and
// so on. Intersecting those lists (all ascending) leaves exactly the
// entries of the first list that can match, in their order; each is then
// checked byte for byte as the walk above checks it.
uint16 IndexReader::search_intersecting(const Keyword& keyword, uint16 limit, std::vector<Rc<SearchResult>>* results,
                                        uint8 char_position) const {
    if (!keyword.has_row) {
        return 0;
    }
    size_t count = keyword.characters.size();
    PostingList lists[Format::MAX_CELLS_PER_ROW + 1];
    if (!this->find_list(keyword.row, char_position, lists[0]) || lists[0].count == 0) {
        return 0;
    }
    for (size_t j = 1; j < count; ++j) {
        if (!this->find_list(keyword.characters[j], char_position + static_cast<uint32>(j), lists[j]) ||
            lists[j].count == 0) {
            return 0;
        }
    }
    // The shortest list drives; each of its entries is looked for in the
    // others, whose cursors only move forward, and when one of them has
    // nothing until a later entry the driver jumps ahead to it. What is found everywhere is a
    // candidate, in ascending order as the first character's list holds it.
    // The others are asked shortest first: they turn candidates away soonest.
    size_t order[Format::MAX_CELLS_PER_ROW + 1];
    for (size_t j = 0; j < count; ++j) {
        order[j] = j;
    }
    std::sort(order, order + count, [&](size_t a, size_t b) { return lists[a].count < lists[b].count; });
    uint32 cursors[Format::MAX_CELLS_PER_ROW + 1] = {};
    uint16 found = 0;
    const PostingList& driver = lists[order[0]];
    uint32& next = cursors[order[0]];
    while (next < driver.count) {
        uint32 entry = driver.at(next);
        uint32 ahead = entry;  // the smallest entry another list can still offer
        for (size_t n = 1; n < count && ahead == entry; ++n) {
            size_t j = order[n];
            if (!lists[j].seek(cursors[j], entry)) {
                return found;  // a list ran out: nothing further can match
            }
            ahead = lists[j].at(cursors[j]);
        }
        if (ahead != entry) {
            // Nothing below `ahead` can be in every list: the driver skips there.
            if (!driver.seek(next, ahead)) {
                return found;
            }
            continue;
        }
        if (this->try_entry(keyword, entry, char_position, results)) {
            ++found;
            if (found >= limit) {
                break;
            }
        }
        ++next;
    }
    return found;
}

// Checks the key at `entry` against the keyword at `char_position` and, on
// a match, appends it with its value.
bool IndexReader::try_entry(const Keyword& keyword, uint32 entry, uint8 char_position,
                            std::vector<Rc<SearchResult>>* results) const {
    const uint8* wanted = reinterpret_cast<const uint8*>(keyword.text.data());
    uint32 wanted_length = static_cast<uint32>(keyword.text.size());
    uint8 char_byte_counts[256];
    ByteArray header = view_inside(*this->key_bytes, entry, Format::KEY_RECORD_HEADER_SIZE);
    uint8 key_length = header.data[Format::KEY_DATA_POINTER_SIZE];
    ByteArray record = view_inside(*this->key_bytes, entry, Format::KEY_RECORD_HEADER_SIZE + key_length);
    if (static_cast<uint32>(key_length - char_position) < wanted_length) {
        return false;
    }
    const uint8* text = record.data + Format::KEY_RECORD_HEADER_SIZE;

    uint8 characters = char_position;
    get_bytes_count_of_char_from_unicode_string(char_byte_counts, 255, text, key_length, &characters);
    uint8 start = 0;
    for (uint8 c = 0; c < characters; ++c) {
        start = static_cast<uint8>(start + char_byte_counts[c]);
    }
    if (uint32{start} + wanted_length > key_length ||
        (wanted_length != 0 && std::memcmp(text + start, wanted, wanted_length) != 0)) {
        return false;
    }

    uint32 data_pointer = LittleEndian::load_u32(record.data);
    ByteArray value_header = view_inside(*this->data_bytes, data_pointer, Format::VALUE_RECORD_HEADER_SIZE);
    uint16 value_length = LittleEndian::load_u16(value_header.data);
    view_inside(*this->data_bytes, uint64_t{data_pointer} + Format::VALUE_RECORD_HEADER_SIZE, value_length);
    Rc<ByteArray> value = this->data_bytes->borrow(data_pointer + Format::VALUE_RECORD_HEADER_SIZE, value_length);
    Rc<ByteArray> key = this->key_bytes->borrow(entry + Format::KEY_RECORD_HEADER_SIZE, key_length);
    results->push_back(Rc<SearchResult>(new SearchResult(key, value)));
    return true;
}


}  // namespace Lexarium::Reader
