#ifndef QUORVEX_TESTS_WRITER_TEST_SUPPORT_H
#define QUORVEX_TESTS_WRITER_TEST_SUPPORT_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "Reader/IndexReader.h"
#include "Utf8.h"
#include "Writer/IndexWriter.h"

namespace quorvex_test {

// The four blobs of a build, each its chunks concatenated.
struct Blobs {
    std::vector<uint8> table;
    std::vector<uint8> index;
    std::vector<uint8> key;
    std::vector<uint8> data;
};

inline Blobs blobs_of(const Rc<Lexarium::Writer::_IndexData>& built) {
    return Blobs{concatenate(built->table_chunks), concatenate(built->index_chunks), concatenate(built->key_chunks),
                 concatenate(built->data_chunks)};
}

// `values` as consecutive little-endian uint32s.
inline std::vector<uint8> words(std::initializer_list<uint32> values) {
    std::vector<uint8> bytes;
    for (uint32 value : values) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes.push_back(static_cast<uint8>(value >> shift));
        }
    }
    return bytes;
}

typedef std::map<uint32, std::vector<std::pair<uint32, uint32>>> Rows;  // code point -> cells (offset, count)

// A table blob: 65535 rows, empty but for `rows`.
inline std::vector<uint8> table_blob(const Rows& rows) {
    std::vector<uint8> blob;
    for (uint32 code_point = 0; code_point < 65535; ++code_point) {
        auto row = rows.find(code_point);
        blob.push_back(row == rows.end() ? 0 : static_cast<uint8>(row->second.size()));
        for (size_t i = 0; row != rows.end() && i < row->second.size(); ++i) {
            std::vector<uint8> cell = words({row->second[i].first, row->second[i].second});
            blob.insert(blob.end(), cell.begin(), cell.end());
        }
    }
    return blob;
}

typedef std::vector<std::pair<std::string, std::string>> Items;

// Adds `items` in the order given to a fresh writer and builds it.
inline Blobs build(const Items& items) {
    Lexarium::Writer::IndexWriter writer;
    for (const auto& item : items) {
        writer.add_word(item.first, bytes_of(item.second));
    }
    return blobs_of(writer.to_bytes());
}

// A reader over the four blobs, each copied into an array of its own.
inline Rc<Lexarium::Reader::IndexReader> reader_of(const Blobs& blobs) {
    return Lexarium::Reader::IndexReader::from_bytes(make_bytes(blobs.table), make_bytes(blobs.index),
                                                     make_bytes(blobs.key), make_bytes(blobs.data));
}

inline std::string utf8(uint32 code_point) { return Lexarium::Utf8::encode(code_point); }

}  // namespace quorvex_test

#endif
