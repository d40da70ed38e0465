#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "Reader/IndexReader.h"
#include "WriterTestSupport.h"

using Lexarium::Reader::IndexReader;
using Lexarium::Reader::read_file;
using Lexarium::Reader::SearchResult;
using Lexarium::Writer::IndexWriter;
using namespace quorvex_test;
namespace fs = std::filesystem;

namespace {

const std::string DATA = QUORVEX_TEST_DATA_DIR;

typedef Rc<std::vector<Rc<SearchResult>>> Results;

std::string text_of(const Rc<ByteArray>& array) {
    return std::string(reinterpret_cast<const char*>(array->data), array->length);
}

std::vector<std::string> keys_of(const Results& results) {
    std::vector<std::string> keys;
    for (const Rc<SearchResult>& result : *results) {
        keys.push_back(text_of(result->key));
    }
    return keys;
}

const Items ABAB{{"ab", "1"}, {"cab", "2"}, {"abab", "3"}};

}  // namespace

// Hand-worked searches (more come from C, and against a brute-force search
// in SearchDifferentialTest): limit 0 gives the first hit at position 0,
// if there is one; characters are compared from their byte offset in the
// key; a keyword cut inside its last character is decoded without it but
// compared with all of its bytes.
TEST(IndexReaderSearch, HandWorkedExamples) {
    Rc<IndexReader> abab = reader_of(build(ABAB));
    Rc<IndexReader> accents = reader_of(build({{"a\xC3\xA9" "b", "1"}, {"\xC3\xA9t\xC3\xA9", "2"}}));
    struct Case {
        IndexReader* reader;
        std::string keyword;
        uint16 limit;
        std::vector<std::string> keys;
    };
    for (const Case& c : {Case{abab.get(), "b", 20, {"ab", "abab", "cab", "abab"}}, Case{abab.get(), "ba", 20, {"abab"}},
                          Case{abab.get(), "ab", 3, {"ab", "abab", "cab"}}, Case{abab.get(), "b", 0, {}},
                          Case{abab.get(), "c", 0, {"cab"}},
                          Case{accents.get(), "\xC3\xA9", 20, {"\xC3\xA9t\xC3\xA9", "a\xC3\xA9" "b", "\xC3\xA9t\xC3\xA9"}},
                          Case{accents.get(), "\xC3\xA9" "b", 20, {"a\xC3\xA9" "b"}},
                          Case{accents.get(), "a\xC3", 20, {"a\xC3\xA9" "b"}}}) {
        SCOPED_TRACE(testing::PrintToString(c.keyword) + " limit " + std::to_string(c.limit));
        EXPECT_EQ(keys_of(c.reader->search(c.keyword, c.limit)), c.keys);
    }
}

TEST(IndexReaderSearch, OnePositionCountsEveryEntryItExamines) {
    Rc<IndexReader> reader = reader_of(build(ABAB));
    std::vector<Rc<SearchResult>> results;
    uint32 visited = 0;
    // Row 'a', cell 0 lists "ab" and "abab"; a limit of 1 stops after the first.
    EXPECT_EQ(reader->search("ab", 1, &results, visited, 0), 1);
    EXPECT_EQ(visited, 1u);
    EXPECT_EQ(reader->search("ab", 5, &results, visited, 0), 2);
    EXPECT_EQ(visited, 3u);
    // Cell 1 of row 'a' lists "cab"; "ab" at position 1 of it matches.
    EXPECT_EQ(reader->search("ab", 5, &results, visited, 1), 1);
    EXPECT_EQ(reader->search("ab", 5, &results, visited, 200), 0);  // no such cell: nothing counted
    EXPECT_EQ(visited, 4u);
    EXPECT_EQ(results.size(), 4u);
}

TEST(IndexReaderSearch, KeywordsThatSelectNoRowFindNothing) {
    Rc<IndexReader> reader = reader_of(build({{"ab", ""}, {utf8(0xF600) + "x", ""}, {utf8(0xFFFE), ""}}));
    EXPECT_TRUE(reader->search("", 20)->empty());   // row 0, which no key fills
    EXPECT_TRUE(reader->search("z", 20)->empty());  // a character no key holds
    EXPECT_EQ(reader->search(utf8(0xFFFE), 20)->size(), 1u);

    // Above U+FFFF only the low 16 bits choose the row: U+1F600 examines the
    // key holding U+F600, which cannot match its bytes.
    std::vector<Rc<SearchResult>> results;
    uint32 visited = 0;
    EXPECT_EQ(reader->search(utf8(0x1F600), 20, &results, visited, 0), 0);
    EXPECT_EQ(visited, 1u);
    // 0xFFFF has no row at all.
    EXPECT_EQ(reader->search(utf8(0x1FFFF), 20, &results, visited, 0), 0);
    EXPECT_TRUE(reader->search(utf8(0x1FFFF), 20)->empty());
    EXPECT_EQ(visited, 1u);
}

// Keys and values come back as views into the caller's blobs, not copies,
// and outlive the list they came in.
TEST(IndexReaderSearch, ResultsAreViewsIntoTheBlobsAndOutliveTheirList) {
    Blobs blobs = build({{"haus", "house"}, {"maus", "mouse"}});
    Rc<ByteArray> key = make_bytes(blobs.key);
    Rc<ByteArray> data = make_bytes(blobs.data);
    Rc<IndexReader> reader = IndexReader::from_bytes(make_bytes(blobs.table), make_bytes(blobs.index), key, data);
    Rc<SearchResult> kept = reader->search("aus", 20)->at(1);
    EXPECT_EQ(text_of(kept->value), "mouse");
    EXPECT_EQ(kept->key->data, key->data + blobs.key.size() - 4);
    EXPECT_EQ(kept->value->data, data->data + data->length - 5);
}

TEST(IndexReaderSearch, InvalidKeywordThrowsTheConvertersRangeError) {
    Rc<IndexReader> reader = reader_of(build(ABAB));
    for (std::string keyword : {std::string("\xFF"), std::string("a\xC3\xC3"), std::string("\xC0\x80")}) {
        try {
            reader->search(keyword, 20);
            ADD_FAILURE() << "no exception for " << testing::PrintToString(keyword);
        } catch (const std::range_error& error) {
            EXPECT_STREQ(error.what(), "wstring_convert::from_bytes");
        }
    }
    EXPECT_EQ(reader->search("ab", 20)->size(), 4u);  // and the reader still works
}

TEST(IndexReaderSearchDeathTest, DamagedRecordsStopTheSearchInsteadOfReadingPastABlob) {
    for (const char* set : {"posting-list-past-index", "key-record-past-key-blob", "key-length-past-key-blob",
                            "value-past-data-blob", "value-length-past-data-blob"}) {
        SCOPED_TRACE(set);
        Rc<IndexReader> reader = IndexReader::from_directory(DATA + "/" + set);
        EXPECT_DEATH(reader->search("b", 20), assertion_condition("offset + count <= this->length"));
    }
    // The undamaged set answers the same search.
    Rc<IndexReader> good = IndexReader::from_directory(DATA + "/good");
    EXPECT_EQ(keys_of(good->search("b", 20)), (std::vector<std::string>{"b", "ab"}));
}

// From a directory (with or without a trailing slash), from four files and
// from bytes read by read_file(): the same blobs and the same answers.
TEST(IndexReaderLoading, AllLoadersGiveEqualReaders) {
    TemporaryDirectory temporary;
    const std::string& d = temporary.path;
    IndexWriter writer;
    for (const auto& item : Items{{"haus", "house"}, {"stra\xC3\x9F" "e", "street"}, {"\xC3\xBC" "ber", "over"}}) {
        writer.add_word(item.first, bytes_of(item.second));
    }
    writer.write_into_directory_with_default_file_name(d);
    std::vector<Rc<IndexReader>> readers{
        IndexReader::from_directory(d), IndexReader::from_directory(d + "/"),
        IndexReader::from_files(d + "/table.bin", d + "/index.bin", d + "/key.bin", d + "/data.bin"),
        IndexReader::from_bytes(read_file(d + "/table.bin"), read_file(d + "/index.bin"), read_file(d + "/key.bin"),
                                read_file(d + "/data.bin"))};
    for (const Rc<IndexReader>& reader : readers) {
        EXPECT_EQ(contents(reader->table_bytes), contents(readers[0]->table_bytes));
        EXPECT_EQ(contents(reader->data_bytes), contents(readers[0]->data_bytes));
        EXPECT_FALSE(reader->key_bytes->is_borrowed);
        EXPECT_EQ(keys_of(reader->search("\xC3\xBC", 20)), std::vector<std::string>{"\xC3\xBC" "ber"});
        EXPECT_EQ(keys_of(reader->search("e", 20)), (std::vector<std::string>{"\xC3\xBC" "ber", "stra\xC3\x9F" "e"}));
    }
    EXPECT_THROW(read_file(d), fs::filesystem_error);  // a directory has no size

    // Zero-length files load as empty arrays that still have bytes.
    TemporaryDirectory empty;
    IndexWriter().write_into_directory_with_default_file_name(empty.path);
    Rc<IndexReader> reader = IndexReader::from_directory(empty.path);
    EXPECT_EQ(reader->key_bytes->length, 0u);
    EXPECT_NE(reader->key_bytes->data, nullptr);
    EXPECT_TRUE(reader->search("a", 65535)->empty());
}

// A keyword of 255 bytes, a missing file (table.bin looked for first, though
// index.bin, a directory here, comes before it in no order) and a table too
// short for its rows stop the process.
TEST(IndexReaderDeathTest, WhatCannotBeSearchedOrLoadedStopsTheProcess) {
    Rc<IndexReader> reader = reader_of(build(ABAB));
    EXPECT_EQ(reader->search(repeat("a", 254), 20)->size(), 0u);
    EXPECT_DEATH(reader->search(repeat("a", 255), 20),
                 assertion_failure("src/Reader/IndexReader.cpp", 62,
                                   "Rc<std::vector<Rc<Lexarium::Reader::SearchResult> > > "
                                   "Lexarium::Reader::IndexReader::search(const string&, uint16)",
                                   "keyword.length() < 255"));
    TemporaryDirectory temporary;
    fs::create_directory(temporary.path + "/index.bin");
    EXPECT_DEATH(IndexReader::from_directory(temporary.path),
                 assertion_failure("src/Reader/IndexReader.cpp", 27,
                                   "Rc<ByteArray> Lexarium::Reader::read_file(const string&)",
                                   "std::filesystem::exists(file_path)"));
    EXPECT_DEATH(IndexReader::from_directory(DATA + "/table-one-byte-short"), borrow_failure());
    Rc<ByteArray> some = make_bytes({0, 0, 0, 0});
    EXPECT_DEATH(IndexReader::from_bytes(Rc<ByteArray>(), some, some, some),
                 assertion_condition("!this->table_bytes.is_null()"));
}
