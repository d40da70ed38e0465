#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <stdexcept>

#include "IndexKey.h"
#include "IndexTable.h"
#include "Writer/BlobBuffer.h"
#include "WriterTestSupport.h"

using Lexarium::IndexKey;
using Lexarium::IndexTable;
using Lexarium::Writer::IndexWriter;
using namespace quorvex_test;

namespace {

typedef std::map<uint32, std::vector<std::pair<uint32, uint32>>> Rows;  // code point -> cells (offset, count)

// A table blob: 65535 rows, empty but for `rows`.
std::vector<uint8> table_blob(const Rows& rows) {
    std::vector<uint8> blob;
    for (uint32 code_point = 0; code_point < 65535; ++code_point) {
        auto row = rows.find(code_point);
        if (row == rows.end()) {
            blob.push_back(0);
            continue;
        }
        blob.push_back(static_cast<uint8>(row->second.size()));
        for (auto cell : row->second) {
            for (uint32 value : {cell.first, cell.second}) {
                for (int shift = 0; shift < 32; shift += 8) {
                    blob.push_back(static_cast<uint8>(value >> shift));
                }
            }
        }
    }
    return blob;
}

std::vector<uint8> words(std::initializer_list<uint32> values) {
    std::vector<uint8> bytes;
    for (uint32 value : values) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes.push_back(static_cast<uint8>(value >> shift));
        }
    }
    return bytes;
}

std::vector<uint8> bytes(std::initializer_list<uint8> list) { return std::vector<uint8>(list); }

// The stored key records of key.bin, in order: (data pointer, key text).
std::vector<std::pair<uint32, std::string>> key_records(const std::vector<uint8>& key_blob) {
    std::vector<std::pair<uint32, std::string>> records;
    size_t offset = 0;
    while (offset < key_blob.size()) {
        uint32 pointer = key_blob[offset] | (key_blob[offset + 1] << 8) | (key_blob[offset + 2] << 16) |
                         (static_cast<uint32>(key_blob[offset + 3]) << 24);
        uint8 length = key_blob[offset + 4];
        records.emplace_back(pointer, std::string(key_blob.begin() + offset + 5, key_blob.begin() + offset + 5 + length));
        offset += 5 + length;
    }
    return records;
}

const std::string value_limit_failure = assertion_failure(
    "src/Writer/IndexWriter.cpp", 23,
    "uint32 push_word_value_into_data(Lexarium::Writer::IndexDataCollection*, const my_item_signature_&)",
    "item.second->length < 65535");

const std::string code_point_failure =
    assertion_failure("src/Writer/IndexWriter.cpp", 58,
                      "Rc<Lexarium::Writer::_IndexData> Lexarium::Writer::IndexWriter::to_bytes()",
                      "unicode < 65535 && unicode > 0");

}  // namespace

TEST(IndexWriter, TwoItemExamplesAreByteExact) {
    struct Case {
        Items items;
        std::vector<uint8> data;
    };
    for (const Case& c : {Case{{{"ab", "\x58"}, {"b", "\x59\x5A"}}, bytes({1, 0, 0x58, 2, 0, 0x59, 0x5A})},
                          Case{{{"b", "\x02\x03"}, {"ab", "\x01"}}, bytes({1, 0, 1, 2, 0, 2, 3})}}) {
        Blobs blobs = build(c.items);
        EXPECT_EQ(blobs.data, c.data);
        EXPECT_EQ(blobs.key, bytes({0, 0, 0, 0, 2, 0x61, 0x62, 3, 0, 0, 0, 1, 0x62}));
        EXPECT_EQ(blobs.index, words({0, 0, 7, 0}));
        std::vector<uint8> table = table_blob({{97, {{4, 1}}}, {98, {{8, 1}, {12, 1}}}});
        EXPECT_EQ(table.size(), 65559u);
        EXPECT_EQ(blobs.table, table);
    }
}

TEST(IndexWriter, EmptyWriterBuildsTheSmallestIndex) {
    IndexWriter writer;
    Rc<Lexarium::Writer::_IndexData> built = writer.to_bytes();
    EXPECT_TRUE(built->key_chunks.empty());
    EXPECT_TRUE(built->data_chunks.empty());
    Blobs blobs = blobs_of(built);
    EXPECT_EQ(blobs.table, std::vector<uint8>(65535, 0));
    EXPECT_EQ(blobs.index, words({0}));
    // One chunk per blob that has bytes.
    EXPECT_EQ(built->table_chunks.size(), 1u);
    EXPECT_EQ(built->index_chunks.size(), 1u);
}

TEST(IndexWriter, KeepsItemsInByteOrderWithTheLastValuePerKey) {
    Blobs blobs = build({{"b", "1"}, {"abc", "2"}, {"ab", "3"}, {"", "4"}, {"ab", "5"}, {"\xC3\xA9", "6"}});
    auto records = key_records(blobs.key);
    ASSERT_EQ(records.size(), 5u);
    std::vector<std::string> keys;
    for (auto& record : records) {
        keys.push_back(record.second);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"", "ab", "abc", "b", "\xC3\xA9"}));
    // Values in the same order: "4", then the replacement "5" for "ab".
    EXPECT_EQ(blobs.data, bytes({1, 0, '4', 1, 0, '5', 1, 0, '2', 1, 0, '1', 1, 0, '6'}));
    // Data pointers follow the value records.
    EXPECT_EQ(records[0].first, 0u);
    EXPECT_EQ(records[4].first, 12u);
    // The empty key has records but no cell: 2 + 3 + 1 + 1 code points.
    EXPECT_EQ(blobs.index.size(), 4u + 4u * 7u);
}

TEST(IndexWriter, RepeatedAndGappedPositionsGetTheirOwnCells) {
    // "aa" is listed twice in row 'a'; "xa" puts 'a' at position 1 too; "ccca"
    // gives row 'a' four cells, the ones at positions 2 stay (0, 0).
    Blobs blobs = build({{"aa", ""}, {"ccca", ""}});
    std::unique_ptr<IndexTable> table(new IndexTable(make_bytes(blobs.table)));
    Rc<Lexarium::IndexRow> a = (*table)[0x61];
    ASSERT_EQ(a->get_cells_count(), 4);
    EXPECT_EQ(a->get_cell_at_index(0)->get_count(), 1u);
    EXPECT_EQ(a->get_cell_at_index(1)->get_count(), 1u);
    EXPECT_EQ(a->get_cell_at_index(2)->get_count(), 0u);
    EXPECT_EQ(a->get_cell_at_index(2)->get_offset(), 0u);
    EXPECT_EQ(a->get_cell_at_index(3)->get_count(), 1u);
    // Both positions of "aa" list key offset 0.
    uint32 first = a->get_cell_at_index(0)->get_offset();
    uint32 second = a->get_cell_at_index(1)->get_offset();
    EXPECT_EQ(blobs.index[first], 0);
    EXPECT_EQ(blobs.index[second], 0);
}

TEST(IndexWriter, LongKeysAreStoredShortenedByWholeCharactersButIndexedWhole) {
    struct Case {
        std::string character;
        size_t count;
        size_t stored_bytes;
    };
    for (const Case& c : {Case{"a", 254, 254}, Case{"\xC3\xA9", 127, 254}, Case{"\xC3\xA9", 128, 254}, Case{"\xC3\xA9", 150, 254},
                          Case{"\xE4\xB8\x80", 84, 252}, Case{"\xE4\xB8\x80", 85, 252}}) {
        SCOPED_TRACE(testing::Message() << c.count << " x " << c.character.size() << "-byte character");
        std::string key = repeat(c.character, c.count);
        Blobs blobs = build({{key, "v"}});
        auto records = key_records(blobs.key);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].second, key.substr(0, c.stored_bytes));
        // Every character of the full key is indexed.
        EXPECT_EQ(blobs.index.size(), 4u + 4u * c.count);
    }
}

TEST(IndexWriter, KeyRecordEncodingShortensWithoutABuild) {
    // A 255-byte ASCII key cannot be built (255 characters), but its key
    // record on its own is the first 254 bytes.
    Lexarium::Writer::_IndexData data;
    IndexWriter writer;
    for (size_t length : {0u, 1u, 254u, 255u, 300u}) {
        SCOPED_TRACE(length);
        my_item_signature_ item(repeat("a", length), bytes_of(""));
        uint32 before = data.pending_keys->size();
        uint32 added = push_word_key_into_data(9, item, &data, writer.converter);
        size_t stored = std::min<size_t>(length, 254);
        EXPECT_EQ(added, 5 + stored);
        EXPECT_EQ(data.pending_keys->size(), before + added);
    }
    data.seal_pending();
    auto records = key_records(concatenate(data.key_chunks));
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[0], std::make_pair(9u, std::string()));
    EXPECT_EQ(records[3].second, repeat("a", 254));
    EXPECT_EQ(records[4].second, repeat("a", 254));
}

TEST(IndexWriter, MixedWidthKeyIsCutBeforeTheCharacterThatWouldOverflow) {
    // 253 ASCII bytes then a two-byte character: 255 bytes, so the last
    // character goes whole and 253 bytes are stored.
    std::string key = repeat("a", 253) + "\xC3\xA9";
    auto records = key_records(build({{key, ""}}).key);
    EXPECT_EQ(records[0].second, repeat("a", 253));
}

TEST(IndexWriter, ValuesUpTo65534BytesAreStored) {
    std::string value(65534, 'x');
    Blobs blobs = build({{"k", value}});
    ASSERT_EQ(blobs.data.size(), 65536u);
    EXPECT_EQ(blobs.data[0], 0xFE);
    EXPECT_EQ(blobs.data[1], 0xFF);
    EXPECT_EQ(blobs.data[65535], 'x');
    EXPECT_EQ(build({{"k", ""}}).data, bytes({0, 0}));
}

TEST(IndexWriter, CodePointU_FFFE_IsIndexedInTheLastRow) {
    Blobs blobs = build({{"a" + utf8(0xFFFE), ""}});
    std::unique_ptr<IndexTable> table(new IndexTable(make_bytes(blobs.table)));
    ASSERT_EQ((*table)[65534]->get_cells_count(), 2);
    EXPECT_EQ((*table)[65534]->get_cell_at_index(1)->get_count(), 1u);
}

TEST(IndexWriter, KeysOfUpTo254CharactersBuild) {
    Blobs blobs = build({{repeat("\xC3\xA9", 254), ""}});
    std::unique_ptr<IndexTable> table(new IndexTable(make_bytes(blobs.table)));
    EXPECT_EQ((*table)[0xE9]->get_cells_count(), 254);
}

TEST(IndexWriter, InvalidUtf8KeysThrowTheConvertersRangeError) {
    for (std::string key : {std::string("a\xC3\xC3"), std::string("\xFF"), std::string("\xC0\x80"),
                            repeat("a", 300) + "\xFF"}) {
        SCOPED_TRACE(testing::PrintToString(key.substr(0, 8)));
        IndexWriter writer;
        writer.add_word(key, bytes_of("v"));  // accepted until the build
        try {
            writer.to_bytes();
            ADD_FAILURE() << "no exception";
        } catch (const std::range_error& error) {
            EXPECT_STREQ(error.what(), "wstring_convert::from_bytes");
        }
    }
}

TEST(IndexWriter, IncompleteCharacterAtTheEndIsStoredButNotIndexed) {
    // The converter drops a sequence cut short at the very end of the text.
    Blobs blobs = build({{"ab\xE2\x82", ""}});
    EXPECT_EQ(key_records(blobs.key)[0].second, "ab\xE2\x82");
    EXPECT_EQ(blobs.index.size(), 4u + 4u * 2u);
}

TEST(IndexWriter, ValueBytesAreReadAtBuildTime) {
    IndexWriter writer;
    Rc<ByteArray> value = bytes_of("old");
    writer.add_word("k", value);
    EXPECT_EQ(value.get_ref_count(), 2u);  // shared, not copied
    value->data[0] = 'n';
    value->data[1] = 'e';
    value->data[2] = 'w';
    EXPECT_EQ(blobs_of(writer.to_bytes()).data, bytes({3, 0, 'n', 'e', 'w'}));
}

TEST(IndexWriter, SameValueUnderTwoKeysIsStoredTwice) {
    IndexWriter writer;
    Rc<ByteArray> value = bytes_of("v");
    writer.add_word("a", value);
    writer.add_word("b", value);
    EXPECT_EQ(blobs_of(writer.to_bytes()).data, bytes({1, 0, 'v', 1, 0, 'v'}));
}

TEST(IndexWriter, ASecondBuildDoublesEveryPostingList) {
    IndexWriter writer;
    for (const char* key : {"ab", "b", "ba"}) {
        writer.add_word(key, bytes_of(key));
    }
    Blobs first = blobs_of(writer.to_bytes());
    Blobs second = blobs_of(writer.to_bytes());
    EXPECT_EQ(second.key, first.key);
    EXPECT_EQ(second.data, first.data);
    // Keys at 0 ("ab"), 7 ("b"), 13 ("ba"). Row 'a': cell 0 [0], cell 1 [13];
    // row 'b': cell 0 [7, 13], cell 1 [0]. Doubled, list by list.
    EXPECT_EQ(first.index, words({0, 0, 13, 7, 13, 0}));
    EXPECT_EQ(second.index, words({0, 0, 0, 13, 13, 7, 13, 7, 13, 0, 0}));
    EXPECT_EQ(second.table, table_blob({{0x61, {{4, 2}, {12, 2}}}, {0x62, {{20, 4}, {36, 2}}}}));
}

TEST(IndexWriterDeathTest, ValueOf65535BytesStopsTheBuild) {
    IndexWriter writer;
    writer.add_word("k", make_zeros(65535));
    EXPECT_DEATH(writer.to_bytes(), value_limit_failure);
}

TEST(IndexWriterDeathTest, CodePointsOutsideTheTableStopTheBuild) {
    for (std::string key : {utf8(0xFFFF), "a" + utf8(0x10000), std::string("a\0b", 3), utf8(0x1F600)}) {
        SCOPED_TRACE(testing::PrintToString(key));
        IndexWriter writer;
        writer.add_word(key, bytes_of(""));
        EXPECT_DEATH(writer.to_bytes(), code_point_failure);
    }
}

TEST(IndexWriterDeathTest, KeyOf255CharactersStopsTheBuild) {
    IndexWriter writer;
    writer.add_word(repeat("x", 255), bytes_of(""));
    EXPECT_DEATH(writer.to_bytes(), assertion_condition("this->cells.size() < 255"));
}
