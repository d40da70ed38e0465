#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "IndexTable.h"
#include "LittleEndian.h"
#include "WriterTestSupport.h"

using Lexarium::IndexTable;
using Lexarium::Writer::IndexWriter;
using namespace quorvex_test;

// (The worked example, byte for byte, is built from C in CApiWriterTest.c;
// an empty writer there and by the tool.)

// Items go out in byte order of their keys, the last value added for a key
// winning; a value shared by two keys is stored for each. The data blob
// takes the values as they are, without a copy of its own.
TEST(IndexWriter, KeepsItemsInByteOrderWithTheLastValuePerKey) {
    IndexWriter writer;
    Rc<ByteArray> shared = bytes_of("s");
    for (const auto& item : Items{{"b", "1"}, {"abc", "2"}, {"ab", "3"}, {"", "4"}, {"ab", "5"}, {"\xC3\xA9", "6"}}) {
        writer.add_word(item.first, bytes_of(item.second));
    }
    writer.add_word("x", shared);
    writer.add_word("y", shared);
    Rc<Lexarium::Writer::_IndexData> built = writer.to_bytes();
    Blobs blobs = blobs_of(built);
    auto records = key_records(blobs.key.data(), blobs.key.size());
    const std::vector<std::pair<uint32, std::string>> expected = {
        {0, ""}, {3, "ab"}, {6, "abc"}, {9, "b"}, {12, "x"}, {15, "y"}, {18, "\xC3\xA9"}};
    EXPECT_EQ(records, expected);
    EXPECT_EQ(blobs.data, (std::vector<uint8>{1, 0, '4', 1, 0, '5', 1, 0, '2', 1, 0, '1', 1, 0, 's', 1, 0, 's', 1, 0, '6'}));
    ASSERT_EQ(built->data_chunks.size(), 2u * 7u);
    EXPECT_EQ(built->data_chunks[9].get(), shared.get());
    EXPECT_EQ(built->data_chunks[11].get(), shared.get());
    // The empty key has records but no cell: 2 + 3 + 1 + 1 + 1 + 1 code points.
    EXPECT_EQ(blobs.index.size(), 4u + 4u * 9u);
}

// "aa" is listed in cells 0 and 1 of row 'a'; "ccca" gives the row a fourth
// cell, and cell 2 between them stays empty, (0, 0).
TEST(IndexWriter, RepeatedAndGappedPositionsGetTheirOwnCells) {
    Blobs blobs = build({{"aa", ""}, {"ccca", ""}});
    EXPECT_EQ(blobs.index, words({0, 0, 0, 7, 7, 7, 7}));
    EXPECT_EQ(blobs.table, table_blob({{0x61, {{4, 1}, {8, 1}, {0, 0}, {12, 1}}}, {0x63, {{16, 1}, {20, 1}, {24, 1}}}}));
}

// A key of more than 254 bytes is stored cut to 254 bytes or fewer, before
// the character that would not fit, but every character is indexed.
TEST(IndexWriter, LongKeysAreStoredShortenedByWholeCharactersButIndexedWhole) {
    struct Case {
        std::string key;
        size_t characters;
        size_t stored_bytes;
    };
    for (const Case& c : {Case{repeat("a", 254), 254, 254}, Case{repeat("\xC3\xA9", 127), 127, 254},
                          Case{repeat("\xC3\xA9", 150), 150, 254}, Case{repeat("\xE4\xB8\x80", 84), 84, 252},
                          Case{repeat("\xE4\xB8\x80", 85), 85, 252}, Case{repeat("a", 253) + "\xC3\xA9", 254, 253}}) {
        SCOPED_TRACE(testing::Message() << c.characters << " characters, " << c.key.size() << " bytes");
        Blobs blobs = build({{c.key, "v"}});
        auto records = key_records(blobs.key.data(), blobs.key.size());
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].second, c.key.substr(0, c.stored_bytes));
        EXPECT_EQ(blobs.index.size(), 4u + 4u * c.characters);
    }
}

// Keys are not checked when added; the build throws the converter's error.
// A sequence cut short at the very end is dropped by the converter: stored,
// but not indexed.
TEST(IndexWriter, InvalidUtf8KeysThrowTheConvertersRangeError) {
    for (std::string key :
         {std::string("a\xC3\xC3"), std::string("\xFF"), std::string("\xC0\x80"), repeat("a", 300) + "\xFF"}) {
        SCOPED_TRACE(testing::PrintToString(key.substr(0, 8)));
        IndexWriter writer;
        writer.add_word(key, bytes_of("v"));
        try {
            writer.to_bytes();
            ADD_FAILURE() << "no exception";
        } catch (const std::range_error& error) {
            EXPECT_STREQ(error.what(), "wstring_convert::from_bytes");
        }
    }
    Blobs blobs = build({{"ab\xE2\x82", ""}});
    EXPECT_EQ(key_records(blobs.key.data(), blobs.key.size())[0].second, "ab\xE2\x82");
    EXPECT_EQ(blobs.index.size(), 4u + 4u * 2u);
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

// A value of 65534 bytes is stored; one of 65535 bytes, a character outside
// the table's rows or a key of 255 characters stop the build.
TEST(IndexWriterDeathTest, WhatTheFormatCannotHoldStopsTheBuild) {
    Blobs largest = build({{"k", std::string(65534, 'x')}});
    EXPECT_EQ(std::vector<uint8>(largest.data.begin(), largest.data.begin() + 3), (std::vector<uint8>{0xFE, 0xFF, 'x'}));
    const std::string value_failure = assertion_failure(
        "src/Writer/IndexWriter.cpp", 23,
        "uint32 push_word_value_into_data(Lexarium::Writer::IndexDataCollection*, const my_item_signature_&)",
        "item.second->length < 65535");
    const std::string row_failure =
        assertion_failure("src/Writer/IndexWriter.cpp", 58,
                          "Rc<Lexarium::Writer::_IndexData> Lexarium::Writer::IndexWriter::to_bytes()",
                          "unicode < 65535 && unicode > 0");
    const std::vector<std::pair<std::pair<std::string, uint32>, std::string>> cases = {
        {{"k", 65535}, value_failure},
        {{utf8(0xFFFF), 0}, row_failure},
        {{"a" + utf8(0x10000), 0}, row_failure},
        {{std::string("a\0b", 3), 0}, row_failure},
        {{repeat("x", 255), 0}, assertion_condition("this->cells.size() < 255")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.first.first.substr(0, 8)));
        IndexWriter writer;
        writer.add_word(c.first.first, make_zeros(c.first.second));
        EXPECT_DEATH(writer.to_bytes(), c.second);
    }
}
