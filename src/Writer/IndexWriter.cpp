#include "Assertions.h"
#include "Writer/IndexWriter.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "LittleEndian.h"
#include "SuffixArray.h"
#include "Utf8.h"
#include "Writer/BlobBuffer.h"
#include "Writer/WritableIndexRow.h"

using Lexarium::Format::KEY_RECORD_HEADER_SIZE;
using Lexarium::Format::MAX_STORED_KEY_BYTES;
using Lexarium::Format::VALUE_RECORD_HEADER_SIZE;
using Lexarium::Writer::IndexDataCollection;

// The value record: uint16 length, then the value's bytes, as two chunks.
uint32 push_word_value_into_data(IndexDataCollection* data, const my_item_signature_& item) {
    assert(item.second->length < 65535);
    uint32 length = item.second->length;
    Rc<ByteArray> header = make_rc<ByteArray>(VALUE_RECORD_HEADER_SIZE);
    Lexarium::LittleEndian::store_u16(header->data, static_cast<uint16>(length));
    data->data_chunks.push_back(std::move(header));
    data->data_chunks.push_back(item.second);
    return VALUE_RECORD_HEADER_SIZE + length;
}

namespace Lexarium::Writer {

// A new cell with room for six offsets, the allocator's smallest block.
static Rc<WritableIndexCell> new_cell() {
    Rc<WritableIndexCell> cell(new WritableIndexCell());
    cell->key_offsets.reserve(6);
    return cell;
}

// One pass over the items in key order: value and key records, then the
// key's offset into cell `position` of the row of each of its code points
// (positions of the full key, low 8 bits). push_indexes_into_data follows.
Rc<_IndexData> IndexWriter::to_bytes() {
    Rc<_IndexData> result(new _IndexData());
    // Two data chunks per item: the value's length, then the value itself.
    result->data_chunks.reserve(2 * this->words.size());
    result->pending_keys->reserve(this->expected_key_bytes);
    uint32 data_offset = 0;
    uint32 key_offset = 0;
    std::vector<uint32> code_points;
    for (const my_item_signature_& item : this->words) {
        uint32 value_size = push_word_value_into_data(result.get(), item);
        uint32 key_size = push_word_key_into_data(data_offset, item, result.get(), this->converter);
        Utf8::decode(item.first, code_points, this->converter);
        for (size_t i = 0; i < code_points.size(); ++i) {
            uint32 unicode = code_points[i];
            assert(unicode < 65535 && unicode > 0);
            uint8 position = static_cast<uint8>(i);
            WritableIndexRow& row = static_cast<WritableIndexRow&>(*this->table->rows[unicode]);
            if (!(position < row.cells.size())) {
                row.set(position, new_cell());
            }
            row.cells[position]->key_offsets.push_back(key_offset);
        }
        data_offset += value_size;
        key_offset += key_size;
    }
    result->seal_pending();
    this->push_indexes_into_data(result.get());
    return result;
}

}  // namespace Lexarium::Writer

// The key record: data pointer, stored length, stored key bytes. Keys of up
// to 254 bytes are stored as they are, unchecked. A longer key loses whole
// code points from its end, one at a time, until it fits; the round trip
// through the converter is what keeps the cut on a character boundary (and
// what rejects a long key that is not UTF-8).
uint32 push_word_key_into_data(const uint32& data_pointer, const my_item_signature_& item,
                               IndexDataCollection* data,
                               std::wstring_convert<std::codecvt_utf8<wchar_t>>& converter) {
    const std::string& key = item.first;
    std::string shortened;
    const char* stored = key.data();
    uint32 stored_length = static_cast<uint32>(key.size());
    if (stored_length > MAX_STORED_KEY_BYTES) {
        shortened = key;
        while (shortened.size() > MAX_STORED_KEY_BYTES) {
            std::wstring wide = converter.from_bytes(shortened);
            wide.resize(wide.size() - 1);
            shortened = converter.to_bytes(wide);
        }
        stored = shortened.data();
        stored_length = static_cast<uint32>(shortened.size());
    }
    uint8* record = data->pending_keys->append(KEY_RECORD_HEADER_SIZE + stored_length);
    Lexarium::LittleEndian::store_u32(record, data_pointer);
    record[Lexarium::Format::KEY_DATA_POINTER_SIZE] = static_cast<uint8>(stored_length);
    if (stored_length != 0) {
        std::memcpy(record + KEY_RECORD_HEADER_SIZE, stored, stored_length);
    }
    return KEY_RECORD_HEADER_SIZE + stored_length;
}

namespace Lexarium::Writer {

_IndexData::_IndexData() : pending_keys(new _BlobBuffer()) {}

_IndexData::~_IndexData() = default;

void _IndexData::seal_pending() {
    if (this->pending_keys->size() != 0) {
        this->key_chunks.push_back(this->pending_keys->take());
    }
}

void _IndexData::add_suffix_array(uint32 buckets_from) {
    const uint8* keys = nullptr;
    uint32 length = 0;
    if (!this->key_chunks.empty()) {
        keys = this->key_chunks.front()->data;
        length = this->key_chunks.front()->length;
    }
    std::string blob = SuffixArray::build(keys, length, buckets_from);
    Rc<ByteArray> chunk(new ByteArray(static_cast<uint32>(blob.size())));
    std::memcpy(chunk->data, blob.data(), blob.size());
    this->suffix_chunks.assign(1, chunk);
}

IndexWriter::IndexWriter() : table(new IndexTable()) {
    // Every row starts out sharing this writer's one empty row record (the
    // byte 00), which nothing writes to; a row gets a record of its own when
    // it is serialised with cells.
    Rc<ByteArray> empty_row_record(new ByteArray(Format::ROW_HEADER_SIZE));
    empty_row_record->data[0] = 0;
    for (Rc<IndexRow>& slot : this->table->rows) {
        slot = Rc<IndexRow>(new WritableIndexRow(empty_row_record));
    }
}

IndexWriter::~IndexWriter() = default;

void IndexWriter::add_word(const std::string& key, Rc<ByteArray> value) {
    auto position = this->words.lower_bound(key);
    if (position != this->words.end() && position->first == key) {
        position->second = std::move(value);
    } else {
        this->words.emplace_hint(position, key, std::move(value));
        this->expected_key_bytes += KEY_RECORD_HEADER_SIZE + std::min<uint64_t>(key.size(), MAX_STORED_KEY_BYTES);
    }
}

void IndexWriter::push_indexes_into_data(_IndexData* data) {
    auto row_at = [this](uint32 code_point) -> WritableIndexRow& {
        return static_cast<WritableIndexRow&>(*this->table->rows[code_point]);
    };

    uint64_t entries = 0;
    for (uint32 code_point = 0; code_point < Format::TABLE_ROW_COUNT; ++code_point) {
        for (const Rc<WritableIndexCell>& cell : row_at(code_point).cells) {
            entries += cell->key_offsets.size();
        }
    }
    _BlobBuffer index_blob;
    index_blob.reserve(Format::INDEX_SENTINEL_SIZE + entries * Format::POSTING_ENTRY_SIZE);
    LittleEndian::store_u32(index_blob.append(Format::INDEX_SENTINEL_SIZE), 0);

    uint32 offset = Format::INDEX_SENTINEL_SIZE;
    for (uint32 code_point = 0; code_point < Format::TABLE_ROW_COUNT; ++code_point) {
        WritableIndexRow& row = row_at(code_point);
        for (const Rc<WritableIndexCell>& cell : row.cells) {
            cell->set_offset(offset);
            const std::vector<uint32>& key_offsets = cell->key_offsets;
            uint32 list_bytes = static_cast<uint32>(key_offsets.size()) * Format::POSTING_ENTRY_SIZE;
            uint8* list = index_blob.append(list_bytes);
            for (size_t i = 0; i < key_offsets.size(); ++i) {
                LittleEndian::store_u32(list + i * Format::POSTING_ENTRY_SIZE, key_offsets[i]);
            }
            offset += list_bytes;
            uint32 span = offset - cell->get_offset();
            cell->set_count(span / Format::POSTING_ENTRY_SIZE);
            if (span < Format::POSTING_ENTRY_SIZE) {
                cell->set_offset(0);  // an empty list points at the sentinel
            }
        }
        // Rebuilding the record here is where a row of 255 cells or more
        // (a key of 255 code points or more) stops the build.
        row.to_bytes();
    }
    data->index_chunks.push_back(index_blob.take());

    Rc<ByteArray> table_bytes = this->table->to_bytes();
    // Parse the fresh table once, as a reader will, so that a table whose
    // row counts do not add up stops the build here and not in a reader.
    std::unique_ptr<IndexTable> parsed(new IndexTable(table_bytes));
    parsed.reset();
    data->table_chunks.push_back(table_bytes);
}

void IndexWriter::write_into_file(const std::string& table_path, const std::string& index_path,
                                  const std::string& key_path, const std::string& data_path) {
    Rc<_IndexData> result = this->to_bytes();
    write_file(table_path, result->table_chunks);
    write_file(index_path, result->index_chunks);
    write_file(key_path, result->key_chunks);
    write_file(data_path, result->data_chunks);
}

void IndexWriter::write_into_directory_with_default_file_name(const std::string& directory) {
    std::filesystem::file_type type = std::filesystem::status(directory).type();
    if (type == std::filesystem::file_type::not_found || type == std::filesystem::file_type::none) {
        std::filesystem::create_directory(directory);
    }
    this->write_into_file(directory + Format::TABLE_FILE_NAME, directory + Format::INDEX_FILE_NAME,
                          directory + Format::KEY_FILE_NAME, directory + Format::DATA_FILE_NAME);
}

namespace {
constexpr size_t WRITE_BUFFER_BYTES = 1 << 20;
}  // namespace

void write_file(const std::string& path, const std::vector<Rc<ByteArray>>& chunks) {
    FILE* file = std::fopen(path.c_str(), "w+");
    if (file == nullptr) {
        throw std::runtime_error(std::strerror(errno));
    }
    // data.bin comes as two chunks per item, most of them small: a larger
    // buffer than stdio's few KiB saves a system call every few items. If
    // it cannot be had, the default buffer serves.
    std::setvbuf(file, nullptr, _IOFBF, WRITE_BUFFER_BYTES);
    for (const Rc<ByteArray>& chunk : chunks) {
        uint32 written = 0;
        while (written < chunk->length) {
            size_t count = std::fwrite(chunk->data + written, 1, chunk->length - written, file);
            if (count == 0) {
                // A stream that takes nothing more has failed; retrying would
                // spin for ever.
                int error = errno;
                std::fclose(file);
                throw std::runtime_error(std::strerror(error));
            }
            written += static_cast<uint32>(count);
        }
    }
    int closed = std::fclose(file);
    if (closed != 0) {
        // The text for the close's own return value (usually -1), not for
        // errno: that is what this call has always reported.
        throw std::runtime_error(std::strerror(closed));
    }
}

}  // namespace Lexarium::Writer
