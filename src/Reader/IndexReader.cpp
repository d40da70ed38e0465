#include "Assertions.h"
#include "Reader/IndexReader.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
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
    uint32 row;        // the row of its first character
    bool has_row;      // false for a first character whose low 16 bits are 0xFFFF
};

// A search walks positions 0, 1, ... of the row of the keyword's first
// character until it has `limit` results or has tried position 254. Each
// position is asked for what is still missing (modulo 2^16) and checks its
// limit after appending, so `limit` 0 yields the first prefix hit, if any.
// The keyword is decoded once for all positions.
Rc<std::vector<Rc<SearchResult>>> IndexReader::search(const string& keyword, uint16 limit) {
    assert(keyword.length() < 255);
    Rc<std::vector<Rc<SearchResult>>> results(new std::vector<Rc<SearchResult>>());
    Keyword prepared = this->prepare(keyword);
    uint32 total = 0;
    uint32 visited_count = 0;
    for (uint32 char_position = 0; char_position <= Format::MAX_CELLS_PER_ROW; ++char_position) {
        uint16 remaining = static_cast<uint16>(limit - total);
        total += this->search_at(prepared, remaining, results.get(), visited_count, static_cast<uint8>(char_position));
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

IndexReader::Keyword IndexReader::prepare(const string& keyword) {
    std::vector<uint32> code_points;
    Utf8::decode(keyword, code_points, this->converter);
    uint32 first = code_points.empty() ? 0 : code_points[0];
    // Only the low 16 bits choose the row: U+1F600 looks in row 0xF600. The
    // table has no row 0xFFFF, so such a keyword finds nothing.
    uint32 row = first & 0xFFFF;
    return Keyword{keyword, row, row < Format::TABLE_ROW_COUNT};
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
                              uint32& visited_count, uint8 char_position) {
    if (!keyword.has_row) {
        return 0;
    }
    Rc<IndexRow> row = (*this->index_table)[keyword.row];
    if (row->get_cells_count() <= char_position) {
        return 0;
    }
    Rc<IndexCell> cell = row->get_cell_at_index(char_position);
    uint32 list_offset = cell->get_offset();
    const uint8* wanted = reinterpret_cast<const uint8*>(keyword.text.data());
    uint32 wanted_length = static_cast<uint32>(keyword.text.size());
    uint8 char_byte_counts[256];
    uint16 found = 0;
    for (uint32 i = 0; i < cell->get_count(); ++i) {
        ++visited_count;
        ByteArray entry_bytes = view_inside(*this->index_bytes, uint64_t{list_offset} + uint64_t{4} * i, 4);
        uint32 entry = LittleEndian::load_u32(entry_bytes.data);

        ByteArray header = view_inside(*this->key_bytes, entry, Format::KEY_RECORD_HEADER_SIZE);
        uint8 key_length = header.data[Format::KEY_DATA_POINTER_SIZE];
        ByteArray record = view_inside(*this->key_bytes, entry, Format::KEY_RECORD_HEADER_SIZE + key_length);
        if (static_cast<uint32>(key_length - char_position) < wanted_length) {
            continue;
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
            continue;
        }

        uint32 data_pointer = LittleEndian::load_u32(record.data);
        ByteArray value_header = view_inside(*this->data_bytes, data_pointer, Format::VALUE_RECORD_HEADER_SIZE);
        uint16 value_length = LittleEndian::load_u16(value_header.data);
        view_inside(*this->data_bytes, uint64_t{data_pointer} + Format::VALUE_RECORD_HEADER_SIZE, value_length);
        Rc<ByteArray> value = this->data_bytes->borrow(data_pointer + Format::VALUE_RECORD_HEADER_SIZE, value_length);
        Rc<ByteArray> key = this->key_bytes->borrow(entry + Format::KEY_RECORD_HEADER_SIZE, key_length);
        results->push_back(Rc<SearchResult>(new SearchResult(key, value)));
        ++found;
        if (found >= limit) {
            break;
        }
    }
    return found;
}

}  // namespace Lexarium::Reader
