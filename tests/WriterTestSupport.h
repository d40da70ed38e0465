#ifndef QUORVEX_TESTS_WRITER_TEST_SUPPORT_H
#define QUORVEX_TESTS_WRITER_TEST_SUPPORT_H

#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"
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

inline std::vector<uint8> concatenate(const std::vector<Rc<ByteArray>>& chunks) {
    std::vector<uint8> bytes;
    for (const Rc<ByteArray>& chunk : chunks) {
        bytes.insert(bytes.end(), chunk->data, chunk->data + chunk->length);
    }
    return bytes;
}

inline Blobs blobs_of(const Rc<Lexarium::Writer::_IndexData>& built) {
    return Blobs{concatenate(built->table_chunks), concatenate(built->index_chunks), concatenate(built->key_chunks),
                 concatenate(built->data_chunks)};
}

typedef std::vector<std::pair<std::string, std::string>> Items;

inline Rc<ByteArray> bytes_of(const std::string& text) {
    return make_bytes(std::vector<uint8>(text.begin(), text.end()));
}

// Adds `items` in the order given to a fresh writer and builds it.
inline Blobs build(const Items& items) {
    Lexarium::Writer::IndexWriter writer;
    for (const auto& item : items) {
        writer.add_word(item.first, bytes_of(item.second));
    }
    return blobs_of(writer.to_bytes());
}

// UTF-8 of code point `code_point` (below U+110000).
inline std::string utf8(uint32 code_point) {
    std::string out;
    Lexarium::Utf8::append(out, code_point);
    return out;
}

inline std::string repeat(const std::string& text, size_t times) {
    std::string out;
    for (size_t i = 0; i < times; ++i) {
        out += text;
    }
    return out;
}

}  // namespace quorvex_test

#endif
