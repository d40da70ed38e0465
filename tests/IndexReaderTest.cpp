#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <unistd.h>

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

// A reader over an index built from `items` in memory.
Rc<IndexReader> reader_of(const Items& items) {
    IndexWriter writer;
    for (const auto& item : items) {
        writer.add_word(item.first, bytes_of(item.second));
    }
    Rc<Lexarium::Writer::_IndexData> built = writer.to_bytes();
    Blobs blobs = blobs_of(built);
    return IndexReader::from_bytes(make_bytes(blobs.table), make_bytes(blobs.index), make_bytes(blobs.key),
                                   make_bytes(blobs.data));
}

const std::string read_file_failure =
    assertion_failure("src/Reader/IndexReader.cpp", 27, "Rc<ByteArray> Lexarium::Reader::read_file(const string&)",
                      "std::filesystem::exists(file_path)");

const Items ABAB{{"ab", "1"}, {"cab", "2"}, {"abab", "3"}};

}  // namespace

TEST(IndexReaderSearch, OrdersByPositionThenKeyAndKeepsRepeats) {
    Rc<IndexReader> reader = reader_of(ABAB);
    EXPECT_EQ(keys_of(reader->search("ab", 20)), (std::vector<std::string>{"ab", "abab", "cab", "abab"}));
    EXPECT_EQ(keys_of(reader->search("ab", 65535)), (std::vector<std::string>{"ab", "abab", "cab", "abab"}));
    EXPECT_EQ(keys_of(reader->search("b", 20)), (std::vector<std::string>{"ab", "abab", "cab", "abab"}));
    EXPECT_EQ(keys_of(reader->search("ba", 20)), (std::vector<std::string>{"abab"}));
    EXPECT_EQ(keys_of(reader->search("abc", 20)), std::vector<std::string>{});
}

TEST(IndexReaderSearch, LimitCutsTheListInOrder) {
    Rc<IndexReader> reader = reader_of(ABAB);
    struct Case {
        std::string keyword;
        uint16 limit;
        std::vector<std::string> keys;
    };
    for (const Case& c : {Case{"ab", 2, {"ab", "abab"}}, Case{"ab", 3, {"ab", "abab", "cab"}},
                          Case{"ab", 1, {"ab"}}, Case{"ab", 0, {"ab"}}, Case{"b", 0, {}}, Case{"b", 1, {"ab"}},
                          Case{"c", 0, {"cab"}}, Case{"a", 0, {"ab"}}}) {
        SCOPED_TRACE(testing::Message() << c.keyword << " limit " << c.limit);
        EXPECT_EQ(keys_of(reader->search(c.keyword, c.limit)), c.keys);
    }
}

TEST(IndexReaderSearch, OnePositionCountsEveryEntryItExamines) {
    Rc<IndexReader> reader = reader_of(ABAB);
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
    Rc<IndexReader> reader = reader_of({{"ab", ""}, {utf8(0xF600) + "x", ""}, {utf8(0xFFFE), ""}});
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

TEST(IndexReaderSearch, MultiByteCharactersAreComparedFromTheirByteOffset) {
    Rc<IndexReader> reader = reader_of({{"a\xC3\xA9" "b", "1"}, {"\xC3\xA9t\xC3\xA9", "2"}});
    EXPECT_EQ(keys_of(reader->search("\xC3\xA9", 20)),
              (std::vector<std::string>{"\xC3\xA9t\xC3\xA9", "a\xC3\xA9" "b", "\xC3\xA9t\xC3\xA9"}));
    EXPECT_EQ(keys_of(reader->search("\xC3\xA9" "b", 20)), std::vector<std::string>{"a\xC3\xA9" "b"});
    EXPECT_EQ(keys_of(reader->search("b", 20)), std::vector<std::string>{"a\xC3\xA9" "b"});
    EXPECT_EQ(keys_of(reader->search("t\xC3\xA9", 20)), std::vector<std::string>{"\xC3\xA9t\xC3\xA9"});
    // A keyword cut inside its last character: decoded without it, compared
    // with all of its bytes.
    EXPECT_EQ(keys_of(reader->search("a\xC3", 20)), std::vector<std::string>{"a\xC3\xA9" "b"});
}

TEST(IndexReaderSearch, MatchesStayInsideTheStoredKey) {
    // 150 two-byte characters: stored as the first 127, indexed as all 150.
    std::string key = repeat("\xC3\xA9", 150);
    Rc<IndexReader> reader = reader_of({{key, "v"}, {"\xC3\xA9", "w"}});
    Results all = reader->search("\xC3\xA9", 65535);
    // Position 0 lists both keys; positions 1..126 the long key only; the
    // positions past its stored text find nothing.
    EXPECT_EQ(all->size(), 2u + 126u);
    EXPECT_EQ(text_of(all->at(0)->key), "\xC3\xA9");
    EXPECT_EQ(text_of(all->at(1)->key), repeat("\xC3\xA9", 127));
}

TEST(IndexReaderSearch, ResultsAreViewsIntoTheBlobsAndOutliveTheirList) {
    Rc<ByteArray> table, index, key, data;
    {
        IndexWriter writer;
        writer.add_word("haus", bytes_of("house"));
        writer.add_word("maus", bytes_of("mouse"));
        Blobs blobs = blobs_of(writer.to_bytes());
        table = make_bytes(blobs.table);
        index = make_bytes(blobs.index);
        key = make_bytes(blobs.key);
        data = make_bytes(blobs.data);
    }
    Rc<IndexReader> reader = IndexReader::from_bytes(table, index, key, data);
    Rc<SearchResult> kept;
    {
        Results results = reader->search("aus", 20);
        ASSERT_EQ(results->size(), 2u);
        kept = results->at(1);
    }
    EXPECT_EQ(text_of(kept->key), "maus");
    EXPECT_EQ(text_of(kept->value), "mouse");
    EXPECT_TRUE(kept->key->is_borrowed);
    EXPECT_TRUE(kept->value->is_borrowed);
    EXPECT_GE(kept->key->data, key->data);
    EXPECT_LE(kept->key->data + kept->key->length, key->data + key->length);
    EXPECT_GE(kept->value->data, data->data);
    EXPECT_LE(kept->value->data + kept->value->length, data->data + data->length);
    // The reader shares the caller's arrays instead of copying them.
    EXPECT_EQ(reader->key_bytes.get(), key.get());
    EXPECT_EQ(key.get_ref_count(), 2u);
}

TEST(IndexReaderSearch, KeywordLengthLimitIs254Bytes) {
    std::string longest = repeat("a", 254);
    Rc<IndexReader> reader = reader_of({{longest, "v"}});
    EXPECT_EQ(reader->search(longest, 20)->size(), 1u);
    EXPECT_EQ(reader->search(repeat("\xC3\xA9", 127), 20)->size(), 0u);
}

TEST(IndexReaderSearch, InvalidKeywordThrowsTheConvertersRangeError) {
    Rc<IndexReader> reader = reader_of(ABAB);
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

TEST(IndexReaderSearchDeathTest, KeywordOf255BytesStopsTheProcess) {
    Rc<IndexReader> reader = reader_of(ABAB);
    EXPECT_DEATH(reader->search(repeat("a", 255), 20),
                 assertion_failure("src/Reader/IndexReader.cpp", 62,
                                   "Rc<std::vector<Rc<Lexarium::Reader::SearchResult> > > "
                                   "Lexarium::Reader::IndexReader::search(const string&, uint16)",
                                   "keyword.length() < 255"));
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

TEST(IndexReaderLoading, ThreeLoadersGiveEqualReaders) {
    TemporaryDirectory temporary;
    IndexWriter writer;
    for (const auto& item : Items{{"haus", "house"}, {"straße", "street"}, {"über", "over"}, {"zeitung", "paper"}}) {
        writer.add_word(item.first, bytes_of(item.second));
    }
    writer.write_into_directory_with_default_file_name(temporary.path);
    const std::string& d = temporary.path;

    std::vector<Rc<IndexReader>> readers{
        IndexReader::from_directory(d),
        IndexReader::from_directory(d + "/"),  // "dir//table.bin" names the same file
        IndexReader::from_files(d + "/table.bin", d + "/index.bin", d + "/key.bin", d + "/data.bin"),
        IndexReader::from_bytes(read_file(d + "/table.bin"), read_file(d + "/index.bin"), read_file(d + "/key.bin"),
                                read_file(d + "/data.bin"))};
    for (const Rc<IndexReader>& reader : readers) {
        EXPECT_EQ(contents(reader->table_bytes), contents(readers[0]->table_bytes));
        EXPECT_EQ(contents(reader->data_bytes), contents(readers[0]->data_bytes));
        for (const char* keyword : {"u", "stra\xC3\x9f" "e", "\xC3\xBC", "ung", "x"}) {
            EXPECT_EQ(keys_of(reader->search(keyword, 20)), keys_of(readers[0]->search(keyword, 20))) << keyword;
        }
    }
    EXPECT_EQ(keys_of(readers[0]->search("u", 20)), (std::vector<std::string>{"haus", "zeitung"}));
    EXPECT_EQ(keys_of(readers[0]->search("\xC3\xBC", 20)), std::vector<std::string>{"\xC3\xBC" "ber"});
}

TEST(IndexReaderLoading, EmptyIndexLoadsFromZeroLengthFiles) {
    TemporaryDirectory temporary;
    IndexWriter writer;
    writer.write_into_directory_with_default_file_name(temporary.path);
    Rc<IndexReader> reader = IndexReader::from_directory(temporary.path);
    EXPECT_EQ(reader->key_bytes->length, 0u);
    EXPECT_NE(reader->key_bytes->data, nullptr);
    EXPECT_TRUE(reader->search("a", 65535)->empty());
}

TEST(IndexReaderLoading, ReadFileReportsWhatTheSystemSays) {
    TemporaryDirectory temporary;
    std::string file = temporary.path + "/f";
    { std::ofstream(file) << "abc"; }
    EXPECT_EQ(contents(read_file(file)), (std::vector<uint8>{'a', 'b', 'c'}));
    EXPECT_FALSE(read_file(file)->is_borrowed);
    EXPECT_THROW(read_file(temporary.path), fs::filesystem_error);  // a directory has no size
}

TEST(IndexReaderLoadingDeathTest, MissingFilesStopTheProcessTableFirst) {
    TemporaryDirectory temporary;
    EXPECT_DEATH(read_file(temporary.path + "/missing"), read_file_failure);
    // index.bin is a directory: reading it first would throw, but table.bin
    // is looked for first and its absence stops the process.
    fs::create_directory(temporary.path + "/index.bin");
    EXPECT_DEATH(IndexReader::from_directory(temporary.path), read_file_failure);
}

TEST(IndexReaderLoadingDeathTest, ShortOrMissingTableStopsTheProcess) {
    EXPECT_DEATH(IndexReader::from_directory(DATA + "/table-one-byte-short"), borrow_failure());
    Rc<ByteArray> some = make_bytes({0, 0, 0, 0});
    // Blobs in the wrong order: the 4-byte index blob parsed as a table.
    EXPECT_DEATH(IndexReader::from_bytes(some, make_zeros(65535), some, some), borrow_failure());
    EXPECT_DEATH(IndexReader::from_bytes(Rc<ByteArray>(), some, some, some),
                 assertion_condition("!this->table_bytes.is_null()"));
}
