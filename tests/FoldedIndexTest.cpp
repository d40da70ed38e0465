// Indexes made by IndexBuilder, folded and exact, searched with find: each
// item once, by position, then key; within a folded entry what holds the
// keyword as typed first. Compared with the brute-force find over the same
// items, through both readers.
#include <gtest/gtest.h>

#include <random>

#include "Fold.h"
#include "IndexVerifier.h"
#include "Reader/IndexReader.h"
#include "Writer/IndexBuilder.h"
#include "WriterTestSupport.h"

using Hits = std::vector<Lexarium::Reader::Hit>;
using Lexarium::Reader::IndexReader;
using Lexarium::Writer::IndexBuilder;
using Lexarium::Writer::IndexSettings;
using Lexarium::Writer::IndexWriter;
using namespace quorvex_testing;
using namespace quorvex_test;

namespace {

Rc<IndexReader> build_reader(const std::vector<InputItem>& items, bool folded, TemporaryDirectory* files = nullptr) {
    IndexSettings settings;
    settings.folded = folded;
    settings.description.set("name", "test");
    IndexBuilder builder(settings);
    for (const InputItem& item : items) {
        EXPECT_EQ(builder.add(item.key, item.value), "") << item.key;
    }
    IndexWriter writer;
    EXPECT_EQ(builder.fill(writer), "");
    if (files != nullptr) {
        writer.write_into_directory_with_default_file_name(files->path);
        std::string error;
        return IndexReader::from_directory_mapped(files->path, &error);
    }
    return reader_of(blobs_of(writer.to_bytes()));
}

std::vector<FoundItem> find(const IndexReader& reader, const std::string& keyword, uint16 limit) {
    Lexarium::Reader::SearchOptions options;
    options.limit = limit;
    Hits hits;
    std::string error;
    EXPECT_TRUE(reader.find(keyword, options, hits, &error)) << error;
    return found_items(hits);
}

}  // namespace

// Keys from pieces that fold alike (case, NFC and NFD, ß and ss, widths,
// kana), so that many items share an entry and keys hold keywords at
// several positions.
TEST(FindDifferential, AgreesWithBruteForceOnFoldedAndExactIndexes) {
    const char* const pieces[] = {"a", "A", "\xC3\xA4", "\xC3\x84", "a\xCC\x88", "s", "S", "\xC3\x9F", "ss",
                                  "o", "\xC3\xB6", "e", "\xC3\xA9", "b", " ", "\xE3\x82\xAB", "\xE3\x81\x8B",
                                  "\xEF\xBD\xB6", "\xEF\xBC\xA1"};
    std::mt19937 random(7);
    auto text = [&](size_t most) {
        std::string out;
        for (size_t n = 1 + random() % most; n > 0; --n) out += pieces[random() % std::size(pieces)];
        return out;
    };
    for (bool folded : {true, false}) {
        std::vector<InputItem> items;
        for (int i = 0; i < 300; ++i) {
            std::string key = text(6);
            if (key.front() != ' ' && key.back() != ' ') items.push_back(InputItem{key, "v" + std::to_string(i)});
        }
        TemporaryDirectory files;
        Rc<IndexReader> readers[] = {build_reader(items, folded), build_reader(items, folded, &files)};
        ASSERT_FALSE(readers[1].is_null());
        for (int k = 0; k < 60; ++k) {
            std::string keyword = k % 3 == 0 ? items[random() % items.size()].key : text(3);
            if (keyword.front() == ' ' || keyword.back() == ' ') continue;
            std::string searched = keyword;
            if (folded) Lexarium::fold(keyword, &searched);
            for (uint16 limit : {1, 4, 20, 65535}) {
                SCOPED_TRACE((folded ? "folded: \"" : "exact: \"") + keyword + "\" limit " + std::to_string(limit));
                std::vector<FoundItem> expected = reference_find(items, folded, searched, keyword, limit);
                EXPECT_EQ(find(*readers[0], keyword, limit), expected);
                EXPECT_EQ(find(*readers[1], keyword, limit), expected);
            }
        }
    }
}

// The example the order is made for: each spelling finds itself first.
TEST(Find, ItemsOfOneEntryComeAsTypedFirstThenInInputOrder) {
    Rc<IndexReader> reader = build_reader({{"dr\xC3\xB6ge", "1"}, {"Droge", "2"}, {"droge", "3"}}, true);
    EXPECT_EQ(find(*reader, "droge", 20),
              (std::vector<FoundItem>{{"droge", "3", 0}, {"dr\xC3\xB6ge", "1", 0}, {"Droge", "2", 0}}));
    EXPECT_EQ(find(*reader, "dr\xC3\xB6ge", 2), (std::vector<FoundItem>{{"dr\xC3\xB6ge", "1", 0}, {"Droge", "2", 0}}));
}

// What no key can hold is the caller's error, never an abort; what only
// folds to nothing finds nothing.
TEST(Find, KeywordsNoKeyCanHoldComeBackAsErrors) {
    Rc<IndexReader> folded = build_reader({{"haus", "house"}}, true);
    Rc<IndexReader> exact = build_reader({{"haus", "house"}}, false);
    struct Case {
        std::string keyword;
        const char* error;  // "" when the search succeeds with no hits
    };
    const Case cases[] = {
        {"\xFF", "UTF-8"},
        {"ha\xC3", "UTF-8"},
        {"\xF0\x9F\x98\x80", "U+0001..U+FFFE"},
        {std::string(255, 'h'), "255 bytes"},
        {"   ", ""},
    };
    for (const Case& c : cases) {
        for (const Rc<IndexReader>& reader : {folded, exact}) {
            SCOPED_TRACE(c.keyword.substr(0, 10));
            Hits hits{Lexarium::Reader::Hit{}};
            std::string error;
            EXPECT_EQ(reader->find(c.keyword, Lexarium::Reader::SearchOptions(), hits, &error), *c.error == '\0');
            EXPECT_NE(error.find(c.error), std::string::npos) << error;
            EXPECT_TRUE(hits.empty());
        }
    }
    // Folding may grow a keyword past what a key holds.
    Hits hits;
    std::string error;
    EXPECT_FALSE(folded->find(repeat("\xE3\x8C\x80", 84), {}, hits, &error));
    EXPECT_NE(error.find("once folded"), std::string::npos) << error;
}

TEST(IndexBuilder, RefusesWhatAnIndexCannotHold) {
    struct Case {
        bool folded;
        std::string key;
        size_t value_bytes;
        const char* reason;
    };
    const std::string sign = "\xE3\x8C\x80";  // folds to four kana: 12 bytes
    const Case cases[] = {
        {true, "", 1, "empty"},
        {false, "a\xFF", 1, "UTF-8"},
        {false, "\xF0\x9F\x98\x80", 1, "U+0001..U+FFFE"},
        {false, std::string(255, 'k'), 1, "255 bytes"},
        {false, "k", 65535, "65535 bytes"},
        {true, " \t ", 1, "folds to nothing"},
        {true, sign + sign + std::string(240, 'k'), 1, "folds to"},
        {true, "k", 65532, "at most 65531"},
        {true, "K", 65531, "at most 65530"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key.substr(0, 12));
        IndexSettings settings;
        settings.folded = c.folded;
        IndexBuilder builder(settings);
        std::string reason = builder.add(c.key, std::string(c.value_bytes, 'v'));
        EXPECT_NE(reason.find(c.reason), std::string::npos) << reason;
        EXPECT_EQ(builder.item_count(), 0u);
    }
    // Items that fold alike and together outgrow an entry: the build says which.
    IndexBuilder builder;
    for (const char* key : {"Gross", "gross", "GROSS"}) EXPECT_EQ(builder.add(key, std::string(30000, 'v')), "");
    IndexWriter writer;
    std::string problem = builder.fill(writer);
    EXPECT_NE(problem.find("\"Gross\", \"gross\", \"GROSS\" all fold to \"gross\""), std::string::npos) << problem;
}

// The description is the value of the empty key: every copy of the files
// carries it, no search reaches it, and the verifier accepts it. An index
// without one (the plain writer's) is exact.
TEST(IndexDescription, TravelsInTheFilesAndStaysOutOfSearches) {
    Rc<IndexReader> reader = build_reader({{"Haus", "house"}, {"haus", "home"}}, true);
    EXPECT_EQ(reader->folding(), Lexarium::FOLDING_VERSION);
    EXPECT_EQ(reader->description().get("name"), "test");
    EXPECT_EQ(reader->description().get("items"), "2");
    EXPECT_EQ(result_hits(*reader->search("", 100)).size(), 0u);
    Lexarium::IndexVerification verification = Lexarium::IndexVerifier::verify(
        *reader->table_bytes, *reader->index_bytes, *reader->key_bytes, *reader->data_bytes, true, 10);
    EXPECT_TRUE(verification.is_sound());

    Rc<IndexReader> undescribed = reader_of(build({{"", "not a description"}, {"haus", "house"}}));
    EXPECT_EQ(undescribed->folding(), 0u);
    EXPECT_TRUE(undescribed->description().fields.empty());
    EXPECT_EQ(find(*undescribed, " haus ", 20), (std::vector<FoundItem>{{"haus", "house", 0}}));
}
