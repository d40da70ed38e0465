// Indexes of real dictionaries built by the quorvex tool: the search
// compared, element for element, with the literal walk through the
// one-position search on Debian's FreeDict German-English, and folded
// keywords typed as people type them, on it and on GCIDE.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <random>

#include "Reader/IndexReader.h"
#include "TestSupport.h"

using Lexarium::Reader::IndexReader;
using namespace quorvex_testing;

namespace {

const std::string TOOL = QUORVEX_TOOL;
const std::string DICTIONARY = "/usr/share/dictd/freedict-deu-eng.index";
const std::string GCIDE = "/usr/share/dictd/gcide.index";

// The keys `quorvex search` prints for `keyword`, in order.
std::vector<std::string> tool_keys(const std::string& index, const std::string& keyword, int limit) {
    quorvex_test::ToolRun r =
        quorvex_test::run_program({TOOL, "search", "--limit", std::to_string(limit), index, "--", keyword});
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<std::string> keys;
    for (size_t at = 0; at < r.out.size();) {
        size_t end = r.out.find('\n', at);
        end = end == std::string::npos ? r.out.size() : end;
        keys.push_back(r.out.substr(at, r.out.find('\t', at) - at));
        at = end + 1;
    }
    return keys;
}

// Builds `dictionary` with the tool's defaults into `index`.
bool built(const std::string& dictionary, const std::string& index) {
    return quorvex_test::exit_status(quorvex_test::start_process(
               {TOOL, "build", "-q", "--skip-invalid", "--duplicates", "merge", dictionary, index})) == 0;
}

// The stored keys of key.bin, each split into its UTF-8 characters.
std::vector<std::vector<std::string>> stored_keys(const ByteArray& key_bytes) {
    std::vector<std::vector<std::string>> keys;
    for (const auto& [data_pointer, text] : key_records(key_bytes.data, key_bytes.length)) {
        std::vector<size_t> starts = character_starts(text);
        std::vector<std::string>& characters = keys.emplace_back();
        for (size_t i = 0; i + 1 < starts.size(); ++i) characters.push_back(text.substr(starts[i], starts[i + 1] - starts[i]));
    }
    return keys;
}

}  // namespace

TEST(SearchRealDictionary, AgreesWithTheLiteralWalkOnFreeDictGermanEnglish) {
    if (!std::filesystem::exists(DICTIONARY)) {
        GTEST_SKIP() << DICTIONARY << " is missing; Debian's dict-freedict-deu-eng package provides it";
    }
    TemporaryDirectory directory;
    ASSERT_FALSE(directory.path.empty());
    const std::string index = directory.path + "/index";
    ASSERT_TRUE(built(DICTIONARY, index));
    Rc<IndexReader> reader = IndexReader::from_directory(index);
    std::vector<std::vector<std::string>> keys = stored_keys(*reader->key_bytes);
    ASSERT_GT(keys.size(), 10000u);

    // Common letters, long lists, multi-byte text and keywords found nowhere.
    std::vector<std::string> keywords = {"e", "en", "sch", "ung", "ß", "über", "eseite", "ttttt", " "};
    std::mt19937 random(1905);
    while (keywords.size() < 160) {
        const std::vector<std::string>& key = keys[random() % keys.size()];
        std::string keyword;
        for (size_t i = random() % key.size(), end = i + 1 + random() % 6; i < end && i < key.size(); ++i) {
            keyword += key[i];
        }
        keywords.push_back(keyword);
    }

    size_t compared = 0, with_hits = 0;
    for (const std::string& keyword : keywords) {
        for (uint16 limit : {0, 1, 2, 3, 20, 65535}) {
            std::vector<const uint8*> expected = literal_walk(*reader, keyword, limit);
            ASSERT_EQ(key_pointers(*reader->search(keyword, limit)), expected)
                << "keyword " << testing::PrintToString(keyword) << ", limit " << limit;
            ++compared;
            with_hits += expected.empty() ? 0 : 1;
        }
    }
    // The comparison means something only if most searches find keys. (With
    // limit 0 only keys that begin with the keyword count, so not all do.)
    EXPECT_GT(with_hits, compared * 3 / 4);
    std::cout << compared << " searches compared, " << with_hits << " with results\n";
}

// Capitals, missing umlauts, ss for ß and full-width letters find the
// dictionary's words first; in English, "apple" finds "Apple", and a
// keyword that starts with a dash is a keyword after "--".
TEST(SearchRealDictionary, FoldedKeywordsFindTheWordsAsTyped) {
    TemporaryDirectory directory;
    struct Case {
        const std::string& dictionary;
        const char* keyword;
        const char* expected;  // among the first `within` keys
        int within;
    };
    const Case cases[] = {
        {DICTIONARY, "Haus", "haus", 1},
        {DICTIONARY, "HAUS", "haus", 1},
        {DICTIONARY, "\xEF\xBC\xA8\xEF\xBC\xA1\xEF\xBC\xB5\xEF\xBC\xB3", "haus", 1},
        {DICTIONARY, "uber", "\xC3\xBC" "ber", 1},
        {DICTIONARY, "strasse", "stra\xC3\x9F" "e", 1},
        {DICTIONARY, "STRASSE", "stra\xC3\x9F" "e", 1},
        {DICTIONARY, "\xC3\x9C" "bersetzung", "\xC3\xBC" "bersetzung", 1},
        {GCIDE, "apple", "Apple", 5},
        {GCIDE, "-ness", "-ness", 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.keyword);
        if (!std::filesystem::exists(c.dictionary)) {
            std::cout << c.dictionary << " is missing: \"" << c.keyword << "\" not tried\n";
            continue;
        }
        std::string index = directory.path + "/" + std::filesystem::path(c.dictionary).stem().string();
        if (!std::filesystem::exists(index)) {
            ASSERT_TRUE(built(c.dictionary, index));
        }
        std::vector<std::string> keys = tool_keys(index, c.keyword, c.within);
        EXPECT_NE(std::find(keys.begin(), keys.end(), c.expected), keys.end()) << testing::PrintToString(keys);
    }
}
